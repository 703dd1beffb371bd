// Network interface lookup.
#pragma once

#include <string>

// 0 with the name of the first IPv4 interface whose network (address under its netmask) contains
// `ip`; 1 when none does or `ip` is not an IPv4 address.
int get_if_by_ip(const char* ip, std::string& ifName);
