// NEON JND filter, two output rows per step, bit-exact to the plain one.
#include <arm_neon.h>

#include "encoder/enc_simd.h"
#include "encoder/jnd_steps.h"

namespace {

// Per byte: how many of the steps are at or below c, by table look-ups on
// the high nibble of c (see jnd_steps.h).
inline uint8x16_t steps_at_or_below(uint8x16_t c, uint8x16_t idx, const JndSteps &t) {
    const uint8x8x2_t base = {{vld1_u8(t.base), vld1_u8(t.base + 8)}};
    const uint8x8x2_t step = {{vld1_u8(t.step), vld1_u8(t.step + 8)}};
    const uint8x16_t b = vcombine_u8(vtbl2_u8(base, vget_low_u8(idx)), vtbl2_u8(base, vget_high_u8(idx)));
    const uint8x16_t s = vcombine_u8(vtbl2_u8(step, vget_low_u8(idx)), vtbl2_u8(step, vget_high_u8(idx)));
    return vsubq_u8(b, vcgeq_u8(c, s));
}

inline uint8x16_t rows(const uint8_t *p, int32_t stride, int y) {
    return vcombine_u8(vld1_u8(p + static_cast<ptrdiff_t>(y) * stride), vld1_u8(p + static_cast<ptrdiff_t>(y + 1) * stride));
}

}  // namespace

namespace {

// The filtered rows y and y + 1 (y even) of the block at src, before the
// final rounding shift, to store(y, sums of row y, sums of row y + 1).
template <class Store>
inline void filter(const uint8_t *src, int32_t stride, Store store) {
    for (int y = 0; y < 8; y += 2) {
        const uint8x16_t c = rows(src, stride, y), idx = vshrq_n_u8(c, 4);
        // The band [c - d(c), min(255, c + a(c))] that neighbours are held to.
        const uint8x16_t hi = vqaddq_u8(c, steps_at_or_below(c, idx, kJndUp));
        const uint8x16_t lo = vqsubq_u8(c, steps_at_or_below(c, idx, kJndDown));
        uint8x16_t n[4];
        const int dy[4] = {-2, -1, 1, 2};
        for (int k = 0; k < 4; ++k) n[k] = vminq_u8(vmaxq_u8(rows(src, stride, y + dy[k]), lo), hi);
        uint16x8_t sum[2];
        for (int h = 0; h < 2; ++h) {
            auto half = [h](uint8x16_t v) { return h ? vget_high_u8(v) : vget_low_u8(v); };
            uint16x8_t s = vaddl_u8(half(n[0]), half(n[3]));
            s = vaddq_u16(s, vshlq_n_u16(vaddl_u8(half(n[1]), half(n[2])), 2));
            sum[h] = vmlal_u8(s, half(c), vdup_n_u8(6));
        }
        store(y, sum[0], sum[1]);
    }
}

}  // namespace

void kivoe_jndfilt8x8_neon(const uint8_t *src, int32_t stride, int16_t *blk) {
    filter(src, stride, [blk](int y, uint16x8_t s0, uint16x8_t s1) {
        vst1q_s16(blk + 8 * y, vreinterpretq_s16_u16(vrshrq_n_u16(s0, 4)));
        vst1q_s16(blk + 8 * y + 8, vreinterpretq_s16_u16(vrshrq_n_u16(s1, 4)));
    });
}

void kivoe_jndfilt8x8_u8_neon(const uint8_t *src, int32_t stride, uint8_t *dst) {
    filter(src, stride, [dst](int y, uint16x8_t s0, uint16x8_t s1) {
        vst1q_u8(dst + 8 * y, vcombine_u8(vrshrn_n_u16(s0, 4), vrshrn_n_u16(s1, 4)));
    });
}

