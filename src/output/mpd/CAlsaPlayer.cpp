#include "agent/MediaAgent.h"
#include "util/ResultCodes.h"
#include "output/mpd/CAlsaPlayer.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include "util/AppRoot.h"
#include "util/Log.h"
#include "util/Process.h"
#include "util/TimeText.h"
#include "output/mpd/MpdAttr.h"
#include "player/PlayerTypes.h"
#include "output/mpd/MpdStatus.h"

namespace {

constexpr int kFirstPort = 12350;
constexpr int kLastPort = 12650;
constexpr int kPortCandidates = 300;
constexpr int kSharedMpdPort = 8893;  // the music-player package's own MPD

constexpr int kMpcTimeoutMs = 5000;
constexpr int kServerTimeoutMs = 10000;
constexpr auto kServerReadyWait = std::chrono::seconds(5);
constexpr auto kServerReadyStep = std::chrono::milliseconds(50);

std::mutex g_portMutex;
int g_portCounter = kFirstPort;                // guarded by g_portMutex
std::function<bool(int)> g_portProbe;          // guarded by g_portMutex; null: the machine's tables
std::atomic<int> g_pollPeriodMs{1000};

std::string mpdBinary() { return approot::path("/tmp/larkd/bin/mpd"); }
std::string mpcBinary() { return approot::path("/tmp/larkd/bin/mpc"); }
std::string mpdConfig() { return approot::path("/tmp/larkd/morrat.conf"); }

bool readWholeFile(const char* path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream text;
    text << in.rdbuf();
    out = text.str();
    return true;
}

int commandStatus(const ProcessResult& r) {
    if (r.spawnErrno != 0 || r.timedOut || r.termSignal != 0) return -1;
    return r.exitStatus;
}

}  // namespace

int send_mpd_cmd(const std::vector<std::string>& argv) {
    LOG_TRACK("[%lu]%s &> /dev/null", static_cast<unsigned long>(pthread_self()), formatCommandLine(argv).c_str());
    ProcessOptions options;
    options.capture = ProcessOptions::Capture::None;
    options.timeoutMs = kMpcTimeoutMs;
    return commandStatus(runProcess(argv, options));
}

// ---- ports ---------------------------------------------------------------------------------

bool CAlsaPlayer::tcpTableHasLocalPort(std::string_view table, int port) {
    // "  sl  local_address rem_address   st ..." then one socket a line, local address second:
    // "   0: 0100007F:3039 00000000:0000 0A ..." (tcp6: 32 hex digits before the ':').
    bool header = true;
    while (!table.empty()) {
        size_t end = table.find('\n');
        std::string_view line = table.substr(0, end);
        table.remove_prefix(end == std::string_view::npos ? table.size() : end + 1);
        if (header) {
            header = false;
            continue;
        }
        std::istringstream fields{std::string(line)};
        std::string slot, local;
        if (!(fields >> slot >> local)) continue;
        size_t colon = local.rfind(':');
        if (colon == std::string::npos) continue;
        std::string hex = local.substr(colon + 1);
        if (hex.empty() || hex.size() > 4 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
            continue;
        if (std::stoi(hex, nullptr, 16) == port) return true;
    }
    return false;
}

bool CAlsaPlayer::isTcpPortInUse(int port) {
    // The machine's own tables, never the appliance root's.
    for (const char* path : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::string table;
        if (readWholeFile(path, table) && tcpTableHasLocalPort(table, port)) return true;
    }
    return false;
}

int CAlsaPlayer::choosePort() {
    std::lock_guard lock(g_portMutex);
    for (int i = 0; i < kPortCandidates; ++i) {
        if (g_portCounter + 1 > kLastPort) g_portCounter = kFirstPort;
        else ++g_portCounter;
        bool busy = g_portProbe ? g_portProbe(g_portCounter) : isTcpPortInUse(g_portCounter);
        if (!busy) return g_portCounter;
    }
    LOG_ERR("no free port in %d..%d; using %d", kFirstPort, kLastPort, kFirstPort);
    g_portCounter = kFirstPort;
    return kFirstPort;
}

void CAlsaPlayer::setPortProbe(std::function<bool(int)> probe) {
    std::lock_guard lock(g_portMutex);
    g_portProbe = std::move(probe);
}

void CAlsaPlayer::resetPortCounter() {
    std::lock_guard lock(g_portMutex);
    g_portCounter = kFirstPort;
}

void CAlsaPlayer::setPollPeriod(std::chrono::milliseconds period) {
    g_pollPeriodMs.store(static_cast<int>(std::max<std::chrono::milliseconds::rep>(1, period.count())));
}

// ---- sound device --------------------------------------------------------------------------

bool CAlsaPlayer::isSndDevBusy(const std::string& card, const std::string& device) {
    std::string path = approot::path("/proc/asound/card" + card + "/pcm" + device + "p/sub0/status");
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        LOG_WARN("%s: cannot read; counted busy", path.c_str());
        return true;
    }
    char buffer[257] = {};
    in.read(buffer, 256);
    if (in.bad()) return true;
    LOG_TRACK("xxxxx     buf:%s", path.c_str());
    return std::string_view(buffer, static_cast<size_t>(in.gcount())).find("closed") == std::string_view::npos;
}

