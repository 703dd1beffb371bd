// Playlist store against SQLite used directly: each row times one store operation and the same
// statements on a second connection to the same database file, and prints the median ratio.
//
//   playlist_store_bench [REPETITIONS]      (default 5)
//
// The database lives in a temporary directory, removed on exit: 20 playlists of 10,000 entries
// and one of 100,000.
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "util/Log.h"
#include "RawSqlite.h"
#include "playlist/CSqlitePlaylist.h"

namespace {

namespace fs = std::filesystem;
using bench::Clock;
using bench::die;
using bench::median;
using bench::millis;
using bench::RawSqlite;

constexpr int kSmallLists = 20;
constexpr int kSmallSize = 10'000;
constexpr int kBigSize = 100'000;
constexpr int kBatch = 10'000;
constexpr int kPageStart = 90'000;
constexpr int kPageSize = 100;
constexpr const char* kApp = "bench";

std::string content(int i) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "/share/Multimedia/Music/Artist %03d/Album/%05d - Track.mp3", i % 500, i);
    return buf;
}


void fill(CSqlitePlaylist& store, const std::string& title, int count) {
    if (store.addPlaylist(title.c_str(), MEDIA_AUDIO_E, kApp, "admin", "") != 0) die("addPlaylist");
    int id = store.getPlaylistID(title, kApp);
    store.transBegin();
    for (int i = 0; i < count; ++i)
        store.transAddElmInPlaylist(id, MEDIA_AUDIO_E, CONTENT_FILE_E, content(i).c_str(), i);
    if (store.transEnd() != 0) die("transEnd");
}

}  // namespace

