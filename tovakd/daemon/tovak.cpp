#include "daemon/tovak.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "adblog/adblog_cmds.h"
#include "common/tovak_file.h"
#include "common/tovak_log.h"
#include "common/tovak_paths.h"
#include "daemon/cmd_table.h"
#include "logging/tovak_logging.h"
#include "protocol/tovak_cmd_ids.h"
#include "protocol/tovak_pkt.h"
#include "protocol/unix_socket.h"

#define LOG_MODULE "tovak"

#define TOVAK_VERSION "20121221  ver. 4.05"
#define TOVAK_START_TAG "TAMBOUR_TOVAK"
#define TOVAK_SOCKET_UID 0
#define TOVAK_SOCKET_GID 1001 // radio
// Decimal on purpose: the socket has always been given this exact mode.
#define TOVAK_SOCKET_MODE 666
#define TOVAK_LISTEN_BACKLOG 5
#define TOVAK_COPY_CHUNK 200
#define TOVAK_MAX_ZERO_READS 10

// User file first: it is what the copy makes sure of.
static const char* const default_files[][2] = {
    { TOVAK_USER_CONFIG_FILE, TOVAK_FACTORY_CONFIG_FILE },
    { TOVAK_USER_EVENT_ID_FILE, TOVAK_FACTORY_EVENT_ID_FILE },
    { TOVAK_USER_LOG_ITEM_FILE, TOVAK_FACTORY_LOG_ITEM_FILE },
    { TOVAK_USER_MESSAGE_LEVEL_FILE, TOVAK_FACTORY_MESSAGE_LEVEL_FILE },
};

uint32_t handler_dummy(uint32_t, uint8_t*, uint32_t*, uint8_t*)
{
    TLOG("dummy called\n");
    return 1;
}

