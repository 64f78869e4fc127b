// SSE2 quantizers, eight coefficients per step, bit-exact to the plain ones.
#include <emmintrin.h>

#include "encoder/enc_simd.h"
#include "common/nonzero.h"

namespace {

// Quantizes the eight coefficients c with the eight reciprocals r and
// offsets o; *mag gets the level magnitudes.
inline __m128i quantize8(__m128i c, __m128i r, __m128i o, __m128i *mag) {
    const __m128i sign = _mm_srai_epi16(c, 15);
    // |c| as unsigned 16 bits (32768 for -32768), plus the offset: at most
    // 32768 + 32767, still below 65536.
    const __m128i a = _mm_add_epi16(_mm_sub_epi16(_mm_xor_si128(c, sign), sign), o);
    // (a * recip) >> 14 from the high and low halves of the product.
    const __m128i hi = _mm_mulhi_epu16(a, r), lo = _mm_mullo_epi16(a, r);
    __m128i n = _mm_or_si128(_mm_slli_epi16(hi, 2), _mm_srli_epi16(lo, 14));
    n = _mm_sub_epi16(n, _mm_subs_epu16(n, _mm_set1_epi16(32767)));  // at most 32767
    *mag = n;
    // Negative and zero coefficients take the negative sign: -n.
    const __m128i pos = _mm_cmpgt_epi16(c, _mm_setzero_si128());
    const __m128i neg = _mm_sub_epi16(_mm_setzero_si128(), n);
    return _mm_or_si128(_mm_and_si128(pos, n), _mm_andnot_si128(pos, neg));
}

inline __m128i load8(const void *p) { return _mm_loadu_si128(static_cast<const __m128i *>(p)); }

}  // namespace

int32_t kivoe_quant_sse2(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    __m128i zeros = _mm_setzero_si128();  // per lane: levels equal to 0
    for (int i = 0; i < 64; i += 8) {
        __m128i n;
        const __m128i level = quantize8(load8(blk + i), load8(recip + i), load8(offset + i), &n);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(blk + i), level);
        zeros = _mm_sub_epi16(zeros, _mm_cmpeq_epi16(n, _mm_setzero_si128()));
    }
    __m128i sum = _mm_madd_epi16(zeros, _mm_set1_epi16(1));
    sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(1, 0, 3, 2)));
    sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(2, 3, 0, 1)));
    return 64 - _mm_cvtsi128_si32(sum);
}

uint64_t kivoe_quant_mask_sse2(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    __m128i any = _mm_setzero_si128();  // OR of the magnitudes
    uint64_t zeros = 0;                 // raster mask of the zero levels
    for (int i = 0; i < 64; i += 16) {
        __m128i n0, n1;
        const __m128i l0 = quantize8(load8(blk + i), load8(recip + i), load8(offset + i), &n0);
        const __m128i l1 = quantize8(load8(blk + i + 8), load8(recip + i + 8), load8(offset + i + 8), &n1);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(blk + i), l0);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(blk + i + 8), l1);
        any = _mm_or_si128(any, _mm_or_si128(n0, n1));
        const __m128i eq = _mm_packs_epi16(_mm_cmpeq_epi16(n0, _mm_setzero_si128()), _mm_cmpeq_epi16(n1, _mm_setzero_si128()));
        zeros |= static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(eq))) << i;
    }
    // A magnitude of 2048 or more sets a bit above the low eleven.
    const __m128i big = _mm_cmpeq_epi16(_mm_and_si128(any, _mm_set1_epi16(-2048)), _mm_setzero_si128());
    return kivo_zigzag_of_raster(~zeros) | (_mm_movemask_epi8(big) != 0xFFFF);
}

uint64_t kivoe_fdct_quant_mask_sse2(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    kivoe_fdct8_sse2(blk);
    return kivoe_quant_mask_sse2(blk, recip, offset);
}

void kivoe_quant_rdoq_sse2(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    for (int i = 0; i < 64; i += 8) {
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(blk + i));
        const __m128i r = _mm_loadu_si128(reinterpret_cast<const __m128i *>(recip + i));
        const __m128i o = _mm_loadu_si128(reinterpret_cast<const __m128i *>(offset + i));
        const __m128i sign = _mm_srai_epi16(c, 15);
        const __m128i a = _mm_sub_epi16(_mm_xor_si128(c, sign), sign);
        const __m128i hi = _mm_mulhi_epu16(a, r), lo = _mm_mullo_epi16(a, r);
        const __m128i zero = _mm_setzero_si128();
        // 32-bit products plus the offset, shifted by 14.
        __m128i p0 = _mm_add_epi32(_mm_unpacklo_epi16(lo, hi), _mm_unpacklo_epi16(o, zero));
        __m128i p1 = _mm_add_epi32(_mm_unpackhi_epi16(lo, hi), _mm_unpackhi_epi16(o, zero));
        p0 = _mm_srli_epi32(p0, 14);
        p1 = _mm_srli_epi32(p1, 14);
        // Keep the low 16 bits of each (no saturation).
        p0 = _mm_srai_epi32(_mm_slli_epi32(p0, 16), 16);
        p1 = _mm_srai_epi32(_mm_slli_epi32(p1, 16), 16);
        const __m128i n = _mm_packs_epi32(p0, p1);
        const __m128i pos = _mm_cmpgt_epi16(c, zero);
        const __m128i level = _mm_or_si128(_mm_and_si128(pos, n), _mm_andnot_si128(pos, _mm_sub_epi16(zero, n)));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(blk + i), level);
    }
}
