#include "discovery/AvahiParse.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string_view>

#include "util/Log.h"
#include "protocol/ParamXmlWrapper.h"

using ParamXmlWrapper::add_child_node;

namespace {

// What a TXT key means for a listing; rows are searched in order, the first match wins.
enum txtField_e {
    TXT_DEVICE_ID = 1,
    TXT_MODEL = 2,
    TXT_AUTH = 3,
    TXT_FORCE_AUTH = 4,
};

struct txtKey_s {
    uint32_t kind;  // txtField_e
    const char* key;
    const char* element;  // element written, or the authentication method set
};

const txtKey_s kAirplayKeys[] = {
    {TXT_DEVICE_ID, "deviceid", "deviceId"},
    {TXT_MODEL, "model", "model"},
    {TXT_AUTH, "pin", "Passcode"},
    {TXT_AUTH, "pw", "Password"},
    {TXT_FORCE_AUTH, "psi", nullptr},
    {0, nullptr, nullptr},
};

const txtKey_s kChromecastKeys[] = {
    {TXT_DEVICE_ID, "id", "deviceId"},
    {TXT_MODEL, "md", "model"},
    {0, nullptr, nullptr},
};

// The service type each listing browses; a line of another type is not used.
const char* serviceTypeOf(int kind) {
    switch (kind) {
        case AVAHI_AIRPLAY_E: return "_airplay._tcp";
        case AVAHI_RAOP_E: return "_raop._tcp";
        case AVAHI_CHROMECAST_E: return "_googlecast._tcp";
        default: return "";
    }
}

constexpr size_t kNameMax = 255;  // a longer service name is not a receiver's

// Whether an AirPlay receiver plays video: bit 0 of its features ("0xLOW" or "0xLOW,0xHIGH").
// No features: taken as a video receiver; unreadable ones: false, with why.
bool airplayPlaysVideo(const std::string& line, const std::string& name) {
    std::string features;
    if (!avahiTxtValue(line, "features", 64, features)) return true;
    const std::string low = features.substr(0, features.find(','));
    char* end = nullptr;
    const unsigned long bits = std::strtoul(low.c_str(), &end, 16);
    if (low.size() < 3 || low.compare(0, 2, "0x") != 0 || !end || *end) {
        LOG_WARN("%s: unreadable features \"%s\"; not listed", name.c_str(), features.c_str());
        return false;
    }
    if (!(bits & 1)) LOG_TRACE("%s: no video; left to the audio listing", name.c_str());
    return (bits & 1) != 0;
}

// One value of a TXT list ("cn=0,1,2") in it?
bool listHas(const std::string& list, const char* value) {
    std::string_view rest(list);
    while (true) {
        const size_t comma = rest.find(',');
        if (rest.substr(0, comma) == value) return true;
        if (comma == std::string_view::npos) return false;
        rest.remove_prefix(comma + 1);
    }
}

// A speaker's audio formats and encryption as the render cache wants them: "pcm" when it
// takes PCM (0) else the list as given; "rsa" (1), "none" (0) or "notSupport".
void addRaopType(XMLNode& device, const std::string& line, const std::string& port) {
    std::string cn;
    std::string et;
    avahiTxtValue(line, "cn", 64, cn);
    avahiTxtValue(line, "et", 64, et);
    XMLNode type = add_child_node(device, "type", "audio");
    type.addAttribute("protocol", "raop");
    type.addAttribute("port", port.c_str());
    type.addAttribute("cn", listHas(cn, "0") ? "pcm" : cn.c_str());
    type.addAttribute("et", listHas(et, "1") ? "rsa" : listHas(et, "0") ? "none" : "notSupport");
}

const txtKey_s* keysFor(int kind) {
    if (kind == AVAHI_AIRPLAY_E) return kAirplayKeys;
    if (kind == AVAHI_CHROMECAST_E) return kChromecastKeys;
    return nullptr;
}

// "AA:BB:CC:DD:EE:FF" -> "AABBCCDDEEFF": six groups of up to two characters, ':' between them.
std::string joinMac(std::string_view mac) {
    std::string joined;
    for (int group = 0; group < 6 && !mac.empty(); ++group) {
        const size_t colon = mac.find(':');
        joined.append(mac.substr(0, std::min<size_t>(2, std::min(colon, mac.size()))));
        if (colon == std::string_view::npos) break;
        mac.remove_prefix(colon + 1);
    }
    return joined;
}

std::vector<std::string_view> splitFields(std::string_view line, size_t maxFields) {
    std::vector<std::string_view> fields;
    while (fields.size() + 1 < maxFields) {
        const size_t semi = line.find(';');
        if (semi == std::string_view::npos) break;
        fields.push_back(line.substr(0, semi));
        line.remove_prefix(semi + 1);
    }
    fields.push_back(line);  // the last field keeps any further ';' (TXT values may hold them)
    return fields;
}

}  // namespace

