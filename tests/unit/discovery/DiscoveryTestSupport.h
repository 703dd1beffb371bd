// A simulated appliance root shared by the discovery tests, and small file helpers.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "core/util/AppRoot.h"
#include "core/util/Process.h"
#include "xml/XMLNode.h"

class DiscoveryRootTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        char pattern[] = "/tmp/velmora-disc-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        s_root = pattern;
        ProcessOptions opts;
        opts.timeoutMs = 120000;
        opts.capture = ProcessOptions::Capture::Both;
        ProcessResult r = runProcess({VELMORA_SOURCE_DIR "/sim/make-root", s_root}, opts);
        ASSERT_TRUE(r.ok()) << r.output;
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(s_root); }
    void SetUp() override { approot::set(s_root); }
    void TearDown() override { approot::set(""); }

    // Writes text to <root>/<path>, creating directories; mode for scripts.
    static void put(const std::string& path, const std::string& text, mode_t mode = 0644) {
        const std::filesystem::path full = s_root + path;
        std::filesystem::create_directories(full.parent_path());
        std::ofstream(full, std::ios::trunc) << text;
        ::chmod(full.c_str(), mode);
    }
    static std::string slurp(const std::string& path) {
        std::ifstream in(s_root + path);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    static inline std::string s_root;
};

inline const char* childText(const XMLNode& node, const char* name) {
    return xmltoa(node.getChildNode(name).getText(), "(none)");
}
