// Client library for tovakd: one connection, fixed 5128-byte frames.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "protocol/tovak_pkt.h"
#include "tovak_cmd_codec.h"

enum class TovakStatus {
    ok,
    closed,  // the daemon ended the session without a reply
    timeout, // no whole reply within the time-out
    error,   // connect, read or write failed
};

// One typed call: whether the exchange happened, then what the reply showed.
struct TovakResult {
    TovakStatus status = TovakStatus::error;
    TovakShown shown;
    uint32_t reply_len = 0;
    // The exchange happened and the reply has the command's success shape.
    bool done() const { return status == TovakStatus::ok && shown.verdict == TovakVerdict::done; }
};

class TovakClient {
public:
    explicit TovakClient(int timeout_ms = 10000);
    ~TovakClient();
    TovakClient(const TovakClient&) = delete;
    TovakClient& operator=(const TovakClient&) = delete;

    bool connect(const std::string& socket_path);
    void close();
    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    // Why the last call failed, for people.
    const std::string& error() const { return error_; }

    // Sends one request frame with one write and reads one whole reply.
    TovakStatus transact(uint32_t cmd, const void* payload, uint32_t len, tovak_pkt* reply);
    // Sends a built request frame as it stands and reads the reply.
    TovakStatus exchange(const tovak_pkt& req, tovak_pkt* reply);
    // Sends a frame asking the daemon to end the session.
    TovakStatus disconnect();

    // Lower level, for tests that need to misbehave.
    TovakStatus send_bytes(const void* data, size_t len);
    TovakStatus read_reply(tovak_pkt* reply);
    // True when the daemon closed the connection within the time-out.
    bool wait_closed();

    // 0x13: run a whitelisted shell diagnostic; the text travels with its
    // zero byte. The reply never says whether it ran.
    TovakStatus system_command(const std::string& text, tovak_pkt* reply);

    // Typed helpers, one per command. Outputs are set only when the reply
    // holds them; a refusal shows in the result, not in an exception.
    TovakResult log_on();
    TovakResult log_off();
    // taken: the size the platform reports after the change.
    TovakResult set_log_size(int32_t bytes, int32_t* taken = nullptr);
    TovakResult set_out_path(const std::string& path);
    TovakResult commit_log();
    TovakResult add_event(uint16_t id);
    TovakResult rm_event(uint16_t id);
    TovakResult get_events(std::vector<uint16_t>* ids);
    TovakResult add_log(uint16_t code);
    TovakResult rm_log(uint16_t code);
    TovakResult get_logs(std::vector<uint16_t>* codes);
    // Replaces the SSID's level mask (bit n = level n).
    TovakResult add_msg(uint16_t ssid, uint32_t mask);
    TovakResult rm_msg(uint16_t ssid);
    TovakResult get_msgs(std::vector<TovakMsgEntry>* msgs);
    TovakResult get_buffer_size(uint32_t* bytes);
    TovakResult get_log_state(bool* on);
    TovakResult set_config_file(const std::string& path);
    TovakResult get_config_file(std::string* path);
    TovakResult run_system(const std::string& text);
    TovakResult get_range(uint32_t* first, uint32_t* second);

    TovakResult capture_on();
    TovakResult capture_off();
    TovakResult capture_commit();
    TovakResult get_capture_state(bool* on);
    TovakResult add_category(uint32_t category);
    TovakResult rm_category(uint32_t category);
    TovakResult get_categories(std::vector<bool>* enabled);
    // Stores the live category choice in the configuration.
    TovakResult save_categories();
    TovakResult get_category_names(std::vector<std::string>* names);
    TovakResult set_capture_size(uint32_t category, uint32_t bytes);
    TovakResult get_capture_size(uint32_t category, uint32_t* bytes);
    TovakResult get_capture_limits(uint32_t* min, uint32_t* max);

    TovakResult set_autosave(bool on);
    TovakResult get_autosave(uint32_t* value);
    // kind: TOVAK_MODEM_DATA_PHANTOM or TOVAK_MODEM_DATA_STATISTICS.
    TovakResult save_modem_data(uint32_t kind);
    TovakResult set_msisdn(const std::string& number);

    TovakResult set_dpl_state(uint32_t state);
    TovakResult get_dpl_state(bool* on);
    TovakResult get_dpl_all_ifaces(std::vector<TovakDplIface>* ifaces);
    TovakResult get_dpl_ifaces(std::vector<uint16_t>* ids);
    TovakResult add_dpl_iface(uint16_t id);
    TovakResult reset_dpl();

private:
    bool wait_ready(short events);
    // built: whether the request builder took the arguments.
    TovakResult call(bool built, const tovak_pkt& req, const std::function<TovakShown(const tovak_pkt&)>& decode);

    int fd_ = -1;
    int timeout_ms_;
    std::string error_;
};

// The request payload of 0x13: u16 length (zero byte counted), the text, 0.
uint32_t tovak_build_system_command(const std::string& text, uint8_t* payload, uint32_t room);
