// Server side of the framing: when the bytes of a request that arrives in pieces are complete.
#pragma once

#include <string_view>

namespace requestio {

enum class DocState { NeedMore, Complete };

// Whether the bytes so far can still grow into a document (NeedMore) or are one already, or
// can never become one (Complete: the parser then reports what is wrong). Cheap: one scan.
DocState scanDocument(std::string_view text);

}  // namespace requestio
