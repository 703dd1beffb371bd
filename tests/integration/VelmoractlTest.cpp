// velmoractl as a person uses it: readable fields, exit codes, a helpful message when the
// daemon is not there.
#include <gtest/gtest.h>

#include "util/Process.h"
#include "integration/DaemonFixture.h"

using namespace itest;

namespace {

ProcessResult ctl(const std::vector<std::string>& args) {
    std::vector<std::string> argv{VELMORACTL_BIN};
    argv.insert(argv.end(), args.begin(), args.end());
    ProcessOptions opts;
    opts.timeoutMs = 20000;
    opts.capture = ProcessOptions::Capture::Both;
    return runProcess(argv, opts);
}

using VelmoractlTest = DaemonTestBase;

TEST_F(VelmoractlTest, PrintsFieldsExitsByStatusAddsFilesInOneBatchAndSaysHowToStartTheDaemon) {

    ProcessResult echo = ctl({"--root", root.path(), "echo"});
    EXPECT_EQ(echo.exitStatus, 0) << echo.output;
    EXPECT_EQ(echo.output, "status: ECHO\nversion: XUMA 4.1.2\n");

    ProcessResult unknown = ctl({"--socket", root.socketPath(), "NoSuchCommand", "dev=a b&c"});
    EXPECT_EQ(unknown.exitStatus, 1);
    EXPECT_NE(unknown.output.find("status -7"), std::string::npos) << unknown.output;
    EXPECT_NE(daemon->log().find("--dev:a b&c"), std::string::npos);

    EXPECT_EQ(ctl({"--root", root.path(), "CreatePlayer"}).exitStatus, 0);

    // add-files sends one batch, with progress.
    std::vector<std::string> args{"--root", root.path(), "add-files", "Many", "music"};
    for (int i = 0; i < 1500; ++i) args.push_back("/share/Public/Music/track " + std::to_string(i) + (i % 2 ? ".flac" : ".mp4"));
    ProcessResult r = ctl(args);
    EXPECT_EQ(r.exitStatus, 0) << r.output;
    EXPECT_NE(r.output.find("prepared 1500 of 1500 items"), std::string::npos) << r.output;

    EXPECT_EQ(daemon->field("SizeOfListContent", {{"playlist", "Many"}, {"appType", "music"}}, "size"), "1500");
    vclient::Answer first = daemon->request("ListContentOfPlaylist", {{"playlist", "Many"}, {"appType", "music"},
                                                                     {"start", "0"}, {"count", "2"}});
    EXPECT_STREQ(first.doc.getChildNode("item", 0).getChildNode("mediaType").getText(), "video");
    EXPECT_STREQ(first.doc.getChildNode("item", 1).getChildNode("mediaType").getText(), "audio");
    // One request carried them all.
    ASSERT_TRUE(daemon->waitForLog("Command:BatchAddPlaylist  --dev:N/A(done)"));
    std::string log = daemon->log();
    size_t n = 0;
    for (size_t at = 0; (at = log.find("Command:BatchAddPlaylist  ", at)) != std::string::npos; ++at) ++n;
    EXPECT_EQ(n, 2u) << "one command line and its (done) line";
    EXPECT_EQ(daemon->stop(), 0);

    // Without a daemon, it says how to start one.
    r = ctl({"--root", root.path(), "echo"});
    EXPECT_EQ(r.exitStatus, 2);
    EXPECT_NE(r.output.find("Velmora --root"), std::string::npos) << r.output;
    // Bad usage is not sent anywhere.
    EXPECT_EQ(ctl({"echo", "novalue"}).exitStatus, 3);
    EXPECT_EQ(ctl({}).exitStatus, 3);
}

}  // namespace
