// The configuration record and the dm.cfg reader and writer.
#include "config/tovak_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "daemon/tovak_log.h"
#include "daemon/tovak_paths.h"
#include "logging/tovak_data.h"
#include "platform/properties.h"

const char DEFAULT_CONFIG_TEXT[] =
    "<LogState>off</LogState><BufferSize>50000000</BufferSize><DplState>off</DplState><EventIDs>01498, 01499, "
    "01501, 01503, 01606, 01607, 01608, 01611, 01612, 01613, 01685, 01970, 01971, 01972, "
    "</EventIDs><LogCodes>0x412F, 0x713F, 0x7140, 0x7143, 0x7144, 0xB061, 0xB062, 0xB0C0, 0xB0E2, 0xB0E3, "
    "0xB0EC, 0xB0ED, 0xB167, 0xB168, 0xB169, 0xB16A, </LogCodes><MessageLevels>00005/03, 00005/04, 00015/03, "
    "00015/04, 00020/03, 00020/04, 03006/03, 03006/04, 03007/03, 03007/04, 03008/03, 03008/04, 03010/03, "
    "03010/04, </MessageLevels><AdbLogState>off</AdbLogState><AdbSizeInfo>10000000, 10000000, 5000000, "
    "20000000</AdbSizeInfo><Category>1,1,0,1</Category><DplState>off</DplState><IfIDs>1, 15, 19</IfIDs>";

// The process-wide state is never destroyed: detached client threads may
// still use it while the process exits.
static std::recursive_mutex& config_mutex()
{
    static auto* mutex = new std::recursive_mutex;
    return *mutex;
}

static tovak_config& config_record()
{
    static auto* record = new tovak_config;
    return *record;
}

// The current configuration file path; empty until first asked for.
static char config_file_name[TOVAK_CONFIG_FILE_NAME_SIZE];

tovak_config_locked::tovak_config_locked() : config_(&config_record())
{
    config_mutex().lock();
}

tovak_config_locked::~tovak_config_locked()
{
    config_mutex().unlock();
}

char* tovak_config_locked::file_name() const
{
    return config_file_name;
}

// ---- Reading

// The value of one element over the kept lines; empty when it is missing.
static std::string element_value(const std::vector<std::string>& lines, const std::string& name)
{
    const std::string open = "<" + name + ">";
    const std::string close = "</" + name + ">";
    size_t i = 0;
    size_t at = std::string::npos;
    for (; i < lines.size(); i++) {
        at = lines[i].find(open);
        if (at != std::string::npos)
            break;
    }
    if (i == lines.size())
        return {};
    const std::string& first = lines[i];
    const size_t start = at + open.size();
    // The close tag is looked for from the start of the line; one that stands
    // before the open tag leaves the rest of the line as the value.
    size_t end = first.find(close);
    if (end != std::string::npos)
        return end >= start ? first.substr(start, end - start) : first.substr(start);
    std::string value = first.substr(start);
    for (i++; i < lines.size(); i++) {
        end = lines[i].find(close);
        if (end != std::string::npos) {
            value.append(lines[i], 0, end);
            break;
        }
        value += lines[i];
    }
    return value;
}

static uint32_t on_off_value(const std::string& value)
{
    return value == "on" ? 1 : 0;
}

static uint32_t number_value(const std::string& value)
{
    return uint32_t(tovak_config_read_number(value, tovak_config_has_both_prefixes(value), UINT32_MAX));
}

