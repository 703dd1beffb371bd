// Velmora: plays the appliance's media on the outputs of the home.
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/Daemon.h"
#include "util/AppRoot.h"
#include "util/Log.h"

namespace {

void usage(FILE* out) {
    std::fprintf(out,
                 "Usage: Velmora [--root DIR] [--log-level all|warnings] [--help] [--version]\n"
                 "\n"
                 "Media playback daemon: answers XML requests on the socket /tmp/.@Velmora.xxx.\n"
                 "  --root DIR   run on an appliance tree rooted at DIR (every fixed appliance path,\n"
                 "               the socket included, is taken below DIR)\n"
                 "  --log-level  all (every event, the default) or warnings (errors and warnings only)\n"
                 "  --help       show this help\n"
                 "  --version    show the daemon's version\n");
}

}  // namespace

int main(int argc, char** argv) {
    std::string root;
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) {
            usage(stdout);
            return 0;
        }
        if (std::strcmp(arg, "--version") == 0) {
            std::printf("Velmora %s\n", VELMORA_VERSION);
            return 0;
        }
        if (std::strcmp(arg, "--log-level") == 0 && i + 1 < argc &&
            (std::strcmp(argv[i + 1], "all") == 0 || std::strcmp(argv[i + 1], "warnings") == 0)) {
            vlog::setWarningsOnly(std::strcmp(argv[++i], "warnings") == 0);
        } else if (std::strcmp(arg, "--root") == 0 && i + 1 < argc) {
            root = argv[++i];
        } else if (std::strncmp(arg, "--root=", 7) == 0) {
            root = arg + 7;
        } else {
            std::fprintf(stderr, "Velmora: unknown or incomplete option '%s'\n\n", arg);
            usage(stderr);
            return 2;
        }
    }

    if (!root.empty()) {
        char resolved[PATH_MAX];
        if (!::realpath(root.c_str(), resolved)) {
            std::fprintf(stderr, "Velmora: appliance root '%s': %s\n", root.c_str(), std::strerror(errno));
            return 1;
        }
        approot::set(resolved);
    }
    return runDaemon();
}
