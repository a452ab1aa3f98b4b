// The device simulator run on its own under a directory (no sandbox), and
// driven through `tovak-sim ctl` as a person would.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

// Runs `tovak-sim ctl ROOT args...`; its exit status, output in out/err.
int devsim_ctl(const std::string& root, const std::vector<std::string>& args, std::string* out = nullptr,
               std::string* err = nullptr);
// The same request over the simulator's control socket from this process,
// with no program to start: it lands within a fraction of a millisecond.
int devsim_request(const std::string& root, const std::vector<std::string>& args, std::string* out = nullptr);
// `ctl ROOT status` parsed; a discarded value when it fails.
nlohmann::json devsim_status(const std::string& root);

// tovak-devsim --root ROOT, stopped when it goes.
class DevsimProcess {
public:
    DevsimProcess() = default;
    ~DevsimProcess();
    DevsimProcess(const DevsimProcess&) = delete;
    DevsimProcess& operator=(const DevsimProcess&) = delete;

    // Starts it and waits until its diag link is there.
    bool start(const std::string& root, const std::vector<std::string>& args = {});
    // SIGTERM and wait; its exit status, or 128 + the signal that ended it.
    int stop();
    // Never reaps it: a crash stays for stop() to report.
    bool alive() const;
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};
