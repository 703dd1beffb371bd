// A device player whose device is a script: each step the worker runs is recorded ("start 2",
// "follow", "pause", "resume", "stop(true)") and answers what the test scripted. Steps may
// block on a gate to hold the worker inside a device step.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "output/CDevicePlayer.h"
#include "player/PlayerTypes.h"
#include "unit/support/Files.h"

namespace workertest {

using namespace std::chrono_literals;

class ScriptedPlayer : public CDevicePlayer {
public:
    using Start = DeviceSteps::Start;
    using Follow = DeviceSteps::Follow;

    explicit ScriptedPlayer(const char* title, std::chrono::milliseconds commandWait = 10s)
        : CDevicePlayer(playertype::kDlna, "uuid:scripted", "Scripted", title, "music", commandWait) {
        startWorker("test");
    }
    ~ScriptedPlayer() override { endWorker(true); }

    // The script; set before the worker gets to the step.
    void onStart(std::function<Start(size_t index)> fn) { set([&] { m_onStart = std::move(fn); }); }
    void onFollow(std::function<Follow()> fn) { set([&] { m_onFollow = std::move(fn); }); }
    void onStop(std::function<void()> fn) { set([&] { m_onStop = std::move(fn); }); }
    void resumes(bool yes) { set([&] { m_resumes = yes; }); }
    void seenResumingOnDevice(bool yes) { set([&] { m_resumedOnDevice = yes; }); }
    void skipWhileStopped(bool plays) { set([&] { m_skipPlays = plays; }); }
    void stopAfterEachTrack(bool yes) { set([&] { m_stopAfterEachTrack = yes; }); }

    // Waits (generously) until the recorded calls satisfy pred (called with the lock held: it
    // must look only at its argument).
    bool waitFor(const std::function<bool(const std::vector<std::string>&)>& pred, std::chrono::seconds d = 10s) {
        std::unique_lock lock(m_mutex);
        return m_cond.wait_for(lock, d, [&] { return pred(m_calls); });
    }
    bool waitForCount(const std::string& call, size_t n) {
        return waitFor([&](const std::vector<std::string>& calls) { return count(calls, call) >= n; });
    }
    static size_t count(const std::vector<std::string>& calls, const std::string& call) {
        size_t n = 0;
        for (const auto& c : calls) n += c == call;
        return n;
    }
    std::vector<std::string> calls() {
        std::lock_guard lock(m_mutex);
        return m_calls;
    }
    // The calls since the last look, then forgotten.
    std::vector<std::string> takeCalls() {
        std::lock_guard lock(m_mutex);
        return std::exchange(m_calls, {});
    }
    // The track starts, in order.
    static std::vector<std::string> startsIn(const std::vector<std::string>& calls) {
        std::vector<std::string> out;
        for (const auto& c : calls)
            if (c.rfind("start ", 0) == 0) out.push_back(c);
        return out;
    }
    std::vector<std::string> starts() { return startsIn(calls()); }
    // Waits until at least n tracks started.
    bool waitForStarts(size_t n) {
        return waitFor([&](const std::vector<std::string>& calls) { return startsIn(calls).size() >= n; });
    }
    PlaybackWorker& steps() { return worker(); }

    int seek(const char*) override { return 0; }
    int setAudioAndSubtitle(const char*, int, int, const char*, const char*, const char*, const char*, const char*,
                            const char*, int) override {
        return 0;
    }

protected:
    Start startTrack(bool afterAdvance) override {
        record("start " + std::to_string(getCurrTrackIndex()) + (afterAdvance ? "+" : ""));
        auto fn = get(m_onStart);
        Start result = fn ? fn(getCurrTrackIndex()) : Start::Started;
        if (result == Start::Started) setPlayerState(STATE_PLAY_E);
        return result;
    }
    Follow followTrack() override {
        record("follow");
        auto fn = get(m_onFollow);
        return fn ? fn() : Follow::Playing;
    }
    void pauseDevice() override { record("pause"); }
    bool resumeDevice() override {
        record("resume");
        return get(m_resumes);
    }
    void stopDevice(bool force) override {
        record(force ? "stop(true)" : "stop(false)");
        if (auto fn = get(m_onStop)) fn();
    }
    bool whileParked(bool) override { return get(m_resumedOnDevice); }
    bool playsOnAfterTrack(bool more, playMode_e mode) const override {
        return get(m_stopAfterEachTrack) ? false : DeviceSteps::playsOnAfterTrack(more, mode);
    }
    bool skipWhileStoppedPlays() const override { return get(m_skipPlays); }
    std::chrono::milliseconds passPeriod() const override { return 5ms; }

private:
    template <class Fn>
    void set(Fn fn) {
        std::lock_guard lock(m_mutex);
        fn();
    }
    template <class T>
    T get(const T& field) const {
        std::lock_guard lock(m_mutex);
        return field;
    }
    void record(const std::string& call) {
        {
            std::lock_guard lock(m_mutex);
            m_calls.push_back(call);
        }
        m_cond.notify_all();
    }

    mutable std::mutex m_mutex;  // guards everything below
    std::condition_variable m_cond;
    std::vector<std::string> m_calls;
    std::function<Start(size_t)> m_onStart;
    std::function<Follow()> m_onFollow;
    std::function<void()> m_onStop;
    bool m_resumes = true;
    bool m_resumedOnDevice = false;
    bool m_skipPlays = false;
    bool m_stopAfterEachTrack = false;
};

// A one-shot gate a device step can wait behind.
class Gate {
public:
    void open() {
        {
            std::lock_guard lock(m_mutex);
            m_open = true;
        }
        m_cond.notify_all();
    }
    // Waits until opened; false after d.
    bool wait(std::chrono::milliseconds d = 10s) {
        std::unique_lock lock(m_mutex);
        return m_cond.wait_for(lock, d, [&] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_open = false;
};

}  // namespace workertest