// ---- construction --------------------------------------------------------------------------

CAlsaPlayer::CAlsaPlayer(uint32_t type, const std::string& renderID, const std::string& deviceName,
                         const std::string& playlistTitle, const std::string& appType, const std::string& outputId)
    : CDevicePlayer(type, renderID, deviceName, playlistTitle, appType), m_outputId(outputId) {
    m_port = choosePort();
    startServer();
    sendMpc({"enable", "only", deviceName});
    if (sendMpc({"volume", "100"}) == 0) m_knownVolume = 100;
    startWorker("alsa");
}

std::unique_ptr<CPlayer> CAlsaPlayer::create(const std::string& renderID, const renderCacheInfo_s& render,
                                             const std::string& playlistTitle, const std::string& appType,
                                             int& result) {
    if (isSndDevBusy(render.card, render.device)) {
        result = result::kPlayerBusy;
        return nullptr;
    }
    return std::make_unique<CAlsaPlayer>(render.type, renderID, render.name, playlistTitle, appType, render.card);
}

int CAlsaPlayer::setAttributesWithoutPlayer(const renderCacheInfo_s& render, const char* attributes) {
    int sampleRate = -2, dsd = -2;
    ParseMpdAttr(attributes, &sampleRate, &dsd);
    if (sampleRate == -2 && dsd == -2) return 0;
    ProcessOptions options;
    options.timeoutMs = kServerTimeoutMs;
    options.capture = ProcessOptions::Capture::None;
    runProcess({mpcBinary(), "-p", std::to_string(kSharedMpdPort), "setoutputattr", render.name, std::to_string(dsd),
                std::to_string(sampleRate)},
               options);
    return 0;
}

CAlsaPlayer::~CAlsaPlayer() {
    LOG_TRACE("~CAlsaPlayer %s (port %d)", getDeviceName().c_str(), m_port);
    endWorker(false);  // the server is about to be killed: nothing to stop first
    stopServer();
}

std::vector<std::string> CAlsaPlayer::mpcArgv(std::initializer_list<std::string> args) const {
    std::vector<std::string> argv{mpcBinary(), "-p", std::to_string(m_port)};
    argv.insert(argv.end(), args);
    return argv;
}

int CAlsaPlayer::sendMpc(std::initializer_list<std::string> args) { return send_mpd_cmd(mpcArgv(args)); }

bool CAlsaPlayer::readStatus(std::string& out) {
    ProcessOptions options;
    options.timeoutMs = kMpcTimeoutMs;
    options.outputCap = 4096;
    ProcessResult r = runProcess(mpcArgv({"status"}), options);
    if (r.spawnErrno != 0) {
        out.clear();
        return false;
    }
    out = r.timedOut ? std::string() : std::move(r.output);
    return true;
}

void CAlsaPlayer::runServerCommand(const std::vector<std::string>& argv, const char* failure) {
    LOG_TRACK("%s 1>/dev/null 2>/dev/null", formatCommandLine(argv).c_str());
    ProcessOptions options;
    options.capture = ProcessOptions::Capture::None;
    options.timeoutMs = kServerTimeoutMs;
    ProcessResult r = runProcess(argv, options);
    if (!r.ok()) LOG_ERR("mpd on port %d: %s (status %d)", m_port, failure, commandStatus(r));
}

void CAlsaPlayer::startServer() {
    runServerCommand({mpdBinary(), "--port", std::to_string(m_port), mpdConfig()}, "did not start");

    // Ready once mpc gets an answer; the server needs a moment after it detaches.
    auto deadline = std::chrono::steady_clock::now() + kServerReadyWait;
    ProcessOptions quiet;
    quiet.capture = ProcessOptions::Capture::None;
    quiet.timeoutMs = kMpcTimeoutMs;
    while (!runProcess(mpcArgv({"status"}), quiet).ok()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            LOG_ERR("mpd on port %d does not answer", m_port);
            return;
        }
        std::this_thread::sleep_for(kServerReadyStep);
    }
}

