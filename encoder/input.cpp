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

// Describes the planes of img in a picture record: addresses, line
// distances and sizes. Interleaved chroma is described as two planes that
// step two (NV12, NV21) or four (YUYV) bytes per sample.
void describe(kivo_picbuf *p, const xelo_imgb *img, const kivo::Layout &l) {
    uint8_t *const *a = img->plane;
    p->stride_y = img->stride[0];
    p->stride_c = l.kind == kivo::Layout::Packed ? img->stride[0] : img->stride[1];
    p->width = img->width;
    p->height = img->height;
    p->width_c = kivo::chroma_width(l, img->width);
    p->height_c = kivo::chroma_height(l, img->height);
    p->plane[0] = a[0];
    if (l.kind == kivo::Layout::Pairs) {
        const bool nv12 = l.format == XELO_CS_NV12;
        p->plane[1] = nv12 ? a[1] : a[1] + 1;
        p->plane[2] = nv12 ? a[1] + 1 : a[1];
    } else if (l.kind == kivo::Layout::Packed) {
        p->plane[1] = a[0] + 1;
        p->plane[2] = a[0] + 3;
    } else {
        p->plane[1] = a[1];
        p->plane[2] = a[2];
        p->plane_alt[2] = a[3];
    }
    p->plane[3] = p->plane[2];
}

// The caller's buffer can be read in place: line distances and line counts
// the block loads can use, and one line distance for Cb and Cr and one for
// luma and the fourth plane, as the picture record keeps them.
bool usable_in_place(const xelo_imgb *img, const kivo::Layout &l) {
    if (img->stride[0] % 16 != 0 || img->lines[0] % 16 != 0) return false;
    if (l.kind == kivo::Layout::Planar && l.chroma && img->stride[1] != img->stride[2]) return false;
    return !l.fourth || img->stride[3] == img->stride[0];
}

}  // namespace

// A refused push leaves the handle as it was: nothing is stored before every
// check has passed.
int32_t kivoe_push_frm(kivoe_ctx *ctx, xelo_imgb *img) {
    const int32_t w = img->width, h = img->height, f = img->color_format;
    // The frame header carries 16-bit sizes.
    if (h <= 0 || w <= 0 || w > 65535 || h > 65535) return KIVO_ERR_INVALID_ARG;
    if (static_cast<uint32_t>(f - 10) > 189u) return KIVO_ERR_COLOR_FORMAT;
    // A format without a known layout cannot be described, let alone encoded.
    const kivo::Layout *l = kivo::layout_of(f);
    if (!l) return KIVO_ERR_COLOR_FORMAT;
    const bool two_planes = l->chroma && l->kind == kivo::Layout::Planar;
    if (!img->plane[0] || (l->kind == kivo::Layout::Pairs && !img->plane[1]) ||
        (two_planes && (!img->plane[1] || !img->plane[2])) || (l->fourth && !img->plane[3]))
        return KIVO_ERR_INVALID_ARG;
    // Every plane the layout uses must hold its samples: a record whose
    // line distance or line count is short of them (or whose colour format
    // is not that of its planes) would be read past its end.
    int32_t pw[4], ph[4], np = 0;
    if (xelo_cs_planes(f, w, h, pw, ph, &np) != 0) return KIVO_ERR_COLOR_FORMAT;
    for (int i = 0; i < 4; ++i)
        if (pw[i] > 0 && (img->stride[i] < pw[i] || img->lines[i] < ph[i])) return KIVO_ERR_IMGB;

    const int32_t max_w = w > ctx->max_width ? w : ctx->max_width;
    const int32_t max_h = h > ctx->max_height ? h : ctx->max_height;
    if (usable_in_place(img, *l)) {
        kivo_picbuf &p = ctx->pic_inline;
        std::memset(&p, 0, sizeof(p));
        for (int i = 0; i < 4; ++i) p.base[i] = img->plane_base[i];
        describe(&p, img, *l);
        p.imgb = img;
        ctx->pic_cur = &p;
    } else {
        kivo_picbuf_param &req = ctx->pic_req;
        req.width = w;
        req.height = h;
        req.color_format = f;
        req.pad = 4;
        req.margin2 = 4;
        req.cap_width = max_w;
        req.cap_height = max_h;
        int32_t status = KIVO_OK;
        kivo_picbuf *owned = req.alloc(&req, ctx->pic_owned, &status);
        if (status < 0 || !owned) {
            // The allocator has given the old buffer back: no picture is left.
            req.free(owned);
            if (ctx->pic_cur == ctx->pic_owned) ctx->pic_cur = nullptr;
            ctx->pic_owned = nullptr;
            return status < 0 ? status : KIVO_ERR_OUT_OF_MEMORY;
        }
        ctx->pic_owned = owned;
        // Every plane of the layout is copied at its own size, the fourth
        // plane of the four-component layouts included.
        xelo_imgb *dst = owned->imgb;
        for (int i = 0; i < 4; ++i) {
            if (pw[i] <= 0 || !img->plane[i] || !dst->plane[i]) continue;
            mcpy_pic(dst->plane[i], img->plane[i], dst->stride[i], img->stride[i], pw[i], ph[i]);
        }
        describe(owned, dst, *l);
        ctx->pic_cur = owned;
    }
    ctx->width = w;
    ctx->height = h;
    ctx->color_format = f;
    ctx->max_width = max_w;
    ctx->max_height = max_h;
    return KIVO_OK;
}
