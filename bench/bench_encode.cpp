// Encode speed and size against libjpeg-turbo, side by side in one run:
// planar 4:2:0 input on both sides, the same quantization tables (libjpeg's
// quality-90 tables handed to ours through KIVOE_CFG_QTBL), default and
// optimised Huffman tables, our encoder on 1 and 2 threads. Files
// (PNG, PPM, PGM made 4:2:0 by the colour helpers; YUV4MPEG2 4:2:0) are
// measured one by one with the median ratio at the end; without files a
// generated picture is. --switches adds the cost of each quality switch
// over a plain one-thread encode, and that of all four over a plain encode
// with the perceptual tables they chose, for each Huffman table source
// measured. --loop SET only encodes the first picture N times with the
// switch set SET (bits: 1 JND filter, 2 JND suppression, 4 adaptive
// rounding, 8 perceptual tables), for a profiler. --mask HEX
// limits the CPU features our kernels may use (kivo_cpu_set_mask), to
// compare kernel levels in one binary.
//
// usage: bench_encode [--reps N] [--size WxH] [--switches] [--only default|optimised] [--loop SET] [--mask HEX]
//                     [FILE...]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <jpeglib.h>

#include "kivoc.h"
#include "kivoe.h"
#include "oracle_support/turbo.h"
#include "tool.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Picture {
    int w, h;
    std::vector<std::vector<uint8_t>> padded;  // planes padded to whole MCUs
    int pw[3], ph[3];
    xelo_imgb *img;
};

