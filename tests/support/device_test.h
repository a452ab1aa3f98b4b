// GoogleTest glue for a simulated device per test: started with a dm.cfg of
// the test's choosing, driven with raw frames, and checked after the test
// for what must never happen (a sanitizer report, a daemon restarted).
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "devsim_ctl.h"
#include "protocol/tovak_cmd_ids.h"
#include "protocol/tovak_layouts.h"
#include "sim_device.h"

using Bytes = std::vector<uint8_t>;

// The type bits of what is at path, not following a link.
inline mode_t kind(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mode & S_IFMT : 0;
}

inline size_t count(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        n++;
    return n;
}

class DeviceTest : public ::testing::Test {
protected:
    // Starts the device, with a user dm.cfg of its own when one is given, and
    // waits for both start-up steps.
    void start(const std::vector<std::string>& args = {}, const std::string& dm_cfg = "")
    {
        if (!dm_cfg.empty()) {
            std::filesystem::create_directories(dev.path("data/media/0"));
            ASSERT_TRUE(write_file(user_config(), dm_cfg));
        }
        ASSERT_TRUE(dev.start(args)) << dev.failure();
        ASSERT_TRUE(dev.wait_stdout("adblog handler is initialized")) << dev.failure();
        ASSERT_TRUE(client = dev.connect(30000));
    }
    void restart(const std::vector<std::string>& args = {})
    {
        client.reset();
        ASSERT_EQ(0, dev.stop()) << dev.failure();
        check_device();
        start(args);
    }
    void TearDown() override
    {
        client.reset();
        if (dev.running())
            dev.stop();
        check_device();
    }
    void check_device()
    {
        EXPECT_EQ("", dev.sanitizer_report()) << dev.failure();
        EXPECT_LE(dev.daemon_starts(), 1) << "tovakd restarted\n" << dev.failure();
    }

    // One request on the test's connection; the reply must come.
    tovak_pkt send(uint32_t cmd, const Bytes& payload = {}, TovakClient* c = nullptr)
    {
        tovak_pkt reply = {};
        EXPECT_EQ(TovakStatus::ok,
                  (c ? c : client.get())->transact(cmd, payload.data(), uint32_t(payload.size()), &reply))
            << "cmd " << cmd;
        return reply;
    }
    std::string user_config() const { return dev.path("data/media/0/dm.cfg"); }
    nlohmann::json status() { return devsim_status(dev.root()); }
    void ctl(const std::vector<std::string>& args)
    {
        std::string err;
        ASSERT_EQ(0, devsim_ctl(dev.root(), args, nullptr, &err)) << err;
    }

    SimDevice dev;
    std::unique_ptr<TovakClient> client;
};