int decodeAvahi(const char* src, std::string& dst) {
    if (!src || !*src) return 1;
    const size_t len = std::strlen(src);
    for (size_t i = 0; i < len; ++i) {
        if (src[i] != '\\') {
            dst += src[i];
            continue;
        }
        if (i + 3 < len && std::isdigit(static_cast<unsigned char>(src[i + 1]))) {
            const char digits[4] = {src[i + 1], src[i + 2], src[i + 3], '\0'};
            dst += static_cast<char>(std::atoi(digits));
            i += 3;
        } else if (i + 1 < len) {
            dst += src[++i];
        }
    }
    return 0;
}

bool avahiTxtValue(const std::string& line, const char* key, size_t maxLen, std::string& value) {
    const std::string marker = std::string("\"") + key + "=";
    const size_t at = line.find(marker);
    if (at == std::string::npos) return false;
    const size_t start = at + marker.size();
    size_t end = line.find("\" \"", start);
    if (end == std::string::npos) end = line.find('"', start);  // the last record of the line
    if (end == std::string::npos) return false;
    value = line.substr(start, std::min(end - start, maxLen));
    return true;
}

int parseAvahiTxt(const char* txt, XMLNode& device, int kind) {
    if (!txt || !*txt) return 1;
    const txtKey_s* keys = keysFor(kind);
    std::set<std::string> ids;
    bool forceAuth = false;
    const char* authMethod = nullptr;
    bool authSeen = false;

    std::string_view rest(txt);
    while (true) {
        const size_t quote = rest.find('"');
        std::string_view piece = rest.substr(0, quote);
        // Records are "key=value" "key=value": what lies between them is blank.
        if (!piece.empty() && piece.find_first_not_of(' ') != std::string_view::npos && keys) {
            const size_t eq = piece.find('=');
            const std::string key(piece.substr(0, eq));
            const std::string value(eq == std::string_view::npos ? std::string_view() : piece.substr(eq + 1));
            for (const txtKey_s* row = keys; row->key; ++row) {
                if (key != row->key) continue;
                switch (row->kind) {
                    case TXT_DEVICE_ID: {
                        const std::string id = kind == AVAHI_AIRPLAY_E ? joinMac(value) : value;
                        if (!ids.insert(id).second) return -1;
                        add_child_node(device, row->element, id.c_str());
                        if (kind == AVAHI_AIRPLAY_E) add_child_node(device, "mac", value.c_str());
                        break;
                    }
                    case TXT_MODEL:
                        add_child_node(device, row->element, value.c_str());
                        break;
                    case TXT_AUTH:
                        authSeen = true;
                        authMethod = row->element;
                        break;
                    case TXT_FORCE_AUTH:
                        authSeen = true;
                        forceAuth = true;
                        break;
                }
                break;
            }
        }
        if (quote == std::string_view::npos) break;
        rest.remove_prefix(quote + 1);
    }

    if (kind == AVAHI_AIRPLAY_E) {
        add_child_node(device, "forceAuth", forceAuth ? "1" : "0");
        // A receiver that only forces authentication asks for a passcode on first contact.
        if (authSeen) add_child_node(device, "authMethod", authMethod ? authMethod : "First-Time Passcode");
    }
    return 0;
}