Picture from_planes(int w, int h, const std::vector<testpic::Plane> &planes) {
    Picture p{w, h, {}, {0}, {0}, nullptr};
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

Picture generated(int w, int h) {
    turbo::EncodeSpec s;
    s.width = w;
    s.height = h;
    s.h[0] = s.v[0] = 2;
    return from_planes(w, h, turbo::make_planes(s, 77));
}

// A file's picture as 4:2:0 planes; false when it cannot be read.
bool from_file(const std::string &path, Picture *out) {
    xelo_imgb *img = nullptr;
    if (tool::ends_with(path, ".y4m")) {
        img = tool::read_picture(path, 0, 0, 0);
        if (img && img->color_format != XELO_CS_YCBCR420) {
            img->release(img);
            return false;
        }
    } else {
        tool::Packed px;
        if (!tool::read_packed(path, &px)) return false;
        const uint32_t al[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
        const uint32_t pad[4] = {0, 0, 0, 0};
        img = xelo_imgb_create(px.width, px.height, XELO_CS_YCBCR420, 3, al, pad, 0, 0, 0);
        if (img && kivoc_from_packed(px.pixels.data(), px.width * px.channels, px.pixels.size(),
                                     px.channels == 1 ? KIVOC_GREY : KIVOC_RGB, img, nullptr) != 0) {
            img->release(img);
            img = nullptr;
        }
    }
    if (!img) return false;
    std::vector<testpic::Plane> planes(3);
    for (int c = 0; c < 3; ++c) {
        testpic::Plane &pl = planes[c];
        pl.w = c ? (img->width + 1) / 2 : img->width;
        pl.h = c ? (img->height + 1) / 2 : img->height;
        pl.px.resize(static_cast<size_t>(pl.w) * pl.h);
        for (int y = 0; y < pl.h; ++y)
            std::memcpy(&pl.px[static_cast<size_t>(y) * pl.w], img->plane[c] + static_cast<ptrdiff_t>(y) * img->stride[c], pl.w);
    }
    *out = from_planes(img->width, img->height, planes);
    img->release(img);
    return true;
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

// Quality switches, as bits.
enum { kJndFilter = 1, kJndSuppress = 2, kAdaptiveRounding = 4, kPerceptual = 8 };

// With the perceptual tables, chosen gets them when not null.
size_t kivo_encode(const Picture &p, bool optimize, int threads, const uint8_t qt[128], std::vector<uint8_t> *out,
                   int switches = 0, uint8_t *chosen = nullptr) {
    kivo_tpool pool;
    kivo_tpool_std(&pool, threads);
    kivoe_create_param cp{1, p.w, p.h, 90, XELO_CS_YCBCR420, &pool};
    static kivoe_ctx *enc[2][9] = {};
    kivoe_ctx *&e = enc[optimize][threads];
    if (!e) e = kivoe_create(&cp, nullptr);
    const int32_t four = 4, size128 = 128, on = optimize;
    const int32_t jf = (switches & kJndFilter) != 0, js = (switches & kJndSuppress) != 0;
    const int32_t ar = (switches & kAdaptiveRounding) != 0;
    kivoe_config(e, KIVOE_CFG_OPT_HUFFMAN, &on, &four);
    kivoe_config(e, KIVOE_CFG_JND_FILTER, &jf, &four);
    kivoe_config(e, KIVOE_CFG_JND_SUPPRESS, &js, &four);
    kivoe_config(e, KIVOE_CFG_ADAPTIVE_ROUNDING, &ar, &four);
    kivoe_config(e, KIVOE_CFG_QTBL, qt, &size128);
    xelo_bitb b{};
    b.addr = out->data();
    b.ssize = static_cast<int32_t>(out->size());
    kivoe_output o{KIVOD_INPUT_BITB, &b, nullptr};
    int32_t written = 0;
    if (kivoe_push(e, p.img) != 0) return 0;
    uint8_t tables[128];
    if ((switches & kPerceptual) && kivoe_get_qtbl(e, 1, chosen ? chosen : tables) != 0) return 0;
    if (kivoe_encode(e, &o, &written) != 0) return 0;
    return static_cast<size_t>(written);
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n == 0 ? 0 : n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

}  // namespace

int main(int argc, char **argv) {
    int reps = 7, w = 2048, h = 1536;
    bool switches = false;
    int only = -1;  // both table sources
    int loop = -1;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--reps") && i + 1 < argc) reps = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--size") && i + 1 < argc) std::sscanf(argv[++i], "%dx%d", &w, &h);
        else if (!std::strcmp(argv[i], "--switches")) switches = true;
        else if (!std::strcmp(argv[i], "--only") && i + 1 < argc) only = std::strcmp(argv[++i], "default") != 0;
        else if (!std::strcmp(argv[i], "--loop") && i + 1 < argc) loop = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--mask") && i + 1 < argc) kivo_cpu_set_mask(std::strtoul(argv[++i], nullptr, 16));
        else files.push_back(argv[i]);
    }
    std::vector<std::string> names = files;
    if (names.empty()) names.push_back("generated");
    std::printf("4:2:0, libjpeg-turbo's quality-90 tables on both sides, best of %d runs\n", reps);
    std::printf("%-28s %-9s %8s %8s %8s %9s %9s %7s %7s %6s\n", "picture", "huffman", "turbo", "kivo1", "kivo2",
                "turbo B", "kivo B", "1t/tj", "2t/tj", "size");
    std::vector<double> ratios[2][2];  // [optimised][threads - 1]
    std::vector<double> cost[2][6];  // [optimised][switch set]
    const char *switch_names[6] = {"jnd filter", "jnd suppress", "adaptive rounding", "perceptual", "all four",
                                   "all four at their tables"};
    for (const std::string &name : names) {
        Picture p;
        if (files.empty()) {
            std::fprintf(stderr, "generating a %dx%d 4:2:0 picture...\n", w, h);
            p = generated(w, h);
        } else if (!from_file(name, &p)) {
            std::fprintf(stderr, "bench_encode: cannot read %s as a 4:2:0 picture\n", name.c_str());
            return 1;
        }
        const double mp = static_cast<double>(p.w) * p.h / 1e6;
        std::vector<uint8_t> out(static_cast<size_t>(p.w) * p.h * 4 + 65536);
        uint8_t qt[128];
        if (loop >= 0) {
            turbo_encode(p, false, &out, qt);
            for (int r = 0; r < reps; ++r)
                if (!kivo_encode(p, false, 1, qt, &out, loop)) return 1;
            return 0;
        }
        const std::string shown = name.substr(name.find_last_of('/') + 1).substr(0, 28);
        for (bool optimize : {false, true}) {
            if (only >= 0 && optimize != (only == 1)) continue;
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
            ratios[optimize][0].push_back(tt / t1);
            ratios[optimize][1].push_back(tt / t2);
            std::printf("%-28s %-9s %8.1f %8.1f %8.1f %9zu %9zu %7.2f %7.2f %6.3f\n", shown.c_str(),
                        optimize ? "optimised" : "default", mp / tt, mp / t1, mp / t2, st, sk, tt / t1, tt / t2,
                        static_cast<double>(sk) / st);
        }
        if (!switches) continue;
        // Each switch alone and all four, over a plain one-thread encode with
        // the same Huffman table source, timed in turns so that drift hits
        // all alike. Each turn encodes about 8 million pixels in a row (3
        // pictures at least): an application encodes with the same settings
        // picture after picture, while the encodes of a small picture just
        // after another set's run slower until the processor's branch
        // history has turned to the new tables and paths (alternating the
        // plain set and all four on a 500 x 500 picture costs 0.06 ms an
        // encode, 18%).
        // The last set is a plain encode with the tables the perceptual
        // analysis chose: all four over it is the switches' own work, apart
        // from the bits that finer tables make.
        for (bool optimize : {false, true}) {
            if (only >= 0 && optimize != (only == 1)) continue;
            uint8_t chosen[128];
            if (!kivo_encode(p, optimize, 1, qt, &out, kPerceptual, chosen)) return 1;
            const int sets[7] = {0, kJndFilter, kJndSuppress, kAdaptiveRounding, kPerceptual, 15, 0};
            const int burst = std::max(3, static_cast<int>(8e6 / (static_cast<double>(p.w) * p.h)));
            double t[7];
            std::fill(t, t + 7, 1e30);
            for (int r = 0; r < reps; ++r)
                for (int k = 0; k < 7; ++k)
                    for (int i = 0; i < burst; ++i) {
                        const auto t0 = Clock::now();
                        if (!kivo_encode(p, optimize, 1, k == 6 ? chosen : qt, &out, sets[k])) return 1;
                        t[k] = std::min(t[k], std::chrono::duration<double>(Clock::now() - t0).count());
                    }
            for (int k = 1; k < 6; ++k) cost[optimize][k - 1].push_back(t[k] / t[0] - 1);
            cost[optimize][5].push_back(t[5] / t[6] - 1);
            std::printf("%-28s %-9s switch cost over a plain encode (%.1f MP/s):", shown.c_str(),
                        optimize ? "optimised" : "default", mp / t[0]);
            for (int k = 1; k < 6; ++k) std::printf(" %s %+.1f%%", switch_names[k - 1], 100 * (t[k] / t[0] - 1));
            std::printf("; all four over a plain encode with their tables %+.1f%%\n", 100 * (t[5] / t[6] - 1));
        }
    }
    if (names.size() > 1) {
        std::printf("median over %zu files: default %.2f / %.2f, optimised %.2f / %.2f (1 / 2 threads vs turbo)\n",
                    names.size(), median(ratios[0][0]), median(ratios[0][1]), median(ratios[1][0]),
                    median(ratios[1][1]));
        for (int optimize = 0; switches && optimize < 2; ++optimize) {
            if (cost[optimize][0].empty()) continue;
            std::printf("median switch cost, %s Huffman tables:", optimize ? "optimised" : "default");
            for (int k = 0; k < 6; ++k) std::printf(" %s %+.1f%%", switch_names[k], 100 * median(cost[optimize][k]));
            std::printf("\n");
        }
    }
    return 0;
}
