// The simulated appliance of the discovery tests, and files put on it.
#pragma once

#include <string>

#include "unit/support/SimRoot.h"
#include "xml/XMLNode.h"

class DiscoveryRootTest : public testsupport::SimRootTest {
protected:
    // Writes text to <root>/<path>, creating directories; mode for scripts.
    void put(const std::string& path, const std::string& text, mode_t mode = 0644) const {
        testsupport::makeDirs(at(path.substr(0, path.rfind('/'))));
        testsupport::writeFile(at(path), text, mode);
    }
    std::string slurp(const std::string& path) const { return testsupport::readFile(at(path)); }
};

inline const char* childText(const XMLNode& node, const char* name) {
    return xmltoa(node.getChildNode(name).getText(), "(none)");
}
