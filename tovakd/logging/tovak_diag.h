// Raw diag requests to the modem, HDLC-framed through the diag library.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/diag.h"

#define TOVAK_DIAG_BUFFER_SIZE 1024

// Frames pkt behind the data-type word (and the remote address word when
// remote) in buf; returns the frame's length from the start of buf, closing
// flag included, or -1.
int tovak_hdlc_encode_frame(const uint8_t* pkt, uint32_t len, uint8_t* buf, uint32_t size, bool remote = false);

// For the information queries: runs in mode 2 whatever the mode was, and
// appends the unframed answer to out. 1 on success, 0 on failure.
int tovak_diag_query(const uint8_t* pkt, uint32_t len, std::vector<uint8_t>* out);

// For the mask and control requests, to the local or the remote modem: the
// answer unframed in place, released by the caller with diag_free_rsp; or
// null.
diag_rsp_type* tovak_diag_request(const uint8_t* pkt, uint32_t len);
diag_rsp_type* tovak_diag_request_mdm(const uint8_t* pkt, uint32_t len);
