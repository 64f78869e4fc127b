// AVX2 JND filter, four output rows per step, bit-exact to the plain one.
#include <immintrin.h>


#include "encoder/enc_simd.h"
#include "encoder/jnd_avx2.h"

void kivoe_jndfilt8x8_avx2(const uint8_t *src, int32_t stride, int16_t *blk) {
    __m256i b[2];
    jnd_filter_rows(src, stride, b);
    const __m256i zero = _mm256_setzero_si256();
    for (int y = 0; y < 2; ++y) {
        // Rows 4 y, 4 y + 1 and then 4 y + 2, 4 y + 3, widened.
        const __m256i rows = _mm256_permute4x64_epi64(b[y], _MM_SHUFFLE(3, 1, 2, 0));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(blk + 32 * y), _mm256_unpacklo_epi8(rows, zero));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(blk + 32 * y + 16), _mm256_unpackhi_epi8(rows, zero));
    }
}

void kivoe_jndfilt8x8_u8_avx2(const uint8_t *src, int32_t stride, uint8_t *dst) {
    __m256i b[2];
    jnd_filter_rows(src, stride, b);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst), b[0]);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + 32), b[1]);
}
