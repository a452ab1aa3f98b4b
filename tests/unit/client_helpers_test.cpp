// The client's typed helpers and its frame transport, against a fake daemon
// that records the exact request bytes and answers canned replies.
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "daemon/tovak_cmd_ids.h"
#include "fake_daemon.h"
#include "tovak_client.h"

namespace {

using V = TovakVerdict;
using F = FakeDaemon;
using Call = std::function<TovakResult(TovakClient&, std::string*)>;

// A helper that hands nothing back, called with fixed arguments.
template <class... P, class... A> Call act(TovakResult (TovakClient::*m)(P...), A... args)
{
    return [=](TovakClient& c, std::string*) { return (c.*m)(args...); };
}

// A query, from a start value other than the answer, so that an output
// left alone shows.
template <class T> Call query(TovakResult (TovakClient::*m)(T*), T start = T())
{
    return [=](TovakClient& c, std::string* found) {
        T v = start;
        TovakResult r = (c.*m)(&v);
        *found = text(v);
        return r;
    };
}

struct HelperCase {
    Call call;
    uint32_t cmd;
    const char* request; // payload hex
    FakeDaemon::Answer answer;
    TovakVerdict verdict;
    const char* found; // what the helper handed back
};

// clang-format off
const HelperCase helper_cases[] = {
    { act(&TovakClient::log_on), CMD_LOG_ON, "", F::reply(4, "00000000"), V::unknown, "" },
    { act(&TovakClient::log_off), CMD_LOG_OFF, "", F::untouched(), V::refused, "" },
    { [](TovakClient& c, std::string* f) { int32_t t = 0; auto r = c.set_log_size(50000000, &t); *f = text(t); return r; },
      CMD_LOG_SIZE, "80f0fa02", F::reply(4, "80f0fa02"), V::done, "50000000" },
    { [](TovakClient& c, std::string* f) { int32_t t = 7; auto r = c.set_log_size(0, &t); *f = text(t); return r; },
      CMD_LOG_SIZE, "00000000", F::reply(4, "ffffffff"), V::refused, "7" },
    { act(&TovakClient::set_out_path, "/sdcard/logs/dm"), CMD_OUT_PATH, "2f7364636172642f6c6f67732f646d00", F::reply(4, "00000000"), V::done, "" },
    { act(&TovakClient::commit_log), CMD_COMMIT_LOG, "", F::reply(0), V::done, "" },
    { act(&TovakClient::add_event, 1498), CMD_ADD_EVENT, "da05", F::reply(0), V::done, "" },
    { act(&TovakClient::rm_event, 1498), CMD_RM_EVENT, "da05", F::reply(0), V::done, "" },
    { query(&TovakClient::get_events), CMD_GET_EVENTS, "", F::reply(6, "da05db05dd05"), V::done, "1498;1499;1501;" },
    { act(&TovakClient::add_log, 0xb061), CMD_ADD_LOG, "61b0", F::reply(0), V::done, "" },
    { act(&TovakClient::rm_log, 0x412f), CMD_RM_LOG, "2f41", F::reply(0), V::done, "" },
    { query(&TovakClient::get_logs), CMD_GET_LOGS, "", F::reply(4, "2f4161b0"), V::done, "16687;45153;" },
    { act(&TovakClient::add_msg, 5, 65537), CMD_ADD_MSG, "050001000100", F::reply(0), V::done, "" },
    { act(&TovakClient::rm_msg, 3006), CMD_RM_MSG, "be0b", F::reply(0), V::done, "" },
    { query(&TovakClient::get_msgs), CMD_GET_MSG, "", F::reply(8, "0500000001000000"), V::done, "5/1;" },
    { query(&TovakClient::get_buffer_size), CMD_GET_BUFFER_SIZE, "", F::reply(4, "80f0fa02"), V::done, "50000000" },
    { query(&TovakClient::get_log_state), CMD_GET_LOG_STATE, "", F::reply(4, "01000000"), V::done, "on" },
    { act(&TovakClient::set_config_file, "/sdcard/x.cfg"), CMD_SET_CONFIG_FILE, "0e00" "2f7364636172642f782e63666700", F::untouched(), V::unknown, "" },
    { query(&TovakClient::get_config_file), CMD_GET_CONFIG_FILE, "", F::reply(4, "0200" "6100"), V::done, "a" },
    { act(&TovakClient::run_system, "@@#ps"), CMD_SYSTEM_COMMAND, "0600" "4040237073" "00", F::untouched(), V::unknown, "" },
    { [](TovakClient& c, std::string* f) { uint32_t a = 0, b = 0; auto r = c.get_range(&a, &b); *f = text(a) + "," + text(b); return r; },
      CMD_GET_RANGE, "", F::reply(8, "0100000002000000"), V::done, "1,2" },
    { act(&TovakClient::capture_on), CMD_ADBLOG_ON, "", F::reply(0), V::done, "" },
    { act(&TovakClient::capture_off), CMD_ADBLOG_OFF, "", F::untouched(), V::refused, "" },
    { act(&TovakClient::capture_commit), CMD_ADBLOG_COMMIT, "", F::reply(0), V::unknown, "" },
    { query(&TovakClient::get_capture_state, true), CMD_ADBLOG_GET_STATE, "", F::reply(4, "00000000"), V::done, "off" },
    { act(&TovakClient::add_category, 2), CMD_ADBLOG_ADD_CATEGORY, "02000000", F::untouched(), V::unknown, "" },
    { act(&TovakClient::rm_category, 3), CMD_ADBLOG_RM_CATEGORY, "03000000", F::untouched(), V::unknown, "" },
    { query(&TovakClient::get_categories), CMD_ADBLOG_GET_CATEGORIES, "", F::reply(16, "01000000010000000000000001000000"), V::done, "on;on;off;on;" },
    { act(&TovakClient::save_categories), CMD_ADBLOG_SET_CATEGORIES, "", F::untouched(), V::unknown, "" },
    { query(&TovakClient::get_category_names), CMD_ADBLOG_GET_CATEGORY_NAME, "", F::reply(11, "6d61696e2c726164696f00"), V::done, "main;radio;" },
    { act(&TovakClient::set_capture_size, 0, 100), CMD_ADBLOG_SET_SIZE, "00000000" "64000000", F::untouched(), V::unknown, "" },
    { [](TovakClient& c, std::string* f) { uint32_t v = 0; auto r = c.get_capture_size(1, &v); *f = text(v); return r; },
      CMD_ADBLOG_GET_SIZE, "01000000", F::reply(4, "20a10700"), V::done, "500000" },
    { [](TovakClient& c, std::string* f) { uint32_t a = 0, b = 0; auto r = c.get_capture_limits(&a, &b); *f = text(a) + "," + text(b); return r; },
      CMD_ADBLOG_GET_SIZE_LIMITS, "", F::reply(8, "20a10700002d3101"), V::done, "500000,20000000" },
    { act(&TovakClient::set_autosave, false), CMD_SET_AUTOSAVE, "00000000", F::reply(0), V::done, "" },
    { query(&TovakClient::get_autosave, 9u), CMD_GET_AUTOSAVE, "", F::reply(4, "01000000"), V::done, "1" },
    { act(&TovakClient::save_modem_data, TOVAK_MODEM_DATA_STATISTICS), CMD_SAVE_MODEM_DATA, "01000000", F::reply(0), V::done, "" },
    { act(&TovakClient::set_msisdn, "0101234567"), CMD_SET_MSISDN, "0b00" "3031303132333435363700", F::reply(0), V::done, "" },
    { act(&TovakClient::set_dpl_state, 1), CMD_DPL_SET_STATE, "01000000", F::untouched(), V::refused, "" },
    { query(&TovakClient::get_dpl_state, true), CMD_DPL_GET_STATE, "", F::reply(4, "00000000"), V::done, "off" },
    { query(&TovakClient::get_dpl_all_ifaces), CMD_DPL_GET_ALL_IF_LIST, "", F::reply(7, "01000000" "0101" "78"), V::done, "1=x;" },
    { query(&TovakClient::get_dpl_ifaces), CMD_DPL_GET_IF_LIST, "", F::reply(8, "02000000" "0100" "2c01"), V::done, "1;300;" },
    { act(&TovakClient::add_dpl_iface, 300), CMD_DPL_SET_IF, "2c01", F::reply(0), V::done, "" },
    { act(&TovakClient::reset_dpl), CMD_DPL_RESET, "", F::untouched(), V::unknown, "" },
};
// clang-format on

TEST(ClientHelpers, EachSendsItsExactRequestAndReadsItsReply)
{
    std::set<uint32_t> covered;
    for (const HelperCase& c : helper_cases) {
        SCOPED_TRACE(testing::Message() << "command " << c.cmd);
        FakeDaemon fake({ c.answer });
        TovakClient client(5000);
        ASSERT_TRUE(client.connect(fake.socket_path())) << client.error();
        std::string found;
        TovakResult r = c.call(client, &found);
        ASSERT_EQ(TovakStatus::ok, r.status) << client.error();
        EXPECT_EQ(tovak_verdict_text(c.verdict), std::string(tovak_verdict_text(r.shown.verdict))) << r.shown.note;
        EXPECT_EQ(c.found, found);
        EXPECT_EQ(c.answer.len, r.reply_len);
        client.close();
        auto reqs = fake.requests();
        ASSERT_EQ(1u, reqs.size());
        EXPECT_EQ(c.cmd, reqs[0].cmd);
        EXPECT_EQ(c.request, tovak_hex(reqs[0].data, reqs[0].len));
        EXPECT_TRUE(tail_is_zero(reqs[0])) << "a whole frame, zeros past len";
        covered.insert(c.cmd);
    }
    // Every command of the daemon but disconnect has a helper above.
    EXPECT_EQ(42u, covered.size());
}

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
        FakeDaemon fake({ FakeDaemon::hang_up() });
        TovakClient client(5000);
        ASSERT_TRUE(client.connect(fake.socket_path()));
        tovak_pkt reply;
        EXPECT_EQ(TovakStatus::closed, client.transact(0x15, nullptr, 0, &reply));
    }
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
    EXPECT_NE(std::string::npos, client.error().find("cannot connect")) << client.error();
    EXPECT_FALSE(client.connect(std::string(200, 'p')));
    EXPECT_NE(std::string::npos, client.error().find("too long")) << client.error();
    bool on = false;
    EXPECT_EQ(TovakStatus::error, client.get_log_state(&on).status);
}

} // namespace
