// Modem logging state, start-up and the logging commands.
#include "handlers/tovak_handler.h"

#include "logging/tovak_logging.h"

#include "config/tovak_config.h"
#include "daemon/tovak_log.h"

#define LOG_MODULE "tovak_handler"

uint8_t tovak_handler_initialized;
std::atomic<int32_t> tovak_log_state{ LOG_STATE_IDLE };

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
