#include "modem_traffic.h"

#include <algorithm>

#include "hdlc.h"
#include "ip_packets.h"
#include "le.h"

uint64_t diag_timestamp(uint64_t unix_ns)
{
    const uint64_t gps_epoch_ns = 315964800ull * 1000000000ull;
    uint64_t since = unix_ns > gps_epoch_ns ? unix_ns - gps_epoch_ns : 0;
    return (since / 1250000ull) << 16;
}

void FrameBuffer::append_frame(const uint8_t* pkt, size_t len)
{
    sizes_.push_back(uint32_t(hdlc_frame_append(data_, pkt, len)));
}

void FrameBuffer::trim(size_t limit)
{
    while (!sizes_.empty() && held() > limit) {
        head_ += sizes_.front();
        sizes_.pop_front();
        dropped_++;
    }
    // Keep the dropped front from growing without bound.
    if (head_ > (1u << 20) && head_ > data_.size() / 2) {
        data_.erase(data_.begin(), data_.begin() + ptrdiff_t(head_));
        head_ = 0;
    }
}

std::vector<uint8_t> FrameBuffer::bytes() const
{
    return std::vector<uint8_t>(data_.begin() + ptrdiff_t(head_), data_.end());
}

std::vector<uint8_t> FrameBuffer::take()
{
    std::vector<uint8_t> out = bytes();
    data_.clear();
    head_ = 0;
    sizes_.clear();
    return out;
}

void TrafficSource::set_items(std::vector<TrafficItem> items)
{
    items_ = std::move(items);
}

double TrafficSource::natural_rate() const
{
    double r = 0;
    for (const TrafficItem& it : items_)
        r += it.rate;
    return r;
}

void TrafficSource::packet(const TrafficItem& it, uint64_t ts)
{
    pkt_.clear();
    switch (it.kind) {
    case ItemKind::log:
    case ItemKind::dpl: {
        pkt_ = { 0x10, 0, 0, 0, 0, 0 }; // log packet; both lengths filled below
        put_u16(pkt_, it.kind == ItemKind::dpl ? uint16_t(DPL_LOG_CODE) : it.id);
        put_u64(pkt_, ts);
        if (it.kind == ItemKind::dpl)
            dpl_body_append(uint8_t(it.id), ctx_.seq % 2 == 1, uint16_t(ctx_.seq),
                            sim_ip_packet(unsigned(ctx_.seq), uint32_t(ctx_.seq)), pkt_);
        else
            log_body_append(log_layout(it.id), ctx_, pkt_);
        const uint16_t len = uint16_t(pkt_.size() - 4);
        pkt_[2] = pkt_[4] = uint8_t(len);
        pkt_[3] = pkt_[5] = uint8_t(len >> 8);
        break;
    }
    case ItemKind::event: {
        const std::vector<uint8_t> payload = event_payload(it.id, ctx_);
        // Id in the low 12 bits; bits 13-14 say 0, 1 or 2 payload bytes, or
        // 3 for a length byte and the payload.
        const unsigned code = payload.size() <= 2 ? unsigned(payload.size()) : 3;
        const size_t body = 2 + 8 + (code == 3 ? 1 : 0) + payload.size();
        pkt_ = { 0x60 };
        put_u16(pkt_, uint16_t(body));
        put_u16(pkt_, uint16_t((it.id & 0x0FFF) | code << 13));
        put_u64(pkt_, ts);
        if (code == 3)
            pkt_.push_back(uint8_t(payload.size()));
        pkt_.insert(pkt_.end(), payload.begin(), payload.end());
        break;
    }
    case ItemKind::message: {
        static const char fmt[] = "devsim message %u";
        static const char file[] = "devsim_modem.c";
        pkt_ = { 0x79, 0, 1, 0 }; // timestamp type, one argument, nothing dropped
        put_u64(pkt_, ts);
        put_u16(pkt_, uint16_t(100 + it.level));
        put_u16(pkt_, it.id);
        put_u32(pkt_, uint32_t(1) << it.level);
        put_u32(pkt_, uint32_t(ctx_.seq));
        pkt_.insert(pkt_.end(), fmt, fmt + sizeof fmt);
        pkt_.insert(pkt_.end(), file, file + sizeof file);
        break;
    }
    }
}

void TrafficSource::produce(double elapsed_s, double fixed_rate, uint64_t unix_ns, FrameBuffer& out, size_t limit)
{
    if (items_.empty())
        return;
    if (start_ns_ == 0)
        start_ns_ = unix_ns;
    ctx_.t = double(unix_ns - std::min(unix_ns, start_ns_)) / 1e9;
    const uint64_t ts = diag_timestamp(unix_ns);
    const double share = fixed_rate >= 0 ? fixed_rate / double(items_.size()) : -1;
    for (TrafficItem& it : items_) {
        const double rate = share >= 0 ? share : it.rate;
        // A long pause must not turn into a burst: at most 100 ms owed.
        it.due = std::min(it.due + rate * elapsed_s, rate * 0.1 + 1);
        for (; it.due >= 1; it.due -= 1) {
            packet(it, ts);
            out.append_frame(pkt_.data(), pkt_.size());
            ctx_.seq++;
            produced_++;
        }
    }
    out.trim(limit);
}
