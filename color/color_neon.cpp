// NEON colour kernels: the matrix in 32-bit lanes with widening
// multiply-accumulates (vmlal) and arithmetic shifts, exactly the plain
// kernels' sums, or for single products a rounding doubling multiply high
// (vqrdmulh); packed pixels go through the interleaving loads and stores
// vld3/vld4 and vst3/vst4.
#include <arm_neon.h>

#include "color/kivoc_int.h"

namespace kivo {
namespace {

// (acc + a * ca + b * cb [+ c * cc]) >> 14 on eight lanes, narrowed back to 16 bits.
inline int16x8_t mac_shift(int32x4_t acc, int16x8_t a, int16_t ca, int16x8_t b, int16_t cb) {
    const int32x4_t lo = vmlal_n_s16(vmlal_n_s16(acc, vget_low_s16(a), ca), vget_low_s16(b), cb);
    const int32x4_t hi = vmlal_n_s16(vmlal_n_s16(acc, vget_high_s16(a), ca), vget_high_s16(b), cb);
    return vcombine_s16(vshrn_n_s32(lo, kColBits), vshrn_n_s32(hi, kColBits));
}
inline int16x8_t mac_shift(int32x4_t acc, int16x8_t a, int16_t ca, int16x8_t b, int16_t cb, int16x8_t c, int16_t cc) {
    int32x4_t lo = vmlal_n_s16(vmlal_n_s16(acc, vget_low_s16(a), ca), vget_low_s16(b), cb);
    int32x4_t hi = vmlal_n_s16(vmlal_n_s16(acc, vget_high_s16(a), ca), vget_high_s16(b), cb);
    lo = vmlal_n_s16(lo, vget_low_s16(c), cc);
    hi = vmlal_n_s16(hi, vget_high_s16(c), cc);
    return vcombine_s16(vshrn_n_s32(lo, kColBits), vshrn_n_s32(hi, kColBits));
}

inline int16x8_t widen(uint8x8_t v) { return vreinterpretq_s16_u16(vmovl_u8(v)); }

// vqrdmulh gives (2 a c + 2^15) >> 16; with a = 2 x that is exactly
// (x * c + 2^13) >> 14, the matrix's rounding, for a 16-bit coefficient:
// R and B take one multiply each, G's two products share one rounding.
static_assert(kCrR < 32768 && kCbB < 32768, "one 16-bit multiplier for R and B");

template <int Pack>
void ycc_to_packed_neon(const uint8_t *y, const uint8_t *cb, const uint8_t *cr, uint8_t *dst, int n) {
    const int size = Pack == kPackRGB ? 3 : 4;
    const int32x4_t half = vdupq_n_s32(kColHalf);
    const int16x8_t c128 = vdupq_n_s16(128);
    int i = 0;
    for (; i + 8 <= n; i += 8, dst += 8 * size) {
        const int16x8_t l = widen(vld1_u8(y + i));
        const int16x8_t u = vsubq_s16(widen(vld1_u8(cb + i)), c128), v = vsubq_s16(widen(vld1_u8(cr + i)), c128);
        const uint8x8_t r = vqmovun_s16(vaddq_s16(l, vqrdmulhq_n_s16(vaddq_s16(v, v), kCrR)));
        const uint8x8_t g = vqmovun_s16(vaddq_s16(l, mac_shift(half, u, kCbG, v, kCrG)));
        const uint8x8_t b = vqmovun_s16(vaddq_s16(l, vqrdmulhq_n_s16(vaddq_s16(u, u), kCbB)));
        if (Pack == kPackRGB) {
            uint8x8x3_t px = {{r, g, b}};
            vst3_u8(dst, px);
        } else {
            uint8x8x4_t px = {{Pack == kPackBGRA ? b : r, g, Pack == kPackBGRA ? r : b, vdup_n_u8(255)}};
            vst4_u8(dst, px);
        }
    }
    ycc_to_packed_c<Pack>(y + i, cb + i, cr + i, dst, n - i);
}

template <int Pack>
void packed_to_ycc_neon(const uint8_t *src, uint8_t *y, uint8_t *cb, uint8_t *cr, int n) {
    const int size = Pack == kPackRGB ? 3 : 4;
    const int32x4_t half = vdupq_n_s32(kColHalf), half1 = vdupq_n_s32(kColHalf - 1);
    const int16x8_t c128 = vdupq_n_s16(128);
    int i = 0;
    for (; i + 8 <= n; i += 8, src += 8 * size) {
        int16x8_t r, g, b;
        if (Pack == kPackRGB) {
            const uint8x8x3_t px = vld3_u8(src);
            r = widen(px.val[0]), g = widen(px.val[1]), b = widen(px.val[2]);
        } else {
            const uint8x8x4_t px = vld4_u8(src);
            r = widen(px.val[Pack == kPackBGRA ? 2 : 0]), g = widen(px.val[1]), b = widen(px.val[Pack == kPackBGRA ? 0 : 2]);
        }
        vst1_u8(y + i, vqmovun_s16(mac_shift(half, r, kRY, g, kGY, b, kBY)));
        vst1_u8(cb + i, vqmovun_s16(vaddq_s16(mac_shift(half1, r, kRCb, g, kGCb, b, kBCb), c128)));
        vst1_u8(cr + i, vqmovun_s16(vaddq_s16(mac_shift(half1, r, kRCr, g, kGCr, b, kBCr), c128)));
    }
    packed_to_ycc_c<Pack>(src, y + i, cb + i, cr + i, n - i);
}

void vsum3_neon(const uint8_t *near, const uint8_t *far, uint16_t *out, int n) {
    const uint8x8_t three = vdup_n_u8(3);
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        const uint8x16_t a = vld1q_u8(near + i), b = vld1q_u8(far + i);
        vst1q_u16(out + i, vaddw_u8(vmull_u8(vget_low_u8(a), three), vget_low_u8(b)));
        vst1q_u16(out + i + 8, vaddw_u8(vmull_u8(vget_high_u8(a), three), vget_high_u8(b)));
    }
    vsum3_c(near + i, far + i, out + i, n - i);
}

void h2_fancy_neon(const uint16_t *s, uint8_t *out, int n, int b0, int b1, int sh) {
    const uint16x8_t v0 = vdupq_n_u16(static_cast<uint16_t>(b0)), v1 = vdupq_n_u16(static_cast<uint16_t>(b1));
    const int16x8_t shift = vdupq_n_s16(static_cast<int16_t>(-sh));
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        const uint16x8_t l = vld1q_u16(s + i - 1), c = vld1q_u16(s + i), r = vld1q_u16(s + i + 1);
        const uint16x8_t c3 = vmulq_n_u16(c, 3);
        uint8x8x2_t px;
        px.val[0] = vmovn_u16(vshlq_u16(vaddq_u16(vaddq_u16(c3, l), v0), shift));
        px.val[1] = vmovn_u16(vshlq_u16(vaddq_u16(vaddq_u16(c3, r), v1), shift));
        vst2_u8(out + 2 * i, px);
    }
    h2_fancy_c(s + i, out + 2 * i, n - i, b0, b1, sh);
}

