// ISqlPlaylist: the playlist store as the rest of the daemon sees it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "playlist/PlaylistTypes.h"

class ISqlPlaylist {
public:
    virtual ~ISqlPlaylist() = default;

    // 0 created, 1 already exists (same title in the same app type), -12 error.
    virtual int addPlaylist(const char* title, mediaType_e type, const char* appType, const char* owner,
                            const char* tag) = 0;
    // Deletes the playlist and its entries; deleting one that does not exist succeeds. 0 or -12.
    virtual int delPlaylist(const std::string& title, const std::string& appType) = 0;
    // Number of playlists of appType ("ALL": of every app type); -1 on error.
    virtual int getSizeOfPlaylistLib(const char* appType) = 0;
    // The playlist id (>= 1), -1 not found, -12 error.
    virtual int getPlaylistID(const std::string& title, const std::string& appType) = 0;
    // Fills title when found; returns the id passed in, -12 on error.
    virtual int getPlaylistTitle(int playlistID, std::string& title, const char* appType) = 0;
    // The index-th playlist of appType (AppType left as the caller had it). 0 or -12.
    virtual int getPlaylistLibElmByIndex(playlistLibElm_t& elm, const char* appType, int index) = 0;
    // The playlist with that id (AppType left as the caller had it). 0 or -12.
    virtual int getPlaylistLibElmByID(int playlistID, playlistLibElm_t& elm) = 0;
    // Appends playlists [start, start+count) of appType ("ALL": every one); 0,0 means all. Always 0.
    virtual int getPlaylistLibElmsByPage(std::vector<playlistLibElm_s>& page, const char* appType, int start,
                                         int count) = 0;
    // Number of entries; -1 on error.
    virtual int getSizeOfPlaylist(int playlistID) = 0;
    // The entry at position index in OrderNr order. 0 or -12.
    virtual int getPlaylistElmByIndex(playlistElm_t& elm, int playlistID, int index) = 0;
    // The entry with that OrderNr. 0 found, -1 not found, -12 error.
    virtual int getPlaylistElmByOrder(playlistElm_t& elm, int playlistID, int orderNr) = 0;
    // Appends entries [start, start+count); 0,0 means all. 0 (also for an empty playlist), or -12
    // when start is at or beyond the end, or on error.
    virtual int getPlaylistElmsByPage(std::vector<playlistElm_s>& page, int playlistID, int start, int count) = 0;
    // Inserts at orderNr (shifting the rest), or appends for -1 or beyond the end. 0 or -12.
    virtual int addElmInPlaylist(const char* title, mediaType_e mediaType, contentType_e contentType,
                                 const char* appType, const char* content, int orderNr) = 0;
    // Deletes one entry and closes the gap. 0 or -12.
    virtual int delElmInPlaylist(const char* title, const char* appType, uint64_t uuid) = 0;
    virtual int delAllElmInPlaylist(const char* title, const char* appType) = 0;
    // Moves the entry at fromOrder to toOrder. SQLite's result code of the last statement.
    virtual int reorderPlaylistElm(int playlistID, int fromOrder, int toOrder) = 0;
    // Adds delta to every OrderNr >= fromOrder when the playlist reaches fromOrder. SQLite's
    // result code, or -1.
    virtual int adjustPlayOrder(int playlistID, int fromOrder, int delta) = 0;
};
