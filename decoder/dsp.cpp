// Per-scale kernel tables of the decoder: the plain kernels first, then each
// slot that has a faster variant is overwritten, climbing the CPU feature
// ladder as far as the flags allow.
#include <cstring>

#include "decoder/idct_simd.h"
#include "decoder/kivod_int.h"

// Indexed by the scale denominator; slots 3, 5, 6, 7 are unused.
const uint8_t tbl_blk_shift[9] = {3, 3, 2, 0, 1, 0, 0, 0, 0};

namespace {

void init_plain(kivod_dsp *dsp) {
    std::memset(dsp, 0, sizeof(*dsp));
    dsp->idct[0] = kivod_idct8;
    dsp->idct[1] = kivod_idct8;
    dsp->idct[2] = kivod_idct4;
    dsp->idct[4] = kivod_idct2;
    dsp->idct[8] = kivod_idct1;
    dsp->idct_dc[0] = kivod_idct8_dc;
    dsp->idct_dc[1] = kivod_idct8_dc;
    dsp->idct_dc[2] = kivod_idct4_dc;
    dsp->idct_dc[4] = kivod_idct2_dc;
    dsp->idct_dc[8] = kivod_idct1;
    dsp->vld_ac[0] = kivod_vld_ac8;
    dsp->vld_ac[1] = kivod_vld_ac8;
    dsp->vld_ac[2] = kivod_vld_ac4;
    dsp->vld_ac[4] = kivod_vld_ac2;
    dsp->vld_ac[8] = kivod_vld_ac1;
    for (int s = 0; s <= 8; s = s ? 2 * s : 1) dsp->vld_blk[s] = kivod_vld_blk_for(s, false);
    dsp->skim_mcu = kivod_skim_mcu;
}

// Overwrites the slots that have a faster variant and returns the names of
// the variants chosen. The DC-only and 1x1 kernels are one scalar value
// replicated with whole-row stores; they stay plain on every architecture.
const char *init_simd(kivod_dsp *dsp, uint32_t flags) {
    const char *choice = "idct8 c, idct4 c, idct2 c, idct1 c, dc c, blocks c";
#if defined(KIVO_ARCH_x86)
    if (!(flags & KIVO_CPU_SSE2)) return choice;
    dsp->idct[0] = kivod_idct8_sse2;
    dsp->idct[1] = kivod_idct8_sse2;
    dsp->idct[2] = kivod_idct4_sse2;
    dsp->idct[4] = kivod_idct2_sse2;
    choice = "idct8 sse2, idct4 sse2, idct2 sse2, idct1 c, dc c, blocks c";

    if (!(flags & KIVO_CPU_AVX2)) return choice;
    dsp->idct[0] = kivod_idct8_avx2;
    dsp->idct[1] = kivod_idct8_avx2;
    choice = "idct8 avx2, idct4 sse2, idct2 sse2, idct1 c, dc c, blocks c";
#elif defined(KIVO_ARCH_arm)
    if (!(flags & KIVO_CPU_NEON)) return choice;
    dsp->idct[0] = kivod_idct8_neon;
    dsp->idct[1] = kivod_idct8_neon;
    dsp->idct[2] = kivod_idct4_neon;
    dsp->idct[4] = kivod_idct2_neon;
    for (int s = 0; s <= 8; s = s ? 2 * s : 1) dsp->vld_blk[s] = kivod_vld_blk_arm_for(s);
    choice = "idct8 neon, idct4 neon, idct2 neon, idct1 c, dc c, blocks arm";
#else
    (void)dsp;
    (void)flags;
#endif
    return choice;
}

}  // namespace

void kivod_dsp_init(kivod_dsp *dsp, uint32_t cpu_flags) {
    init_plain(dsp);
    init_simd(dsp, cpu_flags);
}

const char *kivod_dsp_describe(uint32_t cpu_flags) {
    kivod_dsp scratch;
    init_plain(&scratch);
    return init_simd(&scratch, cpu_flags);
}
