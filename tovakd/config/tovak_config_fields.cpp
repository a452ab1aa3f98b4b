// The dm.cfg field table. Adding a field is one row here, its member in
// tovak_config and its commands.
#include "config/tovak_config_fields.h"

#include <iterator>
#include <optional>

#include "config/tovak_config_lists.h"

// How an element stands in the written file.
enum class field_layout {
    line,        // "<X>value</X>"
    spaced_line, // the same after a blank line
    block,       // a blank line, then the value on lines of its own
};

struct config_field {
    const char* name;
    field_layout layout;
    // Sets the field from the element's value; empty when it is missing.
    void (*read)(tovak_config& c, const std::string& value);
    // The value as written, or nothing to leave the element out.
    std::optional<std::string> (*write)(const tovak_config& c);
};

// The value of one element over the kept lines; empty when it is missing.
static std::string element_value(const std::vector<std::string>& lines, const std::string& name)
{
    const std::string open = "<" + name + ">";
    const std::string close = "</" + name + ">";
    size_t i = 0;
    size_t at = std::string::npos;
    for (; i < lines.size(); i++) {
        at = lines[i].find(open);
        if (at != std::string::npos)
            break;
    }
    if (i == lines.size())
        return {};
    const std::string& first = lines[i];
    const size_t start = at + open.size();
    // The close tag is looked for from the start of the line; one that stands
    // before the open tag leaves the rest of the line as the value.
    size_t end = first.find(close);
    if (end != std::string::npos)
        return end >= start ? first.substr(start, end - start) : first.substr(start);
    std::string value = first.substr(start);
    for (i++; i < lines.size(); i++) {
        end = lines[i].find(close);
        if (end != std::string::npos) {
            value.append(lines[i], 0, end);
            break;
        }
        value += lines[i];
    }
    return value;
}

template <uint32_t tovak_config::*field>
static void read_on_off(tovak_config& c, const std::string& value)
{
    c.*field = value == "on" ? 1 : 0;
}

template <uint32_t tovak_config::*field>
static std::optional<std::string> write_on_off(const tovak_config& c)
{
    return c.*field ? "on" : "off";
}

template <uint32_t tovak_config::*field>
static void read_number(tovak_config& c, const std::string& value)
{
    c.*field = uint32_t(tovak_config_read_number(value, tovak_config_has_both_prefixes(value), UINT32_MAX));
}

// Signed on purpose: a value above 2^31 - 1 reads back to the same 32 bits.
template <uint32_t tovak_config::*field>
static std::optional<std::string> write_signed(const tovak_config& c)
{
    return std::to_string(int32_t(c.*field));
}

// A list object's text, or nothing before the first load made it.
template <typename List, std::unique_ptr<List> tovak_config::*field, std::string (*text)(const List&)>
static std::optional<std::string> write_list(const tovak_config& c)
{
    if (!(c.*field))
        return std::nullopt;
    return text(*(c.*field));
}

// A sequence's text, or nothing when it is empty.
template <typename T, std::vector<T> tovak_config::*field, std::string (*text)(const std::vector<T>&)>
static std::optional<std::string> write_sequence(const tovak_config& c)
{
    if ((c.*field).empty())
        return std::nullopt;
    return text(c.*field);
}

// clang-format off
static const config_field config_fields[] = {
    { "LogState",      field_layout::line,        read_on_off<&tovak_config::log_state>,
      write_on_off<&tovak_config::log_state> },
    { "BufferSize",    field_layout::line,        read_number<&tovak_config::buffer_size>,
      write_signed<&tovak_config::buffer_size> },
    { "EventIDs",      field_layout::block,
      [](tovak_config& c, const std::string& v) { c.events = tovak_event_list_create(v, c.event_id_count); },
      write_list<tovak_event_list, &tovak_config::events, tovak_event_list_text> },
    { "LogCodes",      field_layout::block,
      [](tovak_config& c, const std::string& v) { c.log_codes = tovak_log_list_create(v, c.log_last_items); },
      write_list<tovak_log_list, &tovak_config::log_codes, tovak_log_list_text> },
    { "MessageLevels", field_layout::block,
      [](tovak_config& c, const std::string& v) { c.messages = tovak_msg_list_create(v, c.msg_ssid_ranges); },
      write_list<tovak_msg_list, &tovak_config::messages, tovak_msg_list_text> },
    { "AdbLogState",   field_layout::spaced_line, read_on_off<&tovak_config::adblog_state>,
      write_on_off<&tovak_config::adblog_state> },
    { "Category",      field_layout::block,
      [](tovak_config& c, const std::string& v) { c.adblog_categories = tovak_config_categories_create(v); },
      write_sequence<uint16_t, &tovak_config::adblog_categories, tovak_config_categories_text> },
    { "AdbSizeInfo",   field_layout::block,
      [](tovak_config& c, const std::string& v) { c.adblog_sizes = tovak_config_sizes_create(v); },
      write_sequence<uint32_t, &tovak_config::adblog_sizes, tovak_config_sizes_text> },
    { "DplState",      field_layout::line,        read_on_off<&tovak_config::dpl_state>,
      write_on_off<&tovak_config::dpl_state> },
    // Written whenever the events are, as the file always has been; a load
    // makes both lists together.
    { "IfIDs",         field_layout::block,
      [](tovak_config& c, const std::string& v) { c.dpl_ifs = tovak_if_list_create(v); },
      [](const tovak_config& c) -> std::optional<std::string> {
          if (!c.events)
              return std::nullopt;
          return c.dpl_ifs ? tovak_if_list_text(*c.dpl_ifs) : std::string();
      } },
};
// clang-format on

void tovak_config_fields_read(tovak_config& c, const std::vector<std::string>& lines)
{
    for (const config_field& f : config_fields)
        f.read(c, element_value(lines, f.name));
}

std::string tovak_config_fields_text(const tovak_config& c)
{
    std::string t = "#KVD Configuration File\n"
                    "#\n"
                    "#history\n"
                    "#ver. 1.2 20120716 rtkan add dpl information\n"
                    "#ver. 1.1 20120521 rtkan add LogState and BufferSize\n"
                    "\n";
    for (const config_field& f : config_fields) {
        const std::optional<std::string> value = f.write(c);
        if (!value)
            continue;
        const std::string name = f.name;
        switch (f.layout) {
        case field_layout::spaced_line:
            t += "\n";
            [[fallthrough]];
        case field_layout::line:
            t += "<" + name + ">" + *value + "</" + name + ">\n";
            break;
        case field_layout::block:
            t += "\n<" + name + ">\n" + *value + "\n</" + name + ">\n";
            break;
        }
    }
    return t;
}
