// AVX2 quantizers, sixteen coefficients per step, bit-exact to the plain
// ones (kivoe_quant for offsets below 32768, as the half values are), and
// the transform and quantizer in one.
#include <immintrin.h>

#include "common/nonzero.h"
#include "encoder/enc_simd.h"
#include "encoder/fdct_avx2.h"
#include "encoder/jnd_avx2.h"
#include "encoder/quant_avx2.h"
#include "encoder/switches_avx2.h"

namespace {

// Byte shuffles that put one flag a coefficient into zig-zag order. The
// flags of rows 0 to 7 come as four vectors: rows 0 and 2 in the low lane
// and 1 and 3 in the high one, that vector with its lanes swapped, and
// the same for rows 4 to 7 (a row's eight bytes first or second in its
// lane). kZigShuffle[v][j] picks, for zig-zag positions 32 j to 32 j + 31,
// the bytes that vector v holds and zero elsewhere.
struct ZigShuffle {
    alignas(32) uint8_t b[4][2][32];
};

constexpr ZigShuffle make_zig_shuffle() {
    ZigShuffle t{};
    for (int v = 0; v < 4; ++v)
        for (int j = 0; j < 2; ++j)
            for (int k = 0; k < 32; ++k) {
                const int z = 32 * j + k, lane = k / 16;
                const int ras = kivo_nz::kZigToRas.z[z], row = ras / 8, col = ras % 8;
                const int from = 2 * (row / 4) + ((row & 1) ^ lane);
                t.b[v][j][k] = from == v ? static_cast<uint8_t>(8 * (row % 4 / 2) + col) : 0x80;
            }
    return t;
}

constexpr ZigShuffle kZigShuffle = make_zig_shuffle();

// OR of the four vectors shuffled for half j of the zig-zag order.
inline __m256i zigzag_half(const __m256i v[4], int j) {
    __m256i out = _mm256_shuffle_epi8(v[0], load16(kZigShuffle.b[0][j]));
    for (int k = 1; k < 4; ++k) out = _mm256_or_si256(out, _mm256_shuffle_epi8(v[k], load16(kZigShuffle.b[k][j])));
    return out;
}

// The zig-zag mask of the non-zero AC levels (bit 0 clear) from one byte a
// level in raster order, all ones where the level is zero: positions 0 to
// 31 in lo, 32 to 63 in hi.
inline uint64_t nonzero_zigzag(__m256i lo, __m256i hi) {
    const __m256i v[4] = {lo, _mm256_permute2x128_si256(lo, lo, 0x01), hi, _mm256_permute2x128_si256(hi, hi, 0x01)};
    const uint64_t zeros = static_cast<uint32_t>(_mm256_movemask_epi8(zigzag_half(v, 0))) |
                           static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(zigzag_half(v, 1)))) << 32;
    return ~zeros & ~uint64_t(1);
}

}  // namespace

int32_t kivoe_quant_avx2(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    const __m256i zero = _mm256_setzero_si256();
    __m256i zeros = zero;  // per lane: levels equal to 0
    for (int i = 0; i < 64; i += 16) {
        const __m256i c = load_rows(blk + i);
        const __m256i n = magnitude(c, recip + i, offset + i);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(blk + i), apply_sign(c, n));
        zeros = _mm256_sub_epi16(zeros, _mm256_cmpeq_epi16(n, zero));
    }
    __m128i sum = _mm_add_epi16(_mm256_castsi256_si128(zeros), _mm256_extracti128_si256(zeros, 1));
    sum = _mm_madd_epi16(sum, _mm_set1_epi16(1));
    sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(1, 0, 3, 2)));
    sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(2, 3, 0, 1)));
    return 64 - _mm_cvtsi128_si32(sum);
}

namespace {

// kivoe_quant_mask of the coefficients c (two rows a vector), the levels
// stored at blk.
inline uint64_t quant_mask_rows(const __m256i c[4], int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    const __m256i zero = _mm256_setzero_si256();
    __m256i n[4], any = zero;
    for (int k = 0; k < 4; ++k) {
        n[k] = magnitude(c[k], recip + 16 * k, offset + 16 * k);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(blk + 16 * k), apply_sign(c[k], n[k]));
        any = _mm256_or_si256(any, n[k]);
    }
    // One byte a coefficient, all ones where the level is zero (magnitudes
    // above 255 saturate, so no other level packs to 0).
    const uint64_t nonzero = nonzero_zigzag(_mm256_cmpeq_epi8(_mm256_packus_epi16(n[0], n[1]), zero),
                                            _mm256_cmpeq_epi8(_mm256_packus_epi16(n[2], n[3]), zero));
    // A magnitude of 2048 or more sets a bit above the low eleven.
    const bool big = !_mm256_testz_si256(any, _mm256_set1_epi16(-2048));
    return nonzero | big;  // bit 0 is the DC coefficient's
}

}  // namespace

