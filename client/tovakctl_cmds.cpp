#include "tovakctl_cmds.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <sstream>

#include "protocol/tovak_cmd_ids.h"
#include "tovak_client.h"

using json = nlohmann::ordered_json;

// Long enough for log-on, which may wait for boot and program the modem
// twice, and for shell diagnostics, which reply only when they finish.
#define CTL_DEFAULT_TIMEOUT_S 60

namespace {

std::string hex16(uint32_t v)
{
    char buf[16];
    snprintf(buf, sizeof buf, "0x%04" PRIx32, v);
    return buf;
}

bool number_arg(const std::string& text, const char* what, uint64_t max, bool hex_only, uint64_t* out,
                std::string* why)
{
    if (ctl_parse_number(text, max, hex_only, out))
        return true;
    *why = std::string("bad ") + what + " '" + text + "': expected " + (hex_only ? "a hex number" : "a number") +
           " from 0 to " + std::to_string(max);
    return false;
}

bool on_off_arg(const std::string& text, bool* on, std::string* why)
{
    if (text == "on" || text == "off") {
        *on = text == "on";
        return true;
    }
    *why = "expected on or off, not '" + text + "'";
    return false;
}

// Builders. The row's id is not passed: each builder knows its command, and
// the table check ties them together.

#define CTL_PLAIN_BUILDER(fn, cmd) \
    bool fn(const CtlArgs&, tovak_pkt* req, std::string*) { return tovak_req_plain(req, cmd); }

CTL_PLAIN_BUILDER(b_log_on, CMD_LOG_ON)
CTL_PLAIN_BUILDER(b_log_off, CMD_LOG_OFF)
CTL_PLAIN_BUILDER(b_commit, CMD_COMMIT_LOG)
CTL_PLAIN_BUILDER(b_events, CMD_GET_EVENTS)
CTL_PLAIN_BUILDER(b_logs, CMD_GET_LOGS)
CTL_PLAIN_BUILDER(b_msgs, CMD_GET_MSG)
CTL_PLAIN_BUILDER(b_buffer_size, CMD_GET_BUFFER_SIZE)
CTL_PLAIN_BUILDER(b_state, CMD_GET_LOG_STATE)
CTL_PLAIN_BUILDER(b_config_file, CMD_GET_CONFIG_FILE)
CTL_PLAIN_BUILDER(b_range, CMD_GET_RANGE)
CTL_PLAIN_BUILDER(b_capture_on, CMD_ADBLOG_ON)
CTL_PLAIN_BUILDER(b_capture_off, CMD_ADBLOG_OFF)
CTL_PLAIN_BUILDER(b_capture_commit, CMD_ADBLOG_COMMIT)
CTL_PLAIN_BUILDER(b_capture_state, CMD_ADBLOG_GET_STATE)
CTL_PLAIN_BUILDER(b_categories, CMD_ADBLOG_GET_CATEGORIES)
CTL_PLAIN_BUILDER(b_categories_save, CMD_ADBLOG_SET_CATEGORIES)
CTL_PLAIN_BUILDER(b_category_names, CMD_ADBLOG_GET_CATEGORY_NAME)
CTL_PLAIN_BUILDER(b_capture_limits, CMD_ADBLOG_GET_SIZE_LIMITS)
CTL_PLAIN_BUILDER(b_autosave_get, CMD_GET_AUTOSAVE)
CTL_PLAIN_BUILDER(b_dpl_state, CMD_DPL_GET_STATE)
CTL_PLAIN_BUILDER(b_dpl_ifaces, CMD_DPL_GET_ALL_IF_LIST)
CTL_PLAIN_BUILDER(b_dpl_list, CMD_DPL_GET_IF_LIST)
CTL_PLAIN_BUILDER(b_dpl_reset, CMD_DPL_RESET)

bool u16_arg(uint32_t cmd, const std::string& text, const char* what, bool hex_only, tovak_pkt* req, std::string* why)
{
    uint64_t v;
    return number_arg(text, what, 0xffff, hex_only, &v, why) && tovak_req_u16(req, cmd, uint16_t(v));
}

bool u32_arg(uint32_t cmd, const std::string& text, const char* what, tovak_pkt* req, std::string* why)
{
    uint64_t v;
    return number_arg(text, what, UINT32_MAX, false, &v, why) && tovak_req_u32(req, cmd, uint32_t(v));
}

bool b_add_event(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return u16_arg(CMD_ADD_EVENT, a[0], "event id", false, req, why);
}

bool b_rm_event(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return u16_arg(CMD_RM_EVENT, a[0], "event id", false, req, why);
}

bool b_add_log(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return u16_arg(CMD_ADD_LOG, a[0], "log code", true, req, why);
}

bool b_rm_log(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return u16_arg(CMD_RM_LOG, a[0], "log code", true, req, why);
}

bool b_rm_msg(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return u16_arg(CMD_RM_MSG, a[0], "SSID", false, req, why);
}

bool b_dpl_add(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return u16_arg(CMD_DPL_SET_IF, a[0], "interface id", false, req, why);
}

bool b_category_add(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return u32_arg(CMD_ADBLOG_ADD_CATEGORY, a[0], "category", req, why);
}

bool b_category_rm(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return u32_arg(CMD_ADBLOG_RM_CATEGORY, a[0], "category", req, why);
}

bool b_capture_size_get(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return u32_arg(CMD_ADBLOG_GET_SIZE, a[0], "category", req, why);
}

bool b_capture_size_set(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    uint64_t cat, bytes;
    if (!number_arg(a[0], "category", UINT32_MAX, false, &cat, why) ||
        !number_arg(a[1], "size", UINT32_MAX, false, &bytes, why))
        return false;
    // The daemon refuses 0 without a word in its reply.
    if (bytes == 0) {
        *why = "bad size 0: the capture size must be at least 1 byte";
        return false;
    }
    return tovak_req_u32_pair(req, CMD_ADBLOG_SET_SIZE, uint32_t(cat), uint32_t(bytes));
}

bool b_log_size(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    // Signed on the wire; the daemon answers -1 to sizes below 1.
    const std::string& t = a[0];
    bool negative = !t.empty() && t[0] == '-';
    uint64_t v;
    if (!ctl_parse_number(negative ? t.substr(1) : t, negative ? 0x80000000ull : INT32_MAX, false, &v)) {
        *why = "bad size '" + t + "': expected a whole number of bytes";
        return false;
    }
    int64_t size = negative ? -int64_t(v) : int64_t(v);
    return tovak_req_u32(req, CMD_LOG_SIZE, uint32_t(int32_t(size)));
}

bool text_fits(const std::string& text, size_t max, const char* what, std::string* why)
{
    if (text.empty()) {
        *why = std::string("empty ") + what;
        return false;
    }
    if (text.size() > max) {
        *why = std::string(what) + " too long: at most " + std::to_string(max) + " characters";
        return false;
    }
    return true;
}

bool b_out_path(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return text_fits(a[0], TOVAK_OUT_PATH_MAX, "path", why) &&
           tovak_req_text(req, CMD_OUT_PATH, a[0], TOVAK_OUT_PATH_MAX);
}

bool b_set_config_file(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return text_fits(a[0], TOVAK_CONFIG_NAME_MAX, "path", why) &&
           tovak_req_counted_text(req, CMD_SET_CONFIG_FILE, a[0], TOVAK_CONFIG_NAME_MAX);
}

bool b_system(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return text_fits(a[0], TOVAK_SYSTEM_TEXT_MAX, "command text", why) &&
           tovak_req_counted_text(req, CMD_SYSTEM_COMMAND, a[0], TOVAK_SYSTEM_TEXT_MAX);
}

bool b_msisdn(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    return text_fits(a[0], TOVAK_MSISDN_MAX, "number", why) &&
           tovak_req_counted_text(req, CMD_SET_MSISDN, a[0], TOVAK_MSISDN_MAX);
}

bool b_add_msg(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    uint64_t ssid;
    if (!number_arg(a[0], "SSID", 0xffff, false, &ssid, why))
        return false;
    uint64_t mask = 0;
    if (a[1] == "--mask") {
        if (a.size() != 3) {
            *why = "--mask takes one mask and nothing else";
            return false;
        }
        if (!number_arg(a[2], "mask", UINT32_MAX, false, &mask, why))
            return false;
    } else {
        for (size_t i = 1; i < a.size(); i++) {
            uint64_t level;
            if (!number_arg(a[i], "level", 31, false, &level, why))
                return false;
            mask |= uint64_t(1) << level;
        }
    }
    return tovak_req_add_msg(req, uint16_t(ssid), uint32_t(mask));
}

bool b_autosave_set(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    bool on;
    return on_off_arg(a[0], &on, why) && tovak_req_u32(req, CMD_SET_AUTOSAVE, on ? 1 : 0);
}

bool b_dpl(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    bool on;
    return on_off_arg(a[0], &on, why) && tovak_req_u32(req, CMD_DPL_SET_STATE, on ? 1 : 0);
}

bool b_save_modem_data(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    uint32_t kind;
    if (a[0] == "phantom") {
        kind = TOVAK_MODEM_DATA_PHANTOM;
    } else if (a[0] == "statistics") {
        kind = TOVAK_MODEM_DATA_STATISTICS;
    } else {
        *why = "expected phantom or statistics, not '" + a[0] + "'";
        return false;
    }
    return tovak_req_u32(req, CMD_SAVE_MODEM_DATA, kind);
}

bool b_raw(const CtlArgs& a, tovak_pkt* req, std::string* why)
{
    uint64_t id;
    if (!number_arg(a[0], "command id", UINT32_MAX, false, &id, why))
        return false;
    std::vector<uint8_t> payload;
    if (a.size() > 1 && !tovak_parse_hex(a[1], &payload)) {
        *why = "bad payload: expected pairs of hex digits, optionally separated by blanks or colons";
        return false;
    }
    if (!tovak_req_raw(req, uint32_t(id), payload)) {
        *why = "payload too long: at most " + std::to_string(TOVAK_PKT_DATA_SIZE) + " bytes";
        return false;
    }
    return true;
}

// Readers of replies.

TovakShown s_empty(const tovak_pkt&, const tovak_pkt& rsp, CtlReport*)
{
    return tovak_decode_empty(rsp);
}

TovakShown s_no_reply(const tovak_pkt&, const tovak_pkt& rsp, CtlReport*)
{
    return tovak_decode_no_reply(rsp);
}

TovakShown s_zero4(const tovak_pkt&, const tovak_pkt& rsp, CtlReport*)
{
    return tovak_decode_zero4(rsp);
}

TovakShown s_capture_commit(const tovak_pkt&, const tovak_pkt& rsp, CtlReport*)
{
    return tovak_decode_capture_commit(rsp);
}

TovakShown s_status_i32(const tovak_pkt&, const tovak_pkt& rsp, CtlReport*)
{
    return tovak_decode_status_i32(rsp);
}

TovakShown s_log_size(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    int32_t size = 0;
    TovakShown shown = tovak_decode_log_size(rsp, &size);
    if (shown.verdict == TovakVerdict::done) {
        r->text = "buffer size now " + std::to_string(size) + " bytes\n";
        r->fields["size"] = size;
    }
    return shown;
}

TovakShown show_u32(const tovak_pkt& rsp, CtlReport* r, const char* key, const std::string& label,
                    const char* unit)
{
    uint32_t v = 0;
    TovakShown shown = tovak_decode_u32(rsp, &v);
    if (shown.verdict == TovakVerdict::done) {
        r->text = label + std::to_string(v) + unit + "\n";
        r->fields[key] = v;
    }
    return shown;
}

TovakShown s_buffer_size(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    return show_u32(rsp, r, "buffer_size", "buffer size ", " bytes");
}

TovakShown s_autosave(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    TovakShown shown = show_u32(rsp, r, "autosave", "autosave ", "");
    if (shown.verdict == TovakVerdict::done)
        r->text += r->fields["autosave"] == 1 ? "(on)\n" : "(off)\n";
    return shown;
}

TovakShown s_capture_size(const tovak_pkt& req, const tovak_pkt& rsp, CtlReport* r)
{
    uint32_t cat = 0;
    memcpy(&cat, req.data, sizeof cat);
    r->fields["category"] = cat;
    TovakShown shown = show_u32(rsp, r, "size", "category " + std::to_string(cat) + ": ", " bytes");
    if (shown.verdict == TovakVerdict::done && r->fields["size"] == 0)
        r->text += "(0: no such category)\n";
    return shown;
}

TovakShown show_flag(const tovak_pkt& rsp, CtlReport* r, const char* key)
{
    bool on = false;
    TovakShown shown = tovak_decode_flag(rsp, &on);
    if (shown.verdict == TovakVerdict::done) {
        r->text = std::string(key) + (on ? " on\n" : " off\n");
        r->fields[key] = on;
    }
    return shown;
}

TovakShown s_state(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    return show_flag(rsp, r, "logging");
}

TovakShown s_capture_state(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    return show_flag(rsp, r, "capture");
}

TovakShown s_dpl_state(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    return show_flag(rsp, r, "dpl");
}

TovakShown show_pair(const tovak_pkt& rsp, CtlReport* r, const char* first_key, const char* second_key)
{
    uint32_t a = 0, b = 0;
    TovakShown shown = tovak_decode_u32_pair(rsp, &a, &b);
    if (shown.verdict == TovakVerdict::done) {
        r->text = std::string(first_key) + " " + std::to_string(a) + "\n" + second_key + " " + std::to_string(b) + "\n";
        r->fields[first_key] = a;
        r->fields[second_key] = b;
    }
    return shown;
}

TovakShown s_range(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    return show_pair(rsp, r, "first", "second");
}

TovakShown s_capture_limits(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    return show_pair(rsp, r, "min", "max");
}

// Lists show what they hold also when the verdict is unknown.
bool has_answer(const TovakShown& shown)
{
    return shown.verdict == TovakVerdict::done || shown.verdict == TovakVerdict::unknown;
}

TovakShown show_ids(const tovak_pkt& rsp, CtlReport* r, const char* key, bool hex)
{
    std::vector<uint16_t> ids;
    TovakShown shown = tovak_decode_u16_list(rsp, &ids);
    if (has_answer(shown)) {
        for (uint16_t id : ids)
            r->text += (hex ? hex16(id) : std::to_string(id)) + "\n";
        r->fields[key] = ids;
    }
    return shown;
}

TovakShown s_events(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    return show_ids(rsp, r, "events", false);
}

TovakShown s_logs(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    return show_ids(rsp, r, "log_codes", true);
}

TovakShown s_msgs(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    std::vector<TovakMsgEntry> msgs;
    TovakShown shown = tovak_decode_msgs(rsp, &msgs);
    if (!has_answer(shown))
        return shown;
    json list = json::array();
    for (const TovakMsgEntry& m : msgs) {
        json levels = json::array();
        std::string level_text;
        for (uint32_t bit = 0; bit < 32; bit++) {
            if (m.mask & (1u << bit)) {
                levels.push_back(bit);
                level_text += (level_text.empty() ? "" : ",") + std::to_string(bit);
            }
        }
        r->text += "ssid " + std::to_string(m.ssid) + " mask " + hex16(m.mask) + " levels " +
                   (level_text.empty() ? "none" : level_text) + "\n";
        list.push_back({ { "ssid", m.ssid }, { "mask", m.mask }, { "levels", levels } });
    }
    r->fields["messages"] = list;
    return shown;
}

TovakShown s_config_file(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    std::string path;
    TovakShown shown = tovak_decode_config_name(rsp, &path);
    if (shown.verdict == TovakVerdict::done) {
        r->text = path + "\n";
        r->fields["path"] = path;
    }
    return shown;
}

TovakShown s_categories(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    std::vector<bool> enabled;
    TovakShown shown = tovak_decode_categories(rsp, &enabled);
    if (shown.verdict == TovakVerdict::done) {
        for (size_t i = 0; i < enabled.size(); i++)
            r->text += std::to_string(i) + (enabled[i] ? " on\n" : " off\n");
        r->fields["enabled"] = enabled;
    }
    return shown;
}

TovakShown s_category_names(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    std::vector<std::string> names;
    TovakShown shown = tovak_decode_category_names(rsp, &names);
    if (shown.verdict == TovakVerdict::done) {
        for (size_t i = 0; i < names.size(); i++)
            r->text += std::to_string(i) + " " + names[i] + "\n";
        r->fields["names"] = names;
    }
    return shown;
}

TovakShown s_dpl_ifaces(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    std::vector<TovakDplIface> ifaces;
    TovakShown shown = tovak_decode_dpl_ifaces(rsp, &ifaces);
    if (!has_answer(shown))
        return shown;
    json list = json::array();
    for (const TovakDplIface& i : ifaces) {
        r->text += std::to_string(i.id) + " " + i.desc + "\n";
        list.push_back({ { "id", i.id }, { "description", i.desc } });
    }
    r->fields["interfaces"] = list;
    return shown;
}

TovakShown s_dpl_list(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    std::vector<uint16_t> ids;
    TovakShown shown = tovak_decode_dpl_ids(rsp, &ids);
    if (has_answer(shown)) {
        for (uint16_t id : ids)
            r->text += std::to_string(id) + "\n";
        r->fields["interfaces"] = ids;
    }
    return shown;
}

TovakShown s_raw(const tovak_pkt&, const tovak_pkt& rsp, CtlReport* r)
{
    uint32_t n = rsp.len > TOVAK_PKT_DATA_SIZE ? TOVAK_PKT_DATA_SIZE : rsp.len;
    std::string hex = tovak_hex(rsp.data, n);
    r->text = "len " + std::to_string(rsp.len) + "\npayload " + hex + "\n";
    r->fields["payload"] = hex;
    if (rsp.len == TOVAK_PKT_DATA_SIZE)
        return { TovakVerdict::unknown, "len 5120 is how an untouched reply looks, which for most commands means refused" };
    if (rsp.len > TOVAK_PKT_DATA_SIZE)
        return { TovakVerdict::unknown, "len is larger than a frame's payload" };
    return { TovakVerdict::unknown, "raw replies are not interpreted" };
}

} // namespace

