// The item sets: the add, remove and get operations that commands use on the
// configuration record. None of them writes the file.
#include <cstdlib>

#include "config/tovak_config.h"

// Copies items into a fresh malloc'd array that the caller frees.
template <typename T, typename Items, typename Convert>
static int copy_out(const Items& items, T** out, int* count, Convert convert)
{
    auto* array = static_cast<T*>(malloc(items.size() * sizeof(T)));
    if (array == nullptr)
        return -1;
    size_t i = 0;
    for (const auto& item : items)
        array[i++] = convert(item);
    *out = array;
    *count = int(items.size());
    return 0;
}

template <typename T, typename Items>
static int copy_out(const Items& items, T** out, int* count)
{
    return copy_out(items, out, count, [](const auto& item) { return T(item); });
}

// ids is null when no configuration is loaded.
static int get_ids(const std::set<uint16_t>* ids, uint16_t** out, int* count)
{
    if (out == nullptr || count == nullptr)
        return -1;
    *count = -1;
    if (ids == nullptr)
        return -1;
    return copy_out(*ids, out, count);
}

static int add_id(std::set<uint16_t>* ids, uint32_t id)
{
    if (ids == nullptr)
        return -1;
    ids->insert(uint16_t(id));
    return 0;
}

static int rm_id(std::set<uint16_t>* ids, uint32_t id)
{
    if (ids == nullptr)
        return -1;
    ids->erase(uint16_t(id));
    return 0;
}

// The add, remove and get of one ordered id set; set (an expression over
// the locked record c) is null before the first load.
#define TOVAK_CONFIG_ID_SET(item, set)                                 \
    int tovak_config_add_##item##_locked(tovak_config& c, uint32_t id) \
    {                                                                  \
        return add_id(set, id);                                        \
    }                                                                  \
    int tovak_config_rm_##item##_locked(tovak_config& c, uint32_t id)  \
    {                                                                  \
        return rm_id(set, id);                                         \
    }                                                                  \
    int tovak_config_add_##item(uint32_t id)                           \
    {                                                                  \
        tovak_config_locked lock;                                      \
        return tovak_config_add_##item##_locked(*lock, id);            \
    }                                                                  \
    int tovak_config_rm_##item(uint32_t id)                            \
    {                                                                  \
        tovak_config_locked lock;                                      \
        return tovak_config_rm_##item##_locked(*lock, id);             \
    }                                                                  \
    int tovak_config_get_##item##s(uint16_t** ids, int* count)         \
    {                                                                  \
        tovak_config_locked lock;                                      \
        tovak_config& c = *lock;                                       \
        return get_ids(set, ids, count);                               \
    }

TOVAK_CONFIG_ID_SET(event, c.events ? &c.events->ids : nullptr)
TOVAK_CONFIG_ID_SET(log, c.log_codes ? &c.log_codes->codes : nullptr)
TOVAK_CONFIG_ID_SET(dpl_if, c.dpl_ifs ? &c.dpl_ifs->ids : nullptr)

int tovak_config_add_msg_locked(tovak_config& c, uint32_t ssid, uint32_t mask)
{
    if (!c.messages)
        return -1;
    c.messages->masks[uint16_t(ssid)] = mask;
    return 0;
}

int tovak_config_rm_msg_locked(tovak_config& c, uint32_t ssid)
{
    if (!c.messages)
        return -1;
    c.messages->masks.erase(uint16_t(ssid));
    return 0;
}

int tovak_config_add_msg(uint32_t ssid, uint32_t mask)
{
    tovak_config_locked lock;
    return tovak_config_add_msg_locked(*lock, ssid, mask);
}

int tovak_config_rm_msg(uint32_t ssid)
{
    tovak_config_locked lock;
    return tovak_config_rm_msg_locked(*lock, ssid);
}

int tovak_config_get_msgs(tovak_msg_entry** entries, int* count)
{
    if (entries == nullptr || count == nullptr)
        return -1;
    *count = -1;
    tovak_config_locked c;
    if (!c->messages)
        return -1;
    return copy_out(c->messages->masks, entries, count, [](const std::pair<const uint16_t, uint32_t>& entry) {
        return tovak_msg_entry{ entry.first, entry.second };
    });
}

// A copy of a sequence; fails only when the copy can't be allocated.
template <typename T>
static int get_sequence(const std::vector<T>& items, T** values, int* count)
{
    if (values == nullptr || count == nullptr)
        return -1;
    *count = -1;
    return copy_out(items, values, count);
}

template <typename T>
static int set_sequence(std::vector<T>* items, const T* values, int count)
{
    if (count < 0 || (values == nullptr && count > 0))
        return -1;
    items->assign(values, values + count);
    return 0;
}

int tovak_config_get_adblog_categories(uint16_t** values, int* count)
{
    tovak_config_locked c;
    return get_sequence(c->adblog_categories, values, count);
}

int tovak_config_set_adblog_categories_locked(tovak_config& c, const uint16_t* values, int count)
{
    return set_sequence(&c.adblog_categories, values, count);
}

int tovak_config_set_adblog_categories(const uint16_t* values, int count)
{
    tovak_config_locked lock;
    return tovak_config_set_adblog_categories_locked(*lock, values, count);
}

int tovak_config_get_adblog_sizes(uint32_t** values, int* count)
{
    tovak_config_locked c;
    return get_sequence(c->adblog_sizes, values, count);
}

int tovak_config_set_adblog_sizes(const uint32_t* values, int count)
{
    tovak_config_locked c;
    return set_sequence(&c->adblog_sizes, values, count);
}

int tovak_config_set_adblog_size_locked(tovak_config& c, uint32_t index, uint32_t size)
{
    if (index >= c.adblog_sizes.size())
        return -1;
    c.adblog_sizes[index] = size;
    return 0;
}

int tovak_config_set_adblog_size(uint32_t index, uint32_t size)
{
    tovak_config_locked lock;
    return tovak_config_set_adblog_size_locked(*lock, index, size);
}

// Plain stores and loads, under the lock so that a reader never sees a field
// that a concurrent load is replacing.
#define TOVAK_CONFIG_STATE(field)                \
    int tovak_config_set_##field(uint32_t value) \
    {                                            \
        tovak_config_locked c;                   \
        c->field = value;                        \
        return 0;                                \
    }                                            \
    uint32_t tovak_config_get_##field()          \
    {                                            \
        tovak_config_locked c;                   \
        return c->field;                         \
    }

TOVAK_CONFIG_STATE(log_state)
TOVAK_CONFIG_STATE(dpl_state)
TOVAK_CONFIG_STATE(buffer_size)
TOVAK_CONFIG_STATE(adblog_state)
