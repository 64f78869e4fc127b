// Bit planes of a block's AC levels for the progressive writer: the plain
// kernel.
#include "encoder/kivoe_int.h"

uint32_t kivoe_planes_c(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc) {
    uint32_t outside = 0;
    for (int32_t i = 0; i < n; ++i, blk += 64) {
        kivoe_planes p{};
        int32_t at[2] = {63, 63};  // where the next correction bit goes
        for (int32_t z = 1; z < 64; ++z) {
            const int32_t v = blk[kivo_tbl_zig_to_ras[z]];
            const uint32_t a = static_cast<uint32_t>(v < 0 ? -v : v);
            outside |= a > 1023;
            const uint64_t bit = uint64_t(1) << z;
            for (int32_t k = 0; k < 3; ++k)
                if (a >> k) p.nz[k] |= bit;
            for (int32_t k = 0; k < 2; ++k)
                if (a >> (k + 1)) p.corr[k] |= static_cast<uint64_t>(a >> k & 1) << at[k]--;
            if (v < 0) p.neg |= bit;
        }
        out[i] = p;
        dc[i] = blk[0];
    }
    return outside;
}
