// libFuzzer target: kivot_txcode, kivot_txcode_lossless (baseline or
// progressive) or kivot_txcode_smallest over any source bytes with every
// setting (output size, colour format and quality at creation, the four
// encoder switches, quality, decode-only, the copy choice) into output
// memory of any size. The
// reference run uses the plain kernels and output memory filled with 0x00;
// the checked run the kernels the input picks, 0xFF, and a handle that
// first met a failed allocation. Both must give the same status and stream;
// the bytes after the stream keep their pattern, and a stream that is not
// format 40's decodes completely with our decoder (in a layout it does not
// reconstruct: has its levels read whole).
#include "fuzz/fuzz_util.h"
#include "kivot.h"

namespace {

struct Plan {
    kivoe_create_param cp;
    int32_t flags[4], quality, set_quality, skip, set_format, format, mode, copy;
    size_t out_size;
    // The lossless calls ignore the decode-only setting.
    bool decode_only() const { return skip && mode != 1 && mode != 2; }
};

fz::Result transcode(kivot_ctx *ctx, const Plan &p, const uint8_t *data, size_t size, uint8_t pattern,
                     std::vector<uint8_t> &out) {
    fz::Result r;
    const int32_t four = 4;
    for (int i = 0; i < 4; ++i) kivot_config(ctx, KIVOT_CFG_JND_FILTER + i, const_cast<int32_t *>(&p.flags[i]), &four);
    if (p.set_quality) kivot_config(ctx, KIVOT_CFG_QUALITY, const_cast<int32_t *>(&p.quality), &four);
    if (p.set_format) kivot_config(ctx, KIVOT_CFG_COLOR_FORMAT, const_cast<int32_t *>(&p.format), &four);
    kivot_config(ctx, KIVOT_CFG_SKIP_ENCODE, const_cast<int32_t *>(&p.skip), &four);
    const kivod_limits limits{1 << 20, 0, 0, 0};
    kivot_set_limits(ctx, &limits);
    xelo_bitb src{}, dst{};
    src.addr = const_cast<uint8_t *>(data);
    src.ssize = int32_t(size);
    out.assign(p.out_size + 64, pattern);
    dst.addr = out.data();
    dst.ssize = int32_t(p.out_size);
    const kivod_input in{KIVOD_INPUT_BITB, &src, nullptr};
    const kivoe_output o{KIVOD_INPUT_BITB, &dst, nullptr};
    int32_t written = -1, chosen = 0;
    kivot_set_copy(ctx, p.copy);
    if (p.mode == 0) r.status = kivot_txcode(ctx, &in, &o, &written);
    else if (p.mode < 3) r.status = kivot_txcode_lossless(ctx, &in, &o, &written, p.mode - 1);
    else r.status = kivot_txcode_smallest(ctx, &in, &o, &written, &chosen);
    r.source = chosen == KIVOT_CHOSEN_SOURCE;
    if (r.status != 0 || p.decode_only()) return r;
    fz::check(written > 0 && size_t(written) <= p.out_size, "written size outside the output memory");
    fz::check(p.mode != 3 || chosen == KIVOT_CHOSEN_PIPELINE || size_t(written) <= size,
              "the smallest output outgrew the source");
    for (size_t i = size_t(written); i < out.size(); ++i) fz::check(out[i] == pattern, "a byte written after the stream");
    r.bytes.assign(out.begin(), out.begin() + written);
    return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fz::init();
    if (size > (1u << 22)) return 0;
    fz::Input in{data, size};
    Plan p{};
    const int32_t formats[] = {0, 0, 10, 11, 12, 13, 18, 22, 40, 41, 42, 43, 44, 101, 7};
    const int threads = 1 + in.pick(3);
    p.cp = kivoe_create_param{1, in.pick(4) ? 0 : int32_t(in.pick(300)), in.pick(4) ? 0 : int32_t(in.pick(300)),
                              int32_t(in.pick(101)), in.one_of(formats), fz::pool(threads)};
    for (int32_t &f : p.flags) f = in.byte() & 1;
    p.set_quality = in.byte() & 1;
    p.quality = int32_t(in.pick(103)) - 1;
    p.set_format = in.byte() & 1;
    p.format = in.one_of(formats);
    p.skip = in.pick(8) == 0;
    p.out_size = in.pick(3) ? size * 4 + 65536 : in.pick(65536);
    p.mode = in.pick(4);
    p.copy = in.pick(3);
    const uint32_t mask = fz::cpu_mask(in.byte());
    const uint32_t fail_at = in.pick(32);
    std::vector<uint8_t> out;

    kivo_cpu_set_mask(0);
    kivot_ctx *ref = kivot_create(&p.cp, nullptr);
    if (!ref) return 0;  // a setting creation refuses
    const fz::Result a = transcode(ref, p, in.data, in.size, 0x00, out);
    kivot_delete(ref);

    kivo_cpu_set_mask(mask);
    const int32_t live = xelo_mem_live();
    kivot_ctx *ctx = nullptr;
    fz::Result b;
    {
        fz::FailAt f(fail_at);
        ctx = kivot_create(&p.cp, nullptr);
        if (ctx) b = transcode(ctx, p, in.data, in.size, 0x5A, out);
    }
    if (!ctx) {
        fz::check_no_leak(live);
        ctx = kivot_create(&p.cp, nullptr);
        fz::check(ctx != nullptr, "handle");
    }
    // The transcoder starts every source afresh, so a second call on the
    // handle must give the first call's result.
    if (b.status == 0) fz::check_same(a, b, "a transcoding that met a failed allocation");
    b = transcode(ctx, p, in.data, in.size, 0xFF, out);
    fz::check_same(a, b, "status or stream differ from the plain kernels' on a fresh handle");
    kivot_delete(ctx);
    fz::check_no_leak(live);
    kivo_cpu_set_mask(~0u);

    // A source handed back unchanged need not decode whole.
    if (b.status == 0 && !p.decode_only() && !b.source) {
        kivod_ctx *d = kivod_create(nullptr, nullptr);
        xelo_bitb bitb{};
        bitb.addr = b.bytes.data();
        bitb.ssize = int32_t(b.bytes.size());
        const kivod_input din{KIVOD_INPUT_BITB, &bitb, nullptr};
        kivod_frame_info info{};
        int32_t st = kivod_decode(d, &din, &info);
        if (st == 0) {
            const int32_t zero[4] = {0, 0, 0, 0};
            fz::Image img;
            fz::check(img.make(info.color_format, info.width, info.height, zero, zero, zero), "layout");
            st = kivod_clone(d, &img.img);
            kivod_progress pr{};
            kivod_get_progress(d, &pr);
            fz::check(st == 0 && pr.complete, "the new stream does not decode whole");
        }
        // Format 40's streams (empty chroma components) nothing reads. Other
        // layouts our decoder does not reconstruct (format 44's, a lossless
        // output of a source in such a layout) have their levels read whole.
        const int32_t format = p.set_format ? p.format : p.cp.color_format;
        const bool layout = st == KIVO_ERR_COLOR_FORMAT || (st == KIVO_ERR_UNSUPPORTED && info.width > 0 && info.color_format == 0);
        if (layout && format == XELO_CS_YCBCRK400 && p.mode != 1 && p.mode != 2) {
            st = 0;
        } else if (layout) {
            const kivoe_create_param cp{1, 0, 0, 0, 0, nullptr};
            kivot_ctx *again = kivot_create(&cp, nullptr);
            std::vector<uint8_t> re(b.bytes.size() * 2 + 65536);
            xelo_bitb rb{};
            rb.addr = re.data();
            rb.ssize = int32_t(re.size());
            const kivoe_output ro{KIVOD_INPUT_BITB, &rb, nullptr};
            int32_t n = 0;
            st = kivot_txcode_lossless(again, &din, &ro, &n, KIVOT_LOSSLESS_BASELINE);
            kivot_delete(again);
            fz::check(st == 0, "the levels of a new stream in a layout our decoder does not take do not read whole");
        }
        fz::check(st == 0, "the new stream is refused");
        kivod_delete(d);
    }
    return 0;
}
