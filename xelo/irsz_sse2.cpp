// SSE2 row kernels of the resizer, bit-exact to the plain ones: every sum
// fits 16-bit lanes, so the lanes compute the plain kernels' integers. Whole
// vectors first, the rest of the row by the plain code.
#include <emmintrin.h>

#include "xelo/irsz_dsp.h"

namespace xelo {
namespace {

inline __m128i load(const void *p) { return _mm_loadu_si128(static_cast<const __m128i *>(p)); }
inline void store(void *p, __m128i v) { _mm_storeu_si128(static_cast<__m128i *>(p), v); }

void up2_sse2(const uint8_t *s, uint16_t *out, int n) {
    out[0] = uint16_t(4 * s[0]);
    const __m128i z = _mm_setzero_si128();
    int k = 0;
    for (; k + 16 < n; k += 16) {  // reads s[k .. k+16]
        const __m128i a8 = load(s + k), b8 = load(s + k + 1);
        for (int h = 0; h < 2; ++h) {
            const __m128i a = h ? _mm_unpackhi_epi8(a8, z) : _mm_unpacklo_epi8(a8, z);
            const __m128i b = h ? _mm_unpackhi_epi8(b8, z) : _mm_unpacklo_epi8(b8, z);
            const __m128i ab = _mm_add_epi16(a, b);
            const __m128i odd = _mm_add_epi16(ab, _mm_add_epi16(a, a));   // 3a + b
            const __m128i even = _mm_add_epi16(ab, _mm_add_epi16(b, b));  // a + 3b
            uint16_t *o = out + 2 * k + 1 + 16 * h;
            store(o, _mm_unpacklo_epi16(odd, even));
            store(o + 8, _mm_unpackhi_epi16(odd, even));
        }
    }
    irsz_up2_from(s, out, k, n);
}

void down2_sse2(const uint8_t *s, uint16_t *out, int n) {
    const __m128i lo = _mm_set1_epi16(0xFF);
    int j = 0;
    for (; j + 8 <= n; j += 8) {
        const __m128i v = load(s + 2 * j);
        store(out + j, _mm_add_epi16(_mm_and_si128(v, lo), _mm_srli_epi16(v, 8)));
    }
    irsz_down2_c(s + 2 * j, out + j, n - j);
}

void widen_sse2(const uint8_t *s, uint16_t *out, int n) {
    const __m128i z = _mm_setzero_si128();
    int j = 0;
    for (; j + 16 <= n; j += 16) {
        const __m128i v = load(s + j);
        store(out + j, _mm_unpacklo_epi8(v, z));
        store(out + j + 8, _mm_unpackhi_epi8(v, z));
    }
    irsz_widen_c(s + j, out + j, n - j);
}

void mix_sse2(const uint16_t *a, const uint16_t *b, uint8_t *out, int n, int wa, int wb, int shift) {
    const __m128i va = _mm_set1_epi16(int16_t(wa)), vb = _mm_set1_epi16(int16_t(wb));
    const __m128i half = _mm_set1_epi16(int16_t(1 << (shift - 1))), sh = _mm_cvtsi32_si128(shift);
    const auto eight = [&](int x) {
        const __m128i s = _mm_add_epi16(_mm_mullo_epi16(load(a + x), va), _mm_mullo_epi16(load(b + x), vb));
        return _mm_srl_epi16(_mm_add_epi16(s, half), sh);
    };
    int x = 0;
    for (; x + 16 <= n; x += 16) store(out + x, _mm_packus_epi16(eight(x), eight(x + 8)));
    irsz_mix_c(a + x, b + x, out + x, n - x, wa, wb, shift);
}

}  // namespace

void irsz_init_sse2(IrszDsp *dsp) {
    dsp->up2 = up2_sse2;
    dsp->down2 = down2_sse2;
    dsp->widen = widen_sse2;
    dsp->mix = mix_sse2;
}

}  // namespace xelo
