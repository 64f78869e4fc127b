// AVX-512 kernels from samples to levels: a block's 64 coefficients in two
// registers of 32 (rows 0 to 3 and 4 to 7), the steps' choices in mask
// registers, and the zig-zag mask of the non-zero levels from one byte
// permute. Pairs of blocks share the transform (each in one half of a
// 512-bit vector), their samples taken to its columns by byte permutes;
// single blocks keep the AVX2 loading and transform. Bit-exact to the
// plain kernels as the AVX2 ones are.
// GCC 12's AVX-512 intrinsics start some results from a deliberately
// undefined vector and then warn of it at every use.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

#include "common/nonzero.h"
#include "encoder/enc_simd.h"
#include "encoder/quant_avx2.h"

namespace {

inline __m512i load32(const void *p) { return _mm512_loadu_si512(p); }

// Rows 0 to 3 (or 4 to 7) of the coefficients the AVX2 transform leaves two
// rows a vector.
inline __m512i join(__m256i lo, __m256i hi) { return _mm512_inserti64x4(_mm512_castsi256_si512(lo), hi, 1); }

// The forward transform of two blocks at once, bit-exact to
// fdct8_columns of each: the row pass in 16-bit lanes, two columns of both
// blocks a vector, the column pass in 32-bit lanes, block a in the low 256
// bits. The permutes' indices:
struct PairIndex {
    alignas(64) uint8_t columns[4][64];  // filtered rows to the columns' vectors P (below)
    alignas(64) uint8_t blocks[4][64];  // the same from the rows of one block a vector
    alignas(64) uint16_t pairs[32];  // words of (p, q) to pairs (p_r, q_r), dword r of each half
    alignas(64) uint64_t lo[8], hi[8];  // 256-bit transpose step: low or high 128 bits of two vectors
    alignas(64) uint64_t rows[2][8];  // packed rows to block a's (rows[0]) or b's (rows[1]) four rows in order
};

// The columns of each vector P[i], one in each 256-bit half.
constexpr int kPairColumns[4][2] = {{0, 1}, {7, 6}, {2, 3}, {5, 4}};

constexpr PairIndex make_pair_index() {
    PairIndex t{};
    // Filtered rows y of both blocks, 16 bytes a row (block a's 8 bytes
    // first): rows 0 to 3 in the first source, 4 to 7 in the second; or
    // block a's rows in the first source and b's in the second, 8 bytes a
    // row. Each sample goes to the low byte of its word.
    for (int i = 0; i < 4; ++i)
        for (int w = 0; w < 32; ++w) {
            const int col = kPairColumns[i][w / 16], blk = w % 16 / 8, y = w % 8;
            t.columns[i][2 * w] = static_cast<uint8_t>(16 * y + 8 * blk + col);
            t.blocks[i][2 * w] = static_cast<uint8_t>(64 * blk + 8 * y + col);
        }
    for (int d = 0; d < 16; ++d) {
        t.pairs[2 * d] = static_cast<uint16_t>(8 * (d / 8) + d % 8);
        t.pairs[2 * d + 1] = static_cast<uint16_t>(16 + 8 * (d / 8) + d % 8);
    }
    const uint64_t lo[8] = {0, 1, 8, 9, 4, 5, 12, 13}, rows[8] = {0, 2, 1, 3, 8, 10, 9, 11};
    for (int i = 0; i < 8; ++i) {
        t.lo[i] = lo[i], t.hi[i] = lo[i] + 2;
        t.rows[0][i] = rows[i], t.rows[1][i] = rows[i] + 4;
    }
    return t;
}

inline constexpr PairIndex kPairIndex = make_pair_index();

// The transform's constant c in every 32-bit lane.
inline __m512i wide(const Consts &k, Const c) { return _mm512_broadcast_i64x4(k[c]); }

// transpose8x8_epi32 in each 256-bit half.
inline void transpose8x8_pair(__m512i r[8]) {
    __m512i t[8], u[8];
    for (int i = 0; i < 8; i += 2) {
        t[i] = _mm512_unpacklo_epi32(r[i], r[i + 1]);
        t[i + 1] = _mm512_unpackhi_epi32(r[i], r[i + 1]);
    }
    for (int i = 0; i < 8; i += 4) {
        u[i] = _mm512_unpacklo_epi64(t[i], t[i + 2]);
        u[i + 1] = _mm512_unpackhi_epi64(t[i], t[i + 2]);
        u[i + 2] = _mm512_unpacklo_epi64(t[i + 1], t[i + 3]);
        u[i + 3] = _mm512_unpackhi_epi64(t[i + 1], t[i + 3]);
    }
    const __m512i lo = _mm512_load_si512(kPairIndex.lo), hi = _mm512_load_si512(kPairIndex.hi);
    for (int i = 0; i < 4; ++i) {
        r[i] = _mm512_permutex2var_epi64(u[i], lo, u[i + 4]);
        r[i + 4] = _mm512_permutex2var_epi64(u[i], hi, u[i + 4]);
    }
}

// Block a's coefficients into ca (rows 0 to 3, 4 to 7), block b's into cb,
// from the columns of both as 16-bit vectors over the rows: the halves of
// P[i] hold columns kPairColumns[i], each block a's eight rows, then b's.
__attribute__((always_inline)) inline void fdct8_pair(const __m512i P[4], __m512i ca[2], __m512i cb[2]) {
    const Consts k;
    // Row pass as fdct8_columns does it, on two columns a vector: the sums
    // and differences s07 | s16, d07 | d16, s25 | s34, d25 | d34.
    const __m512i S = _mm512_add_epi16(P[0], P[1]), D = _mm512_sub_epi16(P[0], P[1]);
    const __m512i S2 = _mm512_add_epi16(P[2], P[3]), D2 = _mm512_sub_epi16(P[2], P[3]);
    const __mmask32 high = 0xFFFF0000u;
    // s34 | s25, d16 | d16, d25 | d25, then d16 + d25 | d16 - d25 and
    // the products m2 | m1.
    const __m512i S2x = _mm512_shuffle_i64x2(S2, S2, _MM_SHUFFLE(1, 0, 3, 2));
    const __m512i G = _mm512_shuffle_i64x2(D, D, _MM_SHUFFLE(3, 2, 3, 2));
    const __m512i H = _mm512_shuffle_i64x2(D2, D2, _MM_SHUFFLE(1, 0, 1, 0));
    const __m512i M = _mm512_mulhrs_epi16(_mm512_mask_sub_epi16(_mm512_add_epi16(G, H), high, G, H), wide(k, kM724));
    const __m512i L = _mm512_mask_blend_epi16(high, D, D2);  // d07 | d34
    // Each v[i] holds the row pass's p[i] | q[i].
    const __m512i v0[4] = {_mm512_add_epi16(S, S2x), _mm512_sub_epi16(S, S2x), _mm512_add_epi16(L, M),
                           _mm512_sub_epi16(L, M)};
    // The pairs (p_r, q_r) of row r in 32-bit lane r, block a's then b's.
    const __m512i pairs = _mm512_load_si512(kPairIndex.pairs);
    __m512i v[4];
    for (int i = 0; i < 4; ++i) v[i] = _mm512_permutexvar_epi16(pairs, v0[i]);
    __m512i t[8];
    t[0] = _mm512_sub_epi32(_mm512_madd_epi16(v[0], wide(k, kP512)), wide(k, kDcShift));
    t[4] = _mm512_madd_epi16(v[0], wide(k, kP512n));
    t[2] = _mm512_madd_epi16(v[1], wide(k, kP669));
    t[6] = _mm512_madd_epi16(v[1], wide(k, kP277));
    t[1] = _mm512_madd_epi16(v[2], wide(k, kP710));
    t[7] = _mm512_madd_epi16(v[2], wide(k, kP141));
    t[3] = _mm512_madd_epi16(v[3], wide(k, kP602));
    t[5] = _mm512_madd_epi16(v[3], wide(k, kP402));

    // Column pass: after the transpose lane u of each half works on column u.
    transpose8x8_pair(t);
    auto mul = [&k](__m512i a, Const c) { return _mm512_mullo_epi32(a, wide(k, c)); };
    const __m512i s07c = _mm512_add_epi32(t[0], t[7]), s16c = _mm512_add_epi32(t[1], t[6]);
    const __m512i s25c = _mm512_add_epi32(t[2], t[5]), s34c = _mm512_add_epi32(t[3], t[4]);
    const __m512i d07c = _mm512_sub_epi32(t[0], t[7]), d16c = _mm512_sub_epi32(t[1], t[6]);
    const __m512i d25c = _mm512_sub_epi32(t[2], t[5]), d34c = _mm512_sub_epi32(t[3], t[4]);
    const __m512i r512 = wide(k, k512);
    const __m512i m1c = _mm512_srai_epi32(_mm512_add_epi32(mul(_mm512_sub_epi32(d16c, d25c), k724), r512), 10);
    const __m512i m2c = _mm512_srai_epi32(_mm512_add_epi32(mul(_mm512_add_epi32(d16c, d25c), k724), r512), 10);
    const __m512i e0 = _mm512_add_epi32(s07c, s34c), e1 = _mm512_add_epi32(s16c, s25c);
    const __m512i a = _mm512_sub_epi32(s07c, s34c), b = _mm512_sub_epi32(s16c, s25c);
    const __m512i g = _mm512_add_epi32(d07c, m2c), h = _mm512_add_epi32(d34c, m1c);
    const __m512i g2 = _mm512_sub_epi32(d07c, m2c), h2 = _mm512_sub_epi32(d34c, m1c);
    const __m512i r2048 = wide(k, k2048), r20 = wide(k, kRound21);
    auto round21 = [r20](__m512i v) { return _mm512_srai_epi32(_mm512_add_epi32(v, r20), 21); };
    __m512i f[8];
    f[0] = _mm512_srai_epi32(_mm512_add_epi32(_mm512_add_epi32(e0, e1), r2048), 12);
    f[4] = _mm512_srai_epi32(_mm512_add_epi32(_mm512_sub_epi32(e0, e1), r2048), 12);
    f[2] = round21(_mm512_add_epi32(mul(a, k669), mul(b, k277)));
    f[6] = round21(_mm512_sub_epi32(mul(a, k277), mul(b, k669)));
    f[1] = round21(_mm512_add_epi32(mul(g, k710), mul(h, k141)));
    f[7] = round21(_mm512_sub_epi32(mul(g, k141), mul(h, k710)));
    f[3] = round21(_mm512_sub_epi32(mul(g2, k602), mul(h2, k402)));
    f[5] = round21(_mm512_add_epi32(mul(h2, k602), mul(g2, k402)));
    // Rows j and j + 1 packed (within 128-bit lanes), then each block's
    // rows in order.
    const __m512i ra = _mm512_load_si512(kPairIndex.rows[0]), rb = _mm512_load_si512(kPairIndex.rows[1]);
    for (int i = 0; i < 2; ++i) {
        const __m512i lo = _mm512_packs_epi32(f[4 * i], f[4 * i + 1]), hi = _mm512_packs_epi32(f[4 * i + 2], f[4 * i + 3]);
        ca[i] = _mm512_permutex2var_epi64(lo, ra, hi);
        cb[i] = _mm512_permutex2var_epi64(lo, rb, hi);
    }
}

// The byte permute that puts the levels of _mm512_packus_epi16(rows 0 to
// 3, rows 4 to 7) into zig-zag order: the pack takes eight words of its
// first operand, then eight of its second, in each 128-bit lane.
struct ZigIndex {
    alignas(64) uint8_t b[64];
};

constexpr ZigIndex make_zig_index() {
    ZigIndex t{};
    for (int z = 0; z < 64; ++z) {
        const int ras = kivo_nz::kZigToRas.z[z], w = ras % 32;
        t.b[z] = static_cast<uint8_t>(16 * (w / 8) + 8 * (ras / 32) + w % 8);
    }
    return t;
}

constexpr ZigIndex kZigIndex = make_zig_index();

// The zig-zag mask of the non-zero AC levels (bit 0 clear) from their
// magnitudes (at most 32767): the pack saturates, so no non-zero
// magnitude becomes a zero byte.
inline uint64_t nonzero_zigzag(__m512i n0, __m512i n1) {
    const __m512i z = _mm512_permutexvar_epi8(load32(kZigIndex.b), _mm512_packus_epi16(n0, n1));
    return _mm512_test_epi8_mask(z, z) & ~uint64_t(1);
}

// Level magnitudes of 32 coefficients c as kivoe_quant finds them, for
// offsets below 32768 (at most 32767).
inline __m512i magnitude(__m512i c, const uint16_t *recip, const uint16_t *offset) {
    // |c| as unsigned 16 bits (32768 for -32768) plus the offset.
    const __m512i a = _mm512_add_epi16(_mm512_abs_epi16(c), load32(offset));
    const __m512i r = load32(recip);
    // (a * recip) >> 14 from the two halves of the product (below 2^30).
    const __m512i hi = _mm512_mulhi_epu16(a, r), lo = _mm512_mullo_epi16(a, r);
    const __m512i n = _mm512_or_si512(_mm512_slli_epi16(hi, 2), _mm512_srli_epi16(lo, 14));
    return _mm512_min_epu16(n, _mm512_set1_epi16(32767));
}

// kivoe_quant_mask of the coefficients c (rows 0 to 3, 4 to 7), the levels
// stored at blk.
inline uint64_t quant_mask_rows(const __m512i c[2], int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    const __m512i zero = _mm512_setzero_si512();
    __m512i n[2];
    for (int k = 0; k < 2; ++k) {
        n[k] = magnitude(c[k], recip + 32 * k, offset + 32 * k);
        // n where c > 0, -n elsewhere (a zero coefficient may have a
        // non-zero magnitude with a large offset).
        const __mmask32 le = _mm512_cmple_epi16_mask(c[k], zero);
        _mm512_storeu_si512(blk + 32 * k, _mm512_mask_sub_epi16(n[k], le, zero, n[k]));
    }
    // A magnitude of 2048 or more sets a bit above the low eleven.
    const bool big = _mm512_test_epi16_mask(_mm512_or_si512(n[0], n[1]), _mm512_set1_epi16(-2048)) != 0;
    return nonzero_zigzag(n[0], n[1]) | big;
}

// kept_rows of the AVX2 kernels (quant_avx2.cpp) on 32 coefficients a
// vector, with the same value ranges: the coefficients c of 8-bit samples
// have magnitudes a of at most 1024, the levels' magnitudes n stay within
// 1024 and n q within a + q / 2, so that every product fits 16 bits and
// no level needs the coder's own check.
template <bool kAdapt, bool kSuppress>
inline uint64_t kept_rows(const __m512i c[2], const uint8_t *row, int16_t *blk, const uint16_t *q,
                          const uint16_t *recip, const uint16_t *half, uint16_t *adapt) {
    const __m512i zero = _mm512_setzero_si512();
    __m512i a[2], n[2], O[2];
    for (int k = 0; k < 2; ++k) {
        a[k] = _mm512_abs_epi16(c[k]);
        const __m512i R = load32(recip + 32 * k);
        if (kAdapt) {
            // (a recip + offset) >> 14: the whole steps of a recip, plus one
            // where the offset carries the low 14 bits of a recip past 2^14.
            O[k] = load32(adapt + 32 * k);
            const __m512i whole = _mm512_mulhi_epu16(_mm512_slli_epi16(a[k], 2), R);
            const __m512i part = _mm512_and_si512(_mm512_mullo_epi16(a[k], R), _mm512_set1_epi16(0x3FFF));
            n[k] = _mm512_add_epi16(whole, _mm512_srli_epi16(_mm512_add_epi16(part, O[k]), 14));
        } else {
            n[k] = _mm512_mulhi_epu16(_mm512_slli_epi16(_mm512_add_epi16(a[k], load32(half + 32 * k)), 2), R);
        }
    }
    if (kSuppress) {
        // Suppression only where the AC magnitudes add up to more than 7.
        // Sums of values each capped at 255 exceed 7 exactly where the
        // sums of the values do, so the magnitudes are packed to bytes
        // with saturation (the DC coefficient's as 0), added in eights,
        // and the eight sums capped and added again.
        const __m512i b = _mm512_maskz_packus_epi16(~__mmask64(1), n[0], n[1]);
        const __m128i s8 = _mm512_cvtusepi64_epi8(_mm512_sad_epu8(b, zero));
        // A branch: predicted, the levels' chain through the offsets does
        // not wait for the sum.
        const bool busy = _mm_cvtsi128_si32(_mm_sad_epu8(s8, _mm_setzero_si128())) > 7;
        // A level above M = (a + q - T) / q comes down to it (see kept_rows
        // of the AVX2 kernels); the quotient from the reciprocal, plus one
        // where the remainder is still q or more.
        for (int k = 0; k < 2 && busy; ++k) {
            const __m512i T = _mm512_cvtepu8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(row + 32 * k)));
            const __m512i Q = load32(q + 32 * k);
            const __m512i Z = _mm512_subs_epu16(_mm512_add_epi16(a[k], Q), T);
            const __m512i m0 = _mm512_mulhi_epu16(_mm512_slli_epi16(Z, 2), load32(recip + 32 * k));
            const __m512i rem = _mm512_sub_epi16(Z, _mm512_mullo_epi16(m0, Q));
            const __m512i M = _mm512_mask_add_epi16(m0, _mm512_cmple_epu16_mask(Q, rem), m0, _mm512_set1_epi16(1));
            n[k] = _mm512_min_epu16(n[k], M);
        }
    }
    if (kAdapt) {
        // err = a - n q where the level is not 0 (elsewhere 0, which keeps
        // the offset); d = (|err| recip) >> 11 as the high half of 32 |err|
        // recip; the offset moves by d toward err's sign.
        for (int k = 0; k < 2; ++k) {
            const __m512i Q = load32(q + 32 * k), R = load32(recip + 32 * k);
            const __m512i err = _mm512_maskz_sub_epi16(_mm512_test_epi16_mask(n[k], n[k]), a[k], _mm512_mullo_epi16(n[k], Q));
            const __m512i d = _mm512_mulhi_epu16(_mm512_slli_epi16(_mm512_abs_epi16(err), 5), R);
            const __m512i o = _mm512_mask_sub_epi16(_mm512_add_epi16(O[k], d), _mm512_movepi16_mask(err), O[k], d);
            _mm512_storeu_si512(adapt + 32 * k, _mm512_min_epi16(_mm512_max_epi16(o, zero), _mm512_set1_epi16(8192)));
        }
    }
    // The signs put back: -n where c < 0 (a zero coefficient has a zero
    // level in these ranges).
    for (int k = 0; k < 2; ++k)
        _mm512_storeu_si512(blk + 32 * k, _mm512_mask_sub_epi16(n[k], _mm512_movepi16_mask(c[k]), zero, n[k]));
    return nonzero_zigzag(n[0], n[1]);
}

