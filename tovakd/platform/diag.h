// Qualcomm diag library (libdiagdm) and its data-path logging extension
// (libdiagdpl).
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Data-type word that leads every buffer handed to diag_send_wait_rsp.
#define DIAG_DATA_TYPE_REQUEST 32
// Second leading word that addresses the remote (MDM) modem.
#define DIAG_REMOTE_PROC_ID (-1)

// Logging modes for diag_switch_logging.
#define DIAG_MODE_USB 1
#define DIAG_MODE_MEMORY 2

// Encoder input: the raw packet from pkt to last inclusive.
struct diag_send_desc_type {
    const void* pkt;
    const void* last;
    int state;
    int terminate;
};

// Encoder output area from dest to dest_last inclusive.
struct diag_hdlc_dest_type {
    void* dest;
    void* dest_last;
};

struct diag_hdlc_decode_type {
    uint8_t* src_ptr;
    unsigned int src_idx;
    unsigned int src_size;
    uint8_t* dest_ptr;
    unsigned int dest_idx;
    unsigned int dest_size;
    int escaping;
};

// Answer to a request; released with diag_free_rsp.
struct diag_rsp_type {
    uint32_t length;
    uint8_t* data;
};

int diag_init(void);
int diag_get_mode(void);
int diag_switch_logging(int mode);

// Escapes the packet, appends the CRC and the closing flag, and advances
// src->pkt and dest->dest past what was consumed and produced.
void diag_hdlc_encode(struct diag_send_desc_type* src, struct diag_hdlc_dest_type* dest);
// Unescapes from src into dest; returns non-zero when a whole frame with a
// valid CRC was decoded.
int diag_hdlc_decode(struct diag_hdlc_decode_type* hdlc);

// Sends one framed request and waits for its answer; NULL on time-out or
// link failure.
struct diag_rsp_type* diag_send_wait_rsp(const void* buf, int len, int wait, const void* pkt);
void diag_free_rsp(struct diag_rsp_type* rsp);

int diag_has_remote_device(uint16_t* remote);

// Returns the size in force, 0 on failure.
int diag_change_buffer_size(int size);
int diag_get_buffer_size(void);
// Returns 0 on failure.
int diag_change_output_path(const char* path);
int diag_commit_log(void);
int diag_stop_logging(void);
int diag_get_range(uint32_t* first, uint32_t* second);

// Supported interfaces: a count, then up to 100 one-byte ids.
#define DIAG_DPL_MAX_IFACES 100
struct diag_dpl_iface_list {
    uint32_t count;
    uint8_t ids[DIAG_DPL_MAX_IFACES];
};

// One byte, then the description, NUL-terminated within 100 bytes.
#define DIAG_DPL_DESC_SIZE 100
struct diag_dpl_iface_desc {
    uint8_t ifid;
    char desc[DIAG_DPL_DESC_SIZE];
};

// The interface logging record given to diag_dpl_set_iface_logging: u8 id,
// u8 entry count, then from byte 8 the entries of 16 bytes (u32 kind, u8 id,
// a zero byte, u8 variant); the last entry's final 4 bytes fall outside.
#define DIAG_DPL_IFACE_RECORD_SIZE 68
#define DIAG_DPL_RECORD_ENTRIES 4
#define DIAG_DPL_ENTRY_OFFSET 8
#define DIAG_DPL_ENTRY_SIZE 16

int diag_dpl_init(void);
int diag_dpl_reset_logging(void);
int diag_dpl_set_iface_logging(const void* record, void* rsp, int rsp_len, uint8_t ifid);
int diag_dpl_set_iface_logging_with_ifid(uint8_t ifid);
int diag_dpl_get_supported_ifaces(struct diag_dpl_iface_list* list);
int diag_dpl_get_iface_desc(uint8_t ifid, struct diag_dpl_iface_desc* desc);

#ifdef __cplusplus
}
#endif
