// SSE2 colour kernels. The matrix runs in 32-bit lanes through pmaddwd:
// each product pair is (sample, coefficient) + (sample or 1, coefficient or
// rounding term), which is exactly the plain kernels' sums. Three-byte RGB
// has no cheap SSE2 shuffle, so its bytes are gathered or spread by scalar
// code around the vector matrix.
#include <emmintrin.h>

#include "color/kivoc_int.h"

namespace kivo {
namespace {

inline __m128i pair(int32_t lo, int32_t hi) {
    return _mm_set1_epi32(static_cast<int32_t>((static_cast<uint32_t>(hi) << 16) | (static_cast<uint32_t>(lo) & 0xFFFFu)));
}

// (a * ca + b * cb) >> 14 for eight 16-bit lane pairs, back to 16 bits.
inline __m128i madd_shift(__m128i a, __m128i b, __m128i c) {
    const __m128i lo = _mm_srai_epi32(_mm_madd_epi16(_mm_unpacklo_epi16(a, b), c), kColBits);
    const __m128i hi = _mm_srai_epi32(_mm_madd_epi16(_mm_unpackhi_epi16(a, b), c), kColBits);
    return _mm_packs_epi32(lo, hi);
}

// R, G, B of eight pixels (16-bit lanes) from Y and the centred Cb, Cr.
inline void matrix8(__m128i y, __m128i u, __m128i v, __m128i *r, __m128i *g, __m128i *b) {
    const __m128i one = _mm_set1_epi16(1);
    *r = _mm_add_epi16(y, madd_shift(v, one, pair(kCrR, kColHalf)));
    *b = _mm_add_epi16(y, madd_shift(u, one, pair(kCbB, kColHalf)));
    const __m128i half = _mm_set1_epi32(kColHalf), cg = pair(kCbG, kCrG);
    const __m128i lo = _mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(_mm_unpacklo_epi16(u, v), cg), half), kColBits);
    const __m128i hi = _mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(_mm_unpackhi_epi16(u, v), cg), half), kColBits);
    *g = _mm_add_epi16(y, _mm_packs_epi32(lo, hi));
}

template <int Pack>
void ycc_to_packed_sse2(const uint8_t *y, const uint8_t *cb, const uint8_t *cr, uint8_t *dst, int n) {
    const int size = Pack == kPackRGB ? 3 : 4;
    const __m128i zero = _mm_setzero_si128(), c128 = _mm_set1_epi16(128), ff = _mm_set1_epi8(-1);
    int i = 0;
    for (; i + 16 <= n; i += 16, dst += 16 * size) {
        const __m128i y8 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(y + i));
        const __m128i u8 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(cb + i));
        const __m128i v8 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(cr + i));
        __m128i r[2], g[2], b[2];
        matrix8(_mm_unpacklo_epi8(y8, zero), _mm_sub_epi16(_mm_unpacklo_epi8(u8, zero), c128),
                _mm_sub_epi16(_mm_unpacklo_epi8(v8, zero), c128), &r[0], &g[0], &b[0]);
        matrix8(_mm_unpackhi_epi8(y8, zero), _mm_sub_epi16(_mm_unpackhi_epi8(u8, zero), c128),
                _mm_sub_epi16(_mm_unpackhi_epi8(v8, zero), c128), &r[1], &g[1], &b[1]);
        __m128i r8 = _mm_packus_epi16(r[0], r[1]);
        const __m128i g8 = _mm_packus_epi16(g[0], g[1]);
        __m128i b8 = _mm_packus_epi16(b[0], b[1]);
        if (Pack == kPackRGB) {
            alignas(16) uint8_t rr[16], gg[16], bb[16];
            _mm_store_si128(reinterpret_cast<__m128i *>(rr), r8);
            _mm_store_si128(reinterpret_cast<__m128i *>(gg), g8);
            _mm_store_si128(reinterpret_cast<__m128i *>(bb), b8);
            for (int k = 0; k < 16; ++k) {
                dst[3 * k] = rr[k];
                dst[3 * k + 1] = gg[k];
                dst[3 * k + 2] = bb[k];
            }
            continue;
        }
        if (Pack == kPackBGRA) {
            const __m128i t = r8;
            r8 = b8;
            b8 = t;
        }
        const __m128i rg_lo = _mm_unpacklo_epi8(r8, g8), rg_hi = _mm_unpackhi_epi8(r8, g8);
        const __m128i ba_lo = _mm_unpacklo_epi8(b8, ff), ba_hi = _mm_unpackhi_epi8(b8, ff);
        __m128i *d = reinterpret_cast<__m128i *>(dst);
        _mm_storeu_si128(d, _mm_unpacklo_epi16(rg_lo, ba_lo));
        _mm_storeu_si128(d + 1, _mm_unpackhi_epi16(rg_lo, ba_lo));
        _mm_storeu_si128(d + 2, _mm_unpacklo_epi16(rg_hi, ba_hi));
        _mm_storeu_si128(d + 3, _mm_unpackhi_epi16(rg_hi, ba_hi));
    }
    ycc_to_packed_c<Pack>(y + i, cb + i, cr + i, dst, n - i);
}

