// What the fuzz targets share: settings read from the input, CPU masks,
// image buffers whose planes ASan bounds exactly, fill patterns and the
// checks made after a forced allocation failure.
//
// Each target runs the same call twice: once on plain kernels with the
// caller's memory filled with one pattern, once on the kernels the input
// picks with another pattern, after letting an allocation chosen by the
// input fail on that same handle. Both runs must give the same status and
// the same bytes wherever the call reports having written, which also
// proves that every such byte was written.
#ifndef KIVO_FUZZ_UTIL_H
#define KIVO_FUZZ_UTIL_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kivo.h"
#include "xelo/xelo_hooks.h"

namespace fz {

[[noreturn]] inline void fail(const char *what) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}
inline void check(bool ok, const char *what) {
    if (!ok) fail(what);
}

// Settings are taken from the end of the input, so that a seed made of a
// JPEG file and a few setting bytes keeps the file intact at its front. An
// exhausted input reads as zeros.
struct Input {
    const uint8_t *data;
    size_t size;
    uint8_t byte() { return size ? data[--size] : 0; }
    uint32_t u16() { return byte() | uint32_t(byte()) << 8; }
    // A value in 0..n-1.
    uint32_t pick(uint32_t n) { return n ? u16() % n : 0; }
    template <class T, size_t N> T one_of(const T (&v)[N]) { return v[pick(N)]; }
};

// CPU features from one setting byte: any subset, the plain kernels included.
inline uint32_t cpu_mask(uint8_t b) {
    return (b & 0x0Fu) | (b & 0x10u ? KIVO_CPU_NEON : 0u) | (b & 0x20u ? KIVO_CPU_BMI2 : 0u) |
           (b & 0x40u ? KIVO_CPU_AVX512 : 0u);
}

// A pool of n threads for a handle (n = 1: the calling thread only).
inline kivo_tpool *pool(int n) {
    static kivo_tpool pools[9];
    kivo_tpool_std(&pools[n], n);
    return &pools[n];
}

// An image buffer over heap planes, each exactly line distance x lines
// bytes (plus a margin before it), so any access past a plane is ASan's.
struct Image {
    xelo_imgb img{};
    std::vector<uint8_t> mem[4];
    int32_t vis_w[4]{}, vis_h[4]{};  // bytes per line and lines of the picture

    // Plane p: line distance vis_w + extra[p], lines vis_h + extra_lines[p],
    // starting `margin[p]` bytes into its block. False for a layout xelo
    // does not describe, which leaves a record of the size and layout
    // without planes (such a record still reaches the callers' checks).
    bool make(int32_t cs, int32_t w, int32_t h, const int32_t extra[4], const int32_t extra_lines[4],
              const int32_t margin[4]) {
        img = xelo_imgb{};
        img.width = w;
        img.height = h;
        img.color_format = cs;
        int32_t n = 0;
        if (xelo_cs_planes(cs, w, h, vis_w, vis_h, &n) != 0) return false;
        for (int p = 0; p < n; ++p) {
            if (vis_w[p] == 0) continue;
            img.stride[p] = vis_w[p] + extra[p];
            img.lines[p] = vis_h[p] + extra_lines[p];
            mem[p].assign(size_t(margin[p]) + size_t(img.stride[p]) * img.lines[p], 0);
            img.plane[p] = img.plane_base[p] = mem[p].data() + margin[p];
        }
        return true;
    }
    void fill(uint8_t v) {
        for (auto &m : mem)
            if (!m.empty()) std::memset(m.data(), v, m.size());
    }
    // Visible samples from `src`, cycled (zeros for an empty source).
    void load(const uint8_t *src, size_t n) {
        size_t k = 0;
        for (int p = 0; p < 4; ++p)
            for (int32_t y = 0; y < vis_h[p]; ++y)
                for (int32_t x = 0; x < vis_w[p]; ++x, ++k)
                    img.plane[p][size_t(y) * img.stride[p] + x] = n ? src[k % n] : 0;
    }
    // The first rows[p] visible lines of every plane, one after another.
    std::vector<uint8_t> visible(const int32_t rows[4]) const {
        std::vector<uint8_t> out;
        for (int p = 0; p < 4; ++p)
            for (int32_t y = 0; y < rows[p] && y < vis_h[p]; ++y) {
                const uint8_t *l = img.plane[p] + size_t(y) * img.stride[p];
                out.insert(out.end(), l, l + vis_w[p]);
            }
        return out;
    }
    std::vector<uint8_t> visible() const { return visible(vis_h); }
};

// A status and the bytes a call reports as written.
struct Result {
    int32_t status = 1;
    std::vector<uint8_t> bytes;
    bool source = false;  // a transcoding handed the source back
    bool operator==(const Result &o) const { return status == o.status && bytes == o.bytes; }
};

// Aborts when two results differ, saying where.
inline void check_same(const Result &a, const Result &b, const char *what) {
    if (a == b) return;
    size_t i = 0;
    while (i < a.bytes.size() && i < b.bytes.size() && a.bytes[i] == b.bytes[i]) ++i;
    std::fprintf(stderr, "statuses %d and %d, %zu and %zu bytes, first difference at byte %zu\n", a.status,
                 b.status, a.bytes.size(), b.bytes.size(), i);
    fail(what);
}

// Arms a failure of the n-th aligned allocation (0: none) for one scope and
// remembers how many blocks were live before it.
struct FailAt {
    int32_t live;
    explicit FailAt(uint32_t n) : live(xelo_mem_live()) { xelo_mem_fail_at(int32_t(n)); }
    ~FailAt() { xelo_mem_fail_at(0); }
};

// Every aligned block made since `live` was counted has been freed.
inline void check_no_leak(int32_t live) { check(xelo_mem_live() == live, "aligned blocks left behind"); }

inline void init() {
    static bool done = false;
    if (!done) kivo_init();
    done = true;
}

}  // namespace fz

#endif
