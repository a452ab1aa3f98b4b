// Buffer size, output path, commit, DPL and modem data on a simulated
// device, seen from a client and from the device's side.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "protocol/tovak_cmd_ids.h"
#include "devsim_ctl.h"
#include "sim_device.h"

namespace {

using nlohmann::json;

std::vector<std::string> files_in(const std::string& dir, const std::string& prefix)
{
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name).rfind(prefix, 0) == 0)
                names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The simulator's canned QMI data: unit u, byte j.
std::string canned_units(const std::vector<size_t>& sizes)
{
    std::string all;
    for (size_t u = 0; u < sizes.size(); u++)
        for (size_t j = 0; j < sizes[u]; j++)
            all += char('A' + (7 * u + j) % 26);
    return all;
}

class ModemControls : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dev.start()) << dev.failure();
        ASSERT_TRUE(client = dev.connect());
    }

    json status()
    {
        json s = devsim_status(dev.root());
        EXPECT_FALSE(s.is_discarded());
        return s;
    }
    void ctl(const std::vector<std::string>& args)
    {
        std::string err;
        ASSERT_EQ(0, devsim_ctl(dev.root(), args, nullptr, &err)) << err;
    }
    // Lines without a newline reach the daemon's stdout with the next line;
    // a request makes one.
    bool wait_logged(const std::string& text)
    {
        bool on;
        client->get_log_state(&on);
        return dev.wait_stdout(text);
    }
    std::string config() { return read_file(dev.path("data/media/0/dm.cfg")); }
    bool config_has(const std::string& text) { return config().find(text) != std::string::npos; }

    // The ids that DPL set-interface requests named, oldest first.
    std::vector<int> dpl_programmed()
    {
        std::vector<int> ids;
        const json s = status();
        for (const json& r : s["requests"]) {
            std::string req = r["request"];
            if (req.rfind("4b2a0400", 0) == 0)
                ids.push_back(std::stoi(req.substr(8, 2), nullptr, 16));
        }
        return ids;
    }
    std::vector<int> dpl_logging()
    {
        std::vector<int> ids;
        const json s = status();
        for (const json& i : s["modems"]["local"]["dpl"])
            if (i["logging"] == true)
                ids.push_back(i["id"]);
        return ids;
    }

    SimDevice dev;
    std::unique_ptr<TovakClient> client;
};

TEST_F(ModemControls, OutPathMovesTheModemLogAndTheNextCaptureCommit)
{
    ASSERT_TRUE(client->set_out_path("/sdcard/logs/dm").done());
    EXPECT_EQ("/sdcard/logs/dm", status()["output_path"]);
    EXPECT_TRUE(wait_logged("ADB_LOG out_path_name is /sdcard/logs/"));
    ASSERT_TRUE(client->commit_log().done());
    EXPECT_EQ(1u, files_in(dev.path("data/media/0/logs/dm"), "diag_log_").size());
    EXPECT_EQ(1, status()["commits"]);

    // The capture, once it holds something, commits beside the modem log,
    // then goes back to its own directory.
    ASSERT_TRUE(client->capture_on().done());
    // Its ring appears under the lock that the commit takes too.
    ASSERT_TRUE(wait_until([&] { return !files_in(dev.path("data/local/syslog"), "adbmain.").empty(); }));
    ASSERT_TRUE(client->capture_commit().status == TovakStatus::ok);
    EXPECT_EQ(1u, files_in(dev.path("data/media/0/logs"), "adbmain_").size());
    ASSERT_TRUE(client->capture_commit().status == TovakStatus::ok);
    EXPECT_EQ(1u, files_in(dev.path("data/media/0/syslog"), "adbmain_").size());
    EXPECT_EQ(1u, files_in(dev.path("data/media/0/logs"), "adbmain_").size());
}

