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

// A chunk of blocks at a time, their magnitudes summed in 16 bits (at most
// 1024 a block, so 32 blocks fit) by absolute differences from zero, then
// added to the 32-bit sums.
void kivoe_box2_strip_neon(const uint8_t *src, int32_t stride, int32_t n, uint32_t *acc) {
    constexpr int32_t kChunk = 32;
    alignas(16) int16_t blk[64];
    alignas(16) uint16_t sum[64];
    const int16x8_t zero = vdupq_n_s16(0);
    for (int32_t b0 = 0; b0 < n; b0 += kChunk) {
        const int32_t nb = n - b0 < kChunk ? n - b0 : kChunk;
        for (int i = 0; i < 64; i += 8) vst1q_u16(sum + i, vdupq_n_u16(0));
        uint32_t mean = 0;
        for (int32_t k = 0; k < nb; ++k) {
            kivoe_box2_neon(src + 16 * (b0 + k), stride, blk);
            kivoe_fdct8_neon(blk);
            mean += static_cast<uint32_t>((blk[0] + 1024) >> 3);
            for (int i = 0; i < 64; i += 8)
                vst1q_u16(sum + i, vreinterpretq_u16_s16(vabaq_s16(vreinterpretq_s16_u16(vld1q_u16(sum + i)),
                                                                   vld1q_s16(blk + i), zero)));
        }
        for (int i = 0; i < 64; i += 8) {
            const uint16x8_t s = vld1q_u16(sum + i);
            vst1q_u32(acc + i, vaddw_u16(vld1q_u32(acc + i), vget_low_u16(s)));
            vst1q_u32(acc + i + 4, vaddw_u16(vld1q_u32(acc + i + 4), vget_high_u16(s)));
        }
        acc[0] += mean - sum[0];  // the DC lane adds the mean level instead
    }
}
