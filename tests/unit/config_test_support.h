// Shared by the configuration tests: the record is process-wide, so each
// test starts from a zeroed one.
#pragma once

#include "config/tovak_config.h"

// Back to the state before the first load, file name and modem ranges included.
inline void reset_config()
{
    tovak_config_locked c;
    *c = tovak_config{};
    c.file_name()[0] = '\0';
}

// The first six lines of every file the daemon writes.
#define CONFIG_FILE_HEAD                                        \
    "#KVD Configuration File\n#\n#history\n"                    \
    "#ver. 1.2 20120716 rtkan add dpl information\n"            \
    "#ver. 1.1 20120521 rtkan add LogState and BufferSize\n\n"

// The default configuration as the daemon writes it.
inline const char* const DEFAULT_CONFIG_FILE_TEXT =
    CONFIG_FILE_HEAD
    "<LogState>off</LogState>\n<BufferSize>50000000</BufferSize>\n"
    "\n<EventIDs>\n"
    "01498, 01499, 01501, 01503, 01606, 01607, 01608, 01611, 01612, 01613, 01685, 01970, 01971, 01972\n"
    "</EventIDs>\n"
    "\n<LogCodes>\n"
    "0x412f, 0x713f, 0x7140, 0x7143, 0x7144, 0xb061, 0xb062, 0xb0c0, 0xb0e2, 0xb0e3, 0xb0ec, 0xb0ed, 0xb167, "
    "0xb168, 0xb169, 0xb16a\n"
    "</LogCodes>\n"
    "\n<MessageLevels>\n"
    "00005/03,00005/04,00015/03,00015/04,00020/03,00020/04,03006/03,03006/04,03007/03,03007/04,03008/03,03008/04,"
    "03010/03,03010/04\n"
    "</MessageLevels>\n"
    "\n<AdbLogState>off</AdbLogState>\n"
    "\n<Category>\n1,1,0,1\n</Category>\n"
    "\n<AdbSizeInfo>\n10000000,10000000,5000000,20000000\n</AdbSizeInfo>\n"
    "<DplState>off</DplState>\n"
    "\n<IfIDs>\n1, 15, 19\n</IfIDs>\n";
