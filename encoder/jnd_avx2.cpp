// AVX2 JND filter, four output rows per step, bit-exact to the plain one.
#include <immintrin.h>

#include <cstring>

#include "encoder/enc_simd.h"
#include "encoder/jnd_steps.h"

namespace {

// Rows y to y + 3, eight samples each, in order.
inline __m256i rows4(const uint8_t *p, int32_t stride, int y) {
    int64_t r[4];
    for (int k = 0; k < 4; ++k) std::memcpy(&r[k], p + static_cast<ptrdiff_t>(y + k) * stride, 8);
    return _mm256_setr_epi64x(r[0], r[1], r[2], r[3]);
}

inline __m256i table(const uint8_t (&t)[16]) {
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(t)));
}

}  // namespace

namespace {

// The filtered rows y to y + 3 (y = 0, 4) of the block at src: rows y and
// y + 2 in out[0], y + 1 and y + 3 in out[1] (one row a 128-bit lane).
template <class Store>
inline void filter(const uint8_t *src, int32_t stride, Store store) {
    const __m256i zero = _mm256_setzero_si256(), nibble = _mm256_set1_epi8(15);
    const __m256i up_base = table(kJndUp.base), up_step = table(kJndUp.step);
    const __m256i down_base = table(kJndDown.base), down_step = table(kJndDown.step);
    for (int y = 0; y < 8; y += 4) {
        const __m256i c = rows4(src, stride, y);
        // The step counts from the high nibble of c and the one step
        // inside its range.
        const __m256i idx = _mm256_and_si256(_mm256_srli_epi16(c, 4), nibble);
        auto count = [&](__m256i base, __m256i step) {
            const __m256i t = _mm256_shuffle_epi8(step, idx);
            return _mm256_sub_epi8(_mm256_shuffle_epi8(base, idx), _mm256_cmpeq_epi8(_mm256_max_epu8(c, t), c));
        };
        // The band [c - d(c), min(255, c + a(c))] that neighbours are held to.
        const __m256i hi = _mm256_adds_epu8(c, count(up_base, up_step));
        const __m256i lo = _mm256_subs_epu8(c, count(down_base, down_step));
        __m256i n[4];
        const int dy[4] = {-2, -1, 1, 2};
        for (int k = 0; k < 4; ++k) n[k] = _mm256_min_epu8(_mm256_max_epu8(rows4(src, stride, y + dy[k]), lo), hi);
        // Rows y and y + 2 from the low bytes of each lane, y + 1 and y + 3
        // from the high ones.
        __m256i out[2];
        for (int h = 0; h < 2; ++h) {
            auto wide = [&](__m256i v) { return h ? _mm256_unpackhi_epi8(v, zero) : _mm256_unpacklo_epi8(v, zero); };
            const __m256i c16 = wide(c);
            const __m256i near = _mm256_slli_epi16(_mm256_add_epi16(wide(n[1]), wide(n[2])), 2);
            const __m256i centre = _mm256_add_epi16(_mm256_slli_epi16(c16, 2), _mm256_add_epi16(c16, c16));
            __m256i s = _mm256_add_epi16(_mm256_add_epi16(wide(n[0]), wide(n[3])), _mm256_set1_epi16(8));
            out[h] = _mm256_srli_epi16(_mm256_add_epi16(_mm256_add_epi16(s, near), centre), 4);
        }
        store(y, out);
    }
}

}  // namespace

void kivoe_jndfilt8x8_avx2(const uint8_t *src, int32_t stride, int16_t *blk) {
    filter(src, stride, [blk](int y, const __m256i *out) {
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(blk + 8 * y), _mm256_permute2x128_si256(out[0], out[1], 0x20));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(blk + 8 * y + 16), _mm256_permute2x128_si256(out[0], out[1], 0x31));
    });
}

void kivoe_jndfilt8x8_u8_avx2(const uint8_t *src, int32_t stride, uint8_t *dst) {
    filter(src, stride, [dst](int y, const __m256i *out) {
        // Rows y, y + 1 in the low lane, y + 2, y + 3 in the high one.
        const __m256i b = _mm256_packus_epi16(out[0], out[1]);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + 8 * y), b);
    });
}
