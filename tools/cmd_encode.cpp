// kivo encode.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "kivoc.h"
#include "kivoe.h"
#include "tools/tool.h"

namespace tool {
namespace {

void usage() {
    std::fprintf(stderr,
                 "usage: kivo encode IN.{png,ppm,pgm,y4m,yuv} OUT.jpg [--sample 2x2|2x1|1x2|1x1|4x1 | --grayscale]\n"
                 "         [--format CODE|NAME --size WxH] [--quality Q] [--qtables FILE] [--perceptual LEVEL]\n"
                 "         [--optimize] [--progressive] [--jnd-filter] [--jnd-suppress] [--adaptive-rounding]\n"
                 "         [--threads N] [--max-pixels N | --no-limits]\n"
                 "  RGB input (PNG, PPM) is converted to YCbCr with the luma sampling factors of --sample\n"
                 "  (default 2x2, 4:2:0), or to grey; grey input (PGM, grey PNG) stays grey. Switches may\n"
                 "  also be spelled with one dash, as cjpeg's (-quality 90 -optimize -sample 1x1).\n"
                 "       kivo encode IN... (--out-dir DIR | --in-place) [--recursive] [options]\n"
                 "  encodes every input (with --recursive, directories: their .png .ppm .pgm .pnm .y4m\n"
                 "  files, subdirectories included) to NAME.jpg in DIR or beside the input, --threads\n"
                 "  files at once. -- ends the options: the arguments after it are files.\n"
                 "  a .yuv input holds raw planes in component order without padding; --format takes\n"
                 "  400 420 422 444 440 411 k400 k420 k422 k444 k440 or a colour format code.\n"
                 "  --qtables FILE: 128 numbers 0 to 255 (luma then chroma quantizers, raster order;\n"
                 "  0 is coded as 1; # starts a comment).\n"
                 "  --progressive: a progressive stream of the same levels, tables optimised per scan.\n");
}

// Exactly 128 whole decimal numbers from 0 to 255 (0 is coded as 1),
// separated by white space, with comments from # to the end of a line.
// Anything else (a fraction, a sign, hexadecimal, a 129th number: the
// chroma table of a three-table file) refuses the file, rather than taking
// a number's first digits or the first 128 numbers.
bool read_qtables(const std::vector<uint8_t> &text, uint8_t out[128]) {
    int n = 0;
    for (size_t i = 0; i < text.size();) {
        const uint8_t c = text[i];
        if (c == '#') {
            while (i < text.size() && text[i] != '\n') ++i;
        } else if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
            ++i;
        } else {
            int v = 0, digits = 0;
            for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i, ++digits)
                if (v <= 255) v = v * 10 + (text[i] - '0');  // beyond, it stays too large
            const bool ends = i == text.size() || text[i] == ' ' || text[i] == '\t' || text[i] == '\n' ||
                              text[i] == '\r' || text[i] == '#';
            if (!digits || !ends || v > 255 || n == 128) return false;
            out[n++] = static_cast<uint8_t>(v);
        }
    }
    return n == 128;
}

// Colour format for RGB input from cjpeg-style luma sampling factors HxV.
int32_t sample_format(const std::string &s) {
    static const struct { const char *name; int32_t cs; } names[] = {
        {"2x2", XELO_CS_YCBCR420}, {"2x1", XELO_CS_YCBCR422}, {"1x2", XELO_CS_YCBCR440},
        {"1x1", XELO_CS_YCBCR444}, {"4x1", XELO_CS_YCBCR411}, {"grey", XELO_CS_YCBCR400},
        {"gray", XELO_CS_YCBCR400},
    };
    for (const auto &n : names)
        if (s == n.name) return n.cs;
    return -1;
}

