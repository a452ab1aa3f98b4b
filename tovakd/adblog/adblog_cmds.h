// Android log capture commands and their start-up.
#pragma once

#include "common/tovak_cmd.h"

// Starts the capture core after the configured state, categories and sizes;
// sets adblog_handler_initialized when the core is up. 1 always.
uint32_t adblog_handler_init();

TOVAK_HANDLER(adblog_on);
TOVAK_HANDLER(adblog_off);
TOVAK_HANDLER(adblog_commit);
TOVAK_HANDLER(adblog_get_state);
TOVAK_HANDLER(adblog_add_category);
TOVAK_HANDLER(adblog_rm_category);
TOVAK_HANDLER(adblog_get_categories);
TOVAK_HANDLER(adblog_set_categories);
TOVAK_HANDLER(adblog_get_category_name);
TOVAK_HANDLER(adblog_set_size_with_cat);
TOVAK_HANDLER(adblog_get_size_with_cat);
TOVAK_HANDLER(adblog_get_size_limits);
