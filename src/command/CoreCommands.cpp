#include "command/CoreCommands.h"

#include "util/ResultCodes.h"
#include "util/Log.h"
#include "protocol/ParamXmlWrapper.h"
#include "player/CPlayerManager.h"

int echo(CPlayerManager&, XMLNode&, XMLNode& answer) {
    ParamXmlWrapper::create_status_xml_doc(answer, "ECHO", nullptr);
    return result::kOk;
}

// Kept for clients that still send it: players are created by SetPlaylist.
int create_player(CPlayerManager&, XMLNode&, XMLNode& answer) {
    ParamXmlWrapper::create_status_xml_doc(answer, "0", nullptr);
    return result::kOk;
}

int debug_dump(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer) {
    XMLNode dev;
    if (ParamXmlWrapper::get_param_node_with_check_text(request, dev, "dev") != 0) {
        LOG_ERR("PARAMTER NOT FOUNT");
        return result::kMissingParameter;
    }
    int rc = playerManager.getDebugInfo(dev.getText(), answer);
    if (rc == 0) answer.addChild("status", false, 0).addText("0");
    return rc;
}
