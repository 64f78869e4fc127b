// SSE2 inverse DCTs, bit-exact to the plain kernels in idct.cpp.
//
// Each pass works on four rows (or columns) per register in 32-bit lanes, so
// the wrapping 32-bit arithmetic of the plain kernel is reproduced exactly.
// Products come from pmaddwd on interleaved 16-bit coefficient pairs: for
// pairs (x, y) and constants (k0, k1) it gives k0*x + k1*y exactly, which is
// the plain kernel's value modulo 2^32. Narrowing to 16 bits keeps the low
// bits (shift left, then arithmetic shift right by 16, then a pack that can
// no longer saturate).
#include <emmintrin.h>

#include <cstring>

#include "decoder/idct_simd.h"
#include "decoder/kivod_int.h"

namespace {

using namespace kivo::idct;

// pmaddwd constant: k0 in the even 16-bit lanes, k1 in the odd ones.
inline __m128i pair(int32_t k0, int32_t k1) {
    const uint32_t lo = static_cast<uint16_t>(k0);
    const uint32_t hi = static_cast<uint16_t>(k1);
    return _mm_set1_epi32(static_cast<int32_t>(lo | (hi << 16)));
}

inline __m128i add32(__m128i a, __m128i b) { return _mm_add_epi32(a, b); }
inline __m128i sub32(__m128i a, __m128i b) { return _mm_sub_epi32(a, b); }

// 181 * x modulo 2^32 (SSE2 has no 32-bit low multiply): 181 = 4 * 5 * 9 + 1.
inline __m128i mul_c(__m128i x) {
    const __m128i x5 = add32(x, _mm_slli_epi32(x, 2));
    const __m128i x45 = add32(x5, _mm_slli_epi32(x5, 3));
    return add32(_mm_slli_epi32(x45, 2), x);
}

// (181 * x + 128) >> 8, the rotation of the odd part.
inline __m128i rot(__m128i x) {
    return _mm_srai_epi32(add32(mul_c(x), _mm_set1_epi32(128)), 8);
}

// Low 16 bits of (x >> shift), sign-extended in each 32-bit lane.
template <int shift>
inline __m128i narrow(__m128i x) {
    return _mm_srai_epi32(_mm_slli_epi32(x, 16 - shift), 16);
}

// Four rows or columns of the 8-point transform in 32-bit lanes. The inputs
// are interleaved pairs (x0,x4), (x1,x7), (x3,x5), (x2,x6). kFirst selects the
// horizontal pass (no product rounding, results >> 8) or the vertical pass
// (products rounded to 8 fraction bits, results >> 14); out[] holds the
// narrowed results, sign-extended in 32-bit lanes.
template <bool kFirst>
inline void pass8(__m128i p04, __m128i p17, __m128i p35, __m128i p26, __m128i out[8]) {
    const int32_t dc_mul = kFirst ? 2048 : 256;
    const __m128i bias = _mm_set1_epi32(kFirst ? 128 : 8192);
    __m128i a = _mm_madd_epi16(p17, pair(kW1, kW7));
    __m128i b = _mm_madd_epi16(p17, pair(kW7, -static_cast<int32_t>(kW1)));
    __m128i c = _mm_madd_epi16(p35, pair(kW3, kW5));
    __m128i d = _mm_madd_epi16(p35, pair(-static_cast<int32_t>(kW5), kW3));
    __m128i e = _mm_madd_epi16(p26, pair(kW2, kW6));
    __m128i f = _mm_madd_epi16(p26, pair(kW6, -static_cast<int32_t>(kW2)));
    if (!kFirst) {
        const __m128i four = _mm_set1_epi32(4);
        a = _mm_srai_epi32(add32(a, four), 3);
        b = _mm_srai_epi32(add32(b, four), 3);
        c = _mm_srai_epi32(add32(c, four), 3);
        d = _mm_srai_epi32(add32(d, four), 3);
        e = _mm_srai_epi32(add32(e, four), 3);
        f = _mm_srai_epi32(add32(f, four), 3);
    }
    const __m128i p = add32(_mm_madd_epi16(p04, pair(dc_mul, dc_mul)), bias);
    const __m128i q = add32(_mm_madd_epi16(p04, pair(dc_mul, -dc_mul)), bias);
    const __m128i s1 = add32(a, c), s4 = sub32(a, c);
    const __m128i s6 = add32(b, d), s5 = sub32(b, d);
    const __m128i t7 = add32(p, e), t8 = sub32(p, e);
    const __m128i t3 = add32(q, f), t0 = sub32(q, f);
    const __m128i g2 = rot(add32(s4, s5));
    const __m128i g4 = rot(sub32(s4, s5));
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

inline __m128i load_row(const int16_t *coef, int row) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(coef + row * 8));
}

