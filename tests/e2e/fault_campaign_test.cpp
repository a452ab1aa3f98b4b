// A fault campaign against tovakd on simulated devices: full disks, a
// read-only /sdcard, no factory files, a dead, slow or corrupting modem, a
// stalled or absent logger, and SIGKILL at random moments of a workload, each
// followed where it makes sense by a restart as init does. After each: the
// daemon serves, dm.cfg is the old or the new file and whole, no committed
// file is torn, and a restarted daemon comes back with what was last saved.
// One file, longer than the others: the rounds share one model of what the
// device must hold and one tally of what was injected.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <string_view>
#include <thread>

#include "config/tovak_config.h"
#include "device_test.h"
#include "hex_text.h"

namespace {

const size_t npos = std::string::npos;

// What dm.cfg keeps of the settings the workload changes, and what a client
// is told of them.
struct Settings {
    std::set<uint16_t> events, logs;
    bool logging = false, capture = false;
    bool operator==(const Settings&) const = default;
};

std::ostream& operator<<(std::ostream& o, const Settings& s)
{
    return o << "{events " << testing::PrintToString(s.events) << ", logs " << testing::PrintToString(s.logs)
             << ", logging " << s.logging << ", capture " << s.capture << "}";
}

using Disk = std::optional<Settings>;

// The configuration record as the daemon's own loader left it.
Settings record()
{
    tovak_config_locked c;
    return { { c->events->ids.begin(), c->events->ids.end() },
             { c->log_codes->codes.begin(), c->log_codes->codes.end() },
             c->log_state != 0,
             c->adblog_state != 0 };
}

Settings builtin()
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    return record();
}

const std::string FACTORY_TEXT = read_file(TOVAK_SOURCE_DIR "/etc/dm.cfg");

// Moves the settings on as the daemon does for the workload's command cmd,
// and gives its payload; n makes each added id a new one, within the
// daemon's built-in limits and the modem's alike.
Bytes apply(uint32_t cmd, Settings& s, const Disk& disk, uint16_t n)
{
    auto take = [](std::set<uint16_t>& from, uint16_t otherwise) {
        const uint16_t id = from.empty() ? otherwise : *from.begin();
        from.erase(id);
        return tovak_pack_u16(id);
    };
    switch (cmd) {
    case CMD_ADD_EVENT:
        s.events.insert(uint16_t(1000 + n));
        return tovak_pack_u16(1000 + n);
    case CMD_RM_EVENT:
        return take(s.events, 1498);
    case CMD_ADD_LOG:
        s.logs.insert(uint16_t(0x4100 + n));
        return tovak_pack_u16(0x4100 + n);
    case CMD_RM_LOG:
        return take(s.logs, 0x412f);
    case CMD_LOG_ON:
        // dm.cfg is reloaded first: an edit whose save failed is gone after it.
        if (!s.logging && disk)
            s = *disk;
        s.logging = true;
        break;
    case CMD_LOG_OFF:
        s.logging = false;
        break;
    case CMD_ADBLOG_ON:
        s.capture = true;
        break;
    case CMD_ADBLOG_OFF:
        s.capture = false;
        break;
    }
    return {};
}

// The random workload draws from these; edits and log on come up most.
const uint32_t SCRIPT[] = { CMD_ADD_EVENT, CMD_ADD_EVENT, CMD_ADD_EVENT,  CMD_RM_EVENT,
                            CMD_ADD_LOG,   CMD_RM_LOG,    CMD_LOG_ON,     CMD_LOG_ON,
                            CMD_LOG_OFF,   CMD_ADBLOG_ON, CMD_ADBLOG_OFF, CMD_ADBLOG_COMMIT };

// What the campaign injected, by kind, and what it checked.
struct Tally {
    std::map<std::string, int> faults;
    int killed_before_answer = 0, restarts = 0, capture_files = 0, capture_entries = 0, begun_inside = 0;
};

// The entries of a committed capture file: u16 payload length, u16 header
// size (0 for 20), then the header's ids and time and the payload; in a text
// log the payload is a priority, a tag and a message, each text with its zero.
struct Entries {
    std::vector<std::string> messages;
    size_t whole = 0;
    bool cut = false; // bytes of an entry that does not end follow the last whole one
    bool bad = false;
    size_t at = 0;   // where reading stopped
    size_t lead = 0; // bytes before the first entry
};

