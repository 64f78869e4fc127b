// ARMv7 NEON quantizers in assembly, bit-exact to the plain ones.

#include <arm_neon.h>

#include "encoder/enc_simd.h"
#include "common/nonzero.h"

// Sixteen coefficients a step: c in q8 q9 and |c| in q14 q15 (unsigned,
// 32768 for -32768), recip in q10 q11, offsets in q12 q13; the levels n in
// q14 q15 are stored negated, as (n ^ m) - m with m = -1, for coefficients
// at or below zero.
#define KIVO_LOAD16                                                                                                 \
    "vld1.16 {d16-d19}, [%[b]]\n\t" "vld1.16 {d20-d23}, [%[r]]!\n\t" "vld1.16 {d24-d27}, [%[o]]!\n\t"        \
    "vabs.s16 q14, q8\n\t" "vabs.s16 q15, q9\n\t"
#define KIVO_SIGN_STORE16                                                                                           \
    "vcle.s16 q8, q8, #0\n\t" "vcle.s16 q9, q9, #0\n\t" "veor q14, q14, q8\n\t" "veor q15, q15, q9\n\t"      \
    "vsub.i16 q14, q14, q8\n\t" "vsub.i16 q15, q15, q9\n\t" "vst1.16 {d28-d31}, [%[b]]!\n\t"
// |c| + offset in 16 bits (at most 32768 + 32767) times recip is exact in
// 32 bits and below 2^31 (recip at most 32768), so vqshrn.s32 gives
// ((a + o) r) >> 14 saturated to 32767; q3 counts the zero levels per lane.
#define KIVO_QUANT16                                                                                                \
    KIVO_LOAD16 "vadd.i16 q14, q14, q12\n\t" "vadd.i16 q15, q15, q13\n\t"                                      \
    "vmull.u16 q0, d28, d20\n\t" "vmull.u16 q1, d29, d21\n\t" "vmull.u16 q2, d30, d22\n\t"                   \
    "vqshrn.s32 d28, q0, #14\n\t" "vmull.u16 q0, d31, d23\n\t" "vqshrn.s32 d29, q1, #14\n\t"                 \
    "vqshrn.s32 d30, q2, #14\n\t" "vqshrn.s32 d31, q0, #14\n\t"                                                \
    "vceq.i16 q10, q14, #0\n\t" "vceq.i16 q11, q15, #0\n\t" KIVO_SIGN_STORE16                                 \
    "vsub.i16 q3, q3, q10\n\t" "vsub.i16 q3, q3, q11\n\t"
// (|c| recip + offset) >> 14, exact in 32 bits, its low 16 bits kept.
#define KIVO_QUANT_RDOQ16                                                                                           \
    KIVO_LOAD16 "vmull.u16 q0, d28, d20\n\t" "vmull.u16 q1, d29, d21\n\t" "vmull.u16 q2, d30, d22\n\t"       \
    "vmull.u16 q3, d31, d23\n\t" "vaddw.u16 q0, q0, d24\n\t" "vaddw.u16 q1, q1, d25\n\t"                    \
    "vaddw.u16 q2, q2, d26\n\t" "vaddw.u16 q3, q3, d27\n\t" "vshrn.i32 d28, q0, #14\n\t"                    \
    "vshrn.i32 d29, q1, #14\n\t" "vshrn.i32 d30, q2, #14\n\t" "vshrn.i32 d31, q3, #14\n\t" KIVO_SIGN_STORE16

#define KIVO_QUANT_CLOBBERS                                                                                         \
    "memory", "d0", "d1", "d2", "d3", "d4", "d5", "d6", "d7", "d16", "d17", "d18", "d19", "d20", "d21", "d22", "d23", \
        "d24", "d25", "d26", "d27", "d28", "d29", "d30", "d31"

int32_t kivoe_quant_neon(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    int32_t zeros;
    asm volatile("vmov.i16 q3, #0\n\t" KIVO_QUANT16 KIVO_QUANT16 KIVO_QUANT16 KIVO_QUANT16
                 "vadd.i16 d6, d6, d7\n\t" "vpaddl.u16 d6, d6\n\t" "vpadd.i32 d6, d6, d6\n\t"
                 "vmov.32 %[z], d6[0]\n\t"
                 : [z] "=r"(zeros), [b] "+r"(blk), [r] "+r"(recip), [o] "+r"(offset)
                 :
                 : KIVO_QUANT_CLOBBERS);
    return 64 - zeros;
}

