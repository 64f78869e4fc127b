// ARMv7 NEON row kernels of the resizer, bit-exact to the plain ones: every
// sum fits 16-bit lanes, so the lanes compute the plain kernels' integers,
// and vrshl by -shift is the plain kernel's (x + 2^(shift-1)) >> shift.
// Whole vectors first, the rest of the row by the plain code.
#include <arm_neon.h>

#include "xelo/irsz_dsp.h"

namespace xelo {
namespace {

void up2_neon(const uint8_t *s, uint16_t *out, int n) {
    out[0] = uint16_t(4 * s[0]);
    const uint8x8_t three = vdup_n_u8(3);
    int k = 0;
    for (; k + 16 < n; k += 16) {  // reads s[k .. k+16]
        const uint8x16_t a = vld1q_u8(s + k), b = vld1q_u8(s + k + 1);
        uint16x8x2_t lo, hi;
        lo.val[0] = vmlal_u8(vmovl_u8(vget_low_u8(b)), vget_low_u8(a), three);    // 3a + b
        lo.val[1] = vmlal_u8(vmovl_u8(vget_low_u8(a)), vget_low_u8(b), three);    // a + 3b
        hi.val[0] = vmlal_u8(vmovl_u8(vget_high_u8(b)), vget_high_u8(a), three);
        hi.val[1] = vmlal_u8(vmovl_u8(vget_high_u8(a)), vget_high_u8(b), three);
        vst2q_u16(out + 2 * k + 1, lo);
        vst2q_u16(out + 2 * k + 17, hi);
    }
    irsz_up2_from(s, out, k, n);
}

void down2_neon(const uint8_t *s, uint16_t *out, int n) {
    int j = 0;
    for (; j + 16 <= n; j += 16) {
        vst1q_u16(out + j, vpaddlq_u8(vld1q_u8(s + 2 * j)));
        vst1q_u16(out + j + 8, vpaddlq_u8(vld1q_u8(s + 2 * j + 16)));
    }
    irsz_down2_c(s + 2 * j, out + j, n - j);
}

void widen_neon(const uint8_t *s, uint16_t *out, int n) {
    int j = 0;
    for (; j + 16 <= n; j += 16) {
        const uint8x16_t v = vld1q_u8(s + j);
        vst1q_u16(out + j, vmovl_u8(vget_low_u8(v)));
        vst1q_u16(out + j + 8, vmovl_u8(vget_high_u8(v)));
    }
    irsz_widen_c(s + j, out + j, n - j);
}

void mix_neon(const uint16_t *a, const uint16_t *b, uint8_t *out, int n, int wa, int wb, int shift) {
    const uint16x8_t va = vdupq_n_u16(uint16_t(wa)), vb = vdupq_n_u16(uint16_t(wb));
    const int16x8_t sh = vdupq_n_s16(int16_t(-shift));
    int x = 0;
    for (; x + 16 <= n; x += 16) {
        const uint16x8_t s0 = vmlaq_u16(vmulq_u16(vld1q_u16(a + x), va), vld1q_u16(b + x), vb);
        const uint16x8_t s1 = vmlaq_u16(vmulq_u16(vld1q_u16(a + x + 8), va), vld1q_u16(b + x + 8), vb);
        vst1q_u8(out + x, vcombine_u8(vmovn_u16(vrshlq_u16(s0, sh)), vmovn_u16(vrshlq_u16(s1, sh))));
    }
    irsz_mix_c(a + x, b + x, out + x, n - x, wa, wb, shift);
}

}  // namespace

void irsz_init_neon(IrszDsp *dsp) {
    dsp->up2 = up2_neon;
    dsp->down2 = down2_neon;
    dsp->widen = widen_neon;
    dsp->mix = mix_neon;
}

}  // namespace xelo
