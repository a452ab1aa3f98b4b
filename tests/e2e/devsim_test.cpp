// The simulated device inside the sandbox, with the daemon: its output
// opens in the tools people already have.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>

#include "devsim_ctl.h"
#include "le.h"
#include "sim_device.h"

namespace {

// Entries of a committed capture file, walked by their headers; -1 when
// the file does not end with a whole one.
long count_entries(const std::string& data)
{
    long n = 0;
    size_t pos = 0;
    while (pos + 20 <= data.size()) {
        pos += 20 + get_u16(reinterpret_cast<const uint8_t*>(data.data() + pos));
        n++;
    }
    return pos == data.size() ? n : -1;
}

std::string newest(const std::string& dir, const std::string& prefix)
{
    std::string best;
    DIR* d = opendir(dir.c_str());
    for (dirent* e; d && (e = readdir(d));)
        if (std::string(e->d_name).rfind(prefix, 0) == 0 && dir + "/" + e->d_name > best)
            best = dir + "/" + e->d_name;
    if (d)
        closedir(d);
    return best;
}

TEST(DevsimInSandbox, WrappedAndEventsCapturesOpenInTshark)
{
    SimDevice dev;
    ASSERT_TRUE(dev.start()) << dev.failure();
    auto client = dev.connect();
    ASSERT_TRUE(client);
    nlohmann::json st = devsim_status(dev.root());
    EXPECT_TRUE(st["chatter"]) << "a device left alone logs like a phone";
    EXPECT_TRUE(st["daemon"].contains("last_exit"));
    ASSERT_TRUE(client->add_category(2).status == TovakStatus::ok);
    ASSERT_TRUE(client->capture_on().done());
    // Sixteen megabytes of main entries through a 10 MB ring: it wraps.
    ASSERT_EQ(0, devsim_ctl(dev.root(), { "flood", "main", "200000", "400000" }));
    ASSERT_EQ(0, devsim_ctl(dev.root(), { "flood", "events", "1000", "500" }));
    ASSERT_TRUE(wait_until([&] {
        nlohmann::json l = devsim_status(dev.root())["logger"];
        return l["main"]["flood_left"] == 0 && l["events"]["flood_left"] == 0 && l["main"]["queued"] == 0;
    }, std::chrono::seconds(60)));
    const std::string dir = dev.path("data/media/0/syslog");
    ASSERT_TRUE(wait_until([&] {
        client->capture_commit();
        return !newest(dir, "adbevents_").empty() && read_file(newest(dir, "adbmain_")).size() > 9000000;
    }, std::chrono::seconds(60)));
    if (system("tshark -v >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tshark is not installed (scripts/deps.sh installs it)";
    for (const char* name : { "adbmain_", "adbevents_" }) {
        const std::string file = newest(dir, name);
        long entries = count_entries(read_file(file));
        ASSERT_GT(entries, 2) << file << ": whole entries, and more than tshark's two-entry quirk";
        std::string out, err;
        EXPECT_EQ(0, SimDevice::run({ "/usr/bin/env", "tshark", "-X", "read_format:Android Logcat Binary format", "-r", file,
                                      "-T", "fields", "-e", "logcat.pid" }, &out, &err)) << err;
        EXPECT_EQ(entries, std::count(out.begin(), out.end(), '\n')) << file << " every entry decoded";
    }
}

} // namespace
