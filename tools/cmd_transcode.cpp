// kivo transcode.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "kivot.h"
#include "tools/tool.h"

namespace tool {

namespace {

enum class Mode { Pipeline, Lossless, Smallest };

struct Settings {
    Mode mode = Mode::Smallest;
    bool progressive = false;  // lossless mode: progressive output
    int32_t copy = KIVOT_COPY_ALL;
    int32_t quality = 0, w = 0, h = 0;
    int32_t flags[4] = {0, 0, 0, 0};  // optimize, jnd filter, jnd suppress, adaptive rounding
    kivod_limits limits = default_limits();
};

// Whether the stream's frame has a sampling layout the decoder does not
// reconstruct (its headers read, no colour format), which the pipeline
// cannot re-encode. The headers are read under the same limits.
bool layout_not_decoded(std::vector<uint8_t> &src, const kivod_limits &limits) {
    kivod_ctx *d = kivod_create(nullptr, nullptr);
    if (d) kivod_set_limits(d, &limits);
    xelo_bitb ib{};
    ib.addr = src.data();
    ib.ssize = static_cast<int32_t>(src.size());
    const kivod_input input{KIVOD_INPUT_BITB, &ib, nullptr};
    kivod_frame_info info{};
    const int32_t status = d ? kivod_decode(d, &input, &info) : 0;
    kivod_delete(d);
    return status == KIVO_ERR_UNSUPPORTED && info.width > 0 && info.color_format == 0;
}

// Transcodes one file (st by value: the configuration calls take non-const
// pointers); false with a message on failure. `report` prints the
// sizes and time.
bool transcode_file(const std::string &in, const std::string &out, Settings st, int threads, bool report,
                    uint64_t *out_bytes, const char **chosen_name) {
    std::vector<uint8_t> src;
    if (!read_file(in, &src) || src.empty() || src.size() > 0x3FFFFFFFu) {
        message("kivo: cannot read %s\n", in.c_str());
        return false;
    }
    kivo_tpool pool;
    kivo_tpool_std(&pool, threads);
    kivoe_create_param cp{1, st.w, st.h, st.quality, 0, &pool};
    int32_t status = 0;
    kivot_ctx *t = kivot_create(&cp, &status);
    if (!t) {
        message("kivo: %s: transcoder: %s (%d)\n", in.c_str(), kivo_strerror(status), status);
        return false;
    }
    const int32_t four = 4;
    const int32_t ids[4] = {KIVOT_CFG_OPT_HUFFMAN, KIVOT_CFG_JND_FILTER, KIVOT_CFG_JND_SUPPRESS,
                            KIVOT_CFG_ADAPTIVE_ROUNDING};
    for (int i = 0; i < 4; ++i) kivot_config(t, ids[i], &st.flags[i], &four);
    kivot_set_limits(t, &st.limits);
    kivot_set_copy(t, st.copy);
    xelo_bitb ib{};
    ib.addr = src.data();
    ib.ssize = static_cast<int32_t>(src.size());
    kivod_input input{KIVOD_INPUT_BITB, &ib, nullptr};
    // The new stream rarely outgrows the source; room for four times it,
    // and for a larger picture (--size) the most its stream can take, within
    // the int32 size of the output memory. Memory the stream does not reach
    // is not touched.
    size_t room = std::min<size_t>(src.size() * 4 + 65536, INT32_MAX);
    if (st.w > 0 && st.h > 0) room = std::max(room, stream_bound(XELO_CS_YCBCRK444, st.w, st.h, src.size() + 65536));
    std::unique_ptr<uint8_t[]> mem(new (std::nothrow) uint8_t[room]);
    if (!mem) {
        kivot_delete(t);
        message("kivo: %s: %s (%d)\n", in.c_str(), kivo_strerror(KIVO_ERR_OUT_OF_MEMORY), KIVO_ERR_OUT_OF_MEMORY);
        return false;
    }
    xelo_bitb ob{};
    ob.addr = mem.get();
    ob.ssize = static_cast<int32_t>(room);
    kivoe_output output{KIVOD_INPUT_BITB, &ob, nullptr};
    int32_t written = 0;
    const auto t0 = std::chrono::steady_clock::now();
    int32_t chosen = KIVOT_CHOSEN_PIPELINE;
    if (st.mode == Mode::Smallest) {
        status = kivot_txcode_smallest(t, &input, &output, &written, &chosen);
    } else if (st.mode == Mode::Lossless) {
        chosen = st.progressive ? KIVOT_CHOSEN_PROGRESSIVE : KIVOT_CHOSEN_LOSSLESS;
        status = kivot_txcode_lossless(t, &input, &output, &written,
                                       st.progressive ? KIVOT_LOSSLESS_PROGRESSIVE : KIVOT_LOSSLESS_BASELINE);
    } else {
        status = kivot_txcode(t, &input, &output, &written);
    }
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    // The pipeline re-encodes what a damaged source decodes to, mid-grey
    // where its data end: such an output is not written (the other modes
    // re-encode only sources that decode whole).
    kivod_progress progress{};
    const bool incomplete = status == 0 && st.mode == Mode::Pipeline && kivot_get_progress(t, &progress) == 0 &&
                            !progress.complete;
    kivot_delete(t);
    if (incomplete) {
        message("kivo: %s: the source does not decode whole (%s); not re-encoded\n", in.c_str(),
                progress_text(progress).c_str());
        return false;
    }
    if (status != 0) {
        message("kivo: %s: %s (%d)\n", in.c_str(), kivo_strerror(status), status);
        if (status == KIVO_ERR_UNSUPPORTED && st.mode == Mode::Pipeline && layout_not_decoded(src, st.limits))
            message("kivo: %s: its sampling layout is not one this library decodes to pixels; "
                    "--mode lossless or smallest still codes it again\n", in.c_str());
        else
            limit_hint(status, in.c_str(), st.limits);
        return false;
    }
    const std::vector<uint8_t> buf(mem.get(), mem.get() + written);
    mem.reset();
    if (!write_file(out, buf)) return false;
    *out_bytes = buf.size();
    *chosen_name = kivot_chosen_name(chosen);
    if (report)
        std::fprintf(report_stream(out), "%s: %zu bytes -> %s: %d bytes (%.1f%%, %s) in %.1f ms\n", in.c_str(), src.size(), out.c_str(),
                    written, 100.0 * written / static_cast<double>(src.size()), *chosen_name, ms);
    return true;
}

}  // namespace

int cmd_transcode(int argc, char **argv) {
    Settings st;
    BatchOptions batch;
    bool bad = false, help = false;
    for (int i = 0; i < argc && !bad; ++i) {
        const std::string a = option_name(argv[i]);
        const bool has = i + 1 < argc;
        if (a == "--help" || a == "-h") {
            help = bad = true;
            break;
        }
        if (rest_are_files(a, argc, argv, i, &batch.inputs)) break;
        if (const int limit = limit_option(a, argc, argv, &i, &st.limits)) {
            if (limit < 0) return 2;
            continue;
        }
        if (a == "--quality" && has) st.quality = std::atoi(argv[++i]);
        else if (a == "--threads" && has) batch.threads = std::atoi(argv[++i]);
        else if (a == "--size" && has) {
            if (std::sscanf(argv[++i], "%dx%d", &st.w, &st.h) != 2) st.w = st.h = -1;
        } else if (a == "--optimize") st.flags[0] = 1;
        else if (a == "--jnd-filter") st.flags[1] = 1;
        else if (a == "--jnd-suppress") st.flags[2] = 1;
        else if (a == "--adaptive-rounding") st.flags[3] = 1;
        else if (a == "--progressive") st.progressive = true;
        else if (a == "--mode" && has) {
            const std::string m = argv[++i];
            st.mode = m == "pipeline" ? Mode::Pipeline : m == "lossless" ? Mode::Lossless : Mode::Smallest;
            bad = m != "pipeline" && m != "lossless" && m != "smallest";
        } else if (a == "--copy" && has) {
            const std::string c = argv[++i];
            st.copy = c == "none" ? KIVOT_COPY_NONE : c == "icc" ? KIVOT_COPY_ICC : KIVOT_COPY_ALL;
            bad = c != "none" && c != "icc" && c != "all";
        }
        else if (batch_option(a, argc, argv, &i, &batch)) continue;
        else if (a[0] != '-') batch.inputs.push_back(a);
        else bad = true;
    }
    const bool many = !batch.out_dir.empty() || batch.in_place || batch.recursive;
    if (bad || (many ? batch.inputs.empty() : batch.inputs.size() != 2) || st.quality < 0 || st.quality > 100 ||
        batch.threads < 1 || batch.threads > 8 || st.w < 0 || st.h < 0) {
        std::fprintf(stderr,
                     "usage: kivo transcode IN.jpg OUT.jpg [--mode pipeline|lossless|smallest] [--progressive]\n"
                     "         [--copy all|icc|none] [--quality Q] [--optimize] [--jnd-filter]\n"
                     "         [--jnd-suppress] [--adaptive-rounding] [--size WxH] [--threads N]\n"
                     "       kivo transcode IN... (--out-dir DIR | --in-place) [--recursive] [options]\n"
                     "  smallest (the default) keeps the smallest of the re-encoded picture (pipeline),\n"
                     "  the lossless re-encoding and the source, never a larger file; lossless codes the\n"
                     "  source's coefficients again (--progressive: as a progressive stream). --copy says\n"
                     "  which APPn segments stay (icc: the colour profile). Quality 0 (the default)\n"
                     "  chooses it from the picture's brightness. With several inputs (with --recursive,\n"
                     "  directories: their .jpg and .jpeg files, subdirectories included), --threads\n"
                     "  files at once. -- ends the options: the arguments after it are files.\n");
        return help ? 0 : 2;
    }
    if (!many && is_picture_name(batch.inputs[1])) {
        message("kivo: transcode writes JPEG, not %s (a typo would replace that picture)\n", batch.inputs[1].c_str());
        return 2;
    }
    uint64_t out_bytes = 0;
    const char *chosen = nullptr;
    if (!many)
        return transcode_file(batch.inputs[0], batch.inputs[1], st, batch.threads, true, &out_bytes, &chosen) ? 0 : 1;
    return run_batch(batch, {".jpg", ".jpeg"}, nullptr, [&](FileJob *job) {
        return transcode_file(job->in, job->out, st, 1, false, &job->out_bytes, &job->chosen);
    });
}

}  // namespace tool
