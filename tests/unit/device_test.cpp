// The device behind tovak-devsim without its process: link messages, the
// diag library's own state, faults, QMI, control commands and the status.
#include <gtest/gtest.h>

#include <dirent.h>

#include <string>
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
    LinkAnswer request(const Bytes& pkt, bool remote = false)
    {
        Bytes msg;
        put_u32(msg, SIM_LINK_DIAG_REQUEST);
        if (remote)
            put_u32(msg, 0xFFFFFFFFu);
        Bytes frame = hdlc_frame(pkt);
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
    static Bytes i32(int32_t v)
    {
        Bytes b;
        put_u32(b, uint32_t(v));
        return b;
    }
    std::string ctl(std::vector<std::string> args) { return dev.control(args); }

    TempDir tmp;
    Device dev;
    LinkConnState conn;
};

TEST_F(DeviceTest, RemoteModemAnswersOnlyWhenAttachedAndKeepsItsOwnMasks)
{
    EXPECT_FALSE(request({ 0x60, 0x01 }, true).send);
    EXPECT_EQ("ok\n", ctl({ "remote-modem", "on" }));
    EXPECT_EQ((Bytes{ 0x60, 0, 0 }), answer({ 0x60, 0x01 }, true));
    EXPECT_TRUE(dev.modem(true).event_reporting());
    EXPECT_FALSE(dev.modem(false).event_reporting());
    json st = dev.status();
    EXPECT_TRUE(st["modems"]["remote"]["enabled"]);
    ASSERT_EQ(2u, st["requests"].size());
    EXPECT_EQ("no remote modem", st["requests"][0]["outcome"]);
    EXPECT_EQ("remote", st["requests"][1]["modem"]);
    EXPECT_EQ("6001", st["requests"][1]["request"]);
    EXPECT_EQ("600000", st["requests"][1]["answer"]);
}

TEST_F(DeviceTest, DamagedFramesGetNoAnswerButAreRecorded)
{
    Bytes msg;
    put_u32(msg, SIM_LINK_DIAG_REQUEST);
    Bytes frame = hdlc_frame({ 0x7D, 0x01 });
    frame[2] ^= 1;
    msg.insert(msg.end(), frame.begin(), frame.end());
    EXPECT_FALSE(dev.handle_link(msg.data(), msg.size(), conn, NOW).send);
    EXPECT_EQ("bad crc", dev.status()["requests"][0]["outcome"]);
}

TEST_F(DeviceTest, FaultsDropCorruptAndDelayAnswers)
{
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
    EXPECT_EQ((std::vector<std::string>{ "dropped", "dropped", "answered", "corrupted", "answered",
                                         "answered, delayed", "answered" }),
              outcomes);
}

TEST_F(DeviceTest, BufferSizeClampsIntoItsRange)
{
    Bytes range;
    ASSERT_EQ(1, op(SIM_OP_GET_RANGE, {}, &range));
    ASSERT_EQ(8u, range.size());
    const int32_t lo = int32_t(get_u32(range.data())), hi = int32_t(get_u32(range.data() + 4));
    ASSERT_LT(lo, 50000000);
    ASSERT_GT(hi, 50000000);
    struct Case {
        int32_t asked, in_force;
    };
    for (Case c : { Case{ 50000000, 50000000 }, Case{ 1, lo }, Case{ 0, lo }, Case{ -5, lo }, Case{ hi + 1, hi },
                    Case{ 0x7FFFFFFF, hi } }) {
        EXPECT_EQ(c.in_force, op(SIM_OP_CHANGE_BUFFER_SIZE, i32(c.asked))) << c.asked;
        EXPECT_EQ(c.in_force, op(SIM_OP_GET_BUFFER_SIZE)) << c.asked;
    }
    EXPECT_EQ("ok\n", ctl({ "buffer-range", "1000", "2000" }));
    EXPECT_EQ(2000, op(SIM_OP_GET_BUFFER_SIZE)) << "a new range clamps the size in force";
    EXPECT_EQ(1000, op(SIM_OP_CHANGE_BUFFER_SIZE, i32(5)));
    EXPECT_EQ("error: bad range (1 <= MIN <= MAX)\n", ctl({ "buffer-range", "3000", "2000" }));
}

