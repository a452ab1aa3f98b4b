// The commands that edit settings, on a simulated device: the item lists,
// the configuration file choice, DPL interfaces, the output path and
// modem data saves, each seen in its reply, in dm.cfg and at the modem.
#include <dirent.h>

#include <atomic>
#include <thread>

#include "device_test.h"

namespace {

using json = nlohmann::json;

// A listing's ids, or its message entries' SSIDs each followed by its mask.
std::vector<uint32_t> list_of(const tovak_pkt& r, size_t width)
{
    std::vector<tovak_wire_msg> msgs;
    std::vector<uint16_t> ids;
    EXPECT_TRUE(width == 8 ? tovak_unpack_msgs(r.data, r.len, &msgs) : tovak_unpack_ids(r.data, r.len, &ids));
    std::vector<uint32_t> v(ids.begin(), ids.end());
    for (const tovak_wire_msg& m : msgs)
        v.insert(v.end(), { m.ssid, m.mask });
    return v;
}

class Settings : public DeviceTest {
protected:
    void SetUp() override { start(); }
    bool config_has(const std::string& text) { return read_file(user_config()).find(text) != std::string::npos; }
};

// One row per kind: add, remove and list by the same rules, each edit saved.
TEST_F(Settings, ItemListsAddRemoveAndListAlike)
{
    struct Kind {
        const char* name;
        uint32_t add, rm, get;
        size_t width;
        std::vector<uint32_t> before; // of the default configuration
        std::function<Bytes(uint32_t)> item;
        std::function<std::string(uint32_t)> saved;
    };
    const Kind kinds[] = {
        { "events",
          CMD_ADD_EVENT,
          CMD_RM_EVENT,
          CMD_GET_EVENTS,
          2,
          { 1498, 1499 },
          tovak_pack_u16,
          [](uint32_t v) { return std::to_string(100000 + v).substr(1); } },
        { "log codes",
          CMD_ADD_LOG,
          CMD_RM_LOG,
          CMD_GET_LOGS,
          2,
          { 0x412f, 0x713f },
          tovak_pack_u16,
          [](uint32_t v) {
              char b[8];
              snprintf(b, sizeof b, "0x%04x", v);
              return std::string(b);
          } },
        // Messages list 16 bits of their mask; the file keeps all 32.
        { "messages",
          CMD_ADD_MSG,
          CMD_RM_MSG,
          CMD_GET_MSG,
          8,
          { 5, 0x18, 15, 0x18 },
          [](uint32_t v) { return tovak_pack_u16_u32(v, 0x10001); },
          [](uint32_t v) { return std::to_string(100000 + v).substr(1) + "/16"; } },
    };
    for (const Kind& k : kinds) {
        std::vector<uint32_t> listed = list_of(send(k.get), k.width);
        ASSERT_GE(listed.size(), k.before.size()) << k.name;
        EXPECT_EQ(k.before, std::vector<uint32_t>(listed.begin(), listed.begin() + k.before.size())) << k.name;
        for (uint32_t v : { 5u, 3u, 4u, 5u })
            EXPECT_EQ(0u, send(k.add, k.item(v)).len) << k.name;
        EXPECT_EQ(0u, send(k.rm, k.item(4)).len) << k.name;
        EXPECT_EQ(0u, send(k.rm, k.item(4)).len) << k.name << ": an absent item is no error";
        listed = list_of(send(k.get), k.width);
        std::vector<uint32_t> want = k.width == 2 ? std::vector<uint32_t>{ 3, 5 } : std::vector<uint32_t>{ 3, 1, 5, 1 };
        EXPECT_EQ(want, std::vector<uint32_t>(listed.begin(), listed.begin() + long(want.size()))) << k.name;
        EXPECT_TRUE(config_has(k.saved(3)) && !config_has(k.saved(4))) << k.name;
        EXPECT_EQ(0u, send(k.add, {}).len) << k.name << ": a missing field reads as 0";
        EXPECT_EQ(0u, list_of(send(k.get), k.width)[0]) << k.name;
    }
    // Only the message listing logs its count, after each copy: three listings, three counts. The daemon's
    // output reaches the test a little after its replies.
    std::string out;
    EXPECT_TRUE(wait_until([&] {
        out = dev.daemon_stdout();
        return count(out, ": size = ") >= 3;
    }));
    EXPECT_EQ(3u, count(out, ": handler_get_msg\n"));
    EXPECT_EQ(3u, count(out, ": size = "));
}

TEST_F(Settings, ConfigFileChoicesAreTakenOrRefusedAndSurviveARestart)
{
    auto choose = [&](const std::string& name, int n) {
        Bytes p = tovak_pack_counted_text(name, n);
        p.resize(std::max(p.size(), size_t(101)), 0);
        EXPECT_EQ(5120u, send(CMD_SET_CONFIG_FILE, p).len);
        tovak_pkt r = send(CMD_GET_CONFIG_FILE);
        std::string current;
        EXPECT_TRUE(tovak_unpack_counted_text(r.data, r.len, &current));
        return current;
    };
    const std::string fits = "/data/local/" + std::string(79, 'f'); // 91 bytes, the property's limit
    for (const std::string& f : { fits, std::string("/data/local/other.cfg") })
        ASSERT_TRUE(write_file(dev.path(f.substr(1)), "<LogState>off</LogState>"));
    struct Case {
        std::string name;
        int n;
        std::string current;
    };
    const Case cases[] = {
        { fits, int(fits.size() + 1), fits },
        { fits + "g", int(fits.size() + 2), fits },                  // too long for the property
        { "/data/local/other.cfg", 100, fits },                      // length past the limit
        { "/data/local/other.cfg", 0xffff, fits },                   // negative
        { "/data/local/other.cfgXYZ", 21, "/data/local/other.cfg" }, // the length ends it
        { "/data/local/none.cfg", 21, "/data/local/none.cfg" },      // taken, though it fails to load
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.current, choose(c.name, c.n)) << c.name << " " << c.n;
        EXPECT_EQ(c.current, dev.property("persist.dmlogging.config_file"));
    }
    choose("/data/local/other.cfg", 22);
    restart();
    EXPECT_EQ("/data/local/other.cfg", choose("", 0)) << "an empty name is refused";
}

