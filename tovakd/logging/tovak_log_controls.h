// Modem log buffer size, output path, commit and status commands.
#pragma once

#include <cstddef>

// The output path as the daemon keeps it: at most 99 characters and a zero.
#define TOVAK_OUT_PATH_SIZE 100

// The Android log capture directory that goes with a modem log output path:
// the path up to its last '/', then "/"; "//" for a path without one. 1, or
// 0 for a path of 6 or more '/' characters. dir holds TOVAK_OUT_PATH_SIZE.
int tovak_capture_dir_for(const char* out_path, char* dir, size_t size);
