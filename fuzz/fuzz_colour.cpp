// libFuzzer target: kivoc_to_packed and kivoc_from_packed with any planar
// layout, size, packed format, flags, line distances, margins and buffer
// size, on 0 to 3 lent threads. The reference run uses the plain kernels
// with every byte the call may not write set to 0x00; the checked run, after
// a call that met a failed allocation, the kernels the input picks and 0xFF.
// Both must agree in status and in every byte written; nothing outside the
// picture may be written, and nothing at all by a refused call.
#include "fuzz/fuzz_util.h"
#include "kivoc.h"

namespace {

struct Plan {
    bool to_packed;
    int32_t cs, w, h, format, threads, stride;
    uint32_t flags;
    size_t size;
    int32_t extra[4], extra_lines[4], margin[4];
};

// Packed rows of the picture: row y's bytes from y * stride.
bool in_rows(const Plan &p, int32_t ps, size_t i) {
    return p.stride > 0 && i / size_t(p.stride) < size_t(p.h) && i % size_t(p.stride) < size_t(p.w) * ps;
}

// A call that ran out of memory or threads may have converted some rows.
bool part_written(int32_t status) { return status == KIVO_ERR_OUT_OF_MEMORY || status == KIVO_ERR_THREAD; }

fz::Result convert(const Plan &p, const uint8_t *data, size_t n, uint8_t pattern) {
    fz::Result r;
    const kivo_tpool *pool = p.threads ? fz::pool(p.threads) : nullptr;
    const int32_t ps = kivoc_pixel_size(p.format);
    fz::Image img;
    img.make(p.cs, p.w, p.h, p.extra, p.extra_lines, p.margin);  // a bare record when xelo lacks the layout
    img.fill(pattern);
    std::vector<uint8_t> packed(p.size + 64, pattern);
    if (p.to_packed) {
        img.load(data, n);
        r.status = kivoc_to_packed(&img.img, packed.data(), p.stride, p.size, p.format, p.flags, pool);
        const bool rows_ok = r.status == 0 || part_written(r.status);
        for (size_t i = 0; i < packed.size(); ++i) {
            const bool row = ps > 0 && in_rows(p, ps, i);
            if (r.status == 0 && row) r.bytes.push_back(packed[i]);
            else if (packed[i] != pattern && !(row && rows_ok)) fz::fail("a byte written outside the rows, or by a refused call");
        }
        return r;
    }
    for (size_t i = 0; i < p.size; ++i) packed[i] = n ? data[i % n] : 0;
    r.status = kivoc_from_packed(packed.data(), p.stride, p.size, p.format, &img.img, pool);
    if (r.status == 0) r.bytes = img.visible();
    // Outside the picture every plane keeps its pattern.
    for (int q = 0; q < 4; ++q)
        for (size_t i = 0; i < img.mem[q].size(); ++i) {
            const ptrdiff_t off = ptrdiff_t(i) - p.margin[q];
            const bool vis = off >= 0 && off / img.img.stride[q] < img.vis_h[q] && off % img.img.stride[q] < img.vis_w[q];
            if (img.mem[q][i] != pattern && !(vis && (r.status == 0 || part_written(r.status))))
                fz::fail("a sample written outside the picture, or by a refused call");
        }
    return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fz::init();
    fz::Input in{data, size};
    Plan p{};
    const int32_t layouts[] = {10, 11, 12, 13, 18, 22, 40, 101, 9};
    const int32_t formats[] = {KIVOC_RGB, KIVOC_RGBA, KIVOC_BGRA, KIVOC_GREY, 0, 5};
    p.to_packed = in.byte() & 1;
    p.cs = in.one_of(layouts);
    p.w = 1 + in.pick(in.byte() & 1 ? 400 : 24);
    p.h = 1 + in.pick(in.byte() & 1 ? 200 : 24);
    p.format = in.one_of(formats);
    p.flags = in.pick(8) == 0 ? 2 : in.byte() & 1;
    p.threads = in.pick(4);
    const int32_t ps = kivoc_pixel_size(p.format) > 0 ? kivoc_pixel_size(p.format) : 3;
    p.stride = p.w * ps + int32_t(in.pick(20)) - (in.pick(8) == 0 ? 2 : 0);
    p.size = size_t(p.stride > 0 ? p.stride : 1) * (p.h - 1) + size_t(p.w) * ps - (in.pick(8) == 0 ? 1 : 0);
    for (int i = 0; i < 4; ++i) {
        p.extra[i] = in.pick(16);
        p.extra_lines[i] = in.pick(3);
        p.margin[i] = in.pick(40);
    }
    const uint32_t mask = fz::cpu_mask(in.byte());
    const uint32_t fail_at = in.pick(8);

    kivo_cpu_set_mask(0);
    const fz::Result a = convert(p, in.data, in.size, 0x00);
    kivo_cpu_set_mask(mask);
    const int32_t live = xelo_mem_live();
    {
        fz::FailAt f(fail_at);
        const fz::Result failed = convert(p, in.data, in.size, 0x5A);
        if (failed.status == 0) fz::check_same(a, failed, "a conversion that met a failed allocation");
    }
    fz::check_no_leak(live);
    const fz::Result b = convert(p, in.data, in.size, 0xFF);
    fz::check_same(a, b, "status or bytes differ from the plain kernels' on one thread");
    kivo_cpu_set_mask(~0u);
    return 0;
}
