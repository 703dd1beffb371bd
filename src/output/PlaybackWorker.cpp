#include "output/PlaybackWorker.h"

#include <cstdio>

#include "player/CPlayer.h"
#include "thread/ThreadLock.h"
#include "util/Log.h"

PlaybackWorker::PlaybackWorker(CPlayer& player, DeviceSteps& steps, std::chrono::milliseconds commandWait)
    : m_player(player), m_steps(steps), m_commandWait(commandWait) {}

PlaybackWorker::~PlaybackWorker() { end(false); }

// ---- caller side ---------------------------------------------------------------------------

bool PlaybackWorker::start(const std::string& name) {
    {
        std::lock_guard lock(m_mutex);
        m_running = true;
    }
    if (m_thread.start(name.c_str()) != 0) {
        LOG_ERR("%s: worker not started", m_player.getDeviceName().c_str());
        std::lock_guard lock(m_mutex);
        m_running = false;
        return false;
    }
    // The first pass stops the device and parks: the player is handed over parked.
    std::unique_lock lock(m_mutex);
    if (!m_doneCond.wait_for(lock, m_commandWait, [&] { return m_parked; }))
        LOG_ERR("%s: worker did not park within %lld s", m_player.getDeviceName().c_str(),
                static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(m_commandWait).count()));
    return true;
}

void PlaybackWorker::end(bool stopDevice) {
    bool stopFirst;
    {
        std::lock_guard lock(m_mutex);
        if (!m_running) return;
        stopFirst = stopDevice && m_phase != Phase::Stopped;
    }
    if (stopFirst) submit(Command::Stop, true, "end");
    {
        // Not through the slot: a command stuck in it must not keep the thread from ending.
        std::lock_guard lock(m_mutex);
        m_exit = true;
    }
    m_commandCond.notify_all();
    m_thread.join();
    std::lock_guard lock(m_mutex);
    m_running = false;
    m_doneCond.notify_all();
}

int PlaybackWorker::submit(Command command, bool force, const char* who) {
    std::unique_lock lock(m_mutex);
    if (!m_running || m_exit) return 0;
    const long long waitSec = std::chrono::duration_cast<std::chrono::seconds>(m_commandWait).count();
    // One command at a time: another caller's goes first.
    if (!m_doneCond.wait_for(lock, m_commandWait, [&] { return m_command == Command::None || m_exit; })) {
        LOG_ERR("%s: %s: worker still busy after %lld s; not sent", who, m_player.getDeviceName().c_str(), waitSec);
        return 0;
    }
    if (m_exit) return 0;
    m_command = command;
    m_force = force;
    const uint64_t ticket = ++m_submitted;
    m_commandCond.notify_all();
    if (!m_doneCond.wait_for(lock, m_commandWait, [&] { return m_done >= ticket || m_exit; })) {
        // The command stays in the slot: the worker carries it out when its device step ends.
        LOG_ERR("%s: %s: worker did not finish within %lld s", who, m_player.getDeviceName().c_str(), waitSec);
        return 0;
    }
    return m_resultTicket == ticket ? m_result : 0;
}

int PlaybackWorker::play() {
    if (m_player.getPlaylistSize() == 0) return -1;
    playerState_e state = m_player.getPlayerState();
    if (state == STATE_PLAY_E) {
        LOG_WARN("play() state:%s", playerStateLogName(state));
        return 0;
    }
    return submit(Command::Play, true, "play()");
}

int PlaybackWorker::pause() {
    {
        std::lock_guard lock(m_mutex);
        if (m_phase != Phase::Playing) return 0;
    }
    LOG_WARN("[PLAY:pause()] ---> [PAUSE]");
    return submit(Command::Pause, true, "pause()");
}

int PlaybackWorker::stop(bool force) {
    {
        std::lock_guard lock(m_mutex);
        if (m_phase == Phase::Stopped) return 0;
    }
    LOG_WARN("[PLAY:stop(%s)] ---> [STOP]", force ? "True" : "False");
    return submit(Command::Stop, force, "stop()");
}

int PlaybackWorker::skip(int delta) {
    {
        std::lock_guard lock(m_mutex);
        if (m_phase == Phase::Stopped && !m_steps.skipWhileStoppedPlays()) return 0;
    }
    if (m_player.getPlaylistSize() == 0 || !m_player.stepCurrTrackIndex(delta)) return -1;
    LOG_TRACE("%s: %s -> entry %lu", delta > 0 ? "next()" : "previous()", m_player.getDeviceName().c_str(),
              static_cast<unsigned long>(m_player.getCurrTrackIndex()));
    return submit(Command::Skip, true, delta > 0 ? "next()" : "previous()");
}

