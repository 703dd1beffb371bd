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

TEST_F(ClientRightsTest, OpensOnlyRegularFilesTheClientCouldReadNeverWaitsOnAFifoAndRemovesOnlyWhereItMay) {
    ASSERT_TRUE(testutil::writeFile(dir / "private", "x", 0600));
    ASSERT_TRUE(testutil::writeFile(dir / "public", "x", 0644));
    ASSERT_TRUE(testutil::writeFile(dir / "group", "x", 0640));
    ASSERT_EQ(::chown((dir / "group").c_str(), 0, kShared), 0);
    testutil::makeDirs(dir / "closed");
    ::chmod((dir / "closed").c_str(), 0700);
    ASSERT_TRUE(testutil::writeFile(dir / "closed/public", "x", 0644));
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0666), 0);
    const struct {
        const clientCredentials_s* who;
        const char* file;
        int err;
    } cases[] = {
        {&user, "private", EACCES},  {&user, "public", 0},     {&user, "group", EACCES}, {&member, "group", 0},
        {&user, "closed/public", EACCES} /* no search right on the directory */, {&user, "missing", ENOENT},
        {&user, "fifo", EINVAL},     {nullptr, "fifo", EINVAL}, {&user, "", EINVAL} /* the directory itself */,
        {nullptr, "private", 0} /* the daemon's own rights are untouched */,
    };
    for (const auto& c : cases) EXPECT_EQ(openErr(c.who, dir / c.file), c.err) << c.file << (c.who ? "" : " (own)");
    EXPECT_EQ(::access((dir / "closed/public").c_str(), R_OK), 0) << "and stay so on this thread";

    // A file is removed only where the client may.
    auto remove = [&] { return runWithRightsOf(&user, [&] { return ::unlink((dir / "public").c_str()); }); };
    EXPECT_NE(remove(), 0) << "the directory is not the client's to change";
    EXPECT_EQ(errno, EACCES);
    ::chmod(dir.path().c_str(), 0777);
    EXPECT_EQ(remove(), 0);
}

}  // namespace
