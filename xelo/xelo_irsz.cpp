// Plane resizer fed strip by strip, top to bottom. See docs/resizer.md.
//
// Each axis has a table: for destination index j, the contiguous source
// range [first[j], first[j] + count[j]) and one integer weight per source
// index, all weights of j summing to the axis denominator `den`:
//   shrink   area averaging. In units of 1/dst a source sample i spans
//            [i*dst, (i+1)*dst) and destination j spans [j*src, (j+1)*src);
//            the weight is the overlap length and den = src.
//   enlarge  bilinear, centres aligned. The source position of j is
//            ((2j+1)*src - dst) / (2*dst); with i0 its integer part and r the
//            remainder of that division, weights are (2*dst - r, r) on
//            (i0, i0+1) and den = 2*dst. Positions outside [0, src-1] clamp.
//   equal    one tap of weight 1, den = 1.
// A destination sample is sum(wy * sum(wx * src)) / (den_x * den_y), rounded
// to nearest, computed exactly in 64-bit integers.
//
// Rows are filtered horizontally as they arrive. Vertically, a shrinking
// resizer adds each filtered row into the (at most two) destination rows it
// covers; an enlarging or equal one keeps the last two filtered rows. A
// destination row is written as soon as its last source row has arrived.
//
// Small ratios. When each axis doubles, halves or keeps its size (not both
// kept: that is a copy), every weight of an axis is a multiple of
// g = den / d with d its small denominator: doubling has den = 2*dst = 4*src
// and weights src, 3*src, 4*src (d = 4); halving has den = src = 2*dst and
// weights dst (d = 2); equal sides have d = den = 1. With S the sum over the
// small weights w / g, the generic value is (gx*gy*S + D/2) / D with
// D = gx*gy*dx*dy; dx*dy is a power of two of at least 2, so D/2 is
// gx*gy*dx*dy/2 exactly and the quotient is (S + dx*dy/2) / (dx*dy): the same
// byte from sums below 2^12, which 16-bit SIMD lanes hold. Those resizers
// filter rows with the kernels of irsz_dsp.h and mix the last two filtered
// rows vertically (halving reads rows 2j and 2j+1, like an enlarging axis).
#include <cstring>

#include "kivo.h"
#include "xelo/irsz_dsp.h"
#include "xelo/xelo_int.h"

