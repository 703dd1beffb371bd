// Player type and capability bits, shared by discovery, the manager and the back-ends.
#pragma once

#include <cstdint>

namespace playertype {
inline constexpr uint32_t kDlna = 0x10000;
inline constexpr uint32_t kAirplay = 0x20000;
inline constexpr uint32_t kRaop = 0x40000;
inline constexpr uint32_t kAlsa = 0x80000;        // the appliance's own sound outputs
inline constexpr uint32_t kAlsaAnalog = 0x100;
inline constexpr uint32_t kAlsaHdmi = 0x200;
inline constexpr uint32_t kAlsaUsb = 0x400;
inline constexpr uint32_t kChromecast = 0x100000;
inline constexpr uint32_t kLocalHdmi = 0x200000;  // the local HDMI player: one plays at a time

inline constexpr uint32_t kCapVideo = 0x1;
inline constexpr uint32_t kCapAudio = 0x2;
inline constexpr uint32_t kCapPhoto = 0x4;
}  // namespace playertype
