// Modem logging on a simulated device: what the modem holds after logging on
// and off, resuming after a restart, faults, the boot wait, edits while
// logging runs, a failed start-up, DPL interfaces, traffic, tovakctl.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <thread>

#include "protocol/tovak_cmd_ids.h"
#include "devsim_ctl.h"
#include "hdlc.h"
#include "platform/diag.h"
#include "sim_device.h"

namespace {

using json = nlohmann::json;

// The default configuration's selections.
const std::vector<int> EVENTS = { 1498, 1499, 1501, 1503, 1606, 1607, 1608, 1611, 1612, 1613, 1685, 1970, 1971, 1972 };
const std::vector<int> LOG_CODES = { 0x412f, 0x713f, 0x7140, 0x7143, 0x7144, 0xb061, 0xb062, 0xb0c0,
                                     0xb0e2, 0xb0e3, 0xb0ec, 0xb0ed, 0xb167, 0xb168, 0xb169, 0xb16a };
const json MSG_MASKS = json::parse("[[5,24],[15,24],[20,24],[3006,24],[3007,24],[3008,24],[3010,24]]");

// dm.cfg with the default selections and the given state elements.
std::string config_text(const std::string& states)
{
    return states +
           "<EventIDs>01498, 01499, 01501, 01503, 01606, 01607, 01608, 01611, 01612, 01613, 01685, 01970, 01971, "
           "01972</EventIDs>\n"
           "<LogCodes>0x412f, 0x713f, 0x7140, 0x7143, 0x7144, 0xb061, 0xb062, 0xb0c0, 0xb0e2, 0xb0e3, 0xb0ec, "
           "0xb0ed, 0xb167, 0xb168, 0xb169, 0xb16a</LogCodes>\n"
           "<MessageLevels>00005/03,00005/04,00015/03,00015/04,00020/03,00020/04,03006/03,03006/04,03007/03,"
           "03007/04,03008/03,03008/04,03010/03,03010/04</MessageLevels>\n";
}

size_t count(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        n++;
    return n;
}

bool has_file_starting(const std::string& dir, const std::string& prefix)
{
    bool found = false;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = d ? readdir(d) : nullptr)
        found = found || std::string(e->d_name).rfind(prefix, 0) == 0;
    if (d)
        closedir(d);
    return found;
}

class Logging : public ::testing::Test {
protected:
    // Starts the device, with a user dm.cfg of its own when one is given.
    void start(const std::vector<std::string>& args = {}, const std::string& dm_cfg = "")
    {
        if (!dm_cfg.empty()) {
            ASSERT_EQ(0, system(("mkdir -p " + dev.path("data/media/0")).c_str()));
            ASSERT_TRUE(write_file(user_config(), dm_cfg));
        }
        ASSERT_TRUE(dev.start(args)) << dev.failure();
        ASSERT_TRUE(dev.wait_stdout("adblog handler is initialized successfully")) << dev.daemon_stdout();
        client = dev.connect(30000);
        ASSERT_TRUE(client);
    }
    std::string user_config() const { return dev.path("data/media/0/dm.cfg"); }
    json status() { return devsim_status(dev.root()); }
    void ctl(const std::vector<std::string>& args)
    {
        std::string err;
        ASSERT_EQ(0, devsim_ctl(dev.root(), args, nullptr, &err)) << err;
    }
    // Sends one command and checks the 4 zero bytes that 0x00 and 0x01 always answer.
    void switch_logging(uint32_t cmd)
    {
        tovak_pkt reply;
        ASSERT_EQ(TovakStatus::ok, client->transact(cmd, nullptr, 0, &reply));
        EXPECT_EQ(4u, reply.len);
        EXPECT_EQ(0u, reply.data[0] | reply.data[1] | reply.data[2] | reply.data[3]);
    }
    // The requests recorded since the last clear-requests, as "modem:hex".
    std::vector<std::string> requests()
    {
        std::vector<std::string> out;
        json st = status();
        for (const json& r : st["requests"])
            out.push_back(r["modem"].get<std::string>() + ":" + r["request"].get<std::string>());
        return out;
    }
    void expect_configured(const json& modem, const char* which)
    {
        EXPECT_EQ(json(EVENTS), modem["events"]) << which;
        EXPECT_EQ(json(LOG_CODES), modem["log_codes"]) << which;
        EXPECT_EQ(MSG_MASKS, modem["msg_masks"]) << which;
    }
    // After log off: event reporting off, no log code, no message mask; the
    // event mask itself is left as it was.
    void expect_reports_off(const json& modem, const char* which)
    {
        EXPECT_FALSE(modem["event_reporting"]) << which;
        EXPECT_EQ(json::array(), modem["log_codes"]) << which;
        EXPECT_EQ(json::array(), modem["msg_masks"]) << which;
    }
    void expect_clear(const json& modem, const char* which)
    {
        EXPECT_EQ(json::array(), modem["events"]) << which;
        EXPECT_EQ(json::array(), modem["log_codes"]) << which;
        EXPECT_EQ(json::array(), modem["msg_masks"]) << which;
    }

