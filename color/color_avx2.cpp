// AVX2 colour kernels: the SSE2 arithmetic on sixteen 16-bit lanes. Lane
// order is kept by widening with vpmovzxbw and narrowing with a pack
// followed by a 64-bit permute; the byte interleave of packed pixels is done
// on 128-bit halves (SSSE3 shuffles for three-byte RGB).
#include <immintrin.h>

#include "color/kivoc_int.h"

namespace kivo {
namespace {

inline __m256i pair(int32_t lo, int32_t hi) {
    return _mm256_set1_epi32(static_cast<int32_t>((static_cast<uint32_t>(hi) << 16) | (static_cast<uint32_t>(lo) & 0xFFFFu)));
}

// (a * ca + b * cb + add) >> 14 over sixteen lane pairs, back to 16 bits in order.
inline __m256i madd_shift(__m256i a, __m256i b, __m256i c, __m256i add) {
    const __m256i lo = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(_mm256_unpacklo_epi16(a, b), c), add), kColBits);
    const __m256i hi = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(_mm256_unpackhi_epi16(a, b), c), add), kColBits);
    return _mm256_packs_epi32(lo, hi);
}

inline __m256i load16(const uint8_t *p) { return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p))); }

// Sixteen 16-bit lanes to sixteen bytes, saturated, in order.
inline __m128i narrow(__m256i v) {
    return _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_packus_epi16(v, v), 0x08));
}

// pshufb masks that place R, G and B bytes of 16 pixels into the three
// 16-byte blocks of their RGB output; -128 gives a zero byte.
struct RgbSpread {
    alignas(16) int8_t mask[3][3][16];  // [output block][channel][byte]
    constexpr RgbSpread() : mask() {
        for (int k = 0; k < 3; ++k)
            for (int c = 0; c < 3; ++c)
                for (int j = 0; j < 16; ++j) {
                    const int p = 16 * k + j;
                    mask[k][c][j] = static_cast<int8_t>(p % 3 == c ? p / 3 : -128);
                }
    }
};
constexpr RgbSpread kRgbSpread;

// vpmulhrsw gives (a * c + 2^14) >> 15; with a = 2 x that is exactly
// (x * c + 2^13) >> 14, the matrix's rounding, for a coefficient that fits
// 16 bits. R and B have one product each; G's two share one rounding and
// keep pmaddwd.
static_assert(kCrR < 32768 && kCbB < 32768, "one 16-bit multiplier for R and B");

template <int Pack>
void ycc_to_packed_avx2(const uint8_t *y, const uint8_t *cb, const uint8_t *cr, uint8_t *dst, int n) {
    const int size = Pack == kPackRGB ? 3 : 4;
    const __m256i c128 = _mm256_set1_epi16(128);
    const __m256i half = _mm256_set1_epi32(kColHalf);
    const __m256i cr_r = _mm256_set1_epi16(static_cast<int16_t>(kCrR)), cb_b = _mm256_set1_epi16(static_cast<int16_t>(kCbB));
    const __m256i cg = pair(kCbG, kCrG);
    const __m128i ff = _mm_set1_epi8(-1);
    int i = 0;
    for (; i + 16 <= n; i += 16, dst += 16 * size) {
        const __m256i yy = load16(y + i);
        const __m256i u = _mm256_sub_epi16(load16(cb + i), c128), v = _mm256_sub_epi16(load16(cr + i), c128);
        // R and G saturated to bytes by one pack (r0-7 g0-7 | r8-15 g8-15 per
        // 128-bit lane), quads reordered to r0-15 | g0-15.
        const __m256i r = _mm256_add_epi16(yy, _mm256_mulhrs_epi16(_mm256_add_epi16(v, v), cr_r));
        const __m256i g = _mm256_add_epi16(yy, madd_shift(u, v, cg, half));
        const __m256i rg = _mm256_permute4x64_epi64(_mm256_packus_epi16(r, g), 0xD8);
        __m128i r8 = _mm256_castsi256_si128(rg);
        const __m128i g8 = _mm256_extracti128_si256(rg, 1);
        __m128i b8 = narrow(_mm256_add_epi16(yy, _mm256_mulhrs_epi16(_mm256_add_epi16(u, u), cb_b)));
        if (Pack == kPackRGB) {
            // Bytes of R, G, B placed by three shuffles per 16-byte output.
            auto spread = [&](int k) {
                const __m128i *m = reinterpret_cast<const __m128i *>(kRgbSpread.mask[k]);
                const __m128i o = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(r8, _mm_load_si128(m)),
                                                            _mm_shuffle_epi8(g8, _mm_load_si128(m + 1))),
                                               _mm_shuffle_epi8(b8, _mm_load_si128(m + 2)));
                _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + 16 * k), o);
            };
            spread(0);
            spread(1);
            spread(2);
            continue;
        }
        if (Pack == kPackBGRA) {
            const __m128i t = r8;
            r8 = b8;
            b8 = t;
        }
        const __m128i rg_lo = _mm_unpacklo_epi8(r8, g8), rg_hi = _mm_unpackhi_epi8(r8, g8);
        const __m128i ba_lo = _mm_unpacklo_epi8(b8, ff), ba_hi = _mm_unpackhi_epi8(b8, ff);
        __m256i *d = reinterpret_cast<__m256i *>(dst);
        _mm256_storeu_si256(d, _mm256_set_m128i(_mm_unpackhi_epi16(rg_lo, ba_lo), _mm_unpacklo_epi16(rg_lo, ba_lo)));
        _mm256_storeu_si256(d + 1, _mm256_set_m128i(_mm_unpackhi_epi16(rg_hi, ba_hi), _mm_unpacklo_epi16(rg_hi, ba_hi)));
    }
    ycc_to_packed_c<Pack>(y + i, cb + i, cr + i, dst, n - i);
}

