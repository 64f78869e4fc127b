// Transcoding against libjpeg-turbo, side by side in one run. Sources are
// generated natural-like pictures encoded by libjpeg-turbo at quality 95 in
// 4:2:0 and 4:4:4. For each: our transcoder (optimised Huffman tables), its
// size saving and the PSNR against the original picture before and after;
// libjpeg-turbo decoding the source and encoding it again with the same
// output tables (speed); and libjpeg-turbo's lossless optimisation
// (jpegtran -optimize) for size.
//
// With --modes, JPEG files instead: the time of each transcoding call on
// them (pipeline, lossless baseline and progressive, smallest-of), with the
// smallest-of call's cost over the pipeline's and its median over files.
//
// usage: bench_transcode [--reps N] [--size WxH]
//        bench_transcode --modes [--reps N] [--threads N] FILE.jpg...
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_util.h"
#include "kivot.h"
#include "oracle_support/turbo.h"

namespace {

using bench::Clock;

double psnr(const std::vector<testpic::Plane> &a, const std::vector<testpic::Plane> &b) {
    double se = 0;
    long n = 0;
    for (size_t p = 0; p < a.size() && p < b.size(); ++p)
        for (size_t i = 0; i < a[p].px.size() && i < b[p].px.size(); ++i) {
            const double d = a[p].px[i] - b[p].px[i];
            se += d * d;
            ++n;
        }
    return se == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * n / se);
}

// Best time of reps calls of each transcoding mode on every file.
int time_modes(const std::vector<std::string> &files, int reps, int threads) {
    const char *names[] = {"pipeline", "lossless", "progressive", "smallest"};
    std::printf("best of %d runs, %d thread(s); ms per call, and smallest-of over pipeline\n", reps, threads);
    std::printf("%-28s %9s %9s %9s %9s %9s %7s\n", "file", "source B", names[0], names[1], names[2], names[3], "ratio");
    kivo_tpool pool;
    kivo_tpool_std(&pool, threads);
    std::vector<double> ratios;
    for (const std::string &f : files) {
        const bench::MemoryIo io(bench::load(f.c_str()));
        kivoe_create_param cp{1, 0, 0, 0, 0, &pool};
        kivot_ctx *t = kivot_create(&cp, nullptr);
        if (!t || io.in.empty()) return 1;
        double ms[4] = {1e30, 1e30, 1e30, 1e30};
        for (int r = 0; r < reps; ++r)
            for (int m = 0; m < 4; ++m) {
                int32_t written = 0, chosen = 0, st;
                const auto t0 = Clock::now();
                if (m == 0) st = kivot_txcode(t, &io.input, &io.output, &written);
                else if (m < 3) st = kivot_txcode_lossless(t, &io.input, &io.output, &written, m - 1);
                else st = kivot_txcode_smallest(t, &io.input, &io.output, &written, &chosen);
                if (st != 0) {
                    std::fprintf(stderr, "bench_transcode: %s: %s failed (%d)\n", f.c_str(), names[m], st);
                    return 1;
                }
                ms[m] = std::min(ms[m], std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
            }
        kivot_delete(t);
        ratios.push_back(ms[3] / ms[0]);
        const std::string base = f.substr(f.find_last_of('/') + 1);
        std::printf("%-28s %9zu %9.1f %9.1f %9.1f %9.1f %6.2fx\n", base.c_str(), io.in.size(), ms[0], ms[1], ms[2], ms[3],
                    ratios.back());
    }
    std::sort(ratios.begin(), ratios.end());
    if (!ratios.empty())
        std::printf("smallest-of over pipeline: median %.2fx, worst %.2fx\n", ratios[ratios.size() / 2], ratios.back());
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    int reps = 5, w = 2048, h = 1536, threads = 1;
    bool modes = false;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--reps") && i + 1 < argc) reps = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--size") && i + 1 < argc) std::sscanf(argv[++i], "%dx%d", &w, &h);
        else if (!std::strcmp(argv[i], "--threads") && i + 1 < argc) threads = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--modes")) modes = true;
        else files.push_back(argv[i]);
    }
    if (modes) return time_modes(files, reps, threads);
    std::printf("%d x %d sources encoded by libjpeg-turbo at quality 95; best of %d runs\n", w, h, reps);
    std::printf("%-6s %10s %10s %7s %9s %9s %10s %10s %8s %11s\n", "layout", "source B", "kivo B", "saving",
                "PSNR src", "PSNR out", "kivo ms", "turbo ms", "speed", "jpegtran B");
    for (int layout = 0; layout < 2; ++layout) {
        turbo::EncodeSpec s;
        s.width = w;
        s.height = h;
        if (layout == 0) s.h[0] = s.v[0] = 2;
        s.quality = 95;
        const auto planes = turbo::make_planes(s, 42 + layout);
        const auto src = turbo::encode(s, planes);
        std::vector<testpic::Plane> dec_src;
        turbo::decode_raw(src, 1, &dec_src);

        kivo_tpool pool;
        kivo_tpool_std(&pool, 1);
        kivoe_create_param cp{1, 0, 0, 0, 0, &pool};
        kivot_ctx *t = kivot_create(&cp, nullptr);
        const int32_t four = 4, on = 1, s128 = 128;
        kivot_config(t, KIVOT_CFG_OPT_HUFFMAN, const_cast<int32_t *>(&on), &four);
        const bench::MemoryIo io(src);
        int32_t written = 0;
        double tk = 1e30, tt = 1e30;
        uint8_t qt[128];
        std::vector<uint8_t> turbo_out;
        for (int r = 0; r < reps; ++r) {
            auto t0 = Clock::now();
            if (kivot_txcode(t, &io.input, &io.output, &written) != 0) {
                std::fprintf(stderr, "bench_transcode: transcoding failed\n");
                return 1;
            }
            tk = std::min(tk, std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
            kivot_config(t, KIVOT_CFG_GET_QTBL, qt, &s128);
            // libjpeg-turbo: decode, then encode again with the same tables
            // (its quality scaling at 100 keeps the tables as given).
            t0 = Clock::now();
            std::vector<testpic::Plane> dec;
            turbo::decode_raw(src, 1, &dec);
            turbo::EncodeSpec e = s;
            e.quality = 100;
            e.optimize = true;
            e.tables = qt;
            turbo_out = turbo::encode(e, dec);
            tt = std::min(tt, std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        }
        kivot_delete(t);
        const std::vector<uint8_t> ours = io.written(written);
        std::vector<testpic::Plane> dec_out;
        turbo::decode_raw(ours, 1, &dec_out);
        const auto lossless = turbo::transcode(src, false, true);
        std::printf("%-6s %10zu %10d %6.1f%% %9.2f %9.2f %10.1f %10.1f %7.2fx %11zu\n", layout ? "444" : "420",
                    src.size(), written, 100.0 * (1.0 - static_cast<double>(written) / src.size()), psnr(planes, dec_src),
                    psnr(planes, dec_out), tk, tt, tt / tk, lossless.size());
        (void)turbo_out;
    }
    return 0;
}
