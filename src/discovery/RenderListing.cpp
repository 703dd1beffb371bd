#include "discovery/RenderListing.h"

#include "agent/MediaAgent.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <atomic>
#include <optional>
#include <string>
#include <string_view>

#include "util/AppRoot.h"
#include "util/Log.h"
#include "discovery/AvahiParse.h"
#include "discovery/ListingCache.h"
#include "discovery/DiscoveryProcess.h"
#include "discovery/DeviceDocs.h"
#include "protocol/ParamXmlWrapper.h"
#include "player/CPlayerManager.h"
#include "player/PlayerTypes.h"
#include "thread/ThreadLock.h"

using namespace ParamXmlWrapper;

namespace renderlisting {

namespace {

struct renderTypeName_s {
    uint32_t bit;
    const char* name;
};
const renderTypeName_s kRenderTypes[] = {
    {kFilterDlna, "dlna"},   {kFilterAirplay, "airplay"},   {kFilterChromecast, "chromecast"},
    {kFilterAlsa, "alsa"},   {kFilterTavriner, "tavriner"}, {0, nullptr},
};

// The local outputs as listed, and listed again after the music service was restarted for a
// missing analog output (empty when it was not).
struct localOutputs_s {
    std::string outputs;
    std::string afterRestart;
};

// What ListRender reuses between refreshes, one cache per source so that a filtered listing
// refreshes only what it lists and sources refresh side by side. One per process.
struct listingCache_s {
    discovery::ListingCache<bool> modlEnabled;
    discovery::ListingCache<std::string> agentList;     // the media agent's renderer list
    discovery::ListingCache<std::string> castBrowse;    // the resolved lines of avahi-browse: Chromecast receivers,
    discovery::ListingCache<std::string> airplayBrowse;  // AirPlay video receivers,
    discovery::ListingCache<std::string> raopBrowse;     // and AirPlay speakers
    discovery::ListingCache<localOutputs_s> localOutputs;
    std::atomic<Clock> clock{nullptr};

