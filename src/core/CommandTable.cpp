#include "core/CommandTable.h"

#include <cstring>

#include "core/CoreCommands.h"

namespace {

// In the order requests are matched. Commands whose subsystem is not built in yet are absent
// and answer as unknown.
const commandEntry_s kCommands[] = {
    {"CreatePlayer", create_player},
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
