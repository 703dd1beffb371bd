// Helpers that read request parameters and build answer documents.
#pragma once

#include <string>

#include "xml/XMLNode.h"

namespace ParamXmlWrapper {

// Adds <name>text</name> under parent (text only when not null) and returns the new child.
XMLNode add_child_node(XMLNode& parent, const char* name, const char* text);

// Makes doc a new top node "root" with <status> and <cause> children for the texts given.
void create_status_xml_doc(XMLNode& doc, const char* status, const char* cause);

// Finds root/paramList/<name>. 0 when found, -1 when paramList or the element is missing.
int get_param_node(XMLNode& request, XMLNode& out, const char* name);
// As get_param_node, and -1 as well when the element has no text.
int get_param_node_with_check_text(XMLNode& request, XMLNode& out, const char* name);

}  // namespace ParamXmlWrapper
