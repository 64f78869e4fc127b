// AVX2 forward DCT, bit-exact to the plain transform.
#include "encoder/enc_simd.h"
#include "encoder/fdct_avx2.h"

void kivoe_fdct8_avx2(int16_t *blk) {
    __m256i rows[4];
    fdct8_rows(blk, rows);
    for (int k = 0; k < 4; ++k) _mm256_storeu_si256(reinterpret_cast<__m256i *>(blk + 16 * k), rows[k]);
}
