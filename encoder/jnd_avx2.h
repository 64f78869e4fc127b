// The AVX2 JND filter as a step of AVX2 kernels: the filtered block in
// registers, bit-exact to the plain filter. Internal linkage: only AVX2
// files include it.
#ifndef KIVO_ENCODER_JND_AVX2_H
#define KIVO_ENCODER_JND_AVX2_H

#include <immintrin.h>


#include "encoder/jnd_steps.h"

namespace {

inline __m256i jnd_table(const uint8_t (&t)[16]) {
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(t)));
}

// The filtered rows of the block at src (rows stride bytes apart; the
// filter reads two more above and below) as bytes: out[0] holds rows 0 and
// 1 in its low lane, 2 and 3 in its high one, out[1] rows 4 to 7 alike.
__attribute__((always_inline)) inline void jnd_filter_rows(const uint8_t *src, int32_t stride, __m256i out[2]) {
    const __m256i nibble = _mm256_set1_epi8(15), eight = _mm256_set1_epi8(8);
    const __m256i up_base = jnd_table(kJndUp.base), up_step = jnd_table(kJndUp.step);
    const __m256i down_base = jnd_table(kJndDown.base), down_step = jnd_table(kJndDown.step);
    // Rows -2 to 9; g[s + 2] holds rows s, s + 1 (low lane) and s + 2,
    // s + 3 (high lane).
    __m128i r[12], p[11];
    for (int i = 0; i < 12; ++i)
        r[i] = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(src + static_cast<ptrdiff_t>(i - 2) * stride));
    for (int i = 0; i < 11; ++i) p[i] = _mm_unpacklo_epi64(r[i], r[i + 1]);
    __m256i g[9];
    for (int i = 0; i < 9; ++i) g[i] = _mm256_inserti128_si256(_mm256_castsi128_si256(p[i]), p[i + 2], 1);
    // Weights for the byte pairs (n-2, n-1), (c, n+1), (n+2, 8).
    const __m256i w0 = _mm256_set1_epi16(0x0401), w1 = _mm256_set1_epi16(0x0406), w2 = _mm256_set1_epi16(0x0101);
    for (int y = 0; y < 8; y += 4) {
        const __m256i c = g[y + 2];
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
        const int at[4] = {y, y + 1, y + 3, y + 4};
        for (int k = 0; k < 4; ++k) n[k] = _mm256_min_epu8(_mm256_max_epu8(g[at[k]], lo), hi);
        // (n-2 + 4 n-1 + 6 c + 4 n+1 + n+2 + 8) >> 4 from three byte-pair
        // products: rows y and y + 2 from the low bytes of each lane, y + 1
        // and y + 3 from the high ones.
        __m256i h[2];
        for (int k = 0; k < 2; ++k) {
            auto pairs = [k](__m256i a, __m256i b) { return k ? _mm256_unpackhi_epi8(a, b) : _mm256_unpacklo_epi8(a, b); };
            const __m256i s = _mm256_add_epi16(_mm256_maddubs_epi16(pairs(n[0], n[1]), w0),
                                               _mm256_maddubs_epi16(pairs(c, n[2]), w1));
            h[k] = _mm256_srli_epi16(_mm256_add_epi16(s, _mm256_maddubs_epi16(pairs(n[3], eight), w2)), 4);
        }
        out[y / 4] = _mm256_packus_epi16(h[0], h[1]);
    }
}

}  // namespace

#endif
