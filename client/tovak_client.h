// Client library for tovakd: one connection, fixed 5128-byte frames, and a
// typed helper per row of the command table.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tovak_commands.h"

enum class TovakStatus {
    ok,
    closed,  // the daemon ended the session without a reply
    timeout, // a step ran out of time (step() says which)
    error,   // connect, read or write failed, or the arguments do not fit
};

// The part of an exchange that failed.
enum class TovakStep { none, connect, send, receive };

// One typed call: whether the exchange happened, then what the reply showed.
struct TovakResult {
    TovakStatus status = TovakStatus::error;
    TovakShown shown;
    uint32_t reply_len = 0;
    // The exchange happened and the reply has the command's success shape.
    bool done() const { return status == TovakStatus::ok && shown.verdict == TovakVerdict::done; }
};

// The C++ type of each field kind, for the typed helpers' parameters.
#define TOVAK_FIELD_none(M, n)
#define TOVAK_FIELD_u16(M, n) M(uint16_t, n)
#define TOVAK_FIELD_hex16(M, n) M(uint16_t, n)
#define TOVAK_FIELD_u32(M, n) M(uint32_t, n)
#define TOVAK_FIELD_category(M, n) M(uint32_t, n)
#define TOVAK_FIELD_size(M, n) M(int64_t, n)
#define TOVAK_FIELD_on_off(M, n) M(bool, n)
#define TOVAK_FIELD_kind(M, n) M(uint32_t, n)
#define TOVAK_FIELD_levels(M, n) M(uint32_t, n)
#define TOVAK_FIELD_out_path(M, n) M(const std::string&, n)
#define TOVAK_FIELD_text(M, n) M(const std::string&, n)
#define TOVAK_FIELD_device_path(M, n) M(const std::string&, n)
#define TOVAK_DECLARE(type, n) type n,
#define TOVAK_PASS(type, n) TovakArg(n),

class TovakClient {
public:
    // timeout_ms bounds each step: connect, and send with receive.
    explicit TovakClient(int timeout_ms = 10000);
    ~TovakClient();
    TovakClient(const TovakClient&) = delete;
    TovakClient& operator=(const TovakClient&) = delete;

    bool connect(const std::string& socket_path);
    // Takes over a connected descriptor.
    void adopt(int fd);
    void close();
    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    // Why the last call failed, for people: the step and its usual cause.
    const std::string& error() const { return error_; }
    TovakStep step() const { return step_; }
    // How the last failed step ended.
    TovakStatus last_status() const { return status_; }
    int timeout_ms() const { return timeout_ms_; }
    // Called about every 100 ms while a reply is awaited.
    void on_wait(std::function<void()> tick) { tick_ = std::move(tick); }

    // Sends one request frame and reads one whole reply.
    TovakStatus transact(uint32_t cmd, const void* payload, uint32_t len, tovak_pkt* reply);
    TovakStatus exchange(const tovak_pkt& req, tovak_pkt* reply);
    // Sends a frame asking the daemon to end the session.
    TovakStatus disconnect();

    // Lower level, for tests that need to misbehave.
    TovakStatus send_bytes(const void* data, size_t len);
    TovakStatus read_reply(tovak_pkt* reply);
    // True when the daemon closed the connection within the time-out.
    bool wait_closed();

    // One exchange of a row's command; the reply is decoded into report.
    TovakResult run(const TovakCommand& row, const TovakArgs& args, TovakReport* report = nullptr);

    // Typed helpers, one per row: the request fields, then where the reply's
    // value goes. Outputs are set only when the reply holds them; arguments
    // the daemon is known to refuse are refused here (status error).
#define TOVAK_METHOD(id, method, name, syntax, f1, f2, reply, ...)                                                \
    TovakResult method(TOVAK_FIELD_##f1(TOVAK_DECLARE, a1) TOVAK_FIELD_##f2(TOVAK_DECLARE, a2)                    \
                           TovakReply##reply::Out* out = nullptr)                                                 \
    {                                                                                                             \
        return call<TovakReply##reply>(id, { TOVAK_FIELD_##f1(TOVAK_PASS, a1) TOVAK_FIELD_##f2(TOVAK_PASS, a2) }, \
                                       out);                                                                      \
    }
    TOVAK_COMMANDS(TOVAK_METHOD)
#undef TOVAK_METHOD

private:
    template <class R>
    TovakResult call(uint32_t id, const TovakArgs& args, typename R::Out* out)
    {
        typename R::Out ignored{};
        return call_with(id, args, [&](const tovak_pkt& rsp) { return R::decode(rsp, out ? out : &ignored); });
    }
    TovakResult call_with(uint32_t id, const TovakArgs& args,
                          const std::function<TovakShown(const tovak_pkt&)>& decode);
    // Waits until fd_ is ready for events or the deadline passes.
    bool wait_ready(short events, int64_t deadline_ms);
    TovakStatus fail(TovakStep step, TovakStatus status, const std::string& why);

    int fd_ = -1;
    int timeout_ms_;
    std::string error_;
    TovakStep step_ = TovakStep::none;
    TovakStatus status_ = TovakStatus::ok;
    std::function<void()> tick_;
};
