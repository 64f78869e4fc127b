// ARMv7 NEON forward DCT, bit-exact to the plain one for 8-bit samples.
//
// The row pass works on all eight rows at once in 16-bit lanes, on the
// block transposed in registers: every value before its rotations fits 16
// bits. Its 32-bit outputs go through a 256-byte buffer, written with vst4
// so that reading it back line by line gives the column pass its inputs
// already transposed: four columns at a time, one per 32-bit lane.
//
// The code is in assembly on fixed registers: with intrinsics the compiler
// spilled the passes to the stack. The arithmetic, pass by pass:
//  - the level shift only moves the DC sum, by 8 * 128;
//  - (724 x + 512) >> 10 is vqrdmulh by 724 << 5 (16-bit lanes) or by
//    724 << 21 (32-bit lanes): the same floor of a doubled product plus
//    half the divisor, exact while the product fits;
//  - (p + 2^20) >> 21 is (p >> 5) rounded >> 16, and vrshrn keeps the low
//    16 bits as the plain kernel does. No sum in either pass wraps.
#include <arm_neon.h>

#include "encoder/enc_simd.h"

namespace {

// 16-bit scalars d4 d5 (row pass), 32-bit scalars d4-d7 (column pass).
alignas(16) const int16_t kRow[8] = {724 << 5, 710, 141, 669, 277, 602, 402, 0};
alignas(16) const int32_t kCol[8] = {724 << 21, 669, 277, 710, 141, 602, 402, 0};

}  // namespace

// Butterflies of one pass on lines q8-q15 (lane type T), leaving
// a q0, b q15, e0 + e1 q14, e0 - e1 q12 and, for the rotation by d4[0],
// (x1 - x6) - (x2 - x5) in q1 and (x1 - x6) + (x2 - x5) in q9; KIVO_ODD then
// leaves g q10, h q9, g2 q8, h2 q11.
#define KIVO_BUTTERFLIES(T)                                                                                         \
    "vadd." T " q0, q8, q15\n\t" "vsub." T " q8, q8, q15\n\t" "vadd." T " q15, q9, q14\n\t"                       \
    "vsub." T " q9, q9, q14\n\t" "vadd." T " q14, q10, q13\n\t" "vsub." T " q10, q10, q13\n\t"                   \
    "vadd." T " q13, q11, q12\n\t" "vsub." T " q11, q11, q12\n\t" "vadd." T " q12, q0, q13\n\t"                  \
    "vsub." T " q0, q0, q13\n\t" "vadd." T " q13, q15, q14\n\t" "vsub." T " q15, q15, q14\n\t"                   \
    "vadd." T " q14, q12, q13\n\t" "vsub." T " q12, q12, q13\n\t" "vsub." T " q1, q9, q10\n\t"                   \
    "vadd." T " q9, q9, q10\n\t"
#define KIVO_ODD(T)                                                                                                 \
    "vadd." T " q10, q8, q9\n\t" "vsub." T " q8, q8, q9\n\t" "vadd." T " q9, q11, q1\n\t"                          \
    "vsub." T " q11, q11, q1\n\t"
// Row pass outputs 0-3 (then 4-7) of four rows, from the d halves given,
// stored interleaved: buf gets output u of row r at 4 r + u % 4.
#define KIVO_ROW_OUT03(A, B, DC, G, H, G2, H2)                                                                      \
    "vshll.s16 q4, " DC ", #9\n\t"                                                                                  \
    "vmull.s16 q5, " G ", d4[1]\n\t" "vmlal.s16 q5, " H ", d4[2]\n\t"   /* 710 g + 141 h */                       \
    "vmull.s16 q6, " A ", d4[3]\n\t" "vmlal.s16 q6, " B ", d5[0]\n\t"   /* 669 a + 277 b */                       \
    "vmull.s16 q7, " G2 ", d5[1]\n\t" "vmlsl.s16 q7, " H2 ", d5[2]\n\t" /* 602 g2 - 402 h2 */                     \
    "vst4.32 {d8, d10, d12, d14}, [%[w]]!\n\t" "vst4.32 {d9, d11, d13, d15}, [%[w]]!\n\t"
#define KIVO_ROW_OUT47(A, B, AC, G, H, G2, H2)                                                                      \
    "vshll.s16 q4, " AC ", #9\n\t"                                                                                  \
    "vmull.s16 q5, " H2 ", d5[1]\n\t" "vmlal.s16 q5, " G2 ", d5[2]\n\t" /* 602 h2 + 402 g2 */                     \
    "vmull.s16 q6, " A ", d5[0]\n\t" "vmlsl.s16 q6, " B ", d4[3]\n\t"   /* 277 a - 669 b */                       \
    "vmull.s16 q7, " G ", d4[2]\n\t" "vmlsl.s16 q7, " H ", d4[1]\n\t"   /* 141 g - 710 h */                       \
    "vst4.32 {d8, d10, d12, d14}, [%[w]]!\n\t" "vst4.32 {d9, d11, d13, d15}, [%[w]]!\n\t"
