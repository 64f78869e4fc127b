// AVX2 statistics pass of the perceptual selection at level 1, bit-exact to
// the plain kernel: a strip of analysis blocks is reduced to 2 x 2 means row
// pair by row pair across its width (two streams at a time, which the
// processor prefetches by itself, where a block at a time reads sixteen),
// then transformed two blocks at a time from that buffer, the magnitudes
// summed in registers.
#include <immintrin.h>

#include "encoder/enc_simd.h"
#include "encoder/fdct_avx2.h"

namespace {

// Blocks reduced into the buffer at a time (20 KiB of it), and blocks whose
// 16-bit sums (at most 1024 a block) are taken before they reach 2^16.
constexpr int kWide = 160, kChunk = 32;
// Row pairs read ahead of the one reduced.
constexpr int kAhead = 3;

// The 2 x 2 means of 32 samples of rows a and b (16 of them).
inline __m256i means(__m256i a, __m256i b) {
    const __m256i one = _mm256_set1_epi8(1);
    return _mm256_srli_epi16(_mm256_add_epi16(_mm256_maddubs_epi16(a, one), _mm256_maddubs_epi16(b, one)), 2);
}

// The columns of two 8 x 8 blocks whose rows r holds, block a's in the low
// 128 bits, block b's in the high ones.
inline void columns2(const __m256i r[8], __m256i x[8]) {
    __m256i t[8], u[8];
    for (int i = 0; i < 4; ++i) {
        t[2 * i] = _mm256_unpacklo_epi16(r[2 * i], r[2 * i + 1]);
        t[2 * i + 1] = _mm256_unpackhi_epi16(r[2 * i], r[2 * i + 1]);
    }
    for (int i = 0; i < 2; ++i) {
        u[4 * i] = _mm256_unpacklo_epi32(t[4 * i], t[4 * i + 2]);
        u[4 * i + 1] = _mm256_unpackhi_epi32(t[4 * i], t[4 * i + 2]);
        u[4 * i + 2] = _mm256_unpacklo_epi32(t[4 * i + 1], t[4 * i + 3]);
        u[4 * i + 3] = _mm256_unpackhi_epi32(t[4 * i + 1], t[4 * i + 3]);
    }
    for (int i = 0; i < 4; ++i) {
        x[2 * i] = _mm256_unpacklo_epi64(u[i], u[i + 4]);
        x[2 * i + 1] = _mm256_unpackhi_epi64(u[i], u[i + 4]);
    }
}

}  // namespace

void kivoe_box2_strip_avx2(const uint8_t *src, int32_t stride, int32_t n, uint32_t *acc) {
    alignas(32) int16_t buf[8][8 * kWide];
    // Lane 0 of the first vector: the DC coefficient, which adds its mean
    // level (F + 1024) >> 3 instead of its magnitude.
    const __m256i dc_lane = _mm256_setr_epi16(-1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    for (int32_t b0 = 0; b0 < n; b0 += kWide) {
        const int32_t nb = n - b0 < kWide ? n - b0 : kWide;
        for (int j = 0; j < 8; ++j) {
            const uint8_t *r0 = src + static_cast<ptrdiff_t>(2 * j) * stride + 16 * b0, *r1 = r0 + stride;
            // The row pair kAhead on (past the strip's last, the next
            // strip's), asked for a line at a time while this one is
            // reduced; the addresses are formed as integers, a prefetch past
            // the plane does not fault.
            const uintptr_t next = reinterpret_cast<uintptr_t>(r0) + kAhead * 2 * static_cast<uintptr_t>(static_cast<ptrdiff_t>(stride));
            int32_t k = 0;
            for (; k + 2 <= nb; k += 2) {
                if ((k & 3) == 0) {
                    __builtin_prefetch(reinterpret_cast<const void *>(next + 16 * static_cast<uintptr_t>(k)));
                    __builtin_prefetch(reinterpret_cast<const void *>(next + static_cast<uintptr_t>(static_cast<ptrdiff_t>(stride)) +
                                                                      16 * static_cast<uintptr_t>(k)));
                }
                const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(r0 + 16 * k));
                const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(r1 + 16 * k));
                _mm256_store_si256(reinterpret_cast<__m256i *>(&buf[j][8 * k]), means(a, b));
            }
            if (k < nb) {
                const __m256i a = _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(r0 + 16 * k)));
                const __m256i b = _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(r1 + 16 * k)));
                _mm_store_si128(reinterpret_cast<__m128i *>(&buf[j][8 * k]), _mm256_castsi256_si128(means(a, b)));
            }
        }
        for (int32_t c0 = 0; c0 < nb; c0 += kChunk) {
            const int32_t end = nb - c0 < kChunk ? nb : c0 + kChunk;
            __m256i sum[4] = {_mm256_setzero_si256(), _mm256_setzero_si256(), _mm256_setzero_si256(),
                              _mm256_setzero_si256()};
            auto add = [&](const __m256i c[4]) {
                const __m256i mean = _mm256_srai_epi16(_mm256_add_epi16(c[0], _mm256_set1_epi16(1024)), 3);
                sum[0] = _mm256_add_epi16(sum[0], _mm256_blendv_epi8(_mm256_abs_epi16(c[0]), mean, dc_lane));
                for (int i = 1; i < 4; ++i) sum[i] = _mm256_add_epi16(sum[i], _mm256_abs_epi16(c[i]));
            };
            int32_t k = c0;
            for (; k + 2 <= end; k += 2) {
                __m256i r[8], x[8];
                for (int j = 0; j < 8; ++j) r[j] = _mm256_load_si256(reinterpret_cast<const __m256i *>(&buf[j][8 * k]));
                columns2(r, x);
                __m256i a[4], b[4];
                fdct8_columns2(x, a, b);
                add(a);
                add(b);
            }
            if (k < end) {
                __m128i x[8];
                load_columns(&buf[0][8 * k], 8 * kWide, x);
                __m256i c[4];
                fdct8_columns(x, c);
                add(c);
            }
            for (int i = 0; i < 4; ++i) {
                __m256i *p = reinterpret_cast<__m256i *>(acc + 16 * i);
                const __m256i lo = _mm256_cvtepu16_epi32(_mm256_castsi256_si128(sum[i]));
                const __m256i hi = _mm256_cvtepu16_epi32(_mm256_extracti128_si256(sum[i], 1));
                _mm256_storeu_si256(p, _mm256_add_epi32(_mm256_loadu_si256(p), lo));
                _mm256_storeu_si256(p + 1, _mm256_add_epi32(_mm256_loadu_si256(p + 1), hi));
            }
        }
    }
}
