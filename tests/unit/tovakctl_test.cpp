// The client's command table and tovakctl, against a daemon stand-in at the
// other end of a socketpair that answers canned reply frames.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "device_test.h"
#include "protocol/unix_socket.h"
#include "tovakctl.h"

namespace {

// Hex digits, with text between quotes taken byte for byte.
std::string bytes(const std::string& spec)
{
    std::string out;
    for (size_t i = 0; i < spec.size(); i++) {
        if (spec[i] == '\'') {
            size_t end = spec.find('\'', i + 1);
            out += spec.substr(i + 1, end - i - 1);
            i = end;
        } else if (spec[i] != ' ') {
            out += char(std::stoi(spec.substr(i++, 2), nullptr, 16));
        }
    }
    return out;
}

struct Reply {
    uint32_t len;
    std::string payload; // as for bytes()
};

// Answers each request with the reply canned for its command; closes the
// session at a command with none.
class Canned {
public:
    explicit Canned(std::map<uint32_t, Reply> replies, bool answer = true) : replies_(std::move(replies))
    {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_));
        if (answer)
            thread_ = std::thread([this] { serve(); });
    }
    ~Canned()
    {
        shutdown(fds_[1], SHUT_RDWR);
        if (thread_.joinable())
            thread_.join();
        close(fds_[1]);
    }
    // tovakctl's end; tovakctl closes it.
    int client_fd() const { return fds_[0]; }
    // What tovakctl sent, once it has closed its end: the serving thread may
    // still be taking a last request when tovakctl returns.
    const std::vector<tovak_pkt>& requests()
    {
        // A tovakctl that never took the descriptor leaves it open: stop
        // waiting for it then, rather than hang the test.
        pollfd hup = { fds_[1], POLLRDHUP, 0 };
        if (thread_.joinable() && poll(&hup, 1, 10000) == 0)
            shutdown(fds_[1], SHUT_RDWR);
        if (thread_.joinable())
            thread_.join();
        return requests_;
    }

private:
    void serve()
    {
        tovak_pkt req, rsp = {};
        while (recv(fds_[1], &req, sizeof req, MSG_WAITALL) == ssize_t(sizeof req)) {
            requests_.push_back(req);
            auto it = replies_.find(req.cmd);
            if (it == replies_.end())
                break;
            std::string payload = bytes(it->second.payload);
            rsp.len = it->second.len;
            memcpy(rsp.data, payload.data(), payload.size());
            send(fds_[1], &rsp, sizeof rsp, MSG_NOSIGNAL);
        }
        shutdown(fds_[1], SHUT_RDWR);
    }

    int fds_[2];
    std::vector<tovak_pkt> requests_;
    std::map<uint32_t, Reply> replies_;
    std::thread thread_;
};

struct CtlRun {
    int rc;
    std::string out, err;
};

CtlRun ctl(std::vector<std::string> args, int fd = -1)
{
    std::ostringstream out, err;
    int rc = tovakctl_main(args, out, err, fd);
    return { rc, out.str(), err.str() };
}

const Reply UNTOUCHED{ TOVAK_PKT_DATA_SIZE, "" }, CONFIG_PATH{ 17, "0f00 '/sdcard/dm.cfg'00" };

struct Exchange {
    uint32_t id;
    std::vector<std::string> args;
    const char* request; // payload, as for bytes()
    Reply reply;
    int rc;
    const char* shows; // in the JSON output
};

