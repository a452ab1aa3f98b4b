// Modem log buffer size, output path, commit and status commands.
#include "handlers/tovak_handler.h"

TOVAK_HANDLER_NOT_BUILT(handler_log_size)
TOVAK_HANDLER_NOT_BUILT(handler_out_path)
TOVAK_HANDLER_NOT_BUILT(handler_commit_log)
TOVAK_HANDLER_NOT_BUILT(handler_get_buffer_size)
TOVAK_HANDLER_NOT_BUILT(handler_get_log_state)
TOVAK_HANDLER_NOT_BUILT(handler_get_range)
