// Encode speed and size against libjpeg-turbo, side by side in one run:
// planar 4:2:0 input on both sides, the same quantization tables (libjpeg's
// quality-90 tables handed to ours through KIVOE_CFG_QTBL), default and
// optimised Huffman tables, our encoder on 1 and 2 threads.
//
// usage: bench_encode [--reps N] [--size WxH]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <jpeglib.h>

#include "kivoe.h"
#include "oracle_support/turbo.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Picture {
    int w, h;
    std::vector<std::vector<uint8_t>> padded;  // planes padded to whole MCUs
    int pw[3], ph[3];
    xelo_imgb *img;
};

Picture make(int w, int h) {
    Picture p{w, h, {}, {0}, {0}, nullptr};
    turbo::EncodeSpec s;
    s.width = w;
    s.height = h;
    s.h[0] = s.v[0] = 2;
    const auto planes = turbo::make_planes(s, 77);
    const uint32_t al[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
    const uint32_t pad[4] = {0, 0, 0, 0};
    p.img = xelo_imgb_create(w, h, XELO_CS_YCBCR420, 3, al, pad, 0, 0, 0);
    p.padded.resize(3);
    const int mcu_w = (w + 15) / 16, mcu_h = (h + 15) / 16;
    for (int c = 0; c < 3; ++c) {
        const testpic::Plane &pl = planes[c];
        for (int y = 0; y < pl.h; ++y)
            std::memcpy(p.img->plane[c] + static_cast<ptrdiff_t>(y) * p.img->stride[c], &pl.px[static_cast<size_t>(y) * pl.w], pl.w);
        p.pw[c] = mcu_w * (c ? 8 : 16);
        p.ph[c] = mcu_h * (c ? 8 : 16);
        p.padded[c].resize(static_cast<size_t>(p.pw[c]) * p.ph[c]);
        for (int y = 0; y < p.ph[c]; ++y)
            for (int x = 0; x < p.pw[c]; ++x)
                p.padded[c][static_cast<size_t>(y) * p.pw[c] + x] = pl.at(std::min(x, pl.w - 1), std::min(y, pl.h - 1));
    }
    return p;
}

// libjpeg-turbo from raw planes; returns the size and fills the raster-order
// quantization tables it used.
size_t turbo_encode(const Picture &p, bool optimize, std::vector<uint8_t> *out, uint8_t qt[128]) {
    jpeg_compress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    unsigned char *mem = out->data();
    unsigned long size = out->size();
    jpeg_mem_dest(&c, &mem, &size);
    c.image_width = p.w;
    c.image_height = p.h;
    c.input_components = 3;
    c.in_color_space = JCS_YCbCr;
    jpeg_set_defaults(&c);
    jpeg_set_colorspace(&c, JCS_YCbCr);
    jpeg_set_quality(&c, 90, TRUE);
    c.raw_data_in = TRUE;
    c.dct_method = JDCT_ISLOW;
    c.optimize_coding = optimize;
    c.comp_info[0].h_samp_factor = c.comp_info[0].v_samp_factor = 2;
    for (int t = 0; t < 2; ++t)
        for (int i = 0; i < 64; ++i) qt[64 * t + i] = static_cast<uint8_t>(c.quant_tbl_ptrs[t]->quantval[i]);
    jpeg_start_compress(&c, TRUE);
    JSAMPROW rows[3][16];
    JSAMPARRAY arrays[3] = {rows[0], rows[1], rows[2]};
    for (int y = 0; y < p.ph[0]; y += 16) {
        for (int c2 = 0; c2 < 3; ++c2) {
            const int n = c2 ? 8 : 16, first = c2 ? y / 2 : y;
            for (int r = 0; r < n; ++r)
                rows[c2][r] = const_cast<uint8_t *>(p.padded[c2].data()) + static_cast<size_t>(first + r) * p.pw[c2];
        }
        jpeg_write_raw_data(&c, arrays, 16);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    if (mem != out->data()) {  // libjpeg grew the buffer itself
        out->assign(mem, mem + size);
        std::free(mem);
    }
    return size;
}

size_t kivo_encode(const Picture &p, bool optimize, int threads, const uint8_t qt[128], std::vector<uint8_t> *out) {
    kivo_tpool pool;
    kivo_tpool_std(&pool, threads);
    kivoe_create_param cp{1, p.w, p.h, 90, XELO_CS_YCBCR420, &pool};
    static kivoe_ctx *enc[2][9] = {};
    kivoe_ctx *&e = enc[optimize][threads];
    if (!e) e = kivoe_create(&cp, nullptr);
    const int32_t four = 4, size128 = 128, on = optimize;
    kivoe_config(e, KIVOE_CFG_OPT_HUFFMAN, &on, &four);
    kivoe_config(e, KIVOE_CFG_QTBL, qt, &size128);
    xelo_bitb b{};
    b.addr = out->data();
    b.ssize = static_cast<int32_t>(out->size());
    kivoe_output o{KIVOD_INPUT_BITB, &b, nullptr};
    int32_t written = 0;
    if (kivoe_push(e, p.img) != 0 || kivoe_encode(e, &o, &written) != 0) return 0;
    return static_cast<size_t>(written);
}

}  // namespace

int main(int argc, char **argv) {
    int reps = 7, w = 2048, h = 1536;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--reps") && i + 1 < argc) reps = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--size") && i + 1 < argc) std::sscanf(argv[++i], "%dx%d", &w, &h);
    }
    std::fprintf(stderr, "generating a %dx%d 4:2:0 picture...\n", w, h);
    const Picture p = make(w, h);
    const double mp = static_cast<double>(w) * h / 1e6;
    std::vector<uint8_t> out(static_cast<size_t>(w) * h * 4);
    uint8_t qt[128];
    std::printf("%d x %d 4:2:0 (%.2f MP), libjpeg-turbo's quality-90 tables on both sides, best of %d runs\n", w, h,
                mp, reps);
    std::printf("%-10s %11s %11s %11s %10s %10s %9s %9s\n", "huffman", "turbo MP/s", "kivo1 MP/s", "kivo2 MP/s",
                "turbo B", "kivo B", "1t/turbo", "size");
    for (bool optimize : {false, true}) {
        double tt = 1e30, t1 = 1e30, t2 = 1e30;
        size_t st = 0, sk = 0;
        for (int r = 0; r < reps; ++r) {
            auto t0 = Clock::now();
            st = turbo_encode(p, optimize, &out, qt);
            tt = std::min(tt, std::chrono::duration<double>(Clock::now() - t0).count());
            t0 = Clock::now();
            sk = kivo_encode(p, optimize, 1, qt, &out);
            t1 = std::min(t1, std::chrono::duration<double>(Clock::now() - t0).count());
            t0 = Clock::now();
            kivo_encode(p, optimize, 2, qt, &out);
            t2 = std::min(t2, std::chrono::duration<double>(Clock::now() - t0).count());
        }
        if (!sk) {
            std::fprintf(stderr, "bench_encode: our encode failed\n");
            return 1;
        }
        std::printf("%-10s %11.1f %11.1f %11.1f %10zu %10zu %9.2f %9.3f\n", optimize ? "optimised" : "default",
                    mp / tt, mp / t1, mp / t2, st, sk, tt / t1, static_cast<double>(sk) / st);
    }
    return 0;
}
