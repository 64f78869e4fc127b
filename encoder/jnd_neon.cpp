// NEON JND filter, two output rows per step, bit-exact to the plain one.
#include <arm_neon.h>

#include "encoder/enc_simd.h"

namespace {

// Per byte: how many of the eight steps t are at or below c.
inline uint8x16_t steps_at_or_below(uint8x16_t c, const uint8_t (&t)[8]) {
    uint8x16_t n = vdupq_n_u8(0);
    for (uint8_t s : t) n = vsubq_u8(n, vcgeq_u8(c, vdupq_n_u8(s)));
    return n;
}

inline uint8x16_t rows(const uint8_t *p, int32_t stride, int y) {
    return vcombine_u8(vld1_u8(p + static_cast<ptrdiff_t>(y) * stride), vld1_u8(p + static_cast<ptrdiff_t>(y + 1) * stride));
}

}  // namespace

void kivoe_jndfilt8x8_neon(const uint8_t *src, int32_t stride, int16_t *blk) {
    static constexpr uint8_t kUp[8] = {11, 30, 55, 84, 118, 155, 195, 239};
    static constexpr uint8_t kDown[8] = {12, 32, 58, 88, 123, 161, 202, 247};
    for (int y = 0; y < 8; y += 2) {
        const uint8x16_t c = rows(src, stride, y);
        // The band [c - d(c), min(255, c + a(c))] that neighbours are held to.
        const uint8x16_t hi = vqaddq_u8(c, steps_at_or_below(c, kUp));
        const uint8x16_t lo = vqsubq_u8(c, steps_at_or_below(c, kDown));
        uint8x16_t n[4];
        const int dy[4] = {-2, -1, 1, 2};
        for (int k = 0; k < 4; ++k) n[k] = vminq_u8(vmaxq_u8(rows(src, stride, y + dy[k]), lo), hi);
        for (int h = 0; h < 2; ++h) {
            auto half = [h](uint8x16_t v) { return h ? vget_high_u8(v) : vget_low_u8(v); };
            uint16x8_t s = vaddl_u8(half(n[0]), half(n[3]));
            s = vaddq_u16(s, vshlq_n_u16(vaddl_u8(half(n[1]), half(n[2])), 2));
            s = vmlal_u8(s, half(c), vdup_n_u8(6));
            vst1q_s16(blk + 8 * (y + h), vreinterpretq_s16_u16(vrshrq_n_u16(s, 4)));
        }
    }
}