int tovak_copy_default_file(const char* user, const char* source)
{
    // Only a file that is not there is made: one that merely can't be opened
    // now is still the user's, and is never replaced. Not blocking: a FIFO
    // put there would hold start-up for ever.
    int fd = open(user, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int err = fd < 0 ? errno : 0;
    if (fd >= 0 || err != ENOENT) {
        if (fd < 0)
            TLOG_CAUSE(user, err);
        TLOG("User file already exists %s\n", user);
        if (fd >= 0)
            close(fd);
        return 0;
    }
    int src = open(source, O_RDONLY | O_CLOEXEC);
    if (src < 0) {
        const int open_err = errno;
        TLOG("Fatal Error: src file %s doesn't exist\n", source);
        TLOG_ERR_ERRNO(source, open_err);
        return -1;
    }
    // Through a temporary file: a kill or a full disk mid-copy must leave no
    // user file rather than a torn one that the next start-up would load.
    // Created, never replacing: a node or link put there meanwhile stays.
    bool copied = tovak_file_create(user, [src](int dst) {
        char chunk[TOVAK_COPY_CHUNK];
        for (;;) {
            ssize_t n = read(src, chunk, sizeof chunk);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return n == 0;
            if (!tovak_write_all(dst, chunk, size_t(n)))
                return false;
        }
    });
    close(src);
    if (!copied) {
        TLOG("Fatal Error: Target File %s can't creat\n", user);
        TLOG_ERR("user file not made from its factory copy");
        return -1;
    }
    return 0;
}

int tovak_daemon_init()
{
    TLOG("tovak_daemon_init() config_cfg = %s\n", TOVAK_USER_CONFIG_FILE);
    int result = 0;
    for (const auto& pair : default_files) {
        if (tovak_copy_default_file(pair[0], pair[1]) < 0)
            result = -1;
    }
    if (result < 0)
        TLOG_ERR("a user file is missing and could not be provisioned");
    return result;
}

void* process_pkt(void* arg)
{
    const int fd = int(intptr_t(arg));
    // The frames are reused for the whole session and cleared only here, so
    // that a short read leaves the earlier bytes, never stack garbage.
    tovak_pkt req;
    tovak_pkt rsp;
    memset(&req, 0, sizeof req);
    memset(&rsp, 0, sizeof rsp);
    uint8_t num_of_consecutive_zero_read = 0;
    bool failed = false;

    for (;;) {
        ssize_t n = read(fd, &req, sizeof req);
        if (n < 0) {
            TLOG_CAUSE("read of a request", errno);
            TLOG("Failed to read socket\n");
            failed = true;
            break;
        }
        if (n == 0) {
            TLOG("read size is zero\n");
            if (num_of_consecutive_zero_read > TOVAK_MAX_ZERO_READS) {
                TLOG("num_of_consecutive_zero_read exceeds %d", TOVAK_MAX_ZERO_READS);
                failed = true;
                break;
            }
            num_of_consecutive_zero_read++;
            continue;
        }
        rsp.len = TOVAK_PKT_DATA_SIZE;
        TLOG("process_pkt\n");
        if (req.cmd == CMD_DISCONNECT)
            break;
        TLOG("cmd = %d\n", int(req.cmd));
        const cmd_entry* cmd = find_cmd(req.cmd);
        if (cmd == nullptr) {
            TLOG("can't process cmd since there is no handler to process it\n");
            TLOG_ERR("session ends: no handler for the command");
            break;
        }
        // No reader may pass the end of the request frame.
        uint32_t req_len = req.len > TOVAK_PKT_DATA_SIZE ? TOVAK_PKT_DATA_SIZE : req.len;
        // Done or refused, the reply goes out: it carries no status.
        cmd_run(*cmd, req_len, req.data, &rsp.len, rsp.data);
        if (write(fd, &rsp, sizeof rsp) < 0) {
            TLOG_CAUSE("write of a reply", errno);
            TLOG("%s", "Failed to write socket errno = %d\n");
            failed = true;
            break;
        }
        num_of_consecutive_zero_read = 0;
    }

    if (failed) {
        TLOG_ERR("session ends: a read or write of the socket failed");
        TLOG("<-- catch error\n");
    }
    TLOG("%s(%d)\n", "server: got disconnection", fd);
    close(fd);
    return nullptr;
}

// msg is the required line; the cause goes beside it.
static int tovak_fail(int listen_fd, const char* msg, int err)
{
    TLOG("%s\n", msg);
    TLOG_ERR_ERRNO(msg, err);
    if (listen_fd >= 0)
        close(listen_fd);
    return 1;
}

int tovak_main()
{
    static const char dots[] = "...............................................";
    TLOG("%s\n", dots);
    TLOG("[!] TOVAKD Started ver %s\n", TOVAK_VERSION);
    TLOG("%s\n", dots);

    umask(0);

    int init = tovak_daemon_init();
    TLOG("tovak_daemon_init() = %d\n", init);
    TLOG_TAG(TOVAK_START_TAG, "tovak daemon initialized = %d\n", init);

    signal(SIGPIPE, SIG_IGN);

    // Close-on-exec, as every descriptor here: a shell diagnostic must not
    // hold the daemon's sockets.
    int listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd < 0)
        return tovak_fail(listen_fd, "Failed to create socket", errno);

    const char* path = TOVAK_SOCKET_PATH;
    if (access(path, F_OK) == 0)
        unlink(path);

    // Bound with the family, the path and its terminating zero.
    sockaddr_un addr;
    socklen_t addr_len;
    unix_socket_address(path, &addr, &addr_len);

    if (bind(listen_fd, reinterpret_cast<sockaddr*>(&addr), addr_len) < 0)
        return tovak_fail(listen_fd, "Failed to bind socket", errno);
    (void)!chown(path, TOVAK_SOCKET_UID, TOVAK_SOCKET_GID);
    (void)!chmod(path, TOVAK_SOCKET_MODE);
    if (listen(listen_fd, TOVAK_LISTEN_BACKLOG) < 0)
        return tovak_fail(listen_fd, "Failed to listen on socket", errno);

    tovak_handler_init();
    adblog_handler_init();

    for (;;) {
        int client = accept4(listen_fd, reinterpret_cast<sockaddr*>(&addr), &addr_len, SOCK_CLOEXEC);
        if (client < 0)
            return tovak_fail(listen_fd, "Failed to accept socket", errno);
        TLOG("%s(%d-%d)\n", "server: got connection", listen_fd, client);
        // Each session gets its own copy of the descriptor, so the next
        // accept cannot overwrite it before the thread has read it.
        pthread_t thread;
        const int rc = pthread_create(&thread, nullptr, process_pkt, reinterpret_cast<void*>(intptr_t(client)));
        if (rc != 0) {
            close(client);
            return tovak_fail(listen_fd, "Failed to create thread", rc);
        }
        pthread_detach(thread);
    }
}
