#include "playlist/PlaylistTypes.h"

#include <cstring>

mediaType_e mediaTypeFromText(const char* text) {
    if (!text) return MEDIA_UNKNOW_E;
    if (std::strcmp(text, "audio") == 0) return MEDIA_AUDIO_E;
    if (std::strcmp(text, "photo") == 0) return MEDIA_PHOTO_E;
    if (std::strcmp(text, "video") == 0) return MEDIA_VIDEO_E;
    return MEDIA_UNKNOW_E;
}

contentType_e contentTypeFromText(const char* text) {
    if (!text) return CONTENT_UNKNOW_E;
    if (std::strcmp(text, "file") == 0) return CONTENT_FILE_E;
    if (std::strcmp(text, "object") == 0) return CONTENT_OBJECT_E;
    if (std::strcmp(text, "dbID") == 0) return CONTENT_DBID_E;
    return CONTENT_UNKNOW_E;
}
