// Pixel output of sequential scans.
#include <cstring>

#include "decoder/out.h"

int kivod_planes_of(int32_t cs) {
    const kivo::Layout *l = kivo::layout_of(cs);
    if (!l || l->kind != kivo::Layout::Planar) return 0;
    return 1 + (l->chroma ? 2 : 0) + (l->fourth ? 1 : 0);
}

int32_t kivod_out_mode_for(const kivod_ctx *ctx, const xelo_imgb *img) {
    if (ctx->levels_only) return KIVOD_OUT_LEVELS;
    if (ctx->bands) return KIVOD_OUT_BANDS;
    const int n = ctx->fh.n_comp;
    if (img->color_format == XELO_CS_YUYV) {
        // Packed pairs are made at full size only, from sequential scans
        // that hold every component of the frame, and of Y, Cb and Cr only:
        // a fourth component (CMYK, YCCK) has no place in them.
        if (ctx->scale != 0 || ctx->progressive || (n > 1 && ctx->first_scan_ns != n) || n > 3)
            return KIVO_ERR_UNSUPPORTED;
        if (!img->plane[0] || img->stride[0] < 2 * img->width || img->lines[0] < img->height)
            return KIVO_ERR_INVALID_ARG;
        return KIVOD_OUT_PACKED;
    }
    // Another layout with as many planes is made by resizing each plane.
    if (img->color_format != ctx->color_format &&
        (ctx->scale == 0 || kivod_planes_of(img->color_format) != n))
        return KIVO_ERR_UNSUPPORTED;
    for (int c = 0; c < n; ++c) {
        if (!img->plane[c] || ctx->out_w[c] < 1 || ctx->out_h[c] < 1 ||
            img->stride[c] < ctx->out_w[c] || img->lines[c] < ctx->out_h[c])
            return KIVO_ERR_INVALID_ARG;
    }
    return ctx->scale == 0 ? KIVOD_OUT_DIRECT : KIVOD_OUT_RESIZED;
}

void kivod_out_block(const xelo_imgb *img, int c, int32_t bx, int32_t by, kivod_idct_fn idct,
                     const int16_t *blk) {
    const int32_t x = bx * 8, y = by * 8;
    const int32_t stride = img->stride[c];
    const int32_t cols = stride - x, rows = img->lines[c] - y;
    if (cols <= 0 || rows <= 0) return;
    uint8_t *dst = img->plane[c] + static_cast<ptrdiff_t>(y) * stride + x;
    if (cols >= 8 && rows >= 8) {
        idct(blk, stride, dst);
        return;
    }
    alignas(16) uint8_t scratch[64];
    idct(blk, 8, scratch);
    const int nc = cols < 8 ? cols : 8, nr = rows < 8 ? rows : 8;
    for (int i = 0; i < nr; ++i) std::memcpy(dst + static_cast<ptrdiff_t>(i) * stride, scratch + 8 * i, nc);
}

void kivod_out_pack_mcu(const kivod_ctx *ctx, const uint8_t mcu[4][32 * 32], int32_t x0, int32_t y0) {
    const xelo_imgb *img = ctx->out_imgb;
    const kivod_fh &fh = ctx->fh;
    const int h0 = fh.h[0] * 8, v0 = fh.v[0] * 8;
    const bool grey = fh.n_comp == 1;
    // Chroma of luma pixel (px, py) of the MCU sits at (px * hc / H0, py * vc / V0).
    const int hc = grey ? 1 : fh.h[1], vc = grey ? 1 : fh.v[1];
    const int32_t stride = img->stride[0];
    for (int py = 0; py < v0; ++py) {
        const int32_t y = y0 + py;
        if (y >= img->lines[0]) break;
        // Pixels to write on this line: the picture's width, rounded up to a
        // whole pair, bounded by the line distance (two bytes a pixel). An odd
        // width with no room beyond it ends on a half pair: Y and Cb.
        int32_t npix = img->width - x0;
        if (npix <= 0) return;
        if (npix > h0) npix = h0;
        npix = (npix + 1) & ~1;
        const int32_t room = (stride - 2 * x0) / 2;
        if (npix > room) npix = room;
        uint8_t *dst = img->plane[0] + static_cast<ptrdiff_t>(y) * stride + 2 * x0;
        const uint8_t *yl = mcu[0] + 32 * py;
        const int cy = py * vc / fh.v[0];
        for (int px = 0; px < npix; px += 2) {
            const int cx = px * hc / fh.h[0];
            dst[2 * px] = yl[px];
            dst[2 * px + 1] = grey ? 128 : mcu[1][32 * cy + cx];
            if (px + 1 == npix) break;
            dst[2 * px + 2] = yl[px + 1];
            dst[2 * px + 3] = grey ? 128 : mcu[2][32 * cy + cx];
        }
    }
}
