// Modem logging state, start-up and the logging commands.
#include "handlers/tovak_handler.h"

#include "config/tovak_config.h"
#include "daemon/tovak_log.h"

#define LOG_MODULE "tovak_handler"

uint8_t tovak_handler_initialized;

// Placeholder until the modem logging initialisation exists: it only opens
// the gate so that commands such as the shell diagnostics can run.
uint32_t tovak_handler_init()
{
    tovak_config_init();
    TLOG("tovak handler is initialized successfully\n");
    tovak_handler_initialized = 1;
    return 1;
}

TOVAK_HANDLER_NOT_BUILT(handler_log_on)
TOVAK_HANDLER_NOT_BUILT(handler_log_off)
TOVAK_HANDLER_NOT_BUILT(handler_log_size)
TOVAK_HANDLER_NOT_BUILT(handler_out_path)
TOVAK_HANDLER_NOT_BUILT(handler_commit_log)
TOVAK_HANDLER_NOT_BUILT(handler_get_buffer_size)
TOVAK_HANDLER_NOT_BUILT(handler_get_log_state)
TOVAK_HANDLER_NOT_BUILT(handler_get_range)
