#include "discovery/SoundCards.h"

#include <dirent.h>
#include <fnmatch.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "discovery/DiscoveryProcess.h"
#include "discovery/WordScan.h"
#include "util/AppRoot.h"

namespace ParamXmlWrapper {

using namespace wordscan;

namespace {

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

}  // namespace

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

}  // namespace ParamXmlWrapper