// clang-format off
const CtlCommand ctl_commands[] = {
    // name               word   syntax                     min max id                             summary
    { "log-on",           nullptr, "",                       0, 0, CMD_LOG_ON,                   "switch modem diagnostic logging on", b_log_on, s_zero4, nullptr },
    { "log-off",          nullptr, "",                       0, 0, CMD_LOG_OFF,                  "switch modem diagnostic logging off", b_log_off, s_zero4, nullptr },
    { "log-size",         nullptr, "BYTES",                  1, 1, CMD_LOG_SIZE,                 "set the modem log buffer size", b_log_size, s_log_size,
      "the daemon refuses sizes below 1, and any size while logging runs" },
    { "out-path",         nullptr, "PATH",                   1, 1, CMD_OUT_PATH,                 "set the modem log output path (capture goes beside it)", b_out_path, s_status_i32,
      "the daemon refuses a path the platform does not take, or one with 6 or more '/'" },
    { "commit",           nullptr, "",                       0, 0, CMD_COMMIT_LOG,               "commit the modem log to its file", b_commit, s_empty, nullptr },
    { "add-event",        nullptr, "ID",                     1, 1, CMD_ADD_EVENT,                "add an event id", b_add_event, s_empty, nullptr },
    { "rm-event",         nullptr, "ID",                     1, 1, CMD_RM_EVENT,                 "remove an event id", b_rm_event, s_empty, nullptr },
    { "events",           nullptr, "",                       0, 0, CMD_GET_EVENTS,               "list the event ids", b_events, s_events, nullptr },
    { "add-log",          nullptr, "CODE",                   1, 1, CMD_ADD_LOG,                  "add a log code (hex)", b_add_log, s_empty, nullptr },
    { "rm-log",           nullptr, "CODE",                   1, 1, CMD_RM_LOG,                   "remove a log code (hex)", b_rm_log, s_empty, nullptr },
    { "logs",             nullptr, "",                       0, 0, CMD_GET_LOGS,                 "list the log codes", b_logs, s_logs, nullptr },
    { "add-msg",          nullptr, "SSID LEVEL...|--mask M", 2, 33, CMD_ADD_MSG,                 "set a subsystem's message levels (replaces its mask)", b_add_msg, s_empty, nullptr },
    { "rm-msg",           nullptr, "SSID",                   1, 1, CMD_RM_MSG,                   "remove a subsystem's message entry", b_rm_msg, s_empty, nullptr },
    { "msgs",             nullptr, "",                       0, 0, CMD_GET_MSG,                  "list the message entries (low 16 bits of each mask)", b_msgs, s_msgs, nullptr },
    { "buffer-size",      nullptr, "",                       0, 0, CMD_GET_BUFFER_SIZE,          "report the modem log buffer size", b_buffer_size, s_buffer_size, nullptr },
    { "state",            nullptr, "",                       0, 0, CMD_GET_LOG_STATE,            "report whether modem logging runs", b_state, s_state, nullptr },
    { "set-config-file",  nullptr, "PATH",                   1, 1, CMD_SET_CONFIG_FILE,          "choose the configuration file", b_set_config_file, s_no_reply, nullptr },
    { "config-file",      nullptr, "",                       0, 0, CMD_GET_CONFIG_FILE,          "report the configuration file", b_config_file, s_config_file, nullptr },
    { "system",           nullptr, "TEXT",                   1, 1, CMD_SYSTEM_COMMAND,           "run a whitelisted shell diagnostic (\"@@#ps\")", b_system, s_no_reply, nullptr },
    { "range",            nullptr, "",                       0, 0, CMD_GET_RANGE,                "report the modem's range pair", b_range, s_range, nullptr },
    { "capture",          "on",    "on",                     1, 1, CMD_ADBLOG_ON,                "start Android log capture", b_capture_on, s_empty, nullptr },
    { "capture",          "off",   "off",                    1, 1, CMD_ADBLOG_OFF,               "stop Android log capture", b_capture_off, s_empty, nullptr },
    { "capture-commit",   nullptr, "",                       0, 0, CMD_ADBLOG_COMMIT,            "commit the captured Android logs", b_capture_commit, s_capture_commit, nullptr },
    { "capture-state",    nullptr, "",                       0, 0, CMD_ADBLOG_GET_STATE,         "report whether capture runs", b_capture_state, s_capture_state, nullptr },
    { "category-add",     nullptr, "N",                      1, 1, CMD_ADBLOG_ADD_CATEGORY,      "enable capture category N (until restart)", b_category_add, s_no_reply, nullptr },
    { "category-rm",      nullptr, "N",                      1, 1, CMD_ADBLOG_RM_CATEGORY,       "disable capture category N (until restart)", b_category_rm, s_no_reply, nullptr },
    { "categories",       nullptr, "",                       0, 0, CMD_ADBLOG_GET_CATEGORIES,    "report every capture category's on/off", b_categories, s_categories, nullptr },
    { "categories-save",  nullptr, "",                       0, 0, CMD_ADBLOG_SET_CATEGORIES,    "store the live category choice in the configuration", b_categories_save, s_no_reply, nullptr },
    { "category-names",   nullptr, "",                       0, 0, CMD_ADBLOG_GET_CATEGORY_NAME, "report the capture category names", b_category_names, s_category_names, nullptr },
    { "capture-size",     nullptr, "N BYTES",                2, 2, CMD_ADBLOG_SET_SIZE,          "set category N's capture size (capture must be off)", b_capture_size_set, s_no_reply, nullptr },
    { "capture-size",     nullptr, "N",                      1, 1, CMD_ADBLOG_GET_SIZE,          "report category N's capture size", b_capture_size_get, s_capture_size, nullptr },
    { "capture-limits",   nullptr, "",                       0, 0, CMD_ADBLOG_GET_SIZE_LIMITS,   "report the capture size limits", b_capture_limits, s_capture_limits, nullptr },
    { "autosave",         nullptr, "on|off",                 1, 1, CMD_SET_AUTOSAVE,             "set the phantom autosave property", b_autosave_set, s_empty, nullptr },
    { "save-modem-data",  nullptr, "phantom|statistics",     1, 1, CMD_SAVE_MODEM_DATA,          "fetch modem data over QMI and save it", b_save_modem_data, s_empty, nullptr },
    { "msisdn",           nullptr, "NUMBER",                 1, 1, CMD_SET_MSISDN,               "store the subscriber number", b_msisdn, s_empty, nullptr },
    { "autosave",         nullptr, "",                       0, 0, CMD_GET_AUTOSAVE,             "report the phantom autosave property", b_autosave_get, s_autosave, nullptr },
    { "dpl",              nullptr, "on|off",                 1, 1, CMD_DPL_SET_STATE,            "switch DPL logging on or off", b_dpl, s_empty,
      "the daemon refuses the state DPL is already in" },
    { "dpl-state",        nullptr, "",                       0, 0, CMD_DPL_GET_STATE,            "report the DPL state", b_dpl_state, s_dpl_state, nullptr },
    { "dpl-ifaces",       nullptr, "",                       0, 0, CMD_DPL_GET_ALL_IF_LIST,      "list the modem's DPL interfaces with descriptions", b_dpl_ifaces, s_dpl_ifaces, nullptr },
    { "dpl-list",         nullptr, "",                       0, 0, CMD_DPL_GET_IF_LIST,          "list the configured DPL interfaces", b_dpl_list, s_dpl_list, nullptr },
    { "dpl-add",          nullptr, "ID",                     1, 1, CMD_DPL_SET_IF,               "add and start one DPL interface", b_dpl_add, s_empty, nullptr },
    { "dpl-reset",        nullptr, "",                       0, 0, CMD_DPL_RESET,                "clear the DPL interfaces and stop DPL logging", b_dpl_reset, s_no_reply, nullptr },
    { "raw",              nullptr, "ID [HEX]",               1, 2, CTL_ANY_ID,                   "send any frame; prints the reply's length and payload", b_raw, s_raw, nullptr },
};
// clang-format on
const size_t ctl_command_count = sizeof ctl_commands / sizeof ctl_commands[0];

