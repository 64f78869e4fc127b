#include "support/kivo_decode.h"

#include <cstring>

namespace kivotest {

Decoded decode(const std::vector<uint8_t> &jpg, int threads, int out_w, int out_h, int32_t out_cs, int reduction,
               const kivod_limits *limits, bool stats) {
    Decoded r;
    kivo_tpool pool;
    kivo_tpool_std(&pool, threads);
    kivod_create_param param{1, &pool};
    int32_t status = 0;
    kivod_ctx *ctx = kivod_create(&param, &status);
    if (!ctx) {
        r.status = status;
        return r;
    }
    // The stream is copied into a block of exactly its size, so that any read
    // past its end is caught by the address sanitizer.
    std::vector<uint8_t> exact(jpg);
    exact.shrink_to_fit();
    xelo_bitb bitb{};
    bitb.addr = exact.empty() ? nullptr : exact.data(), bitb.ssize = static_cast<int32_t>(exact.size());
    kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
    kivod_frame_info info{};
    r.status = kivod_set_reduction(ctx, reduction);
    if (r.status == 0 && limits) r.status = kivod_set_limits(ctx, limits);
    if (r.status == 0) r.status = kivod_set_stats(ctx, stats);
    if (r.status == 0) r.status = kivod_decode(ctx, &in, &info);
    r.width = info.width, r.height = info.height, r.color_format = info.color_format;
    const int32_t w = out_w ? out_w : info.width, h = out_h ? out_h : info.height, cs = out_cs ? out_cs : info.color_format;
    const uint32_t al = XELO_PAIR(16, 16), pd = XELO_PAIR(8, 8), align[4] = {al, al, al, al}, pad[4] = {pd, pd, pd, pd};
    xelo_imgb *img = r.status == 0 ? xelo_imgb_create(w, h, cs, 3, align, pad, 0, 0, 0) : nullptr;
    if (r.status == 0 && !img) r.status = KIVO_ERR_IMGB;
    if (img) {
        int32_t pw[4], ph[4], np = 0;
        xelo_cs_planes(cs, w, h, pw, ph, &np);
        for (int p = 0; p < 4; ++p)
            if (img->plane[p]) std::memset(img->plane[p], 0x5A, static_cast<size_t>(img->stride[p]) * img->lines[p]);
        r.status = kivod_clone(ctx, img);
        for (int p = 0; p < 4; ++p) {
            if (!img->plane[p] || pw[p] == 0) continue;
            testpic::Plane pl{pw[p], ph[p], {}};
            for (int y = 0; y < pl.h; ++y)
                pl.px.insert(pl.px.end(), img->plane[p] + ptrdiff_t(y) * img->stride[p], img->plane[p] + ptrdiff_t(y) * img->stride[p] + pl.w);
            r.planes.push_back(std::move(pl));
        }
        kivod_get_stats(ctx, &r.stats);
        kivod_get_progress(ctx, &r.progress);
        img->release(img);
    }
    kivod_delete(ctx);
    return r;
}

}  // namespace kivotest
