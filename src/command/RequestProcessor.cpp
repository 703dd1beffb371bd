#include "command/RequestProcessor.h"

#include "xml/Utf8.h"

#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "command/CommandTable.h"
#include "command/LargeAnswers.h"
#include "command/RequestClient.h"
#include "ipc/Framing.h"
#include "util/ResultCodes.h"
#include "util/Log.h"
#include "util/Version.h"
#include "protocol/ParamXmlWrapper.h"

namespace {

// Polled many times a second by front ends: kept out of the log.
bool isQuietCommand(const char* command) {
    return std::strcmp(command, "GetVolume") == 0 || std::strcmp(command, "GetMute") == 0;
}

int runHandler(commandHandler_t handler, const char* command, CPlayerManager& manager, XMLNode& request,
               XMLNode& answer) {
    try {
        return handler(manager, request, answer);
    } catch (const char* what) {
        LOG_ERR("[%s] failed: %s", command, what);
    } catch (const std::exception& e) {
        LOG_ERR("[%s] failed: %s", command, e.what());
    } catch (...) {
        LOG_ERR("[%s] failed with an unknown exception", command);
    }
    answer = XMLNode();
    return result::kAgentFailure;
}

void setStatus(XMLNode& answer, int code) {
    char text[16];
    std::snprintf(text, sizeof text, "%d", code);
    ParamXmlWrapper::create_status_xml_doc(answer, text, nullptr);
}

}  // namespace

ipc::answer_s answerRequest(CPlayerManager& playerManager, const std::string& requestText,
                            const ipc::Peer& peer) noexcept {
    ipc::answer_s framed;
    try {
        XMLNode answer;
        int rc;
        const char* command = "";
        const char* dev = "N/A";
        bool quiet = false;

        // Text that is not UTF-8 of XML's characters is refused before anything can store it.
        const bool wellFormedText = utf8::isXmlText(requestText);
        if (!wellFormedText) LOG_ERR("request is not UTF-8 text of XML characters");
        XMLNode request = wellFormedText ? XMLNode::parseString(requestText, "root") : XMLNode();
        if (request.isEmpty()) {
            LOG_ERR("WRONG PACKAGE FORMAT");
            rc = result::kBadRequest;
        } else if (!(command = request.getChildNode("command").getText())) {
            command = "";
            LOG_ERR("NO COMMAND FIELD");
            rc = result::kUnknownCommand;
        } else {
            if (const char* d = request.getChildNode("paramList").getChildNode("dev").getText()) dev = d;
            quiet = isQuietCommand(command);
            if (!quiet) {
                LOG_TRACE("Command:%s  --dev:%s", command, dev);
                LOG_TRACE("\n%s\n", requestText.c_str());
            }
            commandHandler_t handler = findCommand(command);
            if (!handler) {
                LOG_ERR("COMMAND '%s' not found", command);
                rc = result::kUnknownCommand;
            } else {
                requestclient::Scope client(&peer);
                rc = runHandler(handler, command, playerManager, request, answer);
            }
        }

        if (rc < 0) {
            if (!answer.isEmpty()) {
                LOG_ERR("[%s]There is someting worng in the contorl flow", command);
                answer = XMLNode();
            }
            setStatus(answer, rc);
        } else if (answer.isEmpty()) {
            // A handler that succeeds must answer; treat the fault as a failure, not a crash.
            LOG_TRACE("Command:%s  --dev:%s(err)", command, dev);
            setStatus(answer, result::kAgentFailure);
        }

        std::string version = getVersionText("XUMA");
        if (!version.empty()) ParamXmlWrapper::add_child_node(answer, "version", version.c_str());

        // Printed straight behind the room for its length block.
        framed.bytes.assign(framing::kHeaderSize, '\0');
        answer.appendTo(framed.bytes, 1);
        framing::fillHeader(framed.bytes);
        if (!quiet) LOG_TRACE("Command:%s  --dev:%s(done)", command, dev);
    } catch (const std::exception& e) {
        LOG_ERR("request failed: %s", e.what());
        framed.bytes.clear();
    } catch (...) {
        LOG_ERR("request failed with an unknown exception");
        framed.bytes.clear();
    }
    framed.hold = largeanswer::holdFor(framed.bytes.size());
    return framed;
}
