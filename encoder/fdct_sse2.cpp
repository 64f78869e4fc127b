// SSE2 forward DCT, bit-exact to the plain transform: all eight rows at
// once in 16-bit lanes, then all eight columns at once, each column in a
// 32-bit lane of a pair of registers.
#include <emmintrin.h>

#include "encoder/enc_simd.h"
#include "encoder/fdct_x86.h"

namespace {

// Eight 32-bit lanes: lo holds lanes 0 to 3, hi lanes 4 to 7.
struct V {
    __m128i lo, hi;
};

inline V operator+(V a, V b) { return {_mm_add_epi32(a.lo, b.lo), _mm_add_epi32(a.hi, b.hi)}; }
inline V operator-(V a, V b) { return {_mm_sub_epi32(a.lo, b.lo), _mm_sub_epi32(a.hi, b.hi)}; }
inline V operator<<(V a, int s) { return {_mm_slli_epi32(a.lo, s), _mm_slli_epi32(a.hi, s)}; }
inline V operator>>(V a, int s) { return {_mm_srai_epi32(a.lo, s), _mm_srai_epi32(a.hi, s)}; }
inline V splat(int32_t k) { return {_mm_set1_epi32(k), _mm_set1_epi32(k)}; }

// Low 32 bits of each lane times k (0 <= k < 65536): the low half times k
// plus the high half times k moved up by 16 bits.
inline __m128i mul4(__m128i x, __m128i k16) {
    return _mm_add_epi32(_mm_mullo_epi16(x, k16), _mm_slli_epi32(_mm_mulhi_epu16(x, k16), 16));
}

inline V operator*(V a, int32_t k) {
    const __m128i kk = _mm_set1_epi16(static_cast<int16_t>(k));
    return {mul4(a.lo, kk), mul4(a.hi, kk)};
}

// ka x + kb y for the eight 16-bit lanes of x and y, as 32-bit lanes.
inline V rotate(__m128i x, __m128i y, int16_t ka, int16_t kb) {
    const uint32_t pair = static_cast<uint32_t>(static_cast<uint16_t>(ka)) | static_cast<uint32_t>(static_cast<uint16_t>(kb)) << 16;
    const __m128i k = _mm_set1_epi32(static_cast<int32_t>(pair));
    return {_mm_madd_epi16(_mm_unpacklo_epi16(x, y), k), _mm_madd_epi16(_mm_unpackhi_epi16(x, y), k)};
}

// (ka x + kb y) >> 10 back in 16-bit lanes (the result must fit).
inline __m128i rotate16(__m128i x, __m128i y, int16_t ka, int16_t kb) {
    const V r = rotate(x, y, ka, kb);
    return _mm_packs_epi32(_mm_srai_epi32(r.lo, 10), _mm_srai_epi32(r.hi, 10));
}

struct Odd {
    V e0, e1, a, b, g, h, g2, h2;
};

// The butterflies of the column pass; lane u works on column u.
inline Odd butterflies(const V x[8]) {
    const V s07 = x[0] + x[7], s16 = x[1] + x[6], s25 = x[2] + x[5], s34 = x[3] + x[4];
    const V d07 = x[0] - x[7], d16 = x[1] - x[6], d25 = x[2] - x[5], d34 = x[3] - x[4];
    const V m1 = ((d16 - d25) * 724 + splat(512)) >> 10;
    const V m2 = ((d16 + d25) * 724 + splat(512)) >> 10;
    return {s07 + s34, s16 + s25, s07 - s34, s16 - s25, d07 + m2, d34 + m1, d07 - m2, d34 - m1};
}

inline void transpose4(__m128i &a, __m128i &b, __m128i &c, __m128i &d) {
    const __m128i t0 = _mm_unpacklo_epi32(a, b), t1 = _mm_unpackhi_epi32(a, b);
    const __m128i t2 = _mm_unpacklo_epi32(c, d), t3 = _mm_unpackhi_epi32(c, d);
    a = _mm_unpacklo_epi64(t0, t2);
    b = _mm_unpackhi_epi64(t0, t2);
    c = _mm_unpacklo_epi64(t1, t3);
    d = _mm_unpackhi_epi64(t1, t3);
}

// r[u] lane i becomes r[i] lane u.
inline void transpose8(V r[8]) {
    transpose4(r[0].lo, r[1].lo, r[2].lo, r[3].lo);
    transpose4(r[0].hi, r[1].hi, r[2].hi, r[3].hi);
    transpose4(r[4].lo, r[5].lo, r[6].lo, r[7].lo);
    transpose4(r[4].hi, r[5].hi, r[6].hi, r[7].hi);
    for (int i = 0; i < 4; ++i) {
        const __m128i t = r[i].hi;
        r[i].hi = r[i + 4].lo;
        r[i + 4].lo = t;
    }
}

// Low 16 bits of the eight lanes, stored as a row.
inline void store_low16(int16_t *dst, V v) {
    v = (v << 16) >> 16;
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst), _mm_packs_epi32(v.lo, v.hi));
}

}  // namespace

