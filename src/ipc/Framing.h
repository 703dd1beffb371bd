// The connection framing shared by the daemon and its clients. The client writes one request
// document; the daemon answers with a 256-byte block holding the answer's length in decimal
// ASCII (NUL-padded), then the answer text; the client acknowledges with up to 256 bytes.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

namespace framing {

inline constexpr size_t kHeaderSize = 256;
inline constexpr size_t kAckSize = 256;
inline constexpr size_t kMaxRequest = 64 * 1024;
inline constexpr int kIoTimeoutSec = 30;

inline void formatHeader(char (&block)[kHeaderSize], size_t bodyLength) {
    std::memset(block, 0, kHeaderSize);
    std::snprintf(block, kHeaderSize, "%zu", bodyLength);
}

// An answer printed behind kHeaderSize bytes of room: writes its length block there.
inline void fillHeader(std::string& framed) {
    char block[kHeaderSize];
    formatHeader(block, framed.size() - kHeaderSize);
    framed.replace(0, kHeaderSize, block, kHeaderSize);
}

// Reads the length from a header block; -1 when it holds no plain decimal number.
inline long long parseHeader(const char* block, size_t size) {
    long long value = 0;
    size_t i = 0;
    for (; i < size && block[i] >= '0' && block[i] <= '9'; ++i) {
        value = value * 10 + (block[i] - '0');
        if (value > (1LL << 40)) return -1;
    }
    if (i == 0) return -1;
    for (; i < size; ++i)
        if (block[i] != '\0') return -1;
    return value;
}

}  // namespace framing
