// Conversions between "hh:mm:ss" texts (as devices and the media agent report positions) and
// seconds.
#pragma once

#include <string>

#include <cstddef>

// "h:m:s" -> seconds. At most 30 characters are looked at; missing parts count as 0 and a text
// without ':' gives 0 (a bare number is not a position here).
int time_convert_to_second(const char* text);

// Folds ':'-separated digit groups: "01:02:05" -> 3725, "125" -> 125. Scanning stops at the first
// character that is neither a digit nor ':' (so "0:01:05.250" -> 65); null gives 0.
int hhmmss_convert_to_sec(const char* text);

// seconds -> "%02d:%02d:%02d" (hours are not wrapped at 24).
void sec_convert_to_hhmmss(int seconds, char* buffer, size_t size);
// The same as a string.
std::string sec_to_hhmmss(int seconds);
