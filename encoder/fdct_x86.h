// The forward DCT's first step on x86, shared by its SSE2 and AVX2 variants:
// the columns of an 8 x 8 block of 16-bit samples as vectors over its rows.
// Internal linkage keeps each variant's copy compiled for its own CPU level.
#ifndef KIVO_ENCODER_FDCT_X86_H
#define KIVO_ENCODER_FDCT_X86_H

#include <emmintrin.h>
#include <stddef.h>
#include <stdint.h>

namespace {

// Rows of the block stride values apart.
inline void load_columns(const int16_t *blk, ptrdiff_t stride, __m128i col[8]) {
    __m128i r[8];
    for (int i = 0; i < 8; ++i) r[i] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(blk + stride * i));
    const __m128i a0 = _mm_unpacklo_epi16(r[0], r[1]), a1 = _mm_unpackhi_epi16(r[0], r[1]);
    const __m128i a2 = _mm_unpacklo_epi16(r[2], r[3]), a3 = _mm_unpackhi_epi16(r[2], r[3]);
    const __m128i a4 = _mm_unpacklo_epi16(r[4], r[5]), a5 = _mm_unpackhi_epi16(r[4], r[5]);
    const __m128i a6 = _mm_unpacklo_epi16(r[6], r[7]), a7 = _mm_unpackhi_epi16(r[6], r[7]);
    const __m128i b0 = _mm_unpacklo_epi32(a0, a2), b1 = _mm_unpackhi_epi32(a0, a2);
    const __m128i b2 = _mm_unpacklo_epi32(a1, a3), b3 = _mm_unpackhi_epi32(a1, a3);
    const __m128i b4 = _mm_unpacklo_epi32(a4, a6), b5 = _mm_unpackhi_epi32(a4, a6);
    const __m128i b6 = _mm_unpacklo_epi32(a5, a7), b7 = _mm_unpackhi_epi32(a5, a7);
    col[0] = _mm_unpacklo_epi64(b0, b4), col[1] = _mm_unpackhi_epi64(b0, b4);
    col[2] = _mm_unpacklo_epi64(b1, b5), col[3] = _mm_unpackhi_epi64(b1, b5);
    col[4] = _mm_unpacklo_epi64(b2, b6), col[5] = _mm_unpackhi_epi64(b2, b6);
    col[6] = _mm_unpacklo_epi64(b3, b7), col[7] = _mm_unpackhi_epi64(b3, b7);
}

inline void load_columns(const int16_t *blk, __m128i col[8]) { load_columns(blk, 8, col); }

}  // namespace

#endif
