// Answering one request: parse it, dispatch it to its handler with the client as the current
// one, and print the answer behind its length block.
#pragma once

#include <string>

#include "ipc/ConnectionTable.h"
#include "ipc/PeerCredentials.h"

class CPlayerManager;

// The framed answer to requestText from the client `peer`. Never throws.
ipc::answer_s answerRequest(CPlayerManager& playerManager, const std::string& requestText,
                            const ipc::Peer& peer) noexcept;
