// The render-type filter and the render cache refresh of a listing.
#include <gtest/gtest.h>

#include <string>

#include "DiscoveryTestSupport.h"
#include "discovery/RenderListing.h"
#include "player/CPlayerManager.h"
#include "player/PlayerTypes.h"
#include "player/ThreadLock.h"

using namespace renderlisting;

TEST(RenderTypeMask, NamesAndHexMasks) {
    EXPECT_EQ(parseRenderTypeMask("DLNA+AirPlay+ChromeCast"), 0x7u);
    EXPECT_EQ(parseRenderTypeMask("tavriner"), 0x10u);
    EXPECT_EQ(parseRenderTypeMask("bogus+alsa+"), 0x8u);
    EXPECT_EQ(parseRenderTypeMask("bogus"), 0u);
    EXPECT_EQ(parseRenderTypeMask("0x1f"), 0x1fu);
    EXPECT_EQ(parseRenderTypeMask(nullptr), 0u);
}

namespace {

XMLNode listing(const char* devices) {
    return XMLNode::parseString(std::string("<root><status>0</status>") + devices + "</root>", "root");
}

bool cached(CPlayerManager& m, const char* id, renderCacheInfo_s& out) {
    ThreadReadLock lock(m.getRWLock());
    return m.searchRenderInCache_(id, out) == 0;
}

}  // namespace

TEST(RenderCacheRefresh, TypeAndCapabilityBits) {
    using namespace playertype;
    CPlayerManager manager(3600);
    {
        ThreadWriteLock lock(manager.getRWLock());
        manager.addRenderInCache("old", "Old TV", "10.0.0.1", kDlna, nullptr, 7000, "", "");
    }
    XMLNode reply = listing(
        "<device Type=\"DLNA\"><deviceName>Den TV</deviceName><deviceId>uuid:den</deviceId><ip>10.0.0.7</ip>"
        "<type>video</type></device>"
        "<device Type=\"ALSA\" Subtype=\"USB\" card=\"1\" device=\"0\"><deviceId>usb1</deviceId>"
        "<deviceName>USB DAC</deviceName><type>audio</type><ip>2</ip></device>"
        "<device Type=\"ALSA\" Subtype=\"SPDIF\"><deviceId>spdif</deviceId><deviceName>Optical</deviceName>"
        "<type>audio</type><ip>4</ip></device>"
        "<device Type=\"Chromecast\"><deviceName>Kitchen</deviceName><ip>10.0.0.9</ip><deviceId>kk</deviceId>"
        "<type protocol=\"chromecast\" port=\"8009\">audio</type></device>"
        "<device Type=\"AirPlay\"><deviceName>Box</deviceName><ip>10.0.0.8</ip><deviceId>0011</deviceId>"
        "<type protocol=\"airplay\" port=\"7100\">video,photo</type></device>"
        "<device Type=\"Raop\"><deviceName>Amp</deviceName><ip>10.0.0.5</ip><deviceId>amp</deviceId>"
        "<type protocol=\"raop\" port=\"5000\" cn=\"pcm\" et=\"rsa\">audio</type></device>"
        "<device Type=\"Raop\"><deviceName>Old amp</deviceName><ip>10.0.0.6</ip><deviceId>amp2</deviceId>"
        "<type protocol=\"raop\" port=\"5000\" cn=\"pcm\" et=\"notSupport\">audio</type></device>"
        "<device Type=\"Raop\"><deviceName>Alac</deviceName><ip>10.0.0.4</ip><deviceId>amp3</deviceId>"
        "<type protocol=\"raop\" port=\"5000\" cn=\"alac\" et=\"rsa\">audio</type></device>"
        "<device Type=\"DLNA\"><deviceName>No id</deviceName><type>video</type></device>"
        "<device Type=\"DLNA\"><deviceName>Empty type</deviceName><deviceId>e</deviceId><type/></device>"
        "<device Type=\"Other\"><deviceName>Odd</deviceName><deviceId>odd</deviceId>"
        "<type protocol=\"miracast\">video</type></device>");
    updateRenderCache(manager, reply);

    renderCacheInfo_s r;
    ASSERT_TRUE(cached(manager, "uuid:den", r));
    EXPECT_EQ(r.type, kDlna | kCapVideo | kCapPhoto);  // 0x10005
    EXPECT_EQ(r.name, "Den TV");
    EXPECT_EQ(r.IP, "10.0.0.7");
    EXPECT_EQ(r.found, 1);

    ASSERT_TRUE(cached(manager, "usb1", r));
    EXPECT_EQ(r.type, kAlsa | kAlsaUsb | kCapAudio);
    EXPECT_EQ(r.card, "1");
    EXPECT_EQ(r.device, "0");
    EXPECT_EQ(r.IP, "2");
    ASSERT_TRUE(cached(manager, "spdif", r));
    EXPECT_EQ(r.type, kAlsa | kCapAudio);

    ASSERT_TRUE(cached(manager, "kk", r));
    EXPECT_EQ(r.type, kChromecast | kCapAudio);
    EXPECT_EQ(r.port, 7000);
    ASSERT_TRUE(cached(manager, "0011", r));
    EXPECT_EQ(r.type, kAirplay | kCapVideo | kCapPhoto);
    EXPECT_EQ(r.port, 7000);

    ASSERT_TRUE(cached(manager, "amp", r));
    EXPECT_EQ(r.type, kRaop | kCapAudio);
    EXPECT_EQ(r.port, 5000);
    EXPECT_EQ(r.encrypted, 1);
    EXPECT_FALSE(cached(manager, "amp2", r));
    EXPECT_FALSE(cached(manager, "amp3", r));
    EXPECT_FALSE(cached(manager, "e", r));
    EXPECT_FALSE(cached(manager, "odd", r));

    // A render that was not listed stays cached but is no longer marked found.
    ASSERT_TRUE(cached(manager, "old", r));
    EXPECT_EQ(r.found, 0);
}
