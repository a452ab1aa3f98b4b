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
using Answer = FakeDaemon::Answer;

std::string ids_text(const std::vector<uint16_t>& v)
{
    std::string s;
    for (uint16_t x : v)
        s += (s.empty() ? "" : ",") + std::to_string(x);
    return s;
}

struct HelperCase {
    const char* what;
    std::function<TovakResult(TovakClient&, std::string*)> call;
    uint32_t cmd;
    const char* request; // payload hex
    Answer answer;
    TovakVerdict verdict;
    const char* found; // what the helper handed back
};

// clang-format off
const HelperCase helper_cases[] = {
    { "log_on", [](TovakClient& c, std::string*) { return c.log_on(); }, CMD_LOG_ON, "", FakeDaemon::reply(4, "00000000"), V::unknown, "" },
    { "log_off refused", [](TovakClient& c, std::string*) { return c.log_off(); }, CMD_LOG_OFF, "", FakeDaemon::untouched(), V::refused, "" },
    { "set_log_size", [](TovakClient& c, std::string* f) { int32_t t = 0; auto r = c.set_log_size(50000000, &t); *f = std::to_string(t); return r; },
      CMD_LOG_SIZE, "80f0fa02", FakeDaemon::reply(4, "80f0fa02"), V::done, "50000000" },
    { "set_log_size refused", [](TovakClient& c, std::string* f) { int32_t t = 7; auto r = c.set_log_size(0, &t); *f = std::to_string(t); return r; },
      CMD_LOG_SIZE, "00000000", FakeDaemon::reply(4, "ffffffff"), V::refused, "7" },
    { "set_out_path", [](TovakClient& c, std::string*) { return c.set_out_path("/sdcard/logs/dm"); },
      CMD_OUT_PATH, "2f7364636172642f6c6f67732f646d00", FakeDaemon::reply(4, "00000000"), V::done, "" },
    { "commit_log", [](TovakClient& c, std::string*) { return c.commit_log(); }, CMD_COMMIT_LOG, "", FakeDaemon::reply(0), V::done, "" },
    { "add_event", [](TovakClient& c, std::string*) { return c.add_event(1498); }, CMD_ADD_EVENT, "da05", FakeDaemon::reply(0), V::done, "" },
    { "rm_event", [](TovakClient& c, std::string*) { return c.rm_event(1498); }, CMD_RM_EVENT, "da05", FakeDaemon::reply(0), V::done, "" },
    { "get_events", [](TovakClient& c, std::string* f) { std::vector<uint16_t> v; auto r = c.get_events(&v); *f = ids_text(v); return r; },
      CMD_GET_EVENTS, "", FakeDaemon::reply(6, "da05db05dd05"), V::done, "1498,1499,1501" },
    { "add_log", [](TovakClient& c, std::string*) { return c.add_log(0xb061); }, CMD_ADD_LOG, "61b0", FakeDaemon::reply(0), V::done, "" },
    { "rm_log", [](TovakClient& c, std::string*) { return c.rm_log(0x412f); }, CMD_RM_LOG, "2f41", FakeDaemon::reply(0), V::done, "" },
    { "get_logs", [](TovakClient& c, std::string* f) { std::vector<uint16_t> v; auto r = c.get_logs(&v); *f = ids_text(v); return r; },
      CMD_GET_LOGS, "", FakeDaemon::reply(4, "2f4161b0"), V::done, "16687,45153" },
    { "add_msg", [](TovakClient& c, std::string*) { return c.add_msg(5, 65537); }, CMD_ADD_MSG, "050001000100", FakeDaemon::reply(0), V::done, "" },
    { "rm_msg", [](TovakClient& c, std::string*) { return c.rm_msg(3006); }, CMD_RM_MSG, "be0b", FakeDaemon::reply(0), V::done, "" },
    { "get_msgs", [](TovakClient& c, std::string* f) {
          std::vector<TovakMsgEntry> v; auto r = c.get_msgs(&v);
          for (auto& m : v) *f += std::to_string(m.ssid) + "/" + std::to_string(m.mask) + " ";
          return r; },
      CMD_GET_MSG, "", FakeDaemon::reply(8, "0500000001000000"), V::done, "5/1 " },
    { "get_buffer_size", [](TovakClient& c, std::string* f) { uint32_t v = 0; auto r = c.get_buffer_size(&v); *f = std::to_string(v); return r; },
      CMD_GET_BUFFER_SIZE, "", FakeDaemon::reply(4, "80f0fa02"), V::done, "50000000" },
    { "get_log_state", [](TovakClient& c, std::string* f) { bool on = false; auto r = c.get_log_state(&on); *f = on ? "on" : "off"; return r; },
      CMD_GET_LOG_STATE, "", FakeDaemon::reply(4, "01000000"), V::done, "on" },
    { "set_config_file", [](TovakClient& c, std::string*) { return c.set_config_file("/sdcard/x.cfg"); },
      CMD_SET_CONFIG_FILE, "0e00" "2f7364636172642f782e63666700", FakeDaemon::untouched(), V::unknown, "" },
    { "get_config_file", [](TovakClient& c, std::string* f) { return c.get_config_file(f); },
      CMD_GET_CONFIG_FILE, "", FakeDaemon::reply(4, "0200" "6100"), V::done, "a" },
    { "run_system", [](TovakClient& c, std::string*) { return c.run_system("@@#ps"); },
      CMD_SYSTEM_COMMAND, "0600" "4040237073" "00", FakeDaemon::untouched(), V::unknown, "" },
    { "get_range", [](TovakClient& c, std::string* f) { uint32_t a = 0, b = 0; auto r = c.get_range(&a, &b); *f = std::to_string(a) + "," + std::to_string(b); return r; },
      CMD_GET_RANGE, "", FakeDaemon::reply(8, "0100000002000000"), V::done, "1,2" },
    { "capture_on", [](TovakClient& c, std::string*) { return c.capture_on(); }, CMD_ADBLOG_ON, "", FakeDaemon::reply(0), V::done, "" },
    { "capture_off", [](TovakClient& c, std::string*) { return c.capture_off(); }, CMD_ADBLOG_OFF, "", FakeDaemon::untouched(), V::refused, "" },
    { "capture_commit", [](TovakClient& c, std::string*) { return c.capture_commit(); }, CMD_ADBLOG_COMMIT, "", FakeDaemon::reply(0), V::unknown, "" },
    { "get_capture_state", [](TovakClient& c, std::string* f) { bool on = true; auto r = c.get_capture_state(&on); *f = on ? "on" : "off"; return r; },
      CMD_ADBLOG_GET_STATE, "", FakeDaemon::reply(4, "00000000"), V::done, "off" },
    { "add_category", [](TovakClient& c, std::string*) { return c.add_category(2); }, CMD_ADBLOG_ADD_CATEGORY, "02000000", FakeDaemon::untouched(), V::unknown, "" },
    { "rm_category", [](TovakClient& c, std::string*) { return c.rm_category(3); }, CMD_ADBLOG_RM_CATEGORY, "03000000", FakeDaemon::untouched(), V::unknown, "" },
    { "get_categories", [](TovakClient& c, std::string* f) { std::vector<bool> v; auto r = c.get_categories(&v); for (bool b : v) *f += b ? "1" : "0"; return r; },
      CMD_ADBLOG_GET_CATEGORIES, "", FakeDaemon::reply(16, "01000000010000000000000001000000"), V::done, "1101" },
    { "save_categories", [](TovakClient& c, std::string*) { return c.save_categories(); }, CMD_ADBLOG_SET_CATEGORIES, "", FakeDaemon::untouched(), V::unknown, "" },
    { "get_category_names", [](TovakClient& c, std::string* f) { std::vector<std::string> v; auto r = c.get_category_names(&v); for (auto& n : v) *f += n + ";"; return r; },
      CMD_ADBLOG_GET_CATEGORY_NAME, "", FakeDaemon::reply(11, "6d61696e2c726164696f00"), V::done, "main;radio;" },
    { "set_capture_size", [](TovakClient& c, std::string*) { return c.set_capture_size(0, 100); }, CMD_ADBLOG_SET_SIZE, "00000000" "64000000", FakeDaemon::untouched(), V::unknown, "" },
    { "get_capture_size", [](TovakClient& c, std::string* f) { uint32_t v = 0; auto r = c.get_capture_size(1, &v); *f = std::to_string(v); return r; },
      CMD_ADBLOG_GET_SIZE, "01000000", FakeDaemon::reply(4, "20a10700"), V::done, "500000" },
    { "get_capture_limits", [](TovakClient& c, std::string* f) { uint32_t a = 0, b = 0; auto r = c.get_capture_limits(&a, &b); *f = std::to_string(a) + "," + std::to_string(b); return r; },
      CMD_ADBLOG_GET_SIZE_LIMITS, "", FakeDaemon::reply(8, "20a10700002d3101"), V::done, "500000,20000000" },
    { "set_autosave off", [](TovakClient& c, std::string*) { return c.set_autosave(false); }, CMD_SET_AUTOSAVE, "00000000", FakeDaemon::reply(0), V::done, "" },
    { "get_autosave", [](TovakClient& c, std::string* f) { uint32_t v = 9; auto r = c.get_autosave(&v); *f = std::to_string(v); return r; },
      CMD_GET_AUTOSAVE, "", FakeDaemon::reply(4, "01000000"), V::done, "1" },
    { "save_modem_data", [](TovakClient& c, std::string*) { return c.save_modem_data(TOVAK_MODEM_DATA_STATISTICS); }, CMD_SAVE_MODEM_DATA, "01000000", FakeDaemon::reply(0), V::done, "" },
    { "set_msisdn", [](TovakClient& c, std::string*) { return c.set_msisdn("0101234567"); },
      CMD_SET_MSISDN, "0b00" "3031303132333435363700", FakeDaemon::reply(0), V::done, "" },
    { "set_dpl_state", [](TovakClient& c, std::string*) { return c.set_dpl_state(1); }, CMD_DPL_SET_STATE, "01000000", FakeDaemon::untouched(), V::refused, "" },
    { "get_dpl_state", [](TovakClient& c, std::string* f) { bool on = true; auto r = c.get_dpl_state(&on); *f = on ? "on" : "off"; return r; },
      CMD_DPL_GET_STATE, "", FakeDaemon::reply(4, "00000000"), V::done, "off" },
    { "get_dpl_all_ifaces", [](TovakClient& c, std::string* f) { std::vector<TovakDplIface> v; auto r = c.get_dpl_all_ifaces(&v); for (auto& i : v) *f += std::to_string(i.id) + "=" + i.desc; return r; },
      CMD_DPL_GET_ALL_IF_LIST, "", FakeDaemon::reply(7, "01000000" "0101" "78"), V::done, "1=x" },
    { "get_dpl_ifaces", [](TovakClient& c, std::string* f) { std::vector<uint16_t> v; auto r = c.get_dpl_ifaces(&v); *f = ids_text(v); return r; },
      CMD_DPL_GET_IF_LIST, "", FakeDaemon::reply(8, "02000000" "0100" "2c01"), V::done, "1,300" },
    { "add_dpl_iface", [](TovakClient& c, std::string*) { return c.add_dpl_iface(300); }, CMD_DPL_SET_IF, "2c01", FakeDaemon::reply(0), V::done, "" },
    { "reset_dpl", [](TovakClient& c, std::string*) { return c.reset_dpl(); }, CMD_DPL_RESET, "", FakeDaemon::untouched(), V::unknown, "" },
};
// clang-format on

