// The device documents: output lines of the shared MPD, DLNA renderers, media-dash settings.
#include <gtest/gtest.h>

#include <string>

#include "DiscoveryTestSupport.h"
#include "discovery/ParamXmlWrapper.h"

using namespace ParamXmlWrapper;

namespace {

const char kUsbLine[] =
    "Output 2 (USB DAC) is enabled devType:1 uid:usb1 sampleRate:96000 sampleRateMode:0 dsd:1 dsdMode:0 "
    "hwParam:hw:CARD=1,DEV=0";

std::string withType(int type) {
    std::string line = kUsbLine;
    line.replace(line.find("devType:1"), 9, "devType:" + std::to_string(type));
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
    mpdOutput_s o;
    ASSERT_TRUE(parseOutputLine(kUsbLine, o));
    EXPECT_EQ(o.number, 2);
    EXPECT_EQ(o.name, "USB DAC");
    EXPECT_EQ(o.uid, "usb1");
    EXPECT_EQ(o.devType, OUTPUT_USB_E);
    EXPECT_EQ(o.sampleRate, 96000);
    EXPECT_EQ(o.sampleRateMode, 0);
    EXPECT_EQ(o.dsd, 1);
    EXPECT_EQ(o.card, 1);
    EXPECT_EQ(o.device, 0);

    // The uid may come before the type; names may hold blanks and brackets.
    ASSERT_TRUE(parseOutputLine("Output 7\t(HDA (rear)) is disabled uid:PCH_HDMI-3 devType:2 sampleRate:48000 "
                                "sampleRateMode:1 dsd:0 dsdMode:0 hwParam:hw:CARD=0,DEV=3",
                                o));
    EXPECT_EQ(o.name, "HDA (rear)");
    EXPECT_EQ(o.uid, "PCH_HDMI-3");
    EXPECT_EQ(o.devType, OUTPUT_HDMI_E);
    EXPECT_EQ(o.device, 3);
}

TEST(OutputLine, MalformedLinesAreRejected) {
    const std::string good = kUsbLine;
    auto without = [&](const std::string& field) {
        std::string line = good;
        line.erase(line.find(field), field.size());
        return line;
    };
    const std::string bad[] = {
        "Outputs 2 (USB DAC) is enabled devType:1 uid:usb1",
        "Output two (USB DAC) is enabled devType:1 uid:usb1 sampleRate:96000 sampleRateMode:0 dsd:1 dsdMode:0 "
        "hwParam:hw:CARD=1,DEV=0",
        "Output 2 USB DAC is enabled",
        "Output 2 () is enabled devType:1 uid:usb1",
        without("uid:usb1 "),
        without("sampleRateMode:0 "),
        without(" hwParam:hw:CARD=1,DEV=0"),
        // A short word ends the fields: nothing behind it is read.
        [&] {
            std::string l = good;
            l.insert(l.find("sampleRate:"), "x ");
            return l;
        }(),
        [&] {
            std::string l = good;
            l.replace(l.find("96000"), 5, "fast");
            return l;
        }(),
        [&] {
            std::string l = good;
            l.replace(l.find("CARD=1,DEV=0"), 12, "CARD=1");
            return l;
        }(),
    };
    for (const std::string& line : bad) {
        mpdOutput_s o;
        EXPECT_FALSE(parseOutputLine(line.c_str(), o)) << line;
    }
}

TEST(OutputLine, DeviceTypeAndKeyLookup) {
    int consumed = -1;
    EXPECT_EQ(Get_Output_DeviceType("enabled devType:3 uid:a", &consumed), OUTPUT_ANALOG_E);
    EXPECT_EQ(consumed, 17);
    EXPECT_EQ(Get_Output_DeviceType("devType:7 devType:2", &consumed), OUTPUT_UNKNOWN_E);  // first one counts
    EXPECT_EQ(Get_Output_DeviceType("uid:a", &consumed), OUTPUT_UNKNOWN_E);

    size_t pos = 0;
    std::string value;
    ASSERT_EQ(get_key_value("uid:long_output_id dsd:0", &pos, "dsd:", value), 0);
    EXPECT_EQ(value, "0");
    EXPECT_EQ(get_key_value("uid:long_output_id dsd:0", &pos, "dsd:", value), -1);  // end of text
    pos = 0;
    EXPECT_EQ(get_key_value("uid: uid:x", &pos, "uid:", value), -1);  // an empty value ends the search
}

class DeviceDocsTest : public DiscoveryRootTest {};

TEST_F(DeviceDocsTest, UsbOutputDocument) {
    put("/proc/asound/card1/pcm0p/sub0/status", "state: RUNNING \r\n  owner_pid : 42\n");
    XMLNode root = XMLNode::createXMLTopNode("root");
    ASSERT_EQ(alsa_device_doc_gen(std::string(kUsbLine) + "\n" + withType(3) + "\n", root, 0), 0);
    ASSERT_EQ(root.nChildNode("device"), 2);

    XMLNode usb = root.getChildNode("device", 0);
    EXPECT_STREQ(usb.getAttribute("Type"), "ALSA");
    EXPECT_STREQ(usb.getAttribute("Subtype"), "USB");
    EXPECT_STREQ(usb.getAttribute("card"), "1");
    EXPECT_STREQ(usb.getAttribute("device"), "0");
    EXPECT_STREQ(childText(usb, "deviceId"), "usb1");
    EXPECT_STREQ(childText(usb, "deviceName"), "USB DAC");
    EXPECT_STREQ(childText(usb, "type"), "audio");
    EXPECT_STREQ(childText(usb, "ip"), "2");
    EXPECT_STREQ(childText(usb, "icon"), "v3_menu/multizone/alsa_usb");
    EXPECT_STREQ(childText(usb, "location"), "local");
    EXPECT_STREQ(childText(usb, "cardStatus"), "state: RUNNING");
    EXPECT_STREQ(childText(attr(usb, "SAMPLERATE"), "CurrentSetting"), "Auto");
    EXPECT_STREQ(childText(attr(usb, "SAMPLERATE"), "CurrentValue"), "96000");
    EXPECT_STREQ(childText(attr(usb, "DSDPASS"), "CurrentSetting"), "Enable");
    EXPECT_STREQ(childText(attr(usb, "DSDPASS"), "CurrentValue"), "Enable");

    XMLNode analog = root.getChildNode("device", 1);
    EXPECT_STREQ(analog.getAttribute("Subtype"), "ANALOG");
    EXPECT_STREQ(childText(analog, "icon"), "v3_menu/multizone/alsa_analog");
    EXPECT_TRUE(attr(analog, "DSDPASS").isEmpty());
    EXPECT_EQ(analog.getChildNode("Attributes").nChildNode("Attr"), 1);

    // The second pass after a restart adds only the analog output.
    XMLNode again = XMLNode::createXMLTopNode("root");
    ASSERT_EQ(alsa_device_doc_gen(std::string(kUsbLine) + "\n" + withType(3) + "\n" + withType(2), again, 1), 0);
    ASSERT_EQ(again.nChildNode("device"), 1);
    EXPECT_STREQ(again.getChildNode("device").getAttribute("Subtype"), "ANALOG");
}

TEST_F(DeviceDocsTest, UnreadableCardStatusIsUnknown) {
    std::string line = kUsbLine;
    line.replace(line.find("CARD=1"), 6, "CARD=9");
    line.replace(line.find("sampleRateMode:0"), 16, "sampleRateMode:1");
    XMLNode root = XMLNode::createXMLTopNode("root");
    alsa_device_doc_gen(line, root, 0);
    XMLNode dev = root.getChildNode("device");
    EXPECT_STREQ(childText(dev, "cardStatus"), "unknown");
    EXPECT_FALSE(dev.isAttributeSet("card"));
    EXPECT_FALSE(dev.isAttributeSet("device"));
    EXPECT_STREQ(childText(attr(dev, "SAMPLERATE"), "CurrentSetting"), "96000");

    char buf[64];
    EXPECT_EQ(checkCardStatus(-1, 0, buf, sizeof buf), 1);
    EXPECT_EQ(checkCardStatus(1, 0, nullptr, 0), 1);
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
    const std::string model = slurp("/etc/config/tarvik.conf");
    put("/etc/config/tarvik.conf", "[System]\nModel = TS-x99\n");
    EXPECT_EQ(hdmiMonitorName("TAVRINTOHDMI1"), "Sony Bravia");
    put("/etc/config/tarvik.conf", model);

    XMLNode root = XMLNode::createXMLTopNode("root");
    alsa_device_doc_gen("Output 3 (HDMI) is enabled devType:2 uid:PCH_HDMI-3 sampleRate:48000 sampleRateMode:0 "
                        "dsd:0 dsdMode:0 hwParam:hw:CARD=0,DEV=3",
                        root, 0);
    XMLNode hdmi = root.getChildNode("device");
    EXPECT_STREQ(childText(hdmi, "firendlyName"), "DELL U2415");
    EXPECT_STREQ(hdmi.getChildNode(1).getName(), "firendlyName");  // right after the id
}

TEST_F(DeviceDocsTest, VoiceAlertModelWithoutAnalogRestartsTheMusicService) {
    const std::string install = s_root + "/opt/XUMA";
    put("/opt/XUMA/Morrat.sh",
        "#!/usr/bin/python3 -S\nimport sys\nopen('" + install + "/restarts', 'a').write(' '.join(sys.argv[1:]) + '\\n')\n",
        0755);
    const std::string modelConf = slurp("/etc/model.conf");
    put("/etc/model.conf", "[System IO]\nVOICE_ALERT_SUPPORT = 1\n");
    XMLNode root = XMLNode::createXMLTopNode("root");
    EXPECT_EQ(alsa_device_doc_gen(kUsbLine, root, 0), 1);
    EXPECT_EQ(slurp("/opt/XUMA/restarts"), "restart\n");
    EXPECT_EQ(alsa_device_doc_gen(withType(3), root, 0), 0);  // the analog output is there
    EXPECT_EQ(slurp("/opt/XUMA/restarts"), "restart\n");

    put("/etc/model.conf", modelConf);
    EXPECT_EQ(alsa_device_doc_gen(kUsbLine, root, 0), 0);
    std::filesystem::remove(s_root + "/opt/XUMA/Morrat.sh");
    std::filesystem::remove(s_root + "/opt/XUMA/restarts");
}

TEST(DlnaDocument, CopiesRenderersOfTheAgentList) {
    XMLNode root = XMLNode::createXMLTopNode("root");
    EXPECT_EQ(dlna_device_doc_gen("", root), -1);
    EXPECT_EQ(dlna_device_doc_gen("<root><status>localServer_ERR</status><device><type>video</type></device></root>",
                                  root),
              -1);
    EXPECT_EQ(root.nChildNode(), 0);

    ASSERT_EQ(dlna_device_doc_gen("<root><status>success</status>"
                                  "<device><deviceName>Den &amp; TV</deviceName><deviceId>uuid:1</deviceId>"
                                  "<ip>10.0.0.7</ip><type>video,audio</type></device>"
                                  "<device><deviceName>no type</deviceName></device></root>",
                                  root),
              0);
    ASSERT_EQ(root.nChildNode("device"), 1);
    XMLNode dev = root.getChildNode("device");
    EXPECT_STREQ(dev.getAttribute("Type"), "DLNA");
    EXPECT_STREQ(childText(dev, "deviceName"), "Den & TV");
    EXPECT_STREQ(childText(dev, "type"), "video,audio");
    EXPECT_STREQ(childText(dev, "icon"), "v3_menu/multizone/dlna");
    EXPECT_STREQ(childText(dev, "location"), "remote");
    EXPECT_NE(root.toString().find("Den &amp; TV"), std::string::npos);
}
