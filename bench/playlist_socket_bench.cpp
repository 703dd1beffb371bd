// Playlist commands through the daemon's socket against SQLite used directly: each row times one
// request to a running daemon and the statements its playlist store runs for it, on a second
// connection to the same database file, and prints the median of each side and their ratio.
//
//   playlist_socket_bench --socket PATH --db DBPATH [--reps N]      (default 5 repetitions)
//
// Run it against a daemon on a freshly made root: it fills the store through the socket
// (BatchAddPlaylist) with 20 playlists of 10,000 entries and one of 100,000, all of appType
// "bench". The batch files are written next to the socket. The raw connection works beside the
// daemon thanks to WAL; both wait for each other's locks.
//
// Exit status: 0 when every request and statement succeeded (whatever the ratios), 1 otherwise.
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "client/BatchFile.h"
#include "client/VelmoraClient.h"
#include "RawSqlite.h"
#include "playlist/PlaylistTypes.h"

namespace {

using bench::Clock;
using bench::die;
using bench::median;
using bench::millis;
using bench::RawSqlite;

constexpr int kSmallLists = 20;
constexpr int kSmallSize = 10'000;
constexpr int kBigSize = 100'000;
constexpr int kBatch = 10'000;
constexpr int kMiddle = 50'000;
constexpr int kPageStart = 90'000;
constexpr int kPageSize = 100;
constexpr int kBusyTimeoutMs = 10'000;
constexpr int kScratchId = 1'000'000;  // raw batch rows go to ids no playlist of the library has
constexpr const char* kApp = "bench";
constexpr const char* kBig = "Big";

std::string smallTitle(int i) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "List-%02d", i);
    return buf;
}

std::string content(const std::string& prefix, int i) {
    char buf[128];
    std::snprintf(buf, sizeof buf, "/share/Multimedia/Music/%s/Artist %03d/Album/%06d - Track.mp3", prefix.c_str(),
                  i % 500, i);
    return buf;
}

std::vector<vclient::BatchItem> batchItems(const std::string& prefix, int count) {
    std::vector<vclient::BatchItem> items;
    items.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) items.push_back({content(prefix, i), "audio", "file"});
    return items;
}

// ---------------------------------------------------------------------------------------------
// The socket side

class Daemon {
public:
    explicit Daemon(std::string socketPath) : m_socket(std::move(socketPath)) {
        size_t slash = m_socket.rfind('/');
        m_dir = slash == std::string::npos ? "." : slash == 0 ? "/" : m_socket.substr(0, slash);
    }

    // One exchange; elapsed gets the time from connecting to the last byte of the answer.
    vclient::Answer request(const std::string& command, const vclient::Params& params, double* elapsed = nullptr) {
        std::string text = vclient::buildRequest(command, params);
        auto t = Clock::now();
        vclient::Exchange ex = vclient::exchange(m_socket, text);
        if (elapsed) *elapsed = millis(t);
        if (!ex.ok) die(command + ": " + ex.error);
        vclient::Answer answer = vclient::parseAnswer(ex.answer);
        if (answer.status.empty()) die(command + ": the answer has no status");
        if (answer.code < 0) die(command + " answered status " + answer.status);
        return answer;
    }

    // Writes the batch file (not timed) and times the BatchAddPlaylist request alone.
    double batchAdd(const std::string& title, const std::vector<vclient::BatchItem>& items) {
        std::string path = vclient::writeBatchFile(m_dir, vclient::buildBatchFile(title, kApp, "audio", items));
        if (path.empty()) die("cannot write a batch file in " + m_dir + ": " + std::strerror(errno));
        std::string text = vclient::buildRequest("BatchAddPlaylist", {{"filePath", path}});
        auto t = Clock::now();
        vclient::Exchange ex = vclient::exchange(m_socket, text);
        double ms = millis(t);
        vclient::Answer answer = vclient::parseAnswer(ex.answer);
        if (!ex.ok || answer.code < 0 || answer.status.empty()) {
            ::unlink(path.c_str());  // the daemon removes it only on success
            die("BatchAddPlaylist " + title + ": " + (ex.ok ? "status " + answer.status : ex.error));
        }
        return ms;
    }

    void delPlaylist(const std::string& title) { request("DelPlaylist", {{"playlist", title}, {"appType", kApp}}); }

private:
    std::string m_socket;
    std::string m_dir;
};

// ---------------------------------------------------------------------------------------------
// The raw side: a connection of its own with the store's statements prepared up front, as a
// program using SQLite directly would keep them.