template <int Pack>
void packed_to_ycc_sse2(const uint8_t *src, uint8_t *y, uint8_t *cb, uint8_t *cr, int n) {
    const int size = Pack == kPackRGB ? 3 : 4;
    const int rs = Pack == kPackBGRA ? 16 : 0, bs = Pack == kPackBGRA ? 0 : 16;
    const __m128i one = _mm_set1_epi16(1), c128 = _mm_set1_epi16(128), mask = _mm_set1_epi32(0xFF);
    int i = 0;
    for (; i + 8 <= n; i += 8, src += 8 * size) {
        __m128i r, g, b;
        if (Pack == kPackRGB) {
            alignas(16) int16_t rr[8], gg[8], bb[8];
            for (int k = 0; k < 8; ++k) {
                rr[k] = src[3 * k];
                gg[k] = src[3 * k + 1];
                bb[k] = src[3 * k + 2];
            }
            r = _mm_load_si128(reinterpret_cast<const __m128i *>(rr));
            g = _mm_load_si128(reinterpret_cast<const __m128i *>(gg));
            b = _mm_load_si128(reinterpret_cast<const __m128i *>(bb));
        } else {
            const __m128i p0 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src));
            const __m128i p1 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 16));
            r = _mm_packs_epi32(_mm_and_si128(_mm_srli_epi32(p0, rs), mask), _mm_and_si128(_mm_srli_epi32(p1, rs), mask));
            g = _mm_packs_epi32(_mm_and_si128(_mm_srli_epi32(p0, 8), mask), _mm_and_si128(_mm_srli_epi32(p1, 8), mask));
            b = _mm_packs_epi32(_mm_and_si128(_mm_srli_epi32(p0, bs), mask), _mm_and_si128(_mm_srli_epi32(p1, bs), mask));
        }
        const __m128i rg_lo = _mm_unpacklo_epi16(r, g), rg_hi = _mm_unpackhi_epi16(r, g);
        const __m128i b1_lo = _mm_unpacklo_epi16(b, one), b1_hi = _mm_unpackhi_epi16(b, one);
        auto row = [&](int32_t cr_, int32_t cg_, int32_t cb_, int32_t round) {
            const __m128i crg = pair(cr_, cg_), cb1 = pair(cb_, round);
            const __m128i lo = _mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(rg_lo, crg), _mm_madd_epi16(b1_lo, cb1)), kColBits);
            const __m128i hi = _mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(rg_hi, crg), _mm_madd_epi16(b1_hi, cb1)), kColBits);
            return _mm_packs_epi32(lo, hi);
        };
        const __m128i yy = row(kRY, kGY, kBY, kColHalf);
        const __m128i uu = _mm_add_epi16(row(kRCb, kGCb, kBCb, kColHalf - 1), c128);
        const __m128i vv = _mm_add_epi16(row(kRCr, kGCr, kBCr, kColHalf - 1), c128);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(y + i), _mm_packus_epi16(yy, yy));
        _mm_storel_epi64(reinterpret_cast<__m128i *>(cb + i), _mm_packus_epi16(uu, uu));
        _mm_storel_epi64(reinterpret_cast<__m128i *>(cr + i), _mm_packus_epi16(vv, vv));
    }
    packed_to_ycc_c<Pack>(src, y + i, cb + i, cr + i, n - i);
}