TEST(ClientHelpers, EachSendsItsExactRequestAndReadsItsReply)
{
    std::set<uint32_t> covered;
    for (const HelperCase& c : helper_cases) {
        FakeDaemon fake({ c.answer });
        TovakClient client(5000);
        ASSERT_TRUE(client.connect(fake.socket_path())) << client.error();
        std::string found;
        TovakResult r = c.call(client, &found);
        ASSERT_EQ(TovakStatus::ok, r.status) << c.what << ": " << client.error();
        EXPECT_EQ(tovak_verdict_text(c.verdict), std::string(tovak_verdict_text(r.shown.verdict))) << c.what << ": " << r.shown.note;
        EXPECT_EQ(c.found, found) << c.what;
        EXPECT_EQ(c.answer.len, r.reply_len) << c.what;
        EXPECT_EQ(r.done(), c.verdict == V::done) << c.what;
        client.close();
        auto reqs = fake.requests();
        ASSERT_EQ(1u, reqs.size()) << c.what;
        EXPECT_EQ(c.cmd, reqs[0].cmd) << c.what;
        EXPECT_EQ(c.request, tovak_hex(reqs[0].data, reqs[0].len)) << c.what;
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

TEST(ClientTransport, RequestIsOneWholeFrame)
{
    FakeDaemon fake({ FakeDaemon::reply(0) });
    TovakClient client(5000);
    ASSERT_TRUE(client.connect(fake.socket_path()));
    ASSERT_TRUE(client.add_event(7).done());
    auto reqs = fake.requests();
    ASSERT_EQ(1u, reqs.size());
    EXPECT_EQ(2u, reqs[0].len);
    for (uint32_t i = 2; i < TOVAK_PKT_DATA_SIZE; i++)
        ASSERT_EQ(0, reqs[0].data[i]) << i;
}

TEST(ClientTransport, ReplyInPiecesIsReassembled)
{
    // Cut inside the header and inside the payload.
    Answer a = FakeDaemon::reply(6, "da05db05dd05");
    a.cuts = { 3, 9, 4000 };
    FakeDaemon fake({ a });
    TovakClient client(5000);
    ASSERT_TRUE(client.connect(fake.socket_path()));
    std::vector<uint16_t> ids;
    TovakResult r = client.get_events(&ids);
    ASSERT_EQ(TovakStatus::ok, r.status) << client.error();
    EXPECT_EQ("1498,1499,1501", ids_text(ids));
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
        Answer a = FakeDaemon::reply(0);
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
