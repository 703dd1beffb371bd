// ListRender and ListUnknowRender through the command table, on a simulated appliance: its
// media agent lists two DLNA renderers, avahi-browse two Chromecast receivers (one of them on
// two interfaces) and the shared MPD three local outputs. Then the render-type filter and the
// render cache refresh of a listing on their own.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "DiscoveryTestSupport.h"
#include "discovery/RenderListing.h"
#include "unit/support/Players.h"

namespace {

const char kTvId[] = "uuid:5f9ec1b3-ed59-49bb-8530-745e1d0a1c01";
const char kSpeakerId[] = "uuid:0b7d3c22-4a61-4f0e-9d2a-3e5c7b9a8f12";
const char kLivingCastId[] = "7f3a0c1e5d2b4c8a9e6f1a2b3c4d5e6f";
const char kKitchenCastId[] = "9c2e41d7b0a54f3e8a1b2c3d4e5f6a7b";

}  // namespace

class ListRenderSimTest : public DiscoveryRootTest {
protected:
    void SetUp() override {
        DiscoveryRootTest::SetUp();
        renderlisting::resetCache();
        s_now = 1'000'000;
        renderlisting::setClock([] { return s_now; });
    }
    void TearDown() override {
        renderlisting::setClock(nullptr);
        renderlisting::resetCache();
        DiscoveryRootTest::TearDown();
    }

    // The handler called as the dispatcher calls it; the answer lands in `out`, else in `answer`.
    int run(const std::string& command, const char* renderType = nullptr, XMLNode* out = nullptr) {
        XMLNode request = XMLNode::createXMLTopNode("root");
        request.addChild("command").addText(command.c_str());
        XMLNode params = request.addChild("paramList");
        if (renderType) params.addChild("renderType").addText(renderType);
        XMLNode& reply = out ? *out : (answer = XMLNode());
        return command == "ListRender" ? list_render(manager, request, reply) : list_unknow_render(manager, request, reply);
    }
    int listRender(const char* renderType = nullptr) { return run("ListRender", renderType); }
    std::map<std::string, XMLNode> devices() {
        std::map<std::string, XMLNode> out;
        for (int i = 0; i < answer.nChildNode("device"); ++i)
            out[childText(answer.getChildNode("device", i), "deviceId")] = answer.getChildNode("device", i);
        return out;
    }
    std::multiset<std::string> kinds() {  // the listed devices' types
        std::multiset<std::string> out;
        for (int i = 0; i < answer.nChildNode("device"); ++i)
            out.insert(xmltoa(answer.getChildNode("device", i).getAttribute("Type")));
        return out;
    }
    renderCacheInfo_s cached(const std::string& id) {
        ThreadReadLock lock(manager.getRWLock());
        renderCacheInfo_s r;
        r.type = 0xdeadu;  // stays when the render is not cached
        manager.searchRenderInCacheLocked(id, r);
        return r;
    }
    int calls(const std::string& program, const std::string& argument) { return callLog.count(program, {argument}); }
    // Runs of the media agent's list, of avahi-browse, of mpc outputs and of the package check.
    std::vector<int> refreshes() {
        return {calls("tessaly", "list"), calls("avahi-browse", "-rkpt"), calls("mpc", "outputs"), calls("yarrow", "Enable")};
    }
    void simctl(std::vector<std::string> args) {
        args.insert(args.begin(), at("var/sim/simctl"));
        const ProcessResult r = runProcess(args);
        ASSERT_TRUE(r.ok()) << r.output;
    }

    static inline time_t s_now = 0;
    CPlayerManager manager{nullptr, 3600};
    XMLNode answer;
};

