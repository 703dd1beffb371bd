// The player manager's playlist-wide operations: after a playlist changes, the queues of every
// player playing it follow. Each waits for the players' locks (unlike the forwarding calls).
#include "util/Log.h"
#include "player/CPlayerManager.h"
#include "thread/ThreadLock.h"
#include "playlist/CSqlitePlaylist.h"

template <class Fn>
void CPlayerManager::forEachPlayerOfTitleLocked(const std::string& title, Fn fn) {
    for (const auto& player : m_playerCollection) {
        ThreadSingleLock playerLock(player->getLock());
        const char* playing = player->getPlaylistTitle();
        if (playing && title == playing) fn(*player);
    }
}

template <class Fn>
void CPlayerManager::forEachPlayerOfPlaylistIDLocked(int64_t playlistID, Fn fn) {
    for (const auto& player : m_playerCollection) {
        ThreadSingleLock playerLock(player->getLock());
        if (player->getPlaylistID() == playlistID) fn(*player);
    }
}

void CPlayerManager::setDeleting(bool deleting, const char* title, const char* appType) {
    ThreadSingleLock lock(m_deletingMutex);
    if (deleting) {
        if (m_bDeleting) return;
        m_bDeleting = true;
        m_deletingTitle = title ? title : "";
        m_deletingAppType = appType ? appType : "";
    } else {
        m_bDeleting = false;
        m_deletingTitle.clear();
        m_deletingAppType.clear();
    }
}

bool CPlayerManager::isDeleting(const std::string& title, const std::string& appType) {
    ThreadSingleLock lock(m_deletingMutex);
    return m_bDeleting && m_deletingTitle == title && m_deletingAppType == appType;
}

void CPlayerManager::delPlaylist(const char* title, const char* appType) {
    if (!title || !appType) return;
    ThreadReadLock collectionLock(m_rwLock);
    forEachPlayerOfTitleLocked(title, [&](CPlayer& player) {
        if (player.getAppType() == appType) player.clearPlayQueue(true);
    });
}

void CPlayerManager::delItemFromPlayQueue(const char* title, uint64_t uuid) {
    if (!title) return;
    ThreadReadLock collectionLock(m_rwLock);
    forEachPlayerOfTitleLocked(title, [&](CPlayer& player) {
        playQueueItem_s item{0, static_cast<int64_t>(uuid)};
        player.delItemFromPlayQueue(item);
    });
}


void CPlayerManager::reorderPlayQueue(const std::string& title, size_t from, size_t to) {
    ThreadReadLock collectionLock(m_rwLock);
    forEachPlayerOfTitleLocked(title, [&](CPlayer& player) { player.reorderPlayQueueKeepingCurrent(from, to); });
}

void CPlayerManager::updatePlayModeByPlaylist(const char* title, const char* appType) {
    if (!title || !appType) return;
    ThreadReadLock collectionLock(m_rwLock);
    forEachPlayerOfTitleLocked(title, [&](CPlayer& player) {
        if (player.getAppType() != appType || player.getPlayMode() != PLAYMODE_SHUFFLE_E) return;
        player.setPlayMode(PLAYMODE_NORMAL_E, 0, 0);
        player.setPlayMode(PLAYMODE_SHUFFLE_E, 0, 0);
    });
}

namespace {

// Where the entry just added sits in the playlist: at the requested position when that lies
// inside the queue (it was inserted there), else behind the queue's end (appended).
int newEntryIndex(const CPlayer& player, int position) {
    size_t n = player.getPlaylistSize();
    return (position >= 0 && static_cast<size_t>(position) < n) ? position : static_cast<int>(n);
}

// Appends the new entry to the queue, then moves it to position.
void appendNewEntry(CPlayer& player, const playlistElm_s& entry, int position) {
    size_t n = player.getPlaylistSize();
    playQueueItem_s item{n, static_cast<int64_t>(entry.UUID)};
    player.addItemToPlayQueue(item);
    if (position >= 0) player.reorderPlayQueue(n, static_cast<unsigned long>(position));
}

}  // namespace

void CPlayerManager::addLastItemInPlayQueue(const char* title, int position) {
    if (!title) return;
    ThreadReadLock collectionLock(m_rwLock);
    forEachPlayerOfTitleLocked(title, [&](CPlayer& player) {
        playlistElm_s entry;
        int id = static_cast<int>(player.getPlaylistID());
        if (playlistStore().getPlaylistElmByIndex(entry, id, newEntryIndex(player, position)) == 0)
            appendNewEntry(player, entry, position);
    });
}

void CPlayerManager::updateAssociatePlayQueue(int playlistID) {
    ThreadReadLock collectionLock(m_rwLock);
    bool stop = false;
    forEachPlayerOfPlaylistIDLocked(playlistID, [&](CPlayer& player) {
        if (stop) return;
        size_t queued = player.getPlaylistSize();
        int stored = playlistStore().getSizeOfPlaylist(playlistID);
        if (stored < 0) {
            stop = true;
            return;
        }
        int start = static_cast<int>(queued);
        int count = stored - start;
        if (queued > static_cast<size_t>(stored)) {  // entries were removed: read them all again
            player.clearPlayQueue(false);
            start = 0;
            count = stored;
        }
        if (count <= 0) return;
        std::vector<playlistElm_s> entries;
        if (playlistStore().getPlaylistElmsByPage(entries, playlistID, start, count) != 0) return;
        for (size_t k = 0; k < entries.size(); ++k) {
            playQueueItem_s item{static_cast<uint64_t>(start) + k, static_cast<int64_t>(entries[k].UUID)};
            player.addItemToPlayQueue(item);
        }
    });
}
