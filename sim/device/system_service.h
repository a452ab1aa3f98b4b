// The phone's system side as the simulator sees it: its properties and
// init's record of the daemon (the launcher keeps /sim/tovakd.state).
#pragma once

#include <string>

#include <nlohmann/json.hpp>

struct DaemonState {
    long pid = 0; // inside the device's PID namespace; 0 while none runs
    long starts = 0;
    std::string last_exit = "none";
};

class SystemService {
public:
    // root prefixes device paths (empty inside the sandbox); sim_dir is
    // where the launcher's state file lies.
    SystemService(std::string root, std::string sim_dir);

    // The state file as it stands; the defaults when there is none.
    DaemonState daemon() const;
    // Sends sig to the daemon; "" or why not.
    std::string kill_daemon(int sig) const;

    // "" or why not; get fills *value (empty when unset).
    std::string get_property(const std::string& key, std::string* value) const;
    std::string set_property(const std::string& key, const std::string& value) const;
    std::string clear_property(const std::string& key) const;

private:
    std::string property_dir_;
    std::string state_file_;
};

// A signal by number or name (9, KILL, SIGKILL); 0 when unknown.
int parse_signal(const std::string& s);