// Column pass over four columns: output rows 0-7, four values each. Rows
// 0-3 go to R0-R3 (halves of q4-q7, which keep the first four columns'
// rows while the last four are worked out), rows 4-7 are stored from d28-d31.
#define KIVO_COLUMNS(R0, R1, R2, R3)                                                                                \
    "vld1.32 {d16-d19}, [%[r]]!\n\t" "vld1.32 {d20-d23}, [%[r]]!\n\t"                                             \
    "vld1.32 {d24-d27}, [%[r]]!\n\t" "vld1.32 {d28-d31}, [%[r]]!\n\t"                                             \
    KIVO_BUTTERFLIES("i32") "vqrdmulh.s32 q1, q1, d4[0]\n\t" "vqrdmulh.s32 q9, q9, d4[0]\n\t" KIVO_ODD("i32")    \
    "vrshrn.i32 " R0 ", q14, #12\n\t" "vrshrn.i32 d28, q12, #12\n\t"                                            \
    "vmul.i32 q1, q10, d5[1]\n\t" "vmla.i32 q1, q9, d6[0]\n\t"    /* 1: 710 g + 141 h */                          \
    "vmul.i32 q13, q10, d6[0]\n\t" "vmls.i32 q13, q9, d5[1]\n\t"  /* 7: 141 g - 710 h */                          \
    "vmul.i32 q9, q0, d4[1]\n\t" "vmla.i32 q9, q15, d5[0]\n\t"    /* 2: 669 a + 277 b */                          \
    "vmul.i32 q10, q0, d5[0]\n\t" "vmls.i32 q10, q15, d4[1]\n\t"  /* 6: 277 a - 669 b */                          \
    "vmul.i32 q0, q8, d6[1]\n\t" "vmls.i32 q0, q11, d7[0]\n\t"    /* 3: 602 g2 - 402 h2 */                        \
    "vmul.i32 q15, q11, d6[1]\n\t" "vmla.i32 q15, q8, d7[0]\n\t"  /* 5: 602 h2 + 402 g2 */                        \
    "vshr.s32 q1, q1, #5\n\t" "vshr.s32 q13, q13, #5\n\t" "vshr.s32 q9, q9, #5\n\t"                             \
    "vshr.s32 q10, q10, #5\n\t" "vshr.s32 q0, q0, #5\n\t" "vshr.s32 q15, q15, #5\n\t"                           \
    "vrshrn.i32 " R1 ", q1, #16\n\t" "vrshrn.i32 " R2 ", q9, #16\n\t" "vrshrn.i32 " R3 ", q0, #16\n\t"          \
    "vrshrn.i32 d29, q15, #16\n\t" "vrshrn.i32 d30, q10, #16\n\t" "vrshrn.i32 d31, q13, #16\n\t"                \
    "vst1.16 {d28}, [%[o]], %[st]\n\t" "vst1.16 {d29}, [%[o]], %[st]\n\t" "vst1.16 {d30}, [%[o]], %[st]\n\t"   \
    "vst1.16 {d31}, [%[o]], %[st]\n\t"

void kivoe_fdct8_neon(int16_t *blk) {
    int32_t buf[64];  // buf[32 (u / 4) + 4 r + u % 4]: row pass output u of row r
    const int16_t *in = blk;
    int16_t *out = blk, *o = blk + 32;
    int32_t *w = buf, *r = buf;
    asm volatile(
        // The block transposed into q8-q15, q8 + c holding column c (lane r
        // row r): vld4 takes columns c and c + 4 of four rows, vuzp splits them.
        "vld4.16 {d16, d18, d20, d22}, [%[in]]!\n\t" "vld4.16 {d17, d19, d21, d23}, [%[in]]!\n\t"
        "vld4.16 {d24, d26, d28, d30}, [%[in]]!\n\t" "vld4.16 {d25, d27, d29, d31}, [%[in]]\n\t"
        "vuzp.16 q8, q12\n\t" "vuzp.16 q9, q13\n\t" "vuzp.16 q10, q14\n\t" "vuzp.16 q11, q15\n\t"
        "vld1.16 {d4-d5}, [%[krow]]\n\t"
        KIVO_BUTTERFLIES("i16")
        "vmov.i16 q13, #1024\n\t" "vsub.i16 q14, q14, q13\n\t"  // the level shift
        "vqrdmulh.s16 q1, q1, d4[0]\n\t" "vqrdmulh.s16 q9, q9, d4[0]\n\t"
        KIVO_ODD("i16")
        KIVO_ROW_OUT03("d0", "d30", "d28", "d20", "d18", "d16", "d22")
        KIVO_ROW_OUT03("d1", "d31", "d29", "d21", "d19", "d17", "d23")
        KIVO_ROW_OUT47("d0", "d30", "d24", "d20", "d18", "d16", "d22")
        KIVO_ROW_OUT47("d1", "d31", "d25", "d21", "d19", "d17", "d23")
        "vld1.32 {d4-d7}, [%[kcol]]\n\t"
        KIVO_COLUMNS("d8", "d10", "d12", "d14")
        "sub %[o], %[o], #56\n\t"  // row 4, column 4
        KIVO_COLUMNS("d9", "d11", "d13", "d15")
        "vst1.16 {d8-d11}, [%[out]]!\n\t" "vst1.16 {d12-d15}, [%[out]]\n\t"
        : [in] "+r"(in), [out] "+r"(out), [o] "+r"(o), [w] "+r"(w), [r] "+r"(r)
        : [krow] "r"(kRow), [kcol] "r"(kCol), [st] "r"(16)
        : "memory", "d0", "d1", "d2", "d3", "d4", "d5", "d6", "d7", "d8", "d9", "d10", "d11", "d12", "d13", "d14",
          "d15", "d16", "d17", "d18", "d19", "d20", "d21", "d22", "d23", "d24", "d25", "d26", "d27", "d28", "d29",
          "d30", "d31");
}

#undef KIVO_BUTTERFLIES
#undef KIVO_ODD
#undef KIVO_ROW_OUT03
#undef KIVO_ROW_OUT47
#undef KIVO_COLUMNS