// clang-format off
const Exchange exchanges[] = {
    { 0x00, { "log-on" },                     "",                    { 4, "00000000" },  0, "\"refused\":false" }, // 0x10 says on
    { 0x01, { "log-off" },                    "",                    { 4, "00000000" },  1, "\"note\":\"logging still runs" },
    { 0x03, { "log-size", "2000000" },        "80841e00",            { 4, "00093d00" },  0, "\"size\":4000000" },
    { 0x03, { "log-size", "7" },              "07000000",            { 4, "ffffffff" },  1, "while modem logging runs" },
    { 0x04, { "out-path", "/sdcard/logs/dm" }, "'/sdcard/logs/dm'00", { 4, "00000000" }, 0, "\"refused\":false" },
    { 0x05, { "commit" },                     "",                    { 0, "" },          0, "\"reply_len\":0,\"refused\":false" },
    { 0x06, { "add-event", "01498" },         "da05",                { 0, "" },          0, "\"refused\":false" },
    { 0x07, { "rm-event", "0x5da" },          "da05",                UNTOUCHED,          1, "\"refused\":true" },
    { 0x08, { "events" },                     "",                    { 4, "da05db05" },  0, "\"events\":[1498,1499]" },
    { 0x08, { "events" },                     "",                    { 4, "db05da05" },  1, "not a well-formed list" },
    { 0x09, { "add-log", "b061" },            "61b0",                { 0, "" },          0, "\"refused\":false" },
    { 0x0a, { "rm-log", "0xB061" },           "61b0",                { 0, "" },          0, "\"refused\":false" },
    { 0x0b, { "logs" },                       "",                    { 4, "2f4161b0" },  0, "\"log_codes\":[16687,45153]" },
    { 0x0c, { "add-msg", "5", "3", "4" },     "0500 18000000",       { 0, "" },          0, "\"refused\":false" },
    { 0x0c, { "add-msg", "6000", "--mask", "0x10001" }, "7017 01000100", { 0, "" },      0, "\"refused\":false" },
    { 0x0d, { "rm-msg", "15" },               "0f00",                { 0, "" },          0, "\"refused\":false" },
    { 0x0e, { "msgs" },                       "",                    { 8, "0500abcd18000000" }, 0, "\"messages\":[{\"ssid\":5,\"mask\":24,\"levels\":[3,4]}]" },
    { 0x0f, { "buffer-size" },                "",                    { 4, "80f0fa02" },  0, "\"buffer_size\":50000000" },
    { 0x10, { "state" },                      "",                    { 4, "01000000" },  0, "\"logging\":true" },
    { 0x10, { "state" },                      "",                    { 4, "02000000" },  1, "expected 0 or 1, got 2" },
    { 0x11, { "set-config-file", "/sdcard/dm.cfg" }, "0f00 '/sdcard/dm.cfg'00", UNTOUCHED, 0, "\"changed\":false" },
    { 0x12, { "config-file" },                "",                    { 17, "0f00 '/sdcard/dm.cfg'00" }, 0, "\"path\":\"/sdcard/dm.cfg\"" },
    { 0x13, { "system", "@@#ps" },            "0600 '@@#ps'00",      UNTOUCHED,          0, "\"refused\":\"unknown\"" },
    { 0x14, { "range" },                      "",                    { 8, "0100000002000000" }, 0, "\"first\":1,\"second\":2" },
    { 0x2f, { "capture", "on" },              "",                    { 0, "" },          0, "\"refused\":false" },
    { 0x30, { "capture", "off" },             "",                    { 0, "" },          0, "\"refused\":false" },
    { 0x32, { "capture-commit" },             "",                    { 0, "" },          0, "\"refused\":\"unknown\"" },
    { 0x33, { "capture-state" },              "",                    { 4, "00000000" },  0, "\"capture\":false" },
    { 0x36, { "category-add", "2" },          "02000000",            UNTOUCHED,          0, "\"refused\":\"unknown\"" },
    { 0x37, { "category-rm", "2" },           "02000000",            UNTOUCHED,          0, "\"refused\":\"unknown\"" },
    { 0x38, { "categories" },                 "",                    { 8, "0100000000000000" }, 0, "\"enabled\":[true,false]" },
    { 0x39, { "categories-save" },            "",                    UNTOUCHED,          0, "\"refused\":\"unknown\"" },
    { 0x3a, { "category-names" },             "",                    { 11, "'main,radio'00" }, 0, "\"names\":[\"main\",\"radio\"]" },
    { 0x3b, { "capture-size", "0", "100" },   "00000000 64000000",   UNTOUCHED,          1, "capture is on: tovakd takes a size only while it is off" },
    { 0x3c, { "capture-size", "0" },          "00000000",            { 4, "20a10700" },  0, "\"size\":500000" },
    { 0x3d, { "capture-limits" },             "",                    { 8, "20a10700002d3101" }, 0, "\"min\":500000,\"max\":20000000" },
    { 0x46, { "autosave", "off" },            "00000000",            { 0, "" },          0, "\"refused\":false" },
    { 0x47, { "save-modem-data", "statistics" }, "01000000",         { 0, "" },          0, "\"refused\":false" },
    { 0x48, { "msisdn", "0101234567" },       "0b00 '0101234567'00", { 0, "" },          0, "\"refused\":false" },
    { 0x49, { "autosave" },                   "",                    { 4, "01000000" },  0, "\"autosave\":1" },
    { 0x50, { "dpl", "on" },                  "01000000",            UNTOUCHED,          1, "the state DPL is already in" },
    { 0x51, { "dpl-state" },                  "",                    { 4, "01000000" },  0, "\"dpl\":true" },
    { 0x52, { "dpl-ifaces" },                 "",                    { 9, "01000000 0103 'rmn'" }, 0, "\"interfaces\":[{\"id\":1,\"description\":\"rmn\"}]" },
    { 0x53, { "dpl-list" },                   "",                    { 8, "02000000 0100 2c01" }, 0, "\"interfaces\":[1,300]" },
    { 0x54, { "dpl-add", "300" },             "2c01",                { 0, "" },          0, "\"refused\":false" },
    { 0x55, { "dpl-reset" },                  "",                    UNTOUCHED,          0, "\"refused\":false,\"changed\":false" },
};
// clang-format on

