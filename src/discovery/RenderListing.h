// The render listing commands: ListRender gathers the DLNA renderers (media agent), the
// Chromecast receivers (mDNS) and the local sound outputs (shared MPD), answers them and
// refreshes the player manager's render cache; ListUnknowRender names the Chromecast receivers
// when the media-server package is absent.
#pragma once

#include <cstdint>
#include <ctime>

#include "xml/XMLNode.h"

class CPlayerManager;

int list_render(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
// Takes the dispatcher's arguments; uses neither the manager nor the request.
int list_unknow_render(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);

namespace renderlisting {

// Filter bits of the request's renderType.
inline constexpr uint32_t kFilterDlna = 0x1;
inline constexpr uint32_t kFilterAirplay = 0x2;
inline constexpr uint32_t kFilterChromecast = 0x4;
inline constexpr uint32_t kFilterAlsa = 0x8;
inline constexpr uint32_t kFilterTavriner = 0x10;

// "0x9" (hexadecimal) or "dlna+alsa" (names, any case; unknown ones add nothing). 0 for null:
// every source.
uint32_t parseRenderTypeMask(const char* text);

// Replaces the found marks of the manager's render cache with the devices of a ListRender
// reply. Takes the manager's write lock.
void updateRenderCache(CPlayerManager& playerManager, XMLNode& reply);

// The media-server package's Enable setting.
bool isModlEnabled();

// Every source of the listing (the package setting, the agent, each mDNS browse, the local
// outputs) is reused for 10 seconds; concurrent listings share one refresh. Tests set the clock
// (null: time()) and forget what was stored.
inline constexpr time_t kRefreshSeconds = 10;
using Clock = time_t (*)();
void setClock(Clock clock);
void resetCache();

}  // namespace renderlisting