namespace xelo {
namespace {

constexpr int32_t kKind = 20;
constexpr int32_t kMode = 11;
constexpr int32_t kMaxSide = 65535;
constexpr int32_t kErrOrder = -105;

struct Axis {
    int32_t *first;   // [dst] first source index
    int32_t *count;   // [dst] number of source indices
    int32_t *offset;  // [dst] index of the first weight in `weight`
    uint32_t *weight;
    uint32_t den;
    bool shrink;
    uint32_t small;  // small denominator d of a doubling, halving or equal axis, else 0
};

struct Resizer {
    int32_t src_w, src_h, src_stride;
    int32_t dst_w, dst_h, dst_stride;
    uint8_t *dst;
    Axis ax, ay;
    uint32_t *hrow[2];  // filtered rows: the ring (enlarge) or scratch (shrink)
    uint64_t *acc[2];   // shrink only: running sums of two destination rows
    uint64_t den;       // ax.den * ay.den
    const IrszDsp *dsp; // small ratios only: their kernels, else null
    int32_t shift;      // small ratios: log2(ax.small * ay.small)
    int32_t next_row;   // next source row expected
    int32_t next_out;   // next destination row to write
    int32_t out_end;    // one past the last destination row this resizer writes
};

template <typename T>
T *alloc_array(size_t n) {
    return static_cast<T *>(xelo_malloc_align32(n * sizeof(T)));
}

void free_axis(Axis &a) {
    xelo_mfree_align32(a.first);
    xelo_mfree_align32(a.count);
    xelo_mfree_align32(a.offset);
    xelo_mfree_align32(a.weight);
}

void destroy(Resizer *r) {
    free_axis(r->ax);
    free_axis(r->ay);
    for (int i = 0; i < 2; ++i) {
        xelo_mfree_align32(r->hrow[i]);
        xelo_mfree_align32(r->acc[i]);
    }
    xelo_mfree_align32(r);
}

// Source range of destination index j when shrinking: [j*src, (j+1)*src)
// measured in units where source sample i spans [i*dst, (i+1)*dst).
void shrink_range(int64_t src, int64_t dst, int64_t j, int64_t *lo, int64_t *hi) {
    *lo = j * src / dst;                      // first sample touched
    *hi = ((j + 1) * src + dst - 1) / dst;    // one past the last one
}

// Taps of destination index j on an axis of src source and dst destination
// samples: the first source index, their number and, when weight is not
// null, one weight per source index.
void taps_of(int32_t src, int32_t dst, int32_t j, int32_t *first, int32_t *count, uint32_t *weight) {
    if (dst < src) {
        int64_t lo, hi;
        shrink_range(src, dst, j, &lo, &hi);
        *first = int32_t(lo);
        *count = int32_t(hi - lo);
        if (!weight) return;
        const int64_t d_lo = int64_t(j) * src, d_hi = (int64_t(j) + 1) * src;
        for (int64_t i = lo; i < hi; ++i) {
            const int64_t s_lo = i * dst, s_hi = (i + 1) * dst;
            const int64_t lo_max = s_lo > d_lo ? s_lo : d_lo;
            const int64_t hi_min = s_hi < d_hi ? s_hi : d_hi;
            *weight++ = uint32_t(hi_min - lo_max);
        }
    } else if (dst > src) {
        const int64_t num = (2 * int64_t(j) + 1) * src - dst;
        const int64_t den = 2 * int64_t(dst);
        int64_t i0 = 0, rem = 0;
        if (num > 0) {
            i0 = num / den;
            rem = num % den;
        }
        if (i0 >= src - 1) {
            i0 = src - 1;
            rem = 0;
        }
        *first = int32_t(i0);
        *count = rem ? 2 : 1;
        if (!weight) return;
        weight[0] = uint32_t(den - rem);
        if (rem) weight[1] = uint32_t(rem);
    } else {
        *first = j;
        *count = 1;
        if (weight) weight[0] = 1;
    }
}

// Weights one axis holds: shrinking needs at most src + dst taps in all
// (each destination sample adds at most one sample shared with its
// neighbour); enlarging 2 each.
size_t axis_taps(int32_t src, int32_t dst) {
    return dst < src ? size_t(src) + size_t(dst) : size_t(2) * size_t(dst);
}

// Fills the table of one axis; false when an allocation fails.
bool build_axis(Axis &a, int32_t src, int32_t dst) {
    a.shrink = dst < src;
    a.den = dst < src ? uint32_t(src) : dst > src ? uint32_t(2 * dst) : 1u;
    a.small = dst == 2 * src ? 4 : src == 2 * dst ? 2 : src == dst ? 1 : 0;
    a.first = alloc_array<int32_t>(size_t(dst));
    a.count = alloc_array<int32_t>(size_t(dst));
    a.offset = alloc_array<int32_t>(size_t(dst));
    a.weight = alloc_array<uint32_t>(axis_taps(src, dst));
    if (!a.first || !a.count || !a.offset || !a.weight) return false;

    int32_t pos = 0;
    for (int32_t j = 0; j < dst; ++j) {
        a.offset[j] = pos;
        taps_of(src, dst, j, &a.first[j], &a.count[j], a.weight + pos);
        pos += a.count[j];
    }
    return true;
}

void filter_row(const Resizer &r, const uint8_t *src, uint32_t *out) {
    const Axis &a = r.ax;
    for (int32_t x = 0; x < r.dst_w; ++x) {
        const uint8_t *s = src + a.first[x];
        const uint32_t *w = a.weight + a.offset[x];
        uint32_t sum = 0;  // <= 255 * den_x < 2^25
        for (int32_t k = 0; k < a.count[x]; ++k) sum += w[k] * s[k];
        out[x] = sum;
    }
}

uint8_t *dst_line(const Resizer &r, int32_t j) {
    return r.dst + int64_t(j) * r.dst_stride;
}

// Rounded division of the accumulated row; the result never exceeds 255
// because the weights of one sample sum to the denominator.
void store_acc(const Resizer &r, const uint64_t *acc, int32_t j) {
    uint8_t *d = dst_line(r, j);
    const uint64_t half = r.den / 2;
    for (int32_t x = 0; x < r.dst_w; ++x) d[x] = uint8_t((acc[x] + half) / r.den);
}

// Source row i, already filtered into hrow, for the shrinking vertical axis.
void push_row_shrink(Resizer &r, int32_t i) {
    const Axis &a = r.ay;
    const uint32_t *h = r.hrow[0];
    for (int32_t j = r.next_out; j < r.out_end && a.first[j] <= i; ++j) {
        const uint64_t w = a.weight[a.offset[j] + (i - a.first[j])];
        uint64_t *acc = r.acc[j & 1];
        for (int32_t x = 0; x < r.dst_w; ++x) acc[x] += w * h[x];
        if (a.first[j] + a.count[j] - 1 == i) {
            store_acc(r, acc, j);
            std::memset(acc, 0, size_t(r.dst_w) * sizeof(uint64_t));
            r.next_out = j + 1;
        }
    }
}

// Source row i into hrow[i & 1] as 16-bit sums in units of 1/ax.small.
void filter_row_small(const Resizer &r, const uint8_t *src, int32_t i) {
    uint16_t *out = reinterpret_cast<uint16_t *>(r.hrow[i & 1]);
    if (r.ax.small == 4) r.dsp->up2(src, out, r.src_w);
    else if (r.ax.small == 2) r.dsp->down2(src, out, r.dst_w);
    else r.dsp->widen(src, out, r.dst_w);
}

// Source row i, filtered into hrow[i & 1], for the enlarging or equal
// vertical axis (or a halving one on small ratios): writes every destination
// row whose last tap is i.
void push_row_interp(Resizer &r, int32_t i) {
    const Axis &a = r.ay;
    uint64_t *acc = r.acc[0];
    while (r.next_out < r.out_end) {
        const int32_t j = r.next_out;
        if (a.first[j] + a.count[j] - 1 != i) break;
        const uint32_t *w = a.weight + a.offset[j];
        if (r.dsp) {
            const uint32_t g = a.den / a.small;
            const uint16_t *h0 = reinterpret_cast<const uint16_t *>(r.hrow[a.first[j] & 1]);
            const uint16_t *h1 = reinterpret_cast<const uint16_t *>(r.hrow[(a.first[j] + 1) & 1]);
            const int w1 = a.count[j] == 2 ? int(w[1] / g) : 0;
            r.dsp->mix(h0, w1 ? h1 : h0, dst_line(r, j), r.dst_w, int(w[0] / g), w1, r.shift);
            ++r.next_out;
            continue;
        }
        const uint32_t *h0 = r.hrow[a.first[j] & 1];
        if (a.count[j] == 1) {
            for (int32_t x = 0; x < r.dst_w; ++x) acc[x] = uint64_t(w[0]) * h0[x];
        } else {
            const uint32_t *h1 = r.hrow[(a.first[j] + 1) & 1];
            for (int32_t x = 0; x < r.dst_w; ++x)
                acc[x] = uint64_t(w[0]) * h0[x] + uint64_t(w[1]) * h1[x];
        }
        store_acc(r, acc, j);
        ++r.next_out;
    }
}

}  // namespace

uint64_t irsz_bytes(int32_t src_w, int32_t src_h, int32_t dst_w, int32_t dst_h) {
    const auto axis = [](int32_t src, int32_t dst) {
        return 3 * sizeof(int32_t) * uint64_t(dst) + sizeof(uint32_t) * axis_taps(src, dst);
    };
    return sizeof(Resizer) + axis(src_w, dst_w) + axis(src_h, dst_h) +
           2 * (sizeof(uint32_t) + sizeof(uint64_t)) * uint64_t(dst_w);
}

void irsz_taps(int32_t src, int32_t dst, int32_t j, int32_t *first, int32_t *count) {
    taps_of(src, dst, j, first, count, nullptr);
}

xelo_irsz_t *irsz_create_window(const xelo_irsz_desc *desc, int32_t src_stride, int32_t src_h,
                                int32_t out_first, int32_t out_n, int32_t row0) {
    if (!desc || desc->kind != kKind || desc->mode != kMode) return nullptr;
    if ((desc->src_h && desc->src_h != src_h) ||
        (desc->src_stride && desc->src_stride != src_stride))
        return nullptr;
    const int32_t sw = desc->src_w, dw = desc->dst_w, dh = desc->dst_h;
    if (sw < 1 || sw > kMaxSide || src_h < 1 || src_h > kMaxSide || dw < 1 || dw > kMaxSide ||
        dh < 1 || dh > kMaxSide)
        return nullptr;
    if (src_stride < sw || desc->dst_stride < dw || desc->strip_h < 0 || !desc->dst)
        return nullptr;
    if (out_first < 0 || out_n < 0 || out_n > dh - out_first || row0 < 0 || row0 > src_h) return nullptr;

    Resizer *r = static_cast<Resizer *>(xelo_malloc_align32(sizeof(Resizer)));
    if (!r) return nullptr;
    std::memset(r, 0, sizeof(*r));
    r->src_w = sw;
    r->src_h = src_h;
    r->src_stride = src_stride;
    r->dst_w = dw;
    r->dst_h = dh;
    r->dst_stride = desc->dst_stride;
    r->dst = desc->dst;
    r->next_row = row0;
    r->next_out = out_first;
    r->out_end = out_first + out_n;
    bool ok = build_axis(r->ax, sw, dw) && build_axis(r->ay, src_h, dh);
    const bool small = ok && r->ax.small && r->ay.small && r->ax.small * r->ay.small > 1;
    for (int i = 0; ok && i < 2; ++i) {
        r->hrow[i] = alloc_array<uint32_t>(size_t(dw));
        r->acc[i] = small ? nullptr : alloc_array<uint64_t>(size_t(dw));
        ok = r->hrow[i] && (small || r->acc[i]);
        if (ok && !small) std::memset(r->acc[i], 0, size_t(dw) * sizeof(uint64_t));
    }
    if (!ok) {
        destroy(r);
        return nullptr;
    }
    r->den = uint64_t(r->ax.den) * r->ay.den;
    if (small) {
        r->dsp = &irsz_dsp(kivo_cpu_flags());
        for (uint32_t d = r->ax.small * r->ay.small; d > 1; d >>= 1) ++r->shift;
    }
    return reinterpret_cast<xelo_irsz_t *>(r);
}

}  // namespace xelo

