// CSqlitePlaylist: the playlist store on SQLite, the only code that touches playlist.db.
// One lock serialises every operation; every value reaches SQLite as a bound parameter.
#pragma once

#include <pthread.h>
#include <sqlite3.h>

#include <atomic>
#include <cstdint>
#include <source_location>
#include <string>
#include <string_view>
#include <vector>

#include "playlist/CGlobalsSingleton.h"
#include "playlist/ISqlPlaylist.h"

class CSqlitePlaylist : public ISqlPlaylist {
public:
    static constexpr const char* kSchemaVersion = "20131230";

    // Opens ".modl/.@Ostrafel/playlist.db" on the volume of the public share (under the
    // appliance root), creating it, or setting aside one of another version.
    CSqlitePlaylist();
    // Opens the database at dbPath (benchmarks and tools).
    explicit CSqlitePlaylist(const std::string& dbPath);
    ~CSqlitePlaylist() override;
    CSqlitePlaylist(const CSqlitePlaylist&) = delete;
    CSqlitePlaylist& operator=(const CSqlitePlaylist&) = delete;

    const std::string& getPath() const { return m_path; }

    int addPlaylist(const char* title, mediaType_e type, const char* appType, const char* owner,
                    const char* tag) override;
    int delPlaylist(const std::string& title, const std::string& appType) override;
    int getSizeOfPlaylistLib(const char* appType) override;
    int getPlaylistID(const std::string& title, const std::string& appType) override;
    int getPlaylistTitle(int playlistID, std::string& title, const char* appType) override;
    int getPlaylistLibElmByIndex(playlistLibElm_t& elm, const char* appType, int index) override;
    int getPlaylistLibElmByID(int playlistID, playlistLibElm_t& elm) override;
    int getPlaylistLibElmsByPage(std::vector<playlistLibElm_s>& page, const char* appType, int start,
                                 int count) override;
    int getSizeOfPlaylist(int playlistID) override;
    int getPlaylistElmByIndex(playlistElm_t& elm, int playlistID, int index) override;
    int getPlaylistElmByOrder(playlistElm_t& elm, int playlistID, int orderNr) override;
    int getPlaylistElmsByPage(std::vector<playlistElm_s>& page, int playlistID, int start, int count) override;
    int addElmInPlaylist(const char* title, mediaType_e mediaType, contentType_e contentType, const char* appType,
                         const char* content, int orderNr) override;
    int delElmInPlaylist(const char* title, const char* appType, uint64_t uuid) override;
    int delAllElmInPlaylist(const char* title, const char* appType) override;
    int reorderPlaylistElm(int playlistID, int fromOrder, int toOrder) override;
    int adjustPlayOrder(int playlistID, int fromOrder, int delta) override;

    // Batch insertion: transBegin takes the store's lock and opens a transaction, which
    // transEnd commits (or transAbort rolls back), releasing the lock. Between them the thread
    // calls only the trans* operations, which work inside that transaction.
    int transBegin();
    // -1 when there is no such playlist.
    int transPlaylistID(const char* title, const char* appType);
    // 0 created, 1 it exists already, -12 on a database error.
    int transAddPlaylist(const char* title, mediaType_e type, const char* appType, const char* owner, const char* tag);
    int transSizeOfPlaylist(int playlistID);
    int transAdjustPlayOrder(int playlistID, int fromOrder, int delta);
    int transAddElmInPlaylist(int playlistID, mediaType_e mediaType, contentType_e contentType, const char* content,
                              int orderNr);
    int transEnd();
    int transAbort();

private:
    // The statements of every frequent operation, prepared once when the database opens.
    enum StmtId : int {
        kLibCountTitle,
        kLibInsert,
        kLibId,
        kLibTitle,
        kLibById,
        kLibCountAll,
        kLibCountApp,
        kLibPageApp,
        kLibPageAll,
        kLibDelete,
        kElmCount,
        kElmPage,
        kElmByOrder,
        kElmAdjust,
        kElmMaxOrder,
        kElmShiftUpFrom,
        kElmInsert,
        kElmOrderOfUuid,
        kElmDelete,
        kElmShiftDownAfter,
        kElmDeleteAll,
        kElmUuidAt,
        kElmMoveDown,
        kElmMoveUp,
        kElmSetOrder,
        kBegin,
        kCommit,
        kRollback,
        kSavepoint,
        kRelease,
        kRollbackTo,
        kStmtCount
    };
    class Query;      // binds, steps and resets one cached statement
    class Savepoint;  // makes a select-then-update sequence all-or-nothing