TEST(TovakctlTable, EveryRowsRequestBytesAndReplyReading)
{
    std::set<uint32_t> ids;
    for (const Exchange& x : exchanges) {
        ids.insert(x.id);
        // The command's own reply first; then what tovakctl asks around it:
        // logging on, the start-up flags open, empty lists.
        Canned daemon({ { x.id, x.reply },
                        { CMD_GET_LOG_STATE, { 4, "01000000" } },
                        { 0x3d, { 8, "" } },
                        { 0x08, { 0, "" } },
                        { 0x0b, { 0, "" } },
                        { 0x0e, { 0, "" } },
                        { 0x33, { 4, "01000000" } },
                        { 0x38, { 8, "0100000000000000" } },
                        { 0x49, { 4, "01000000" } },
                        { 0x51, { 4, "00000000" } },
                        { 0x3c, { 4, "20a10700" } },
                        { 0x53, { 4, "00000000" } },
                        { 0x0f, { 4, "80f0fa02" } },
                        { 0x12, CONFIG_PATH } });
        std::vector<std::string> args = { "--json" };
        args.insert(args.end(), x.args.begin(), x.args.end());
        CtlRun r = ctl(args, daemon.client_fd());
        EXPECT_EQ(x.rc, r.rc) << x.args[0] << ": " << r.out << r.err;
        EXPECT_NE(std::string::npos, r.out.find(x.shows)) << x.args[0] << ": " << r.out;
        EXPECT_FALSE(nlohmann::json::parse(r.out, nullptr, false).is_discarded()) << r.out;
        auto own = std::find_if(daemon.requests().rbegin(), daemon.requests().rend(),
                                [&](const tovak_pkt& p) { return p.cmd == x.id; });
        ASSERT_NE(own, daemon.requests().rend()) << x.args[0];
        const tovak_pkt& req = *own;
        EXPECT_EQ(bytes(x.request), std::string(reinterpret_cast<const char*>(req.data), req.len)) << x.args[0];
    }
    std::set<uint32_t> rows;
    for (size_t i = 0; i < tovak_command_count; i++)
        rows.insert(tovak_commands[i].id);
    EXPECT_EQ(rows, ids);
    EXPECT_EQ(42u, rows.size()) << "every command but 2, which ends the session";
}

TEST(TovakctlArgs, BadUsageExits2WithTheSubcommandsUsage)
{
    const std::string long_path = "/sdcard/" + std::string(84, 'c');
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        { { "add-event", "65536" }, "usage: tovakctl add-event ID" },
        { { "add-log", "xyz" }, "bad log code 'xyz'" },
        { { "log-size", "0" }, "from 1 to 2147483647" },
        { { "capture-size", "1", "0" }, "usage: tovakctl capture-size CATEGORY BYTES" },
        { { "add-msg", "5", "32" }, "bad level '32'" },
        { { "out-path", "/a/b/c/d/e/f" }, "6 or more '/'" },
        { { "set-config-file", long_path }, "92 characters, tovakd takes at most 91" },
        { { "msisdn", "0123456789012345678" }, "at most 18" },
        { { "autosave", "maybe" }, "expected on or off" },
        { { "capture" }, "usage: tovakctl capture on\n       tovakctl capture off" },
        { { "events", "x" }, "unexpected arguments" },
        { { "raw", "0x15", "0g" }, "bad payload" },
        { { "frobnicate" }, "unknown subcommand" },
        { { "--timeout", "0", "state" }, "bad time-out" },
        { { "--socket", "/x", "--root", "/y", "state" }, "give one" },
    };
    for (const auto& [args, says] : cases) {
        CtlRun r = ctl(args);
        EXPECT_EQ(2, r.rc) << args[0];
        EXPECT_NE(std::string::npos, r.err.find(says)) << args[0] << ": " << r.err;
    }
}

