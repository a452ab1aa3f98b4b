// tovakctl's log reader on arbitrary bytes: as a modem log, read whole and
// in pieces the first byte chooses, the records must be the same; as a
// capture file likewise; the export and the summary take every record; a
// message format drawn from the input never writes or reads past its words.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "log_read.h"

namespace {

std::string describe(const LrRecord& r)
{
    std::string s = std::to_string(int(r.kind)) + "|" + std::to_string(r.offset) + "|" + std::to_string(r.stamp) + "|" +
                    std::to_string(r.code) + "|" + std::to_string(r.event_id) + "|" + std::to_string(r.ssid) + "|" +
                    r.text + "|" + r.file + "|" + r.problem + "|";
    s.append(reinterpret_cast<const char*>(r.body), r.body_len);
    return s;
}

std::vector<std::string> diag(const uint8_t* data, size_t size, size_t piece, FILE* pcap_out)
{
    std::vector<std::string> out;
    LrPcapWriter pcap;
    if (pcap_out && !pcap.open(pcap_out))
        abort();
    LrSummary sum;
    LrDiagReader r([&](const LrRecord& rec) {
        if (rec.body_len > size)
            abort();
        out.push_back(describe(rec));
        sum.add(rec);
        if (pcap_out)
            pcap.add(rec);
    });
    for (size_t at = 0; at < size; at += piece)
        r.feed(data + at, std::min(piece, size - at));
    r.finish();
    if (sum.records != out.size())
        abort();
    LrConfig cfg;
    lr_parse_config(std::string(reinterpret_cast<const char*>(data), size), &cfg);
    lr_check(sum, cfg);
    return out;
}

std::vector<std::string> capture(const uint8_t* data, size_t size, size_t piece, bool events)
{
    std::vector<std::string> out;
    LrCaptureReader r(
        [&](const LrLogEntry& e) {
            out.push_back(std::to_string(e.offset) + "|" + e.tag + "|" + e.msg + "|" + e.problem);
            lr_threadtime(e);
        },
        events);
    for (size_t at = 0; at < size; at += piece)
        r.feed(data + at, std::min(piece, size - at));
    r.finish();
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const size_t piece = size_t(data[0] % 16) + 1;
    data++;
    size--;
    char* mem = nullptr;
    size_t mem_len = 0;
    FILE* pcap_out = open_memstream(&mem, &mem_len);
    if (diag(data, size, size + 1, pcap_out) != diag(data, size, piece, nullptr))
        abort();
    fclose(pcap_out);
    free(mem);
    for (bool events : { false, true })
        if (capture(data, size, size + 1, events) != capture(data, size, piece, events))
            abort();
    lr_looks_like_capture(data, size);
    lr_event_values(data, size, nullptr);

    // The input as a format with up to 8 words of arguments from its start.
    uint32_t args[8] = {};
    const size_t nargs = std::min<size_t>(size / 4, 8);
    for (size_t i = 0; i < nargs; i++)
        args[i] = uint32_t(data[4 * i]) | uint32_t(data[4 * i + 1]) << 8 | uint32_t(data[4 * i + 2]) << 16 |
                  uint32_t(data[4 * i + 3]) << 24;
    std::string problem;
    const std::string text = lr_format_message(reinterpret_cast<const char*>(data), size, args, nargs, &problem);
    // No conversion may grow without bound: 64 wide at most, per two input bytes.
    if (text.size() > size * 64 + 64)
        abort();
    return 0;
}