    void open_();
    bool connect_();
    void disconnect_();
    std::string readVersion_();
    void moveAside_(bool withMain);
    void createSchema_();
    void configure_();
    void finalizeStatements_();
    // SQLite's message in red, placed at the statement's caller.
    void logSqlError_(const std::source_location& where = std::source_location::current()) const;

    int createTableLocked(const char* sql);
    int addPlaylistLocked(const char* title, mediaType_e type, const char* appType, const char* owner,
                          const char* tag);
    int adjustPlayOrderLocked(int playlistID, int fromOrder, int delta);
    // Commits (or rolls back) the batch transaction and releases the store's lock.
    int finishTransaction(bool commit);
    int getSizeOfPlaylistLibLocked(std::string_view appType);
    int getSizeOfPlaylistLocked(int playlistID);
    int getPlaylistElmByIndexLocked(playlistElm_t& elm, int playlistID, int index);
    int delAllElmInPlaylistLocked(std::string_view title, std::string_view appType);
    // SQLite's result of looking the playlist up; id is 0 when there is none.
    int lookupPlaylistIDLocked(std::string_view title, std::string_view appType, int& id);
    // The id of a playlist an entry edit needs; false (logged) on an error or when it is missing.
    bool findEditablePlaylistLocked(const char* title, const char* appType, int& id);
    // Column 0 of the last row of a one-integer select: SQLITE_OK (found tells whether a row
    // came) or the logged error code.
    int selectIntLocked(Query& query, sqlite3_int64& value, bool& found,
                   const std::source_location& where = std::source_location::current());
    // The same as a plain value: -1 when there is no row or on an error.
    int selectIntLocked(Query& query, const std::source_location& where = std::source_location::current());
    // Runs a statement that returns no rows: SQLITE_OK or the logged error code.
    int runLocked(Query& query, const std::source_location& where = std::source_location::current());
    int insertElmLocked(int playlistID, int orderNr, mediaType_e mediaType, contentType_e contentType,
                   std::string_view content, std::string_view objId);

    std::string m_path;
    sqlite3* m_db = nullptr;
    pthread_mutex_t m_lock;
    sqlite3_stmt* m_stmts[kStmtCount] = {};
    // The thread between transBegin and transEnd, so that transEnd never releases a lock that
    // another thread holds.
    std::atomic<bool> m_inTrans{false};
    std::atomic<pthread_t> m_transOwner{};
};

// The process-wide store.
inline CSqlitePlaylist& playlistStore() { return *CGlobalsSingleton<CSqlitePlaylist>::get(); }

// The store's batch transaction for one scope: transBegin when made; end() commits (a failed
// commit rolls back); leaving the scope without end() rolls everything back.
class PlaylistBatch {
public:
    explicit PlaylistBatch(CSqlitePlaylist& store) : m_store(store) { m_store.transBegin(); }
    ~PlaylistBatch() {
        if (!m_ended) m_store.transAbort();
    }
    PlaylistBatch(const PlaylistBatch&) = delete;
    PlaylistBatch& operator=(const PlaylistBatch&) = delete;
    int end() {
        m_ended = true;
        return m_store.transEnd();
    }

private:
    CSqlitePlaylist& m_store;
    bool m_ended = false;
};
