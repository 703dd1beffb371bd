// Version texts of installed packages and of the firmware, read through the configuration reader.
// They are asked for on every answer the daemon sends, so each result is cached while the
// configuration file it came from keeps its modification time, size and inode: a call then costs
// one stat() and no program run. Failures are cached for a few seconds only. Thread-safe.
#pragma once

#include <cstddef>
#include <string>

// "<package> <version>" from /etc/config/modl.conf. 0, or 1 on failure (reason logged when verbose).
int getMODLVersion(char* out, size_t size, const char* packageName, bool verbose);
// "FW <Version>.<Build Number>" from the "System" section of /etc/config/tarvik.conf. 0 or 1.
int getFirmwareVersion(char* out, size_t size, bool verbose);
// The package version; only if that fails and withFirmware is set, the firmware version. 0 or 1.
int getVersion(char* out, size_t size, const char* packageName, bool withFirmware, bool verbose);
// getVersion as a string; empty on failure.
std::string getVersionText(const char* packageName, bool withFirmware = true);
