// The daemon's modem-side logging code in this process, against a running
// tovak-devsim (no sandbox): the request transport, the range query, the
// clear and enable requests, the packet passes and the start-up routine.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <thread>

#include "config_test_support.h"
#include "linked_devsim.h"
#include "handlers/tovak_handler.h"
#include "host_link.h"
#include "logging/tovak_data.h"
#include "logging/tovak_diag.h"
#include "logging/tovak_logging.h"
#include "sim_device.h"

namespace {

using Bytes = std::vector<uint8_t>;
using nlohmann::json;

std::string hex(const Bytes& b)
{
    std::string s;
    char x[3];
    for (uint8_t c : b) {
        snprintf(x, sizeof x, "%02x", c);
        s += x;
    }
    return s;
}

// The answer of a request routine, released here; nothing when null.
std::optional<Bytes> take(diag_rsp_type* rsp)
{
    if (rsp == nullptr)
        return std::nullopt;
    Bytes b(rsp->data, rsp->data + rsp->length);
    diag_free_rsp(rsp);
    return b;
}

bool has(const std::string& out, const std::string& needle)
{
    return out.find(needle) != std::string::npos;
}

class OnSimModem : public ::testing::Test {
protected:
    void SetUp() override
    {
        reset_config();
        tovak_data_store_packets({});
        tovak_has_remote_device = 0;
        ASSERT_TRUE(sim.start());
    }
    void TearDown() override
    {
        EXPECT_EQ(0, sim.stop());
        reset_config();
        tovak_data_store_packets({});
        tovak_has_remote_device = 0;
        tovak_handler_initialized = 0;
        tovak_log_state = LOG_STATE_IDLE;
    }
    const std::string& root() const { return sim.root(); }
    void ctl(const std::vector<std::string>& args)
    {
        std::string err;
        ASSERT_EQ(0, devsim_ctl(root(), args, nullptr, &err)) << err;
    }
    json status() { return sim.status(); }
    size_t request_count() { return status()["request_count"].get<size_t>(); }
    // The unframed requests the modems got after the first `since`, as
    // "modem:hex".
    std::vector<std::string> requests_after(size_t since)
    {
        json st = status();
        size_t total = st["request_count"].get<size_t>();
        const json& recent = st["requests"];
        std::vector<std::string> out;
        size_t first = total - recent.size();
        for (size_t i = since > first ? since - first : 0; i < recent.size(); i++)
            out.push_back(recent[i]["modem"].get<std::string>() + ":" + recent[i]["request"].get<std::string>());
        return out;
    }

