// Android system properties (libcutils).
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

// Copies the value (or default_value when unset) into value, which holds
// PROPERTY_VALUE_MAX bytes; returns the length copied.
int property_get(const char* key, char* value, const char* default_value);

// 0 on success, negative on failure.
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
