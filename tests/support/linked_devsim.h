// tovak-devsim under a temporary root, with this process's host platform
// libraries pointed at it until stop().
#pragma once

#include "devsim_ctl.h"
#include "host_link.h"
#include "sim_device.h"

class LinkedDevsim {
public:
    bool start(const std::vector<std::string>& args = {})
    {
        return sim_.start(root(), args) && (sim_host_set_root(root()), true);
    }
    // The simulator's exit status: 0 is a clean exit (no sanitizer report).
    int stop()
    {
        sim_host_set_root("");
        sim_host_set_timeout_ms(SIM_HOST_DEFAULT_TIMEOUT_MS);
        return sim_.stop();
    }
    const std::string& root() const { return tmp_.path(); }
    nlohmann::json status() const { return devsim_status(root()); }

private:
    TempDir tmp_;
    DevsimProcess sim_;
};
