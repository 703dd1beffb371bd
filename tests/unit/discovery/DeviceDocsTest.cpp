// The device documents: output lines of the shared MPD, and the DLNA renderers of the agent.
#include <gtest/gtest.h>

#include <string>

#include "DiscoveryTestSupport.h"
#include "discovery/DeviceDocs.h"
#include "discovery/MpdOutputs.h"
#include "discovery/SoundCards.h"

using namespace ParamXmlWrapper;

namespace {

const std::string kUsbLine =
    "Output 2 (USB DAC) is enabled devType:1 uid:usb1 sampleRate:96000 sampleRateMode:0 dsd:1 dsdMode:0 "
    "hwParam:hw:CARD=1,DEV=0";

// kUsbLine with pieces of text replaced.
std::string usbLineWith(std::initializer_list<std::pair<std::string, std::string>> edits) {
    std::string line = kUsbLine;
    for (const auto& [from, to] : edits) line.replace(line.find(from), from.size(), to);
    return line;
}

XMLNode attr(const XMLNode& device, const char* tag) {
    XMLNode attrs = device.getChildNode("Attributes");
    for (int i = 0; i < attrs.nChildNode("Attr"); ++i)
        if (std::string(childText(attrs.getChildNode("Attr", i), "Tag")) == tag) return attrs.getChildNode("Attr", i);
    return {};
}

}  // namespace

TEST(OutputLine, ReadsEveryField) {
    // The uid may come before the type; names may hold blanks and brackets. (The USB line's fields
    // are checked through its document below.)
    mpdOutput_s o;
    ASSERT_TRUE(parseOutputLine("Output 7\t(HDA (rear)) is disabled uid:PCH_HDMI-3 devType:2 sampleRate:48000 "
                                "sampleRateMode:1 dsd:0 dsdMode:0 hwParam:hw:CARD=0,DEV=3",
                                o));
    EXPECT_EQ(o.name, "HDA (rear)");
    EXPECT_EQ(o.uid, "PCH_HDMI-3");
    EXPECT_EQ(o.devType, OUTPUT_HDMI_E);
    EXPECT_EQ(o.sampleRate, 48000);
    EXPECT_EQ(std::pair(o.card, o.device), std::pair(0, 3));
}

TEST(OutputLine, MalformedLinesAreRejected) {
    const std::string bad[] = {
        "Outputs 2 (USB DAC) is enabled devType:1 uid:usb1",
        usbLineWith({{"Output 2", "Output two"}}),
        "Output 2 USB DAC is enabled",
        "Output 2 () is enabled devType:1 uid:usb1",
        usbLineWith({{"uid:usb1 ", ""}}),
        usbLineWith({{"sampleRateMode:0 ", ""}}),
        usbLineWith({{" hwParam:hw:CARD=1,DEV=0", ""}}),
        usbLineWith({{"sampleRate:", "x sampleRate:"}}),  // a short word ends the fields
        usbLineWith({{"96000", "fast"}}),
        usbLineWith({{"CARD=1,DEV=0", "CARD=1"}}),
    };
    for (const std::string& line : bad) {
        mpdOutput_s o;
        EXPECT_FALSE(parseOutputLine(line.c_str(), o)) << line;
    }
}

class DeviceDocsTest : public DiscoveryRootTest {};

