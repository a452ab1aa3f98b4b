// Android log capture on a simulated device: entries written to the
// logger's buffers end up, whole and in order, in committed capture files.
#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include "device_test.h"

namespace {

struct Entry {
    int prio;
    std::string tag, msg;
};

// A capture file is the logger's entries back to back: u16 payload length,
// u16 0, pid, tid, seconds, nanoseconds, then priority, tag, NUL, message,
// NUL. False when any byte does not belong to a whole entry.
bool parse_entries(const std::string& bytes, std::vector<Entry>* out)
{
    for (size_t pos = 0; pos < bytes.size();) {
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

// The capture names of the files in dir, sorted.
std::vector<std::string> captures_in(const std::string& dir)
{
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = d ? readdir(d) : nullptr)
        if (e->d_name[0] != '.')
            names.push_back(std::string(e->d_name).substr(0, std::string(e->d_name).find('_')));
    if (d)
        closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

// The daemon among pid's descendants, by its name; an ARM build runs as
// qemu with the daemon's path among its arguments.
pid_t find_daemon(pid_t pid)
{
    const std::string proc = "/proc/" + std::to_string(pid);
    const std::string comm = read_file(proc + "/comm");
    if (comm == "tovakd\n" || (comm.rfind("qemu-", 0) == 0 &&
                               read_file(proc + "/cmdline").find(std::string("/tovakd", 8)) != std::string::npos))
        return pid;
    std::istringstream children(read_file(proc + "/task/" + std::to_string(pid) + "/children"));
    pid_t found = -1;
    for (pid_t child; found < 0 && children >> child;)
        found = find_daemon(child);
    return found;
}

class Capture : public DeviceTest {
protected:
    // No thread of the daemon runs, at one look before the deadline. An idle
    // daemon gets there at once; one that polls instead of waiting is seen
    // running every time.
    bool daemon_asleep()
    {
        const std::string tasks = "/proc/" + std::to_string(find_daemon(dev.launcher_pid())) + "/task";
        return wait_until(
            [&] {
                for (const auto& e : std::filesystem::directory_iterator(tasks)) {
                    const std::string stat = read_file(e.path().string() + "/stat");
                    if (stat.empty() || stat[stat.rfind(')') + 2] == 'R')
                        return false;
                }
                return true;
            },
            std::chrono::seconds(10));
    }
    void log(const std::string& buffer, const std::string& msg) { ctl({ "log", buffer, "I", "Tag", msg }); }

    // The newest committed file of each capture, by capture name.
    std::map<std::string, std::string> newest_files()
    {
        const std::string dir = dev.path("data/media/0/syslog");
        std::map<std::string, std::string> newest;
        DIR* d = opendir(dir.c_str());
        while (dirent* e = d ? readdir(d) : nullptr) {
            std::string name = e->d_name;
            size_t cut = name.find('_');
            // Names carry the time and then a counter: later sorts last
            // within the same length.
            std::string& best = newest[cut == std::string::npos ? "" : name.substr(0, cut)];
            if (best.empty() || name.size() > best.size() || (name.size() == best.size() && name > best))
                best = name;
        }
        if (d)
            closedir(d);
        std::map<std::string, std::string> contents;
        for (const auto& [capture, file] : newest)
            contents[capture] = read_file(dir + "/" + file);
        return contents;
    }
    // Commits until the newest file of capture parses to entries that
    // satisfy check, or the deadline passes.
    bool commit_until(const std::string& capture, const std::function<bool(const std::vector<Entry>&)>& check)
    {
        return wait_until(
            [&] {
                send(CMD_ADBLOG_COMMIT);
                std::vector<Entry> entries;
                auto files = newest_files();
                return files.count(capture) && parse_entries(files[capture], &entries) && check(entries);
            },
            std::chrono::seconds(30));
    }
    bool logger_idle(const std::string& buffer)
    {
        const nlohmann::json b = status()["logger"][buffer];
        return b["flood_left"] == 0 && b["queued"] == 0;
    }
};

TEST_F(Capture, EnabledCategoriesCaptureWhatTheLoggerWroteAndNothingElse)
{
    start();
    // Start-up lists the log devices, and closes their directory again.
    std::error_code ec;
    int seen = 0;
    for (const auto& e :
         std::filesystem::directory_iterator("/proc/" + std::to_string(find_daemon(dev.launcher_pid())) + "/fd", ec)) {
        seen++;
        EXPECT_FALSE(std::filesystem::read_symlink(e.path(), ec).string().ends_with("/dev/log")) << e.path();
    }
    EXPECT_GT(seen, 3);
    // Threads waiting for capture on, or for their category, sleep.
    EXPECT_TRUE(daemon_asleep()) << "capture off";
    EXPECT_EQ(0u, send(CMD_ADBLOG_ON).len);
    EXPECT_TRUE(daemon_asleep()) << "events disabled";
    for (const char* buffer : { "radio", "events", "main" })
        log(buffer, std::string("to ") + buffer);
    log("radio", "again");
    ASSERT_TRUE(commit_until("adbradio", [](const std::vector<Entry>& e) {
        return e.size() == 2 && e[0].msg == "to radio" && e[0].prio == 4 && e[1].msg == "again";
    })) << dev.daemon_stdout();
    ASSERT_TRUE(commit_until("adbmain", [](const std::vector<Entry>& e) {
        return std::any_of(e.begin(), e.end(), [](const Entry& x) { return x.msg == "to main"; });
    }));
    EXPECT_FALSE(newest_files().count("adbevents")) << "off by default";
    tovak_pkt r = send(CMD_ADBLOG_GET_CATEGORIES);
    std::vector<uint32_t> enabled;
    EXPECT_TRUE(tovak_unpack_u32s(r.data, r.len, &enabled));
    EXPECT_EQ((std::vector<uint32_t>{ 1, 1, 0, 1 }), enabled);
    EXPECT_EQ(std::string::npos, dev.daemon_stdout().find("Timed Wait expired")) << "a wake-up is no time-out";
}

TEST_F(Capture, TheSmallestSizeKeepsOnlyTheNewestOfAFlood)
{
    start();
    send(CMD_ADBLOG_SET_SIZE, tovak_pack_u32_u32(3, 100));
    EXPECT_EQ(500000u, tovak_get_u32(send(CMD_ADBLOG_GET_SIZE, tovak_pack_u32(3)).data));
    send(CMD_ADBLOG_ON);

    // A capture of 500000 bytes keeps only the newest of a larger flood.
    ctl({ "flood", "system", "50000", "30000" });
    ASSERT_TRUE(wait_until([&] { return logger_idle("system"); }, std::chrono::seconds(30)));
    ASSERT_TRUE(commit_until("adbsystem", [](const std::vector<Entry>& e) { return e.back().msg == "flood 30000"; }));
    std::string file = newest_files()["adbsystem"];
    EXPECT_EQ(500000u, file.size());
    EXPECT_EQ(std::string::npos, file.find(std::string("flood 1") + '\0'));
}

TEST_F(Capture, ConcurrentFloodLosesNothingAndOtherClientsAreServed)
{
    start();
    send(CMD_ADBLOG_ON);
    // A rate that even a daemon under ThreadSanitizer keeps up with: more
    // entries than the logger's buffer holds, so none may be left behind.
    const size_t n = 15000;
    ctl({ "flood", "system", "3000", std::to_string(n) });
    std::atomic<bool> flooding{ true };
    std::atomic<int> asked{ 0 }, answered{ 0 };
    std::thread other([&] {
        auto c = dev.connect();
        for (tovak_pkt r; c && flooding; asked++)
            answered +=
                c->transact(CMD_ADBLOG_GET_STATE, nullptr, 0, &r) == TovakStatus::ok && tovak_get_u32(r.data) == 1;
    });
    bool idle = wait_until([&] { return logger_idle("system"); }, std::chrono::seconds(30));
    flooding = false;
    other.join();
    ASSERT_TRUE(idle);
    EXPECT_EQ(asked.load(), answered.load());
    EXPECT_EQ(0, status()["logger"]["system"]["dropped"]);
    ASSERT_TRUE(commit_until("adbsystem", [&](const std::vector<Entry>& e) {
        for (size_t i = 0; i < e.size(); i += 997)
            if (e[i].msg != "flood " + std::to_string(i + 1))
                return false;
        return e.size() == n;
    }));
}

TEST_F(Capture, ARestartRestoresStateCategoriesAndSizes)
{
    start();
    send(CMD_ADBLOG_SET_SIZE, tovak_pack_u32_u32(0, 30000000));
    send(CMD_ADBLOG_ADD_CATEGORY, tovak_pack_u32(2));
    send(CMD_ADBLOG_ADD_CATEGORY, tovak_pack_u32(9)); // no such category: nothing happens
    send(CMD_ADBLOG_SET_CATEGORIES);
    send(CMD_ADBLOG_ON);
    const std::string cfg = read_file(user_config());
    // Stored as asked; clamped only when used.
    EXPECT_NE(std::string::npos, cfg.find("<AdbSizeInfo>\n30000000,10000000,5000000,20000000\n")) << cfg;
    EXPECT_NE(std::string::npos, cfg.find("<Category>\n1,1,1,1\n")) << cfg;
    restart();
    EXPECT_EQ(1u, tovak_get_u32(send(CMD_ADBLOG_GET_STATE).data));
    EXPECT_EQ(1u, tovak_get_u32(send(CMD_ADBLOG_GET_CATEGORIES).data + 8));
    EXPECT_EQ(20000000u, tovak_get_u32(send(CMD_ADBLOG_GET_SIZE, tovak_pack_u32(0)).data));
    EXPECT_EQ(cfg, read_file(user_config())) << "start-up does not save";
}

// The sizes kept are one per configured category: none for an empty list,
// though the core took the size given.
TEST_F(Capture, AnEmptyCategoryListLeavesNoSizesToSave)
{
    start({}, "<Category></Category><AdbSizeInfo>600000</AdbSizeInfo>");
    EXPECT_EQ(600000u, tovak_get_u32(send(CMD_ADBLOG_GET_SIZE, tovak_pack_u32(0)).data));
    send(CMD_ADD_EVENT, tovak_pack_u16(1));
    EXPECT_EQ(std::string::npos, read_file(user_config()).find("AdbSizeInfo")) << read_file(user_config());
}

// The output path's directory takes the next successful commit only; a
// refused one keeps it. Disabled categories are left out of a commit even
// while their file is open, and a size set while off is the next file's.
TEST_F(Capture, CommitsGoOnceWhereTheOutPathSaysAndOnlyEnabledOnesGo)
{
    start();
    // Start-up builds the modem's packets before any log on, and names every
    // category by its number.
    for (const char* line : { ":   tovak_data_load_dm_packet(), total packet_cnt 29\n", ": 0: log/main\n",
                              ": 1: log/radio\n", ": 2: log/events\n", ": 3: log/system\n" })
        EXPECT_NE(std::string::npos, dev.daemon_stdout().find(line)) << line;
    // Its error lines: the harness's probe, gone, and the log off of a daemon
    // that is not logging.
    ASSERT_TRUE(dev.wait_stdout("server: got disconnection"));
    EXPECT_EQ(2u, count(dev.daemon_stdout(), " ERR >> ")) << dev.daemon_stdout();
    const std::string once = dev.path("data/media/0/once");
    EXPECT_EQ(0u, tovak_get_u32(send(CMD_OUT_PATH,
                                     Bytes{ '/', 's', 'd', 'c', 'a', 'r', 'd', '/', 'o', 'n', 'c', 'e', '/', 'd', 0 })
                                    .data));
    EXPECT_EQ(0u, send(CMD_ADBLOG_COMMIT).len);
    send(CMD_ADBLOG_SET_SIZE, tovak_pack_u32_u32(1, 600000));
    send(CMD_ADBLOG_ADD_CATEGORY, tovak_pack_u32(2));
    send(CMD_ADBLOG_ON);
    for (const char* buffer : { "radio", "events" })
        log(buffer, "ready");
    // A file is made when its first data arrives, and written under the same
    // lock that a commit takes.
    ASSERT_TRUE(dev.wait_stdout("syslog create: cat = 1, size = 600000, tmp_path = adbradio")) << dev.daemon_stdout();
    ASSERT_TRUE(dev.wait_stdout("syslog create: cat = 2, size = 5000000, tmp_path = adbevents"));
    send(CMD_ADBLOG_RM_CATEGORY, tovak_pack_u32(2));
    EXPECT_EQ(0u, send(CMD_ADBLOG_COMMIT).len);
    const std::vector<std::string> names = captures_in(once);
    EXPECT_TRUE(std::binary_search(names.begin(), names.end(), "adbradio")) << once;
    EXPECT_FALSE(std::binary_search(names.begin(), names.end(), "adbevents")) << "disabled before the commit";
    EXPECT_TRUE(std::adjacent_find(names.begin(), names.end()) == names.end()) << "one commit, one file each";

    log("radio", "after");
    ASSERT_TRUE(commit_until("adbradio", [](const std::vector<Entry>& e) { return e.back().msg == "after"; }));
    EXPECT_EQ(names, captures_in(once)) << "later commits go back to syslog";
}

} // namespace
