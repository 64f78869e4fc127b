// Inverse DCT constants and the SIMD variants of the kernels declared in
// kivod_int.h. Each variant has the plain kernel's signature and results;
// only the suffix names the instruction set. A variant exists only in builds
// for its architecture (KIVO_ARCH_x86, KIVO_ARCH_arm).
#ifndef KIVO_DECODER_IDCT_SIMD_H
#define KIVO_DECODER_IDCT_SIMD_H

#include <cstdint>

namespace kivo {
namespace idct {

// 2048 * sqrt(2) * cos(k * pi / 16), rounded.
constexpr uint32_t kW1 = 2841;
constexpr uint32_t kW2 = 2676;
constexpr uint32_t kW3 = 2408;
constexpr uint32_t kW5 = 1609;
constexpr uint32_t kW6 = 1108;
constexpr uint32_t kW7 = 565;
// 256 / sqrt(2), rounded: the rotation of the odd part.
constexpr uint32_t kC = 181;

}  // namespace idct
}  // namespace kivo

#if defined(KIVO_ARCH_x86)
void kivod_idct8_sse2(const int16_t *coef, int32_t stride, uint8_t *dst);
void kivod_idct4_sse2(const int16_t *coef, int32_t stride, uint8_t *dst);
void kivod_idct2_sse2(const int16_t *coef, int32_t stride, uint8_t *dst);
void kivod_idct8_avx2(const int16_t *coef, int32_t stride, uint8_t *dst);
#endif

#if defined(KIVO_ARCH_arm)
void kivod_idct8_neon(const int16_t *coef, int32_t stride, uint8_t *dst);
void kivod_idct4_neon(const int16_t *coef, int32_t stride, uint8_t *dst);
void kivod_idct2_neon(const int16_t *coef, int32_t stride, uint8_t *dst);
#endif

#endif
