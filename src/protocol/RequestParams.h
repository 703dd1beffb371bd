// Reading request parameters the way every handler does.
#pragma once

#include "xml/XMLNode.h"

namespace reqparam {

// The text of paramList/<name>, or null when it is missing or empty.
const char* text(XMLNode& request, const char* name);

// Reads a decimal number the way the protocol always has (leading digits count, junk after
// them is ignored), clamped to int; fallback for a null text.
int toInt(const char* text, int fallback = 0);

// Logs the missing-parameter line and returns its code.
int missing();

// Makes answer the plain success document.
void ok(XMLNode& answer);

}  // namespace reqparam
