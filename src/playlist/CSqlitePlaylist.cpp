#include "playlist/CSqlitePlaylist.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "util/AppRoot.h"
#include "util/Log.h"
#include "util/PathUtil.h"
#include "thread/CThread.h"
#include "thread/ThreadLock.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kDbDir = ".modl/.@Ostrafel/";
constexpr const char* kDbName = "playlist.db";
constexpr int kBusyTimeoutMs = 5000;
constexpr int kFail = -12;
constexpr size_t kObjIdMax = 255;  // the column held a 256-byte C string in earlier releases

// Indexed by CSqlitePlaylist::StmtId. Every value is a bound parameter.
constexpr const char* kSql[] = {
    "SELECT COUNT(*) FROM PlaylistLib_TBL WHERE PlaylistTitle=? AND AppType=?;",
    "INSERT INTO PlaylistLib_TBL VALUES(NULL, ?, ?, ?, ?, ?);",
    "SELECT PlaylistID from PlaylistLib_TBL WHERE PlaylistTitle=? AND AppType=?;",
    "SELECT PlaylistTitle FROM PlaylistLib_TBL WHERE PlaylistID=? AND AppType=?;",
    "SELECT * from PlaylistLib_TBL WHERE PlaylistID=?;",
    "SELECT COUNT(*) FROM PlaylistLib_TBL;",
    "SELECT COUNT(*) FROM PlaylistLib_TBL WHERE AppType=?;",
    // Listed in creation order, as before the (AppType, PlaylistTitle) index existed.
    "SELECT * from PlaylistLib_TBL WHERE AppType=? ORDER BY PlaylistID limit ?, ?;",
    "SELECT * from PlaylistLib_TBL ORDER BY PlaylistID limit ?, ?;",
    "DELETE FROM PlaylistLib_TBL WHERE PlaylistTitle=? AND AppType=?;",
    "SELECT COUNT(*) FROM Playlist_TBL WHERE PlaylistID=? ORDER BY OrderNr;",
    "SELECT * FROM Playlist_TBL WHERE PlaylistID=? ORDER BY OrderNr limit ?,? ;",
    "select * from playlist_tbl where playlistid=? and ordernr=?",
    "update playlist_tbl set orderNr=orderNr+? where playlistid=? and orderNr>=?",
    "select orderNr from playlist_tbl where playlistid=? order by orderNr desc limit 0,1",
    "update playlist_tbl set orderNr=orderNr+1 where playlistid=? and orderNr>=?",
    "INSERT INTO Playlist_TBL VALUES(NULL, ?, ?, ?, ?, ?, ?);",
    "select orderNr from playlist_tbl where playlistid=? and uuid=?",
    "DELETE FROM Playlist_TBL WHERE PlaylistID=? and UUID=?;",
    "update playlist_tbl set orderNr=orderNr-1 where playlistid=? and orderNr>?",
    "DELETE FROM Playlist_TBL WHERE PlayListID=?;",
    "select uuid from playlist_tbl where playlistid=? and orderNr=?",
    "update playlist_tbl set orderNr=orderNr-1 where playlistid=? and orderNr>? and orderNr<=?",
    "update playlist_tbl set orderNr=orderNr+1 where playlistid=? and orderNr>=? and orderNr<? ",
    "update playlist_tbl set orderNr=? where playlistid=? and uuid=?",
    "BEGIN",
    "COMMIT",
    "ROLLBACK",
    "SAVEPOINT playlist_edit",
    "RELEASE playlist_edit",
    "ROLLBACK TO playlist_edit",
};

const char* orEmpty(const char* text) { return text ? text : ""; }

bool isAll(std::string_view appType) { return appType == "ALL"; }

bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

void assignText(sqlite3_stmt* stmt, int col, std::string& out) {
    const unsigned char* text = sqlite3_column_text(stmt, col);
    if (text) out.assign(reinterpret_cast<const char*>(text), static_cast<size_t>(sqlite3_column_bytes(stmt, col)));
}

// Enumerations read back from the file are clamped: a stray number must not become an
// enumerator that does not exist.
mediaType_e toMediaType(sqlite3_stmt* stmt, int col) {
    if (sqlite3_column_type(stmt, col) == SQLITE_NULL) return MEDIA_UNKNOW_E;
    int v = sqlite3_column_int(stmt, col);
    return v >= MEDIA_AUDIO_E && v <= MEDIA_UNKNOW_E ? static_cast<mediaType_e>(v) : MEDIA_UNKNOW_E;
}

