// Stand-ins for the platform libraries that record what the daemon asks of
// them and answer as the test sets them up. Linked instead of the host
// libraries, they reach cases no simulated device shows: a description with
// no end, a QMI unit that stores no buffer, a library that never says "last".
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

struct RecordedQmiUnit {
    int len = 0;                // what qmi_tovak_get_data returns
    std::vector<uint8_t> bytes; // the buffer it stores
    uint32_t unit_count = 0;    // what it stores as the count
    bool store = true;          // false: it touches neither pointer nor count
};

struct RecordedQmiSave {
    std::string kind;
    std::vector<uint8_t> data;
    std::string number;
};

// What the stand-ins were asked and how they answer; tests set it up before
// they call a handler and read it after, holding mu while handlers run.
struct RecordingState {
    // Every call as "name(args)", in order, e.g. "diag_change_buffer_size(5)".
    std::vector<std::string> calls;
    // Messages given to the Android log, tag "TOVAK" or any other.
    std::vector<std::string> log;

    // Diag.
    int buffer_size = 16 << 20;
    // What diag_change_buffer_size answers (and then reports); -1: the size asked.
    int buffer_size_answer = -1;
    // Runs as diag_change_buffer_size is entered.
    std::function<void()> on_buffer_change;
    int output_path_result = 1;
    std::string output_path;
    uint32_t range_first = 0x1111;
    uint32_t range_second = 0x2222;
    bool range_fills = true;

    // DPL: the supported list and each id's 100-byte description area.
    uint32_t iface_count = 0;
    std::vector<uint8_t> iface_ids;
    std::map<uint8_t, std::vector<char>> iface_descs;
    // Records handed to diag_dpl_set_iface_logging, and its rsp_len.
    std::vector<std::vector<uint8_t>> iface_records;
    std::vector<int> iface_rsp_lens;

    // QMI: units by index; an index past the end returns 0 and count 0.
    std::vector<RecordedQmiUnit> qmi_units;
    // Past the scripted units, every index answers this unit instead.
    bool qmi_endless = false;
    RecordedQmiUnit qmi_endless_unit;
    std::vector<RecordedQmiSave> qmi_saves;

    // Properties.
    std::map<std::string, std::string> properties;
};

struct RecordingPlatform : RecordingState {
    std::mutex mu;

    void reset();
    std::vector<std::string> calls_named(const std::string& prefix);
    bool logged(const std::string& message);
    bool logged_starting(const std::string& prefix);
};

RecordingPlatform& platform();
// A description area of exactly 100 bytes holding text and zeros after it.
std::vector<char> desc_area(const std::string& text);
