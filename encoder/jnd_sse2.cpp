// SSE2 JND filter, two output rows per step, bit-exact to the plain one.
#include <emmintrin.h>

#include "encoder/enc_simd.h"

namespace {

// Per byte: how many of the eight steps t are at or below c.
inline __m128i steps_at_or_below(__m128i c, const uint8_t (&t)[8]) {
    __m128i n = _mm_setzero_si128();
    for (uint8_t s : t) {
        const __m128i v = _mm_set1_epi8(static_cast<char>(s));
        n = _mm_sub_epi8(n, _mm_cmpeq_epi8(_mm_max_epu8(c, v), c));
    }
    return n;
}

inline __m128i rows(const uint8_t *p, int32_t stride, int y) {
    const __m128i a = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(p + static_cast<ptrdiff_t>(y) * stride));
    const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(p + static_cast<ptrdiff_t>(y + 1) * stride));
    return _mm_unpacklo_epi64(a, b);
}

}  // namespace

void kivoe_jndfilt8x8_sse2(const uint8_t *src, int32_t stride, int16_t *blk) {
    static constexpr uint8_t kUp[8] = {11, 30, 55, 84, 118, 155, 195, 239};
    static constexpr uint8_t kDown[8] = {12, 32, 58, 88, 123, 161, 202, 247};
    const __m128i zero = _mm_setzero_si128();
    for (int y = 0; y < 8; y += 2) {
        const __m128i c = rows(src, stride, y);
        // The band [c - d(c), min(255, c + a(c))] that neighbours are held to.
        const __m128i hi = _mm_adds_epu8(c, steps_at_or_below(c, kUp));
        const __m128i lo = _mm_subs_epu8(c, steps_at_or_below(c, kDown));
        __m128i n[4];
        const int dy[4] = {-2, -1, 1, 2};
        for (int k = 0; k < 4; ++k) n[k] = _mm_min_epu8(_mm_max_epu8(rows(src, stride, y + dy[k]), lo), hi);
        for (int h = 0; h < 2; ++h) {
            auto wide = [&](__m128i v) { return h ? _mm_unpackhi_epi8(v, zero) : _mm_unpacklo_epi8(v, zero); };
            const __m128i c16 = wide(c);
            const __m128i near = _mm_slli_epi16(_mm_add_epi16(wide(n[1]), wide(n[2])), 2);
            const __m128i centre = _mm_add_epi16(_mm_slli_epi16(c16, 2), _mm_add_epi16(c16, c16));
            __m128i s = _mm_add_epi16(_mm_add_epi16(wide(n[0]), wide(n[3])), _mm_set1_epi16(8));
            s = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(s, near), centre), 4);
            _mm_storeu_si128(reinterpret_cast<__m128i *>(blk + 8 * (y + h)), s);
        }
    }
}
