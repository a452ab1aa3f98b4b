#include "tovak_commands.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace {

template <class R>
TovakShown show_reply(const tovak_pkt& rsp, const char* key, TovakReport* rep)
{
    typename R::Out value{};
    TovakShown shown = R::decode(rsp, &value);
    if (shown.verdict == TovakVerdict::done || shown.verdict == TovakVerdict::unknown)
        R::report(value, key, rep);
    return shown;
}

} // namespace

// The table.

#define TOVAK_ROW(id, method, name, syntax, f1, f2, reply, key, help, refusal, waits) \
    { id,                                                                             \
      name,                                                                           \
      syntax,                                                                         \
      { TovakField::f1, TovakField::f2 },                                             \
      tovak_layout_of(id).limit,                                                      \
      tovak_layout_of(id).gate,                                                       \
      key,                                                                            \
      show_reply<TovakReply##reply>,                                                  \
      TovakReply##reply::confirm,                                                     \
      help,                                                                           \
      refusal,                                                                        \
      waits },
const TovakCommand tovak_commands[] = { TOVAK_COMMANDS(TOVAK_ROW) };
const size_t tovak_command_count = sizeof tovak_commands / sizeof tovak_commands[0];
// Every command but 2, which ends the session.
static_assert(sizeof tovak_commands / sizeof tovak_commands[0] == std::size(tovak_layouts) - 1, "one row per command");

