// tovak-sim: runs tovakd on a simulated device. A device root directory on
// the host becomes /data, /sdcard, /system, /dev/log, /dev/ps_socket and
// /dev/socket inside a bubblewrap sandbox with its own /proc and PID
// namespace (up.cpp), where the launcher restarts tovakd as Android's init
// would (inside.cpp); `ctl` drives the device simulator of a running device.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "launcher.h"
#include "protocol/unix_socket.h"
#include "sim_root.h"

using namespace launcher;

namespace {

std::string usage_text()
{
    char text[4096];
    snprintf(text, sizeof text,
             "usage: tovak-sim up ROOT [OPTIONS]   (options before or after ROOT)\n"
             "       tovak-sim down ROOT\n"
             "       tovak-sim ctl ROOT COMMAND [ARGS...]\n"
             "       tovak-sim --version\n"
             "\n"
             "  up ROOT   create the device root ROOT if needed and run tovakd on it in the\n"
             "            foreground until Ctrl-C or SIGTERM, restarting it as init would.\n"
             "            Clients reach the daemon at ROOT/dev/ps_socket/tovak; a \"ready\" line\n"
             "            says when it serves. Its output, time-stamped on the terminal, is\n"
             "            appended to ROOT/%s.\n"
             "  down ROOT stop the device that `up --detach ROOT` left running.\n"
             "\n"
             "  --detach              run in the background; return once tovakd serves\n"
             "  --quiet               show only tovak-sim's own lines, not tovakd's\n"
             "  --no-bootcomplete     leave the property dev.bootcomplete unset\n"
             "  --remote-modem        attach a second (remote) modem\n"
             "  --without-log NAME    no log device /dev/log/NAME (main, radio, events, system)\n"
             "  --etc DIR             factory files for a new ROOT/system/etc (default: %s)\n"
             "  --sdcard-readonly     show /sdcard and /data/media/0 read-only\n"
             "  --daemon PATH         run this tovakd (default: the one beside tovak-sim;\n"
             "                        environment: TOVAK_SIM_DAEMON)\n"
             "  --daemon-wrapper \"CMD ARGS\"  run the daemon as CMD ARGS PATH, e.g.\n"
             "                        \"qemu-arm -L /usr/arm-linux-gnueabihf\" (environment:\n"
             "                        TOVAK_SIM_DAEMON_WRAPPER)\n"
             "  --daemon-nofile N     the daemon's limit of open descriptors\n"
             "  --restart-delay MS    restart tovakd no sooner than MS after its last start\n"
             "                        (default %d, as init)\n"
             "\n"
             "  ctl ROOT COMMAND   drive the simulated device of a running `up ROOT`:\n"
             "            `ctl ROOT modem` shows what the modem holds, `ctl ROOT status` the\n"
             "            whole state as JSON, `ctl ROOT help` lists the commands (faults,\n"
             "            injected log entries, ranges, QMI data).\n",
             SIM_STDOUT_FILE, TOVAK_ETC_DIR, RESTART_DELAY_MS);
    return text;
}

void usage(FILE* out)
{
    fputs(usage_text().c_str(), out);
}

// tovak-sim(1) in man(7) markup: the usage, as --help shows it.
void man_page()
{
    std::string body;
    for (char ch : usage_text())
        body += ch == '\\' ? "\\e" : ch == '-' ? "\\-" : std::string(1, ch);
    printf(".TH TOVAK\\-SIM 1 \"\" \"tovak\\-sim " TOVAK_SIM_VERSION "\" \"User Commands\"\n"
           ".SH NAME\ntovak\\-sim \\- run tovakd on a simulated phone\n"
           ".SH SYNOPSIS\n.nf\n%s.fi\n"
           ".SH EXIT STATUS\n0 stopped as asked, 1 failed, 2 bad usage.\n"
           ".SH FILES\nROOT/sim/tovakd.stdout (the daemon's output), ROOT/sim/logcat.txt (the log devices), "
           "ROOT/sim/tovakd.state (running or stopped), ROOT/data/media/0 (/sdcard: dm.cfg, diag_logs, syslog).\n"
           ".SH SEE ALSO\n.BR tovakctl (1)\n",
           body.c_str());
}

[[noreturn]] void usage_error(const std::string& msg)
{
    fprintf(stderr, "tovak-sim: %s (tovak-sim --help shows the usage)\n", msg.c_str());
    exit(2);
}

std::vector<std::string> split_words(const std::string& text)
{
    std::vector<std::string> words;
    size_t at = 0;
    while ((at = text.find_first_not_of(" \t", at)) != std::string::npos) {
        size_t end = text.find_first_of(" \t", at);
        words.push_back(text.substr(at, end - at));
        at = end;
    }
    return words;
}

// Sends the command to the device simulator under ROOT and prints its
// answer; errors go to stderr with status 1.
int cmd_ctl(const std::string& root, int argc, char** argv)
{
    std::string path = root + "/" SIM_CTL_SOCKET;
    int fd = unix_socket_connect(path.c_str(), 10000);
    if (fd < 0)
        die("no device simulator at " + root + " (is `tovak-sim up " + root + "` running?)");
    std::string request;
    for (int i = 0; i < argc; i++) {
        request += argv[i];
        request += '\0';
    }
    signal(SIGPIPE, SIG_IGN);
    write_all(fd, request);
    shutdown(fd, SHUT_WR);
    std::string reply;
    for (;;) {
        pollfd p = { fd, POLLIN, 0 };
        int r = poll(&p, 1, 10000);
        if (r < 0 && errno == EINTR)
            continue;
        if (r == 0)
            die("the device simulator did not answer");
        char buf[8192];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        reply.append(buf, size_t(n));
    }
    close(fd);
    if (reply.empty())
        die("the device simulator closed without an answer");
    bool failed = reply.compare(0, 7, "error: ") == 0;
    // Words the simulator does not take are usage errors, as for tovakctl.
    bool usage = reply.compare(0, 14, "error: usage: ") == 0 || reply.compare(0, 23, "error: unknown command ") == 0;
    write_all(failed ? STDERR_FILENO : STDOUT_FILENO, reply);
    return usage ? 2 : failed ? 1 : 0;
}

// ROOT as an absolute path, for the lines that name it.
std::string real_root(const std::string& root)
{
    if (!root.empty() && root[0] == '/')
        return root;
    char cwd[4096];
    return getcwd(cwd, sizeof cwd) ? std::string(cwd) + "/" + root : root;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    std::string cmd = argv[1];
    if (cmd == "--man") {
        man_page();
        return 0;
    }
    if (cmd == "--version") {
        printf("tovak-sim " TOVAK_SIM_VERSION "\n");
        return 0;
    }
    if (cmd == "inside")
        return inside(argc, argv);
    if (cmd == "ctl") {
        if (argc < 4)
            usage_error(argc < 3 ? "ctl: no ROOT given" : "ctl: no COMMAND given (tovak-sim ctl ROOT help lists them)");
        return cmd_ctl(argv[2], argc - 3, argv + 3);
    }
    if (cmd == "down") {
        if (argc != 3)
            usage_error(argc < 3 ? "down: no ROOT given" : "down: unexpected '" + std::string(argv[3]) + "'");
        return down(argv[2]);
    }
    if (cmd != "up")
        usage_error("unknown command '" + cmd + "' (expected up, down or ctl)");
    if (argc < 3)
        usage_error("up: no ROOT given");
    UpOptions opt;
    bool have_daemon = false, have_wrapper = false, detach = false;
    std::vector<std::string> again = { argv[0], "up" };
    for (int i = 2; i < argc; i++) {
        std::string a = argv[i];
        // Options that take a value take the next word, whatever it looks like.
        auto value = [&](std::string* v) {
            if (i + 1 >= argc)
                usage_error(a + " needs a value");
            *v = argv[++i];
            again.push_back(*v);
        };
        std::string v;
        if (a != "--detach")
            again.push_back(a);
        if (a == "--detach") {
            detach = true;
        } else if (a == "--quiet") {
            opt.quiet = true;
        } else if (a == "--no-bootcomplete") {
            opt.bootcomplete = false;
        } else if (a == "--remote-modem") {
            opt.remote_modem = true;
        } else if (a == "--without-log") {
            value(&v);
            if (v != "main" && v != "radio" && v != "events" && v != "system")
                usage_error("unknown log device '" + v + "': expected main, radio, events or system");
            opt.without_logs.push_back(v);
        } else if (a == "--etc") {
            value(&opt.etc);
        } else if (a == "--sdcard-readonly") {
            opt.sdcard_readonly = true;
        } else if (a == "--daemon-nofile" || a == "--restart-delay") {
            value(&v);
            uint64_t n = strtoull(v.c_str(), nullptr, 10);
            if (v.empty() || v.find_first_not_of("0123456789") != std::string::npos || n > 1000000000 ||
                (a == "--daemon-nofile" && n < 3))
                usage_error("bad " + a + " '" + v + "': expected a whole number" +
                            (a == "--daemon-nofile" ? " from 3" : ""));
            (a == "--daemon-nofile" ? opt.nofile : opt.restart_delay) = v;
        } else if (a == "--daemon") {
            value(&opt.daemon);
            have_daemon = true;
        } else if (a == "--daemon-wrapper") {
            value(&v);
            opt.wrapper = split_words(v);
            have_wrapper = true;
        } else if (a.size() > 1 && a[0] == '-') {
            usage_error("unknown option " + a);
        } else if (!opt.root.empty()) {
            usage_error("two roots given: " + opt.root + " and " + a);
        } else {
            opt.root = a;
        }
    }
    if (opt.root.empty())
        usage_error("no ROOT given");
    const char* env = getenv("TOVAK_SIM_DAEMON");
    if (!have_daemon && env && *env)
        opt.daemon = env;
    env = getenv("TOVAK_SIM_DAEMON_WRAPPER");
    if (!have_wrapper && env)
        opt.wrapper = split_words(env);
    if (detach)
        return up_detached(again, real_root(opt.root));
    return up(opt);
}