// Replaces every file-backed field; the modem-range fields stay.
static void parse_lines(tovak_config& c, const std::vector<std::string>& lines)
{
    c.events.reset();
    c.log_codes.reset();
    c.messages.reset();
    c.dpl_ifs.reset();
    c.dpl_state = on_off_value(element_value(lines, "DplState"));
    c.log_state = on_off_value(element_value(lines, "LogState"));
    c.buffer_size = number_value(element_value(lines, "BufferSize"));
    c.events = tovak_event_list_create(element_value(lines, "EventIDs"), c.event_id_count);
    c.log_codes = tovak_log_list_create(element_value(lines, "LogCodes"), c.log_last_items);
    c.messages = tovak_msg_list_create(element_value(lines, "MessageLevels"), c.msg_ssid_ranges);
    c.dpl_ifs = tovak_if_list_create(element_value(lines, "IfIDs"));
    c.adblog_state = on_off_value(element_value(lines, "AdbLogState"));
    c.adblog_categories = tovak_config_categories_create(element_value(lines, "Category"));
    c.adblog_sizes = tovak_config_sizes_create(element_value(lines, "AdbSizeInfo"));
}

// Opens a regular file only: a FIFO or a device would block or never end.
static int read_regular_file(const char* path, std::string* text)
{
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return -1;
    }
    char chunk[8192];
    for (;;) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        text->append(chunk, size_t(n));
    }
    close(fd);
    return 0;
}

// Lines end at "\n"; a line whose first "#" is in its first column is
// dropped, any other is cut before its first "#".
static std::vector<std::string> kept_lines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        size_t end = nl == std::string::npos ? text.size() : nl;
        // Only within the line: a search to the end of the text would make
        // a file of many lines quadratic.
        auto* hash = static_cast<const char*>(memchr(text.data() + pos, '#', end - pos));
        if (hash != text.data() + pos) {
            if (hash != nullptr)
                end = size_t(hash - text.data());
            lines.emplace_back(text, pos, end - pos);
        }
        pos = nl == std::string::npos ? text.size() : nl + 1;
    }
    return lines;
}

int tovak_config_load_file(const char* path)
{
    tovak_config_locked c;
    c->path = path != nullptr ? path : "";
    std::string text;
    if (path == nullptr || read_regular_file(path, &text) != 0)
        return -1;
    parse_lines(*c, kept_lines(text));
    return 0;
}

int tovak_config_load_text(const char* text)
{
    tovak_config_locked c;
    parse_lines(*c, { std::string(text != nullptr ? text : "") });
    return 0;
}

// ---- Writing

std::string tovak_config_text()
{
    tovak_config_locked c;
    std::string t =
        "#KVD Configuration File\n"
        "#\n"
        "#history\n"
        "#ver. 1.2 20120716 rtkan add dpl information\n"
        "#ver. 1.1 20120521 rtkan add LogState and BufferSize\n"
        "\n";
    t += c->log_state ? "<LogState>on</LogState>\n" : "<LogState>off</LogState>\n";
    // Signed on purpose: a size above 2^31 - 1 reads back to the same 32 bits.
    t += "<BufferSize>" + std::to_string(int32_t(c->buffer_size)) + "</BufferSize>\n";
    if (c->events)
        t += "\n<EventIDs>\n" + tovak_event_list_text(*c->events) + "\n</EventIDs>\n";
    if (c->log_codes)
        t += "\n<LogCodes>\n" + tovak_log_list_text(*c->log_codes) + "\n</LogCodes>\n";
    if (c->messages)
        t += "\n<MessageLevels>\n" + tovak_msg_list_text(*c->messages) + "\n</MessageLevels>\n";
    t += "\n";
    t += c->adblog_state ? "<AdbLogState>on</AdbLogState>\n" : "<AdbLogState>off</AdbLogState>\n";
    if (!c->adblog_categories.empty())
        t += "\n<Category>\n" + tovak_config_categories_text(c->adblog_categories) + "\n</Category>\n";
    if (!c->adblog_sizes.empty())
        t += "\n<AdbSizeInfo>\n" + tovak_config_sizes_text(c->adblog_sizes) + "\n</AdbSizeInfo>\n";
    t += c->dpl_state ? "<DplState>on</DplState>\n" : "<DplState>off</DplState>\n";
    // Under the events test, as the file has always been written; a parse
    // creates both lists together.
    if (c->events)
        t += "\n<IfIDs>\n" + (c->dpl_ifs ? tovak_if_list_text(*c->dpl_ifs) : std::string()) + "\n</IfIDs>\n";
    return t;
}