void CAlsaPlayer::stopServer() {
    runServerCommand({mpdBinary(), "--port", std::to_string(m_port), "--kill", mpdConfig()}, "stop failed");
}

// ---- transport -----------------------------------------------------------------------------

int CAlsaPlayer::seek(const char* position) {
    if (!position || getPlayerState() == STATE_STOP_E) return 0;
    int offset = m_startOffset.load();
    // Positions are the track's own; MPD counts from the start of the file.
    if (offset >= 1) sendMpc({"seek", sec_to_hhmmss(hhmmss_convert_to_sec(position) + offset)});
    else sendMpc({"seek", position});
    return 0;
}

int CAlsaPlayer::seekAbs(int seconds) { return sendMpc({"seek", sec_to_hhmmss(seconds)}); }

int CAlsaPlayer::setAudioAndSubtitle(const char*, int, int, const char*, const char*, const char*, const char*,
                                     const char*, const char*, int) {
    LOG_WARN("[%s][%d]: >>> Need to implement AlsaPlayer::setAudioAndSubtitle <<<", "alsaPlayer.h", __LINE__);
    return 0;
}

// ---- volume --------------------------------------------------------------------------------

int CAlsaPlayer::setVolume(int volume) {
    if (static_cast<unsigned>(volume) > 100) return -1;
    std::lock_guard lock(m_volumeMutex);
    // Volume 0 is a mute whose un-mute gives 1, not silence.
    m_savedVolume = volume == 0 ? 1 : -1;
    sendVolume_(volume);
    return 0;
}

int CAlsaPlayer::sendVolume_(int volume) {
    int rc = sendMpc({"volume", std::to_string(volume)});
    m_knownVolume = rc == 0 ? volume : -1;  // on failure, ask MPD next time
    return rc;
}

int CAlsaPlayer::getVolume() {
    int known = m_knownVolume.load();
    if (known >= 0) return known;
    std::string text;
    if (!readStatus(text)) return -1;
    int volume = parseMpdStatus(text).volume;
    m_knownVolume = volume;
    return volume;
}

int CAlsaPlayer::setMute(bool on) {
    LOG_TRACK("CAlsaPlayer::mute");
    std::lock_guard lock(m_volumeMutex);
    if (!on) {
        int saved = m_savedVolume.load();
        if (saved > 0) {
            sendVolume_(std::min(saved, 100));
            m_savedVolume = -1;
        }
        return 0;
    }
    if (m_savedVolume.load() >= 0) return 0;  // already muted: keep the first saved value
    int volume = getVolume();
    if (static_cast<unsigned>(volume) > 100) m_savedVolume = 100;  // unreadable counts as full
    else if (volume != 0) m_savedVolume = volume;
    sendVolume_(0);
    return 0;
}

int CAlsaPlayer::setAttributes(const char* attributes) {
    int sampleRate = -2;
    int dsd = -2;
    if (ParseMpdAttr(attributes, &sampleRate, &dsd) != 0 || (sampleRate == -2 && dsd == -2)) return -1;
    int rc = sendMpc({"setoutputattr", getDeviceName(), std::to_string(dsd), std::to_string(sampleRate)});
    send_mpd_cmd({mpcBinary(), "-p", std::to_string(kSharedMpdPort), "reloadsettings"});
    return rc;
}

void CAlsaPlayer::debugDetails(std::string& out) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "state              :%s\n"
                  "port               :%d\n"
                  "startOffset        :%d\n"
                  "duration           :%d\n"
                  "savedVolume        :%d\n",
                  playerStateLogName(getPlayerState()), m_port, m_startOffset.load(), m_duration.load(),
                  m_savedVolume.load());
    out += text;
}

PlayerTraits CAlsaPlayer::traits() const {
    const uint32_t type = getPlayerType();
    const char* subtype = (type & playertype::kAlsaAnalog) ? "ANALOG"
                          : (type & playertype::kAlsaHdmi) ? "HDMI"
                          : (type & playertype::kAlsaUsb)  ? "USB"
                                                           : "OTHER";
    return {.typeText = "ALSA", .subtypeText = subtype};
}

// ---- content -------------------------------------------------------------------------------