TEST_F(DeviceDocsTest, UsbAndAnalogOutputDocumentsAndAnUnreadableCard) {
    put("/proc/asound/card1/pcm0p/sub0/status", "state: RUNNING \r\n  owner_pid : 42\n");
    const std::string analog = usbLineWith({{"devType:1", "devType:3"}});
    XMLNode root = XMLNode::createXMLTopNode("root");
    ASSERT_TRUE(alsa_device_doc_gen(kUsbLine + "\n" + analog + "\n", root, 0));
    ASSERT_EQ(root.nChildNode("device"), 2);

    XMLNode usb = root.getChildNode("device", 0);
    EXPECT_STREQ(usb.getAttribute("Subtype"), "USB");
    EXPECT_STREQ(usb.getAttribute("card"), "1");
    EXPECT_STREQ(childText(usb, "deviceId"), "usb1");
    EXPECT_STREQ(childText(usb, "ip"), "2");
    EXPECT_STREQ(childText(usb, "cardStatus"), "state: RUNNING");
    EXPECT_STREQ(childText(attr(usb, "SAMPLERATE"), "CurrentSetting"), "Auto");
    EXPECT_STREQ(childText(attr(usb, "SAMPLERATE"), "CurrentValue"), "96000");
    EXPECT_STREQ(childText(attr(usb, "DSDPASS"), "CurrentSetting"), "Enable");

    XMLNode second = root.getChildNode("device", 1);
    EXPECT_STREQ(second.getAttribute("Subtype"), "ANALOG");
    EXPECT_EQ(second.getChildNode("Attributes").nChildNode("Attr"), 1) << "no DSD pass-through";

    // The second pass after a restart adds only the analog output.
    XMLNode again = XMLNode::createXMLTopNode("root");
    ASSERT_TRUE(alsa_device_doc_gen(kUsbLine + "\n" + analog + "\n" + usbLineWith({{"devType:1", "devType:2"}}), again, 1));
    ASSERT_EQ(again.nChildNode("device"), 1);
    EXPECT_STREQ(again.getChildNode("device").getAttribute("Subtype"), "ANALOG");

    // A card whose status cannot be read, at a fixed rate.
    XMLNode unread = XMLNode::createXMLTopNode("root");
    alsa_device_doc_gen(usbLineWith({{"CARD=1", "CARD=9"}, {"sampleRateMode:0", "sampleRateMode:1"}}), unread, 0);
    XMLNode dev = unread.getChildNode("device");
    EXPECT_STREQ(childText(dev, "cardStatus"), "unknown");
    EXPECT_FALSE(dev.isAttributeSet("card"));
    EXPECT_FALSE(dev.isAttributeSet("device"));
    EXPECT_STREQ(childText(attr(dev, "SAMPLERATE"), "CurrentSetting"), "96000");
}

TEST_F(DeviceDocsTest, HdmiMonitorNames) {
    // A card's own HDMI output: its ELDs eld#?.<device>, read the way the platform always has.
    put("/proc/asound/PCH/eld#2.3", "monitor_present\t\t1\nmonitor_name\t\tDELL   U2415\neld_version\t\t2\n");
    put("/proc/asound/PCH/eld#2.1", "monitor_name\t\tWRONG\n");
    EXPECT_EQ(hdmiMonitorName("PCH_HDMI-3"), "DELL U2415");
    EXPECT_EQ(hdmiMonitorName("PCH_HDMI-5"), "");
    EXPECT_EQ(hdmiMonitorName("PCH_HDMI"), "");
    EXPECT_EQ(hdmiMonitorName("../etc_x-3"), "");

    // The local HDMI player's output: the ELD follows the appliance model (TS-x53D here).
    put("/proc/asound/card0/eld#3.1", "monitor_name\t\tLG TV  SSCR2 Pro Max Extra\n");
    put("/proc/asound/card0/eld#2.0", "monitor_name Sony Bravia\n");
    EXPECT_EQ(hdmiMonitorName("TAVRINTOHDMI1"), "LG TV SSCR2 Pro");
    put("/etc/config/tarvik.conf", "[System]\nModel = TS-x99\n");
    EXPECT_EQ(hdmiMonitorName("TAVRINTOHDMI1"), "Sony Bravia");
}

TEST(DlnaDocument, CopiesRenderersOfTheAgentList) {
    XMLNode root = XMLNode::createXMLTopNode("root");
    auto gen = [&](const std::string& agentXml) { return dlna_device_doc_gen(agentXml, root); };
    EXPECT_EQ(gen(""), -1);
    EXPECT_EQ(gen("<root><status>localServer_ERR</status><device><type>video</type></device></root>"), -1);
    EXPECT_EQ(root.nChildNode(), 0);
    ASSERT_EQ(gen("<root><status>success</status><device><deviceName>Den &amp; TV</deviceName><deviceId>uuid:1</deviceId>"
                  "<ip>10.0.0.7</ip><type>video,audio</type></device><device><deviceName>no type</deviceName></device></root>"),
              0);
    ASSERT_EQ(root.nChildNode("device"), 1);
    XMLNode dev = root.getChildNode("device");
    EXPECT_STREQ(dev.getAttribute("Type"), "DLNA");
    EXPECT_STREQ(childText(dev, "deviceName"), "Den & TV");
    EXPECT_STREQ(childText(dev, "location"), "remote");
}
