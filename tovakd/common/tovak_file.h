// Writing files so that a crash, a kill or a full disk at any moment leaves
// either the old file or the new one, whole, and so that nothing a client
// plants beside the file or names instead of it is written through.
#pragma once

#include <cstddef>
#include <functional>

// Writes all n bytes, through interruptions and short writes.
bool tovak_write_all(int fd, const void* data, size_t n);

// Replaces path with what fill writes to the descriptor it is given: a
// temporary file beside it, created exclusively (under a random name where
// the usual one is taken), synced and renamed into place, then the directory
// synced. An existing file keeps its
// owner and mode; a new one gets mode 0666. Only a regular file is replaced:
// a link (never followed), a socket, a FIFO, a device or a directory at path
// fails the call. False, with path untouched, when any step fails. Saves to
// one path must not overlap: each clears the temporary files that earlier
// ones, cut short, left there.
bool tovak_file_replace(const char* path, const std::function<bool(int fd)>& fill);

// As tovak_file_replace, where nothing is at path: whatever is there, or
// appears while fill runs, is kept and the call fails.
bool tovak_file_create(const char* path, const std::function<bool(int fd)>& fill);
