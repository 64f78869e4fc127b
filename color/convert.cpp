// The exported conversions: argument checks, the row loops that feed the
// kernels, and the split of rows over the caller's threads.
//
// Every output row is computed from its own input rows only, so any split
// of the rows gives the same bytes.
#include <cstdlib>
#include <cstring>

#include "color/kivoc_int.h"

namespace kivo {

// The planar layouts served here. The plane sizes come from the library's
// layout table; this only lists which of its layouts we convert.
const Layout *planar_layout(int32_t format) {
    switch (format) {
    case XELO_CS_YCBCR400: case XELO_CS_YCBCR420: case XELO_CS_YCBCR422:
    case XELO_CS_YCBCR444: case XELO_CS_YCBCR440: case XELO_CS_YCBCR411:
        return layout_of(format);
    default:
        return nullptr;
    }
}

int32_t pixel_size(int32_t format) {
    switch (format) {
    case KIVOC_RGB: return 3;
    case KIVOC_RGBA: case KIVOC_BGRA: return 4;
    case KIVOC_GREY: return 1;
    default: return KIVO_ERR_COLOR_FORMAT;
    }
}

namespace {

int pack_index(int32_t format) {
    return format == KIVOC_RGB ? kPackRGB : (format == KIVOC_RGBA ? kPackRGBA : kPackBGRA);
}

struct Job {
    const Task *task;
    int32_t first, end;            // units: output rows (to packed), chroma row groups (from packed)
    uint8_t *scratch;
};

// Scratch of one job, carved from its block: two 16-bit sum rows with an
// edge slot on each side, two full-width chroma rows per input row pair, and
// a row of 128s for grey pictures and grey input.
struct Scratch {
    uint16_t *s[2];
    uint8_t *c[2][2];  // [chroma component][row of the pair]
    uint8_t *mid;
};

size_t row_bytes(int32_t w) { return (static_cast<size_t>(w) + 8 + 31) & ~static_cast<size_t>(31); }

}  // namespace

size_t scratch_bytes(int32_t w, int32_t cw) {
    return 2 * row_bytes(2 * (cw + 2)) + 5 * row_bytes(w);
}

namespace {

Scratch carve(uint8_t *p, int32_t w, int32_t cw) {
    Scratch s;
    for (int k = 0; k < 2; ++k, p += row_bytes(2 * (cw + 2))) s.s[k] = reinterpret_cast<uint16_t *>(p) + 1;
    for (int k = 0; k < 2; ++k)
        for (int r = 0; r < 2; ++r, p += row_bytes(w)) s.c[k][r] = p;
    s.mid = p;
    std::memset(s.mid, 128, static_cast<size_t>(w));
    return s;
}

const uint8_t *row(const Task &t, int p, int32_t y) {
    if (t.ring[p]) y %= t.ring[p];
    return t.plane[p] + static_cast<ptrdiff_t>(y) * t.stride[p];
}

// Full-width chroma of output row y for component k (plane 1 or 2).
const uint8_t *chroma_row(const Task &t, const Scratch &sc, int k, int32_t y) {
    const Layout &l = *t.lay;
    const int p = 1 + k;
    const int32_t cy = y >> l.y_shift;
    const uint8_t *near = row(t, p, cy);
    uint8_t *out = sc.c[k][0];
    if (l.x_shift == 0 && (l.y_shift == 0 || t.nearest)) return near;
    if (t.nearest) {
        const int f = 1 << l.x_shift;
        for (int32_t i = 0; i < t.w; ++i) out[i] = near[i / f];
        return out;
    }
    // Triangular (3/4, 1/4) interpolation; the rounding terms alternate so
    // that the two outputs of a pair do not both round up.
    uint16_t *s = sc.s[k];
    int b0 = 1, b1 = 2, sh = 2;  // horizontal only: sums of single samples
    if (l.y_shift) {
        // The nearer chroma row weighs 3, the row beyond the output row 1;
        // at the top and bottom the edge row stands in for the missing one.
        int32_t fy = (y & 1) ? cy + 1 : cy - 1;
        fy = fy < 0 ? 0 : (fy >= t.ch ? t.ch - 1 : fy);
        t.dsp->vsum3(near, row(t, p, fy), s, t.cw);
        if (l.x_shift == 0) {
            const int bias = (y & 1) ? 2 : 1;
            for (int32_t i = 0; i < t.w; ++i) out[i] = static_cast<uint8_t>((s[i] + bias) >> 2);
            return out;
        }
        b0 = 8, b1 = 7, sh = 4;
    } else if (l.x_shift == 1) {
        for (int32_t i = 0; i < t.cw; ++i) s[i] = near[i];
    } else {
        // 4:1:1: outputs sit 3/8, 1/8, 1/8 and 3/8 of a chroma sample from
        // its centre, so the weights are eighths.
        for (int32_t i = 0; i < t.cw; ++i) {
            const int32_t a = near[i > 0 ? i - 1 : 0], c = near[i], b = near[i + 1 < t.cw ? i + 1 : i];
            uint8_t *o = out + 4 * i;
            o[0] = static_cast<uint8_t>((3 * a + 5 * c + 4) >> 3);
            o[1] = static_cast<uint8_t>((a + 7 * c + 4) >> 3);
            o[2] = static_cast<uint8_t>((7 * c + b + 3) >> 3);
            o[3] = static_cast<uint8_t>((5 * c + 3 * b + 3) >> 3);
        }
        return out;
    }
    s[-1] = s[0];
    s[t.cw] = s[t.cw - 1];
    t.dsp->h2_fancy(s, out, t.cw, b0, b1, sh);
    return out;
}

}  // namespace

void to_packed_rows(const Task &t, uint8_t *scratch, int32_t first, int32_t end) {
    const Scratch sc = carve(scratch, t.w, t.cw);
    for (int32_t y = first; y < end; ++y) {
        uint8_t *dst = t.packed + static_cast<ptrdiff_t>(y) * t.packed_stride;
        const uint8_t *yr = row(t, 0, y);
        if (t.packed_format == KIVOC_GREY) {
            std::memcpy(dst, yr, static_cast<size_t>(t.w));
            continue;
        }
        const uint8_t *cb = t.lay->chroma ? chroma_row(t, sc, 0, y) : sc.mid;
        const uint8_t *cr = t.lay->chroma ? chroma_row(t, sc, 1, y) : sc.mid;
        t.dsp->to_packed[pack_index(t.packed_format)](yr, cb, cr, dst, t.w);
    }
}

namespace {

int32_t to_packed_job(void *arg) {
    const Job &j = *static_cast<Job *>(arg);
    to_packed_rows(*j.task, j.scratch, j.first, j.end);
    return KIVO_OK;
}

// Reduces two full-width rows of one component (2 or 4 samples past w are
// edge copies) into the chroma plane's row.
void reduce(const Task &t, const uint8_t *r0, const uint8_t *r1, uint8_t *out) {
    const Layout &l = *t.lay;
    if (l.x_shift == 1) {
        (l.y_shift ? t.dsp->down_h2v2 : t.dsp->down_h2v1)(r0, r1, out, t.cw);
    } else if (l.x_shift == 2) {
        for (int32_t i = 0; i < t.cw; ++i)
            out[i] = static_cast<uint8_t>((r0[4 * i] + r0[4 * i + 1] + r0[4 * i + 2] + r0[4 * i + 3] + 2) >> 2);
    } else if (l.y_shift) {
        for (int32_t i = 0; i < t.cw; ++i) out[i] = static_cast<uint8_t>((r0[i] + r1[i] + 1) >> 1);
    } else {
        std::memcpy(out, r0, static_cast<size_t>(t.cw));
    }
}

int32_t from_packed_job(void *arg) {
    const Job &j = *static_cast<Job *>(arg);
    const Task &t = *j.task;
    const Layout &l = *t.lay;
    const Scratch sc = carve(j.scratch, t.w, t.cw);
    const int32_t rows = 1 << l.y_shift;
    const int32_t padded = t.cw << l.x_shift;
    for (int32_t g = j.first; g < j.end; ++g) {
        for (int32_t r = 0; r < rows; ++r) {
            const int32_t y = g * rows + r;
            if (y >= t.h) {  // odd bottom edge: the last row stands in
                for (int k = 0; k < 2; ++k) std::memcpy(sc.c[k][r], sc.c[k][r - 1], static_cast<size_t>(padded));
                continue;
            }
            const uint8_t *src = t.packed + static_cast<ptrdiff_t>(y) * t.packed_stride;
            uint8_t *yr = t.plane[0] + static_cast<ptrdiff_t>(y) * t.stride[0];
            if (t.packed_format == KIVOC_GREY) {
                std::memcpy(yr, src, static_cast<size_t>(t.w));
                for (int k = 0; k < 2; ++k) std::memcpy(sc.c[k][r], sc.mid, static_cast<size_t>(t.w));
            } else {
                t.dsp->from_packed[pack_index(t.packed_format)](src, yr, sc.c[0][r], sc.c[1][r], t.w);
            }
            for (int k = 0; k < 2; ++k)
                for (int32_t i = t.w; i < padded; ++i) sc.c[k][r][i] = sc.c[k][r][t.w - 1];
        }
        if (!l.chroma) continue;
        for (int k = 0; k < 2; ++k) {
            uint8_t *out = t.plane[1 + k] + static_cast<ptrdiff_t>(g) * t.stride[1 + k];
            reduce(t, sc.c[k][0], sc.c[k][rows - 1], out);
        }
    }
    return KIVO_OK;
}

}  // namespace

int32_t check_packed(const uint8_t *data, int32_t stride, size_t size, int32_t format, Task *t) {
    const int32_t bpp = pixel_size(format);
    if (bpp < 0) return bpp;
    if (!data) return KIVO_ERR_INVALID_ARG;
    const uint64_t line = static_cast<uint64_t>(t->w) * static_cast<uint64_t>(bpp);
    if (stride < 0 || static_cast<uint64_t>(stride) < line) return KIVO_ERR_IMGB;
    if (static_cast<uint64_t>(t->h - 1) * static_cast<uint64_t>(stride) + line > size) return KIVO_ERR_IMGB;
    t->packed = const_cast<uint8_t *>(data);
    t->packed_stride = stride;
    t->packed_format = format;
    return KIVO_OK;
}

namespace {

// Checks the planes of img against its layout; fills the task's plane
// fields and sizes.
int32_t check_planes(const xelo_imgb *img, Task *t) {
    if (!img) return KIVO_ERR_INVALID_ARG;
    t->lay = planar_layout(img->color_format);
    if (!t->lay) return KIVO_ERR_COLOR_FORMAT;
    t->w = img->width;
    t->h = img->height;
    if (t->w < 1 || t->h < 1 || t->w > 65535 || t->h > 65535) return KIVO_ERR_INVALID_ARG;
    t->cw = chroma_width(*t->lay, t->w);
    t->ch = chroma_height(*t->lay, t->h);
    const int n = t->lay->chroma ? 3 : 1;
    for (int p = 0; p < 3; ++p) {
        t->plane[p] = p < n ? img->plane[p] : nullptr;
        t->stride[p] = p < n ? img->stride[p] : 0;
        if (p >= n) continue;
        if (!t->plane[p]) return KIVO_ERR_INVALID_ARG;
        const int32_t pw = p ? t->cw : t->w, ph = p ? t->ch : t->h;
        if (img->stride[p] < pw || img->lines[p] < ph) return KIVO_ERR_IMGB;
    }
    return KIVO_OK;
}

// Splits units of work over the pool's threads (made for this call) and
// runs job on each share.
int32_t run(Task &t, int32_t units, kivo_job_fn job, const kivo_tpool *tpool) {
    kivo_tpool tp{};
    int n = 1;
    if (tpool) {
        tp = *tpool;
        n = thread_limit(tp);
        if (n > units) n = units;
    }
    t.scratch_size = scratch_bytes(t.w, t.cw);
    uint8_t *block = static_cast<uint8_t *>(xelo_malloc_fast_align32(t.scratch_size * n));
    if (!block) return KIVO_ERR_OUT_OF_MEMORY;

    void *threads[kMaxThreads] = {};
    int32_t status = KIVO_OK;
    for (int i = 1; i < n && status == KIVO_OK; ++i) {
        threads[i] = tp.create ? tp.create(&tp, i) : nullptr;
        if (!threads[i]) status = KIVO_ERR_THREAD;
    }
    Job jobs[kMaxThreads];
    void *args[kMaxThreads];
    for (int i = 0; i < n; ++i) {
        jobs[i] = Job{&t, static_cast<int32_t>(static_cast<int64_t>(units) * i / n),
                      static_cast<int32_t>(static_cast<int64_t>(units) * (i + 1) / n), block + t.scratch_size * i};
        args[i] = &jobs[i];
    }
    if (status == KIVO_OK) status = fork_join(tp, threads, n, job, args);
    for (int i = 1; i < n; ++i)
        if (threads[i] && tp.release) tp.release(threads[i]);
    xelo_mfree_fast_align32(block);
    return status;
}

}  // namespace
}  // namespace kivo

