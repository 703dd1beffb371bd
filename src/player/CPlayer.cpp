#include "player/CPlayer.h"

CPlayer::CPlayer(uint32_t type, std::string renderID, std::string deviceName)
    : CThread(THREAD_JOINABLE_E), m_type(type), m_renderID(std::move(renderID)), m_deviceName(std::move(deviceName)) {
    mutexInit(m_lock, MUTEX_NORMAL_E);
}

CPlayer::~CPlayer() { pthread_mutex_destroy(&m_lock); }
