// The playlist commands: reading and editing the named playlists, and telling the player
// manager so that the players of a changed playlist follow it.
#pragma once

#include "xml/XMLNode.h"

class CPlayerManager;

int get_upnp_object_id(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int size_of_playlist(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int list_playlist(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int size_of_list_contents(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int list_content_of_playlist(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int create_play_list(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int add_content(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int del_playlist(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int del_content(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int batch_add_playlist(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int batch_del_playlist(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int reorder_content(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int duplicate_playlist(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
