// Image buffers: planes with aligned strides and margins on every side.
//
// Plane p of a picture is laid out like this (all values in bytes/lines):
//
//   left    = pad_h rounded up to align_h        (so plane[p] is aligned)
//   stride  = (left + width + pad_h) rounded up to align_h
//   lines   = height rounded up to align_v
//   rows    = pad_v + lines + pad_v               (margin above and below)
//
// The plane's memory starts at an align_h boundary inside its allocation;
// plane[p] is `pad_v` rows and `left` bytes into it. Every row therefore has
// at least pad_h bytes before its first pixel and after its last one (the
// right margin of a row is followed by the next row's left margin), and
// pad_v whole rows exist above line 0 and below line lines[p] - 1.
//
// Reserved fields as this file fills them:
//   magic         kMagic while the record is alive
//   cap_width/h   the picture size given to create
//   plane_w/h[p]  visible size of plane p in bytes/lines, 0 for absent planes
//   align/pad[p]  the pairs the current shape was built with
//   capacity[p]   size in bytes of plane p's allocation (kept by rebirth)
//   n_planes      number of plane slots in use: 1 + the highest present slot
//   plane_base[p] start of plane p's allocation for present planes, else null
// The allocations themselves are owned by a wrapper around the record, so a
// plane that a rebirth switched off keeps its memory for a later rebirth.
#include <cstring>

#include "xelo.h"

namespace xelo {
namespace {

constexpr int32_t kMagic = 0x58494D47;  // "XIMG"
constexpr int32_t kVersion = 3;
constexpr int32_t kMaxSide = 65535;
constexpr uint32_t kMaxAlign = 4096;
constexpr uint32_t kMaxPad = 4096;
constexpr size_t kAllocAlign = 32;  // what xelo_malloc_align32 guarantees

struct Owner {
    xelo_imgb rec;  // first member: a record pointer is an Owner pointer
    uint8_t *alloc[4];
};

bool is_packed(int32_t cs) { return cs >= 100 && cs <= 199; }

// Visible size of every plane slot; absent slots get 0 x 0.
bool plane_dims(int32_t cs, int32_t w, int32_t h, int32_t pw[4], int32_t ph[4], int32_t *n) {
    if (w < 1 || h < 1 || w > kMaxSide || h > kMaxSide) return false;
    const int32_t half_w = (w + 1) / 2, half_h = (h + 1) / 2, quarter_w = (w + 3) / 4;
    for (int p = 0; p < 4; ++p) pw[p] = ph[p] = 0;
    pw[0] = w;
    ph[0] = h;
    int32_t cw = 0, ch = 0;  // chroma plane size for the three-plane layouts
    bool with_k = false;
    switch (cs) {
        case XELO_CS_YCBCR400: *n = 1; return true;
        case XELO_CS_YUYV: pw[0] = 2 * w; *n = 1; return true;
        case XELO_CS_NV12:
        case XELO_CS_NV21:
            pw[1] = 2 * half_w;
            ph[1] = half_h;
            *n = 2;
            return true;
        case XELO_CS_YCBCRK400:
            pw[3] = w;
            ph[3] = h;
            *n = 4;
            return true;
        case XELO_CS_YCBCRK420: with_k = true; [[fallthrough]];
        case XELO_CS_YCBCR420: cw = half_w; ch = half_h; break;
        case XELO_CS_YCBCRK422: with_k = true; [[fallthrough]];
        case XELO_CS_YCBCR422: cw = half_w; ch = h; break;
        case XELO_CS_YCBCRK444: with_k = true; [[fallthrough]];
        case XELO_CS_YCBCR444: cw = w; ch = h; break;
        case XELO_CS_YCBCRK440: with_k = true; [[fallthrough]];
        case XELO_CS_YCBCR440: cw = w; ch = half_h; break;
        case XELO_CS_YCBCR411: cw = quarter_w; ch = h; break;
        default: return false;
    }
    pw[1] = pw[2] = cw;
    ph[1] = ph[2] = ch;
    *n = 3;
    if (with_k) {
        pw[3] = w;
        ph[3] = h;
        *n = 4;
    }
    return true;
}

uint64_t round_up(uint64_t v, uint64_t a) { return (v + a - 1) / a * a; }

// Geometry of one plane, independent of where its memory lies.
struct Layout {
    bool present;
    int32_t w, h;
    uint32_t ah, av, padh, padv;
    int32_t stride, lines;
    uint64_t first;  // offset of the first visible pixel from the aligned start
    uint64_t bytes;  // bytes needed from the aligned start
};

struct Shape {
    int32_t w, h, cs, n;
    Layout plane[4];
    uint32_t align_in[4], pad_in[4];
};

// Validates the arguments and computes every plane's layout. All sizes are
// bounded (side <= 65535, align and pad <= 4096), so 64-bit arithmetic
// cannot overflow; the byte count is additionally checked against what a
// pointer difference can hold on this target.
bool make_shape(int32_t w, int32_t h, int32_t cs, int32_t version, const uint32_t *align,
                const uint32_t *pad, Shape *s) {
    if (version != kVersion || !align || !pad) return false;
    int32_t pw[4], ph[4];
    if (!plane_dims(cs, w, h, pw, ph, &s->n)) return false;
    s->w = w;
    s->h = h;
    s->cs = cs;
    for (int p = 0; p < 4; ++p) {
        Layout &l = s->plane[p];
        s->align_in[p] = align[p];
        s->pad_in[p] = pad[p];
        l = Layout{};
        l.present = pw[p] > 0;
        if (!l.present) continue;
        l.w = pw[p];
        l.h = ph[p];
        l.ah = align[p] & 0xFFFFu;
        l.av = align[p] >> 16;
        l.padh = pad[p] & 0xFFFFu;
        l.padv = pad[p] >> 16;
        if (l.ah == 0) l.ah = 1;  // 0 means "no alignment"
        if (l.av == 0) l.av = 1;
        if (l.ah > kMaxAlign || l.av > kMaxAlign || l.padh > kMaxPad || l.padv > kMaxPad)
            return false;
        const uint64_t left = round_up(l.padh, l.ah);
        const uint64_t stride = round_up(left + uint64_t(l.w) + l.padh, l.ah);
        const uint64_t lines = round_up(uint64_t(l.h), l.av);
        l.stride = int32_t(stride);
        l.lines = int32_t(lines);
        l.first = uint64_t(l.padv) * stride + left;
        l.bytes = stride * (uint64_t(l.padv) * 2 + lines);
        if (l.bytes + l.ah > uint64_t(PTRDIFF_MAX) || l.bytes + l.ah > uint64_t(SIZE_MAX))
            return false;
    }
    return true;
}

// Bytes from `base` to the next multiple of `a`.
size_t align_gap(const uint8_t *base, uint32_t a) {
    const uintptr_t mis = reinterpret_cast<uintptr_t>(base) % a;
    return mis ? size_t(a - mis) : 0;
}

bool fits(const Owner &o, const Shape &s) {
    for (int p = 0; p < 4; ++p) {
        const Layout &l = s.plane[p];
        if (!l.present) continue;
        if (!o.alloc[p]) return false;
        const uint64_t gap = align_gap(o.alloc[p], l.ah);
        if (gap + l.bytes > o.rec.capacity[p]) return false;
    }
    return true;
}

void apply(Owner &o, const Shape &s) {
    xelo_imgb &r = o.rec;
    r.width = s.w;
    r.height = s.h;
    r.color_format = s.cs;
    r.n_planes = s.n;
    for (int p = 0; p < 4; ++p) {
        const Layout &l = s.plane[p];
        r.align[p] = s.align_in[p];
        r.pad[p] = s.pad_in[p];
        if (!l.present) {
            r.stride[p] = r.lines[p] = r.plane_w[p] = r.plane_h[p] = 0;
            r.plane[p] = r.plane_base[p] = nullptr;
            continue;
        }
        uint8_t *start = o.alloc[p] + align_gap(o.alloc[p], l.ah);
        r.stride[p] = l.stride;
        r.lines[p] = l.lines;
        r.plane_w[p] = l.w;
        r.plane_h[p] = l.h;
        r.plane[p] = start + l.first;
        r.plane_base[p] = o.alloc[p];
    }
    // Packed formats address everything through the first plane's stride.
    if (is_packed(s.cs))
        for (int p = 1; p < 4; ++p) r.stride[p] = r.stride[0];
}

void destroy(Owner *o) {
    for (int p = 0; p < 4; ++p) xelo_mfree_align32(o->alloc[p]);
    o->rec.magic = 0;
    xelo_mfree_align32(o);
}

void release_record(xelo_imgb *imgb) {
    if (!imgb || imgb->magic != kMagic) return;
    destroy(reinterpret_cast<Owner *>(imgb));
}

}  // namespace
}  // namespace xelo