uint64_t kivoe_fdct_quant_mask_neon(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    kivoe_fdct8_neon(blk);
    return kivoe_quant_mask_neon(blk, recip, offset);
}

void kivoe_quant_rdoq_neon(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    asm volatile(KIVO_QUANT_RDOQ16 KIVO_QUANT_RDOQ16 KIVO_QUANT_RDOQ16 KIVO_QUANT_RDOQ16
                 : [b] "+r"(blk), [r] "+r"(recip), [o] "+r"(offset)
                 :
                 : KIVO_QUANT_CLOBBERS);
}

namespace {

// For the zig-zag mask: the raster position of every zig-zag position, the
// same minus 32 (for the look-up in the second half of the block), and the
// weight of each position's bit within its byte.
struct ZigTables {
    uint8_t lo[64], hi[64], weight[16];
};

constexpr ZigTables make_zig_tables() {
    ZigTables t{};
    for (int32_t z = 0; z < 64; ++z) {
        t.lo[z] = kivo_nz::kZigToRas.z[z];
        t.hi[z] = static_cast<uint8_t>(kivo_nz::kZigToRas.z[z] - 32);
    }
    for (int32_t i = 0; i < 16; ++i) t.weight[i] = static_cast<uint8_t>(1 << (i % 8));
    return t;
}

alignas(16) constexpr ZigTables kZig = make_zig_tables();

}  // namespace

// KIVO_QUANT16 without the count: the zero flags of the two rows, narrowed
// to bytes, go to D0 and D1, and q3 keeps the largest |level| per lane.
#define KIVO_QUANT_FLAGS16(D0, D1, MAX)                                                                            \
    KIVO_LOAD16 "vadd.i16 q14, q14, q12\n\t" "vadd.i16 q15, q15, q13\n\t"                                      \
    "vmull.u16 q0, d28, d20\n\t" "vmull.u16 q1, d29, d21\n\t" "vmull.u16 q2, d30, d22\n\t"                   \
    "vqshrn.s32 d28, q0, #14\n\t" "vmull.u16 q0, d31, d23\n\t" "vqshrn.s32 d29, q1, #14\n\t"                 \
    "vqshrn.s32 d30, q2, #14\n\t" "vqshrn.s32 d31, q0, #14\n\t"                                                \
    "vceq.i16 q10, q14, #0\n\t" "vceq.i16 q11, q15, #0\n\t" MAX "vmovn.i16 " D0 ", q10\n\t"                 \
    "vmovn.i16 " D1 ", q11\n\t" KIVO_SIGN_STORE16

