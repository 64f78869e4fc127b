// Bit planes of a block's AC levels, AVX2 machines.
#include "encoder/enc_simd.h"
#include "encoder/planes_shuffle.h"

uint32_t kivoe_planes_avx2(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc) {
    return planes_rows(blk, n, out, dc, kivoe_corr_bits);
}
