// AVX-512 kernels from samples to levels: a block's 64 coefficients in two
// registers of 32 (rows 0 to 3 and 4 to 7), the steps' choices in mask
// registers, and the zig-zag mask of the non-zero levels from one byte
// permute. Pairs of blocks share the transform (each in one half of a
// 512-bit vector), their samples taken to its columns by byte permutes;
// single blocks keep the AVX2 loading and transform. Bit-exact to the
// plain kernels as the AVX2 ones are.
// fdct_avx512.h turns off GCC's uninitialized-value warnings, which its
// AVX-512 intrinsics set off.
#include "encoder/fdct_avx512.h"

#include "common/nonzero.h"
#include "encoder/enc_simd.h"
#include "encoder/quant_avx2.h"

namespace {

inline __m512i load32(const void *p) { return _mm512_loadu_si512(p); }

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