Entries read_entries(std::string_view d, bool text)
{
    Entries e;
    auto u16_at = [&](size_t i) { return i + 1 < d.size() ? uint8_t(d[i]) | size_t(uint8_t(d[i + 1])) << 8 : 0; };
    while (e.at < d.size() && !e.cut && !e.bad) {
        const size_t len = u16_at(e.at), hdr = u16_at(e.at + 2) == 0 ? 20 : u16_at(e.at + 2);
        const std::string_view p = d.substr(std::min(d.size(), e.at + hdr), len);
        const size_t tag_end = p.find('\0', 1);
        e.cut = d.size() - e.at < 4 || d.size() - e.at < hdr + len;
        e.bad = !e.cut && (hdr > 32 || len > 4096 ||
                           (text && (len < 3 || uint8_t(p[0]) > 8 || tag_end == npos || p.back() != '\0')));
        e.whole += !e.cut && !e.bad;
        if (!e.cut && !e.bad && text)
            e.messages.emplace_back(p.substr(tag_end + 1, len - tag_end - 2));
        e.at += e.cut || e.bad ? 0 : hdr + len;
    }
    return e;
}

// A simulated log device is a FIFO, which keeps the rest of an entry that a
// reader took only part of (a phone's hands out whole entries): a capture
// object begun after that starts inside an entry, and its ring then keeps
// plain bytes, to the end of the stream. So a file may begin with up to one
// entry's bytes (then its end may be cut too); one that begins with a whole
// entry must hold whole entries to its end.
Entries read_capture(const std::string& d, bool text)
{
    Entries first = read_entries(d, text);
    // Not even one whole entry from the first byte: the file begins inside
    // one, whose rest may read as the start of a longer one.
    if (!first.bad && first.whole > 0)
        return first;
    for (size_t lead = 1; lead < std::min<size_t>(d.size(), 4116); lead++) {
        Entries e = read_entries(std::string_view(d).substr(lead), text);
        if (!e.bad && e.whole > 0) {
            e.lead = lead;
            return e;
        }
    }
    // The rest of one entry and the start of another, or less.
    if (!first.bad && d.size() < 2 * 4116)
        first.lead = d.size();
    return first;
}

// One simulated device and what the campaign expects of it: `memory` is the
// daemon's settings as the answered commands left them, `saved` what dm.cfg
// must hold (none: no user file).
class Campaign {
public:
    Campaign(Tally& tally, std::vector<std::string> args = {}, int sdcard_mib = 0, bool no_factory = false)
        : tally_(tally), readonly_(std::find(args.begin(), args.end(), "--sdcard-readonly") != args.end())
    {
        if (sdcard_mib > 0)
            dev.small_sdcard(sdcard_mib);
        if (no_factory)
            std::filesystem::create_directories(dev.path("system/etc"));
        args.insert(args.end(), { "--restart-delay", "0" });
        EXPECT_TRUE(dev.start(args)) << dev.failure();
        client = dev.connect();
        disk_ok = !readonly_;
        saved = disk();
        memory = saved ? *saved : builtin();
        EXPECT_EQ(memory, served());
    }
    ~Campaign()
    {
        client.reset();
        EXPECT_EQ(1 + kills_, dev.daemon_starts()) << "tovakd ended by itself\n" << dev.failure();
        dev.stop();
        EXPECT_EQ("", dev.sanitizer_report()) << dev.failure();
    }

    void ctl(const std::vector<std::string>& words)
    {
        std::string err;
        EXPECT_EQ(0, devsim_ctl(dev.root(), words, nullptr, &err)) << words[0] << ": " << err;
    }
    nlohmann::json status() { return devsim_status(dev.root()); }

    // dm.cfg through the daemon's own loader; it must be whole: the factory
    // file, or exactly what the loaded record writes back.
    Disk disk()
    {
        const std::string path = dev.path("data/media/0/dm.cfg");
        if (!file_exists(path))
            return std::nullopt;
        const std::string text = read_file(path);
        EXPECT_EQ(0, tovak_config_load_file(path.c_str()));
        EXPECT_TRUE(text == FACTORY_TEXT || text == tovak_config_text()) << "dm.cfg is torn:\n" << text;
        return record();
    }

