// NEON kernels of the perceptual selection's statistics pass, bit-exact to
// the plain ones.
#include <arm_neon.h>

#include "encoder/enc_simd.h"

void kivoe_box2_neon(const uint8_t *src, int32_t stride, int16_t *blk) {
    for (int j = 0; j < 8; ++j, src += 2 * static_cast<ptrdiff_t>(stride)) {
        const uint16x8_t s = vpadalq_u8(vpaddlq_u8(vld1q_u8(src)), vld1q_u8(src + stride));
        vst1q_s16(blk + 8 * j, vreinterpretq_s16_u16(vshrq_n_u16(s, 2)));
    }
}

void kivoe_abs_acc_neon(const int16_t *blk, uint32_t *acc) {
    for (int i = 0; i < 64; i += 8) {
        const uint16x8_t a = vreinterpretq_u16_s16(vabsq_s16(vld1q_s16(blk + i)));  // 32768 for -32768
        vst1q_u32(acc + i, vaddw_u16(vld1q_u32(acc + i), vget_low_u16(a)));
        vst1q_u32(acc + i + 4, vaddw_u16(vld1q_u32(acc + i + 4), vget_high_u16(a)));
    }
}
