#include "util/Version.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "util/AppRoot.h"
#include "util/Log.h"
#include "util/Process.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kReaderTimeoutMs = 5000;
// A failed read (reader missing, hanging, or no such key) is retried after this long even when
// the file is unchanged, so a transient failure does not stick, yet a steady one costs at most
// one program run per interval.
constexpr auto kFailureRetry = std::chrono::seconds(10);
// The file's stamp is looked at again at most this often: a version is asked for with every echo,
// and a change (a package update) need not be seen at once.
constexpr auto kStampRecheck = std::chrono::seconds(1);

constexpr const char* kNullError = "Error: version or modlName is NULL";
constexpr const char* kRunError = "Error: popen failed";
constexpr const char* kEmptyError = "Error: fgets failed or empty";

struct Stamp {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    long long mtimeSec = 0;
    long mtimeNsec = 0;
    bool operator==(const Stamp&) const = default;
};

Stamp stampOf(const std::string& path) {
    Stamp s;
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return s;
    s.exists = true;
    s.dev = st.st_dev;
    s.ino = st.st_ino;
    s.size = st.st_size;
    s.mtimeSec = st.st_mtim.tv_sec;
    s.mtimeNsec = st.st_mtim.tv_nsec;
    return s;
}

struct Lookup {
    bool ok = false;
    std::string value;   // the version when ok
    const char* error = nullptr;  // the reason otherwise
};

struct Entry {
    std::mutex m;  // guards the fields below; held only to copy them
    bool valid = false;
    Stamp stamp;
    Lookup result;
    Clock::time_point retryAt;
    Clock::time_point checkedAt;  // when stamp was last found to be the file's

    std::mutex loading;  // one reader run per entry at a time: a changed file is read once
};

class Cache {
public:
    Entry& entry(const std::string& key) {
        {
            std::shared_lock lock(m_mutex);
            auto it = m_entries.find(key);
            if (it != m_entries.end()) return *it->second;
        }
        std::unique_lock lock(m_mutex);
        auto& slot = m_entries[key];
        if (!slot) slot = std::make_unique<Entry>();
        return *slot;
    }

private:
    std::shared_mutex m_mutex;
    std::unordered_map<std::string, std::unique_ptr<Entry>> m_entries;  // entries never go away
};

Cache& cache() {
    static Cache c;
    return c;
}

bool fresh(const Entry& e, const Stamp& s) {
    return e.valid && e.stamp == s && (e.result.ok || Clock::now() < e.retryAt);
}

template <typename Loader>
Lookup cached(const std::string& key, const std::string& confPath, Loader load) {
    Entry& e = cache().entry(key);
    {
        std::lock_guard lock(e.m);
        if (Clock::now() - e.checkedAt < kStampRecheck && fresh(e, e.stamp)) return e.result;
    }
    Stamp s = stampOf(confPath);
    {
        std::lock_guard lock(e.m);
        if (fresh(e, s)) {
            e.checkedAt = Clock::now();
            return e.result;
        }
    }
    std::lock_guard loading(e.loading);
    s = stampOf(confPath);  // taken before the read: a change during it is seen next time
    {
        std::lock_guard lock(e.m);
        if (fresh(e, s)) return e.result;
    }
    Lookup r = load();
    std::lock_guard lock(e.m);
    e.valid = true;
    e.stamp = s;
    e.result = r;
    e.checkedAt = Clock::now();
    e.retryAt = e.checkedAt + kFailureRetry;
    return r;
}

// First line the configuration reader prints for `args`, trailing line breaks stripped.
Lookup readValue(const std::vector<std::string>& args) {
    ProcessOptions options;
    options.timeoutMs = kReaderTimeoutMs;
    options.outputCap = 4096;
    ProcessResult r = runProcess(args, options);
    Lookup out;
    if (r.spawnErrno != 0 || r.timedOut) {
        out.error = kRunError;
        return out;
    }
    std::string line = r.output.substr(0, r.output.find('\n'));
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
    if (line.empty()) {
        out.error = kEmptyError;
        return out;
    }
    out.ok = true;
    out.value = std::move(line);
    return out;
}

int report(const Lookup& r, bool verbose) {
    if (verbose && r.error) LOG_ERR("%s", r.error);
    return 1;
}

}  // namespace

int getMODLVersion(char* out, size_t size, const char* packageName, bool verbose) {
    if (out == nullptr || size == 0 || packageName == nullptr) {
        if (verbose) LOG_ERR("%s", kNullError);
        return 1;
    }
    const std::string conf = approot::path("/etc/config/modl.conf");
    std::string key = conf;
    key += '\n';
    key += packageName;
    Lookup r = cached(key, conf, [&] {
        return readValue({approot::path("/sbin/yarrow"), "-f", conf, packageName, "Version"});
    });
    if (!r.ok) return report(r, verbose);
    std::snprintf(out, size, "%s %s", packageName, r.value.c_str());
    return 0;
}

int getFirmwareVersion(char* out, size_t size, bool verbose) {
    if (out == nullptr || size == 0) {
        if (verbose) LOG_ERR("%s", kNullError);
        return 1;
    }
    const std::string conf = approot::path("/etc/config/tarvik.conf");
    Lookup r = cached(conf + "\n[firmware]", conf, [&] {
        const std::string reader = approot::path("/sbin/yarrow");
        Lookup version = readValue({reader, "-f", conf, "System", "Version"});
        if (!version.ok) return version;
        Lookup build = readValue({reader, "-f", conf, "System", "Build Number"});
        if (build.ok) version.value += "." + build.value;
        return version;
    });
    if (!r.ok) return report(r, verbose);
    std::snprintf(out, size, "FW %s", r.value.c_str());
    return 0;
}

int getVersion(char* out, size_t size, const char* packageName, bool withFirmware, bool verbose) {
    int r = getMODLVersion(out, size, packageName, verbose);
    if (r != 0 && withFirmware) r = getFirmwareVersion(out, size, verbose);
    return r;
}

std::string getVersionText(const char* packageName, bool withFirmware) {
    char buf[1024];
    if (getVersion(buf, sizeof buf, packageName, withFirmware, false) != 0) return {};
    return buf;
}