// Global options go before or after the subcommand, in long, short and
// --opt=value forms; the environment names the device when they do not.
TEST(TovakctlArgs, OptionsAnywhereInEveryFormAndFromTheEnvironment)
{
    struct Case {
        std::vector<std::string> args;
        const char* root_env;
        const char* socket_env;
        const char* connects; // the socket it tried
    };
    const Case cases[] = {
        { { "--root", "/r1", "state" }, nullptr, nullptr, "/r1/dev/ps_socket/tovak" },
        { { "state", "--root", "/r1" }, nullptr, nullptr, "/r1/dev/ps_socket/tovak" },
        { { "state", "--root=/r1" }, nullptr, nullptr, "/r1/dev/ps_socket/tovak" },
        { { "-r", "/r1", "state" }, nullptr, nullptr, "/r1/dev/ps_socket/tovak" },
        { { "state", "-s", "/s1" }, nullptr, nullptr, "/s1:" },
        { { "--socket=/s1", "state" }, nullptr, nullptr, "/s1:" },
        { { "state" }, "/e1", nullptr, "/e1/dev/ps_socket/tovak" },
        { { "state" }, nullptr, "/es", "/es:" },
        // The option wins over the environment, whichever it names.
        { { "state", "-r", "/r1" }, nullptr, "/es", "/r1/dev/ps_socket/tovak" },
        { { "-s", "/s1", "state" }, "/e1", nullptr, "/s1:" },
    };
    for (const Case& c : cases) {
        c.root_env ? setenv("TOVAK_ROOT", c.root_env, 1) : unsetenv("TOVAK_ROOT");
        c.socket_env ? setenv("TOVAK_SOCKET", c.socket_env, 1) : unsetenv("TOVAK_SOCKET");
        CtlRun r = ctl(c.args);
        EXPECT_EQ(1, r.rc) << c.args[0];
        EXPECT_NE(std::string::npos, r.err.find("cannot connect to " + std::string(c.connects)))
            << c.args[0] << ": " << r.err;
    }
    setenv("TOVAK_ROOT", "/e1", 1);
    setenv("TOVAK_SOCKET", "/es", 1);
    EXPECT_EQ(2, ctl({ "state" }).rc) << "two sockets named";
    unsetenv("TOVAK_ROOT");
    unsetenv("TOVAK_SOCKET");

    // --json and --timeout after the subcommand; -- ends the options.
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{ { "rm-event", "5", "--json" },
                                                { "-j", "rm-event", "5" },
                                                { "rm-event", "-t", "2", "-j", "5" },
                                                { "rm-event", "--timeout=2", "--json", "--", "5" } }) {
        Canned daemon({ { 0x07, { 0, "" } }, { 0x10, { 4, "00000000" } }, { 0x12, CONFIG_PATH }, { 0x08, { 0, "" } } });
        CtlRun r = ctl(args, daemon.client_fd());
        EXPECT_EQ(0, r.rc) << args[0] << ": " << r.err;
        EXPECT_EQ(0u, r.out.find("{\"command\":\"rm-event\",\"id\":7")) << r.out;
        auto own = std::find_if(daemon.requests().begin(), daemon.requests().end(),
                                [](const tovak_pkt& p) { return p.cmd == 0x07; });
        ASSERT_NE(own, daemon.requests().end());
        EXPECT_EQ(bytes("0500"), std::string(reinterpret_cast<const char*>(own->data), own->len));
    }
}

// Typos get the nearest names; words name categories; numbers that look
// hex get the hint; masks are hex both ways.
TEST(TovakctlArgs, SuggestionsNamesAndBases)
{
    const std::pair<std::vector<std::string>, const char*> refused[] = {
        { { "evnets" }, "did you mean `events`?" },
        { { "log-of" }, "`log-off`" },
        { { "capture-comit" }, "did you mean `capture-commit`?" },
        { { "sttaus" }, "did you mean `status`?" }, // a swap counts one
        { { "dpl-ad" }, "did you mean `dpl-add`?" },
        { { "ra" }, "did you mean `raw`?" }, // short: one edit at most
        { { "categroies" }, "did you mean `categories`?" },
        { { "frobnicate" }, "unknown subcommand 'frobnicate' (tovakctl" },
        { { "--jsno", "state" }, "did you mean `--json`?" },
        { { "state", "--rot", "/x" }, "did you mean `--root`?" },
        { { "add-event", "5dc" }, "(hex? write 0x5dc)" },
        { { "add-log", "10000" }, "from 0x0 to 0xffff" },
        { { "add-msg", "5", "--mask", "1ffffffff" },
          "bad mask '1ffffffff': expected a hex number from 0x0 to 0xffffffff" },
        { { "category-rm", "sys" }, "or main, radio, events, system" },
        { { "--root=", "state" }, "" },
        { { "state", "--json=yes" }, "--json takes no value" },
        { { "state", "-r" }, "-r needs a value" },
        { { "zz" }, "unknown subcommand 'zz' (tovakctl" }, // nothing near
    };
    for (const auto& [args, says] : refused) {
        CtlRun r = ctl(args);
        if (args[0] == "--root=") {
            EXPECT_NE(0, r.rc);
            continue;
        }
        EXPECT_EQ(2, r.rc) << args[0];
        EXPECT_NE(std::string::npos, r.err.find(says)) << args[0] << ": " << r.err;
    }
    struct Sent {
        std::vector<std::string> args;
        uint32_t id;
        const char* request;
    };
    const Sent sent[] = {
        { { "category-rm", "system" }, 0x37, "03000000" },
        { { "category-add", "main" }, 0x36, "00000000" },
        { { "capture-size", "events", "600000" }, 0x3b, "02000000 c0270900" },
        { { "capture-size", "radio" }, 0x3c, "01000000" },
        { { "add-msg", "5", "--mask", "18" }, 0x0c, "0500 18000000" },
        { { "add-msg", "5", "--mask", "0x18" }, 0x0c, "0500 18000000" },
    };
    for (const Sent& x : sent) {
        Canned daemon({ { x.id, UNTOUCHED },
                        { 0x10, { 4, "00000000" } },
                        { 0x12, CONFIG_PATH },
                        { 0x0e, { 0, "" } },
                        { 0x33, { 4, "00000000" } },
                        { 0x3c, { 4, "20a10700" } },
                        { 0x38, { 16, "01000000010000000000000001000000" } } });
        ctl(x.args, daemon.client_fd());
        auto own = std::find_if(daemon.requests().begin(), daemon.requests().end(),
                                [&](const tovak_pkt& p) { return p.cmd == x.id; });
        ASSERT_NE(own, daemon.requests().end()) << x.args[0];
        EXPECT_EQ(bytes(x.request), std::string(reinterpret_cast<const char*>(own->data), own->len)) << x.args[0];
    }
    // What a mask goes in as, it comes out as.
    Canned daemon({ { 0x0e, { 8, "0500 0000 18000000" } }, { 0x38, { 8, "0000000001000000" } } });
    CtlRun msgs = ctl({ "msgs" }, daemon.client_fd());
    EXPECT_NE(std::string::npos, msgs.out.find("ssid 5 mask 0x0018 levels 3,4")) << msgs.out;
    Canned cats({ { 0x38, { 8, "0000000001000000" } } });
    CtlRun categories = ctl({ "categories" }, cats.client_fd());
    EXPECT_EQ("0 main off\n1 radio on\n", categories.out);
}