int parseDevices(const std::string& text, XMLNode& reply, int kind) {
    if (text.empty()) return -1;
    std::vector<devMap_t> seen;

    std::string_view rest(text);
    while (!rest.empty()) {
        const size_t nl = rest.find('\n');
        const std::string line(rest.substr(0, nl));
        rest.remove_prefix(nl == std::string_view::npos ? rest.size() : nl + 1);

        // 0 event, 1 interface, 2 protocol, 3 name, 4 type, 5 domain, 6 host, 7 address, 8 port, 9 TXT
        const std::vector<std::string_view> f = splitFields(line, 10);
        if (f.size() < 9 || f[0] != "=") continue;
        if (f[4] != serviceTypeOf(kind)) continue;  // another browse's line
        const std::string rawName(f[3]);
        const std::string address(f[7]);
        const std::string port(f[8]);
        const std::string txt(f.size() > 9 ? f[9] : std::string_view());

        XMLNode device = XMLNode::createXMLTopNode("device");
        std::string name;
        decodeAvahi(rawName.c_str(), name);
        if (name.size() > kNameMax) {
            LOG_WARN("mDNS service name of %zu bytes; not listed", name.size());
            continue;
        }
        if (kind == AVAHI_AIRPLAY_E && !airplayPlaysVideo(line, name)) continue;
        std::string raopId;
        if (kind == AVAHI_RAOP_E) {
            // A speaker's service name is "MAC@Name".
            const size_t at = name.find('@');
            if (at == std::string::npos || at == 0 || at + 1 == name.size()) {
                LOG_WARN("%s: not a speaker's name; not listed", name.c_str());
                continue;
            }
            raopId = name.substr(0, at);
            name.erase(0, at + 1);
        }
        XMLNode nameNode = add_child_node(device, "deviceName", name.empty() ? nullptr : name.c_str());

        bool repeated = false;
        for (const devMap_t& d : seen)
            if (d.name == rawName && d.address == address) repeated = true;
        if (repeated) continue;  // the same service seen on another interface
        seen.push_back({rawName, address});

        XMLNode ip = add_child_node(device, "ip", address.c_str());
        ip.addAttribute("interface", std::string(f[1]).c_str());

        std::string friendly;
        if (avahiTxtValue(line, "fn", 1023, friendly) && !friendly.empty()) nameNode.updateText(friendly.c_str());

        const int txtResult = parseAvahiTxt(txt.c_str(), device, kind);
        if (txtResult == -1) {
            LOG_WARN("There is duplicate device!");
            continue;
        }
        if (txtResult != 0) LOG_WARN("parse avahi txt something error!");

        const char* model = device.getChildNode("model").getText();
        if (kind == AVAHI_RAOP_E) {
            device.addAttribute("Type", "Raop");
            add_child_node(device, "deviceId", raopId.c_str());
            addRaopType(device, line, port);
            add_child_node(device, "icon", "v3_menu/multizone/airplay");
        } else if (kind == AVAHI_AIRPLAY_E) {
            device.addAttribute("Type", "AirPlay");
            XMLNode type = add_child_node(device, "type",
                                          model && std::strstr(model, "Xbmc") ? "video,photo" : "video,photo,audio");
            type.addAttribute("protocol", "airplay");
            type.addAttribute("port", port.c_str());
            add_child_node(device, "icon", "v3_menu/multizone/airplay");
        } else if (kind == AVAHI_CHROMECAST_E) {
            device.addAttribute("Type", "Chromecast");
            XMLNode type =
                add_child_node(device, "type", model && std::strstr(model, "Audio") ? "audio" : "video,photo,audio");
            type.addAttribute("protocol", "chromecast");
            type.addAttribute("port", port.c_str());
            add_child_node(device, "icon", "v3_menu/multizone/chromecast");
        }
        add_child_node(device, "location", "remote");
        reply.addChild(device);
    }
    return 0;
}

int gen_avahi_device(int kind, const std::string& text, XMLNode& reply) {
    if (text.empty()) return 0;
    // The browse output ends with a newline that is not part of the last line.
    const std::string body = text.substr(0, text.size() - 1);
    if (kind == 0) return parseDevices(body, reply, AVAHI_AIRPLAY_E);
    if (kind == 1) return parseDevices(body, reply, AVAHI_CHROMECAST_E);
    if (kind == 2) return parseDevices(body, reply, AVAHI_RAOP_E);
    return -1;
}

void dropSpeakersListedAsAirplay(XMLNode& reply) {
    std::set<std::string> airplay;
    auto upper = [](std::string text) {
        for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        return text;
    };
    for (int i = 0; i < reply.nChildNode("device"); ++i) {
        XMLNode dev = reply.getChildNode("device", i);
        const char* kind = dev.getAttribute("Type");
        const char* id = dev.getChildNode("deviceId").getText();
        if (kind && id && std::strcmp(kind, "AirPlay") == 0) airplay.insert(upper(id));
    }
    for (int i = reply.nChildNode("device") - 1; i >= 0; --i) {
        XMLNode dev = reply.getChildNode("device", i);
        const char* kind = dev.getAttribute("Type");
        const char* id = dev.getChildNode("deviceId").getText();
        if (kind && id && std::strcmp(kind, "Raop") == 0 && airplay.count(upper(id))) dev.deleteNodeContent();
    }
}

std::vector<std::string> parseUnknowRenderNames(const std::string& text) {
    constexpr size_t kLineMax = 2047;  // longer lines are cut, as the line reader always did
    std::vector<std::string> names;
    std::set<std::string> ids;
    std::string_view rest(text);
    while (!rest.empty()) {
        const size_t nl = rest.find('\n');
        const std::string line(rest.substr(0, std::min(nl, kLineMax)));
        rest.remove_prefix(nl == std::string_view::npos ? rest.size() : nl + 1);
        if (line.find("=;") == std::string::npos) continue;

        std::string id;
        avahiTxtValue(line, "id", 127, id);
        if (!ids.insert(id).second) continue;
        std::string name;
        if (!avahiTxtValue(line, "fn", 2047, name)) name = "Unknown";
        names.push_back(name);
    }
    return names;
}
