// Picture buffers: aligned planes with margins for the encoder's input,
// re-shaped in place while they are large enough.
#include <cstdlib>
#include <cstring>

#include "common/kivo_int.h"

namespace {

void fill_alignment(uint32_t align[4], uint32_t pad[4], int32_t margin) {
    for (int p = 0; p < 4; ++p) {
        align[p] = XELO_PAIR(16, 16);
        pad[p] = XELO_PAIR(margin, margin);
    }
}

}  // namespace

KIVO_EXPORT void kivo_picbuf_free(kivo_picbuf *pic) {
    if (!pic) return;
    if (pic->imgb && pic->imgb->release) pic->imgb->release(pic->imgb);
    std::free(pic);
}

KIVO_EXPORT kivo_picbuf *kivo_picbuf_alloc(const kivo_picbuf_param *param, kivo_picbuf *existing,
                                           int32_t *status) {
    if (!param) {
        if (status) *status = KIVO_ERR_INVALID_ARG;
        return nullptr;
    }
    if (existing && !existing->imgb) return nullptr;  // not ours to touch

    uint32_t align[4], pad[4];
    fill_alignment(align, pad, param->pad);

    kivo_picbuf *pic = nullptr;
    if (existing && existing->imgb->width >= param->width &&
        existing->imgb->height >= param->height &&
        xelo_imgb_rebirth(existing->imgb, param->width, param->height, param->color_format, 3,
                          align, pad) == 0) {
        pic = existing;
    } else {
        kivo_picbuf_free(existing);
        pic = static_cast<kivo_picbuf *>(std::calloc(1, sizeof(kivo_picbuf)));
        if (!pic) {
            if (status) *status = KIVO_ERR_OUT_OF_MEMORY;
            return nullptr;
        }
        pic->imgb = xelo_imgb_create(param->cap_width, param->cap_height, param->color_format, 3,
                                     align, pad, 0, 0, 0);
        if (!pic->imgb) {
            std::free(pic);
            if (status) *status = KIVO_ERR_IMGB;
            return nullptr;
        }
        int32_t ret = xelo_imgb_rebirth(pic->imgb, param->width, param->height,
                                        param->color_format, 3, align, pad);
        if (ret != 0) {
            if (pic->imgb->release) pic->imgb->release(pic->imgb);
            std::free(pic);
            if (status) *status = ret;
            return nullptr;
        }
    }

    xelo_imgb *img = pic->imgb;
    for (int p = 0; p < 4; ++p) pic->base[p] = img->plane_base[p];
    pic->plane[0] = img->plane[0];
    pic->plane[1] = img->plane[1];
    pic->plane[2] = img->plane[2];
    pic->plane[3] = img->plane[2];
    pic->plane_alt[0] = img->plane[0];
    pic->plane_alt[1] = img->plane[1];
    pic->plane_alt[2] = img->plane[3];
    pic->stride_y = img->stride[0];
    pic->stride_c = img->stride[1];
    pic->width = img->width;
    pic->height = img->height;
    const kivo::Layout *l = kivo::layout_of(param->color_format);
    pic->width_c = l ? kivo::chroma_width(*l, img->width) : 0;
    pic->height_c = l ? kivo::chroma_height(*l, img->height) : 0;
    pic->pad_x = pic->pad_y = param->pad;
    if (status) *status = KIVO_OK;
    return pic;
}
