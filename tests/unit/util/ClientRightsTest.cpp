// Files opened and removed with a client's rights. Needs root to take on another identity;
// skipped otherwise.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "UtilTestSupport.h"
#include "util/ClientRights.h"

namespace {

constexpr uid_t kUser = 65534;
constexpr gid_t kGroup = 65534;
constexpr gid_t kShared = 4242;  // a group only some clients are in

class ClientRightsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
        ASSERT_FALSE(dir.path().empty());
        ::chmod(dir.path().c_str(), 0755);
    }
    // errno of the failed open, 0 when it opened.
    static int openErr(const clientCredentials_s* who, const std::string& path) {
        const int fd = openForReadingAs(who, path.c_str());
        if (fd < 0) return errno;
        ::close(fd);
        return 0;
    }

    testutil::TempDir dir{"velmora-rights"};
    clientCredentials_s user{kUser, kGroup, {}};
    clientCredentials_s member{kUser, kGroup, {kShared}};
};

TEST_F(ClientRightsTest, ReadsWhatTheClientCouldReadAndNothingElse) {
    ASSERT_TRUE(testutil::writeFile(dir / "private", "x", 0600));
    ASSERT_TRUE(testutil::writeFile(dir / "public", "x", 0644));
    ASSERT_TRUE(testutil::writeFile(dir / "group", "x", 0640));
    ASSERT_EQ(::chown((dir / "group").c_str(), 0, kShared), 0);
    testutil::makeDirs(dir / "closed");
    ::chmod((dir / "closed").c_str(), 0700);
    ASSERT_TRUE(testutil::writeFile(dir / "closed/public", "x", 0644));

    EXPECT_EQ(openErr(&user, dir / "private"), EACCES);
    EXPECT_EQ(openErr(&user, dir / "public"), 0);
    EXPECT_EQ(openErr(&user, dir / "group"), EACCES);
    EXPECT_EQ(openErr(&member, dir / "group"), 0);
    EXPECT_EQ(openErr(&user, dir / "closed/public"), EACCES) << "no search right on the directory";
    EXPECT_EQ(openErr(&user, dir / "missing"), ENOENT);

    // The daemon's own rights are untouched, on this thread and for its own files.
    EXPECT_EQ(openErr(nullptr, dir / "private"), 0);
    EXPECT_EQ(::access((dir / "closed/public").c_str(), R_OK), 0);
}

TEST_F(ClientRightsTest, OnlyRegularFilesAndNeverWaitsOnAFifo) {
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0666), 0);
    EXPECT_EQ(openErr(&user, dir / "fifo"), EINVAL);
    EXPECT_EQ(openErr(nullptr, dir / "fifo"), EINVAL);
    EXPECT_EQ(openErr(&user, dir.path()), EINVAL);
}

TEST_F(ClientRightsTest, RemovesOnlyWhereTheClientMay) {
    ASSERT_TRUE(testutil::writeFile(dir / "batch", "x", 0644));
    auto remove = [&](const clientCredentials_s* who) {
        return runWithRightsOf(who, [&] { return ::unlink((dir / "batch").c_str()); });
    };
    EXPECT_NE(remove(&user), 0) << "the directory is not the client's to change";
    EXPECT_EQ(errno, EACCES);
    ::chmod(dir.path().c_str(), 0777);
    EXPECT_EQ(remove(&user), 0);
}

}  // namespace
