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
constexpr auto kParkWait = std::chrono::seconds(5);

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
    : CPlayer(type, renderID.c_str(), deviceName.c_str(), playlistTitle.c_str(), appType.c_str()),
      m_outputId(outputId) {
    m_port = choosePort();
    startServer();
    sendMpc({"enable", "only", deviceName});
    if (sendMpc({"volume", "100"}) == 0) m_knownVolume = 100;

    if (start(("alsa:" + deviceName).c_str()) != 0) {
        // No worker: callers must not wait for one to park.
        std::lock_guard lock(m_waitMutex);
        m_bStuckOnWaitLock = true;
        return;
    }
    // The worker's first pass stops MPD and parks; the player is handed over parked.
    std::unique_lock lock(m_waitMutex);
    waitParked_(lock, "CAlsaPlayer()");
}

std::unique_ptr<CPlayer> CAlsaPlayer::create(const std::string& renderID, const renderCacheInfo_s& render,
                                             const std::string& playlistTitle, const std::string& appType,
                                             int& result) {
    if (isSndDevBusy(render.card, render.device)) {
        result = -19;
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
    {
        std::lock_guard lock(m_waitMutex);
        m_bExit = true;
        m_bStop = true;
        m_bIsPlaying = false;
    }
    m_waitCond.notify_all();
    join();
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

void CAlsaPlayer::startServer() {
    std::vector<std::string> argv{mpdBinary(), "--port", std::to_string(m_port), mpdConfig()};
    LOG_TRACK("%s 1>/dev/null 2>/dev/null", formatCommandLine(argv).c_str());
    ProcessOptions options;
    options.capture = ProcessOptions::Capture::None;
    options.timeoutMs = kServerTimeoutMs;
    ProcessResult r = runProcess(argv, options);
    if (!r.ok()) LOG_ERR("mpd on port %d did not start (status %d)", m_port, commandStatus(r));

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
    std::vector<std::string> argv{mpdBinary(), "--port", std::to_string(m_port), "--kill", mpdConfig()};
    LOG_TRACK("%s 1>/dev/null 2>/dev/null", formatCommandLine(argv).c_str());
    ProcessOptions options;
    options.capture = ProcessOptions::Capture::None;
    options.timeoutMs = kServerTimeoutMs;
    ProcessResult r = runProcess(argv, options);
    if (!r.ok()) LOG_ERR("mpd on port %d: stop failed (status %d)", m_port, commandStatus(r));
}

// ---- transport (manager threads) ----------------------------------------------------------

void CAlsaPlayer::waitParked_(std::unique_lock<std::mutex>& lock, const char* who) {
    bool parked = m_parkedCond.wait_for(lock, kParkWait, [&] { return m_bStuckOnWaitLock && !m_wakeForStop; });
    if (!parked) LOG_ERR("%s: %s: worker did not park within 5 s", who, getDeviceName().c_str());
}

int CAlsaPlayer::play() {
    if (getPlaylistSize() == 0) return -1;
    playerState_e state = getPlayerState();
    if (state == STATE_PLAY_E) {
        LOG_WARN("play() state:%s", playerStateLogName(state));
        {
            std::lock_guard lock(m_waitMutex);
            m_kick = true;  // a track change from next()/previous() starts without waiting a turn
        }
        m_waitCond.notify_all();
        return 0;
    }
    // Resume the paused file; without one the worker starts the current track afresh.
    if (state == STATE_PAUSE_E && m_bIsPlaying) sendMpc({"play"});
    {
        std::lock_guard lock(m_waitMutex);
        m_bStop = false;
        m_kick = true;
    }
    m_waitCond.notify_all();
    return 0;
}

int CAlsaPlayer::pause() {
    std::unique_lock lock(m_waitMutex);
    m_bStop = true;
    if (getPlayerState() == STATE_PLAY_E) LOG_WARN("[PLAY:pause()] ---> [PAUSE]");
    m_waitCond.notify_all();
    // The worker, still holding a started file, pauses MPD and parks.
    waitParked_(lock, "pause()");
    return 0;
}

int CAlsaPlayer::stop(bool /*force*/) {
    LOG_WARN("[PLAY:stop()] ---> [STOP]");
    std::unique_lock lock(m_waitMutex);
    m_bIsPlaying = false;
    m_bStop = true;
    // A paused player is parked on a paused file: wake it so that it stops MPD.
    if (m_bStuckOnWaitLock && getPlayerState() == STATE_PAUSE_E) m_wakeForStop = true;
    m_waitCond.notify_all();
    waitParked_(lock, "stop()");
    return 0;
}

int CAlsaPlayer::next() {
    if (!stepCurrTrackIndex_(+1)) return -1;
    {
        std::lock_guard lock(m_waitMutex);
        ++m_trackRequest;
        m_bIsPlaying = false;
    }
    return play();
}

int CAlsaPlayer::previous() {
    if (!stepCurrTrackIndex_(-1)) return -1;
    {
        std::lock_guard lock(m_waitMutex);
        ++m_trackRequest;
        m_bIsPlaying = false;
    }
    return play();
}

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

void CAlsaPlayer::debugDump(std::string& out) {
    char text[512];
    std::snprintf(text, sizeof text,
                  "\nFlowStage          :%d\n"
                  "m_bStop            :%d\n"
                  "m_bExit            :%d\n"
                  "m_bStuckOnWaitLock :%d\n"
                  "m_bIsPlaying       :%d\n"
                  "m_bChangeToNext    :%d\n"
                  "state              :%s\n"
                  "port               :%d\n"
                  "startOffset        :%d\n"
                  "duration           :%d\n"
                  "savedVolume        :%d\n",
                  m_flowStage.load(), m_bStop.load(), m_bExit.load(), m_bStuckOnWaitLock.load(), m_bIsPlaying.load(),
                  m_bChangeToNext.load(), playerStateLogName(getPlayerState()), m_port, m_startOffset.load(),
                  m_duration.load(), m_savedVolume.load());
    out += text;
    LOG_TRACE("------------------------------------------------%s", text);
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
                rc = dbIDToFilePath(elm.Content, elm.MediaType, path, start, length);
            else rc = upnpObjectToFilePath(elm.Content, path, start, length);
        }
        if (rc == 0 && !path.empty()) {
            startOffset = start;
            duration = length;
            return 0;
        }
        LOG_WARN("%s: entry %u does not resolve to a file", getDeviceName().c_str(), getCurrTrack());
        if (tried >= attempts || m_bStop || !changeToNextTrack()) return -1;
    }
}

