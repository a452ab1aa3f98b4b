// Socket addresses: the longest path an address holds, and one more; a
// connection at descriptor 0.
#include "protocol/unix_socket.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

TEST(UnixSocket, LongestPathFitsWithItsZeroAndOneMoreIsRefused)
{
    std::string dir = "/tmp/s";
    dir += std::string(UNIX_SOCKET_PATH_MAX - dir.size() - 2, 'd');
    ASSERT_TRUE(mkdir(dir.c_str(), 0700) == 0 || errno == EEXIST);
    const std::string longest = dir + "/s";
    ASSERT_EQ(UNIX_SOCKET_PATH_MAX, longest.size());

    sockaddr_un addr;
    memset(&addr, 0xa5, sizeof addr);
    socklen_t len = 0;
    ASSERT_TRUE(unix_socket_address(longest.c_str(), &addr, &len));
    EXPECT_EQ(sizeof addr, size_t(len));
    EXPECT_EQ(longest, std::string(addr.sun_path));
    EXPECT_EQ(0, addr.sun_path[UNIX_SOCKET_PATH_MAX]);

    memset(&addr, 0xa5, sizeof addr);
    ASSERT_TRUE(unix_socket_address("/a", &addr, &len));
    EXPECT_EQ(offsetof(sockaddr_un, sun_path) + 3, size_t(len));
    for (size_t i = 2; i < sizeof addr.sun_path; i++)
        ASSERT_EQ(0, addr.sun_path[i]) << i;

    errno = 0;
    EXPECT_FALSE(unix_socket_address((longest + "x").c_str(), &addr, &len));
    EXPECT_EQ(ENAMETOOLONG, errno);

    // With no standard input the connection may be descriptor 0, and serves.
    const int server = unix_socket_listen(longest.c_str(), 1);
    ASSERT_GE(server, 0) << strerror(errno);
    const int in = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    errno = EINTR; // left by some earlier call: a connect that succeeds is not retried
    EXPECT_EQ(0, unix_socket_connect(longest.c_str(), 1000)) << strerror(errno);
    dup2(in, STDIN_FILENO);
    close(in);
    close(server);
    unlink(longest.c_str());
    rmdir(dir.c_str());
}

} // namespace
