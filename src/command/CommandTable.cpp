#include "command/CommandTable.h"

#include <cstring>

#include "command/CoreCommands.h"
#include "command/PlayerCommands.h"
#include "command/PlaylistCommands.h"
#include "discovery/RenderListing.h"

namespace {

// In the order requests are matched. Commands whose subsystem is not built in yet are absent
// and answer as unknown.
const commandEntry_s kCommands[] = {
    {"ListRender", list_render},
    {"ListUnknowRender", list_unknow_render},
    {"GetUpnpObjectID", get_upnp_object_id},
    {"SizeOfPlaylist", size_of_playlist},
    {"ListPlaylist", list_playlist},
    {"SizeOfListContent", size_of_list_contents},
    {"ListContentOfPlaylist", list_content_of_playlist},
    {"CreatePlaylist", create_play_list},
    {"AddContent", add_content},
    {"DelPlaylist", del_playlist},
    {"DelContent", del_content},
    {"BatchAddPlaylist", batch_add_playlist},
    {"BatchDelPlaylist", batch_del_playlist},
    {"ReOrderContent", reorder_content},
    {"DupPlaylist", duplicate_playlist},
    {"ListPlayer", list_player},
    {"Play", play},
    {"Pause", pause},
    {"Stop", stop},
    {"Seek", seek},
    {"Next", next},
    {"Previous", previous},
    {"SetTrack", set_track},
    {"SetTrackByContent", set_track_by_content},
    {"GetPlayerStatus", get_player_status},
    {"SetSlideShowDelay", set_slide_show_delay},
    {"GetVolume", get_volume},
    {"SetVolume", set_volume},
    {"GetMute", get_mute},
    {"SetMute", set_mute},
    {"CreatePlayer", create_player},
    {"SetPlaylist", set_playlist},
    {"SetPlayMode", set_play_mode},
    {"SetAudioAndSubtitle", setAudioSubtitleTrack},
    {"SetAttributes", set_player_attrs},
    {"debugDump", debug_dump},
    {"echo", echo},
};

}  // namespace

commandHandler_t findCommand(const char* name) {
    if (!name) return nullptr;
    for (const commandEntry_s& entry : kCommands)
        if (std::strcmp(entry.name, name) == 0) return entry.handler;
    return nullptr;
}

const commandEntry_s* commandTable(size_t* count) {
    if (count) *count = sizeof kCommands / sizeof kCommands[0];
    return kCommands;
}