    SimDevice dev;
    std::unique_ptr<TovakClient> client;
};

TEST_F(Logging, LogOnProgramsExactlyTheConfiguredMasksWithTheModemsRanges)
{
    start();
    ctl({ "clear-requests" });
    switch_logging(CMD_LOG_ON);

    json st = status();
    expect_configured(st["modems"]["local"], "local");
    EXPECT_TRUE(st["modems"]["local"]["event_reporting"]);
    EXPECT_EQ(2, st["mode"]);
    EXPECT_FALSE(st["modems"]["remote"]["enabled"]);
    expect_clear(st["modems"]["remote"], "remote");
    EXPECT_NE(std::string::npos, read_file(user_config()).find("<LogState>on</LogState>"));

    // Two passes of the same 29 packets around a full clear, nothing else:
    // the event mask, equipment ids 4, 7 and 11, the modem's 25 SSID ranges.
    std::vector<std::string> sent = requests();
    ASSERT_EQ(1u + 29 + 3 + 1 + 29, sent.size());
    std::vector<std::string> pass(sent.begin() + 1, sent.begin() + 30);
    EXPECT_EQ("local:6001", sent[0]);
    EXPECT_EQ((std::vector<std::string>{ "local:6000", "local:7300000000000000", "local:7d05000000000000",
                                         "local:6001" }),
              std::vector<std::string>(sent.begin() + 30, sent.begin() + 34));
    EXPECT_EQ(pass, std::vector<std::string>(sent.begin() + 34, sent.end()));
    // The modem's ranges, not the built-in ones: 2200 events, equipment 7 up
    // to 2400 and 11 up to 2560, and its SSID range 10251-10253.
    EXPECT_EQ("local:8200000098080000", pass[0].substr(0, 22));
    EXPECT_EQ("local:7300000003000000040000001809", pass[1].substr(0, 34));
    EXPECT_EQ("local:7300000003000000070000006009", pass[2].substr(0, 34));
    EXPECT_EQ("local:73000000030000000b000000000a", pass[3].substr(0, 34));
    EXPECT_EQ("local:7d04000078000000", pass[4].substr(0, 22));
    EXPECT_NE(pass.end(), std::find_if(pass.begin(), pass.end(),
                                       [](const std::string& r) { return r.rfind("local:7d040b280d28", 0) == 0; }));
    st = status();
    for (const json& r : st["requests"])
        EXPECT_EQ("answered", r["outcome"]) << r["request"];
    EXPECT_TRUE(dev.wait_stdout("diag_has_remote_device = 0\n"));
    EXPECT_TRUE(dev.wait_stdout("process log_on\n"));
}

TEST_F(Logging, RemoteModemGetsTheSameMasksAndKeepsThemAfterLogOff)
{
    start({ "--remote-modem" });
    switch_logging(CMD_LOG_ON);
    json st = status();
    expect_configured(st["modems"]["local"], "local");
    expect_configured(st["modems"]["remote"], "remote");
    EXPECT_TRUE(dev.wait_stdout("diag_has_remote_device = 1\n"));

    ctl({ "clear-requests" });
    switch_logging(CMD_LOG_OFF);
    st = status();
    expect_reports_off(st["modems"]["local"], "local");
    expect_configured(st["modems"]["remote"], "remote");
    EXPECT_EQ(1, st["mode"]);
    EXPECT_TRUE(st["logging_stopped"]);
    EXPECT_NE(std::string::npos, read_file(user_config()).find("<LogState>off</LogState>"));
    // The clear and the DPL reset, to the local modem only.
    EXPECT_EQ((std::vector<std::string>{ "local:6000", "local:7300000000000000", "local:7d05000000000000",
                                         "local:4b2a0100" }),
              requests());
}

