// Colour conversion: the row kernels and their table.
//
// A conversion runs row by row through small kernels: the vertical and
// horizontal chroma steps, then the matrix. Every kernel has a plain version
// (kivoc_*_c); the hot ones have SSE2, AVX2 and NEON variants that give the
// same bytes. The arithmetic is written down once, in the plain kernels and
// docs/colour.md.
#ifndef KIVO_COLOR_INT_H
#define KIVO_COLOR_INT_H

#include <cstdint>

#include "common/kivo_int.h"
#include "kivoc.h"

namespace kivo {

// Fixed-point matrix, 14 fraction bits.
constexpr int kColBits = 14;
constexpr int32_t kColHalf = 1 << (kColBits - 1);
constexpr int32_t kCrR = 22970;   // 1.402
constexpr int32_t kCbG = -5638;   // -0.344136
constexpr int32_t kCrG = -11700;  // -0.714136
constexpr int32_t kCbB = 29032;   // 1.772
constexpr int32_t kRY = 4899, kGY = 9617, kBY = 1868;       // 0.299, 0.587, 0.114
constexpr int32_t kRCb = -2765, kGCb = -5427, kBCb = 8192;  // -0.168736, -0.331264, 0.5
constexpr int32_t kRCr = 8192, kGCr = -6860, kBCr = -1332;  // 0.5, -0.418688, -0.081312

// Packed output and input formats the matrix kernels serve (index into the
// tables below): RGB, RGBA, BGRA.
enum PackedIndex { kPackRGB = 0, kPackRGBA = 1, kPackBGRA = 2, kPackCount = 3 };

// Y, Cb, Cr rows of n samples to n packed pixels.
using YccToPackedFn = void (*)(const uint8_t *y, const uint8_t *cb, const uint8_t *cr, uint8_t *dst, int n);
// n packed pixels to Y, Cb, Cr rows of n samples.
using PackedToYccFn = void (*)(const uint8_t *src, uint8_t *y, uint8_t *cb, uint8_t *cr, int n);
// out[i] = 3 * near[i] + far[i], i < n.
using VSum3Fn = void (*)(const uint8_t *near, const uint8_t *far, uint16_t *out, int n);
// Horizontal triangular doubling of n sums (s[-1] and s[n] must hold the
// edge copies): out[2i] = (3 s[i] + s[i-1] + b0) >> sh,
// out[2i+1] = (3 s[i] + s[i+1] + b1) >> sh.
using H2FancyFn = void (*)(const uint16_t *s, uint8_t *out, int n, int b0, int b1, int sh);
// Box average of groups to n outputs: 2x2 from two rows, or 2x1 from r0
// (r1 unused). Rows hold 2n samples.
using DownFn = void (*)(const uint8_t *r0, const uint8_t *r1, uint8_t *out, int n);

struct ColorDsp {
    YccToPackedFn to_packed[kPackCount];
    PackedToYccFn from_packed[kPackCount];
    VSum3Fn vsum3;
    H2FancyFn h2_fancy;
    DownFn down_h2v2;
    DownFn down_h2v1;
};

// The kernel table for the given CPU flags: plain kernels, then each slot
// with a variant the flags allow is overwritten. Tables are built once per
// feature level and never change afterwards.
const ColorDsp &color_dsp(uint32_t cpu_flags);

// Plain kernels.
template <int Pack> void ycc_to_packed_c(const uint8_t *y, const uint8_t *cb, const uint8_t *cr, uint8_t *dst, int n);
template <int Pack> void packed_to_ycc_c(const uint8_t *src, uint8_t *y, uint8_t *cb, uint8_t *cr, int n);
void vsum3_c(const uint8_t *near, const uint8_t *far, uint16_t *out, int n);
void h2_fancy_c(const uint16_t *s, uint8_t *out, int n, int b0, int b1, int sh);
void down_h2v2_c(const uint8_t *r0, const uint8_t *r1, uint8_t *out, int n);
void down_h2v1_c(const uint8_t *r0, const uint8_t *r1, uint8_t *out, int n);

// ---- the conversion to packed pixels (convert.cpp) ------------------------------

// One layout's conversion, shared read-only by its jobs: the planes and the
// packed buffer with their geometry.
struct Task {
    const ColorDsp *dsp;
    const Layout *lay;
    int32_t w, h, cw, ch;  // picture and chroma plane sizes
    uint8_t *plane[3];
    int32_t stride[3];
    int32_t ring[3];       // lines of a plane held as a ring (line y at y % ring), or 0: the whole plane
    uint8_t *packed;
    int32_t packed_stride, packed_format;
    bool nearest;
    size_t scratch_size;   // bytes of scratch per job
};

// The planar layouts converted (layout_of for those, else null).
const Layout *planar_layout(int32_t format);
// Bytes per packed pixel, or KIVO_ERR_COLOR_FORMAT.
int32_t pixel_size(int32_t format);
// Checks a packed buffer for t's w x h picture and puts it into t.
int32_t check_packed(const uint8_t *data, int32_t stride, size_t size, int32_t format, Task *t);
// Scratch bytes one job needs (32-byte aligned).
size_t scratch_bytes(int32_t w, int32_t cw);
// Output rows first .. end - 1 of t into its packed buffer. Row y reads the
// luma line y and the chroma lines of its upsampling: y >> y_shift and, for
// triangular vertical upsampling, the one above (even y) or below (odd y),
// the edge line standing in beyond the plane.
void to_packed_rows(const Task &t, uint8_t *scratch, int32_t first, int32_t end);

// SIMD variants: they do whole vectors and hand the rest of the row to the
// plain kernel.
#if defined(KIVO_ARCH_x86)
void color_init_sse2(ColorDsp *dsp);
void color_init_avx2(ColorDsp *dsp);
#elif defined(KIVO_ARCH_arm)
void color_init_neon(ColorDsp *dsp);
#endif

}  // namespace kivo

#endif
