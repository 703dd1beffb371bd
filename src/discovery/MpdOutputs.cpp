#include "discovery/MpdOutputs.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "discovery/WordScan.h"

namespace ParamXmlWrapper {

using namespace wordscan;

namespace {
const char* const kOutputTypeNames[] = {"UNKNOWN", "USB", "HDMI", "ANALOG"};
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

}  // namespace ParamXmlWrapper