TEST_F(Logging, ARestartWithLogStateOnResumesWithoutAClient)
{
    start();
    switch_logging(CMD_LOG_ON);
    client.reset();
    ASSERT_EQ(0, dev.stop());
    ASSERT_TRUE(dev.start()) << dev.failure();
    ASSERT_TRUE(wait_until([&] { return status()["mode"] == 2; })) << dev.daemon_stdout();
    ASSERT_TRUE(dev.wait_stdout("tovak handler is initialized successfully\n"));
    expect_configured(status()["modems"]["local"], "local");
    std::string out = dev.daemon_stdout();
    EXPECT_NE(std::string::npos, out.find("Current Log state = 1\n"));
    EXPECT_EQ(std::string::npos, out.find("cmd = ")) << "no client asked";
    client = dev.connect();
    bool on = false;
    ASSERT_TRUE(client->get_log_state(&on).done());
    EXPECT_TRUE(on);
}

TEST_F(Logging, LostAndDamagedAnswersDuringLogOnAreSkippedNotRepeated)
{
    start();
    ctl({ "clear-requests" });
    // One lost answer (the caller waits out its 3 s), then three damaged.
    ctl({ "fault", "drop", "1" });
    ctl({ "fault", "corrupt", "3" });
    switch_logging(CMD_LOG_ON);

    json st = status();
    expect_configured(st["modems"]["local"], "local");
    EXPECT_EQ(2, st["mode"]);
    EXPECT_NE(std::string::npos, read_file(user_config()).find("<LogState>on</LogState>"));
    std::vector<std::string> sent = requests();
    ASSERT_EQ(63u, sent.size());
    std::map<std::string, int> times;
    for (const std::string& r : sent)
        times[r]++;
    for (const auto& [r, n] : times) {
        bool once = r == "local:6000" || r == "local:7300000000000000" || r == "local:7d05000000000000";
        EXPECT_EQ(once ? 1 : 2, n) << r;
    }
    const json& recs = st["requests"];
    EXPECT_EQ("dropped", recs[0]["outcome"]);
    for (int i : { 1, 2, 3 })
        EXPECT_EQ("corrupted", recs[i]["outcome"]) << i;
    EXPECT_EQ("answered", recs[4]["outcome"]);
    EXPECT_TRUE(dev.wait_stdout("Critical Error: bad ret for hdlc decode\n"));

    std::vector<uint16_t> ids;
    EXPECT_TRUE(client->get_events(&ids).done()) << "still serving";
    EXPECT_EQ(EVENTS.size(), ids.size());
}

TEST_F(Logging, LogOnWaitsTenSecondsOnceForBootToComplete)
{
    start({ "--no-bootcomplete" });
    auto t0 = std::chrono::steady_clock::now();
    switch_logging(CMD_LOG_ON);
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(waited, std::chrono::seconds(10));
    EXPECT_LT(waited, std::chrono::seconds(19)) << "one wait, not two";
    expect_configured(status()["modems"]["local"], "local");
}

TEST_F(Logging, EditsReachTheModemOnlyAtTheNextLogOn)
{
    start();
    switch_logging(CMD_LOG_ON);
    EXPECT_TRUE(client->add_event(100).done());
    EXPECT_TRUE(client->rm_event(1498).done());
    EXPECT_TRUE(client->add_log(0x1234).done());
    EXPECT_TRUE(client->rm_log(0xb061).done());
    EXPECT_TRUE(client->add_msg(6000, 0x3).done());
    EXPECT_TRUE(client->rm_msg(15).done());
    expect_configured(status()["modems"]["local"], "local");

    switch_logging(CMD_LOG_OFF);
    switch_logging(CMD_LOG_ON);
    json local = status()["modems"]["local"];
    std::vector<int> events = EVENTS;
    events.erase(events.begin());
    events.insert(events.begin(), 100);
    EXPECT_EQ(json(events), local["events"]);
    std::vector<int> codes = LOG_CODES;
    codes.erase(std::find(codes.begin(), codes.end(), 0xb061));
    codes.insert(codes.begin(), 0x1234);
    EXPECT_EQ(json(codes), local["log_codes"]);
    EXPECT_EQ(json::parse("[[5,24],[20,24],[3006,24],[3007,24],[3008,24],[3010,24],[6000,3]]"), local["msg_masks"]);
}

