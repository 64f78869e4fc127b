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

// The fused kernels, from the coefficients of 8-bit samples (|c| at most
// 1024; with the tables' q of 1 to 255, recip = 16384 / q and offsets up to
// 8192 a level's magnitude n stays within 1024 and n q within |c| + q / 2,
// so that the products below fit 16 bits, and x r >> 14 for x below 2^13 is
// the doubling high half of 2 x and r). The suppression lowers n to
// M = (|c| + q - T) / q where that is below it, the quotient from the
// reciprocal with one correction.
namespace {

// The rows of the kept kernels, in assembly on fixed registers (the
// compiler's register allocation spilled them): c in q8, recip in q9, the
// offsets (adapted, or half) in q10, q in q11, |c| in q12, the magnitudes
// m in q13, their zero flags in q14; q2 holds 0 (or the magnitudes' sum),
// q3 8192. Each row's zero flags go, narrowed, to the d register F.
#define KIVO_IN_ADAPT                                                                                               \
    "vld1.16 {d16-d17}, [%[b]]\n\t" "vld1.16 {d18-d19}, [%[r]]!\n\t" "vld1.16 {d20-d21}, [%[o]]\n\t"          \
    "vld1.16 {d22-d23}, [%[q]]!\n\t" "vabs.s16 q12, q8\n\t"
// (|c| recip + offset) >> 14.
#define KIVO_MAG_ADAPT                                                                                              \
    "vmovl.u16 q0, d20\n\t" "vmovl.u16 q1, d21\n\t" "vmlal.u16 q0, d24, d18\n\t" "vmlal.u16 q1, d25, d19\n\t"  \
    "vshrn.i32 d26, q0, #14\n\t" "vshrn.i32 d27, q1, #14\n\t"
// ((|c| + half) recip) >> 14 as the doubling high half of 2 (|c| + half) and recip.
#define KIVO_MAG_HALF                                                                                               \
    "vadd.i16 q13, q12, q10\n\t" "vshl.i16 q13, q13, #1\n\t" "vqdmulh.s16 q13, q13, q9\n\t"
// m lowered to (|c| + q - T) / q where that is below it: the quotient m0
// from the reciprocal, plus one where the remainder reaches q.
#define KIVO_SUPPRESS                                                                                               \
    "vld1.8 {d0}, [%[t]]!\n\t" "vmovl.u8 q0, d0\n\t" "vadd.i16 q1, q12, q11\n\t" "vqsub.u16 q1, q1, q0\n\t"   \
    "vshl.i16 q0, q1, #1\n\t" "vqdmulh.s16 q0, q0, q9\n\t" "vmls.i16 q1, q0, q11\n\t"                          \
    "vcge.u16 q1, q1, q11\n\t" "vsub.i16 q0, q0, q1\n\t" "vmin.u16 q13, q13, q0\n\t"
// The levels m with the signs of c stored, the zero flags kept.
#define KIVO_SIGN(F)                                                                                                \
    "vshr.s16 q12, q8, #15\n\t" "veor q13, q13, q12\n\t" "vsub.i16 q13, q13, q12\n\t"                          \
    "vst1.16 {d26-d27}, [%[b]]!\n\t" "vmovn.i16 " F ", q14\n\t"
// Adaptive rounding: err = |c| - m q moves the offset of a non-zero level
// by sign(err) ((|err| recip) >> 11), as (32 |err| recip) >> 16, clamped
// to 0..8192; then the levels.
#define KIVO_FINISH_ADAPT(F)                                                                                        \
    "vceq.i16 q14, q13, #0\n\t" "vmls.i16 q12, q13, q11\n\t" "vabs.s16 q15, q12\n\t" "vshl.i16 q15, q15, #4\n\t" \
    "vqdmulh.s16 q15, q15, q9\n\t" "vshr.s16 q12, q12, #15\n\t" "vorr.i16 q12, #1\n\t"                          \
    "vmul.i16 q15, q15, q12\n\t" "vadd.i16 q15, q15, q10\n\t" "vmax.s16 q15, q15, q2\n\t"                      \
    "vmin.s16 q15, q15, q3\n\t" "vbit q15, q10, q14\n\t" "vst1.16 {d30-d31}, [%[o]]!\n\t" KIVO_SIGN(F)
#define KIVO_FINISH_HALF(F) "vceq.i16 q14, q13, #0\n\t" KIVO_SIGN(F)

// One row of each kind: straight, and the second pass of the suppression
// (with and without lowering the magnitudes).
#define KIVO_ROW_ADAPT(F) KIVO_IN_ADAPT KIVO_MAG_ADAPT KIVO_FINISH_ADAPT(F)
// Without adaptive rounding or suppression, two rows a step: c in q8 q9,
// recip in q10 q11, half in q12 q13, the magnitudes in q0 q1, their zero
// flags in q2 q3, to F0 and F1.
#define KIVO_ROWS_HALF(F0, F1)                                                                                      \
    "vld1.16 {d16-d19}, [%[b]]\n\t" "vld1.16 {d20-d23}, [%[r]]!\n\t" "vld1.16 {d24-d27}, [%[o]]!\n\t"         \
    "vabs.s16 q0, q8\n\t" "vabs.s16 q1, q9\n\t" "vadd.i16 q0, q0, q12\n\t" "vadd.i16 q1, q1, q13\n\t"          \
    "vshl.i16 q0, q0, #1\n\t" "vshl.i16 q1, q1, #1\n\t" "vqdmulh.s16 q0, q0, q10\n\t"                           \
    "vqdmulh.s16 q1, q1, q11\n\t" "vceq.i16 q2, q0, #0\n\t" "vceq.i16 q3, q1, #0\n\t"                          \
    "vshr.s16 q8, q8, #15\n\t" "vshr.s16 q9, q9, #15\n\t" "veor q0, q0, q8\n\t" "veor q1, q1, q9\n\t"          \
    "vsub.i16 q0, q0, q8\n\t" "vsub.i16 q1, q1, q9\n\t" "vst1.16 {d0-d3}, [%[b]]!\n\t"                         \
    "vmovn.i16 " F0 ", q2\n\t" "vmovn.i16 " F1 ", q3\n\t"
// The first pass two rows a step: c in q8 q9 (then |c|), recip in q10 q11,
// the offsets in q12 q13, the magnitudes to q14 q15.
#define KIVO_PASS1_ADAPT(R0, R1)                                                                                    \
    "vld1.16 {d16-d19}, [%[b]]!\n\t" "vld1.16 {d20-d23}, [%[r]]!\n\t" "vld1.16 {d24-d27}, [%[o]]!\n\t"        \
    "vabs.s16 q8, q8\n\t" "vabs.s16 q9, q9\n\t"                                                                  \
    "vmovl.u16 q0, d24\n\t" "vmovl.u16 q1, d25\n\t" "vmlal.u16 q0, d16, d20\n\t" "vmlal.u16 q1, d17, d21\n\t"  \
    "vshrn.i32 d28, q0, #14\n\t" "vshrn.i32 d29, q1, #14\n\t"                                                    \
    "vmovl.u16 q0, d26\n\t" "vmovl.u16 q1, d27\n\t" "vmlal.u16 q0, d18, d22\n\t" "vmlal.u16 q1, d19, d23\n\t"  \
    "vshrn.i32 d30, q0, #14\n\t" "vshrn.i32 d31, q1, #14\n\t" KIVO_PAIR_STORE(R0, R1)
#define KIVO_PASS1_HALF(R0, R1)                                                                                     \
    "vld1.16 {d16-d19}, [%[b]]!\n\t" "vld1.16 {d20-d23}, [%[r]]!\n\t" "vld1.16 {d24-d27}, [%[o]]!\n\t"        \
    "vabs.s16 q8, q8\n\t" "vabs.s16 q9, q9\n\t" "vadd.i16 q14, q8, q12\n\t" "vadd.i16 q15, q9, q13\n\t"        \
    "vshl.i16 q14, q14, #1\n\t" "vshl.i16 q15, q15, #1\n\t" "vqdmulh.s16 q14, q14, q10\n\t"                     \
    "vqdmulh.s16 q15, q15, q11\n\t" KIVO_PAIR_STORE(R0, R1)
// The pair's magnitudes stored and added up, and narrowed (saturating) to
// the bytes of the d registers R0 and R1 for the rows' maxima.
#define KIVO_PAIR_STORE(R0, R1)                                                                                     \
    "vst1.16 {d28-d31}, [%[m]]!\n\t" "vadd.i16 q2, q2, q14\n\t" "vadd.i16 q2, q2, q15\n\t"                   \
    "vqmovn.u16 " R0 ", q14\n\t" "vqmovn.u16 " R1 ", q15\n\t"
#define KIVO_IN_MAG                                                                                                 \
    "vld1.16 {d16-d17}, [%[b]]\n\t" "vld1.16 {d18-d19}, [%[r]]!\n\t" "vld1.16 {d22-d23}, [%[q]]!\n\t"         \
    "vld1.16 {d26-d27}, [%[m]]!\n\t" "vabs.s16 q12, q8\n\t"
#define KIVO_PASS2_ADAPT(F) KIVO_IN_MAG "vld1.16 {d20-d21}, [%[o]]\n\t" KIVO_FINISH_ADAPT(F)
#define KIVO_PASS2_ADAPT_SUPPRESS(F) KIVO_IN_MAG "vld1.16 {d20-d21}, [%[o]]\n\t" KIVO_SUPPRESS KIVO_FINISH_ADAPT(F)
#define KIVO_PASS2_HALF(F) KIVO_IN_MAG KIVO_FINISH_HALF(F)
#define KIVO_PASS2_HALF_SUPPRESS(F) KIVO_IN_MAG KIVO_SUPPRESS KIVO_FINISH_HALF(F)
#define KIVO_EIGHT(ROW) ROW("d8") ROW("d9") ROW("d10") ROW("d11") ROW("d12") ROW("d13") ROW("d14") ROW("d15")
#define KIVO_PASS1(PAIR) PAIR("d8", "d9") PAIR("d10", "d11") PAIR("d12", "d13") PAIR("d14", "d15")
// The rows' maxima of d8-d15 (one a register) to the bytes of d0, row 0
// first, and on to rlo (rows 0-3) and rhi (rows 4-7).
#define KIVO_ROW_MAXIMA                                                                                             \
    "vpmax.u8 d0, d8, d9\n\t" "vpmax.u8 d1, d10, d11\n\t" "vpmax.u8 d2, d12, d13\n\t" "vpmax.u8 d3, d14, d15\n\t" \
    "vpmax.u8 d0, d0, d1\n\t" "vpmax.u8 d1, d2, d3\n\t" "vpmax.u8 d0, d0, d1\n\t" "vmov %[rlo], %[rhi], d0\n\t"
// The second pass over the rows before the first of the trailing rows
// whose magnitudes are all 0 (rows, at least 1); those rows' levels are 0
// and their zero flags all set, and their offsets stay. q2 holds 0.
#define KIVO_UNTIL(K) "cmp %[rows], #" #K "\n\t" "bls .Lkept_zero" #K "_%=\n\t"
#define KIVO_ZERO_ROW(K, F) ".Lkept_zero" #K "_%=:\n\t" "vst1.16 {d4-d5}, [%[b]]!\n\t" "vmov.i8 " F ", #255\n\t"
#define KIVO_EIGHT_UNTIL(ROW)                                                                                       \
    ROW("d8") KIVO_UNTIL(1) ROW("d9") KIVO_UNTIL(2) ROW("d10") KIVO_UNTIL(3) ROW("d11") KIVO_UNTIL(4) ROW("d12")    \
    KIVO_UNTIL(5) ROW("d13") KIVO_UNTIL(6) ROW("d14") KIVO_UNTIL(7) ROW("d15") "b .Lkept_rows_%=\n\t"             \
    KIVO_ZERO_ROW(1, "d9") KIVO_ZERO_ROW(2, "d10") KIVO_ZERO_ROW(3, "d11") KIVO_ZERO_ROW(4, "d12")                   \
    KIVO_ZERO_ROW(5, "d13") KIVO_ZERO_ROW(6, "d14") KIVO_ZERO_ROW(7, "d15") ".Lkept_rows_%=:\n\t"
// The zero flags of d8-d15 in zig-zag order (rows 0-3 by vtbl, rows 4-7
// by vtbx on the indices minus 32), one bit a flag, into lo and hi.
#define KIVO_ZIGZAG                                                                                                 \
    "vld1.8 {d0-d3}, [%[z]]!\n\t" "vld1.8 {d4-d7}, [%[z]]!\n\t"                                                   \
    "vld1.8 {d16-d19}, [%[z]]!\n\t" "vld1.8 {d20-d23}, [%[z]]!\n\t"                                               \
    "vtbl.8 d24, {d8-d11}, d0\n\t" "vtbl.8 d25, {d8-d11}, d1\n\t" "vtbl.8 d26, {d8-d11}, d2\n\t"                 \
    "vtbl.8 d27, {d8-d11}, d3\n\t" "vtbl.8 d28, {d8-d11}, d4\n\t" "vtbl.8 d29, {d8-d11}, d5\n\t"                 \
    "vtbl.8 d30, {d8-d11}, d6\n\t" "vtbl.8 d31, {d8-d11}, d7\n\t" "vld1.8 {d0-d1}, [%[z]]\n\t"                   \
    "vtbx.8 d24, {d12-d15}, d16\n\t" "vtbx.8 d25, {d12-d15}, d17\n\t" "vtbx.8 d26, {d12-d15}, d18\n\t"           \
    "vtbx.8 d27, {d12-d15}, d19\n\t" "vtbx.8 d28, {d12-d15}, d20\n\t" "vtbx.8 d29, {d12-d15}, d21\n\t"           \
    "vtbx.8 d30, {d12-d15}, d22\n\t" "vtbx.8 d31, {d12-d15}, d23\n\t"                                             \
    "vand q12, q12, q0\n\t" "vand q13, q13, q0\n\t" "vand q14, q14, q0\n\t" "vand q15, q15, q0\n\t"              \
    "vpadd.i8 d24, d24, d25\n\t" "vpadd.i8 d25, d26, d27\n\t" "vpadd.i8 d26, d28, d29\n\t"                      \
    "vpadd.i8 d27, d30, d31\n\t" "vpadd.i8 d24, d24, d25\n\t" "vpadd.i8 d25, d26, d27\n\t"                      \
    "vpadd.i8 d24, d24, d25\n\t" "vmov %[lo], %[hi], d24\n\t"
#define KIVO_CONSTS "vmov.i16 q2, #0\n\t" "vmov.i16 q3, #8192\n\t"
#define KIVO_KEPT_OPERANDS KIVO_KEPT_OPERANDS_OF()
#define KIVO_KEPT_OPERANDS_OF(...)                                                                                  \
    : [lo] "=r"(lo), [hi] "=r"(hi), [b] "+r"(b), [r] "+r"(r), [o] "+r"(o), [q] "+r"(qq), [t] "+r"(t),            \
      [m] "+r"(mp), [z] "+r"(zig)                                                                                   \
    : __VA_ARGS__                                                                                                   \
    : "memory", "d0", "d1", "d2", "d3", "d4", "d5", "d6", "d7", "d8", "d9", "d10", "d11", "d12", "d13", "d14",     \
      "d15", "d16", "d17", "d18", "d19", "d20", "d21", "d22", "d23", "d24", "d25", "d26", "d27", "d28", "d29",    \
      "d30", "d31"

// kivoe_quant_kept of the transformed block at blk, the thresholds from its
// DC coefficient when suppress is not 0.
__attribute__((noinline)) uint64_t kept_block(int16_t *blk, const uint16_t *q, const uint16_t *recip,
                                              const uint16_t *half, uint16_t *adapt, int32_t suppress) {
    const uint8_t *t = suppress ? kivoe_jnd_threshold_row(blk[0]) : nullptr;
    int16_t *b = blk;
    const uint16_t *r = recip, *qq = q;
    uint16_t *o = adapt ? adapt : const_cast<uint16_t *>(half);  // written only when adapt
    const uint8_t *zig = kZig.lo;
    alignas(16) uint16_t mag[64];
    uint16_t *mp = mag;
    uint32_t lo, hi;
    if (!t) {
        if (adapt) asm volatile(KIVO_CONSTS KIVO_EIGHT(KIVO_ROW_ADAPT) KIVO_ZIGZAG KIVO_KEPT_OPERANDS);
        else asm volatile(KIVO_ROWS_HALF("d8", "d9") KIVO_ROWS_HALF("d10", "d11") KIVO_ROWS_HALF("d12", "d13")
                          KIVO_ROWS_HALF("d14", "d15") KIVO_ZIGZAG KIVO_KEPT_OPERANDS);
        return ~(static_cast<uint64_t>(hi) << 32 | lo) & ~uint64_t(1);
    }
    // The magnitudes first: whether the AC ones add up to more than 7
    // decides whether the block is suppressed (their sum per lane stays
    // within 8 x 1151).
    uint32_t total, rlo, rhi;
    {
        int16_t *b1 = b;
        const uint16_t *r1 = r, *o1 = o;
        uint16_t *m1 = mag;
#define KIVO_PASS1_OPERANDS                                                                                         \
    : [tot] "=r"(total), [rlo] "=r"(rlo), [rhi] "=r"(rhi), [b] "+r"(b1), [r] "+r"(r1), [o] "+r"(o1), [m] "+r"(m1) \
    :                                                                                                               \
    : "memory", "d0", "d1", "d2", "d3", "d4", "d5", "d6", "d7", "d8", "d9", "d10", "d11", "d12", "d13", "d14",     \
      "d15", "d16", "d17", "d18", "d19", "d20", "d21", "d22", "d23", "d24", "d25", "d26", "d27", "d28", "d29",    \
      "d30", "d31"
#define KIVO_SUM "vpaddl.u16 q2, q2\n\t" "vpaddl.u32 q2, q2\n\t" "vadd.i64 d4, d4, d5\n\t" "vmov.32 %[tot], d4[0]\n\t"
        if (adapt) asm volatile("vmov.i16 q2, #0\n\t" KIVO_PASS1(KIVO_PASS1_ADAPT) KIVO_ROW_MAXIMA KIVO_SUM KIVO_PASS1_OPERANDS);
        else asm volatile("vmov.i16 q2, #0\n\t" KIVO_PASS1(KIVO_PASS1_HALF) KIVO_ROW_MAXIMA KIVO_SUM KIVO_PASS1_OPERANDS);
#undef KIVO_PASS1_OPERANDS
#undef KIVO_SUM
    }
    const bool busy = total - mag[0] > 7;
    // Rows up to the last one with a magnitude that is not 0 (row 0 always).
    const uint32_t rows = rhi ? 8 - (__builtin_clz(rhi) >> 3) : rlo ? 4 - (__builtin_clz(rlo) >> 3) : 1;
#define KIVO_ROWS_OPERANDS KIVO_KEPT_OPERANDS_OF([rows] "r"(rows))
    if (adapt) {
        if (busy) asm volatile(KIVO_CONSTS KIVO_EIGHT_UNTIL(KIVO_PASS2_ADAPT_SUPPRESS) KIVO_ZIGZAG KIVO_ROWS_OPERANDS);
        else asm volatile(KIVO_CONSTS KIVO_EIGHT_UNTIL(KIVO_PASS2_ADAPT) KIVO_ZIGZAG KIVO_ROWS_OPERANDS);
    } else {
        if (busy) asm volatile("vmov.i16 q2, #0\n\t" KIVO_EIGHT_UNTIL(KIVO_PASS2_HALF_SUPPRESS) KIVO_ZIGZAG KIVO_ROWS_OPERANDS);
        else asm volatile("vmov.i16 q2, #0\n\t" KIVO_EIGHT_UNTIL(KIVO_PASS2_HALF) KIVO_ZIGZAG KIVO_ROWS_OPERANDS);
    }
#undef KIVO_ROWS_OPERANDS
    return ~(static_cast<uint64_t>(hi) << 32 | lo) & ~uint64_t(1);
}

#undef KIVO_IN_ADAPT
#undef KIVO_MAG_ADAPT
#undef KIVO_MAG_HALF
#undef KIVO_SUPPRESS
#undef KIVO_SIGN
#undef KIVO_FINISH_ADAPT
#undef KIVO_FINISH_HALF
#undef KIVO_ROW_ADAPT
#undef KIVO_ROWS_HALF
#undef KIVO_PASS1_ADAPT
#undef KIVO_PASS1_HALF
#undef KIVO_PAIR_STORE
#undef KIVO_IN_MAG
#undef KIVO_PASS2_ADAPT
#undef KIVO_PASS2_ADAPT_SUPPRESS
#undef KIVO_PASS2_HALF
#undef KIVO_PASS2_HALF_SUPPRESS
#undef KIVO_EIGHT
#undef KIVO_PASS1
#undef KIVO_ROW_MAXIMA
#undef KIVO_UNTIL
#undef KIVO_ZERO_ROW
#undef KIVO_EIGHT_UNTIL
#undef KIVO_ZIGZAG
#undef KIVO_CONSTS
#undef KIVO_KEPT_OPERANDS
#undef KIVO_KEPT_OPERANDS_OF

// The samples at src widened into blk.
inline void widen(const uint8_t *src, int32_t stride, int16_t *blk) {
    for (int r = 0; r < 8; ++r, src += stride) vst1q_s16(blk + 8 * r, vreinterpretq_s16_u16(vmovl_u8(vld1_u8(src))));
}

}  // namespace