inline void store8(uint8_t *dst, __m128i v) { _mm_storel_epi64(reinterpret_cast<__m128i *>(dst), v); }

inline void store4(uint8_t *dst, __m128i v) {
    const int32_t x = _mm_cvtsi128_si32(v);
    std::memcpy(dst, &x, 4);
}

inline void store2(uint8_t *dst, __m128i v) {
    const uint16_t x = static_cast<uint16_t>(_mm_cvtsi128_si32(v));
    std::memcpy(dst, &x, 2);
}

// De-interleaves 32-bit lanes: [a0 b0 a1 b1], [a2 b2 a3 b3] -> [a0 a1 a2 a3].
inline __m128i even32(__m128i x, __m128i y) {
    return _mm_castps_si128(
        _mm_shuffle_ps(_mm_castsi128_ps(x), _mm_castsi128_ps(y), _MM_SHUFFLE(2, 0, 2, 0)));
}
inline __m128i odd32(__m128i x, __m128i y) {
    return _mm_castps_si128(
        _mm_shuffle_ps(_mm_castsi128_ps(x), _mm_castsi128_ps(y), _MM_SHUFFLE(3, 1, 3, 1)));
}

}  // namespace

// Rows are taken into the lanes in the order 0,4,1,7,3,5,2,6. The horizontal
// results of column k then pack into one register whose 32-bit lanes are the
// row pairs (0,4), (1,7), (3,5), (2,6) that the vertical pass multiplies
// together, so the second transposition is a plain 4x4 of 32-bit lanes.
void kivod_idct8_sse2(const int16_t *coef, int32_t stride, uint8_t *dst) {
    const __m128i r0 = load_row(coef, 0), r4 = load_row(coef, 4);
    const __m128i r1 = load_row(coef, 1), r7 = load_row(coef, 7);
    const __m128i r3 = load_row(coef, 3), r5 = load_row(coef, 5);
    const __m128i r2 = load_row(coef, 2), r6 = load_row(coef, 6);
    __m128i h[8];
    {
        const __m128i t0 = _mm_unpacklo_epi16(r0, r4), t1 = _mm_unpackhi_epi16(r0, r4);
        const __m128i t2 = _mm_unpacklo_epi16(r1, r7), t3 = _mm_unpackhi_epi16(r1, r7);
        const __m128i t4 = _mm_unpacklo_epi16(r3, r5), t5 = _mm_unpackhi_epi16(r3, r5);
        const __m128i t6 = _mm_unpacklo_epi16(r2, r6), t7 = _mm_unpackhi_epi16(r2, r6);
        // uXY: coefficient X of lanes 0-3 in the low half, Y in the high half.
        const __m128i u01 = _mm_unpacklo_epi32(t0, t2), u23 = _mm_unpackhi_epi32(t0, t2);
        const __m128i u45 = _mm_unpacklo_epi32(t1, t3), u67 = _mm_unpackhi_epi32(t1, t3);
        // vXY: the same for lanes 4-7.
        const __m128i v01 = _mm_unpacklo_epi32(t4, t6), v23 = _mm_unpackhi_epi32(t4, t6);
        const __m128i v45 = _mm_unpacklo_epi32(t5, t7), v67 = _mm_unpackhi_epi32(t5, t7);
        __m128i lo[8], hi[8];
        pass8<true>(_mm_unpacklo_epi16(u01, u45), _mm_unpackhi_epi16(u01, u67),
                    _mm_unpackhi_epi16(u23, u45), _mm_unpacklo_epi16(u23, u67), lo);
        pass8<true>(_mm_unpacklo_epi16(v01, v45), _mm_unpackhi_epi16(v01, v67),
                    _mm_unpackhi_epi16(v23, v45), _mm_unpacklo_epi16(v23, v67), hi);
        for (int k = 0; k < 8; k++) h[k] = _mm_packs_epi32(lo[k], hi[k]);
    }
    // h[k]: horizontal result of column k, rows in 32-bit lane pairs
    // (0,4), (1,7), (3,5), (2,6). A 4x4 transposition of 32-bit lanes gives
    // the pairs for four columns at once.
    __m128i lo[8], hi[8];
    for (int half = 0; half < 2; half++) {
        const __m128i *g = h + 4 * half;
        const __m128i v0 = _mm_unpacklo_epi32(g[0], g[1]), v1 = _mm_unpacklo_epi32(g[2], g[3]);
        const __m128i v2 = _mm_unpackhi_epi32(g[0], g[1]), v3 = _mm_unpackhi_epi32(g[2], g[3]);
        pass8<false>(_mm_unpacklo_epi64(v0, v1), _mm_unpackhi_epi64(v0, v1),
                     _mm_unpacklo_epi64(v2, v3), _mm_unpackhi_epi64(v2, v3), half ? hi : lo);
    }
    const __m128i level = _mm_set1_epi16(128);
    const ptrdiff_t ls = stride;
    for (int r = 0; r < 8; r += 2) {
        const __m128i a = _mm_adds_epi16(_mm_packs_epi32(lo[r], hi[r]), level);
        const __m128i b = _mm_adds_epi16(_mm_packs_epi32(lo[r + 1], hi[r + 1]), level);
        const __m128i px = _mm_packus_epi16(a, b);
        store8(dst + r * ls, px);
        store8(dst + (r + 1) * ls, _mm_unpackhi_epi64(px, px));
    }
}

