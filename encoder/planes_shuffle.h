// Bit planes of a block's AC levels on AVX2 machines, shared by the
// variants with and without BMI2: each level's plane bits in a byte, 32
// levels at a time; the bytes put in zig-zag order by byte shuffles from
// the four 16-byte quarters the packing leaves them in; each plane then
// two byte-mask extractions. Internal linkage keeps each variant's copy
// compiled for its own CPU level.
#ifndef KIVO_ENCODER_PLANES_SHUFFLE_H
#define KIVO_ENCODER_PLANES_SHUFFLE_H

#include <immintrin.h>

#include "common/nonzero.h"
#include "encoder/kivoe_int.h"

namespace {

// Where raster level r lies after the packing below: levels 32t to 32t + 31
// are packed from two registers of 16 (A: the first 16, B: the rest), 8
// from each 128-bit lane in turn, into quarters 2t (lane 0) and 2t + 1.
constexpr int32_t packed_at(int32_t r) {
    const int32_t t = r >> 5, q = r & 31, k = q & 15, b = q >= 16;
    const int32_t pos = (k >= 8 ? 16 : 0) + (b ? 8 : 0) + (k & 7);
    return 32 * t + pos;  // quarter pos >> 4 of the pair, byte pos & 15
}

// kShuffle.idx[o][j][32]: for zig-zag positions 32o to 32o + 31, where each
// lies in packed quarter j, or 0x80 (a zero byte) when it lies in another.
struct Shuffle {
    alignas(32) uint8_t idx[2][4][32];
};

constexpr Shuffle make_shuffle() {
    Shuffle s{};
    for (int32_t z = 0; z < 64; ++z) {
        const int32_t at = packed_at(kivo_nz::kZigToRas.z[z]);
        for (int32_t j = 0; j < 4; ++j) s.idx[z >> 5][j][z & 31] = at >> 4 == j ? static_cast<uint8_t>(at & 15) : 0x80;
    }
    return s;
}

constexpr Shuffle kShuffle = make_shuffle();

// Bit kBit of the zig-zag ordered level bytes, as a mask without the DC bit.
template <int kBit>
uint64_t plane256(const __m256i *zz) {
    const uint32_t lo = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_slli_epi16(zz[0], 7 - kBit)));
    const uint32_t hi = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_slli_epi16(zz[1], 7 - kBit)));
    return (static_cast<uint64_t>(hi) << 32 | lo) & ~uint64_t(1);
}

// The planes of n blocks and their DC levels; corr(x, m) packs the bits of
// x at the positions set in m as kivoe_corr_bits does. Returns non-zero
// when some AC level lies outside -1023 to 1023.
template <class Corr>
inline uint32_t planes_rows(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc, Corr &&corr) {
    const __m256i top = _mm256_set1_epi16(1023), three = _mm256_set1_epi16(3);
    const __m256i not_dc = _mm256_set_epi16(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0);
    const __m256i zero = _mm256_setzero_si256(), b0 = _mm256_set1_epi8(1), b1 = _mm256_set1_epi8(2);
    const __m256i b2 = _mm256_set1_epi8(4), b5 = _mm256_set1_epi8(32), three8 = _mm256_set1_epi8(3);
    __m256i bad = _mm256_setzero_si256();
    for (int32_t b = 0; b < n; ++b, blk += 64) {
        // Bits 0 to 2 of a level's byte clear where |level| >> 0, 1, 2 is
        // not zero; 3 and 4 bits 0 and 1 of |level|; 5 the sign.
        __m256i code[2];
        for (int32_t t = 0; t < 2; ++t) {
            const __m256i va = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(blk + 32 * t));
            const __m256i vb = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(blk + 32 * t + 16));
            const __m256i aa = _mm256_abs_epi16(va), ab = _mm256_abs_epi16(vb);
            const __m256i over = _mm256_subs_epu16(aa, top);
            bad = _mm256_or_si256(bad, _mm256_or_si256(t ? over : _mm256_and_si256(over, not_dc), _mm256_subs_epu16(ab, top)));
            const __m256i mag = _mm256_packus_epi16(aa, ab);  // |level| up to 255 (-32768: 0)
            const __m256i low = _mm256_packus_epi16(_mm256_and_si256(aa, three), _mm256_and_si256(ab, three));
            __m256i c = _mm256_and_si256(_mm256_cmpeq_epi8(mag, zero), b0);
            c = _mm256_or_si256(c, _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_subs_epu8(mag, b0), zero), b1));
            c = _mm256_or_si256(c, _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_subs_epu8(mag, three8), zero), b2));
            c = _mm256_or_si256(c, _mm256_slli_epi16(low, 3));
            const __m256i sign = _mm256_packs_epi16(_mm256_srai_epi16(va, 15), _mm256_srai_epi16(vb, 15));
            code[t] = _mm256_or_si256(c, _mm256_and_si256(sign, b5));
        }
        // Each quarter in both lanes, then shuffled into place.
        const __m256i q[4] = {_mm256_permute2x128_si256(code[0], code[0], 0x00), _mm256_permute2x128_si256(code[0], code[0], 0x11),
                              _mm256_permute2x128_si256(code[1], code[1], 0x00), _mm256_permute2x128_si256(code[1], code[1], 0x11)};
        __m256i zz[2];
        for (int32_t o = 0; o < 2; ++o) {
            __m256i z = _mm256_setzero_si256();
            for (int32_t j = 0; j < 4; ++j)
                z = _mm256_or_si256(z, _mm256_shuffle_epi8(q[j], _mm256_load_si256(reinterpret_cast<const __m256i *>(kShuffle.idx[o][j]))));
            zz[o] = z;
        }
        kivoe_planes &p = out[b];
        const uint64_t nz1 = ~plane256<1>(zz) & ~uint64_t(1), nz2 = ~plane256<2>(zz) & ~uint64_t(1);
        p.nz[0] = ~plane256<0>(zz) & ~uint64_t(1);
        p.nz[1] = nz1;
        p.nz[2] = nz2;
        p.corr[0] = corr(plane256<3>(zz), nz1);
        p.corr[1] = corr(plane256<4>(zz), nz2);
        p.neg = plane256<5>(zz);
        dc[b] = blk[0];
    }
    return static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(bad, zero))) ^ 0xFFFFFFFFu;
}

}  // namespace

#endif