contentType_e toContentType(sqlite3_stmt* stmt, int col) {
    if (sqlite3_column_type(stmt, col) == SQLITE_NULL) return CONTENT_UNKNOW_E;
    int v = sqlite3_column_int(stmt, col);
    return v >= CONTENT_FILE_E && v <= CONTENT_UNKNOW_E ? static_cast<contentType_e>(v) : CONTENT_UNKNOW_E;
}

int intOr(sqlite3_stmt* stmt, int col, int ifNull) {
    return sqlite3_column_type(stmt, col) == SQLITE_NULL ? ifNull : sqlite3_column_int(stmt, col);
}

// Columns are matched by name so that "SELECT *" keeps working whatever the column order.
void readElm(sqlite3_stmt* stmt, playlistElm_t& elm) {
    int n = sqlite3_column_count(stmt);
    for (int i = 0; i < n; ++i) {
        const char* name = sqlite3_column_name(stmt, i);
        if (!name) continue;
        if (std::strcmp(name, "PlaylistID") == 0) elm.PlaylistID = intOr(stmt, i, -1);
        else if (std::strcmp(name, "MediaType") == 0) elm.MediaType = toMediaType(stmt, i);
        else if (std::strcmp(name, "ContentType") == 0) elm.ContentType = toContentType(stmt, i);
        else if (std::strcmp(name, "Content") == 0) assignText(stmt, i, elm.Content);
        else if (std::strcmp(name, "UUID") == 0) elm.UUID = static_cast<uint64_t>(sqlite3_column_int64(stmt, i));
        else if (std::strcmp(name, "OrderNr") == 0) elm.OrderNr = sqlite3_column_int(stmt, i);
        else if (std::strcmp(name, "UPnPObjID") == 0) assignText(stmt, i, elm.UPnPObjID);
    }
}

// The single-row reads leave AppType as the caller had it; only the pages fill it.
void readLibElm(sqlite3_stmt* stmt, playlistLibElm_t& elm, bool withAppType) {
    int n = sqlite3_column_count(stmt);
    for (int i = 0; i < n; ++i) {
        const char* name = sqlite3_column_name(stmt, i);
        if (!name) continue;
        if (std::strcmp(name, "PlaylistID") == 0) elm.PlaylistID = intOr(stmt, i, -1);
        else if (std::strcmp(name, "PlaylistTitle") == 0) assignText(stmt, i, elm.PlaylistTitle);
        else if (std::strcmp(name, "PlaylistType") == 0) elm.PlaylistType = intOr(stmt, i, -1);
        else if (withAppType && std::strcmp(name, "AppType") == 0) assignText(stmt, i, elm.AppType);
        else if (std::strcmp(name, "Owner") == 0) assignText(stmt, i, elm.Owner);
        else if (std::strcmp(name, "Tag") == 0) assignText(stmt, i, elm.Tag);
    }
}

// At most kObjIdMax bytes, never ending inside a UTF-8 sequence (the id goes out in XML).
std::string_view clipObjId(std::string_view content) {
    if (content.size() <= kObjIdMax) return content;
    size_t cut = kObjIdMax;
    while (cut > 0 && (static_cast<unsigned char>(content[cut]) & 0xC0) == 0x80) --cut;
    return content.substr(0, cut);
}

}  // namespace

// Binds values in order; leaving the scope resets the statement, which ends its read
// transaction and drops the pointers to the caller's strings (bound without copying).
class CSqlitePlaylist::Query {
public:
    template <class... Args>
    explicit Query(sqlite3_stmt* stmt, const Args&... args) : m_stmt(stmt) {
        (bind(args), ...);
    }
    ~Query() {
        if (m_stmt) {
            sqlite3_reset(m_stmt);
            sqlite3_clear_bindings(m_stmt);
        }
    }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    Query& bind(int v) { return note(m_stmt ? sqlite3_bind_int(m_stmt, ++m_next, v) : SQLITE_MISUSE); }
    Query& bind(sqlite3_int64 v) { return note(m_stmt ? sqlite3_bind_int64(m_stmt, ++m_next, v) : SQLITE_MISUSE); }
    Query& bind(std::string_view v) {
        return note(m_stmt ? sqlite3_bind_text(m_stmt, ++m_next, v.data(), static_cast<int>(v.size()), SQLITE_STATIC)
                           : SQLITE_MISUSE);
    }
    Query& bind(const std::string& v) { return bind(std::string_view(v)); }
    Query& bind(const char* v) { return bind(std::string_view(orEmpty(v))); }

