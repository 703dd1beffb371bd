// The simulated appliance shared by the discovery tests, with files a test changes put back.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "unit/support/SimRoot.h"
#include "xml/XMLNode.h"

class DiscoveryRootTest : public testsupport::SimRootTest {
protected:
    void SetUp() override {
        SimRootTest::SetUp();
        s_root = m_root;
    }
    void TearDown() override {
        for (auto it = s_saved.rbegin(); it != s_saved.rend(); ++it) {
            if (it->existed) testsupport::writeFile(s_root + it->path, it->text, it->mode);
            else ::unlink((s_root + it->path).c_str());
        }
        s_saved.clear();
        SimRootTest::TearDown();
    }

    // Writes text to <root>/<path>, creating directories; mode for scripts. The file is put
    // back as it was when the test ends.
    static void put(const std::string& path, const std::string& text, mode_t mode = 0644) {
        const std::string full = s_root + path;
        struct stat st {};
        bool existed = ::stat(full.c_str(), &st) == 0;
        s_saved.push_back({path, existed, existed ? slurp(path) : "", static_cast<mode_t>(st.st_mode & 07777)});
        testsupport::makeDirs(full.substr(0, full.rfind('/')));
        testsupport::writeFile(full, text, mode);
    }
    static std::string slurp(const std::string& path) { return testsupport::readFile(s_root + path); }

    static inline std::string s_root;
    struct Saved {
        std::string path;
        bool existed;
        std::string text;
        mode_t mode;
    };
    static inline std::vector<Saved> s_saved;
};

inline const char* childText(const XMLNode& node, const char* name) {
    return xmltoa(node.getChildNode(name).getText(), "(none)");
}
