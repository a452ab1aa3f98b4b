#include "log_read_names.h"

#include <cstddef>

namespace {

struct Named {
    uint16_t id;
    const char* name;
};

// clang-format off
const Named CODES[] = {
    { 0x11EB, "Data path packet (DPL)" },
    { 0x412F, "WCDMA signalling message" },
    { 0x713A, "UMTS NAS message" },
    { 0xB0C0, "LTE RRC over-the-air message" },
    { 0xB0C1, "LTE RRC MIB" },
    { 0xB0C2, "LTE RRC serving cell" },
    { 0xB0E2, "LTE NAS ESM plain message, incoming" },
    { 0xB0E3, "LTE NAS ESM plain message, outgoing" },
    { 0xB0EC, "LTE NAS EMM plain message, incoming" },
    { 0xB0ED, "LTE NAS EMM plain message, outgoing" },
    { 0xB061, "LTE MAC random access trigger" },
    { 0xB062, "LTE MAC random access attempt" },
    { 0xB167, "LTE random access preamble (Msg1)" },
    { 0xB168, "LTE random access response (Msg2)" },
    { 0xB169, "LTE UE identification (Msg3)" },
    { 0xB16A, "LTE contention resolution (Msg4)" },
    { 0xB193, "LTE serving cell measurement" },
};

const Named EVENTS[] = {
    { 1498, "LTE timing advance" },           { 1499, "LTE uplink out of sync" },
    { 1500, "LTE SPS deactivated" },          { 1501, "LTE random access start" },
    { 1502, "LTE random access RAID match" }, { 1503, "LTE random access result" },
    { 1605, "LTE RRC timer status" },         { 1606, "LTE RRC state change" },
    { 1607, "LTE RRC out of service" },       { 1608, "LTE RRC radio link failure" },
    { 1609, "LTE RRC downlink message" },     { 1610, "LTE RRC uplink message" },
    { 1611, "LTE RRC new cell" },             { 1612, "LTE RRC reselection failure" },
    { 1613, "LTE RRC handover failure" },     { 1614, "LTE RRC paging DRX cycle" },
    { 1685, "LTE ML1 state change" },         { 1966, "LTE EMM message, incoming" },
    { 1967, "LTE EMM message, outgoing" },    { 1968, "LTE ESM message, incoming" },
    { 1969, "LTE ESM message, outgoing" },    { 1970, "LTE RRC PLMN search start" },
    { 1971, "LTE RRC PLMN search stop" },     { 1972, "LTE RRC background to foreground PLMN search" },
};
// clang-format on

template <size_t N>
const char* find(const Named (&table)[N], uint16_t id)
{
    for (const Named& n : table)
        if (n.id == id)
            return n.name;
    return nullptr;
}

} // namespace

const char* lr_code_name(uint16_t code)
{
    return find(CODES, code);
}

const char* lr_event_name(uint16_t id)
{
    return find(EVENTS, id);
}
