// Which values of a block are not zero, as a 64-bit mask in raster or
// zig-zag order, for the loops that visit only those.
#ifndef KIVO_COMMON_NONZERO_H
#define KIVO_COMMON_NONZERO_H

#include <cstdint>
#include <type_traits>

#include "kivo.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

// Bit i set when blk[i] is not zero (raster order). *all_coded is set to
// whether every value has a size category (all within -2047 to 2047).
inline uint64_t kivo_raster_mask(const int16_t *blk, bool *all_coded) {
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    const __m128i top = _mm_set1_epi16(2047);
    const __m128i low = _mm_set1_epi16(-2047);
    __m128i bad = zero;
    uint64_t zeros = 0;
    for (int32_t r = 0; r < 4; ++r) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(blk + 16 * r));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(blk + 16 * r + 8));
        const __m128i eq = _mm_packs_epi16(_mm_cmpeq_epi16(a, zero), _mm_cmpeq_epi16(b, zero));
        zeros |= static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(eq))) << (16 * r);
        bad = _mm_or_si128(bad, _mm_or_si128(_mm_cmpgt_epi16(a, top), _mm_cmpgt_epi16(b, top)));
        bad = _mm_or_si128(bad, _mm_or_si128(_mm_cmplt_epi16(a, low), _mm_cmplt_epi16(b, low)));
    }
    *all_coded = _mm_movemask_epi8(bad) == 0;
    return ~zeros;
#elif defined(__ARM_NEON)
    const uint8x8_t weight = {1, 2, 4, 8, 16, 32, 64, 128};
    const int16x8_t top = vdupq_n_s16(2047), low = vdupq_n_s16(-2047);
    uint16x8_t bad = vdupq_n_u16(0);
    uint8x8_t row[8];
    for (int32_t r = 0; r < 8; ++r) {
        const int16x8_t v = vld1q_s16(blk + 8 * r);
        row[r] = vand_u8(vmovn_u16(vtstq_s16(v, v)), weight);
        bad = vorrq_u16(bad, vorrq_u16(vcgtq_s16(v, top), vcltq_s16(v, low)));
    }
    const uint8x8_t p0 = vpadd_u8(row[0], row[1]), p1 = vpadd_u8(row[2], row[3]);
    const uint8x8_t p2 = vpadd_u8(row[4], row[5]), p3 = vpadd_u8(row[6], row[7]);
    const uint8x8_t all = vpadd_u8(vpadd_u8(p0, p1), vpadd_u8(p2, p3));
    const uint8x8_t bad8 = vmovn_u16(bad);
    *all_coded = vget_lane_u64(vreinterpret_u64_u8(bad8), 0) == 0;
    return vget_lane_u64(vreinterpret_u64_u8(all), 0);
#else
    uint64_t m = 0;
    bool ok = true;
    for (int32_t i = 0; i < 64; ++i) {
        m |= static_cast<uint64_t>(blk[i] != 0) << i;
        ok = ok && blk[i] <= 2047 && blk[i] >= -2047;
    }
    *all_coded = ok;
    return m;
#endif
}

inline uint64_t kivo_raster_mask(const int16_t *blk) {
    bool all_coded;
    return kivo_raster_mask(blk, &all_coded);
}

