// Server side of the framing: reading one request that may arrive in pieces, and sending
// the length block and the answer.
#pragma once

#include <string>
#include <string_view>

class CUnixSocketIpc;

namespace requestio {

enum class DocState { NeedMore, Complete };

// Whether the bytes so far can still grow into a document (NeedMore) or are one already, or
// can never become one (Complete: the parser then reports what is wrong). Cheap: one scan.
DocState scanDocument(std::string_view text);

// Reads until the bytes form a complete document, 64 KiB have arrived, or the client
// half-closes. 0 with the text (possibly empty), -1 when a read failed or timed out.
int readRequest(CUnixSocketIpc& ipc, int fd, std::string& out);

// Sends the 256-byte length block and the answer in one go. false when the client went away.
bool sendAnswer(int fd, const std::string& body);

}  // namespace requestio
