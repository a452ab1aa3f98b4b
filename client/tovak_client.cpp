#include "tovak_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "protocol/tovak_cmd_ids.h"

TovakClient::TovakClient(int timeout_ms) : timeout_ms_(timeout_ms) {}

TovakClient::~TovakClient()
{
    close();
}

bool TovakClient::connect(const std::string& socket_path)
{
    close();
    sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof addr.sun_path) {
        error_ = "socket path too long: " + socket_path;
        return false;
    }
    memcpy(addr.sun_path, socket_path.data(), socket_path.size());
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        error_ = std::string("socket: ") + strerror(errno);
        return false;
    }
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        error_ = "cannot connect to " + socket_path + ": " + strerror(errno);
        close();
        return false;
    }
    return true;
}

void TovakClient::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

bool TovakClient::wait_ready(short events)
{
    pollfd p = { fd_, events, 0 };
    for (;;) {
        int rc = poll(&p, 1, timeout_ms_);
        if (rc > 0)
            return true;
        if (rc == 0 || errno != EINTR)
            return false;
    }
}

TovakStatus TovakClient::send_bytes(const void* data, size_t len)
{
    if (fd_ < 0) {
        error_ = "not connected";
        return TovakStatus::error;
    }
    // One write: the daemon takes whatever one read delivers as the frame.
    ssize_t n = send(fd_, data, len, MSG_NOSIGNAL);
    if (n != ssize_t(len)) {
        error_ = n < 0 ? std::string("write: ") + strerror(errno) : "short write";
        return errno == EPIPE || errno == ECONNRESET ? TovakStatus::closed : TovakStatus::error;
    }
    return TovakStatus::ok;
}

TovakStatus TovakClient::read_reply(tovak_pkt* reply)
{
    auto* out = reinterpret_cast<uint8_t*>(reply);
    size_t got = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms_);
    while (got < TOVAK_PKT_SIZE) {
        if (std::chrono::steady_clock::now() >= deadline || !wait_ready(POLLIN)) {
            error_ = "no reply within " + std::to_string(timeout_ms_) + " ms";
            return TovakStatus::timeout;
        }
        ssize_t n = recv(fd_, out + got, TOVAK_PKT_SIZE - got, 0);
        if (n == 0 || (n < 0 && errno == ECONNRESET)) {
            error_ = got == 0 ? "the daemon closed the session" : "the daemon closed the session mid-reply";
            return TovakStatus::closed;
        }
        if (n < 0) {
            if (errno == EINTR)
                continue;
            error_ = std::string("read: ") + strerror(errno);
            return TovakStatus::error;
        }
        got += size_t(n);
    }
    return TovakStatus::ok;
}

TovakStatus TovakClient::transact(uint32_t cmd, const void* payload, uint32_t len, tovak_pkt* reply)
{
    if (len > TOVAK_PKT_DATA_SIZE) {
        error_ = "payload larger than a frame";
        return TovakStatus::error;
    }
    tovak_pkt req;
    memset(&req, 0, sizeof req);
    req.cmd = cmd;
    req.len = len;
    if (len != 0)
        memcpy(req.data, payload, len);
    return exchange(req, reply);
}

TovakStatus TovakClient::exchange(const tovak_pkt& req, tovak_pkt* reply)
{
    TovakStatus st = send_bytes(&req, sizeof req);
    if (st != TovakStatus::ok)
        return st;
    return read_reply(reply);
}

TovakStatus TovakClient::disconnect()
{
    tovak_pkt req;
    memset(&req, 0, sizeof req);
    req.cmd = CMD_DISCONNECT;
    return send_bytes(&req, sizeof req);
}

bool TovakClient::wait_closed()
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms_);
    char buf[TOVAK_PKT_SIZE];
    while (std::chrono::steady_clock::now() < deadline) {
        if (!wait_ready(POLLIN))
            return false;
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        if (n == 0 || (n < 0 && errno == ECONNRESET))
            return true;
        if (n < 0 && errno != EINTR)
            return false;
    }
    return false;
}

uint32_t tovak_build_system_command(const std::string& text, uint8_t* payload, uint32_t room)
{
    // Any length the frame takes: callers may want the daemon's own refusal.
    tovak_pkt req;
    if (!tovak_req_counted_text(&req, CMD_SYSTEM_COMMAND, text, TOVAK_PKT_DATA_SIZE) || req.len > room)
        return 0;
    memcpy(payload, req.data, req.len);
    return req.len;
}