uint64_t kivoe_quant_mask_avx2(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    __m256i c[4];
    for (int k = 0; k < 4; ++k) c[k] = load_rows(blk + 16 * k);
    return quant_mask_rows(c, blk, recip, offset);
}

uint64_t kivoe_fdct_quant_mask_avx2(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    __m256i c[4];
    fdct8_rows(blk, c);
    return quant_mask_rows(c, blk, recip, offset);
}

uint64_t kivoe_fdct_quant_samples_avx2(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *recip,
                                       const uint16_t *offset) {
    __m128i x[8];
    load_columns_u8(src, stride, x);
    __m256i c[4];
    fdct8_columns(x, c);
    return quant_mask_rows(c, blk, recip, offset);
}

namespace {

// kivoe_quant_rdoq of sixteen coefficients c.
inline __m256i rdoq16(__m256i c, const uint16_t *recip, const uint16_t *offset) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i a = _mm256_abs_epi16(c);
    const __m256i r = load16(recip), o = load16(offset);
    const __m256i hi = _mm256_mulhi_epu16(a, r), lo = _mm256_mullo_epi16(a, r);
    // 32-bit products plus the offset, shifted by 14: below 2^16, so
    // the low 16 bits of each are the whole value.
    const __m256i p0 = _mm256_srli_epi32(_mm256_add_epi32(_mm256_unpacklo_epi16(lo, hi), _mm256_unpacklo_epi16(o, zero)), 14);
    const __m256i p1 = _mm256_srli_epi32(_mm256_add_epi32(_mm256_unpackhi_epi16(lo, hi), _mm256_unpackhi_epi16(o, zero)), 14);
    // packus keeps values up to 65535 as they are; the unpacks and the
    // pack both work within 128-bit lanes, so the order is restored.
    return apply_sign(c, _mm256_packus_epi32(p0, p1));
}

}  // namespace

void kivoe_quant_rdoq_avx2(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    for (int i = 0; i < 64; i += 16)
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(blk + i), rdoq16(load16(blk + i), recip + i, offset + i));
}

namespace {

inline uint64_t levels_mask(const int16_t *blk) {
    const __m256i zero = _mm256_setzero_si256(), top = _mm256_set1_epi16(2047), low = _mm256_set1_epi16(-2047);
    __m256i l[4], bad = zero;
    for (int k = 0; k < 4; ++k) {
        l[k] = load16(blk + 16 * k);
        bad = _mm256_or_si256(bad, _mm256_or_si256(_mm256_cmpgt_epi16(l[k], top), _mm256_cmpgt_epi16(low, l[k])));
    }
    if (!_mm256_testz_si256(bad, bad)) return ~uint64_t(0);
    // One byte a level, all ones where it is zero, as the quantizers' masks.
    return nonzero_zigzag(_mm256_packs_epi16(_mm256_cmpeq_epi16(l[0], zero), _mm256_cmpeq_epi16(l[1], zero)),
                          _mm256_packs_epi16(_mm256_cmpeq_epi16(l[2], zero), _mm256_cmpeq_epi16(l[3], zero)));
}

}  // namespace

uint64_t kivoe_levels_mask_avx2(const int16_t *blk) { return levels_mask(blk); }

// The quantizer, suppression, offset update and mask in one: the
// coefficients stay in registers for the quantizer, the calls go.
uint64_t kivoe_quant_kept_avx2(int16_t *blk, const uint16_t *q, const uint16_t *recip, const uint16_t *half,
                               uint16_t *adapt, const uint8_t *thr) {
    alignas(32) int16_t coef[64];
    for (int i = 0; i < 64; i += 16) {
        const __m256i c = load16(blk + i);
        _mm256_store_si256(reinterpret_cast<__m256i *>(coef + i), c);
        const __m256i l = adapt ? rdoq16(c, recip + i, adapt + i) : apply_sign(c, magnitude(c, recip + i, half + i));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(blk + i), l);
    }
    if (thr) suppress_body<Avx2>(blk, coef, q, recip, thr);
    if (adapt) update_body<Avx2>(blk, coef, q, recip, adapt);
    return levels_mask(blk);
}

