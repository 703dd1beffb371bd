// Result codes: 0 success, negative failure. Handlers and the player manager return these and
// the dispatcher puts them unchanged into the answer's <status>.
#pragma once

namespace result {
inline constexpr int kOk = 0;
inline constexpr int kAgentFailure = -1;        // the media agent or a command could not run, or failed
inline constexpr int kBadRequest = -2;          // not an XML document with root "root"
inline constexpr int kMissingParameter = -3;    // a required parameter is missing or empty
inline constexpr int kNoSuchPlayer = -4;        // no player has that render id
inline constexpr int kBadAgentAnswer = -6;      // the media agent's answer is not a <root> document
inline constexpr int kUnknownCommand = -7;      // no command element, or an unknown command
inline constexpr int kUnknownPlayMode = -8;     // play mode not one of the known names
inline constexpr int kNoObjectID = -9;          // the media agent's answer has no objectID
inline constexpr int kNoPlaylistID = -10;       // the playlist title/app type has no identifier
inline constexpr int kPlaylistReadFailed = -11; // the playlist store could not list
inline constexpr int kDatabaseFailure = -12;    // the playlist store failed
inline constexpr int kNotFound = -13;           // the file does not exist, or the agent's status is not success
inline constexpr int kNoSuchPlaylist = -14;     // the playlist was not found
inline constexpr int kFileUnreadable = -15;     // a batch file cannot be examined
inline constexpr int kFileFormat = -16;         // a batch file is not a valid document
inline constexpr int kNoAgentStatus = -17;      // the media agent's answer has no status
inline constexpr int kPlayerBusy = -19;         // the player's lock is held: try again

// A short explanation of a code, for people reading client output.
inline const char* meaning(int code) {
    switch (code) {
        case kOk: return "success";
        case kAgentFailure: return "the media agent or an appliance command failed";
        case kBadRequest: return "the request is not an XML document with root <root>";
        case kMissingParameter: return "a required parameter is missing or empty";
        case kNoSuchPlayer: return "no player for that device (ListRender lists the devices; SetPlaylist then makes the player)";
        case kBadAgentAnswer: return "the media agent gave an unreadable answer";
        case kUnknownCommand: return "no command, or an unknown command";
        case kUnknownPlayMode: return "unknown play mode";
        case kNoObjectID: return "the media agent's answer has no object id";
        case kNoPlaylistID: return "no such playlist for that application";
        case kPlaylistReadFailed: return "the playlist store could not list";
        case kDatabaseFailure: return "the playlist store failed";
        case kNotFound: return "the file does not exist, or the media agent did not succeed";
        case kNoSuchPlaylist: return "the playlist was not found";
        case kFileUnreadable: return "the batch file cannot be read";
        case kFileFormat: return "the batch file is not a valid document";
        case kNoAgentStatus: return "the media agent's answer has no status";
        case kPlayerBusy: return "the player is busy; try again";
        default: return "failure";
    }
}
}  // namespace result
