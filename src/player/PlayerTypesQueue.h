// Play modes, player states, play-queue items and the status snapshot: what players, the
// manager and the command handlers exchange about playback.
#pragma once

#include <cstdint>
#include <string>

// Stored in players and exchanged with clients as the words of playModeText.
enum playMode_e {
    PLAYMODE_NORMAL_E = 0,          // "NORMAL": the queue once, in playlist order
    PLAYMODE_REPEAT_E,              // "REPEAT": playlist order, again after the last track
    PLAYMODE_SHUFFLE_E,             // "SHUFFLE": the queue once, shuffled
    PLAYMODE_SHUFFLE_REPEAT_E,      // "SHUFFLE_REPEAT"
    PLAYMODE_REPEAT_ONE_E,          // "REPEAT_ONE": the current track again (playlist order otherwise)
    PLAYMODE_SHUFFLE_REPEAT_ONE_E,  // "SHUFFLE_REPEAT_ONE": the current track again, queue stays shuffled
};

enum playerState_e {
    STATE_PLAY_E = 0,
    STATE_STOP_E = 1,
    STATE_PAUSE_E = 2,
    STATE_UNKNOW = 3,
};

// One play-queue entry. In playlist order, order is the entry's OrderNr (its position after any
// reset); in the shuffle modes the item at position p holds the track number played at step p.
struct playQueueItem_s {
    uint64_t order = 0;
    int64_t uuid = 0;  // the playlist entry's UUID; deletions find items by it
};
typedef playQueueItem_s playQueueItem_t;

// A player's status as the status commands report it.
struct playerStatus_s {
    uint32_t currTrack = 0;
    uint32_t totalTracks = 0;
    uint32_t playerType = 0;
    const char* deviceType = "UNKNOW";   // the player's kind, and its sub-kind (null: none)
    const char* deviceSubtype = nullptr;
    playMode_e playMode = PLAYMODE_NORMAL_E;
    playerState_e playerState = STATE_STOP_E;
    std::string deviceName;
    std::string playlistTitle;  // empty when the player has no playlist
    std::string appType;
    std::string currTime;  // hh:mm:ss, seek offset included
    std::string owner;
    std::string tag;
    std::string totalTime;         // hh:mm:ss
    std::string trackType;         // "audio", "photo", "video" or "unknow"
    std::string trackContentType;  // "file", "object", "dbID" or "unknow"
    std::string trackContent;
    std::string externalSubtitle;
    int32_t currentAudioTrack = 0;
    int32_t currentSubtitleTrack = -1;
    std::string autoPlugSubtitle;
    std::string ssize;
    std::string scolor;
    std::string sseek;
    std::string sencoding;
};
typedef playerStatus_s playerStatus_t;

// "NORMAL", "REPEAT", ...; "UNKNOW" for a value outside the enumeration.
const char* playModeText(playMode_e mode);
// The mode named by an exact word of playModeText; false (mode untouched) for anything else.
bool playModeFromText(const char* text, playMode_e& mode);
// "PLAY", "STOP", "PAUSE", anything else "UNKNOW".
const char* playerStateText(playerState_e state);
// The enumerator's name for log lines: "STATE_PLAY_E", ...; "STATE_UNKNOW" otherwise.
const char* playerStateLogName(playerState_e state);

// The words of the status record for an entry's media and content types.
const char* trackTypeText(int mediaType);
const char* trackContentTypeText(int contentType);
