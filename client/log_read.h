// Reading what the phone wrote: committed modem logs (HDLC-framed diag
// packets) and Android log capture files, record by record, in constant
// memory. Apart from any printing, so that it can be fuzzed and measured.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

enum class LrKind : uint8_t { log, event, message, other, bad };
const char* lr_kind_name(LrKind k);
// -1 for a word that names no kind.
int lr_kind_by_name(const std::string& word);

// One record of a modem log. Pointers point into the reader's buffer and
// live until the callback returns.
struct LrRecord {
    LrKind kind = LrKind::bad;
    uint64_t offset = 0; // of the frame in the file
    bool has_time = false;
    uint64_t stamp = 0; // the modem's own: 1.25 ms units since 1980-01-06 in bits 16-63
    uint8_t cmd = 0;    // first byte of the packet
    // Log packet: code and body. Event: id and payload.
    uint16_t code = 0;
    uint16_t event_id = 0;
    const uint8_t* body = nullptr;
    size_t body_len = 0;
    // Message.
    uint16_t ssid = 0;
    uint32_t level_mask = 0;
    uint16_t line = 0;
    std::string file;
    std::string text;
    std::string problem; // bad frames, and what was wrong with a message
};

// Microseconds since 1970 of a modem stamp.
int64_t lr_stamp_us(uint64_t stamp);

// A streaming reader of HDLC frames: feed it the file in any pieces and
// it calls back once per record, bad frames included.
class LrDiagReader {
public:
    using Sink = std::function<void(const LrRecord&)>;
    explicit LrDiagReader(Sink sink) : sink_(std::move(sink)) {}
    void feed(const uint8_t* data, size_t len);
    // The end of the file: a frame still open ran past it.
    void finish();
    uint64_t frames() const { return frames_; }

private:
    void frame_done();
    void packet(const uint8_t* p, size_t len);
    void bad(const char* why);
    Sink sink_;
    std::vector<uint8_t> pkt_; // the frame so far, unescaped
    bool escaped_ = false;
    bool overlong_ = false;
    uint64_t pos_ = 0;        // bytes fed so far
    uint64_t start_ = 0;      // where the open frame began
    uint64_t last_stamp_ = 0; // for events that carry only part of it
    uint64_t frames_ = 0;
    LrRecord rec_; // reused
};

// The text of a modem message from its format and 32-bit arguments; a %s,
// a %n or a missing argument shows as such and sets *problem.
std::string lr_format_message(const char* fmt, size_t fmt_len, const uint32_t* args, size_t nargs,
                              std::string* problem);

// What a configuration asks the modem to report.
struct LrConfig {
    std::set<uint16_t> events;
    std::set<uint16_t> codes;
    std::set<std::pair<uint16_t, uint8_t>> messages; // SSID, level
    bool dpl_on = false;
    std::set<uint16_t> ifaces;
};
// dm.cfg text; false when it has none of the lists.
bool lr_parse_config(const std::string& text, LrConfig* cfg);

// Counts per item, times and bad frames, and the check against a configuration.
struct LrSummary {
    uint64_t records = 0;
    uint64_t bad = 0;
    std::map<uint16_t, uint64_t> codes, events, ssids, ifaces;
    std::set<std::pair<uint16_t, uint8_t>> messages;
    std::map<uint8_t, uint64_t> others; // by command byte
    bool has_time = false;
    uint64_t first = 0, last = 0;
    void add(const LrRecord& r);
};
struct LrItem {
    char kind; // 'L' log code, 'E' event, 'M' message, 'D' DPL interface
    uint16_t id;
    uint8_t level; // messages
};
struct LrCheck {
    std::vector<LrItem> missing;      // configured, never seen
    std::vector<LrItem> unconfigured; // seen, not configured
};
LrCheck lr_check(const LrSummary& s, const LrConfig& cfg);
std::string lr_item_text(const LrItem& i);

// The DPL records' log code, and where a DPL body's IP packet begins.
#define LR_DPL_CODE 0x11EB
#define LR_DPL_HEAD 8

// Wireshark's view: raw IP for DPL packets, GSMTAP over UDP for LTE RRC and
// NAS messages, one pcap file with the raw IP link type.
class LrPcapWriter {
public:
    // False when out cannot be written.
    bool open(FILE* out);
    // Writes what Wireshark can decode of r; false when there is nothing.
    bool add(const LrRecord& r);
    uint64_t written() const { return written_; }
    bool failed() const { return failed_; }

private:
    void packet(uint64_t stamp, const uint8_t* a, size_t alen, const uint8_t* b, size_t blen);
    FILE* out_ = nullptr;
    uint64_t written_ = 0;
    bool failed_ = false;
    std::vector<uint8_t> buf_;
};
// The GSMTAP type and subtype of a log record; false when it has none.
bool lr_gsmtap_of(const LrRecord& r, uint8_t* type, uint8_t* subtype, const uint8_t** msg, size_t* msg_len,
                  uint16_t* arfcn);

// One entry of an Android log capture file.
struct LrLogEntry {
    uint64_t offset = 0;
    int32_t pid = 0, tid = 0;
    uint32_t sec = 0, nsec = 0;
    uint8_t prio = 0;
    std::string tag;
    std::string msg;
    bool binary = false; // an event record: tag is its number's text, msg its values
    std::string problem;
};
// Whether the start of a file reads as logger entries.
bool lr_looks_like_capture(const uint8_t* data, size_t len);
// Streams a capture file's entries; events: the file is of the events buffer.
class LrCaptureReader {
public:
    using Sink = std::function<void(const LrLogEntry&)>;
    LrCaptureReader(Sink sink, bool events) : sink_(std::move(sink)), events_(events) {}
    void feed(const uint8_t* data, size_t len);
    void finish();

private:
    void entry(const uint8_t* p, size_t len, size_t hdr);
    Sink sink_;
    bool events_;
    bool dead_ = false; // lost the entries: the rest is skipped
    std::vector<uint8_t> buf_;
    uint64_t pos_ = 0; // file offset of buf_[0]
};
// The values of a binary event payload as text: "[1,2.5,text]".
std::string lr_event_values(const uint8_t* p, size_t len, size_t* used);
// The event tag names of an event-log-tags file ("NUMBER NAME (fields)"
// lines, # comments).
std::map<uint32_t, std::string> lr_event_tags(const std::string& text);
// "MM-DD HH:MM:SS.mmm  PID  TID P TAG     : message" lines, local time.
std::string lr_threadtime(const LrLogEntry& e);