TEST(TovakctlRefusal, SaysWhatTheReplyShowedAndWhy)
{
    struct Case {
        std::vector<std::string> args;
        std::map<uint32_t, Reply> replies;
        int rc;
        const char* says;
    };
    const Case cases[] = {
        // The start-up flag: a command behind the same flag that asks nothing is refused too.
        { { "events" }, { { 0x08, UNTOUCHED }, { 0x3d, UNTOUCHED } }, 1, "start-up of modem logging failed" },
        { { "categories" }, { { 0x38, UNTOUCHED }, { 0x33, UNTOUCHED } }, 1, "capture did not start" },
        { { "log-on" }, { { 0x00, { 4, "00000000" } }, { 0x10, { 4, "00000000" } } }, 1, "logging is still off" },
        { { "add-event", "5" },
          { { 0x10, { 4, "00000000" } }, { 0x12, CONFIG_PATH }, { 0x08, { 0, "" } } },
          3,
          "without a reply to 0x06, a command it knows" },
        { { "raw", "0x15" }, {}, 1, "it has no command 0x15" },
        { { "raw", "2" }, {}, 0, "ended the session, as asked" },
        { { "raw", "0x0f" }, { { 0x0f, { 4, "01020304" } } }, 0, "len 4\npayload 01020304" },
    };
    for (const Case& c : cases) {
        Canned daemon(c.replies);
        CtlRun r = ctl(c.args, daemon.client_fd());
        EXPECT_EQ(c.rc, r.rc) << c.args[0];
        EXPECT_NE(std::string::npos, (r.out + r.err).find(c.says)) << c.args[0] << ": " << r.out << r.err;
    }
}

TEST(TovakctlTimeout, Exits3AndNamesTheStep)
{
    Canned silent({}, false);
    CtlRun r = ctl({ "--timeout", "0.2", "log-on" }, silent.client_fd());
    EXPECT_EQ(3, r.rc);
    EXPECT_NE(std::string::npos, r.err.find("no reply within 0.2 s")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("logging may still go on")) << r.err;

    // A listener that never accepts, its backlog full.
    TempDir dir;
    std::string path = dir.path() + "/s";
    int listener = unix_socket_listen(path.c_str(), 0);
    ASSERT_GE(listener, 0);
    std::vector<int> waiting;
    for (int fd; (fd = unix_socket_connect(path.c_str(), 0)) >= 0;)
        waiting.push_back(fd);
    r = ctl({ "--socket", path, "--timeout", "0.2", "state" });
    EXPECT_EQ(3, r.rc);
    EXPECT_NE(std::string::npos,
              r.err.find("connecting to " + path + " timed out after 0.2 s: tovakd's backlog is full"))
        << r.err;
    close(listener); // now a socket file with no one listening
    r = ctl({ "--socket", path, "state" });
    EXPECT_EQ(1, r.rc);
    EXPECT_NE(std::string::npos, r.err.find("socket file was left over")) << r.err;
    for (int fd : waiting)
        close(fd);
}

