// NEON quantizers, eight coefficients per step, bit-exact to the plain ones.
#include <arm_neon.h>

#include "encoder/enc_simd.h"

int32_t kivoe_quant_neon(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    uint16x8_t nonzero = vdupq_n_u16(0);
    for (int i = 0; i < 64; i += 8) {
        const int16x8_t c = vld1q_s16(blk + i);
        const uint16x8_t r = vld1q_u16(recip + i);
        const uint16x8_t o = vld1q_u16(offset + i);
        // |c| as unsigned (32768 for -32768) plus the offset, in 32 bits.
        const uint16x8_t a = vreinterpretq_u16_s16(vabsq_s16(c));
        const uint32x4_t lo = vmull_u16(vget_low_u16(a), vget_low_u16(r));
        const uint32x4_t hi = vmull_u16(vget_high_u16(a), vget_high_u16(r));
        const uint32x4_t olo = vmull_u16(vget_low_u16(o), vget_low_u16(r));
        const uint32x4_t ohi = vmull_u16(vget_high_u16(o), vget_high_u16(r));
        // ((a + o) * r) >> 14, saturated to 32767.
        const uint16x4_t nlo = vqmovn_u32(vshrq_n_u32(vaddq_u32(lo, olo), 14));
        const uint16x4_t nhi = vqmovn_u32(vshrq_n_u32(vaddq_u32(hi, ohi), 14));
        const uint16x8_t n = vminq_u16(vcombine_u16(nlo, nhi), vdupq_n_u16(32767));
        const int16x8_t ns = vreinterpretq_s16_u16(n);
        const uint16x8_t pos = vcgtq_s16(c, vdupq_n_s16(0));
        const int16x8_t level = vbslq_s16(pos, ns, vnegq_s16(ns));
        vst1q_s16(blk + i, level);
        nonzero = vaddq_u16(nonzero, vandq_u16(vtstq_s16(level, level), vdupq_n_u16(1)));
    }
    uint16x4_t s = vadd_u16(vget_low_u16(nonzero), vget_high_u16(nonzero));
    s = vpadd_u16(s, s);
    s = vpadd_u16(s, s);
    return vget_lane_u16(s, 0);
}

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
