// The AVX-512 forward DCT of two blocks at once, for the AVX-512 kernels:
// each block in one 256-bit half, bit-exact to the AVX2 transform (and so
// to the plain one) for samples 0 to 255. Internal linkage: only AVX-512
// files include it.
#ifndef KIVO_ENCODER_FDCT_AVX512_H
#define KIVO_ENCODER_FDCT_AVX512_H

// GCC 12's AVX-512 intrinsics start some results from a deliberately
// undefined vector and then warn of it at every use, in every file that
// uses them.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

#include "encoder/fdct_avx2.h"

namespace {

// lo in the low 256 bits, hi in the high ones.
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

}  // namespace

#endif
