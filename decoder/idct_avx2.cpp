// AVX2 8x8 inverse DCT, bit-exact to kivod_idct8.
//
// The arithmetic is that of the SSE2 kernel (32-bit lanes, vpmaddwd on
// interleaved 16-bit pairs, narrowing by keeping the low 16 bits), but each
// pass handles all eight rows or columns in one 256-bit register.
#include <immintrin.h>

#include "decoder/idct_simd.h"
#include "decoder/kivod_int.h"

namespace {

using namespace kivo::idct;

inline __m256i pair(int32_t k0, int32_t k1) {
    const uint32_t lo = static_cast<uint16_t>(k0);
    const uint32_t hi = static_cast<uint16_t>(k1);
    return _mm256_set1_epi32(static_cast<int32_t>(lo | (hi << 16)));
}

inline __m256i add32(__m256i a, __m256i b) { return _mm256_add_epi32(a, b); }
inline __m256i sub32(__m256i a, __m256i b) { return _mm256_sub_epi32(a, b); }

// (181 * x + 128) >> 8 with the product taken modulo 2^32.
inline __m256i rot(__m256i x) {
    const __m256i prod = _mm256_mullo_epi32(x, _mm256_set1_epi32(static_cast<int32_t>(kC)));
    return _mm256_srai_epi32(add32(prod, _mm256_set1_epi32(128)), 8);
}

template <int shift>
inline __m256i narrow(__m256i x) {
    return _mm256_srai_epi32(_mm256_slli_epi32(x, 16 - shift), 16);
}

// Eight rows or columns of the 8-point transform; see pass8 in idct_sse2.cpp.
template <bool kFirst>
inline void pass8(__m256i p04, __m256i p17, __m256i p35, __m256i p26, __m256i out[8]) {
    const int32_t dc_mul = kFirst ? 2048 : 256;
    const __m256i bias = _mm256_set1_epi32(kFirst ? 128 : 8192);
    __m256i a = _mm256_madd_epi16(p17, pair(kW1, kW7));
    __m256i b = _mm256_madd_epi16(p17, pair(kW7, -static_cast<int32_t>(kW1)));
    __m256i c = _mm256_madd_epi16(p35, pair(kW3, kW5));
    __m256i d = _mm256_madd_epi16(p35, pair(-static_cast<int32_t>(kW5), kW3));
    __m256i e = _mm256_madd_epi16(p26, pair(kW2, kW6));
    __m256i f = _mm256_madd_epi16(p26, pair(kW6, -static_cast<int32_t>(kW2)));
    if (!kFirst) {
        const __m256i four = _mm256_set1_epi32(4);
        a = _mm256_srai_epi32(add32(a, four), 3);
        b = _mm256_srai_epi32(add32(b, four), 3);
        c = _mm256_srai_epi32(add32(c, four), 3);
        d = _mm256_srai_epi32(add32(d, four), 3);
        e = _mm256_srai_epi32(add32(e, four), 3);
        f = _mm256_srai_epi32(add32(f, four), 3);
    }
    const __m256i p = add32(_mm256_madd_epi16(p04, pair(dc_mul, dc_mul)), bias);
    const __m256i q = add32(_mm256_madd_epi16(p04, pair(dc_mul, -dc_mul)), bias);
    const __m256i s1 = add32(a, c), s4 = sub32(a, c);
    const __m256i s6 = add32(b, d), s5 = sub32(b, d);
    const __m256i t7 = add32(p, e), t8 = sub32(p, e);
    const __m256i t3 = add32(q, f), t0 = sub32(q, f);
    const __m256i g2 = rot(add32(s4, s5));
    const __m256i g4 = rot(sub32(s4, s5));
    constexpr int sh = kFirst ? 8 : 14;
    out[0] = narrow<sh>(add32(t7, s1));
    out[1] = narrow<sh>(add32(t3, g2));
    out[2] = narrow<sh>(add32(t0, g4));
    out[3] = narrow<sh>(add32(t8, s6));
    out[4] = narrow<sh>(sub32(t8, s6));
    out[5] = narrow<sh>(sub32(t0, g4));
    out[6] = narrow<sh>(sub32(t3, g2));
    out[7] = narrow<sh>(sub32(t7, s1));
}

// Two coefficient rows, one per 128-bit half.
inline __m256i load_rows(const int16_t *coef, int lo_row, int hi_row) {
    const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i *>(coef + lo_row * 8));
    const __m128i hi = _mm_loadu_si128(reinterpret_cast<const __m128i *>(coef + hi_row * 8));
    return _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
}

}  // namespace

