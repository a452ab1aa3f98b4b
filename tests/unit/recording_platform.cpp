#include "recording_platform.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "platform/android_log.h"
#include "platform/diag.h"
#include "platform/properties.h"
#include "platform/qmi_tovak.h"
#include "platform/syslog_capture.h"

RecordingPlatform& platform()
{
    static RecordingPlatform p;
    return p;
}

void RecordingPlatform::reset()
{
    std::lock_guard<std::mutex> hold(mu);
    static_cast<RecordingState&>(*this) = RecordingState{};
}

std::vector<std::string> RecordingPlatform::calls_named(const std::string& prefix)
{
    std::lock_guard<std::mutex> hold(mu);
    std::vector<std::string> out;
    for (const std::string& c : calls)
        if (c.rfind(prefix, 0) == 0)
            out.push_back(c);
    return out;
}

bool RecordingPlatform::logged(const std::string& message)
{
    std::lock_guard<std::mutex> hold(mu);
    for (const std::string& m : log)
        if (m == message)
            return true;
    return false;
}

bool RecordingPlatform::logged_starting(const std::string& prefix)
{
    std::lock_guard<std::mutex> hold(mu);
    for (const std::string& m : log)
        if (m.rfind(prefix, 0) == 0)
            return true;
    return false;
}

std::vector<char> desc_area(const std::string& text)
{
    std::vector<char> area(DIAG_DPL_DESC_SIZE, '\0');
    memcpy(area.data(), text.data(), std::min(text.size(), area.size()));
    return area;
}

static void record(const std::string& call)
{
    RecordingPlatform& p = platform();
    std::lock_guard<std::mutex> hold(p.mu);
    p.calls.push_back(call);
}

static std::string call_text(const char* name, long long a)
{
    return std::string(name) + "(" + std::to_string(a) + ")";
}

extern "C" {

int __android_log_print(int, const char* tag, const char* fmt, ...)
{
    char msg[2048];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);
    RecordingPlatform& p = platform();
    std::lock_guard<std::mutex> hold(p.mu);
    p.log.push_back(strcmp(tag, "TOVAK") == 0 ? msg : std::string(tag) + ": " + msg);
    return int(strlen(msg));
}

int property_get(const char* key, char* value, const char* default_value)
{
    RecordingPlatform& p = platform();
    std::lock_guard<std::mutex> hold(p.mu);
    auto it = p.properties.find(key);
    snprintf(value, PROPERTY_VALUE_MAX, "%s", it != p.properties.end() ? it->second.c_str() : default_value);
    return int(strlen(value));
}

int property_set(const char* key, const char* value)
{
    RecordingPlatform& p = platform();
    std::lock_guard<std::mutex> hold(p.mu);
    p.calls.push_back(std::string("property_set(") + key + ", " + value + ")");
    p.properties[key] = value;
    return 0;
}

int diag_init(void)
{
    record("diag_init()");
    return 0;
}

int diag_get_mode(void)
{
    return 1;
}

int diag_switch_logging(int mode)
{
    record(call_text("diag_switch_logging", mode));
    return 1;
}

void diag_hdlc_encode(struct diag_send_desc_type*, struct diag_hdlc_dest_type*) {}

int diag_hdlc_decode(struct diag_hdlc_decode_type*)
{
    return 0;
}

struct diag_rsp_type* diag_send_wait_rsp(const void*, int, int, const void*)
{
    record("diag_send_wait_rsp()");
    return nullptr;
}

void diag_free_rsp(struct diag_rsp_type* rsp)
{
    free(rsp);
}

int diag_has_remote_device(uint16_t* remote)
{
    if (remote)
        *remote = 0;
    return 1;
}

int diag_change_buffer_size(int size)
{
    record(call_text("diag_change_buffer_size", size));
    RecordingPlatform& p = platform();
    if (p.on_buffer_change)
        p.on_buffer_change();
    std::lock_guard<std::mutex> hold(p.mu);
    p.buffer_size = p.buffer_size_answer >= 0 ? p.buffer_size_answer : size;
    return p.buffer_size;
}

int diag_get_buffer_size(void)
{
    RecordingPlatform& p = platform();
    std::lock_guard<std::mutex> hold(p.mu);
    return p.buffer_size;
}

int diag_change_output_path(const char* path)
{
    RecordingPlatform& p = platform();
    std::lock_guard<std::mutex> hold(p.mu);
    p.calls.push_back(std::string("diag_change_output_path(") + path + ")");
    if (p.output_path_result != 0)
        p.output_path = path;
    return p.output_path_result;
}

