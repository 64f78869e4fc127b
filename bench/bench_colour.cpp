// Colour conversion speed against libjpeg-turbo, side by side in one run:
// - the whole decode to RGBA: our decode (1 thread) plus kivoc_to_packed,
//   and kivoc_decode_packed, against tjDecompress2 to TJPF_RGBA (all with
//   smooth chroma upsampling);
// - conversion alone: kivoc_to_packed against tjDecodeYUVPlanes (planar to
//   RGBA) and kivoc_from_packed against tjEncodeYUVPlanes (RGB to planar).
// Prints megapixels per second and the ratio (above 1: ours is faster).
//
// usage: bench_colour [FILE.jpg ...] [--reps N]
// Without files a 2048x1536 4:2:0 quality-90 picture is generated.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <turbojpeg.h>

#include "kivoc.h"
#include "bench/bench_util.h"
#include "kivod.h"
#include "oracle_support/turbo.h"

namespace {

using bench::best_of;
using bench::load;

void line(const char *what, double mp, double turbo_s, double ours_s) {
    std::printf("%-34s %10.1f %10.1f %8.2f\n", what, mp / turbo_s, mp / ours_s, turbo_s / ours_s);
}

int bench_file(const std::vector<uint8_t> &jpg, const char *label, int reps) {
    tjhandle td = tjInitDecompress(), tc = tjInitCompress();
    int w = 0, h = 0, ss = 0, cspace = 0;
    if (jpg.empty() || tjDecompressHeader3(td, jpg.data(), jpg.size(), &w, &h, &ss, &cspace) != 0) {
        std::fprintf(stderr, "bench_colour: cannot read %s\n", label);
        return 1;
    }
    const double mp = double(w) * h / 1e6;
    const int cs = ss == TJSAMP_GRAY ? XELO_CS_YCBCR400 : ss == TJSAMP_420 ? XELO_CS_YCBCR420
                 : ss == TJSAMP_422 ? XELO_CS_YCBCR422 : ss == TJSAMP_444 ? XELO_CS_YCBCR444
                 : ss == TJSAMP_440 ? XELO_CS_YCBCR440 : XELO_CS_YCBCR411;
    std::vector<uint8_t> rgba(size_t(w) * h * 4), rgb(size_t(w) * h * 3);

    kivo_tpool pool;
    kivo_tpool_std(&pool, 1);
    kivod_create_param p{1, &pool};
    kivod_ctx *dec = kivod_create(&p, nullptr);
    const uint32_t al[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
    const uint32_t pad[4] = {0, 0, 0, 0};
    xelo_imgb *img = xelo_imgb_create(w, h, cs, 3, al, pad, 0, 0, 0);
    xelo_bitb bitb{};
    bitb.addr = const_cast<uint8_t *>(jpg.data());
    bitb.ssize = static_cast<int32_t>(jpg.size());
    auto ours_planar = [&] {
        kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
        kivod_frame_info info{};
        return kivod_decode(dec, &in, &info) == 0 && kivod_clone(dec, img) == 0;
    };
    auto ours_rgba = [&] {
        return kivoc_to_packed(img, rgba.data(), w * 4, rgba.size(), KIVOC_RGBA, 0, nullptr) == 0;
    };
    auto ours_fused = [&] {
        kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
        kivod_frame_info info{};
        return kivod_decode(dec, &in, &info) == 0 &&
               kivoc_decode_packed(dec, rgba.data(), w * 4, rgba.size(), KIVOC_RGBA, 0) == 0;
    };
    // libjpeg-turbo's own planes, for its conversion alone.
    std::vector<std::vector<uint8_t>> planes(ss == TJSAMP_GRAY ? 1 : 3);
    unsigned char *pp[3] = {nullptr, nullptr, nullptr};
    int strides[3] = {0, 0, 0};
    for (size_t c = 0; c < planes.size(); ++c) {
        planes[c].resize(tjPlaneSizeYUV(int(c), w, 0, h, ss));
        pp[c] = planes[c].data();
        strides[c] = tjPlaneWidth(int(c), w, ss);
    }
    if (tjDecompressToYUVPlanes(td, jpg.data(), jpg.size(), pp, w, strides, h, 0) != 0 || !ours_planar()) {
        std::fprintf(stderr, "bench_colour: a decode failed\n");
        return 1;
    }
    std::printf("%s: %d x %d (%.2f MP), best of %d runs\n", label, w, h, mp, reps);
    std::printf("%-34s %10s %10s %8s\n", "", "turbo MP/s", "kivo MP/s", "ratio");
    double tt = 1e30, to = 1e30;
    for (int r = 0; r < reps; ++r) {
        tt = std::min(tt, best_of(1, [&] {
            return tjDecompress2(td, jpg.data(), jpg.size(), rgba.data(), w, w * 4, h, TJPF_RGBA, 0) == 0;
        }));
        to = std::min(to, best_of(1, [&] { return ours_planar() && ours_rgba(); }));
    }
    line("decode to RGBA (1 thread)", mp, tt, to);
    tt = to = 1e30;
    for (int r = 0; r < reps; ++r) {
        tt = std::min(tt, best_of(1, [&] {
            return tjDecompress2(td, jpg.data(), jpg.size(), rgba.data(), w, w * 4, h, TJPF_RGBA, 0) == 0;
        }));
        to = std::min(to, best_of(1, ours_fused));
    }
    line("decode_packed to RGBA (1 thread)", mp, tt, to);
    tt = to = 1e30;
    for (int r = 0; r < reps; ++r) {
        tt = std::min(tt, best_of(1, [&] {
            const unsigned char *cp[3] = {pp[0], pp[1], pp[2]};
            return tjDecodeYUVPlanes(td, cp, strides, ss, rgba.data(), w, w * 4, h, TJPF_RGBA, 0) == 0;
        }));
        to = std::min(to, best_of(1, ours_rgba));
    }
    line("planar to RGBA", mp, tt, to);
    if (ss != TJSAMP_GRAY) {
        if (tjDecompress2(td, jpg.data(), jpg.size(), rgb.data(), w, w * 3, h, TJPF_RGB, 0) != 0) return 1;
        tt = to = 1e30;
        for (int r = 0; r < reps; ++r) {
            tt = std::min(tt, best_of(1, [&] {
                return tjEncodeYUVPlanes(tc, rgb.data(), w, w * 3, h, TJPF_RGB, pp, strides, ss, 0) == 0;
            }));
            to = std::min(to, best_of(1, [&] {
                return kivoc_from_packed(rgb.data(), w * 3, rgb.size(), KIVOC_RGB, img, nullptr) == 0;
            }));
        }
        line("RGB to planar", mp, tt, to);
    }
    std::printf("\n");
    img->release(img);
    kivod_delete(dec);
    tjDestroy(td);
    tjDestroy(tc);
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
    kivo_init();
    int rc = 0;
    if (!files.empty()) {
        for (const char *f : files) rc |= bench_file(load(f), f, reps);
        return rc;
    }
    turbo::EncodeSpec s;
    s.width = 2048;
    s.height = 1536;
    s.h[0] = s.v[0] = 2;
    s.quality = 90;
    return bench_file(turbo::encode(s, turbo::make_planes(s, 2024)), "generated 4:2:0 q90", reps);
}
