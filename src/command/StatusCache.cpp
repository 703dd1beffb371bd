#include "command/StatusCache.h"

#include <cstring>
#include <initializer_list>
#include <vector>

#include "agent/MediaAgent.h"
#include "util/Log.h"

namespace {

// Asks the media agent; its <root> answer, empty on any failure.
XMLNode askAgent(const char* command, std::initializer_list<std::string> options) {
    mediaagent::Argv argv = mediaagent::command(command);
    argv.insert(argv.end(), options);
    return mediaagent::ask(argv);
}

// The media server's object id of the status's current track; empty when it has none.
std::string objectIdOf(const playerStatus_t& status) {
    XMLNode reply;
    if (status.trackContentType == "file") {
        reply = askAgent("getObjectID", {"--filePath", status.trackContent});
    } else if (status.trackContentType == "dbID") {
        int mediaType = status.trackType == "audio" ? 0 : status.trackType == "photo" ? 1 : status.trackType == "video" ? 2 : -1;
        if (mediaType < 0) {
            LOG_ERR("Unknow track media type");
            return "";
        }
        reply = askAgent("getObjectID", {"--dbID", status.trackContent, "--mediaType", std::to_string(mediaType)});
    } else if (status.trackContentType == "object") {
        return status.trackContent;
    } else {
        LOG_ERR("unknow track content type");
        return "";
    }
    const char* id = reply.getChildNode("objectID").getText();
    if (!id) {
        LOG_ERR(">>> %s can't get objectId ", status.trackContent.c_str());
        return "";
    }
    return id;
}

// <listName> holding one <itemName> (TrackId, TrackLang) per track the agent lists under
// root/<response>/Result/DIDL-Lite.
XMLNode trackList(const char* command, const std::string& objectID, const char* response, const char* listName,
                  const char* itemName) {
    XMLNode list = XMLNode::createXMLTopNode(listName);
    XMLNode reply = askAgent(command, {"--objectID", objectID});
    XMLNode didl = reply.getChildNode(response).getChildNode("Result").getChildNode("DIDL-Lite");
    int cursor = 0;
    for (XMLNode track = didl.getChildNode(itemName, &cursor); !track.isEmpty();
         track = didl.getChildNode(itemName, &cursor)) {
        XMLNode item = list.addChild(itemName);
        for (const char* field : {"TrackId", "TrackLang"})
            if (const char* value = track.getChildNode(field).getText()) item.addChild(field).addText(value);
    }
    return list;
}

time_t systemNow() { return std::time(nullptr); }

}  // namespace

StatusCache& StatusCache::instance() {
    static StatusCache cache;
    return cache;
}

void StatusCache::setClock(Clock clock) {
    std::lock_guard lock(m_lock);
    m_clock = clock;
}

void StatusCache::clear() {
    std::lock_guard lock(m_lock);
    for (cachedStatusInfo_s& entry : m_entries) entry = cachedStatusInfo_s();
}

void StatusCache::appendLists_(const cachedStatusInfo_s& entry, XMLNode& answer) {
    for (const XMLNode* list : {&entry.total_aid, &entry.total_sid, &entry.total_externalSubtitle})
        if (!list->isEmpty()) answer.addChild(list->deepCopy());
}

int StatusCache::update_g_cachedStatusInfo(const playerStatus_t& status, int index) {
    if (index < 0 || index >= kEntries) return -1;
    cachedStatusInfo_s& entry = m_entries[index];
    std::string objectID = objectIdOf(status);
    LOG_TRACE("objectID = %s", objectID.c_str());
    LOG_TRACE("trackType = %s", status.trackType.c_str());
    LOG_TRACE("debug, replace the oldest index=%d", index);

    entry.contentType = status.trackContentType;
    entry.content = status.trackContent;
    entry.total_aid = XMLNode();
    entry.total_sid = XMLNode();
    entry.total_externalSubtitle = XMLNode();
    Clock clock = m_clock ? m_clock : systemNow;
    if (objectID.empty()) {
        // The key is kept: the video is not looked up again at every poll.
        entry.lastUsed = static_cast<int32_t>(clock());
        return 0;
    }
    entry.total_aid = trackList("getAudioTrack", objectID, "u:GetAudioTrackResponse", "TotalAudioTrack", "AudioTrack");
    entry.total_sid = trackList("getSubtitle", objectID, "u:GetSubtitleTrackResponse", "TotalSubtitleTrack",
                                "SubtitleTrack");
    entry.total_externalSubtitle = trackList("getExternalSubtitle", objectID, "u:GetExternalSubtitleResponse",
                                             "TotalExternalSubtitle", "ExternalSubtitleTrack");
    entry.lastUsed = static_cast<int32_t>(clock());
    return 0;
}

void StatusCache::appendTrackLists(const playerStatus_t& status, XMLNode& answer) {
    std::lock_guard lock(m_lock);
    time_t now = (m_clock ? m_clock : systemNow)();
    int match = -1;
    int oldest = 0;
    for (int i = 0; i < kEntries; ++i) {
        const cachedStatusInfo_s& e = m_entries[i];
        if (match < 0 && !e.contentType.empty() && !e.content.empty() && e.contentType == status.trackContentType &&
            e.content == status.trackContent)
            match = i;
        if (e.lastUsed < m_entries[oldest].lastUsed) oldest = i;
    }

    if (match >= 0) {
        cachedStatusInfo_s& entry = m_entries[match];
        if (now - entry.lastUsed > kRefreshSeconds - 1) {
            update_g_cachedStatusInfo(status, match);
        } else {
            entry.lastUsed = static_cast<int32_t>(now);
        }
        appendLists_(entry, answer);
        return;
    }
    if (update_g_cachedStatusInfo(status, oldest) == 0) appendLists_(m_entries[oldest], answer);
}
