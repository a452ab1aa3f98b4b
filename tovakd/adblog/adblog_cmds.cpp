// Android log capture commands and their start-up.
#include "handlers/tovak_handler.h"

#include "daemon/tovak_log.h"

#define LOG_MODULE "tovak_handler"

uint8_t adblog_handler_initialized;

// Placeholder until the capture core exists: the capture commands stay
// refused because adblog_handler_initialized is never set.
uint32_t adblog_handler_init()
{
    TLOG("adblog_handler_init()\n");
    return 1;
}

TOVAK_HANDLER_NOT_BUILT(adblog_on)
TOVAK_HANDLER_NOT_BUILT(adblog_off)
TOVAK_HANDLER_NOT_BUILT(adblog_commit)
TOVAK_HANDLER_NOT_BUILT(adblog_get_state)
TOVAK_HANDLER_NOT_BUILT(adblog_add_category)
TOVAK_HANDLER_NOT_BUILT(adblog_rm_category)
TOVAK_HANDLER_NOT_BUILT(adblog_get_categories)
TOVAK_HANDLER_NOT_BUILT(adblog_set_categories)
TOVAK_HANDLER_NOT_BUILT(adblog_get_category_name)
TOVAK_HANDLER_NOT_BUILT(adblog_set_size_with_cat)
TOVAK_HANDLER_NOT_BUILT(adblog_get_size_with_cat)
TOVAK_HANDLER_NOT_BUILT(adblog_get_size_limits)
