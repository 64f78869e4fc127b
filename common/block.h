// Clearing and copying one block of 64 coefficients with vector moves.
// Compilers turn a 128-byte memset into rep stos on x86-64, and a 128-byte
// memset or memcpy into a library call on ARMv7: slow once per block.
#ifndef KIVO_COMMON_BLOCK_H
#define KIVO_COMMON_BLOCK_H

#include <cstdint>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

namespace kivo {

inline void clear_block(int16_t *blk) {
#if defined(__SSE2__)
    const __m128i z = _mm_setzero_si128();
    for (int i = 0; i < 64; i += 8) _mm_storeu_si128(reinterpret_cast<__m128i *>(blk + i), z);
#elif defined(__ARM_NEON) && !defined(__aarch64__)
    // Four 32-byte stores through one advancing pointer: with intrinsics
    // GCC kept the eight row addresses on the stack inside block loops.
    asm volatile(
        "vmov.i16 q8, #0\n\t"
        "vmov.i16 q9, #0\n\t"
        "vst1.16 {d16 - d19}, [%[p]]!\n\t"
        "vst1.16 {d16 - d19}, [%[p]]!\n\t"
        "vst1.16 {d16 - d19}, [%[p]]!\n\t"
        "vst1.16 {d16 - d19}, [%[p]]\n\t"
        : [p] "+r"(blk)
        :
        : "memory", "d16", "d17", "d18", "d19");
#elif defined(__ARM_NEON)
    const int16x8_t z = vdupq_n_s16(0);
    for (int i = 0; i < 64; i += 8) vst1q_s16(blk + i, z);
#else
    std::memset(blk, 0, 64 * sizeof(int16_t));
#endif
}

inline void copy_block(int16_t *dst, const int16_t *src) {
#if defined(__SSE2__)
    for (int i = 0; i < 64; i += 8)
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i),
                         _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i)));
#elif defined(__ARM_NEON)
    for (int i = 0; i < 64; i += 8) vst1q_s16(dst + i, vld1q_s16(src + i));
#else
    std::memcpy(dst, src, 64 * sizeof(int16_t));
#endif
}

}  // namespace kivo

#endif