int CAlsaPlayer::addFileToMPD(const std::string& path) {
    sendMpc({"clear"});
    std::vector<std::string> argv = mpcArgv({"add", "file://" + path});
    LOG_WARN("%s", formatCommandLine(argv).c_str());
    return send_mpd_cmd(argv);
}

// ---- worker --------------------------------------------------------------------------------

void CAlsaPlayer::trace_(const char* mark, int stage) {
    m_flowStage = stage;
    LOG_TRACK("%s(%s)(m_bStuckOnWaitLock:%d)(m_bStop:%d)(m_bExit:%d)(m_bIsPlaying:%d)(m_bChangeToNext:%d)", mark,
              playerStateLogName(getPlayerState()), m_bStuckOnWaitLock.load(), m_bStop.load(), m_bExit.load(),
              m_bIsPlaying.load(), m_bChangeToNext.load());
}

void CAlsaPlayer::resetTimes_() {
    setCurrTime(std::string("00:00:00"));
    setTotalTime(std::string("00:00:00"));
    setSeekOffset("00:00:00");
    resetAudioAndSubtitle();
}

void CAlsaPlayer::stopFromWorker_() {
    std::lock_guard lock(m_waitMutex);
    m_bIsPlaying = false;
    m_bStop = true;
}

void CAlsaPlayer::process() {
    for (;;) {
        // The slice of a paused track is kept: a resumed slice still reports and ends as one.
        while (!m_bStop && !m_bExit) {
            trace_(">1.", 1);
            if (!m_bIsPlaying) startTrack_();
            if (m_bIsPlaying && !m_bStop) pollStatus_();
            advanceIfOver_();
            if (m_bStop) break;
            sleepTurn_();
        }
        leavePlaying_();
        park_();
        if (m_bExit) return;
    }
}

