// Encoder kernel slots: the plain kernels first, then the best variant the
// CPU flags allow.
#include "encoder/enc_simd.h"

void kivoe_dsp_init(kivoe_proc *proc, uint32_t cpu_flags) {
    proc->fdct8 = kivoe_fdct8;
    proc->quant = kivoe_quant;
    proc->quant_mask = kivoe_quant_mask;
    proc->fdct_quant_mask = kivoe_fdct_quant_mask;
    proc->fdct_quant_samples = nullptr;
    proc->quant_rdoq = kivoe_quant_rdoq;
    proc->jndfilt = kivoe_jndfilt8x8;
    proc->planes = kivoe_planes_c;
    proc->refine_count = kivoe_refine_count;
    proc->refine_write = kivoe_refine_write;
    proc->jnd_suppress = kivoe_jnd_suppress;
    proc->update_offset = kivoe_update_offset;
    proc->levels_mask = kivoe_levels_mask;
    proc->quant_kept = nullptr;
    proc->fdct_quant_kept_samples = nullptr;
    proc->jnd_fdct_quant_kept = nullptr;
    proc->fdct_quant_kept2 = nullptr;
    proc->jnd_fdct_quant_kept2 = nullptr;
    proc->jnd_fdct_quant_kept4 = nullptr;
    proc->fdct_quant_samples2 = nullptr;
    proc->jndfilt_u8 = kivoe_jndfilt8x8_u8;
    proc->box2 = kivoe_box2;
    proc->abs_acc = kivoe_abs_acc;
    proc->box2_strip = nullptr;
#if defined(KIVO_ARCH_x86)
    if (!(cpu_flags & KIVO_CPU_SSE2)) return;
    proc->fdct8 = kivoe_fdct8_sse2;
    proc->quant = kivoe_quant_sse2;
    proc->quant_mask = kivoe_quant_mask_sse2;
    proc->fdct_quant_mask = kivoe_fdct_quant_mask_sse2;
    proc->quant_rdoq = kivoe_quant_rdoq_sse2;
    proc->jndfilt = kivoe_jndfilt8x8_sse2;
    proc->planes = kivoe_planes_sse2;
    proc->jnd_suppress = kivoe_jnd_suppress_sse2;
    proc->update_offset = kivoe_update_offset_sse2;
    proc->box2 = kivoe_box2_sse2;
    proc->abs_acc = kivoe_abs_acc_sse2;
    if (!(cpu_flags & KIVO_CPU_AVX2)) return;
    proc->fdct8 = kivoe_fdct8_avx2;
    proc->quant = kivoe_quant_avx2;
    proc->quant_mask = kivoe_quant_mask_avx2;
    proc->fdct_quant_mask = kivoe_fdct_quant_mask_avx2;
    proc->fdct_quant_samples = kivoe_fdct_quant_samples_avx2;
    proc->quant_rdoq = kivoe_quant_rdoq_avx2;
    proc->planes = kivoe_planes_avx2;
    proc->jndfilt = kivoe_jndfilt8x8_avx2;
    proc->jndfilt_u8 = kivoe_jndfilt8x8_u8_avx2;
    proc->jnd_suppress = kivoe_jnd_suppress_avx2;
    proc->update_offset = kivoe_update_offset_avx2;
    proc->levels_mask = kivoe_levels_mask_avx2;
    proc->quant_kept = kivoe_quant_kept_avx2;
    proc->fdct_quant_kept_samples = kivoe_fdct_quant_kept_samples_avx2;
    proc->jnd_fdct_quant_kept = kivoe_jnd_fdct_quant_kept_avx2;
    proc->fdct_quant_kept2 = kivoe_fdct_quant_kept2_avx2;
    proc->jnd_fdct_quant_kept2 = kivoe_jnd_fdct_quant_kept2_avx2;
    proc->jnd_fdct_quant_kept4 = kivoe_jnd_fdct_quant_kept4_avx2;
    proc->box2_strip = kivoe_box2_strip_avx2;
    if (cpu_flags & KIVO_CPU_BMI2) {
        proc->planes = kivoe_planes_bmi2;
        proc->refine_count = kivoe_refine_count_bmi2;
        proc->refine_write = kivoe_refine_write_bmi2;
    }
    if (!(cpu_flags & KIVO_CPU_AVX512)) return;
    proc->fdct_quant_samples = kivoe_fdct_quant_samples_avx512;
    proc->fdct_quant_kept_samples = kivoe_fdct_quant_kept_samples_avx512;
    proc->jnd_fdct_quant_kept = kivoe_jnd_fdct_quant_kept_avx512;
    proc->fdct_quant_kept2 = kivoe_fdct_quant_kept2_avx512;
    proc->jnd_fdct_quant_kept2 = kivoe_jnd_fdct_quant_kept2_avx512;
    proc->jnd_fdct_quant_kept4 = kivoe_jnd_fdct_quant_kept4_avx512;
    proc->fdct_quant_samples2 = kivoe_fdct_quant_kept2_avx512;
    proc->box2_strip = kivoe_box2_strip_avx512;
#elif defined(KIVO_ARCH_arm)
    if (!(cpu_flags & KIVO_CPU_NEON)) return;
    proc->fdct8 = kivoe_fdct8_neon;
    proc->quant = kivoe_quant_neon;
    proc->quant_mask = kivoe_quant_mask_neon;
    proc->fdct_quant_mask = kivoe_fdct_quant_mask_neon;
    proc->fdct_quant_samples = kivoe_fdct_quant_samples_neon;
    proc->quant_rdoq = kivoe_quant_rdoq_neon;
    proc->jndfilt = kivoe_jndfilt8x8_neon;
    proc->planes = kivoe_planes_neon;
    proc->jnd_suppress = kivoe_jnd_suppress_neon;
    proc->update_offset = kivoe_update_offset_neon;
    proc->box2 = kivoe_box2_neon;
    proc->abs_acc = kivoe_abs_acc_neon;
    proc->fdct_quant_kept_samples = kivoe_fdct_quant_kept_samples_neon;
    proc->jndfilt_u8 = kivoe_jndfilt8x8_u8_neon;
    proc->jnd_fdct_quant_kept = kivoe_jnd_fdct_quant_kept_neon;
    proc->fdct_quant_kept2 = kivoe_fdct_quant_kept2_neon;
    proc->jnd_fdct_quant_kept4 = kivoe_jnd_fdct_quant_kept4_neon;
    // jnd_fdct_quant_kept2 stays null: the picture loop pairs filtered
    // blocks at a cost above what two blocks in one call save here.
    proc->box2_strip = kivoe_box2_strip_neon;
#else
    (void)cpu_flags;
#endif
}