    // SQLITE_ROW, SQLITE_DONE or an error code.
    int step() {
        if (!m_stmt) return SQLITE_MISUSE;
        if (m_bindRc != SQLITE_OK) return m_bindRc;
        return sqlite3_step(m_stmt);
    }
    sqlite3_stmt* get() const { return m_stmt; }

private:
    Query& note(int rc) {
        if (rc != SQLITE_OK && m_bindRc == SQLITE_OK) m_bindRc = rc;
        return *this;
    }

    sqlite3_stmt* m_stmt;
    int m_next = 0;
    int m_bindRc = SQLITE_OK;
};

// Opens a savepoint (a transaction when none is open); unless released, leaving the scope
// rolls every change back, so an edit that fails half-way leaves no gap or duplicate OrderNr.
class CSqlitePlaylist::Savepoint {
public:
    explicit Savepoint(CSqlitePlaylist& store) : m_store(store) {}
    ~Savepoint() {
        if (!m_open) return;
        Query rollback(m_store.m_stmts[kRollbackTo]);
        m_store.runLocked(rollback);
        Query release(m_store.m_stmts[kRelease]);
        m_store.runLocked(release);
    }
    Savepoint(const Savepoint&) = delete;
    Savepoint& operator=(const Savepoint&) = delete;

    int begin() {
        Query q(m_store.m_stmts[kSavepoint]);
        int rc = m_store.runLocked(q);
        m_open = rc == SQLITE_OK;
        return rc;
    }
    int release() {
        Query q(m_store.m_stmts[kRelease]);
        int rc = m_store.runLocked(q);
        if (rc == SQLITE_OK) m_open = false;
        return rc;
    }

private:
    CSqlitePlaylist& m_store;
    bool m_open = false;
};

CSqlitePlaylist::CSqlitePlaylist() {
    CThread::mutexInit(m_lock, MUTEX_NORMAL_E);
    std::string share = approot::path("/share/Public");
    std::string real;
    std::string dir;
    if (get_real_path(share.c_str(), real) == 0) {
        // ".../Public" becomes the volume directory above the share, slash included.
        size_t at = real.find("Public");
        if (at != std::string::npos) real.erase(at);
        dir = real + kDbDir;
    } else {
        LOG_ERR("cannot resolve %s", share.c_str());
        dir = approot::path("/share/") + kDbDir;
    }
    m_path = dir + kDbName;
    open_();
}

CSqlitePlaylist::CSqlitePlaylist(const std::string& dbPath) : m_path(dbPath) {
    CThread::mutexInit(m_lock, MUTEX_NORMAL_E);
    open_();
}

CSqlitePlaylist::~CSqlitePlaylist() {
    disconnect_();
    pthread_mutex_destroy(&m_lock);
}

// ---------------------------------------------------------------------------------------------
// Opening

void CSqlitePlaylist::open_() {
    fs::path dir = fs::path(m_path).parent_path();
    if (!dir.empty()) {
        std::error_code ec;
        fs::create_directories(dir, ec);
        if (ec) LOG_ERR("cannot create %s: %s", dir.c_str(), ec.message().c_str());
    }

    if (exists(m_path)) {
        std::string version = connect_() ? readVersion_() : std::string();
        if (version == kSchemaVersion) {
            configure_();
            return;
        }
        disconnect_();
        LOG_WARN("%s has schema version \"%s\", not %s: starting a new one", m_path.c_str(), version.c_str(),
                 kSchemaVersion);
        moveAside_(true);
    } else {
        // A -wal left without its database would be replayed into the new one.
        moveAside_(false);
    }
    if (!connect_()) return;
    createSchema_();
    configure_();
}

bool CSqlitePlaylist::connect_() {
    int rc = sqlite3_open_v2(m_path.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                             nullptr);
    if (rc != SQLITE_OK) {
        LOG_ERR("%s: %s", m_path.c_str(), m_db ? sqlite3_errmsg(m_db) : sqlite3_errstr(rc));
        sqlite3_close(m_db);
        m_db = nullptr;
        return false;
    }
    sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
    return true;
}

void CSqlitePlaylist::disconnect_() {
    finalizeStatements_();
    if (m_db && sqlite3_close(m_db) != SQLITE_OK) LOG_ERR("%s", sqlite3_errmsg(m_db));
    m_db = nullptr;
}

void CSqlitePlaylist::finalizeStatements_() {
    for (sqlite3_stmt*& stmt : m_stmts) {
        sqlite3_finalize(stmt);
        stmt = nullptr;
    }
}

