// tovakctl status: the settings a person asks for first, read over one
// session, and what looks wrong among them.
#include <unistd.h>

#include <fstream>
#include <ostream>

#include "tovakctl.h"

namespace {

struct Status {
    std::string text;
    std::vector<std::pair<std::string, std::string>> json;
    std::vector<std::string> warnings;
    // The configuration file as seen from here; "" when not visible.
    std::string config;

    void add(const std::string& label, const std::string& value, const std::string& key, const std::string& json_value)
    {
        text += label + std::string(14 - label.size(), ' ') + value + "\n";
        json.emplace_back(key, json_value);
    }
};

// The value of a one-line element of a dm.cfg; "" when there is none.
std::string config_value(const std::string& file, const std::string& tag)
{
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        line = line.substr(0, line.find('#'));
        size_t open = line.find("<" + tag + ">");
        if (open != std::string::npos)
            return line.substr(open + tag.size() + 2, line.find("</" + tag + ">") - open - tag.size() - 2);
    }
    return "";
}

std::string range_text(const TovakPair& range)
{
    return std::to_string(range.first) + " to " + std::to_string(range.second);
}

void config_file(const CtlOptions& opt, const std::string& path, bool logging, Status* s)
{
    std::string file = ctl_device_file(opt, path);
    bool exists = !file.empty() && access(file.c_str(), R_OK) == 0;
    std::string log_state = exists ? config_value(file, "LogState") : "";
    std::string detail = file.empty() ? "its files are not visible from here"
                         : !exists    ? "missing"
                                      : "LogState " + log_state + ", BufferSize " + config_value(file, "BufferSize");
    s->add("config file", path + " (" + detail + ")", "config_file",
           tovak_json_object({ { "path", tovak_json_string(path) },
                               { "exists", file.empty() ? "null"
                                           : exists     ? "true"
                                                        : "false" },
                               { "log_state", tovak_json_string(log_state) } }));
    if (path.size() < 7 || path.compare(path.size() - 7, 7, "/dm.cfg") != 0)
        s->warnings.push_back("the configuration file is " + path +
                              ", not a dm.cfg: saves go there, but after a "
                              "restart tovakd reads " CTL_STARTUP_CONFIG " again");
    if (!file.empty() && !exists)
        s->warnings.push_back(path +
                              " does not exist: until a change is saved there, tovakd's settings live only in memory");
    if (log_state == "on" && !logging)
        s->warnings.push_back("logging is off while " + path + " says LogState on (tovakctl log-on starts it)");
}

void logging_part(const CtlOptions& opt, TovakClient& client, bool logging, Status* s)
{
    std::string path, ids;
    uint32_t size = 0, autosave = 0;
    TovakPair range;
    std::vector<uint16_t> events, codes, dpl_ids;
    std::vector<TovakMsgEntry> msgs;
    bool dpl = false, known = false;
    s->add("logging", logging ? "on" : "off", "logging", logging ? "true" : "false");
    if (client.get_config_file(&path).done()) {
        config_file(opt, path, logging, s);
        s->config = ctl_device_file(opt, path);
    }
    if (client.get_buffer_size(&size).done() && client.get_range(&range).done()) {
        s->add("buffer size", std::to_string(size) + " bytes (modem range " + range_text(range) + ")", "buffer_size",
               std::to_string(size));
        s->json.emplace_back("range", tovak_json_array({ std::to_string(range.first), std::to_string(range.second) }));
        if (size < range.first || size > range.second)
            s->warnings.push_back("the buffer size " + std::to_string(size) + " is outside the modem's range " +
                                  range_text(range));
    }
    CtlLogFacts facts = ctl_log_facts(opt);
    known = facts.known;
    path = facts.out_path;
    s->add("out path",
           !known         ? "unknown (tovakd tells it only in its log" + (facts.where.empty()
                                                                              ? std::string(", not visible here)")
                                                                              : ", and " + facts.where + " cannot be read)")
           : path.empty() ? "the platform's default (not set since tovakd started)"
                          : path + " (until tovakd restarts: dm.cfg does not keep it)",
           "out_path", path.empty() ? "null" : tovak_json_string(path));
    // An output path serves one capture commit; later ones go to the default.
    if (known && !path.empty())
        s->add("capture to",
               facts.capture_dir.empty()
                   ? CTL_CAPTURE_DIR "/ (the output path served one capture commit already)"
                   : facts.capture_dir + " for the next capture commit, then " CTL_CAPTURE_DIR "/ again",
               "capture_dir", tovak_json_string(facts.capture_dir.empty() ? CTL_CAPTURE_DIR "/" : facts.capture_dir));
    if (logging && facts.pending_edits > 0)
        s->warnings.push_back(std::to_string(facts.pending_edits) +
                              " item edit(s) made while logging is on: dm.cfg and the modem may differ until the "
                              "next log on (tovakctl log-off, then tovakctl log-on)");
    if (client.get_events(&events).done() && client.get_logs(&codes).done() && client.get_msgs(&msgs).done())
        s->add("items",
               std::to_string(events.size()) + " event ids, " + std::to_string(codes.size()) + " log codes, " +
                   std::to_string(msgs.size()) + " message SSIDs",
               "items",
               tovak_json_object({ { "events", std::to_string(events.size()) },
                                   { "log_codes", std::to_string(codes.size()) },
                                   { "messages", std::to_string(msgs.size()) } }));
    if (client.get_dpl_state(&dpl).done() && client.get_dpl_ifaces(&dpl_ids).done()) {
        for (uint16_t id : dpl_ids)
            ids.append(ids.empty() ? "" : ",").append(std::to_string(id));
        s->add("dpl", std::string(dpl ? "on" : "off") + ", interfaces " + (ids.empty() ? "none" : ids), "dpl",
               tovak_json_object({ { "on", dpl ? "true" : "false" }, { "interfaces", "[" + ids + "]" } }));
    }
    if (client.get_autosave(&autosave).done())
        s->add("autosave", autosave ? "on" : "off", "autosave", autosave ? "true" : "false");
}