bool ctl_parse_number(const std::string& text, uint64_t max, bool hex_only, uint64_t* out)
{
    std::string digits = text;
    int base = hex_only ? 16 : 10;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        digits = digits.substr(2);
        base = 16;
    }
    if (digits.empty() || digits.size() > 20)
        return false;
    uint64_t v = 0;
    for (char c : digits) {
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            return false;
        if (v > (max - uint64_t(d)) / uint64_t(base))
            return false;
        v = v * uint64_t(base) + uint64_t(d);
    }
    *out = v;
    return true;
}

static std::string row_usage(const CtlCommand& row)
{
    return std::string(row.name) + (row.syntax[0] ? " " : "") + row.syntax;
}

const CtlCommand* ctl_find(const CtlArgs& words, std::string* why)
{
    if (words.empty()) {
        *why = "no command given";
        return nullptr;
    }
    const std::string& name = words[0];
    int argc = int(words.size()) - 1;
    std::string forms;
    for (size_t i = 0; i < ctl_command_count; i++) {
        const CtlCommand& row = ctl_commands[i];
        if (name != row.name)
            continue;
        forms += std::string(forms.empty() ? "" : " | ") + "tovakctl " + row_usage(row);
        if (argc < row.min_args || argc > row.max_args)
            continue;
        if (row.word && words[1] != row.word)
            continue;
        return &row;
    }
    if (forms.empty())
        *why = "unknown command '" + name + "' (tovakctl --help lists them)";
    else
        *why = "usage: " + forms;
    return nullptr;
}

