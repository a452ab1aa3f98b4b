// Android log capture on a simulated device: entries injected into the
// logger's buffers end up in committed capture files.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>

#include "devsim_ctl.h"
#include "sim_device.h"

namespace {

const char* const CAPTURE_DIR = "data/media/0/syslog";

struct Entry {
    int prio;
    std::string tag;
    std::string msg;
};

// A capture file is the logger's entries back to back: u16 payload length,
// u16 0, pid, tid, seconds, nanoseconds, then priority, tag, NUL, message,
// NUL. False when any byte does not belong to a whole entry.
bool parse_entries(const std::string& bytes, std::vector<Entry>* out)
{
    size_t pos = 0;
    while (pos < bytes.size()) {
        if (bytes.size() - pos < 20)
            return false;
        size_t len = uint8_t(bytes[pos]) | size_t(uint8_t(bytes[pos + 1])) << 8;
        if (bytes[pos + 2] != 0 || bytes[pos + 3] != 0 || bytes.size() - pos - 20 < len || len < 3)
            return false;
        std::string payload = bytes.substr(pos + 20, len);
        size_t tag_end = payload.find('\0', 1);
        if (tag_end == std::string::npos || payload.back() != '\0')
            return false;
        out->push_back({ uint8_t(payload[0]), payload.substr(1, tag_end - 1),
                         payload.substr(tag_end + 1, payload.size() - tag_end - 2) });
        pos += 20 + len;
    }
    return true;
}

class Capture : public ::testing::Test {
protected:
    void start(const std::vector<std::string>& args = {})
    {
        ASSERT_TRUE(dev.start(args)) << dev.failure();
        client = dev.connect();
        ASSERT_TRUE(client);
    }

    void inject(const std::string& buffer, const std::string& tag, const std::string& msg)
    {
        ASSERT_EQ(0, devsim_ctl(dev.root(), { "log", buffer, "I", tag, msg }));
    }

    // The newest committed file of each capture, by capture name.
    std::map<std::string, std::string> newest_files() const
    {
        std::map<std::string, std::string> newest;
        DIR* dir = opendir(dev.path(CAPTURE_DIR).c_str());
        while (dirent* e = dir ? readdir(dir) : nullptr) {
            std::string name = e->d_name;
            size_t cut = name.find('_');
            if (cut == std::string::npos)
                continue;
            std::string capture = name.substr(0, cut);
            // Names carry the time and then a counter: later sorts last
            // within the same length.
            std::string& best = newest[capture];
            if (best.empty() || name.size() > best.size() || (name.size() == best.size() && name > best))
                best = name;
        }
        if (dir)
            closedir(dir);
        std::map<std::string, std::string> contents;
        for (const auto& [capture, file] : newest)
            contents[capture] = read_file(dev.path(CAPTURE_DIR) + "/" + file);
        return contents;
    }

    // Commits until the newest files satisfy check, or the deadline passes.
    bool commit_until(const std::function<bool(const std::map<std::string, std::string>&)>& check,
                      std::chrono::milliseconds timeout = std::chrono::seconds(20))
    {
        return wait_until(
            [&] {
                client->capture_commit();
                return check(newest_files());
            },
            timeout);
    }

    size_t logger_written(const std::string& buffer)
    {
        nlohmann::json st = devsim_status(dev.root());
        return st["logger"][buffer]["written"].get<size_t>();
    }

    bool logger_idle(const std::string& buffer)
    {
        nlohmann::json st = devsim_status(dev.root());
        const auto& b = st["logger"][buffer];
        return b["flood_left"].get<size_t>() == 0 && b["queued"].get<size_t>() == 0;
    }

