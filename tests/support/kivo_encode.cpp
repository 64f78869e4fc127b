#include "support/kivo_encode.h"

#include <cmath>
#include <cstring>

namespace kivotest {

std::vector<testpic::Plane> make_picture(int32_t cs, int w, int h, uint64_t seed, testpic::Kind kind) {
    int32_t pw[4], ph[4], np = 0;
    std::vector<testpic::Plane> planes;
    if (xelo_cs_planes(cs, w, h, pw, ph, &np) != 0) return planes;
    for (int p = 0; p < 4; ++p)
        if (pw[p] > 0) planes.push_back(testpic::make_plane(pw[p], ph[p], seed, p, kind));
    return planes;
}

xelo_imgb *to_imgb(int32_t cs, int w, int h, const std::vector<testpic::Plane> &planes, bool tight,
                   const uint32_t *pad) {
    const uint32_t a = tight ? XELO_PAIR(1, 1) : XELO_PAIR(16, 16);
    const uint32_t align[4] = {a, a, a, a};
    const uint32_t none[4] = {0, 0, 0, 0};
    xelo_imgb *img = xelo_imgb_create(w, h, cs, 3, align, pad ? pad : none, 0, 0, 0);
    if (!img) return nullptr;
    size_t i = 0;
    for (int p = 0; p < 4 && i < planes.size(); ++p) {
        if (!img->plane[p]) continue;
        const testpic::Plane &pl = planes[i++];
        for (int y = 0; y < pl.h; ++y)
            std::memcpy(img->plane[p] + static_cast<ptrdiff_t>(y) * img->stride[p], &pl.px[static_cast<size_t>(y) * pl.w], pl.w);
    }
    return img;
}

Encoded encode(int32_t cs, int w, int h, const std::vector<testpic::Plane> &planes, const EncodeOptions &o) {
    Encoded r;
    kivo_tpool pool;
    kivo_tpool_std(&pool, o.threads);
    kivoe_create_param cp{1, w, h, o.quality, cs, &pool};
    kivoe_ctx *enc = kivoe_create(&cp, &r.status);
    if (!enc) return r;
    const int32_t four = 4;
    const int32_t flags[4] = {o.optimize, o.jnd_filter, o.jnd_suppress, o.adaptive_rounding};
    const int32_t ids[4] = {KIVOE_CFG_OPT_HUFFMAN, KIVOE_CFG_JND_FILTER, KIVOE_CFG_JND_SUPPRESS,
                            KIVOE_CFG_ADAPTIVE_ROUNDING};
    for (int i = 0; i < 4; ++i) kivoe_config(enc, ids[i], &flags[i], &four);
    if (o.qtables) {
        const int32_t size = 128;
        kivoe_config(enc, KIVOE_CFG_QTBL, o.qtables, &size);
    }
    xelo_imgb *img = to_imgb(cs, w, h, planes, o.copy_path);
    r.status = img ? kivoe_push(enc, img) : KIVO_ERR_IMGB;
    if (r.status == 0 && o.perceptual_level >= 0) {
        uint8_t q[128];
        r.status = kivoe_get_qtbl(enc, o.perceptual_level, q);
        // A picture without a whole analysis block keeps its tables.
        if (r.status == KIVO_ERR_UNAVAILABLE) r.status = 0;
    }
    if (r.status == 0) {
        size_t raw = 0;
        for (const auto &p : planes) raw += p.px.size();
        // Exactly sized, so that a write past the end is caught by ASan.
        std::vector<uint8_t> buf(o.out_size ? o.out_size : raw * 4 + 4096);
        xelo_bitb bitb{};
        bitb.addr = buf.data();
        bitb.ssize = static_cast<int32_t>(buf.size());
        kivoe_output out{KIVOD_INPUT_BITB, &bitb, nullptr};
        int32_t written = 0;
        r.status = kivoe_encode(enc, &out, &written);
        if (r.status == 0) r.jpg.assign(buf.begin(), buf.begin() + written);
    }
    if (img) img->release(img);
    kivoe_delete(enc);
    return r;
}

double psnr(const std::vector<testpic::Plane> &a, const std::vector<testpic::Plane> &b) {
    double se = 0;
    long n = 0;
    for (size_t p = 0; p < a.size() && p < b.size(); ++p) {
        const int w = std::min(a[p].w, b[p].w), h = std::min(a[p].h, b[p].h);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const double d = a[p].at(x, y) - b[p].at(x, y);
                se += d * d;
                ++n;
            }
    }
    if (n == 0) return 0;
    if (se == 0) return 99;
    return 10 * std::log10(255.0 * 255.0 * n / se);
}

}  // namespace kivotest
