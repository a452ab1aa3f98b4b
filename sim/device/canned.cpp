#include "canned.h"

#include <cstring>

#include "le.h"

ModemRanges default_modem_ranges()
{
    ModemRanges r;
    r.event_count = 2200;
    // clang-format off
    r.log_last_items = { 3003, 1800, 3003, 3003, 2328, 1064, 3003, 2400,
                         3003, 3003,  914, 2560, 3003,    0,    0,    0 };
    r.ssid_ranges = {
        {     0,   120 }, {   500,   506 }, {  1000,  1007 }, {  2000,  2008 }, {  3000,  3014 },
        {  4000,  4010 }, {  4500,  4526 }, {  4600,  4611 }, {  5000,  5035 }, {  5500,  5515 },
        {  6000,  6072 }, {  6500,  6521 }, {  7000,  7003 }, {  7100,  7111 }, {  7200,  7201 },
        {  8000,  8000 }, {  8500,  8523 }, {  9000,  9008 }, {  9500,  9509 }, { 10200, 10210 },
        { 10251, 10253 }, { 10300, 10300 }, { 10350, 10360 }, { 10400, 10415 }, { 50000, 50000 },
    };
    // clang-format on
    return r;
}

std::vector<DplIface> default_dpl_ifaces()
{
    return {
        { 1, "rmnet0", false },       { 2, "rmnet1", false },       { 15, "rmnet_ipa0", false },
        { 19, "rmnet_data0", false }, { 20, "rmnet_data1", false },
    };
}

std::vector<uint8_t> qmi_canned_unit(size_t unit, size_t size)
{
    std::vector<uint8_t> v(size);
    for (size_t j = 0; j < size; j++)
        v[j] = uint8_t('A' + (7 * unit + j) % 26);
    return v;
}

// clang-format off
static const std::vector<CannedLine> BOOT = {
    { 0, 4, "Zygote",          "System server process %u has been created" },
    { 3, 4, "SystemServer",    "Entered the Android system server!" },
    { 3, 4, "SystemServer",    "StartPackageManagerService" },
    { 0, 4, "PackageManager",  "Scanning app dir /system/app scanFlags=%u" },
    { 3, 4, "ActivityManager", "System now ready" },
    { 1, 4, "RILD",            "Qualcomm RIL started, instance %u" },
    { 1, 4, "QCRIL",           "qcril_init: modem ready" },
    { 1, 3, "RILJ",            "[0001]> RADIO_POWER on" },
    { 1, 3, "RILJ",            "[0001]< RADIO_POWER" },
    { 0, 4, "BootReceiver",    "Copying audit failures to DropBox" },
    { 3, 4, "WindowManager",   "Boot completed after %u ms" },
    { 0, 4, "ActivityManager", "Start proc %u:com.android.phone/1001 for service" },
};

static const std::vector<CannedLine> CHATTER = {
    { 0, 3, "ConnectivityService", "NetworkAgentInfo [MOBILE (LTE) - %u] validation passed" },
    { 1, 3, "RILJ",                "[%u]> SIGNAL_STRENGTH" },
    { 1, 3, "RILJ",                "[%u]< SIGNAL_STRENGTH {lte=-95 dBm}" },
    { 0, 4, "ActivityManager",     "Displayed com.android.settings/.Settings: +%u ms" },
    { 1, 3, "QCRIL",               "qcril_qmi_nas_signal_strength: update %u" },
    { 0, 2, "BatteryService",      "level:%u scale:100 status:2" },
    { 3, 4, "PowerManagerService", "Waking up from sleep (uid %u)..." },
    { 1, 4, "RILJ",                "[%u]< DATA_CALL_LIST" },
};

static const std::vector<CannedEvent> EVENTS = {
    { 0x011B03, "sim_signal_strength", 3 }, // rsrp, rsrq, snr
    { 0x011C04, "sim_battery_level",   1 },
    { 0x011D05, "sim_cpu_load",        2 }, // user, system
};
// clang-format on

const std::vector<CannedLine>& boot_lines()
{
    return BOOT;
}

const std::vector<CannedLine>& chatter_lines()
{
    return CHATTER;
}

const std::vector<CannedEvent>& canned_events()
{
    return EVENTS;
}

std::vector<uint8_t> android_event_payload(const CannedEvent& e, const std::vector<float>& v)
{
    enum { EVENT_TYPE_LIST = 3, EVENT_TYPE_FLOAT = 4 };
    std::vector<uint8_t> out;
    put_u32(out, e.tag);
    out.push_back(EVENT_TYPE_LIST);
    out.push_back(uint8_t(v.size()));
    for (float f : v) {
        uint32_t bits;
        memcpy(&bits, &f, sizeof bits);
        // A zero byte in the low mantissa becomes 1: a change far below
        // what the value means, and no byte reads as a text terminator.
        for (int i = 0; i < 3; i++)
            if ((bits >> (8 * i) & 0xFF) == 0)
                bits |= 1u << (8 * i);
        out.push_back(EVENT_TYPE_FLOAT);
        put_u32(out, bits);
    }
    return out;
}