TEST_F(Settings, DplInterfacesAreListedProgrammedAndReset)
{
    tovak_pkt all = send(CMD_DPL_GET_ALL_IF_LIST);
    std::vector<tovak_wire_dpl_iface> ifaces;
    EXPECT_TRUE(tovak_unpack_dpl_ifaces(all.data, all.len, &ifaces));
    std::string listed;
    for (const tovak_wire_dpl_iface& i : ifaces)
        listed += std::to_string(i.id) + "=" + i.desc + " ";
    EXPECT_EQ("1=rmnet0 2=rmnet1 15=rmnet_ipa0 19=rmnet_data0 20=rmnet_data1 ", listed);

    auto logging = [&] {
        std::vector<int> ids;
        const json st = status();
        for (const json& i : st["modems"]["local"]["dpl"])
            if (i["logging"] == true)
                ids.push_back(i["id"]);
        return ids;
    };
    EXPECT_EQ(0u, send(CMD_DPL_SET_STATE, tovak_pack_u32(1)).len);
    EXPECT_EQ((std::vector<int>{ 1, 15, 19 }), logging());
    EXPECT_TRUE(config_has("<DplState>on</DplState>"));
    ctl({ "clear-requests" });
    EXPECT_EQ(0u, send(CMD_DPL_SET_IF, tovak_pack_u16(300)).len);
    // 300's low byte; kinds 1 and 2 in variant 0, then in variant 1, the last cut
    // to the record's 68 bytes.
    EXPECT_EQ("4b2a0400"
              "2c04000000000000"
              "010000002c0000000000000000000000"
              "020000002c0000000000000000000000"
              "010000002c0001000000000000000000"
              "020000002c00010000000000",
              status()["requests"][0]["request"]);
    tovak_pkt configured = send(CMD_DPL_GET_IF_LIST);
    std::vector<uint16_t> ids;
    EXPECT_TRUE(tovak_unpack_counted_ids(configured.data, configured.len, &ids));
    EXPECT_EQ((std::vector<uint16_t>{ 1, 15, 19, 300 }), ids);

    EXPECT_EQ(0u, send(CMD_DPL_SET_STATE, tovak_pack_u32(0)).len);
    EXPECT_EQ(std::vector<int>{}, logging());
    EXPECT_EQ(0u, tovak_get_u32(send(CMD_DPL_GET_STATE).data));
    EXPECT_TRUE(config_has("<DplState>off</DplState>"));
    EXPECT_EQ(0u, send(CMD_DPL_SET_STATE, tovak_pack_u32(1)).len);

    EXPECT_EQ(5120u, send(CMD_DPL_RESET).len);
    EXPECT_EQ(std::vector<int>{}, logging());
    EXPECT_EQ(0u, tovak_get_u32(send(CMD_DPL_GET_STATE).data));
    EXPECT_EQ(4u, send(CMD_DPL_GET_IF_LIST).len);
    EXPECT_TRUE(config_has("<DplState>off</DplState>") && config_has("<IfIDs>\n\n</IfIDs>"));
}