    SimDevice dev;
    std::unique_ptr<TovakClient> client;
};

bool has_msg(const std::string& bytes, const std::string& tag, const std::string& msg)
{
    std::vector<Entry> entries;
    if (!parse_entries(bytes, &entries))
        return false;
    for (const Entry& e : entries) {
        if (e.tag == tag && e.msg == msg)
            return true;
    }
    return false;
}

TEST_F(Capture, DefaultCategoriesCaptureWhatTheLoggerWrote)
{
    start();
    ASSERT_TRUE(client->capture_on().done());
    inject("main", "MainTag", "to main");
    inject("radio", "RIL", "to radio 1");
    inject("radio", "RIL", "to radio 2");
    inject("events", "Ev", "to events");
    inject("system", "Sys", "to system");
    ASSERT_TRUE(commit_until([](const std::map<std::string, std::string>& f) {
        return f.count("adbmain") && f.count("adbradio") && f.count("adbsystem") &&
               has_msg(f.at("adbmain"), "MainTag", "to main") && has_msg(f.at("adbradio"), "RIL", "to radio 2") &&
               has_msg(f.at("adbsystem"), "Sys", "to system");
    })) << dev.daemon_stdout();

    auto files = newest_files();
    EXPECT_FALSE(files.count("adbevents"));
    // The radio buffer held only what was injected: the file is exactly
    // those two entries, whole, in order.
    std::vector<Entry> radio;
    ASSERT_TRUE(parse_entries(files["adbradio"], &radio));
    ASSERT_EQ(2u, radio.size());
    EXPECT_EQ("to radio 1", radio[0].msg);
    EXPECT_EQ("to radio 2", radio[1].msg);
    EXPECT_EQ(4, radio[0].prio);

    // Enabled now, the events thread takes the change at its next wake-up,
    // at most 30 seconds later.
    ASSERT_TRUE(client->add_category(2).status == TovakStatus::ok);
    int n = 0;
    ASSERT_TRUE(commit_until(
        [&](const std::map<std::string, std::string>& f) {
            inject("events", "Ev", "later " + std::to_string(++n));
            return f.count("adbevents") != 0;
        },
        std::chrono::seconds(45)));
    // What the device held while nobody read it comes first.
    std::vector<Entry> events;
    ASSERT_TRUE(parse_entries(newest_files()["adbevents"], &events));
    ASSERT_FALSE(events.empty());
    EXPECT_EQ("to events", events[0].msg);
}

TEST_F(Capture, ACaptureKeepsOnlyItsNewestBytes)
{
    start();
    ASSERT_EQ(TovakStatus::ok, client->set_capture_size(3, 100).status);
    uint32_t size = 0;
    ASSERT_TRUE(client->get_capture_size(3, &size).done());
    EXPECT_EQ(500000u, size);
    ASSERT_TRUE(client->capture_on().done());
    ASSERT_EQ(0, devsim_ctl(dev.root(), { "flood", "system", "50000", "30000" }));
    ASSERT_TRUE(wait_until([&] { return logger_idle("system"); }, std::chrono::seconds(30)));
    ASSERT_TRUE(commit_until([](const std::map<std::string, std::string>& f) {
        static const std::string last = std::string("devsim") + '\0' + "flood 30000" + '\0';
        return f.count("adbsystem") && f.at("adbsystem").size() >= last.size() &&
               f.at("adbsystem").compare(f.at("adbsystem").size() - last.size(), last.size(), last) == 0;
    }));
    std::string file = newest_files()["adbsystem"];
    EXPECT_EQ(500000u, file.size());
    EXPECT_EQ(std::string::npos, file.find(std::string("flood 1") + '\0'));
    EXPECT_NE(std::string::npos, file.find(std::string("flood 29999") + '\0'));
}

TEST_F(Capture, SwitchingOffClosesTheCaptureObjects)
{
    start();
    ASSERT_TRUE(client->capture_on().done());
    inject("radio", "RIL", "open it");
    ASSERT_TRUE(dev.wait_stdout("syslog create: cat = 1, size = 10000000, tmp_path = adbradio")) << dev.daemon_stdout();
    ASSERT_TRUE(client->capture_off().done());
    // A thread notices at its next pass: after its pending read returns, or
    // when a state change wakes it.
    inject("radio", "RIL", "wake up");
    ASSERT_TRUE(wait_until([&] {
        client->capture_off();
        return dev.daemon_stdout().find("ADBLOG: Destroy log object for category #log/radio") != std::string::npos;
    })) << dev.daemon_stdout();
    bool on = true;
    ASSERT_TRUE(client->get_capture_state(&on).done());
    EXPECT_FALSE(on);
    // Off means nothing to commit.
    client->capture_commit();
    EXPECT_TRUE(dev.wait_stdout("ADBLOG: state is off so commit operation is not allowed\n"));
}

TEST_F(Capture, AFloodLosesNothingAndOtherClientsAreServed)
{
    start();
    ASSERT_TRUE(client->capture_on().done());
    const int count = 40000;
    ASSERT_EQ(0, devsim_ctl(dev.root(), { "flood", "system", "20000", std::to_string(count) }));

    std::atomic<bool> flooding{ true };
    std::atomic<int> answered{ 0 };
    std::atomic<int> asked{ 0 };
    std::thread other([&] {
        auto c = dev.connect();
        while (c && flooding) {
            bool on = false;
            asked++;
            if (c->get_capture_state(&on).done() && on)
                answered++;
        }
    });
    bool idle = wait_until([&] { return logger_idle("system"); }, std::chrono::seconds(30));
    flooding = false;
    other.join();
    ASSERT_TRUE(idle);
    EXPECT_GT(asked.load(), 0);
    EXPECT_EQ(asked.load(), answered.load());

    nlohmann::json st = devsim_status(dev.root());
    const size_t written = st["logger"]["system"]["written"].get<size_t>();
    EXPECT_EQ(0u, st["logger"]["system"]["dropped"].get<size_t>());
    std::vector<Entry> entries;
    ASSERT_TRUE(commit_until([&](const std::map<std::string, std::string>& f) {
        entries.clear();
        return f.count("adbsystem") && parse_entries(f.at("adbsystem"), &entries) && entries.size() == written;
    })) << entries.size() << " of " << written;
    EXPECT_EQ(size_t(count), written);
    for (int i = 0; i < count; i += 997)
        EXPECT_EQ("flood " + std::to_string(i + 1), entries[size_t(i)].msg);
}

TEST_F(Capture, ExtraDevicesTakeSlotsFrom4AndMissingOnesKeepTheirs)
{
    ASSERT_EQ(0, system(("mkdir -p " + dev.path("dev/log")).c_str()));
    ASSERT_EQ(0, mkfifo(dev.path("dev/log/kernel").c_str(), 0666));
    // Held open for writing, so the daemon's open never waits.
    int kernel = open(dev.path("dev/log/kernel").c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_GE(kernel, 0);
    start({ "--without-log", "system" });

    std::vector<std::string> names;
    ASSERT_TRUE(client->get_category_names(&names).done());
    EXPECT_EQ((std::vector<std::string>{ "main", "radio", "events", "", "kernel" }), names);
    EXPECT_TRUE(dev.wait_stdout("4: log/kernel\n"));

    ASSERT_EQ(TovakStatus::ok, client->add_category(4).status);
    ASSERT_TRUE(client->capture_on().done()); // also wakes every thread
    const std::string record = "kernel record\n";
    ASSERT_EQ(ssize_t(record.size()), write(kernel, record.data(), record.size()));
    ASSERT_TRUE(commit_until([&](const std::map<std::string, std::string>& f) {
        return f.count("adbkernel") && f.at("adbkernel") == record;
    }));
    // The missing system device: its thread reads "/dev/", fails, and backs
    // off every eleventh failure instead of spinning.
    EXPECT_TRUE(dev.wait_stdout("ADBLOG: /dev/ adb_fd = "));
    EXPECT_TRUE(dev.wait_stdout("ADBLOG: Critical Error: The number of read err cnt exceeds MAX_NUM_OF_READ_TRY(%)so "
                                "wait 2 seconds to avoid excessive cpu usage\n"));
    close(kernel);
}

TEST_F(Capture, RestartRestoresStateCategoriesAndClampedSizes)
{
    start();
    ASSERT_EQ(TovakStatus::ok, client->set_capture_size(1, 100).status);
    ASSERT_EQ(TovakStatus::ok, client->set_capture_size(0, 30000000).status);
    ASSERT_EQ(TovakStatus::ok, client->add_category(2).status);
    ASSERT_EQ(TovakStatus::ok, client->save_categories().status);
    ASSERT_TRUE(client->capture_on().done());
    std::string cfg = read_file(dev.path("data/media/0/dm.cfg"));
    EXPECT_NE(std::string::npos, cfg.find("<AdbLogState>on</AdbLogState>"));
    // Stored as asked; clamped only when used.
    EXPECT_NE(std::string::npos, cfg.find("<AdbSizeInfo>\n30000000,100,5000000,20000000\n</AdbSizeInfo>")) << cfg;
    EXPECT_NE(std::string::npos, cfg.find("<Category>\n1,1,1,1\n</Category>")) << cfg;

    client.reset();
    ASSERT_EQ(0, dev.stop());
    start();
    bool on = false;
    ASSERT_TRUE(client->get_capture_state(&on).done());
    EXPECT_TRUE(on);
    std::vector<bool> enabled;
    ASSERT_TRUE(client->get_categories(&enabled).done());
    EXPECT_EQ((std::vector<bool>{ true, true, true, true }), enabled);
    const uint32_t expected[] = { 20000000, 500000, 5000000, 20000000 };
    for (uint32_t cat = 0; cat < 4; cat++) {
        uint32_t size = 0;
        ASSERT_TRUE(client->get_capture_size(cat, &size).done());
        EXPECT_EQ(expected[cat], size) << cat;
    }
    EXPECT_EQ(cfg, read_file(dev.path("data/media/0/dm.cfg"))); // start-up does not save
}

TEST_F(Capture, CommandsRefuseWhatTheyMust)
{
    start();
    uint32_t min = 0, max = 0;
    ASSERT_TRUE(client->get_capture_limits(&min, &max).done());
    EXPECT_EQ(500000u, min);
    EXPECT_EQ(20000000u, max);

    // The names with their zero byte, 25 bytes.
    tovak_pkt reply;
    ASSERT_EQ(TovakStatus::ok, client->transact(0x3a, nullptr, 0, &reply));
    ASSERT_EQ(25u, reply.len);
    EXPECT_EQ(std::string("main,radio,events,system") + '\0', std::string(reinterpret_cast<char*>(reply.data), 25));

    struct Case {
        const char* name;
        std::vector<uint8_t> payload;
    };
    // Size 0 and a request without its size are refused; the size stays.
    const Case refused[] = {
        { "no size", { 1, 0, 0, 0 } },
        { "size 0", { 1, 0, 0, 0, 0, 0, 0, 0 } },
        { "too short", { 1, 0 } },
    };
    for (const Case& c : refused) {
        reply.len = 0;
        ASSERT_EQ(TovakStatus::ok, client->transact(0x3b, c.payload.data(), uint32_t(c.payload.size()), &reply));
        EXPECT_EQ(5120u, reply.len) << c.name;
    }
    uint32_t size = 0;
    ASSERT_TRUE(client->get_capture_size(1, &size).done());
    EXPECT_EQ(10000000u, size);

    ASSERT_TRUE(client->capture_on().done());
    ASSERT_EQ(TovakStatus::ok, client->set_capture_size(1, 600000).status);
    ASSERT_TRUE(client->get_capture_size(1, &size).done());
    EXPECT_EQ(10000000u, size); // not while capturing
    EXPECT_EQ(std::string::npos, read_file(dev.path("data/media/0/dm.cfg")).find("600000"));

    // Unknown categories: nothing happens, and their size reads 0.
    ASSERT_EQ(TovakStatus::ok, client->add_category(9).status);
    ASSERT_EQ(TovakStatus::ok, client->add_category(0xffffffff).status);
    ASSERT_TRUE(client->get_capture_size(7, &size).done());
    EXPECT_EQ(0u, size);
    std::vector<bool> enabled;
    ASSERT_TRUE(client->get_categories(&enabled).done());
    EXPECT_EQ((std::vector<bool>{ true, true, false, true }), enabled);
}

} // namespace
