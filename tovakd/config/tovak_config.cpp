// The configuration record and the dm.cfg reader and writer.
#include "config/tovak_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cutils/properties.h>
#include <mutex>

#include "common/tovak_file.h"
#include "common/tovak_log.h"
#include "common/tovak_paths.h"
#include "config/tovak_config_fields.h"

const char DEFAULT_CONFIG_TEXT[] =
    "<LogState>off</LogState><BufferSize>50000000</BufferSize><DplState>off</DplState><EventIDs>01498, 01499, "
    "01501, 01503, 01606, 01607, 01608, 01611, 01612, 01613, 01685, 01970, 01971, 01972, "
    "</EventIDs><LogCodes>0x412F, 0x713F, 0x7140, 0x7143, 0x7144, 0xB061, 0xB062, 0xB0C0, 0xB0E2, 0xB0E3, "
    "0xB0EC, 0xB0ED, 0xB167, 0xB168, 0xB169, 0xB16A, </LogCodes><MessageLevels>00005/03, 00005/04, 00015/03, "
    "00015/04, 00020/03, 00020/04, 03006/03, 03006/04, 03007/03, 03007/04, 03008/03, 03008/04, 03010/03, "
    "03010/04, </MessageLevels><AdbLogState>off</AdbLogState><AdbSizeInfo>10000000, 10000000, 5000000, "
    "20000000</AdbSizeInfo><Category>1,1,0,1</Category><DplState>off</DplState><IfIDs>1, 15, 19</IfIDs>";

tovak_mutex tovak_config_mutex;

// Orders every write and load of a configuration file; taken before the
// configuration lock, never while holding it.
static tovak_mutex save_mutex;

// Never destroyed: detached client threads may still use it while the
// process exits.
static tovak_config& config_record() REQUIRES(tovak_config_mutex)
{
    static auto* record = new tovak_config;
    return *record;
}

// The current configuration file path; empty until first asked for.
static char config_file_name[TOVAK_CONFIG_FILE_NAME_SIZE] GUARDED_BY(tovak_config_mutex);
static_assert(TOVAK_CONFIG_FILE_NAME_SIZE == PROPERTY_VALUE_MAX, "the path is a property value");

tovak_config_locked::tovak_config_locked()
{
    tovak_config_mutex.lock();
    config_ = &config_record();
}

tovak_config_locked::~tovak_config_locked()
{
    tovak_config_mutex.unlock();
}

char* tovak_config_locked::file_name() const
{
    return config_file_name;
}

// ---- Reading

// Opens a regular file only: a FIFO or a device would block or never end.
// One larger than any dm.cfg can be is not read either: any path can be
// named, and reading it whole would take as much memory.
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
    // The size is checked, and the read bounded too: the file may grow
    // meanwhile, and some report a size of 0.
    bool too_large = st.st_size > TOVAK_CONFIG_MAX_SIZE;
    char chunk[8192];
    while (!too_large) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        too_large = text->size() + size_t(n) > TOVAK_CONFIG_MAX_SIZE;
        if (!too_large)
            text->append(chunk, size_t(n));
    }
    close(fd);
    if (too_large) {
        TLOG("Config file %s is larger than %d bytes, not read\n", path, TOVAK_CONFIG_MAX_SIZE);
        text->clear();
        return -1;
    }
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

static int load_file(const char* path) REQUIRES(save_mutex) EXCLUDES(tovak_config_mutex)
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
    tovak_config_fields_read(*c, lines);
    return 0;
}

int tovak_config_load_file(const char* path)
{
    tovak_lock hold(save_mutex);
    return load_file(path);
}

int tovak_config_load_text(const char* text)
{
    tovak_config_locked c;
    tovak_config_fields_read(*c, { std::string(text != nullptr ? text : "") });
    return 0;
}

// ---- Writing

// The current path, filled from the property on first use.
static const char* file_name_locked() REQUIRES(tovak_config_mutex)
{
    if (config_file_name[0] == '\0') {
        char value[PROPERTY_VALUE_MAX] = {};
        property_get(TOVAK_CONFIG_FILE_PROPERTY, value, TOVAK_DEFAULT_CONFIG_FILE);
        memcpy(config_file_name, value, TOVAK_CONFIG_FILE_NAME_SIZE);
    }
    return config_file_name;
}

std::string tovak_config_text()
{
    tovak_config_locked c;
    return tovak_config_fields_text(*c);
}

static void write_file(const std::string& path, const std::string& text) REQUIRES(save_mutex)
{
    if (path.empty())
        return;
    tovak_file_replace(path.c_str(), [&](int fd) { return tovak_write_all(fd, text.data(), text.size()); });
}

int tovak_config_save_file(const char* path)
{
    tovak_lock hold(save_mutex);
    write_file(path != nullptr ? path : "", tovak_config_text());
    return 0;
}

void tovak_config_edit_and_save(const std::function<void(tovak_config&)>& edit)
{
    tovak_lock hold(save_mutex);
    std::string path;
    std::string text;
    {
        tovak_config_locked c;
        edit(*c);
        path = file_name_locked();
        text = tovak_config_fields_text(*c);
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
        memcpy(copy, file_name_locked(), sizeof copy);
    }
    copy[sizeof copy - 1] = '\0';
    return copy;
}

// Held across a whole change of file, property write included, so that the
// property and the buffer name the same file when two clients choose at once.
static tovak_mutex file_choice_mutex;

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
    tovak_lock hold(file_choice_mutex);
    int result = 0;
    if (property_set(TOVAK_CONFIG_FILE_PROPERTY, name) != 0) {
        TLOG("Critical Error: fail to save config file into property system\n");
        result = -1;
    }
    // The new name and its load under one hold of the save lock: another
    // client's save between them would write the old settings into the new
    // file before it is read.
    tovak_lock save(save_mutex);
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
