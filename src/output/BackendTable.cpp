#include "output/BackendTable.h"

#include <iterator>

#include "output/airplay/CAirplayPlayer.h"
#include "output/cast/CChromecast.h"
#include "output/dlna/CDlnaPlayer.h"
#include "output/mpd/CAlsaPlayer.h"
#include "output/raop/CRaopPlayer.h"
#include "player/PlayerTypes.h"
#include "util/Log.h"

namespace {

// In the order a render's bits are tried.
const BackendRow kRows[] = {
    {"dlna", playertype::kDlna, &CDlnaPlayer::create, nullptr},
    {"airplay", playertype::kAirplay, &CAirplayPlayer::create, nullptr},
    {"raop", playertype::kRaop, &CRaopPlayer::create, nullptr},
    {"cast", playertype::kChromecast, &CChromecast::create, nullptr},
    {"mpd", playertype::kAlsa, &CAlsaPlayer::create, &CAlsaPlayer::setAttributesWithoutPlayer},
};

}  // namespace

const BackendRow* BackendTable::rowFor(uint32_t type) {
    for (const BackendRow& row : kRows)
        if (type & row.typeMask) return &row;
    return nullptr;
}

std::unique_ptr<CPlayer> BackendTable::create(const std::string& renderID, const renderCacheInfo_s& render,
                                              const std::string& playlistTitle, const std::string& appType,
                                              int& result) {
    const BackendRow* row = rowFor(render.type);
    if (!row) {
        LOG_WARN("Unkonw Type %s", renderID.c_str());
        return nullptr;
    }
    return row->create(renderID, render, playlistTitle, appType, result);
}

int BackendTable::setAttributesWithoutPlayer(const renderCacheInfo_s& render, const char* attributes) {
    const BackendRow* row = rowFor(render.type);
    return row && row->setAttributesWithoutPlayer ? row->setAttributesWithoutPlayer(render, attributes) : 0;
}