TEST_F(Logging, SwitchingTwiceChangesNothingTheSecondTime)
{
    start();
    const std::string not_started = "Current log state is not LOG_STATE_START so do nothing\n";
    ASSERT_EQ(1u, count(dev.daemon_stdout(), not_started)) << "start-up's own log off";
    switch_logging(CMD_LOG_OFF);
    ASSERT_TRUE(wait_until([&] { return count(dev.daemon_stdout(), not_started) == 2; }));

    switch_logging(CMD_LOG_ON);
    ctl({ "clear-requests" });
    switch_logging(CMD_LOG_ON);
    EXPECT_TRUE(dev.wait_stdout("Current log state is already LOG_STATE_START so do nothing\n"));
    EXPECT_TRUE(requests().empty());

    switch_logging(CMD_LOG_OFF);
    ctl({ "clear-requests" });
    switch_logging(CMD_LOG_OFF);
    EXPECT_TRUE(wait_until([&] { return count(dev.daemon_stdout(), not_started) == 3; }));
    EXPECT_TRUE(requests().empty());
    expect_reports_off(status()["modems"]["local"], "local");
}

TEST_F(Logging, AFailedStartUpLeavesEveryGatedCommandRefusing)
{
    start({}, config_text("<LogState>on</LogState><BufferSize>-1</BufferSize>\n"));
    std::string out = dev.daemon_stdout();
    EXPECT_NE(std::string::npos, out.find("Current Log Buffer Size -1\n"));
    EXPECT_EQ(std::string::npos, out.find("tovak handler is initialized successfully"));

    tovak_pkt reply;
    uint8_t id[2] = { 100, 0 };
    for (uint32_t cmd : { CMD_ADD_EVENT, CMD_GET_EVENTS, CMD_GET_MSG, CMD_SYSTEM_COMMAND }) {
        ASSERT_EQ(TovakStatus::ok, client->transact(cmd, id, sizeof id, &reply)) << cmd;
        EXPECT_EQ(5120u, reply.len) << cmd;
    }
    switch_logging(CMD_LOG_ON);
    EXPECT_TRUE(wait_until([&] { return count(dev.daemon_stdout(), "tovak_handler ERR >> ") >= 6; }));
    json st = status();
    EXPECT_EQ(1, st["mode"]);
    expect_clear(st["modems"]["local"], "local");
    EXPECT_EQ(std::string::npos, read_file(user_config()).find("00100")) << "the refused edit was not saved";
}

TEST_F(Logging, DplInterfacesFollowTheConfigurationAtStartUp)
{
    // 271 is passed as its low 8 bits, 15.
    start({}, config_text("<LogState>on</LogState><BufferSize>50000000</BufferSize><DplState>on</DplState>"
                          "<IfIDs>1, 19, 271</IfIDs>\n"));
    ASSERT_TRUE(dev.wait_stdout("tovak handler is initialized successfully\n")) << dev.daemon_stdout();
    EXPECT_TRUE(dev.wait_stdout("Current dpl state is on\n"));
    json st = status();
    json logging = json::array();
    for (const json& i : st["modems"]["local"]["dpl"])
        if (i["logging"] == true)
            logging.push_back(i["id"]);
    EXPECT_EQ(json({ 1, 15, 19 }), logging);
    EXPECT_EQ(2, st["mode"]);
    expect_configured(st["modems"]["local"], "local");
}