extern "C" {

// The explicit src_stride and src_h are authoritative; the descriptor's own
// copies may be 0 or must agree with them.
XELO_API xelo_irsz_t *xelo_irsz_create(const xelo_irsz_desc *desc, int32_t zero,
                                       int32_t src_stride, int32_t src_h) {
    if (!desc || zero != 0) return nullptr;
    return xelo::irsz_create_window(desc, src_stride, src_h, 0, desc->dst_h, 0);
}

XELO_API int32_t xelo_irsz(xelo_irsz_t *rsz, const uint8_t *strip, int32_t first, int32_t n) {
    using namespace xelo;
    if (!rsz || n < 0) return XELO_ERR_ARG;
    Resizer &r = *reinterpret_cast<Resizer *>(rsz);
    if (first != r.next_row || n > INT32_MAX - first) return kErrOrder;
    int32_t used = r.src_h - first;  // rows of this strip inside the picture
    if (used > n) used = n;
    if (used > 0 && !strip) return XELO_ERR_ARG;
    const bool identity = r.src_w == r.dst_w && r.src_h == r.dst_h;
    for (int32_t k = 0; k < used; ++k) {
        const int32_t i = first + k;
        const uint8_t *src = strip + int64_t(k) * r.src_stride;
        if (identity) {
            // Same size both ways: each row is its own destination row.
            if (i >= r.next_out && i < r.out_end) {
                std::memcpy(r.dst + int64_t(i) * r.dst_stride, src, size_t(r.dst_w));
                r.next_out = i + 1;
            }
        } else if (r.dsp) {
            filter_row_small(r, src, i);
            push_row_interp(r, i);
        } else if (r.ay.shrink) {
            filter_row(r, src, r.hrow[0]);
            push_row_shrink(r, i);
        } else {
            filter_row(r, src, r.hrow[i & 1]);
            push_row_interp(r, i);
        }
    }
    r.next_row = first + n;
    return 0;
}

XELO_API void xelo_irsz_delete(xelo_irsz_t *rsz) {
    if (rsz) xelo::destroy(reinterpret_cast<xelo::Resizer *>(rsz));
}

}  // extern "C"
