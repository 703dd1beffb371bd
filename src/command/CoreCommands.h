// The small commands served by the core itself.
#pragma once

#include "xml/XMLNode.h"

class CPlayerManager;

int echo(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int create_player(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
int debug_dump(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);