// What tovakd's log tells: only an output path it took, edits the modem
// has not got, the modem's event count; a restart forgets all of it.
TEST(TovakctlLog, FactsFromTheDaemonsLog)
{
    struct Case {
        std::vector<const char*> messages;
        const char* out_path;
        const char* capture_dir; // where the next capture commit goes
        int pending;
        int64_t events;
    };
    // clang-format off
    const Case cases[] = {
        { {}, "", "", 0, -1 },
        // Refused by the platform: no ADB_LOG line follows.
        { { "DMLogging out_path_name is relative/x", "tovak_handler ERR >> 120" }, "", "", 0, -1 },
        // A capture commit refused (capture off) leaves the path for the next; one done uses it up.
        { { "DMLogging out_path_name is /sdcard/a", "ADB_LOG out_path_name is /sdcard/", "DMLogging out_path_name is bad",
            "process adblog_commit", "ADBLOG: state is off so commit operation is not allowed" }, "/sdcard/a", "/sdcard/", 0, -1 },
        { { "DMLogging out_path_name is /sdcard/a", "ADB_LOG out_path_name is /sdcard/", "process adblog_commit" }, "/sdcard/a", "", 0, -1 },
        { { "DMLogging out_path_name is /sdcard/a", "ADB_LOG out_path_name is /sdcard/", "[!] TOVAKD Started ver 1" }, "", "", 0, -1 },
        { { "Number of event ID = 2200", ">> getVariousInfoOnEventLogMessage", "handler_add_event, event id = 5",
            "handler_rm_log, log id = 16687", "handler_add_msg ssid = 0x5, mask = 0x18" }, "", "", 3, 2200 },
        // A second log on sends nothing, so edits stay pending; a log off clears the masks.
        { { "handler_rm_event, event id = 5", "process log_on", "Current log state is already LOG_STATE_START so do nothing" }, "", "", 1, -1 },
        { { "handler_rm_msg ssid = 0x5", "process log_off" }, "", "", 0, -1 },
        { { "handler_rm_msg ssid = 0x5", "process log_on", ">> getVariousInfoOnEventLogMessage" }, "", "", 0, -1 },
        // Lines of other tags never count.
        { { "handler_get_events output length = 5120" }, "", "", 0, -1 },
    };
    // clang-format on
    for (const Case& c : cases) {
        TempDir root;
        ASSERT_EQ(0, system(("mkdir -p " + root.path() + "/sim").c_str()));
        std::string text = "11-25 14:00:00.000  4  4 D OTHER   : handler_add_event, event id = 9\n";
        for (const char* m : c.messages)
            text += std::string("11-25 14:00:00.000  4  5 D TOVAK   : ") + m + "\n";
        ASSERT_TRUE(write_file(root.path() + "/sim/logcat.txt", text));
        CtlOptions opt;
        opt.root = root.path();
        CtlLogFacts f = ctl_log_facts(opt);
        EXPECT_TRUE(f.known);
        EXPECT_EQ(c.out_path, f.out_path) << text;
        EXPECT_EQ(c.capture_dir, f.capture_dir) << text;
        EXPECT_EQ(c.pending, f.pending_edits) << text;
        EXPECT_EQ(c.events, f.event_count) << text;
    }
    CtlOptions nowhere;
    nowhere.root = "/nonexistent";
    EXPECT_FALSE(ctl_log_facts(nowhere).known);
}

TEST(TovakctlStatus, PointsAtWhatLooksWrong)
{
    TempDir root;
    ASSERT_EQ(0, system(("mkdir -p " + root.path() + "/data/media/0").c_str()));
    ASSERT_TRUE(
        write_file(root.path() + "/data/media/0/x.cfg", "#<LogState>off</LogState>\n<LogState>on</LogState>\n"));
    ASSERT_TRUE(write_file(root.path() + "/data/media/0/dm.cfg", "<BufferSize>-5</BufferSize>\n"));
    Canned daemon({ { 0x10, { 4, "00000000" } },
                    { 0x12, { 16, "0e00 '/sdcard/x.cfg'00" } },
                    { 0x0f, { 4, "d0070000" } },
                    { 0x14, { 8, "0000100000000008" } },
                    { 0x08, { 2, "da05" } },
                    { 0x0b, { 0, "" } },
                    { 0x0e, { 0, "" } },
                    { 0x51, { 4, "00000000" } },
                    { 0x53, { 4, "00000000" } },
                    { 0x49, { 4, "01000000" } },
                    { 0x33, UNTOUCHED } });
    CtlRun r = ctl({ "--root", root.path(), "--json", "status" }, daemon.client_fd());
    EXPECT_EQ(1, r.rc) << r.err;
    nlohmann::json j = nlohmann::json::parse(r.out, nullptr, false);
    ASSERT_TRUE(j.is_object()) << r.out;
    std::string warnings = j["warnings"].dump();
    for (const char* says :
         { "not a dm.cfg", "says LogState on", "2000 is outside the modem's range 1048576 to 134217728",
           "Android log capture did not start" })
        EXPECT_NE(std::string::npos, warnings.find(says)) << says << ": " << warnings;

    Canned refusing({ { 0x10, UNTOUCHED }, { 0x33, UNTOUCHED } });
    r = ctl({ "--root", root.path(), "status" }, refusing.client_fd());
    EXPECT_EQ(1, r.rc);
    EXPECT_NE(std::string::npos, r.out.find("/data/media/0/dm.cfg holds the negative <BufferSize> -5")) << r.out;
}