    LinkedDevsim sim;
};

TEST_F(OnSimModem, QueryAppendsTheAnswerAndLeavesTheModeAsItFoundIt)
{
    const uint8_t ssid_query[] = { 0x7d, 0x01 };
    // A stop ends only with a switch to mode 2: whether it is still there
    // tells whether the query switched.
    for (int mode : { 1, 2 }) {
        ASSERT_EQ(1, diag_switch_logging(mode));
        ASSERT_EQ(1, diag_stop_logging());
        Bytes out = { 0xAA };
        ASSERT_EQ(1, tovak_diag_query(ssid_query, sizeof ssid_query, &out)) << mode;
        ASSERT_EQ(1u + 8 + 4 * 25, out.size()) << mode;
        EXPECT_EQ("aa7d0101001900000000007800", hex(Bytes(out.begin(), out.begin() + 13))) << mode;
        json st = status();
        EXPECT_EQ(mode, st["mode"]);
        EXPECT_EQ(mode == 2, st["logging_stopped"]) << mode;
    }
}

TEST_F(OnSimModem, RequestsReachTheirModemAndComeBackUnframed)
{
    ctl({ "remote-modem", "on" });
    testing::internal::CaptureStdout();
    EXPECT_EQ(Bytes({ 0x60, 0, 0 }), take(tovak_diag_request(Bytes{ 0x60, 0x01 }.data(), 2)));
    // Events 1 to 6 make the mask byte 0x7E, which travels escaped both ways.
    const Bytes set = { 0x82, 0, 0, 0, 0x08, 0x00, 0x7e };
    auto answer = take(tovak_diag_request_mdm(set.data(), uint32_t(set.size())));
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(answer);
    ASSERT_EQ(6u + (2200 + 7) / 8, answer->size());
    EXPECT_EQ("820000009808", hex(Bytes(answer->begin(), answer->begin() + 6)));
    EXPECT_EQ(0x7e, (*answer)[6]);
    EXPECT_TRUE(has(out, "Proc encode MDM\n"));
    EXPECT_EQ(1u, std::count(out.begin(), out.end(), '\n')) << out;

    json st = status();
    EXPECT_TRUE(st["modems"]["local"]["event_reporting"]);
    EXPECT_FALSE(st["modems"]["remote"]["event_reporting"]);
    EXPECT_EQ(json({ 1, 2, 3, 4, 5, 6 }), st["modems"]["remote"]["events"]);
    EXPECT_EQ(json::array(), st["modems"]["local"]["events"]);
    EXPECT_EQ(1, st["mode"]) << "requests never switch the mode";
}

TEST_F(OnSimModem, ARequestWithNothingToSendFailsAtOnce)
{
    const uint8_t pkt[] = { 0x60, 0x01 };
    const size_t before = request_count();
    for (auto request : { tovak_diag_request, tovak_diag_request_mdm }) {
        for (auto [p, len] : { std::pair<const uint8_t*, uint32_t>{ nullptr, 2 }, { pkt, 0 } }) {
            testing::internal::CaptureStdout();
            EXPECT_EQ(nullptr, request(p, len));
            std::string out = testing::internal::GetCapturedStdout();
            EXPECT_TRUE(has(out, "tovak_handler ERR >> ")) << out;
            EXPECT_FALSE(has(out, "Proc encode MDM")) << out;
        }
    }
    Bytes out;
    EXPECT_EQ(0, tovak_diag_query(nullptr, 2, &out));
    EXPECT_EQ(0, tovak_diag_query(pkt, 0, &out));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(before, request_count());
}

TEST_F(OnSimModem, LostOrDamagedAnswersFailWithoutARetry)
{
    sim_host_set_timeout_ms(400);
    const Bytes pkt = { 0x60, 0x01 };
    auto local = [&] { return take(tovak_diag_request(pkt.data(), 2)).has_value(); };
    auto remote = [&] { return take(tovak_diag_request_mdm(pkt.data(), 2)).has_value(); };
    auto query = [&] {
        Bytes out;
        return tovak_diag_query(pkt.data(), 2, &out) == 1;
    };
    struct Case {
        const char* name;
        std::function<bool()> send;
        std::vector<std::string> fault;
        bool decode_message;
        bool err_line;
    };
    const Case cases[] = {
        { "request, damaged", local, { "fault", "corrupt", "1" }, true, true },
        { "request, lost", local, { "fault", "drop", "1" }, false, true },
        { "remote request, damaged", remote, { "fault", "corrupt", "1" }, true, true },
        { "remote request, no remote modem", remote, { "remote-modem", "off" }, false, true },
        { "query, damaged", query, { "fault", "corrupt", "1" }, true, false },
        { "query, lost", query, { "fault", "drop", "1" }, false, false },
    };
    for (const Case& c : cases) {
        ctl({ "remote-modem", "on" });
        ctl(c.fault);
        const size_t before = request_count();
        testing::internal::CaptureStdout();
        EXPECT_FALSE(c.send()) << c.name;
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(c.decode_message, has(out, "Critical Error: bad ret for hdlc decode\n")) << c.name << out;
        EXPECT_EQ(c.err_line, has(out, "tovak_handler ERR >> ")) << c.name << out;
        EXPECT_EQ(before + 1, request_count()) << c.name;
        // The next request is answered again.
        ctl({ "remote-modem", "on" });
        EXPECT_TRUE(c.send()) << c.name;
    }
    EXPECT_EQ(1, status()["mode"]) << "the query put the mode back after its failures too";
}

TEST_F(OnSimModem, AFailedQueryKeepsWhatCameAndARetryAppendsAgain)
{
    // Nothing from a first query that fails.
    ctl({ "fault", "corrupt", "1" });
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, getVariousInfoOnEventLogMessage());
    EXPECT_TRUE(has(testing::internal::GetCapturedStdout(), "Critical Error: Error in send diag packet Case 1\n"));
    {
        tovak_config_locked c;
        EXPECT_EQ(0, c->ranges_known);
        EXPECT_TRUE(c->log_last_items.empty());
    }

