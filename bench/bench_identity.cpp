// Byte-identity check for encoder and transcoder speed work: prints one hash
// per encoded or transcoded stream, over every colour format, switch set,
// table source and thread count, for generated pictures of odd sizes, the
// given photographs (PPM/PGM/PNG) and JPEG sources, and the lossless
// re-encodings (baseline and progressive) of the JPEG sources and of some
// generated streams. Run it before and after a change, under the plain
// kernels (--mask 0) and the SIMD ones, and diff.
//
// usage: bench_identity [--mask HEX] [--quick] [photo.ppm ...] [source.jpg ...]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_util.h"
#include "kivoc.h"
#include "kivot.h"
#include "support/kivo_encode.h"
#include "tool.h"

namespace {

uint64_t fnv(const std::vector<uint8_t> &b, int32_t status) {
    uint64_t h = 1469598103934665603ull ^ static_cast<uint32_t>(status);
    for (uint8_t c : b) h = (h ^ c) * 1099511628211ull;
    return h;
}

void report(const char *name, const kivotest::Encoded &e) {
    std::printf("%s %016llx %zu\n", name, static_cast<unsigned long long>(fnv(e.jpg, e.status)), e.jpg.size());
}

// Options from the bits of s: optimised tables, JND filter, JND suppression,
// adaptive rounding, perceptual tables.
kivotest::EncodeOptions options(int s, int threads, int quality) {
    kivotest::EncodeOptions o;
    o.quality = quality;
    o.threads = threads;
    o.optimize = s & 1;
    o.jnd_filter = s & 2;
    o.jnd_suppress = s & 4;
    o.adaptive_rounding = s & 8;
    o.perceptual_level = (s & 16) ? 1 : -1;
    return o;
}

// Lossless re-encodings of src, baseline and progressive, on a handle of t
// threads.
void lossless(const char *name, const std::vector<uint8_t> &src, int t) {
    kivo_tpool pool;
    kivo_tpool_std(&pool, t);
    kivoe_create_param cp{1, 0, 0, 0, 0, &pool};
    kivot_ctx *tc = kivot_create(&cp, nullptr);
    const bench::MemoryIo io(src);
    char full[600];
    for (int32_t coding : {KIVOT_LOSSLESS_BASELINE, KIVOT_LOSSLESS_PROGRESSIVE}) {
        int32_t written = 0;
        kivotest::Encoded e;
        e.status = kivot_txcode_lossless(tc, &io.input, &io.output, &written, coding);
        if (e.status == 0) e.jpg = io.written(written);
        snprintf(full, sizeof(full), "%s/lossless%d/t%d", name, coding, t);
        report(full, e);
    }
    kivot_delete(tc);
}

void generated(bool quick) {
    const int32_t formats[] = {10, 11, 12, 13, 16, 17, 18, 22, 40, 41, 42, 43, 44, 101};
    const int sizes[][2] = {{17, 9}, {75, 41}, {130, 67}};
    char name[128];
    for (int32_t cs : formats)
        for (const auto &sz : sizes) {
            const auto pic = kivotest::make_picture(cs, sz[0], sz[1], 7);
            for (int s = 0; s < 32; ++s)
                for (int t : {1, 2, 8}) {
                    if (quick && t == 8) continue;
                    snprintf(name, sizeof(name), "gen/%d/%dx%d/s%d/t%d", cs, sz[0], sz[1], s, t);
                    const kivotest::Encoded e = kivotest::encode(cs, sz[0], sz[1], pic, options(s, t, 90));
                    report(name, e);
                    // Sources for the lossless re-encodings: default and
                    // optimised, without and with restart intervals.
                    if (s < 2 && t < 8 && e.status == 0) lossless(name, e.jpg, 1);
                }
            // Copy path, other qualities and noise, with no switch and with all.
            for (int s : {0, 31}) {
                kivotest::EncodeOptions o = options(s, 2, 90);
                o.copy_path = true;
                snprintf(name, sizeof(name), "gen/%d/%dx%d/s%d/copy", cs, sz[0], sz[1], s);
                report(name, kivotest::encode(cs, sz[0], sz[1], pic, o));
                for (int q : {1, 50, 100}) {
                    snprintf(name, sizeof(name), "gen/%d/%dx%d/s%d/q%d", cs, sz[0], sz[1], s, q);
                    report(name, kivotest::encode(cs, sz[0], sz[1], pic, options(s, 1, q)));
                }
                kivotest::EncodeOptions po = options(s, 2, 90);
                po.progressive = true;
                snprintf(name, sizeof(name), "gen/%d/%dx%d/s%d/progressive", cs, sz[0], sz[1], s);
                const kivotest::Encoded pe = kivotest::encode(cs, sz[0], sz[1], pic, po);
                report(name, pe);
                if (pe.status == 0) lossless(name, pe.jpg, 1);
                const auto noise = kivotest::make_picture(cs, sz[0], sz[1], 9, testpic::Kind::Noise);
                snprintf(name, sizeof(name), "gen/%d/%dx%d/s%d/noise", cs, sz[0], sz[1], s);
                const kivotest::Encoded e = kivotest::encode(cs, sz[0], sz[1], noise, options(s, 3, 100));
                report(name, e);
                if (e.status == 0) lossless(name, e.jpg, 2);
            }
        }
}

// Planes of a photograph in colour format cs (through the colour helpers).
bool photo_planes(const std::string &path, int32_t cs, std::vector<testpic::Plane> *planes, int *w, int *h) {
    tool::Packed px;
    if (!tool::read_packed(path, &px)) return false;
    *w = px.width;
    *h = px.height;
    const uint32_t al[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
    const uint32_t pad[4] = {0, 0, 0, 0};
    xelo_imgb *img = xelo_imgb_create(*w, *h, cs, 3, al, pad, 0, 0, 0);
    if (!img) return false;
    const int32_t fmt = px.channels == 1 ? KIVOC_GREY : KIVOC_RGB;
    const int32_t st = kivoc_from_packed(px.pixels.data(), px.width * px.channels, px.pixels.size(), fmt, img, nullptr);
    int32_t pw[4], ph[4], np = 0;
    xelo_cs_planes(cs, *w, *h, pw, ph, &np);
    planes->clear();
    for (int p = 0; p < 4 && st == 0; ++p) {
        if (pw[p] <= 0) continue;
        testpic::Plane pl;
        pl.w = pw[p];
        pl.h = ph[p];
        pl.px.resize(static_cast<size_t>(pl.w) * pl.h);
        for (int y = 0; y < pl.h; ++y)
            std::memcpy(&pl.px[static_cast<size_t>(y) * pl.w], img->plane[p] + static_cast<ptrdiff_t>(y) * img->stride[p], pl.w);
        planes->push_back(std::move(pl));
    }
    img->release(img);
    return st == 0;
}

void photo(const std::string &path, bool quick) {
    char name[512];
    for (int32_t cs : {11, 13, 10, 12}) {
        std::vector<testpic::Plane> planes;
        int w, h;
        if (!photo_planes(path, cs, &planes, &w, &h)) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return;
        }
        for (int s = 0; s < 32; ++s)
            for (int t : {1, 2}) {
                if ((quick || cs != 11) && (s & 16) && t == 2) continue;
                snprintf(name, sizeof(name), "photo/%s/%d/s%d/t%d", path.c_str(), cs, s, t);
                report(name, kivotest::encode(cs, w, h, planes, options(s, t, 90)));
            }
    }
}

void transcode(const std::string &path, bool quick) {
    std::vector<uint8_t> src;
    if (!tool::read_file(path, &src)) return;
    char name[512];
    for (int s = 0; s < 16; ++s)
        for (int q : {0, 75})
            for (int t : {1, 3}) {
                if (quick && (q || t == 3)) continue;
                kivo_tpool pool;
                kivo_tpool_std(&pool, t);
                kivoe_create_param cp{1, 0, 0, q, 0, &pool};
                kivot_ctx *tc = kivot_create(&cp, nullptr);
                const int32_t four = 4;
                const int32_t flags[4] = {s & 1, (s >> 1) & 1, (s >> 2) & 1, (s >> 3) & 1};
                const int32_t ids[4] = {KIVOT_CFG_OPT_HUFFMAN, KIVOT_CFG_JND_FILTER, KIVOT_CFG_JND_SUPPRESS,
                                        KIVOT_CFG_ADAPTIVE_ROUNDING};
                for (int i = 0; i < 4; ++i) kivot_config(tc, ids[i], const_cast<int32_t *>(&flags[i]), &four);
                const bench::MemoryIo io(src);
                int32_t written = 0;
                kivotest::Encoded e;
                e.status = kivot_txcode(tc, &io.input, &io.output, &written);
                if (e.status == 0) e.jpg = io.written(written);
                kivot_delete(tc);
                snprintf(name, sizeof(name), "trc/%s/s%d/q%d/t%d", path.c_str(), s, q, t);
                report(name, e);
            }
    snprintf(name, sizeof(name), "trc/%s", path.c_str());
    lossless(name, src, 1);
    if (!quick) lossless(name, src, 3);
}

}  // namespace

int main(int argc, char **argv) {
    bool quick = false;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--mask") && i + 1 < argc) kivo_cpu_set_mask(std::strtoul(argv[++i], nullptr, 16));
        else if (!std::strcmp(argv[i], "--quick")) quick = true;
        else files.push_back(argv[i]);
    }
    generated(quick);
    for (const auto &f : files) {
        if (tool::ends_with(f, ".jpg")) transcode(f, quick);
        else photo(f, quick);
    }
    return 0;
}