const char *kivoe_dsp_describe(uint32_t cpu_flags) {
#if defined(KIVO_ARCH_x86)
    if ((cpu_flags & KIVO_CPU_AVX2) && (cpu_flags & KIVO_CPU_AVX512)) return cpu_flags & KIVO_CPU_BMI2 ? "fdct8 avx2, quant avx2, quant_rdoq avx2, jndfilt avx2, planes bmi2, refine bmi2, quant_mask avx2, fdct_quant_mask avx2, fdct_quant_samples avx512, jnd_suppress avx2, update_offset avx2, levels_mask avx2, quant_kept avx2, fdct_quant_kept_samples avx512, jnd_fdct_quant_kept avx512, fdct_quant_kept2 avx512, jnd_fdct_quant_kept2 avx512, jnd_fdct_quant_kept4 avx512, fdct_quant_samples2 avx512, jndfilt_u8 avx2, box2 sse2, abs_acc sse2, box2_strip avx512" : "fdct8 avx2, quant avx2, quant_rdoq avx2, jndfilt avx2, planes avx2, refine c, quant_mask avx2, fdct_quant_mask avx2, fdct_quant_samples avx512, jnd_suppress avx2, update_offset avx2, levels_mask avx2, quant_kept avx2, fdct_quant_kept_samples avx512, jnd_fdct_quant_kept avx512, fdct_quant_kept2 avx512, jnd_fdct_quant_kept2 avx512, jnd_fdct_quant_kept4 avx512, fdct_quant_samples2 avx512, jndfilt_u8 avx2, box2 sse2, abs_acc sse2, box2_strip avx512";
    if (cpu_flags & KIVO_CPU_AVX2) return cpu_flags & KIVO_CPU_BMI2 ? "fdct8 avx2, quant avx2, quant_rdoq avx2, jndfilt avx2, planes bmi2, refine bmi2, quant_mask avx2, fdct_quant_mask avx2, fdct_quant_samples avx2, jnd_suppress avx2, update_offset avx2, levels_mask avx2, quant_kept avx2, fdct_quant_kept_samples avx2, jnd_fdct_quant_kept avx2, fdct_quant_kept2 avx2, jnd_fdct_quant_kept2 avx2, jnd_fdct_quant_kept4 avx2, jndfilt_u8 avx2, box2 sse2, abs_acc sse2, box2_strip avx2" : "fdct8 avx2, quant avx2, quant_rdoq avx2, jndfilt avx2, planes avx2, refine c, quant_mask avx2, fdct_quant_mask avx2, fdct_quant_samples avx2, jnd_suppress avx2, update_offset avx2, levels_mask avx2, quant_kept avx2, fdct_quant_kept_samples avx2, jnd_fdct_quant_kept avx2, fdct_quant_kept2 avx2, jnd_fdct_quant_kept2 avx2, jnd_fdct_quant_kept4 avx2, jndfilt_u8 avx2, box2 sse2, abs_acc sse2, box2_strip avx2";
    if (cpu_flags & KIVO_CPU_SSE2) return "fdct8 sse2, quant sse2, quant_rdoq sse2, jndfilt sse2, planes sse2, refine c, quant_mask sse2, fdct_quant_mask sse2, jnd_suppress sse2, update_offset sse2, levels_mask c, box2 sse2, abs_acc sse2";
#elif defined(KIVO_ARCH_arm)
    if (cpu_flags & KIVO_CPU_NEON) return "fdct8 neon, quant neon, quant_rdoq neon, jndfilt neon, planes neon, refine c, quant_mask neon, fdct_quant_mask neon, fdct_quant_samples neon, jnd_suppress neon, update_offset neon, levels_mask c, box2 neon, abs_acc neon, fdct_quant_kept_samples neon, jnd_fdct_quant_kept neon, fdct_quant_kept2 neon, jnd_fdct_quant_kept4 neon, jndfilt_u8 neon, box2_strip neon";
#else
    (void)cpu_flags;
#endif
    return "fdct8 c, quant c, quant_rdoq c, jndfilt c, planes c, refine c, quant_mask c, fdct_quant_mask c, jnd_suppress c, update_offset c, levels_mask c, box2 c, abs_acc c";
}
