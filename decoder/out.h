// Pixel output of sequential scans: straight into the planes, packed
// Y0 Cb Y1 Cr pairs, or reduced strips handed to the resizer.
#ifndef KIVO_DECODER_OUT_H
#define KIVO_DECODER_OUT_H

#include "decoder/kivod_int.h"

// KIVOD_OUT_LEVELS: no samples; each block's quantized levels go to the
// coefficient buffers (kivod_dec_levels). KIVOD_OUT_BANDS: into the slice's
// ring, each MCU row reported to the band sink (kivod_clone_bands).
enum kivod_out_mode { KIVOD_OUT_DIRECT, KIVOD_OUT_PACKED, KIVOD_OUT_RESIZED, KIVOD_OUT_LEVELS, KIVOD_OUT_BANDS };

// Planes of the layouts the decoder writes (0 for others).
int kivod_planes_of(int32_t cs);

// Checks the caller's buffer against the frame and the chosen scale and
// returns the output mode, or a negative status.
int32_t kivod_out_mode_for(const kivod_ctx *ctx, const xelo_imgb *imgb);

// Writes an 8x8 block reconstructed by `idct` at block position (bx, by) of
// plane c, clipping blocks that cross the buffer's line distance or lines.
void kivod_out_block(const xelo_imgb *img, int c, int32_t bx, int32_t by, kivod_idct_fn idct,
                     const int16_t *blk);

// Interleaves one decoded MCU (component areas of Hk*8 x Vk*8 samples, line
// distance 32) into the packed plane at luma MCU origin (x0, y0).
void kivod_out_pack_mcu(const kivod_ctx *ctx, const uint8_t mcu[4][32 * 32], int32_t x0, int32_t y0);

#endif