TovakStatus TovakClient::system_command(const std::string& text, tovak_pkt* reply)
{
    uint8_t payload[TOVAK_PKT_DATA_SIZE];
    uint32_t len = tovak_build_system_command(text, payload, sizeof payload);
    if (len == 0) {
        error_ = "command text too long for a frame";
        return TovakStatus::error;
    }
    return transact(CMD_SYSTEM_COMMAND, payload, len, reply);
}

TovakResult TovakClient::call(bool built, const tovak_pkt& req, const std::function<TovakShown(const tovak_pkt&)>& decode)
{
    TovakResult res;
    if (!built) {
        error_ = "the arguments do not fit the command's request fields";
        return res;
    }
    tovak_pkt rsp;
    res.status = exchange(req, &rsp);
    if (res.status != TovakStatus::ok)
        return res;
    res.reply_len = rsp.len;
    res.shown = decode(rsp);
    return res;
}

// A request of the command with no fields, answered in one of the shapes
// that need no output.
#define TOVAK_PLAIN_CALL(method, cmd, decoder)           \
    TovakResult TovakClient::method()                    \
    {                                                    \
        tovak_pkt req;                                   \
        return call(tovak_req_plain(&req, cmd), req, decoder); \
    }

TOVAK_PLAIN_CALL(log_on, CMD_LOG_ON, tovak_decode_zero4)
TOVAK_PLAIN_CALL(log_off, CMD_LOG_OFF, tovak_decode_zero4)
TOVAK_PLAIN_CALL(commit_log, CMD_COMMIT_LOG, tovak_decode_empty)
TOVAK_PLAIN_CALL(capture_on, CMD_ADBLOG_ON, tovak_decode_empty)
TOVAK_PLAIN_CALL(capture_off, CMD_ADBLOG_OFF, tovak_decode_empty)
TOVAK_PLAIN_CALL(capture_commit, CMD_ADBLOG_COMMIT, tovak_decode_capture_commit)
TOVAK_PLAIN_CALL(save_categories, CMD_ADBLOG_SET_CATEGORIES, tovak_decode_no_reply)
TOVAK_PLAIN_CALL(reset_dpl, CMD_DPL_RESET, tovak_decode_no_reply)

TovakResult TovakClient::set_log_size(int32_t bytes, int32_t* taken)
{
    tovak_pkt req;
    int32_t size = 0;
    TovakResult res = call(tovak_req_u32(&req, CMD_LOG_SIZE, uint32_t(bytes)), req,
                           [&](const tovak_pkt& rsp) { return tovak_decode_log_size(rsp, &size); });
    if (taken && res.done())
        *taken = size;
    return res;
}

TovakResult TovakClient::set_out_path(const std::string& path)
{
    tovak_pkt req;
    return call(tovak_req_text(&req, CMD_OUT_PATH, path, TOVAK_OUT_PATH_MAX), req, tovak_decode_status_i32);
}

TovakResult TovakClient::add_event(uint16_t id)
{
    tovak_pkt req;
    return call(tovak_req_u16(&req, CMD_ADD_EVENT, id), req, tovak_decode_empty);
}

TovakResult TovakClient::rm_event(uint16_t id)
{
    tovak_pkt req;
    return call(tovak_req_u16(&req, CMD_RM_EVENT, id), req, tovak_decode_empty);
}

TovakResult TovakClient::get_events(std::vector<uint16_t>* ids)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_GET_EVENTS), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_u16_list(rsp, ids); });
}

TovakResult TovakClient::add_log(uint16_t code)
{
    tovak_pkt req;
    return call(tovak_req_u16(&req, CMD_ADD_LOG, code), req, tovak_decode_empty);
}

TovakResult TovakClient::rm_log(uint16_t code)
{
    tovak_pkt req;
    return call(tovak_req_u16(&req, CMD_RM_LOG, code), req, tovak_decode_empty);
}

TovakResult TovakClient::get_logs(std::vector<uint16_t>* codes)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_GET_LOGS), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_u16_list(rsp, codes); });
}

TovakResult TovakClient::add_msg(uint16_t ssid, uint32_t mask)
{
    tovak_pkt req;
    return call(tovak_req_add_msg(&req, ssid, mask), req, tovak_decode_empty);
}

TovakResult TovakClient::rm_msg(uint16_t ssid)
{
    tovak_pkt req;
    return call(tovak_req_u16(&req, CMD_RM_MSG, ssid), req, tovak_decode_empty);
}

TovakResult TovakClient::get_msgs(std::vector<TovakMsgEntry>* msgs)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_GET_MSG), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_msgs(rsp, msgs); });
}

TovakResult TovakClient::get_buffer_size(uint32_t* bytes)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_GET_BUFFER_SIZE), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_u32(rsp, bytes); });
}