void vsum3_sse2(const uint8_t *near, const uint8_t *far, uint16_t *out, int n) {
    const __m128i zero = _mm_setzero_si128();
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(near + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(far + i));
        const __m128i alo = _mm_unpacklo_epi8(a, zero), ahi = _mm_unpackhi_epi8(a, zero);
        const __m128i lo = _mm_add_epi16(_mm_add_epi16(_mm_add_epi16(alo, alo), alo), _mm_unpacklo_epi8(b, zero));
        const __m128i hi = _mm_add_epi16(_mm_add_epi16(_mm_add_epi16(ahi, ahi), ahi), _mm_unpackhi_epi8(b, zero));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i), lo);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i + 8), hi);
    }
    vsum3_c(near + i, far + i, out + i, n - i);
}

void h2_fancy_sse2(const uint16_t *s, uint8_t *out, int n, int b0, int b1, int sh) {
    const __m128i v0 = _mm_set1_epi16(static_cast<int16_t>(b0)), v1 = _mm_set1_epi16(static_cast<int16_t>(b1));
    const __m128i shift = _mm_cvtsi32_si128(sh);
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i l = _mm_loadu_si128(reinterpret_cast<const __m128i *>(s + i - 1));
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(s + i));
        const __m128i r = _mm_loadu_si128(reinterpret_cast<const __m128i *>(s + i + 1));
        const __m128i c3 = _mm_add_epi16(_mm_add_epi16(c, c), c);
        const __m128i e = _mm_srl_epi16(_mm_add_epi16(_mm_add_epi16(c3, l), v0), shift);
        const __m128i o = _mm_srl_epi16(_mm_add_epi16(_mm_add_epi16(c3, r), v1), shift);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 2 * i), _mm_or_si128(e, _mm_slli_epi16(o, 8)));
    }
    h2_fancy_c(s + i, out + 2 * i, n - i, b0, b1, sh);
}

// Sums of the byte pairs of 16 bytes, as eight 16-bit lanes.
inline __m128i pair_sums(const uint8_t *p) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
    return _mm_add_epi16(_mm_and_si128(v, _mm_set1_epi16(0xFF)), _mm_srli_epi16(v, 8));
}

void down_h2v2_sse2(const uint8_t *r0, const uint8_t *r1, uint8_t *out, int n) {
    const __m128i two = _mm_set1_epi16(2);
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i lo = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(pair_sums(r0 + 2 * i), pair_sums(r1 + 2 * i)), two), 2);
        const __m128i hi = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(pair_sums(r0 + 2 * i + 16), pair_sums(r1 + 2 * i + 16)), two), 2);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i), _mm_packus_epi16(lo, hi));
    }
    down_h2v2_c(r0 + 2 * i, r1 + 2 * i, out + i, n - i);
}

void down_h2v1_sse2(const uint8_t *r0, const uint8_t *r1, uint8_t *out, int n) {
    const __m128i one = _mm_set1_epi16(1);
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i lo = _mm_srli_epi16(_mm_add_epi16(pair_sums(r0 + 2 * i), one), 1);
        const __m128i hi = _mm_srli_epi16(_mm_add_epi16(pair_sums(r0 + 2 * i + 16), one), 1);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i), _mm_packus_epi16(lo, hi));
    }
    down_h2v1_c(r0 + 2 * i, r1, out + i, n - i);
}

}  // namespace

void color_init_sse2(ColorDsp *d) {
    d->to_packed[kPackRGB] = ycc_to_packed_sse2<kPackRGB>;
    d->to_packed[kPackRGBA] = ycc_to_packed_sse2<kPackRGBA>;
    d->to_packed[kPackBGRA] = ycc_to_packed_sse2<kPackBGRA>;
    d->from_packed[kPackRGB] = packed_to_ycc_sse2<kPackRGB>;
    d->from_packed[kPackRGBA] = packed_to_ycc_sse2<kPackRGBA>;
    d->from_packed[kPackBGRA] = packed_to_ycc_sse2<kPackBGRA>;
    d->vsum3 = vsum3_sse2;
    d->h2_fancy = h2_fancy_sse2;
    d->down_h2v2 = down_h2v2_sse2;
    d->down_h2v1 = down_h2v1_sse2;
}

}  // namespace kivo
