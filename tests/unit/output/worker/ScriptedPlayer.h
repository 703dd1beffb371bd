// A device player whose device is a script: each step the worker runs is recorded ("start 2",
// "start 1+" after the worker's own advance, "follow", "pause", "resume", "stop(true)") and
// answers what the test scripted.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
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
using Calls = std::vector<std::string>;

class ScriptedPlayer : public CDevicePlayer {
public:
    using Start = DeviceSteps::Start;
    using Follow = DeviceSteps::Follow;

    explicit ScriptedPlayer(const char* title, std::chrono::milliseconds commandWait = 10s)
        : CDevicePlayer(playertype::kDlna, "uuid:scripted", "Scripted", title, "music", commandWait) {
        startWorker("test");
    }
    ~ScriptedPlayer() override { endWorker(true); }

    // The script; may change while the worker runs.
    void onStart(std::function<Start(size_t index)> fn) { set(m_onStart, std::move(fn)); }
    void onFollow(std::function<Follow()> fn) { set(m_onFollow, std::move(fn)); }
    void onStop(std::function<void()> fn) { set(m_onStop, std::move(fn)); }
    std::atomic<bool> resumes{true};              // resumeDevice's answer
    std::atomic<bool> resumedOnDevice{false};     // whileParked's answer
    std::atomic<bool> skipPlays{false};           // skipWhileStoppedPlays
    std::atomic<bool> stopAfterEachTrack{false};  // a back-end that stops after each finished track

    // Waits (generously) until the recorded calls satisfy pred (called with the lock held).
    bool waitFor(const std::function<bool(const Calls&)>& pred) {
        std::unique_lock lock(m_mutex);
        return m_cond.wait_for(lock, 10s, [&] { return pred(m_calls); });
    }
    bool waitForCount(const std::string& call, size_t n) {
        return waitFor([&](const Calls& calls) { return count(calls, call) >= n; });
    }
    bool waitForStarts(size_t n) {
        return waitFor([&](const Calls& calls) { return startsIn(calls).size() >= n; });
    }
    static size_t count(const Calls& calls, const std::string& call) {
        return static_cast<size_t>(std::count(calls.begin(), calls.end(), call));
    }
    static Calls startsIn(Calls calls) {
        calls.erase(std::remove_if(calls.begin(), calls.end(), [](auto& c) { return c.rfind("start ", 0); }),
                    calls.end());
        return calls;
    }
    Calls calls() { return get(m_calls); }
    Calls starts() { return startsIn(calls()); }
    // The calls since the last look, then forgotten.
    Calls takeCalls() { return set(m_calls, Calls{}); }
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
    bool resumeDevice() override { return record("resume"), resumes; }
    void stopDevice(bool force) override {
        record(force ? "stop(true)" : "stop(false)");
        if (auto fn = get(m_onStop)) fn();
    }
    bool whileParked(bool) override { return resumedOnDevice; }
    bool playsOnAfterTrack(bool more, playMode_e mode) const override {
        return !stopAfterEachTrack && DeviceSteps::playsOnAfterTrack(more, mode);
    }
    bool skipWhileStoppedPlays() const override { return skipPlays; }
    std::chrono::milliseconds passPeriod() const override { return 5ms; }

private:
    // Both under m_mutex; set returns the old value.
    template <class T>
    T set(T& field, T value) {
        std::lock_guard lock(m_mutex);
        return std::exchange(field, std::move(value));
    }
    template <class T>
    T get(const T& field) const {
        std::lock_guard lock(m_mutex);
        return field;
    }
    void record(const std::string& call) {
        std::unique_lock lock(m_mutex);
        m_calls.push_back(call);
        lock.unlock();
        m_cond.notify_all();
    }

    mutable std::mutex m_mutex;  // guards everything below
    std::condition_variable m_cond;
    Calls m_calls;
    std::function<Start(size_t)> m_onStart;
    std::function<Follow()> m_onFollow;
    std::function<void()> m_onStop;
};

}  // namespace workertest
