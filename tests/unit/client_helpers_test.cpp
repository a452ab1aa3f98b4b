// The client's frame transport and its refusal of arguments that do not fit,
// against a fake daemon; each helper's exchange is in tovakctl_test.cpp.
#include <gtest/gtest.h>

#include <functional>

#include "protocol/tovak_cmd_ids.h"
#include "fake_daemon.h"
#include "tovak_client.h"

namespace {

TEST(ClientHelpers, ArgumentsThatDoNotFitAreNotSent)
{
    FakeDaemon fake;
    TovakClient client(5000);
    ASSERT_TRUE(client.connect(fake.socket_path()));
    const std::function<TovakResult()> calls[] = {
        [&] { return client.set_msisdn(std::string(19, '1')); },
        [&] { return client.set_config_file(std::string(99, 'p')); },
        [&] { return client.run_system(std::string(199, 'x')); },
        [&] { return client.set_out_path(std::string(100, 'p')); },
    };
    for (const auto& call : calls) {
        TovakResult r = call();
        EXPECT_EQ(TovakStatus::error, r.status);
        EXPECT_FALSE(r.done());
        EXPECT_NE(std::string::npos, client.error().find("do not fit")) << client.error();
    }
    // The session is still usable and nothing reached the daemon.
    fake.push(FakeDaemon::reply(0));
    EXPECT_TRUE(client.add_event(1).done());
    auto reqs = fake.requests();
    ASSERT_EQ(1u, reqs.size());
    EXPECT_EQ(uint32_t(CMD_ADD_EVENT), reqs[0].cmd);
}

TEST(ClientTransport, ReplyInPiecesIsReassembled)
{
    // Cut inside the header and inside the payload.
    FakeDaemon::Answer a = FakeDaemon::reply(6, "da05db05dd05");
    a.cuts = { 3, 9, 4000 };
    FakeDaemon fake({ a });
    TovakClient client(5000);
    ASSERT_TRUE(client.connect(fake.socket_path()));
    std::vector<uint16_t> ids;
    TovakResult r = client.get_events(&ids);
    ASSERT_EQ(TovakStatus::ok, r.status) << client.error();
    EXPECT_EQ("1498;1499;1501;", text(ids));
}

TEST(ClientTransport, ClosedSessionAndSilenceAreToldApart)
{
    {
        // A reply cut off by the daemon going away.
        FakeDaemon::Answer a = FakeDaemon::reply(0);
        a.cuts = { 100 };
        a.truncate = true;
        FakeDaemon fake({ a });
        TovakClient client(5000);
        ASSERT_TRUE(client.connect(fake.socket_path()));
        EXPECT_EQ(TovakStatus::closed, client.add_event(1).status);
        EXPECT_NE(std::string::npos, client.error().find("mid-reply")) << client.error();
    }
    {
        FakeDaemon fake({ FakeDaemon::silence() });
        TovakClient client(200);
        ASSERT_TRUE(client.connect(fake.socket_path()));
        bool on = false;
        TovakResult r = client.get_log_state(&on);
        EXPECT_EQ(TovakStatus::timeout, r.status);
        EXPECT_NE(std::string::npos, client.error().find("200 ms")) << client.error();
    }
}

TEST(ClientTransport, ConnectFailsClearly)
{
    TempDir dir;
    TovakClient client(1000);
    EXPECT_FALSE(client.connect(dir.path() + "/nobody"));
    EXPECT_FALSE(client.connect(std::string(200, 'p')));
    EXPECT_NE(std::string::npos, client.error().find("too long")) << client.error();
    bool on = false;
    EXPECT_EQ(TovakStatus::error, client.get_log_state(&on).status);
}

} // namespace
