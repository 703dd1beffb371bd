// Reading avahi-browse's parsable output into device elements.
#include <gtest/gtest.h>

#include <string>

#include "DiscoveryTestSupport.h"
#include "discovery/AvahiParse.h"

namespace {

const std::string kCastTv =
    "=;eth0;IPv4;Living\\032Room;_googlecast._tcp;local;t.local;192.168.1.20;8009;"
    "\"id=tv11\" \"md=Chromecast\" \"ic=/setup/icon.png\" \"fn=Living Room TV\" \"st=0\"";

XMLNode reply() { return XMLNode::createXMLTopNode("root"); }

}  // namespace

TEST(DecodeAvahi, UndoesDecimalAndCharacterEscapes) {
    // "x\\03" is too short for a decimal escape: the backslash alone goes.
    for (auto [in, decoded] : {std::pair("Living\\032Room", "Living Room"), std::pair("a\\059b\\092c", "a;b\\c"),
                               std::pair("Bob\\'s\\.TV", "Bob's.TV"), std::pair("x\\03", "x03"),
                               std::pair("end\\", "end")}) {
        std::string out;
        EXPECT_EQ(decodeAvahi(in, out), 0);
        EXPECT_EQ(out, decoded) << in;
    }
    std::string out;
    EXPECT_EQ(decodeAvahi("", out), 1);
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

namespace {

// Real receivers' lines: the TXT records in any order, names escaped as avahi prints them.
std::string airplayLine(const std::string& name, const std::string& txt) {
    return "=;eth0;IPv4;" + name + ";_airplay._tcp;local;tv.local;192.168.1.30;7000;" + txt;
}
std::string raopLine(const std::string& name, const std::string& txt) {
    return "=;eth0;IPv4;" + name + ";_raop._tcp;local;amp.local;192.168.1.40;5000;" + txt;
}

}  // namespace

TEST(ParseDevices, AirplayReceiversListOnlyWhenTheyPlayVideo) {
    XMLNode root;
    for (auto [txt, listed] : {std::pair(R"("deviceid=58:55:CA:1A:2B:3D" "features=0x445F8A00,0x1C340")", 0),  // audio only
                               std::pair(R"("deviceid=58:55:CA:1A:2B:3E" "features=garbage")", 0),
                               std::pair(R"("deviceid=58:55:CA:1A:2B:3F" "model=Xbmc,1")", 1),  // no features at all
                               std::pair(R"("model=AppleTV3,2" "features=0x5A7FFFF7,0x1E" "deviceid=58:55:CA:1A:2B:3C" "pw=1")",
                                         1)}) {
        root = reply();
        ASSERT_EQ(parseDevices(airplayLine("Bedroom\\032TV", txt), root, AVAHI_AIRPLAY_E), 0);
        EXPECT_EQ(root.nChildNode("device"), listed) << txt;
    }
    XMLNode tv = root.getChildNode("device");  // of the last line
    EXPECT_STREQ(tv.getAttribute("Type"), "AirPlay");
    EXPECT_STREQ(childText(tv, "deviceName"), "Bedroom TV");
    EXPECT_STREQ(childText(tv, "deviceId"), "5855CA1A2B3C");
    EXPECT_STREQ(childText(tv, "authMethod"), "Password");
    EXPECT_STREQ(childText(tv, "type"), "video,photo,audio");
    EXPECT_STREQ(tv.getChildNode("type").getAttribute("port"), "7000");
}

TEST(ParseDevices, SpeakersSplitTheirNameAndStateFormatAndEncryption) {
    const struct {
        std::string name, txt;
        const char *id, *deviceName, *cn, *et;  // id null: not listed
    } cases[] = {
        {"5855CA1A2B3C\\064Living\\032Room", R"("et=0,3,5" "cn=0,1,2,3" "tp=UDP")", "5855CA1A2B3C", "Living Room", "pcm",
         "none"},
        {"0011223344FF\\064K\\195\\188che", R"("cn=1,2" "et=1")", "0011223344FF", "Küche", "1,2", "rsa"},
        {"AABBCCDDEEFF\\064Amp", R"("cn=0" "et=3,5")", "AABBCCDDEEFF", "Amp", "pcm", "notSupport"},
        {"NoMacHere", R"("cn=0" "et=0")", nullptr, nullptr, nullptr, nullptr},
        {std::string(300, 'x') + "\\064Long", R"("cn=0" "et=0")", nullptr, nullptr, nullptr, nullptr},
    };
    for (const auto& c : cases) {
        XMLNode root = reply();
        ASSERT_EQ(parseDevices(raopLine(c.name, c.txt), root, AVAHI_RAOP_E), 0);
        if (!c.id) {
            EXPECT_EQ(root.nChildNode("device"), 0) << c.name;
            continue;
        }
        ASSERT_EQ(root.nChildNode("device"), 1) << c.name;
        XMLNode dev = root.getChildNode("device");
        EXPECT_STREQ(dev.getAttribute("Type"), "Raop");
        EXPECT_STREQ(childText(dev, "deviceId"), c.id);
        EXPECT_STREQ(childText(dev, "deviceName"), c.deviceName);
        XMLNode type = dev.getChildNode("type");
        EXPECT_STREQ(type.getText(), "audio");
        EXPECT_STREQ(type.getAttribute("protocol"), "raop");
        EXPECT_STREQ(type.getAttribute("port"), "5000");
        EXPECT_STREQ(type.getAttribute("cn"), c.cn) << c.name;
        EXPECT_STREQ(type.getAttribute("et"), c.et) << c.name;
    }
}

TEST(ParseDevices, EachLineCountsOnlyForItsOwnServiceTypeAndADeviceIsListedOnce) {
    const std::string tv = airplayLine("Bedroom\\032TV", R"("deviceid=58:55:ca:1a:2b:3c" "features=0x5A7FFFF7")");
    const std::string sameTvAsSpeaker = raopLine("5855CA1A2B3C\\064Bedroom\\032TV", R"("cn=0" "et=1")");
    const std::string speaker = raopLine("0011223344FF\\064Amp", R"("cn=0" "et=1")");
    XMLNode root = reply();
    // A speaker's line in the AirPlay browse is not an AirPlay receiver, nor the reverse.
    ASSERT_EQ(parseDevices(tv + "\n" + speaker, root, AVAHI_AIRPLAY_E), 0);
    ASSERT_EQ(parseDevices(sameTvAsSpeaker + "\n" + speaker + "\n" + tv, root, AVAHI_RAOP_E), 0);
    EXPECT_EQ(root.nChildNode("device"), 3);
    dropSpeakersListedAsAirplay(root);
    ASSERT_EQ(root.nChildNode("device"), 2);
    EXPECT_STREQ(root.getChildNode("device", 0).getAttribute("Type"), "AirPlay");
    EXPECT_STREQ(childText(root.getChildNode("device", 1), "deviceId"), "0011223344FF");
}