std::string ctl_usage()
{
    std::ostringstream s;
    s << "usage: tovakctl [--socket PATH | --root ROOT] [--json] [--timeout SECONDS] COMMAND [ARGS]\n"
         "\n"
         "Talks to tovakd over " TOVAK_SOCKET_PATH "; --root ROOT uses ROOT" TOVAK_SOCKET_PATH
         " (a simulated device).\n"
         "--json prints one JSON object per call. The default time-out is "
      << CTL_DEFAULT_TIMEOUT_S
      << " seconds.\n"
         "Numbers are decimal or 0x-prefixed hex; log codes are always hex.\n"
         "Replies carry no status word: tovakctl says what the reply shows.\n"
         "Exit status: 0 done, or the reply cannot tell; 1 refused, closed or unreachable; 2 bad usage.\n"
         "\n"
         "  id    command\n";
    for (size_t i = 0; i < ctl_command_count; i++) {
        const CtlCommand& row = ctl_commands[i];
        char id[16];
        if (row.id == CTL_ANY_ID)
            snprintf(id, sizeof id, "%s", "any");
        else
            snprintf(id, sizeof id, "0x%02" PRIx32, row.id);
        std::string use = row_usage(row);
        s << "  " << id << std::string(strlen(id) < 6 ? 6 - strlen(id) : 1, ' ') << use << std::string(use.size() < 38 ? 38 - use.size() : 1, ' ')
          << row.summary << "\n";
    }
    return s.str();
}

