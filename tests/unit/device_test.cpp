// The device behind tovak-devsim without its process: link messages, the
// diag library's own state, faults, QMI, control commands and the status.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "device.h"
#include "hdlc.h"
#include "le.h"
#include "sim_device.h"
#include "sim_link.h"

namespace {

using Bytes = std::vector<uint8_t>;
using nlohmann::json;

const uint64_t NOW = 1700000000ull * 1000000000ull;

class DeviceTest : public ::testing::Test {
protected:
    DeviceTest()
        : dev(tmp.path() + "/sim")
    {
    }

    // A framed diag request, to the remote modem when asked.
    LinkAnswer request(const Bytes& pkt, bool remote = false, bool framed = false)
    {
        Bytes msg;
        put_u32(msg, SIM_LINK_DIAG_REQUEST);
        if (remote)
            put_u32(msg, 0xFFFFFFFFu);
        Bytes frame = framed ? pkt : hdlc_frame(pkt);
        msg.insert(msg.end(), frame.begin(), frame.end());
        return dev.handle_link(msg.data(), msg.size(), conn, NOW);
    }
    Bytes answer(const Bytes& pkt, bool remote = false)
    {
        LinkAnswer a = request(pkt, remote);
        Bytes out;
        if (a.send) {
            EXPECT_EQ(HdlcResult::ok, hdlc_unframe(a.bytes.data(), a.bytes.size(), &out));
        }
        return out;
    }
    // A library operation; its i32 result, and its data in *data.
    int32_t op(uint32_t code, const Bytes& args = {}, Bytes* data = nullptr)
    {
        Bytes msg;
        put_u32(msg, code);
        msg.insert(msg.end(), args.begin(), args.end());
        LinkAnswer a = dev.handle_link(msg.data(), msg.size(), conn, NOW);
        EXPECT_TRUE(a.send);
        EXPECT_GE(a.bytes.size(), 4u);
        if (data)
            data->assign(a.bytes.begin() + 4, a.bytes.end());
        return int32_t(get_u32(a.bytes.data()));
    }
    static Bytes i32(int32_t v, std::optional<uint32_t> then = std::nullopt)
    {
        Bytes b;
        put_u32(b, uint32_t(v));
        if (then)
            put_u32(b, *then);
        return b;
    }
    std::string ctl(std::vector<std::string> args) { return dev.control(args); }

