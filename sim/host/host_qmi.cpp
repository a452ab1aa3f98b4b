// Host QMI interface library over tovak-devsim's QMI link.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "host_link.h"
#include "le.h"
#include "platform/qmi_tovak.h"
#include "sim_link.h"

extern "C" {

int qmi_tovak_init(void)
{
    SimLink link(SIM_LINK_QMI_PATH);
    return link.ok() ? 0 : -1;
}

int qmi_tovak_get_data(uint32_t kind, void** data, uint32_t index, uint32_t* unit_count)
{
    if (unit_count)
        *unit_count = 0;
    if (data == nullptr)
        return 0;
    std::vector<uint8_t> args, answer;
    put_u32(args, kind);
    put_u32(args, index);
    int32_t len = 0;
    if (!sim_link_op(SIM_LINK_QMI_PATH, SIM_OP_QMI_GET_DATA, args, &len, &answer) || len < 0 || answer.size() < 4 ||
        answer.size() - 4 < size_t(len))
        len = 0;
    // Always a buffer of our own, even for nothing, so that callers may
    // copy from it and free it alike.
    *data = malloc(size_t(len) + 1);
    if (*data == nullptr)
        return 0;
    if (len > 0) {
        memcpy(*data, answer.data() + 4, size_t(len));
        if (unit_count)
            *unit_count = get_u32(answer.data());
    }
    return len;
}

int qmi_tovak_save_log(const char* kind_name, const void* data, uint32_t len, const char* number)
{
    if (data == nullptr && len > 0)
        return -1;
    if (kind_name == nullptr)
        kind_name = "";
    if (number == nullptr)
        number = "";
    SimLink link(SIM_LINK_QMI_PATH);
    std::vector<uint8_t> msg, answer;
    auto step = [&]() {
        return link.ask(msg.data(), msg.size(), &answer) && answer.size() >= 4 && get_u32(answer.data()) == 1;
    };
    put_u32(msg, SIM_OP_QMI_SAVE_BEGIN);
    put_u32(msg, len);
    msg.insert(msg.end(), kind_name, kind_name + strlen(kind_name) + 1);
    msg.insert(msg.end(), number, number + strnlen(number, 64));
    msg.push_back(0);
    if (!step()) {
        link.discard();
        return -1;
    }
    const uint8_t* p = static_cast<const uint8_t*>(data);
    for (uint32_t off = 0; off < len; off += SIM_LINK_CHUNK) {
        uint32_t n = std::min<uint32_t>(SIM_LINK_CHUNK, len - off);
        msg.clear();
        put_u32(msg, SIM_OP_QMI_SAVE_DATA);
        msg.insert(msg.end(), p + off, p + off + n);
        if (!step()) {
            link.discard();
            return -1;
        }
    }
    msg.clear();
    put_u32(msg, SIM_OP_QMI_SAVE_END);
    if (!step()) {
        link.discard();
        return -1;
    }
    return 0;
}

int qmi_tovak_deinit(void)
{
    return 0;
}

} // extern "C"
