// Single-instance probe over /proc.
#pragma once

// Non-zero when more than one live (non-zombie) process whose name contains `name` runs on this
// daemon's appliance root (the caller is one of them); 0 otherwise. A process's root is the value
// of its "--root DIR" / "--root=DIR" argument (none: the machine's own), so daemons on different
// roots do not count as each other's second instance.
int is_process_already_exist(const char* name);
