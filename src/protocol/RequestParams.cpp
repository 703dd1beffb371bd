#include "protocol/RequestParams.h"

#include <climits>
#include <cstdlib>

#include "util/ResultCodes.h"
#include "util/Log.h"
#include "protocol/ParamXmlWrapper.h"

namespace reqparam {

const char* text(XMLNode& request, const char* name) {
    XMLNode node;
    if (ParamXmlWrapper::get_param_node_with_check_text(request, node, name) != 0) return nullptr;
    return node.getText();
}

int toInt(const char* text, int fallback) {
    if (!text) return fallback;
    long v = std::strtol(text, nullptr, 10);
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return static_cast<int>(v);
}

int missing() {
    LOG_ERR("PARAMTER NOT FOUNT");
    return result::kMissingParameter;
}

void ok(XMLNode& answer) { ParamXmlWrapper::create_status_xml_doc(answer, "0", nullptr); }

}  // namespace reqparam
