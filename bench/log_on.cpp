// Log on: request sent to reply received, the modem then holding the
// configured masks; with the built-in configuration (no dm.cfg anywhere)
// and with the factory one. Baseline: the very diag requests the daemon
// sent, replayed here through the host diag library one after another.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>

#include "bench.h"
#include "hdlc.h"
#include "host_link.h"
#include "platform/diag.h"

namespace {

std::vector<uint8_t> from_hex(const std::string& hex)
{
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(uint8_t(strtoul(hex.substr(i, 2).c_str(), nullptr, 16)));
    return out;
}

// ms for the requests the simulator recorded, -1 when one goes unanswered.
double replay(const SimDevice& dev, const nlohmann::json& requests)
{
    std::vector<std::vector<uint8_t>> framed;
    for (const auto& r : requests) {
        bool remote = r["modem"] == "remote";
        std::vector<uint8_t> buf = { DIAG_DATA_TYPE_REQUEST, 0, 0, 0 };
        if (remote)
            buf.insert(buf.end(), { 0xFF, 0xFF, 0xFF, 0xFF });
        std::vector<uint8_t> frame = hdlc_frame(from_hex(r["request"].get<std::string>()));
        buf.insert(buf.end(), frame.begin(), frame.end());
        framed.push_back(buf);
    }
    sim_host_set_root(dev.root());
    auto start = Clock::now();
    for (const auto& buf : framed) {
        diag_rsp_type* rsp = diag_send_wait_rsp(buf.data(), int(buf.size()), 1, buf.data());
        if (rsp == nullptr)
            return -1;
        diag_free_rsp(rsp);
    }
    return seconds_between(start, Clock::now()) * 1e3;
}

template <typename T>
std::set<uint32_t> as_set(const T& items)
{
    return std::set<uint32_t>(items.begin(), items.end());
}

// The local modem holds exactly the daemon's events and log codes, and
// every message level it lists.
bool masks_programmed(const nlohmann::json& modem, TovakClient& client)
{
    std::vector<uint16_t> events, logs;
    std::vector<TovakMsgEntry> msgs;
    if (!client.get_events(&events).done() || !client.get_logs(&logs).done() || !client.get_msgs(&msgs).done())
        return false;
    if (as_set(events) != as_set(modem["events"].get<std::vector<uint16_t>>()) ||
        as_set(logs) != as_set(modem["log_codes"].get<std::vector<uint16_t>>()))
        return false;
    std::map<uint32_t, uint32_t> masks;
    for (const auto& m : modem["msg_masks"])
        masks[m[0].get<uint32_t>()] = m[1].get<uint32_t>();
    for (const TovakMsgEntry& m : msgs)
        if ((masks[m.ssid] & m.mask) != m.mask)
            return false;
    return !events.empty();
}

struct LogOnTimes {
    double worst_ms = NAN;
    double replay_ms = NAN; // of the same run
    size_t requests = 0;
};

bool measure(const Options& opt, Report& report, bool factory, LogOnTimes* out)
{
    const char* what = factory ? "log on, factory dm.cfg" : "log on, built-in config";
    SimDevice dev;
    if (!factory) {
        // A system partition without dm.cfg: nothing to provision, so the
        // daemon falls back on its built-in text.
        std::string etc = dev.path("system/etc");
        std::error_code ec;
        std::filesystem::create_directories(etc, ec);
        for (const char* name : { "EventID.txt", "LogItem.txt", "MessageLevel.txt" })
            write_file(etc + "/" + name, read_file(std::string(TOVAK_SOURCE_DIR) + "/etc/" + name));
    }
    std::string why;
    if (!start_device(dev, &why)) {
        report.error(std::string(what) + ": " + why);
        return false;
    }
    if (!factory && file_exists(dev.path("data/media/0/dm.cfg"))) {
        report.error(std::string(what) + ": a dm.cfg was provisioned all the same");
        return false;
    }
    auto client = dev.connect();
    if (!client)
        return false;
    for (int run = 0; run < (opt.quick ? 2 : 5); run++) {
        if (!ctl(dev, { "clear-requests" }, &why)) {
            report.error(std::string(what) + ": " + why);
            return false;
        }
        auto start = Clock::now();
        bool replied = client->log_on().status == TovakStatus::ok;
        double ms = seconds_between(start, Clock::now()) * 1e3;
        nlohmann::json st = devsim_status(dev.root());
        if (!replied || st.is_discarded() || !masks_programmed(st["modems"]["local"], *client)) {
            report.error(std::string(what) + ": the modem does not hold the configured masks after log on");
            return false;
        }
        if (std::isnan(out->worst_ms) || ms > out->worst_ms) {
            out->worst_ms = ms;
            out->requests = st["requests"].size();
            out->replay_ms = replay(dev, st["requests"]);
        }
        client->log_off();
    }
    if (out->replay_ms < 0) {
        report.error(std::string(what) + ": the modem did not answer the replayed requests");
        out->replay_ms = NAN;
    }
    return true;
}

} // namespace

void bench_log_on(const Options& opt, Report& report)
{
    for (bool factory : { false, true }) {
        LogOnTimes t;
        if (!measure(opt, report, factory, &t))
            continue;
        report.add({ factory ? "log on, factory dm.cfg" : "log on, built-in config",
                     "ms (worst)",
                     t.worst_ms,
                     "its " + std::to_string(t.requests) + " diag requests",
                     t.replay_ms,
                     { Goal::value_below, 50 },
                     "" });
    }
}