uint64_t kivoe_quant_mask_neon(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    uint32_t lo, hi;
    const uint8_t *zig = kZig.lo;
    asm volatile(
        // Zero flags of raster rows 0-7 in d8-d15.
        KIVO_QUANT_FLAGS16("d8", "d9", "vmax.u16 q3, q14, q15\n\t")
        KIVO_QUANT_FLAGS16("d10", "d11", "vmax.u16 q3, q3, q14\n\t" "vmax.u16 q3, q3, q15\n\t")
        KIVO_QUANT_FLAGS16("d12", "d13", "vmax.u16 q3, q3, q14\n\t" "vmax.u16 q3, q3, q15\n\t")
        KIVO_QUANT_FLAGS16("d14", "d15", "vmax.u16 q3, q3, q14\n\t" "vmax.u16 q3, q3, q15\n\t")
        // The DC flag becomes "every |level| at most 2047": all ones then,
        // so that bit 0 of the inverted mask is set only for a level
        // without a size category.
        "vshr.u16 q3, q3, #11\n\t" "vorr d6, d6, d7\n\t" "vpmax.u16 d6, d6, d6\n\t" "vpmax.u16 d6, d6, d6\n\t"
        "vceq.i16 d6, d6, #0\n\t" "vsri.64 d8, d6, #56\n\t"
        // Flags in zig-zag order: rows 0-3 by vtbl, rows 4-7 by vtbx on
        // the indices minus 32 (indices below 32 then miss and keep the first).
        "vld1.8 {d0-d3}, [%[z]]!\n\t" "vld1.8 {d4-d7}, [%[z]]!\n\t"
        "vld1.8 {d16-d19}, [%[z]]!\n\t" "vld1.8 {d20-d23}, [%[z]]!\n\t"
        "vtbl.8 d24, {d8-d11}, d0\n\t" "vtbl.8 d25, {d8-d11}, d1\n\t" "vtbl.8 d26, {d8-d11}, d2\n\t"
        "vtbl.8 d27, {d8-d11}, d3\n\t" "vtbl.8 d28, {d8-d11}, d4\n\t" "vtbl.8 d29, {d8-d11}, d5\n\t"
        "vtbl.8 d30, {d8-d11}, d6\n\t" "vtbl.8 d31, {d8-d11}, d7\n\t" "vld1.8 {d0-d1}, [%[z]]\n\t"
        "vtbx.8 d24, {d12-d15}, d16\n\t" "vtbx.8 d25, {d12-d15}, d17\n\t" "vtbx.8 d26, {d12-d15}, d18\n\t"
        "vtbx.8 d27, {d12-d15}, d19\n\t" "vtbx.8 d28, {d12-d15}, d20\n\t" "vtbx.8 d29, {d12-d15}, d21\n\t"
        "vtbx.8 d30, {d12-d15}, d22\n\t" "vtbx.8 d31, {d12-d15}, d23\n\t"
        // One bit a flag: weights 1 to 128 within each byte, then pairwise sums.
        "vand q12, q12, q0\n\t" "vand q13, q13, q0\n\t" "vand q14, q14, q0\n\t" "vand q15, q15, q0\n\t"
        "vpadd.i8 d24, d24, d25\n\t" "vpadd.i8 d25, d26, d27\n\t" "vpadd.i8 d26, d28, d29\n\t"
        "vpadd.i8 d27, d30, d31\n\t" "vpadd.i8 d24, d24, d25\n\t" "vpadd.i8 d25, d26, d27\n\t"
        "vpadd.i8 d24, d24, d25\n\t" "vmov %[lo], %[hi], d24\n\t"
        : [lo] "=r"(lo), [hi] "=r"(hi), [b] "+r"(blk), [r] "+r"(recip), [o] "+r"(offset), [z] "+r"(zig)
        :
        : KIVO_QUANT_CLOBBERS, "d8", "d9", "d10", "d11", "d12", "d13", "d14", "d15");
    return ~(static_cast<uint64_t>(hi) << 32 | lo);
}

#undef KIVO_QUANT_FLAGS16
#undef KIVO_LOAD16
#undef KIVO_SIGN_STORE16
#undef KIVO_QUANT16
#undef KIVO_QUANT_RDOQ16
#undef KIVO_QUANT_CLOBBERS

// Only the low 16 bits of the offset's change count (the sum is taken as a
// signed 16-bit value), and they are bits 11 to 26 of |error| * recip: the
// low 32 bits of that product suffice.
void kivoe_update_offset_neon(const int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                              uint16_t *offset) {
    for (int i = 0; i < 64; i += 8) {
        const int16x8_t L = vld1q_s16(levels + i);
        const uint16x8_t nz = vtstq_s16(L, L);
        const uint64x2_t any = vreinterpretq_u64_u16(nz);
        if ((vgetq_lane_u64(any, 0) | vgetq_lane_u64(any, 1)) == 0) continue;
        const uint16x8_t a = vreinterpretq_u16_s16(vabsq_s16(L));
        const uint16x8_t c = vreinterpretq_u16_s16(vabsq_s16(vld1q_s16(coef + i)));
        const uint16x8_t Q = vld1q_u16(q + i), R = vld1q_u16(recip + i), O = vld1q_u16(offset + i);
        uint16x4_t d[2];
        uint32x4_t neg[2];
        for (int h = 0; h < 2; ++h) {
            auto half = [h](uint16x8_t v) { return h ? vget_high_u16(v) : vget_low_u16(v); };
            const int32x4_t err = vreinterpretq_s32_u32(vsubq_u32(vmovl_u16(half(c)), vmull_u16(half(a), half(Q))));
            neg[h] = vcltq_s32(err, vdupq_n_s32(0));
            const uint32x4_t p = vmulq_u32(vreinterpretq_u32_s32(vabsq_s32(err)), vmovl_u16(half(R)));
            d[h] = vmovn_u32(vshrq_n_u32(p, 11));
        }
        const int16x8_t D = vreinterpretq_s16_u16(vcombine_u16(d[0], d[1]));
        const int16x8_t n = vreinterpretq_s16_u16(vcombine_u16(vmovn_u32(neg[0]), vmovn_u32(neg[1])));
        int16x8_t o = vaddq_s16(vreinterpretq_s16_u16(O), vsubq_s16(veorq_s16(D, n), n));
        o = vminq_s16(vmaxq_s16(o, vdupq_n_s16(0)), vdupq_n_s16(8192));
        vst1q_u16(offset + i, vbslq_u16(nz, vreinterpretq_u16_s16(o), O));
    }
}

