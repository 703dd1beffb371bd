// The appliance root: every fixed absolute path the daemon uses on the appliance
// (/sbin/yarrow, /etc/config/..., /share/Public, its /tmp files) resolves below it.
// Empty root means the machine's own paths. Live kernel views (/proc/<pid>, /proc/net)
// are never rebased: callers simply do not pass them through here.
#pragma once

#include <string>
#include <string_view>

namespace approot {

// Set once at start-up, before any other thread runs.
void set(std::string root);
const std::string& get();

// "/etc/config/modl.conf" -> "<root>/etc/config/modl.conf" (or unchanged without a root).
std::string path(std::string_view absolute);

}  // namespace approot
