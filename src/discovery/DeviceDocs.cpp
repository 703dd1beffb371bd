// Documents that describe render devices: DLNA renderers from the media agent, the local sound
// outputs of the shared MPD instance, and the media-dash decorations.
#include "discovery/DeviceDocs.h"

#include <strings.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "discovery/DiscoveryProcess.h"
#include "discovery/MpdOutputs.h"
#include "discovery/SoundCards.h"
#include "discovery/WordScan.h"
#include "protocol/ParamXmlWrapper.h"
#include "util/AppRoot.h"
#include "util/Log.h"
#include "util/Process.h"

namespace ParamXmlWrapper {

using wordscan::kValueMax;

namespace {

const char* const kOutputIcons[] = {"v3_menu/multizone/alsa_other", "v3_menu/multizone/alsa_usb",
                                    "v3_menu/multizone/alsa_hdmi", "v3_menu/multizone/alsa_analog"};
constexpr int kRestartTimeoutSec = 60;

}  // namespace

bool restartMusicServiceIfAnalogMissing(bool analogFound) {
    std::string out;
    const int rc = discovery::runListing(
        {approot::path("/sbin/yarrow"), "System IO", "VOICE_ALERT_SUPPORT", "-f", approot::path("/etc/model.conf")},
        out, 10);
    if (rc != 0 || out.empty()) {
        LOG_ERR("error while fread");
        return false;
    }
    if (std::atoi(out.c_str()) != 1) return false;
    LOG_TRACE("Check analog == %d", analogFound ? 1 : 0);
    if (analogFound) return false;

    LOG_WARN("Can't found analog, and try to restart Morrat");
    std::string installPath;
    if (discovery::runListing({approot::path("/sbin/yarrow"), "-f", approot::path("/etc/config/modl.conf"), "XUMA",
                               "Install_Path"},
                              installPath, kValueMax) != 0)
        return false;
    installPath = installPath.substr(0, installPath.find('\n'));
    struct stat st;
    if (installPath.empty() || ::stat(installPath.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    const std::string script = installPath + "/Morrat.sh";
    if (::stat(script.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;

    const std::vector<std::string> argv{script, "restart"};
    LOG_TRACE("excute command %s", formatCommandLine(argv).c_str());
    ProcessOptions options;
    options.timeoutMs = kRestartTimeoutSec * 1000;
    options.capture = ProcessOptions::Capture::None;
    const ProcessResult r = runProcess(argv, options);
    LOG_TRACE("system ret = %d", r.spawnErrno != 0 || r.timedOut ? -1 : r.exitStatus);
    return true;
}

namespace {

void addOutputDevice(const mpdOutput_s& o, XMLNode& reply) {
    XMLNode device = reply.addChild("device");
    device.addAttribute("Type", "ALSA");
    device.addAttribute("Subtype", outputDeviceTypeName(o.devType));
    add_child_node(device, "deviceId", o.uid.c_str());
    if (o.devType == OUTPUT_HDMI_E) {
        const std::string monitor = hdmiMonitorName(o.uid);
        if (!monitor.empty()) add_child_node(device, "firendlyName", monitor.c_str());
    }
    add_child_node(device, "deviceName", o.name.c_str());
    add_child_node(device, "type", "audio");
    // The render cache keeps the MPD output number in its address field.
    add_child_node(device, "ip", std::to_string(o.number).c_str());
    add_child_node(device, "icon", kOutputIcons[o.devType]);
    add_child_node(device, "location", "local");

    char status[256];
    if (checkCardStatus(o.card, o.device, status, sizeof status) == 0) {
        std::string text(status);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
            text.pop_back();
        add_child_node(device, "cardStatus", text.c_str());
        device.addAttribute("card", std::to_string(o.card).c_str());
        device.addAttribute("device", std::to_string(o.device).c_str());
    } else {
        add_child_node(device, "cardStatus", "unknown");
    }

    // Tag and Allow are what SetAttributes accepts back (SAMPLERATE=..., DSDPASS=...).
    XMLNode attributes = device.addChild("Attributes");
    XMLNode rate = attributes.addChild("Attr");
    add_child_node(rate, "Name", "Sample Frequency");
    add_child_node(rate, "Tag", "SAMPLERATE");
    add_child_node(rate, "Allow", "44100,48000,88200,96000,176400,192000,352800,384000,Auto");
    add_child_node(rate, "CurrentSetting", o.sampleRateMode == 0 ? "Auto" : std::to_string(o.sampleRate).c_str());
    add_child_node(rate, "CurrentValue", std::to_string(o.sampleRate).c_str());
    if (o.devType == OUTPUT_USB_E) {
        XMLNode dsd = attributes.addChild("Attr");
        add_child_node(dsd, "Name", "DSD Passthrough");
        add_child_node(dsd, "Tag", "DSDPASS");
        add_child_node(dsd, "Allow", "Enable,Disable");
        add_child_node(dsd, "CurrentSetting", o.dsd ? "Enable" : "Disable");
        add_child_node(dsd, "CurrentValue", o.dsd ? "Enable" : "Disable");
    }
}

}  // namespace

int dlna_device_doc_gen(const std::string& agentXml, XMLNode& reply) {
    if (agentXml.empty()) return -1;
    XMLNode root = XMLNode::parseString(agentXml, "root");
    if (root.isEmpty()) return -1;
    const char* status = root.getChildNode("status").getText();
    if (status && std::strcmp(status, "localServer_ERR") == 0) return -1;

    int i = 0;
    for (XMLNode dev = root.getChildNode("device", &i); !dev.isEmpty(); dev = root.getChildNode("device", &i)) {
        if (dev.getChildNode("type").isEmpty()) continue;
        XMLNode out = reply.addChild(dev.getName());
        out.addAttribute("Type", "DLNA");
        const int n = dev.nChildNode();
        for (int c = 0; c < n; ++c) {
            XMLNode child = dev.getChildNode(c);
            add_child_node(out, child.getName(), child.getText());
        }
        if (n > 0) {
            add_child_node(out, "icon", "v3_menu/multizone/dlna");
            add_child_node(out, "location", "remote");
        }
    }
    return 0;
}

bool alsa_device_doc_gen(const std::string& outputs, XMLNode& reply, int analogOnly) {
    bool analogFound = false;
    std::istringstream in(outputs);
    std::string line;
    while (std::getline(in, line)) {
        mpdOutput_s output;
        if (!parseOutputLine(line.c_str(), output)) continue;
        // The second pass after a restart only looks for the analog output that was missing.
        if (analogOnly && output.devType != OUTPUT_ANALOG_E) continue;
        if (output.devType == OUTPUT_ANALOG_E) {
            LOG_TRACE("Analog device has found!!");
            analogFound = true;
        }
        addOutputDevice(output, reply);
    }
    return analogFound;
}

void add_media_dash_attr(XMLNode& reply) {
    const std::string path = approot::path("/etc/config/mediaDash.conf");
    XMLNode doc = XMLNode::parseFile(path.c_str());
    if (doc.isEmpty()) return;

    // The settings' devices, whether at the top of the file or one level below its root.
    std::vector<XMLNode> configured;
    for (int t = 0; t < doc.nChildNode(); ++t) {
        XMLNode top = doc.getChildNode(t);
        if (strcasecmp(top.getName(), "device") == 0) {
            configured.push_back(top);
            continue;
        }
        int i = 0;
        for (XMLNode d = top.getChildNode("device", &i); !d.isEmpty(); d = top.getChildNode("device", &i))
            configured.push_back(d);
    }

    for (const XMLNode& conf : configured) {
        const char* id = conf.getChildNode("deviceId").getText();
        if (!id) continue;
        const char* allow = conf.getChildNode("allow_apps").getText();
        const char* inuse = conf.getChildNode("inuse_apps").getText();
        int i = 0;
        for (XMLNode dev = reply.getChildNode("device", &i); !dev.isEmpty(); dev = reply.getChildNode("device", &i)) {
            const char* devId = dev.getChildNode("deviceId").getText();
            if (!devId || std::strcmp(devId, id) != 0) continue;
            add_child_node(dev, "allow_apps", allow);
            add_child_node(dev, "inuse_apps", inuse);
        }
    }
}

}  // namespace ParamXmlWrapper
