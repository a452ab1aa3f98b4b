// File helpers shared by the simulator, the host libraries and the launcher.
#pragma once

#include <cstddef>
#include <string>

// Creates path and its missing parents (mode 0755); true when it ends up a
// directory.
bool sim_make_dirs(const std::string& path);
// Writes all n bytes, retrying interrupted writes; false on failure.
bool sim_write_all(int fd, const void* data, size_t n);