    // What the daemon says of the same settings.
    Settings served()
    {
        Settings s;
        std::vector<uint16_t> events, logs;
        EXPECT_TRUE(client && client->get_events(&events).done() && client->get_logs(&logs).done() &&
                    client->get_log_state(&s.logging).done() && client->get_capture_state(&s.capture).done())
            << (client ? client->error() : "no connection");
        s.events = { events.begin(), events.end() };
        s.logs = { logs.begin(), logs.end() };
        return s;
    }

    // While logging runs, the modem holds what the daemon's settings select.
    void expect_modem()
    {
        nlohmann::json local = status()["modems"]["local"];
        EXPECT_EQ(memory.events, local["events"].get<std::set<uint16_t>>());
        EXPECT_EQ(memory.logs, local["log_codes"].get<std::set<uint16_t>>());
    }

    // Sends one command and, once it is answered, moves the expectations on.
    // With kill, SIGKILL lands at a moment drawn from it while the command
    // is handled, and the daemon is restarted.
    void run(uint32_t cmd, std::mt19937* kill = nullptr)
    {
        SCOPED_TRACE(tovak_command(cmd)->name);
        Settings next = memory;
        tovak_pkt req, reply;
        tovak_req_raw(&req, cmd, apply(cmd, next, saved, uint16_t(n_++)));
        const std::set<std::string> before = files("data/media/0/syslog");
        const auto sent = std::chrono::steady_clock::now();
        ASSERT_TRUE(client && client->send_bytes(&req, sizeof req) == TovakStatus::ok);
        if (kill == nullptr) {
            EXPECT_EQ(TovakStatus::ok, client->read_reply(&reply)) << client->error();
            const auto took =
                std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - sent);
            typical_us_[cmd] = std::max(typical_us_[cmd], int(took.count()));
            memory = next;
            saved = disk_ok ? std::optional(memory) : saved;
            return;
        }
        // The moment, drawn from the seed, falls within as long as the same
        // command took when it was answered; nothing is waited for.
        const int span_us = typical_us_.count(cmd) ? typical_us_[cmd] : 1000;
        std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, span_us)(*kill)));
        const int starts = dev.daemon_starts();
        EXPECT_EQ(0, devsim_request(dev.root(), { "daemon-kill", "9" }));
        tally_.faults["SIGKILL at a random moment"]++;
        const bool answered = client->read_reply(&reply) == TovakStatus::ok;
        tally_.killed_before_answer += !answered;
        if (cmd == CMD_ADBLOG_COMMIT)
            for (const std::string& f : files("data/media/0/syslog"))
                if (!before.count(f))
                    may_be_cut_.insert(f); // the kill may have come while the library wrote it
        if (answered && disk_ok)
            saved = next;
        restarted(starts, answered ? nullptr : &next);
    }

    void kill_and_restart()
    {
        const int starts = dev.daemon_starts();
        ctl({ "daemon-kill", "9" });
        restarted(starts, nullptr);
    }

    // The launcher starts tovakd again at once; it must serve and come back
    // with what dm.cfg holds, which is the last save or the one the kill
    // interrupted.
    void restarted(int starts, const Settings* interrupted)
    {
        kills_++;
        tally_.restarts++;
        client.reset();
        ASSERT_TRUE(wait_until(
            [&] {
                bool on;
                return dev.daemon_starts() > starts && (client = dev.connect()) &&
                       client->get_log_state(&on).status == TovakStatus::ok;
            },
            std::chrono::seconds(60)))
            << "tovakd does not serve after its restart\n"
            << dev.failure();
        EXPECT_EQ(starts + 1, dev.daemon_starts()) << "tovakd ended by itself\n" << dev.failure();
        const Disk now = disk();
        EXPECT_TRUE(now == saved || (interrupted && disk_ok && now == *interrupted))
            << "dm.cfg after the kill: " << testing::PrintToString(now)
            << "\nlast saved: " << testing::PrintToString(saved);
        saved = now;
        memory = now ? *now : builtin();
        EXPECT_EQ(memory, served()) << "what tovakd came back with";
        if (memory.logging)
            expect_modem();
    }

    // Names of the files in ROOT/rel.
    std::set<std::string> files(const std::string& rel)
    {
        std::set<std::string> names;
        std::error_code ec;
        for (const auto& f : std::filesystem::directory_iterator(dev.path(rel), ec))
            names.insert(f.path().filename());
        return names;
    }

    // Committed capture files hold whole entries (but one a kill cut short)
    // and committed modem logs whole frames; each file is checked once.
    void check_files()
    {
        for (const std::string& f : files("data/media/0/syslog")) {
            if (!checked_.insert(f).second)
                continue;
            const std::string data = read_file(dev.path("data/media/0/syslog/" + f));
            Entries e = read_capture(data, f.find("adbevents") != 0);
            EXPECT_FALSE(e.bad) << f << " holds a malformed entry at byte " << e.at << " of " << data.size() << ": "
                                << testing::PrintToString(data.substr(e.at, 64));
            EXPECT_TRUE(!e.cut || e.lead > 0 || may_be_cut_.count(f))
                << f << " is torn after its last whole entry: " << e.messages.size() << " entries, then "
                << data.size() - e.at << " bytes at " << e.at << " of " << data.size() << ": "
                << hex_text(std::vector<uint8_t>(data.begin() + long(e.at),
                                                 data.begin() + long(std::min(data.size(), e.at + 48))))
                << "; it begins "
                << hex_text(std::vector<uint8_t>(data.begin(), data.begin() + long(std::min<size_t>(data.size(), 24))));
            tally_.begun_inside += e.lead > 0;
            tally_.capture_entries += int(e.messages.size());
            tally_.capture_files++;
            captured.insert(e.messages.begin(), e.messages.end());
        }
        for (const std::string& f : files("data/media/0/diag_logs")) {
            const std::string log = read_file(dev.path("data/media/0/diag_logs/" + f));
            EXPECT_TRUE(log.empty() || log.back() == '\x7e') << f << " ends inside a frame";
        }
    }

    // Bytes the current daemon has captured of main so far.
    uintmax_t captured_bytes()
    {
        const std::string pid = std::to_string(status()["daemon"]["pid"].get<int>());
        std::error_code ec;
        for (const std::string& f : files("data/local/syslog"))
            if (f.find("adbmain." + pid + ".") == 0)
                return std::filesystem::file_size(dev.path("data/local/syslog/" + f), ec);
        return 0;
    }

    // Fills /sdcard but for 16 KiB, so that a commit fails midway.
    void nearly_fill()
    {
        const std::string spacer = dev.path("data/media/0/.campaign-spacer");
        ASSERT_TRUE(write_file(spacer, std::string(16384, 's')));
        ctl({ "disk", "fill", "/sdcard" });
        disk_ok = false;
        EXPECT_EQ(0, unlink(spacer.c_str()));
    }

    SimDevice dev;
    std::unique_ptr<TovakClient> client;
    Settings memory;
    Disk saved;
    bool disk_ok = true;
    // Messages of every entry checked in committed capture files.
    std::set<std::string> captured;

    // One fault: injected, met, and then the checks, with a restart first
    // when it makes sense.
    struct Round {
        const char* kind;
        std::vector<std::vector<std::string>> inject;
        void (*meet)(Campaign& c);
        bool restart;
    };
    void round(const Round& r)
    {
        SCOPED_TRACE(r.kind);
        for (const auto& words : r.inject) {
            ctl(words);
            disk_ok = disk_ok && words[0] != "disk";
        }
        tally_.faults[r.kind]++;
        r.meet(*this);
        EXPECT_EQ(saved, disk()) << "dm.cfg is not what was last saved";
        if (r.restart)
            kill_and_restart();
        ctl({ "fault", "clear" });
        if (!disk_ok && !readonly_) {
            ctl({ "disk", "free", "/sdcard" });
            disk_ok = true;
        }
        // It serves, and a save that can be written carries every change
        // still in force.
        EXPECT_EQ(memory, served());
        if (disk_ok) {
            run(CMD_ADD_EVENT);
            EXPECT_EQ(memory, disk());
        }
        check_files();
    }

    // Steps drawn from the script, kills of them chosen at random.
    void workload(std::mt19937& rng, int steps, int kills)
    {
        std::vector<int> order(steps);
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), rng);
        const std::set<int> kill_at(order.begin(), order.begin() + kills);
        for (int i = 0; i < steps && !testing::Test::HasFatalFailure(); i++) {
            run(SCRIPT[std::uniform_int_distribution<size_t>(0, std::size(SCRIPT) - 1)(rng)],
                kill_at.count(i) ? &rng : nullptr);
            check_files();
        }
    }