    TempDir tmp;
    Device dev;
    LinkConnState conn;
};

TEST_F(DeviceTest, FaultsAndUnansweredRequestsAreRecordedWithTheirOutcome)
{
    Bytes damaged = hdlc_frame({ 0x7D, 0x01 });
    damaged[2] ^= 1;
    EXPECT_FALSE(request(damaged, false, true).send);
    EXPECT_FALSE(request({ 0x60, 0x01 }, true).send) << "no remote modem attached";
    EXPECT_EQ("ok\n", ctl({ "fault", "drop", "2" }));
    EXPECT_FALSE(request({ 0x60, 0x01 }).send);
    EXPECT_FALSE(request({ 0x60, 0x01 }).send);
    EXPECT_TRUE(request({ 0x60, 0x01 }).send) << "only the next two";
    EXPECT_TRUE(dev.modem(false).event_reporting()) << "a dropped answer's request still took effect";

    EXPECT_EQ("ok\n", ctl({ "fault", "corrupt", "1" }));
    LinkAnswer bad = request({ 0x7D, 0x01 });
    ASSERT_TRUE(bad.send);
    EXPECT_EQ(HdlcResult::bad_crc, hdlc_unframe(bad.bytes.data(), bad.bytes.size(), nullptr));
    LinkAnswer good = request({ 0x7D, 0x01 });
    EXPECT_EQ(HdlcResult::ok, hdlc_unframe(good.bytes.data(), good.bytes.size(), nullptr));

    EXPECT_EQ("ok\n", ctl({ "fault", "delay", "250" }));
    EXPECT_EQ(250, request({ 0x60, 0x00 }).delay_ms);
    EXPECT_EQ("ok\n", ctl({ "fault", "clear" }));
    EXPECT_EQ(0, request({ 0x60, 0x00 }).delay_ms);

    json st = dev.status();
    std::vector<std::string> outcomes;
    for (const json& r : st["requests"])
        outcomes.push_back(r["outcome"]);
    EXPECT_EQ((std::vector<std::string>{ "bad crc", "no remote modem", "dropped", "dropped", "answered", "corrupted",
                                         "answered", "answered, delayed", "answered" }),
              outcomes);
    EXPECT_EQ("600000", st["requests"][4]["answer"]);
}

TEST_F(DeviceTest, BufferSizeClampsIntoItsRangeAndBadOperationsFail)
{
    Bytes range;
    ASSERT_EQ(1, op(SIM_OP_GET_RANGE, {}, &range));
    ASSERT_EQ(8u, range.size());
    const int32_t lo = int32_t(get_u32(range.data())), hi = int32_t(get_u32(range.data() + 4));
    ASSERT_LT(lo, 50000000);
    ASSERT_GT(hi, 50000000);
    using P = std::pair<int32_t, int32_t>; // asked, in force
    for (auto [asked, in_force] : { P{ 50000000, 50000000 }, P{ 0, lo }, P{ -5, lo }, P{ hi + 1, hi } }) {
        EXPECT_EQ(in_force, op(SIM_OP_CHANGE_BUFFER_SIZE, i32(asked))) << asked;
        EXPECT_EQ(in_force, op(SIM_OP_GET_BUFFER_SIZE)) << asked;
    }
    EXPECT_EQ("ok\n", ctl({ "buffer-range", "1000", "2000" }));
    EXPECT_EQ(2000, op(SIM_OP_GET_BUFFER_SIZE)) << "a new range clamps the size in force";
    EXPECT_EQ(1000, op(SIM_OP_CHANGE_BUFFER_SIZE, i32(5)));
    EXPECT_EQ("error: bad range (1 <= MIN <= MAX)\n", ctl({ "buffer-range", "3000", "2000" }));
    EXPECT_EQ(0, op(SIM_OP_CHANGE_OUTPUT_PATH, { 0 })) << "an empty path";
    EXPECT_EQ(-1, op(0x1234)) << "unknown operations fail";
}

TEST_F(DeviceTest, TrafficOnlyInMemoryModeAndCommitWritesTheStreamOrFails)
{
    std::string dir = tmp.path() + "/sdcard/logs";
    ASSERT_EQ(1, op(SIM_OP_CHANGE_OUTPUT_PATH, Bytes(dir.begin(), dir.end())));
    answer({ 0x7D, 0x05, 0, 0, 0x01, 0, 0, 0 }); // every SSID, level 0
    dev.tick(1.0, NOW);
    EXPECT_EQ(0u, dev.modem(false).produced()) << "mode 1 produces nothing";
    ASSERT_EQ(1, op(SIM_OP_SWITCH_LOGGING, i32(2)));
    EXPECT_TRUE(dev.busy());
    ASSERT_EQ("ok\n", ctl({ "rate", "100" }));
    dev.tick(0.5, NOW);
    EXPECT_EQ(50u, dev.modem(false).produced());
    ASSERT_EQ(1, op(SIM_OP_STOP));
    EXPECT_FALSE(dev.busy());
    dev.tick(1.0, NOW);
    EXPECT_EQ(50u, dev.modem(false).produced()) << "stopped";
    Bytes expected = dev.modem(false).traffic();

    ASSERT_EQ(1, op(SIM_OP_COMMIT));
    EXPECT_EQ(0u, dev.modem(false).traffic_bytes()) << "commit empties the buffer";
    ASSERT_EQ(1, op(SIM_OP_COMMIT));
    std::vector<std::string> files;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        files.push_back(e.path().filename());
    std::sort(files.begin(), files.end());
    ASSERT_EQ(2u, files.size()) << "a second commit in the same second gets a name of its own";
    EXPECT_TRUE(files[0].starts_with("diag_log_") && files[0].ends_with(".qmdl")) << files[0];
    std::string first = read_file(dir + "/" + files[0]);
    std::string second = read_file(dir + "/" + files[1]);
    EXPECT_EQ(std::string(expected.begin(), expected.end()), first.size() > second.size() ? first : second);
    EXPECT_EQ(0u, std::min(first.size(), second.size()));

    ASSERT_TRUE(write_file(tmp.path() + "/plain", "x"));
    std::string bad = tmp.path() + "/plain/logs";
    ASSERT_EQ(1, op(SIM_OP_CHANGE_OUTPUT_PATH, Bytes(bad.begin(), bad.end())));
    EXPECT_EQ(0, op(SIM_OP_COMMIT)) << "the directory cannot be made";
}

TEST_F(DeviceTest, QmiUnitsAndSaves)
{
    ASSERT_EQ("ok\n", ctl({ "qmi", "phantom", "100,200,50" }));
    Bytes data;
    EXPECT_EQ(200, op(SIM_OP_QMI_GET_DATA, i32(0, 1), &data));
    EXPECT_EQ(1u, get_u32(data.data())) << "units after this one";
    EXPECT_EQ(0, op(SIM_OP_QMI_GET_DATA, i32(0, 3)));
    ASSERT_EQ("ok\n", ctl({ "qmi", "statistics", "none" }));
    EXPECT_EQ(0, op(SIM_OP_QMI_GET_DATA, i32(1, 0)));

    // A save in two pieces.
    Bytes begin = i32(5);
    for (const char* s : { "Statstics", "0101234567" })
        begin.insert(begin.end(), s, s + strlen(s) + 1);
    ASSERT_EQ(1, op(SIM_OP_QMI_SAVE_BEGIN, begin));
    ASSERT_EQ(1, op(SIM_OP_QMI_SAVE_DATA, { 'a', 0, 'b' }));
    ASSERT_EQ(1, op(SIM_OP_QMI_SAVE_DATA, { 0x7E, 'c' }));
    ASSERT_EQ(1, op(SIM_OP_QMI_SAVE_END));
    // One that does not add up is not stored.
    ASSERT_EQ(1, op(SIM_OP_QMI_SAVE_BEGIN, begin));
    ASSERT_EQ(1, op(SIM_OP_QMI_SAVE_DATA, { 'a' }));
    EXPECT_EQ(0, op(SIM_OP_QMI_SAVE_END));
    EXPECT_EQ(0, op(SIM_OP_QMI_SAVE_DATA, { 'a' })) << "no save under way";

    json saves = dev.status()["qmi"]["saves"];
    ASSERT_EQ(1u, saves.size());
    EXPECT_EQ((json{ { "kind", "Statstics" }, { "number", "0101234567" }, { "size", 5 },
                     { "file", "qmi/Statstics_0101234567_0001.bin" } }),
              saves[0]);
    EXPECT_EQ(std::string("a\0b\x7e" "c", 5), read_file(tmp.path() + "/sim/" + saves[0]["file"].get<std::string>()));
}

TEST_F(DeviceTest, ControlCommandsRefuseBadInputAndChangeNothing)
{
    const std::vector<std::vector<std::string>> bad = {
        { "nonsense" }, { "status", "extra" }, { "remote-modem", "maybe" },
        { "event-count", "local", "0" }, { "event-count", "local", "5000" }, { "event-count", "other", "10" },
        { "log-items", "local", "1,2,x" }, { "log-items", "local", "1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17" },
        { "ssid-ranges", "remote", "5-3" }, { "ssid-ranges", "remote", "7" }, { "rate", "-1" },
        { "qmi", "weather", "10" }, { "qmi", "phantom", "10,0" }, { "log", "kernel", "I", "tag", "msg" },
        { "log", "main", "Q", "tag", "msg" }, { "flood", "main", "0", "10" }, { "fault", "drop", "many" },
        { "fault", "stall", "main", "sometimes" },
    };
    const std::string before = dev.status().dump();
    for (const auto& args : bad) {
        std::string reply = ctl(args);
        EXPECT_TRUE(reply.starts_with("error: ")) << args[0] << ": " << reply;
        EXPECT_EQ('\n', reply.back());
    }
    EXPECT_EQ(before, dev.status().dump());
    EXPECT_NE(std::string::npos, ctl({ "help" }).find("fault drop N"));
}

TEST_F(DeviceTest, RangesSetAtRunTimeAreWhatTheModemAnswers)
{
    ASSERT_EQ("ok\n", ctl({ "event-count", "local", "300" }));
    ASSERT_EQ("ok\n", ctl({ "log-items", "local", "0x10,20" }));
    ASSERT_EQ("ok\n", ctl({ "ssid-ranges", "local", "0-3,7000-7001" }));
    Bytes ev = answer({ 0x81, 0, 0, 0 });
    ASSERT_GE(ev.size(), 6u);
    EXPECT_EQ(300, get_u16(&ev[4]));
    EXPECT_EQ((Bytes{ 0x7D, 1, 1, 0, 2, 0, 0, 0, 0, 0, 3, 0, 0x58, 0x1B, 0x59, 0x1B }), answer({ 0x7D, 0x01 }));
    Bytes items = answer({ 0x73, 0, 0, 0, 1, 0, 0, 0 });
    ASSERT_EQ(12u + 64, items.size());
    EXPECT_EQ((Bytes{ 0x10, 0, 0, 0, 20, 0, 0, 0, 0, 0, 0, 0 }), Bytes(items.begin() + 12, items.begin() + 24));
    json st = dev.status();
    EXPECT_EQ(300, st["modems"]["local"]["event_count"]);
    EXPECT_EQ(default_modem_ranges().event_count, st["modems"]["remote"]["event_count"]) << "the remote modem keeps its own";
}

TEST_F(DeviceTest, StatusListsMasksAsIdsAndCodes)
{
    answer({ 0x82, 0, 0, 0, 16, 0, 0x05, 0x80, 0 }); // events 0, 2, 15
    answer({ 0x60, 0x01 });
    Bytes log = { 0x73, 0, 0, 0, 3, 0, 0, 0, 11, 0, 0, 0, 16, 0, 0, 0, 0x01, 0x80 };
    answer(log); // 0xB000, 0xB00F
    answer({ 0x7D, 0x04, 0x20, 0x00, 0x21, 0x00, 0, 0, 0x1F, 0, 0, 0, 0, 0, 0, 0 });
    json local = dev.status()["modems"]["local"];
    EXPECT_EQ((std::vector<int>{ 0, 2, 15 }), local["events"].get<std::vector<int>>());
    EXPECT_EQ((std::vector<int>{ 0xB000, 0xB00F }), local["log_codes"].get<std::vector<int>>());
    EXPECT_EQ(json::parse("[[32, 31]]"), local["msg_masks"]);
    EXPECT_TRUE(local["event_reporting"]);
}

TEST_F(DeviceTest, LoggerEntriesGoToTheTextFileAndTheirQueue)
{
    ASSERT_EQ("ok\n", ctl({ "log", "radio", "W", "RILJ", "signal", "lost" }));
    EXPECT_EQ(1u, dev.queue(LOG_ID_RADIO).entries());
    EXPECT_EQ(0u, dev.queue(LOG_ID_MAIN).entries());
    std::string text = read_file(dev.logcat_path());
    EXPECT_NE(std::string::npos, text.find(" W RILJ    : signal lost\n")) << text;
    // A stalled FIFO is the host-library test's: it needs a reader.
    ASSERT_EQ("ok\n", ctl({ "flood", "events", "1000", "30" }));
    EXPECT_TRUE(dev.busy());
    dev.tick(0.010, NOW);
    EXPECT_EQ(10u, dev.queue(LOG_ID_EVENTS).entries());
    dev.tick(1.0, NOW);
    EXPECT_EQ(30u, dev.queue(LOG_ID_EVENTS).entries()) << "a flood stops at its count";
    EXPECT_FALSE(dev.busy());
}

} // namespace