TEST_F(DeviceTest, ModeOutputPathAndStop)
{
    EXPECT_EQ(1, op(SIM_OP_GET_MODE));
    EXPECT_EQ(0, op(SIM_OP_SWITCH_LOGGING, i32(3)));
    EXPECT_EQ(1, op(SIM_OP_GET_MODE));
    EXPECT_EQ(1, op(SIM_OP_SWITCH_LOGGING, i32(2)));
    EXPECT_EQ(2, op(SIM_OP_GET_MODE));
    for (const char* bad : { "", "relative/dir" }) {
        Bytes arg(bad, bad + strlen(bad) + 1);
        EXPECT_EQ(0, op(SIM_OP_CHANGE_OUTPUT_PATH, arg)) << bad;
    }
    std::string dir = tmp.path() + "/out/dm";
    EXPECT_EQ(1, op(SIM_OP_CHANGE_OUTPUT_PATH, Bytes(dir.begin(), dir.end())));
    EXPECT_EQ(dir, dev.output_path());
    EXPECT_EQ(-1, op(0x1234)) << "unknown operations fail";
}

TEST_F(DeviceTest, TrafficOnlyInMemoryModeAndCommitWritesTheFramedStream)
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
    DIR* d = opendir(dir.c_str());
    ASSERT_NE(nullptr, d);
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.')
            files.push_back(e->d_name);
    closedir(d);
    std::sort(files.begin(), files.end());
    ASSERT_EQ(2u, files.size()) << "a second commit in the same second gets a name of its own";
    EXPECT_TRUE(files[0].starts_with("diag_log_") && files[0].ends_with(".qmdl")) << files[0];
    std::string first = read_file(dir + "/" + files[0]);
    std::string second = read_file(dir + "/" + files[1]);
    EXPECT_EQ(std::string(expected.begin(), expected.end()), first.size() > second.size() ? first : second);
    EXPECT_EQ(0u, std::min(first.size(), second.size()));
    // The file is a plain stream of frames that unframe one by one.
    size_t pos = 0, frames = 0;
    while (pos < expected.size()) {
        size_t used;
        ASSERT_EQ(HdlcResult::ok, hdlc_unframe(expected.data() + pos, expected.size() - pos, nullptr, &used));
        pos += used;
        frames++;
    }
    EXPECT_EQ(50u, frames);
}

TEST_F(DeviceTest, CommitFailsWhenTheDirectoryCannotBeMade)
{
    ASSERT_TRUE(write_file(tmp.path() + "/plain", "x"));
    std::string dir = tmp.path() + "/plain/logs";
    ASSERT_EQ(1, op(SIM_OP_CHANGE_OUTPUT_PATH, Bytes(dir.begin(), dir.end())));
    EXPECT_EQ(0, op(SIM_OP_COMMIT));
}

