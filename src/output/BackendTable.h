// Which back-end plays a render: one ordered table of back-end families, each chosen by the
// render's type bits. A new kind of device is one row here plus its own folder.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "player/CPlayer.h"
#include "player/PlayerBackends.h"

struct BackendRow {
    const char* family;  // for logs
    uint32_t typeMask;   // a render whose type has any of these bits
    std::unique_ptr<CPlayer> (*create)(const std::string& renderID, const renderCacheInfo_s& render,
                                       const std::string& playlistTitle, const std::string& appType, int& result);
    // Attributes for a render of this family without a player; null: not applicable (0).
    int (*setAttributesWithoutPlayer)(const renderCacheInfo_s& render, const char* attributes);
};

class BackendTable : public IPlayerBackends {
public:
    std::unique_ptr<CPlayer> create(const std::string& renderID, const renderCacheInfo_s& render,
                                    const std::string& playlistTitle, const std::string& appType,
                                    int& result) override;
    int setAttributesWithoutPlayer(const renderCacheInfo_s& render, const char* attributes) override;

    // The row that plays a render of this type; null when none does.
    static const BackendRow* rowFor(uint32_t type);
};