// The quantizer's steps on the coefficients c (rows 0 to 3, 4 to 7), as
// the kernels end.
inline uint64_t kept_steps(const __m512i c[2], const uint8_t *row, int16_t *blk, const uint16_t *q,
                           const uint16_t *recip, const uint16_t *half, uint16_t *adapt, bool suppress) {
    if (adapt) return suppress ? kept_rows<true, true>(c, row, blk, q, recip, half, adapt)
                               : kept_rows<true, false>(c, row, blk, q, recip, half, adapt);
    if (suppress) return kept_rows<false, true>(c, row, blk, q, recip, half, adapt);
    const uint64_t mask = quant_mask_rows(c, blk, recip, half);
    return mask & 1 ? ~uint64_t(0) : mask;
}

// The same from the coefficients of the AVX2 transform, two rows a vector.
inline uint64_t kept_steps(const __m256i c4[4], const uint8_t *row, int16_t *blk, const uint16_t *q,
                           const uint16_t *recip, const uint16_t *half, uint16_t *adapt, bool suppress) {
    const __m512i c[2] = {join(c4[0], c4[1]), join(c4[2], c4[3])};
    return kept_steps(c, row, blk, q, recip, half, adapt, suppress);
}

}  // namespace

uint64_t kivoe_fdct_quant_samples_avx512(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *recip,
                                         const uint16_t *offset) {
    __m128i x[8];
    load_columns_u8(src, stride, x);
    __m256i c4[4];
    fdct8_columns(x, c4);
    const __m512i c[2] = {join(c4[0], c4[1]), join(c4[2], c4[3])};
    return quant_mask_rows(c, blk, recip, offset);
}