private:
    Tally& tally_;
    const bool readonly_;
    int kills_ = 0;
    int n_ = 0;
    std::set<std::string> checked_, may_be_cut_;
    // The longest answered round trip of each command.
    std::map<uint32_t, int> typical_us_;
};

using Round = Campaign::Round;

// clang-format off
// /sdcard on a small filesystem that the simulator fills.
const Round FULL_DISK[] = {
    { "full disk during saves", { { "disk", "fill", "/sdcard" } }, [](Campaign& c) {
          c.run(CMD_ADD_EVENT);
          c.run(CMD_ADD_LOG);
          // Either form of the temporary name: the usual one or the random one beside it.
          for (const auto& e : std::filesystem::directory_iterator(c.dev.path("data/media/0")))
              EXPECT_NE(0u, e.path().filename().string().rfind(".dm.cfg.tmp", 0))
                  << "a failed save left its temporary file " << e.path();
      }, false },
    // A failed capture commit leaves its category locked; only a restart
    // frees it.
    { "full disk during capture commits", {}, [](Campaign& c) {
          c.ctl({ "flood", "main", "5000", "1000" });
          ASSERT_TRUE(wait_until([&] { return c.captured_bytes() > 32768; }));
          c.nearly_fill();
          c.run(CMD_ADBLOG_COMMIT);
      }, true },
    { "full disk during modem log commits", {}, [](Campaign& c) {
          c.run(CMD_LOG_ON);
          c.expect_modem();
          c.ctl({ "rate", "2000" });
          ASSERT_TRUE(wait_until([&] { return c.status()["modems"]["local"]["traffic"]["bytes"] > 65536; }));
          c.nearly_fill();
          c.run(CMD_COMMIT_LOG);
          c.ctl({ "rate", "auto" });
      }, false },
    // Provisioning on a full disk leaves no user file and the built-in
    // settings serve; with room again it copies the factory file whole.
    // Removed first: its blocks would make room for the copy.
    { "full disk during provisioning", {}, [](Campaign& c) {
          ASSERT_EQ(0, unlink(c.dev.path("data/media/0/dm.cfg").c_str()));
          c.saved.reset();
          c.ctl({ "disk", "fill", "/sdcard" });
          c.kill_and_restart();
          c.ctl({ "disk", "free", "/sdcard" });
          c.disk_ok = true;
          tovak_config_load_text(FACTORY_TEXT.c_str());
          c.saved = record();
          c.kill_and_restart();
      }, false },
};

