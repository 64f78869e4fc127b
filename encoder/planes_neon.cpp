// Bit planes of a block's AC levels, NEON: one byte a level holds all its
// plane bits; the bytes are put in zig-zag order by table look-ups, and
// each plane is then gathered a bit a byte.
#include <arm_neon.h>

#include "encoder/enc_simd.h"

namespace {

// Bits of the level bytes: 0 to 2 set where |level| >> 0, 1, 2 is not
// zero; 3 and 4 bits 0 and 1 of |level|; 5 the sign.
uint64_t plane(const uint8x8_t *zz, uint8_t bit) {
    const uint8x8_t weight = {1, 2, 4, 8, 16, 32, 64, 128}, b = vdup_n_u8(bit);
    uint8x8_t t[8];
    for (int32_t i = 0; i < 8; ++i) t[i] = vand_u8(vtst_u8(zz[i], b), weight);
    const uint8x8_t p0 = vpadd_u8(t[0], t[1]), p1 = vpadd_u8(t[2], t[3]);
    const uint8x8_t p2 = vpadd_u8(t[4], t[5]), p3 = vpadd_u8(t[6], t[7]);
    const uint8x8_t all = vpadd_u8(vpadd_u8(p0, p1), vpadd_u8(p2, p3));
    return vget_lane_u64(vreinterpret_u64_u8(all), 0) & ~uint64_t(1);
}

}  // namespace

uint32_t kivoe_planes_neon(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc) {
    // The nz bits of min(|level|, 4).
    const uint8x8_t nz_bits = {0, 1, 3, 3, 7, 7, 7, 7};
    const uint8x8_t four = vdup_n_u8(4), sign = vdup_n_u8(32), half = vdup_n_u8(32);
    const uint16x8_t three = vdupq_n_u16(3), top = vdupq_n_u16(1023);
    const uint16x8_t not_dc = {0, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF};
    uint16x8_t bad = vdupq_n_u16(0);
    for (int32_t b = 0; b < n; ++b, blk += 64) {
        uint8x8_t code[8];
        for (int32_t r = 0; r < 8; ++r) {
            const int16x8_t v = vld1q_s16(blk + 8 * r);
            const int16x8_t a = vabsq_s16(v);
            const uint16x8_t over = vcgtq_u16(vreinterpretq_u16_s16(a), top);  // -32768 stays 32768
            bad = vorrq_u16(bad, r ? over : vandq_u16(over, not_dc));
            const uint8x8_t nz = vtbl1_u8(nz_bits, vmin_u8(vqmovun_s16(a), four));
            const uint8x8_t low = vmovn_u16(vandq_u16(vreinterpretq_u16_s16(a), three));
            const uint8x8_t neg = vmovn_u16(vreinterpretq_u16_s16(vshrq_n_s16(v, 15)));
            code[r] = vorr_u8(vorr_u8(nz, vshl_n_u8(low, 3)), vand_u8(neg, sign));
        }
        // Indices 32 and up miss the first half; below 32, minus 32, the second.
        const uint8x8x4_t lo = {{code[0], code[1], code[2], code[3]}}, hi = {{code[4], code[5], code[6], code[7]}};
        uint8x8_t zz[8];
        for (int32_t i = 0; i < 8; ++i) {
            const uint8x8_t idx = vld1_u8(kivo_tbl_zig_to_ras + 8 * i);
            zz[i] = vtbx4_u8(vtbl4_u8(lo, idx), hi, vsub_u8(idx, half));
        }
        kivoe_planes &p = out[b];
        p.nz[0] = plane(zz, 1);
        p.nz[1] = plane(zz, 2);
        p.nz[2] = plane(zz, 4);
        p.corr[0] = kivoe_corr_bits(plane(zz, 8), p.nz[1]);
        p.corr[1] = kivoe_corr_bits(plane(zz, 16), p.nz[2]);
        p.neg = plane(zz, 32);
        dc[b] = blk[0];
    }
    const uint8x8_t any = vmovn_u16(bad);
    return vget_lane_u32(vreinterpret_u32_u8(any), 0) | vget_lane_u32(vreinterpret_u32_u8(any), 1);
}