void down_h2v2_neon(const uint8_t *r0, const uint8_t *r1, uint8_t *out, int n) {
    int i = 0;
    for (; i + 8 <= n; i += 8)
        vst1_u8(out + i, vrshrn_n_u16(vpadalq_u8(vpaddlq_u8(vld1q_u8(r0 + 2 * i)), vld1q_u8(r1 + 2 * i)), 2));
    down_h2v2_c(r0 + 2 * i, r1 + 2 * i, out + i, n - i);
}

void down_h2v1_neon(const uint8_t *r0, const uint8_t *r1, uint8_t *out, int n) {
    int i = 0;
    for (; i + 8 <= n; i += 8) vst1_u8(out + i, vrshrn_n_u16(vpaddlq_u8(vld1q_u8(r0 + 2 * i)), 1));
    down_h2v1_c(r0 + 2 * i, r1, out + i, n - i);
}

}  // namespace

void color_init_neon(ColorDsp *d) {
    d->to_packed[kPackRGB] = ycc_to_packed_neon<kPackRGB>;
    d->to_packed[kPackRGBA] = ycc_to_packed_neon<kPackRGBA>;
    d->to_packed[kPackBGRA] = ycc_to_packed_neon<kPackBGRA>;
    d->from_packed[kPackRGB] = packed_to_ycc_neon<kPackRGB>;
    d->from_packed[kPackRGBA] = packed_to_ycc_neon<kPackRGBA>;
    d->from_packed[kPackBGRA] = packed_to_ycc_neon<kPackBGRA>;
    d->vsum3 = vsum3_neon;
    d->h2_fancy = h2_fancy_neon;
    d->down_h2v2 = down_h2v2_neon;
    d->down_h2v1 = down_h2v1_neon;
}

}  // namespace kivo
