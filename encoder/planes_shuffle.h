// Bit planes of a block's AC levels on AVX2 machines, shared by the
// variants with and without BMI2: the level bytes put in zig-zag order by
// byte shuffles, each 16 zig-zag positions gathered from the four 16-byte
// raster quarters. Internal linkage keeps each variant's copy compiled for
// its own CPU level.
#ifndef KIVO_ENCODER_PLANES_SHUFFLE_H
#define KIVO_ENCODER_PLANES_SHUFFLE_H

#include <immintrin.h>

#include "common/nonzero.h"
#include "encoder/planes_x86.h"

namespace {

// kShuffle.idx[i][j][b]: where zig-zag position 16i + b lies in raster
// quarter j, or 0x80 (a zero byte) when it lies in another.
struct Shuffle {
    alignas(16) uint8_t idx[4][4][16];
};

constexpr Shuffle make_shuffle() {
    Shuffle s{};
    for (int32_t z = 0; z < 64; ++z) {
        const int32_t r = kivo_nz::kZigToRas.z[z];
        for (int32_t j = 0; j < 4; ++j) s.idx[z >> 4][j][z & 15] = r >> 4 == j ? static_cast<uint8_t>(r & 15) : 0x80;
    }
    return s;
}

constexpr Shuffle kShuffle = make_shuffle();

// The planes of n blocks and their DC levels; corr as for planes_of.
// Returns non-zero when some AC level lies outside -1023 to 1023.
template <class Corr>
inline uint32_t planes_rows(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc, Corr &&corr) {
    __m128i bad = _mm_setzero_si128();
    for (int32_t b = 0; b < n; ++b, blk += 64) {
        __m128i c[4], zz[4];
        level_bytes(blk, c, bad);
        for (int32_t i = 0; i < 4; ++i) {
            __m128i z = _mm_setzero_si128();
            for (int32_t j = 0; j < 4; ++j)
                z = _mm_or_si128(z, _mm_shuffle_epi8(c[j], _mm_load_si128(reinterpret_cast<const __m128i *>(kShuffle.idx[i][j]))));
            zz[i] = z;
        }
        planes_of(zz, out + b, corr);
        dc[b] = blk[0];
    }
    return any_lane(bad);
}

}  // namespace

#endif