// The packets of a raw framed stream: (kind, id, level) with kind 'L' log
// code, 'E' event, 'M' message (SSID and level).
std::set<std::tuple<char, int, int>> stream_items(const std::string& bytes, size_t* frames)
{
    std::set<std::tuple<char, int, int>> items;
    const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
    size_t at = 0;
    *frames = 0;
    while (at < bytes.size()) {
        std::vector<uint8_t> pkt;
        size_t used = 0;
        if (hdlc_unframe(p + at, bytes.size() - at, &pkt, &used) != HdlcResult::ok || used == 0) {
            ADD_FAILURE() << "bad frame at " << at;
            break;
        }
        at += used;
        ++*frames;
        if (pkt.size() >= 8 && pkt[0] == 0x10)
            items.insert({ 'L', pkt[6] | pkt[7] << 8, 0 });
        else if (pkt.size() >= 5 && pkt[0] == 0x60)
            items.insert({ 'E', (pkt[3] | pkt[4] << 8) & 0x0fff, 0 });
        else if (pkt.size() >= 20 && pkt[0] == 0x79)
            items.insert({ 'M', pkt[14] | pkt[15] << 8, __builtin_ctz(pkt[16] | pkt[17] << 8 | pkt[18] << 16 | pkt[19] << 24) });
        else
            items.insert({ '?', pkt[0], 0 });
    }
    return items;
}

TEST_F(Logging, TheCommittedLogHoldsOnlyEnabledItemsWhereTheOutPathSays)
{
    start();
    EXPECT_EQ(0, status()["modems"]["local"]["traffic"]["produced"]) << "nothing before logging on";
    ASSERT_TRUE(client->capture_on().done()); // the out path also places the next capture commit
    ASSERT_TRUE(client->set_out_path("/sdcard/field/dm").done());
    EXPECT_EQ("/sdcard/field/dm", status()["output_path"]);
    switch_logging(CMD_LOG_ON);
    bool on = false;
    ASSERT_TRUE(client->get_log_state(&on).done());
    EXPECT_TRUE(on);
    // Enough packets to go round all 44 enabled items more than once.
    ASSERT_TRUE(wait_until([&] { return status()["modems"]["local"]["traffic"]["produced"] >= 100; }));
    ASSERT_TRUE(client->commit_log().done());

    const std::string dir = dev.path("data/media/0/field/dm");
    std::string stream;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name).find(".qmdl") != std::string::npos)
                stream += read_file(dir + "/" + e->d_name);
        closedir(d);
    }
    size_t frames = 0;
    auto items = stream_items(stream, &frames);
    EXPECT_GE(frames, 100u);
    std::set<std::tuple<char, int, int>> enabled;
    for (int code : LOG_CODES)
        enabled.insert({ 'L', code, 0 });
    for (int e : EVENTS)
        enabled.insert({ 'E', e, 0 });
    for (const json& m : MSG_MASKS)
        for (int level : { 3, 4 })
            enabled.insert({ 'M', m[0].get<int>(), level });
    EXPECT_EQ(enabled, items);

    // The Android log capture commits once beside it.
    ASSERT_TRUE(wait_until([&] {
        client->capture_commit();
        return has_file_starting(dev.path("data/media/0/field"), "adbmain_");
    }));

    switch_logging(CMD_LOG_OFF);
    json st = status();
    EXPECT_TRUE(st["logging_stopped"]);
    expect_reports_off(st["modems"]["local"], "local");
    ASSERT_TRUE(client->get_log_state(&on).done());
    EXPECT_FALSE(on);
}

