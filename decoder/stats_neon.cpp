// NEON coefficient magnitudes, equal to kivod_add_mag.
#include <arm_neon.h>

#include "decoder/kivod_int.h"

void kivod_add_mag_neon(const int16_t *blk, uint32_t *mag) {
    for (int i = 0; i < 64; i += 8) {
        // vabs leaves -32768 as 0x8000, which is 32768 read unsigned.
        const uint16x8_t a = vreinterpretq_u16_s16(vabsq_s16(vld1q_s16(blk + i)));
        vst1q_u32(mag + i, vaddw_u16(vld1q_u32(mag + i), vget_low_u16(a)));
        vst1q_u32(mag + i + 4, vaddw_u16(vld1q_u32(mag + i + 4), vget_high_u16(a)));
    }
}