// Rows 0-3 and coefficients 0-3 only; the rest is zero. Rows go into the
// lanes in the order 0,2,1,3 so that the horizontal results pack into the
// (0,2), (1,3) row pairs of the vertical pass.
void kivod_idct4_sse2(const int16_t *coef, int32_t stride, uint8_t *dst) {
    const auto load4 = [coef](int row) {
        return _mm_loadl_epi64(reinterpret_cast<const __m128i *>(coef + row * 8));
    };
    const __m128i r02 = _mm_unpacklo_epi16(load4(0), load4(2));
    const __m128i r13 = _mm_unpacklo_epi16(load4(1), load4(3));
    const __m128i u01 = _mm_unpacklo_epi32(r02, r13);  // coefficient 0 | 1
    const __m128i u23 = _mm_unpackhi_epi32(r02, r13);  // coefficient 2 | 3
    const __m128i p02 = _mm_unpacklo_epi16(u01, u23);
    const __m128i p13 = _mm_unpackhi_epi16(u01, u23);

    // Horizontal pass with x4..x7 = 0, only outputs 0, 2, 4, 6.
    const int32_t w1 = kW1, w2 = kW2, w3 = kW3, w5 = kW5, w6 = kW6, w7 = kW7;
    __m128i h0, h2, h4, h6;
    {
        const __m128i bias = _mm_set1_epi32(128);
        const __m128i s1 = _mm_madd_epi16(p13, pair(w1, w3));
        const __m128i s4 = _mm_madd_epi16(p13, pair(w1, -w3));
        const __m128i s6 = _mm_madd_epi16(p13, pair(w7, -w5));
        const __m128i s5 = _mm_madd_epi16(p13, pair(w7, w5));
        const __m128i t7 = add32(_mm_madd_epi16(p02, pair(2048, w2)), bias);
        const __m128i t8 = add32(_mm_madd_epi16(p02, pair(2048, -w2)), bias);
        const __m128i t3 = add32(_mm_madd_epi16(p02, pair(2048, w6)), bias);
        const __m128i t0 = add32(_mm_madd_epi16(p02, pair(2048, -w6)), bias);
        const __m128i g2 = rot(add32(s4, s5));
        const __m128i g4 = rot(sub32(s4, s5));
        h0 = narrow<8>(add32(t7, s1));
        h2 = narrow<8>(add32(t0, g4));
        h4 = narrow<8>(sub32(t8, s6));
        h6 = narrow<8>(sub32(t3, g2));
    }
    // [ (0,2) (1,3) ] row pairs of columns 0 and 2, then of 4 and 6.
    const __m128i x = _mm_packs_epi32(h0, h2);
    const __m128i y = _mm_packs_epi32(h4, h6);
    const __m128i a02 = even32(x, y);  // rows (0,2) of columns 0, 2, 4, 6
    const __m128i a13 = odd32(x, y);   // rows (1,3)

    // Vertical pass with y4..y7 = 0, only outputs 0, 2, 4, 6.
    const __m128i four = _mm_set1_epi32(4);
    const auto prod = [four](__m128i v, int32_t k0, int32_t k1) {
        return _mm_srai_epi32(add32(_mm_madd_epi16(v, pair(k0, k1)), four), 3);
    };
    const __m128i a = prod(a13, w1, 0), b = prod(a13, w7, 0);
    const __m128i c = prod(a13, 0, w3), d = prod(a13, 0, -w5);
    const __m128i e = prod(a02, 0, w2), f = prod(a02, 0, w6);
    const __m128i p = add32(_mm_madd_epi16(a02, pair(256, 0)), _mm_set1_epi32(8192));
    const __m128i s1 = add32(a, c), s4 = sub32(a, c), s6 = add32(b, d), s5 = sub32(b, d);
    const __m128i g2 = rot(add32(s4, s5)), g4 = rot(sub32(s4, s5));
    const __m128i o0 = narrow<14>(add32(add32(p, e), s1));
    const __m128i o2 = narrow<14>(add32(sub32(p, f), g4));
    const __m128i o4 = narrow<14>(sub32(sub32(p, e), s6));
    const __m128i o6 = narrow<14>(sub32(add32(p, f), g2));
    const __m128i level = _mm_set1_epi16(128);
    const __m128i px = _mm_packus_epi16(_mm_adds_epi16(_mm_packs_epi32(o0, o2), level),
                                        _mm_adds_epi16(_mm_packs_epi32(o4, o6), level));
    const ptrdiff_t ls = stride;
    store4(dst, px);
    store4(dst + ls, _mm_srli_si128(px, 4));
    store4(dst + 2 * ls, _mm_srli_si128(px, 8));
    store4(dst + 3 * ls, _mm_srli_si128(px, 12));
}