namespace kivo_nz {

// Masks are walked a register at a time: in two halves on 32-bit
// processors, where 64-bit bit counts, clears and shifts take several
// instructions.
using MaskWord = std::conditional_t<sizeof(void *) >= 8, uint64_t, uint32_t>;
constexpr int32_t kMaskBits = 8 * sizeof(MaskWord);
// Trailing zeros of a non-zero mask word.
inline int32_t ctz(MaskWord m) {
    if constexpr (sizeof(MaskWord) == 8) return __builtin_ctzll(m);
    else return __builtin_ctz(static_cast<uint32_t>(m));
}

// A map of the 64 positions of a block.
struct Order {
    uint8_t z[64];
};

// Zig-zag position of every raster position, from a walk along the
// anti-diagonals (alternating direction, starting towards the right).
constexpr Order make_ras_to_zig() {
    Order t{};
    int32_t z = 0;
    for (int32_t d = 0; d < 15; ++d) {
        for (int32_t i = 0; i <= d; ++i) {
            const int32_t row = (d & 1) ? i : d - i;
            const int32_t col = d - row;
            if (row < 8 && col < 8) t.z[row * 8 + col] = static_cast<uint8_t>(z++);
        }
    }
    return t;
}

// Raster position of every zig-zag position, as constants.
constexpr Order make_zig_to_ras() {
    constexpr Order r2z = make_ras_to_zig();
    Order t{};
    for (int32_t i = 0; i < 64; ++i) t.z[r2z.z[i]] = static_cast<uint8_t>(i);
    return t;
}

inline constexpr Order kZigToRas = make_zig_to_ras();

#if !defined(__ARM_NEON)
// kNibbleZig[i][m]: the zig-zag mask of the non-zero coefficients that the
// four-bit pattern m marks among raster positions 4i to 4i + 3. The DC
// position maps to no bit.
struct NibbleZig {
    uint64_t m[16][16];
};

constexpr NibbleZig make_nibble_zig() {
    constexpr Order r2z = make_ras_to_zig();
    NibbleZig t{};
    for (int32_t i = 0; i < 16; ++i)
        for (int32_t m = 0; m < 16; ++m)
            for (int32_t b = 0; b < 4; ++b) {
                const int32_t z = r2z.z[4 * i + b];
                if ((m >> b & 1) && z) t.m[i][m] |= uint64_t(1) << z;
            }
    return t;
}

inline constexpr NibbleZig kNibbleZig = make_nibble_zig();

#endif

}  // namespace kivo_nz

#if !defined(__ARM_NEON)
// The zig-zag mask of the AC positions that the raster mask m marks.
inline uint64_t kivo_zigzag_of_raster(uint64_t m) {
    uint64_t z = 0;
    for (int32_t i = 0; i < 16; ++i) z |= kivo_nz::kNibbleZig.m[i][(m >> (4 * i)) & 15];
    return z;
}
#endif

// Bit z set when the AC coefficient at zig-zag position z is not zero.
inline uint64_t kivo_zigzag_ac_mask(const int16_t *blk, bool *all_coded) {
#if defined(__ARM_NEON)
    // One byte a coefficient (all ones where not zero), put in zig-zag
    // order by table look-ups over the two halves of the block, then one
    // bit each.
    const int16x8_t top = vdupq_n_s16(2047), low = vdupq_n_s16(-2047);
    uint16x8_t bad = vdupq_n_u16(0);
    uint8x8_t nz[8];
    for (int32_t r = 0; r < 8; ++r) {
        const int16x8_t v = vld1q_s16(blk + 8 * r);
        nz[r] = vmovn_u16(vtstq_s16(v, v));
        bad = vorrq_u16(bad, vorrq_u16(vcgtq_s16(v, top), vcltq_s16(v, low)));
    }
    *all_coded = vget_lane_u64(vreinterpret_u64_u8(vmovn_u16(bad)), 0) == 0;
    const uint8x8x4_t lo = {{nz[0], nz[1], nz[2], nz[3]}}, hi = {{nz[4], nz[5], nz[6], nz[7]}};
    const uint8x8_t weight = {1, 2, 4, 8, 16, 32, 64, 128}, half = vdup_n_u8(32);
    uint8x8_t zz[8];
    for (int32_t i = 0; i < 8; ++i) {
        // Indices 32 and up miss the first half; below 32, minus 32, the second.
        const uint8x8_t idx = vld1_u8(kivo_tbl_zig_to_ras + 8 * i);
        zz[i] = vand_u8(vtbx4_u8(vtbl4_u8(lo, idx), hi, vsub_u8(idx, half)), weight);
    }
    const uint8x8_t p0 = vpadd_u8(zz[0], zz[1]), p1 = vpadd_u8(zz[2], zz[3]);
    const uint8x8_t p2 = vpadd_u8(zz[4], zz[5]), p3 = vpadd_u8(zz[6], zz[7]);
    const uint8x8_t all = vpadd_u8(vpadd_u8(p0, p1), vpadd_u8(p2, p3));
    return vget_lane_u64(vreinterpret_u64_u8(all), 0) & ~uint64_t(1);
#else
    return kivo_zigzag_of_raster(kivo_raster_mask(blk, all_coded));
#endif
}

#endif
