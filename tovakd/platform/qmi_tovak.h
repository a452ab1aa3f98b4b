// QMI interface library (libtovakqmiif).
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

int qmi_tovak_init(void);
// Stores a malloc'd unit in *data (the caller frees it) and the unit count in
// *unit_count (0 when no further unit follows); returns the unit's length.
int qmi_tovak_get_data(uint32_t kind, void** data, uint32_t index, uint32_t* unit_count);
int qmi_tovak_save_log(const char* kind_name, const void* data, uint32_t len, const char* number);
int qmi_tovak_deinit(void);

#ifdef __cplusplus
}
#endif
