// What the library's own folders use of the resizer beyond the exported calls.
#ifndef KIVO_XELO_INT_H
#define KIVO_XELO_INT_H

#include "xelo.h"

namespace xelo {

// Source rows [*first, *first + *count) that destination index j reads on an
// axis of src source and dst destination samples.
void irsz_taps(int32_t src, int32_t dst, int32_t j, int32_t *first, int32_t *count);

// Bytes a resizer of these sizes allocates.
uint64_t irsz_bytes(int32_t src_w, int32_t src_h, int32_t dst_w, int32_t dst_h);

// A resizer of the whole plane the description gives that writes only the
// destination lines [out_first, out_first + out_n) and is fed from source
// row row0 on. Those lines come out exactly as a resizer fed from row 0
// writes them, provided row0 is at or above the first row they read.
xelo_irsz_t *irsz_create_window(const xelo_irsz_desc *desc, int32_t src_stride, int32_t src_h,
                                int32_t out_first, int32_t out_n, int32_t row0);

}  // namespace xelo

#endif
