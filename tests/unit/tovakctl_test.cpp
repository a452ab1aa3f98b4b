// tovakctl: its table of subcommands, argument parsing, exit statuses and
// output, run in-process against a fake daemon.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>

#include "daemon/cmd_table.h"
#include "daemon/tovak_cmd_ids.h"
#include "fake_daemon.h"
#include "tovakctl_cmds.h"

namespace {

using Answer = FakeDaemon::Answer;
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

// Arguments that fit a row's syntax, so that every row can be exercised.
std::vector<std::string> sample_args(const CtlCommand& row)
{
    static const std::map<std::string, std::string> samples = {
        { "ID", "1" }, { "CODE", "1" }, { "N", "1" }, { "BYTES", "1" }, { "PATH", "/p" }, { "TEXT", "@@#ps" },
        { "NUMBER", "123" }, { "SSID", "5" }, { "LEVEL...", "3" },
    };
    std::vector<std::string> args;
    for (const std::string& token : split(row.syntax)) {
        if (token[0] == '[')
            continue;
        size_t bar = token.find('|');
        std::string first = token.substr(0, bar);
        auto it = samples.find(first);
        args.push_back(it != samples.end() ? it->second : first);
        // "A|--opt X": the rest belongs to the other form.
        if (bar != std::string::npos && token.compare(bar + 1, 2, "--") == 0)
            break;
    }
    return args;
}

TEST(TovakctlTable, RowsHoldTheirInvariants)
{
    std::multiset<uint32_t> ids;
    uint32_t last_id = 0;
    for (size_t i = 0; i < ctl_command_count; i++) {
        const CtlCommand& row = ctl_commands[i];
        SCOPED_TRACE(row.name);
        ASSERT_TRUE(row.name && row.syntax && row.summary && row.build && row.show);
        EXPECT_LE(row.min_args, row.max_args);
        if (row.word) {
            EXPECT_GE(row.min_args, 1);
            EXPECT_EQ(0u, std::string(row.syntax).rfind(row.word, 0)) << "the syntax begins with the word";
        }
        if (row.id == CTL_ANY_ID) {
            EXPECT_EQ(i, ctl_command_count - 1) << "raw comes last";
            continue;
        }
        EXPECT_NE(uint32_t(CMD_DISCONNECT), row.id);
        EXPECT_LE(row.id, uint32_t(CMD_ID_MAX));
        EXPECT_GE(row.id, last_id) << "rows go by id, as --help lists them";
        last_id = row.id;
        ids.insert(row.id);

        // The builder makes this row's command from arguments of its syntax,
        // and those arguments find this row and no other.
        std::vector<std::string> args = sample_args(row);
        ASSERT_GE(int(args.size()), row.min_args);
        ASSERT_LE(int(args.size()), row.max_args);
        tovak_pkt req;
        std::string why;
        ASSERT_TRUE(row.build(args, &req, &why)) << why;
        EXPECT_EQ(row.id, req.cmd);
        std::vector<std::string> words = { row.name };
        words.insert(words.end(), args.begin(), args.end());
        EXPECT_EQ(&row, ctl_find(words, &why)) << why;
    }
    // One row per command of the daemon's table, none for disconnect.
    std::set<uint32_t> daemon_ids;
    for (const cmd_entry& e : cmd_table)
        if (e.id != CMD_DISCONNECT)
            daemon_ids.insert(e.id);
    EXPECT_EQ(daemon_ids, std::set<uint32_t>(ids.begin(), ids.end()));
    EXPECT_EQ(daemon_ids.size(), ids.size()) << "an id in two rows";
}

TEST(TovakctlTable, RowsOfOneNameNeverOverlap)
{
    for (size_t i = 0; i < ctl_command_count; i++) {
        for (size_t j = i + 1; j < ctl_command_count; j++) {
            const CtlCommand& a = ctl_commands[i];
            const CtlCommand& b = ctl_commands[j];
            if (strcmp(a.name, b.name) != 0)
                continue;
            bool counts_overlap = a.min_args <= b.max_args && b.min_args <= a.max_args;
            bool words_differ = a.word && b.word && strcmp(a.word, b.word) != 0;
            EXPECT_FALSE(counts_overlap && !words_differ) << a.name << " " << a.syntax << " / " << b.syntax;
        }
    }
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
        { { "--json" },                              "no command given" },
        { { "bogus" },                               "unknown command 'bogus'" },
        { { "--frobnicate", "events" },              "unknown option --frobnicate" },
        { { "--socket" },                            "--socket needs a value" },
        { { "--timeout", "0", "events" },            "bad time-out '0'" },
        { { "--timeout", "soon", "events" },         "bad time-out 'soon'" },
        { { "--root", "/r", "--socket", "/s", "events" }, "give one" },
        { { "events", "--json" },                    "usage: tovakctl events" },
        { { "add-event" },                           "usage: tovakctl add-event ID" },
        { { "add-event", "1", "2" },                 "usage: tovakctl add-event ID" },
        { { "add-event", "x" },                      "bad event id 'x'" },
        { { "add-event", "65536" },                  "from 0 to 65535" },
        { { "add-log", "0xg" },                      "bad log code '0xg'" },
        { { "add-log", "10000" },                    "bad log code" },
        { { "rm-msg", "-1" },                        "bad SSID" },
        { { "add-msg", "5" },                        "usage: tovakctl add-msg SSID LEVEL...|--mask M" },
        { { "add-msg", "5", "32" },                  "bad level '32'" },
        { { "add-msg", "5", "--mask" },              "--mask takes one mask" },
        { { "add-msg", "5", "--mask", "1", "2" },    "--mask takes one mask" },
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
        { { "raw", "19", "zz" },                     "bad payload" },
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

// One subcommand's exchange: the exact request, a canned reply, and what
// tovakctl makes of it as text and as JSON.
struct ExchangeCase {
    std::string line;
    uint32_t cmd;
    const char* request;
    Answer answer;
    int rc;
    const char* text; // in stdout when rc is 0, in stderr otherwise
    const char* refused; // JSON value of "refused"
    const char* field; // "key=JSON value" or ""
};

const ExchangeCase exchange_cases[] = {
    { "log-on", CMD_LOG_ON, "", FakeDaemon::reply(4, "00000000"), 0, "whether or not it worked", "\"unknown\"", "" },
    { "log-on", CMD_LOG_ON, "", FakeDaemon::untouched(), 1, "refused: the daemon left the reply untouched (len 5120)", "true", "" },
    { "log-off", CMD_LOG_OFF, "", FakeDaemon::reply(4, "00000000"), 0, "`state` tells whether logging runs", "\"unknown\"", "" },
    { "log-size 50000000", CMD_LOG_SIZE, "80f0fa02", FakeDaemon::reply(4, "80f0fa02"), 0, "buffer size now 50000000 bytes", "false", "size=50000000" },
    { "log-size -5", CMD_LOG_SIZE, "fbffffff", FakeDaemon::reply(4, "ffffffff"), 1, "refused: the daemon answered -1", "true", "" },
    { "out-path /sdcard/logs/dm", CMD_OUT_PATH, "2f7364636172642f6c6f67732f646d00", FakeDaemon::reply(4, "00000000"), 0, "done", "false", "" },
    { "out-path /a/b/c/d/e/f", CMD_OUT_PATH, "2f612f622f632f642f652f6600", FakeDaemon::reply(4, "ffffffff"), 1, "6 or more '/'", "true", "" },
    { "commit", CMD_COMMIT_LOG, "", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "add-event 01498", CMD_ADD_EVENT, "da05", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "rm-event 0x5da", CMD_RM_EVENT, "da05", FakeDaemon::untouched(), 1, "refused", "true", "" },
    { "events", CMD_GET_EVENTS, "", FakeDaemon::reply(4, "da05db05"), 0, "1498\n1499\n", "false", "events=[1498,1499]" },
    { "events", CMD_GET_EVENTS, "", FakeDaemon::reply(0), 0, "done", "false", "events=[]" },
    { "add-log 412f", CMD_ADD_LOG, "2f41", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "rm-log 0xB061", CMD_RM_LOG, "61b0", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "logs", CMD_GET_LOGS, "", FakeDaemon::reply(4, "2f4161b0"), 0, "0x412f\n0xb061\n", "false", "log_codes=[16687,45153]" },
    { "add-msg 5 3 4", CMD_ADD_MSG, "0500" "18000000", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "add-msg 5 4 4", CMD_ADD_MSG, "0500" "10000000", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "add-msg 5 --mask 65537", CMD_ADD_MSG, "0500" "01000100", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "rm-msg 3006", CMD_RM_MSG, "be0b", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "msgs", CMD_GET_MSG, "", FakeDaemon::reply(16, "0500000018000000" "1400000000000000"), 0, "ssid 5 mask 0x0018 levels 3,4\nssid 20 mask 0x0000 levels none\n", "false",
      "messages=[{\"levels\":[3,4],\"mask\":24,\"ssid\":5},{\"levels\":[],\"mask\":0,\"ssid\":20}]" },
    { "buffer-size", CMD_GET_BUFFER_SIZE, "", FakeDaemon::reply(4, "80f0fa02"), 0, "buffer size 50000000 bytes", "false", "buffer_size=50000000" },
    { "state", CMD_GET_LOG_STATE, "", FakeDaemon::reply(4, "01000000"), 0, "logging on", "false", "logging=true" },
    { "state", CMD_GET_LOG_STATE, "", FakeDaemon::reply(4, "00000000"), 0, "logging off", "false", "logging=false" },
    { "state", CMD_GET_LOG_STATE, "", FakeDaemon::reply(4, "07000000"), 1, "expected 0 or 1, got 7", "\"unknown\"", "" },
    { "set-config-file /sdcard/x.cfg", CMD_SET_CONFIG_FILE, "0e00" "2f7364636172642f782e63666700", FakeDaemon::untouched(), 0,
      "never writes a reply", "\"unknown\"", "" },
    { "config-file", CMD_GET_CONFIG_FILE, "", FakeDaemon::reply(17, "0f00" "2f7364636172642f646d2e63666700"), 0, "/sdcard/dm.cfg\n", "false", "path=\"/sdcard/dm.cfg\"" },
    { "system @@#ps", CMD_SYSTEM_COMMAND, "0600" "404023707300", FakeDaemon::untouched(), 0, "cannot tell whether it worked", "\"unknown\"", "" },
    { "range", CMD_GET_RANGE, "", FakeDaemon::reply(8, "0100000002000000"), 0, "first 1\nsecond 2\n", "false", "second=2" },
    { "capture on", CMD_ADBLOG_ON, "", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "capture off", CMD_ADBLOG_OFF, "", FakeDaemon::untouched(), 1, "capture off: refused", "true", "" },
    { "capture-commit", CMD_ADBLOG_COMMIT, "", FakeDaemon::reply(0), 0, "whether or not it committed", "\"unknown\"", "" },
    { "capture-state", CMD_ADBLOG_GET_STATE, "", FakeDaemon::reply(4, "01000000"), 0, "capture on", "false", "capture=true" },
    { "category-add 2", CMD_ADBLOG_ADD_CATEGORY, "02000000", FakeDaemon::untouched(), 0, "never writes a reply", "\"unknown\"", "" },
    { "category-rm 0", CMD_ADBLOG_RM_CATEGORY, "00000000", FakeDaemon::untouched(), 0, "never writes a reply", "\"unknown\"", "" },
    { "categories", CMD_ADBLOG_GET_CATEGORIES, "", FakeDaemon::reply(8, "0100000000000000"), 0, "0 on\n1 off\n", "false", "enabled=[true,false]" },
    { "categories-save", CMD_ADBLOG_SET_CATEGORIES, "", FakeDaemon::untouched(), 0, "never writes a reply", "\"unknown\"", "" },
    { "category-names", CMD_ADBLOG_GET_CATEGORY_NAME, "", FakeDaemon::reply(25, "6d61696e2c726164696f2c6576656e74732c73797374656d00"), 0,
      "0 main\n1 radio\n2 events\n3 system\n", "false", "names=[\"main\",\"radio\",\"events\",\"system\"]" },
    { "capture-size 0 100", CMD_ADBLOG_SET_SIZE, "00000000" "64000000", FakeDaemon::untouched(), 0, "never writes a reply", "\"unknown\"", "" },
    { "capture-size 3", CMD_ADBLOG_GET_SIZE, "03000000", FakeDaemon::reply(4, "002d3101"), 0, "category 3: 20000000 bytes", "false", "size=20000000" },
    { "capture-size 9", CMD_ADBLOG_GET_SIZE, "09000000", FakeDaemon::reply(4, "00000000"), 0, "no such category", "false", "category=9" },
    { "capture-limits", CMD_ADBLOG_GET_SIZE_LIMITS, "", FakeDaemon::reply(8, "20a10700002d3101"), 0, "min 500000\nmax 20000000\n", "false", "max=20000000" },
    { "autosave on", CMD_SET_AUTOSAVE, "01000000", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "autosave off", CMD_SET_AUTOSAVE, "00000000", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "save-modem-data phantom", CMD_SAVE_MODEM_DATA, "00000000", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "save-modem-data statistics", CMD_SAVE_MODEM_DATA, "01000000", FakeDaemon::untouched(), 1, "refused", "true", "" },
    { "msisdn 0101234567", CMD_SET_MSISDN, "0b00" "3031303132333435363700", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "autosave", CMD_GET_AUTOSAVE, "", FakeDaemon::reply(4, "01000000"), 0, "autosave 1", "false", "autosave=1" },
    { "dpl on", CMD_DPL_SET_STATE, "01000000", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "dpl off", CMD_DPL_SET_STATE, "00000000", FakeDaemon::untouched(), 1, "refuses the state DPL is already in", "true", "" },
    { "dpl-state", CMD_DPL_GET_STATE, "", FakeDaemon::reply(4, "00000000"), 0, "dpl off", "false", "dpl=false" },
    { "dpl-ifaces", CMD_DPL_GET_ALL_IF_LIST, "", FakeDaemon::reply(14, "02000000" "01" "03" "727761" "0f" "03" "696d73"), 0, "1 rwa\n15 ims\n", "false",
      "interfaces=[{\"description\":\"rwa\",\"id\":1},{\"description\":\"ims\",\"id\":15}]" },
    { "dpl-ifaces", CMD_DPL_GET_ALL_IF_LIST, "", FakeDaemon::reply(6, "01000000" "01" "ff"), 1, "cut short", "\"unknown\"", "" },
    // Device text that is not UTF-8 must still make JSON.
    { "dpl-ifaces", CMD_DPL_GET_ALL_IF_LIST, "", FakeDaemon::reply(7, "01000000" "0101" "ff"), 0, "1 ", "false", "" },
    { "dpl-list", CMD_DPL_GET_IF_LIST, "", FakeDaemon::reply(10, "03000000" "0100" "0f00" "2c01"), 0, "1\n15\n300\n", "false", "interfaces=[1,15,300]" },
    { "dpl-add 19", CMD_DPL_SET_IF, "1300", FakeDaemon::reply(0), 0, "done", "false", "" },
    { "dpl-reset", CMD_DPL_RESET, "", FakeDaemon::untouched(), 0, "never writes a reply", "\"unknown\"", "" },
    { "raw 0x10", CMD_GET_LOG_STATE, "", FakeDaemon::reply(4, "01000000"), 0, "len 4\npayload 01000000\n", "\"unknown\"", "payload=\"01000000\"" },
    { "raw 19 0300:41:41:00", CMD_SYSTEM_COMMAND, "0300414100", FakeDaemon::reply(2, "abcd"), 0, "len 2\npayload abcd\n", "\"unknown\"", "payload=\"abcd\"" },
};

TEST(TovakctlExchange, EverySubcommandAsTextAndAsJson)
{
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
            EXPECT_EQ(uint32_t(CMD_DISCONNECT), reqs[1].cmd);

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
    }
}

TEST(TovakctlExchange, ClosedSessionExits1ButDisconnectIsWhatItAsked)
{
    {
        FakeDaemon fake({ FakeDaemon::hang_up() });
        CtlRun r = ctl_at(fake, { "raw", "0x15" }, true);
        EXPECT_EQ(CTL_EXIT_FAILED, r.rc);
        json j = json::parse(r.out);
        EXPECT_EQ(true, j["closed"]);
        EXPECT_EQ(true, j["refused"]);
        EXPECT_EQ(0x15, j["id"]);
    }
    {
        FakeDaemon fake;
        CtlRun r = ctl_at(fake, { "raw", "2" });
        EXPECT_EQ(CTL_EXIT_OK, r.rc) << r.err;
        EXPECT_NE(std::string::npos, r.out.find("ended the session, as asked"));
        ASSERT_EQ(1u, fake.requests().size());
    }
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
    FakeDaemon fake({ FakeDaemon::silence() });
    CtlRun r = ctl({ "--socket", fake.socket_path(), "--timeout", "1", "events" });
    EXPECT_EQ(CTL_EXIT_FAILED, r.rc);
    EXPECT_NE(std::string::npos, r.err.find("no reply within 1000 ms")) << r.err;
}

} // namespace
