#include "player/BackendFactory.h"

#include "core/util/Log.h"
#include "player/CPlayerManager.h"
#include "player/PlayerTypes.h"

std::unique_ptr<CPlayer> createBackend(const std::string& renderID, const renderCacheInfo_s& render,
                                       const std::string& playlistTitle, const std::string& appType, int& result) {
    (void)render;
    (void)playlistTitle;
    (void)appType;
    (void)result;
    // Back-ends join here as they are built, tested in this order: DLNA, AirPlay, RAOP,
    // Chromecast, local sound output.
    LOG_WARN("Unkonw Type %s", renderID.c_str());
    return nullptr;
}
