// The whitelisted shell diagnostics.
#pragma once

#include <cstddef>

#define SYSTEM_COMMAND_WHITELIST_SIZE 20
extern const char* const SYSTEM_COMMAND_WHITELIST[SYSTEM_COMMAND_WHITELIST_SIZE];

// Position of the first prefix that text begins with, or -1.
int tovak_system_command_match(const char* text);

// Id of the first process under /proc whose executable path contains name,
// or 0.
int getProcessID(const char* name);