TEST_F(Logging, BufferSizeChangesOnlyWhileLoggingIsOffAndIsAppliedAtStartUp)
{
    start();
    int32_t taken = 0;
    ASSERT_TRUE(client->set_log_size(3000000, &taken).done());
    EXPECT_EQ(3000000, taken);
    EXPECT_EQ(3000000, status()["buffer_size"]);

    switch_logging(CMD_LOG_ON);
    // Refused while logging runs: 4 bytes of -1.
    const uint8_t size_req[4] = { 0x80, 0x84, 0x1e, 0x00 }; // 2000000
    tovak_pkt reply;
    ASSERT_EQ(TovakStatus::ok, client->transact(CMD_LOG_SIZE, size_req, 4, &reply));
    EXPECT_EQ(4u, reply.len);
    EXPECT_EQ(0xffffffffu, uint32_t(reply.data[0] | reply.data[1] << 8 | reply.data[2] << 16 | uint32_t(reply.data[3]) << 24));
    EXPECT_EQ(3000000, status()["buffer_size"]);
    EXPECT_NE(std::string::npos, read_file(user_config()).find("<BufferSize>3000000</BufferSize>"));
    switch_logging(CMD_LOG_OFF);

    // A modem that forgot it gets the configured size again at start-up.
    client.reset();
    ASSERT_EQ(0, dev.stop());
    ASSERT_TRUE(dev.start()) << dev.failure();
    ASSERT_TRUE(dev.wait_stdout("Current Log Buffer Size 3000000\n"));
    ASSERT_TRUE(dev.wait_stdout("tovak handler is initialized successfully\n"));
    EXPECT_EQ(3000000, status()["buffer_size"]);
    client = dev.connect();
    uint32_t size = 0;
    ASSERT_TRUE(client->get_buffer_size(&size).done());
    EXPECT_EQ(3000000u, size);
}

TEST_F(Logging, ConcurrentEditsAndSwitchesLoseNothing)
{
    start();
    const int editors = 4;
    const int each = 25;
    std::vector<std::thread> threads;
    std::atomic<int> failures{ 0 };
    for (int t = 0; t < editors; t++) {
        threads.emplace_back([&, t] {
            auto c = dev.connect(30000);
            for (int i = 0; c && i < each; i++)
                if (!c->add_event(uint16_t(100 + t * each + i)).done())
                    failures++;
        });
    }
    threads.emplace_back([&] {
        auto c = dev.connect(30000);
        for (int i = 0; c && i < 2; i++) {
            c->log_on();
            c->log_off();
        }
    });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(0, failures.load());

    std::vector<int> want(EVENTS);
    for (int id = 100; id < 100 + editors * each; id++)
        want.push_back(id);
    std::sort(want.begin(), want.end());
    std::vector<uint16_t> ids;
    ASSERT_TRUE(client->get_events(&ids).done());
    EXPECT_EQ(want, std::vector<int>(ids.begin(), ids.end()));
    std::string file = read_file(user_config());
    for (int id = 100; id < 100 + editors * each; id++) {
        char item[8];
        snprintf(item, sizeof item, "%05d", id);
        EXPECT_NE(std::string::npos, file.find(item)) << id;
    }
    switch_logging(CMD_LOG_ON);
    EXPECT_EQ(json(want), status()["modems"]["local"]["events"]);
}

TEST_F(Logging, TovakctlEditsReachTheModemAtItsLogOn)
{
    start();
    auto run = [&](std::vector<std::string> args) {
        std::vector<std::string> argv = { SimDevice::bin("tovakctl"), "--root", dev.root() };
        argv.insert(argv.end(), args.begin(), args.end());
        std::string out, err;
        EXPECT_EQ(0, SimDevice::run(argv, &out, &err)) << args[0] << ": " << err;
    };
    for (const std::vector<std::string>& edit : std::vector<std::vector<std::string>>{
             { "add-event", "00100" }, { "rm-event", "1498" }, { "add-log", "1234" }, { "rm-log", "0xB061" },
             { "add-msg", "5", "0", "16" }, { "add-msg", "6000", "--mask", "0x18" }, { "rm-msg", "15" } })
        run(edit);
    run({ "log-on" });
    json local = status()["modems"]["local"];
    EXPECT_EQ(json({ 100, 1499 }), json({ local["events"][0], local["events"][1] }));
    EXPECT_EQ(0x1234, local["log_codes"][0]);
    EXPECT_EQ(16u, local["log_codes"].size()) << "0x1234 in, 0xb061 out";
    // Levels 0 and 16: listed as 16 bits, but the modem gets the whole mask.
    EXPECT_EQ(json::parse("[[5, 65537], [20, 24]]"), json({ local["msg_masks"][0], local["msg_masks"][1] }));
    EXPECT_EQ(json::parse("[6000, 24]"), local["msg_masks"].back());
    run({ "log-off" });
    expect_reports_off(status()["modems"]["local"], "local");
}

} // namespace