namespace {

struct CtlOptions {
    std::string socket = TOVAK_SOCKET_PATH;
    bool json = false;
    int timeout_s = CTL_DEFAULT_TIMEOUT_S;
    CtlArgs words;
};

// 0 to go on, otherwise the exit status (help shown or bad usage).
int parse_options(const std::vector<std::string>& args, CtlOptions* opt, std::ostream& out, std::ostream& err)
{
    bool have_socket = false, have_root = false;
    size_t i = 0;
    for (; i < args.size() && args[i].size() > 1 && args[i][0] == '-'; i++) {
        const std::string& a = args[i];
        auto value = [&](std::string* v) {
            if (i + 1 >= args.size()) {
                err << "tovakctl: " << a << " needs a value\n";
                return false;
            }
            *v = args[++i];
            return true;
        };
        std::string v;
        if (a == "--help" || a == "-h") {
            out << ctl_usage();
            return -1;
        } else if (a == "--json") {
            opt->json = true;
        } else if (a == "--socket") {
            if (!value(&v))
                return CTL_EXIT_USAGE;
            opt->socket = v;
            have_socket = true;
        } else if (a == "--root") {
            if (!value(&v))
                return CTL_EXIT_USAGE;
            // A simulated device shows the phone's paths under its root.
            opt->socket = v + TOVAK_SOCKET_PATH;
            have_root = true;
        } else if (a == "--timeout") {
            uint64_t s;
            if (!value(&v))
                return CTL_EXIT_USAGE;
            if (!ctl_parse_number(v, 24 * 3600, false, &s) || s == 0) {
                err << "tovakctl: bad time-out '" << v << "': expected seconds from 1 to 86400\n";
                return CTL_EXIT_USAGE;
            }
            opt->timeout_s = int(s);
        } else {
            err << "tovakctl: unknown option " << a << " (tovakctl --help lists the options)\n";
            return CTL_EXIT_USAGE;
        }
        if (have_socket && have_root) {
            err << "tovakctl: --socket and --root name the socket twice; give one\n";
            return CTL_EXIT_USAGE;
        }
    }
    opt->words.assign(args.begin() + long(i), args.end());
    if (opt->words.empty()) {
        err << "tovakctl: no command given\n" << ctl_usage();
        return CTL_EXIT_USAGE;
    }
    return 0;
}

std::string display_name(const CtlCommand& row)
{
    return row.word ? std::string(row.name) + " " + row.word : std::string(row.name);
}

json json_head(const CtlCommand& row, uint32_t id)
{
    json j;
    j["command"] = display_name(row);
    j["id"] = id;
    return j;
}

// Prints a failure to talk to the daemon; returns the exit status.
int report_failure(const CtlOptions& opt, const CtlCommand& row, uint32_t id, const std::string& what, bool closed,
                   std::ostream& out, std::ostream& err)
{
    if (opt.json) {
        json j = json_head(row, id);
        if (closed)
            j["closed"] = true;
        // A closed session is the daemon's refusal of an unknown id; otherwise
        // nothing is known of what became of the request.
        j["refused"] = closed ? json(true) : json("unknown");
        j["error"] = what;
        out << j.dump() << "\n";
    } else {
        err << "tovakctl: " << display_name(row) << ": " << what << "\n";
    }
    return CTL_EXIT_FAILED;
}

} // namespace