// A level L = sign * n (n > 0) becomes sign * m for the lowest m that the
// descent from n - 1 reaches. With c = sign * C and e = c - (n - 1) q, the
// descent starts when -T < e < T, and a step down to n - 1 - j holds while
// e + j q < T: it goes j = (T - 1 - e) / q steps, at most n - 1. T - 1 - e
// lies below 2T, so that the quotient comes from the Q14 reciprocal with
// one correction; e takes 32 bits.
void kivoe_jnd_suppress_neon(int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                             const uint8_t *thr) {
    // AC magnitudes, each counted up to 8: only whether they add up to more
    // than 7 matters.
    int16x8_t l[8];
    int16x8_t sum = vdupq_n_s16(0);
    for (int r = 0; r < 8; ++r) {
        l[r] = vld1q_s16(levels + 8 * r);
        int16x8_t capped = vminq_s16(vqabsq_s16(l[r]), vdupq_n_s16(8));
        if (r == 0) capped = vsetq_lane_s16(0, capped, 0);
        sum = vaddq_s16(sum, capped);
    }
    const int32x4_t s4 = vpaddlq_s16(sum);
    const int64x2_t s2 = vpaddlq_s32(s4);
    if (vgetq_lane_s64(s2, 0) + vgetq_lane_s64(s2, 1) <= 7) return;
    for (int r = 0; r < 8; ++r) {
        const int16x8_t L = l[r];
        const uint16x8_t nz = vtstq_s16(L, L);
        const uint64x2_t any = vreinterpretq_u64_u16(nz);
        if ((vgetq_lane_u64(any, 0) | vgetq_lane_u64(any, 1)) == 0) continue;
        const int16x8_t s = vshrq_n_s16(L, 15);
        const uint16x8_t n1 = vsubq_u16(vreinterpretq_u16_s16(vabsq_s16(L)), vdupq_n_u16(1));
        const uint16x8_t Q = vld1q_u16(q + 8 * r);
        const int16x8_t C = vld1q_s16(coef + 8 * r);
        const uint16x8_t T = vmovl_u8(vld1_u8(thr + 8 * r));
        auto none = [](uint16x8_t m) {
            const uint64x2_t v = vreinterpretq_u64_u16(m);
            return (vgetq_lane_u64(v, 0) | vgetq_lane_u64(v, 1)) == 0;
        };
        uint16x8_t take, X;
        // (n - 1) q below 32768 and C not -32768 in every lane: e in 16
        // bits, saturated below (then far under -T, as the true value).
        // vqdmulh gives (2 (n - 1) q) >> 16, not zero exactly where the
        // product reaches 32768 (q from 32768 up reads as negative, which
        // for n - 1 > 0 is not zero either).
        const int16x8_t high = vqdmulhq_s16(vreinterpretq_s16_u16(n1), vreinterpretq_s16_u16(Q));
        const uint16x8_t wide = vandq_u16(nz, vorrq_u16(vreinterpretq_u16_s16(high), vceqq_s16(C, vdupq_n_s16(-32768))));
        if (none(wide)) {
            const int16x8_t P = vreinterpretq_s16_u16(vmulq_u16(n1, Q));
            const int16x8_t e = vqsubq_s16(vsubq_s16(veorq_s16(C, s), s), P);
            const int16x8_t t = vreinterpretq_s16_u16(T);
            take = vandq_u16(vandq_u16(vcgtq_s16(e, vnegq_s16(t)), vcltq_s16(e, t)), nz);
            if (none(take)) continue;
            X = vreinterpretq_u16_s16(vsubq_s16(vsubq_s16(t, vdupq_n_s16(1)), e));
        } else {
            int32x4_t e[2];
            uint32x4_t cond[2];
            for (int h = 0; h < 2; ++h) {
                const int32x4_t s32 = vmovl_s16(h ? vget_high_s16(s) : vget_low_s16(s));
                const int32x4_t c32 = vmovl_s16(h ? vget_high_s16(C) : vget_low_s16(C));
                const int32x4_t c = vsubq_s32(veorq_s32(c32, s32), s32);
                const uint32x4_t p = vmull_u16(h ? vget_high_u16(n1) : vget_low_u16(n1), h ? vget_high_u16(Q) : vget_low_u16(Q));
                e[h] = vsubq_s32(c, vreinterpretq_s32_u32(p));
                const int32x4_t t = vreinterpretq_s32_u32(vmovl_u16(h ? vget_high_u16(T) : vget_low_u16(T)));
                cond[h] = vandq_u32(vcgtq_s32(e[h], vnegq_s32(t)), vcltq_s32(e[h], t));
                e[h] = vsubq_s32(vsubq_s32(t, vdupq_n_s32(1)), e[h]);  // T - 1 - e
            }
            take = vandq_u16(vcombine_u16(vmovn_u32(cond[0]), vmovn_u32(cond[1])), nz);
            if (none(take)) continue;
            X = vreinterpretq_u16_s16(vcombine_s16(vqmovn_s32(e[0]), vqmovn_s32(e[1])));
        }
        // (X recip) >> 14 as (2 (2 X) recip) >> 16: 2 X and recip (at most
        // 16384) fit signed 16 bits, the product stays far below 2^31.
        const int16x8_t R = vreinterpretq_s16_u16(vld1q_u16(recip + 8 * r));
        const uint16x8_t m0 = vreinterpretq_u16_s16(vqdmulhq_s16(vreinterpretq_s16_u16(vshlq_n_u16(X, 1)), R));
        const uint16x8_t rem = vmlsq_u16(X, m0, Q);
        const uint16x8_t j = vsubq_u16(m0, vcgeq_u16(rem, Q));  // + 1 where rem >= q
        const int16x8_t m = vmaxq_s16(vreinterpretq_s16_u16(vsubq_u16(n1, j)), vdupq_n_s16(0));
        const int16x8_t out = vsubq_s16(veorq_s16(m, s), s);
        vst1q_s16(levels + 8 * r, vbslq_s16(take, out, L));
    }
}