const Round MODEM_AND_LOGGER[] = {
    // A log on waits for answers that never come; other sessions are served
    // meanwhile, and the kill comes during the wait.
    { "modem dead", { { "fault", "silent", "on" } }, [](Campaign& c) {
          auto waiting = c.dev.connect();
          ASSERT_TRUE(waiting);
          const int seen = c.status()["request_count"];
          tovak_pkt req;
          tovak_req_raw(&req, CMD_LOG_ON, {});
          ASSERT_EQ(TovakStatus::ok, waiting->send_bytes(&req, sizeof req));
          ASSERT_TRUE(wait_until([&] { return c.status()["request_count"].get<int>() > seen; }));
          c.run(CMD_ADD_EVENT);
          EXPECT_EQ(c.memory, c.served());
      }, true },
    { "modem slow", { { "fault", "delay", "5" } }, [](Campaign& c) {
          c.run(CMD_LOG_ON);
          c.expect_modem();
      }, true },
    // Every request reaches the modem; only its answers are spoilt.
    { "modem corrupting", { { "fault", "corrupt", "40" } }, [](Campaign& c) {
          c.run(CMD_LOG_OFF);
          c.run(CMD_ADD_EVENT);
          c.run(CMD_LOG_ON);
          c.expect_modem();
      }, true },
    // A commit is answered while the log device gives nothing, and what
    // queued meanwhile is captured once it flows again.
    { "logger stalled", { { "fault", "stall", "main", "on" } }, [](Campaign& c) {
          c.run(CMD_ADBLOG_ON);
          c.ctl({ "flood", "main", "2000", "100" });
          ASSERT_TRUE(wait_until([&] { return c.status()["logger"]["main"]["flood_left"] == 0; }));
          c.run(CMD_ADBLOG_COMMIT);
          c.ctl({ "fault", "stall", "main", "off" });
          EXPECT_TRUE(wait_until([&] {
              c.run(CMD_ADBLOG_COMMIT);
              c.check_files();
              for (int k = 1; k <= 100; k++)
                  if (!c.captured.count("flood " + std::to_string(k)))
                      return false;
              return true;
          })) << "entries queued during the stall are missing from the capture";
      }, true },
};

