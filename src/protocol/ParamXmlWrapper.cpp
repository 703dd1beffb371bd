#include "protocol/ParamXmlWrapper.h"

namespace ParamXmlWrapper {

XMLNode add_child_node(XMLNode& parent, const char* name, const char* text) {
    XMLNode child = parent.addChild(name);
    if (text) child.addText(text);
    return child;
}

void create_status_xml_doc(XMLNode& doc, const char* status, const char* cause) {
    doc = XMLNode::createXMLTopNode("root");
    if (status) add_child_node(doc, "status", status);
    if (cause) add_child_node(doc, "cause", cause);
}

int get_param_node(XMLNode& request, XMLNode& out, const char* name) {
    XMLNode params = request.getChildNode("paramList");
    if (params.isEmpty()) return -1;
    out = params.getChildNode(name);
    return out.isEmpty() ? -1 : 0;
}

int get_param_node_with_check_text(XMLNode& request, XMLNode& out, const char* name) {
    if (get_param_node(request, out, name) != 0) return -1;
    return out.getText() ? 0 : -1;
}

}  // namespace ParamXmlWrapper
