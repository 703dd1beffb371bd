// Start-up and the accept loop of the daemon.
#pragma once

#include <string>

// The command log (".log/.center_cmd.log" beside the public share), set once at start.
extern std::string g_cmdLogPath;

// Runs the daemon on the configured appliance root until SIGTERM or SIGINT. Returns the
// process exit status.
int runDaemon();

// Prints the accept error name line for errno ("%s..... EINTR" and so on).
void errortMessage_(const char* operation);
