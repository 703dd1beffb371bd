// velmoractl: sends one command to the Velmora daemon and prints its answer.
#include <cstdio>
#include <cstring>
#include <string>

#include "client/VelmoraClient.h"
#include "core/ResultCodes.h"

namespace {

void usage(FILE* out) {
    std::fprintf(out,
                 "Usage: velmoractl [--root DIR | --socket PATH] [--xml] COMMAND [name=value ...]\n"
                 "\n"
                 "Sends COMMAND with its parameters to the Velmora daemon and prints the answer.\n"
                 "  --root DIR     talk to the daemon started with --root DIR\n"
                 "  --socket PATH  talk to the daemon listening on PATH (default /tmp/.@Velmora.xxx)\n"
                 "  --xml          print the raw answer document\n"
                 "\n"
                 "Examples:\n"
                 "  velmoractl --root /tmp/appliance echo\n"
                 "  velmoractl --root /tmp/appliance debugDump dev=uuid:1234\n"
                 "\n"
                 "Exit status: 0 success (or ECHO), 1 the daemon answered a failure code,\n"
                 "2 the daemon could not be reached, 3 bad usage.\n");
}

}  // namespace

int main(int argc, char** argv) {
    std::string socketPath = vclient::kDefaultSocket;
    bool rawXml = false;
    int i = 1;
    for (; i < argc && std::strncmp(argv[i], "--", 2) == 0; ++i) {
        const char* arg = argv[i];
        if (std::strcmp(arg, "--help") == 0) {
            usage(stdout);
            return 0;
        } else if (std::strcmp(arg, "--xml") == 0) {
            rawXml = true;
        } else if (std::strcmp(arg, "--root") == 0 && i + 1 < argc) {
            socketPath = vclient::socketPathForRoot(argv[++i]);
        } else if (std::strcmp(arg, "--socket") == 0 && i + 1 < argc) {
            socketPath = argv[++i];
        } else {
            std::fprintf(stderr, "velmoractl: unknown or incomplete option '%s'\n\n", arg);
            usage(stderr);
            return 3;
        }
    }
    if (i >= argc) {
        usage(stderr);
        return 3;
    }
    std::string command = argv[i++];
    vclient::Params params;
    for (; i < argc; ++i) {
        const char* eq = std::strchr(argv[i], '=');
        if (!eq || eq == argv[i]) {
            std::fprintf(stderr, "velmoractl: parameter '%s' is not name=value\n", argv[i]);
            return 3;
        }
        params.emplace_back(std::string(argv[i], static_cast<size_t>(eq - argv[i])), std::string(eq + 1));
    }

    vclient::Exchange ex = vclient::exchange(socketPath, vclient::buildRequest(command, params));
    if (!ex.ok) {
        std::fprintf(stderr, "velmoractl: %s\n", ex.error.c_str());
        if (!ex.reached)
            std::fprintf(stderr,
                         "Is the daemon running? Start it with 'Velmora --root DIR' (or 'make run' in the\n"
                         "source tree) and pass the same --root here, or give its socket with --socket.\n");
        return 2;
    }

    vclient::Answer answer = vclient::parseAnswer(ex.answer);
    if (rawXml) {
        std::fwrite(ex.answer.data(), 1, ex.answer.size(), stdout);
    } else if (answer.doc.isEmpty()) {
        std::fprintf(stderr, "velmoractl: the answer is not a <root> document:\n%s\n", ex.answer.c_str());
        return 1;
    } else {
        std::fputs(vclient::formatFields(answer.doc).c_str(), stdout);
    }

    if (answer.isEcho || (!answer.status.empty() && answer.code == 0)) return 0;
    int code = answer.status.empty() ? -1 : answer.code;
    std::fprintf(stderr, "velmoractl: %s failed with status %d: %s\n", command.c_str(), code, result::meaning(code));
    return 1;
}
