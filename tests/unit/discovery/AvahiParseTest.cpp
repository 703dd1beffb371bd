// Reading avahi-browse's parsable output into device elements.
#include <gtest/gtest.h>

#include <string>

#include "DiscoveryTestSupport.h"
#include "discovery/AvahiParse.h"

namespace {

const std::string kCastKitchen =
    "=;eth0;IPv4;Kitchen\\032Speaker;_googlecast._tcp;local;k.local;192.168.1.21;8009;"
    "\"id=kk22\" \"md=Google Nest Audio\" \"ic=/setup/icon.png\" \"fn=Kitchen\" \"ca=2052\"";
const std::string kCastTv =
    "=;eth0;IPv4;Living\\032Room;_googlecast._tcp;local;t.local;192.168.1.20;8009;"
    "\"id=tv11\" \"md=Chromecast\" \"ic=/setup/icon.png\" \"fn=Living Room TV\" \"st=0\"";

XMLNode reply() { return XMLNode::createXMLTopNode("root"); }

}  // namespace

TEST(DecodeAvahi, UndoesDecimalAndCharacterEscapes) {
    struct {
        const char* in;
        const char* out;
    } cases[] = {
        {"Living\\032Room", "Living Room"},
        {"a\\059b\\092c", "a;b\\c"},
        {"Bob\\'s\\.TV", "Bob's.TV"},
        {"x\\03", "x03"},  // too short for a decimal escape: the backslash alone goes
        {"end\\", "end"},
    };
    for (const auto& c : cases) {
        std::string out;
        EXPECT_EQ(decodeAvahi(c.in, out), 0);
        EXPECT_EQ(out, c.out) << c.in;
    }
    std::string out;
    EXPECT_EQ(decodeAvahi("", out), 1);
    EXPECT_EQ(decodeAvahi(nullptr, out), 1);
}

TEST(ParseDevices, ChromecastDeviceCarriesNameAddressTxtAndType) {
    XMLNode root = reply();
    ASSERT_EQ(parseDevices(kCastTv + "\n" + kCastKitchen, root, AVAHI_CHROMECAST_E), 0);
    ASSERT_EQ(root.nChildNode("device"), 2);

    XMLNode tv = root.getChildNode("device", 0);
    EXPECT_STREQ(tv.getAttribute("Type"), "Chromecast");
    EXPECT_STREQ(childText(tv, "deviceName"), "Living Room TV");  // fn wins over the service name
    EXPECT_STREQ(tv.getChildNode("ip").getAttribute("interface"), "eth0");
    EXPECT_STREQ(childText(tv, "type"), "video,photo,audio");
    EXPECT_STREQ(tv.getChildNode("type").getAttribute("port"), "8009");

    // A speaker-only receiver is listed for audio alone.
    EXPECT_STREQ(childText(root.getChildNode("device", 1), "type"), "audio");
}

TEST(ParseDevices, SkipsUnresolvedMalformedAndRepeatedRecords) {
    const std::string other = kCastTv.substr(0, kCastTv.find("192.168.1.20")) + "192.168.1.99;8009;\"id=tv99\"";
    std::string wlan = kCastTv;
    wlan.replace(2, 4, "wlan0");
    const std::string text = "+;eth0;IPv4;Living\\032Room;_googlecast._tcp;local\n"  // not resolved
                             "=;eth0;IPv4;Broken;_googlecast._tcp\n"                 // too few fields
                             "=;eth0;IPv4;Twice;_googlecast._tcp;local;h;10.0.0.5;8009;\"id=a1\" \"id=a1\"\n"
                             "\n" +
                             kCastTv + "\n" + wlan + "\n" + other;
    XMLNode root = reply();
    ASSERT_EQ(parseDevices(text, root, AVAHI_CHROMECAST_E), 0);
    // A record repeating its id is dropped; the same service on a second interface with the same
    // address is one device; another address is another device.
    ASSERT_EQ(root.nChildNode("device"), 2);
    EXPECT_STREQ(root.getChildNode("device", 0).getChildNode("ip").getAttribute("interface"), "eth0");
    EXPECT_STREQ(childText(root.getChildNode("device", 1), "ip"), "192.168.1.99");
    // Without fn the decoded service name stays.
    EXPECT_STREQ(childText(root.getChildNode("device", 1), "deviceName"), "Living Room");

    EXPECT_EQ(parseDevices("", root, AVAHI_CHROMECAST_E), -1);
}

TEST(GenAvahiDevice, DropsTheFinalNewline) {
    XMLNode root = reply();
    EXPECT_EQ(gen_avahi_device(1, "", root), 0);
    ASSERT_EQ(gen_avahi_device(1, kCastTv + "\n", root), 0);
    // Without the newline the last character of the last line is what goes.
    ASSERT_EQ(gen_avahi_device(1, kCastKitchen, root), 0);
    ASSERT_EQ(root.nChildNode("device"), 2);
    EXPECT_STREQ(childText(root.getChildNode("device", 0), "deviceName"), "Living Room TV");
    EXPECT_STREQ(childText(root.getChildNode("device", 1), "deviceName"), "Kitchen");
}
