// NEON quantizers, bit-exact to the plain ones: the rounding one in
// assembly, sixteen coefficients per step, the adaptive one eight per step.
#include <arm_neon.h>

#include "encoder/enc_simd.h"

// Sixteen coefficients: |c| + offset in 16 bits (at most 32768 + 32767),
// times recip exact in 32 bits and below 2^31 (recip at most 32768), so
// vqshrn.s32 gives ((a + o) r) >> 14 saturated to 32767. Levels of
// coefficients at or below zero are negated as (n ^ m) - m with m = -1; q3
// counts the levels equal to zero, per lane.
#define KIVO_QUANT16                                                                                                \
    "vld1.16 {d16-d19}, [%[b]]\n\t" "vld1.16 {d20-d23}, [%[r]]!\n\t" "vld1.16 {d24-d27}, [%[o]]!\n\t"        \
    "vabs.s16 q14, q8\n\t" "vabs.s16 q15, q9\n\t" "vadd.i16 q14, q14, q12\n\t" "vadd.i16 q15, q15, q13\n\t" \
    "vmull.u16 q0, d28, d20\n\t" "vmull.u16 q1, d29, d21\n\t" "vmull.u16 q2, d30, d22\n\t"                   \
    "vqshrn.s32 d28, q0, #14\n\t" "vmull.u16 q0, d31, d23\n\t" "vqshrn.s32 d29, q1, #14\n\t"                 \
    "vqshrn.s32 d30, q2, #14\n\t" "vqshrn.s32 d31, q0, #14\n\t"                                                \
    "vcle.s16 q8, q8, #0\n\t" "vcle.s16 q9, q9, #0\n\t" "vceq.i16 q10, q14, #0\n\t"                          \
    "vceq.i16 q11, q15, #0\n\t" "veor q14, q14, q8\n\t" "veor q15, q15, q9\n\t"                              \
    "vsub.i16 q14, q14, q8\n\t" "vsub.i16 q15, q15, q9\n\t" "vst1.16 {d28-d31}, [%[b]]!\n\t"                \
    "vsub.i16 q3, q3, q10\n\t" "vsub.i16 q3, q3, q11\n\t"

int32_t kivoe_quant_neon(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    int32_t zeros;
    asm volatile("vmov.i16 q3, #0\n\t" KIVO_QUANT16 KIVO_QUANT16 KIVO_QUANT16 KIVO_QUANT16
                 "vadd.i16 d6, d6, d7\n\t" "vpaddl.u16 d6, d6\n\t" "vpadd.i32 d6, d6, d6\n\t"
                 "vmov.32 %[z], d6[0]\n\t"
                 : [z] "=r"(zeros), [b] "+r"(blk), [r] "+r"(recip), [o] "+r"(offset)
                 :
                 : "memory", "d0", "d1", "d2", "d3", "d4", "d5", "d6", "d7", "d16", "d17", "d18", "d19", "d20", "d21",
                   "d22", "d23", "d24", "d25", "d26", "d27", "d28", "d29", "d30", "d31");
    return 64 - zeros;
}

#undef KIVO_QUANT16

void kivoe_quant_rdoq_neon(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    for (int i = 0; i < 64; i += 8) {
        const int16x8_t c = vld1q_s16(blk + i);
        const uint16x8_t r = vld1q_u16(recip + i);
        const uint16x8_t o = vld1q_u16(offset + i);
        const uint16x8_t a = vreinterpretq_u16_s16(vabsq_s16(c));
        // (a * r + o) >> 14, keeping the low 16 bits.
        const uint32x4_t lo = vaddw_u16(vmull_u16(vget_low_u16(a), vget_low_u16(r)), vget_low_u16(o));
        const uint32x4_t hi = vaddw_u16(vmull_u16(vget_high_u16(a), vget_high_u16(r)), vget_high_u16(o));
        const uint16x8_t n = vcombine_u16(vmovn_u32(vshrq_n_u32(lo, 14)), vmovn_u32(vshrq_n_u32(hi, 14)));
        const int16x8_t ns = vreinterpretq_s16_u16(n);
        const uint16x8_t pos = vcgtq_s16(c, vdupq_n_s16(0));
        vst1q_s16(blk + i, vbslq_s16(pos, ns, vnegq_s16(ns)));
    }
}
