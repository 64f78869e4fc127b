// Plain row kernels of the resizer's small-ratio paths and the table that
// picks their variants.
#include "kivo.h"
#include "xelo/irsz_dsp.h"

namespace xelo {

void irsz_up2_from(const uint8_t *s, uint16_t *out, int k, int n) {
    for (; k + 1 < n; ++k) {
        out[2 * k + 1] = uint16_t(3 * s[k] + s[k + 1]);
        out[2 * k + 2] = uint16_t(s[k] + 3 * s[k + 1]);
    }
    out[2 * n - 1] = uint16_t(4 * s[n - 1]);
}

void irsz_up2_c(const uint8_t *s, uint16_t *out, int n) {
    out[0] = uint16_t(4 * s[0]);
    irsz_up2_from(s, out, 0, n);
}

void irsz_down2_c(const uint8_t *s, uint16_t *out, int n) {
    for (int j = 0; j < n; ++j) out[j] = uint16_t(s[2 * j] + s[2 * j + 1]);
}

void irsz_widen_c(const uint8_t *s, uint16_t *out, int n) {
    for (int j = 0; j < n; ++j) out[j] = s[j];
}

void irsz_mix_c(const uint16_t *a, const uint16_t *b, uint8_t *out, int n, int wa, int wb, int shift) {
    const uint32_t half = 1u << (shift - 1);
    for (int x = 0; x < n; ++x) out[x] = uint8_t((uint32_t(wa) * a[x] + uint32_t(wb) * b[x] + half) >> shift);
}

namespace {

// Feature levels, each with its own table: plain, then SSE2 or NEON. The
// kernels are loads, adds and stores of short rows: AVX2 would not pay.
struct Tables {
    IrszDsp level[2];
};

Tables build_tables() {
    Tables t;
    for (IrszDsp &d : t.level) d = {irsz_up2_c, irsz_down2_c, irsz_widen_c, irsz_mix_c};
#if defined(KIVO_ARCH_x86)
    irsz_init_sse2(&t.level[1]);
#elif defined(KIVO_ARCH_arm)
    irsz_init_neon(&t.level[1]);
#endif
    return t;
}

}  // namespace

const IrszDsp &irsz_dsp(uint32_t cpu_flags) {
    static const Tables tables = build_tables();  // built once, by the first caller
#if defined(KIVO_ARCH_x86)
    const bool simd = (cpu_flags & KIVO_CPU_SSE2) != 0;
#elif defined(KIVO_ARCH_arm)
    const bool simd = (cpu_flags & KIVO_CPU_NEON) != 0;
#else
    const bool simd = false;
#endif
    return tables.level[simd ? 1 : 0];
}

}  // namespace xelo