// The members the README promises in every --json object: command, id and
// refused always, reply_len when a reply came, failure when none did.
TEST(TovakctlJson, EverySubcommandHasTheDocumentedMembers)
{
    std::vector<std::vector<std::string>> runs = { { "status" }, { "raw", "0x0f" } };
    for (const Exchange& x : exchanges)
        runs.push_back(x.args);
    std::map<uint32_t, Reply> answers;
    for (const Exchange& x : exchanges)
        answers.emplace(x.id, x.reply);
    for (const auto& args : runs) {
        for (bool answered : { true, false }) {
            std::vector<std::string> with_json = args;
            with_json.push_back("--json");
            Canned daemon(answered ? answers : std::map<uint32_t, Reply>{});
            CtlRun r = ctl(with_json, daemon.client_fd());
            nlohmann::json j = nlohmann::json::parse(r.out, nullptr, false);
            ASSERT_TRUE(j.is_object()) << args[0] << ": " << r.out << r.err;
            EXPECT_EQ(ctl_first_word(args[0]) == "capture" ? args[0] + " " + args[1] : args[0], j["command"]) << r.out;
            ASSERT_TRUE(j.contains("id")) << r.out;
            EXPECT_TRUE(args[0] == "status" ? j["id"].is_null() : j["id"].is_number()) << r.out;
            ASSERT_TRUE(j.contains("refused")) << r.out;
            EXPECT_TRUE(j["refused"].is_boolean() || j["refused"] == "unknown") << r.out;
            if (!answered) {
                // Commands that ask first meet the closed session at their next send.
                EXPECT_EQ(0u, j.value("failure", "").find("closed_")) << args[0] << ": " << r.out;
                EXPECT_TRUE(j["error"].is_string()) << r.out;
            } else if (args[0] != "status") {
                EXPECT_TRUE(j["reply_len"].is_number()) << r.out;
            } else {
                EXPECT_TRUE(j["warnings"].is_array()) << r.out;
            }
        }
    }
}

TEST(TovakctlHelp, HelpAndCompletionComeFromTheTable)
{
    // Help and completion never contact the daemon: the socket leads nowhere.
    auto local = [](std::vector<std::string> args) {
        args.insert(args.begin(), { "--socket", "/nonexistent/s" });
        return ctl(args);
    };
    CtlRun help = local({ "--help" }), completion = local({ "completion", "bash" });
    EXPECT_EQ(0, help.rc);
    EXPECT_NE(std::string::npos, help.out.find("\nlogging:\n  status ")) << "status first";
    for (const std::string& word : ctl_subcommand_names()) {
        EXPECT_NE(nullptr, ctl_group_of(word)) << word << " is in no group of --help";
        EXPECT_NE(std::string::npos, help.out.find("\n  " + word + " ")) << word;
        CtlRun one = local({ word, "--help" });
        EXPECT_EQ(0, one.rc);
        EXPECT_EQ(0u, one.out.find("usage: tovakctl " + word)) << one.out;
        EXPECT_EQ(1u, count(one.out, "usage: ")) << "usage once: " << one.out;
        EXPECT_NE(std::string::npos, one.out.find("\nExample: ")) << one.out;
        EXPECT_EQ(one.out, local({ "help", word }).out);
    }
    // What changes something says when, and whether it lasts.
    for (const char* word : { "add-event", "out-path", "category-rm", "log-size", "capture" }) {
        std::string text = local({ word, "--help" }).out;
        EXPECT_NE(std::string::npos, text.find("\nTakes effect: ")) << text;
        EXPECT_NE(std::string::npos, text.find("\nSurvives a restart of tovakd: ")) << text;
    }
    EXPECT_NE(std::string::npos, local({ "out-path", "--help" }).out.find("restart of tovakd: no"));
    EXPECT_NE(std::string::npos, local({ "add-event", "--help" }).out.find("at the next log on"));
    EXPECT_EQ(0u, local({ "--version" }).out.find("tovakctl "));

    TempDir dir;
    ASSERT_TRUE(write_file(dir.path() + "/c.bash", completion.out));
    EXPECT_EQ(0, system(("bash -n " + dir.path() + "/c.bash").c_str()));
    // log-read takes files in any position.
    ASSERT_TRUE(write_file(dir.path() + "/diag_log_1.qmdl", "") &&
                write_file(dir.path() + "/t.bash",
                           ". " + dir.path() + "/c.bash; COMP_WORDS=(tovakctl log-read --json " + dir.path() +
                               "/diag_); COMP_CWORD=3; _tovakctl; [ \"$COMPREPLY\" = " + dir.path() +
                               "/diag_log_1.qmdl ]"));
    EXPECT_EQ(0, system(("bash " + dir.path() + "/t.bash").c_str()));
    CtlRun zsh = local({ "completion", "zsh" });
    EXPECT_EQ(2, zsh.rc);
    EXPECT_NE(std::string::npos, zsh.err.find("only bash")) << zsh.err;

    // Values: names, and the ids dm.cfg holds for the remove commands.
    ASSERT_EQ(0, system(("mkdir -p " + dir.path() + "/data/media/0").c_str()));
    ASSERT_TRUE(write_file(dir.path() + "/data/media/0/dm.cfg",
                           "<EventIDs>\n01498, 00007\n</EventIDs>\n<LogCodes>0x412f</LogCodes>\n"
                           "<MessageLevels>\n00005/03,00005/04,03006/03\n</MessageLevels>\n"));
    const std::pair<const char*, const char*> values[] = {
        { "rm-event", "1498\n7\n" }, { "rm-log", "0x412f\n" },
        { "rm-msg", "5\n3006\n" },   { "category-rm", "main\nradio\nevents\nsystem\n" },
        { "capture", "on\noff\n" },  { "dpl", "on\noff\n" },
    };
    for (const auto& [word, expect] : values)
        EXPECT_EQ(expect, ctl({ "-r", dir.path(), "completion", "values", word }).out) << word;
}