// A row's fields and reply kind must be its command's layout.
#define TOVAK_ROW_FITS(id, method, name, syntax, f1, f2, kind, ...)                                      \
    static_assert(tovak_is_command(id) &&                                                                \
                      tovak_layout_of(id).request == tovak_request_of(TovakField::f1, TovakField::f2) && \
                      tovak_layout_of(id).reply == TovakReply##kind::layout,                             \
                  #id ": the row's fields or reply kind are not the command's layout");
TOVAK_COMMANDS(TOVAK_ROW_FITS)

const TovakCommand* tovak_command(uint32_t id)
{
    for (const TovakCommand& row : tovak_commands)
        if (row.id == id)
            return &row;
    return nullptr;
}

// Arguments.

int tovak_min_words(const TovakCommand& row)
{
    return (row.fields[0] != TovakField::none) + (row.fields[1] != TovakField::none);
}

int tovak_max_words(const TovakCommand& row)
{
    // Up to 32 levels, or --mask and a mask.
    return tovak_min_words(row) + (row.fields[1] == TovakField::levels ? 31 : 0);
}

bool tovak_parse_number(const std::string& text, uint64_t max, bool hex_only, uint64_t* out)
{
    std::string digits = text;
    int base = hex_only ? 16 : 10;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        digits = digits.substr(2);
        base = 16;
    }
    if (digits.empty() || digits.size() > 20)
        return false;
    uint64_t v = 0;
    for (char c : digits) {
        int d = c >= '0' && c <= '9' ? c - '0' : -1;
        if (base == 16 && c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        if (base == 16 && c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        if (d < 0 || v > (max - uint64_t(d)) / uint64_t(base))
            return false;
        v = v * uint64_t(base) + uint64_t(d);
    }
    *out = v;
    return true;
}

static std::string bound(uint64_t v, bool hex)
{
    char buf[24];
    snprintf(buf, sizeof buf, hex ? "0x%llx" : "%llu", (unsigned long long)v);
    return buf;
}

static bool number_word(const std::string& word, const char* what, uint64_t min, uint64_t max, bool hex,
                        TovakArgs* args, std::string* why)
{
    uint64_t v = 0;
    if (tovak_parse_number(word, max, hex, &v) && v >= min) {
        args->emplace_back(int64_t(v));
        return true;
    }
    *why = std::string("bad ") + what + " '" + word + "': expected " + (hex ? "a hex number" : "a number") + " from " +
           bound(min, hex) + " to " + bound(max, hex);
    // Hex digits without the prefix, where decimal is the default.
    if (!hex && tovak_parse_number(word, max, true, &v) && v >= min)
        *why += " (hex? write 0x" + word + ")";
    return false;
}

static bool levels_words(const std::vector<std::string>& words, size_t at, TovakArgs* args, std::string* why)
{
    if (words[at] == "--mask") {
        if (words.size() == at + 2)
            return number_word(words[at + 1], "mask", 0, UINT32_MAX, true, args, why);
        *why = "--mask takes one mask and nothing else";
        return false;
    }
    uint64_t mask = 0;
    for (size_t i = at; i < words.size(); i++) {
        TovakArgs level;
        if (!number_word(words[i], "level", 0, 31, false, &level, why))
            return false;
        mask |= uint64_t(1) << level[0].num;
    }
    args->emplace_back(int64_t(mask));
    return true;
}

bool tovak_parse_words(const TovakCommand& row, const std::vector<std::string>& words, TovakArgs* args,
                       std::string* why)
{
    if (int(words.size()) < tovak_min_words(row) || int(words.size()) > tovak_max_words(row)) {
        *why = int(words.size()) < tovak_min_words(row) ? "missing argument" : "unexpected arguments";
        return false;
    }
    args->clear();
    for (size_t i = 0; i < 2 && row.fields[i] != TovakField::none; i++) {
        const std::string& w = words[i];
        TovakField f = row.fields[i];
        // Words for a choice of two values: off and phantom mean 0, on and statistics 1.
        static_assert(TOVAK_MODEM_DATA_PHANTOM == 0 && TOVAK_MODEM_DATA_STATISTICS == 1, "a kind is its word's place");
        const char* choice[2] = { f == TovakField::on_off ? "off" : "phantom",
                                  f == TovakField::on_off ? "on" : "statistics" };
        bool ok = true;
        if (f == TovakField::on_off || f == TovakField::kind) {
            ok = w == choice[0] || w == choice[1];
            *why = std::string("expected ") + choice[1] + " or " + choice[0] + ", not '" + w + "'";
            args->emplace_back(int64_t(w == choice[1]));
        } else if (f == TovakField::category) {
            auto name = std::find(std::begin(tovak_capture_category_names), std::end(tovak_capture_category_names), w);
            if (name != std::end(tovak_capture_category_names))
                args->emplace_back(int64_t(name - std::begin(tovak_capture_category_names)));
            else
                ok = number_word(w, "category", 0, UINT32_MAX, false, args, why);
            if (!ok)
                *why += ", or main, radio, events, system";
        } else if (f == TovakField::levels) {
            ok = levels_words(words, i, args, why);
        } else if (f == TovakField::u16 || f == TovakField::hex16 || f == TovakField::u32 || f == TovakField::size) {
            bool hex = f == TovakField::hex16, size = f == TovakField::size;
            ok = number_word(w,
                             hex    ? "log code"
                             : size ? "size"
                                    : "number",
                             size,
                             size                   ? row.limit
                             : f == TovakField::u32 ? UINT32_MAX
                                                    : 0xffff,
                             hex, args, why);
        } else {
            args->emplace_back(w);
        }
        if (!ok)
            return false;
    }
    return true;
}

static bool check_text(const TovakCommand& row, TovakField field, const std::string& text, std::string* why)
{
    if (text.find('\0') != std::string::npos)
        *why = "a zero byte inside the text";
    else if (text.size() > row.limit)
        *why = "too long: " + std::to_string(text.size()) + " characters, tovakd takes at most " +
               std::to_string(row.limit);
    else if (text.empty() && field != TovakField::text)
        *why = "empty path";
    else if (field == TovakField::out_path && std::count(text.begin(), text.end(), '/') >= TOVAK_OUT_PATH_MAX_SLASHES)
        *why = "tovakd refuses an output path with " + std::to_string(TOVAK_OUT_PATH_MAX_SLASHES) +
               " or more '/' (after it has already moved the modem log there)";
    else
        return true;
    return false;
}

bool tovak_encode(const TovakCommand& row, const TovakArgs& args, tovak_pkt* req, std::string* why)
{
    why->clear();
    // A request that does not fit goes out empty, if at all.
    auto refuse = [&] {
        tovak_req_raw(req, row.id, {});
        return false;
    };
    tovak_bytes payload;
    for (size_t i = 0; i < 2 && row.fields[i] != TovakField::none; i++) {
        if (i >= args.size()) {
            *why = "missing argument";
            return refuse();
        }
        const TovakArg& a = args[i];
        TovakField f = row.fields[i];
        bool ok;
        if (f == TovakField::u16 || f == TovakField::hex16) {
            ok = a.num >= 0 && a.num <= 0xffff;
            tovak_put_u16(&payload, uint16_t(a.num));
        } else if (f == TovakField::size) {
            ok = a.num >= 1 && uint64_t(a.num) <= row.limit && a.num <= UINT32_MAX;
            tovak_put_u32(&payload, uint32_t(a.num));
            if (!ok)
                *why = "size " + std::to_string(a.num) + ": tovakd takes 1 to " + std::to_string(row.limit) + " bytes";
        } else if (f == TovakField::on_off) {
            ok = true;
            tovak_put_u32(&payload, a.num != 0);
        } else if (f == TovakField::out_path || f == TovakField::text || f == TovakField::device_path) {
            ok = check_text(row, f, a.text, why);
            tovak_bytes text = f == TovakField::out_path ? tovak_pack_text(a.text) : tovak_pack_counted_text(a.text);
            payload.insert(payload.end(), text.begin(), text.end());
        } else {
            ok = a.num >= 0 && a.num <= UINT32_MAX;
            tovak_put_u32(&payload, uint32_t(a.num));
        }
        if (!ok) {
            if (why->empty())
                *why = "argument " + std::to_string(i + 1) + " does not fit its field";
            return refuse();
        }
    }
    return tovak_req_raw(req, row.id, payload);
}

bool tovak_req_counted_text(tovak_pkt* req, uint32_t cmd, const std::string& text)
{
    const tovak_layout layout = tovak_layout_of(cmd);
    bool fits = layout.request == tovak_request_layout::counted_text && text.size() <= layout.limit &&
                text.find('\0') == std::string::npos;
    return tovak_req_raw(req, cmd, fits ? tovak_pack_counted_text(text) : tovak_bytes()) && fits;
}

bool tovak_req_raw(tovak_pkt* req, uint32_t cmd, const std::vector<uint8_t>& payload)
{
    memset(req, 0, sizeof *req);
    req->cmd = cmd;
    if (payload.size() > TOVAK_PKT_DATA_SIZE)
        return false;
    std::copy(payload.begin(), payload.end(), req->data);
    req->len = uint32_t(payload.size());
    return true;
}
