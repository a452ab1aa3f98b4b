// tovakctl: commands to tovakd from the command line. The parts apart from
// main, so that tests can run them.
#pragma once

#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tovak_client.h"

// Raised with any change a user of the command line would notice.
#define TOVAKCTL_VERSION "1.1"
// Where capture commits go until an output path is set, and after one.
#define CTL_CAPTURE_DIR "/sdcard/syslog"
// The configuration tovakd reads at start-up, whatever it was told since.
#define CTL_STARTUP_CONFIG "/data/media/0/dm.cfg"

#define CTL_EXIT_OK 0
// Refused, an unexpected reply, the session closed, no daemon to reach.
#define CTL_EXIT_FAILED 1
#define CTL_EXIT_USAGE 2
#define CTL_EXIT_TIMEOUT 3
// Interrupted while waiting (128 + SIGINT), as shells report it.
#define CTL_EXIT_INTERRUPTED 130

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

// A failed exchange for --json: timeout_, closed_ or error_, then the
// step (connect, send, receive).
std::string ctl_failure_kind(const TovakClient& client, TovakStatus status);

// Ctrl-C: while a command waits (row set), says what tovakd goes on doing;
// exits 130 either way.
void ctl_catch_interrupt();
void ctl_interrupt_note(const TovakCommand* row);
void ctl_interrupt_say(const std::string& note);

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
    std::string path;
    // The messages logged since the last call.
    std::vector<std::string> read();

private:
    int fd_ = -1;
    bool binary_ = false;
    std::string partial_;
    // The first line read is the end of a line cut by the seek.
    bool cut_ = false;
};

// What tovakd's log tells since it last started.
struct CtlLogFacts {
    bool known = false; // the log is visible from here
    std::string where;  // the log's path here; "" when no device files are
    // The latest output path tovakd accepted; "" for the platform's default.
    std::string out_path;
    // Where the next capture commit goes; "" for the default. A path serves
    // one capture commit only.
    std::string capture_dir;
    // Item edits since the modem's masks were last sent or cleared.
    int pending_edits = 0;
    // The modem's event id count, from the latest log on; -1 unknown.
    int64_t event_count = -1;
};
CtlLogFacts ctl_log_facts(const CtlOptions& opt);

// The text of a dm.cfg element, blanks and line ends removed; "" when none.
std::string ctl_config_element(const std::string& file, const std::string& tag);

// What a command did, besides its reply.
struct CtlEffect {
    std::vector<std::string> lines;
    std::vector<std::string> warnings;
    // A folder of the device tovakctl had to read and could not find: what
    // the command did cannot be told.
    std::string missing;
    std::vector<std::pair<std::string, std::string>> json;
};

// Asks before a command and after it, over the command's own session.
class CtlEffects {
public:
    CtlEffects(const CtlOptions& opt, TovakClient& client, const TovakCommand& row, const TovakArgs& args);
    void before();
    // May turn the verdict: some refusals show only beside the state.
    void after(TovakShown* shown, CtlEffect* e);
    // What log-size's reply says the platform took.
    int64_t taken_size = 0;

private:
    std::vector<std::string> watched_dirs() const;
    void unchanged(const std::string& why, CtlEffect* e);
    // dm.cfg readable here, and as it was before the command.
    bool config_visible() const;
    bool config_unchanged() const;
    void limit_warning(CtlEffect* e);
    void log_size(CtlEffect* e);
    void capture_size(TovakShown* shown, CtlEffect* e);
    void saved_elsewhere(TovakShown* shown, CtlEffect* e);
    void new_files(TovakShown* shown, CtlEffect* e);

    const CtlOptions& opt_;
    TovakClient& client_;
    const TovakCommand& row_;
    const TovakArgs& args_;
    bool logging_ = false, capture_ = false, known_ = false, present_ = false, same_mask_ = false;
    // A capture size before the command.
    uint32_t size_before_ = 0;
    // The configuration file's name before set-config-file.
    std::string config_name_before_;
    std::set<std::string> files_before_;
    // Where a commit's files may appear.
    std::vector<std::string> dirs_;
    // The configuration file as seen from here, and its text before an edit.
    std::string config_, config_before_;
};

// Help and completion, made from the command table and tovakctl's own
// subcommands (status, raw, completion, help).
std::string ctl_hex_id(uint32_t id);
std::string ctl_first_word(const std::string& name);
// The table's rows whose subcommand begins with word.
std::vector<const TovakCommand*> ctl_rows_named(const std::string& word);
bool ctl_is_extra(const std::string& word);
std::string ctl_usage_of(const std::string& word);
// Every subcommand's first word, the table's and tovakctl's own.
std::vector<std::string> ctl_subcommand_names();
// The names nearest to word (a typo or two away, or beginning with it).
std::vector<std::string> ctl_nearest(const std::string& word, const std::vector<std::string>& names);
std::string ctl_overall_help();
std::string ctl_subcommand_help(const std::string& word);
std::string ctl_completion_bash();
// The group of --help a subcommand is listed in; null when it has none.
const char* ctl_group_of(const std::string& word);
// tovakctl(1) in man(7) markup.
std::string ctl_man_page();
// What completion offers after a subcommand: fixed words, or the ids dm.cfg
// holds for the remove commands (a file read; tovakd is not asked).
std::vector<std::string> ctl_completion_values(const CtlOptions& opt, const std::string& word);

// Reads modem logs and capture files on this machine; returns the exit status.
int ctl_log_read(const CtlOptions& opt, const std::vector<std::string>& words, std::ostream& out, std::ostream& err);

// The status overview over one session; returns the exit status.
int ctl_status(const CtlOptions& opt, TovakClient& client, std::ostream& out, std::ostream& err);
