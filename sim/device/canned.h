// The simulated phone's canned data: what its modem supports, its data-path
// interfaces, QMI data, and the lines and events its own software logs.
// Fault and event injection live elsewhere (faults.h, control.cpp).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct SsidRange {
    uint16_t first;
    uint16_t last;
    bool operator==(const SsidRange&) const = default;
};

// What a modem supports. Deliberately unlike the daemon's built-in tables
// so that tests can tell which the daemon used.
struct ModemRanges {
    uint16_t event_count;
    std::array<uint32_t, 16> log_last_items;
    std::vector<SsidRange> ssid_ranges;
};
ModemRanges default_modem_ranges();

struct DplIface {
    uint8_t id;
    std::string name;
    bool logging;
};
std::vector<DplIface> default_dpl_ifaces();

// Canned QMI unit content: unit u, byte j is 'A' + (7u + j) % 26.
std::vector<uint8_t> qmi_canned_unit(size_t unit, size_t size);

// A line the phone's own software logs: buffer, priority, tag, text.
struct CannedLine {
    int buffer;
    uint8_t prio;
    const char* tag;
    const char* text; // may hold one %u, the line's running number
};
// Said once when the device comes up.
const std::vector<CannedLine>& boot_lines();
// Said over and over while it runs.
const std::vector<CannedLine>& chatter_lines();

// Binary events of the events buffer: u32 tag, then a list of floats.
// Tags and values are chosen so that every byte after the tag is non-zero,
// which is what Wireshark's logcat reader needs to take the file for one.
struct CannedEvent {
    uint32_t tag;
    const char* name;
    uint8_t values;
};
const std::vector<CannedEvent>& canned_events();
// The payload of event e with values v (v.size() == e.values).
std::vector<uint8_t> android_event_payload(const CannedEvent& e, const std::vector<float>& v);
