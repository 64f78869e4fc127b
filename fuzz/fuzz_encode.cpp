// libFuzzer target: kivoe_push and kivoe_encode over every colour format,
// plane geometry (line distance, extra lines and a margin before each plane;
// in place or copied), switch, table source (quality, caller's tables,
// perceptual choice) and thread count, into output memory that is sometimes
// too small. The samples come from the input.
//
// The reference run uses the plain kernels with every byte around the
// picture and in the output set to 0x00; the checked run, after a failed
// allocation on its handle (repeated when it failed), the kernels the
// input picks with 0xFF there.
// Same thread count: the segments, and so the stream, follow it. Equal
// streams show that nothing outside the picture was read and every
// reported byte was written; the bytes after the stream must keep their
// pattern. The stream is then decoded by our decoder and by libjpeg-turbo.
#include <algorithm>

#include "fuzz/fuzz_util.h"
#include "kivoe.h"
#if defined(KIVO_FUZZ_TURBO)
#include <turbojpeg.h>
#endif

namespace {

struct Plan {
    int32_t cs, w, h, threads, quality;
    int32_t extra[4], extra_lines[4], margin[4];
    int32_t flags[4];  // KIVOE_CFG_JND_FILTER .. KIVOE_CFG_ADAPTIVE_ROUNDING
    int32_t progressive;
    int32_t tables;    // 0: creation quality, 1: KIVOE_CFG_QUALITY, 2: KIVOE_CFG_QTBL, 3: kivoe_get_qtbl
    int32_t set_quality, level;
    uint8_t qtbl[128];
    size_t out_size;
};

Plan read_plan(fz::Input &in) {
    Plan p{};
    const int32_t formats[] = {10, 11, 12, 13, 18, 22, 40, 41, 42, 43, 44, 16, 17, 101, 9, 14};
    p.cs = in.one_of(formats);
    p.w = 1 + in.pick(in.byte() & 1 ? 300 : 40);
    p.h = 1 + in.pick(in.byte() & 1 ? 300 : 40);
    p.threads = 1 + in.pick(3);
    p.quality = in.pick(101);
    const bool in_place = in.byte() & 1;
    int32_t vw[4], vh[4], n;
    xelo_cs_planes(p.cs, p.w, p.h, vw, vh, &n);
    for (int i = 0; i < 4; ++i) {
        p.extra[i] = in.pick(24);
        p.extra_lines[i] = in.pick(3);
        p.margin[i] = in.pick(48);
    }
    if (in_place) {  // line distance and lines of the luma plane multiples of 16, one chroma distance
        p.extra[0] += (16 - (vw[0] + p.extra[0]) % 16) % 16;
        p.extra_lines[0] = (16 - vh[0] % 16) % 16;
        p.extra[2] = p.extra[1];
        p.extra[3] = p.extra[0];
    }
    for (int32_t &f : p.flags) f = in.byte() & 1;
    p.progressive = in.byte() % 3 == 0;
    p.tables = in.pick(4);
    p.set_quality = int32_t(in.pick(104)) - 2;
    p.level = int32_t(in.pick(15)) - 1;
    for (uint8_t &q : p.qtbl) q = in.byte();
    const size_t full = size_t(p.w) * p.h * 6 + 4096;
    p.out_size = in.pick(4) == 0 ? in.pick(uint32_t(std::min<size_t>(full, 65535))) : full;
    return p;
}

struct Encoded : fz::Result {
    int32_t written = 0;
};

Encoded encode(kivoe_ctx *ctx, const Plan &p, fz::Image &img, std::vector<uint8_t> &out, uint8_t pattern) {
    Encoded r;
    const int32_t four = 4, all = 128;
    for (int i = 0; i < 4; ++i) kivoe_config(ctx, KIVOE_CFG_JND_FILTER + i, &p.flags[i], &four);
    if (p.tables == 1) kivoe_config(ctx, KIVOE_CFG_QUALITY, &p.set_quality, &four);
    if (p.tables == 2) kivoe_config(ctx, KIVOE_CFG_QTBL, p.qtbl, &all);
    kivoe_set_progressive(ctx, p.progressive);
    r.status = kivoe_push(ctx, &img.img);
    if (r.status != 0) return r;
    if (p.tables == 3) {
        uint8_t t[128];
        if (kivoe_get_qtbl(ctx, p.level, t) == 0) r.bytes.assign(t, t + 128);  // the stream follows
    }
    out.assign(p.out_size + 64, pattern);
    xelo_bitb bitb{};
    bitb.addr = out.data();
    bitb.ssize = int32_t(p.out_size);
    const kivoe_output o{KIVOD_INPUT_BITB, &bitb, nullptr};
    int32_t written = -1;
    r.status = kivoe_encode(ctx, &o, &written);
    if (r.status != 0) return r;
    fz::check(written > 0 && size_t(written) <= p.out_size, "written size outside the output memory");
    for (size_t i = size_t(written); i < out.size(); ++i) fz::check(out[i] == pattern, "a byte written after the stream");
    r.bytes.insert(r.bytes.end(), out.begin(), out.begin() + written);
    r.written = written;
    return r;
}

// The stream as our decoder and libjpeg-turbo see it. Format 40 declares
// its empty chroma components with 0x0 sampling, which both refuse; our
// decoder does not take four components with 4:4:0 chroma (format 44).
void decode_again(const Plan &p, std::vector<uint8_t> &jpg) {
    const bool refused = p.cs == XELO_CS_YCBCRK400;
    const bool ours_refuses = refused || p.cs == XELO_CS_YCBCRK440;
    kivod_ctx *d = kivod_create(nullptr, nullptr);
    xelo_bitb bitb{};
    bitb.addr = jpg.data();
    bitb.ssize = int32_t(jpg.size());
    const kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
    kivod_frame_info info{};
    int32_t st = kivod_decode(d, &in, &info);
    fz::Image img;
    const int32_t zero[4] = {0, 0, 0, 0};
    if (!ours_refuses) {
        fz::check(st == 0 && info.width == p.w && info.height == p.h && info.color_format == p.cs, "decoded frame differs");
        fz::check(img.make(info.color_format, p.w, p.h, zero, zero, zero), "layout");
        st = kivod_clone(d, &img.img);
        kivod_progress pr{};
        kivod_get_progress(d, &pr);
        fz::check(st == 0 && pr.complete, "our decoder did not decode the whole stream");
    }
    kivod_delete(d);
    fz::check(ours_refuses == (st != 0), "our decoder refused the stream, or took one it cannot");
#if defined(KIVO_FUZZ_TURBO)
    tjhandle tj = tjInitDecompress();
    int w = 0, h = 0, sub = -1, space = -1;
    const bool header = tjDecompressHeader3(tj, jpg.data(), jpg.size(), &w, &h, &sub, &space) == 0;
    if (refused) {
        std::vector<uint8_t> px(size_t(p.w) * p.h * 4);
        fz::check(!header || tjDecompress2(tj, jpg.data(), jpg.size(), px.data(), p.w, 0, p.h, TJPF_CMYK, 0) != 0,
                  "libjpeg-turbo took format 40's stream");
    } else if (p.cs >= 40) {
        std::vector<uint8_t> px(size_t(p.w) * p.h * 4);
        fz::check(header && tjDecompress2(tj, jpg.data(), jpg.size(), px.data(), p.w, 0, p.h, TJPF_CMYK, 0) == 0,
                  "libjpeg-turbo refused the stream");
    } else {
        fz::check(header && w == p.w && h == p.h, "libjpeg-turbo read another header");
        // libjpeg-turbo pads its planes to whole chroma samples; ours are
        // compared where they lie. Samples within a small IDCT difference.
        std::vector<uint8_t> planes[3];
        unsigned char *dst[3] = {};
        int strides[3] = {};
        for (int c = 0; c < 3 && img.vis_w[c]; ++c) {
            strides[c] = tjPlaneWidth(c, w, sub);
            planes[c].resize(size_t(strides[c]) * tjPlaneHeight(c, h, sub));
            dst[c] = planes[c].data();
        }
        fz::check(tjDecompressToYUVPlanes(tj, jpg.data(), jpg.size(), dst, p.w, strides, p.h, 0) == 0,
                  "libjpeg-turbo refused the stream");
        for (int c = 0; c < 3 && img.vis_w[c]; ++c)
            for (int32_t y = 0; y < img.vis_h[c]; ++y)
                for (int32_t x = 0; x < img.vis_w[c]; ++x)
                    fz::check(std::abs(planes[c][size_t(y) * strides[c] + x] -
                                       img.img.plane[c][size_t(y) * img.img.stride[c] + x]) <= 2,
                              "libjpeg-turbo decoded other samples");
    }
    tjDestroy(tj);
#endif
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fz::init();
    fz::Input in{data, size};
    const Plan p = read_plan(in);
    const uint32_t mask = fz::cpu_mask(in.byte());
    const uint32_t fail_at = in.pick(24);
    fz::Image img;
    img.make(p.cs, p.w, p.h, p.extra, p.extra_lines, p.margin);  // a bare record when xelo lacks the layout
    const kivoe_create_param cp{1, p.w, p.h, p.quality, p.cs, fz::pool(p.threads)};
    std::vector<uint8_t> out;

    kivo_cpu_set_mask(0);
    kivoe_ctx *ref = kivoe_create(&cp, nullptr);
    fz::check(ref != nullptr, "reference handle");
    img.fill(0x00);
    img.load(in.data, in.size);
    const Encoded a = encode(ref, p, img, out, 0x00);
    kivoe_delete(ref);

    kivo_cpu_set_mask(mask);
    img.fill(0xFF);
    img.load(in.data, in.size);
    const int32_t live = xelo_mem_live();
    // Optimised Huffman tables count the symbols of every picture a handle
    // encodes, so only a call that failed may be repeated on its handle.
    kivoe_ctx *ctx = nullptr;
    Encoded b;
    {
        fz::FailAt f(fail_at);
        ctx = kivoe_create(&cp, nullptr);
        if (ctx) b = encode(ctx, p, img, out, 0xFF);
    }
    if (!ctx) {
        fz::check_no_leak(live);
        ctx = kivoe_create(&cp, nullptr);
        fz::check(ctx != nullptr, "handle");
    }
    if (b.status != 0) b = encode(ctx, p, img, out, 0xFF);
    fz::check_same(a, b, "status or stream differ from the plain kernels' with other bytes around the picture");
    kivoe_delete(ctx);
    fz::check_no_leak(live);
    kivo_cpu_set_mask(~0u);
    if (b.status == 0) {
        const size_t tables = b.bytes.size() - size_t(b.written);
        std::vector<uint8_t> jpg(b.bytes.begin() + tables, b.bytes.end());
        decode_again(p, jpg);
    }
    return 0;
}
