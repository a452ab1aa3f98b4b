// The whole simulated device behind tovak-devsim, as parts: the modem side
// (two modems and the diag library's state), the logger, the QMI data
// service, the system side (properties, init's record of the daemon), and
// the faults it can be told to have. No sockets here: the process feeds it
// messages and time; control.cpp turns control verbs into calls on the parts.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "faults.h"
#include "log_service.h"
#include "modem_service.h"
#include "qmi_service.h"
#include "system_service.h"

class Device {
public:
    // root prefixes device paths (empty inside the sandbox); sim_dir is the
    // simulator's own directory (logcat text, QMI saves, the daemon's state).
    Device(const std::string& root, const std::string& sim_dir);

    LinkAnswer handle_link(const uint8_t* msg, size_t len, LinkConnState& conn, uint64_t unix_ns);
    // One control command; the reply text. Errors begin with "error: ".
    std::string control(const std::vector<std::string>& args);
    nlohmann::json status();

    // Advances the device's clock: traffic, floods, the phone's own logging.
    void tick(double elapsed_s, uint64_t unix_ns);
    // True while tick has work to do.
    bool busy() const { return modem.busy() || logger.busy(); }

    Faults faults;
    DiskFiller disk;
    ModemService modem;
    LogService logger;
    QmiService qmi;
    SystemService system;
    // Called when the logger is to go away (true) or come back: the process
    // owns its socket.
    std::function<void(bool absent)> on_logger_absent;
};