void kivoe_fdct8_sse2(int16_t *blk) {
    // Columns of the block as vectors over the rows.
    __m128i col[8];
    load_columns(blk, col);
    // Row pass in 16-bit lanes (lane r works on row r; every value before
    // the rotations fits), each rotation one multiply-add of two lines.
    const __m128i shift = _mm_set1_epi16(128);
    __m128i x[8];
    for (int k = 0; k < 8; ++k) x[k] = _mm_sub_epi16(col[k], shift);
    const __m128i s07 = _mm_add_epi16(x[0], x[7]), s16 = _mm_add_epi16(x[1], x[6]);
    const __m128i s25 = _mm_add_epi16(x[2], x[5]), s34 = _mm_add_epi16(x[3], x[4]);
    const __m128i d07 = _mm_sub_epi16(x[0], x[7]), d16 = _mm_sub_epi16(x[1], x[6]);
    const __m128i d25 = _mm_sub_epi16(x[2], x[5]), d34 = _mm_sub_epi16(x[3], x[4]);
    const __m128i one = _mm_set1_epi16(1);
    const __m128i m1 = rotate16(_mm_sub_epi16(d16, d25), one, 724, 512);
    const __m128i m2 = rotate16(_mm_add_epi16(d16, d25), one, 724, 512);
    const __m128i e0 = _mm_add_epi16(s07, s34), e1 = _mm_add_epi16(s16, s25);
    const __m128i a = _mm_sub_epi16(s07, s34), b = _mm_sub_epi16(s16, s25);
    const __m128i g = _mm_add_epi16(d07, m2), h = _mm_add_epi16(d34, m1);
    const __m128i g2 = _mm_sub_epi16(d07, m2), h2 = _mm_sub_epi16(d34, m1);
    V t[8];
    t[0] = rotate(e0, e1, 512, 512);
    t[4] = rotate(e0, e1, 512, -512);
    t[2] = rotate(a, b, 669, 277);
    t[6] = rotate(a, b, 277, -669);
    t[1] = rotate(g, h, 710, 141);
    t[7] = rotate(g, h, 141, -710);
    t[3] = rotate(g2, h2, 602, -402);
    t[5] = rotate(g2, h2, 402, 602);

    // Column pass, after the transpose.
    transpose8(t);
    const Odd q = butterflies(t);
    const V r2048 = splat(2048), r20 = splat(1 << 20);
    store_low16(blk + 0, (q.e0 + q.e1 + r2048) >> 12);
    store_low16(blk + 32, (q.e0 - q.e1 + r2048) >> 12);
    store_low16(blk + 16, (q.a * 669 + q.b * 277 + r20) >> 21);
    store_low16(blk + 48, (q.a * 277 - q.b * 669 + r20) >> 21);
    store_low16(blk + 8, (q.g * 710 + q.h * 141 + r20) >> 21);
    store_low16(blk + 56, (q.g * 141 - q.h * 710 + r20) >> 21);
    store_low16(blk + 24, (q.g2 * 602 - q.h2 * 402 + r20) >> 21);
    store_low16(blk + 40, (q.h2 * 602 + q.g2 * 402 + r20) >> 21);
}