uint64_t kivoe_fdct_quant_kept_samples_avx512(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                              const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                              int32_t suppress) {
    __m256i c[4];
    const uint8_t *row = block_coefficients<false>(src, stride, suppress, c);
    return kept_steps(c, row, blk, q, recip, half, adapt, suppress);
}

uint64_t kivoe_jnd_fdct_quant_kept_avx512(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                          const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                          int32_t suppress) {
    __m256i c[4];
    const uint8_t *row = block_coefficients<true>(src, stride, suppress, c);
    return kept_steps(c, row, blk, q, recip, half, adapt, suppress);
}

namespace {

// fdct8_pair's columns P from the columns xa and xb of two blocks.
inline void pair_columns(const __m128i xa[8], const __m128i xb[8], __m512i P[4]) {
    for (int i = 0; i < 4; ++i) {
        const int c0 = kPairColumns[i][0], c1 = kPairColumns[i][1];
        P[i] = join(_mm256_set_m128i(xb[c0], xa[c0]), _mm256_set_m128i(xb[c1], xa[c1]));
    }
}

// jnd_filter_vec (jnd_avx2.h) on 64 centre samples c: four rows of 16
// bytes, the neighbours' rows alike.
__attribute__((always_inline)) inline __m512i jnd_filter_vec512(__m512i c, __m512i m2, __m512i m1, __m512i p1,
                                                                 __m512i p2) {
    const __m512i idx = _mm512_and_si512(_mm512_srli_epi16(c, 4), _mm512_set1_epi8(15));
    auto table = [](const uint8_t (&t)[16]) {
        return _mm512_broadcast_i32x4(_mm_loadu_si128(reinterpret_cast<const __m128i *>(t)));
    };
    // base[c >> 4], plus one where c reaches step[c >> 4].
    auto count = [&](const JndSteps &s) {
        const __m512i base = _mm512_shuffle_epi8(table(s.base), idx);
        const __mmask64 up = _mm512_cmpge_epu8_mask(c, _mm512_shuffle_epi8(table(s.step), idx));
        return _mm512_mask_add_epi8(base, up, base, _mm512_set1_epi8(1));
    };
    const __m512i hi = _mm512_adds_epu8(c, count(kJndUp));
    const __m512i lo = _mm512_subs_epu8(c, count(kJndDown));
    const __m512i n[4] = {_mm512_min_epu8(_mm512_max_epu8(m2, lo), hi), _mm512_min_epu8(_mm512_max_epu8(m1, lo), hi),
                          _mm512_min_epu8(_mm512_max_epu8(p1, lo), hi), _mm512_min_epu8(_mm512_max_epu8(p2, lo), hi)};
    const __m512i w0 = _mm512_set1_epi16(0x0401), w1 = _mm512_set1_epi16(0x0406), w2 = _mm512_set1_epi16(0x0101);
    const __m512i eight = _mm512_set1_epi8(8);
    __m512i h[2];
    for (int k = 0; k < 2; ++k) {
        auto pairs = [k](__m512i a, __m512i b) { return k ? _mm512_unpackhi_epi8(a, b) : _mm512_unpacklo_epi8(a, b); };
        const __m512i s = _mm512_add_epi16(_mm512_maddubs_epi16(pairs(n[0], n[1]), w0),
                                           _mm512_maddubs_epi16(pairs(c, n[2]), w1));
        h[k] = _mm512_srli_epi16(_mm512_add_epi16(s, _mm512_maddubs_epi16(pairs(n[3], eight), w2)), 4);
    }
    return _mm512_packus_epi16(h[0], h[1]);
}

// The rows of the two blocks side by side at src and src + 8 filtered, 16
// bytes a row: rows 0 to 3 in z[0], 4 to 7 in z[1].
__attribute__((always_inline)) inline void jnd_filter_pair512(const uint8_t *src, int32_t stride, __m512i z[2]) {
    // y[s + 2] holds rows s and s + 1, g[s + 2] rows s to s + 3, for s
    // from -2.
    __m256i y[11];
    jnd_pair_rows(src, stride, y);
    __m512i g[9];
    for (int i = 0; i < 9; ++i) g[i] = join(y[i], y[i + 2]);
    for (int r = 0; r < 8; r += 4) z[r / 4] = jnd_filter_vec512(g[r + 2], g[r], g[r + 1], g[r + 3], g[r + 4]);
}

// fdct8_pair's columns P from the samples in z0 and z1 by the byte permutes
// idx, each sample to the low byte of its word.
inline void permuted_columns(__m512i z0, __m512i z1, const uint8_t (&idx)[4][64], __m512i P[4]) {
    for (int i = 0; i < 4; ++i)
        P[i] = _mm512_maskz_permutex2var_epi8(0x5555555555555555u, z0, _mm512_load_si512(idx[i]), z1);
}

// The thresholds of two blocks from s, which holds sums of block a's
// samples in its even 64-bit lanes and of block b's in its odd ones.
inline void pair_thresholds(__m512i s, const uint8_t *row[2]) {
    const __m256i s4 = _mm256_add_epi64(_mm512_castsi512_si256(s), _mm512_extracti64x4_epi64(s, 1));
    const __m128i s2 = _mm_add_epi64(_mm256_castsi256_si128(s4), _mm256_extracti128_si256(s4, 1));
    row[0] = sum_thresholds(_mm_cvtsi128_si32(s2));
    row[1] = sum_thresholds(_mm_extract_epi32(s2, 2));
}

// fdct8_pair's columns of two blocks filtered, and their thresholds (none
// without suppression). Blocks side by side go through the filter
// together, and one byte permute a vector takes their rows to columns.
__attribute__((always_inline)) inline void filtered_pair_columns(const uint8_t *a, const uint8_t *b, int32_t stride,
                                                                  bool suppress, __m512i P[4], const uint8_t *row[2]) {
    if (b != a + 8) {
        __m128i x[2][8];
        filtered_columns2(a, b, stride, suppress, x, row);
        pair_columns(x[0], x[1], P);
        return;
    }
    __m512i z[2];
    jnd_filter_pair512(a, stride, z);
    const __m512i z0 = z[0], z1 = z[1];
    permuted_columns(z0, z1, kPairIndex.columns, P);
    if (!suppress) {
        row[0] = row[1] = kNoThresholds;
        return;
    }
    // The sums of eight samples of block a in the even 64-bit lanes, of
    // block b in the odd ones.
    const __m512i zero = _mm512_setzero_si512();
    pair_thresholds(_mm512_add_epi64(_mm512_sad_epu8(z0, zero), _mm512_sad_epu8(z1, zero)), row);
}

// The 8 x 8 samples at src, row y in bytes 8 y to 8 y + 7.
inline __m512i load_block_u8(const uint8_t *src, int32_t stride) {
    __m128i r[4];
    for (int i = 0; i < 4; ++i) {
        const uint8_t *p = src + static_cast<ptrdiff_t>(2 * i) * stride;
        const __m128d lo = _mm_castsi128_pd(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(p)));
        r[i] = _mm_castpd_si128(_mm_loadh_pd(lo, reinterpret_cast<const double *>(p + stride)));
    }
    return join(_mm256_set_m128i(r[1], r[0]), _mm256_set_m128i(r[3], r[2]));
}

