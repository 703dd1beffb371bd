// Batch files: many playlist entries handed to the daemon in one BatchAddPlaylist.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vclient {

struct BatchItem {
    std::string content;
    std::string mediaType;    // "audio", "video", "photo"
    std::string contentType;  // "file", "object", "dbID"
};

// "audio", "video" or "photo" from a file name's extension; "" when it tells nothing.
std::string mediaTypeOfFile(const std::string& path);

// The batch document for playlist title of appType holding items, in order.
// progress(done, total) is called now and then while the text is built.
std::string buildBatchFile(const std::string& title, const std::string& appType, const std::string& playlistType,
                           const std::vector<BatchItem>& items,
                           const std::function<void(size_t, size_t)>& progress = nullptr);

// Writes text to a new private file in dir (mode 0644 so a daemon running as another user
// can read it); the file's path, or "" on failure.
std::string writeBatchFile(const std::string& dir, const std::string& text);

}  // namespace vclient
