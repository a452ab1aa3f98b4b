// tovakctl: commands to tovakd from the command line. The parts apart from
// main, so that tests can run them.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "tovak_client.h"

#define CTL_EXIT_OK 0
// Refused, an unexpected reply, the session closed, no daemon to reach.
#define CTL_EXIT_FAILED 1
#define CTL_EXIT_USAGE 2
#define CTL_EXIT_TIMEOUT 3

struct CtlOptions {
    std::string socket = TOVAK_SOCKET_PATH;
    // Where the device's files are seen from here: "" on the phone itself,
    // ROOT for a simulated device; unknown for another --socket.
    std::string root;
    bool device_files = true;
    bool json = false;
    int timeout_ms = 60000;
    // A connected descriptor to use instead of the socket (tests).
    int fd = -1;
};

// tovakctl with its arguments (program name excluded); returns the exit
// status. fd as in CtlOptions.
int tovakctl_main(const std::vector<std::string>& args, std::ostream& out, std::ostream& err, int fd = -1);

// A device path as seen from here; "" when the device's files are not visible.
std::string ctl_device_file(const CtlOptions& opt, const std::string& path);

// tovakd's own log lines (tag TOVAK), read as they come: on a simulated
// device from ROOT/sim/logcat.txt, on a phone from the main log device.
class CtlLog {
public:
    CtlLog() = default;
    ~CtlLog();
    CtlLog(const CtlLog&) = delete;
    CtlLog& operator=(const CtlLog&) = delete;
    // from_end: only lines logged from now on.
    bool open(const CtlOptions& opt, bool from_end);
    // The messages logged since the last call.
    std::vector<std::string> read();

private:
    int fd_ = -1;
    bool binary_ = false;
    std::string partial_;
    // The first line read is the end of a line cut by the seek.
    bool cut_ = false;
};

// Help and completion, made from the command table and tovakctl's own
// subcommands (status, raw, completion, help).
std::string ctl_hex_id(uint32_t id);
std::string ctl_first_word(const std::string& name);
// The table's rows whose subcommand begins with word.
std::vector<const TovakCommand*> ctl_rows_named(const std::string& word);
bool ctl_is_extra(const std::string& word);
std::string ctl_usage_of(const std::string& word);
std::string ctl_overall_help();
std::string ctl_subcommand_help(const std::string& word);
std::string ctl_completion_bash();

// Reads modem logs and capture files on this machine; returns the exit status.
int ctl_log_read(const CtlOptions& opt, const std::vector<std::string>& words, std::ostream& out, std::ostream& err);

// The status overview over one session; returns the exit status.
int ctl_status(const CtlOptions& opt, TovakClient& client, std::ostream& out, std::ostream& err);