void CAlsaPlayer::startTrack_() {
    m_bChangeToNext = false;
    resetTimes_();
    sendMpc({"stop"});
    {
        std::lock_guard lock(m_waitMutex);
        m_playingRequest = m_trackRequest;
    }

    playlistElm_s elm;
    std::string path;
    int start = -1;
    int length = -1;
    if (getNextObjectFilePath(elm, path, start, length) != 0) {
        VLOG_AT(vlog::kRemove, "getNextObjectFilePath() ... [fail] ... [Play] ---> [STOP]");
        stopFromWorker_();
        return;
    }
    m_startOffset = start;
    m_duration = length;
    trace_(">1.1.", 2);

    if (path.empty() || addFileToMPD(path) != 0) {
        LOG_ERR("setAvTransport_() ... err");
        m_bChangeToNext = true;
        return;
    }
    // A slice starts muted so the file's opening is not heard before the seek lands; a player
    // the user muted stays as it is.
    bool muted = false;
    if (start > 0 && m_savedVolume.load() < 0) {
        setMute(true);
        muted = true;
    }
    if (sendMpc({"play"}) != 0) {
        LOG_WARN("1.........................................");
        m_bChangeToNext = true;  // MPD refused the file: go on rather than retry it each turn
    } else {
        sched_yield();
        {
            std::lock_guard lock(m_waitMutex);
            // A stop, or a next()/previous() that came while the file was being set up, wins.
            if (!m_bStop && m_playingRequest == m_trackRequest) m_bIsPlaying = true;
        }
        if (start > 0) seekAbs(start);
    }
    if (muted) setMute(false);
}

void CAlsaPlayer::pollStatus_() {
    trace_(">2.", 3);
    std::string text;
    if (!readStatus(text)) {
        setPlayerState(STATE_PLAY_E);
        return;
    }
    MpdStatus status = parseMpdStatus(text);
    if (status.volume >= 0) m_knownVolume = status.volume;
    trace_(">3.", 4);

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

    if (status.state == 1) {
        // The file ran out (or MPD cannot be read): next track.
        m_bChangeToNext = true;
        m_startOffset = -1;
        m_duration = -1;
    } else if (status.state == 2) {
        // Paused from outside: follow MPD.
        std::lock_guard lock(m_waitMutex);
        m_bStop = true;
    } else if (offset >= 0 && length > 0 && current >= total) {
        // The slice is over even though the file goes on.
        m_bChangeToNext = true;
        m_startOffset = -1;
        m_duration = -1;
    }
    trace_(">3.3.", 5);
}

void CAlsaPlayer::advanceIfOver_() {
    if (m_bStop || !m_bChangeToNext) return;
    trace_(">4.", 6);
    LOG_TRACE("Next");
    sendMpc({"stop"});
    m_bChangeToNext = false;
    bool superseded;
    {
        std::lock_guard lock(m_waitMutex);
        m_bIsPlaying = false;
        superseded = m_playingRequest != m_trackRequest;
    }
    // After a next()/previous() the index already names the track to play.
    if (superseded) return;
    if (!changeToNextTrack()) {
        VLOG_AT(vlog::kRemove, "[Play] ---> [STOP]");
        std::lock_guard lock(m_waitMutex);
        m_bStop = true;
    }
}

void CAlsaPlayer::sleepTurn_() {
    std::unique_lock lock(m_waitMutex);
    m_waitCond.wait_for(lock, std::chrono::milliseconds(g_pollPeriodMs.load()),
                        [&] { return m_bStop || m_bExit || m_kick; });
    m_kick = false;
}

void CAlsaPlayer::leavePlaying_() {
    if (m_bExit) return;  // the server is about to be killed
    trace_(">X.", 7);
    for (;;) {
        bool pausing = m_bIsPlaying;
        if (pausing) {
            sendMpc({"pause"});
            setPlayerState(STATE_PAUSE_E);
        } else {
            sendMpc({"stop"});
            resetTimes_();
            m_startOffset = -1;
            m_duration = -1;
            setPlayerState(STATE_STOP_E);
        }
        std::lock_guard lock(m_waitMutex);
        // A stop() that came while MPD was being paused turns the pause into a stop.
        if (!pausing || m_bIsPlaying || m_bExit) return;
    }
}

void CAlsaPlayer::park_() {
    m_flowStage = 0;
    LOG_TRACK(">>> Locked .... %s", getDeviceName().c_str());
    {
        std::unique_lock lock(m_waitMutex);
        m_bStuckOnWaitLock = true;
        m_parkedCond.notify_all();
        m_waitCond.wait(lock, [&] { return m_bExit || !m_bStop || m_wakeForStop; });
        m_wakeForStop = false;
        m_kick = false;
        m_bStuckOnWaitLock = false;
    }
    LOG_TRACK(">>> Unlock ... %s", getDeviceName().c_str());
}
