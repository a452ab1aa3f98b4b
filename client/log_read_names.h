// Names of diag log codes and event ids, from public descriptions of the
// formats; null where we know none.
#pragma once

#include <cstdint>

const char* lr_code_name(uint16_t code);
const char* lr_event_name(uint16_t id);
