// Choosing and reporting the configuration file over the socket, and the
// start-up load, on a simulated device.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <set>
#include <thread>

#include "protocol/tovak_cmd_ids.h"
#include "sim_device.h"

namespace {

const char* const CONFIG_PROPERTY = "persist.dmlogging.config_file";

size_t count(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1))
        n++;
    return n;
}

// 0x11's payload: the i16 length (by default the name and its zero), the name.
std::vector<uint8_t> set_payload(const std::string& name, int n = -1)
{
    n = n < 0 ? int(name.size() + 1) : n;
    std::vector<uint8_t> p(std::max(name.size() + 3, size_t(101)), 0);
    p[0] = uint8_t(n);
    p[1] = uint8_t(n >> 8);
    memcpy(p.data() + 2, name.data(), name.size());
    return p;
}

// 0x12's answer, checked for a well-formed reply.
std::string current_file(TovakClient& c)
{
    tovak_pkt reply;
    EXPECT_EQ(TovakStatus::ok, c.transact(CMD_GET_CONFIG_FILE, nullptr, 0, &reply));
    uint16_t n = uint16_t(reply.data[0] | reply.data[1] << 8);
    if (n == 0 || n > 100 || reply.len != n + 2u || reply.data[1 + n] != 0)
        return "<torn reply>";
    return reinterpret_cast<const char*>(reply.data + 2);
}

class ConfigCmds : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dev.start()) << dev.failure();
        ASSERT_TRUE(client = dev.connect());
    }

    // Sends 0x11 and returns what the daemon logged for it: from its own
    // "cmd = 17" line (earlier output may still be on its way to the file)
    // to the next request's line, since stdout reaches the file in order.
    std::string set_file(const std::vector<uint8_t>& payload)
    {
        size_t gets = count(dev.daemon_stdout(), "cmd = 18\n");
        tovak_pkt reply;
        EXPECT_EQ(TovakStatus::ok, client->transact(CMD_SET_CONFIG_FILE, payload.data(), uint32_t(payload.size()), &reply));
        EXPECT_EQ(uint32_t(TOVAK_PKT_DATA_SIZE), reply.len); // never written
        current = current_file(*client);
        EXPECT_TRUE(wait_until([&] { return count(dev.daemon_stdout(), "cmd = 18\n") > gets; }));
        std::string out = dev.daemon_stdout();
        size_t own = out.rfind("cmd = 17\n");
        return own == std::string::npos ? std::string() : out.substr(own);
    }

    // A file of the device, named by its device path.
    std::string device_file(const std::string& path)
    {
        EXPECT_TRUE(write_file(dev.path(path.substr(1)), "<LogState>off</LogState>"));
        return path;
    }

    SimDevice dev;
    std::unique_ptr<TovakClient> client;
    std::string current;
};

TEST_F(ConfigCmds, ChosenFileIsReportedKeptAndSurvivesARestart)
{
    tovak_pkt reply;
    ASSERT_EQ(TovakStatus::ok, client->transact(CMD_GET_CONFIG_FILE, nullptr, 0, &reply));
    ASSERT_EQ(17u, reply.len);
    EXPECT_EQ(0, memcmp(reply.data, "\x0f\x00/sdcard/dm.cfg", 17));

    std::string mine = device_file("/data/local/mine.cfg");
    std::string out = set_file(set_payload(mine));
    EXPECT_NE(std::string::npos, out.find("Set config file size = 21, /data/local/mine.cfg\n")) << out;
    EXPECT_EQ(0u, count(out, "tovak_handler ERR >> ") + count(out, "Critical Error"));
    EXPECT_EQ(mine, current);
    EXPECT_EQ(mine, dev.property(CONFIG_PROPERTY));

    client.reset();
    dev.stop();
    ASSERT_TRUE(dev.start()) << dev.failure();
    ASSERT_TRUE(client = dev.connect());
    EXPECT_EQ(mine, current_file(*client));
}