// fdct8_pair's columns of the blocks at a and b, and their thresholds
// (none without suppression).
__attribute__((always_inline)) inline void sample_pair_columns(const uint8_t *a, const uint8_t *b, int32_t stride,
                                                                bool suppress, __m512i P[4], const uint8_t *row[2]) {
    const __m512i za = load_block_u8(a, stride), zb = load_block_u8(b, stride);
    permuted_columns(za, zb, kPairIndex.blocks, P);
    if (!suppress) {
        row[0] = row[1] = kNoThresholds;
        return;
    }
    // The sums of eight samples of block a, then b, in each 128-bit lane.
    const __m512i zero = _mm512_setzero_si512();
    const __m512i sa = _mm512_sad_epu8(za, zero), sb = _mm512_sad_epu8(zb, zero);
    pair_thresholds(_mm512_add_epi64(_mm512_unpacklo_epi64(sa, sb), _mm512_unpackhi_epi64(sa, sb)), row);
}

// Two blocks transformed together before either is quantized, the first
// quantized first (the second may take the offsets the first leaves).
template <bool kFilter>
inline void kept_pair(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2], const uint16_t *q,
                      const uint16_t *recip, const uint16_t *half, uint16_t *adapt, bool suppress, uint64_t *mask) {
    __m512i P[4];
    const uint8_t *row[2];
    if (kFilter) {
        filtered_pair_columns(src[0], src[1], stride, suppress, P, row);
    } else {
        sample_pair_columns(src[0], src[1], stride, suppress, P, row);
    }
    __m512i c[2][2];
    fdct8_pair(P, c[0], c[1]);
    mask[0] = kept_steps(c[0], row[0], blk[0], q, recip, half, adapt, suppress);
    mask[1] = kept_steps(c[1], row[1], blk[1], q, recip, half, adapt, suppress);
}

}  // namespace

void kivoe_jnd_fdct_quant_kept4_avx512(const uint8_t *const src[4], int32_t stride, int16_t *const blk[4],
                                       const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                       int32_t suppress, uint64_t *mask) {
    // The blocks in two pairs side by side (the 2 x 2 blocks of an MCU).
    __m512i P[2][4];
    const uint8_t *row[4];
    for (int i = 0; i < 4; i += 2) filtered_pair_columns(src[i], src[i + 1], stride, suppress, P[i / 2], &row[i]);
    __m512i c[4][2];
    for (int i = 0; i < 4; i += 2) fdct8_pair(P[i / 2], c[i], c[i + 1]);
    for (int i = 0; i < 4; ++i) mask[i] = kept_steps(c[i], row[i], blk[i], q, recip, half, adapt, suppress);
}

void kivoe_fdct_quant_kept2_avx512(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2],
                                   const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                   int32_t suppress, uint64_t *mask) {
    kept_pair<false>(src, stride, blk, q, recip, half, adapt, suppress, mask);
}

void kivoe_jnd_fdct_quant_kept2_avx512(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2],
                                       const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                       int32_t suppress, uint64_t *mask) {
    kept_pair<true>(src, stride, blk, q, recip, half, adapt, suppress, mask);
}
