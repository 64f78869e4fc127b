// AVX2 JND suppression and offset update, bit-exact to the plain ones.
#include <immintrin.h>

#include "encoder/enc_simd.h"
#include "encoder/switches_avx2.h"

void kivoe_jnd_suppress_avx2(int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                             const uint8_t *thr) {
    suppress_body<Avx2>(levels, coef, q, recip, thr);
}

void kivoe_update_offset_avx2(const int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                              uint16_t *offset) {
    update_body<Avx2>(levels, coef, q, recip, offset);
}
