// Who is at the other end of a Unix socket, groups included.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <vector>

#include "ipc/PeerCredentials.h"

TEST(PeerCredentialsTest, TheKernelsRecordOfThePeerWithAllItsGroups) {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const ipc::Peer peer(pair[0]);
    const clientCredentials_s& who = peer.credentials();
    EXPECT_EQ(who.uid, ::geteuid());
    EXPECT_EQ(who.gid, ::getegid());
    std::vector<gid_t> groups(static_cast<size_t>(::getgroups(0, nullptr)));
    groups.resize(static_cast<size_t>(::getgroups(static_cast<int>(groups.size()), groups.data())));
    EXPECT_EQ(std::multiset<gid_t>(who.groups.begin(), who.groups.end()),
              std::multiset<gid_t>(groups.begin(), groups.end()));
    for (int fd : pair) ::close(fd);
}
