// The host platform libraries against a running tovak-devsim (started with
// --root, no sandbox), called the way the daemon calls them.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <regex>
#include <thread>
#include <tuple>

#include "dpl_record.h"
#include "linked_devsim.h"
#include "hdlc.h"
#include "host_link.h"
#include "le.h"
#include "platform/android_log.h"
#include "platform/diag.h"
#include "platform/qmi_tovak.h"
#include "sim_device.h"
#include "sim_root.h"

namespace {

using Bytes = std::vector<uint8_t>;
using nlohmann::json;

// One request as the daemon's transport sends it: a 1024-byte buffer with
// the data-type word(s), the frame from diag_hdlc_encode, the answer
// unframed with diag_hdlc_decode. Nothing when any step fails.
std::optional<Bytes> daemon_request(const Bytes& pkt, bool remote = false, int* decode_result = nullptr)
{
    uint8_t buf[1024] = {};
    buf[0] = 32;
    size_t head = 4;
    if (remote) {
        memset(buf + 4, 0xFF, 4);
        head = 8;
    }
    diag_send_desc_type src = { pkt.data(), pkt.data() + pkt.size() - 1, 0, 1 };
    diag_hdlc_dest_type dst = { buf + head, buf + sizeof buf - 1 };
    diag_hdlc_encode(&src, &dst);
    size_t len = size_t(std::find(buf, buf + sizeof buf, 0x7E) - buf) + 1;
    if (len > sizeof buf)
        return std::nullopt;
    diag_rsp_type* rsp = diag_send_wait_rsp(buf, int(len), 1, pkt.data());
    if (rsp == nullptr)
        return std::nullopt;
    uint8_t out[1024];
    diag_hdlc_decode_type h = { rsp->data, 0, rsp->length, out, 0, sizeof out, 0 };
    int ok = diag_hdlc_decode(&h);
    if (decode_result)
        *decode_result = ok;
    // The daemon's query path frees the record with plain free.
    free(rsp);
    if (!ok)
        return std::nullopt;
    return Bytes(out, out + h.dest_idx - 3);
}

class HostLibs : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim.start());
    }
    // A clean exit on SIGTERM: under the sanitizers, no error and no leak.
    void TearDown() override { EXPECT_EQ(0, sim.stop()); }
    const std::string& root() const { return sim.root(); }
    std::string ctl(const std::vector<std::string>& args)
    {
        std::string out, err;
        EXPECT_EQ(0, devsim_ctl(root(), args, &out, &err)) << err;
        return out;
    }
    json status() { return sim.status(); }

    LinkedDevsim sim;
};

TEST(HostLibsAlone, EveryCallFailsCleanlyWithoutTheSimulator)
{
    TempDir empty;
    sim_host_set_root(empty.path());
    EXPECT_EQ(-1, diag_init());
    EXPECT_EQ(-1, diag_dpl_init());
    EXPECT_FALSE(daemon_request({ 0x60, 0x01 }).has_value());
    EXPECT_EQ(0, diag_change_buffer_size(50000000));
    EXPECT_EQ(0, diag_get_buffer_size());
    EXPECT_EQ(-1, diag_get_mode());
    EXPECT_EQ(0, diag_commit_log());
    uint32_t a = 7, b = 7;
    EXPECT_EQ(0, diag_get_range(&a, &b));
    EXPECT_EQ(0u, a + b);
    uint16_t remote = 9;
    diag_has_remote_device(&remote);
    EXPECT_EQ(0, remote);
    diag_dpl_iface_list list;
    list.count = 55;
    EXPECT_EQ(0, diag_dpl_get_supported_ifaces(&list));
    EXPECT_EQ(0u, list.count) << "callers read the count whatever the result";
    diag_dpl_iface_desc desc;
    strcpy(desc.desc, "stale");
    EXPECT_EQ(0, diag_dpl_get_iface_desc(1, &desc));
    EXPECT_STREQ("", desc.desc);
    EXPECT_EQ(-1, qmi_tovak_init());
    void* data = nullptr;
    uint32_t units = 9;
    EXPECT_EQ(0, qmi_tovak_get_data(1, &data, 0, &units));
    EXPECT_EQ(0u, units);
    EXPECT_NE(nullptr, data) << "a buffer to free even for nothing";
    free(data);
    EXPECT_EQ(-1, qmi_tovak_save_log("Phantom", "x", 1, ""));
    // The log falls back to stderr and still reports the length.
    EXPECT_EQ(5, __android_log_print(ANDROID_LOG_DEBUG, "TOVAK", "%s\n", "hello"));
    sim_host_set_root("");
}

