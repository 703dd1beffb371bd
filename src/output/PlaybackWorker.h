// PlaybackWorker: the one worker thread of a device player. Every back-end hands its queue to a
// device the same way: park while stopped or paused, wake on play, one pass per period while
// playing (start the current track, follow it, move on by the play mode when it is over), and
// stop or pause on request. The back-end supplies only the device steps (DeviceSteps); the
// hand-off between the command threads and the worker is written here once.
//
// Hand-off: one command slot. A caller puts its command in the slot and waits until the worker
// is done with it (bounded); the worker is done with play/next/previous once it has decided
// what they do (the track itself starts afterwards), with resume/pause/stop once the device has
// done it;
// the worker waits for a command while parked and naps between passes while playing, and a new
// command cuts a nap short. One mutex guards the slot and the worker's state; device steps run
// on the worker thread with no lock held, so a slow device never holds up a command thread
// for longer than the bounded wait.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "player/PlayerTypesQueue.h"
#include "thread/CThread.h"

class CPlayer;

// The device side of a player, called on the worker thread with no lock held.
class DeviceSteps {
public:
    enum class Start {
        Started,       // the device has the current track
        Refused,       // the device would not take it: counts towards a fully refused queue
        Unresolvable,  // nothing left in the queue that can be played: stop
    };
    enum class Follow {
        Playing,         // still going
        Over,            // the track ended (or gave up): move on by the play mode
        PausedOutside,   // someone paused the device itself
        StoppedOutside,  // someone stopped the device itself
        Refused,         // the device took the track but never played it: a refusal after all
    };

    virtual ~DeviceSteps() = default;

    // Hands the queue's current entry to the device and starts it. afterAdvance: the worker
    // moved on by itself (end of the previous track or a refusal), not on a request.
    virtual Start startTrack(bool afterAdvance) = 0;
    // One pass while the track plays: position, time texts, end of track.
    virtual Follow followTrack() = 0;
    // Pause the running track; the device keeps it for a resume.
    virtual void pauseDevice() = 0;
    // Resume the paused track; false when the device will not.
    virtual bool resumeDevice() = 0;
    // Stop and forget the track. force: a full stop (a soft one may keep a connection open).
    virtual void stopDevice(bool force) = 0;
    // Once a pass while parked; firstPass right after parking. True when the device was seen
    // resuming the paused track by itself (its own remote): the player plays on without
    // sending anything.
    virtual bool whileParked(bool /*firstPass*/) { return false; }
    // After a finished track, once the queue has moved on by the play mode (more: the mode
    // gave a next track): whether to go on playing. Default: while there is a next track.
    virtual bool playsOnAfterTrack(bool more, playMode_e /*mode*/) const { return more; }
    // next()/previous() of a stopped player: true moves the track and plays it, false does
    // nothing.
    virtual bool skipWhileStoppedPlays() const { return false; }
    // The period of a pass (and of the watch while parked).
    virtual std::chrono::milliseconds passPeriod() const = 0;
};

class PlaybackWorker {
public:
    // How long a caller waits for its command; a longer wait is logged and given up.
    static constexpr std::chrono::seconds kCommandWait{10};

    PlaybackWorker(CPlayer& player, DeviceSteps& steps, std::chrono::milliseconds commandWait = kCommandWait);
    // Ends the thread if end() was not called (without stopping the device).
    ~PlaybackWorker();
    PlaybackWorker(const PlaybackWorker&) = delete;
    PlaybackWorker& operator=(const PlaybackWorker&) = delete;

    // Starts the thread (named `name`), whose first pass stops the device and parks; returns
    // once it has parked. False when the thread could not be made: commands then do nothing.
    bool start(const std::string& name);
    // Stops the device (when stopDevice and it has a track), then ends and joins the thread.
    // The back-end calls this first thing in its destructor: the steps must outlive the thread.
    void end(bool stopDevice);

    // The transport, as CPlayer's. 0, or -1 (empty queue; a device that will not resume).
    int play();
    int pause();
    int stop(bool force);
    // delta +1 / -1 round the queue, a ring whatever the play mode.
    int skip(int delta);

    // For the device steps: sleeps d. While the worker starts or follows a track a command cuts
    // it short (false: the step should give up); elsewhere (a pause or stop under way, a
    // command thread) it runs its course.
    bool nap(std::chrono::milliseconds d);
    // Whether a command is waiting for the worker (a device step may give up early for it).
    bool commandPending();

    // For diagnostics: the classic flags the players' traces and dumps have always shown.
    struct Flags {
        bool stop;           // not playing (parked, or about to)
        bool exit;           // the thread is ending
        bool parked;         // waiting for a command
        bool trackStarted;   // the device has a track (playing or paused)
        bool changeToNext;   // the current track is over; moving on
        int stage;           // the last stage reached: 0 parked, 1 starting, 2 following, 3 moving on,
                             // 4 napping, 5 pausing/stopping
    };
    Flags flags();
    std::string flagsText();
    bool isParked();

private:
    enum class Command { None, Play, Pause, Stop, Skip };
    enum class Phase { Stopped, Paused, Playing };

    class Thread : public CThread {
    public:
        explicit Thread(PlaybackWorker& worker) : m_worker(worker) {}
        ~Thread() override { join(); }

    protected:
        void process() override { m_worker.run(); }

    private:
        PlaybackWorker& m_worker;
    };

    // Caller side: puts the command in the slot and waits (bounded) until the worker is done
    // with it: at once for play and skip (the track starts afterwards), after the device step
    // for resume, pause and stop.
    int submit(Command command, bool force, const char* who);

    // Worker side.
    void run();
    void execute(std::unique_lock<std::mutex>& lock);
    void park(std::unique_lock<std::mutex>& lock);
    void pass();
    void advance(bool refused);
    // Leave playing: pause the device when it has a track, else stop it.
    void enterPaused(std::unique_lock<std::mutex>& lock);
    void enterStopped(std::unique_lock<std::mutex>& lock, bool force);
    void finish(std::unique_lock<std::mutex>& lock, int result);
    void trace(const char* mark, int stage);
    void traceLocked(const char* mark, int stage);
    void setInTrackStep(const char* mark, int stage);
    std::string flagsTextLocked() const;

    CPlayer& m_player;
    DeviceSteps& m_steps;
    const std::chrono::milliseconds m_commandWait;

    // Guards every member below; held neither across a device step nor across a player call
    // that reads the playlist store.
    std::mutex m_mutex;
    std::condition_variable m_commandCond;  // the worker waits here for a command (and naps)
    std::condition_variable m_doneCond;     // callers wait here for theirs to be taken or done
    Command m_command = Command::None;
    bool m_force = true;          // the stop command's flag
    bool m_executing = false;     // the worker is carrying out m_command
    bool m_inTrackStep = false;   // the worker is in startTrack or followTrack: naps give way
    uint64_t m_submitted = 0;     // commands put in the slot
    uint64_t m_done = 0;          // commands carried out
    int m_result = 0;             // the result of command number m_resultTicket
    Phase m_phase = Phase::Stopped;
    bool m_trackStarted = false;  // the device holds the current track
    bool m_parked = false;
    bool m_exit = false;
    bool m_running = false;
    // The worker's own (read by flags() under the mutex).
    bool m_changeToNext = false;
    bool m_afterAdvance = false;  // the next start follows the worker's own move
    unsigned long m_refusedInRow = 0;
    uint64_t m_resultTicket = 0;  // which command m_result belongs to
    std::atomic<int> m_stage{0};

    // Last: it is joined before anything above goes.
    Thread m_thread{*this};
};
