// Every device path the daemon uses, exactly as on the phone.
#pragma once

// The client socket is part of the protocol: TOVAK_SOCKET_PATH in protocol/tovak_pkt.h.

// Factory files copied to their user locations when those are missing.
#define TOVAK_USER_CONFIG_FILE "/data/media/0/dm.cfg"
#define TOVAK_FACTORY_CONFIG_FILE "/system/etc/dm.cfg"
#define TOVAK_USER_EVENT_ID_FILE "/data/local/EventID.txt"
#define TOVAK_FACTORY_EVENT_ID_FILE "/system/etc/EventID.txt"
#define TOVAK_USER_LOG_ITEM_FILE "/data/local/LogItem.txt"
#define TOVAK_FACTORY_LOG_ITEM_FILE "/system/etc/LogItem.txt"
#define TOVAK_USER_MESSAGE_LEVEL_FILE "/data/local/MessageLevel.txt"
#define TOVAK_FACTORY_MESSAGE_LEVEL_FILE "/system/etc/MessageLevel.txt"

// The configuration file saved to when the property names none.
#define TOVAK_DEFAULT_CONFIG_FILE "/sdcard/dm.cfg"

#define TOVAK_LOG_DEVICE_DIR "/dev/log/"
#define TOVAK_DEV_DIR "/dev/"
#define TOVAK_CAPTURE_OUTPUT_DIR "/sdcard/syslog/"
#define TOVAK_PROC_DIR "/proc/"
