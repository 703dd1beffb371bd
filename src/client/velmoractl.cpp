// velmoractl: sends one command to the Velmora daemon and prints its answer.
#include <cstdio>
#include <cstring>
#include <string>

#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <vector>

#include "client/BatchFile.h"
#include "client/VelmoraClient.h"
#include "util/ResultCodes.h"

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
                 "  velmoractl --root /tmp/appliance CreatePlaylist playlist=Party playlistType=audio appType=music\n"
                 "  velmoractl --root /tmp/appliance ListContentOfPlaylist playlist=Party appType=music\n"
                 "\n"
                 "Adding many files to a playlist in one request:\n"
                 "  velmoractl [--root DIR | --socket PATH] add-files PLAYLIST APPTYPE [--media TYPE]\n"
                 "             [--start N] FILE... | -\n"
                 "  writes a batch file and sends one BatchAddPlaylist; '-' reads the paths from standard\n"
                 "  input, one per line. The media type of each file comes from its extension unless\n"
                 "  --media (audio, video or photo) is given; --start N inserts at position N.\n"
                 "\n"
                 "Exit status: 0 success (or ECHO), 1 the daemon answered a failure code,\n"
                 "2 the daemon could not be reached, 3 bad usage.\n");
}

int sendAndReport(const std::string& socketPath, const std::string& command, const std::string& request,
                  bool rawXml) {
    vclient::Exchange ex = vclient::exchange(socketPath, request);
    if (!ex.ok) {
        std::fprintf(stderr, "velmoractl: %s\n", ex.error.c_str());
        if (ex.busy)
            std::fprintf(stderr, "The daemon is running but busy: it did not take the request in time. Try again.\n");
        else if (ex.notRunning)
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

// add-files PLAYLIST APPTYPE [--media TYPE] [--start N] FILE... | -
int addFiles(const std::string& socketPath, int argc, char** argv, int i, bool rawXml) {
    if (argc - i < 3) {
        usage(stderr);
        return 3;
    }
    std::string title = argv[i++];
    std::string appType = argv[i++];
    std::string media, start;
    std::vector<std::string> files;
    for (; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--media" && i + 1 < argc) {
            media = argv[++i];
        } else if (arg == "--start" && i + 1 < argc) {
            start = argv[++i];
        } else if (arg == "-") {
            for (std::string line; std::getline(std::cin, line);)
                if (!line.empty()) files.push_back(line);
        } else {
            files.push_back(arg);
        }
    }
    if (files.empty()) {
        std::fprintf(stderr, "velmoractl: add-files needs at least one file\n");
        return 3;
    }

    std::vector<vclient::BatchItem> items;
    items.reserve(files.size());
    for (const std::string& f : files) {
        std::string type = media.empty() ? vclient::mediaTypeOfFile(f) : media;
        // The daemon and its players do not share our working directory: store absolute paths.
        std::error_code ec;
        std::string path = f.empty() || f[0] == '/' ? f : std::filesystem::absolute(f, ec).lexically_normal().string();
        items.push_back({path.empty() ? f : path, type, "file"});
    }
    bool showProgress = items.size() >= 1000;
    std::string text = vclient::buildBatchFile(title, appType, items.front().mediaType, items, [&](size_t done, size_t total) {
        if (showProgress) std::fprintf(stderr, "\rvelmoractl: prepared %zu of %zu items", done, total);
    });
    if (showProgress) std::fprintf(stderr, "\n");

    const char* tmp = std::getenv("TMPDIR");
    std::string path = vclient::writeBatchFile(tmp && *tmp ? tmp : "/tmp", text);
    if (path.empty()) {
        std::fprintf(stderr, "velmoractl: cannot write the batch file: %s\n", std::strerror(errno));
        return 1;
    }
    if (showProgress) std::fprintf(stderr, "velmoractl: sending %zu items in one BatchAddPlaylist\n", items.size());
    vclient::Params params{{"filePath", path}};
    if (!start.empty()) params.emplace_back("start", start);
    int rc = sendAndReport(socketPath, "BatchAddPlaylist", vclient::buildRequest("BatchAddPlaylist", params), rawXml);
    ::unlink(path.c_str());  // the daemon removes it when it succeeds; not when it fails
    return rc;
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
    if (command == "add-files") return addFiles(socketPath, argc, argv, i, rawXml);
    vclient::Params params;
    for (; i < argc; ++i) {
        const char* eq = std::strchr(argv[i], '=');
        if (!eq || eq == argv[i]) {
            std::fprintf(stderr, "velmoractl: parameter '%s' is not name=value\n", argv[i]);
            return 3;
        }
        params.emplace_back(std::string(argv[i], static_cast<size_t>(eq - argv[i])), std::string(eq + 1));
    }

    return sendAndReport(socketPath, command, vclient::buildRequest(command, params), rawXml);
}