// Coefficients (0,0), (0,1), (1,0), (1,1) only. Horizontal outputs 0 and 4
// of rows 0 and 1, then vertical outputs 0 and 4 of columns 0 and 4.
void kivod_idct2_sse2(const int16_t *coef, int32_t stride, uint8_t *dst) {
    int32_t c0, c1;
    std::memcpy(&c0, coef, 4);
    std::memcpy(&c1, coef + 8, 4);
    const int32_t w1 = kW1, w7 = kW7;
    // Lanes: row 0 out 0, row 0 out 4, row 1 out 0, row 1 out 4.
    // out0 = (2048 c0 + W1 c1 + 128) >> 8, out4 = (2048 c0 - W7 c1 + 128) >> 8.
    const __m128i rows = _mm_shuffle_epi32(_mm_unpacklo_epi32(_mm_cvtsi32_si128(c0),
                                                              _mm_cvtsi32_si128(c1)),
                                           _MM_SHUFFLE(1, 1, 0, 0));
    const __m128i kh = _mm_unpacklo_epi32(pair(2048, w1), pair(2048, -w7));
    const __m128i h = narrow<8>(add32(_mm_madd_epi16(rows, kh), _mm_set1_epi32(128)));
    // 16-bit [M00 M04 M10 M14] -> column pairs (y0, y1) of columns 0 and 4,
    // repeated for the output rows 0 and 4.
    const __m128i m = _mm_shufflelo_epi16(_mm_packs_epi32(h, h), _MM_SHUFFLE(3, 1, 2, 0));
    const __m128i cols = _mm_shuffle_epi32(m, _MM_SHUFFLE(1, 0, 1, 0));
    // Row 0: 256 y0 + 8192 + ((W1 y1 + 4) >> 3); row 4: ... - ((W7 y1 + 4) >> 3).
    const __m128i x0 = add32(_mm_madd_epi16(cols, pair(256, 0)), _mm_set1_epi32(8192));
    const __m128i kv = _mm_unpacklo_epi64(pair(0, w1), pair(0, w7));
    const __m128i odd = _mm_srai_epi32(add32(_mm_madd_epi16(cols, kv), _mm_set1_epi32(4)), 3);
    const __m128i neg = _mm_set_epi32(-1, -1, 0, 0);
    const __m128i v = add32(x0, sub32(_mm_xor_si128(odd, neg), neg));
    const __m128i o = _mm_adds_epi16(_mm_packs_epi32(narrow<14>(v), narrow<14>(v)), _mm_set1_epi16(128));
    const __m128i px = _mm_packus_epi16(o, o);
    store2(dst, px);
    store2(dst + static_cast<ptrdiff_t>(stride), _mm_srli_si128(px, 2));
}
