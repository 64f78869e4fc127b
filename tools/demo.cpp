// The demonstration kivo runs without arguments: a built-in synthetic
// picture encoded with several settings, decoded at every reduction.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "kivot.h"
#include "tools/tool.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// A 4:2:0 picture: a sky-like gradient, soft shapes, fine texture and rows
// of text-like strokes, so that every frequency band has something to code.
xelo_imgb *synthetic_picture(int32_t w, int32_t h) {
    const uint32_t align[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
    const uint32_t pad[4] = {0, 0, 0, 0};
    xelo_imgb *img = xelo_imgb_create(w, h, XELO_CS_YCBCR420, 3, align, pad, 0, 0, 0);
    if (!img) return nullptr;
    uint32_t seed = 12345;
    for (int32_t y = 0; y < h; ++y) {
        uint8_t *row = img->plane[0] + static_cast<ptrdiff_t>(y) * img->stride[0];
        for (int32_t x = 0; x < w; ++x) {
            double v = 60 + 120.0 * y / h + 30 * std::sin(x * 0.01) * std::cos(y * 0.013);
            const double dx = x - 0.6 * w, dy = y - 0.55 * h;
            if (dx * dx + dy * dy < 0.04 * w * w) v += 50;          // a disc
            if (x > w / 8 && x < w / 3 && y > h / 2 && y < 7 * h / 8) v -= 40;  // a box
            if ((y / 12) % 4 == 1 && y % 12 < 8 && x < w / 2 && ((x / 3) % 5) < 2) v -= 70;  // text
            seed = seed * 1664525u + 1013904223u;
            v += static_cast<int>((seed >> 24) % 9) - 4;            // grain
            row[x] = static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
        }
    }
    for (int p = 1; p < 3; ++p) {
        const int32_t cw = (w + 1) / 2, ch = (h + 1) / 2;
        for (int32_t y = 0; y < ch; ++y) {
            uint8_t *row = img->plane[p] + static_cast<ptrdiff_t>(y) * img->stride[p];
            for (int32_t x = 0; x < cw; ++x)
                row[x] = static_cast<uint8_t>(128 + (p == 1 ? 40 : -30) * std::sin(x * 0.02 + y * 0.01 * p));
        }
    }
    return img;
}

double luma_psnr(const xelo_imgb *a, const xelo_imgb *b) {
    double se = 0;
    for (int32_t y = 0; y < a->height; ++y)
        for (int32_t x = 0; x < a->width; ++x) {
            const double d = a->plane[0][y * a->stride[0] + x] - b->plane[0][y * b->stride[0] + x];
            se += d * d;
        }
    return se == 0 ? 99.0 : 10 * std::log10(255.0 * 255.0 * a->width * a->height / se);
}

}  // namespace