TovakResult TovakClient::get_log_state(bool* on)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_GET_LOG_STATE), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_flag(rsp, on); });
}

TovakResult TovakClient::set_config_file(const std::string& path)
{
    tovak_pkt req;
    return call(tovak_req_counted_text(&req, CMD_SET_CONFIG_FILE, path, TOVAK_CONFIG_NAME_MAX), req,
                tovak_decode_no_reply);
}

TovakResult TovakClient::get_config_file(std::string* path)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_GET_CONFIG_FILE), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_config_name(rsp, path); });
}

TovakResult TovakClient::run_system(const std::string& text)
{
    tovak_pkt req;
    return call(tovak_req_counted_text(&req, CMD_SYSTEM_COMMAND, text, TOVAK_SYSTEM_TEXT_MAX), req,
                tovak_decode_no_reply);
}

TovakResult TovakClient::get_range(uint32_t* first, uint32_t* second)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_GET_RANGE), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_u32_pair(rsp, first, second); });
}

TovakResult TovakClient::get_capture_state(bool* on)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_ADBLOG_GET_STATE), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_flag(rsp, on); });
}

TovakResult TovakClient::add_category(uint32_t category)
{
    tovak_pkt req;
    return call(tovak_req_u32(&req, CMD_ADBLOG_ADD_CATEGORY, category), req, tovak_decode_no_reply);
}

TovakResult TovakClient::rm_category(uint32_t category)
{
    tovak_pkt req;
    return call(tovak_req_u32(&req, CMD_ADBLOG_RM_CATEGORY, category), req, tovak_decode_no_reply);
}

TovakResult TovakClient::get_categories(std::vector<bool>* enabled)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_ADBLOG_GET_CATEGORIES), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_categories(rsp, enabled); });
}

TovakResult TovakClient::get_category_names(std::vector<std::string>* names)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_ADBLOG_GET_CATEGORY_NAME), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_category_names(rsp, names); });
}

TovakResult TovakClient::set_capture_size(uint32_t category, uint32_t bytes)
{
    tovak_pkt req;
    return call(tovak_req_u32_pair(&req, CMD_ADBLOG_SET_SIZE, category, bytes), req, tovak_decode_no_reply);
}

TovakResult TovakClient::get_capture_size(uint32_t category, uint32_t* bytes)
{
    tovak_pkt req;
    return call(tovak_req_u32(&req, CMD_ADBLOG_GET_SIZE, category), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_u32(rsp, bytes); });
}

TovakResult TovakClient::get_capture_limits(uint32_t* min, uint32_t* max)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_ADBLOG_GET_SIZE_LIMITS), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_u32_pair(rsp, min, max); });
}

TovakResult TovakClient::set_autosave(bool on)
{
    tovak_pkt req;
    return call(tovak_req_u32(&req, CMD_SET_AUTOSAVE, on ? 1 : 0), req, tovak_decode_empty);
}

TovakResult TovakClient::get_autosave(uint32_t* value)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_GET_AUTOSAVE), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_u32(rsp, value); });
}

TovakResult TovakClient::save_modem_data(uint32_t kind)
{
    tovak_pkt req;
    return call(tovak_req_u32(&req, CMD_SAVE_MODEM_DATA, kind), req, tovak_decode_empty);
}

TovakResult TovakClient::set_msisdn(const std::string& number)
{
    tovak_pkt req;
    return call(tovak_req_counted_text(&req, CMD_SET_MSISDN, number, TOVAK_MSISDN_MAX), req, tovak_decode_empty);
}

TovakResult TovakClient::set_dpl_state(uint32_t state)
{
    tovak_pkt req;
    return call(tovak_req_u32(&req, CMD_DPL_SET_STATE, state), req, tovak_decode_empty);
}

TovakResult TovakClient::get_dpl_state(bool* on)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_DPL_GET_STATE), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_flag(rsp, on); });
}

TovakResult TovakClient::get_dpl_all_ifaces(std::vector<TovakDplIface>* ifaces)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_DPL_GET_ALL_IF_LIST), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_dpl_ifaces(rsp, ifaces); });
}

TovakResult TovakClient::get_dpl_ifaces(std::vector<uint16_t>* ids)
{
    tovak_pkt req;
    return call(tovak_req_plain(&req, CMD_DPL_GET_IF_LIST), req,
                [&](const tovak_pkt& rsp) { return tovak_decode_dpl_ids(rsp, ids); });
}

TovakResult TovakClient::add_dpl_iface(uint16_t id)
{
    tovak_pkt req;
    return call(tovak_req_u16(&req, CMD_DPL_SET_IF, id), req, tovak_decode_empty);
}
