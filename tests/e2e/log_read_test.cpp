// tovakctl log-read on what a simulated phone committed: the check against
// the factory configuration, and the Wireshark export read back by tshark.
#include <dirent.h>
#include <unistd.h>

#include <map>
#include <set>

#include "device_test.h"
#include "hdlc.h"
#include "ip_packets.h"

namespace {

const size_t npos = std::string::npos;

class LogRead : public DeviceTest {
protected:
    // tovakctl --root ROOT log-read ARGS; its exit status.
    int log_read(std::vector<std::string> args, std::string* out)
    {
        std::vector<std::string> argv = { SimDevice::bin("tovakctl"), "--root", dev.root(), "log-read" };
        argv.insert(argv.end(), args.begin(), args.end());
        std::string err;
        int rc = SimDevice::run(argv, out, &err);
        *out += err;
        return rc;
    }
    // Logs until every item has reported and at least `produced` records
    // exist, then commits; the new log's path.
    std::string session(unsigned produced)
    {
        // The count runs on over sessions: this one must add its own.
        const unsigned from = status()["modems"]["local"]["traffic"]["produced"].get<unsigned>();
        tovak_pkt reply = send(CMD_LOG_ON);
        EXPECT_EQ(4u, reply.len);
        EXPECT_TRUE(wait_until([&] { return status()["modems"]["local"]["traffic"]["produced"] >= from + produced; }));
        send(CMD_LOG_OFF);
        std::set<std::string> before = logs();
        send(CMD_COMMIT_LOG);
        for (const std::string& f : logs())
            if (!before.count(f))
                return f;
        ADD_FAILURE() << "no new log";
        return "";
    }
    std::set<std::string> logs()
    {
        std::set<std::string> out;
        const std::string dir = dev.path("data/media/0/field");
        if (DIR* d = opendir(dir.c_str())) {
            while (dirent* e = readdir(d))
                if (std::string(e->d_name).find(".qmdl") != npos)
                    out.insert(dir + "/" + e->d_name);
            closedir(d);
        }
        return out;
    }
    void SetUp() override
    {
        start();
        const char path[] = "/sdcard/field";
        ASSERT_EQ(0u, tovak_get_u32(send(CMD_OUT_PATH, Bytes(path, path + sizeof path)).data));
    }
};

// Lines of a tshark run.
std::vector<std::string> tshark(const std::vector<std::string>& args)
{
    std::string bin = "tshark";
    for (const char* dir : { "/usr/bin/", "/usr/local/bin/", "/bin/" })
        if (access((std::string(dir) + "tshark").c_str(), X_OK) == 0) {
            bin = std::string(dir) + "tshark";
            break;
        }
    std::vector<std::string> argv = { bin };
    argv.insert(argv.end(), args.begin(), args.end());
    std::string out, err;
    EXPECT_EQ(0, SimDevice::run(argv, &out, &err)) << err;
    std::vector<std::string> lines;
    for (size_t at = 0; at < out.size();) {
        size_t nl = out.find('\n', at);
        lines.push_back(out.substr(at, nl - at));
        at = nl == npos ? out.size() : nl + 1;
    }
    return lines;
}

// The IP packets of the log's DPL records, in order, as the simulator makes
// them from each record's sequence number; and the number of RRC records.
std::vector<Bytes> dpl_packets(const std::string& stream, size_t* rrc)
{
    *rrc = 0;
    std::vector<Bytes> out;
    const auto* p = reinterpret_cast<const uint8_t*>(stream.data());
    for (size_t at = 0, used = 0; at < stream.size(); at += used) {
        Bytes pkt;
        if (hdlc_unframe(p + at, stream.size() - at, &pkt, &used) != HdlcResult::ok || used == 0)
            break;
        *rrc += pkt.size() > 16 && pkt[0] == 0x10 && (pkt[6] | pkt[7] << 8) == 0xB0C0;
        if (pkt.size() > 24 && pkt[0] == 0x10 && (pkt[6] | pkt[7] << 8) == 0x11EB) {
            const unsigned seq = unsigned(pkt[20] | pkt[21] << 8);
            out.push_back(sim_ip_packet(seq, seq));
        }
    }
    return out;
}

// The raw IP records of a pcap file that are not GSMTAP on the loopback.
std::vector<Bytes> pcap_ip_records(const std::string& file)
{
    std::vector<Bytes> out;
    for (size_t at = 24; at + 16 <= file.size();) {
        const auto* h = reinterpret_cast<const uint8_t*>(file.data() + at);
        const size_t len = size_t(h[8] | h[9] << 8 | h[10] << 16 | uint32_t(h[11]) << 24);
        if (at + 16 + len > file.size())
            break;
        Bytes rec(file.begin() + long(at + 16), file.begin() + long(at + 16 + len));
        const bool gsmtap =
            rec.size() > 28 && rec[0] == 0x45 && rec[9] == 17 && rec[12] == 127 && rec[22] == 0x12 && rec[23] == 0x79;
        if (!gsmtap)
            out.push_back(rec);
        at += 16 + len;
    }
    return out;
}

TEST_F(LogRead, AFactorySessionHasEverythingConfiguredAndExportsWhatWiresharkDecodes)
{
    // DPL on for the configured interfaces 1, 15 and 19.
    EXPECT_EQ(0u, send(CMD_DPL_SET_STATE, tovak_pack_u32(1)).len);
    const std::string log = session(400);
    ASSERT_NE("", log);

    std::string out;
    EXPECT_EQ(0, log_read({ "--summary", "--config", TOVAK_SOURCE_DIR "/etc/dm.cfg", log }, &out)) << out;
    EXPECT_NE(npos, out.find("configured, never seen: none")) << out;
    EXPECT_NE(npos, out.find("seen, not configured: none")) << out;
    EXPECT_NE(npos, out.find(", 0 bad")) << out;
    // The device's own dm.cfg, DPL on: its interfaces are checked too.
    EXPECT_EQ(0, log_read({ "--summary", log }, &out)) << out;
    EXPECT_NE(npos, out.find("configured, never seen: none")) << out;

    const std::string pcap = dev.path("export.pcap");
    ASSERT_EQ(0, log_read({ "--pcap", pcap, log }, &out)) << out;
    const size_t exported = std::stoul(out);
    ASSERT_GT(exported, 50u) << out;

    // Every packet decodes to the end with Wireshark's own dissectors.
    const std::vector<std::string> base = {
        "-r", pcap, "-o", "ip.check_checksum:TRUE", "-o", "tcp.check_checksum:TRUE", "-o", "udp.check_checksum:TRUE"
    };
    auto fields = [&](std::vector<std::string> more) {
        std::vector<std::string> a = base;
        a.insert(a.end(), more.begin(), more.end());
        return tshark(a);
    };
    std::vector<std::string> protos = fields({ "-T", "fields", "-e", "frame.protocols" });
    ASSERT_EQ(exported, protos.size());
    std::map<std::string, int> stacks;
    for (const std::string& p : protos)
        stacks[p]++;
    for (const auto& [stack, n] : stacks) {
        const bool known = stack == "raw:ip:udp:gsmtap:lte_rrc" || stack == "raw:ip:udp:gsmtap:nas-eps" ||
                           stack.find("raw:ip:tcp") == 0 || stack.find("raw:ip:udp:echo") == 0 ||
                           stack == "raw:ip:icmp:data" || stack.find("raw:ipv6:") == 0;
        EXPECT_TRUE(known) << stack << " x" << n;
    }
    EXPECT_EQ(std::vector<std::string>{}, fields({ "-Y", "_ws.malformed || _ws.expert.severity >= \"warning\"", "-T",
                                                   "fields", "-e", "frame.number" }))
        << "malformed or warned frames";

    // The RRC messages are the simulator's MIBs, every one of them; the NAS
    // messages its four.
    size_t rrc_records = 0;
    const std::vector<Bytes> want = dpl_packets(read_file(log), &rrc_records);
    std::vector<std::string> rrc =
        fields({ "-Y", "lte_rrc", "-T", "fields", "-e", "lte-rrc.BCCH_BCH_Message_element" });
    EXPECT_GE(rrc.size(), 10u);
    EXPECT_EQ(rrc_records, rrc.size());
    for (const std::string& r : rrc)
        EXPECT_NE("", r);
    std::set<std::string> nas;
    for (const std::string& n : fields(
             { "-Y", "nas-eps", "-T", "fields", "-e", "nas_eps.nas_msg_emm_type", "-e", "nas_eps.nas_msg_esm_type" }))
        nas.insert(n);
    EXPECT_EQ((std::set<std::string>{ "0x61\t", "0x4a\t", "\t0xd9", "\t0xda" }), nas);

    // The IP packets are byte for byte those the simulator made.
    EXPECT_GE(want.size(), 20u);
    EXPECT_EQ(want, pcap_ip_records(read_file(pcap)));
}

TEST_F(LogRead, AnItemTakenOutOfTheModemsLogIsReportedMissing)
{
    session(60);
    // Event 1606 out, then a second session checked against the factory file.
    EXPECT_EQ(0u, send(CMD_RM_EVENT, tovak_pack_u16(1606)).len);
    const std::string log = session(60);
    std::string out;
    EXPECT_EQ(1, log_read({ "--summary", "--config", TOVAK_SOURCE_DIR "/etc/dm.cfg", log }, &out)) << out;
    EXPECT_NE(npos, out.find("configured, never seen:\n    event 1606 (LTE RRC state change)\n  seen")) << out;
    // Against the device's own dm.cfg nothing is missing.
    EXPECT_EQ(0, log_read({ "--summary", "--json", log }, &out)) << out;
    EXPECT_NE(npos, out.find("\"missing\":[],\"not_configured\":[]")) << out;
}

} // namespace
