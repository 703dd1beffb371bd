// What sets one kind of device player apart where the player base, the manager and the status
// answer must know it. Each back-end states its own (CPlayer::traits()); nothing above the
// back-ends tests type bits for behaviour.
#pragma once

#include <chrono>

struct PlayerTraits {
    // The Type (and, for some kinds, Subtype) of the player's <device> element in status
    // answers; null Subtype: none.
    const char* typeText = "UNKNOW";
    const char* subtypeText = nullptr;
    // Loading a playlist stops the device softly (stop(false)) instead of fully.
    bool softStopOnLoad = false;
    // Choosing a track stops the device softly.
    bool softStopOnTrackChange = false;
    // After a playing player loaded a new playlist and played again: time the device needs
    // before the next request reaches it.
    std::chrono::milliseconds settleAfterReload{0};
    // One player of this kind plays at a time: starting one stops the others.
    bool exclusive = false;
};
