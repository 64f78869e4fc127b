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

// The filter on 32 centre samples c whose neighbours two and one rows
// above are m2 and m1, one and two rows below p1 and p2 (each at the same
// byte as its centre); the filtered samples come out where c holds them.
// Rows stand in 8-byte runs.
__attribute__((always_inline)) inline __m256i jnd_filter_vec(__m256i c, __m256i m2, __m256i m1, __m256i p1, __m256i p2) {
    const __m256i nibble = _mm256_set1_epi8(15), eight = _mm256_set1_epi8(8);
    // The step counts from the high nibble of c and the one step inside its
    // range.
    const __m256i idx = _mm256_and_si256(_mm256_srli_epi16(c, 4), nibble);
    auto count = [&](const uint8_t (&base)[16], const uint8_t (&step)[16]) {
        const __m256i t = _mm256_shuffle_epi8(jnd_table(step), idx);
        return _mm256_sub_epi8(_mm256_shuffle_epi8(jnd_table(base), idx), _mm256_cmpeq_epi8(_mm256_max_epu8(c, t), c));
    };
    // The band [c - d(c), min(255, c + a(c))] that neighbours are held to.
    const __m256i hi = _mm256_adds_epu8(c, count(kJndUp.base, kJndUp.step));
    const __m256i lo = _mm256_subs_epu8(c, count(kJndDown.base, kJndDown.step));
    const __m256i n[4] = {_mm256_min_epu8(_mm256_max_epu8(m2, lo), hi), _mm256_min_epu8(_mm256_max_epu8(m1, lo), hi),
                          _mm256_min_epu8(_mm256_max_epu8(p1, lo), hi), _mm256_min_epu8(_mm256_max_epu8(p2, lo), hi)};
    // Weights for the byte pairs (n-2, n-1), (c, n+1), (n+2, 8).
    const __m256i w0 = _mm256_set1_epi16(0x0401), w1 = _mm256_set1_epi16(0x0406), w2 = _mm256_set1_epi16(0x0101);
    // (n-2 + 4 n-1 + 6 c + 4 n+1 + n+2 + 8) >> 4 from three byte-pair
    // products, of the low 8 bytes of each lane, then of the high ones.
    __m256i h[2];
    for (int k = 0; k < 2; ++k) {
        auto pairs = [k](__m256i a, __m256i b) { return k ? _mm256_unpackhi_epi8(a, b) : _mm256_unpacklo_epi8(a, b); };
        const __m256i s = _mm256_add_epi16(_mm256_maddubs_epi16(pairs(n[0], n[1]), w0),
                                           _mm256_maddubs_epi16(pairs(c, n[2]), w1));
        h[k] = _mm256_srli_epi16(_mm256_add_epi16(s, _mm256_maddubs_epi16(pairs(n[3], eight), w2)), 4);
    }
    return _mm256_packus_epi16(h[0], h[1]);
}

// The filtered rows of the block at src (rows stride bytes apart; the
// filter reads two more above and below) as bytes: out[0] holds rows 0 and
// 1 in its low lane, 2 and 3 in its high one, out[1] rows 4 to 7 alike.
__attribute__((always_inline)) inline void jnd_filter_rows(const uint8_t *src, int32_t stride, __m256i out[2]) {
    // Rows -2 to 9; g[s + 2] holds rows s, s + 1 (low lane) and s + 2,
    // s + 3 (high lane).
    __m128i r[12], p[11];
    for (int i = 0; i < 12; ++i)
        r[i] = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(src + static_cast<ptrdiff_t>(i - 2) * stride));
    for (int i = 0; i < 11; ++i) p[i] = _mm_unpacklo_epi64(r[i], r[i + 1]);
    __m256i g[9];
    for (int i = 0; i < 9; ++i) g[i] = _mm256_inserti128_si256(_mm256_castsi128_si256(p[i]), p[i + 2], 1);
    for (int y = 0; y < 8; y += 4) out[y / 4] = jnd_filter_vec(g[y + 2], g[y], g[y + 1], g[y + 3], g[y + 4]);
}

// Rows s and s + 1 of the two blocks side by side at src and src + 8, 16
// bytes each, in the low and high lane of g[s + 2], for s = -2 to 8.
__attribute__((always_inline)) inline void jnd_pair_rows(const uint8_t *src, int32_t stride, __m256i g[11]) {
    for (int i = 0; i < 11; ++i) {
        const uint8_t *row = src + static_cast<ptrdiff_t>(i - 2) * stride;
        g[i] = _mm256_inserti128_si256(
            _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(row))),
            _mm_loadu_si128(reinterpret_cast<const __m128i *>(row + stride)), 1);
    }
}

// jnd_filter_rows of the two blocks side by side at src and src + 8, their
// rows filtered 16 bytes at a time.
__attribute__((always_inline)) inline void jnd_filter_pair_rows(const uint8_t *src, int32_t stride, __m256i a[2],
                                                                 __m256i b[2]) {
    __m256i g[11];
    jnd_pair_rows(src, stride, g);
    // f[y / 2]: rows y and y + 1 filtered, each block's 8 bytes side by side.
    __m256i f[4];
    for (int y = 0; y < 8; y += 2) f[y / 2] = jnd_filter_vec(g[y + 2], g[y], g[y + 1], g[y + 3], g[y + 4]);
    // Each block's rows 0 and 2 side by side in the low lane, 1 and 3 in
    // the high one, then in order.
    for (int i = 0; i < 2; ++i) {
        a[i] = _mm256_permute4x64_epi64(_mm256_unpacklo_epi64(f[2 * i], f[2 * i + 1]), _MM_SHUFFLE(3, 1, 2, 0));
        b[i] = _mm256_permute4x64_epi64(_mm256_unpackhi_epi64(f[2 * i], f[2 * i + 1]), _MM_SHUFFLE(3, 1, 2, 0));
    }
}

}  // namespace

#endif