// kivoe_fdct_quant_kept_samples with the coefficients of 8-bit samples
// (|c| at most 1024; with the tables' q of 1 to 255, recip = 16384 / q and
// offsets up to 8192 a level's magnitude n stays within 1024 and n q within
// |c| + q / 2, so that the products below fit 16 bits, and x r >> 14 for x
// below 2^13 is the doubling high half of 2 x and r). The suppression
// lowers n to M = (|c| + q - T) / q where that is below it, the quotient
// from the reciprocal with one correction.
namespace {

// (x r) >> 14 for x below 2^13 and r at most 16384.
inline uint16x8_t mul_q14(uint16x8_t x, uint16x8_t r) {
    return vreinterpretq_u16_s16(vqdmulhq_s16(vreinterpretq_s16_u16(vshlq_n_u16(x, 1)), vreinterpretq_s16_u16(r)));
}

// Level magnitudes of the row r of coefficients c.
inline uint16x8_t magnitudes(uint16x8_t a, const uint16_t *recip, const uint16_t *half, const uint16_t *adapt) {
    const uint16x8_t R = vld1q_u16(recip);
    if (!adapt) return mul_q14(vaddq_u16(a, vld1q_u16(half)), R);
    const uint16x8_t O = vld1q_u16(adapt);
    const uint32x4_t lo = vaddw_u16(vmull_u16(vget_low_u16(a), vget_low_u16(R)), vget_low_u16(O));
    const uint32x4_t hi = vaddw_u16(vmull_u16(vget_high_u16(a), vget_high_u16(R)), vget_high_u16(O));
    return vcombine_u16(vshrn_n_u32(lo, 14), vshrn_n_u32(hi, 14));
}

// The final magnitudes m of row r: offsets updated, levels stored with the
// signs of c; returns the row's zero flags as bytes.
inline uint8x8_t finish_row(int16x8_t c, uint16x8_t a, uint16x8_t m, const uint16_t *q, const uint16_t *recip,
                            uint16_t *adapt, int16_t *blk) {
    const uint16x8_t none = vceqq_u16(m, vdupq_n_u16(0));
    if (adapt) {
        // err = |c| - m q; d = (|err| recip) >> 11 = (32 |err| recip) >> 16.
        const int16x8_t err = vreinterpretq_s16_u16(vmlsq_u16(a, m, vld1q_u16(q)));
        const int16x8_t d = vqdmulhq_s16(vshlq_n_s16(vabsq_s16(err), 4), vreinterpretq_s16_u16(vld1q_u16(recip)));
        const int16x8_t neg = vshrq_n_s16(err, 15);
        const uint16x8_t O = vld1q_u16(adapt);
        int16x8_t o = vaddq_s16(vreinterpretq_s16_u16(O), vsubq_s16(veorq_s16(d, neg), neg));
        o = vminq_s16(vmaxq_s16(o, vdupq_n_s16(0)), vdupq_n_s16(8192));
        vst1q_u16(adapt, vbslq_u16(none, O, vreinterpretq_u16_s16(o)));
    }
    const int16x8_t sc = vshrq_n_s16(c, 15);
    vst1q_s16(blk, vsubq_s16(veorq_s16(vreinterpretq_s16_u16(m), sc), sc));
    return vmovn_u16(none);
}

}  // namespace

