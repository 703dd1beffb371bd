// Text conversion helpers and the Base64 codec.
#include "xml/XMLNode.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

const char* xmltoa(const char* t, const char* v) { return t ? t : v; }

bool xmltob(const char* t, bool v) {
    if (!t || !*t) return v;
    switch (*t) {
        case '1': case 't': case 'T': case 'y': case 'Y': return true;
        case '0': case 'f': case 'F': case 'n': case 'N': return false;
        default: return v;
    }
}

int xmltoi(const char* t, int v) {
    if (!t || !*t) return v;
    long long n = std::strtoll(t, nullptr, 10);  // strtoll saturates instead of overflowing
    if (n > INT_MAX) return INT_MAX;
    if (n < INT_MIN) return INT_MIN;
    return static_cast<int>(n);
}

long long xmltol(const char* t, long long v) {
    if (!t || !*t) return v;
    return std::strtoll(t, nullptr, 10);
}

double xmltof(const char* t, double v) {
    if (!t || !*t) return v;
    return std::strtod(t, nullptr);
}

char xmltoc(const char* t, char v) { return (t && *t) ? *t : v; }

char* stringDup(const char* source, int length) {
    if (!source) return nullptr;
    size_t n = length < 0 ? std::strlen(source) : static_cast<size_t>(length);
    auto* copy = static_cast<char*>(std::malloc(n + 1));
    if (!copy) return nullptr;
    std::memcpy(copy, source, n);
    copy[n] = '\0';
    return copy;
}

// ---- Base64 ----------------------------------------------------------------------------------

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t kLineLength = 72;

enum : uint8_t { kSkip = 64, kPad = 65, kIllegal = 66 };

struct DecodeTable {
    uint8_t v[256];
    constexpr DecodeTable() : v() {
        for (int i = 0; i < 256; ++i) v[i] = kIllegal;
        for (int i = 0; i < 64; ++i) v[static_cast<unsigned char>(kAlphabet[i])] = static_cast<uint8_t>(i);
        v[static_cast<unsigned char>('=')] = kPad;
        for (char c : {' ', '\t', '\r', '\n'}) v[static_cast<unsigned char>(c)] = kSkip;
    }
};
constexpr DecodeTable kDecode;

void setError(XMLError* error, XMLError e) {
    if (error) *error = e;
}

}  // namespace

std::string XMLParserBase64Tool::encode(const unsigned char* data, size_t length, bool formatted) {
    std::string out;
    if (!data || length == 0) return out;
    size_t chars = (length + 2) / 3 * 4;
    out.reserve(chars + (formatted ? chars / kLineLength : 0));
    size_t lineChars = 0;
    auto put = [&](char c) {
        if (formatted && lineChars == kLineLength) {
            out += '\n';
            lineChars = 0;
        }
        out += c;
        ++lineChars;
    };
    size_t i = 0;
    for (; i + 3 <= length; i += 3) {
        uint32_t b = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
        put(kAlphabet[(b >> 18) & 63]);
        put(kAlphabet[(b >> 12) & 63]);
        put(kAlphabet[(b >> 6) & 63]);
        put(kAlphabet[b & 63]);
    }
    if (i < length) {
        uint32_t b = uint32_t{data[i]} << 16;
        if (i + 1 < length) b |= uint32_t{data[i + 1]} << 8;
        put(kAlphabet[(b >> 18) & 63]);
        put(kAlphabet[(b >> 12) & 63]);
        put(i + 1 < length ? kAlphabet[(b >> 6) & 63] : '=');
        put('=');
    }
    return out;
}

size_t XMLParserBase64Tool::decodeSize(const char* text, XMLError* error) {
    setError(error, eXMLErrorNone);
    if (!text) return 0;
    size_t significant = 0;  // alphabet characters and padding
    size_t padding = 0;      // trailing '=' among them
    for (const char* p = text; *p; ++p) {
        uint8_t v = kDecode.v[static_cast<unsigned char>(*p)];
        if (v == kSkip) continue;
        if (v == kIllegal || (padding && v != kPad)) {
            setError(error, eXMLErrorBase64DecodeIllegalCharacter);
            return 0;
        }
        ++significant;
        if (v == kPad) ++padding;
    }
    if (significant % 4 != 0) setError(error, eXMLErrorBase64DataSizeIsNotMultipleOf4);
    return (significant - padding) * 3 / 4;
}

bool XMLParserBase64Tool::decode(const char* text, unsigned char* out, size_t outSize, XMLError* error) {
    XMLError sizeError;
    size_t needed = decodeSize(text, &sizeError);
    if (sizeError == eXMLErrorBase64DecodeIllegalCharacter) {
        setError(error, sizeError);
        return false;
    }
    if (needed > outSize || (needed && !out)) {
        setError(error, eXMLErrorBase64DecodeBufferTooSmall);
        return false;
    }
    setError(error, eXMLErrorNone);
    if (!text) return true;
    uint32_t acc = 0;
    int bits = 0;
    size_t written = 0;
    for (const char* p = text; *p; ++p) {
        uint8_t v = kDecode.v[static_cast<unsigned char>(*p)];
        if (v >= 64) continue;  // blanks and padding; decodeSize rejected everything else
        acc = (acc << 6) | v;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out[written++] = static_cast<unsigned char>(acc >> bits);
            acc &= (1u << bits) - 1;
        }
    }
    // Input ending in the middle of a 4-character group: the whole bytes are kept.
    if (sizeError == eXMLErrorBase64DataSizeIsNotMultipleOf4) setError(error, eXMLErrorBase64DecodeTruncatedData);
    return true;
}

std::string XMLParserBase64Tool::decode(const char* text, XMLError* error) {
    XMLError e;
    size_t n = decodeSize(text, &e);
    std::string out;
    if (e == eXMLErrorBase64DecodeIllegalCharacter) {
        setError(error, e);
        return out;
    }
    out.resize(n);
    decode(text, reinterpret_cast<unsigned char*>(out.data()), n, error);
    return out;
}