    time_t now() const {
        const Clock c = clock.load();
        return c ? c() : ::time(nullptr);
    }
};

listingCache_s& listingCache() {
    static listingCache_s cache;
    return cache;
}

long secondsSince(time_t start) { return static_cast<long>(::time(nullptr) - start); }

}  // namespace

uint32_t parseRenderTypeMask(const char* text) {
    if (!text) return 0;
    if (std::strstr(text, "0x")) return static_cast<uint32_t>(std::strtoul(text, nullptr, 16));
    uint32_t mask = 0;
    std::string_view rest(text);
    while (true) {
        const size_t plus = rest.find('+');
        const std::string name(rest.substr(0, plus));
        for (const renderTypeName_s* row = kRenderTypes; row->name; ++row)
            if (strcasecmp(row->name, name.c_str()) == 0) mask |= row->bit;
        if (plus == std::string_view::npos) break;
        rest.remove_prefix(plus + 1);
    }
    return mask;
}

bool isModlEnabled() {
    std::string out;
    if (discovery::runListing({approot::path("/sbin/yarrow"), "-f", approot::path("/etc/config/modl.conf"), "-d",
                               "FALSE", "-c", "XUMA", "Enable"},
                              out, 10) != 0)
        return false;
    if (out.empty()) {
        LOG_ERR("Error when check is modl enable");
        return false;
    }
    return out.compare(0, 4, "TRUE") == 0;
}

void updateRenderCache(CPlayerManager& playerManager, XMLNode& reply) {
    using namespace playertype;
    ThreadWriteLock lock(playerManager.getRWLock());
    playerManager.clearRenderFoundFlagsLocked();

    int i = 0;
    for (XMLNode dev = reply.getChildNode("device", &i); !dev.isEmpty(); dev = reply.getChildNode("device", &i)) {
        const char* name = dev.getChildNode("deviceName").getText();
        const char* id = dev.getChildNode("deviceId").getText();
        const char* ip = dev.getChildNode("ip").getText();
        XMLNode typeNode = dev.getChildNode("type");
        const char* caps = typeNode.getText();
        if (!caps || !*caps || !name || !*name || !id || !*id) continue;

        const char* kind = dev.getAttribute("Type");
        const char* protocol = typeNode.getAttribute("protocol");
        uint32_t type = 0;
        bool raop = false;
        if (kind && std::strcmp(kind, "DLNA") == 0) {
            type = kDlna;
        } else if (kind && std::strcmp(kind, "ALSA") == 0) {
            type = kAlsa;
            const char* sub = dev.getAttribute("Subtype");
            if (sub && std::strcmp(sub, "ANALOG") == 0) type |= kAlsaAnalog;
            else if (sub && std::strcmp(sub, "HDMI") == 0) type |= kAlsaHdmi;
            else if (sub && std::strcmp(sub, "USB") == 0) type |= kAlsaUsb;
        } else if (kind && std::strcmp(kind, "TAVRINER") == 0) {
            type = kLocalHdmi;
        } else if (protocol && std::strcmp(protocol, "airplay") == 0) {
            type = kAirplay;
        } else if (protocol && std::strcmp(protocol, "chromecast") == 0) {
            type = kChromecast;
        } else if (protocol && std::strcmp(protocol, "raop") == 0) {
            type = kRaop;
            raop = true;
        } else {
            continue;
        }
        // A video renderer is marked as showing photos too.
        if (std::strstr(caps, "video")) type |= kCapVideo | kCapPhoto;
        if (std::strstr(caps, "audio")) type |= kCapAudio;

        if (raop) {
            // Only receivers that take PCM in an encryption the sender has are usable.
            const char* cn = typeNode.getAttribute("cn");
            const char* et = typeNode.getAttribute("et");
            if (!cn || std::strcmp(cn, "pcm") != 0 || !et || std::strcmp(et, "notSupport") == 0) continue;
            playerManager.addRenderInCache(id, name, ip, type, et, std::atoi(xmltoa(typeNode.getAttribute("port"))),
                                           "", "");
        } else if (type & kAirplay) {
            // The advertised port; 7000 only when none is given.
            const int port = std::atoi(xmltoa(typeNode.getAttribute("port")));
            playerManager.addRenderInCache(id, name, ip, type, nullptr, port > 0 ? port : 7000, "", "",
                                           xmltoa(dev.getChildNode("authMethod").getText()));
        } else if (type & kChromecast) {
            // Groups and some receivers listen elsewhere than on the usual 8009.
            const int port = std::atoi(xmltoa(typeNode.getAttribute("port")));
            playerManager.addRenderInCache(id, name, ip, type, nullptr, port > 0 ? port : 8009, "", "");
        } else if (type & kAlsa) {
            playerManager.addRenderInCache(id, name, ip, type, nullptr, 7000, xmltoa(dev.getAttribute("card")),
                                           xmltoa(dev.getAttribute("device")));
        } else {
            playerManager.addRenderInCache(id, name, ip, type, nullptr, 7000, "", "");
        }
    }
}

void setClock(Clock clock) { listingCache().clock = clock; }

void resetCache() {
    listingCache_s& cache = listingCache();
    cache.modlEnabled.reset();
    cache.agentList.reset();
    cache.castBrowse.reset();
    cache.airplayBrowse.reset();
    cache.raopBrowse.reset();
    cache.localOutputs.reset();
}

}  // namespace renderlisting

