#include "player/PlayerTypesQueue.h"

#include <cstring>
#include <iterator>

namespace {
// Indexed by playMode_e.
constexpr const char* kPlayModeWords[] = {"NORMAL", "REPEAT", "SHUFFLE", "SHUFFLE_REPEAT", "REPEAT_ONE",
                                          "SHUFFLE_REPEAT_ONE"};
constexpr int kPlayModeCount = static_cast<int>(std::size(kPlayModeWords));
}  // namespace

const char* playModeText(playMode_e mode) {
    int value = static_cast<int>(mode);
    return value >= 0 && value < kPlayModeCount ? kPlayModeWords[value] : "UNKNOW";
}

bool playModeFromText(const char* text, playMode_e& mode) {
    if (!text) return false;
    for (int value = 0; value < kPlayModeCount; ++value) {
        if (std::strcmp(text, kPlayModeWords[value]) == 0) {
            mode = static_cast<playMode_e>(value);
            return true;
        }
    }
    return false;
}

const char* playerStateText(playerState_e state) {
    switch (state) {
        case STATE_PLAY_E: return "PLAY";
        case STATE_STOP_E: return "STOP";
        case STATE_PAUSE_E: return "PAUSE";
        default: return "UNKNOW";
    }
}

const char* trackTypeText(int mediaType) {
    switch (mediaType) {
        case 0: return "audio";
        case 1: return "photo";
        case 2: return "video";
        default: return "unknow";
    }
}

const char* trackContentTypeText(int contentType) {
    switch (contentType) {
        case 0: return "file";
        case 1: return "object";
        case 2: return "dbID";
        default: return "unknow";
    }
}

const char* playerStateLogName(playerState_e state) {
    switch (state) {
        case STATE_PLAY_E: return "STATE_PLAY_E";
        case STATE_STOP_E: return "STATE_STOP_E";
        case STATE_PAUSE_E: return "STATE_PAUSE_E";
        default: return "STATE_UNKNOW";
    }
}