// A PNG or PPM/PGM converted to planes of the given layout (grey input
// always to grey).
xelo_imgb *read_rgb_picture(const std::string &path, int32_t cs, int64_t max_pixels, const kivo_tpool *pool) {
    Packed pic;
    if (!read_packed(path, &pic, max_pixels)) return nullptr;
    if (pic.channels == 1) cs = XELO_CS_YCBCR400;
    const uint32_t align[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
    const uint32_t pad[4] = {0, 0, 0, 0};
    xelo_imgb *img = xelo_imgb_create(pic.width, pic.height, cs, 3, align, pad, 0, 0, 0);
    if (!img) return nullptr;
    const int32_t status = kivoc_from_packed(pic.pixels.data(), pic.width * pic.channels, pic.pixels.size(),
                                             pic.channels == 1 ? KIVOC_GREY : KIVOC_RGB, img, pool);
    if (status != 0) {
        message("kivo: %s: %s (%d)\n", path.c_str(), kivo_strerror(status), status);
        img->release(img);
        return nullptr;
    }
    return img;
}

struct Settings {
    int32_t cs = 0, w = 0, h = 0, quality = 90, level = -1, sample = XELO_CS_YCBCR420;
    int32_t flags[4] = {0, 0, 0, 0};  // optimize, jnd filter, jnd suppress, adaptive rounding
    bool progressive = false;
    bool has_qtables = false;
    kivod_limits limits = default_limits();  // max_pixels guards PNG and PNM input
    uint8_t qtables[128];
};

// Encodes one file (st by value: the configuration calls take non-const
// pointers); false with a message on failure. `report` prints the
// sizes and time.
bool encode_file(const std::string &in, const std::string &out, Settings st, int threads, bool report,
                 uint64_t *out_bytes) {
    kivo_tpool pool;
    kivo_tpool_std(&pool, threads);
    xelo_imgb *img = is_packed(file_kind(in)) ? read_rgb_picture(in, st.sample, st.limits.max_pixels, &pool)
                                              : read_picture(in, st.cs, st.w, st.h);
    if (!img) return false;
    kivoe_create_param cp{1, img->width, img->height, st.quality, img->color_format, &pool};
    // An encoder set up with the settings and holding the picture; an
    // encode uses the picture up, so a second attempt starts afresh.
    kivoe_ctx *enc = nullptr;
    const auto set_up = [&]() -> int32_t {
        int32_t status = 0;
        if (enc) kivoe_delete(enc);
        enc = kivoe_create(&cp, &status);
        if (!enc) {
            message("kivo: %s: encoder: %s (%d)\n", in.c_str(), kivo_strerror(status), status);
            return status < 0 ? status : KIVO_ERR_OUT_OF_MEMORY;
        }
        const int32_t four = 4, size = 128;
        const int32_t ids[4] = {KIVOE_CFG_OPT_HUFFMAN, KIVOE_CFG_JND_FILTER, KIVOE_CFG_JND_SUPPRESS,
                                KIVOE_CFG_ADAPTIVE_ROUNDING};
        for (int i = 0; i < 4; ++i) kivoe_config(enc, ids[i], &st.flags[i], &four);
        kivoe_set_progressive(enc, st.progressive);
        if (st.has_qtables) status = kivoe_config(enc, KIVOE_CFG_QTBL, st.qtables, &size);
        if (status == 0) status = kivoe_push(enc, img);
        if (status == 0 && st.level >= 0) {
            uint8_t q[128];
            status = kivoe_get_qtbl(enc, st.level, q);
            // A picture too small for one analysis block keeps the tables of
            // the quality (or --qtables): a thumbnail in a batch still encodes.
            if (status == KIVO_ERR_UNAVAILABLE) status = 0;
        }
        return status;
    };
    const auto t0 = std::chrono::steady_clock::now();
    std::vector<uint8_t> buf;
    int32_t written = 0, status = 0;
    // Four bytes a sample first, then (for noise at high quality in the
    // padded blocks of a narrow picture, which outgrows that) the most any
    // stream of the picture can take. Memory the stream does not reach is
    // not touched.
    int32_t pw[4], ph[4], np = 0;
    xelo_cs_planes(img->color_format, img->width, img->height, pw, ph, &np);
    size_t raw = 0;
    for (int p = 0; p < 4; ++p) raw += static_cast<size_t>(pw[p]) * ph[p];
    const size_t most = stream_bound(img, 65536), usual = std::min(raw * 4 + 65536, most);
    for (const size_t room : {usual, most}) {
        status = set_up();
        if (status != 0) break;
        std::unique_ptr<uint8_t[]> mem(new (std::nothrow) uint8_t[room]);
        if (!mem) {
            status = KIVO_ERR_OUT_OF_MEMORY;
            break;
        }
        xelo_bitb bitb{};
        bitb.addr = mem.get();
        bitb.ssize = static_cast<int32_t>(room);
        kivoe_output o{KIVOD_INPUT_BITB, &bitb, nullptr};
        status = kivoe_encode(enc, &o, &written);
        if (status == 0) buf.assign(mem.get(), mem.get() + written);
        if (status != KIVO_ERR_INVALID_ARG || room == most) break;
    }
    if (!enc) {
        img->release(img);
        return false;
    }
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    bool ok = status == 0;
    if (!ok) message("kivo: %s: %s (%d)\n", in.c_str(), kivo_strerror(status), status);
    if (ok) {
        ok = write_file(out, buf);
        *out_bytes = buf.size();
    }
    if (ok && report)
        std::fprintf(report_stream(out), "%s: %d x %d %s -> %s, %d bytes in %.1f ms\n", in.c_str(), img->width, img->height,
                    color_format_name(img->color_format), out.c_str(), written, ms);
    kivoe_delete(enc);
    img->release(img);
    return ok;
}

}  // namespace