TEST_F(HostLibs, DaemonStyleQueriesGetTheModemsRanges)
{
    EXPECT_EQ(0, diag_init());
    auto items = daemon_request({ 0x73, 0, 0, 0, 1, 0, 0, 0 });
    ASSERT_TRUE(items);
    ASSERT_EQ(12u + 64, items->size());
    EXPECT_EQ(0u, get_u32(&(*items)[8]));
    EXPECT_EQ(1800u, get_u32(&(*items)[12 + 4])) << "equipment 1 differs from the built-in 1425";
    auto ranges = daemon_request({ 0x7D, 0x01 });
    ASSERT_TRUE(ranges);
    EXPECT_EQ(1, (*ranges)[2]);
    EXPECT_EQ(25u, get_u32(&(*ranges)[4]));
    EXPECT_EQ(8u + 4 * 25, ranges->size());
    auto events = daemon_request({ 0x81, 0, 0, 0 });
    ASSERT_TRUE(events);
    EXPECT_EQ(2200, get_u16(&(*events)[4]));
    json st = status();
    ASSERT_EQ(3u, st["requests"].size());
    EXPECT_EQ("7d01", st["requests"][1]["request"]);
}

TEST_F(HostLibs, RemoteModemAnswersOnceAttached)
{
    sim_host_set_timeout_ms(300);
    uint16_t remote = 7;
    EXPECT_EQ(1, diag_has_remote_device(&remote));
    EXPECT_EQ(0, remote);
    EXPECT_FALSE(daemon_request({ 0x60, 0x01 }, true)) << "no remote modem: no answer";
    ctl({ "remote-modem", "on" });
    EXPECT_EQ(1, diag_has_remote_device(&remote));
    EXPECT_EQ(1, remote);
    auto a = daemon_request({ 0x60, 0x01 }, true);
    ASSERT_TRUE(a);
    EXPECT_EQ((Bytes{ 0x60, 0, 0 }), *a);
    EXPECT_TRUE(status()["modems"]["remote"]["event_reporting"]) << "the remote modem took it";
}

TEST_F(HostLibs, BufferModePathAndRangeCalls)
{
    uint32_t lo = 0, hi = 0;
    ASSERT_EQ(1, diag_get_range(&lo, &hi));
    EXPECT_EQ(1u << 20, lo);
    EXPECT_EQ(128u << 20, hi);
    EXPECT_EQ(50000000, diag_change_buffer_size(50000000));
    EXPECT_EQ(50000000, diag_get_buffer_size());
    EXPECT_EQ(int(lo), diag_change_buffer_size(10));
    EXPECT_EQ(int(hi), diag_change_buffer_size(0x7FFFFFFF));
    EXPECT_EQ(1, diag_get_mode());
    EXPECT_EQ(0, diag_switch_logging(7));
    EXPECT_EQ(1, diag_switch_logging(2));
    EXPECT_EQ(2, diag_get_mode());
    EXPECT_EQ(0, diag_change_output_path(nullptr));
    EXPECT_EQ(0, diag_change_output_path("not/absolute"));
    EXPECT_EQ(1, diag_change_output_path("/sdcard/logs/dm"));
    EXPECT_EQ("/sdcard/logs/dm", status()["output_path"]);
}

TEST_F(HostLibs, DataPathLogging)
{
    // The list and the descriptions show through the daemon's own DPL tests.
    EXPECT_EQ(0, diag_dpl_init());
    diag_dpl_iface_desc desc = {};
    EXPECT_EQ(0, diag_dpl_get_iface_desc(44, &desc)) << "no such interface";

    EXPECT_EQ(1, diag_dpl_set_iface_logging_with_ifid(15));
    // The daemon's own record for interface 19.
    Bytes rec = dpl_iface_record(19);
    uint8_t rsp[4] = { 9, 9, 9, 9 };
    EXPECT_EQ(1, diag_dpl_set_iface_logging(rec.data(), rsp, 4, 19));
    EXPECT_EQ((Bytes{ 19, 0, 0, 0 }), Bytes(rsp, rsp + 4));
    EXPECT_EQ(0, diag_dpl_set_iface_logging_with_ifid(44)) << "no such interface";

    auto logging = [&] {
        std::vector<int> ids;
        json st = status();
        for (const json& i : st["modems"]["local"]["dpl"])
            if (i["logging"])
                ids.push_back(i["id"]);
        return ids;
    };
    EXPECT_EQ((std::vector<int>{ 15, 19 }), logging());
    EXPECT_EQ(1, diag_dpl_reset_logging());
    EXPECT_TRUE(logging().empty());
}

