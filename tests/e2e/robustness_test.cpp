// Faults a root daemon lives through, on a simulated device: a shell
// diagnostic that runs long, clients that hang up meanwhile.
#include <gtest/gtest.h>

#include <regex>

#include "device_test.h"

namespace {

TEST(Robustness, ALongShellDiagnosticHoldsNoSocketAndHangUpsAreSeenMeanwhile)
{
    SimDevice dev;
    ASSERT_TRUE(dev.start()) << dev.failure();
    // A session that exists before the shell starts: a child that inherited
    // its socket would keep it open after the daemon lets go.
    auto before = dev.connect();
    ASSERT_TRUE(before);
    bool on = false;
    ASSERT_TRUE(before->get_log_state(&on).done());

    // The prefix check lets the rest of the text through to the shell; the
    // session then waits for the sleep.
    auto runner = dev.connect();
    ASSERT_TRUE(runner);
    tovak_pkt req;
    ASSERT_TRUE(tovak_req_counted_text(&req, CMD_SYSTEM_COMMAND,
                                       "@@#cat /dev/null; ls -l /proc/self/fd > /data/local/fds.txt; sleep 30"));
    ASSERT_EQ(TovakStatus::ok, runner->send_bytes(&req, sizeof req));
    const std::string fds = dev.path("data/local/fds.txt");
    ASSERT_TRUE(wait_until([&] { return !read_file(fds).empty(); })) << dev.daemon_stdout();
    // Descriptors 0 to 2 are the daemon's stdio; the listing's own directory
    // is no socket.
    EXPECT_FALSE(std::regex_search(read_file(fds), std::regex(R"( ([3-9]|\d\d+) -> socket:)"))) << read_file(fds);

    // Both sessions' ends are logged from here on.
    const size_t from = dev.daemon_stdout().size();
    ASSERT_EQ(TovakStatus::ok, before->disconnect());
    EXPECT_TRUE(before->wait_closed()) << "the shell's child holds the session's socket";

    // A client that connects while the shell runs and hangs up is noticed:
    // its session ends after its zero-length reads, on a line of its own.
    auto hang_up = dev.connect();
    ASSERT_TRUE(hang_up);
    ASSERT_TRUE(hang_up->get_log_state(&on).done());
    hang_up->close();
    EXPECT_TRUE(wait_until([&] {
        const std::string out = dev.daemon_stdout();
        const size_t first = out.find("server: got disconnection", from);
        return first != std::string::npos && out.find("server: got disconnection", first + 1) != std::string::npos;
    })) << dev.daemon_stdout();
    EXPECT_TRUE(
        std::regex_search(dev.daemon_stdout(), std::regex(R"(: num_of_consecutive_zero_read exceeds 10\n\d+: )")))
        << "a message without its own newline still ends its line";
}

} // namespace