bool PlaybackWorker::nap(std::chrono::milliseconds d) {
    std::unique_lock lock(m_mutex);
    // Only a track step gives a wait up for a command: it then abandons what it was doing.
    // Pausing or stopping the device, and callers, wait it out.
    const bool cuttable = m_inTrackStep && m_thread.isInside();
    const bool cut =
        m_commandCond.wait_for(lock, d, [&] { return m_exit || (cuttable && m_command != Command::None); });
    return !cut;
}

bool PlaybackWorker::commandPending() {
    std::lock_guard lock(m_mutex);
    return m_command != Command::None && !m_executing;
}

PlaybackWorker::Flags PlaybackWorker::flags() {
    std::lock_guard lock(m_mutex);
    return {m_phase != Phase::Playing, m_exit, m_parked, m_trackStarted, m_changeToNext, m_stage.load()};
}

bool PlaybackWorker::isParked() {
    std::lock_guard lock(m_mutex);
    return m_parked;
}

std::string PlaybackWorker::flagsText() {
    std::lock_guard lock(m_mutex);
    return flagsTextLocked();
}

std::string PlaybackWorker::flagsTextLocked() const {
    char text[160];
    std::snprintf(text, sizeof text, "(m_bStuckOnWaitLock:%d)(m_bStop:%d)(m_bExit:%d)(m_bIsPlaying:%d)(m_bChangeToNext:%d)",
                  m_parked, m_phase != Phase::Playing, m_exit, m_trackStarted, m_changeToNext);
    return text;
}

// ---- worker side ---------------------------------------------------------------------------

void PlaybackWorker::trace(const char* mark, int stage) {
    std::lock_guard lock(m_mutex);
    traceLocked(mark, stage);
}

void PlaybackWorker::setInTrackStep(const char* mark, int stage) {
    std::lock_guard lock(m_mutex);
    m_inTrackStep = true;
    traceLocked(mark, stage);
}

void PlaybackWorker::traceLocked(const char* mark, int stage) {
    m_stage = stage;
    LOG_TRACK("%s(%s)%s", mark, playerStateLogName(m_player.getPlayerState()), flagsTextLocked().c_str());
}

void PlaybackWorker::finish(std::unique_lock<std::mutex>&, int result) {
    m_command = Command::None;
    m_executing = false;
    m_done = m_submitted;
    m_result = result;
    m_resultTicket = m_done;
    m_doneCond.notify_all();
}

void PlaybackWorker::run() {
    std::unique_lock lock(m_mutex);
    enterStopped(lock, true);
    while (!m_exit) {
        if (m_command != Command::None) execute(lock);
        else if (m_phase != Phase::Playing) park(lock);
        else {
            ScopeUnlock unlocked(lock);
            pass();
        }
    }
}

void PlaybackWorker::execute(std::unique_lock<std::mutex>& lock) {
    m_executing = true;
    int result = 0;
    switch (m_command) {
        case Command::None: break;
        case Command::Play:
            if (m_phase == Phase::Paused && m_trackStarted) {
                // Resume where the device paused rather than starting the track again.
                bool resumed;
                {
                    ScopeUnlock unlocked(lock);
                    resumed = m_steps.resumeDevice();
                    if (resumed) m_player.setPlayerState(STATE_PLAY_E);
                }
                if (resumed) m_phase = Phase::Playing;
                else result = -1;
            } else if (m_phase != Phase::Playing) {
                m_phase = Phase::Playing;
                m_afterAdvance = false;
                m_refusedInRow = 0;
            }
            break;
        case Command::Pause:
            if (m_phase == Phase::Playing) enterPaused(lock);
            break;
        case Command::Stop:
            if (m_phase != Phase::Stopped) enterStopped(lock, m_force);
            break;
        case Command::Skip:
            // The caller moved the index: the track there starts on the next pass.
            m_trackStarted = false;
            m_changeToNext = false;
            m_afterAdvance = false;
            m_phase = Phase::Playing;
            break;
    }
    finish(lock, result);
}