template <int Pack>
void packed_to_ycc_avx2(const uint8_t *src, uint8_t *y, uint8_t *cb, uint8_t *cr, int n) {
    const int size = Pack == kPackRGB ? 3 : 4;
    const int rs = Pack == kPackBGRA ? 16 : 0, bs = Pack == kPackBGRA ? 0 : 16;
    const __m256i one = _mm256_set1_epi16(1), c128 = _mm256_set1_epi16(128), mask = _mm256_set1_epi32(0xFF);
    int i = 0;
    for (; i + 16 <= n; i += 16, src += 16 * size) {
        __m256i r, g, b;
        if (Pack == kPackRGB) {
            alignas(32) int16_t rr[16], gg[16], bb[16];
            for (int k = 0; k < 16; ++k) {
                rr[k] = src[3 * k];
                gg[k] = src[3 * k + 1];
                bb[k] = src[3 * k + 2];
            }
            r = _mm256_load_si256(reinterpret_cast<const __m256i *>(rr));
            g = _mm256_load_si256(reinterpret_cast<const __m256i *>(gg));
            b = _mm256_load_si256(reinterpret_cast<const __m256i *>(bb));
        } else {
            const __m256i p0 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src));
            const __m256i p1 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + 32));
            auto channel = [&](int shift) {
                const __m256i a = _mm256_and_si256(_mm256_srli_epi32(p0, shift), mask);
                const __m256i c = _mm256_and_si256(_mm256_srli_epi32(p1, shift), mask);
                return _mm256_permute4x64_epi64(_mm256_packs_epi32(a, c), 0xD8);
            };
            r = channel(rs);
            g = channel(8);
            b = channel(bs);
        }
        auto row = [&](int32_t cr_, int32_t cg_, int32_t cb_, int32_t round) {
            const __m256i crg = pair(cr_, cg_), cb1 = pair(cb_, round);
            const __m256i lo = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(_mm256_unpacklo_epi16(r, g), crg),
                                                                  _mm256_madd_epi16(_mm256_unpacklo_epi16(b, one), cb1)), kColBits);
            const __m256i hi = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(_mm256_unpackhi_epi16(r, g), crg),
                                                                  _mm256_madd_epi16(_mm256_unpackhi_epi16(b, one), cb1)), kColBits);
            return _mm256_packs_epi32(lo, hi);
        };
        _mm_storeu_si128(reinterpret_cast<__m128i *>(y + i), narrow(row(kRY, kGY, kBY, kColHalf)));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(cb + i), narrow(_mm256_add_epi16(row(kRCb, kGCb, kBCb, kColHalf - 1), c128)));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(cr + i), narrow(_mm256_add_epi16(row(kRCr, kGCr, kBCr, kColHalf - 1), c128)));
    }
    packed_to_ycc_c<Pack>(src, y + i, cb + i, cr + i, n - i);
}