namespace {

// kivoe_fdct_quant_kept_samples from the coefficients c (two rows a vector)
// of 8-bit samples, whose magnitudes a are at most 1024. With the tables'
// q of 1 to 255, recip = 16384 / q and offsets up to 8192, a level's
// magnitude n then stays within 1024 and n q within a + q / 2, so that the
// products below fit 16 bits and no level needs the coder's own check.
// Magnitudes until the end, the signs put back last.
template <bool kAdapt, bool kSuppress>
inline uint64_t kept_rows(const __m256i c[4], const uint8_t *row, int16_t *blk, const uint16_t *q,
                          const uint16_t *recip, const uint16_t *half, uint16_t *adapt) {
    const __m256i zero = _mm256_setzero_si256();
    __m256i a[4], n[4], O[4];
    for (int k = 0; k < 4; ++k) {
        a[k] = _mm256_abs_epi16(c[k]);
        const __m256i R = load16(recip + 16 * k);
        if (kAdapt) {
            // (a recip + offset) >> 14: the whole steps of a recip (the
            // high half of 4 a recip), plus one where the offset carries
            // the low 14 bits of a recip past 2^14.
            O[k] = load16(adapt + 16 * k);
            const __m256i whole = _mm256_mulhi_epu16(_mm256_slli_epi16(a[k], 2), R);
            const __m256i part = _mm256_and_si256(_mm256_mullo_epi16(a[k], R), _mm256_set1_epi16(0x3FFF));
            n[k] = _mm256_add_epi16(whole, _mm256_srli_epi16(_mm256_add_epi16(part, O[k]), 14));
        } else {
            // ((a + half) recip) >> 14 as the high half of 4 (a + half) recip.
            n[k] = _mm256_mulhi_epu16(_mm256_slli_epi16(_mm256_add_epi16(a[k], load16(half + 16 * k)), 2), R);
        }
    }
    if (kSuppress) {
        // Levels suppressed with the thresholds row only when the AC
        // magnitudes add up to more than 7 (the sum of the eight 32-bit
        // lanes' pairs in lane 0; a lane's four magnitudes add up to 4096
        // at most).
        const __m256i dc_lane = _mm256_setr_epi16(-1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
        __m256i sum = _mm256_andnot_si256(dc_lane, n[0]);
        for (int k = 1; k < 4; ++k) sum = _mm256_add_epi16(sum, n[k]);
        __m256i s = _mm256_madd_epi16(sum, _mm256_set1_epi16(1));
        s = _mm256_add_epi32(s, _mm256_shuffle_epi32(s, _MM_SHUFFLE(1, 0, 3, 2)));
        s = _mm256_add_epi32(s, _mm256_shuffle_epi32(s, _MM_SHUFFLE(2, 3, 0, 1)));
        const __m128i s4 = _mm_add_epi32(_mm256_castsi256_si128(s), _mm256_extracti128_si256(s, 1));
        // A branch: predicted, the levels' chain through the offsets does
        // not wait for the sum.
        const bool busy = _mm_cvtsi128_si32(s4) > 7;
        // The descent from n - 1 stops at the lowest m with a - m q < T,
        // that is at M = (a + q - T) / q (0 when a + q <= T); a level above
        // M comes down to it, the others stay. The quotient from the
        // reciprocal, with one correction.
        // M does not depend on the levels.
        for (int k = 0; k < 4 && busy; ++k) {
            const __m256i T = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(row + 16 * k)));
            const __m256i Q = load16(q + 16 * k);
            const __m256i Z = _mm256_subs_epu16(_mm256_add_epi16(a[k], Q), T);
            const __m256i m0 = _mm256_mulhi_epu16(_mm256_slli_epi16(Z, 2), load16(recip + 16 * k));
            const __m256i rem = _mm256_sub_epi16(Z, _mm256_mullo_epi16(m0, Q));
            const __m256i M = _mm256_sub_epi16(m0, _mm256_cmpeq_epi16(_mm256_subs_epu16(Q, rem), zero));
            n[k] = _mm256_min_epu16(n[k], M);
        }
    }
    if (kAdapt) {
        // err = a - n q, taken as 0 where the level is 0, which keeps its
        // offset; d = (|err| recip) >> 11 as the high half of 32 |err|
        // recip (|err| at most 1024).
        for (int k = 0; k < 4; ++k) {
            const __m256i Q = load16(q + 16 * k), R = load16(recip + 16 * k);
            const __m256i err = _mm256_andnot_si256(_mm256_cmpeq_epi16(n[k], zero),
                                                    _mm256_sub_epi16(a[k], _mm256_mullo_epi16(n[k], Q)));
            const __m256i d = _mm256_mulhi_epu16(_mm256_slli_epi16(_mm256_abs_epi16(err), 5), R);
            const __m256i o = _mm256_add_epi16(O[k], _mm256_sign_epi16(d, err));
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(adapt + 16 * k),
                                _mm256_min_epi16(_mm256_max_epi16(o, zero), _mm256_set1_epi16(8192)));
        }
    }
    for (int k = 0; k < 4; ++k)
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(blk + 16 * k), _mm256_sign_epi16(n[k], c[k]));
    return nonzero_zigzag(_mm256_cmpeq_epi8(_mm256_packus_epi16(n[0], n[1]), zero),
                          _mm256_cmpeq_epi8(_mm256_packus_epi16(n[2], n[3]), zero));
}

