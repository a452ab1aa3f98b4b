// The host platform libraries against a running tovak-devsim (started with
// --root, no sandbox), called the way the daemon calls them.
#include <gtest/gtest.h>

#include <android/log.h>
#include <cutils/properties.h>

#include "hex_text.h"
#include "le.h"
#include "linked_devsim.h"
#include "platform/diag.h"
#include "platform/qmi_tovak.h"

// One request as the daemon's transport frames and unframes it; empty
// when any step fails.
static std::vector<uint8_t> request(const std::vector<uint8_t>& pkt)
{
    uint8_t buf[1024] = { 32 }, out[1024];
    diag_send_desc_type src = { pkt.data(), pkt.data() + pkt.size() - 1, 0, 1 };
    diag_hdlc_dest_type dst = { buf + 4, buf + sizeof buf - 1 };
    diag_hdlc_encode(&src, &dst);
    diag_rsp_type* rsp = diag_send_wait_rsp(buf, int(std::find(buf, buf + sizeof buf, 0x7E) - buf + 1), 1, nullptr);
    if (rsp == nullptr)
        return {};
    diag_hdlc_decode_type h = { rsp->data, 0, rsp->length, out, 0, sizeof out, 0 };
    int ok = diag_hdlc_decode(&h);
    free(rsp);
    return ok ? std::vector<uint8_t>(out, out + h.dest_idx - 3) : std::vector<uint8_t>{};
}

TEST(HostLibs, DaemonCallsFaultsAndADeadLogd)
{
    LinkedDevsim sim;
    ASSERT_TRUE(sim.start({ "--quiet" }));
    sim_host_set_timeout_ms(500);
    EXPECT_EQ(2200, get_u16(&request({ 0x81, 0, 0, 0 }).at(4)));
    EXPECT_TRUE(diag_change_buffer_size(4 << 20) == 4 << 20 && diag_dpl_set_iface_logging_with_ifid(19) == 1);
    EXPECT_TRUE(property_set("p.x", "0") == 0 && file_exists(sim.root() + "/data/property/p.x"));

    for (const char* f : { "silent", "drop" }) { // the caller sees no answer
        ASSERT_EQ(0, devsim_ctl(sim.root(), { "fault", f, f[0] == 's' ? "on" : "1" }));
        EXPECT_TRUE(request({ 0x60, 0x01 }).empty()) << f;
        devsim_ctl(sim.root(), { "fault", "clear" });
    }
    EXPECT_EQ("60 00 00", hex_text(request({ 0x60, 0x01 })));
    ASSERT_EQ(0, devsim_ctl(sim.root(), { "fault", "logger-absent", "on" })); // a dead logd
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_DEBUG, "TOVAK", "while logd is away");
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("while logd is away"));
    ASSERT_EQ(0, devsim_ctl(sim.root(), { "fault", "clear" }));
    EXPECT_TRUE(wait_until([&] {
        __android_log_print(ANDROID_LOG_DEBUG, "TOVAK", "back");
        return read_file(sim.root() + "/sim/logcat.txt").find("TOVAK   : back") != std::string::npos;
    }));
    EXPECT_EQ(0, sim.stop());
    // No simulator: calls fail; no root, no sandbox: never the host's /data.
    EXPECT_TRUE(diag_init() == -1 && qmi_tovak_init() == -1 && request({ 0x60, 0x01 }).empty());
    EXPECT_EQ(-1, property_set("persist.test.x", "1"));
    char value[PROPERTY_VALUE_MAX];
    property_get("persist.test.x", value, "dflt");
    EXPECT_STREQ("dflt", value);
}
