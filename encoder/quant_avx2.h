// Steps shared by the AVX2 quantizers and the AVX-512 ones: loads, the
// plain quantizer's magnitudes, and a block's samples (filtered or not) as
// columns for the transform with their suppression thresholds. Internal
// linkage: each file's copy is compiled for its own CPU level.
#ifndef KIVO_ENCODER_QUANT_AVX2_H
#define KIVO_ENCODER_QUANT_AVX2_H

#include <immintrin.h>

#include "encoder/fdct_avx2.h"
#include "encoder/jnd_avx2.h"
#include "encoder/kivoe_int.h"

namespace {

inline __m256i load16(const void *p) { return _mm256_loadu_si256(static_cast<const __m256i *>(p)); }

// Sixteen coefficients as two halves: the transforms store their rows eight
// at a time, and a wider load of two such stores waits for both to retire.
inline __m256i load_rows(const int16_t *p) {
    const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
    const __m128i hi = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 8));
    return _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
}

// Level of sign c and magnitude n: n for c > 0, -n otherwise.
inline __m256i apply_sign(__m256i c, __m256i n) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i pos = _mm256_cmpgt_epi16(c, zero);
    return _mm256_blendv_epi8(_mm256_sub_epi16(zero, n), n, pos);
}

// Level magnitudes of sixteen coefficients c (at most 32767).
inline __m256i magnitude(__m256i c, const uint16_t *recip, const uint16_t *offset) {
    // |c| as unsigned 16 bits (32768 for -32768) plus the offset.
    const __m256i a = _mm256_add_epi16(_mm256_abs_epi16(c), load16(offset));
    const __m256i r = load16(recip);
    // (a * recip) >> 14 from the two halves of the product (below 2^30).
    const __m256i hi = _mm256_mulhi_epu16(a, r), lo = _mm256_mullo_epi16(a, r);
    const __m256i n = _mm256_or_si256(_mm256_slli_epi16(hi, 2), _mm256_srli_epi16(lo, 14));
    return _mm256_min_epu16(n, _mm256_set1_epi16(32767));
}

// All-zero thresholds, which suppress nothing.
alignas(64) const uint8_t kNoThresholds[64] = {};

// The threshold row of a block whose 64 samples add up to S (F = (S -
// 8188) >> 3 is its DC coefficient, and (F + 1024) >> 3 is (S + 4) >> 6).
inline const uint8_t *sum_thresholds(int32_t S) {
    const int k = tbl_suppr_lum[(S + 4) >> 6];
    return k ? kivo_tbl_suppr_thr + 64 * (k - 1) : kNoThresholds;
}

// The threshold row of the brightness of the 8 x 8 samples at src, known
// before the transform.
inline const uint8_t *sample_thresholds(const uint8_t *src, int32_t stride) {
    const __m128i zero = _mm_setzero_si128();
    __m128i sum = zero;
    for (int i = 0; i < 8; i += 2) {
        const __m128i r0 = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(src + i * static_cast<ptrdiff_t>(stride)));
        const __m128i r1 = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(src + (i + 1) * static_cast<ptrdiff_t>(stride)));
        sum = _mm_add_epi64(sum, _mm_sad_epu8(_mm_unpacklo_epi64(r0, r1), zero));
    }
    return sum_thresholds(_mm_cvtsi128_si32(_mm_add_epi64(sum, _mm_unpackhi_epi64(sum, sum))));
}

// The columns of a block read from its plane, and its thresholds.
__attribute__((always_inline)) inline const uint8_t *sample_columns(const uint8_t *src, int32_t stride, bool suppress, __m128i x[8]) {
    load_columns_u8(src, stride, x);
    return suppress ? sample_thresholds(src, stride) : kNoThresholds;
}

// The columns of the block whose rows b holds as jnd_filter_rows leaves
// them, as 16-bit vectors over the rows (load_columns_u8's result).
inline void columns_of_rows(const __m256i b[2], __m128i x[8]) {
    const __m256i pairs = _mm256_setr_epi8(0, 8, 1, 9, 2, 10, 3, 11, 4, 12, 5, 13, 6, 14, 7, 15,
                                           0, 8, 1, 9, 2, 10, 3, 11, 4, 12, 5, 13, 6, 14, 7, 15);
    // Bytes of rows 0 and 1, 2 and 3, ... interleaved.
    const __m256i a01 = _mm256_shuffle_epi8(b[0], pairs), a23 = _mm256_shuffle_epi8(b[1], pairs);
    columns_of_pairs(_mm256_castsi256_si128(a01), _mm256_extracti128_si256(a01, 1), _mm256_castsi256_si128(a23),
                     _mm256_extracti128_si256(a23, 1), x);
}

// The threshold row of the brightness of the filtered rows b.
inline const uint8_t *filtered_thresholds(const __m256i b[2]) {
    const __m256i s = _mm256_add_epi64(_mm256_sad_epu8(b[0], _mm256_setzero_si256()),
                                       _mm256_sad_epu8(b[1], _mm256_setzero_si256()));
    const __m128i sum = _mm_add_epi64(_mm256_castsi256_si128(s), _mm256_extracti128_si256(s, 1));
    return sum_thresholds(_mm_cvtsi128_si32(_mm_add_epi64(sum, _mm_unpackhi_epi64(sum, sum))));
}

// The coefficients of the block at src (the transform's, two rows a vector)
// and its thresholds: its samples read straight or, kFilter, through the
// JND filter, whose output's sum gives the thresholds of the DC
// coefficient's brightness as the unfiltered samples' sum does.
template <bool kFilter>
__attribute__((always_inline)) inline const uint8_t *block_coefficients(const uint8_t *src, int32_t stride, bool suppress,
                                                                     __m256i c[4]) {
    __m128i x[8];
    const uint8_t *row;
    if (kFilter) {
        __m256i b[2];
        jnd_filter_rows(src, stride, b);
        columns_of_rows(b, x);
        row = suppress ? filtered_thresholds(b) : kNoThresholds;
    } else {
        row = sample_columns(src, stride, suppress, x);
    }
    fdct8_columns(x, c);
    return row;
}

// The columns of two blocks, filtered, and their thresholds (none without
// suppression): a pair side by side goes through the filter together.
__attribute__((always_inline)) inline void filtered_columns2(const uint8_t *a, const uint8_t *b, int32_t stride, bool suppress, __m128i x[2][8],
                              const uint8_t *row[2]) {
    __m256i f[2][2];
    if (b == a + 8) {
        jnd_filter_pair_rows(a, stride, f[0], f[1]);
    } else {
        jnd_filter_rows(a, stride, f[0]);
        jnd_filter_rows(b, stride, f[1]);
    }
    for (int k = 0; k < 2; ++k) {
        columns_of_rows(f[k], x[k]);
        row[k] = suppress ? filtered_thresholds(f[k]) : kNoThresholds;
    }
}

}  // namespace

#endif