int cmd_encode(int argc, char **argv) {
    Settings st;
    std::string qfile;
    BatchOptions batch;
    for (int i = 0; i < argc; ++i) {
        const std::string a = option_name(argv[i]);
        const bool has = i + 1 < argc;
        if (a == "--help" || a == "-h") {
            usage();
            return 0;
        }
        if (rest_are_files(a, argc, argv, i, &batch.inputs)) break;
        if (const int limit = limit_option(a, argc, argv, &i, &st.limits)) {
            if (limit < 0) return 2;
            continue;
        }
        if (a == "--format" && has) st.cs = color_format_from_name(argv[++i]);
        else if (a == "--size" && has) {
            if (std::sscanf(argv[++i], "%dx%d", &st.w, &st.h) != 2) st.w = st.h = 0;
        } else if (a == "--quality" && has) st.quality = std::atoi(argv[++i]);
        else if (a == "--qtables" && has) qfile = argv[++i];
        else if (a == "--perceptual" && has) {
            // Levels 0 to 12 (an analysis block of 8 << level samples a side).
            const std::string v = argv[++i];
            st.level = v.size() && v.size() <= 2 && v.find_first_not_of("0123456789") == std::string::npos ? std::atoi(v.c_str()) : 99;
            if (st.level > 12) {
                message("kivo: --perceptual takes a level from 0 to 12, not %s\n", v.c_str());
                return 2;
            }
        }
        else if (a == "--threads" && has) batch.threads = std::atoi(argv[++i]);
        else if (a == "--sample" && has) st.sample = sample_format(argv[++i]);
        else if (a == "--grayscale" || a == "--greyscale") st.sample = XELO_CS_YCBCR400;
        else if (a == "--optimize") st.flags[0] = 1;
        else if (a == "--progressive") st.progressive = true;
        else if (a == "--jnd-filter") st.flags[1] = 1;
        else if (a == "--jnd-suppress") st.flags[2] = 1;
        else if (a == "--adaptive-rounding") st.flags[3] = 1;
        else if (batch_option(a, argc, argv, &i, &batch)) continue;
        else if (a[0] != '-') batch.inputs.push_back(a);
        else {
            usage();
            return 2;
        }
    }
    const bool many = !batch.out_dir.empty() || batch.in_place || batch.recursive;
    if ((many ? batch.inputs.empty() : batch.inputs.size() != 2) || batch.threads < 1 || batch.threads > 8 ||
        st.quality < 0 || st.quality > 100 || st.sample < 0) {
        usage();
        return 2;
    }
    if (!many && is_picture_name(batch.inputs[1])) {
        message("kivo: encode writes JPEG, not %s (a typo would replace that picture)\n", batch.inputs[1].c_str());
        return 2;
    }
    std::vector<uint8_t> qtext;
    if (!qfile.empty() && !read_file(qfile, &qtext, 1 << 20)) {
        message("kivo: cannot read %s: %s\n", qfile.c_str(), std::strerror(errno));
        return 1;
    }
    if (!qfile.empty() && !(st.has_qtables = read_qtables(qtext, st.qtables))) {
        message("kivo: %s must hold 128 whole numbers from 0 to 255 (# starts a comment) and nothing else\n", qfile.c_str());
        return 1;
    }
    uint64_t out_bytes = 0;
    if (!many) return encode_file(batch.inputs[0], batch.inputs[1], st, batch.threads, true, &out_bytes) ? 0 : 1;
    // Each file on one thread, --threads files at once.
    return run_batch(batch, {".png", ".ppm", ".pgm", ".pnm", ".y4m"}, ".jpg", [&](FileJob *job) {
        return encode_file(job->in, job->out, st, 1, false, &job->out_bytes);
    });
}

}  // namespace tool
