// Plain colour kernels and the kernel table.
//
// Matrix (JFIF, full range), 14 fraction bits; ">>" is an arithmetic shift
// (rounds toward minus infinity), clamp() limits to 0..255:
//   cb' = Cb - 128, cr' = Cr - 128
//   R = clamp(Y + ((22970 * cr' + 8192) >> 14))
//   G = clamp(Y + ((-5638 * cb' - 11700 * cr' + 8192) >> 14))
//   B = clamp(Y + ((29032 * cb' + 8192) >> 14))
//   Y  = (4899 R + 9617 G + 1868 B + 8192) >> 14
//   Cb = ((-2765 R - 5427 G + 8192 B + 8191) >> 14) + 128
//   Cr = ((8192 R - 6860 G - 1332 B + 8191) >> 14) + 128
// Each row of the forward matrix sums to 16384 (Y) or 0 (Cb, Cr), so grey
// stays grey and Y, Cb, Cr stay within 0..255 without a clamp; the chroma
// rounding term 8191 keeps 255 * 8192 from rounding up to 128.
#include "color/kivoc_int.h"

namespace kivo {
namespace {

inline uint8_t clamp255(int32_t v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// Byte offsets of R, G, B and alpha in one packed pixel, and its size.
template <int Pack> struct Order;
template <> struct Order<kPackRGB> { static constexpr int r = 0, g = 1, b = 2, a = -1, size = 3; };
template <> struct Order<kPackRGBA> { static constexpr int r = 0, g = 1, b = 2, a = 3, size = 4; };
template <> struct Order<kPackBGRA> { static constexpr int r = 2, g = 1, b = 0, a = 3, size = 4; };

}  // namespace

template <int Pack>
void ycc_to_packed_c(const uint8_t *y, const uint8_t *cb, const uint8_t *cr, uint8_t *dst, int n) {
    using O = Order<Pack>;
    for (int i = 0; i < n; ++i, dst += O::size) {
        const int32_t l = y[i], u = cb[i] - 128, v = cr[i] - 128;
        dst[O::r] = clamp255(l + ((kCrR * v + kColHalf) >> kColBits));
        dst[O::g] = clamp255(l + ((kCbG * u + kCrG * v + kColHalf) >> kColBits));
        dst[O::b] = clamp255(l + ((kCbB * u + kColHalf) >> kColBits));
        if (O::a >= 0) dst[O::a] = 255;
    }
}

template <int Pack>
void packed_to_ycc_c(const uint8_t *src, uint8_t *y, uint8_t *cb, uint8_t *cr, int n) {
    using O = Order<Pack>;
    for (int i = 0; i < n; ++i, src += O::size) {
        const int32_t r = src[O::r], g = src[O::g], b = src[O::b];
        y[i] = static_cast<uint8_t>((kRY * r + kGY * g + kBY * b + kColHalf) >> kColBits);
        cb[i] = static_cast<uint8_t>(((kRCb * r + kGCb * g + kBCb * b + kColHalf - 1) >> kColBits) + 128);
        cr[i] = static_cast<uint8_t>(((kRCr * r + kGCr * g + kBCr * b + kColHalf - 1) >> kColBits) + 128);
    }
}

template void ycc_to_packed_c<kPackRGB>(const uint8_t *, const uint8_t *, const uint8_t *, uint8_t *, int);
template void ycc_to_packed_c<kPackRGBA>(const uint8_t *, const uint8_t *, const uint8_t *, uint8_t *, int);
template void ycc_to_packed_c<kPackBGRA>(const uint8_t *, const uint8_t *, const uint8_t *, uint8_t *, int);
template void packed_to_ycc_c<kPackRGB>(const uint8_t *, uint8_t *, uint8_t *, uint8_t *, int);
template void packed_to_ycc_c<kPackRGBA>(const uint8_t *, uint8_t *, uint8_t *, uint8_t *, int);
template void packed_to_ycc_c<kPackBGRA>(const uint8_t *, uint8_t *, uint8_t *, uint8_t *, int);

void vsum3_c(const uint8_t *near, const uint8_t *far, uint16_t *out, int n) {
    for (int i = 0; i < n; ++i) out[i] = static_cast<uint16_t>(3 * near[i] + far[i]);
}

void h2_fancy_c(const uint16_t *s, uint8_t *out, int n, int b0, int b1, int sh) {
    for (int i = 0; i < n; ++i) {
        const int32_t c = 3 * s[i];
        out[2 * i] = static_cast<uint8_t>((c + s[i - 1] + b0) >> sh);
        out[2 * i + 1] = static_cast<uint8_t>((c + s[i + 1] + b1) >> sh);
    }
}

void down_h2v2_c(const uint8_t *r0, const uint8_t *r1, uint8_t *out, int n) {
    for (int i = 0; i < n; ++i) out[i] = static_cast<uint8_t>((r0[2 * i] + r0[2 * i + 1] + r1[2 * i] + r1[2 * i + 1] + 2) >> 2);
}

void down_h2v1_c(const uint8_t *r0, const uint8_t *, uint8_t *out, int n) {
    for (int i = 0; i < n; ++i) out[i] = static_cast<uint8_t>((r0[2 * i] + r0[2 * i + 1] + 1) >> 1);
}

namespace {

void init_plain(ColorDsp *d) {
    d->to_packed[kPackRGB] = ycc_to_packed_c<kPackRGB>;
    d->to_packed[kPackRGBA] = ycc_to_packed_c<kPackRGBA>;
    d->to_packed[kPackBGRA] = ycc_to_packed_c<kPackBGRA>;
    d->from_packed[kPackRGB] = packed_to_ycc_c<kPackRGB>;
    d->from_packed[kPackRGBA] = packed_to_ycc_c<kPackRGBA>;
    d->from_packed[kPackBGRA] = packed_to_ycc_c<kPackBGRA>;
    d->vsum3 = vsum3_c;
    d->h2_fancy = h2_fancy_c;
    d->down_h2v2 = down_h2v2_c;
    d->down_h2v1 = down_h2v1_c;
}

// Feature levels, each with its own table: 0 plain, then SSE2, AVX2 or NEON.
enum Level { kPlain, kLevel1, kLevel2, kLevels };

Level level_of(uint32_t flags) {
#if defined(KIVO_ARCH_x86)
    if (!(flags & KIVO_CPU_SSE2)) return kPlain;
    return (flags & KIVO_CPU_AVX2) ? kLevel2 : kLevel1;
#elif defined(KIVO_ARCH_arm)
    return (flags & KIVO_CPU_NEON) ? kLevel1 : kPlain;
#else
    (void)flags;
    return kPlain;
#endif
}

struct Tables {
    ColorDsp level[kLevels];
};

Tables build_tables() {
    Tables t;
    for (ColorDsp &d : t.level) init_plain(&d);
#if defined(KIVO_ARCH_x86)
    color_init_sse2(&t.level[kLevel1]);
    color_init_sse2(&t.level[kLevel2]);
    // The AVX2 file is compiled for AVX2 throughout, its init included, so
    // it runs only on a processor that has it; without it the level is never
    // chosen and keeps the SSE2 kernels.
    if (kivo_cpu_detected() & KIVO_CPU_AVX2) color_init_avx2(&t.level[kLevel2]);
#elif defined(KIVO_ARCH_arm)
    color_init_neon(&t.level[kLevel1]);
#endif
    return t;
}

}  // namespace

const ColorDsp &color_dsp(uint32_t cpu_flags) {
    static const Tables tables = build_tables();  // built once, by the first caller
    return tables.level[level_of(cpu_flags)];
}

}  // namespace kivo