int CAlsaPlayer::getNextObjectFilePath(playlistElm_s& elm, std::string& path, int& startOffset, int& duration) {
    startOffset = 0;
    duration = 0;
    // Once round the queue at most: a repeating queue of unplayable entries must not spin here.
    size_t attempts = std::max<size_t>(getPlaylistSize(), 1);
    for (size_t tried = 1;; ++tried) {
        path.clear();
        int start = 0;
        int length = 0;
        int rc = getPlaylistElmByIndex(elm, -1);
        if (rc == 0) {
            if (elm.ContentType == CONTENT_FILE_E) path = elm.Content;
            else if (elm.ContentType == CONTENT_DBID_E)
                rc = mediaagent::dbIDToFilePath(elm.Content, elm.MediaType, path, start, length);
            else rc = mediaagent::upnpObjectToFilePath(elm.Content, path, start, length);
        }
        if (rc == 0 && !path.empty()) {
            startOffset = start;
            duration = length;
            return 0;
        }
        LOG_WARN("%s: entry %u does not resolve to a file", getDeviceName().c_str(), getCurrTrack());
        if (tried >= attempts || worker().commandPending() || !changeToNextTrack()) return -1;
    }
}

int CAlsaPlayer::addFileToMPD(const std::string& path) {
    sendMpc({"clear"});
    std::vector<std::string> argv = mpcArgv({"add", "file://" + path});
    LOG_WARN("%s", formatCommandLine(argv).c_str());
    return send_mpd_cmd(argv);
}

// ---- worker steps --------------------------------------------------------------------------

std::chrono::milliseconds CAlsaPlayer::passPeriod() const { return std::chrono::milliseconds(g_pollPeriodMs.load()); }

DeviceSteps::Start CAlsaPlayer::startTrack(bool) {
    resetTimes();
    sendMpc({"stop"});

    playlistElm_s elm;
    std::string path;
    int start = -1;
    int length = -1;
    if (getNextObjectFilePath(elm, path, start, length) != 0) {
        VLOG_AT(vlog::kRemove, "getNextObjectFilePath() ... [fail] ... [Play] ---> [STOP]");
        return Start::Unresolvable;
    }
    m_startOffset = start;
    m_duration = length;

    if (path.empty() || addFileToMPD(path) != 0) {
        LOG_ERR("setAvTransport_() ... err");
        return Start::Refused;
    }
    // A slice starts muted so the file's opening is not heard before the seek lands; a player
    // the user muted stays as it is.
    bool muted = false;
    if (start > 0 && m_savedVolume.load() < 0) {
        setMute(true);
        muted = true;
    }
    Start result = Start::Started;
    if (sendMpc({"play"}) != 0) {
        LOG_WARN("1.........................................");
        result = Start::Refused;  // MPD refused the file: go on rather than retry it each turn
    } else {
        sched_yield();
        if (start > 0) seekAbs(start);
    }
    if (muted) setMute(false);
    return result;
}

DeviceSteps::Follow CAlsaPlayer::followTrack() {
    std::string text;
    if (!readStatus(text)) {
        setPlayerState(STATE_PLAY_E);
        return Follow::Playing;
    }
    MpdStatus status = parseMpdStatus(text);
    if (status.volume >= 0) m_knownVolume = status.volume;

    int offset = m_startOffset.load();
    int length = m_duration.load();
    int total = length >= 1 ? length : status.total;
    int current = status.current;
    if (offset >= 1) current = std::max(0, current - offset);
    setTotalTime(sec_to_hhmmss(total));
    setCurrTime(current);
    // After the times, so that whoever sees PLAY also sees where it plays.
    setPlayerState(STATE_PLAY_E);
    LOG_WARN("[duration]       :%d", total);
    LOG_WARN("[current]        :%d", current);

    // The file ran out (or MPD cannot be read), or the slice is over even though the file
    // goes on.
    bool over = status.state == 1 || (status.state != 2 && offset >= 0 && length > 0 && current >= total);
    if (status.state == 2) return Follow::PausedOutside;  // paused from outside: follow MPD
    if (!over) return Follow::Playing;
    m_startOffset = -1;
    m_duration = -1;
    sendMpc({"stop"});
    return Follow::Over;
}

void CAlsaPlayer::pauseDevice() { sendMpc({"pause"}); }

bool CAlsaPlayer::resumeDevice() {
    sendMpc({"play"});
    return true;
}

void CAlsaPlayer::stopDevice(bool) {
    sendMpc({"stop"});
    m_startOffset = -1;
    m_duration = -1;
}
