#include "device.h"

#include "le.h"
#include "sim_link.h"

Device::Device(const std::string& root, const std::string& sim_dir)
    : disk(root), modem(faults), logger(sim_dir), qmi(sim_dir), system(root, sim_dir)
{
}

LinkAnswer Device::handle_link(const uint8_t* msg, size_t len, LinkConnState& conn, uint64_t unix_ns)
{
    if (len < 4)
        return {};
    const uint32_t code = get_u32(msg);
    if (code == SIM_LINK_DIAG_REQUEST)
        return modem.diag_request(msg, len);
    LinkAnswer a;
    if (modem.op(code, msg + 4, len - 4, unix_ns, &a) || qmi.op(code, msg + 4, len - 4, conn, &a))
        return a;
    return link_result(-1);
}

void Device::tick(double elapsed_s, uint64_t unix_ns)
{
    modem.tick(elapsed_s, unix_ns);
    logger.tick(elapsed_s, unix_ns);
}

nlohmann::json Device::status()
{
    nlohmann::json s = modem.status();
    const DaemonState d = system.daemon();
    s["faults"] = faults.status();
    s["disk_filled"] = disk.status();
    s["logger"] = logger.status();
    s["chatter"] = logger.chatter();
    s["logcat_file"] = "logcat.txt";
    s["qmi"] = qmi.status();
    s["daemon"] = { { "pid", d.pid }, { "starts", d.starts }, { "last_exit", d.last_exit } };
    return s;
}