    // The second query lost: the first answer is held back long enough to
    // arm the drop after it was taken.
    sim_host_set_timeout_ms(2500);
    ctl({ "fault", "delay", "1500" });
    const size_t before = request_count();
    int result = -1;
    testing::internal::CaptureStdout();
    std::thread query([&] { result = getVariousInfoOnEventLogMessage(); });
    bool armed = wait_until([&] { return request_count() == before + 1; }, std::chrono::seconds(10));
    if (armed) {
        ctl({ "fault", "drop", "1" });
        ctl({ "fault", "delay", "0" });
    }
    query.join();
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(armed);
    EXPECT_EQ(0, result);
    EXPECT_TRUE(has(out, "Critical Error: Error in send diag packet Case 2\n")) << out;
    {
        tovak_config_locked c;
        EXPECT_EQ(0, c->ranges_known);
        EXPECT_EQ(16u, c->log_last_items.size());
        EXPECT_TRUE(c->msg_ssid_ranges.empty());
    }

    ctl({ "fault", "clear" });
    EXPECT_EQ(1, getVariousInfoOnEventLogMessage());
    {
        tovak_config_locked c;
        EXPECT_EQ(1, c->ranges_known);
        ASSERT_EQ(32u, c->log_last_items.size()) << "appended again, not replaced";
        EXPECT_EQ(1800u, c->log_last_items[1]);
        EXPECT_EQ(1800u, c->log_last_items[17]);
        EXPECT_EQ(25u, c->msg_ssid_ranges.size());
        EXPECT_EQ(2200, c->event_id_count);
    }
    const size_t asked = request_count();
    EXPECT_EQ(1, getVariousInfoOnEventLogMessage());
    EXPECT_EQ(asked, request_count()) << "known ranges are not asked again";
}

TEST_F(OnSimModem, ClearAndEnableSendTheirRequestsInOrder)
{
    struct Case {
        const char* name;
        uint32_t (*routine)();
        int damaged;
        uint32_t result;
        std::vector<std::string> sent;
        bool done_line;
    };
    const Case cases[] = {
        { "clear", tovak_disable_all_reports, 0, 1,
          { "local:6000", "local:7300000000000000", "local:7d05000000000000" }, true },
        { "clear stops at the first failure", tovak_disable_all_reports, 1, 0, { "local:6000" }, false },
        { "enable", tovak_enable_event_report, 0, 1, { "local:6001" }, false },
        { "enable unanswered", tovak_enable_event_report, 1, 0, { "local:6001" }, false },
    };
    for (const Case& c : cases) {
        // Something to clear.
        take(tovak_diag_request(Bytes{ 0x7d, 0x05, 0, 0, 0x08, 0, 0, 0 }.data(), 8));
        if (c.damaged)
            ctl({ "fault", "corrupt", std::to_string(c.damaged) });
        const size_t before = request_count();
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.result, c.routine()) << c.name;
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(c.sent, requests_after(before)) << c.name;
        EXPECT_EQ(c.done_line, has(out, "successfully disabled\n")) << c.name;
        EXPECT_EQ(c.routine == tovak_disable_all_reports, has(out, "disable all item report\n")) << c.name;
        if (c.result && c.routine == tovak_disable_all_reports) {
            EXPECT_EQ(json::array(), status()["modems"]["local"]["msg_masks"]) << c.name;
        }
    }
}