int diag_commit_log(void)
{
    record("diag_commit_log()");
    return 1;
}

int diag_stop_logging(void)
{
    record("diag_stop_logging()");
    return 1;
}

int diag_get_range(uint32_t* first, uint32_t* second)
{
    RecordingPlatform& p = platform();
    std::lock_guard<std::mutex> hold(p.mu);
    if (!p.range_fills)
        return 0;
    *first = p.range_first;
    *second = p.range_second;
    return 1;
}

int diag_dpl_init(void)
{
    return 0;
}

int diag_dpl_reset_logging(void)
{
    record("diag_dpl_reset_logging()");
    return 1;
}

int diag_dpl_set_iface_logging(const void* rec, void* rsp, int rsp_len, uint8_t ifid)
{
    RecordingPlatform& p = platform();
    std::lock_guard<std::mutex> hold(p.mu);
    p.calls.push_back(call_text("diag_dpl_set_iface_logging", ifid));
    const uint8_t* bytes = static_cast<const uint8_t*>(rec);
    p.iface_records.emplace_back(bytes, bytes + DIAG_DPL_IFACE_RECORD_SIZE);
    p.iface_rsp_lens.push_back(rsp_len);
    // Fills all it was promised, so a smaller area shows under the sanitizers.
    memset(rsp, 0xA5, size_t(rsp_len));
    return 1;
}

int diag_dpl_set_iface_logging_with_ifid(uint8_t ifid)
{
    record(call_text("diag_dpl_set_iface_logging_with_ifid", ifid));
    return 1;
}

int diag_dpl_get_supported_ifaces(struct diag_dpl_iface_list* list)
{
    RecordingPlatform& p = platform();
    std::lock_guard<std::mutex> hold(p.mu);
    list->count = p.iface_count;
    if (!p.iface_ids.empty())
        memcpy(list->ids, p.iface_ids.data(), std::min(p.iface_ids.size(), sizeof list->ids));
    return 1;
}

int diag_dpl_get_iface_desc(uint8_t ifid, struct diag_dpl_iface_desc* desc)
{
    RecordingPlatform& p = platform();
    std::lock_guard<std::mutex> hold(p.mu);
    p.calls.push_back(call_text("diag_dpl_get_iface_desc", ifid));
    desc->ifid = ifid;
    auto it = p.iface_descs.find(ifid);
    if (it != p.iface_descs.end())
        memcpy(desc->desc, it->second.data(), std::min(it->second.size(), sizeof desc->desc));
    return 1;
}

int qmi_tovak_init(void)
{
    record("qmi_tovak_init()");
    return 0;
}

int qmi_tovak_get_data(uint32_t kind, void** data, uint32_t index, uint32_t* unit_count)
{
    RecordedQmiUnit unit;
    {
        RecordingPlatform& p = platform();
        std::lock_guard<std::mutex> hold(p.mu);
        p.calls.push_back("qmi_tovak_get_data(" + std::to_string(kind) + ", " + std::to_string(index) + ")");
        if (index < p.qmi_units.size())
            unit = p.qmi_units[index];
        else if (p.qmi_endless)
            unit = p.qmi_endless_unit;
    }
    // Lets another caller in between units, where a missing lock would show.
    std::this_thread::yield();
    if (!unit.store)
        return unit.len;
    *data = malloc(unit.bytes.size() + 1);
    if (!unit.bytes.empty())
        memcpy(*data, unit.bytes.data(), unit.bytes.size());
    *unit_count = unit.unit_count;
    return unit.len;
}

int qmi_tovak_save_log(const char* kind_name, const void* data, uint32_t len, const char* number)
{
    RecordingPlatform& p = platform();
    std::lock_guard<std::mutex> hold(p.mu);
    p.calls.push_back(std::string("qmi_tovak_save_log(") + kind_name + ", " + std::to_string(len) + ")");
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    p.qmi_saves.push_back({ kind_name, std::vector<uint8_t>(bytes, bytes + len), number });
    return 0;
}

int qmi_tovak_deinit(void)
{
    record("qmi_tovak_deinit()");
    return 0;
}

int syslog_create2(struct syslog_object** slot, int, const char*, int, int)
{
    *slot = nullptr;
    return 0;
}

void syslog_destroy(struct syslog_object** obj)
{
    *obj = nullptr;
}

} // extern "C"
