// The AVX2 forward DCT as the transform step of AVX2 kernels: all eight
// rows (then all eight columns) at once in 32-bit lanes, bit-exact to the
// plain transform for samples 0 to 255. Internal linkage: only AVX2 files
// include it.
#ifndef KIVO_ENCODER_FDCT_AVX2_H
#define KIVO_ENCODER_FDCT_AVX2_H

#include <immintrin.h>

#include "encoder/fdct_x86.h"

namespace {

struct Odd {
    __m256i e0, e1, a, b, g, h, g2, h2;
};

inline __m256i mul(__m256i x, int32_t k) { return _mm256_mullo_epi32(x, _mm256_set1_epi32(k)); }

// The butterflies shared by both passes; lane i works on its own line.
inline Odd butterflies(const __m256i x[8]) {
    const __m256i s07 = _mm256_add_epi32(x[0], x[7]), s16 = _mm256_add_epi32(x[1], x[6]);
    const __m256i s25 = _mm256_add_epi32(x[2], x[5]), s34 = _mm256_add_epi32(x[3], x[4]);
    const __m256i d07 = _mm256_sub_epi32(x[0], x[7]), d16 = _mm256_sub_epi32(x[1], x[6]);
    const __m256i d25 = _mm256_sub_epi32(x[2], x[5]), d34 = _mm256_sub_epi32(x[3], x[4]);
    const __m256i r512 = _mm256_set1_epi32(512);
    const __m256i m1 = _mm256_srai_epi32(_mm256_add_epi32(mul(_mm256_sub_epi32(d16, d25), 724), r512), 10);
    const __m256i m2 = _mm256_srai_epi32(_mm256_add_epi32(mul(_mm256_add_epi32(d16, d25), 724), r512), 10);
    Odd o;
    o.e0 = _mm256_add_epi32(s07, s34);
    o.e1 = _mm256_add_epi32(s16, s25);
    o.a = _mm256_sub_epi32(s07, s34);
    o.b = _mm256_sub_epi32(s16, s25);
    o.g = _mm256_add_epi32(d07, m2);
    o.h = _mm256_add_epi32(d34, m1);
    o.g2 = _mm256_sub_epi32(d07, m2);
    o.h2 = _mm256_sub_epi32(d34, m1);
    return o;
}

inline void transpose8x8_epi32(__m256i r[8]) {
    const __m256i t0 = _mm256_unpacklo_epi32(r[0], r[1]), t1 = _mm256_unpackhi_epi32(r[0], r[1]);
    const __m256i t2 = _mm256_unpacklo_epi32(r[2], r[3]), t3 = _mm256_unpackhi_epi32(r[2], r[3]);
    const __m256i t4 = _mm256_unpacklo_epi32(r[4], r[5]), t5 = _mm256_unpackhi_epi32(r[4], r[5]);
    const __m256i t6 = _mm256_unpacklo_epi32(r[6], r[7]), t7 = _mm256_unpackhi_epi32(r[6], r[7]);
    const __m256i u0 = _mm256_unpacklo_epi64(t0, t2), u1 = _mm256_unpackhi_epi64(t0, t2);
    const __m256i u2 = _mm256_unpacklo_epi64(t1, t3), u3 = _mm256_unpackhi_epi64(t1, t3);
    const __m256i u4 = _mm256_unpacklo_epi64(t4, t6), u5 = _mm256_unpackhi_epi64(t4, t6);
    const __m256i u6 = _mm256_unpacklo_epi64(t5, t7), u7 = _mm256_unpackhi_epi64(t5, t7);
    r[0] = _mm256_permute2x128_si256(u0, u4, 0x20);
    r[1] = _mm256_permute2x128_si256(u1, u5, 0x20);
    r[2] = _mm256_permute2x128_si256(u2, u6, 0x20);
    r[3] = _mm256_permute2x128_si256(u3, u7, 0x20);
    r[4] = _mm256_permute2x128_si256(u0, u4, 0x31);
    r[5] = _mm256_permute2x128_si256(u1, u5, 0x31);
    r[6] = _mm256_permute2x128_si256(u2, u6, 0x31);
    r[7] = _mm256_permute2x128_si256(u3, u7, 0x31);
}

// Rows a and b of eight 32-bit values each as sixteen 16-bit values, one
// row after the other (the outputs of 8-bit samples all fit 16 bits).
inline __m256i pack_rows(__m256i a, __m256i b) {
    return _mm256_permute4x64_epi64(_mm256_packs_epi32(a, b), _MM_SHUFFLE(3, 1, 2, 0));
}

// The coefficients of the 8 x 8 samples at blk, two rows a vector.
inline void fdct8_rows(const int16_t *blk, __m256i out[4]) {
    // Columns of the block as vectors over the rows, widened and
    // level-shifted.
    __m128i col[8];
    load_columns(blk, col);
    const __m256i shift = _mm256_set1_epi32(128);
    __m256i x[8];
    for (int k = 0; k < 8; ++k) x[k] = _mm256_sub_epi32(_mm256_cvtepi16_epi32(col[k]), shift);

    // Row pass: lane r works on row r; t[u] holds frequency u of each row.
    const Odd p = butterflies(x);
    __m256i t[8];
    t[0] = _mm256_slli_epi32(_mm256_add_epi32(p.e0, p.e1), 9);
    t[4] = _mm256_slli_epi32(_mm256_sub_epi32(p.e0, p.e1), 9);
    t[2] = _mm256_add_epi32(mul(p.a, 669), mul(p.b, 277));
    t[6] = _mm256_sub_epi32(mul(p.a, 277), mul(p.b, 669));
    t[1] = _mm256_add_epi32(mul(p.g, 710), mul(p.h, 141));
    t[7] = _mm256_sub_epi32(mul(p.g, 141), mul(p.h, 710));
    t[3] = _mm256_sub_epi32(mul(p.g2, 602), mul(p.h2, 402));
    t[5] = _mm256_add_epi32(mul(p.h2, 602), mul(p.g2, 402));

    // Column pass: after the transpose lane u works on column u.
    transpose8x8_epi32(t);
    const Odd q = butterflies(t);
    const __m256i r2048 = _mm256_set1_epi32(2048), r20 = _mm256_set1_epi32(1 << 20);
    auto round21 = [r20](__m256i v) { return _mm256_srai_epi32(_mm256_add_epi32(v, r20), 21); };
    const __m256i f0 = _mm256_srai_epi32(_mm256_add_epi32(_mm256_add_epi32(q.e0, q.e1), r2048), 12);
    const __m256i f4 = _mm256_srai_epi32(_mm256_add_epi32(_mm256_sub_epi32(q.e0, q.e1), r2048), 12);
    const __m256i f2 = round21(_mm256_add_epi32(mul(q.a, 669), mul(q.b, 277)));
    const __m256i f6 = round21(_mm256_sub_epi32(mul(q.a, 277), mul(q.b, 669)));
    const __m256i f1 = round21(_mm256_add_epi32(mul(q.g, 710), mul(q.h, 141)));
    const __m256i f7 = round21(_mm256_sub_epi32(mul(q.g, 141), mul(q.h, 710)));
    const __m256i f3 = round21(_mm256_sub_epi32(mul(q.g2, 602), mul(q.h2, 402)));
    const __m256i f5 = round21(_mm256_add_epi32(mul(q.h2, 602), mul(q.g2, 402)));
    out[0] = pack_rows(f0, f1);
    out[1] = pack_rows(f2, f3);
    out[2] = pack_rows(f4, f5);
    out[3] = pack_rows(f6, f7);
}

}  // namespace

#endif
