// Bit planes of a block's AC levels, SSE2: one byte a level holds all its
// plane bits; the bytes are put in zig-zag order one by one, and each plane
// is then one byte-mask extraction.
#include <emmintrin.h>

#include "encoder/enc_simd.h"
#include "common/nonzero.h"

namespace {

// The level bytes in raster order: bits 0 to 2 clear where |level| >> 0, 1,
// 2 is not zero; 3 and 4 bits 0 and 1 of |level|; 5 the sign.
// Lanes of bad turn non-zero where |level| of an AC level exceeds 1023.
inline void level_bytes(const int16_t *blk, __m128i code[4], __m128i &bad) {
    const __m128i top = _mm_set1_epi16(1023), not_dc = _mm_set_epi16(-1, -1, -1, -1, -1, -1, -1, 0);
    const __m128i zero = _mm_setzero_si128(), three16 = _mm_set1_epi16(3);
    const __m128i b0 = _mm_set1_epi8(1), b1 = _mm_set1_epi8(2), b2 = _mm_set1_epi8(4), b5 = _mm_set1_epi8(32);
    const __m128i three = _mm_set1_epi8(3);
    for (int32_t r = 0; r < 4; ++r) {
        const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(blk + 16 * r));
        const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(blk + 16 * r + 8));
        const __m128i s0 = _mm_srai_epi16(v0, 15), s1 = _mm_srai_epi16(v1, 15);
        const __m128i a0 = _mm_sub_epi16(_mm_xor_si128(v0, s0), s0), a1 = _mm_sub_epi16(_mm_xor_si128(v1, s1), s1);
        const __m128i over0 = _mm_subs_epu16(a0, top);
        bad = _mm_or_si128(bad, _mm_or_si128(r ? over0 : _mm_and_si128(over0, not_dc), _mm_subs_epu16(a1, top)));
        const __m128i mag = _mm_packus_epi16(a0, a1);  // |level| up to 255
        const __m128i low = _mm_packus_epi16(_mm_and_si128(a0, three16), _mm_and_si128(a1, three16));
        __m128i c = _mm_and_si128(_mm_cmpeq_epi8(mag, zero), b0);
        c = _mm_or_si128(c, _mm_and_si128(_mm_cmpeq_epi8(_mm_subs_epu8(mag, b0), zero), b1));
        c = _mm_or_si128(c, _mm_and_si128(_mm_cmpeq_epi8(_mm_subs_epu8(mag, three), zero), b2));
        c = _mm_or_si128(c, _mm_slli_epi16(low, 3));
        code[r] = _mm_or_si128(c, _mm_and_si128(_mm_packs_epi16(s0, s1), b5));
    }
}

// Bit kBit of the zig-zag ordered level bytes, as a mask without the DC bit.
template <int kBit>
uint64_t plane(const __m128i *zz) {
    uint64_t m = 0;
    for (int32_t i = 0; i < 4; ++i)
        m |= static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(_mm_slli_epi16(zz[i], 7 - kBit))))
             << (16 * i);
    return m & ~uint64_t(1);
}

// The planes from the zig-zag ordered level bytes; corr(x, m) packs the
// bits of x at the positions set in m as kivoe_corr_bits does.
template <class Corr>
inline void planes_of(const __m128i zz[4], kivoe_planes *out, Corr &&corr) {
    const uint64_t nz1 = ~plane<1>(zz) & ~uint64_t(1), nz2 = ~plane<2>(zz) & ~uint64_t(1);
    out->nz[0] = ~plane<0>(zz) & ~uint64_t(1);
    out->nz[1] = nz1;
    out->nz[2] = nz2;
    out->corr[0] = corr(plane<3>(zz), nz1);
    out->corr[1] = corr(plane<4>(zz), nz2);
    out->neg = plane<5>(zz);
}

// Non-zero when some lane of bad is.
inline uint32_t any_lane(__m128i bad) {
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(bad, _mm_setzero_si128())) ^ 0xFFFF);
}

}  // namespace

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