const Round READONLY_SDCARD[] = {
    { "sdcard read-only", {}, [](Campaign& c) {
          c.run(CMD_ADD_EVENT);
          c.run(CMD_LOG_ON);
          c.run(CMD_ADBLOG_ON);
          c.run(CMD_ADBLOG_COMMIT);
          EXPECT_EQ(c.memory, c.served());
      }, true },
    // Without logd the daemon's lines go to stderr, and reach logd again
    // once it is back, across a restart meanwhile.
    { "logger absent", { { "fault", "logger-absent", "on" } }, [](Campaign& c) {
          ASSERT_TRUE(c.client->run_system("campaign: no logger").status == TovakStatus::ok);
          EXPECT_TRUE(c.dev.wait_stdout("D/TOVAK(")) << "no fallback to stderr";
          c.kill_and_restart();
          c.ctl({ "fault", "logger-absent", "off" });
          ASSERT_TRUE(c.client->run_system("campaign: logger back").status == TovakStatus::ok);
          EXPECT_TRUE(wait_until([&] { return read_file(c.dev.path("sim/logcat.txt")).find("campaign: logger back") != npos; }))
              << "the daemon's lines do not reach logd again";
      }, false },
};

const Round NO_FACTORY_FILES[] = {
    { "/system/etc missing", {}, [](Campaign& c) {
          EXPECT_FALSE(c.saved) << "a user dm.cfg without a factory file to copy";
          c.run(CMD_ADD_EVENT);
      }, true },
};
// clang-format on

TEST(FaultCampaign, FaultsSurvivedAndNothingLost)
{
    const char* env = getenv("TOVAK_CAMPAIGN_SEED");
    const uint32_t seed = env != nullptr && *env ? uint32_t(strtoul(env, nullptr, 10)) : std::random_device()();
    printf("fault campaign: seed %u (TOVAK_CAMPAIGN_SEED=%u makes the same choices again)\n", seed, seed);
    std::mt19937 rng(seed);
    Tally tally;
    const bool root = geteuid() == 0;
    if (root) {
        Campaign c(tally, {}, 16);
        c.run(CMD_ADBLOG_ON);
        for (const Round& r : FULL_DISK)
            c.round(r);
    }
    {
        Campaign c(tally);
        for (const Round& r : MODEM_AND_LOGGER)
            c.round(r);
    }
    {
        Campaign c(tally, { "--sdcard-readonly" });
        for (const Round& r : READONLY_SDCARD)
            c.round(r);
    }
    {
        // The launcher gives up after 4 ends within 4 minutes, as init does:
        // at most 4 kills a device.
        Campaign c(tally, {}, 0, true);
        c.round(NO_FACTORY_FILES[0]);
        c.workload(rng, 12, 3);
    }
    for (int i = 0; i < 5; i++) {
        Campaign c(tally);
        c.workload(rng, 16, 4);
    }

    printf("fault campaign: faults injected\n");
    for (const auto& [kind, n] : tally.faults)
        printf("  %-36s %3d\n", kind.c_str(), n);
    printf("  (%d of the kills before the command's answer; %d restarts in all)\n", tally.killed_before_answer,
           tally.restarts);
    if (testing::Test::HasFailure())
        printf("fault campaign: something was lost or broken, see above (seed %u)\n", seed);
    else
        printf("fault campaign: nothing lost: after every fault tovakd served, dm.cfg was whole and the last save, "
               "each restart came back with it, and %d committed capture files held %d whole entries (%d of the "
               "files after the rest of an entry a FIFO kept)\n",
               tally.capture_files, tally.capture_entries, tally.begun_inside);
    if (!root)
        GTEST_SKIP() << "the full-disk faults need root (a small /sdcard in a mount namespace); the rest ran";
}

} // namespace
