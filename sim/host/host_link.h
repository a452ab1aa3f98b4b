// The host platform libraries' link to tovak-devsim. The daemon never calls
// the two setters below: they let tests use the libraries against a
// simulator started with --root, outside a sandbox.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Prefix for every device path the host libraries choose themselves
// (sockets, capture ring files); "" (the default) inside the sandbox.
void sim_host_set_root(const std::string& root);
#define SIM_HOST_DEFAULT_TIMEOUT_MS 3000
// How long a library call waits for its answer.
void sim_host_set_timeout_ms(int ms);

std::string sim_host_path(const char* device_path);

// One connection of a link, held for a call. Connections that saw a
// time-out or an error are closed, never reused, so a late answer cannot
// pass for the answer to a later request.
class SimLink {
public:
    explicit SimLink(const char* device_path);
    ~SimLink();
    SimLink(const SimLink&) = delete;
    SimLink& operator=(const SimLink&) = delete;

    bool ok() const { return fd_ >= 0; }
    bool post(const void* msg, size_t len);
    // Waits for the next message, up to the time-out.
    bool await_answer(std::vector<uint8_t>* msg);
    bool ask(const void* msg, size_t len, std::vector<uint8_t>* answer)
    {
        return post(msg, len) && await_answer(answer);
    }
    // Drops the connection instead of returning it for reuse.
    void discard();

private:
    std::string path_;
    int fd_ = -1;
    bool reused_ = false; // taken from the idle pool: the simulator may have gone since
};

// A library call that is no diag packet: u32 code and its arguments; the
// answer's i32 result, and its data in *data. False on link failure.
bool sim_link_op(const char* device_path, uint32_t code, const std::vector<uint8_t>& args, int32_t* result,
                 std::vector<uint8_t>* data = nullptr);
