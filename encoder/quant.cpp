// Quantizers: rounding by the table's half values, the adaptive quantizer
// with Q14 offsets, and the offset update of adaptive rounding.
#include "encoder/kivoe_int.h"
#include "common/nonzero.h"

namespace {

// Quantizes blk in place; returns the number of non-zero levels (kCount)
// or the OR of the level magnitudes.
template <bool kCount>
inline uint32_t quantize(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    uint32_t out = 0;
    for (int i = 0; i < 64; ++i) {
        const int32_t c = blk[i];
        const uint32_t a = static_cast<uint32_t>(c < 0 ? -c : c);
        uint32_t n = ((a + offset[i]) * recip[i]) >> 14;  // (2^15 + 2^16) * 2^14 fits 32 bits
        if (n > 32767) n = 32767;
        blk[i] = static_cast<int16_t>(c > 0 ? static_cast<int32_t>(n) : -static_cast<int32_t>(n));
        if (kCount) out += n != 0;
        else out |= n;
    }
    return out;
}

}  // namespace

int32_t kivoe_quant(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    return static_cast<int32_t>(quantize<true>(blk, recip, offset));
}

uint64_t kivoe_quant_mask(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    const uint32_t any = quantize<false>(blk, recip, offset);
    bool all_coded;
    return kivo_zigzag_ac_mask(blk, &all_coded) | (any > 2047);  // a magnitude of 2048 or more
}

uint64_t kivoe_fdct_quant_mask(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    kivoe_fdct8(blk);
    return kivoe_quant_mask(blk, recip, offset);
}

uint64_t kivoe_fdct_quant_samples(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *recip,
                                  const uint16_t *offset) {
    for (int r = 0; r < 8; ++r)
        for (int c = 0; c < 8; ++c) blk[8 * r + c] = src[static_cast<ptrdiff_t>(r) * stride + c];
    return kivoe_fdct_quant_mask(blk, recip, offset);
}

void kivoe_fdct8_samples(const uint8_t *src, int32_t stride, int16_t *blk) {
    for (int r = 0; r < 8; ++r)
        for (int c = 0; c < 8; ++c) blk[8 * r + c] = src[static_cast<ptrdiff_t>(r) * stride + c];
    kivoe_fdct8(blk);
}

void kivoe_quant_rdoq(int16_t *blk, const uint16_t *recip, const uint16_t *offset) {
    for (int i = 0; i < 64; ++i) {
        const int32_t c = blk[i];
        const uint32_t a = static_cast<uint32_t>(c < 0 ? -c : c);
        const uint32_t n = (a * recip[i] + offset[i]) >> 14;
        const uint32_t level = c > 0 ? n : 0u - n;
        blk[i] = static_cast<int16_t>(static_cast<uint16_t>(level));
    }
}

void kivoe_update_offset(const int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                         uint16_t *offset) {
    // Offsets move only where the level is not zero.
    for (uint64_t m = kivo_raster_mask(levels); m; m &= m - 1) {
        const int i = __builtin_ctzll(m);
        const int32_t l = levels[i];
        const int32_t c = coef[i];
        const int32_t rec = (l < 0 ? -l : l) * q[i];
        const int32_t err = (c < 0 ? -c : c) - rec;
        const int64_t d = static_cast<int64_t>((static_cast<uint64_t>(err < 0 ? -err : err) * recip[i]) >> 11);
        int64_t o = err > 0 ? offset[i] + d : offset[i] - d;
        o = static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint64_t>(o)));  // taken as a signed 16-bit value
        offset[i] = static_cast<uint16_t>(o < 0 ? 0 : o > 8192 ? 8192 : o);
    }
}

uint64_t kivoe_levels_mask(const int16_t *blk) {
    bool all_coded;
    const uint64_t mask = kivo_zigzag_ac_mask(blk, &all_coded);
    return all_coded ? mask : ~uint64_t(0);
}

uint64_t kivoe_quant_kept(int16_t *blk, const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                          const uint8_t *thr) {
    int16_t coef[64];
    for (int i = 0; i < 64; ++i) coef[i] = blk[i];
    if (adapt) kivoe_quant_rdoq(blk, recip, adapt);
    else kivoe_quant(blk, recip, half);
    if (thr) kivoe_jnd_suppress(blk, coef, q, recip, thr);
    if (adapt) kivoe_update_offset(blk, coef, q, recip, adapt);
    return kivoe_levels_mask(blk);
}

uint64_t kivoe_fdct_quant_kept_samples(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                       const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress) {
    kivoe_fdct8_samples(src, stride, blk);
    return kivoe_quant_kept(blk, q, recip, half, adapt, suppress ? kivoe_jnd_threshold_row(blk[0]) : nullptr);
}

uint64_t kivoe_jnd_fdct_quant_kept(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                   const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress) {
    uint8_t f[64];
    kivoe_jndfilt8x8_u8(src, stride, f);
    return kivoe_fdct_quant_kept_samples(f, 8, blk, q, recip, half, adapt, suppress);
}

void kivoe_fdct_quant_kept2(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2], const uint16_t *q,
                            const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress,
                            uint64_t *mask) {
    for (int i = 0; i < 2; ++i) mask[i] = kivoe_fdct_quant_kept_samples(src[i], stride, blk[i], q, recip, half, adapt, suppress);
}

void kivoe_jnd_fdct_quant_kept2(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2], const uint16_t *q,
                                const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress,
                                uint64_t *mask) {
    for (int i = 0; i < 2; ++i) mask[i] = kivoe_jnd_fdct_quant_kept(src[i], stride, blk[i], q, recip, half, adapt, suppress);
}

void kivoe_jnd_fdct_quant_kept4(const uint8_t *const src[4], int32_t stride, int16_t *const blk[4], const uint16_t *q,
                                const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress,
                                uint64_t *mask) {
    for (int i = 0; i < 4; ++i) mask[i] = kivoe_jnd_fdct_quant_kept(src[i], stride, blk[i], q, recip, half, adapt, suppress);
}
