// The AVX2 forward DCT as the transform step of AVX2 kernels: all eight
// rows at once in 16-bit lanes, then all eight columns in 32-bit lanes,
// bit-exact to the plain transform for samples 0 to 255. Internal linkage:
// only AVX2 files include it.
#ifndef KIVO_ENCODER_FDCT_AVX2_H
#define KIVO_ENCODER_FDCT_AVX2_H

#include <immintrin.h>

#include "encoder/fdct_x86.h"

namespace {

struct Odd {
    __m256i e0, e1, a, b, g, h, g2, h2;
};

// The transform's constants, each a whole vector: 32-bit multipliers and
// rounding terms, a 16-bit multiplier (kM724), pairs for madd (kP*).
enum Const {
    k724, k512, k669, k277, k710, k141, k602, k402, k2048, kRound21, kDcShift,
    kM724, kP512, kP512n, kP669, kP277, kP710, kP141, kP602, kP402, kConsts
};

struct ConstTable {
    alignas(32) uint32_t v[kConsts][8];
};

// Lanes of 16 bits hold lo in the low half and hi in the high half.
constexpr uint32_t halves(int32_t lo, int32_t hi) {
    return (static_cast<uint32_t>(hi) << 16) | (static_cast<uint32_t>(lo) & 0xFFFF);
}

constexpr ConstTable make_consts() {
    const uint32_t k[kConsts] = {724, 512, 669, 277, 710, 141, 602, 402, 2048, 1 << 20, 1024 * 512,
                                 halves(724 * 32, 724 * 32), halves(512, 512), halves(512, -512),
                                 halves(669, 277), halves(277, -669), halves(710, 141), halves(141, -710),
                                 halves(602, -402), halves(402, 602)};
    ConstTable t{};
    for (int i = 0; i < kConsts; ++i)
        for (int j = 0; j < 8; ++j) t.v[i][j] = k[i];
    return t;
}

inline constexpr ConstTable kConstTable = make_consts();

// The constants read from memory, as operands of the instructions that use
// them: the compiler otherwise builds each from an immediate, three
// instructions apiece. The empty asm hides the values from it.
struct Consts {
    const ConstTable *t = &kConstTable;
    Consts() { __asm__("" : "+r"(t)); }
    __m256i operator[](Const c) const { return _mm256_load_si256(reinterpret_cast<const __m256i *>(t->v[c])); }
    __m128i half(Const c) const { return _mm_load_si128(reinterpret_cast<const __m128i *>(t->v[c])); }
};

inline __m256i mul(__m256i x, __m256i k) { return _mm256_mullo_epi32(x, k); }

// The column pass's butterflies in 32-bit lanes; lane i works on its own
// column.
inline Odd butterflies(const __m256i x[8], const Consts &k) {
    const __m256i s07 = _mm256_add_epi32(x[0], x[7]), s16 = _mm256_add_epi32(x[1], x[6]);
    const __m256i s25 = _mm256_add_epi32(x[2], x[5]), s34 = _mm256_add_epi32(x[3], x[4]);
    const __m256i d07 = _mm256_sub_epi32(x[0], x[7]), d16 = _mm256_sub_epi32(x[1], x[6]);
    const __m256i d25 = _mm256_sub_epi32(x[2], x[5]), d34 = _mm256_sub_epi32(x[3], x[4]);
    const __m256i r512 = k[k512];
    const __m256i m1 = _mm256_srai_epi32(_mm256_add_epi32(mul(_mm256_sub_epi32(d16, d25), k[k724]), r512), 10);
    const __m256i m2 = _mm256_srai_epi32(_mm256_add_epi32(mul(_mm256_add_epi32(d16, d25), k[k724]), r512), 10);
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

// The eight rows of p and q as pairs (p_r, q_r), row r in 32-bit lane r.
inline __m256i pairs(__m128i p, __m128i q) {
    return _mm256_set_m128i(_mm_unpackhi_epi16(p, q), _mm_unpacklo_epi16(p, q));
}

// The columns of an 8 x 8 block of samples as 16-bit vectors over the
// rows, from the bytes of rows 0 and 1 interleaved (a0), of rows 2 and 3
// (a1), 4 and 5 (a2), 6 and 7 (a3).
inline void columns_of_pairs(__m128i a0, __m128i a1, __m128i a2, __m128i a3, __m128i x[8]) {
    // Then four rows, then eight interleaved: column c of rows 0 to 7 ends
    // as bytes 8 (c % 2) to 8 (c % 2) + 7 of c4[c / 2].
    const __m128i b0 = _mm_unpacklo_epi16(a0, a1), b1 = _mm_unpackhi_epi16(a0, a1);
    const __m128i b2 = _mm_unpacklo_epi16(a2, a3), b3 = _mm_unpackhi_epi16(a2, a3);
    const __m128i c4[4] = {_mm_unpacklo_epi32(b0, b2), _mm_unpackhi_epi32(b0, b2), _mm_unpacklo_epi32(b1, b3),
                           _mm_unpackhi_epi32(b1, b3)};
    for (int i = 0; i < 4; ++i) {
        x[2 * i] = _mm_cvtepu8_epi16(c4[i]);
        x[2 * i + 1] = _mm_unpackhi_epi8(c4[i], _mm_setzero_si128());
    }
}

// The columns of the 8 x 8 samples at src (rows stride bytes apart) as
// 16-bit vectors over the rows.
inline void load_columns_u8(const uint8_t *src, ptrdiff_t stride, __m128i x[8]) {
    __m128i r[8];
    for (int i = 0; i < 8; ++i) r[i] = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(src + i * stride));
    columns_of_pairs(_mm_unpacklo_epi8(r[0], r[1]), _mm_unpacklo_epi8(r[2], r[3]), _mm_unpacklo_epi8(r[4], r[5]),
                     _mm_unpacklo_epi8(r[6], r[7]), x);
}

// The transform from the row pass's pairs on: ee holds (s07 + s34, s16 +
// s25) of each row, ab (s07 - s34, s16 - s25), gh and gh2 the odd part's
// pairs, row r in 32-bit lane r; the coefficients come out two rows a
// vector.
__attribute__((always_inline)) inline void fdct8_from_pairs(__m256i ee, __m256i ab, __m256i gh, __m256i gh2,
                                                             const Consts &k, __m256i out[4]) {
    __m256i t[8];
    t[0] = _mm256_sub_epi32(_mm256_madd_epi16(ee, k[kP512]), k[kDcShift]);
    t[4] = _mm256_madd_epi16(ee, k[kP512n]);
    t[2] = _mm256_madd_epi16(ab, k[kP669]);
    t[6] = _mm256_madd_epi16(ab, k[kP277]);
    t[1] = _mm256_madd_epi16(gh, k[kP710]);
    t[7] = _mm256_madd_epi16(gh, k[kP141]);
    t[3] = _mm256_madd_epi16(gh2, k[kP602]);
    t[5] = _mm256_madd_epi16(gh2, k[kP402]);

    // Column pass: after the transpose lane u works on column u.
    transpose8x8_epi32(t);
    const Odd q = butterflies(t, k);
    const __m256i r2048 = k[k2048], r20 = k[kRound21];
    auto round21 = [r20](__m256i v) { return _mm256_srai_epi32(_mm256_add_epi32(v, r20), 21); };
    const __m256i f0 = _mm256_srai_epi32(_mm256_add_epi32(_mm256_add_epi32(q.e0, q.e1), r2048), 12);
    const __m256i f4 = _mm256_srai_epi32(_mm256_add_epi32(_mm256_sub_epi32(q.e0, q.e1), r2048), 12);
    const __m256i f2 = round21(_mm256_add_epi32(mul(q.a, k[k669]), mul(q.b, k[k277])));
    const __m256i f6 = round21(_mm256_sub_epi32(mul(q.a, k[k277]), mul(q.b, k[k669])));
    const __m256i f1 = round21(_mm256_add_epi32(mul(q.g, k[k710]), mul(q.h, k[k141])));
    const __m256i f7 = round21(_mm256_sub_epi32(mul(q.g, k[k141]), mul(q.h, k[k710])));
    const __m256i f3 = round21(_mm256_sub_epi32(mul(q.g2, k[k602]), mul(q.h2, k[k402])));
    const __m256i f5 = round21(_mm256_add_epi32(mul(q.h2, k[k602]), mul(q.g2, k[k402])));
    out[0] = pack_rows(f0, f1);
    out[1] = pack_rows(f2, f3);
    out[2] = pack_rows(f4, f5);
    out[3] = pack_rows(f6, f7);
}

// The coefficients of the samples whose columns x holds, two rows a vector.
__attribute__((always_inline)) inline void fdct8_columns(const __m128i x[8], __m256i out[4]) {
    const Consts k;

    // Row pass in 16 bits, lane r working on row r (every value below 2^11
    // in magnitude). The level shift changes only the sum of a row, by
    // -1024, and is taken off frequency 0 at the end. (724 v + 512) >> 10
    // is the rounded high half of v (724 * 32) << 1; the outputs are sums
    // of two products, one _mm256_madd_epi16 each.
    const __m128i s07 = _mm_add_epi16(x[0], x[7]), s16 = _mm_add_epi16(x[1], x[6]);
    const __m128i s25 = _mm_add_epi16(x[2], x[5]), s34 = _mm_add_epi16(x[3], x[4]);
    const __m128i d07 = _mm_sub_epi16(x[0], x[7]), d16 = _mm_sub_epi16(x[1], x[6]);
    const __m128i d25 = _mm_sub_epi16(x[2], x[5]), d34 = _mm_sub_epi16(x[3], x[4]);
    const __m128i k724 = k.half(kM724);
    const __m128i m1 = _mm_mulhrs_epi16(_mm_sub_epi16(d16, d25), k724);
    const __m128i m2 = _mm_mulhrs_epi16(_mm_add_epi16(d16, d25), k724);
    fdct8_from_pairs(pairs(_mm_add_epi16(s07, s34), _mm_add_epi16(s16, s25)),
                     pairs(_mm_sub_epi16(s07, s34), _mm_sub_epi16(s16, s25)),
                     pairs(_mm_add_epi16(d07, m2), _mm_add_epi16(d34, m1)),
                     pairs(_mm_sub_epi16(d07, m2), _mm_sub_epi16(d34, m1)), k, out);
}

// The coefficients of one block of two from their pairs' halves: kSel
// 0x20 takes the low 128 bits of lo and hi, 0x31 the high ones.
template <int kSel>
__attribute__((always_inline)) inline void fdct8_half(const __m256i lo[4], const __m256i hi[4], const Consts &k,
                                                       __m256i out[4]) {
    __m256i v[4];
    for (int i = 0; i < 4; ++i) v[i] = _mm256_permute2x128_si256(lo[i], hi[i], kSel);
    fdct8_from_pairs(v[0], v[1], v[2], v[3], k, out);
}

// fdct8_columns of two blocks at once, x holding the columns of block a in
// its low 128 bits and those of block b in its high 128 bits: the row
// pass's 16-bit steps work on both.
__attribute__((always_inline)) inline void fdct8_columns2(const __m256i x[8], __m256i a[4], __m256i b[4]) {
    const Consts k;
    const __m256i s07 = _mm256_add_epi16(x[0], x[7]), s16 = _mm256_add_epi16(x[1], x[6]);
    const __m256i s25 = _mm256_add_epi16(x[2], x[5]), s34 = _mm256_add_epi16(x[3], x[4]);
    const __m256i d07 = _mm256_sub_epi16(x[0], x[7]), d16 = _mm256_sub_epi16(x[1], x[6]);
    const __m256i d25 = _mm256_sub_epi16(x[2], x[5]), d34 = _mm256_sub_epi16(x[3], x[4]);
    const __m256i k724 = k[kM724];
    const __m256i m1 = _mm256_mulhrs_epi16(_mm256_sub_epi16(d16, d25), k724);
    const __m256i m2 = _mm256_mulhrs_epi16(_mm256_add_epi16(d16, d25), k724);
    // The pairs of rows 0 to 3 of both blocks, then of rows 4 to 7; block
    // a's whole pairs from the low halves, block b's from the high ones.
    __m256i lo[4], hi[4];
    const __m256i p[4] = {_mm256_add_epi16(s07, s34), _mm256_sub_epi16(s07, s34), _mm256_add_epi16(d07, m2),
                          _mm256_sub_epi16(d07, m2)};
    const __m256i q[4] = {_mm256_add_epi16(s16, s25), _mm256_sub_epi16(s16, s25), _mm256_add_epi16(d34, m1),
                          _mm256_sub_epi16(d34, m1)};
    for (int i = 0; i < 4; ++i) {
        lo[i] = _mm256_unpacklo_epi16(p[i], q[i]);
        hi[i] = _mm256_unpackhi_epi16(p[i], q[i]);
    }
    fdct8_half<0x20>(lo, hi, k, a);
    fdct8_half<0x31>(lo, hi, k, b);
}

}  // namespace

// The coefficients of the 8 x 8 samples at blk, two rows a vector.
__attribute__((always_inline)) inline void fdct8_rows(const int16_t *blk, __m256i out[4]) {
    __m128i x[8];
    load_columns(blk, x);
    fdct8_columns(x, out);
}

#endif