TEST_F(HostLibs, InjectedFaultsReachTheCaller)
{
    sim_host_set_timeout_ms(300);
    ctl({ "fault", "drop", "1" });
    EXPECT_FALSE(daemon_request({ 0x60, 0x01 })) << "dropped: a time-out";
    EXPECT_TRUE(daemon_request({ 0x60, 0x01 }));

    ctl({ "fault", "corrupt", "1" });
    int decoded = -1;
    EXPECT_FALSE(daemon_request({ 0x7D, 0x01 }, false, &decoded));
    EXPECT_EQ(0, decoded) << "an answer came, and its CRC failed";
    EXPECT_TRUE(daemon_request({ 0x7D, 0x01 }));

    ctl({ "fault", "delay", "600" });
    EXPECT_FALSE(daemon_request({ 0x81, 0, 0, 0 })) << "later than the time-out";
    ctl({ "fault", "clear" });
    // The late answer must never pass for the answer to the next request.
    auto next = daemon_request({ 0x60, 0x00 });
    ASSERT_TRUE(next);
    EXPECT_EQ((Bytes{ 0x60, 0, 0 }), *next);
    for (int i = 0; i < 5; i++) {
        auto again = daemon_request({ 0x7D, 0x01 });
        ASSERT_TRUE(again);
        EXPECT_EQ(0x7D, (*again)[0]) << i;
    }
}

TEST_F(HostLibs, ManyThreadsEachGetTheirOwnAnswers)
{
    std::atomic<int> wrong{ 0 }, missing{ 0 };
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 40; i++) {
                // An unknown command comes back echoed after 0x13.
                Bytes pkt = { 0x4A, uint8_t(t), uint8_t(i), 0x7E, 0x7D };
                auto a = daemon_request(pkt);
                if (!a)
                    missing++;
                else if (*a != Bytes({ 0x13, 0x4A, uint8_t(t), uint8_t(i), 0x7E, 0x7D }))
                    wrong++;
                if (i % 10 == 0 && diag_get_buffer_size() <= 0)
                    missing++;
            }
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(0, wrong.load());
    EXPECT_EQ(0, missing.load());
    EXPECT_EQ(320, status()["request_count"]);
}

TEST_F(HostLibs, QmiDataAndSaves)
{
    EXPECT_EQ(0, qmi_tovak_init());
    // The daemon's gathering loop over the default statistics.
    Bytes all;
    uint32_t count = 0;
    uint32_t i = 0;
    int len;
    do {
        void* data = nullptr;
        len = qmi_tovak_get_data(1, &data, i++, &count);
        all.insert(all.end(), static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + len);
        free(data);
    } while (count != 0 && len != 0);
    EXPECT_EQ(3u, i);
    EXPECT_EQ(100u + 150 + 200, all.size());

    ctl({ "qmi", "phantom", "none" });
    void* data = nullptr;
    EXPECT_EQ(0, qmi_tovak_get_data(0, &data, 0, &count));
    free(data);

    // The kind and the contents as given; a number that is no file name stays in the directory.
    EXPECT_EQ(0, qmi_tovak_save_log("Phantom", "000000000000,ND,N,0,0,", 22, ""));
    Bytes big(200000);
    for (size_t k = 0; k < big.size(); k++)
        big[k] = uint8_t(k * 31 + 7);
    EXPECT_EQ(0, qmi_tovak_save_log("Statstics", big.data(), uint32_t(big.size()), "+4917/../x"));
    EXPECT_EQ(0, qmi_tovak_save_log("Statstics", nullptr, 0, "1"));
    EXPECT_EQ(0, qmi_tovak_deinit());

    json saves = status()["qmi"]["saves"];
    ASSERT_EQ(3u, saves.size());
    const std::string held[] = { "000000000000,ND,N,0,0,", { big.begin(), big.end() }, "" };
    for (size_t k = 0; k < 3; k++)
        EXPECT_EQ(held[k], read_file(root() + "/" SIM_DIR "/" + saves[k]["file"].get<std::string>())) << k;
    EXPECT_TRUE(std::regex_match(saves[0]["file"].get<std::string>(), std::regex(R"(qmi/Phantom_none_\d{4}\.bin)")))
        << saves[0];
    EXPECT_EQ("+4917/../x", saves[1]["number"]);
    EXPECT_EQ(3, std::distance(std::filesystem::directory_iterator(root() + "/" SIM_QMI_DIR), {}));
}

