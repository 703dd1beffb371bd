#include "client/BatchFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "xml/XMLNode.h"

namespace vclient {

std::string mediaTypeOfFile(const std::string& path) {
    size_t dot = path.rfind('.');
    if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return "";
    std::string ext = path.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    static const char* const kAudio[] = {"mp3", "flac", "wav", "ogg", "oga", "m4a", "aac", "aif", "aiff", "wma",
                                         "ape", "dsf", "dff", "opus", "alac"};
    static const char* const kVideo[] = {"mp4", "mkv", "avi", "mov", "m4v", "wmv", "mpg", "mpeg", "ts", "m2ts",
                                         "webm", "flv", "3gp"};
    static const char* const kPhoto[] = {"jpg", "jpeg", "png", "gif", "bmp", "tif", "tiff", "heic", "webp"};
    for (const char* e : kAudio)
        if (ext == e) return "audio";
    for (const char* e : kVideo)
        if (ext == e) return "video";
    for (const char* e : kPhoto)
        if (ext == e) return "photo";
    return "";
}

std::string buildBatchFile(const std::string& title, const std::string& appType, const std::string& playlistType,
                           const std::vector<BatchItem>& items, const std::function<void(size_t, size_t)>& progress) {
    XMLNode root = XMLNode::createXMLTopNode("root");
    XMLNode playlist = root.addChild("playlist");
    if (!playlistType.empty()) playlist.addAttribute("playlistType", playlistType.c_str());
    playlist.addText(title.c_str());
    root.addChild("appType").addText(appType.c_str());
    const size_t step = std::max<size_t>(items.size() / 10, 1000);
    for (size_t i = 0; i < items.size(); ++i) {
        XMLNode item = root.addChild("item");
        if (!items[i].mediaType.empty()) item.addAttribute("mediaType", items[i].mediaType.c_str());
        if (!items[i].contentType.empty()) item.addAttribute("contentType", items[i].contentType.c_str());
        item.addText(items[i].content.c_str());
        if (progress && (i + 1) % step == 0) progress(i + 1, items.size());
    }
    if (progress) progress(items.size(), items.size());
    return root.toString(1);
}

std::string writeBatchFile(const std::string& dir, const std::string& text) {
    std::string path = dir + "/velmoractl-batch-XXXXXX";
    int fd = ::mkstemp(path.data());
    if (fd < 0) return "";
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::write(fd, data, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ::close(fd);
            ::unlink(path.c_str());
            return "";
        }
        data += n;
        left -= static_cast<size_t>(n);
    }
    ::fchmod(fd, 0644);
    ::close(fd);
    return path;
}

}  // namespace vclient
