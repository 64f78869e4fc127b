// Row kernels of the resizer's small-ratio paths (doubling, halving, equal
// sides; see xelo_irsz.cpp) and their table. Horizontal kernels turn a row of
// samples into 16-bit sums in units of their own small denominator; the
// vertical kernel mixes two such rows and rounds to bytes. SIMD variants give
// the plain kernels' results for every n; they exist only in builds for
// their architecture.
#ifndef KIVO_XELO_IRSZ_DSP_H
#define KIVO_XELO_IRSZ_DSP_H

#include <cstdint>

namespace xelo {

// Doubling n samples into 2n quarters: out[0] = 4 s[0], out[2n-1] = 4 s[n-1],
// and for k < n-1 out[2k+1] = 3 s[k] + s[k+1], out[2k+2] = s[k] + 3 s[k+1].
using IrszUp2Fn = void (*)(const uint8_t *s, uint16_t *out, int n);
// Halving 2n samples into n pair sums, out[j] = s[2j] + s[2j+1]; or widening
// n samples, out[j] = s[j].
using IrszRowFn = void (*)(const uint8_t *s, uint16_t *out, int n);
// out[x] = (wa a[x] + wb b[x] + 2^(shift-1)) >> shift, 1 <= shift <= 8, for
// sums below 2^16.
using IrszMixFn = void (*)(const uint16_t *a, const uint16_t *b, uint8_t *out, int n, int wa, int wb, int shift);

struct IrszDsp {
    IrszUp2Fn up2;
    IrszRowFn down2;
    IrszRowFn widen;
    IrszMixFn mix;
};

// The table for the given CPU flags: plain kernels, each slot with a variant
// the flags allow overwritten. Built once, never changed afterwards.
const IrszDsp &irsz_dsp(uint32_t cpu_flags);

// Plain kernels. The pairs of up2 from k on, then its last sample: the
// SIMD variants finish their rows with it.
void irsz_up2_from(const uint8_t *s, uint16_t *out, int k, int n);
void irsz_up2_c(const uint8_t *s, uint16_t *out, int n);
void irsz_down2_c(const uint8_t *s, uint16_t *out, int n);
void irsz_widen_c(const uint8_t *s, uint16_t *out, int n);
void irsz_mix_c(const uint16_t *a, const uint16_t *b, uint8_t *out, int n, int wa, int wb, int shift);

#if defined(KIVO_ARCH_x86)
void irsz_init_sse2(IrszDsp *dsp);
#elif defined(KIVO_ARCH_arm)
void irsz_init_neon(IrszDsp *dsp);
#endif

}  // namespace xelo

#endif
