// Forward DCT of 8-bit samples with the level shift, in Q10 fixed point.
#include "encoder/kivoe_int.h"

namespace {

// One butterfly pass over eight inputs; the even outputs stay scaled for
// the caller to round, the odd ones are the rotations of the odd part.
struct Pass {
    int32_t e0, e1, a, b, g, h, g2, h2;
};

inline Pass butterflies(const int32_t x[8]) {
    const int32_t s07 = x[0] + x[7], s16 = x[1] + x[6], s25 = x[2] + x[5], s34 = x[3] + x[4];
    const int32_t d07 = x[0] - x[7], d16 = x[1] - x[6], d25 = x[2] - x[5], d34 = x[3] - x[4];
    Pass p;
    p.e0 = s07 + s34;
    p.e1 = s16 + s25;
    p.a = s07 - s34;
    p.b = s16 - s25;
    const int32_t m1 = (724 * (d16 - d25) + 512) >> 10;
    const int32_t m2 = (724 * (d16 + d25) + 512) >> 10;
    p.g = d07 + m2;
    p.h = d34 + m1;
    p.g2 = d07 - m2;
    p.h2 = d34 - m1;
    return p;
}

inline int16_t low16(int32_t v) { return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(v))); }

}  // namespace

void kivoe_fdct8(int16_t *blk) {
    int32_t t[64];
    for (int r = 0; r < 8; ++r) {
        int32_t x[8];
        for (int c = 0; c < 8; ++c) x[c] = blk[8 * r + c] - 128;
        const Pass p = butterflies(x);
        int32_t *o = t + 8 * r;
        o[0] = (p.e0 + p.e1) * 512;
        o[4] = (p.e0 - p.e1) * 512;
        o[2] = 669 * p.a + 277 * p.b;
        o[6] = 277 * p.a - 669 * p.b;
        o[1] = 710 * p.g + 141 * p.h;
        o[7] = 141 * p.g - 710 * p.h;
        o[3] = 602 * p.g2 - 402 * p.h2;
        o[5] = 602 * p.h2 + 402 * p.g2;
    }
    for (int u = 0; u < 8; ++u) {
        int32_t y[8];
        for (int r = 0; r < 8; ++r) y[r] = t[8 * r + u];
        const Pass p = butterflies(y);
        constexpr int32_t kRound = 1 << 20;
        blk[0 * 8 + u] = low16((p.e0 + p.e1 + 2048) >> 12);
        blk[4 * 8 + u] = low16((p.e0 - p.e1 + 2048) >> 12);
        blk[2 * 8 + u] = low16((669 * p.a + 277 * p.b + kRound) >> 21);
        blk[6 * 8 + u] = low16((277 * p.a - 669 * p.b + kRound) >> 21);
        blk[1 * 8 + u] = low16((710 * p.g + 141 * p.h + kRound) >> 21);
        blk[7 * 8 + u] = low16((141 * p.g - 710 * p.h + kRound) >> 21);
        blk[3 * 8 + u] = low16((602 * p.g2 - 402 * p.h2 + kRound) >> 21);
        blk[5 * 8 + u] = low16((602 * p.h2 + 402 * p.g2 + kRound) >> 21);
    }
}