int list_render(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer) {
    using namespace renderlisting;
    listingCache_s& cache = listingCache();
    const time_t now = cache.now();
    const bool modlEnabled =
        cache.modlEnabled.get(now, kRefreshSeconds, [] { return std::optional<bool>(isModlEnabled()); });

    uint32_t mask = 0;
    XMLNode typeParam;
    if (get_param_node_with_check_text(request, typeParam, "renderType") == 0)
        mask = parseRenderTypeMask(typeParam.getText());
    auto wanted = [mask](uint32_t bit) { return mask == 0 || (mask & bit) != 0; };

    create_status_xml_doc(answer, "0", nullptr);
    time_t start = ::time(nullptr);
    if (wanted(kFilterDlna)) {
        const std::string agentList = cache.agentList.get(now, kRefreshSeconds, [] {
            std::string out;
            if (discovery::runListing(mediaagent::command("list"), out) == 0) return std::optional(std::move(out));
            LOG_ERR("tessaly ... fail");
            return std::optional<std::string>();
        });
        dlna_device_doc_gen(agentList, answer);
    }
    LOG_TRACE("using %ld sec for list DLNA", secondsSince(start));

    start = ::time(nullptr);
    // The resolved lines of one mDNS service type.
    auto browse = [&](const char* serviceType, discovery::ListingCache<std::string>& kept) {
        return kept.get(now, kRefreshSeconds, [serviceType] {
            std::string out;
            if (discovery::runListing({approot::path("/usr/sbin/avahi-browse"), "-rkpt", serviceType}, out) == 0)
                return std::optional(discovery::keepLinesContaining(out, "=;"));
            LOG_ERR("avahi-browse %s ... fail", serviceType);
            return std::optional<std::string>();
        });
    };
    if (modlEnabled && wanted(kFilterAirplay)) {
        if (gen_avahi_device(0, browse("_airplay._tcp", cache.airplayBrowse), answer) != 0) LOG_ERR("Airplay ... fail");
        if (gen_avahi_device(2, browse("_raop._tcp", cache.raopBrowse), answer) != 0) LOG_ERR("Raop ... fail");
        dropSpeakersListedAsAirplay(answer);
    }
    if (modlEnabled && wanted(kFilterChromecast)) {
        if (gen_avahi_device(1, browse("_googlecast._tcp", cache.castBrowse), answer) != 0)
            LOG_ERR("Chromecast ... fail");
    }
    LOG_TRACE("using %ld sec for list airplay and chromecast", secondsSince(start));

    start = ::time(nullptr);
    if (modlEnabled && wanted(kFilterAlsa)) {
        const localOutputs_s local = cache.localOutputs.get(now, kRefreshSeconds, [] {
            const std::vector<std::string> outputsCmd{approot::path("/tmp/larkd/bin/mpc"), "-p", "8893", "outputs"};
            localOutputs_s found;
            if (discovery::runListing(outputsCmd, found.outputs) != 0) return std::optional<localOutputs_s>();
            // A restart of the music service brings back a lost analog output: list it again.
            XMLNode scratch = XMLNode::createXMLTopNode("root");
            if (restartMusicServiceIfAnalogMissing(alsa_device_doc_gen(found.outputs, scratch, 0)))
                discovery::runListing(outputsCmd, found.afterRestart);
            return std::optional(std::move(found));
        });
        alsa_device_doc_gen(local.outputs, answer, 0);
        if (!local.afterRestart.empty()) alsa_device_doc_gen(local.afterRestart, answer, 1);
    }
    LOG_TRACE("using %ld sec for list alsa", secondsSince(start));
    LOG_TRACE("using %ld sec for list tavriner", 0L);

    if (answer.nChildNode("device") > 0) updateRenderCache(playerManager, answer);
    add_media_dash_attr(answer);
    return 0;
}

int list_unknow_render(CPlayerManager&, XMLNode&, XMLNode& answer) {
    create_status_xml_doc(answer, "0", nullptr);

    // With the media-server package present its own listing names these receivers.
    std::string package;
    if (discovery::runListing({approot::path("/sbin/yarrow"), "XUMA", "Name", "-d", "null", "-f",
                               approot::path("/etc/config/modl.conf")},
                              package, 2047) == 0 &&
        !package.empty() && package.find("null") == std::string::npos)
        return 0;

    std::string out;
    if (discovery::runListing({approot::path("/usr/sbin/avahi-browse"), "-krpt", "_googlecast._tcp"}, out) != 0)
        return 0;
    for (const std::string& name : parseUnknowRenderNames(discovery::keepLinesContaining(out, "=;"))) {
        XMLNode device = answer.addChild("device");
        device.addAttribute("Type", "Chromecast");
        add_child_node(device, "deviceName", name.c_str());
    }
    return 0;
}
