// A hostile local client against a simulated phone: nodes named as the
// configuration file, names planted beside dm.cfg, a file too large to read,
// lying frames and floods of connections. What is not the daemon's stays
// untouched, dm.cfg keeps its settings, and a well-formed client is answered.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <regex>
#include <thread>

#include "device_test.h"
#include "protocol/unix_socket.h"

namespace fs = std::filesystem;

namespace {

class Hostile : public DeviceTest {
protected:
    void SetUp() override
    {
        start();
        saved = read_file(user_config());
        ASSERT_FALSE(saved.empty());
    }

    // Command 0x11 with a well-formed name; answered whether taken or not.
    void choose(const std::string& name) { send(CMD_SET_CONFIG_FILE, tovak_pack_counted_text(name)); }
    std::vector<uint16_t> events()
    {
        tovak_pkt r = send(CMD_GET_EVENTS);
        std::vector<uint16_t> ids;
        if (r.len != 5120)
            tovak_unpack_ids(r.data, r.len, &ids);
        return ids;
    }
    bool has_event(uint16_t id)
    {
        std::vector<uint16_t> ids = events();
        return std::find(ids.begin(), ids.end(), id) != ids.end();
    }
    // A client of its own, connected after whatever the test did, answered.
    void a_new_client_is_answered()
    {
        auto other = dev.connect(5000);
        ASSERT_TRUE(other) << "no client can connect";
        bool on = true;
        EXPECT_TRUE(other->get_log_state(&on).done());
    }

