// The configuration record and the dm.cfg reader and writer.
#include "config/tovak_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <cutils/properties.h>

#include "common/tovak_file.h"
#include "common/tovak_log.h"
#include "common/tovak_paths.h"

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

// Orders every write and load of a configuration file; taken before the
// configuration lock, never while holding it.
static std::mutex& save_mutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
}

static tovak_config& config_record()
{
    static auto* record = new tovak_config;
    return *record;
}

// The current configuration file path; empty until first asked for.
static char config_file_name[TOVAK_CONFIG_FILE_NAME_SIZE];
static_assert(TOVAK_CONFIG_FILE_NAME_SIZE == PROPERTY_VALUE_MAX, "the path is a property value");

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

// Under the save lock.
static int load_file(const char* path)
{
    // Read before the configuration lock is taken: a slow disk must not stall
    // every reader of the record.
    std::string text;
    const bool opened = path != nullptr && read_regular_file(path, &text) == 0;
    std::vector<std::string> lines = kept_lines(text);
    tovak_config_locked c;
    c->path = path != nullptr ? path : "";
    if (!opened)
        return -1;
    parse_lines(*c, lines);
    return 0;
}

int tovak_config_load_file(const char* path)
{
    std::lock_guard<std::mutex> hold(save_mutex());
    return load_file(path);
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

// Under the save lock.
static void write_file(const std::string& path, const std::string& text)
{
    if (path.empty())
        return;
    tovak_file_replace(path.c_str(), [&](int fd) { return tovak_write_all(fd, text.data(), text.size()); });
}

int tovak_config_save_file(const char* path)
{
    std::lock_guard<std::mutex> hold(save_mutex());
    write_file(path != nullptr ? path : "", tovak_config_text());
    return 0;
}

void tovak_config_edit_and_save(const std::function<void()>& edit)
{
    std::lock_guard<std::mutex> hold(save_mutex());
    std::string path;
    std::string text;
    {
        tovak_config_locked c;
        edit();
        path = tovak_config_get_file();
        text = tovak_config_text();
    }
    write_file(path, text);
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
    return 0;
}

int tovak_config_reload()
{
    // As the buffer stands: an empty name fails and changes nothing.
    char name[TOVAK_CONFIG_FILE_NAME_SIZE];
    {
        tovak_config_locked c;
        memcpy(name, c.file_name(), sizeof name);
    }
    name[sizeof name - 1] = '\0';
    tovak_config_load_file(name);
    return 0;
}

const char* tovak_config_get_file()
{
    // Each thread reads its own copy, so a concurrent change of file can't
    // tear the name under a reader.
    thread_local char copy[TOVAK_CONFIG_FILE_NAME_SIZE];
    {
        tovak_config_locked c;
        memcpy(copy, c.file_name(), sizeof copy);
    }
    if (copy[0] == '\0') {
        char value[PROPERTY_VALUE_MAX] = {};
        property_get(TOVAK_CONFIG_FILE_PROPERTY, value, TOVAK_DEFAULT_CONFIG_FILE);
        tovak_config_locked c;
        // Another thread may have chosen a file meanwhile; it stands.
        if (c.file_name()[0] == '\0')
            memcpy(c.file_name(), value, TOVAK_CONFIG_FILE_NAME_SIZE);
        memcpy(copy, c.file_name(), sizeof copy);
    }
    copy[sizeof copy - 1] = '\0';
    return copy;
}

// Held across a whole change of file, property write included, so that the
// property and the buffer name the same file when two clients choose at once.
static std::mutex& file_choice_mutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
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
    std::lock_guard<std::mutex> hold(file_choice_mutex());
    int result = 0;
    if (property_set(TOVAK_CONFIG_FILE_PROPERTY, name) != 0) {
        TLOG("Critical Error: fail to save config file into property system\n");
        result = -1;
    }
    // The new name and its load under one hold of the save lock: another
    // client's save between them would write the old settings into the new
    // file before it is read.
    std::lock_guard<std::mutex> save(save_mutex());
    {
        tovak_config_locked c;
        snprintf(c.file_name(), TOVAK_CONFIG_FILE_NAME_SIZE, "%s", name);
    }
    if (load_file(name) != 0) {
        TLOG("Critical Error: Missing Config File\n");
        return -1;
    }
    return result;
}
