// kivo info and kivo decode.
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "decoder/kivod_int.h"
#include "kivoc.h"
#include "tools/tool.h"

namespace tool {
namespace {

uint32_t imgb_align[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
uint32_t imgb_pad[4] = {0, 0, 0, 0};

struct Decoder {
    kivo_tpool pool{};
    kivod_ctx *ctx = nullptr;
    kivo_mfal mfal{};
    kivod_input input{};
    kivod_frame_info info{};
    kivod_app_node *apps = nullptr;
    std::vector<uint8_t> bytes;
    xelo_bitb bitb{};

    // A file goes through the library's file interface, which reads it whole
    // and decodes it on every thread of the pool. A pipe (/dev/stdin), which
    // has no size and cannot seek, is read into memory first.
    int32_t open(const char *path, int threads, const kivod_limits &limits) {
        kivo_tpool_std(&pool, threads);
        kivod_create_param param{1, &pool};
        int32_t status = 0;
        ctx = kivod_create(&param, &status);
        if (!ctx) return status;
        status = kivod_set_limits(ctx, &limits);
        if (status != 0) return status;
        struct stat st;
        if (stat(path, &st) == 0 && S_ISFIFO(st.st_mode)) {
            // As much as the library would take into memory from a file.
            if (!read_file(path, &bytes, size_t(1) << 30) || bytes.empty()) return KIVO_ERR_IO;
            bitb.addr = bytes.data();
            bitb.ssize = static_cast<int32_t>(bytes.size());
            input.type = KIVOD_INPUT_BITB;
            input.bitb = &bitb;
        } else {
            kivo_mfal_file(&mfal, path);
            input.type = KIVOD_INPUT_MFAL;
            input.mfal = &mfal;
        }
        info.app_list = &apps;
        return kivod_decode(ctx, &input, &info);
    }
    ~Decoder() { kivod_delete(ctx); }
};

// input and limits: the stream and the limits it was decoded under, for
// the hint after a status a limit can give.
int fail(const char *what, int32_t status, const char *input = nullptr, const kivod_limits *limits = nullptr) {
    message("kivo: %s: %s (%d)\n", what, kivo_strerror(status), status);
    if (input) limit_hint(status, input, *limits);
    return 1;
}

// A stream refused once its frame header was read, with no colour format
// given: its sampling layout is not one the decoder reconstructs (a limit
// refuses before the size is known or after the layout is).
int fail_open(const char *what, int32_t status, const kivod_frame_info &info, const kivod_limits &limits) {
    if (status != KIVO_ERR_UNSUPPORTED || info.width == 0 || info.color_format != 0)
        return fail(what, status, what, &limits);
    message("kivo: %s: its sampling layout is not one this library decodes to pixels (%d); "
            "kivo transcode --mode lossless still codes it again\n", what, status);
    return 1;
}

// PNG, PPM or PGM through the colour helpers (smooth chroma upsampling):
// grey for a .pgm name or a grey picture, RGB otherwise. A frame coded as
// RGB (`rgb`) has its planes' samples as they are, at full resolution.
bool write_rgb_picture(const std::string &path, const xelo_imgb *img, const kivo_tpool *pool, bool rgb) {
    const FileKind kind = file_kind(path);
    Packed pic;
    pic.width = img->width, pic.height = img->height;
    pic.channels = kind == FileKind::Pgm || img->color_format == XELO_CS_YCBCR400 ? 1 : 3;
    if (kind == FileKind::Ppm) pic.channels = 3;
    pic.pixels.resize(static_cast<size_t>(pic.width) * pic.height * pic.channels);
    if (rgb) {
        if (img->color_format != XELO_CS_YCBCR444 || pic.channels != 3) {
            message("kivo: %s: an RGB picture %s; write a .yuv\n", path.c_str(),
                    pic.channels != 3 ? "has no grey form" : "with subsampled components has no conversion");
            return false;
        }
        for (int32_t y = 0; y < pic.height; ++y)
            for (int32_t x = 0; x < pic.width; ++x)
                for (int p = 0; p < 3; ++p)
                    pic.pixels[(static_cast<size_t>(y) * pic.width + x) * 3 + p] = img->plane[p][y * img->stride[p] + x];
        return write_packed(path, pic);
    }
    const int32_t status = kivoc_to_packed(img, pic.pixels.data(), pic.width * pic.channels, pic.pixels.size(),
                                           pic.channels == 1 ? KIVOC_GREY : KIVOC_RGB, 0, pool);
    if (status == KIVO_ERR_COLOR_FORMAT) {
        message("kivo: colour format %s has no RGB conversion; write a .yuv\n",
                     color_format_name(img->color_format));
        return false;
    }
    if (status != 0) return fail(path.c_str(), status) == 0;
    return write_packed(path, pic);
}

}  // namespace

int cmd_info(int argc, char **argv) {
    kivod_limits limits = default_limits();
    std::vector<const char *> files;
    for (int i = 0; i < argc; ++i) {
        if (rest_are_files(argv[i], argc, argv, i, &files)) break;
        const int limit = limit_option(option_name(argv[i]), argc, argv, &i, &limits);
        if (limit < 0) return 2;
        if (!limit) files.push_back(argv[i]);
    }
    const char *path = files.size() == 1 ? files[0] : nullptr;
    if (!path) {
        std::fprintf(stderr, "usage: kivo info FILE.jpg [limits]\n");
        return 2;
    }
    Decoder d;
    const int32_t ret = d.open(path, 1, limits);
    if (ret != 0) return fail_open(path, ret, d.info, limits);
    const kivod_ctx *c = d.ctx;
    const kivod_fh &fh = c->fh;
    std::printf("size: %d x %d\n", d.info.width, d.info.height);
    std::printf("colour format: %s (%d)\n", color_format_name(d.info.color_format), d.info.color_format);
    std::printf("coding: %s\n", c->progressive ? "progressive" : "sequential");
    std::printf("components:");
    for (int i = 0; i < fh.n_comp; ++i)
        std::printf(" %d:%dx%d q%d", fh.comp_id[i], fh.h[i], fh.v[i], fh.tq[i]);
    std::printf("\nrestart interval: %d\n", c->dri.interval);
    for (int t = 0; t < 4; ++t) {
        if (!c->qtbl[t].length) continue;
        std::printf("quantization table %d (%d-bit):", t, c->qtbl[t].precision ? 16 : 8);
        for (int k = 0; k < 64; ++k) std::printf(" %d", c->qtbl[t].q[k]);
        std::printf("\n");
    }
    for (int i = 0; i < 8; ++i) {
        const kivod_htbl_spec &s = c->dht_spec[i];
        if (!s.count) continue;
        std::printf("huffman table %s %d: %d codes\n", s.cls ? "AC" : "DC", s.id, s.count);
    }
    for (const kivod_app_node *a = d.apps; a; a = a->next) {
        char tag[8] = {0};
        for (int i = 0; i < 5 && i < static_cast<int>(a->size); ++i)
            tag[i] = (a->data[i] >= 32 && a->data[i] < 127) ? static_cast<char>(a->data[i]) : '.';
        std::printf("APP%d: %u bytes \"%s\"\n", a->marker - 0xE0, a->size, tag);
        const int orientation = a->marker == 0xE1 ? exif_orientation(a->data, a->size) : 0;
        if (orientation > 0) std::printf("exif orientation: %d (%s)\n", orientation, orientation_name(orientation));
        if (orientation < 0) std::printf("exif orientation: unreadable (malformed Exif data)\n");
    }
    return 0;
}

int cmd_decode(int argc, char **argv) {
    std::string in, out;
    int threads = 1, ow = 0, oh = 0, denom = 1;
    bool denom_given = false;
    kivod_limits limits = default_limits();
    std::vector<std::string> names;  // the input and output files
    for (int i = 0; i < argc; ++i) {
        const std::string a = option_name(argv[i]);
        if (rest_are_files(a, argc, argv, i, &names)) break;
        if (const int limit = limit_option(a, argc, argv, &i, &limits)) {
            if (limit < 0) return 2;
        } else if (a == "--threads" && i + 1 < argc) {
            threads = std::atoi(argv[++i]);
        } else if (a == "--size" && i + 1 < argc) {
            if (std::sscanf(argv[++i], "%dx%d", &ow, &oh) != 2 || ow < 1 || oh < 1) {
                message("kivo: --size takes WxH\n");
                return 2;
            }
        } else if (a == "--scale" && i + 1 < argc) {
            const std::string s = argv[++i];
            denom = s == "1/2" ? 2 : s == "1/4" ? 4 : s == "1/8" ? 8 : s == "1" ? 1 : 0;
            denom_given = true;
            if (!denom) {
                message("kivo: --scale takes 1/2, 1/4 or 1/8\n");
                return 2;
            }
        } else {
            names.push_back(argv[i]);
        }
    }
    if (names.size() > 2) {
        message("kivo: unexpected argument %s\n", names[2].c_str());
        return 2;
    }
    if (names.size() > 0) in = names[0];
    if (names.size() > 1) out = names[1];
    if (in.empty() || out.empty()) {
        std::fprintf(stderr, "usage: kivo decode IN.jpg OUT.{png,ppm,pgm,y4m,yuv} [--size WxH | --scale 1/2|1/4|1/8]\n"
                             "         [--threads N]\n");
        return 2;
    }
    if (threads < 1 || threads > 8) {
        message("kivo: --threads takes 1 to 8\n");
        return 2;
    }
    if (file_kind(out) == FileKind::Jpeg) {
        message("kivo: decode writes .png, .ppm, .pgm, .y4m or raw planes, not %s\n", out.c_str());
        return 2;
    }
    const auto t0 = std::chrono::steady_clock::now();
    Decoder d;
    int32_t ret = d.open(in.c_str(), threads, limits);
    if (ret != 0) return fail_open(in.c_str(), ret, d.info, limits);
    // --scale decodes at that reduction; --size alone leaves the choice to
    // the decoder.
    if (denom_given) kivod_set_reduction(d.ctx, denom);
    if (!ow) {
        ow = (d.info.width + denom - 1) / denom;
        oh = (d.info.height + denom - 1) / denom;
    }
    xelo_imgb *img = xelo_imgb_create(ow, oh, d.info.color_format, 3, imgb_align, imgb_pad, 0, 0, 0);
    if (!img) return fail("output buffer", KIVO_ERR_IMGB);
    ret = kivod_clone(d.ctx, img);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    int rc = 0;
    if (ret != 0) {
        // Whatever was decoded is still written, so a damaged stream can be looked at.
        fail(in.c_str(), ret, in.c_str(), &limits);
        rc = 1;
    }
    kivod_progress progress{};
    if (ret == 0 && kivod_get_progress(d.ctx, &progress) == 0 && !progress.complete) {
        message("kivo: %s: incomplete picture: %s\n", in.c_str(), progress_text(progress).c_str());
        rc = 1;
    }
    const bool rgb = kivod_rgb_coding(d.ctx->fh, d.apps) != kivod_rgb::no;
    const bool written = is_packed(file_kind(out)) ? write_rgb_picture(out, img, &d.pool, rgb) : write_picture(out, img);
    if (!written) rc = 1;
    else
        std::fprintf(report_stream(out), "%s: %d x %d %s -> %s %d x %d in %.1f ms\n", in.c_str(), d.info.width, d.info.height,
                    color_format_name(d.info.color_format), out.c_str(), ow, oh, ms);
    img->release(img);
    return rc;
}

}  // namespace tool
