// Android log capture: one thread per log device under /dev/log/ copying
// into a capture file object while capture and its category are on.
#pragma once

#include <atomic>
#include <cstdint>

#include "protocol/tovak_layouts.h"

#define ADBLOG_MAX_CATEGORIES TOVAK_CAPTURE_CATEGORY_MAX
#define ADBLOG_SIZE_MIN TOVAK_CAPTURE_SIZE_MIN
#define ADBLOG_SIZE_MAX TOVAK_CAPTURE_SIZE_MAX
#define ADBLOG_DEFAULT_SIZE 10000000
#define ADBLOG_NAME_SIZE 50

// 1 done, 0 failed (already initialised, or out of memory).
int adblog_core_init();
void adblog_core_set_state(int state);
// The capture state, or 0 if not initialised.
int adblog_core_get_state();
// 1, or 0 when not initialised or the category is out of range.
int adblog_core_set_category_state(int category, int state);
// The live enable bytes (not a copy) and their count; 1, or 0 if not
// initialised.
int adblog_core_get_categories(const std::atomic<uint8_t>** enabled, int* count);
// Comma-separated names into a destination the caller zeroed; 1, or 0.
int adblog_core_get_category_names(char* dest);
// Size in bytes, or 0 when not initialised or out of range.
int adblog_core_get_size(int category);
// Clamps and stores; the size now in force, or 0.
int adblog_core_set_size(int category, int size);
void adblog_core_get_size_limits(int* min, int* max);
// The next commit's directory (at most 49 characters); 1, or 0.
int adblog_core_set_output_path(const char* dir);
// Commits every enabled category; 1 done, 0 refused or failed.
int adblog_core_commit();