// The last non-NULL value of Version_TBL; empty when the table, the row or the database
// itself is missing.
std::string CSqlitePlaylist::readVersion_() {
    std::string version;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(m_db, "SELECT * from Version_TBL", -1, &stmt, nullptr) != SQLITE_OK) {
        LOG_NOTE("%s: %s", m_path.c_str(), sqlite3_errmsg(m_db));
        sqlite3_finalize(stmt);
        return version;
    }
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW)
        if (sqlite3_column_count(stmt) > 0) assignText(stmt, 0, version);
    if (rc != SQLITE_DONE) LOG_NOTE("%s: %s", m_path.c_str(), sqlite3_errmsg(m_db));
    sqlite3_finalize(stmt);
    return version;
}

// Renames the database (withMain) and its -wal/-shm companions to playlist.db.<epoch>.bak
// (-wal, -shm): nothing of a user's playlists is ever deleted, and SQLite still opens the copy
// together with its log.
void CSqlitePlaylist::moveAside_(bool withMain) {
    static constexpr const char* kCompanions[] = {"-wal", "-shm"};
    bool any = withMain;
    for (const char* suffix : kCompanions) any = any || exists(m_path + suffix);
    if (!any) return;

    std::string stamp = std::to_string(static_cast<long long>(std::time(nullptr)));
    std::string bak = m_path + "." + stamp + ".bak";
    for (int n = 1; exists(bak) || exists(bak + "-wal") || exists(bak + "-shm"); ++n)
        bak = m_path + "." + stamp + "." + std::to_string(n) + ".bak";

    auto move = [](const std::string& from, const std::string& to) {
        if (std::rename(from.c_str(), to.c_str()) == 0) {
            LOG_WARN("%s moved aside to %s", from.c_str(), to.c_str());
        } else {
            LOG_ERR("rename %s failed: %s", from.c_str(), std::strerror(errno));
        }
    };
    if (withMain) move(m_path, bak);
    for (const char* suffix : kCompanions)
        if (exists(m_path + suffix)) move(m_path + suffix, bak + suffix);
}

int CSqlitePlaylist::createTableLocked(const char* sql) {
    char* err = nullptr;
    int rc = sqlite3_exec(m_db, sql, nullptr, nullptr, &err);
    if (rc != SQLITE_OK) LOG_ERR("%s", err ? err : sqlite3_errmsg(m_db));
    sqlite3_free(err);
    return rc;
}

void CSqlitePlaylist::createSchema_() {
    // WAL first, so that the new file starts in the mode it keeps.
    createTableLocked("PRAGMA journal_mode=WAL;");
    // In one transaction: a crash cannot leave tables without their version row (which would
    // set the file aside at the next start).
    createTableLocked("BEGIN;");
    createTableLocked("CREATE TABLE Version_TBL (Version);");
    createTableLocked("CREATE TABLE PlaylistLib_TBL (PlaylistID integer PRIMARY KEY,PlaylistType integer, AppType , "
                 "PlaylistTitle, Owner, Tag);");
    createTableLocked("CREATE TABLE Playlist_TBL (UUID integer PRIMARY KEY, PlaylistID, OrderNr, MediaType, "
                 "ContentType, Content, UPnPObjID);");
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(m_db, "INSERT INTO Version_TBL VALUES(?);", -1, &stmt, nullptr) == SQLITE_OK) {
        sqlite3_bind_text(stmt, 1, kSchemaVersion, -1, SQLITE_STATIC);
        if (sqlite3_step(stmt) != SQLITE_DONE) logSqlError_();
    } else {
        logSqlError_();
    }
    sqlite3_finalize(stmt);
    createTableLocked("COMMIT;");
}