uint64_t kivoe_fdct_quant_kept_samples_neon(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                            const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                            int32_t suppress) {
    // The samples widened, their sum S giving the DC coefficient's
    // brightness: F = (S - 8188) >> 3, so (F + 1024) >> 3 is (S + 4) >> 6.
    uint16x8_t sum = vdupq_n_u16(0);
    for (int r = 0; r < 8; ++r) {
        const uint16x8_t v = vmovl_u8(vld1_u8(src + static_cast<ptrdiff_t>(r) * stride));
        sum = vaddq_u16(sum, v);
        vst1q_s16(blk + 8 * r, vreinterpretq_s16_u16(v));
    }
    const uint8_t *row = nullptr;
    if (suppress) {
        const uint64x2_t s2 = vpaddlq_u32(vpaddlq_u16(sum));
        const int32_t S = static_cast<int32_t>(vgetq_lane_u64(s2, 0) + vgetq_lane_u64(s2, 1));
        const int k = tbl_suppr_lum[(S + 4) >> 6];
        if (k) row = kivo_tbl_suppr_thr + 64 * (k - 1);
    }
    kivoe_fdct8_neon(blk);
    uint8x8_t zero_flags[8];
    if (!row) {
        // Nothing to suppress: one pass.
        for (int r = 0; r < 8; ++r) {
            const int16x8_t c = vld1q_s16(blk + 8 * r);
            const uint16x8_t a = vreinterpretq_u16_s16(vabsq_s16(c));
            const uint16x8_t n = magnitudes(a, recip + 8 * r, half + 8 * r, adapt ? adapt + 8 * r : nullptr);
            zero_flags[r] = finish_row(c, a, n, q + 8 * r, recip + 8 * r, adapt ? adapt + 8 * r : nullptr, blk + 8 * r);
        }
    } else {
        // The magnitudes first, kept in place of the coefficients' signs
        // being needed again: the AC ones, each counted up to 8, decide
        // whether the block is suppressed.
        alignas(16) uint16_t mag[64];
        uint16x8_t acc = vdupq_n_u16(0);
        const uint16x8_t eight = vdupq_n_u16(8);
        for (int r = 0; r < 8; ++r) {
            const uint16x8_t a = vreinterpretq_u16_s16(vabsq_s16(vld1q_s16(blk + 8 * r)));
            const uint16x8_t n = magnitudes(a, recip + 8 * r, half + 8 * r, adapt ? adapt + 8 * r : nullptr);
            vst1q_u16(mag + 8 * r, n);
            acc = vaddq_u16(acc, vminq_u16(n, eight));
        }
        const uint64x2_t t = vpaddlq_u32(vpaddlq_u16(acc));
        const uint32_t total = static_cast<uint32_t>(vgetq_lane_u64(t, 0) + vgetq_lane_u64(t, 1));
        const bool busy = total - (mag[0] < 8 ? mag[0] : 8) > 7;
        for (int r = 0; r < 8; ++r) {
            const int16x8_t c = vld1q_s16(blk + 8 * r);
            const uint16x8_t a = vreinterpretq_u16_s16(vabsq_s16(c));
            uint16x8_t m = vld1q_u16(mag + 8 * r);
            if (busy) {
                const uint16x8_t Q = vld1q_u16(q + 8 * r), R = vld1q_u16(recip + 8 * r);
                const uint16x8_t Z = vqsubq_u16(vaddq_u16(a, Q), vmovl_u8(vld1_u8(row + 8 * r)));
                const uint16x8_t m0 = mul_q14(Z, R);
                const uint16x8_t rem = vmlsq_u16(Z, m0, Q);
                m = vminq_u16(m, vsubq_u16(m0, vcgeq_u16(rem, Q)));  // + 1 where rem >= q
            }
            zero_flags[r] = finish_row(c, a, m, q + 8 * r, recip + 8 * r, adapt ? adapt + 8 * r : nullptr, blk + 8 * r);
        }
    }
    // The zero flags in zig-zag order, rows 0-3 by vtbl, rows 4-7 by vtbx
    // on the indices minus 32; one bit a flag, then pairwise sums.
    const uint8x8x4_t top = {{zero_flags[0], zero_flags[1], zero_flags[2], zero_flags[3]}};
    const uint8x8x4_t bottom = {{zero_flags[4], zero_flags[5], zero_flags[6], zero_flags[7]}};
    const uint8x8_t weight = vld1_u8(kZig.weight);
    uint8x8_t bytes[8];
    for (int z = 0; z < 8; ++z) {
        const uint8x8_t f = vtbx4_u8(vtbl4_u8(top, vld1_u8(kZig.lo + 8 * z)), bottom, vld1_u8(kZig.hi + 8 * z));
        bytes[z] = vand_u8(f, weight);
    }
    uint8x8_t p[4];
    for (int z = 0; z < 4; ++z) p[z] = vpadd_u8(bytes[2 * z], bytes[2 * z + 1]);
    const uint8x8_t packed = vpadd_u8(vpadd_u8(p[0], p[1]), vpadd_u8(p[2], p[3]));
    const uint64_t zeros = vget_lane_u64(vreinterpret_u64_u8(packed), 0);
    return ~zeros & ~uint64_t(1);
}
