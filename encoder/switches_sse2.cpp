// SSE2 JND suppression and offset update, bit-exact to the plain ones.
#include <emmintrin.h>

#include "encoder/enc_simd.h"
#include "encoder/switches_x86.h"

namespace {

struct Sse2 {
    using R = __m128i;
    static constexpr int kLanes = 8;
    static constexpr int kAll = 0xFFFF;
    static R load(const void *p) { return _mm_loadu_si128(static_cast<const __m128i *>(p)); }
    static void store(void *p, R v) { _mm_storeu_si128(static_cast<__m128i *>(p), v); }
    static R thr(const uint8_t *p) {
        return _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(p)), _mm_setzero_si128());
    }
    static R zero() { return _mm_setzero_si128(); }
    static R set16(int16_t v) { return _mm_set1_epi16(v); }
    static R set32(int32_t v) { return _mm_set1_epi32(v); }
    static R first16() { return _mm_cvtsi32_si128(0xFFFF); }
    static R add16(R a, R b) { return _mm_add_epi16(a, b); }
    static R sub16(R a, R b) { return _mm_sub_epi16(a, b); }
    static R subs16(R a, R b) { return _mm_subs_epi16(a, b); }
    static R gt16(R a, R b) { return _mm_cmpgt_epi16(a, b); }
    static R sub32(R a, R b) { return _mm_sub_epi32(a, b); }
    static R x_or(R a, R b) { return _mm_xor_si128(a, b); }
    static R a_nd(R a, R b) { return _mm_and_si128(a, b); }
    static R o_r(R a, R b) { return _mm_or_si128(a, b); }
    static R andn(R a, R b) { return _mm_andnot_si128(a, b); }
    static R sra15(R a) { return _mm_srai_epi16(a, 15); }
    template <int n> static R shl16(R a) { return _mm_slli_epi16(a, n); }
    template <int n> static R shr16(R a) { return _mm_srli_epi16(a, n); }
    static R mullo(R a, R b) { return _mm_mullo_epi16(a, b); }
    static R mulhu(R a, R b) { return _mm_mulhi_epu16(a, b); }
    static R eq16(R a, R b) { return _mm_cmpeq_epi16(a, b); }
    static R gt32(R a, R b) { return _mm_cmpgt_epi32(a, b); }
    static R subsu16(R a, R b) { return _mm_subs_epu16(a, b); }
    static R max16(R a, R b) { return _mm_max_epi16(a, b); }
    static R min16(R a, R b) { return _mm_min_epi16(a, b); }
    static R packs32(R a, R b) { return _mm_packs_epi32(a, b); }
    static R lo16(R a, R b) { return _mm_unpacklo_epi16(a, b); }
    static R hi16(R a, R b) { return _mm_unpackhi_epi16(a, b); }
    static int mask(R a) { return _mm_movemask_epi8(a); }
    static int32_t hsum16(R a) {
        R s = _mm_madd_epi16(a, _mm_set1_epi16(1));
        s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(1, 0, 3, 2)));
        s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(2, 3, 0, 1)));
        return _mm_cvtsi128_si32(s);
    }
};

}  // namespace

void kivoe_jnd_suppress_sse2(int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                             const uint8_t *thr) {
    suppress_body<Sse2>(levels, coef, q, recip, thr);
}

void kivoe_update_offset_sse2(const int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                              uint16_t *offset) {
    update_body<Sse2>(levels, coef, q, recip, offset);
}
