#include "qmi_service.h"

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "canned.h"
#include "le.h"
#include "modem_service.h"
#include "sim_files.h"
#include "sim_link.h"

namespace {

const size_t MAX_QMI_SAVE = 16 << 20;

// Keeps a name safe as a file-name part.
std::string file_part(const std::string& s)
{
    std::string out;
    for (char c : s)
        out += isalnum(uint8_t(c)) || c == '+' || c == '-' ? c : '_';
    return out.empty() ? "none" : out.substr(0, 40);
}

} // namespace

QmiService::QmiService(std::string sim_dir) : sim_dir_(std::move(sim_dir))
{
    // Statistics in three units of different sizes; no phantom data.
    set_units(1, { 100, 150, 200 });
}

std::string QmiService::set_units(int kind, const std::vector<size_t>& sizes)
{
    if (sizes.size() > QMI_MAX_UNITS)
        return "too many units";
    std::vector<std::vector<uint8_t>> units;
    for (size_t n : sizes) {
        if (n == 0 || n > QMI_MAX_UNIT)
            return "bad unit size " + std::to_string(n) + " (1 to " + std::to_string(QMI_MAX_UNIT) + ")";
        units.push_back(qmi_canned_unit(units.size(), n));
    }
    units_[kind] = std::move(units);
    return "";
}

bool QmiService::op(uint32_t code, const uint8_t* args, size_t len, LinkConnState& conn, LinkAnswer* out)
{
    switch (code) {
    case SIM_OP_QMI_GET_DATA: {
        std::vector<uint8_t> d;
        uint32_t kind = len >= 8 ? get_u32(args) : 2;
        uint32_t index = len >= 8 ? get_u32(args + 4) : 0;
        if (kind > 1 || index >= units_[kind].size()) {
            put_u32(d, 0);
            *out = link_result(0, d);
            return true;
        }
        const auto& units = units_[kind];
        d.reserve(4 + units[index].size());
        put_u32(d, uint32_t(index + 1 < units.size() ? units.size() - index - 1 : 0));
        d.insert(d.end(), units[index].begin(), units[index].end());
        *out = link_result(int32_t(units[index].size()), d);
        return true;
    }
    case SIM_OP_QMI_SAVE_BEGIN: {
        conn = LinkConnState();
        *out = link_result(0);
        if (len < 4)
            return true;
        conn.expected = get_u32(args);
        const char* p = reinterpret_cast<const char*>(args + 4);
        const char* end = reinterpret_cast<const char*>(args + len);
        const char* kind_end = static_cast<const char*>(memchr(p, 0, size_t(end - p)));
        if (kind_end == nullptr || conn.expected > MAX_QMI_SAVE)
            return true;
        conn.kind.assign(p, kind_end);
        const char* num_end = static_cast<const char*>(memchr(kind_end + 1, 0, size_t(end - kind_end - 1)));
        conn.number.assign(kind_end + 1, num_end ? num_end : end);
        conn.saving = true;
        *out = link_result(1);
        return true;
    }
    case SIM_OP_QMI_SAVE_DATA:
        if (!conn.saving || conn.data.size() + len > conn.expected) {
            conn = LinkConnState();
            *out = link_result(0);
            return true;
        }
        conn.data.insert(conn.data.end(), args, args + len);
        *out = link_result(1);
        return true;
    case SIM_OP_QMI_SAVE_END: {
        bool ok = conn.saving && conn.data.size() == conn.expected && save(conn);
        conn = LinkConnState();
        *out = link_result(ok ? 1 : 0);
        return true;
    }
    default:
        return false;
    }
}

bool QmiService::save(const LinkConnState& conn)
{
    const std::string dir = sim_dir_ + "/qmi";
    if (!sim_make_dirs(dir))
        return false;
    char seq[16];
    snprintf(seq, sizeof seq, "%04u", ++seq_);
    std::string name;
    int fd = create_new_file(dir, file_part(conn.kind) + "_" + file_part(conn.number) + "_" + seq, ".bin", &name);
    if (fd < 0)
        return false;
    bool ok = sim_write_all(fd, conn.data.data(), conn.data.size());
    ok = close(fd) == 0 && ok;
    if (ok)
        saves_.push_back({ "qmi/" + name, conn.kind, conn.number, conn.data.size() });
    else
        unlink((dir + "/" + name).c_str());
    return ok;
}

nlohmann::json QmiService::status() const
{
    nlohmann::json saves = nlohmann::json::array();
    for (const Save& s : saves_)
        saves.push_back({ { "file", s.file }, { "kind", s.kind }, { "number", s.number }, { "size", s.size } });
    nlohmann::json units = nlohmann::json::object();
    const char* kinds[] = { "phantom", "statistics" };
    for (int k = 0; k < 2; k++) {
        nlohmann::json sizes = nlohmann::json::array();
        for (const auto& u : units_[k])
            sizes.push_back(u.size());
        units[kinds[k]] = sizes;
    }
    return { { "units", units }, { "saves", saves } };
}