// The manual pages the build makes and installs render without a warning.
TEST(TovakctlHelp, ManualPagesRender)
{
    if (system("command -v groff >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "groff is not installed";
    std::string man_dir = SimDevice::bin("tovakctl");
    man_dir = man_dir.substr(0, man_dir.rfind("/bin/")) + "/man";
    for (const char* page : { "tovakctl.1", "tovak-sim.1" }) {
        std::string path = man_dir + "/" + page;
        ASSERT_TRUE(file_exists(path)) << path;
        TempDir dir;
        std::string out = dir.path() + "/out", err = dir.path() + "/err";
        // -P-cbou: plain text, without the terminal's overstrikes.
        ASSERT_EQ(0, system(("groff -man -Tutf8 -P-cbou -ww " + path + " >" + out + " 2>" + err).c_str()));
        EXPECT_EQ("", read_file(err)) << page;
        EXPECT_NE(std::string::npos, read_file(out).find("SYNOPSIS")) << page;
        if (std::string(page) != "tovakctl.1")
            continue;
        std::string text = read_file(out);
        for (size_t i = 0; i < tovak_command_count; i++)
            EXPECT_TRUE(std::regex_search(text, std::regex("\n +" + std::string(tovak_commands[i].name) + "[ \n]")))
                << tovak_commands[i].name;
    }
}

} // namespace

// The wire reference in protocol/README.md is the command table's: a row
// added, renamed or regated without the document fails here, with the text
// to paste.
TEST(TovakctlDocs, TheWireReferenceIsTheCommandTable)
{
    std::string want = "| id | tovakctl | refused while |\n|---|---|---|\n";
    for (size_t i = 0; i < tovak_command_count; i++) {
        const TovakCommand& row = tovak_commands[i];
        char id[8];
        snprintf(id, sizeof id, "0x%02x", unsigned(row.id));
        const char* gate = row.gate == tovak_gate::logging   ? "the logging start-up failed"
                           : row.gate == tovak_gate::capture ? "the capture start-up failed"
                                                             : "never";
        std::string syntax;
        for (char ch : std::string(row.name) + (*row.syntax ? std::string(" ") + row.syntax : ""))
            syntax += ch == '|' ? std::string("\\|") : std::string(1, ch);
        want += std::string("| ") + id + " | `" + syntax + "` | " + gate + " |\n";
    }
    const std::string begin = "<!-- wire table begin -->\n", end = "<!-- wire table end -->";
    std::ifstream in(TOVAK_SOURCE_DIR "/protocol/README.md");
    std::stringstream text;
    text << in.rdbuf();
    const std::string doc = text.str();
    const size_t from = doc.find(begin), to = doc.find(end);
    ASSERT_TRUE(from != std::string::npos && to != std::string::npos && from < to)
        << "no wire table in protocol/README.md";
    EXPECT_EQ(want, doc.substr(from + begin.size(), to - from - begin.size())) << "paste this:\n" << want;
}
