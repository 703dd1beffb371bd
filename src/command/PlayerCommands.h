// The commands that act on one player, named by the render id in `dev`.
#pragma once

#include "xml/XMLNode.h"

class CPlayerManager;

int play(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int pause(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int stop(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int seek(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int next(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int previous(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int set_track(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int set_track_by_content(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int set_slide_show_delay(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int get_volume(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int set_volume(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int get_mute(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int set_mute(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int set_playlist(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int set_play_mode(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int set_player_attrs(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int setAudioSubtitleTrack(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int list_player(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int get_player_status(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