TEST_F(ListRenderSimTest, ListsEverySourceFillsTheRenderCacheAndReusesItForTenSeconds) {
    using namespace playertype;
    ASSERT_EQ(listRender(), 0);
    EXPECT_STREQ(childText(answer, "status"), "0");
    EXPECT_EQ(kinds(), (std::multiset<std::string>{"DLNA", "DLNA", "Chromecast", "Chromecast", "ALSA", "ALSA", "ALSA"}));
    // The parsers' own fields are their tests'; here what the listing adds.
    auto devs = devices();
    EXPECT_STREQ(childText(devs["usb_dac"], "allow_apps"), "music,video");
    EXPECT_STREQ(childText(devs["usb_dac"], "inuse_apps"), "music");
    XMLNode hdmi = devs["HDMI_hdmi-3"];
    // The platform's monitor-name filter strikes the letters of "monitor_name" from the line.
    EXPECT_STREQ(childText(hdmi, "firendlyName"), "Living Room TV");
    EXPECT_TRUE(hdmi.getChildNode("allow_apps").isEmpty());

    EXPECT_EQ(cached(kTvId).IP, "192.168.1.30");
    EXPECT_EQ(cached(kSpeakerId).type, kDlna | kCapAudio);
    EXPECT_EQ(cached(kKitchenCastId).type, kChromecast | kCapAudio);  // a speaker-only receiver
    EXPECT_EQ(cached(kLivingCastId).type, kChromecast | kCapVideo | kCapPhoto | kCapAudio);
    EXPECT_EQ(cached(kLivingCastId).port, 8009);
    EXPECT_EQ(cached("HDMI_hdmi-3").type, kAlsa | kAlsaHdmi | kCapAudio);
    EXPECT_EQ(cached("usb_dac").type, kAlsa | kAlsaUsb | kCapAudio);
    EXPECT_EQ(cached("usb_dac").card, "1");
    EXPECT_EQ(cached("HDMI_hdmi-3").device, "3");

    // The exact command lines the platform programs received.
    EXPECT_EQ(refreshes(), (std::vector<int>{1, 3, 1, 1}));
    for (const char* type : {"_airplay._tcp", "_raop._tcp", "_googlecast._tcp"})
        EXPECT_EQ(calls("avahi-browse", type), 1) << type;

    // Every source is reused for ten seconds.
    simctl({"renderer", kSpeakerId, "absent"});

    s_now += 10;
    ASSERT_EQ(listRender(), 0);
    EXPECT_EQ(refreshes(), (std::vector<int>{1, 3, 1, 1}));
    EXPECT_EQ(devices().count(kSpeakerId), 1u);
    EXPECT_EQ(devices().count(kKitchenCastId), 1u);  // the stored browse output is listed again
    EXPECT_EQ(devices().count("usb_dac"), 1u);

    s_now += 1;
    ASSERT_EQ(listRender(), 0);
    EXPECT_EQ(refreshes(), (std::vector<int>{2, 6, 2, 2}));
    EXPECT_EQ(devices().count(kSpeakerId), 0u);
    // The vanished renderer stays cached, no longer marked as found.
    EXPECT_EQ(cached(kSpeakerId).found, 0);
    EXPECT_EQ(cached(kTvId).found, 1);
}

TEST_F(ListRenderSimTest, ConcurrentListingsShareOneRefresh) {
    constexpr int kCallers = 8;
    std::vector<int> listed(kCallers, -1);
    std::vector<std::thread> callers;
    for (int c = 0; c < kCallers; ++c)
        callers.emplace_back([&, c] {
            XMLNode reply;
            if (run("ListRender", nullptr, &reply) == 0) listed[c] = reply.nChildNode("device");
        });
    for (std::thread& t : callers) t.join();
    for (int n : listed) EXPECT_EQ(n, 7);
    EXPECT_EQ(refreshes(), (std::vector<int>{1, 3, 1, 1}));
}

TEST_F(ListRenderSimTest, RenderTypeFiltersTheSources) {
    ASSERT_EQ(listRender("dlna+alsa"), 0);
    EXPECT_EQ(kinds(), (std::multiset<std::string>{"DLNA", "DLNA", "ALSA", "ALSA", "ALSA"}));
    EXPECT_EQ(calls("avahi-browse", "-rkpt"), 0);

    // A source the first listing left out is refreshed when it is asked for.
    ASSERT_EQ(listRender("chromecast"), 0);
    EXPECT_EQ(kinds(), (std::multiset<std::string>{"Chromecast", "Chromecast"}));
    EXPECT_EQ(calls("avahi-browse", "_googlecast._tcp"), 1);
    EXPECT_EQ(calls("avahi-browse", "_airplay._tcp"), 0);

    ASSERT_EQ(listRender(), 0);
    EXPECT_EQ(answer.nChildNode("device"), 7);
    EXPECT_EQ(refreshes(), (std::vector<int>{1, 3, 1, 1}));
}

TEST_F(ListRenderSimTest, WithoutTheMediaServerPackageOnlyDlnaIsListed) {
    const std::string conf = slurp("/etc/config/modl.conf");
    put("/etc/config/modl.conf", "[XUMA]\nEnable = FALSE\n");
    ASSERT_EQ(listRender(), 0);
    EXPECT_EQ(kinds(), (std::multiset<std::string>{"DLNA", "DLNA"}));
    EXPECT_EQ(calls("mpc", "outputs"), 0);

    // Without a package name the Chromecast receivers are listed by name.
    ASSERT_EQ(run("ListUnknowRender"), 0);
    EXPECT_STREQ(childText(answer, "status"), "0");
    ASSERT_EQ(answer.nChildNode("device"), 2);
    EXPECT_STREQ(answer.getChildNode("device", 0).getAttribute("Type"), "Chromecast");
    EXPECT_STREQ(childText(answer.getChildNode("device", 0), "deviceName"), "Unknown");
    EXPECT_STREQ(childText(answer.getChildNode("device", 1), "deviceName"), "Kitchen speaker");
    EXPECT_EQ(calls("avahi-browse", "-krpt"), 1);

    put("/etc/config/modl.conf", conf);
    ASSERT_EQ(run("ListUnknowRender"), 0);
    EXPECT_EQ(answer.nChildNode("device"), 0);
    EXPECT_EQ(calls("avahi-browse", "-krpt"), 1);
}

