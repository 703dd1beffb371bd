// Documents that describe render devices: DLNA renderers from the media agent, the local sound
// outputs of the shared MPD instance, and the media-dash decorations.
#include <dirent.h>
#include <fnmatch.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string_view>
#include <vector>

#include "core/util/AppRoot.h"
#include "core/util/Log.h"
#include "core/util/Process.h"
#include "discovery/DiscoveryProcess.h"
#include "discovery/ParamXmlWrapper.h"

namespace ParamXmlWrapper {

namespace {

const char* const kOutputTypeNames[] = {"UNKNOWN", "USB", "HDMI", "ANALOG"};
const char* const kOutputIcons[] = {"v3_menu/multizone/alsa_other", "v3_menu/multizone/alsa_usb",
                                    "v3_menu/multizone/alsa_hdmi", "v3_menu/multizone/alsa_analog"};
constexpr size_t kValueMax = 1024;
constexpr int kRestartTimeoutSec = 60;

// The local HDMI player's output ("...TAVRINTOHDMI<n>...") has no card id in its uid: which ELD
// file describes its monitor depends on the appliance model (/etc/config/tarvik.conf, System
// Model). First matching prefix wins; a row with appendPort takes the output's port digit (the
// character after "TAVRINTOHDMI", less one) as the ELD's device number. Unlisted models wire
// the port to codec 2.
//   TS-x53...          HD audio codec 3, pin 1
//   TS-x73..., TS-x77... codec 0, pin 1
//   TS-x51...          codec 0, one pin per port
//   others             codec 2, one pin per port
struct eldByModel_s {
    const char* modelPrefix;  // null: every other model
    const char* eldFile;
    bool appendPort;
};
const eldByModel_s kEldByModel[] = {
    {"TS-x53", "/proc/asound/card0/eld#3.1", false},
    {"TS-x73", "/proc/asound/card0/eld#0.1", false},
    {"TS-x77", "/proc/asound/card0/eld#0.1", false},
    {"TS-x51", "/proc/asound/card0/eld#0.", true},
    {nullptr, "/proc/asound/card0/eld#2.", true},
};

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view nextWord(const char* text, size_t& pos) {
    while (text[pos] && isBlank(text[pos])) ++pos;
    const size_t start = pos;
    while (text[pos] && !isBlank(text[pos])) ++pos;
    return std::string_view(text + start, pos - start);
}

bool toInt(const std::string& text, int& out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (*end || errno == ERANGE || v < INT_MIN || v > INT_MAX) return false;
    out = static_cast<int>(v);
    return true;
}

std::vector<std::string> splitWords(std::string_view line) {
    std::vector<std::string> words;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && isBlank(line[i])) ++i;
        const size_t start = i;
        while (i < line.size() && !isBlank(line[i])) ++i;
        if (i > start) words.emplace_back(line.substr(start, i - start));
    }
    return words;
}

std::string firstLineContaining(const std::string& text, std::string_view needle) {
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (line.find(needle) != std::string::npos) return line;
    return {};
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// The ELDs of card id `cardId` for device `index` (its files eld#?.<index>, in name order) as
// one text. A card id is a single name below /proc/asound.
std::string readCardElds(const std::string& cardId, int index) {
    if (cardId.empty() || cardId == "." || cardId == ".." || cardId.find('/') != std::string::npos) return {};
    const std::string dir = approot::path("/proc/asound/" + cardId);
    const std::string pattern = "eld#?." + std::to_string(index);
    std::vector<std::string> files;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d))
            if (::fnmatch(pattern.c_str(), e->d_name, 0) == 0) files.push_back(e->d_name);
        ::closedir(d);
    }
    std::sort(files.begin(), files.end());
    std::string all;
    for (const std::string& f : files) all += readFile(dir + "/" + f);
    return all;
}

// The monitor name of an ELD's monitor_name line the way the platform always reported it:
// every character of "monitor_name" is struck from the line (which also takes the key away,
// and lower-case letters of those characters from the name), blank runs become single blanks.
// The value of the ELD's monitor_name line, blanks normalised ("monitor_name\t\tLiving Room TV"
// gives "Living Room TV"): only the key is dropped, never letters of the name itself.
std::string monitorNameFromCardEld(const std::string& eld) {
    std::string line = firstLineContaining(eld, "monitor_name");
    size_t key = line.find("monitor_name");
    if (key != std::string::npos) line.erase(0, key + std::strlen("monitor_name"));
    std::string joined;
    for (const std::string& w : splitWords(line)) {
        if (!joined.empty()) joined += ' ';
        joined += w;
    }
    return joined.substr(0, kValueMax);
}

// For the local HDMI player's ELD: the second to fifth words of the monitor_name line.
std::string monitorNameFromModelEld(const std::string& eld) {
    const std::string line = firstLineContaining(eld, "monitor_name");
    if (line.empty()) return {};
    const std::vector<std::string> words = splitWords(line);
    std::string joined;
    for (size_t i = 1; i <= 4; ++i) {
        if (i > 1) joined += ' ';
        if (i < words.size()) joined += words[i];
    }
    while (!joined.empty() && joined.back() == ' ') joined.pop_back();
    return joined.substr(0, kValueMax);
}

std::string readModel() {
    std::string out;
    if (discovery::runListing({approot::path("/sbin/yarrow"), "System", "Model", "-d", "unknow", "-f",
                               approot::path("/etc/config/tarvik.conf")},
                              out, kValueMax) != 0)
        return {};
    return out.substr(0, out.find('\n'));
}

