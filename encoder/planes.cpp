// Bit planes of a block's AC levels for the progressive writer: the plain
// kernel.
#include "encoder/kivoe_int.h"

void kivoe_planes_c(const int16_t *blk, kivoe_planes *out) {
    kivoe_planes p{};
    for (int32_t z = 1; z < 64; ++z) {
        const int32_t v = blk[kivo_tbl_zig_to_ras[z]];
        const uint32_t a = static_cast<uint32_t>(v < 0 ? -v : v);
        const uint64_t bit = uint64_t(1) << z;
        for (int32_t k = 0; k < 3; ++k)
            if (a >> k) p.nz[k] |= bit;
        for (int32_t k = 0; k < 2; ++k)
            if (a >> k & 1) p.odd[k] |= bit;
        if (v < 0) p.neg |= bit;
    }
    *out = p;
}
