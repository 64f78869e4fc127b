// Frame input: the caller's planes are used in place when their layout
// suits the encoder, otherwise copied into a picture buffer of its own.
#include <cstring>

#include "encoder/kivoe_int.h"

void mcpy_pic(uint8_t *dst, const uint8_t *src, int32_t dst_stride, int32_t src_stride, int32_t w, int32_t h) {
    if (h <= 0 || w <= 0) return;
    if (w == dst_stride && w == src_stride) {
        std::memcpy(dst, src, static_cast<size_t>(w) * h);
        return;
    }
    for (int32_t y = 0; y < h; ++y)
        std::memcpy(dst + static_cast<ptrdiff_t>(y) * dst_stride, src + static_cast<ptrdiff_t>(y) * src_stride, w);
}

namespace {

// Chroma size recorded with a picture: halves and quarters rounded down.
void chroma_size(int32_t f, int32_t w, int32_t h, int32_t *wc, int32_t *hc) {
    switch (f) {
    case 11: case 41: case 16: case 17: *wc = w >> 1; *hc = h >> 1; break;
    case 12: case 42: case 101: *wc = w >> 1; *hc = h; break;
    case 18: case 44: *wc = w; *hc = h >> 1; break;
    case 22: *wc = w >> 2; *hc = h; break;
    default: *wc = w; *hc = h; break;
    }
}

}  // namespace

int32_t kivoe_push_frm(kivoe_ctx *ctx, xelo_imgb *img) {
    const int32_t w = img->width, h = img->height, f = img->color_format;
    ctx->width = w;
    ctx->height = h;
    ctx->color_format = f;
    if (w > ctx->max_width) ctx->max_width = w;
    if (h > ctx->max_height) ctx->max_height = h;
    if (h <= 0 || w <= 0) return KIVO_ERR_INVALID_ARG;
    if (static_cast<uint32_t>(f - 10) > 189u) return KIVO_ERR_COLOR_FORMAT;
    if (!img->plane[0]) return KIVO_ERR_INVALID_ARG;

    if (img->stride[0] % 16 == 0 && img->lines[0] % 16 == 0) {
        kivo_picbuf &p = ctx->pic_inline;
        std::memset(&p, 0, sizeof(p));
        for (int i = 0; i < 4; ++i) p.base[i] = img->plane_base[i];
        p.stride_y = img->stride[0];
        p.stride_c = f >= 100 ? img->stride[0] : img->stride[1];
        p.width = w;
        p.height = h;
        chroma_size(f, w, h, &p.width_c, &p.height_c);
        uint8_t *const *a = img->plane;
        if (f == XELO_CS_NV12) {
            p.plane[0] = a[0];
            p.plane[1] = a[1];
            p.plane[2] = a[1] ? a[1] + 1 : nullptr;
        } else if (f == XELO_CS_NV21) {
            p.plane[0] = a[0];
            p.plane[1] = a[1] ? a[1] + 1 : nullptr;
            p.plane[2] = a[1];
        } else if (f == XELO_CS_YUYV) {
            p.plane[0] = a[0];
            p.plane[1] = a[0] + 1;
            p.plane[2] = a[0] + 3;
        } else {
            p.plane[0] = a[0];
            p.plane[1] = a[1];
            p.plane[2] = a[2];
            p.plane_alt[2] = a[3];
        }
        p.plane[3] = p.plane[2];
        p.imgb = img;
        ctx->pic_cur = &p;
        return KIVO_OK;
    }

    kivo_picbuf_param &req = ctx->pic_req;
    req.width = w;
    req.height = h;
    req.color_format = f;
    req.pad = 4;
    req.margin2 = 4;
    req.cap_width = ctx->max_width;
    req.cap_height = ctx->max_height;
    int32_t status = KIVO_OK;
    kivo_picbuf *owned = req.alloc(&req, ctx->pic_owned, &status);
    ctx->pic_owned = owned;
    if (status < 0 || !owned) {
        req.free(owned);
        ctx->pic_owned = nullptr;
        ctx->pic_cur = nullptr;
        return status < 0 ? status : KIVO_ERR_OUT_OF_MEMORY;
    }
    // Every plane of the layout is copied at its own size, the fourth plane
    // of the four-component layouts included.
    int32_t pw[4], ph[4], np = 0;
    xelo_cs_planes(f, w, h, pw, ph, &np);
    xelo_imgb *dst = owned->imgb;
    for (int i = 0; i < 4; ++i) {
        if (pw[i] <= 0 || !img->plane[i] || !dst->plane[i]) continue;
        mcpy_pic(dst->plane[i], img->plane[i], dst->stride[i], img->stride[i], pw[i], ph[i]);
    }
    chroma_size(f, w, h, &owned->width_c, &owned->height_c);
    // Interleaved layouts are described the way the direct path does.
    if (f == XELO_CS_NV12 || f == XELO_CS_NV21) {
        uint8_t *c = dst->plane[1];
        owned->plane[1] = f == XELO_CS_NV12 ? c : c + 1;
        owned->plane[2] = f == XELO_CS_NV12 ? c + 1 : c;
    } else if (f == XELO_CS_YUYV) {
        owned->plane[1] = dst->plane[0] + 1;
        owned->plane[2] = dst->plane[0] + 3;
        owned->stride_c = owned->stride_y;
    }
    ctx->pic_cur = owned;
    return KIVO_OK;
}
