#include "util/Subtitle.h"

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>
#include <string_view>
#include <vector>

#include "util/AppRoot.h"
#include "util/Log.h"
#include "util/Process.h"

namespace {

constexpr int kReaderTimeoutMs = 5000;

// First line of the media server's setting `key` ("" when it cannot be read).
std::string readSetting(const char* key, const char* fallback) {
    ProcessOptions options;
    options.timeoutMs = kReaderTimeoutMs;
    options.outputCap = 1024;
    ProcessResult r = runProcess({approot::path("/sbin/yarrow"), "-f",
                                  approot::path("/mnt/ext/opt/XUMA/etc/config/Vantrel.conf"), "-d", fallback, "",
                                  key},
                                 options);
    if (r.spawnErrno != 0 || r.timedOut) return {};
    std::string line = r.output.substr(0, r.output.find('\n'));
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    return line;
}

bool hasSubtitleExtension(std::string_view name) {
    if (name.size() < 4) return false;
    std::string ext(name.substr(name.size() - 4));
    return strcasecmp(ext.c_str(), ".srt") == 0 || strcasecmp(ext.c_str(), ".ass") == 0;
}

bool containsNoCase(std::string_view text, std::string_view needle) {
    if (needle.empty() || needle.size() > text.size()) return false;
    for (size_t i = 0; i + needle.size() <= text.size(); ++i) {
        if (strncasecmp(text.data() + i, needle.data(), needle.size()) == 0) return true;
    }
    return false;
}

bool isRegularFile(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

bool is_default_subtitle_found(const std::string& mediaPath, std::string& subtitlePath) {
    const int setting = std::atoi(readSetting("default_subtitle", "0").c_str());
    LOG_TRACE("default_subtitle = %d", setting);

    const size_t slash = mediaPath.rfind('/');
    if (slash == std::string::npos || slash + 1 >= mediaPath.size()) {
        LOG_ERR("Can't split filename.");
        return false;
    }
    const std::string dir = slash == 0 ? "/" : mediaPath.substr(0, slash);
    const std::string file = mediaPath.substr(slash + 1);
    const size_t dot = file.rfind('.');
    if (dot == std::string::npos || dot == 0) {
        LOG_ERR("Can't get target of filename.");
        return false;
    }
    const std::string target = file.substr(0, dot);
    if (setting == 0) return false;

    const std::string lang = readSetting("default_subtitle_lang", "");
    LOG_TRACE("subtitle lang str = %s", lang.c_str());

    std::unique_ptr<DIR, int (*)(DIR*)> d(::opendir(dir.c_str()), ::closedir);
    if (!d) {
        LOG_ERR("opendir %s fail.", dir.c_str());
        return false;
    }

    std::string best;
    int bestScore = -1;
    while (dirent* e = ::readdir(d.get())) {
        std::string_view name(e->d_name);
        if (name.size() < target.size() + 4 || name.compare(0, target.size(), target) != 0) continue;
        if (!hasSubtitleExtension(name)) continue;
        const std::string full = (dir == "/" ? "" : dir) + "/" + std::string(name);
        const bool regular =
            e->d_type == DT_REG || ((e->d_type == DT_UNKNOWN || e->d_type == DT_LNK) && isRegularFile(full));
        if (!regular) continue;
        // What lies between the video's name and the extension: ".en", "_chs", "" ...
        std::string_view middle = name.substr(target.size(), name.size() - 4 - target.size());
        int score = (containsNoCase(middle, lang) ? 2 : 0) + (middle.empty() || middle[0] == '.' ? 1 : 0);
        if (score > bestScore || (score == bestScore && name < best)) {
            bestScore = score;
            best = name;
        }
    }
    if (bestScore < 0) return false;
    subtitlePath = (dir == "/" ? "" : dir) + "/" + best;
    LOG_TRACE("matched file! => %s", subtitlePath.c_str());
    return true;
}
