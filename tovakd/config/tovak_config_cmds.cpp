// Commands that choose and report the configuration file.
#include "handlers/tovak_handler.h"

TOVAK_HANDLER_NOT_BUILT(handler_set_config_file)
TOVAK_HANDLER_NOT_BUILT(handler_get_config_file)
