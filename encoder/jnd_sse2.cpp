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

namespace {

inline __m128i load8(const void *p) { return _mm_loadu_si128(static_cast<const __m128i *>(p)); }

}  // namespace

// A level L = sign * n (n > 0) becomes sign * m for the lowest m that the
// descent from n - 1 reaches. With c = sign * C and e = c - (n - 1) q, the
// descent starts when -T < e < T, and a step down to n - 1 - j holds while
// e + j q < T: it goes j = (T - 1 - e) / q steps, at most n - 1. T - 1 - e
// lies below 2T, so that the quotient comes from the Q14 reciprocal with
// one correction. e needs 32 bits (C of -32768, large levels or
// quantizers); the rest fits 16.
void kivoe_jnd_suppress_sse2(int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                             const uint8_t *thr) {
    const __m128i zero = _mm_setzero_si128(), eight = _mm_set1_epi16(8);
    // AC magnitudes, each counted up to 8: only whether they add up to more
    // than 7 matters.
    __m128i l[8], sum = zero;
    for (int r = 0; r < 8; ++r) {
        l[r] = load8(levels + 8 * r);
        const __m128i s = _mm_srai_epi16(l[r], 15);
        const __m128i a = _mm_sub_epi16(_mm_xor_si128(l[r], s), s);
        __m128i capped = _mm_sub_epi16(a, _mm_subs_epu16(a, eight));
        if (r == 0) capped = _mm_insert_epi16(capped, 0, 0);
        sum = _mm_add_epi16(sum, capped);
    }
    sum = _mm_madd_epi16(sum, _mm_set1_epi16(1));
    sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(1, 0, 3, 2)));
    sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(2, 3, 0, 1)));
    if (_mm_cvtsi128_si32(sum) <= 7) return;
    for (int r = 0; r < 8; ++r) {
        const __m128i L = l[r];
        const __m128i nz = _mm_cmpeq_epi16(_mm_cmpeq_epi16(L, zero), zero);
        if (_mm_movemask_epi8(nz) == 0) continue;
        const __m128i s = _mm_srai_epi16(L, 15);
        const __m128i n1 = _mm_sub_epi16(_mm_sub_epi16(_mm_xor_si128(L, s), s), _mm_set1_epi16(1));
        const __m128i Q = load8(q + 8 * r);
        const __m128i pl = _mm_mullo_epi16(n1, Q), ph = _mm_mulhi_epu16(n1, Q);
        const __m128i C = load8(coef + 8 * r), cs = _mm_srai_epi16(C, 15);
        const __m128i T = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(thr + 8 * r)), zero);
        __m128i x[2], cond[2];
        for (int h = 0; h < 2; ++h) {
            auto wide = [h](__m128i a, __m128i b) { return h ? _mm_unpackhi_epi16(a, b) : _mm_unpacklo_epi16(a, b); };
            const __m128i s32 = wide(s, s);
            const __m128i c = _mm_sub_epi32(_mm_xor_si128(wide(C, cs), s32), s32);
            const __m128i e = _mm_sub_epi32(c, wide(pl, ph));
            const __m128i t = wide(T, zero);
            cond[h] = _mm_and_si128(_mm_cmpgt_epi32(e, _mm_sub_epi32(zero, t)), _mm_cmpgt_epi32(t, e));
            x[h] = _mm_sub_epi32(_mm_sub_epi32(t, _mm_set1_epi32(1)), e);
        }
        const __m128i take = _mm_and_si128(_mm_packs_epi32(cond[0], cond[1]), nz);
        if (_mm_movemask_epi8(take) == 0) continue;
        const __m128i X = _mm_packs_epi32(x[0], x[1]);
        const __m128i m0 = _mm_mulhi_epu16(_mm_slli_epi16(X, 2), load8(recip + 8 * r));
        const __m128i rem = _mm_sub_epi16(X, _mm_mullo_epi16(m0, Q));
        const __m128i j = _mm_sub_epi16(m0, _mm_cmpeq_epi16(_mm_subs_epu16(Q, rem), zero));  // + 1 where rem >= q
        const __m128i m = _mm_max_epi16(_mm_sub_epi16(n1, j), zero);
        const __m128i out = _mm_sub_epi16(_mm_xor_si128(m, s), s);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(levels + 8 * r),
                         _mm_or_si128(_mm_and_si128(take, out), _mm_andnot_si128(take, L)));
    }
}