void vsum3_avx2(const uint8_t *near, const uint8_t *far, uint16_t *out, int n) {
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i a = load16(near + i);
        const __m256i s = _mm256_add_epi16(_mm256_add_epi16(_mm256_add_epi16(a, a), a), load16(far + i));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + i), s);
    }
    vsum3_c(near + i, far + i, out + i, n - i);
}

void h2_fancy_avx2(const uint16_t *s, uint8_t *out, int n, int b0, int b1, int sh) {
    const __m256i v0 = _mm256_set1_epi16(static_cast<int16_t>(b0)), v1 = _mm256_set1_epi16(static_cast<int16_t>(b1));
    const __m128i shift = _mm_cvtsi32_si128(sh);
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i l = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(s + i - 1));
        const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(s + i));
        const __m256i r = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(s + i + 1));
        const __m256i c3 = _mm256_add_epi16(_mm256_add_epi16(c, c), c);
        const __m256i e = _mm256_srl_epi16(_mm256_add_epi16(_mm256_add_epi16(c3, l), v0), shift);
        const __m256i o = _mm256_srl_epi16(_mm256_add_epi16(_mm256_add_epi16(c3, r), v1), shift);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + 2 * i), _mm256_or_si256(e, _mm256_slli_epi16(o, 8)));
    }
    h2_fancy_c(s + i, out + 2 * i, n - i, b0, b1, sh);
}

// Sums of the byte pairs of 32 bytes, as sixteen 16-bit lanes in order.
inline __m256i pair_sums(const uint8_t *p) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
    return _mm256_add_epi16(_mm256_and_si256(v, _mm256_set1_epi16(0xFF)), _mm256_srli_epi16(v, 8));
}

inline void store_pair(uint8_t *out, __m256i lo, __m256i hi) {
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(out), _mm256_permute4x64_epi64(_mm256_packus_epi16(lo, hi), 0xD8));
}

void down_h2v2_avx2(const uint8_t *r0, const uint8_t *r1, uint8_t *out, int n) {
    const __m256i two = _mm256_set1_epi16(2);
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i lo = _mm256_srli_epi16(_mm256_add_epi16(_mm256_add_epi16(pair_sums(r0 + 2 * i), pair_sums(r1 + 2 * i)), two), 2);
        const __m256i hi = _mm256_srli_epi16(_mm256_add_epi16(_mm256_add_epi16(pair_sums(r0 + 2 * i + 32), pair_sums(r1 + 2 * i + 32)), two), 2);
        store_pair(out + i, lo, hi);
    }
    down_h2v2_c(r0 + 2 * i, r1 + 2 * i, out + i, n - i);
}

void down_h2v1_avx2(const uint8_t *r0, const uint8_t *r1, uint8_t *out, int n) {
    const __m256i one = _mm256_set1_epi16(1);
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i lo = _mm256_srli_epi16(_mm256_add_epi16(pair_sums(r0 + 2 * i), one), 1);
        const __m256i hi = _mm256_srli_epi16(_mm256_add_epi16(pair_sums(r0 + 2 * i + 32), one), 1);
        store_pair(out + i, lo, hi);
    }
    down_h2v1_c(r0 + 2 * i, r1, out + i, n - i);
}

}  // namespace

void color_init_avx2(ColorDsp *d) {
    d->to_packed[kPackRGB] = ycc_to_packed_avx2<kPackRGB>;
    d->to_packed[kPackRGBA] = ycc_to_packed_avx2<kPackRGBA>;
    d->to_packed[kPackBGRA] = ycc_to_packed_avx2<kPackBGRA>;
    d->from_packed[kPackRGB] = packed_to_ycc_avx2<kPackRGB>;
    d->from_packed[kPackRGBA] = packed_to_ycc_avx2<kPackRGBA>;
    d->from_packed[kPackBGRA] = packed_to_ycc_avx2<kPackBGRA>;
    d->vsum3 = vsum3_avx2;
    d->h2_fancy = h2_fancy_avx2;
    d->down_h2v2 = down_h2v2_avx2;
    d->down_h2v1 = down_h2v1_avx2;
}

}  // namespace kivo