void capture_part(TovakClient& client, Status* s)
{
    // What a restart brings back: the categories dm.cfg keeps.
    std::string saved = s->config.empty() ? "" : ctl_config_element(s->config, "Category");
    bool on = false;
    std::vector<bool> enabled;
    std::vector<std::string> names, items;
    TovakPair limits;
    if (!client.get_capture_state(&on).done() || !client.get_categories(&enabled).done()) {
        s->warnings.push_back("tovakd refuses every capture command because its Android log capture did not start");
        s->add("capture", "unknown (refused)", "capture", "null");
        return;
    }
    client.get_category_names(&names);
    bool have_limits = client.get_capture_limits(&limits).done();
    s->add("capture", std::string(on ? "on" : "off") + (have_limits ? " (sizes " + range_text(limits) + " bytes)" : ""),
           "capture", on ? "true" : "false");
    for (size_t i = 0; i < enabled.size(); i++) {
        uint32_t bytes = 0;
        client.get_capture_size(uint32_t(i), &bytes);
        std::string name = i < names.size() ? names[i] : std::to_string(i);
        char kept = 2 * i < saved.size() ? saved[2 * i] : '?';
        bool lasts = kept == '?' || (kept == '1') == enabled[i];
        s->text += "  " + name + std::string(name.size() < 12 ? 12 - name.size() : 1, ' ') +
                   (enabled[i] ? "on, " : "off, ") + std::to_string(bytes) + " bytes" +
                   (lasts ? ""
                          : std::string(" (until tovakd restarts: dm.cfg says ") + (kept == '1' ? "on" : "off") +
                                "; tovakctl categories-save keeps it)") +
                   "\n";
        items.push_back(tovak_json_object({ { "name", tovak_json_string(name) },
                                            { "on", enabled[i] ? "true" : "false" },
                                            { "size", std::to_string(bytes) },
                                            { "until_restart", lasts ? "false" : "true" } }));
    }
    s->json.emplace_back("categories", tovak_json_array(items));
}

} // namespace

int ctl_status(const CtlOptions& opt, TovakClient& client, std::ostream& out, std::ostream& err)
{
    Status s;
    bool logging = false;
    if (client.get_log_state(&logging).done()) {
        logging_part(opt, client, logging, &s);
    } else if (client.last_status() == TovakStatus::ok) {
        // Every logging command is refused alike: say why, once.
        std::string size = ctl_device_file(opt, CTL_STARTUP_CONFIG);
        size = size.empty() ? "" : config_value(size, "BufferSize");
        s.warnings.push_back("tovakd refuses every logging command because its start-up of modem logging failed" +
                             (size.compare(0, 1, "-") == 0
                                  ? ": " CTL_STARTUP_CONFIG " holds the negative <BufferSize> " + size
                                  : std::string(" (see its log)")));
        s.add("logging", "unknown (refused)", "logging", "null");
    }
    if (client.last_status() == TovakStatus::ok)
        capture_part(client, &s);
    if (client.last_status() != TovakStatus::ok) {
        if (opt.json)
            out << tovak_json_object(
                       { { "command", "\"status\"" },
                         { "id", "null" },
                         { "refused", "\"unknown\"" },
                         { "error", tovak_json_string(client.error()) },
                         { "failure", tovak_json_string(ctl_failure_kind(client, client.last_status())) } })
                << "\n";
        err << "tovakctl: status: " << client.error() << "\n";
        return client.last_status() == TovakStatus::timeout ? CTL_EXIT_TIMEOUT : CTL_EXIT_FAILED;
    }
    client.disconnect();
    std::vector<std::string> warnings;
    for (const std::string& w : s.warnings) {
        s.text += "warning: " + w + "\n";
        warnings.push_back(tovak_json_string(w));
    }
    s.json.emplace_back("warnings", tovak_json_array(warnings));
    s.json.insert(s.json.begin(), { { "command", "\"status\"" }, { "id", "null" }, { "refused", "false" } });
    out << (opt.json ? tovak_json_object(s.json) + "\n" : s.text);
    return s.warnings.empty() ? CTL_EXIT_OK : CTL_EXIT_FAILED;
}
