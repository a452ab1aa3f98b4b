// Modem data save, subscriber number and the autosave property.
#include "handlers/tovak_handler.h"

TOVAK_HANDLER_NOT_BUILT(handler_set_autosave)
TOVAK_HANDLER_NOT_BUILT(handler_save_modem_data)
TOVAK_HANDLER_NOT_BUILT(handler_set_msisdn)
TOVAK_HANDLER_NOT_BUILT(handler_get_autosave)
