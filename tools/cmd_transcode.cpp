// kivo transcode.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kivot.h"
#include "tools/tool.h"

namespace tool {

int cmd_transcode(int argc, char **argv) {
    std::string in, out;
    int32_t quality = 0, threads = 1, w = 0, h = 0;
    int32_t flags[4] = {0, 0, 0, 0};  // optimize, jnd filter, jnd suppress, adaptive rounding
    for (int i = 0; i < argc; ++i) {
        const std::string a = option_name(argv[i]);
        const bool has = i + 1 < argc;
        if (a == "--quality" && has) quality = std::atoi(argv[++i]);
        else if (a == "--threads" && has) threads = std::atoi(argv[++i]);
        else if (a == "--size" && has) {
            if (std::sscanf(argv[++i], "%dx%d", &w, &h) != 2) w = h = -1;
        } else if (a == "--optimize") flags[0] = 1;
        else if (a == "--jnd-filter") flags[1] = 1;
        else if (a == "--jnd-suppress") flags[2] = 1;
        else if (a == "--adaptive-rounding") flags[3] = 1;
        else if (in.empty() && a[0] != '-') in = a;
        else if (out.empty() && a[0] != '-') out = a;
        else {
            in.clear();
            break;
        }
    }
    if (in.empty() || out.empty() || quality < 0 || quality > 100 || threads < 1 || threads > 8 || w < 0 || h < 0) {
        std::fprintf(stderr,
                     "usage: kivo transcode IN.jpg OUT.jpg [--quality Q] [--optimize] [--jnd-filter]\n"
                     "         [--jnd-suppress] [--adaptive-rounding] [--size WxH] [--threads N]\n"
                     "  quality 0 (the default) chooses it from the picture's brightness.\n");
        return 2;
    }
    std::vector<uint8_t> src;
    if (!read_file(in, &src) || src.empty() || src.size() > 0x3FFFFFFFu) {
        std::fprintf(stderr, "kivo: cannot read %s\n", in.c_str());
        return 1;
    }
    kivo_tpool pool;
    kivo_tpool_std(&pool, threads);
    kivoe_create_param cp{1, w, h, quality, 0, &pool};
    int32_t status = 0;
    kivot_ctx *t = kivot_create(&cp, &status);
    if (!t) {
        std::fprintf(stderr, "kivo: transcoder: %s (%d)\n", kivo_strerror(status), status);
        return 1;
    }
    const int32_t four = 4;
    const int32_t ids[4] = {KIVOT_CFG_OPT_HUFFMAN, KIVOT_CFG_JND_FILTER, KIVOT_CFG_JND_SUPPRESS,
                            KIVOT_CFG_ADAPTIVE_ROUNDING};
    for (int i = 0; i < 4; ++i) kivot_config(t, ids[i], &flags[i], &four);
    xelo_bitb ib{};
    ib.addr = src.data();
    ib.ssize = static_cast<int32_t>(src.size());
    kivod_input input{KIVOD_INPUT_BITB, &ib, nullptr};
    // The new stream rarely outgrows the source; room for four times it.
    std::vector<uint8_t> buf(src.size() * 4 + 65536);
    xelo_bitb ob{};
    ob.addr = buf.data();
    ob.ssize = static_cast<int32_t>(buf.size());
    kivoe_output output{KIVOD_INPUT_BITB, &ob, nullptr};
    int32_t written = 0;
    const auto t0 = std::chrono::steady_clock::now();
    status = kivot_txcode(t, &input, &output, &written);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    kivot_delete(t);
    if (status != 0) {
        std::fprintf(stderr, "kivo: %s: %s (%d)\n", in.c_str(), kivo_strerror(status), status);
        return 1;
    }
    buf.resize(static_cast<size_t>(written));
    if (!write_file(out, buf)) return 1;
    std::printf("%s: %zu bytes -> %s: %d bytes (%.1f%%) in %.1f ms\n", in.c_str(), src.size(), out.c_str(), written,
                100.0 * written / static_cast<double>(src.size()), ms);
    return 0;
}

}  // namespace tool
