// The simulated device in its sandbox with the daemon: wrapped and events
// captures open in tshark with every entry decoded.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "devsim_ctl.h"
#include "le.h"
#include "sim_device.h"

TEST(DevsimInSandbox, WrappedAndEventsCapturesOpenInTshark)
{
    setenv("TOVAK_DEVSIM_QUIET", "0", 1); // a device left alone logs like a phone
    SimDevice dev;
    ASSERT_TRUE(dev.start()) << dev.failure();
    auto client = dev.connect();
    ASSERT_TRUE(client && client->add_category(2).status == TovakStatus::ok && client->capture_on().done());
    // Sixteen megabytes of main entries through a 10 MB ring: it wraps.
    ASSERT_EQ(0, devsim_ctl(dev.root(), { "flood", "main", "200000", "400000" }));
    ASSERT_EQ(0, devsim_ctl(dev.root(), { "flood", "events", "1000", "500" }));
    ASSERT_TRUE(wait_until(
        [&] {
            nlohmann::json l = devsim_status(dev.root())["logger"];
            return l["main"]["flood_left"] == 0 && l["events"]["flood_left"] == 0 && l["main"]["queued"] == 0;
        },
        std::chrono::seconds(60)));
    std::map<std::string, std::string> newest; // by name prefix
    ASSERT_TRUE(wait_until(
        [&] {
            client->capture_commit();
            for (const auto& f : std::filesystem::directory_iterator(dev.path("data/media/0/syslog"))) {
                std::string p = f.path().string(), name = f.path().filename().string();
                name = name.substr(0, name.find('_'));
                newest[name] = std::max(newest[name], p);
            }
            return newest.count("adbevents") && read_file(newest["adbmain"]).size() > 9000000;
        },
        std::chrono::seconds(60)));
    if (system("tshark -v >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tshark is not installed (scripts/deps.sh installs it)";
    for (const char* name : { "adbmain", "adbevents" }) {
        const std::string data = read_file(newest[name]);
        long entries = 0; // walked by their headers, to the very end
        size_t pos = 0;
        for (; pos + 20 <= data.size(); entries++)
            pos += 20 + get_u16(reinterpret_cast<const uint8_t*>(&data[pos]));
        ASSERT_TRUE(pos == data.size() && entries > 2) << name << ": whole entries, more than tshark's 2 quirk";
        std::string out, err;
        EXPECT_EQ(0, SimDevice::run({ "/usr/bin/env", "tshark", "-X", "read_format:Android Logcat Binary format", "-r",
                                      newest[name], "-T", "fields", "-e", "logcat.pid" },
                                    &out, &err))
            << err;
        EXPECT_EQ(entries, std::count(out.begin(), out.end(), '\n')) << name << ": every entry decoded";
    }
}
