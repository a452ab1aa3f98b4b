// Commands that choose and report the configuration file.
#pragma once

#include "common/tovak_cmd.h"

TOVAK_HANDLER(handler_set_config_file);
TOVAK_HANDLER(handler_get_config_file);