TEST_F(ListRenderSimTest, LostAnalogOutputIsListedAfterTheMusicServiceRestarts) {
    put("/etc/model.conf", "[System IO]\nVOICE_ALERT_SUPPORT = 1\n");
    put("/opt/XUMA/restarts", "");
    // The restart brings the analog output back.
    put("/opt/XUMA/Morrat.sh",
        "#!/usr/bin/python3 -S\nimport os, sys\n"
        "open('" + at("opt/XUMA/restarts") + "', 'a').write(' '.join(sys.argv[1:]) + '\\n')\n"
        "os.execv('" + at("var/sim/simctl") + "', ['simctl', 'output', 'Analog', 'present'])\n",
        0755);
    simctl({"output", "Analog", "absent"});

    ASSERT_EQ(listRender("alsa"), 0);
    EXPECT_EQ(slurp("/opt/XUMA/restarts"), "restart\n");
    EXPECT_EQ(calls("mpc", "outputs"), 2);
    EXPECT_EQ(kinds(), (std::multiset<std::string>{"ALSA", "ALSA", "ALSA"}));
    EXPECT_EQ(devices().count("analog"), 1u);
    ASSERT_EQ(listRender("alsa"), 0);
    EXPECT_EQ(slurp("/opt/XUMA/restarts"), "restart\n") << "restarted only while the output is missing";
}

TEST(RenderTypeMask, NamesAndHexMasks) {  // the names in use are the listing tests'
    for (auto [text, mask] : {std::pair("DLNA+AirPlay+ChromeCast", 0x7u), std::pair("bogus+alsa+", 0x8u), std::pair("bogus", 0u),
                              std::pair("0x1f", 0x1fu)})
        EXPECT_EQ(renderlisting::parseRenderTypeMask(text), mask) << text;
}

TEST(RenderCacheRefresh, TypeAndCapabilityBits) {
    using namespace playertype;
    CPlayerManager manager(nullptr, 3600);
    auto cached = [&](const char* id, renderCacheInfo_s& out) {
        ThreadReadLock lock(manager.getRWLock());
        return manager.searchRenderInCacheLocked(id, out) == 0;
    };
    XMLNode reply = XMLNode::parseString(
        "<root><status>0</status><device Type=\"ALSA\" Subtype=\"SPDIF\"><deviceId>spdif</deviceId><deviceName>Optical</deviceName>"
        "<type>audio</type><ip>4</ip></device>"
        "<device Type=\"AirPlay\"><deviceName>Box</deviceName><ip>10.0.0.8</ip><deviceId>0011</deviceId>"
        "<type protocol=\"airplay\" port=\"7100\">video,photo</type></device>"
        "<device Type=\"Raop\"><deviceName>Amp</deviceName><ip>10.0.0.5</ip><deviceId>amp</deviceId>"
        "<type protocol=\"raop\" port=\"5000\" cn=\"pcm\" et=\"rsa\">audio</type></device>"
        "<device Type=\"Raop\"><deviceName>Old amp</deviceName><ip>10.0.0.6</ip><deviceId>amp2</deviceId>"
        "<type protocol=\"raop\" port=\"5000\" cn=\"pcm\" et=\"notSupport\">audio</type></device>"
        "<device Type=\"Raop\"><deviceName>Alac</deviceName><ip>10.0.0.4</ip><deviceId>amp3</deviceId>"
        "<type protocol=\"raop\" port=\"5000\" cn=\"alac\" et=\"rsa\">audio</type></device>"
        "<device Type=\"DLNA\"><deviceName>No id</deviceName><type>video</type></device>"  // as the agent may list them
        "<device Type=\"DLNA\"><deviceName>Empty type</deviceName><deviceId>e</deviceId><type/></device></root>",
        "root");
    renderlisting::updateRenderCache(manager, reply);

    renderCacheInfo_s r;
    for (auto [id, type, port] : {std::tuple("spdif", kAlsa | kCapAudio, 0),
                                  std::tuple("0011", kAirplay | kCapVideo | kCapPhoto, 7100),
                                  std::tuple("amp", kRaop | kCapAudio, 5000)}) {
        ASSERT_TRUE(cached(id, r)) << id;
        EXPECT_EQ(r.type, type) << id;
        if (port) {
            EXPECT_EQ(r.port, port) << id;
        }
    }
    EXPECT_EQ(r.encrypted, 1);  // of "amp", read last
    for (const char* refused : {"amp2", "amp3", "e"}) EXPECT_FALSE(cached(refused, r)) << refused;
}