static bool write_all(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

// Replaces path with text so that a crash or a full disk leaves either the
// old or the new file whole, never a torn or empty one.
static void replace_file(const char* path, const std::string& text)
{
    std::string target = path;
    struct stat st;
    // A link is written through, as opening it for writing would.
    if (lstat(path, &st) == 0 && S_ISLNK(st.st_mode)) {
        char resolved[PATH_MAX];
        if (realpath(path, resolved) != nullptr)
            target = resolved;
    }
    size_t slash = target.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : target.substr(0, slash);
    std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    if (base.empty())
        return;
    std::string tmp = (slash == std::string::npos ? "" : target.substr(0, slash + 1)) + "." + base + ".tmp";

    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0)
        return;
    bool existed = stat(target.c_str(), &st) == 0;
    if (existed && S_ISREG(st.st_mode)) {
        (void)!fchown(fd, st.st_uid, st.st_gid);
        (void)!fchmod(fd, st.st_mode & 07777);
    }
    bool ok = write_all(fd, text) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(tmp.c_str(), target.c_str()) != 0) {
        unlink(tmp.c_str());
        return;
    }
    int dir_fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir_fd >= 0) {
        fsync(dir_fd);
        close(dir_fd);
    }
}

int tovak_config_save_file(const char* path)
{
    if (path == nullptr || *path == '\0')
        return 0;
    // Held across the write so that saves land in the order of the edits.
    tovak_config_locked c;
    replace_file(path, tovak_config_text());
    return 0;
}

// ---- Paths

int tovak_config_init()
{
    if (tovak_config_load_file(TOVAK_USER_CONFIG_FILE) == 0) {
        TLOG("[!] Configuration File Loading Success\n");
    } else {
        TLOG("Configuration File Loading Fail so load default config.\n");
        tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    }
    tovak_data_load_dm_packet();
    return 0;
}

int tovak_config_reload()
{
    {
        // As the buffer stands: an empty name fails and changes nothing.
        tovak_config_locked c;
        tovak_config_load_file(c.file_name());
    }
    tovak_data_load_dm_packet();
    return 0;
}

const char* tovak_config_get_file()
{
    // Each thread reads its own copy, so a concurrent change of file can't
    // tear the name under a reader.
    thread_local char copy[TOVAK_CONFIG_FILE_NAME_SIZE];
    tovak_config_locked c;
    char* name = c.file_name();
    if (name[0] == '\0')
        property_get(TOVAK_CONFIG_FILE_PROPERTY, name, TOVAK_DEFAULT_CONFIG_FILE);
    memcpy(copy, name, sizeof copy);
    copy[sizeof copy - 1] = '\0';
    return copy;
}

int tovak_config_set_file(const char* name)
{
    // An empty name names no file; taking it would leave saves nowhere to go.
    if (name == nullptr || name[0] == '\0') {
        TLOG("Critical Error: Missing Config File\n");
        return -1;
    }
    // Such a name could be neither stored whole nor kept by the property
    // system: refuse it before it replaces anything.
    if (strnlen(name, TOVAK_CONFIG_FILE_NAME_SIZE) >= TOVAK_CONFIG_FILE_NAME_SIZE) {
        TLOG("Critical Error: fail to save config file into property system\n");
        return -1;
    }
    tovak_config_locked c;
    char* buffer = c.file_name();
    snprintf(buffer, TOVAK_CONFIG_FILE_NAME_SIZE, "%s", name);
    int result = 0;
    if (property_set(TOVAK_CONFIG_FILE_PROPERTY, buffer) != 0) {
        TLOG("Critical Error: fail to save config file into property system\n");
        result = -1;
    }
    if (tovak_config_load_file(buffer) != 0) {
        TLOG("Critical Error: Missing Config File\n");
        return -1;
    }
    return result;
}
