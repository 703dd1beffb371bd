// The seam between the player manager and the device back-ends. The manager knows players only
// as CPlayer; which class plays which render is the output layer's business, handed to the
// manager by the daemon's wiring (tests hand in their own).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

class CPlayer;

// One render as discovery last listed it.
struct renderCacheInfo_s {
    uint32_t type = 0;
    int32_t port = 0;
    int32_t encrypted = 0;
    std::string name;
    std::string IP;
    std::string card;    // local outputs: the sound card isSndDevBusy checks
    std::string device;  // local outputs: the PCM device
    std::string authMethod;  // AirPlay receivers: the authentication they ask for ("" none)
    uint8_t found = 0;
    int32_t failures = 0;
};
typedef renderCacheInfo_s renderCacheInfo_t;

class IPlayerBackends {
public:
    virtual ~IPlayerBackends() = default;
    // The player for a listed render, or null: result carries the reason when it has a code
    // (-19 for a sound device another program holds); an unknown type leaves it as it is.
    virtual std::unique_ptr<CPlayer> create(const std::string& renderID, const renderCacheInfo_s& render,
                                            const std::string& playlistTitle, const std::string& appType,
                                            int& result) = 0;
    // Output attributes for a listed render that has no player of its own: 0 when applied or
    // nothing applies, -1 when they cannot be.
    virtual int setAttributesWithoutPlayer(const renderCacheInfo_s& render, const char* attributes) = 0;
};
