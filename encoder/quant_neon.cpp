// ARMv7 NEON quantizers in assembly, bit-exact to the plain ones.

#include "encoder/enc_simd.h"

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

void kivoe_quant_rdoq_neon(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    asm volatile(KIVO_QUANT_RDOQ16 KIVO_QUANT_RDOQ16 KIVO_QUANT_RDOQ16 KIVO_QUANT_RDOQ16
                 : [b] "+r"(blk), [r] "+r"(recip), [o] "+r"(offset)
                 :
                 : KIVO_QUANT_CLOBBERS);
}

#undef KIVO_LOAD16
#undef KIVO_SIGN_STORE16
#undef KIVO_QUANT16
#undef KIVO_QUANT_RDOQ16
#undef KIVO_QUANT_CLOBBERS
