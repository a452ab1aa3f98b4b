#include "system_service.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include <cutils/properties.h>

#include "host_properties.h"
#include "sim_files.h"

SystemService::SystemService(std::string root, std::string sim_dir)
    : property_dir_(root + SIM_PROPERTY_DIR), state_file_(std::move(sim_dir) + "/tovakd.state")
{
}

DaemonState SystemService::daemon() const
{
    DaemonState d;
    std::string text;
    int fd = open(state_file_.c_str(), O_RDONLY | O_CLOEXEC);
    char buf[512];
    for (ssize_t n; fd >= 0 && (n = read(fd, buf, sizeof buf)) > 0;)
        text.append(buf, size_t(n));
    if (fd >= 0)
        close(fd);
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string key;
        words >> key;
        if (key == "pid")
            words >> d.pid;
        else if (key == "starts")
            words >> d.starts;
        else if (key == "last_exit" && line.size() > 10)
            d.last_exit = line.substr(10);
    }
    return d;
}

std::string SystemService::kill_daemon(int sig) const
{
    DaemonState d = daemon();
    if (d.pid <= 0)
        return "no daemon runs (" + state_file_ + " says pid " + std::to_string(d.pid) + ")";
    if (kill(pid_t(d.pid), sig) != 0)
        return "cannot signal pid " + std::to_string(d.pid) + ": " + strerror(errno);
    return "";
}

std::string SystemService::get_property(const std::string& key, std::string* value) const
{
    char buf[PROPERTY_VALUE_MAX];
    sim_property_get_in(property_dir_.c_str(), key.c_str(), buf, "");
    *value = buf;
    return "";
}

std::string SystemService::set_property(const std::string& key, const std::string& value) const
{
    if (!sim_make_dirs(property_dir_) || sim_property_set_in(property_dir_.c_str(), key.c_str(), value.c_str()) != 0)
        return "cannot set " + key + " (key up to 31 characters, value up to 91)";
    return "";
}

std::string SystemService::clear_property(const std::string& key) const
{
    if (sim_property_clear_in(property_dir_.c_str(), key.c_str()) != 0)
        return "cannot clear " + key;
    return "";
}

int parse_signal(const std::string& s)
{
    static const struct {
        const char* name;
        int sig;
    } names[] = { { "KILL", SIGKILL }, { "TERM", SIGTERM }, { "INT", SIGINT },   { "HUP", SIGHUP },
                  { "ABRT", SIGABRT }, { "SEGV", SIGSEGV }, { "STOP", SIGSTOP }, { "CONT", SIGCONT },
                  { "QUIT", SIGQUIT }, { "USR1", SIGUSR1 }, { "USR2", SIGUSR2 } };
    std::string n = s.compare(0, 3, "SIG") == 0 ? s.substr(3) : s;
    for (const auto& e : names)
        if (n == e.name)
            return e.sig;
    char* end = nullptr;
    long v = strtol(n.c_str(), &end, 10);
    return !n.empty() && *end == '\0' && v > 0 && v < 65 ? int(v) : 0;
}