void bindText(sqlite3_stmt* s, int col, const std::string& text) {
    sqlite3_bind_text(s, col, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

struct Options {
    std::string socket;
    std::string db;
    int reps = 5;
};

void usage() {
    std::fprintf(stderr, "usage: playlist_socket_bench --socket PATH --db DBPATH [--reps N]\n");
    std::exit(1);
}

Options parseOptions(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (i + 1 >= argc) usage();
        if (arg == "--socket") o.socket = argv[++i];
        else if (arg == "--db") o.db = argv[++i];
        else if (arg == "--reps") {
            char* end = nullptr;
            long v = std::strtol(argv[++i], &end, 10);
            if (!end || *end || v < 1 || v > 1000) usage();
            o.reps = static_cast<int>(v);
        } else {
            usage();
        }
    }
    if (o.socket.empty() || o.db.empty()) usage();
    return o;
}

struct Row {
    const char* name;
    double target;                   // 0: no raw side
    std::function<double(int)> socket;
    std::function<double(int)> raw;  // empty: no raw side
};

}  // namespace

int main(int argc, char** argv) {
    const Options opt = parseOptions(argc, argv);
    Daemon daemon(opt.socket);

    // Filling the store through the socket.
    auto setupStart = Clock::now();
    for (int i = 0; i < kSmallLists; ++i) daemon.batchAdd(smallTitle(i), batchItems(smallTitle(i), kSmallSize));
    daemon.batchAdd(kBig, batchItems(kBig, kBigSize));
    std::printf("setup through the socket: %d x %d + %d entries in %.0f ms (%d repetitions per row)\n", kSmallLists,
                kSmallSize, kBigSize, millis(setupStart), opt.reps);

    RawSqlite raw(opt.db, kBusyTimeoutMs);
    sqlite3_stmt* libId = raw.prepare("SELECT PlaylistID from PlaylistLib_TBL WHERE PlaylistTitle=? AND AppType=?;");
    sqlite3_stmt* count = raw.prepare("SELECT COUNT(*) FROM Playlist_TBL WHERE PlaylistID=? ORDER BY OrderNr;");
    sqlite3_stmt* maxOrder =
        raw.prepare("select orderNr from playlist_tbl where playlistid=? order by orderNr desc limit 0,1");
    sqlite3_stmt* shiftUp = raw.prepare("update playlist_tbl set orderNr=orderNr+1 where playlistid=? and orderNr>=?");
    sqlite3_stmt* insert = raw.prepare("INSERT INTO Playlist_TBL VALUES(NULL, ?, ?, ?, ?, ?, ?);");
    sqlite3_stmt* uuidAt = raw.prepare("select uuid from playlist_tbl where playlistid=? and orderNr=?");
    sqlite3_stmt* moveDown =
        raw.prepare("update playlist_tbl set orderNr=orderNr-1 where playlistid=? and orderNr>? and orderNr<=?");
    sqlite3_stmt* setOrder = raw.prepare("update playlist_tbl set orderNr=? where playlistid=? and uuid=?");
    sqlite3_stmt* page = raw.prepare("SELECT * FROM Playlist_TBL WHERE PlaylistID=? ORDER BY OrderNr limit ?,? ;");
    sqlite3_stmt* savepoint = raw.prepare("SAVEPOINT playlist_edit");
    sqlite3_stmt* release = raw.prepare("RELEASE playlist_edit");
    // Untimed housekeeping between repetitions.
    sqlite3_stmt* deleteAll = raw.prepare("DELETE FROM Playlist_TBL WHERE PlaylistID=?;");
    sqlite3_stmt* deleteUuid = raw.prepare("DELETE FROM Playlist_TBL WHERE PlaylistID=? and UUID=?;");
    sqlite3_stmt* shiftDown = raw.prepare("update playlist_tbl set orderNr=orderNr-1 where playlistid=? and orderNr>?");

    auto lookup = [&](const std::string& title) {
        bindText(libId, 1, title);
        sqlite3_bind_text(libId, 2, kApp, -1, SQLITE_STATIC);
        return static_cast<int>(raw.run(libId));
    };
    auto sizeOf = [&](int id) {
        sqlite3_bind_int(count, 1, id);
        return static_cast<int>(raw.run(count));
    };
    auto insertRow = [&](int id, int order, const std::string& text) {
        sqlite3_bind_int(insert, 1, id);
        sqlite3_bind_int(insert, 2, order);
        sqlite3_bind_int(insert, 3, MEDIA_AUDIO_E);
        sqlite3_bind_int(insert, 4, CONTENT_FILE_E);
        bindText(insert, 5, text);
        sqlite3_bind_text(insert, 6, "N/A", -1, SQLITE_STATIC);
        raw.run(insert);
    };
    // Takes the entry at order out again and closes the gap, as DelContent would.
    auto removeAt = [&](int id, int order) {
        raw.exec("BEGIN");
        sqlite3_bind_int(uuidAt, 1, id);
        sqlite3_bind_int(uuidAt, 2, order);
        sqlite3_int64 uuid = raw.run(uuidAt);
        if (uuid < 0) die("no entry at order " + std::to_string(order));
        sqlite3_bind_int(deleteUuid, 1, id);
        sqlite3_bind_int64(deleteUuid, 2, uuid);
        raw.run(deleteUuid);
        sqlite3_bind_int(shiftDown, 1, id);
        sqlite3_bind_int(shiftDown, 2, order);
        raw.run(shiftDown);
        raw.exec("COMMIT");
    };

    const int big = lookup(kBig);
    if (big < 1) die("the database " + opt.db + " has no playlist " + kBig + ": is it the daemon's?");
    if (sizeOf(big) != kBigSize) die("the daemon's " + std::string(kBig) + " does not hold " + std::to_string(kBigSize) +
                                     " entries in " + opt.db);

    const std::vector<vclient::BatchItem> batch = batchItems("Batch", kBatch);

    std::vector<Row> rows;
    rows.push_back({"BatchAddPlaylist of 10,000", 3.0,
                    [&](int rep) {
                        std::string title = "Batch-" + std::to_string(rep);
                        double ms = daemon.batchAdd(title, batch);
                        if (sizeOf(lookup(title)) != kBatch) die(title + " did not get " + std::to_string(kBatch) + " entries");
                        daemon.delPlaylist(title);
                        return ms;
                    },
                    [&](int rep) {
                        int id = kScratchId + rep;
                        auto t = Clock::now();
                        raw.exec("BEGIN");
                        for (int i = 0; i < kBatch; ++i) insertRow(id, i, batch[static_cast<size_t>(i)].content);
                        raw.exec("COMMIT");
                        double ms = millis(t);
                        sqlite3_bind_int(deleteAll, 1, id);
                        raw.run(deleteAll);
                        return ms;
                    }});
    rows.push_back({"AddContent at 50,000 of 100,000", 2.0,
                    [&](int rep) {
                        double ms = 0;
                        daemon.request("AddContent",
                                       {{"playlist", kBig},
                                        {"appType", kApp},
                                        {"content", content("AddSocket", rep)},
                                        {"contentType", "file"},
                                        {"mediaType", "audio"},
                                        {"orderNum", std::to_string(kMiddle)}},
                                       &ms);
                        removeAt(big, kMiddle);
                        return ms;
                    },
                    [&](int rep) {
                        std::string text = content("AddRaw", rep);
                        auto t = Clock::now();
                        raw.run(savepoint);
                        int id = lookup(kBig);
                        sizeOf(id);
                        sqlite3_bind_int(maxOrder, 1, id);
                        raw.run(maxOrder);
                        sqlite3_bind_int(shiftUp, 1, id);
                        sqlite3_bind_int(shiftUp, 2, kMiddle);
                        raw.run(shiftUp);
                        insertRow(id, kMiddle, text);
                        raw.run(release);
                        double ms = millis(t);
                        removeAt(big, kMiddle);
                        return ms;
                    }});
    // Moving the first entry to the end leaves a list like the one before: no restoring needed.
    rows.push_back({"ReOrderContent 0 to 99,999 of 100,000", 2.0,
                    [&](int) {
                        double ms = 0;
                        daemon.request("ReOrderContent",
                                       {{"playlist", kBig},
                                        {"appType", kApp},
                                        {"origOrder", "0"},
                                        {"newOrder", std::to_string(kBigSize - 1)}},
                                       &ms);
                        return ms;
                    },
                    [&](int) {
                        auto t = Clock::now();
                        int id = lookup(kBig);
                        raw.run(savepoint);
                        sqlite3_bind_int(uuidAt, 1, id);
                        sqlite3_bind_int(uuidAt, 2, 0);
                        sqlite3_int64 uuid = raw.run(uuidAt);
                        sqlite3_bind_int(moveDown, 1, id);
                        sqlite3_bind_int(moveDown, 2, 0);
                        sqlite3_bind_int(moveDown, 3, kBigSize - 1);
                        raw.run(moveDown);
                        sqlite3_bind_int(setOrder, 1, kBigSize - 1);
                        sqlite3_bind_int(setOrder, 2, id);
                        sqlite3_bind_int64(setOrder, 3, uuid);
                        raw.run(setOrder);
                        raw.run(release);
                        return millis(t);
                    }});
    // A read: the store runs these statements one by one, outside any transaction.
    rows.push_back({"ListContentOfPlaylist 100 at 90,000", 2.0,
                    [&](int) {
                        double ms = 0;
                        vclient::Answer a = daemon.request("ListContentOfPlaylist",
                                                           {{"playlist", kBig},
                                                            {"appType", kApp},
                                                            {"start", std::to_string(kPageStart)},
                                                            {"count", std::to_string(kPageSize)}},
                                                           &ms);
                        if (a.doc.nChildNode("item") != kPageSize) die("ListContentOfPlaylist: not a full page");
                        return ms;
                    },
                    [&](int) {
                        std::vector<playlistElm_s> out;
                        auto t = Clock::now();
                        int id = lookup(kBig);
                        sizeOf(id);
                        out.reserve(kPageSize);
                        sqlite3_bind_int(page, 1, id);
                        sqlite3_bind_int(page, 2, kPageStart);
                        sqlite3_bind_int(page, 3, kPageSize);
                        int rc;
                        while ((rc = sqlite3_step(page)) == SQLITE_ROW) {
                            // The columns the daemon reads into its records before it writes the answer.
                            playlistElm_s e;
                            e.UUID = static_cast<uint64_t>(sqlite3_column_int64(page, 0));
                            e.PlaylistID = sqlite3_column_int(page, 1);
                            e.OrderNr = sqlite3_column_int(page, 2);
                            e.MediaType = static_cast<mediaType_e>(sqlite3_column_int(page, 3));
                            e.ContentType = static_cast<contentType_e>(sqlite3_column_int(page, 4));
                            if (auto* t = sqlite3_column_text(page, 5)) e.Content = reinterpret_cast<const char*>(t);
                            if (auto* t = sqlite3_column_text(page, 6)) e.UPnPObjID = reinterpret_cast<const char*>(t);
                            out.push_back(std::move(e));
                        }
                        if (rc != SQLITE_DONE) die("page", raw.db());
                        sqlite3_reset(page);
                        double ms = millis(t);
                        if (out.size() != kPageSize) die("raw page: not a full page");
                        return ms;
                    }});
    rows.push_back({"DupPlaylist of 10,000", 0.0,
                    [&](int rep) {
                        std::string dest = "Dup-" + std::to_string(rep);
                        double ms = 0;
                        daemon.request("DupPlaylist",
                                       {{"playlist_src", smallTitle(rep % kSmallLists)},
                                        {"playlist_dest", dest},
                                        {"appType", kApp}},
                                       &ms);
                        if (sizeOf(lookup(dest)) != kSmallSize) die(dest + " did not get " + std::to_string(kSmallSize) + " entries");
                        daemon.delPlaylist(dest);
                        return ms;
                    },
                    nullptr});

    std::printf("\n%-40s %10s %10s %7s %7s  %s\n", "operation", "socket ms", "raw ms", "ratio", "target", "result");
    for (const Row& row : rows) {
        std::vector<double> s, r;
        for (int rep = 0; rep < opt.reps; ++rep) {
            // Alternate which side goes first so that a warm cache favours neither.
            if (!row.raw || rep % 2 == 0) {
                s.push_back(row.socket(rep));
                if (row.raw) r.push_back(row.raw(rep));
            } else {
                r.push_back(row.raw(rep));
                s.push_back(row.socket(rep));
            }
        }
        double sm = median(s);
        if (!row.raw) {
            std::printf("%-40s %10.3f %10s %7s %7s  %s\n", row.name, sm, "-", "-", "-", "-");
            continue;
        }
        double rm = median(r);
        double ratio = rm > 0 ? sm / rm : 0;
        std::printf("%-40s %10.3f %10.3f %7.2f %6.1fx  %s\n", row.name, sm, rm, ratio, row.target,
                    ratio <= row.target ? "PASS" : "FAIL");
    }
    std::fflush(stdout);

    // The edits on both sides must have left the big list whole and densely numbered.
    char check[160];
    std::snprintf(check, sizeof check,
                  "SELECT COUNT(*) = %d AND COUNT(DISTINCT OrderNr) = %d AND MIN(OrderNr) = 0 AND MAX(OrderNr) = %d "
                  "FROM Playlist_TBL WHERE PlaylistID = %d;",
                  kBigSize, kBigSize, kBigSize - 1, big);
    if (raw.value(check) != 1) die(std::string(kBig) + " lost entries or its dense order numbers");
    return 0;
}