// The plain loop's samples to levels: the block loop then takes a 4:2:0
// MCU's blocks without its tests block by block.
uint64_t kivoe_fdct_quant_samples_neon(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *recip,
                                       const uint16_t *offset) {
    widen(src, stride, blk);
    return kivoe_fdct_quant_mask_neon(blk, recip, offset);
}

namespace {

// A block from its samples, widened or filtered, to its levels and mask.
template <bool kFilter>
__attribute__((always_inline)) inline uint64_t kept_samples(const uint8_t *src, int32_t stride, int16_t *blk,
                                                           const uint16_t *q, const uint16_t *recip,
                                                           const uint16_t *half, uint16_t *adapt, int32_t suppress) {
    if (kFilter) kivoe_jndfilt8x8_neon(src, stride, blk);
    else widen(src, stride, blk);
    kivoe_fdct8_neon(blk);
    return kept_block(blk, q, recip, half, adapt, suppress);
}

// The groups take their n blocks one after the other: the offsets of
// adaptive rounding chain from each block to the next.
template <bool kFilter, int kN>
__attribute__((always_inline)) inline void kept_group(const uint8_t *const src[], int32_t stride, int16_t *const blk[], const uint16_t *q,
                const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress, uint64_t *mask) {
    for (int i = 0; i < kN; ++i) mask[i] = kept_samples<kFilter>(src[i], stride, blk[i], q, recip, half, adapt, suppress);
}

}  // namespace

uint64_t kivoe_fdct_quant_kept_samples_neon(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                            const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                            int32_t suppress) {
    return kept_samples<false>(src, stride, blk, q, recip, half, adapt, suppress);
}

uint64_t kivoe_jnd_fdct_quant_kept_neon(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                        const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                        int32_t suppress) {
    return kept_samples<true>(src, stride, blk, q, recip, half, adapt, suppress);
}

void kivoe_fdct_quant_kept2_neon(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2],
                                 const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                 int32_t suppress, uint64_t *mask) {
    kept_group<false, 2>(src, stride, blk, q, recip, half, adapt, suppress, mask);
}

void kivoe_jnd_fdct_quant_kept4_neon(const uint8_t *const src[4], int32_t stride, int16_t *const blk[4],
                                     const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                     int32_t suppress, uint64_t *mask) {
    kept_group<true, 4>(src, stride, blk, q, recip, half, adapt, suppress, mask);
}
