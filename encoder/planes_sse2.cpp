// Bit planes of a block's AC levels, SSE2: the level bytes put in zig-zag
// order one by one.
#include "encoder/enc_simd.h"
#include "common/nonzero.h"
#include "encoder/planes_x86.h"

uint32_t kivoe_planes_sse2(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc) {
    __m128i bad = _mm_setzero_si128();
    for (int32_t b = 0; b < n; ++b, blk += 64) {
        alignas(16) uint8_t code[64], zz[64];
        __m128i c[4];
        level_bytes(blk, c, bad);
        for (int32_t r = 0; r < 4; ++r) _mm_store_si128(reinterpret_cast<__m128i *>(code + 16 * r), c[r]);
        for (int32_t z = 0; z < 64; ++z) zz[z] = code[kivo_nz::kZigToRas.z[z]];
        __m128i q[4];
        for (int32_t i = 0; i < 4; ++i) q[i] = _mm_load_si128(reinterpret_cast<const __m128i *>(zz + 16 * i));
        planes_of(q, out + b, kivoe_corr_bits);
        dc[b] = blk[0];
    }
    return any_lane(bad);
}
