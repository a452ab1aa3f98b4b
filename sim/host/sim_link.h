// Messages on the SOCK_SEQPACKET links between the host platform libraries
// and tovak-devsim. A diag request is exactly the buffer handed to
// diag_send_wait_rsp (u32 32, for the remote modem then i32 -1, then the
// HDLC frame); its answer is the modem's HDLC-framed response. Library calls
// that are no diag packets travel as a u32 operation code below and its
// arguments; their answer is an i32 result and the operation's data.
// Multi-byte fields are little-endian.
#pragma once

#include <cstdint>

#define SIM_LINK_DIAG_REQUEST 32u

enum sim_link_op : uint32_t {
    SIM_OP_GET_MODE = 0x5301,           // -> mode
    SIM_OP_SWITCH_LOGGING = 0x5302,     // i32 mode -> 1, or 0 for an unknown mode
    SIM_OP_CHANGE_BUFFER_SIZE = 0x5303, // i32 size -> size in force
    SIM_OP_GET_BUFFER_SIZE = 0x5304,    // -> size
    SIM_OP_CHANGE_OUTPUT_PATH = 0x5305, // path text -> 1, or 0 when refused
    SIM_OP_COMMIT = 0x5306,             // -> 1, or 0 when the file cannot be written
    SIM_OP_STOP = 0x5307,               // -> 1
    SIM_OP_GET_RANGE = 0x5308,          // -> 1, data: u32 minimum, u32 maximum
    SIM_OP_HAS_REMOTE = 0x5309,         // -> 1 when the remote modem is attached
    SIM_OP_QMI_GET_DATA = 0x5401,       // u32 kind, u32 index -> unit length, data: u32 unit count, unit
    SIM_OP_QMI_SAVE_BEGIN = 0x5402,     // u32 length, kind name NUL, number NUL -> 1
    SIM_OP_QMI_SAVE_DATA = 0x5403,      // bytes -> 1
    SIM_OP_QMI_SAVE_END = 0x5404,       // -> 1 when stored, 0 when the length did not add up
};

// A QMI save travels in pieces of at most this size.
#define SIM_LINK_CHUNK 65536
// Largest message either side sends.
#define SIM_LINK_MAX_MSG (SIM_LINK_CHUNK + 64)

// Device paths of the links, as seen inside the sandbox.
#define SIM_LINK_DIAG_PATH "/dev/socket/diag"
#define SIM_LINK_QMI_PATH "/dev/socket/qmi_tovak"
#define SIM_LOGDW_PATH "/dev/socket/logdw"
#define SIM_CTL_PATH "/dev/socket/tovak_devsim"

// Data-path logging requests: diag subsystem command 0x4B, subsystem 42.
#define DIAG_SUBSYS_CMD 0x4B
#define DIAG_SUBSYS_DPL 42
enum dpl_code : uint16_t {
    DPL_RESET = 1,
    DPL_LIST_IFACES = 2,
    DPL_IFACE_DESC = 3,
    DPL_SET_IFACE_LOGGING = 4,
};

// A logdw datagram: u8 buffer id, u16 thread id, u32 seconds, u32
// nanoseconds, then the priority byte, the tag with its NUL and the message
// with its NUL. The sender's pid travels as socket credentials.
#define SIM_LOGDW_HEADER 11
