// Progressive frames: scans into whole-picture coefficient buffers, and
// reconstruction once the last scan has arrived.
#include "decoder/kivod_int.h"

int32_t kivod_dec_scan_prog(kivod_ctx *, int32_t *) { return KIVO_ERR_UNSUPPORTED; }
int32_t kivod_finish_prog(kivod_ctx *) { return KIVO_ERR_UNSUPPORTED; }
int32_t kivod_dec_pic_prog(kivod_ctx *, kivod_work *) { return KIVO_ERR_UNSUPPORTED; }
