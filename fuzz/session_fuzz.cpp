// A whole client session fed an arbitrary stream: the session loop, the
// command table and every handler, against a simulated device linked into
// this process. The input is a series of writes separated by "TVK!"; each
// write waits for its reply, so that the daemon's reads see the same
// pieces on every run.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <thread>

#include <cutils/properties.h>

#include "adblog/adblog_cmds.h"
#include "daemon/tovak.h"
#include "linked_devsim.h"
#include "logging/tovak_logging.h"
#include "protocol/tovak_pkt.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Inputs name absolute device paths: run only where those are scratch.
    if (getenv("TOVAK_SCRATCH_ROOT") == nullptr) {
        fprintf(stderr, "run this through sim/harness/scratch-root.sh\n");
        abort();
    }
    signal(SIGPIPE, SIG_IGN);
    static LinkedDevsim sim;
    if (!sim.start())
        abort();
    // A booted phone: log on must not wait for boot on every input.
    if (property_set("dev.bootcomplete", "1") != 0)
        abort();
    // A lost answer costs little time.
    sim_host_set_timeout_ms(200);
    tovak_handler_init();
    adblog_handler_init();
    return 0;
}

// The next reply, or false once the daemon has closed the session.
static bool read_reply(int fd)
{
    static uint8_t reply[sizeof(tovak_pkt)];
    for (size_t got = 0; got < sizeof reply;) {
        ssize_t n = read(fd, reply + got, sizeof reply - got);
        if (n <= 0)
            return false;
        got += size_t(n);
    }
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        abort();
    std::thread session(process_pkt, reinterpret_cast<void*>(intptr_t(fds[0])));
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    bool open = true;
    while (open && !rest.empty()) {
        size_t cut = rest.find("TVK!");
        std::string_view piece = rest.substr(0, cut);
        rest = cut == std::string_view::npos ? std::string_view() : rest.substr(cut + 4);
        if (piece.empty())
            continue;
        open = send(fds[1], piece.data(), piece.size(), MSG_NOSIGNAL) == ssize_t(piece.size()) && read_reply(fds[1]);
    }
    shutdown(fds[1], SHUT_WR);
    while (read_reply(fds[1])) {
    }
    session.join();
    close(fds[1]);
    return 0;
}