void PlaybackWorker::park(std::unique_lock<std::mutex>& lock) {
    m_parked = true;
    traceLocked(">>> Locked .... ", 0);
    m_doneCond.notify_all();
    bool first = true;
    while (m_command == Command::None && !m_exit) {
        if (m_commandCond.wait_for(lock, m_steps.passPeriod(), [&] { return m_command != Command::None || m_exit; }))
            break;
        // A quiet period: let the back-end watch its device.
        bool resumed;
        {
            ScopeUnlock unlocked(lock);
            resumed = m_steps.whileParked(first);
        }
        first = false;
        if (resumed && m_command == Command::None && !m_exit && m_phase == Phase::Paused && m_trackStarted) {
            LOG_TRACE("%s: resumed on the device", m_player.getDeviceName().c_str());
            m_player.setPlayerState(STATE_PLAY_E);
            m_phase = Phase::Playing;
            break;
        }
    }
    m_parked = false;
    traceLocked(">>> Unlock ... ", 0);
}

void PlaybackWorker::pass() {
    bool started;
    bool afterAdvance;
    {
        std::lock_guard lock(m_mutex);
        started = m_trackStarted;
        afterAdvance = m_afterAdvance;
    }
    if (!started) {
        setInTrackStep(">1.1.", 1);
        const DeviceSteps::Start result = m_steps.startTrack(afterAdvance);
        std::unique_lock lock(m_mutex);
        m_inTrackStep = false;
        m_afterAdvance = false;
        if (result == DeviceSteps::Start::Started) m_trackStarted = true;
        // A command that came meanwhile decides what happens next (a refusal may be its doing).
        if (m_command != Command::None) return;
        if (result == DeviceSteps::Start::Unresolvable) {
            LOG_WARN("%s: nothing playable left in the queue. [Play] ---> [STOP]", m_player.getDeviceName().c_str());
            enterStopped(lock, true);
            return;
        }
        if (result == DeviceSteps::Start::Refused) {
            ++m_refusedInRow;
            lock.unlock();
            advance(true);
        }
    }
    bool follow;
    {
        std::lock_guard lock(m_mutex);
        follow = m_trackStarted && m_phase == Phase::Playing && m_command == Command::None;
    }
    if (follow) {
        setInTrackStep(">2.", 2);
        const DeviceSteps::Follow result = m_steps.followTrack();
        std::unique_lock lock(m_mutex);
        m_inTrackStep = false;
        if (m_command != Command::None) return;
        switch (result) {
            case DeviceSteps::Follow::Playing:
                m_refusedInRow = 0;  // it plays: the refusals in a row end here
                break;
            case DeviceSteps::Follow::Over:
                m_refusedInRow = 0;
                lock.unlock();
                advance(false);
                break;
            case DeviceSteps::Follow::Refused:
                ++m_refusedInRow;
                lock.unlock();
                advance(true);
                break;
            case DeviceSteps::Follow::PausedOutside: enterPaused(lock); return;
            case DeviceSteps::Follow::StoppedOutside: enterStopped(lock, true); return;
        }
    }
    {
        std::lock_guard lock(m_mutex);
        if (m_phase != Phase::Playing) return;
        traceLocked(">4.", 4);
    }
    nap(m_steps.passPeriod());
}

void PlaybackWorker::advance(bool refused) {
    {
        std::lock_guard lock(m_mutex);
        m_trackStarted = false;
        m_changeToNext = true;
        traceLocked(">3.", 3);
    }
    LOG_TRACE("Next");
    const bool more = m_player.changeToNextTrack();
    const playMode_e mode = m_player.getPlayMode();
    const size_t size = m_player.getPlaylistSize();
    std::unique_lock lock(m_mutex);
    m_changeToNext = false;
    if (m_command != Command::None) return;
    const bool goOn = refused ? more : m_steps.playsOnAfterTrack(more, mode);
    // A queue the device refused all the way round stops instead of trying again for ever.
    if (!goOn || m_refusedInRow >= size) {
        LOG_WARN("[Play] ---> [STOP] setAvTransportFailCnt:%lu", m_refusedInRow);
        m_refusedInRow = 0;
        enterStopped(lock, true);
        return;
    }
    m_afterAdvance = true;
}

void PlaybackWorker::enterPaused(std::unique_lock<std::mutex>& lock) {
    if (!m_trackStarted) {
        // Nothing on the device to hold: a pause before the track started is a stop.
        enterStopped(lock, true);
        return;
    }
    m_phase = Phase::Paused;
    m_stage = 5;
    ScopeUnlock unlocked(lock);
    m_steps.pauseDevice();
    m_player.setPlayerState(STATE_PAUSE_E);
}

void PlaybackWorker::enterStopped(std::unique_lock<std::mutex>& lock, bool force) {
    m_phase = Phase::Stopped;
    m_trackStarted = false;
    m_changeToNext = false;
    m_stage = 5;
    ScopeUnlock unlocked(lock);
    m_steps.stopDevice(force);
    m_player.resetTimes();
    m_player.setPlayerState(STATE_STOP_E);
}
