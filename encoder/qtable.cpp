// Quantization tables: from a quality number, and perceptually from a base
// quantizer and per-frequency statistics of the picture.
#include <cmath>

#include "encoder/kivoe_int.h"

namespace {

constexpr int16_t base_luma(int r, int c) { return static_cast<int16_t>(10 * (r + c + 1)); }
constexpr int16_t base_chroma(int r, int c) {
    return static_cast<int16_t>(r + c == 0 ? 10 : r + c == 1 ? 30 : 20 * (r + c + 1));
}

}  // namespace

#define KIVO_ROW(f, r) f(r, 0), f(r, 1), f(r, 2), f(r, 3), f(r, 4), f(r, 5), f(r, 6), f(r, 7)
#define KIVO_TABLE(f) KIVO_ROW(f, 0), KIVO_ROW(f, 1), KIVO_ROW(f, 2), KIVO_ROW(f, 3), \
                      KIVO_ROW(f, 4), KIVO_ROW(f, 5), KIVO_ROW(f, 6), KIVO_ROW(f, 7)
const int16_t tbl_q_base_luma[64] = {KIVO_TABLE(base_luma)};
const int16_t tbl_q_base_chroma[64] = {KIVO_TABLE(base_chroma)};
#undef KIVO_TABLE
#undef KIVO_ROW

// Per-frequency weight in Q12 that grows with frequency.
KIVO_EXPORT const int16_t tbl_inv_mtf[64] = {
    4096, 4096, 4096, 4096, 4267,  4683,  5330,  6233,  4096, 4096, 4096, 4096, 4412,  4873,  5556,  6495,
    4096, 4096, 4279, 4603, 5000,  5556,  6329,  7369,  4096, 4096, 4603, 5377, 6141,  6928,  7882,  9112,
    4267, 4412, 5000, 6141, 7558,  8974,  10422, 12071, 4683, 4873, 5556, 6928, 8974,  11384, 13894, 16516,
    5330, 5556, 6329, 7882, 10422, 13894, 17980, 22407, 6233, 6495, 7369, 9112, 12071, 16516, 22407, 29446,
};

// Base quantizer by mean sample level: 2 for 0..23, 3 for 24..71, 4 for
// 72..159, 5 for 160..255.
#define KIVO_R8(v) v, v, v, v, v, v, v, v
KIVO_EXPORT const uint8_t tbl_thr[256] = {
    KIVO_R8(2), KIVO_R8(2), KIVO_R8(2),                                               // 0..23
    KIVO_R8(3), KIVO_R8(3), KIVO_R8(3), KIVO_R8(3), KIVO_R8(3), KIVO_R8(3),           // 24..71
    KIVO_R8(4), KIVO_R8(4), KIVO_R8(4), KIVO_R8(4), KIVO_R8(4), KIVO_R8(4), KIVO_R8(4),
    KIVO_R8(4), KIVO_R8(4), KIVO_R8(4), KIVO_R8(4),                                   // 72..159
    KIVO_R8(5), KIVO_R8(5), KIVO_R8(5), KIVO_R8(5), KIVO_R8(5), KIVO_R8(5), KIVO_R8(5),
    KIVO_R8(5), KIVO_R8(5), KIVO_R8(5), KIVO_R8(5), KIVO_R8(5),                       // 160..255
};
#undef KIVO_R8

void kivoe_qtbl_set(kivoe_qtbl *t, int i, int32_t q) {
    if (q < 1) q = 1;
    if (q > 255) q = 255;
    t->q[i] = static_cast<uint16_t>(q);
    t->recip[i] = static_cast<uint16_t>(16384 / q);
    t->half[i] = static_cast<uint16_t>(q >> 1);
}

int32_t kivoe_init_q_tbl(kivoe_ctx *ctx, uint32_t quality) {
    uint32_t scale = 10;
    if (quality != 0) {
        if (quality > 100) return KIVO_ERR_INVALID_ARG;
        scale = 100 - quality;
    }
    for (int t = 0; t < 2; ++t) {
        kivoe_qtbl &q = ctx->qtbl[t];
        q.pq = 0;
        q.tq = static_cast<uint8_t>(t);
        const int16_t *base = t ? tbl_q_base_chroma : tbl_q_base_luma;
        for (int i = 0; i < 64; ++i) {
            const int32_t v = static_cast<int32_t>(std::trunc(scale * static_cast<double>(base[i]) / 100.0));
            // 0 becomes 1; more than 255 is 255 (recip 64, half 127).
            kivoe_qtbl_set(&q, i, v);
        }
    }
    return KIVO_OK;
}

namespace {

// b^0.30000000000000004 for the base values the tables' weights give (2 to
// 35 with base scales up to 5), worked out once: pow is a long library
// call on 32-bit processors.
constexpr int kPowBases = 36;

double base_power(int32_t b) {
    static const struct Table {
        double v[kPowBases];
        Table() {
            for (int i = 0; i < kPowBases; ++i) v[i] = std::pow(static_cast<double>(i), 0.30000000000000004);
        }
    } table;
    return b < kPowBases ? table.v[b] : std::pow(static_cast<double>(b), 0.30000000000000004);
}

}  // namespace

extern "C" KIVO_API void kivo_gen_qtbl(int16_t *q_out, uint16_t *recip_out, uint16_t *half_out,
                                       const uint32_t *coef_stat, int32_t base_scale) {
    for (int i = 0; i < 64; ++i) {
        const int32_t prod = static_cast<int32_t>(static_cast<uint32_t>(tbl_inv_mtf[i]) * static_cast<uint32_t>(base_scale));
        const int16_t b = static_cast<int16_t>(static_cast<uint16_t>(prod >> 12));
        int32_t m = b;
        if (i > 0 && b > 0) {
            const double p = std::trunc(base_power(b) * std::pow(static_cast<double>(coef_stat[i]), 0.7));
            // Held as a signed 16-bit value, as the table arithmetic does.
            const int16_t p16 = static_cast<int16_t>(static_cast<uint16_t>(static_cast<int64_t>(p) & 0xFFFF));
            m = p16 > b ? p16 : b;
        }
        const int32_t t = (3 * m) / 4;
        int32_t q = b < t ? b : (t > 1 ? t : 1);
        if (q < 1) q = 1;  // a base of 0 or below still gives a usable quantizer
        q_out[i] = static_cast<int16_t>(q);
        recip_out[i] = static_cast<uint16_t>(16384 / q);
        half_out[i] = static_cast<uint16_t>(q >> 1);
    }
}