std::string eldFileForLocalHdmi(const std::string& model, char port) {
    for (const eldByModel_s& row : kEldByModel) {
        if (row.modelPrefix && model.compare(0, std::strlen(row.modelPrefix), row.modelPrefix) != 0) continue;
        std::string file = row.eldFile;
        if (row.appendPort) file += static_cast<char>(port - 1);
        return file;
    }
    return {};
}

// Models with a voice-alert speaker always have an analog output: without one listed the music
// service lost it and is restarted. True when the restart was run.
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

const char* outputDeviceTypeName(int type) {
    return type >= OUTPUT_UNKNOWN_E && type <= OUTPUT_ANALOG_E ? kOutputTypeNames[type] : kOutputTypeNames[0];
}

int Get_Output_DeviceType(const char* text, int* consumed) {
    static constexpr std::string_view kKey = "devType:";
    size_t pos = 0;
    int type = OUTPUT_UNKNOWN_E;
    if (text) {
        while (true) {
            const std::string_view word = nextWord(text, pos);
            if (word.empty()) break;
            if (word.substr(0, kKey.size()) != kKey) continue;
            if (word.size() > kKey.size() && word[kKey.size()] >= '0' && word[kKey.size()] <= '3')
                type = word[kKey.size()] - '0';
            break;
        }
    }
    if (consumed) *consumed = static_cast<int>(pos);
    return type;
}

int get_key_value(const char* text, size_t* pos, const char* key, std::string& value) {
    if (!text || !pos || !key) return -1;
    const size_t keyLen = std::strlen(key);
    size_t p = *pos;
    while (true) {
        const std::string_view word = nextWord(text, p);
        // A word no longer than the key cannot carry a value: the fields have ended.
        if (word.size() <= keyLen) return -1;
        if (word.compare(0, keyLen, key) != 0) continue;
        value.assign(word.substr(keyLen, kValueMax));
        *pos = p;
        return 0;
    }
}

bool parseOutputLine(const char* line, mpdOutput_s& out) {
    if (!line) return false;
    size_t pos = 0;
    if (nextWord(line, pos) != "Output") return false;
    if (!toInt(std::string(nextWord(line, pos)), out.number)) return false;
    while (line[pos] == ' ' || line[pos] == '\t') ++pos;
    if (line[pos] != '(') return false;
    const std::string_view rest(line + pos + 1);
    const size_t close = rest.find(") is ");
    const size_t eol = rest.find('\n');
    if (close == std::string_view::npos || close == 0 || (eol != std::string_view::npos && eol < close)) return false;
    out.name.assign(rest.substr(0, std::min(close, kValueMax)));

    const char* fields = rest.data() + close + 5;
    size_t at = 0;
    std::string value;
    if (get_key_value(fields, &at, "uid:", value) != 0) return false;
    out.uid = value;
    int typeEnd = 0;
    out.devType = Get_Output_DeviceType(fields, &typeEnd);
    at = std::max(at, static_cast<size_t>(typeEnd));

    const std::pair<const char*, int*> numbers[] = {
        {"sampleRate:", &out.sampleRate}, {"sampleRateMode:", &out.sampleRateMode}, {"dsd:", &out.dsd}, {"dsdMode:", &out.dsdMode}};
    for (const auto& [key, target] : numbers)
        if (get_key_value(fields, &at, key, value) != 0 || !toInt(value, *target)) return false;

    if (get_key_value(fields, &at, "hwParam:hw:", value) != 0) return false;
    const size_t comma = value.find(',');
    if (comma == std::string::npos || value.compare(0, 5, "CARD=") != 0 ||
        value.compare(comma + 1, 4, "DEV=") != 0)
        return false;
    return toInt(value.substr(5, comma - 5), out.card) && toInt(value.substr(comma + 5), out.device);
}

int checkCardStatus(int card, int device, char* buf, int size) {
    if (card < 0 || device < 0 || !buf || size <= 0) return 1;
    const std::string path =
        approot::path("/proc/asound/card" + std::to_string(card) + "/pcm" + std::to_string(device) + "p/sub0/status");
    FILE* f = std::fopen(path.c_str(), "re");
    if (!f) return 1;
    const bool read = std::fgets(buf, size, f) != nullptr;
    std::fclose(f);
    return read ? 0 : 1;
}

std::string hdmiMonitorName(const std::string& uid) {
    const size_t underscore = uid.find('_');
    if (underscore != std::string::npos) {
        const size_t dash = uid.find('-', underscore + 1);
        if (dash == std::string::npos || dash + 1 >= uid.size() || !std::isdigit(static_cast<unsigned char>(uid[dash + 1])))
            return {};
        return monitorNameFromCardEld(readCardElds(uid.substr(0, underscore), uid[dash + 1] - '0'));
    }
    static constexpr std::string_view kLocalHdmi = "TAVRINTOHDMI";
    const size_t at = uid.find(kLocalHdmi);
    if (at == std::string::npos || at + kLocalHdmi.size() >= uid.size()) return {};
    const std::string eld = eldFileForLocalHdmi(readModel(), uid[at + kLocalHdmi.size()]);
    if (eld.empty()) return {};
    return monitorNameFromModelEld(readFile(approot::path(eld)));
}

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

int alsa_device_doc_gen(const std::string& outputs, XMLNode& reply, int analogOnly) {
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
    return restartMusicServiceIfAnalogMissing(analogFound) ? 1 : 0;
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
