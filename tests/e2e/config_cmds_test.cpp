// Choosing and reporting the configuration file over the socket, and the
// start-up load, on a simulated device.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "daemon/tovak_cmd_ids.h"
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

// 0x11's payload: i16 length (by default the name and its zero), the bytes.
std::vector<uint8_t> set_payload(const std::string& bytes, int n = -1)
{
    if (n < 0)
        n = int(bytes.size() + 1);
    std::vector<uint8_t> p(2 + bytes.size() + 1, 0);
    p[0] = uint8_t(n);
    p[1] = uint8_t(n >> 8);
    memcpy(p.data() + 2, bytes.data(), bytes.size());
    return p;
}

class ConfigCmds : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dev.start()) << dev.failure();
        client = dev.connect();
        ASSERT_TRUE(client);
    }

    // Sends 0x11 and waits until the daemon has logged all of it: its stdout
    // reaches the file in order, so the next request's line marks the end.
    // The reply says nothing: it is always the untouched full frame.
    void set_file(const std::vector<uint8_t>& payload)
    {
        std::string before = dev.daemon_stdout();
        size_t gets = count(before, "cmd = 18\n");
        tovak_pkt reply;
        ASSERT_EQ(TovakStatus::ok, client->transact(CMD_SET_CONFIG_FILE, payload.data(), uint32_t(payload.size()), &reply));
        EXPECT_EQ(uint32_t(TOVAK_PKT_DATA_SIZE), reply.len);
        get_file();
        ASSERT_TRUE(wait_until([&] { return count(dev.daemon_stdout(), "cmd = 18\n") > gets; }));
        std::string out = dev.daemon_stdout();
        last_refused = count(out, "tovak_handler ERR >> ") > count(before, "tovak_handler ERR >> ");
        last_reached = count(out, "Set config file size = ") > count(before, "Set config file size = ");
    }

    // 0x12: the current path, checked for a well-formed reply.
    std::string get_file()
    {
        tovak_pkt reply;
        EXPECT_EQ(TovakStatus::ok, client->transact(CMD_GET_CONFIG_FILE, nullptr, 0, &reply));
        uint16_t n = uint16_t(reply.data[0] | reply.data[1] << 8);
        EXPECT_EQ(uint32_t(n) + 2, reply.len);
        if (n == 0 || n > TOVAK_PKT_DATA_SIZE - 2)
            return "<bad length " + std::to_string(n) + ">";
        std::string name(reinterpret_cast<const char*>(reply.data + 2), n);
        EXPECT_EQ('\0', name.back());
        name.pop_back();
        EXPECT_EQ(name.size(), strlen(name.c_str()));
        return name;
    }

    // A file on the device, at its device path.
    std::string device_file(const std::string& device_path, const std::string& text)
    {
        EXPECT_TRUE(write_file(dev.path(device_path.substr(1)), text));
        return device_path;
    }

    SimDevice dev;
    std::unique_ptr<TovakClient> client;
    bool last_refused = false;
    bool last_reached = false;
};

TEST_F(ConfigCmds, GetAnswersTheDefaultPathWhenThePropertyIsUnset)
{
    tovak_pkt reply;
    ASSERT_EQ(TovakStatus::ok, client->transact(CMD_GET_CONFIG_FILE, nullptr, 0, &reply));
    ASSERT_EQ(17u, reply.len);
    EXPECT_EQ(15, reply.data[0] | reply.data[1] << 8);
    EXPECT_EQ(0, memcmp(reply.data + 2, "/sdcard/dm.cfg", 15));
    EXPECT_EQ("", dev.property(CONFIG_PROPERTY));
}

TEST_F(ConfigCmds, SetThenGetReturnsThePathAndThePropertyKeepsIt)
{
    std::string path = device_file("/data/local/mine.cfg", "<LogState>off</LogState>");
    set_file(set_payload(path));
    EXPECT_TRUE(last_reached);
    EXPECT_FALSE(last_refused);
    EXPECT_TRUE(dev.wait_stdout("Set config file size = 21, /data/local/mine.cfg\n"));
    EXPECT_EQ(path, get_file());
    EXPECT_EQ(path, dev.property(CONFIG_PROPERTY));
    EXPECT_EQ(0u, count(dev.daemon_stdout(), "Critical Error"));

    // After a restart the path comes back from the property, while start-up
    // itself still reads the user file.
    client.reset();
    dev.stop();
    ASSERT_TRUE(dev.start()) << dev.failure();
    client = dev.connect();
    ASSERT_TRUE(client);
    EXPECT_EQ(path, get_file());
    EXPECT_TRUE(dev.wait_stdout("[!] Configuration File Loading Success\n"));
}

TEST_F(ConfigCmds, MissingFileFailsButBecomesTheCurrentPath)
{
    set_file(set_payload("/data/local/none.cfg"));
    EXPECT_TRUE(last_refused);
    EXPECT_TRUE(dev.wait_stdout("Critical Error: Missing Config File\n"));
    EXPECT_EQ("/data/local/none.cfg", get_file());
    EXPECT_EQ("/data/local/none.cfg", dev.property(CONFIG_PROPERTY));
}

TEST_F(ConfigCmds, NamesOf92BytesOrMoreDoNotFitTheProperty)
{
    std::string fits = "/data/local/" + std::string(79, 'f');
    ASSERT_EQ(91u, fits.size());
    device_file(fits, "");
    set_file(set_payload(fits));
    EXPECT_FALSE(last_refused);
    EXPECT_EQ(fits, dev.property(CONFIG_PROPERTY));
    EXPECT_EQ(fits, get_file());

    for (size_t len : { 92, 98 }) {
        std::string too_long = "/data/local/" + std::string(len - 12, 'g');
        device_file(too_long, "");
        set_file(set_payload(too_long));
        EXPECT_TRUE(last_reached) << len;
        EXPECT_TRUE(last_refused) << len;
        EXPECT_TRUE(dev.wait_stdout("Critical Error: fail to save config file into property system\n"));
        // Nothing was taken over.
        EXPECT_EQ(fits, dev.property(CONFIG_PROPERTY)) << len;
        EXPECT_EQ(fits, get_file()) << len;
    }
}

