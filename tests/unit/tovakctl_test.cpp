// tovakctl and the client library's typed helpers: tovakctl's table of
// subcommands, argument parsing, exit statuses and output, run in-process
// against a fake daemon, and each helper on the same exchanges.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <sstream>

#include "daemon/cmd_table.h"
#include "protocol/tovak_cmd_ids.h"
#include "fake_daemon.h"
#include "tovak_client.h"
#include "tovakctl_cmds.h"

namespace {

using F = FakeDaemon;
using V = TovakVerdict;
using json = nlohmann::json;

struct CtlRun {
    int rc;
    std::string out;
    std::string err;
};

CtlRun ctl(const std::vector<std::string>& args)
{
    std::ostringstream out, err;
    int rc = tovakctl_main(args, out, err);
    return { rc, out.str(), err.str() };
}

CtlRun ctl_at(const FakeDaemon& fake, std::vector<std::string> args, bool as_json = false)
{
    std::vector<std::string> full = { "--socket", fake.socket_path(), "--timeout", "5" };
    if (as_json)
        full.push_back("--json");
    full.insert(full.end(), args.begin(), args.end());
    return ctl(full);
}

std::vector<std::string> split(const std::string& s)
{
    std::vector<std::string> words;
    std::istringstream in(s);
    for (std::string w; in >> w;)
        words.push_back(w);
    return words;
}

// Every command of the daemon's table but disconnect.
std::set<uint32_t> daemon_ids()
{
    std::set<uint32_t> ids;
    for (const cmd_entry& e : cmd_table)
        if (e.id != CMD_DISCONNECT)
            ids.insert(e.id);
    return ids;
}

TEST(TovakctlTable, RowsHoldTheirInvariantsAndMatchTheDaemonsTable)
{
    std::multiset<uint32_t> ids;
    uint32_t last_id = 0;
    for (size_t i = 0; i < ctl_command_count; i++) {
        const CtlCommand& row = ctl_commands[i];
        SCOPED_TRACE(row.name);
        ASSERT_TRUE(row.name && row.syntax && row.summary && row.build && row.show);
        EXPECT_LE(row.min_args, row.max_args);
        // Rows of one name must differ in their word or their argument count.
        for (size_t j = i + 1; j < ctl_command_count; j++) {
            const CtlCommand& b = ctl_commands[j];
            bool counts_overlap = row.min_args <= b.max_args && b.min_args <= row.max_args;
            bool words_differ = row.word && b.word && strcmp(row.word, b.word) != 0;
            EXPECT_FALSE(strcmp(row.name, b.name) == 0 && counts_overlap && !words_differ) << row.syntax << " / " << b.syntax;
        }
        if (row.word) {
            EXPECT_GE(row.min_args, 1);
            EXPECT_EQ(0u, std::string(row.syntax).rfind(row.word, 0)) << "the syntax begins with the word";
        }
        if (row.id == CTL_ANY_ID) {
            EXPECT_EQ(i, ctl_command_count - 1) << "raw comes last";
            continue;
        }
        EXPECT_GE(row.id, last_id) << "rows go by id, as --help lists them";
        last_id = row.id;
        ids.insert(row.id);
    }
    // One row per command of the daemon's table, none for disconnect.
    EXPECT_EQ(daemon_ids(), std::set<uint32_t>(ids.begin(), ids.end()));
    EXPECT_EQ(daemon_ids().size(), ids.size()) << "an id in two rows";
}

TEST(TovakctlArgs, NumbersAreWholeAndInRange)
{
    struct Case {
        const char* text;
        uint64_t max;
        bool hex_only;
        bool ok;
        uint64_t value;
    };
    // clang-format off
    const Case cases[] = {
        { "0",          65535, false, true,  0 },
        { "01498",      65535, false, true,  1498 },   // leading zeros are decimal, not octal
        { "0x412f",     65535, false, true,  0x412f },
        { "0X412F",     65535, false, true,  0x412f },
        { "65535",      65535, false, true,  65535 },
        { "65536",      65535, false, false, 0 },
        { "412f",       65535, false, false, 0 },
        { "412f",       65535, true,  true,  0x412f },  // log codes: hex without the prefix
        { "0x412f",     65535, true,  true,  0x412f },
        { "10000",      65535, true,  false, 0 },
        { "4294967295", UINT32_MAX, false, true, UINT32_MAX },
        { "4294967296", UINT32_MAX, false, false, 0 },
        { "99999999999999999999999", UINT64_MAX, false, false, 0 },
        { "",           65535, false, false, 0 },
        { "0x",         65535, false, false, 0 },
        { "-1",         65535, false, false, 0 },
        { "+1",         65535, false, false, 0 },
        { " 1",         65535, false, false, 0 },
        { "1 ",         65535, false, false, 0 },
        { "1e3",        65535, false, false, 0 },
    };
    // clang-format on
    for (const Case& c : cases) {
        uint64_t v = 12345;
        EXPECT_EQ(c.ok, ctl_parse_number(c.text, c.max, c.hex_only, &v)) << "'" << c.text << "'";
        if (c.ok)
            EXPECT_EQ(c.value, v) << c.text;
        else
            EXPECT_EQ(12345u, v) << c.text << ": left alone";
    }
}

TEST(TovakctlArgs, BadUsageExits2WithoutTouchingTheDaemon)
{
    struct Case {
        std::vector<std::string> args;
        const char* err;
    };
    // clang-format off
    const Case cases[] = {
        { {},                                        "no command given" },
        { { "bogus" },                               "unknown command 'bogus'" },
        { { "--frobnicate", "events" },              "unknown option --frobnicate" },
        { { "--socket" },                            "--socket needs a value" },
        { { "--timeout", "0", "events" },            "bad time-out '0'" },
        { { "--root", "/r", "--socket", "/s", "events" }, "give one" },
        { { "events", "--json" },                    "usage: tovakctl events" },
        { { "add-event" },                           "usage: tovakctl add-event ID" },
        { { "add-event", "1", "2" },                 "usage: tovakctl add-event ID" },
        { { "add-event", "x" },                      "bad event id 'x'" },
        { { "add-event", "65536" },                  "from 0 to 65535" },
        { { "add-log", "10000" },                    "bad log code" },
        { { "rm-msg", "-1" },                        "bad SSID" },
        { { "add-msg", "5" },                        "usage: tovakctl add-msg SSID LEVEL...|--mask M" },
        { { "add-msg", "5", "32" },                  "bad level '32'" },
        { { "add-msg", "5", "--mask" },              "--mask takes one mask" },
        { { "add-msg", "5", "--mask", "0x1ffffffff" }, "bad mask" },
        { { "log-size", "ten" },                     "bad size 'ten'" },
        { { "log-size", "2147483648" },              "bad size" },
        { { "log-size", "-2147483649" },             "bad size" },
        { { "out-path", "" },                        "empty path" },
        { { "out-path", std::string(100, 'p') },     "at most 99 characters" },
        { { "set-config-file", std::string(99, 'p') }, "at most 98 characters" },
        { { "system", std::string(199, 'x') },       "at most 198 characters" },
        { { "system", "" },                          "empty command text" },
        { { "msisdn", "1234567890123456789" },       "at most 18 characters" },
        { { "capture" },                             "usage: tovakctl capture on | tovakctl capture off" },
        { { "capture", "maybe" },                    "usage: tovakctl capture on" },
        { { "capture-size" },                        "usage: tovakctl capture-size N BYTES | tovakctl capture-size N" },
        { { "capture-size", "0", "0" },              "at least 1 byte" },
        { { "capture-size", "0", "4294967296" },     "bad size" },
        { { "category-add", "one" },                 "bad category" },
        { { "autosave", "yes" },                     "expected on or off" },
        { { "dpl", "1" },                            "expected on or off" },
        { { "save-modem-data", "stats" },            "expected phantom or statistics" },
        { { "dpl-add", "70000" },                    "bad interface id" },
        { { "raw" },                                 "usage: tovakctl raw ID [HEX]" },
        { { "raw", "x" },                            "bad command id" },
        { { "raw", "19", "0" },                      "bad payload" },
        { { "raw", "19", std::string(10242, '0') },  "payload too long" },
    };
    // clang-format on
    FakeDaemon fake;
    for (const Case& c : cases) {
        std::vector<std::string> args = { "--socket", fake.socket_path() };
        args.insert(args.end(), c.args.begin(), c.args.end());
        CtlRun r = ctl(args);
        std::string shown = c.args.empty() ? "(none)" : c.args[0] + " ...";
        EXPECT_EQ(CTL_EXIT_USAGE, r.rc) << shown;
        EXPECT_NE(std::string::npos, r.err.find(c.err)) << shown << ": " << r.err;
        EXPECT_TRUE(r.out.empty()) << shown;
    }
    EXPECT_EQ(0, fake.connections());
}

using Call = std::function<TovakResult(TovakClient&, std::string*)>;

// A helper that hands nothing back, called with fixed arguments.
template <class... P, class... A> Call act(TovakResult (TovakClient::*m)(P...), A... args)
{
    return [=](TovakClient& c, std::string*) { return (c.*m)(args...); };
}

// A helper that hands back a value, rendered; it starts from `start`, so that
// a value left alone shows.
template <class T> Call query(TovakResult (TovakClient::*m)(T*), T start = T())
{
    return [=](TovakClient& c, std::string* found) {
        T v = start;
        TovakResult r = (c.*m)(&v);
        *found = text(v);
        return r;
    };
}

Call both(TovakResult (TovakClient::*m)(uint32_t*, uint32_t*))
{
    return [=](TovakClient& c, std::string* found) {
        std::pair<uint32_t, uint32_t> v;
        TovakResult r = (c.*m)(&v.first, &v.second);
        *found = text(v);
        return r;
    };
}

// A helper that takes one argument and hands back a value.
template <class A, class T> Call query(TovakResult (TovakClient::*m)(A, T*), A arg, T start)
{
    return [=](TovakClient& c, std::string* found) {
        T v = start;
        TovakResult r = (c.*m)(arg, &v);
        *found = text(v);
        return r;
    };
}

// One command's exchange: the exact request, a canned reply, what tovakctl
// makes of it as text and as JSON, and what the library's helper for the
// same command hands back.
struct ExchangeCase {
    std::string line;
    uint32_t cmd;
    const char* request;
    FakeDaemon::Answer answer;
    int rc;
    const char* text; // in stdout when rc is 0, in stderr otherwise
    const char* refused; // JSON value of "refused"
    const char* field; // "key=JSON value" or ""
    Call helper; // none for raw
    const char* found; // what the helper handed back
};

using TC = TovakClient;

// clang-format off
const ExchangeCase exchange_cases[] = {
    { "log-on", CMD_LOG_ON, "", F::reply(4, "00000000"), 0, "whether or not it worked", "\"unknown\"", "", act(&TC::log_on), "" },
    { "log-on", CMD_LOG_ON, "", F::untouched(), 1, "refused: the daemon left the reply untouched (len 5120)", "true", "", act(&TC::log_on), "" },
    { "log-off", CMD_LOG_OFF, "", F::reply(4, "00000000"), 0, "`state` tells whether logging runs", "\"unknown\"", "", act(&TC::log_off), "" },
    { "log-size 50000000", CMD_LOG_SIZE, "80f0fa02", F::reply(4, "80f0fa02"), 0, "buffer size now 50000000 bytes", "false", "size=50000000", query(&TC::set_log_size, 50000000, 7), "50000000" },
    { "log-size -5", CMD_LOG_SIZE, "fbffffff", F::reply(4, "ffffffff"), 1, "refused: the daemon answered -1", "true", "", query(&TC::set_log_size, -5, 7), "7" },
    { "out-path /sdcard/logs/dm", CMD_OUT_PATH, "2f7364636172642f6c6f67732f646d00", F::reply(4, "00000000"), 0, "done", "false", "", act(&TC::set_out_path, "/sdcard/logs/dm"), "" },
    { "out-path /a/b/c/d/e/f", CMD_OUT_PATH, "2f612f622f632f642f652f6600", F::reply(4, "ffffffff"), 1, "6 or more '/'", "true", "", act(&TC::set_out_path, "/a/b/c/d/e/f"), "" },
    { "commit", CMD_COMMIT_LOG, "", F::reply(0), 0, "done", "false", "", act(&TC::commit_log), "" },
    { "add-event 01498", CMD_ADD_EVENT, "da05", F::reply(0), 0, "done", "false", "", act(&TC::add_event, 1498), "" },
    { "rm-event 0x5da", CMD_RM_EVENT, "da05", F::untouched(), 1, "refused", "true", "", act(&TC::rm_event, 1498), "" },
    { "events", CMD_GET_EVENTS, "", F::reply(4, "da05db05"), 0, "1498\n1499\n", "false", "events=[1498,1499]", query(&TC::get_events), "1498;1499;" },
    { "events", CMD_GET_EVENTS, "", F::reply(0), 0, "done", "false", "events=[]", query(&TC::get_events, { 7 }), "" },
    { "add-log 412f", CMD_ADD_LOG, "2f41", F::reply(0), 0, "done", "false", "", act(&TC::add_log, 0x412f), "" },
    { "rm-log 0xB061", CMD_RM_LOG, "61b0", F::reply(0), 0, "done", "false", "", act(&TC::rm_log, 0xb061), "" },
    { "logs", CMD_GET_LOGS, "", F::reply(4, "2f4161b0"), 0, "0x412f\n0xb061\n", "false", "log_codes=[16687,45153]", query(&TC::get_logs), "16687;45153;" },
    { "add-msg 5 3 4", CMD_ADD_MSG, "0500" "18000000", F::reply(0), 0, "done", "false", "", act(&TC::add_msg, 5, 0x18), "" },
    { "add-msg 5 4 4", CMD_ADD_MSG, "0500" "10000000", F::reply(0), 0, "done", "false", "", act(&TC::add_msg, 5, 0x10), "" },
    { "add-msg 5 --mask 65537", CMD_ADD_MSG, "0500" "01000100", F::reply(0), 0, "done", "false", "", act(&TC::add_msg, 5, 65537), "" },
    { "rm-msg 3006", CMD_RM_MSG, "be0b", F::reply(0), 0, "done", "false", "", act(&TC::rm_msg, 3006), "" },
    { "msgs", CMD_GET_MSG, "", F::reply(16, "0500000018000000" "1400000000000000"), 0, "ssid 5 mask 0x0018 levels 3,4\nssid 20 mask 0x0000 levels none\n", "false", "messages=[{\"levels\":[3,4],\"mask\":24,\"ssid\":5},{\"levels\":[],\"mask\":0,\"ssid\":20}]", query(&TC::get_msgs), "5/24;20/0;" },
    { "buffer-size", CMD_GET_BUFFER_SIZE, "", F::reply(4, "80f0fa02"), 0, "buffer size 50000000 bytes", "false", "buffer_size=50000000", query(&TC::get_buffer_size), "50000000" },
    { "state", CMD_GET_LOG_STATE, "", F::reply(4, "01000000"), 0, "logging on", "false", "logging=true", query(&TC::get_log_state), "on" },
    { "state", CMD_GET_LOG_STATE, "", F::reply(4, "00000000"), 0, "logging off", "false", "logging=false", query(&TC::get_log_state, true), "off" },
    { "state", CMD_GET_LOG_STATE, "", F::reply(4, "07000000"), 1, "expected 0 or 1, got 7", "\"unknown\"", "", query(&TC::get_log_state, true), "on" },
    { "set-config-file /sdcard/x.cfg", CMD_SET_CONFIG_FILE, "0e00" "2f7364636172642f782e63666700", F::untouched(), 0, "never writes a reply", "\"unknown\"", "", act(&TC::set_config_file, "/sdcard/x.cfg"), "" },
    { "config-file", CMD_GET_CONFIG_FILE, "", F::reply(17, "0f00" "2f7364636172642f646d2e63666700"), 0, "/sdcard/dm.cfg\n", "false", "path=\"/sdcard/dm.cfg\"", query(&TC::get_config_file), "/sdcard/dm.cfg" },
    { "system @@#ps", CMD_SYSTEM_COMMAND, "0600" "404023707300", F::untouched(), 0, "cannot tell whether it worked", "\"unknown\"", "", act(&TC::run_system, "@@#ps"), "" },
    { "range", CMD_GET_RANGE, "", F::reply(8, "0100000002000000"), 0, "first 1\nsecond 2\n", "false", "second=2", both(&TC::get_range), "1,2" },
    { "capture on", CMD_ADBLOG_ON, "", F::reply(0), 0, "done", "false", "", act(&TC::capture_on), "" },
    { "capture off", CMD_ADBLOG_OFF, "", F::untouched(), 1, "capture off: refused", "true", "", act(&TC::capture_off), "" },
    { "capture-commit", CMD_ADBLOG_COMMIT, "", F::reply(0), 0, "whether or not it committed", "\"unknown\"", "", act(&TC::capture_commit), "" },
    { "capture-state", CMD_ADBLOG_GET_STATE, "", F::reply(4, "01000000"), 0, "capture on", "false", "capture=true", query(&TC::get_capture_state), "on" },
    { "category-add 2", CMD_ADBLOG_ADD_CATEGORY, "02000000", F::untouched(), 0, "never writes a reply", "\"unknown\"", "", act(&TC::add_category, 2), "" },
    { "category-rm 0", CMD_ADBLOG_RM_CATEGORY, "00000000", F::untouched(), 0, "never writes a reply", "\"unknown\"", "", act(&TC::rm_category, 0), "" },
    { "categories", CMD_ADBLOG_GET_CATEGORIES, "", F::reply(8, "0100000000000000"), 0, "0 on\n1 off\n", "false", "enabled=[true,false]", query(&TC::get_categories), "on;off;" },
    { "categories-save", CMD_ADBLOG_SET_CATEGORIES, "", F::untouched(), 0, "never writes a reply", "\"unknown\"", "", act(&TC::save_categories), "" },
    { "category-names", CMD_ADBLOG_GET_CATEGORY_NAME, "", F::reply(25, "6d61696e2c726164696f2c6576656e74732c73797374656d00"), 0, "0 main\n1 radio\n2 events\n3 system\n", "false", "names=[\"main\",\"radio\",\"events\",\"system\"]", query(&TC::get_category_names), "main;radio;events;system;" },
    { "capture-size 0 100", CMD_ADBLOG_SET_SIZE, "00000000" "64000000", F::untouched(), 0, "never writes a reply", "\"unknown\"", "", act(&TC::set_capture_size, 0, 100), "" },
    { "capture-size 3", CMD_ADBLOG_GET_SIZE, "03000000", F::reply(4, "002d3101"), 0, "category 3: 20000000 bytes", "false", "size=20000000", query(&TC::get_capture_size, 3u, 7u), "20000000" },
    { "capture-size 9", CMD_ADBLOG_GET_SIZE, "09000000", F::reply(4, "00000000"), 0, "no such category", "false", "category=9", query(&TC::get_capture_size, 9u, 7u), "0" },
    { "capture-limits", CMD_ADBLOG_GET_SIZE_LIMITS, "", F::reply(8, "20a10700002d3101"), 0, "min 500000\nmax 20000000\n", "false", "max=20000000", both(&TC::get_capture_limits), "500000,20000000" },
    { "autosave on", CMD_SET_AUTOSAVE, "01000000", F::reply(0), 0, "done", "false", "", act(&TC::set_autosave, true), "" },
    { "autosave off", CMD_SET_AUTOSAVE, "00000000", F::reply(0), 0, "done", "false", "", act(&TC::set_autosave, false), "" },
    { "save-modem-data phantom", CMD_SAVE_MODEM_DATA, "00000000", F::reply(0), 0, "done", "false", "", act(&TC::save_modem_data, TOVAK_MODEM_DATA_PHANTOM), "" },
    { "save-modem-data statistics", CMD_SAVE_MODEM_DATA, "01000000", F::untouched(), 1, "refused", "true", "", act(&TC::save_modem_data, TOVAK_MODEM_DATA_STATISTICS), "" },
    { "msisdn 0101234567", CMD_SET_MSISDN, "0b00" "3031303132333435363700", F::reply(0), 0, "done", "false", "", act(&TC::set_msisdn, "0101234567"), "" },
    { "autosave", CMD_GET_AUTOSAVE, "", F::reply(4, "01000000"), 0, "autosave 1", "false", "autosave=1", query(&TC::get_autosave, 9u), "1" },
    { "dpl on", CMD_DPL_SET_STATE, "01000000", F::reply(0), 0, "done", "false", "", act(&TC::set_dpl_state, 1), "" },
    { "dpl off", CMD_DPL_SET_STATE, "00000000", F::untouched(), 1, "refuses the state DPL is already in", "true", "", act(&TC::set_dpl_state, 0), "" },
    { "dpl-state", CMD_DPL_GET_STATE, "", F::reply(4, "00000000"), 0, "dpl off", "false", "dpl=false", query(&TC::get_dpl_state, true), "off" },
    { "dpl-ifaces", CMD_DPL_GET_ALL_IF_LIST, "", F::reply(14, "02000000" "01" "03" "727761" "0f" "03" "696d73"), 0, "1 rwa\n15 ims\n", "false", "interfaces=[{\"description\":\"rwa\",\"id\":1},{\"description\":\"ims\",\"id\":15}]", query(&TC::get_dpl_all_ifaces), "1=rwa;15=ims;" },
    { "dpl-ifaces", CMD_DPL_GET_ALL_IF_LIST, "", F::reply(6, "01000000" "01" "ff"), 1, "cut short", "\"unknown\"", "", query(&TC::get_dpl_all_ifaces), "" },
    // Device text that is not UTF-8 must still make JSON.
    { "dpl-ifaces", CMD_DPL_GET_ALL_IF_LIST, "", F::reply(7, "01000000" "0101" "ff"), 0, "1 ", "false", "", query(&TC::get_dpl_all_ifaces), "1=\xff;" },
    { "dpl-list", CMD_DPL_GET_IF_LIST, "", F::reply(10, "03000000" "0100" "0f00" "2c01"), 0, "1\n15\n300\n", "false", "interfaces=[1,15,300]", query(&TC::get_dpl_ifaces), "1;15;300;" },
    { "dpl-add 19", CMD_DPL_SET_IF, "1300", F::reply(0), 0, "done", "false", "", act(&TC::add_dpl_iface, 19), "" },
    { "dpl-reset", CMD_DPL_RESET, "", F::untouched(), 0, "never writes a reply", "\"unknown\"", "", act(&TC::reset_dpl), "" },
    { "raw 0x10", CMD_GET_LOG_STATE, "", F::reply(4, "01000000"), 0, "len 4\npayload 01000000\n", "\"unknown\"", "payload=\"01000000\"", nullptr, "" },
    { "raw 19 0300:41:41:00", CMD_SYSTEM_COMMAND, "0300414100", F::reply(2, "abcd"), 0, "len 2\npayload abcd\n", "\"unknown\"", "payload=\"abcd\"", nullptr, "" },
};
// clang-format on

TEST(ClientExchange, EveryCommandByTovakctlAndByItsHelper)
{
    std::set<uint32_t> by_ctl, by_helper;
    for (const ExchangeCase& c : exchange_cases) {
        SCOPED_TRACE(c.line);
        for (bool as_json : { false, true }) {
            FakeDaemon fake({ c.answer });
            CtlRun r = ctl_at(fake, split(c.line), as_json);
            EXPECT_EQ(c.rc, r.rc) << r.out << r.err;

            // The disconnect may still be on its way when tovakctl is done.
            EXPECT_TRUE(wait_until([&] { return fake.requests().size() >= 2; }, std::chrono::seconds(5)));
            auto reqs = fake.requests();
            ASSERT_EQ(2u, reqs.size()) << "the request, then a disconnect";
            EXPECT_EQ(c.cmd, reqs[0].cmd);
            EXPECT_EQ(c.request, tovak_hex(reqs[0].data, reqs[0].len));
            EXPECT_TRUE(tail_is_zero(reqs[0])) << "a whole frame, zeros past len";
            EXPECT_EQ(uint32_t(CMD_DISCONNECT), reqs[1].cmd);
            by_ctl.insert(c.cmd);

            if (!as_json) {
                const std::string& where = c.rc == 0 ? r.out : r.err;
                EXPECT_NE(std::string::npos, where.find(c.text)) << "out: " << r.out << "err: " << r.err;
                continue;
            }
            EXPECT_TRUE(r.err.empty()) << r.err;
            ASSERT_EQ(1, std::count(r.out.begin(), r.out.end(), '\n')) << "one object, one line";
            json j = json::parse(r.out, nullptr, false);
            ASSERT_FALSE(j.is_discarded()) << r.out;
            EXPECT_EQ(c.cmd, j.value("id", 0u));
            EXPECT_EQ(c.answer.len, j.value("reply_len", 0u));
            EXPECT_EQ(split(c.line)[0], j.value("command", "").substr(0, split(c.line)[0].size()));
            EXPECT_EQ(c.refused, j["refused"].dump()) << r.out;
            std::string field = c.field;
            if (!field.empty()) {
                std::string key = field.substr(0, field.find('='));
                ASSERT_TRUE(j.contains(key)) << r.out;
                EXPECT_EQ(field.substr(key.size() + 1), j[key].dump());
            }
            // Anything not plainly done says why.
            EXPECT_EQ(c.refused != std::string("false"), j.contains("note") || j.contains("error")) << r.out;
        }
        if (!c.helper)
            continue;
        // The helper sends the same bytes and reads the reply as tovakctl does.
        FakeDaemon fake({ c.answer });
        TovakClient client(5000);
        ASSERT_TRUE(client.connect(fake.socket_path())) << client.error();
        std::string found;
        TovakResult r = c.helper(client, &found);
        ASSERT_EQ(TovakStatus::ok, r.status) << client.error();
        std::string refused = c.refused;
        V want = refused == "true" ? V::refused : refused == "false" ? V::done : c.rc ? V::unexpected : V::unknown;
        EXPECT_EQ(tovak_verdict_text(want), std::string(tovak_verdict_text(r.shown.verdict))) << r.shown.note;
        EXPECT_EQ(c.found, found);
        EXPECT_EQ(c.answer.len, r.reply_len);
        client.close();
        auto reqs = fake.requests();
        ASSERT_EQ(1u, reqs.size());
        EXPECT_EQ(c.cmd, reqs[0].cmd);
        EXPECT_EQ(c.request, tovak_hex(reqs[0].data, reqs[0].len));
        EXPECT_TRUE(tail_is_zero(reqs[0]));
        by_helper.insert(c.cmd);
    }
    EXPECT_EQ(daemon_ids(), by_ctl);
    EXPECT_EQ(daemon_ids(), by_helper);
}

// A session closed without a reply fails, except when disconnect asked for it.
TEST(TovakctlExchange, RawDisconnectSucceedsThoughNoReplyComes)
{
    FakeDaemon fake;
    CtlRun r = ctl_at(fake, { "raw", "2" });
    EXPECT_EQ(CTL_EXIT_OK, r.rc) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("ended the session, as asked"));
    EXPECT_EQ(1u, fake.requests().size());
}

TEST(TovakctlExchange, UnreachableDaemonExits1)
{
    TempDir dir;
    CtlRun r = ctl({ "--socket", dir.path() + "/nobody", "state" });
    EXPECT_EQ(CTL_EXIT_FAILED, r.rc);
    EXPECT_NE(std::string::npos, r.err.find("tovakctl: state: cannot connect to " + dir.path() + "/nobody")) << r.err;

    r = ctl({ "--json", "--socket", dir.path() + "/nobody", "state" });
    EXPECT_EQ(CTL_EXIT_FAILED, r.rc);
    json j = json::parse(r.out);
    EXPECT_EQ("unknown", j["refused"]);
    EXPECT_NE(std::string::npos, j["error"].get<std::string>().find("cannot connect"));
}

TEST(TovakctlExchange, SilentDaemonTimesOut)
{
    FakeDaemon fake({ F::silence() });
    CtlRun r = ctl({ "--socket", fake.socket_path(), "--timeout", "1", "events" });
    EXPECT_EQ(CTL_EXIT_FAILED, r.rc);
    EXPECT_NE(std::string::npos, r.err.find("no reply within 1000 ms")) << r.err;
}

} // namespace