    std::string saved; // dm.cfg as the device started with it
};

// Each node named as the configuration file meets an edit and is still what
// it was; the daemon's own socket still takes clients, after a restart too,
// when the property still names it.
TEST_F(Hostile, NodesNamedAsTheConfigurationAreNeverReplaced)
{
    ASSERT_TRUE(write_file(dev.path("data/local/victim"), "victim's"));
    ASSERT_EQ(0, mkfifo(dev.path("data/local/fifo").c_str(), 0666));
    fs::create_directory(dev.path("data/local/dir"));
    fs::create_symlink("/data/local/victim", dev.path("data/local/link"));
    struct Node {
        std::string path; // as the device sees it
        mode_t kind;
    };
    const Node nodes[] = {
        { "/data/local/fifo", S_IFIFO },
        { "/data/local/dir", S_IFDIR },
        { "/data/local/link", S_IFLNK },
        { "/dev/ps_socket/tovak", S_IFSOCK },
    };
    uint16_t id = 1100;
    for (const Node& n : nodes) {
        SCOPED_TRACE(n.path);
        choose(n.path);
        EXPECT_EQ(0u, send(CMD_ADD_EVENT, tovak_pack_u16(++id)).len);
        EXPECT_TRUE(has_event(id)) << "the edit holds in memory";
        EXPECT_EQ(n.kind, kind(dev.path(n.path.substr(1))));
        EXPECT_EQ("victim's", read_file(dev.path("data/local/victim")));
        a_new_client_is_answered();
    }
    EXPECT_EQ(1u, fs::hard_link_count(dev.path("data/local/victim")));
    EXPECT_TRUE(fs::is_empty(dev.path("data/local/dir")));

    restart();
    EXPECT_EQ("/dev/ps_socket/tovak", dev.property("persist.dmlogging.config_file"));
    EXPECT_EQ(0u, send(CMD_ADD_EVENT, tovak_pack_u16(1200)).len);
    EXPECT_EQ(S_IFSOCK, kind(dev.socket_path()));
    a_new_client_is_answered();
    // None of it reached dm.cfg, which the restart loaded.
    EXPECT_EQ(saved, read_file(user_config()));
    EXPECT_FALSE(has_event(1101));
}

// A file over 1 MiB named as the configuration is refused as a missing one,
// with a line saying why; the settings in force stay.
TEST_F(Hostile, AnOversizedConfigurationIsNotRead)
{
    const std::vector<uint16_t> before = events();
    ASSERT_FALSE(before.empty());
    std::string big = "<EventIDs>1234</EventIDs>\n";
    big.resize(2 << 20, '#');
    ASSERT_TRUE(write_file(dev.path("data/local/big.cfg"), big));
    choose("/data/local/big.cfg");
    EXPECT_TRUE(dev.wait_stdout("Config file /data/local/big.cfg is larger than 1048576 bytes, not read"))
        << dev.daemon_stdout();
    EXPECT_TRUE(dev.wait_stdout("Critical Error: Missing Config File"));
    EXPECT_EQ(before, events());
}

// A FIFO where provisioning would put the user's dm.cfg, the default save
// path too: start-up goes on with the built-in settings, and no save
// replaces the FIFO.
using HostileStartUp = DeviceTest;

TEST_F(HostileStartUp, AFifoAtTheUserFileHoldsNothingUpAndStays)
{
    fs::create_directories(dev.path("data/media/0"));
    ASSERT_EQ(0, mkfifo(user_config().c_str(), 0666));
    start();
    EXPECT_TRUE(dev.wait_stdout("User file already exists /data/media/0/dm.cfg"));
    EXPECT_TRUE(dev.wait_stdout("Configuration File Loading Fail so load default config."));
    EXPECT_EQ(0u, send(CMD_ADD_EVENT, tovak_pack_u16(1234)).len);
    EXPECT_EQ(S_IFIFO, kind(user_config()));
}

// Clients that hold connections idle, and many more that connect briefly to
// send frames whose length lies, ids past the table, half a frame or
// nothing, while a well-formed client edits: every edit is answered and
// saved, and the daemon never restarts.
TEST_F(Hostile, ConcurrentFloodsAndLyingFramesLeaveEditsAnswered)
{
    const int idle_count = 200, liars = 4, per_liar = 150 / test_time_scale() + 20;
    std::vector<int> idle;
    for (int i = 0; i < idle_count; i++) {
        int fd = unix_socket_connect(dev.socket_path().c_str(), 5000);
        ASSERT_GE(fd, 0) << i;
        idle.push_back(fd);
    }
    // Only commands that read: what the liars send must not undo the edits.
    const uint32_t reads[] = { CMD_GET_EVENTS,    CMD_GET_LOGS,        CMD_GET_MSG,       CMD_GET_BUFFER_SIZE,
                               CMD_GET_LOG_STATE, CMD_GET_CONFIG_FILE, CMD_DPL_GET_STATE, CMD_ADBLOG_GET_STATE };
    std::atomic<bool> stop{ false };
    std::atomic<int> sent{ 0 };
    std::vector<std::thread> threads;
    for (int t = 0; t < liars; t++) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(uint32_t(1000 + t));
            for (int i = 0; i < per_liar && !stop; i++) {
                int fd = unix_socket_connect(dev.socket_path().c_str(), 5000);
                if (fd < 0)
                    continue;
                tovak_pkt req;
                for (auto& b : req.data)
                    b = uint8_t(rng());
                const uint32_t lies[] = { 0xffffffffu, 0, 5121, 0x80000000u };
                req.cmd = rng() % 4 == 0 ? 90 + rng() % 1000 : reads[rng() % std::size(reads)];
                req.len = lies[rng() % std::size(lies)];
                const size_t part = rng() % 3 == 0 ? rng() % sizeof req : sizeof req;
                if (rng() % 5 != 0 && write(fd, &req, part) == ssize_t(part))
                    sent++;
                close(fd);
            }
        });
    }
    uint16_t id = 1300;
    for (; id < 1340; id++)
        ASSERT_EQ(0u, send(CMD_ADD_EVENT, tovak_pack_u16(id)).len) << id;
    // A slow machine may answer the edits before the liars got going: they
    // go on until they have sent their share, or their count runs out.
    wait_until([&] { return sent.load() > liars * 10; });
    stop = true;
    for (auto& th : threads)
        th.join();
    for (int fd : idle)
        close(fd);
    EXPECT_GT(sent.load(), liars * 10);
    const std::string cfg = read_file(user_config());
    for (uint16_t i = 1300; i < id; i++)
        EXPECT_NE(std::string::npos, cfg.find("0" + std::to_string(i))) << i;
    a_new_client_is_answered();
}

// The launcher gives the daemon init's descriptor limit, or says why not.
TEST_F(Hostile, TheDaemonHasInitsDescriptorLimit)
{
    const std::string text = "@@#cat /proc/self/limits > /data/local/limits.txt";
    Bytes p = tovak_pack_u16(uint32_t(text.size() + 1));
    p.insert(p.end(), text.begin(), text.end());
    p.push_back(0);
    send(CMD_SYSTEM_COMMAND, p);
    std::smatch m;
    const std::string limits = read_file(dev.path("data/local/limits.txt"));
    ASSERT_TRUE(std::regex_search(limits, m, std::regex(R"(Max open files +(\d+) +(\d+))"))) << limits;
    EXPECT_EQ(m[1].str(), m[2].str());
    std::smatch said;
    const std::string out = dev.failure();
    if (std::regex_search(out, said, std::regex(R"(tovak-sim: tovakd may open (\d+) descriptors, not 65536)"))) {
        rlimit own = {};
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &own));
        EXPECT_EQ(std::to_string(own.rlim_max), said[1].str());
        EXPECT_EQ(said[1].str(), m[1].str());
    } else {
        EXPECT_EQ("65536", m[1].str()) << out;
    }
}

} // namespace
