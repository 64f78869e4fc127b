// SSE2 coefficient magnitudes, equal to kivod_add_mag.
#include <emmintrin.h>

#include "decoder/kivod_int.h"

void kivod_add_mag_sse2(const int16_t *blk, uint32_t *mag) {
    const __m128i zero = _mm_setzero_si128();
    for (int i = 0; i < 64; i += 8) {
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(blk + i));
        const __m128i s = _mm_srai_epi16(c, 15);
        const __m128i a = _mm_sub_epi16(_mm_xor_si128(c, s), s);  // 0x8000 for -32768: 32768 unsigned
        __m128i *m = reinterpret_cast<__m128i *>(mag + i);
        _mm_storeu_si128(m, _mm_add_epi32(_mm_loadu_si128(m), _mm_unpacklo_epi16(a, zero)));
        _mm_storeu_si128(m + 1, _mm_add_epi32(_mm_loadu_si128(m + 1), _mm_unpackhi_epi16(a, zero)));
    }
}
