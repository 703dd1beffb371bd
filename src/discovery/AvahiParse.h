// Reading mDNS services from avahi-browse's parsable output (-p with -r: resolved lines
// "=;iface;proto;name;type;domain;host;address;port;\"txt\" \"txt\"...") into <device>
// elements of a render listing.
#pragma once

#include <string>
#include <vector>

#include "xml/XMLNode.h"

// One mDNS service seen in this listing: the raw service name as avahi prints it, and its address.
struct devMap_t {
    std::string name;
    std::string address;
};

// Which listing a browse output belongs to; also selects the TXT keys that are read.
enum avahiKind_e {
    AVAHI_AIRPLAY_E = 1,
    AVAHI_RAOP_E = 2,
    AVAHI_CHROMECAST_E = 4,
};

// kind 0: AirPlay video receivers, kind 1: Chromecast receivers, kind 2: AirPlay speakers. The text's last character (the
// browse output's final newline) is not parsed. 0 for empty text, else parseDevices' result,
// -1 for an unknown kind.
int gen_avahi_device(int kind, const std::string& text, XMLNode& reply);

// Appends one <device> per resolved, not yet seen (name, address) line of text to reply; lines
// of another service type than the kind's, and services that are not of the kind (an AirPlay
// receiver without video, a speaker name without its MAC, an over-long name), are left out.
// -1 for empty text, else 0.
int parseDevices(const std::string& text, XMLNode& reply, int kind);

// Adds the elements read from a service's TXT records ("key=value" in double quotes) to device.
// 1 for empty text, -1 when the record repeats the device id, 0 otherwise.
int parseAvahiTxt(const char* txt, XMLNode& device, int kind);

// Removes the speakers (Type "Raop") whose MAC an AirPlay video receiver of the same listing
// has: one device is listed once.
void dropSpeakersListedAsAirplay(XMLNode& reply);

// Undoes avahi's escaping of service names (\DDD decimal bytes, \c for c) into dst.
// 1 for null or empty src, else 0.
int decodeAvahi(const char* src, std::string& dst);

// The value of TXT key `key` ("fn", "id", ...) in a browse line: from after "\"key=" up to the
// end of that record ("\" \"" or the closing quote), at most maxLen bytes. False when the key
// is absent or its record is not closed.
bool avahiTxtValue(const std::string& line, const char* key, size_t maxLen, std::string& value);

// The Chromecast receivers' names from a browse output (lines of at most 2048 bytes), one per
// receiver id; "Unknown" for a receiver that gives no name.
std::vector<std::string> parseUnknowRenderNames(const std::string& text);
