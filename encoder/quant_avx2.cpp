// AVX2 quantizers, sixteen coefficients per step, bit-exact to the plain
// ones (kivoe_quant for offsets below 32768, as the half values are).
#include <immintrin.h>

#include "encoder/enc_simd.h"

namespace {

inline __m256i load16(const void *p) { return _mm256_loadu_si256(static_cast<const __m256i *>(p)); }

// Level of sign c and magnitude n: n for c > 0, -n otherwise.
inline __m256i apply_sign(__m256i c, __m256i n) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i pos = _mm256_cmpgt_epi16(c, zero);
    return _mm256_blendv_epi8(_mm256_sub_epi16(zero, n), n, pos);
}

}  // namespace

int32_t kivoe_quant_avx2(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    const __m256i limit = _mm256_set1_epi16(32767);
    const __m256i zero = _mm256_setzero_si256();
    __m256i zeros = zero;  // per lane: levels equal to 0
    for (int i = 0; i < 64; i += 16) {
        const __m256i c = load16(blk + i);
        // |c| as unsigned 16 bits (32768 for -32768) plus the offset.
        const __m256i a = _mm256_add_epi16(_mm256_abs_epi16(c), load16(offset + i));
        const __m256i r = load16(recip + i);
        // (a * recip) >> 14 from the two halves of the product (below 2^30).
        const __m256i hi = _mm256_mulhi_epu16(a, r), lo = _mm256_mullo_epi16(a, r);
        __m256i n = _mm256_or_si256(_mm256_slli_epi16(hi, 2), _mm256_srli_epi16(lo, 14));
        n = _mm256_min_epu16(n, limit);
        const __m256i level = apply_sign(c, n);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(blk + i), level);
        zeros = _mm256_sub_epi16(zeros, _mm256_cmpeq_epi16(level, zero));
    }
    __m128i sum = _mm_add_epi16(_mm256_castsi256_si128(zeros), _mm256_extracti128_si256(zeros, 1));
    sum = _mm_madd_epi16(sum, _mm_set1_epi16(1));
    sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(1, 0, 3, 2)));
    sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(2, 3, 0, 1)));
    return 64 - _mm_cvtsi128_si32(sum);
}

uint64_t kivoe_quant_mask_avx2(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    kivoe_quant_avx2(blk, recip, offset);
    return kivoe_level_mask_sse2(blk);
}

void kivoe_quant_rdoq_avx2(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    const __m256i zero = _mm256_setzero_si256();
    for (int i = 0; i < 64; i += 16) {
        const __m256i c = load16(blk + i);
        const __m256i a = _mm256_abs_epi16(c);
        const __m256i r = load16(recip + i), o = load16(offset + i);
        const __m256i hi = _mm256_mulhi_epu16(a, r), lo = _mm256_mullo_epi16(a, r);
        // 32-bit products plus the offset, shifted by 14: below 2^16, so
        // the low 16 bits of each are the whole value.
        const __m256i p0 = _mm256_srli_epi32(_mm256_add_epi32(_mm256_unpacklo_epi16(lo, hi), _mm256_unpacklo_epi16(o, zero)), 14);
        const __m256i p1 = _mm256_srli_epi32(_mm256_add_epi32(_mm256_unpackhi_epi16(lo, hi), _mm256_unpackhi_epi16(o, zero)), 14);
        // packus keeps values up to 65535 as they are; the unpacks and the
        // pack both work within 128-bit lanes, so the order is restored.
        const __m256i n = _mm256_packus_epi32(p0, p1);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(blk + i), apply_sign(c, n));
    }
}
