// What the simulated modem puts in the log records and event reports it
// sends: one table row per log code with a public layout (the field widths
// open-source diag parsers read), a generic body for every other code, and
// the payload length of each event id.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Where the device is when a record is made; values change with time so
// that a log shows a living cell.
struct RecordContext {
    uint64_t seq = 0; // records made so far by this modem
    double t = 0;     // seconds since the modem started
};

// A little-endian field of a record body; its value comes from the row's
// fill function.
struct LayoutField {
    const char* name;
    uint8_t width; // 1, 2, 4 or 8
};

struct LogLayout {
    uint16_t code; // 0 for the generic body
    const char* name;
    uint16_t fixed_len;              // declared: bytes of all fields together
    std::vector<LayoutField> fields; // in body order
    int tail_len_field;              // field holding the tail's length; -1: the tail runs to the end
    double rate;                     // records per second while the code is enabled
    void (*fill)(const RecordContext& c, uint64_t* values, std::vector<uint8_t>& tail);
};

// Every row; the last is the generic body.
const std::vector<LogLayout>& log_layouts();
// The row of a code, or the generic one.
const LogLayout& log_layout(uint16_t code);
// Log code of data-path (DPL) packet records.
#define DPL_LOG_CODE 0x11EB

// Appends a record body of the layout to out.
void log_body_append(const LogLayout& l, const RecordContext& c, std::vector<uint8_t>& out);
// Reads a body by the layout: false when it is shorter than the fields or
// its tail is not the length a field declares.
bool log_body_decode(const LogLayout& l, const uint8_t* body, size_t len, std::vector<uint64_t>* values,
                     size_t* tail_len);

// A DPL record body around one IP packet.
void dpl_body_append(uint8_t ifid, bool tx, uint16_t seq, const std::vector<uint8_t>& ip, std::vector<uint8_t>& out);

struct EventLayout {
    uint16_t id;
    const char* name;
    uint8_t payload_len;
    double rate;
};
// Every event id with a known payload; ids not listed carry none.
const std::vector<EventLayout>& event_layouts();
const EventLayout* event_layout(uint16_t id);
// The payload bytes of an event at c.
std::vector<uint8_t> event_payload(uint16_t id, const RecordContext& c);
