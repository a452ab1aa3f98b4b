// Event, log-code and message-level commands.
#include "handlers/tovak_handler.h"

TOVAK_HANDLER_NOT_BUILT(handler_add_event)
TOVAK_HANDLER_NOT_BUILT(handler_rm_event)
TOVAK_HANDLER_NOT_BUILT(handler_get_events)
TOVAK_HANDLER_NOT_BUILT(handler_add_log)
TOVAK_HANDLER_NOT_BUILT(handler_rm_log)
TOVAK_HANDLER_NOT_BUILT(handler_get_logs)
TOVAK_HANDLER_NOT_BUILT(handler_add_msg)
TOVAK_HANDLER_NOT_BUILT(handler_rm_msg)
TOVAK_HANDLER_NOT_BUILT(handler_get_msg)
