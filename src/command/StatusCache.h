// The status cache: the audio tracks, subtitle tracks and external subtitles of the videos
// played recently, so that front ends polling a video's status do not make the media agent
// run three queries per poll. 50 entries, keyed by (content type, content), least recently
// used replaced, an entry refreshed once it is 120 seconds old.
#pragma once

#include <ctime>
#include <mutex>
#include <string>

#include "player/PlayerTypesQueue.h"
#include "xml/XMLNode.h"

struct cachedStatusInfo_s {
    std::string contentType;
    std::string content;
    XMLNode total_aid;               // <TotalAudioTrack>
    XMLNode total_sid;               // <TotalSubtitleTrack>
    XMLNode total_externalSubtitle;  // <TotalExternalSubtitle>
    int32_t lastUsed = 0;            // seconds since the epoch; 0: never used
};

class StatusCache {
public:
    static constexpr int kEntries = 50;
    static constexpr int kRefreshSeconds = 120;

    static StatusCache& instance();

    // Appends the three track lists of the status's current (video) track to answer, from the
    // cache or, when missing or stale, from the media agent.
    void appendTrackLists(const playerStatus_t& status, XMLNode& answer);

    // Refills entry index for the status's current track. 0 on success.
    int update_g_cachedStatusInfo(const playerStatus_t& status, int index);

    // Tests: the clock, and forgetting every entry.
    using Clock = time_t (*)();
    void setClock(Clock clock);
    void clear();

private:
    StatusCache() = default;
    void appendLists_(const cachedStatusInfo_s& entry, XMLNode& answer);

    // g_cachedStatusInfoLock: held across a whole lookup, refills included, so polls of
    // videos wait for one another rather than running the same queries twice.
    std::mutex m_lock;
    cachedStatusInfo_s m_entries[kEntries];
    Clock m_clock = nullptr;
};