// A reader of one log FIFO, opened before anything is written to it.
class FifoReader {
public:
    explicit FifoReader(const std::string& path)
        : fd_(open(path.c_str(), O_RDONLY | O_NONBLOCK))
    {
    }
    ~FifoReader() { close(fd_); }
    bool ok() const { return fd_ >= 0; }
    // What is in the pipe now.
    std::string drain()
    {
        char buf[10000];
        ssize_t n;
        while ((n = read(fd_, buf, sizeof buf)) > 0)
            data_.append(buf, size_t(n));
        return data_;
    }
    // Reads until done() holds (by default: until something came), then parses the binary entries; the last
    // check is that they end exactly where the data does.
    struct Entry {
        int32_t pid;
        std::string tag, msg;
    };
    std::vector<Entry> entries(const std::function<bool()>& done = {})
    {
        EXPECT_TRUE(wait_until([&] { return !drain().empty() && (!done || done()); }));
        drain();
        std::vector<Entry> out;
        size_t pos = 0;
        while (pos + 20 <= data_.size()) {
            const uint8_t* p = reinterpret_cast<const uint8_t*>(data_.data() + pos);
            size_t len = get_u16(p);
            if (pos + 20 + len > data_.size())
                break;
            std::string payload(data_, pos + 21, len - 1);
            size_t nul = payload.find('\0');
            out.push_back({ int32_t(get_u32(p + 4)), payload.substr(0, nul), payload.substr(nul + 1, payload.size() - nul - 2) });
            pos += 20 + len;
        }
        EXPECT_EQ(data_.size(), pos) << "whole entries only";
        return out;
    }

private:
    int fd_;
    std::string data_;
};

TEST_F(HostLibs, AndroidLogReachesTheTextFileAndTheMainFifo)
{
    FifoReader fifo(root() + "/dev/log/main");
    ASSERT_TRUE(fifo.ok());
    EXPECT_EQ(14, __android_log_print(ANDROID_LOG_DEBUG, "TOVAK", "hello %d %s\n", 42, "there"));
    const std::string logcat = root() + "/" SIM_LOGCAT_FILE;
    ASSERT_TRUE(wait_until([&] { return read_file(logcat).find("hello 42 there") != std::string::npos; }));
    std::regex line(R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +)" + std::to_string(getpid()) + R"( +\d+ D TOVAK   : hello 42 there\n)");
    EXPECT_TRUE(std::regex_search(read_file(logcat), line)) << read_file(logcat);

    auto entries = fifo.entries();
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(std::make_tuple(getpid(), "TOVAK", "hello 42 there"), std::tie(entries[0].pid, entries[0].tag, entries[0].msg));
}

TEST_F(HostLibs, ABurstOfLogLinesFromManyThreadsLosesNothing)
{
    // Far more than the kernel queues for a datagram socket at once.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; i++)
                __android_log_print(ANDROID_LOG_INFO, "BURST", "thread %d line %d", t, i);
        });
    for (auto& th : threads)
        th.join();
    const std::string logcat = root() + "/" SIM_LOGCAT_FILE;
    auto lines = [&] {
        std::string text = read_file(logcat);
        size_t n = 0;
        for (size_t p = text.find(" I BURST   : "); p != std::string::npos; p = text.find(" I BURST   : ", p + 1))
            n++;
        return n;
    };
    EXPECT_TRUE(wait_until([&] { return lines() == 800; })) << lines();
    EXPECT_NE(std::string::npos, read_file(logcat).find("thread 3 line 199\n"));
}

