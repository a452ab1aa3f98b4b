// Failure causes: one stderr line naming the file, the line, what failed and
// the error, while the daemon's own log lines stay exactly as they were.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <regex>

#include "common/tovak_log.h"
#include "daemon/tovak.h"
#include "fd_output.h"
#include "sim_device.h"

namespace {

TEST(Log, CauseLineExactBytes)
{
    struct Case {
        const char* file;
        int line;
        const char* what;
        int err;
        const char* expected;
    };
    const Case cases[] = {
        { "tovakd/daemon/tovak.cpp", 12, "Failed to bind socket", EACCES,
          "tovakd: tovak.cpp:12: Failed to bind socket: Permission denied (errno 13)\n" },
        { "plain.cpp", 3, "capture thread", EAGAIN,
          "tovakd: plain.cpp:3: capture thread: "
          "Resource temporarily unavailable (errno 11)\n" },
        { "/a/b.cpp", 7, "no errno here", 0, "tovakd: b.cpp:7: no errno here\n" },
    };
    for (const Case& c : cases) {
        std::string out;
        std::string err = fd_output(STDERR_FILENO, [&] {
            out = fd_output(STDOUT_FILENO, [&] { tovak_log_cause(c.file, c.line, c.what, c.err); });
        });
        EXPECT_EQ(c.expected, err);
        EXPECT_EQ("", out) << "the log lines are not the place";
    }
}

// A message longer than a line's room is cut, and still ends in one newline.
TEST(Log, ALongMessageIsCutToItsRoom)
{
    const std::string longer(3000, 'x');
    const std::string out = fd_output(STDOUT_FILENO, [&] { tovak_log_line(7, "TOVAK", "%s", longer.c_str()); });
    EXPECT_EQ("7: " + std::string(1023, 'x') + "\n", out);
}

// Provisioning that fails says why on stderr; stdout keeps its lines alone.
TEST(Log, ProvisioningFailuresNameTheFileAndTheError)
{
    TempDir dir;
    const std::string missing = dir.path() + "/no-such-factory-file";
    const std::string user = dir.path() + "/user.cfg";
    std::string out;
    std::string err = fd_output(STDERR_FILENO, [&] {
        out = fd_output(STDOUT_FILENO, [&] { EXPECT_EQ(-1, tovak_copy_default_file(user.c_str(), missing.c_str())); });
    });
    EXPECT_TRUE(std::regex_match(out, std::regex("\\d+: Fatal Error: src file " + missing +
                                                 " doesn't exist\n\\d+: tovak ERR >> \\d+\n")))
        << out;
    // The host's platform log may share stderr: the cause is one line of it.
    EXPECT_TRUE(std::regex_search(err, std::regex("(^|\n)tovakd: tovak\\.cpp:\\d+: " + missing +
                                                  ": No such file or directory \\(errno 2\\)\n")))
        << err;
    EXPECT_NE(0, access(user.c_str(), F_OK));

    // A user file that can't be looked at (its folder is a file) is kept as
    // the user's, and the reason is given.
    const std::string not_a_dir = user + "/dm.cfg";
    ASSERT_TRUE(write_file(user, "x"));
    err = fd_output(STDERR_FILENO, [&] {
        out = fd_output(STDOUT_FILENO,
                        [&] { EXPECT_EQ(0, tovak_copy_default_file(not_a_dir.c_str(), missing.c_str())); });
    });
    EXPECT_TRUE(std::regex_match(out, std::regex("\\d+: User file already exists " + not_a_dir + "\n"))) << out;
    EXPECT_NE(std::string::npos, err.find(not_a_dir + ": Not a directory (errno 20)\n")) << err;
}

} // namespace
