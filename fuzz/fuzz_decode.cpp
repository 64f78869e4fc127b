// libFuzzer target: any bytes through kivod_decode and kivod_clone from
// memory, at every reduction, into a buffer of the frame's size, a reduced
// or odd size, another planar layout or packed pairs, with any line
// distances and margins. The reference run uses the plain kernels on one
// thread; the checked run uses the kernels and 1 to 3 threads the input
// picks, on a handle that first met a failed allocation (fuzz_util.h). That
// handle then decodes straight to packed pixels too, which must give the
// planar decode's pixels converted after.
#include "decoder/kivod_int.h"  // the frame's lines per MCU row
#include "fuzz/fuzz_util.h"
#include "kivoc.h"
#include "kivod.h"

namespace {

struct Plan {
    int32_t denom;
    uint8_t size_kind, layout_kind;
    int32_t extra[4], extra_lines[4], margin[4];
    kivod_limits limits;
};

Plan read_plan(fz::Input &in) {
    Plan p{};
    const int32_t denoms[] = {0, 0, 1, 2, 4, 8};
    p.denom = in.one_of(denoms);
    p.size_kind = in.byte();
    p.layout_kind = in.byte();
    for (int i = 0; i < 4; ++i) {
        p.extra[i] = in.pick(40);
        p.extra_lines[i] = in.pick(3);
        p.margin[i] = in.pick(64);
    }
    // Bounded pictures keep runs fast; the other limits are fuzzed too.
    p.limits.max_pixels = 1 << 20;
    p.limits.max_scans = in.pick(4) == 0 ? 1 + in.pick(8) : 0;
    p.limits.max_memory = in.pick(4) == 0 ? int64_t(in.u16()) << in.pick(12) : 0;
    return p;
}

// Another planar layout with as many planes as the frame's.
int32_t other_layout(int32_t cs, uint8_t k) {
    const int32_t three[] = {11, 12, 13, 18, 22};
    const int32_t four[] = {41, 42, 43};
    if (cs == XELO_CS_YCBCR400) return cs;
    if (cs >= 40) return four[k % 3];
    return three[k % 5];
}

fz::Result decode(kivod_ctx *ctx, const uint8_t *data, size_t size, const Plan &plan, uint8_t pattern,
                  kivod_progress *progress) {
    fz::Result r;
    *progress = kivod_progress{};
    xelo_bitb bitb{};
    bitb.addr = const_cast<uint8_t *>(data);
    bitb.ssize = int32_t(size);
    const kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
    kivod_frame_info info{};
    r.status = kivod_decode(ctx, &in, &info);
    if (r.status != 0) return r;
    int32_t w = info.width, h = info.height, cs = info.color_format;
    const int32_t d = 1 << (plan.size_kind % 5);
    if (plan.size_kind % 5 == 4) {
        w = w * 2 / 3 + 1;
        h = h * 3 / 5 + 1;
    } else {
        w = (w + d - 1) / d;
        h = (h + d - 1) / d;
    }
    if (plan.layout_kind % 3 == 1) cs = XELO_CS_YUYV;
    if (plan.layout_kind % 3 == 2) cs = other_layout(cs, plan.layout_kind / 3);
    fz::Image img;
    if (!img.make(cs, w, h, plan.extra, plan.extra_lines, plan.margin)) {
        r.status = 2;  // no such buffer; the next decode starts over
        return r;
    }
    img.fill(pattern);
    r.status = kivod_clone(ctx, &img.img);
    kivod_get_progress(ctx, progress);
    if (r.status != 0) return r;
    // Written: every sample of a complete or progressive picture (it is
    // reconstructed whole); of a sequential one at its own size and layout,
    // the lines of the decoded MCU rows.
    int32_t rows[4] = {0, 0, 0, 0};
    const bool own = w == info.width && h == info.height && cs == info.color_format && plan.denom <= 1;
    const int64_t lines = int64_t(progress->mcu_rows) * 8 * (ctx->fh.v_max ? ctx->fh.v_max : 1);
    for (int p = 0; p < 4; ++p)
        rows[p] = progress->complete || ctx->progressive ? img.vis_h[p]
                  : own ? int32_t(lines * img.vis_h[p] / info.height) : 0;
    r.bytes = img.visible(rows);
    return r;
}

// The decode straight to packed pixels (kivoc_decode_packed) on ctx: for a
// complete picture, the same bytes as the planar decode of the same handle
// converted after (kivod_clone, then kivoc_to_packed).
void check_packed(kivod_ctx *ctx, const uint8_t *data, size_t size, uint32_t flags) {
    xelo_bitb bitb{};
    bitb.addr = const_cast<uint8_t *>(data);
    bitb.ssize = int32_t(size);
    const kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
    kivod_frame_info info{};
    if (kivod_decode(ctx, &in, &info) != 0) return;
    const int32_t d = ctx->reduction > 1 ? ctx->reduction : 1;
    const int32_t w = (info.width + d - 1) / d, h = (info.height + d - 1) / d;
    std::vector<uint8_t> fused(size_t(w) * h * 4, 0xA5), after(fused.size(), 0x5A);
    const int32_t st = kivoc_decode_packed(ctx, fused.data(), w * 4, fused.size(), KIVOC_RGBA, flags);
    kivod_progress pf{};
    kivod_get_progress(ctx, &pf);
    if (st != 0 || !pf.complete || kivod_decode(ctx, &in, &info) != 0) return;
    const uint32_t al[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
    const uint32_t pad[4] = {0, 0, 0, 0};
    xelo_imgb *img = xelo_imgb_create(w, h, info.color_format, 3, al, pad, 0, 0, 0);
    if (!img) return;
    if (kivod_clone(ctx, img) == 0 &&
        kivoc_to_packed(img, after.data(), w * 4, after.size(), KIVOC_RGBA, flags, nullptr) == 0)
        fz::check(fused == after, "kivoc_decode_packed differs from the planar decode converted after");
    img->release(img);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fz::init();
    if (size > (1u << 22)) return 0;
    fz::Input in{data, size};
    const Plan plan = read_plan(in);
    const uint32_t mask = fz::cpu_mask(in.byte());
    // The frame buffers grow with the threads, so a memory limit is
    // compared on one thread.
    const int threads = plan.limits.max_memory ? 1 : 1 + in.pick(3);
    const uint32_t fail_at = in.pick(24);

    kivo_cpu_set_mask(0);
    const kivod_create_param one{1, nullptr};
    kivod_ctx *ref = kivod_create(&one, nullptr);
    fz::check(ref && kivod_set_reduction(ref, plan.denom) == 0 && kivod_set_limits(ref, &plan.limits) == 0,
              "reference handle");
    kivod_progress pa;
    const fz::Result a = decode(ref, in.data, in.size, plan, 0x00, &pa);
    kivod_delete(ref);

    kivo_cpu_set_mask(mask);
    const int32_t live = xelo_mem_live();
    const kivod_create_param many{1, fz::pool(threads)};
    kivod_ctx *ctx = nullptr;
    {
        fz::FailAt f(fail_at);
        ctx = kivod_create(&many, nullptr);
        if (ctx) {
            kivod_set_reduction(ctx, plan.denom);
            kivod_set_limits(ctx, &plan.limits);
            kivod_progress pf;
            const fz::Result failed = decode(ctx, in.data, in.size, plan, 0x5A, &pf);
            if (failed.status == 0) fz::check_same(a, failed, "a decode that met a failed allocation");
        }
    }
    if (!ctx) {
        fz::check_no_leak(live);
        ctx = kivod_create(&many, nullptr);
        fz::check(ctx != nullptr, "handle");
        kivod_set_reduction(ctx, plan.denom);
        kivod_set_limits(ctx, &plan.limits);
    }
    kivod_progress pb;
    const fz::Result b = decode(ctx, in.data, in.size, plan, 0xFF, &pb);
    fz::check_same(a, b, "status or written samples differ from the plain one-thread decode");
    fz::check(pa.complete == pb.complete && pa.mcu_rows == pb.mcu_rows, "progress differs");
    check_packed(ctx, in.data, in.size, plan.size_kind & 0x80 ? KIVOC_NEAREST : 0);
    kivod_delete(ctx);
    fz::check_no_leak(live);
    kivo_cpu_set_mask(~0u);
    return 0;
}