int tovakctl_main(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    CtlOptions opt;
    int rc = parse_options(args, &opt, out, err);
    if (rc < 0)
        return CTL_EXIT_OK;
    if (rc != 0)
        return rc;

    std::string why;
    const CtlCommand* row = ctl_find(opt.words, &why);
    if (row == nullptr) {
        err << "tovakctl: " << why << "\n";
        return CTL_EXIT_USAGE;
    }
    tovak_pkt req;
    CtlArgs cmd_args(opt.words.begin() + 1, opt.words.end());
    if (!row->build(cmd_args, &req, &why)) {
        err << "tovakctl: " << display_name(*row) << ": " << why << "\n";
        return CTL_EXIT_USAGE;
    }

    TovakClient client(opt.timeout_s * 1000);
    if (!client.connect(opt.socket))
        return report_failure(opt, *row, req.cmd, client.error(), false, out, err);
    tovak_pkt rsp;
    TovakStatus st = client.exchange(req, &rsp);
    if (st == TovakStatus::closed && req.cmd == CMD_DISCONNECT) {
        // What the disconnect command is for.
        if (opt.json) {
            json j = json_head(*row, req.cmd);
            j["closed"] = true;
            j["refused"] = false;
            out << j.dump() << "\n";
        } else {
            out << "the daemon ended the session, as asked\n";
        }
        return CTL_EXIT_OK;
    }
    if (st == TovakStatus::closed)
        return report_failure(opt, *row, req.cmd, "closed: the daemon ended the session without a reply (unknown command id?)",
                              true, out, err);
    if (st != TovakStatus::ok)
        return report_failure(opt, *row, req.cmd, client.error(), false, out, err);
    client.disconnect();

    CtlReport report;
    TovakShown shown = row->show(req, rsp, &report);
    bool failed = shown.verdict == TovakVerdict::refused || shown.verdict == TovakVerdict::unexpected;

    if (opt.json) {
        json j = json_head(*row, req.cmd);
        j["reply_len"] = rsp.len;
        if (shown.verdict == TovakVerdict::done || shown.verdict == TovakVerdict::refused)
            j["refused"] = shown.verdict == TovakVerdict::refused;
        else
            j["refused"] = "unknown";
        if (!shown.note.empty())
            j[shown.verdict == TovakVerdict::unexpected ? "error" : "note"] = shown.note;
        for (auto& [key, value] : report.fields.items())
            j[key] = value;
        // Texts from the device need not be UTF-8.
        out << j.dump(-1, ' ', false, json::error_handler_t::replace) << "\n";
        return failed ? CTL_EXIT_FAILED : CTL_EXIT_OK;
    }

    switch (shown.verdict) {
    case TovakVerdict::done:
        out << (report.text.empty() ? "done\n" : report.text);
        break;
    case TovakVerdict::unknown:
        out << report.text << "sent; " << shown.note << "\n";
        break;
    case TovakVerdict::refused:
        err << "tovakctl: " << display_name(*row) << ": refused: " << shown.note << "\n";
        if (row->refusal_hint)
            err << "tovakctl: (" << row->refusal_hint << ")\n";
        break;
    case TovakVerdict::unexpected:
        err << "tovakctl: " << display_name(*row) << ": " << shown.note << "\n";
        break;
    }
    return failed ? CTL_EXIT_FAILED : CTL_EXIT_OK;
}