int main(int argc, char** argv) {
    int reps = argc > 1 ? std::atoi(argv[1]) : 5;
    if (reps < 1) reps = 1;
    vlog::setQuiet(true);

    std::string tmpl = (fs::temp_directory_path() / "velmora-plbench-XXXXXX").string();
    if (!::mkdtemp(tmpl.data())) die("mkdtemp");
    const std::string dir = tmpl;
    int status = 0;
    {
        auto setupStart = Clock::now();
        CSqlitePlaylist store(dir + "/playlist.db");
        for (int i = 0; i < kSmallLists; ++i) fill(store, "list" + std::to_string(i), kSmallSize);
        fill(store, "big", kBigSize);
        const int big = store.getPlaylistID("big", kApp);
        std::printf("setup: %d x %d + %d entries in %.0f ms\n", kSmallLists, kSmallSize, kBigSize, millis(setupStart));

        RawSqlite raw(store.getPath(), 5000);
        std::vector<std::string> items;
        for (int i = 0; i < kBatch; ++i) items.push_back(content(i));

        sqlite3_stmt* insert = raw.prepare("INSERT INTO Playlist_TBL VALUES(NULL, ?, ?, ?, ?, ?, ?);");
        sqlite3_stmt* libId = raw.prepare("SELECT PlaylistID from PlaylistLib_TBL WHERE PlaylistTitle=? AND AppType=?;");
        sqlite3_stmt* count = raw.prepare("SELECT COUNT(*) FROM Playlist_TBL WHERE PlaylistID=? ORDER BY OrderNr;");
        sqlite3_stmt* maxOrder =
            raw.prepare("select orderNr from playlist_tbl where playlistid=? order by orderNr desc limit 0,1");
        sqlite3_stmt* shiftUp = raw.prepare("update playlist_tbl set orderNr=orderNr+1 where playlistid=? and orderNr>=?");
        sqlite3_stmt* uuidAt = raw.prepare("select uuid from playlist_tbl where playlistid=? and orderNr=?");
        sqlite3_stmt* moveDown = raw.prepare(
            "update playlist_tbl set orderNr=orderNr-1 where playlistid=? and orderNr>? and orderNr<=?");
        sqlite3_stmt* setOrder = raw.prepare("update playlist_tbl set orderNr=? where playlistid=? and uuid=?");
        sqlite3_stmt* page = raw.prepare("SELECT * FROM Playlist_TBL WHERE PlaylistID=? ORDER BY OrderNr limit ?,? ;");

        auto insertRow = [&](int id, int order, const std::string& text, const char* objId) {
            sqlite3_bind_int(insert, 1, id);
            sqlite3_bind_int(insert, 2, order);
            sqlite3_bind_int(insert, 3, MEDIA_AUDIO_E);
            sqlite3_bind_int(insert, 4, CONTENT_FILE_E);
            sqlite3_bind_text(insert, 5, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
            sqlite3_bind_text(insert, 6, objId, -1, SQLITE_STATIC);
            raw.run(insert);
        };
        auto newList = [&](const std::string& title) {
            if (store.addPlaylist(title.c_str(), MEDIA_AUDIO_E, kApp, "", "") != 0) die("addPlaylist");
            return store.getPlaylistID(title, kApp);
        };

        struct Timed {
            const char* name;
            double target;
            std::function<double(int)> store;
            std::function<double(int)> raw;
        };
        std::vector<Timed> timed;
        timed.push_back({"batch insert 10,000", 3.0,
                         [&](int rep) {
                             int id = newList("batch-store-" + std::to_string(rep));
                             auto t = Clock::now();
                             store.transBegin();
                             for (int i = 0; i < kBatch; ++i)
                                 store.transAddElmInPlaylist(id, MEDIA_AUDIO_E, CONTENT_FILE_E, items[i].c_str(), i);
                             if (store.transEnd() != 0) die("transEnd");
                             return millis(t);
                         },
                         [&](int rep) {
                             int id = newList("batch-raw-" + std::to_string(rep));
                             auto t = Clock::now();
                             raw.exec("BEGIN");
                             for (int i = 0; i < kBatch; ++i) insertRow(id, i, items[i], "N/A");
                             raw.exec("COMMIT");
                             return millis(t);
                         }});
        timed.push_back({"insert in the middle of 100,000", 2.0,
                         [&](int rep) {
                             std::string text = "mid-store-" + std::to_string(rep);
                             int size = store.getSizeOfPlaylist(big);
                             auto t = Clock::now();
                             if (store.addElmInPlaylist("big", MEDIA_AUDIO_E, CONTENT_FILE_E, kApp, text.c_str(),
                                                        size / 2) != 0)
                                 die("addElmInPlaylist");
                             return millis(t);
                         },
                         [&](int rep) {
                             std::string text = "mid-raw-" + std::to_string(rep);
                             auto t = Clock::now();
                             raw.exec("BEGIN");
                             sqlite3_bind_text(libId, 1, "big", -1, SQLITE_STATIC);
                             sqlite3_bind_text(libId, 2, kApp, -1, SQLITE_STATIC);
                             int id = static_cast<int>(raw.run(libId));
                             sqlite3_bind_int(count, 1, id);
                             int size = static_cast<int>(raw.run(count));
                             sqlite3_bind_int(maxOrder, 1, id);
                             raw.run(maxOrder);
                             sqlite3_bind_int(shiftUp, 1, id);
                             sqlite3_bind_int(shiftUp, 2, size / 2);
                             raw.run(shiftUp);
                             insertRow(id, size / 2, text, "N/A");
                             raw.exec("COMMIT");
                             return millis(t);
                         }});
        timed.push_back({"move first to last of 100,000", 2.0,
                         [&](int) {
                             int last = store.getSizeOfPlaylist(big) - 1;
                             auto t = Clock::now();
                             if (store.reorderPlaylistElm(big, 0, last) != 0) die("reorderPlaylistElm");
                             return millis(t);
                         },
                         [&](int) {
                             int last = store.getSizeOfPlaylist(big) - 1;
                             auto t = Clock::now();
                             raw.exec("BEGIN");
                             sqlite3_bind_int(uuidAt, 1, big);
                             sqlite3_bind_int(uuidAt, 2, 0);
                             sqlite3_int64 uuid = raw.run(uuidAt);
                             sqlite3_bind_int(moveDown, 1, big);
                             sqlite3_bind_int(moveDown, 2, 0);
                             sqlite3_bind_int(moveDown, 3, last);
                             raw.run(moveDown);
                             sqlite3_bind_int(setOrder, 1, last);
                             sqlite3_bind_int(setOrder, 2, big);
                             sqlite3_bind_int64(setOrder, 3, uuid);
                             raw.run(setOrder);
                             raw.exec("COMMIT");
                             return millis(t);
                         }});
        timed.push_back({"page of 100 at 90,000", 2.0,
                         [&](int) {
                             std::vector<playlistElm_s> out;
                             auto t = Clock::now();
                             if (store.getPlaylistElmsByPage(out, big, kPageStart, kPageSize) != 0 ||
                                 out.size() != kPageSize)
                                 die("getPlaylistElmsByPage");
                             return millis(t);
                         },
                         [&](int) {
                             std::vector<playlistElm_s> out;
                             auto t = Clock::now();
                             sqlite3_bind_int(count, 1, big);
                             raw.run(count);
                             sqlite3_bind_int(page, 1, big);
                             sqlite3_bind_int(page, 2, kPageStart);
                             sqlite3_bind_int(page, 3, kPageSize);
                             while (sqlite3_step(page) == SQLITE_ROW) {
                                 playlistElm_s e;
                                 e.UUID = static_cast<uint64_t>(sqlite3_column_int64(page, 0));
                                 e.PlaylistID = sqlite3_column_int(page, 1);
                                 e.OrderNr = sqlite3_column_int(page, 2);
                                 e.MediaType = static_cast<mediaType_e>(sqlite3_column_int(page, 3));
                                 e.ContentType = static_cast<contentType_e>(sqlite3_column_int(page, 4));
                                 e.Content = reinterpret_cast<const char*>(sqlite3_column_text(page, 5));
                                 e.UPnPObjID = reinterpret_cast<const char*>(sqlite3_column_text(page, 6));
                                 out.push_back(std::move(e));
                             }
                             sqlite3_reset(page);
                             if (out.size() != kPageSize) die("raw page");
                             return millis(t);
                         }});

        std::printf("\n%-34s %10s %10s %7s %7s  %s\n", "operation", "store ms", "raw ms", "ratio", "target", "result");
        for (const Timed& row : timed) {
            std::vector<double> s, r;
            for (int rep = 0; rep < reps; ++rep) {
                // Alternate which side goes first so that a warm cache favours neither.
                if (rep % 2 == 0) {
                    s.push_back(row.store(rep));
                    r.push_back(row.raw(rep));
                } else {
                    r.push_back(row.raw(rep));
                    s.push_back(row.store(rep));
                }
            }
            double sm = median(s), rm = median(r);
            double ratio = rm > 0 ? sm / rm : 0;
            bool pass = ratio <= row.target;
            if (!pass) status = 2;
            std::printf("%-34s %10.3f %10.3f %7.2f %6.1fx  %s\n", row.name, sm, rm, ratio, row.target,
                        pass ? "PASS" : "FAIL");
        }

        // The edits above must have kept the big list dense.
        playlistElm_t last;
        int size = store.getSizeOfPlaylist(big);
        if (store.getPlaylistElmByIndex(last, big, size - 1) != 0 || last.OrderNr != size - 1) {
            std::printf("big playlist lost its dense order numbers\n");
            status = 3;
        }
    }
    std::error_code ec;
    fs::remove_all(dir, ec);
    return status;
}