TEST_F(ModemControls, OutPathOfSixSlashesIsRefusedAfterTheModemTookIt)
{
    struct Case {
        const char* path;
        bool done;
        const char* modem_path; // the modem's output path afterwards
    };
    const Case cases[] = {
        { "/sdcard/a/b/c/d", true, "/sdcard/a/b/c/d" },
        { "/sdcard/a/b/c/d/e", false, "/sdcard/a/b/c/d/e" },
        { "relative/dm", false, "/sdcard/a/b/c/d/e" }, // the modem refuses it first
    };
    for (const Case& c : cases) {
        TovakResult r = client->set_out_path(c.path);
        EXPECT_EQ(c.done ? TovakVerdict::done : TovakVerdict::refused, r.shown.verdict) << c.path;
        EXPECT_EQ(c.modem_path, status()["output_path"]) << c.path;
    }
    EXPECT_TRUE(wait_logged("ADB_LOG out_path_name is /sdcard/a/b/c/"));
    EXPECT_EQ(std::string::npos, dev.daemon_stdout().find("ADB_LOG out_path_name is /sdcard/a/b/c/d/"));
}

TEST_F(ModemControls, DplProgramsTheConfiguredInterfacesAndResetClearsThem)
{
    std::vector<TovakDplIface> all;
    ASSERT_TRUE(client->get_dpl_all_ifaces(&all).done());
    std::vector<std::pair<int, std::string>> listed;
    for (const TovakDplIface& i : all)
        listed.emplace_back(i.id, i.desc);
    EXPECT_EQ((std::vector<std::pair<int, std::string>>{
                  { 1, "rmnet0" }, { 2, "rmnet1" }, { 15, "rmnet_ipa0" }, { 19, "rmnet_data0" }, { 20, "rmnet_data1" } }),
              listed);

    ctl({ "clear-requests" });
    ASSERT_TRUE(client->set_dpl_state(1).done());
    EXPECT_EQ((std::vector<int>{ 1, 15, 19 }), dpl_programmed());
    EXPECT_EQ((std::vector<int>{ 1, 15, 19 }), dpl_logging());
    EXPECT_EQ(TovakVerdict::refused, client->set_dpl_state(1).shown.verdict);
    EXPECT_TRUE(config_has("<DplState>on</DplState>"));

    // 300 reaches the modem as its low byte; the rest of the record is the unit tests' business.
    ctl({ "clear-requests" });
    ASSERT_TRUE(client->add_dpl_iface(300).done());
    json reqs = status()["requests"];
    ASSERT_EQ(1u, reqs.size());
    EXPECT_EQ(0u, reqs[0]["request"].get<std::string>().rfind("4b2a04002c04", 0)) << reqs[0]["request"];
    std::vector<uint16_t> ids;
    ASSERT_TRUE(client->get_dpl_ifaces(&ids).done());
    EXPECT_EQ((std::vector<uint16_t>{ 1, 15, 19, 300 }), ids);

    ASSERT_TRUE(client->set_dpl_state(0).done());
    EXPECT_EQ(std::vector<int>{}, dpl_logging());
    ctl({ "clear-requests" });
    ASSERT_TRUE(client->set_dpl_state(1).done());
    EXPECT_EQ((std::vector<int>{ 1, 15, 19, 44 }), dpl_programmed());

    // An interface added while on logs at once.
    ASSERT_TRUE(client->add_dpl_iface(2).done());
    EXPECT_EQ((std::vector<int>{ 1, 2, 15, 19 }), dpl_logging());

    EXPECT_EQ(TovakVerdict::unknown, client->reset_dpl().shown.verdict);
    EXPECT_EQ(std::vector<int>{}, dpl_logging());
    ASSERT_TRUE(client->get_dpl_ifaces(&ids).done());
    EXPECT_EQ(std::vector<uint16_t>{}, ids);
    bool on = true;
    ASSERT_TRUE(client->get_dpl_state(&on).done());
    EXPECT_FALSE(on);
    EXPECT_TRUE(config_has("<DplState>off</DplState>"));
    EXPECT_TRUE(config_has("<IfIDs>\n\n</IfIDs>"));
}

