#include "player/BackendFactory.h"

#include "core/util/Log.h"
#include "player/CPlayerManager.h"
#include "player/PlayerTypes.h"
#include "render/CAlsaPlayer.h"
#include "render/CDlnaPlayer.h"

std::unique_ptr<CPlayer> createBackend(const std::string& renderID, const renderCacheInfo_s& render,
                                       const std::string& playlistTitle, const std::string& appType, int& result) {
    // Back-ends join here as they are built, tested in this order: DLNA, AirPlay, RAOP,
    // Chromecast, local sound output.
    if (render.type & playertype::kDlna)
        return std::make_unique<CDlnaPlayer>(render.type, renderID, render.name, playlistTitle, appType);
    if (render.type & playertype::kAlsa) {
        // A sound device another program holds would refuse our MPD; leave it alone.
        if (CAlsaPlayer::isSndDevBusy(render.card, render.device)) {
            result = -19;
            return nullptr;
        }
        return std::make_unique<CAlsaPlayer>(render.type, renderID, render.name, playlistTitle, appType,
                                             render.card);
    }
    LOG_WARN("Unkonw Type %s", renderID.c_str());
    return nullptr;
}
