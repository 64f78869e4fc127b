// AVX2 forward DCT: all eight rows (then all eight columns) at once in
// 32-bit lanes, bit-exact to the plain transform.
#include <immintrin.h>

#include "encoder/enc_simd.h"
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

// Low 16 bits of eight 32-bit values, stored as a row.
inline void store_low16(int16_t *dst, __m256i v) {
    v = _mm256_srai_epi32(_mm256_slli_epi32(v, 16), 16);
    const __m128i packed = _mm_packs_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst), packed);
}

}  // namespace

void kivoe_fdct8_avx2(int16_t *blk) {
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
    store_low16(blk + 0, _mm256_srai_epi32(_mm256_add_epi32(_mm256_add_epi32(q.e0, q.e1), r2048), 12));
    store_low16(blk + 32, _mm256_srai_epi32(_mm256_add_epi32(_mm256_sub_epi32(q.e0, q.e1), r2048), 12));
    store_low16(blk + 16, _mm256_srai_epi32(_mm256_add_epi32(_mm256_add_epi32(mul(q.a, 669), mul(q.b, 277)), r20), 21));
    store_low16(blk + 48, _mm256_srai_epi32(_mm256_add_epi32(_mm256_sub_epi32(mul(q.a, 277), mul(q.b, 669)), r20), 21));
    store_low16(blk + 8, _mm256_srai_epi32(_mm256_add_epi32(_mm256_add_epi32(mul(q.g, 710), mul(q.h, 141)), r20), 21));
    store_low16(blk + 56, _mm256_srai_epi32(_mm256_add_epi32(_mm256_sub_epi32(mul(q.g, 141), mul(q.h, 710)), r20), 21));
    store_low16(blk + 24, _mm256_srai_epi32(_mm256_add_epi32(_mm256_sub_epi32(mul(q.g2, 602), mul(q.h2, 402)), r20), 21));
    store_low16(blk + 40, _mm256_srai_epi32(_mm256_add_epi32(_mm256_add_epi32(mul(q.h2, 602), mul(q.g2, 402)), r20), 21));
}