TEST_F(ModemControls, ModemDataIsSavedAsOneBlockInOrderTaggedWithTheNumber)
{
    ctl({ "qmi", "statistics", "100,200,50" });
    ASSERT_TRUE(client->set_msisdn("0101234567").done());
    ASSERT_TRUE(client->save_modem_data(1).done());
    ctl({ "qmi", "phantom", "none" });
    ASSERT_TRUE(client->save_modem_data(0).done());

    json saves = status()["qmi"]["saves"];
    ASSERT_EQ(2u, saves.size());
    EXPECT_EQ("Statstics", saves[0]["kind"]);
    EXPECT_EQ("0101234567", saves[0]["number"]);
    EXPECT_EQ(350, saves[0]["size"]);
    EXPECT_EQ(canned_units({ 100, 200, 50 }), read_file(dev.path("sim/" + saves[0]["file"].get<std::string>())));
    EXPECT_EQ("Phantom", saves[1]["kind"]);
    EXPECT_EQ("000000000000,ND,N,0,0,", read_file(dev.path("sim/" + saves[1]["file"].get<std::string>())));
    EXPECT_TRUE(dev.wait_stdout("Stastics file saved\n"));
    EXPECT_TRUE(dev.wait_stdout("PHANTOM Logging file saved\n"));
}

TEST_F(ModemControls, ClientsSavingAtOnceEachGetTheirWholeBlock)
{
    // Two kinds cut into units of different sizes: bytes at the same place
    // differ, so a save mixed with another would show.
    ctl({ "qmi", "statistics", "40000,40000,40000,40000,40000,40000" });
    ctl({ "qmi", "phantom", "30000,30000,30000,30000,30000,30000,30000,30000" });
    const std::string want[2] = { canned_units(std::vector<size_t>(8, 30000)),
                                  canned_units(std::vector<size_t>(6, 40000)) };
    const int clients = 4;
    const int rounds = 3;
    std::vector<std::thread> threads;
    std::atomic<int> done{ 0 };
    for (int t = 0; t < clients; t++) {
        threads.emplace_back([&, t] {
            auto c = dev.connect();
            for (int i = 0; c && i < rounds; i++)
                done += c->save_modem_data(uint32_t(t % 2)).done() ? 1 : 0;
        });
    }
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(clients * rounds, done);
    json saves = status()["qmi"]["saves"];
    ASSERT_EQ(size_t(clients * rounds), saves.size());
    for (const json& s : saves) {
        const std::string& expected = want[s["kind"] == "Statstics" ? 1 : 0];
        EXPECT_TRUE(expected == read_file(dev.path("sim/" + s["file"].get<std::string>()))) << s["file"];
    }
}

// tovakctl, as a person would type it, through one sitting.
TEST(ModemControlsCtl, TovakctlDrivesEachCommand)
{
    SimDevice dev;
    ASSERT_TRUE(dev.start()) << dev.failure();
    struct Step {
        std::vector<std::string> args;
        int rc;
        const char* field; // checked when not null
        json value;
    };
    const Step steps[] = {
        { { "log-size", "2000000" }, 0, "size", 2000000 },
        { { "log-size", "0" }, 1, "refused", true },
        { { "out-path", "/sdcard/logs/dm" }, 0, "refused", false },
        { { "commit" }, 0, "refused", false },
        { { "dpl", "on" }, 0, "refused", false },
        { { "dpl", "on" }, 1, "refused", true },
        { { "dpl-add", "300" }, 0, "refused", false },
        { { "dpl-list" }, 0, "interfaces", json::array({ 1, 15, 19, 300 }) },
        { { "dpl-reset" }, 0, "refused", "unknown" },
        { { "autosave" }, 0, "autosave", 1 },
        { { "autosave", "off" }, 0, "refused", false },
        { { "autosave" }, 0, "autosave", 0 },
        { { "msisdn", "0101234567" }, 0, "refused", false },
        { { "save-modem-data", "statistics" }, 0, "refused", false },
    };
    for (const Step& s : steps) {
        std::vector<std::string> argv = { SimDevice::bin("tovakctl"), "--root", dev.root(), "--json" };
        argv.insert(argv.end(), s.args.begin(), s.args.end());
        std::string out, err;
        EXPECT_EQ(s.rc, SimDevice::run(argv, &out, &err)) << s.args[0] << ": " << err;
        json j = json::parse(out, nullptr, false);
        ASSERT_FALSE(j.is_discarded()) << s.args[0] << ": " << out << err;
        EXPECT_EQ(s.value, j[s.field]) << s.args[0] << ": " << out;
    }
    EXPECT_EQ(1u, files_in(dev.path("data/media/0/logs/dm"), "diag_log_").size());
    EXPECT_EQ(1u, files_in(dev.path("sim/qmi"), "Statstics_0101234567_").size());
}

} // namespace