TEST_F(ConfigCmds, EachChoiceIsTakenOrRefusedWithItsMessage)
{
    const std::string fits = device_file("/data/local/" + std::string(79, 'f')); // 91 bytes
    const std::string too_long = device_file("/data/local/" + std::string(80, 'g'));
    const std::string other = device_file("/data/local/other.cfg");
    struct Case {
        std::vector<uint8_t> payload;
        const char* logged;
        std::string current_after;
    };
    const Case cases[] = {
        { set_payload(fits), "Set config file size = 92", fits },
        { set_payload(too_long), "Critical Error: fail to save config file into property system\n", fits },
        { set_payload(other, 100), "tovak_handler ERR >> ", fits },
        { set_payload(other, 0xffff), "tovak_handler ERR >> ", fits },
        // The name ends at its length, zero byte or not.
        { set_payload(other + "XYZ", int(other.size())), "Set config file size = 21, /data/local/other.cfg\n", other },
        { set_payload(fits, 99), "Set config file size = 99", fits },
        { set_payload(""), "Critical Error: Missing Config File\n", fits },
        // A missing file fails, but the name is taken.
        { set_payload("/data/local/none.cfg"), "Critical Error: Missing Config File\n", "/data/local/none.cfg" },
    };
    for (const Case& c : cases) {
        std::string out = set_file(c.payload);
        EXPECT_NE(std::string::npos, out.find(c.logged)) << c.logged << "\n" << out;
        EXPECT_EQ(c.current_after, current);
        EXPECT_EQ(c.current_after, dev.property(CONFIG_PROPERTY));
    }
}

TEST_F(ConfigCmds, ClientsChoosingFilesAtOnceSeeWholeNames)
{
    std::set<std::string> paths;
    for (int i = 0; i < 4; i++)
        paths.insert(device_file("/data/local/c" + std::to_string(i) + ".cfg"));
    std::vector<std::string> seen[4];
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&, i] {
            auto c = dev.connect();
            std::vector<uint8_t> p = set_payload(*std::next(paths.begin(), i));
            tovak_pkt reply;
            for (int round = 0; c && round < 25; round++) {
                if (c->transact(CMD_SET_CONFIG_FILE, p.data(), uint32_t(p.size()), &reply) != TovakStatus::ok)
                    break;
                seen[i].push_back(current_file(*c));
            }
        });
    }
    for (auto& t : threads)
        t.join();
    for (const auto& s : seen) {
        EXPECT_EQ(25u, s.size());
        for (const std::string& name : s)
            EXPECT_EQ(1u, paths.count(name)) << name;
    }
    EXPECT_EQ(0u, count(dev.daemon_stdout(), "Critical Error"));
    EXPECT_EQ(current_file(*client), dev.property(CONFIG_PROPERTY));
}

TEST(ConfigStartup, LoadsTheUserFileWhateverThePropertySays)
{
    SimDevice dev;
    std::filesystem::create_directories(dev.path("data/property"));
    ASSERT_TRUE(write_file(dev.path("data/property/persist.dmlogging.config_file"), "/data/local/none.cfg"));
    ASSERT_TRUE(dev.start()) << dev.failure();
    ASSERT_TRUE(dev.wait_stdout("tovak handler is initialized successfully\n"));
    std::string out = dev.daemon_stdout();
    EXPECT_LT(out.find("[!] Configuration File Loading Success\n"), out.find("tovak handler is initialized"));
    auto c = dev.connect();
    ASSERT_TRUE(c);
    EXPECT_EQ("/data/local/none.cfg", current_file(*c));
}

TEST(ConfigStartup, FallsBackToTheBuiltInTextWhenTheUserFileIsUnreadable)
{
    SimDevice dev;
    // A directory where the file should be: provisioning leaves it alone.
    std::filesystem::create_directories(dev.path("data/media/0/dm.cfg"));
    ASSERT_TRUE(dev.start()) << dev.failure();
    EXPECT_TRUE(dev.wait_stdout("Configuration File Loading Fail so load default config.\n"));
    auto c = dev.connect();
    ASSERT_TRUE(c);
    EXPECT_EQ("/sdcard/dm.cfg", current_file(*c));
}

} // namespace