TEST_F(DeviceTest, QmiUnitsAndSaves)
{
    Bytes data;
    // Default: statistics in three units of different sizes, no phantom data.
    std::vector<size_t> sizes;
    std::vector<uint32_t> counts;
    for (uint32_t i = 0;; i++) {
        Bytes args = i32(1);
        put_u32(args, i);
        int32_t len = op(SIM_OP_QMI_GET_DATA, args, &data);
        if (len == 0)
            break;
        ASSERT_EQ(size_t(len) + 4, data.size());
        EXPECT_EQ(qmi_canned_unit(i, size_t(len)), Bytes(data.begin() + 4, data.end()));
        sizes.push_back(size_t(len));
        counts.push_back(get_u32(data.data()));
    }
    EXPECT_EQ(3u, sizes.size());
    EXPECT_EQ((std::vector<uint32_t>{ 2, 1, 0 }), counts) << "0 when no further unit follows";
    EXPECT_NE(sizes[0], sizes[1]);
    Bytes phantom = i32(0);
    put_u32(phantom, 0);
    EXPECT_EQ(0, op(SIM_OP_QMI_GET_DATA, phantom));

    ASSERT_EQ("ok\n", ctl({ "qmi", "phantom", "100,200,50" }));
    EXPECT_EQ(200, op(SIM_OP_QMI_GET_DATA, [] { Bytes b = i32(0); put_u32(b, 1); return b; }()));
    ASSERT_EQ("ok\n", ctl({ "qmi", "statistics", "none" }));
    EXPECT_EQ(0, op(SIM_OP_QMI_GET_DATA, [] { Bytes b = i32(1); put_u32(b, 0); return b; }()));

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
    EXPECT_EQ("Statstics", saves[0]["kind"]);
    EXPECT_EQ("0101234567", saves[0]["number"]);
    EXPECT_EQ(5u, saves[0]["size"]);
    EXPECT_EQ("qmi/Statstics_0101234567_0001.bin", saves[0]["file"]);
    EXPECT_EQ(std::string("a\0b\x7e" "c", 5), read_file(tmp.path() + "/sim/" + saves[0]["file"].get<std::string>()));
}

TEST_F(DeviceTest, ControlCommandsRefuseBadInputAndChangeNothing)
{
    const std::vector<std::vector<std::string>> bad = {
        { "nonsense" },
        { "status", "extra" },
        { "remote-modem", "maybe" },
        { "event-count", "local", "0" },
        { "event-count", "local", "5000" },
        { "event-count", "other", "10" },
        { "log-items", "local", "1,2,x" },
        { "log-items", "local", "1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17" },
        { "ssid-ranges", "remote", "5-3" },
        { "ssid-ranges", "remote", "7" },
        { "rate", "-1" },
        { "qmi", "weather", "10" },
        { "qmi", "phantom", "10,0" },
        { "log", "kernel", "I", "tag", "msg" },
        { "log", "main", "Q", "tag", "msg" },
        { "flood", "main", "0", "10" },
        { "fault", "drop", "many" },
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
    EXPECT_EQ(0x10u, get_u32(&items[12]));
    EXPECT_EQ(20u, get_u32(&items[16]));
    EXPECT_EQ(0u, get_u32(&items[20]));
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
    EXPECT_EQ(5u, local["dpl"].size());
    json st = dev.status();
    for (const char* key : { "mode", "buffer_size", "buffer_range", "output_path", "requests", "logger", "qmi",
                             "faults", "request_count" })
        EXPECT_TRUE(st.contains(key)) << key;
    EXPECT_EQ(4u, st["logger"].size());
}

TEST_F(DeviceTest, LoggerEntriesGoToTheTextFileAndTheirQueue)
{
    ASSERT_EQ("ok\n", ctl({ "log", "radio", "W", "RILJ", "signal", "lost" }));
    EXPECT_EQ(1u, dev.queue(LOG_ID_RADIO).entries());
    EXPECT_EQ(0u, dev.queue(LOG_ID_MAIN).entries());
    std::string text = read_file(dev.logcat_path());
    EXPECT_NE(std::string::npos, text.find(" W RILJ    : signal lost\n")) << text;
    ASSERT_EQ("ok\n", ctl({ "fault", "stall", "radio", "on" }));
    EXPECT_TRUE(dev.stalled(LOG_ID_RADIO));
    EXPECT_TRUE(dev.status()["logger"]["radio"]["stalled"]);

    ASSERT_EQ("ok\n", ctl({ "flood", "events", "1000", "30" }));
    EXPECT_TRUE(dev.busy());
    dev.tick(0.010, NOW);
    EXPECT_EQ(10u, dev.queue(LOG_ID_EVENTS).entries());
    dev.tick(1.0, NOW);
    EXPECT_EQ(30u, dev.queue(LOG_ID_EVENTS).entries()) << "a flood stops at its count";
    EXPECT_FALSE(dev.busy());
}

} // namespace
