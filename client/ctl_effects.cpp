// What a command did on the phone, beyond what its reply holds: tovakctl
// asks over the same session before and after it, and looks at the
// device's files where it can see them.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include "tovakctl.h"

// Where the platform writes the modem log until an output path is set.
#define DEFAULT_MODEM_LOG_DIR "/sdcard/diag_logs"

namespace {

bool is(const TovakCommand& row, uint32_t id)
{
    return row.id == id;
}

bool edits_items(const TovakCommand& row)
{
    switch (row.id) {
    case CMD_ADD_EVENT:
    case CMD_RM_EVENT:
    case CMD_ADD_LOG:
    case CMD_RM_LOG:
    case CMD_ADD_MSG:
    case CMD_RM_MSG:
        return true;
    }
    return false;
}

// Regular files directly in dir, with their sizes.
std::map<std::string, long long> list_files(const std::string& dir)
{
    std::map<std::string, long long> files;
    DIR* d = opendir(dir.c_str());
    for (dirent* e; d && (e = readdir(d));) {
        struct stat st;
        std::string path = dir + "/" + e->d_name;
        if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
            files[path] = st.st_size;
    }
    if (d)
        closedir(d);
    return files;
}

std::string read_text(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string strip_slash(std::string dir)
{
    while (dir.size() > 1 && dir.back() == '/')
        dir.pop_back();
    return dir;
}

// The device's path for a file seen here.
std::string device_name(const CtlOptions& opt, const std::string& file)
{
    std::string media = opt.root + "/data/media/0/";
    if (!opt.root.empty() && file.compare(0, media.size(), media) == 0)
        return "/sdcard/" + file.substr(media.size());
    return opt.root.empty() ? file : file.substr(opt.root.size());
}

} // namespace

std::string ctl_config_element(const std::string& file, const std::string& tag)
{
    std::ifstream in(file);
    std::string text, line;
    while (std::getline(in, line))
        text += line.substr(0, line.find('#')) + "\n";
    size_t open = text.find("<" + tag + ">");
    size_t close = open == std::string::npos ? open : text.find("</" + tag + ">", open);
    if (close == std::string::npos)
        return "";
    std::string value = text.substr(open + tag.size() + 2, close - open - tag.size() - 2);
    value.erase(std::remove_if(value.begin(), value.end(),
                               [](char ch) { return ch == '\n' || ch == ' ' || ch == '\t'; }),
                value.end());
    return value;
}

CtlEffects::CtlEffects(const CtlOptions& opt, TovakClient& client, const TovakCommand& row, const TovakArgs& args)
    : opt_(opt), client_(client), row_(row), args_(args)
{
}

std::vector<std::string> CtlEffects::watched_dirs() const
{
    std::vector<std::string> dirs;
    CtlLogFacts facts = ctl_log_facts(opt_);
    bool capture = is(row_, CMD_ADBLOG_COMMIT);
    dirs.push_back(capture ? CTL_CAPTURE_DIR : DEFAULT_MODEM_LOG_DIR);
    std::string out = capture ? facts.capture_dir : facts.out_path;
    if (!out.empty())
        dirs.push_back(strip_slash(out));
    std::vector<std::string> files;
    for (const std::string& d : dirs) {
        std::string f = ctl_device_file(opt_, d);
        if (!f.empty() && std::find(files.begin(), files.end(), f) == files.end())
            files.push_back(f);
    }
    return files;
}

void CtlEffects::before()
{
    if (edits_items(row_) || is(row_, CMD_LOG_ON) || is(row_, CMD_LOG_OFF) || is(row_, CMD_COMMIT_LOG))
        client_.get_log_state(&logging_);
    if (edits_items(row_) || is(row_, CMD_ADBLOG_SET_SIZE) || is(row_, CMD_ADBLOG_SET_CATEGORIES) ||
        is(row_, CMD_SET_CONFIG_FILE) || is(row_, CMD_LOG_SIZE)) {
        if (client_.get_config_file(&config_name_before_).done())
            config_ = ctl_device_file(opt_, config_name_before_);
        config_before_ = config_.empty() ? "" : read_text(config_);
    }
    if (edits_items(row_)) {
        uint16_t id = uint16_t(args_[0].num);
        if (is(row_, CMD_ADD_EVENT) || is(row_, CMD_RM_EVENT)) {
            std::vector<uint16_t> ids;
            known_ = client_.get_events(&ids).done();
            present_ = std::count(ids.begin(), ids.end(), id) > 0;
        } else if (is(row_, CMD_ADD_LOG) || is(row_, CMD_RM_LOG)) {
            std::vector<uint16_t> ids;
            known_ = client_.get_logs(&ids).done();
            present_ = std::count(ids.begin(), ids.end(), id) > 0;
        } else {
            std::vector<TovakMsgEntry> msgs;
            known_ = client_.get_msgs(&msgs).done();
            for (const TovakMsgEntry& m : msgs)
                if (m.ssid == id) {
                    present_ = true;
                    // The listing holds only the low 16 bits.
                    same_mask_ = is(row_, CMD_ADD_MSG) && args_[1].num <= 0xffff && m.mask == uint32_t(args_[1].num);
                }
        }
    } else if (is(row_, CMD_ADBLOG_ON) || is(row_, CMD_ADBLOG_OFF) || is(row_, CMD_ADBLOG_COMMIT)) {
        known_ = client_.get_capture_state(&capture_).done();
    } else if (is(row_, CMD_ADBLOG_ADD_CATEGORY) || is(row_, CMD_ADBLOG_RM_CATEGORY)) {
        std::vector<bool> enabled;
        known_ = client_.get_categories(&enabled).done() && args_[0].num < int64_t(enabled.size());
        present_ = known_ && enabled[size_t(args_[0].num)];
    } else if (is(row_, CMD_GET_AUTOSAVE) || is(row_, CMD_SET_AUTOSAVE)) {
        uint32_t v = 0;
        known_ = client_.get_autosave(&v).done();
        present_ = v != 0;
    } else if (is(row_, CMD_DPL_SET_STATE)) {
        known_ = client_.get_dpl_state(&present_).done();
    } else if (is(row_, CMD_DPL_RESET)) {
        std::vector<uint16_t> ids;
        known_ = client_.get_dpl_state(&present_).done() && client_.get_dpl_ifaces(&ids).done();
        present_ = present_ || !ids.empty();
    } else if (is(row_, CMD_ADBLOG_SET_SIZE)) {
        known_ = client_.get_capture_state(&capture_).done() &&
                 client_.get_capture_size(uint32_t(args_[0].num), &size_before_).done();
    } else if (is(row_, CMD_LOG_SIZE)) {
        known_ = client_.get_buffer_size(&size_before_).done();
    } else if (is(row_, CMD_DPL_SET_IF)) {
        std::vector<uint16_t> ids;
        known_ = client_.get_dpl_ifaces(&ids).done();
        present_ = std::count(ids.begin(), ids.end(), uint16_t(args_[0].num)) > 0;
    }
    if (is(row_, CMD_COMMIT_LOG) || is(row_, CMD_LOG_OFF) || is(row_, CMD_ADBLOG_COMMIT)) {
        dirs_ = watched_dirs();
        for (const std::string& dir : dirs_)
            for (const auto& f : list_files(dir))
                files_before_.insert(f.first);
    }
}

bool CtlEffects::config_visible() const
{
    return !config_.empty() && access(config_.c_str(), R_OK) == 0;
}

bool CtlEffects::config_unchanged() const
{
    return read_text(config_) == config_before_;
}

void CtlEffects::unchanged(const std::string& why, CtlEffect* e)
{
    e->lines.push_back("nothing changed: " + why);
    e->json.emplace_back("changed", "false");
}

void CtlEffects::after(TovakShown* shown, CtlEffect* e)
{
    const bool asked_on = !args_.empty() && args_[0].num != 0;
    if (is(row_, CMD_DPL_SET_STATE) && known_ && present_ == asked_on && shown->verdict == TovakVerdict::refused) {
        *shown = { TovakVerdict::refused, std::string("nothing changed: DPL was already ") + (asked_on ? "on" : "off") +
                                              ", and tovakd refuses a switch to the state DPL is in" };
        e->json.emplace_back("changed", "false");
    }
    bool worked = shown->verdict == TovakVerdict::done || shown->verdict == TovakVerdict::unknown;
    if (!worked)
        return;
    if (edits_items(row_)) {
        bool adds = is(row_, CMD_ADD_EVENT) || is(row_, CMD_ADD_LOG) || is(row_, CMD_ADD_MSG);
        if (known_ && adds && present_ && (!is(row_, CMD_ADD_MSG) || same_mask_))
            unchanged("it was already there", e);
        else if (known_ && !adds && !present_)
            unchanged("it was not there", e);
        else if (known_)
            e->json.emplace_back("changed", "true");
        bool changed = known_ && !(adds ? present_ && (!is(row_, CMD_ADD_MSG) || same_mask_) : !present_);
        if (changed && !config_.empty() && config_unchanged()) {
            std::string warning = "tovakd could not save it: " + device_name(opt_, config_) +
                                  " did not change "
                                  "(read-only, or full?); the change lasts only until tovakd restarts";
            e->warnings.push_back(warning);
            e->json.emplace_back("warning", tovak_json_string(warning));
            e->json.emplace_back("saved", "false");
        } else if (logging_) {
            e->lines.push_back("saved in the configuration file; the modem gets it at the next log on, not now "
                               "(to apply it now: tovakctl log-off, then tovakctl log-on)");
            e->json.emplace_back("pending", "true");
        } else {
            e->lines.push_back("saved in the configuration file; the modem gets it at the next log on");
            e->json.emplace_back("pending", "false");
        }
        limit_warning(e);
    } else if (is(row_, CMD_LOG_ON) && !logging_ && shown->verdict == TovakVerdict::done) {
        e->lines.push_back("logging on: the modem got the items dm.cfg holds; logging comes on again after a restart");
    } else if (is(row_, CMD_LOG_ON) && logging_) {
        unchanged("logging was already on, so tovakd sent nothing to the modem (edits made since the last log on "
                  "reach it after tovakctl log-off, then tovakctl log-on)",
                  e);
    } else if (is(row_, CMD_LOG_OFF) && !logging_) {
        // The state check after log-off cannot tell this apart.
        *shown = { TovakVerdict::refused,
                   "nothing changed: logging was already off, and tovakd refuses a log off then" };
        e->json.emplace_back("changed", "false");
    } else if ((is(row_, CMD_ADBLOG_ON) || is(row_, CMD_ADBLOG_OFF)) && known_ && capture_ == is(row_, CMD_ADBLOG_ON)) {
        unchanged(std::string("capture was already ") + (capture_ ? "on" : "off"), e);
    } else if (is(row_, CMD_ADBLOG_ON) || is(row_, CMD_ADBLOG_OFF)) {
        e->lines.push_back(std::string("capture ") + (is(row_, CMD_ADBLOG_ON) ? "on" : "off") +
                           "; dm.cfg keeps it, so it stays so after a restart");
    } else if (is(row_, CMD_OUT_PATH)) {
        const std::string& path = args_[0].text;
        e->lines.push_back("modem logs go to " + path + " from the next commit, the next capture commit's files to " +
                           path.substr(0, path.rfind('/') + 1) +
                           " (later ones to " CTL_CAPTURE_DIR "/ again); until tovakd restarts");
    } else if (is(row_, CMD_SET_MSISDN)) {
        e->lines.push_back("kept for later saves of modem data, until tovakd restarts");
    } else if (is(row_, CMD_ADBLOG_COMMIT) && known_ && !capture_) {
        *shown = { TovakVerdict::refused, "capture is off, and tovakd commits nothing then (tovakctl capture on)" };
        return;
    } else if ((is(row_, CMD_ADBLOG_ADD_CATEGORY) || is(row_, CMD_ADBLOG_RM_CATEGORY)) && known_) {
        bool add = is(row_, CMD_ADBLOG_ADD_CATEGORY);
        std::vector<bool> enabled;
        // The reply never tells; the categories do.
        if (client_.get_categories(&enabled).done() && size_t(args_[0].num) < enabled.size())
            *shown =
                enabled[size_t(args_[0].num)] == add
                    ? TovakShown{ TovakVerdict::done, "" }
                    : TovakShown{ TovakVerdict::refused, std::string("the category is still ") + (add ? "off" : "on") };
        if (present_ == add)
            unchanged(std::string("the category was already ") + (add ? "on" : "off"), e);
        e->lines.push_back(std::string("category ") + (add ? "on" : "off") +
                           " until tovakd restarts, unless tovakctl categories-save follows");
    } else if (is(row_, CMD_SET_AUTOSAVE) && known_ && present_ == asked_on) {
        unchanged(std::string("autosave was already ") + (present_ ? "on" : "off"), e);
    } else if (is(row_, CMD_LOG_SIZE)) {
        log_size(e);
    } else if (is(row_, CMD_DPL_SET_IF)) {
        e->lines.push_back("the modem logs interface " + std::to_string(args_[0].num) +
                           " from now, whether DPL is on or off; dm.cfg keeps it" +
                           (known_ && present_ ? " (it was in the list already)" : ""));
    } else if (is(row_, CMD_ADBLOG_SET_SIZE) && known_) {
        capture_size(shown, e);
    } else if (is(row_, CMD_DPL_RESET) && known_) {
        bool on = true;
        std::vector<uint16_t> ids;
        // The reply never tells; the state and the list do.
        if (client_.get_dpl_state(&on).done() && client_.get_dpl_ifaces(&ids).done())
            *shown = on || !ids.empty() ? TovakShown{ TovakVerdict::refused, "DPL is still on, or keeps interfaces" }
                                        : TovakShown{ TovakVerdict::done, "" };
        if (!present_)
            unchanged("DPL was already off, with no interfaces", e);
        else if (shown->verdict == TovakVerdict::done)
            e->lines.push_back("DPL off, with no interfaces; dm.cfg keeps that");
    } else if (is(row_, CMD_ADBLOG_SET_CATEGORIES) || is(row_, CMD_SET_CONFIG_FILE)) {
        saved_elsewhere(shown, e);
    }
    if (is(row_, CMD_COMMIT_LOG) || is(row_, CMD_LOG_OFF) || is(row_, CMD_ADBLOG_COMMIT))
        new_files(shown, e);
}

void CtlEffects::limit_warning(CtlEffect* e)
{
    // Only the event count shows in tovakd's log (at a log on); a log
    // code's equipment limits do not.
    CtlLogFacts facts = ctl_log_facts(opt_);
    int64_t id = args_[0].num;
    if (is(row_, CMD_ADD_EVENT) && facts.event_count > 0 && id >= facts.event_count) {
        std::string warning = "the modem reports " + std::to_string(facts.event_count) + " event ids (0 to " +
                              std::to_string(facts.event_count - 1) + "): it will not log event " + std::to_string(id);
        e->warnings.push_back(warning);
        e->json.emplace_back("warning", tovak_json_string(warning));
    }
}

void CtlEffects::log_size(CtlEffect* e)
{
    const bool visible = config_visible();
    std::string kept = visible ? ctl_config_element(config_, "BufferSize") : "";
    if (known_ && taken_size == size_before_ && visible && config_unchanged())
        unchanged("the size was already so", e);
    e->lines.push_back("size asked " + std::to_string(args_[0].num) + " bytes, in use " + std::to_string(taken_size) +
                       " (what the platform took), dm.cfg keeps " + (kept.empty() ? "(not visible here)" : kept) +
                       (kept == std::to_string(args_[0].num) && taken_size != args_[0].num
                            ? " (the platform adjusts it again at every start)"
                            : ""));
    e->json.emplace_back("asked", std::to_string(args_[0].num));
    e->json.emplace_back("in_use", std::to_string(taken_size));
    e->json.emplace_back("config_keeps", kept.empty() ? "null" : kept);
}

void CtlEffects::capture_size(TovakShown* shown, CtlEffect* e)
{
    uint32_t category = uint32_t(args_[0].num), in_use = 0;
    if (capture_) {
        *shown = { TovakVerdict::refused,
                   "capture is on: tovakd takes a size only while it is off (tovakctl capture off)" };
        return;
    }
    if (!client_.get_capture_size(category, &in_use).done())
        return;
    if (in_use == 0) {
        *shown = { TovakVerdict::refused,
                   "tovakd has no category " + std::to_string(category) + ", so nothing changed" };
        return;
    }
    *shown = { TovakVerdict::done, "" };
    // dm.cfg keeps one size per category, in category order.
    const bool visible = config_visible();
    std::istringstream sizes(visible ? ctl_config_element(config_, "AdbSizeInfo") : "");
    std::string item, kept;
    for (uint32_t i = 0; std::getline(sizes, item, ','); i++)
        if (i == category)
            kept = item;
    if (in_use == size_before_ && visible && config_unchanged())
        unchanged("the size was already so", e);
    e->lines.push_back("size asked " + std::to_string(args_[1].num) + " bytes, in use " + std::to_string(in_use) +
                       " (kept within the limits), dm.cfg keeps " + (kept.empty() ? "(not visible here)" : kept));
    e->json.emplace_back("asked", std::to_string(args_[1].num));
    e->json.emplace_back("in_use", std::to_string(in_use));
    e->json.emplace_back("config_keeps", kept.empty() ? "null" : kept);
}

// categories-save and set-config-file never reply; the categories, the
// configuration file and its name after them tell.
void CtlEffects::saved_elsewhere(TovakShown* shown, CtlEffect* e)
{
    std::string name;
    if (!client_.get_config_file(&name).done())
        return;
    if (is(row_, CMD_SET_CONFIG_FILE)) {
        bool taken = name == args_[0].text;
        *shown = taken ? TovakShown{ TovakVerdict::done, "" }
                       : TovakShown{ TovakVerdict::refused, "tovakd still names " + name };
        if (taken && name == config_name_before_)
            unchanged("it was the configuration file already", e);
        else if (taken)
            e->lines.push_back("later saves and log ons use " + name +
                               (name == "/sdcard/dm.cfg" || name == CTL_STARTUP_CONFIG
                                    ? ""
                                    : "; at start-up tovakd still reads " CTL_STARTUP_CONFIG));
        return;
    }
    std::vector<bool> enabled;
    if (!config_visible() || !client_.get_categories(&enabled).done())
        return;
    std::string live, on;
    for (size_t i = 0; i < enabled.size(); i++) {
        live += std::string(i ? "," : "") + (enabled[i] ? "1" : "0");
        if (enabled[i] && i < std::size(tovak_capture_category_names))
            on += std::string(on.empty() ? "" : ", ") + tovak_capture_category_names[i];
    }
    std::string kept = ctl_config_element(config_, "Category");
    if (kept != live) {
        *shown = { TovakVerdict::refused, device_name(opt_, config_) + " keeps " + kept +
                                              ", not the categories on now (" + live + "): read-only, or full?" };
        return;
    }
    *shown = { TovakVerdict::done, "" };
    if (config_unchanged())
        unchanged("dm.cfg already kept these categories", e);
    else
        e->lines.push_back("saved in dm.cfg: " + (on.empty() ? std::string("no category") : on) +
                           " on after a restart too");
}

void CtlEffects::new_files(TovakShown* shown, CtlEffect* e)
{
    bool capture = is(row_, CMD_ADBLOG_COMMIT);
    // As before the command: a capture commit uses up the output path.
    const std::vector<std::string>& dirs = dirs_;
    std::vector<std::string> items;
    if (dirs.empty()) {
        e->lines.push_back("the device's files are not visible from here, so tovakctl cannot list what was written");
        return;
    }
    // Without the storage the first folder lies in, an empty listing would
    // read as "nothing written".
    const std::string storage = dirs[0].substr(0, dirs[0].rfind('/'));
    if (access(storage.c_str(), F_OK) != 0) {
        e->missing = storage;
        return;
    }
    for (const std::string& dir : dirs)
        for (const auto& [file, size] : list_files(dir))
            if (files_before_.count(file) == 0) {
                std::string name = device_name(opt_, file);
                e->lines.push_back("wrote " + name + " (" + std::to_string(size) + " bytes)");
                items.push_back(
                    tovak_json_object({ { "path", tovak_json_string(name) }, { "size", std::to_string(size) } }));
            }
    e->json.emplace_back("files", tovak_json_array(items));
    if (!items.empty()) {
        if (capture)
            *shown = { TovakVerdict::done, "" };
        return;
    }
    if (is(row_, CMD_LOG_OFF))
        e->lines.push_back("no modem log file was written: log off writes none (tovakctl commit does, before it)");
    else if (capture)
        e->lines.push_back("no capture file was written: the capture may hold nothing yet, or the commit failed");
    else
        e->lines.push_back(std::string("no modem log file was written") +
                           (logging_ ? ": the commit failed, or the modem has sent nothing yet"
                                     : ": logging is off, so the modem sent nothing to commit"));
}