// Lanes hold the rows in the order 0,4,1,7 (low half) and 3,5,2,6 (high
// half), as in the SSE2 kernel, so that the horizontal results pack into the
// row pairs (0,4), (1,7), (3,5), (2,6) of the vertical pass.
void kivod_idct8_avx2(const int16_t *coef, int32_t stride, uint8_t *dst) {
    const __m256i y0 = load_rows(coef, 0, 3), y1 = load_rows(coef, 4, 5);
    const __m256i y2 = load_rows(coef, 1, 2), y3 = load_rows(coef, 7, 6);
    const __m256i t0 = _mm256_unpacklo_epi16(y0, y1), t1 = _mm256_unpackhi_epi16(y0, y1);
    const __m256i t2 = _mm256_unpacklo_epi16(y2, y3), t3 = _mm256_unpackhi_epi16(y2, y3);
    // uXY: coefficient X of the half's four lanes in the low 64 bits, Y above.
    const __m256i u01 = _mm256_unpacklo_epi32(t0, t2), u23 = _mm256_unpackhi_epi32(t0, t2);
    const __m256i u45 = _mm256_unpacklo_epi32(t1, t3), u67 = _mm256_unpackhi_epi32(t1, t3);
    __m256i h[8];
    pass8<true>(_mm256_unpacklo_epi16(u01, u45), _mm256_unpackhi_epi16(u01, u67),
                _mm256_unpackhi_epi16(u23, u45), _mm256_unpacklo_epi16(u23, u67), h);

    // zK: columns K and K+1, per half [(0,4) (1,7) of K, of K+1 | (3,5) (2,6) ...].
    const __m256i z0 = _mm256_packs_epi32(h[0], h[1]), z2 = _mm256_packs_epi32(h[2], h[3]);
    const __m256i z4 = _mm256_packs_epi32(h[4], h[5]), z6 = _mm256_packs_epi32(h[6], h[7]);
    // Even columns 0,2,4,6 (a) and odd columns 1,3,5,7 (b).
    const __m256i a0 = _mm256_unpacklo_epi32(z0, z2), a1 = _mm256_unpacklo_epi32(z4, z6);
    const __m256i b0 = _mm256_unpackhi_epi32(z0, z2), b1 = _mm256_unpackhi_epi32(z4, z6);
    const __m256i ea = _mm256_unpacklo_epi64(a0, a1);  // [(0,4) | (3,5)] even columns
    const __m256i eb = _mm256_unpackhi_epi64(a0, a1);  // [(1,7) | (2,6)]
    const __m256i oa = _mm256_unpacklo_epi64(b0, b1);  // the same, odd columns
    const __m256i ob = _mm256_unpackhi_epi64(b0, b1);
    // Lanes: columns 0,2,4,6 | 1,3,5,7.
    __m256i v[8];
    pass8<false>(_mm256_permute2x128_si256(ea, oa, 0x20), _mm256_permute2x128_si256(eb, ob, 0x20),
                 _mm256_permute2x128_si256(ea, oa, 0x31), _mm256_permute2x128_si256(eb, ob, 0x31), v);

    const __m256i level = _mm256_set1_epi16(128);
    const ptrdiff_t ls = stride;
    for (int r = 0; r < 8; r += 4) {
        const __m256i x = _mm256_adds_epi16(_mm256_packs_epi32(v[r], v[r + 1]), level);
        const __m256i y = _mm256_adds_epi16(_mm256_packs_epi32(v[r + 2], v[r + 3]), level);
        // Per half: rows r..r+3, four samples each; even columns low, odd high.
        const __m256i px = _mm256_packus_epi16(x, y);
        const __m128i even = _mm256_castsi256_si128(px);
        const __m128i odd = _mm256_extracti128_si256(px, 1);
        const __m128i rows01 = _mm_unpacklo_epi8(even, odd);
        const __m128i rows23 = _mm_unpackhi_epi8(even, odd);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(dst + r * ls), rows01);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(dst + (r + 1) * ls), _mm_unpackhi_epi64(rows01, rows01));
        _mm_storel_epi64(reinterpret_cast<__m128i *>(dst + (r + 2) * ls), rows23);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(dst + (r + 3) * ls), _mm_unpackhi_epi64(rows23, rows23));
    }
}