void CSqlitePlaylist::configure_() {
    // A file that is not a database fails here too; it then answers every operation with its
    // error code instead of ending the daemon.
    char* err = nullptr;
    auto exec = [&](const char* sql) {
        if (sqlite3_exec(m_db, sql, nullptr, nullptr, &err) != SQLITE_OK) LOG_ERR("%s", err ? err : "?");
        sqlite3_free(err);
        err = nullptr;
    };
    exec("PRAGMA journal_mode=WAL;");
    exec("PRAGMA synchronous=NORMAL;");
    exec("CREATE INDEX IF NOT EXISTS Playlist_Order_IDX ON Playlist_TBL(PlaylistID, OrderNr);");
    exec("CREATE INDEX IF NOT EXISTS PlaylistLib_Title_IDX ON PlaylistLib_TBL(AppType, PlaylistTitle);");

    static_assert(sizeof(kSql) / sizeof(kSql[0]) == kStmtCount, "one SQL text per statement id");
    for (int i = 0; i < kStmtCount; ++i) {
        if (sqlite3_prepare_v3(m_db, kSql[i], -1, SQLITE_PREPARE_PERSISTENT, &m_stmts[i], nullptr) != SQLITE_OK) {
            LOG_ERR("%s: %s", kSql[i], sqlite3_errmsg(m_db));
            m_stmts[i] = nullptr;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Statement helpers (the caller holds the lock)

void CSqlitePlaylist::logSqlError_(const std::source_location& where) const {
    vlog::write(vlog::kError, where.file_name(), static_cast<int>(where.line()), where.function_name(), "%s",
                m_db ? sqlite3_errmsg(m_db) : "playlist database not open");
}

int CSqlitePlaylist::runLocked(Query& query, const std::source_location& where) {
    int rc = query.step();
    while (rc == SQLITE_ROW) rc = query.step();
    if (rc == SQLITE_DONE) return SQLITE_OK;
    logSqlError_(where);
    return rc;
}

int CSqlitePlaylist::selectIntLocked(Query& query, sqlite3_int64& value, bool& found, const std::source_location& where) {
    found = false;
    int rc;
    while ((rc = query.step()) == SQLITE_ROW) {
        value = sqlite3_column_int64(query.get(), 0);
        found = true;
    }
    if (rc == SQLITE_DONE) return SQLITE_OK;
    logSqlError_(where);
    found = false;
    return rc;
}

int CSqlitePlaylist::selectIntLocked(Query& query, const std::source_location& where) {
    sqlite3_int64 value = -1;
    bool found = false;
    selectIntLocked(query, value, found, where);
    return found ? static_cast<int>(value) : -1;
}

int CSqlitePlaylist::lookupPlaylistIDLocked(std::string_view title, std::string_view appType, int& id) {
    id = 0;
    Query q(m_stmts[kLibId], title, appType);
    sqlite3_int64 value = 0;
    bool found = false;
    int rc = selectIntLocked(q, value, found);
    if (found) id = static_cast<int>(value);
    return rc;
}

bool CSqlitePlaylist::findEditablePlaylistLocked(const char* title, const char* appType, int& id) {
    if (lookupPlaylistIDLocked(orEmpty(title), orEmpty(appType), id) != SQLITE_OK) return false;
    if (id != 0) return true;
    LOG_NOTE("%s not found", orEmpty(title));
    return false;
}

int CSqlitePlaylist::getSizeOfPlaylistLibLocked(std::string_view appType) {
    if (isAll(appType)) {
        Query q(m_stmts[kLibCountAll]);
        return selectIntLocked(q);
    }
    Query q(m_stmts[kLibCountApp], appType);
    return selectIntLocked(q);
}

int CSqlitePlaylist::getSizeOfPlaylistLocked(int playlistID) {
    Query q(m_stmts[kElmCount], playlistID);
    return selectIntLocked(q);
}

int CSqlitePlaylist::getPlaylistElmByIndexLocked(playlistElm_t& elm, int playlistID, int index) {
    elm.PlaylistID = 0;
    if (getSizeOfPlaylistLocked(playlistID) <= index) return kFail;
    Query q(m_stmts[kElmPage], playlistID, index, 1);
    int rc;
    while ((rc = q.step()) == SQLITE_ROW) readElm(q.get(), elm);
    if (rc != SQLITE_DONE) {
        logSqlError_();
        return kFail;
    }
    return 0;
}

int CSqlitePlaylist::delAllElmInPlaylistLocked(std::string_view title, std::string_view appType) {
    int id = 0;
    if (lookupPlaylistIDLocked(title, appType, id) != SQLITE_OK) return kFail;
    if (id == 0) {
        LOG_NOTE("%.*s not found", static_cast<int>(title.size()), title.data());
        return 0;
    }
    Query q(m_stmts[kElmDeleteAll], id);
    return runLocked(q) == SQLITE_OK ? 0 : kFail;
}

int CSqlitePlaylist::insertElmLocked(int playlistID, int orderNr, mediaType_e mediaType, contentType_e contentType,
                                std::string_view content, std::string_view objId) {
    Query q(m_stmts[kElmInsert], playlistID, orderNr, static_cast<int>(mediaType), static_cast<int>(contentType),
            content, objId);
    return runLocked(q) == SQLITE_OK ? 0 : kFail;
}

// ---------------------------------------------------------------------------------------------
// The library

int CSqlitePlaylist::addPlaylist(const char* title, mediaType_e type, const char* appType, const char* owner,
                                 const char* tag) {
    ThreadSingleLock guard(m_lock);
    return addPlaylistLocked(title, type, appType, owner, tag);
}

int CSqlitePlaylist::addPlaylistLocked(const char* title, mediaType_e type, const char* appType, const char* owner,
                                       const char* tag) {
    sqlite3_int64 count = 0;
    bool found = false;
    {
        Query q(m_stmts[kLibCountTitle], title, appType);
        if (selectIntLocked(q, count, found) != SQLITE_OK) return kFail;
    }
    if (count != 0) return 1;
    Query ins(m_stmts[kLibInsert], static_cast<int>(type), appType, title, owner, tag);
    runLocked(ins);  // logged; the caller is told "created" as before
    return 0;
}

int CSqlitePlaylist::delPlaylist(const std::string& title, const std::string& appType) {
    ThreadSingleLock guard(m_lock);
    Savepoint sp(*this);
    if (sp.begin() != SQLITE_OK) return kFail;
    if (delAllElmInPlaylistLocked(title, appType) != 0) {
        LOG_ERR("delAllContentInPlaylist()...fail");
        return kFail;
    }
    Query q(m_stmts[kLibDelete], title, appType);
    if (runLocked(q) != SQLITE_OK) return kFail;
    return sp.release() == SQLITE_OK ? 0 : kFail;
}

int CSqlitePlaylist::getSizeOfPlaylistLib(const char* appType) {
    ThreadSingleLock guard(m_lock);
    return getSizeOfPlaylistLibLocked(orEmpty(appType));
}

int CSqlitePlaylist::getPlaylistID(const std::string& title, const std::string& appType) {
    ThreadSingleLock guard(m_lock);
    int id = 0;
    if (lookupPlaylistIDLocked(title, appType, id) != SQLITE_OK) return kFail;
    return id < 1 ? -1 : id;
}

int CSqlitePlaylist::getPlaylistTitle(int playlistID, std::string& title, const char* appType) {
    ThreadSingleLock guard(m_lock);
    Query q(m_stmts[kLibTitle], playlistID, appType);
    int rc;
    while ((rc = q.step()) == SQLITE_ROW) assignText(q.get(), 0, title);
    if (rc != SQLITE_DONE) {
        logSqlError_();
        return kFail;
    }
    return playlistID;
}

int CSqlitePlaylist::getPlaylistLibElmByIndex(playlistLibElm_t& elm, const char* appType, int index) {
    ThreadSingleLock guard(m_lock);
    std::string_view app = orEmpty(appType);
    elm.PlaylistID = 0;
    // Counted by the "ALL" rule but selected by AppType: "ALL" finds only an app type of that name.
    if (getSizeOfPlaylistLibLocked(app) <= index) return kFail;
    Query q(m_stmts[kLibPageApp], app, index, 1);
    int rc;
    while ((rc = q.step()) == SQLITE_ROW) readLibElm(q.get(), elm, false);
    if (rc != SQLITE_DONE) {
        logSqlError_();
        return kFail;
    }
    return 0;
}

int CSqlitePlaylist::getPlaylistLibElmByID(int playlistID, playlistLibElm_t& elm) {
    ThreadSingleLock guard(m_lock);
    Query q(m_stmts[kLibById], playlistID);
    int rc;
    while ((rc = q.step()) == SQLITE_ROW) readLibElm(q.get(), elm, false);
    if (rc != SQLITE_DONE) {
        logSqlError_();
        return kFail;
    }
    return 0;
}

int CSqlitePlaylist::getPlaylistLibElmsByPage(std::vector<playlistLibElm_s>& page, const char* appType, int start,
                                              int count) {
    ThreadSingleLock guard(m_lock);
    std::string_view app = orEmpty(appType);
    if (start == 0 && count == 0) count = -1;  // all rows
    if (getSizeOfPlaylistLibLocked(app) <= start) return 0;
    bool all = isAll(app);
    Query q(m_stmts[all ? kLibPageAll : kLibPageApp]);
    if (!all) q.bind(app);
    q.bind(start).bind(count);
    int rc;
    while ((rc = q.step()) == SQLITE_ROW) {
        playlistLibElm_s elm;
        elm.PlaylistID = 0;
        readLibElm(q.get(), elm, true);
        page.push_back(std::move(elm));
    }
    if (rc != SQLITE_DONE) logSqlError_();
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Entries

int CSqlitePlaylist::getSizeOfPlaylist(int playlistID) {
    ThreadSingleLock guard(m_lock);
    return getSizeOfPlaylistLocked(playlistID);
}

int CSqlitePlaylist::getPlaylistElmByIndex(playlistElm_t& elm, int playlistID, int index) {
    ThreadSingleLock guard(m_lock);
    return getPlaylistElmByIndexLocked(elm, playlistID, index);
}

int CSqlitePlaylist::getPlaylistElmByOrder(playlistElm_t& elm, int playlistID, int orderNr) {
    ThreadSingleLock guard(m_lock);
    elm.PlaylistID = 0;
    Query q(m_stmts[kElmByOrder], playlistID, orderNr);
    int rc;
    while ((rc = q.step()) == SQLITE_ROW) readElm(q.get(), elm);
    if (rc != SQLITE_DONE) {
        logSqlError_();
        return kFail;
    }
    return elm.PlaylistID != 0 ? 0 : -1;
}

int CSqlitePlaylist::getPlaylistElmsByPage(std::vector<playlistElm_s>& page, int playlistID, int start, int count) {
    ThreadSingleLock guard(m_lock);
    if (start == 0 && count == 0) count = -1;  // all rows
    int total = getSizeOfPlaylistLocked(playlistID);
    if (total == 0) return 0;
    if (total <= start) return kFail;
    if (count > 0) page.reserve(page.size() + static_cast<size_t>(std::min(count, total - std::max(start, 0))));
    Query q(m_stmts[kElmPage], playlistID, start, count);
    int rc;
    while ((rc = q.step()) == SQLITE_ROW) {
        playlistElm_s elm;
        elm.PlaylistID = 0;
        readElm(q.get(), elm);
        page.push_back(std::move(elm));
    }
    if (rc != SQLITE_DONE) {
        logSqlError_();
        return kFail;
    }
    return 0;
}

int CSqlitePlaylist::addElmInPlaylist(const char* title, mediaType_e mediaType, contentType_e contentType,
                                      const char* appType, const char* content, int orderNr) {
    ThreadSingleLock guard(m_lock);
    Savepoint sp(*this);
    if (sp.begin() != SQLITE_OK) return kFail;
    int id = 0;
    if (!findEditablePlaylistLocked(title, appType, id)) return kFail;

    int size = getSizeOfPlaylistLocked(id);
    if (size < 0) return kFail;
    int order = 0;  // the first entry starts the list, whatever was asked
    if (size != 0) {
        Query maxQ(m_stmts[kElmMaxOrder], id);
        int max = selectIntLocked(maxQ);
        order = max + 1;
        // -1 and anything past the end append; other negatives are taken as they are.
        if (orderNr != -1 && orderNr <= max + 1) {
            order = orderNr;
            Query shift(m_stmts[kElmShiftUpFrom], id, orderNr);
            if (runLocked(shift) != SQLITE_OK) return kFail;
        }
    }

    std::string_view text = orEmpty(content);
    std::string_view objId = contentType == CONTENT_OBJECT_E ? clipObjId(text) : std::string_view();
    if (objId.empty()) objId = "N/A";
    if (insertElmLocked(id, order, mediaType, contentType, text, objId) != 0) return kFail;
    return sp.release() == SQLITE_OK ? 0 : kFail;
}

int CSqlitePlaylist::delElmInPlaylist(const char* title, const char* appType, uint64_t uuid) {
    ThreadSingleLock guard(m_lock);
    Savepoint sp(*this);
    if (sp.begin() != SQLITE_OK) return kFail;
    int id = 0;
    if (!findEditablePlaylistLocked(title, appType, id)) return kFail;

    auto uuidValue = static_cast<sqlite3_int64>(uuid);
    sqlite3_int64 order = 0;
    bool found = false;
    {
        Query q(m_stmts[kElmOrderOfUuid], id, uuidValue);
        if (selectIntLocked(q, order, found) != SQLITE_OK) return kFail;
    }
    {
        Query del(m_stmts[kElmDelete], id, uuidValue);
        if (runLocked(del) != SQLITE_OK) return kFail;
    }
    // Only an entry that was there leaves a gap to close; an unknown uuid changes nothing.
    if (found) {
        Query shift(m_stmts[kElmShiftDownAfter], id, static_cast<int>(order));
        if (runLocked(shift) != SQLITE_OK) return kFail;
    }
    return sp.release() == SQLITE_OK ? 0 : kFail;
}

int CSqlitePlaylist::delAllElmInPlaylist(const char* title, const char* appType) {
    ThreadSingleLock guard(m_lock);
    return delAllElmInPlaylistLocked(orEmpty(title), orEmpty(appType));
}

int CSqlitePlaylist::reorderPlaylistElm(int playlistID, int fromOrder, int toOrder) {
    if (fromOrder == toOrder) return SQLITE_OK;
    ThreadSingleLock guard(m_lock);
    Savepoint sp(*this);
    int rc = sp.begin();
    if (rc != SQLITE_OK) return rc;

    sqlite3_int64 uuid = 0;
    bool found = false;
    {
        Query q(m_stmts[kElmUuidAt], playlistID, fromOrder);
        rc = selectIntLocked(q, uuid, found);
        if (rc != SQLITE_OK) return rc;
    }
    // Nothing at fromOrder: shifting the others would only open a gap.
    if (!found) return sp.release();
    {
        Query shift = fromOrder < toOrder ? Query(m_stmts[kElmMoveDown], playlistID, fromOrder, toOrder)
                                          : Query(m_stmts[kElmMoveUp], playlistID, toOrder, fromOrder);
        rc = runLocked(shift);
        if (rc != SQLITE_OK) return rc;
    }
    {
        Query set(m_stmts[kElmSetOrder], toOrder, playlistID, uuid);
        rc = runLocked(set);
        if (rc != SQLITE_OK) return rc;
    }
    return sp.release();
}

int CSqlitePlaylist::adjustPlayOrder(int playlistID, int fromOrder, int delta) {
    ThreadSingleLock guard(m_lock);
    return adjustPlayOrderLocked(playlistID, fromOrder, delta);
}

int CSqlitePlaylist::adjustPlayOrderLocked(int playlistID, int fromOrder, int delta) {
    if (getSizeOfPlaylistLocked(playlistID) < fromOrder) return -1;
    Query q(m_stmts[kElmAdjust], delta, playlistID, fromOrder);
    int rc = runLocked(q);
    char* sql = q.get() ? sqlite3_expanded_sql(q.get()) : nullptr;
    LOG_TRACE("xxxx ret:%d cmd:%s", rc, sql ? sql : kSql[kElmAdjust]);
    sqlite3_free(sql);
    return rc;
}

// ---------------------------------------------------------------------------------------------
// Batch insertion

int CSqlitePlaylist::transBegin() {
    pthread_mutex_lock(&m_lock);
    m_transOwner.store(pthread_self(), std::memory_order_relaxed);
    m_inTrans.store(true, std::memory_order_release);
    Query q(m_stmts[kBegin]);
    return runLocked(q);  // the lock stays held even when BEGIN failed: transEnd releases it
}

int CSqlitePlaylist::transAddElmInPlaylist(int playlistID, mediaType_e mediaType, contentType_e contentType,
                                           const char* content, int orderNr) {
    return insertElmLocked(playlistID, orderNr, mediaType, contentType, orEmpty(content), "N/A");
}

int CSqlitePlaylist::transPlaylistID(const char* title, const char* appType) {
    int id = 0;
    if (lookupPlaylistIDLocked(orEmpty(title), orEmpty(appType), id) != SQLITE_OK) return kFail;
    return id < 1 ? -1 : id;
}

int CSqlitePlaylist::transAddPlaylist(const char* title, mediaType_e type, const char* appType, const char* owner,
                                      const char* tag) {
    return addPlaylistLocked(title, type, appType, owner, tag);
}

int CSqlitePlaylist::transSizeOfPlaylist(int playlistID) { return getSizeOfPlaylistLocked(playlistID); }

int CSqlitePlaylist::transAdjustPlayOrder(int playlistID, int fromOrder, int delta) {
    return adjustPlayOrderLocked(playlistID, fromOrder, delta);
}

int CSqlitePlaylist::transEnd() { return finishTransaction(true); }

int CSqlitePlaylist::transAbort() { return finishTransaction(false); }

int CSqlitePlaylist::finishTransaction(bool commit) {
    bool mine = m_inTrans.load(std::memory_order_acquire) &&
                pthread_equal(m_transOwner.load(std::memory_order_relaxed), pthread_self());
    if (!mine && pthread_mutex_trylock(&m_lock) != 0) {
        // Another thread holds the store: releasing its lock would let two threads in.
        LOG_ERR("transEnd without transBegin while the playlist store is busy");
        return SQLITE_MISUSE;
    }
    int rc = SQLITE_ABORT;
    if (commit) {
        Query commitQuery(m_stmts[kCommit]);
        rc = runLocked(commitQuery);
    }
    // A transaction left open would swallow every later change of the daemon.
    if (rc != SQLITE_OK && m_db && !sqlite3_get_autocommit(m_db)) {
        Query rollback(m_stmts[kRollback]);
        runLocked(rollback);
    }
    m_inTrans.store(false, std::memory_order_release);
    pthread_mutex_unlock(&m_lock);
    return rc;
}
