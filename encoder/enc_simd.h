// SIMD variants of the encoder's kernels; each gives exactly what the plain
// one gives (the kivoe_quant variants for offsets below 32768 and
// reciprocals up to 16384, which the half values and 16384 / q always are;
// the kivoe_fdct8 and kivoe_fdct_quant_mask variants for samples 0 to 255).
#ifndef KIVO_ENCODER_SIMD_H
#define KIVO_ENCODER_SIMD_H

#include "encoder/kivoe_int.h"

int32_t kivoe_quant_sse2(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
uint64_t kivoe_quant_mask_sse2(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
uint64_t kivoe_fdct_quant_mask_sse2(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
void kivoe_quant_rdoq_sse2(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
void kivoe_fdct8_sse2(int16_t *blk);
void kivoe_jndfilt8x8_sse2(const uint8_t *src, int32_t stride, int16_t *blk);
uint32_t kivoe_planes_sse2(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc);
void kivoe_jnd_suppress_sse2(int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                             const uint8_t *thr);
void kivoe_update_offset_sse2(const int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                              uint16_t *offset);
void kivoe_box2_sse2(const uint8_t *src, int32_t stride, int16_t *blk);
void kivoe_abs_acc_sse2(const int16_t *blk, uint32_t *acc);
void kivoe_jndfilt8x8_avx2(const uint8_t *src, int32_t stride, int16_t *blk);
void kivoe_jndfilt8x8_u8_avx2(const uint8_t *src, int32_t stride, uint8_t *dst);
void kivoe_box2_strip_avx2(const uint8_t *src, int32_t stride, int32_t n, uint32_t *acc);
void kivoe_fdct8_avx2(int16_t *blk);
int32_t kivoe_quant_avx2(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
uint64_t kivoe_quant_mask_avx2(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
uint64_t kivoe_fdct_quant_mask_avx2(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
uint64_t kivoe_fdct_quant_samples_avx2(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *recip,
                                       const uint16_t *offset);
void kivoe_quant_rdoq_avx2(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
uint32_t kivoe_planes_avx2(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc);
uint32_t kivoe_planes_bmi2(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc);
uint64_t kivoe_refine_count_bmi2(const kivoe_ac_scan *s, uint64_t *counter);
void kivoe_refine_write_bmi2(const kivoe_ac_scan *s, const kivoe_code *code, xelo_bsw *bs);
void kivoe_jnd_suppress_avx2(int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                             const uint8_t *thr);
uint64_t kivoe_levels_mask_avx2(const int16_t *blk);
uint64_t kivoe_quant_kept_avx2(int16_t *blk, const uint16_t *q, const uint16_t *recip, const uint16_t *half,
                               uint16_t *adapt, const uint8_t *thr);
uint64_t kivoe_fdct_quant_kept_samples_avx2(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                            const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                            int32_t suppress);
uint64_t kivoe_jnd_fdct_quant_kept_avx2(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                        const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress);
void kivoe_fdct_quant_kept2_avx2(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2], const uint16_t *q,
                                 const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress,
                                 uint64_t *mask);
void kivoe_jnd_fdct_quant_kept4_avx2(const uint8_t *const src[4], int32_t stride, int16_t *const blk[4],
                                     const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                     int32_t suppress, uint64_t *mask);
void kivoe_jnd_fdct_quant_kept2_avx2(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2],
                                     const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                     int32_t suppress, uint64_t *mask);
void kivoe_update_offset_avx2(const int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                              uint16_t *offset);
uint64_t kivoe_fdct_quant_samples_avx512(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *recip,
                                         const uint16_t *offset);
uint64_t kivoe_fdct_quant_kept_samples_avx512(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                              const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                              int32_t suppress);
uint64_t kivoe_jnd_fdct_quant_kept_avx512(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                          const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                          int32_t suppress);
void kivoe_fdct_quant_kept2_avx512(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2],
                                   const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                   int32_t suppress, uint64_t *mask);
void kivoe_jnd_fdct_quant_kept2_avx512(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2],
                                       const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                       int32_t suppress, uint64_t *mask);
void kivoe_jnd_fdct_quant_kept4_avx512(const uint8_t *const src[4], int32_t stride, int16_t *const blk[4],
                                       const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                       int32_t suppress, uint64_t *mask);
void kivoe_box2_strip_avx512(const uint8_t *src, int32_t stride, int32_t n, uint32_t *acc);
void kivoe_fdct8_neon(int16_t *blk);
int32_t kivoe_quant_neon(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
uint64_t kivoe_quant_mask_neon(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
uint64_t kivoe_fdct_quant_mask_neon(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
void kivoe_quant_rdoq_neon(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
void kivoe_jndfilt8x8_neon(const uint8_t *src, int32_t stride, int16_t *blk);
void kivoe_jndfilt8x8_u8_neon(const uint8_t *src, int32_t stride, uint8_t *dst);
uint32_t kivoe_planes_neon(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc);
void kivoe_jnd_suppress_neon(int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                             const uint8_t *thr);
void kivoe_update_offset_neon(const int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                              uint16_t *offset);
uint64_t kivoe_fdct_quant_samples_neon(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *recip,
                                       const uint16_t *offset);
uint64_t kivoe_fdct_quant_kept_samples_neon(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                            const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                            int32_t suppress);
uint64_t kivoe_jnd_fdct_quant_kept_neon(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                        const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                        int32_t suppress);
void kivoe_fdct_quant_kept2_neon(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2],
                                 const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                 int32_t suppress, uint64_t *mask);
void kivoe_jnd_fdct_quant_kept4_neon(const uint8_t *const src[4], int32_t stride, int16_t *const blk[4],
                                     const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                     int32_t suppress, uint64_t *mask);
void kivoe_box2_neon(const uint8_t *src, int32_t stride, int16_t *blk);
void kivoe_abs_acc_neon(const int16_t *blk, uint32_t *acc);
void kivoe_box2_strip_neon(const uint8_t *src, int32_t stride, int32_t n, uint32_t *acc);

#endif
