// The host platform libraries against a running tovak-devsim (started with
// --root, no sandbox), called the way the daemon calls them.
#include <gtest/gtest.h>

#include <cstring>

#include "hdlc.h"
#include "hex_text.h"
#include "le.h"
#include "linked_devsim.h"
#include "platform/android_log.h"
#include "platform/diag.h"
#include "platform/properties.h"
#include "platform/qmi_tovak.h"

namespace {

// One request as the daemon's transport frames and unframes it; empty
// when any step fails.
std::vector<uint8_t> request(const std::vector<uint8_t>& pkt)
{
    uint8_t buf[1024] = { 32 };
    diag_send_desc_type src = { pkt.data(), pkt.data() + pkt.size() - 1, 0, 1 };
    diag_hdlc_dest_type dst = { buf + 4, buf + sizeof buf - 1 };
    diag_hdlc_encode(&src, &dst);
    size_t len = size_t(std::find(buf, buf + sizeof buf, 0x7E) - buf) + 1;
    diag_rsp_type* rsp = diag_send_wait_rsp(buf, int(len), 1, pkt.data());
    if (rsp == nullptr)
        return {};
    uint8_t out[1024];
    diag_hdlc_decode_type h = { rsp->data, 0, rsp->length, out, 0, sizeof out, 0 };
    int ok = diag_hdlc_decode(&h);
    free(rsp);
    return ok ? std::vector<uint8_t>(out, out + h.dest_idx - 3) : std::vector<uint8_t>{};
}

TEST(HostLibs, WithoutASimulatorEveryCallFailsAndPropertiesStayOffTheHost)
{
    TempDir nowhere;
    sim_host_set_root(nowhere.path());
    EXPECT_EQ(-1, diag_init());
    EXPECT_EQ(0, diag_change_buffer_size(1 << 20));
    EXPECT_TRUE(request({ 0x60, 0x01 }).empty());
    EXPECT_EQ(-1, qmi_tovak_init());
    sim_host_set_root("");
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(-1, property_set("persist.test.x", "1")) << "no root, no sandbox: never the host's /data";
    property_get("persist.test.x", value, "dflt");
    EXPECT_STREQ("dflt", value);
}

TEST(HostLibs, DaemonCallsAgainstTheSimulator)
{
    LinkedDevsim sim;
    ASSERT_TRUE(sim.start({ "--quiet" }));
    sim_host_set_timeout_ms(500);
    EXPECT_EQ(0, diag_init());
    EXPECT_EQ(2200, get_u16(&request({ 0x81, 0, 0, 0 }).at(4)));
    EXPECT_EQ(4 << 20, diag_change_buffer_size(4 << 20));
    EXPECT_EQ(1, diag_switch_logging(2));
    EXPECT_EQ(1, diag_dpl_set_iface_logging_with_ifid(19));
    diag_dpl_iface_desc desc;
    EXPECT_EQ(1, diag_dpl_get_iface_desc(19, &desc));
    EXPECT_STREQ("rmnet_data0", desc.desc);
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(0, property_set("persist.dmlogging.phantom", "0"));
    property_get("persist.dmlogging.phantom", value, "1");
    EXPECT_STREQ("0", value);
    EXPECT_TRUE(file_exists(sim.root() + "/data/property/persist.dmlogging.phantom"));

    // Faults reach the caller as the daemon sees them: no answer.
    for (const std::vector<std::string>& f : { std::vector<std::string>{ "fault", "silent", "on" },
                                               std::vector<std::string>{ "fault", "drop", "1" } }) {
        ASSERT_EQ(0, devsim_ctl(sim.root(), f));
        EXPECT_TRUE(request({ 0x60, 0x01 }).empty()) << f[1];
        devsim_ctl(sim.root(), { "fault", "silent", "off" });
    }
    EXPECT_EQ("60 00 00", hex_text(request({ 0x60, 0x01 })));

    // QMI: the daemon's gathering loop over the default statistics, saved.
    uint32_t units = 0;
    void* data = nullptr;
    ASSERT_EQ(100, qmi_tovak_get_data(1, &data, 0, &units));
    EXPECT_EQ(2u, units);
    EXPECT_EQ(0, qmi_tovak_save_log("Statstics", data, 100, "0101234567"));
    free(data);
    EXPECT_EQ(100, sim.status()["qmi"]["saves"][0]["size"]);

    // A dead logd: the line goes to stderr, and the logger takes lines again
    // once it is back.
    ASSERT_EQ(0, devsim_ctl(sim.root(), { "fault", "logger-absent", "on" }));
    EXPECT_FALSE(file_exists(sim.root() + "/dev/socket/logdw"));
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_DEBUG, "TOVAK", "while logd is away");
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("while logd is away"));
    ASSERT_EQ(0, devsim_ctl(sim.root(), { "fault", "clear" }));
    EXPECT_TRUE(wait_until([&] {
        __android_log_print(ANDROID_LOG_DEBUG, "TOVAK", "back");
        return read_file(sim.root() + "/sim/logcat.txt").find("TOVAK   : back") != std::string::npos;
    }));
    EXPECT_EQ(0, sim.stop());
}

} // namespace