TEST_F(ConfigCmds, LengthFieldIsCheckedBothWays)
{
    std::string path = device_file("/data/local/len.cfg", "");
    struct Case {
        int n;
        bool reached;
    };
    // 99 is the most a name may claim; negative lengths are refused too.
    for (Case c : { Case{ 100, false }, Case{ 0xffff, false }, Case{ 0x8000, false }, Case{ 99, true } }) {
        std::vector<uint8_t> p = set_payload(path, c.n);
        p.resize(2 + 99, 0);
        set_file(p);
        EXPECT_EQ(c.reached, last_reached) << c.n;
    }
    EXPECT_TRUE(dev.wait_stdout("Set config file size = 99, /data/local/len.cfg\n"));
    EXPECT_EQ(path, get_file());
}

TEST_F(ConfigCmds, NameEndsAtItsLengthWithoutAZeroByte)
{
    std::string path = device_file("/data/local/a.cfg", "");
    std::vector<uint8_t> p = set_payload(path + "XYZ", int(path.size()));
    set_file(p);
    EXPECT_FALSE(last_refused);
    EXPECT_EQ(path, get_file());
    EXPECT_EQ(path, dev.property(CONFIG_PROPERTY));
}

TEST_F(ConfigCmds, ClientsChoosingFilesAtOnceSeeWholeNames)
{
    const int clients = 4;
    std::set<std::string> paths = { "/sdcard/dm.cfg" };
    for (int i = 0; i < clients; i++)
        paths.insert(device_file("/data/local/c" + std::to_string(i) + ".cfg", "<LogState>off</LogState>"));
    std::vector<std::string> seen[clients];
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; i++) {
        threads.emplace_back([&, i] {
            auto c = dev.connect();
            if (!c)
                return;
            std::string mine = "/data/local/c" + std::to_string(i) + ".cfg";
            std::vector<uint8_t> p = set_payload(mine);
            for (int round = 0; round < 25; round++) {
                tovak_pkt reply;
                if (c->transact(CMD_SET_CONFIG_FILE, p.data(), uint32_t(p.size()), &reply) != TovakStatus::ok ||
                    c->transact(CMD_GET_CONFIG_FILE, nullptr, 0, &reply) != TovakStatus::ok) {
                    seen[i].push_back("<no reply>");
                    return;
                }
                uint16_t n = uint16_t(reply.data[0] | reply.data[1] << 8);
                if (n == 0 || n > 100 || reply.len != uint32_t(n) + 2 || reply.data[2 + n - 1] != 0)
                    seen[i].push_back("<torn reply>");
                else
                    seen[i].push_back(reinterpret_cast<const char*>(reply.data + 2));
            }
        });
    }
    for (auto& t : threads)
        t.join();
    for (int i = 0; i < clients; i++) {
        EXPECT_EQ(25u, seen[i].size()) << i;
        for (const std::string& s : seen[i])
            EXPECT_EQ(1u, paths.count(s)) << s;
    }
    EXPECT_EQ(0u, count(dev.daemon_stdout(), "Critical Error"));
    // The last choice is the one that stays.
    std::string last = get_file();
    EXPECT_EQ(last, dev.property(CONFIG_PROPERTY));
    EXPECT_EQ(1u, paths.count(last));
}

TEST(ConfigStartup, LoadsTheUserFileWhateverThePropertySays)
{
    SimDevice dev;
    std::filesystem::create_directories(dev.path("data/property"));
    ASSERT_TRUE(write_file(dev.path("data/property/persist.dmlogging.config_file"), "/data/local/none.cfg"));
    ASSERT_TRUE(dev.start()) << dev.failure();
    EXPECT_TRUE(dev.wait_stdout("[!] Configuration File Loading Success\n"));
    std::string out = dev.daemon_stdout();
    EXPECT_EQ(std::string::npos, out.find("Configuration File Loading Fail"));
    // The configuration is loaded before the handlers are ready.
    EXPECT_LT(out.find("[!] Configuration File Loading Success"), out.find("tovak handler is initialized successfully"));
    auto c = dev.connect();
    ASSERT_TRUE(c);
    tovak_pkt reply;
    ASSERT_EQ(TovakStatus::ok, c->transact(CMD_GET_CONFIG_FILE, nullptr, 0, &reply));
    EXPECT_STREQ("/data/local/none.cfg", reinterpret_cast<const char*>(reply.data + 2));
}

TEST(ConfigStartup, FallsBackToTheBuiltInTextWhenTheUserFileIsUnreadable)
{
    SimDevice dev;
    // A directory where the file should be: provisioning leaves it, and it
    // can't be read as a configuration.
    std::filesystem::create_directories(dev.path("data/media/0/dm.cfg"));
    ASSERT_TRUE(dev.start()) << dev.failure();
    EXPECT_TRUE(dev.wait_stdout("Configuration File Loading Fail so load default config.\n"));
    EXPECT_TRUE(dev.wait_stdout("tovak handler is initialized successfully\n"));
    // Still serving.
    auto c = dev.connect();
    ASSERT_TRUE(c);
    tovak_pkt reply;
    EXPECT_EQ(TovakStatus::ok, c->transact(CMD_GET_CONFIG_FILE, nullptr, 0, &reply));
}

} // namespace
