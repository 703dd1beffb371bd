// The command table: request names and their handlers, searched in table order.
#pragma once

#include <cstddef>

#include "xml/XMLNode.h"

class CPlayerManager;

// Every handler: fills `answer` and returns >= 0 on success; returns a negative result code
// (and may leave `answer` empty) on failure.
typedef int (*commandHandler_t)(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer);

struct commandEntry_s {
    const char* name;
    commandHandler_t handler;
};

// The handler for an exact, case-sensitive command name; null when unknown.
commandHandler_t findCommand(const char* name);

// The table itself, for listings and tests.
const commandEntry_s* commandTable(size_t* count);