extern "C" {

XELO_API int32_t xelo_cs_planes(int32_t color_format, int32_t w, int32_t h, int32_t width[4],
                                int32_t height[4], int32_t *n_planes) {
    if (!width || !height || !n_planes) return -1;
    int32_t pw[4], ph[4], n = 0;
    if (!xelo::plane_dims(color_format, w, h, pw, ph, &n)) return -1;
    for (int p = 0; p < 4; ++p) {
        width[p] = pw[p];
        height[p] = ph[p];
    }
    *n_planes = n;
    return 0;
}

XELO_API xelo_imgb *xelo_imgb_create(int32_t cap_w, int32_t cap_h, int32_t color_format,
                                     int32_t version, const uint32_t *align, const uint32_t *pad,
                                     int32_t r0, int32_t r1, int32_t r2) {
    using namespace xelo;
    if (r0 || r1 || r2) return nullptr;
    Shape s;
    if (!make_shape(cap_w, cap_h, color_format, version, align, pad, &s)) return nullptr;

    Owner *o = static_cast<Owner *>(xelo_malloc_align32(sizeof(Owner)));
    if (!o) return nullptr;
    std::memset(o, 0, sizeof(*o));
    o->rec.magic = kMagic;
    o->rec.release = release_record;
    o->rec.cap_width = cap_w;
    o->rec.cap_height = cap_h;
    for (int p = 0; p < 4; ++p) {
        const Layout &l = s.plane[p];
        if (!l.present) continue;
        // The allocator aligns to 32; other alignments may need a gap first.
        const size_t slack = (kAllocAlign % l.ah == 0) ? 0 : l.ah - 1;
        const size_t size = size_t(l.bytes) + slack;
        o->alloc[p] = static_cast<uint8_t *>(xelo_malloc_align32(size));
        if (!o->alloc[p]) {
            destroy(o);
            return nullptr;
        }
        o->rec.capacity[p] = size;
    }
    apply(*o, s);
    return &o->rec;
}

XELO_API int32_t xelo_imgb_rebirth(xelo_imgb *imgb, int32_t w, int32_t h, int32_t color_format,
                                   int32_t version, const uint32_t *align, const uint32_t *pad) {
    using namespace xelo;
    if (!imgb || imgb->magic != kMagic) return XELO_ERR_ARG;
    Shape s;
    if (!make_shape(w, h, color_format, version, align, pad, &s)) return XELO_ERR_ARG;
    Owner *o = reinterpret_cast<Owner *>(imgb);
    if (!fits(*o, s)) return XELO_ERR_CAPACITY;
    apply(*o, s);
    return 0;
}

}  // extern "C"