TEST_F(HostLibs, AFrozenLoggerDoesNotHoldTheCallerForEver)
{
    ASSERT_EQ(0, kill(sim.pid(), SIGSTOP));
    // The first entries fit the socket's queue; the rest wait a moment each
    // and go to stderr.
    for (int i = 0; i < 12; i++)
        EXPECT_EQ(7, __android_log_print(ANDROID_LOG_WARN, "FROZEN", "line %02d", i));
    ASSERT_EQ(0, kill(sim.pid(), SIGCONT));
    const std::string logcat = root() + "/" SIM_LOGCAT_FILE;
    EXPECT_TRUE(wait_until([&] { return read_file(logcat).find("FROZEN  : line 00\n") != std::string::npos; }));
}

TEST_F(HostLibs, StalledFifoHoldsEntriesUntilReleased)
{
    FifoReader fifo(root() + "/dev/log/radio");
    ASSERT_TRUE(fifo.ok());
    ctl({ "fault", "stall", "radio", "on" });
    ctl({ "log", "radio", "I", "RILJ", "held", "back" });
    EXPECT_EQ(1, status()["logger"]["radio"]["queued"]);
    EXPECT_EQ("", fifo.drain());
    ctl({ "fault", "stall", "radio", "off" });
    auto entries = fifo.entries();
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ("RILJ/held back", entries[0].tag + "/" + entries[0].msg);
}

TEST_F(HostLibs, FloodWithNoReaderNeverBlocksTheDevice)
{
    ctl({ "flood", "events", "200000", "30000" });
    // The device keeps serving while the FIFO is full and nobody reads.
    for (int i = 0; i < 5; i++)
        EXPECT_TRUE(daemon_request({ 0x60, 0x01 })) << i;
    ASSERT_TRUE(wait_until([&] { return status()["logger"]["events"]["flood_left"] == 0; }));
    json ev = status()["logger"]["events"];
    EXPECT_EQ(30000, ev["received"]);
    EXPECT_GT(ev["dropped"], 0) << "the oldest went";
    EXPECT_LE(ev["queued_bytes"], 256 * 1024) << "bounded";
    EXPECT_GT(ev["written"], 0);
    EXPECT_LT(ev["written"], 30000);
    // A reader that comes later gets whole entries, the oldest first.
    FifoReader fifo(root() + "/dev/log/events");
    ASSERT_TRUE(fifo.ok());
    auto entries = fifo.entries([&] { return status()["logger"]["events"]["queued"] == 0; });
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ("flood 1", entries.front().msg);
    EXPECT_EQ("flood 30000", entries.back().msg);
}

TEST_F(HostLibs, CtlCliSpeaksJsonAndRefusesClearly)
{
    std::string out, err;
    ASSERT_EQ(0, devsim_ctl(root(), { "status" }, &out, &err));
    json st = json::parse(out);
    EXPECT_EQ(1, st["mode"]);
    EXPECT_EQ(2200, st["modems"]["local"]["event_count"]);
    EXPECT_FALSE(st["modems"]["remote"]["enabled"]);
    EXPECT_EQ((json{ 1 << 20, 128 << 20 }), st["buffer_range"]);
    EXPECT_EQ((json{ 100, 150, 200 }), st["qmi"]["units"]["statistics"]);

    EXPECT_EQ(1, devsim_ctl(root(), { "fault", "drop" }, &out, &err));
    EXPECT_TRUE(out.empty());
    EXPECT_TRUE(err.starts_with("error: ")) << err;
    EXPECT_EQ(1, devsim_ctl(root(), { "ssid-ranges", "local", "9-1" }, &out, &err));
    EXPECT_NE(std::string::npos, err.find("9-1"));
    EXPECT_EQ(0, devsim_ctl(root(), { "help" }, &out, &err));
    EXPECT_NE(std::string::npos, out.find("status"));

    TempDir nothing;
    EXPECT_EQ(1, devsim_ctl(nothing.path(), { "status" }, &out, &err));
    EXPECT_NE(std::string::npos, err.find("no device simulator")) << err;
    EXPECT_EQ(2, devsim_ctl(nothing.path(), {}, &out, &err)) << "a command is needed";
}

} // namespace
