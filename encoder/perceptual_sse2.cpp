// SSE2 kernels of the perceptual selection's statistics pass, bit-exact to
// the plain ones.
#include <emmintrin.h>

#include "encoder/enc_simd.h"

void kivoe_box2_sse2(const uint8_t *src, int32_t stride, int16_t *blk) {
    const __m128i low = _mm_set1_epi16(0x00FF);
    for (int j = 0; j < 8; ++j, src += 2 * static_cast<ptrdiff_t>(stride)) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + stride));
        // Even and odd samples of both rows as 16-bit lanes.
        const __m128i s = _mm_add_epi16(_mm_add_epi16(_mm_and_si128(a, low), _mm_srli_epi16(a, 8)),
                                        _mm_add_epi16(_mm_and_si128(b, low), _mm_srli_epi16(b, 8)));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(blk + 8 * j), _mm_srli_epi16(s, 2));
    }
}

void kivoe_abs_acc_sse2(const int16_t *blk, uint32_t *acc) {
    const __m128i zero = _mm_setzero_si128();
    for (int i = 0; i < 64; i += 8) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(blk + i));
        const __m128i s = _mm_srai_epi16(v, 15);
        const __m128i a = _mm_sub_epi16(_mm_xor_si128(v, s), s);  // 32768 for -32768, as unsigned
        __m128i *p = reinterpret_cast<__m128i *>(acc + i);
        _mm_storeu_si128(p, _mm_add_epi32(_mm_loadu_si128(p), _mm_unpacklo_epi16(a, zero)));
        _mm_storeu_si128(p + 1, _mm_add_epi32(_mm_loadu_si128(p + 1), _mm_unpackhi_epi16(a, zero)));
    }
}
