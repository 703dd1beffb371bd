// The command log (a small rolling text file) and a hex dump for debugging.
#pragma once

// Appends "[hh:mm:ss] text\n" (UTC time of day) to `path`. A file grown past 10 MiB is removed
// first, so the log never grows without bound. 0, or -1 when the line could not be written.
int debug_write_log(const char* path, const char* text);

// Hex dump to stderr: "Len:%d", then rows "[offset]: " + 16 bytes as "%02X" + their printable
// characters (others as '.').
void memory_dump(const void* data, int length);
