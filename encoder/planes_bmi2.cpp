// Bit planes of a block's AC levels, AVX2 machines with BMI2: the
// correction bits gathered by one bit extraction.
#include "encoder/enc_simd.h"
#include "encoder/planes_shuffle.h"

namespace {

// Bits reversed: bit 0 to bit 63.
inline uint64_t reverse_bits(uint64_t x) {
    x = __builtin_bswap64(x);
    x = (x >> 4 & 0x0F0F0F0F0F0F0F0Fu) | (x & 0x0F0F0F0F0F0F0F0Fu) << 4;
    x = (x >> 2 & 0x3333333333333333u) | (x & 0x3333333333333333u) << 2;
    return (x >> 1 & 0x5555555555555555u) | (x & 0x5555555555555555u) << 1;
}

}  // namespace

uint32_t kivoe_planes_bmi2(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc) {
    return planes_rows(blk, n, out, dc, [](uint64_t x, uint64_t m) { return reverse_bits(_pext_u64(x, m)); });
}
