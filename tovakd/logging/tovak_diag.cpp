#include "logging/tovak_diag.h"

#include <cstdlib>
#include <cstring>

#include "common/tovak_log.h"

#define LOG_MODULE "tovak_handler"

#define DIAG_HDLC_FLAG 0x7e
// CRC and closing flag, which the decoder copies along.
#define DIAG_HDLC_TRAILER 3

static void put_word(uint8_t* at, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        at[i] = uint8_t(v >> (8 * i));
}

int tovak_hdlc_encode_frame(const uint8_t* pkt, uint32_t len, uint8_t* buf, uint32_t size, bool remote)
{
    const uint32_t header = remote ? 8 : 4;
    if (pkt == nullptr || len == 0 || buf == nullptr || size <= header)
        return -1;
    memset(buf, 0, size);
    put_word(buf, DIAG_DATA_TYPE_REQUEST);
    if (remote)
        put_word(buf + 4, uint32_t(DIAG_REMOTE_PROC_ID));

    diag_send_desc_type send = { pkt, pkt + len - 1, 0, 1 };
    diag_hdlc_dest_type dest = { buf + header, buf + size - 1 };
    diag_hdlc_encode(&send, &dest);

    // The header words hold no flag byte, so the first flag closes the frame.
    for (uint32_t i = 0; i < size; i++) {
        if (buf[i] == DIAG_HDLC_FLAG)
            return int(i + 1);
    }
    return -1;
}

// Unframes the answer into buf and copies its payload (CRC and flag
// dropped) over the answer's data; false when it can't be unframed.
static bool unframe(diag_rsp_type* rsp, uint8_t* buf)
{
    diag_hdlc_decode_type hdlc = { rsp->data, 0, rsp->length, buf, 0, TOVAK_DIAG_BUFFER_SIZE, 0 };
    if (diag_hdlc_decode(&hdlc) == 0) {
        TLOG("Critical Error: bad ret for hdlc decode\n");
        return false;
    }
    if (hdlc.dest_idx < DIAG_HDLC_TRAILER || hdlc.dest_idx > TOVAK_DIAG_BUFFER_SIZE)
        return false;
    const uint32_t payload = hdlc.dest_idx - DIAG_HDLC_TRAILER;
    if (payload > rsp->length)
        return false;
    rsp->length = payload;
    memcpy(rsp->data, buf, payload);
    return true;
}

int tovak_diag_query(const uint8_t* pkt, uint32_t len, std::vector<uint8_t>* out)
{
    if (pkt == nullptr || len == 0)
        return 0;
    uint8_t buf[TOVAK_DIAG_BUFFER_SIZE];
    int frame_len = tovak_hdlc_encode_frame(pkt, len, buf, sizeof buf);
    if (frame_len < 0)
        return 0;

    const int mode = diag_get_mode();
    if (mode != DIAG_MODE_MEMORY)
        diag_switch_logging(DIAG_MODE_MEMORY);
    diag_rsp_type* rsp = diag_send_wait_rsp(buf, frame_len, 1, pkt);
    if (mode != DIAG_MODE_MEMORY)
        diag_switch_logging(mode);
    if (rsp == nullptr)
        return 0;
    const bool ok = unframe(rsp, buf);
    if (ok)
        out->insert(out->end(), rsp->data, rsp->data + rsp->length);
    // Plain free, unlike the request routines: the library hands out the
    // answer as one block.
    free(rsp);
    return ok ? 1 : 0;
}

static diag_rsp_type* request(const uint8_t* pkt, uint32_t len, bool remote)
{
    if (pkt == nullptr || len == 0) {
        TLOG_ERR("diag request without a packet");
        return nullptr;
    }
    if (remote)
        TLOG("Proc encode MDM\n");
    uint8_t buf[TOVAK_DIAG_BUFFER_SIZE];
    int frame_len = tovak_hdlc_encode_frame(pkt, len, buf, sizeof buf, remote);
    if (frame_len < 0) {
        TLOG_ERR("diag request too long for a frame");
        return nullptr;
    }
    diag_rsp_type* rsp = diag_send_wait_rsp(buf, frame_len, 1, pkt);
    if (rsp == nullptr) {
        TLOG_ERR("no answer from the modem");
        return nullptr;
    }
    if (!unframe(rsp, buf)) {
        TLOG_ERR("modem answer not a valid frame");
        diag_free_rsp(rsp);
        return nullptr;
    }
    return rsp;
}

diag_rsp_type* tovak_diag_request(const uint8_t* pkt, uint32_t len)
{
    return request(pkt, len, false);
}

diag_rsp_type* tovak_diag_request_mdm(const uint8_t* pkt, uint32_t len)
{
    return request(pkt, len, true);
}
