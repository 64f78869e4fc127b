// Plain inverse DCTs: the reference the SIMD variants must match bit for bit.
//
// One integer 8x8 transform (separable Chen-Wang): a horizontal pass over the
// rows with 11 fraction bits, results narrowed to 16 bits, then a vertical
// pass over the columns, results shifted down by 14, narrowed to 16 bits,
// level-shifted by 128 and clamped to 0..255. The scaled routines compute the
// same transform at every 2nd, 4th or 8th sample from the low-frequency corner.
//
// The 32-bit intermediates wrap modulo 2^32 (extreme coefficients overflow
// them; valid JPEG data never does). That is done in uint32_t so the code has
// no signed overflow; SIMD lanes wrap the same way, so every variant agrees.
#include <cstring>

#include "decoder/kivod_int.h"
#include "decoder/idct_simd.h"

namespace {

using kivo::idct::kW1;
using kivo::idct::kW2;
using kivo::idct::kW3;
using kivo::idct::kW5;
using kivo::idct::kW6;
using kivo::idct::kW7;
using kivo::idct::kC;

// Arithmetic shift right of a 32-bit two's complement pattern.
inline uint32_t asr(uint32_t v, int n) { return (v & 0x80000000u) ? ~(~v >> n) : v >> n; }

// Low 16 bits of a 32-bit pattern as a signed value.
inline int16_t lo16(uint32_t v) {
    const int32_t l = static_cast<int32_t>(v & 0xFFFFu);
    return static_cast<int16_t>(l < 0x8000 ? l : l - 0x10000);
}

// Sign-extends a 16-bit value into the 32-bit wrapping domain.
inline uint32_t w(int32_t v) { return static_cast<uint32_t>(v); }

// Final sample: 128 added to the 16-bit result, clamped to 0..255. Clamping
// the exact sum equals adding with 16-bit saturation and then clamping.
inline uint8_t to_pixel(int16_t v) {
    const int32_t s = v + 128;
    return static_cast<uint8_t>(s < 0 ? 0 : (s > 255 ? 255 : s));
}

// Horizontal pass over one row. Coefficients a routine does not read are
// passed as constant zeros; the compiler drops the arithmetic on them and on
// outputs that are not used.
inline void row_pass(const int16_t c[8], int16_t out[8]) {
    const uint32_t x0 = w(c[0]) * 2048u + 128u;
    const uint32_t x1 = w(c[4]) * 2048u;
    const uint32_t a = kW1 * w(c[1]) + kW7 * w(c[7]);
    const uint32_t b = kW7 * w(c[1]) - kW1 * w(c[7]);
    const uint32_t cc = kW3 * w(c[3]) + kW5 * w(c[5]);
    const uint32_t d = kW3 * w(c[5]) - kW5 * w(c[3]);
    const uint32_t e = kW2 * w(c[2]) + kW6 * w(c[6]);
    const uint32_t f = kW6 * w(c[2]) - kW2 * w(c[6]);
    const uint32_t s1 = a + cc, s4 = a - cc, s6 = b + d, s5 = b - d;
    const uint32_t p = x0 + x1, q = x0 - x1;
    const uint32_t t7 = p + e, t8 = p - e, t3 = q + f, t0 = q - f;
    const uint32_t g2 = asr(kC * (s4 + s5) + 128u, 8);
    const uint32_t g4 = asr(kC * (s4 - s5) + 128u, 8);
    out[0] = lo16(asr(t7 + s1, 8));
    out[1] = lo16(asr(t3 + g2, 8));
    out[2] = lo16(asr(t0 + g4, 8));
    out[3] = lo16(asr(t8 + s6, 8));
    out[4] = lo16(asr(t8 - s6, 8));
    out[5] = lo16(asr(t0 - g4, 8));
    out[6] = lo16(asr(t3 - g2, 8));
    out[7] = lo16(asr(t7 - s1, 8));
}

// Vertical pass over one column y[0..7] (top to bottom); each product pair is
// rounded to 8 fraction bits before the butterflies.
inline void col_pass(const int16_t y[8], int16_t out[8]) {
    const uint32_t x0 = w(y[0]) * 256u + 8192u;
    const uint32_t x1 = w(y[4]) * 256u;
    const uint32_t a = asr(kW1 * w(y[1]) + kW7 * w(y[7]) + 4u, 3);
    const uint32_t b = asr(kW7 * w(y[1]) - kW1 * w(y[7]) + 4u, 3);
    const uint32_t cc = asr(kW3 * w(y[3]) + kW5 * w(y[5]) + 4u, 3);
    const uint32_t d = asr(kW3 * w(y[5]) - kW5 * w(y[3]) + 4u, 3);
    const uint32_t e = asr(kW2 * w(y[2]) + kW6 * w(y[6]) + 4u, 3);
    const uint32_t f = asr(kW6 * w(y[2]) - kW2 * w(y[6]) + 4u, 3);
    const uint32_t s1 = a + cc, s4 = a - cc, s6 = b + d, s5 = b - d;
    const uint32_t p = x0 + x1, q = x0 - x1;
    const uint32_t t7 = p + e, t8 = p - e, t3 = q + f, t0 = q - f;
    const uint32_t g2 = asr(kC * (s4 + s5) + 128u, 8);
    const uint32_t g4 = asr(kC * (s4 - s5) + 128u, 8);
    out[0] = lo16(asr(t7 + s1, 14));
    out[1] = lo16(asr(t3 + g2, 14));
    out[2] = lo16(asr(t0 + g4, 14));
    out[3] = lo16(asr(t8 + s6, 14));
    out[4] = lo16(asr(t8 - s6, 14));
    out[5] = lo16(asr(t0 - g4, 14));
    out[6] = lo16(asr(t3 - g2, 14));
    out[7] = lo16(asr(t7 - s1, 14));
}

// The 8x8 transform restricted to the top-left n x n coefficients (n = 8, 4
// or 2), sampled at every (8/n)-th row and column. Rows n..7 are zero and give
// zero horizontal results, so only the first n rows are transformed.
template <int n>
inline void idct_corner(const int16_t *coef, int32_t stride, uint8_t *dst) {
    constexpr int step = 8 / n;
    int16_t tmp[8][8] = {};
    for (int i = 0; i < n; i++) {
        int16_t c[8] = {};
        for (int k = 0; k < n; k++) c[k] = coef[i * 8 + k];
        row_pass(c, tmp[i]);
    }
    for (int j = 0; j < 8; j += step) {
        int16_t y[8] = {};
        for (int i = 0; i < n; i++) y[i] = tmp[i][j];
        int16_t out[8];
        col_pass(y, out);
        for (int i = 0; i < 8; i += step) dst[static_cast<ptrdiff_t>(i / step) * stride + j / step] = to_pixel(out[i]);
    }
}

inline uint8_t dc_value(int16_t c0) { return kivod_dc_value(c0); }

// Fills an n x n block with one value, one row store at a time (the row is
// one integer: a memset of a local row is a library call on ARMv7).
template <int n>
inline void fill_block(uint8_t v, int32_t stride, uint8_t *dst) {
    const uint64_t row = v * 0x0101010101010101ull;
    for (int i = 0; i < n; i++) std::memcpy(dst + static_cast<ptrdiff_t>(i) * stride, &row, n);
}

}  // namespace

void kivod_idct8(const int16_t *coef, int32_t stride, uint8_t *dst) {
    idct_corner<8>(coef, stride, dst);
}

void kivod_idct4(const int16_t *coef, int32_t stride, uint8_t *dst) {
    idct_corner<4>(coef, stride, dst);
}

void kivod_idct2(const int16_t *coef, int32_t stride, uint8_t *dst) {
    idct_corner<2>(coef, stride, dst);
}

void kivod_idct1(const int16_t *coef, int32_t stride, uint8_t *dst) { dst[0] = dc_value(coef[0]); }

void kivod_idct8_dc(const int16_t *coef, int32_t stride, uint8_t *dst) {
    fill_block<8>(dc_value(coef[0]), stride, dst);
}

void kivod_idct4_dc(const int16_t *coef, int32_t stride, uint8_t *dst) {
    fill_block<4>(dc_value(coef[0]), stride, dst);
}

void kivod_idct2_dc(const int16_t *coef, int32_t stride, uint8_t *dst) {
    fill_block<2>(dc_value(coef[0]), stride, dst);
}
