// Which back-end plays a render: chosen by the render's type bits.
#pragma once

#include <memory>
#include <string>

#include "player/CPlayer.h"

struct renderCacheInfo_s;

// The player for a listed render, or null: an unknown type logs "Unkonw Type"; a local output
// whose sound device is busy sets result to -19.
std::unique_ptr<CPlayer> createBackend(const std::string& renderID, const renderCacheInfo_s& render,
                                       const std::string& playlistTitle, const std::string& appType, int& result);
