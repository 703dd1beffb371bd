// Records and enumerations of the playlist store, shared with the commands and the players.
#pragma once

#include <cstdint>
#include <string>

enum mediaType_e {
    MEDIA_AUDIO_E = 0,
    MEDIA_PHOTO_E = 1,
    MEDIA_VIDEO_E = 2,
    MEDIA_MIXED_E = 3,  // a playlist holding several media types
    MEDIA_UNKNOW_E = 4,
};

enum contentType_e {
    CONTENT_FILE_E = 0,    // a file path
    CONTENT_OBJECT_E = 1,  // a UPnP object id
    CONTENT_DBID_E = 2,    // a media-library database id
    CONTENT_UNKNOW_E = 3,
};

// One playlist of the library.
struct playlistLibElm_s {
    int32_t PlaylistID = -1;
    int32_t PlaylistType = -1;  // a mediaType_e
    std::string PlaylistTitle;
    std::string AppType;
    std::string Owner;
    std::string Tag;
};
typedef playlistLibElm_s playlistLibElm_t;

// One entry of a playlist.
struct playlistElm_s {
    int32_t PlaylistID = -1;
    int32_t OrderNr = 0;  // 0-based position in the playlist
    mediaType_e MediaType = MEDIA_UNKNOW_E;
    contentType_e ContentType = CONTENT_UNKNOW_E;
    uint64_t UUID = 0;  // the entry's identity
    std::string Content;
    std::string UPnPObjID;  // the content for entries added singly as objects, else "N/A"
};
typedef playlistElm_s playlistElm_t;

// The words the command interface reads: "audio", "photo", "video"; anything else is unknown.
mediaType_e mediaTypeFromText(const char* text);
// "file", "object", "dbID"; anything else is unknown.
contentType_e contentTypeFromText(const char* text);
