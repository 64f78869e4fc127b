// CPU feature detection, done once, and the caller's mask over it.
#include <atomic>

#include "common/kivo_int.h"

#if defined(KIVO_ARCH_x86)
#include <cpuid.h>
#elif defined(KIVO_ARCH_arm)
#include <sys/auxv.h>
#ifndef HWCAP_NEON
#define HWCAP_NEON (1 << 12)
#endif
#endif

namespace {

uint32_t detect() {
    uint32_t flags = 0;
#if defined(KIVO_ARCH_x86)
    unsigned a, b, c, d;
    if (__get_cpuid(1, &a, &b, &c, &d)) {
        unsigned family = a >> 8 & 15;
        if (family == 15) family += a >> 20 & 255;
        if (d & bit_SSE2) flags |= KIVO_CPU_SSE2;
        if (c & bit_SSSE3) flags |= KIVO_CPU_SSSE3;
        if (c & bit_SSE4_1) flags |= KIVO_CPU_SSE41;
        // AVX2 also needs the OS to save the YMM registers.
        bool osxsave = (c & bit_OSXSAVE) != 0;
        if (osxsave && __get_cpuid_count(7, 0, &a, &b, &c, &d) && (b & bit_AVX2)) {
            unsigned lo, hi;
            __asm__("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
            if ((lo & 6) == 6) flags |= KIVO_CPU_AVX2;
            // AVX-512 also needs the opmask and all 32 ZMM registers saved
            // (bits 5 to 7). VBMI is asked for as well: the first
            // processors with AVX-512 lack it and lower their clock under
            // 512-bit work, where these kernels would lose.
            const unsigned avx512 = bit_AVX512F | bit_AVX512BW | bit_AVX512VL | bit_AVX512DQ;
            if ((lo & 0xE6) == 0xE6 && (b & avx512) == avx512 && (c & bit_AVX512VBMI)) flags |= KIVO_CPU_AVX512;
        }
        // AMD before family 19h extracts bits in microcode, slower than a loop.
        unsigned top = 0, vendor = 0;
        __get_cpuid(0, &top, &vendor, &c, &d);
        const bool slow_pext = vendor == 0x68747541u && family < 0x19;  // "Auth"enticAMD
        if (!slow_pext && __get_cpuid_count(7, 0, &a, &b, &c, &d) && (b & bit_BMI2)) flags |= KIVO_CPU_BMI2;
    }
#elif defined(KIVO_ARCH_arm)
    if (getauxval(AT_HWCAP) & HWCAP_NEON) flags |= KIVO_CPU_NEON;
#endif
    return flags;
}

std::atomic<uint32_t> g_mask{~0u};

}  // namespace

KIVO_EXPORT uint32_t kivo_cpu_detected(void) {
    static const uint32_t flags = detect();
    return flags;
}

KIVO_EXPORT uint32_t kivo_cpu_flags(void) { return kivo_cpu_detected() & g_mask.load(); }

KIVO_EXPORT void kivo_cpu_set_mask(uint32_t mask) { g_mask.store(mask); }