KIVO_EXPORT int32_t kivoc_pixel_size(int32_t format) { return kivo::pixel_size(format); }

KIVO_EXPORT int32_t kivoc_to_packed(const xelo_imgb *src, uint8_t *dst, int32_t dst_stride, size_t dst_size,
                                    int32_t dst_format, uint32_t flags, const kivo_tpool *tpool) {
    kivo::Task t{};
    if (flags & ~KIVOC_NEAREST) return KIVO_ERR_INVALID_ARG;
    int32_t ret = kivo::check_planes(src, &t);
    if (ret == KIVO_OK) ret = kivo::check_packed(dst, dst_stride, dst_size, dst_format, &t);
    if (ret != KIVO_OK) return ret;
    t.dsp = &kivo::color_dsp(kivo_cpu_flags());
    t.nearest = (flags & KIVOC_NEAREST) != 0;
    return kivo::run(t, t.h, kivo::to_packed_job, tpool);
}

KIVO_EXPORT int32_t kivoc_from_packed(const uint8_t *src, int32_t src_stride, size_t src_size,
                                      int32_t src_format, xelo_imgb *dst, const kivo_tpool *tpool) {
    kivo::Task t{};
    int32_t ret = kivo::check_planes(dst, &t);
    if (ret == KIVO_OK) ret = kivo::check_packed(src, src_stride, src_size, src_format, &t);
    if (ret != KIVO_OK) return ret;
    t.dsp = &kivo::color_dsp(kivo_cpu_flags());
    // Rows go in groups of the vertical chroma factor, each group to one job.
    return kivo::run(t, (t.h + (1 << t.lay->y_shift) - 1) >> t.lay->y_shift, kivo::from_packed_job, tpool);
}
