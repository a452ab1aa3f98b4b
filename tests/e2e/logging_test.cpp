// Modem logging on a simulated device: the exact requests of log on and
// off, faults on the modem link, resuming after a restart, a failed
// start-up, DPL at start-up, what reaches the log file, and edits racing
// with switches.
#include <dirent.h>

#include <algorithm>
#include <map>
#include <set>
#include <thread>

#include "device_test.h"
#include "hdlc.h"

namespace {

using json = nlohmann::json;

// The default configuration's selections, as the modem's status shows them.
const std::vector<int> EVENTS = { 1498, 1499, 1501, 1503, 1606, 1607, 1608, 1611, 1612, 1613, 1685, 1970, 1971, 1972 };
const std::vector<int> LOG_CODES = { 0x412f, 0x713f, 0x7140, 0x7143, 0x7144, 0xb061, 0xb062, 0xb0c0,
                                     0xb0e2, 0xb0e3, 0xb0ec, 0xb0ed, 0xb167, 0xb168, 0xb169, 0xb16a };
const json MSG_MASKS = json::parse("[[5,24],[15,24],[20,24],[3006,24],[3007,24],[3008,24],[3010,24]]");
const std::vector<std::string> CLEAR = { "local:6000", "local:7300000000000000", "local:7d05000000000000" };

class Logging : public DeviceTest {
protected:
    void switch_logging(uint32_t cmd, TovakClient* c = nullptr)
    {
        tovak_pkt reply = send(cmd, {}, c);
        EXPECT_EQ(4u, reply.len);
        EXPECT_EQ(0u, tovak_get_u32(reply.data));
    }
    // The requests recorded since the last clear-requests, as "modem:hex".
    std::vector<std::string> requests()
    {
        std::vector<std::string> out;
        const json st = status();
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
    // Event reporting off, no log code, no message mask.
    void expect_reports_off(const json& modem, const char* which)
    {
        EXPECT_FALSE(modem["event_reporting"]) << which;
        EXPECT_EQ(json::array(), modem["log_codes"]) << which;
        EXPECT_EQ(json::array(), modem["msg_masks"]) << which;
    }
    bool log_state_saved(bool on)
    {
        return read_file(user_config()).find(on ? "<LogState>on</LogState>" : "<LogState>off</LogState>") !=
               std::string::npos;
    }
};

TEST_F(Logging, LogOnSendsExactlyTheConfiguredMasksWithTheModemsRanges)
{
    start();
    ctl({ "clear-requests" });
    switch_logging(CMD_LOG_ON);
    json st = status();
    expect_configured(st["modems"]["local"], "local");
    EXPECT_TRUE(st["modems"]["local"]["event_reporting"]);
    EXPECT_EQ(2, st["mode"]);
    EXPECT_TRUE(log_state_saved(true));

    // Two passes of the same 29 packets around a full clear: the event mask,
    // equipment ids 4, 7 and 11, the modem's 25 SSID ranges.
    std::vector<std::string> sent = requests();
    ASSERT_EQ(1u + 29 + 3 + 1 + 29, sent.size());
    std::vector<std::string> pass(sent.begin() + 1, sent.begin() + 30);
    EXPECT_EQ("local:6001", sent[0]);
    EXPECT_EQ(CLEAR, std::vector<std::string>(sent.begin() + 30, sent.begin() + 33));
    EXPECT_EQ("local:6001", sent[33]);
    EXPECT_EQ(pass, std::vector<std::string>(sent.begin() + 34, sent.end()));
    // The modem's ranges, not the built-in ones: 2200 events, equipment 7 up
    // to 2400 and 11 up to 2560, and its SSID range 10251-10253.
    EXPECT_EQ("local:8200000098080000", pass[0].substr(0, 22));
    EXPECT_EQ("local:7300000003000000040000001809", pass[1].substr(0, 34));
    EXPECT_EQ("local:7300000003000000070000006009", pass[2].substr(0, 34));
    EXPECT_EQ("local:73000000030000000b000000000a", pass[3].substr(0, 34));
    EXPECT_EQ("local:7d04000078000000", pass[4].substr(0, 22));
    EXPECT_EQ(1,
              std::count_if(pass.begin(), pass.end(), [](auto& r) { return r.rfind("local:7d040b280d28", 0) == 0; }));

    // A second log on changes nothing; log off clears and resets DPL.
    ctl({ "clear-requests" });
    switch_logging(CMD_LOG_ON);
    EXPECT_TRUE(requests().empty());
    switch_logging(CMD_LOG_OFF);
    std::vector<std::string> off = CLEAR;
    off.push_back("local:4b2a0100");
    EXPECT_EQ(off, requests());
    st = status();
    expect_reports_off(st["modems"]["local"], "local");
    EXPECT_EQ(1, st["mode"]);
    EXPECT_TRUE(log_state_saved(false));
}

TEST_F(Logging, RemoteModemGetsTheSameMasksAndKeepsThemAfterLogOff)
{
    start({ "--remote-modem" });
    switch_logging(CMD_LOG_ON);
    expect_configured(status()["modems"]["remote"], "remote");
    switch_logging(CMD_LOG_OFF);
    json st = status();
    expect_reports_off(st["modems"]["local"], "local");
    expect_configured(st["modems"]["remote"], "remote");
}

// Each request is sent once per pass whatever its answer; a lost one costs
// its time-out, a late one is never taken for a later request's answer.
TEST_F(Logging, LostDamagedAndLateAnswersAreSkippedNotRepeated)
{
    start();
    struct Case {
        const char* name;
        std::vector<std::vector<std::string>> faults;
        std::vector<std::string> outcomes; // of the first requests
    };
    const Case cases[] = {
        { "lost then damaged",
          { { "fault", "drop", "1" }, { "fault", "corrupt", "3" } },
          { "dropped", "corrupted", "corrupted", "corrupted", "answered" } },
        { "late", { { "fault", "delay", "3500" } }, {} },
    };
    for (const Case& c : cases) {
        switch_logging(CMD_LOG_OFF);
        ctl({ "clear-requests" });
        for (const auto& f : c.faults)
            ctl(f);
        std::thread on([&] { switch_logging(CMD_LOG_ON); });
        if (c.outcomes.empty()) {
            // Only the first answer is late: the rest come at once again.
            EXPECT_TRUE(wait_until([&] { return status()["request_count"] >= 1; }));
            ctl({ "fault", "delay", "0" });
        }
        on.join();
        json st = status();
        expect_configured(st["modems"]["local"], c.name);
        EXPECT_TRUE(log_state_saved(true)) << c.name;
        std::map<std::string, int> times;
        for (const std::string& r : requests())
            times[r]++;
        EXPECT_EQ(63, st["requests"].size()) << c.name;
        for (const auto& [r, n] : times)
            EXPECT_EQ(std::count(CLEAR.begin(), CLEAR.end(), r) ? 1 : 2, n) << c.name << " " << r;
        for (size_t i = 0; i < c.outcomes.size(); i++)
            EXPECT_EQ(c.outcomes[i], st["requests"][i]["outcome"]) << c.name << " " << i;
    }
    EXPECT_TRUE(dev.wait_stdout("Critical Error: bad ret for hdlc decode\n"));
}

TEST_F(Logging, ARestartWithLogStateOnResumesWithoutAClient)
{
    start();
    switch_logging(CMD_LOG_ON);
    restart();
    expect_configured(status()["modems"]["local"], "local");
    EXPECT_EQ(2, status()["mode"]);
    EXPECT_EQ(std::string::npos, dev.daemon_stdout().find("cmd = ")) << "no client asked";
    tovak_pkt reply = send(CMD_GET_LOG_STATE);
    EXPECT_EQ(1u, tovak_get_u32(reply.data));
}

// Log on reads the configuration file again once a save or a query has
// named it; before that, what start-up loaded stands.
TEST_F(Logging, LogOnReadsTheConfigurationFileAfreshOnceNamed)
{
    start();
    for (const json& events : { json(EVENTS), json({ 7 }) }) {
        ASSERT_TRUE(write_file(user_config(), "<EventIDs>7</EventIDs>"));
        switch_logging(CMD_LOG_ON);
        EXPECT_EQ(events, status()["modems"]["local"]["events"]);
        switch_logging(CMD_LOG_OFF);
    }
}

TEST_F(Logging, AFailedStartUpLeavesGatedCommandsRefusingAndTheModemUntouched)
{
    start({}, "<LogState>on</LogState><BufferSize>-1</BufferSize><EventIDs>1</EventIDs>");
    EXPECT_EQ(std::string::npos, dev.daemon_stdout().find("tovak handler is initialized successfully"));
    for (uint32_t cmd : { CMD_ADD_EVENT, CMD_GET_EVENTS, CMD_SYSTEM_COMMAND })
        EXPECT_EQ(5120u, send(cmd, tovak_pack_u16(100)).len) << cmd;
    switch_logging(CMD_LOG_ON);
    json st = status();
    EXPECT_EQ(1, st["mode"]);
    EXPECT_EQ(json::array(), st["modems"]["local"]["events"]);
    EXPECT_EQ(std::string::npos, read_file(user_config()).find("00100")) << "the refused edit was not saved";
}

TEST_F(Logging, DplInterfacesFollowTheConfigurationAtStartUp)
{
    // 271 is passed as its low 8 bits, 15.
    start({}, "<LogState>on</LogState><BufferSize>50000000</BufferSize><DplState>on</DplState>"
              "<IfIDs>1, 19, 271</IfIDs><EventIDs>1</EventIDs>");
    ASSERT_TRUE(wait_until([&] { return status()["mode"] == 2; }));
    json logging = json::array();
    const json st = status();
    for (const json& i : st["modems"]["local"]["dpl"])
        if (i["logging"] == true)
            logging.push_back(i["id"]);
    EXPECT_EQ(json({ 1, 15, 19 }), logging);
}

// The packets of a raw framed stream: (kind, id, level) with kind 'L' log
// code, 'E' event, 'M' message (SSID and level).
std::set<std::tuple<char, int, int>> stream_items(const std::string& bytes, size_t* frames)
{
    std::set<std::tuple<char, int, int>> items;
    const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
    *frames = 0;
    for (size_t at = 0, used = 0; at < bytes.size(); at += used, ++*frames) {
        std::vector<uint8_t> pkt;
        if (hdlc_unframe(p + at, bytes.size() - at, &pkt, &used) != HdlcResult::ok || used == 0) {
            ADD_FAILURE() << "bad frame at " << at;
            break;
        }
        if (pkt.size() >= 8 && pkt[0] == 0x10)
            items.insert({ 'L', pkt[6] | pkt[7] << 8, 0 });
        else if (pkt.size() >= 5 && pkt[0] == 0x60)
            items.insert({ 'E', (pkt[3] | pkt[4] << 8) & 0x0fff, 0 });
        else if (pkt.size() >= 20 && pkt[0] == 0x79)
            items.insert(
                { 'M', pkt[14] | pkt[15] << 8, __builtin_ctz(pkt[16] | pkt[17] << 8 | pkt[18] << 16 | pkt[19] << 24) });
        else
            items.insert({ '?', pkt[0], 0 });
    }
    return items;
}

TEST_F(Logging, TheCommittedLogHoldsOnlyEnabledItemsWhereTheOutPathSays)
{
    start();
    const char path[] = "/sdcard/field/dm";
    EXPECT_EQ(0u, tovak_get_u32(send(CMD_OUT_PATH, Bytes(path, path + sizeof path)).data));
    switch_logging(CMD_LOG_ON);
    ASSERT_TRUE(wait_until([&] { return status()["modems"]["local"]["traffic"]["produced"] >= 100; }));
    send(CMD_COMMIT_LOG);

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
}

// Edits from several clients while another switches logging: every
// acknowledged edit is in the set, the file and, at the next log on, the modem.
TEST_F(Logging, ConcurrentEditsAndSwitchesLoseNothing)
{
    start();
    const int editors = 4, each = 25;
    std::vector<std::thread> threads;
    for (int t = 0; t < editors; t++) {
        threads.emplace_back([&, t] {
            auto c = dev.connect(30000);
            for (int i = 0; c && i < each; i++) {
                send(CMD_ADD_EVENT, tovak_pack_u16(uint32_t(100 + t * each + i)), c.get());
                send(CMD_ADD_MSG, tovak_pack_u16_u32(uint32_t(7000 + t * each + i), 1), c.get());
            }
        });
    }
    threads.emplace_back([&] {
        auto c = dev.connect(30000);
        for (int i = 0; c && i < 2; i++) {
            switch_logging(CMD_LOG_ON, c.get());
            switch_logging(CMD_LOG_OFF, c.get());
        }
    });
    for (std::thread& t : threads)
        t.join();

    std::vector<int> want(EVENTS);
    for (int id = 100; id < 100 + editors * each; id++)
        want.push_back(id);
    std::sort(want.begin(), want.end());
    tovak_pkt reply = send(CMD_GET_EVENTS);
    std::vector<uint16_t> listed;
    EXPECT_TRUE(tovak_unpack_ids(reply.data, reply.len, &listed));
    EXPECT_EQ(want, std::vector<int>(listed.begin(), listed.end()));
    EXPECT_EQ(7u + editors * each, send(CMD_GET_MSG).len / 8);
    std::string file = read_file(user_config());
    for (int id = 100; id < 100 + editors * each; id++)
        EXPECT_NE(std::string::npos, file.find(std::to_string(100000 + id).substr(1))) << id;
    switch_logging(CMD_LOG_ON);
    EXPECT_EQ(json(want), status()["modems"]["local"]["events"]);
}

} // namespace
