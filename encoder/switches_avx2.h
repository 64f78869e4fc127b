// The vector operations of the x86 switch kernels (switches_x86.h) over
// AVX2 registers of sixteen 16-bit lanes. Only AVX2 files include it.
#ifndef KIVO_ENCODER_SWITCHES_AVX2_H
#define KIVO_ENCODER_SWITCHES_AVX2_H

#include <immintrin.h>

#include "encoder/switches_x86.h"

namespace {

struct Avx2 {
    using R = __m256i;
    static constexpr int kLanes = 16;
    static constexpr int kAll = -1;
    static R load(const void *p) { return _mm256_loadu_si256(static_cast<const __m256i *>(p)); }
    static void store(void *p, R v) { _mm256_storeu_si256(static_cast<__m256i *>(p), v); }
    static R thr(const uint8_t *p) { return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p))); }
    static R zero() { return _mm256_setzero_si256(); }
    static R set16(int16_t v) { return _mm256_set1_epi16(v); }
    static R set32(int32_t v) { return _mm256_set1_epi32(v); }
    static R first16() { return _mm256_setr_epi16(-1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0); }
    static R add16(R a, R b) { return _mm256_add_epi16(a, b); }
    static R sub16(R a, R b) { return _mm256_sub_epi16(a, b); }
    static R subs16(R a, R b) { return _mm256_subs_epi16(a, b); }
    static R gt16(R a, R b) { return _mm256_cmpgt_epi16(a, b); }
    static R sub32(R a, R b) { return _mm256_sub_epi32(a, b); }
    static R x_or(R a, R b) { return _mm256_xor_si256(a, b); }
    static R a_nd(R a, R b) { return _mm256_and_si256(a, b); }
    static R o_r(R a, R b) { return _mm256_or_si256(a, b); }
    static R andn(R a, R b) { return _mm256_andnot_si256(a, b); }
    static R sra15(R a) { return _mm256_srai_epi16(a, 15); }
    template <int n> static R shl16(R a) { return _mm256_slli_epi16(a, n); }
    template <int n> static R shr16(R a) { return _mm256_srli_epi16(a, n); }
    static R mullo(R a, R b) { return _mm256_mullo_epi16(a, b); }
    static R mulhu(R a, R b) { return _mm256_mulhi_epu16(a, b); }
    static R eq16(R a, R b) { return _mm256_cmpeq_epi16(a, b); }
    static R gt32(R a, R b) { return _mm256_cmpgt_epi32(a, b); }
    static R subsu16(R a, R b) { return _mm256_subs_epu16(a, b); }
    static R max16(R a, R b) { return _mm256_max_epi16(a, b); }
    static R min16(R a, R b) { return _mm256_min_epi16(a, b); }
    // Within each 128-bit lane, as the unpacks below: their pairing
    // restores the order.
    static R packs32(R a, R b) { return _mm256_packs_epi32(a, b); }
    static R lo16(R a, R b) { return _mm256_unpacklo_epi16(a, b); }
    static R hi16(R a, R b) { return _mm256_unpackhi_epi16(a, b); }
    static int mask(R a) { return _mm256_movemask_epi8(a); }
    static int32_t hsum16(R a) {
        const __m256i s8 = _mm256_madd_epi16(a, _mm256_set1_epi16(1));
        __m128i s = _mm_add_epi32(_mm256_castsi256_si128(s8), _mm256_extracti128_si256(s8, 1));
        s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(1, 0, 3, 2)));
        s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(2, 3, 0, 1)));
        return _mm_cvtsi128_si32(s);
    }
};

}  // namespace

#endif