TEST_F(Settings, OutPathUpToFiveSlashesMovesTheModemLog)
{
    struct Case {
        std::string path;
        uint32_t answer;
        const char* modem_path;
    };
    const Case cases[] = {
        { "/sdcard/a/b/c/d", 0, "/sdcard/a/b/c/d" },
        { "/sdcard/a/b/c/d/e", 0xffffffff, "/sdcard/a/b/c/d/e" },
        { "relative/dm", 0xffffffff, "/sdcard/a/b/c/d/e" },
    };
    for (const Case& c : cases) {
        Bytes p(c.path.begin(), c.path.end());
        p.push_back(0);
        EXPECT_EQ(c.answer, tovak_get_u32(send(CMD_OUT_PATH, p).data)) << c.path;
        EXPECT_EQ(c.modem_path, status()["output_path"]) << c.path;
    }
    send(CMD_COMMIT_LOG);
    EXPECT_EQ(1, status()["commits"]);
}

// The simulator's canned QMI data: unit u, byte j.
std::string canned_units(size_t units, size_t size)
{
    std::string all;
    for (size_t u = 0; u < units; u++)
        for (size_t j = 0; j < size; j++)
            all += char('A' + (7 * u + j) % 26);
    return all;
}

// Clients saving at once: each save is its own whole block, tagged with the number.
TEST_F(Settings, ConcurrentModemDataSavesEachGetTheirWholeBlock)
{
    ctl({ "qmi", "statistics", "40000,40000,40000,40000,40000,40000" });
    ctl({ "qmi", "phantom", "30000,30000,30000,30000,30000,30000,30000,30000" });
    const char number[] = "0101234567";
    send(CMD_SET_MSISDN, tovak_pack_counted_text(number));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            auto c = dev.connect();
            for (int i = 0; c && i < 3; i++)
                EXPECT_EQ(0u, send(CMD_SAVE_MODEM_DATA, tovak_pack_u32(uint32_t(t % 2)), c.get()).len);
        });
    }
    for (std::thread& t : threads)
        t.join();
    json saves = status()["qmi"]["saves"];
    ASSERT_EQ(12u, saves.size());
    for (const json& s : saves) {
        bool stats = s["kind"] == "Statstics";
        EXPECT_TRUE((stats ? canned_units(6, 40000) : canned_units(8, 30000)) ==
                    read_file(dev.path("sim/" + s["file"].get<std::string>())))
            << s["file"];
        EXPECT_EQ(number, s["number"]);
    }
}

} // namespace
