// Decode speed against libjpeg-turbo, side by side in one run: planar output
// on both sides (no colour conversion), full size and 1/2, 1/4, 1/8 (the
// same reduction on both sides: kivod_set_reduction), our decoder on 1 and
// 2 threads. Prints megapixels per second and the ratio, and over several
// streams the median and the worst ratio at each scale.
//
// usage: bench_decode [FILE.jpg ...] [--reps N]
// Without files, a 2048x1536 4:2:0 quality-90 picture is generated and
// measured three times: sequential without restart markers, with one every
// MCU row, and progressive (libjpeg's default script).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <turbojpeg.h>

#include "bench/bench_util.h"
#include "kivod.h"
#include "oracle_support/turbo.h"

namespace {

using bench::best_of;
using bench::load;

struct Ours {
    kivo_tpool pool{};
    kivod_ctx *ctx = nullptr;
    xelo_imgb *img = nullptr;
    xelo_bitb bitb{};
    const std::vector<uint8_t> *jpg;
    Ours(const std::vector<uint8_t> &j, int threads, int w, int h, int cs, int denom) : jpg(&j) {
        kivo_tpool_std(&pool, threads);
        kivod_create_param p{1, &pool};
        ctx = kivod_create(&p, nullptr);
        // The reduction libjpeg-turbo makes too (the default choice reduces
        // small outputs further and enlarges them again).
        kivod_set_reduction(ctx, denom);
        const uint32_t al[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
        const uint32_t pad[4] = {0, 0, 0, 0};
        img = xelo_imgb_create(w, h, cs, 3, al, pad, 0, 0, 0);
        bitb.addr = const_cast<uint8_t *>(j.data());
        bitb.ssize = static_cast<int32_t>(j.size());
    }
    ~Ours() {
        if (img) img->release(img);
        kivod_delete(ctx);
    }
    bool run() {
        kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
        kivod_frame_info info{};
        return kivod_decode(ctx, &in, &info) == 0 && kivod_clone(ctx, img) == 0;
    }
};

struct Turbo {
    tjhandle h = tjInitDecompress();
    std::vector<std::vector<uint8_t>> planes;
    unsigned char *ptr[3] = {nullptr, nullptr, nullptr};
    int strides[3] = {0, 0, 0};
    int w, h_, subsamp;
    const std::vector<uint8_t> *jpg;
    Turbo(const std::vector<uint8_t> &j, int w_, int hh, int ss) : w(w_), h_(hh), subsamp(ss), jpg(&j) {
        const int n = ss == TJSAMP_GRAY ? 1 : 3;
        planes.resize(n);
        for (int p = 0; p < n; ++p) {
            planes[p].resize(tjPlaneSizeYUV(p, w, 0, h_, ss));
            ptr[p] = planes[p].data();
            strides[p] = tjPlaneWidth(p, w, ss);
        }
    }
    ~Turbo() { tjDestroy(h); }
    bool run() {
        return tjDecompressToYUVPlanes(h, jpg->data(), jpg->size(), ptr, w, strides, h_, 0) == 0;
    }
};

// Each stream's ratios per scale (1/1 to 1/8), one thread and two.
struct Ratios {
    std::vector<double> one[4], two[4];
};

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// The median and the worst ratio over the streams, per scale.
void print_summary(const Ratios &r) {
    const size_t n = r.one[0].size();
    if (n < 2) return;
    std::printf("over %zu streams: median (worst) of the ratios\n", n);
    std::printf("%-6s %18s %18s\n", "scale", "1t/turbo", "2t/turbo");
    for (int i = 0; i < 4; ++i)
        std::printf("1/%-4d %11.2f (%.2f) %11.2f (%.2f)\n", 1 << i, median(r.one[i]),
                    *std::min_element(r.one[i].begin(), r.one[i].end()), median(r.two[i]),
                    *std::min_element(r.two[i].begin(), r.two[i].end()));
}

int bench_stream(const std::vector<uint8_t> &jpg, const char *label, int reps, Ratios *ratios) {
    tjhandle th = tjInitDecompress();
    int w = 0, h = 0, ss = 0, cspace = 0;
    if (jpg.empty() || tjDecompressHeader3(th, jpg.data(), jpg.size(), &w, &h, &ss, &cspace) != 0) {
        std::fprintf(stderr, "bench_decode: cannot read %s\n", label);
        tjDestroy(th);
        return 1;
    }
    tjDestroy(th);
    const int cs = ss == TJSAMP_GRAY ? XELO_CS_YCBCR400 : ss == TJSAMP_420 ? XELO_CS_YCBCR420
                 : ss == TJSAMP_422 ? XELO_CS_YCBCR422 : ss == TJSAMP_444 ? XELO_CS_YCBCR444
                 : ss == TJSAMP_440 ? XELO_CS_YCBCR440 : XELO_CS_YCBCR411;
    const double mp = static_cast<double>(w) * h / 1e6;
    std::printf("%s: %d x %d (%.2f MP), %zu bytes, best of %d runs; MP/s of the source picture\n", label, w, h, mp,
                jpg.size(), reps);
    std::printf("%-6s %14s %14s %14s %8s %8s\n", "scale", "turbo MP/s", "kivo 1t MP/s", "kivo 2t MP/s", "1t/turbo",
                "2t/turbo");
    for (int denom : {1, 2, 4, 8}) {
        const int ow = (w + denom - 1) / denom, oh = (h + denom - 1) / denom;
        Turbo t(jpg, ow, oh, ss);
        Ours o1(jpg, 1, ow, oh, cs, denom), o2(jpg, 2, ow, oh, cs, denom);
        // Interleave the contenders so that machine noise hits them alike.
        double tt = 1e30, t1 = 1e30, t2 = 1e30;
        for (int r = 0; r < reps; ++r) {
            tt = std::min(tt, best_of(1, [&] { return t.run(); }));
            t1 = std::min(t1, best_of(1, [&] { return o1.run(); }));
            t2 = std::min(t2, best_of(1, [&] { return o2.run(); }));
        }
        if (tt < 0 || t1 < 0 || t2 < 0) {
            std::fprintf(stderr, "bench_decode: a decode failed at 1/%d\n", denom);
            return 1;
        }
        std::printf("1/%-4d %14.1f %14.1f %14.1f %8.2f %8.2f\n", denom, mp / tt, mp / t1, mp / t2, tt / t1, tt / t2);
        const int i = denom == 1 ? 0 : denom == 2 ? 1 : denom == 4 ? 2 : 3;
        ratios->one[i].push_back(tt / t1);
        ratios->two[i].push_back(tt / t2);
    }
    std::printf("\n");
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    int reps = 7;
    std::vector<const char *> files;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--reps") && i + 1 < argc) reps = std::atoi(argv[++i]);
        else files.push_back(argv[i]);
    }
    int rc = 0;
    Ratios ratios;
    if (!files.empty()) {
        for (const char *f : files) rc |= bench_stream(load(f), f, reps, &ratios);
        print_summary(ratios);
        return rc;
    }
    turbo::EncodeSpec s;
    s.width = 2048;
    s.height = 1536;
    s.h[0] = s.v[0] = 2;
    s.quality = 90;
    std::fprintf(stderr, "generating a 2048x1536 4:2:0 q90 picture...\n");
    const auto planes = turbo::make_planes(s, 2024);
    rc |= bench_stream(turbo::encode(s, planes), "generated 4:2:0 q90", reps, &ratios);
    s.restart_mcus = 2048 / 16;
    rc |= bench_stream(turbo::encode(s, planes), "generated 4:2:0 q90, restart every MCU row", reps, &ratios);
    s.restart_mcus = 0;
    s.progressive = true;
    rc |= bench_stream(turbo::encode(s, planes), "generated 4:2:0 q90, progressive", reps, &ratios);
    return rc;
}