int cmd_demo() {
    const int32_t w = 1280, h = 960;
    std::printf("\ndemonstration: a synthetic %d x %d 4:2:0 picture, quality 90, 2 threads\n", w, h);
    xelo_imgb *pic = synthetic_picture(w, h);
    if (!pic) return 1;
    kivo_tpool pool;
    kivo_tpool_std(&pool, 2);
    std::vector<uint8_t> buf(static_cast<size_t>(w) * h * 4);
    struct Setting {
        const char *name;
        bool optimize;
        int level;
    };
    const Setting settings[] = {{"default tables", false, -1}, {"optimised Huffman", true, -1},
                                {"perceptual + optimised", true, 1}};
    int rc = 0;
    for (const Setting &s : settings) {
        kivoe_create_param cp{1, w, h, 90, XELO_CS_YCBCR420, &pool};
        int32_t status = 0;
        kivoe_ctx *enc = kivoe_create(&cp, &status);
        if (!enc) return 1;
        const int32_t four = 4, on = s.optimize;
        kivoe_config(enc, KIVOE_CFG_OPT_HUFFMAN, &on, &four);
        const auto t0 = Clock::now();
        status = kivoe_push(enc, pic);
        uint8_t q[128];
        if (status == 0 && s.level >= 0) status = kivoe_get_qtbl(enc, s.level, q);
        xelo_bitb bitb{};
        bitb.addr = buf.data();
        bitb.ssize = static_cast<int32_t>(buf.size());
        kivoe_output out{KIVOD_INPUT_BITB, &bitb, nullptr};
        int32_t written = 0;
        if (status == 0) status = kivoe_encode(enc, &out, &written);
        const double enc_ms = ms_since(t0);
        kivoe_delete(enc);
        if (status != 0) {
            std::printf("  %-24s encode failed: %s\n", s.name, kivo_strerror(status));
            rc = 1;
            continue;
        }
        std::printf("  %-24s %8d bytes (%.2f bits/pixel), encoded in %6.1f ms\n", s.name, written,
                    8.0 * written / (static_cast<double>(w) * h), enc_ms);
        kivod_create_param dp{1, &pool};
        kivod_ctx *dec = kivod_create(&dp, &status);
        if (!dec) return 1;
        for (int denom : {1, 2, 4, 8}) {
            const uint32_t align[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
            const uint32_t pad[4] = {0, 0, 0, 0};
            xelo_imgb *img = xelo_imgb_create(w / denom, h / denom, XELO_CS_YCBCR420, 3, align, pad, 0, 0, 0);
            bitb.ssize = written;
            kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
            kivod_frame_info info{};
            const auto t1 = Clock::now();
            status = kivod_decode(dec, &in, &info);
            if (status == 0) status = kivod_clone(dec, img);
            const double dec_ms = ms_since(t1);
            if (status != 0) {
                std::printf("    decode 1/%d failed: %s\n", denom, kivo_strerror(status));
                rc = 1;
            } else if (denom == 1) {
                std::printf("    decoded at full size in %5.1f ms, luma PSNR %.2f dB\n", dec_ms, luma_psnr(pic, img));
            } else {
                std::printf("    decoded at 1/%d (%d x %d) in %5.1f ms\n", denom, w / denom, h / denom, dec_ms);
            }
            img->release(img);
        }
        kivod_delete(dec);
    }
    // Transcoding: the picture encoded at quality 95, then shrunk.
    {
        kivoe_create_param cp{1, w, h, 95, XELO_CS_YCBCR420, &pool};
        kivoe_ctx *enc = kivoe_create(&cp, nullptr);
        xelo_bitb bitb{};
        bitb.addr = buf.data();
        bitb.ssize = static_cast<int32_t>(buf.size());
        kivoe_output out{KIVOD_INPUT_BITB, &bitb, nullptr};
        int32_t src_size = 0;
        int32_t status = enc ? kivoe_push(enc, pic) : KIVO_ERR_OUT_OF_MEMORY;
        if (status == 0) status = kivoe_encode(enc, &out, &src_size);
        kivoe_delete(enc);
        kivoe_create_param tp{1, 0, 0, 0, 0, &pool};
        kivot_ctx *t = status == 0 ? kivot_create(&tp, &status) : nullptr;
        std::vector<uint8_t> shrunk(buf.size());
        int32_t written = 0;
        double ms = 0;
        if (t) {
            const int32_t four = 4, on = 1;
            kivot_config(t, KIVOT_CFG_OPT_HUFFMAN, const_cast<int32_t *>(&on), &four);
            bitb.ssize = src_size;
            kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
            xelo_bitb ob{};
            ob.addr = shrunk.data();
            ob.ssize = static_cast<int32_t>(shrunk.size());
            kivoe_output o{KIVOD_INPUT_BITB, &ob, nullptr};
            const auto t0 = Clock::now();
            status = kivot_txcode(t, &in, &o, &written);
            ms = ms_since(t0);
            kivot_delete(t);
        }
        if (status != 0) {
            std::printf("  transcoding failed: %s\n", kivo_strerror(status));
            rc = 1;
        } else {
            std::printf("  transcoding a quality-95 stream of %d bytes: %d bytes (%.1f%%) in %.1f ms\n", src_size,
                        written, 100.0 * written / src_size, ms);
        }
    }
    pic->release(pic);
    return rc;
}

}  // namespace tool
