// The player manager's forwarding: a command names a render id, the manager finds the player
// under the collection's read lock and calls it under a try of the player's lock.
#include "util/ResultCodes.h"
#include "player/CPlayerManager.h"
#include "thread/ThreadLock.h"

template <class Fn>
int CPlayerManager::forward_(const char* renderID, Fn fn) {
    if (!renderID) return result::kNoSuchPlayer;
    try {
        ThreadReadLock collectionLock(m_rwLock);
        CPlayer* player = findCreatedPlayerLocked(renderID);
        if (!player) return result::kNoSuchPlayer;
        ThreadSingleTryLock playerLock(player->getLock());
        return fn(*player);
    } catch (...) {
        // A busy player (the try-lock throws) or a failing back-end.
        return answerForThrow(renderID);
    }
}

// Reads that front ends poll every second (status, volume, mute) do not take the player's lock:
// polls from several clients would otherwise collide and answer "busy". The player's own
// synchronisation gives them a consistent snapshot; the collection's read lock keeps the player
// alive meanwhile.
template <class Fn>
int CPlayerManager::read_(const char* renderID, Fn fn) {
    if (!renderID) return result::kNoSuchPlayer;
    try {
        ThreadReadLock collectionLock(m_rwLock);
        CPlayer* player = findCreatedPlayerLocked(renderID);
        if (!player) return result::kNoSuchPlayer;
        return fn(*player);
    } catch (...) {
        return answerForThrow(renderID);
    }
}

int CPlayerManager::play(const char* renderID, unsigned int) {
    return forward_(renderID, [](CPlayer& p) { return p.play(); });
}
int CPlayerManager::pause(const char* renderID) {
    return forward_(renderID, [](CPlayer& p) { return p.pause(); });
}
int CPlayerManager::stop(const char* renderID) {
    return forward_(renderID, [](CPlayer& p) { return p.stop(true); });
}
int CPlayerManager::next(const char* renderID) {
    return forward_(renderID, [](CPlayer& p) { return p.next(); });
}
int CPlayerManager::previous(const char* renderID) {
    return forward_(renderID, [](CPlayer& p) { return p.previous(); });
}
int CPlayerManager::seek(const char* renderID, const char* hhmmss) {
    return forward_(renderID, [&](CPlayer& p) { return p.seek(hhmmss); });
}
int CPlayerManager::setAudioAndSubtitle(const char* renderID, const char* externalSubtitle, int audioTrack,
                                        int subtitleTrack, const char* position, const char* sseek, const char* ssize,
                                        const char* scolor, const char* sencoding, const char* realSubtitlePath,
                                        int autoSubtitle) {
    return forward_(renderID, [&](CPlayer& p) {
        return p.setAudioAndSubtitle(externalSubtitle, audioTrack, subtitleTrack, position, sseek, ssize, scolor,
                                     sencoding, realSubtitlePath, autoSubtitle);
    });
}
int CPlayerManager::setTrack(const char* renderID, unsigned int track) {
    return forward_(renderID, [&](CPlayer& p) { return p.setCurrTrack(track); });
}
int CPlayerManager::setTrackByContent(const char* renderID, const char* content) {
    return forward_(renderID, [&](CPlayer& p) { return p.setCurrTrackByContent(content); });
}
int CPlayerManager::setSlideShowDelay(const char* renderID, int seconds) {
    return forward_(renderID, [&](CPlayer& p) {
        p.setSlideShowDelay(seconds);
        return 0;
    });
}
int CPlayerManager::getVolume(const char* renderID) {
    return read_(renderID, [](CPlayer& p) { return p.getVolume(); });
}
int CPlayerManager::setVolume(const char* renderID, int volume) {
    return forward_(renderID, [&](CPlayer& p) { return p.setVolume(volume); });
}
int CPlayerManager::isMute(const char* renderID) {
    return read_(renderID, [](CPlayer& p) { return p.isMute() ? 1 : 0; });
}
int CPlayerManager::setMute(const char* renderID, bool on) {
    return forward_(renderID, [&](CPlayer& p) { return p.setMute(on); });
}
int CPlayerManager::setPlayMode(const char* renderID, playMode_e mode) {
    return forward_(renderID, [&](CPlayer& p) {
        p.setPlayMode(mode, 0, 0);
        return 0;
    });
}
int CPlayerManager::getPlayerStatus(const char* renderID, playerStatus_s& status) {
    return read_(renderID, [&](CPlayer& p) {
        p.getStatus(status);
        return 0;
    });
}

int CPlayerManager::setPlayerAttributes(const char* renderID, const char* attributes) {
    if (!renderID) return -1;
    try {
        ThreadReadLock collectionLock(m_rwLock);
        if (CPlayer* player = findCreatedPlayerLocked(renderID)) {
            ThreadSingleTryLock playerLock(player->getLock());
            return player->setAttributes(attributes);
        }
        renderCacheInfo_s render;
        if (searchRenderInCacheLocked(renderID, render) != 0) return -1;
        return m_backends ? m_backends->setAttributesWithoutPlayer(render, attributes) : 0;
    } catch (...) {
        return answerForThrow(renderID);
    }
}

bool CPlayerManager::getPlayerRenderID(unsigned int index, std::string& out) {
    ThreadReadLock collectionLock(m_rwLock);
    if (index >= m_playerCollection.size()) return false;
    out = m_playerCollection[index]->getRenderID();
    return true;
}

bool CPlayerManager::getPlayerDeviceName(unsigned int index, std::string& out) {
    ThreadReadLock collectionLock(m_rwLock);
    if (index >= m_playerCollection.size()) return false;
    out = m_playerCollection[index]->getDeviceName();
    return true;
}

uint32_t CPlayerManager::getPlayerType(const char* renderID) {
    if (!renderID) return 0;
    ThreadReadLock collectionLock(m_rwLock);
    CPlayer* player = findCreatedPlayerLocked(renderID);
    return player ? player->getPlayerType() : 0;
}
