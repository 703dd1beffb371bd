// One-line diagnostics on standard error: "[File:%s][Line:%d][Func:%s]: " + message,
// wrapped in a colour that tells the kind of event.
#pragma once

#include <cstdarg>

namespace vlog {

// Colours by kind of event; every coloured line is closed with kReset.
inline constexpr const char* kError = "\033[1;31m";
inline constexpr const char* kWarn = "\033[1;33m";
inline constexpr const char* kTrace = "\033[1;32m";   // requests and command traces
inline constexpr const char* kNote = "\033[1;34m";    // destruction and not-found notes
inline constexpr const char* kAgent = "\033[1;35m";   // media-agent traces
inline constexpr const char* kSignal = "\033[1;36m";
inline constexpr const char* kRemove = "\033[0;35m";
inline constexpr const char* kTrack = "\033[0;37m";
inline constexpr const char* kSocket = "\033[0;32;31m";
inline constexpr const char* kReset = "\033[m";

// Writes one event with a single write(2) so lines of concurrent threads never interleave.
// colour may be null for an uncoloured line.
void write(const char* colour, const char* file, int line, const char* func, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));
void vwrite(const char* colour, const char* file, int line, const char* func, const char* fmt, va_list ap);

// Async-signal-safe variant for signal handlers: no allocation, no locale, fixed buffer.
void writeSignalSafe(const char* colour, const char* file, int line, const char* func, const char* text);

// Silences all output (benchmarks, fuzzers). Off by default.
void setQuiet(bool quiet);
// Keeps only errors, warnings, socket failures and signals (a production appliance's level);
// off by default: every event is written.
void setWarningsOnly(bool on);
// Whether an event of this colour is written at the level set.
bool wanted(const char* colour);

}  // namespace vlog

#define VLOG_AT(colour, ...) ::vlog::write((colour), __FILE__, __LINE__, __PRETTY_FUNCTION__, __VA_ARGS__)
#define LOG_ERR(...) VLOG_AT(::vlog::kError, __VA_ARGS__)
#define LOG_WARN(...) VLOG_AT(::vlog::kWarn, __VA_ARGS__)
#define LOG_TRACE(...) VLOG_AT(::vlog::kTrace, __VA_ARGS__)
#define LOG_NOTE(...) VLOG_AT(::vlog::kNote, __VA_ARGS__)
#define LOG_AGENT(...) VLOG_AT(::vlog::kAgent, __VA_ARGS__)
#define LOG_SIGNAL(...) VLOG_AT(::vlog::kSignal, __VA_ARGS__)
#define LOG_REMOVE(...) VLOG_AT(::vlog::kRemove, __VA_ARGS__)
#define LOG_TRACK(...) VLOG_AT(::vlog::kTrack, __VA_ARGS__)
#define LOG_SOCKET(...) VLOG_AT(::vlog::kSocket, __VA_ARGS__)
#define LOG_PLAIN(...) VLOG_AT(nullptr, __VA_ARGS__)