// The quantizer's steps on the coefficients c, as the kernels end.
inline uint64_t kept_steps(const __m256i c[4], const uint8_t *row, int16_t *blk, const uint16_t *q,
                           const uint16_t *recip, const uint16_t *half, uint16_t *adapt, bool suppress) {
    if (adapt) return suppress ? kept_rows<true, true>(c, row, blk, q, recip, half, adapt)
                               : kept_rows<true, false>(c, row, blk, q, recip, half, adapt);
    if (suppress) return kept_rows<false, true>(c, row, blk, q, recip, half, adapt);
    const uint64_t mask = quant_mask_rows(c, blk, recip, half);
    return mask & 1 ? ~uint64_t(0) : mask;
}

}  // namespace

uint64_t kivoe_fdct_quant_kept_samples_avx2(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                            const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                            int32_t suppress) {
    __m256i c[4];
    const uint8_t *row = block_coefficients<false>(src, stride, suppress, c);
    return kept_steps(c, row, blk, q, recip, half, adapt, suppress);
}

uint64_t kivoe_jnd_fdct_quant_kept_avx2(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                        const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                        int32_t suppress) {
    __m256i c[4];
    const uint8_t *row = block_coefficients<true>(src, stride, suppress, c);
    return kept_steps(c, row, blk, q, recip, half, adapt, suppress);
}

namespace {

// Two blocks transformed before either is quantized: the two chains of
// steps are independent until the quantizer, which takes the first block
// first (the second may quantize with the offsets the first leaves).
template <bool kFilter>
inline void kept_pair(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2], const uint16_t *q,
                      const uint16_t *recip, const uint16_t *half, uint16_t *adapt, bool suppress, uint64_t *mask) {
    __m128i x[2][8];
    const uint8_t *row[2];
    if (kFilter) {
        filtered_columns2(src[0], src[1], stride, suppress, x, row);
    } else {
        for (int i = 0; i < 2; ++i) row[i] = sample_columns(src[i], stride, suppress, x[i]);
    }
    __m256i c[2][4];
    fdct8_columns(x[0], c[0]);
    fdct8_columns(x[1], c[1]);
    mask[0] = kept_steps(c[0], row[0], blk[0], q, recip, half, adapt, suppress);
    mask[1] = kept_steps(c[1], row[1], blk[1], q, recip, half, adapt, suppress);
}

}  // namespace

// Four blocks alike: all filtered and transformed, then quantized in order.
void kivoe_jnd_fdct_quant_kept4_avx2(const uint8_t *const src[4], int32_t stride, int16_t *const blk[4],
                                     const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                     int32_t suppress, uint64_t *mask) {
    __m128i x[4][8];
    const uint8_t *row[4];
    // The blocks in two pairs side by side (the 2 x 2 blocks of an MCU).
    for (int i = 0; i < 4; i += 2) filtered_columns2(src[i], src[i + 1], stride, suppress, &x[i], &row[i]);
    __m256i c[4][4];
    for (int i = 0; i < 4; ++i) fdct8_columns(x[i], c[i]);
    for (int i = 0; i < 4; ++i) mask[i] = kept_steps(c[i], row[i], blk[i], q, recip, half, adapt, suppress);
}

void kivoe_fdct_quant_kept2_avx2(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2], const uint16_t *q,
                                 const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress,
                                 uint64_t *mask) {
    kept_pair<false>(src, stride, blk, q, recip, half, adapt, suppress, mask);
}

void kivoe_jnd_fdct_quant_kept2_avx2(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2],
                                     const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                     int32_t suppress, uint64_t *mask) {
    kept_pair<true>(src, stride, blk, q, recip, half, adapt, suppress, mask);
}
