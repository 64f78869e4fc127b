// Coefficient magnitudes for the scan statistics: every block that carries
// AC coefficients adds |coefficient| to 32-bit sums per raster position.
// The DC position is summed too; the statistics read positions 1 to 63.
#include "decoder/kivod_int.h"

void kivod_add_mag(const int16_t *blk, uint32_t *mag) {
    for (int i = 0; i < 64; ++i) mag[i] += static_cast<uint32_t>(blk[i] < 0 ? -blk[i] : blk[i]);
}