TEST_F(OnSimModem, APassSendsAtMostOneHundredPacketsToEachModem)
{
    // 120 packets setting SSID 5's mask to 0, 1, 2, ... in turn.
    std::vector<tovak_packet> packets;
    for (uint8_t i = 0; i < 120; i++)
        packets.push_back({ 0x7d, 0x04, 0x05, 0x00, 0x05, 0x00, 0x00, 0x00, i, 0, 0, 0 });
    ASSERT_EQ(0, tovak_data_store_packets(packets));

    size_t before = request_count();
    ctl({ "fault", "corrupt", "2" }); // two damaged answers: skipped, not sent again
    EXPECT_EQ(100u, tovak_send_dm_packets());
    auto sent = requests_after(before);
    ASSERT_EQ(100u, sent.size());
    EXPECT_EQ("local:7d0405000500000000000000", sent.front());
    EXPECT_EQ("local:7d0405000500000063000000", sent.back());
    EXPECT_EQ(json::parse("[[5, 99]]"), status()["modems"]["local"]["msg_masks"]);

    // With a remote modem each packet goes there right after the local one.
    ctl({ "remote-modem", "on" });
    tovak_has_remote_device = 1;
    before = request_count();
    EXPECT_EQ(100u, tovak_send_dm_packets());
    sent = requests_after(before);
    ASSERT_EQ(200u, sent.size());
    EXPECT_EQ("local:7d0405000500000000000000", sent[0]);
    EXPECT_EQ("remote:7d0405000500000000000000", sent[1]);
    EXPECT_EQ("remote:7d0405000500000063000000", sent[199]);
    EXPECT_EQ(json::parse("[[5, 99]]"), status()["modems"]["remote"]["msg_masks"]);

    ASSERT_EQ(0, tovak_data_store_packets({}));
    before = request_count();
    EXPECT_EQ(0u, tovak_send_dm_packets());
    EXPECT_EQ(before, request_count());
}

// The start-up file is the host's own path here; a host that has one can't
// run these.
bool host_has_startup_file()
{
    struct stat st;
    return stat("/data/media/0/dm.cfg", &st) == 0;
}

TEST_F(OnSimModem, StartUpOpensTheGateWithLoggingOff)
{
    if (host_has_startup_file())
        GTEST_SKIP() << "this host has its own /data/media/0/dm.cfg";
    testing::internal::CaptureStdout();
    EXPECT_EQ(1u, tovak_handler_init());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(1, tovak_handler_initialized);
    EXPECT_EQ(LOG_STATE_IDLE, tovak_log_state);
    const char* in_order[] = {
        "Configuration File Loading Fail so load default config.\n",
        "  tovak_data_load_dm_packet(), total packet_cnt 29\n",
        "Current Log Buffer Size 50000000\n",
        "Current Log state = 0\n",
        "Current log state is not LOG_STATE_START so do nothing\n",
        "tovak_handler ERR >> ",
        "Current dpl state is off\n",
        "tovak handler is initialized successfully\n",
    };
    size_t at = 0;
    for (const char* line : in_order) {
        size_t found = out.find(line, at);
        EXPECT_NE(std::string::npos, found) << line << "\n" << out;
        if (found != std::string::npos)
            at = found;
    }
    json st = status();
    EXPECT_EQ(50000000, st["buffer_size"]);
    EXPECT_EQ(1, st["mode"]);
    EXPECT_EQ(json::array(), st["modems"]["local"]["events"]) << "logging off sends no masks";
    EXPECT_EQ(29u, tovak_data_dm_packet_count()) << "built with the modem's ranges, asked while loading";
}

TEST_F(OnSimModem, StartUpWithoutTheModemLeavesTheGateShut)
{
    if (host_has_startup_file())
        GTEST_SKIP() << "this host has its own /data/media/0/dm.cfg";
    TempDir nowhere;
    sim_host_set_root(nowhere.path());
    testing::internal::CaptureStdout();
    EXPECT_EQ(0u, tovak_handler_init());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, tovak_handler_initialized);
    EXPECT_TRUE(has(out, "Critical Error: Can't initiate diag object\n"));
    EXPECT_TRUE(has(out, "  tovak_data_load_dm_packet(), total packet_cnt 27\n")) << "the built-in tables serve";
    EXPECT_TRUE(has(out, "tovak_handler ERR >> "));
    EXPECT_FALSE(has(out, "Current Log Buffer Size"));
    EXPECT_FALSE(has(out, "initialized successfully"));
}

} // namespace
