// Writing files so that a crash, a kill or a full disk at any moment leaves
// either the old file or the new one, whole.
#pragma once

#include <cstddef>
#include <functional>

// Writes all n bytes, through interruptions and short writes.
bool tovak_write_all(int fd, const void* data, size_t n);

// Replaces path (a link: its target) with what fill writes to the descriptor
// it is given: a temporary file beside it, synced and renamed into place,
// then the directory synced. An existing file keeps its owner and mode; a
// new one gets mode 0666. False, with path untouched, when any step fails.
bool tovak_file_replace(const char* path, const std::function<bool(int fd)>& fill);
