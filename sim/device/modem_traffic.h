// The log traffic of one modem in memory-buffer mode: which items it
// reports, how often, and the bounded buffer of HDLC frames they fill.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "log_layouts.h"

// Framed packets, oldest first, in one block; the oldest go first when the
// buffer must shrink.
class FrameBuffer {
public:
    void append_frame(const uint8_t* pkt, size_t len);
    // Drops the oldest frames until the buffer holds at most limit bytes.
    void trim(size_t limit);
    std::vector<uint8_t> bytes() const;
    std::vector<uint8_t> take();
    size_t held() const { return data_.size() - head_; }
    size_t frames() const { return sizes_.size(); }
    uint64_t dropped() const { return dropped_; }

private:
    std::vector<uint8_t> data_;
    size_t head_ = 0;            // first byte still held
    std::deque<uint32_t> sizes_; // of the frames held, oldest first
    uint64_t dropped_ = 0;
};

enum class ItemKind : uint8_t { log, event, message, dpl };

// One enabled thing a modem reports, with its share of the rate.
struct TrafficItem {
    ItemKind kind;
    uint16_t id;    // log code, event id, SSID or interface id
    uint8_t level;  // message level
    double rate;    // per second, when the rate is the items' own
    double due = 1; // a newly enabled item reports at once
};

class TrafficSource {
public:
    // Replaces the items, keeping nothing owed.
    void set_items(std::vector<TrafficItem> items);
    bool empty() const { return items_.empty(); }
    // Packets owed after elapsed_s, each at its own rate or, with
    // fixed_rate >= 0, that many a second shared evenly; appended framed.
    void produce(double elapsed_s, double fixed_rate, uint64_t unix_ns, FrameBuffer& out, size_t limit);
    uint64_t produced() const { return produced_; }
    // The items' own rate together.
    double natural_rate() const;

private:
    void packet(const TrafficItem& it, uint64_t ts);

    std::vector<TrafficItem> items_;
    std::vector<uint8_t> pkt_; // reused for every packet
    uint64_t produced_ = 0;
    uint64_t start_ns_ = 0;
    RecordContext ctx_;
};

// Diag timestamp: 1.25 ms units since 1980-01-06 in the upper 48 bits.
uint64_t diag_timestamp(uint64_t unix_ns);
