// Colour conversion helpers.
// - Every layout, packed format and upsampling mode, at every CPU level and
//   thread count, against an exact reference written from the JFIF formulas
//   on random and extreme planes of odd and even sizes.
// - Kernel checker: every SIMD table slot against the plain one on random
//   and extreme rows of every length up to 100 at odd offsets.
// - Refused arguments.
// - kivoc_decode_packed against the two steps it replaces (kivod_clone, then
//   kivoc_to_packed) on streams of our encoder: layouts, a progressive
//   stream, reduced scales, one and two threads; and its refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "color/kivoc_int.h"
#include "support/kivo_encode.h"
#include "support/pictures.h"

namespace {

// Matrix coefficients from the decimal JFIF formulas, rounded to 14 bits.
constexpr int32_t q14(int64_t millionths) { return static_cast<int32_t>((millionths * 16384 + 500000) / 1000000); }
int32_t floor_div(int32_t a, int32_t b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }
uint8_t clip(int32_t v) { return static_cast<uint8_t>(std::min(std::max(v, 0), 255)); }

struct Img {
    int w, h, fx, fy;  // chroma factors
    std::vector<uint8_t> p[3];
    int cw() const { return (w + fx - 1) / fx; }
    int ch() const { return (h + fy - 1) / fy; }
};

// Chroma at output pixel (x, y): the covering sample, or triangular weights
// of it and its neighbours towards (x, y).
int ref_chroma(const Img &im, int k, int x, int y, bool nearest) {
    auto at = [&](int cx, int cy) {
        return int(im.p[k][size_t(std::min(std::max(cy, 0), im.ch() - 1)) * im.cw() + std::min(std::max(cx, 0), im.cw() - 1)]);
    };
    const int cx = x / im.fx, cy = y / im.fy, px = x % im.fx, py = y % im.fy;
    if (nearest) return at(cx, cy);
    // The far neighbour's side, and its weight out of hs, by the output's phase.
    const int dx = px < im.fx / 2 ? -1 : 1, dy = py == 0 ? -1 : 1;
    const int hs = im.fx == 4 ? 8 : 4, hfar = im.fx == 4 ? (px == 0 || px == 3 ? 3 : 1) : im.fx == 2 ? 1 : 0;
    if (im.fy == 2 && im.fx == 2)
        return (9 * at(cx, cy) + 3 * at(cx + dx, cy) + 3 * at(cx, cy + dy) + at(cx + dx, cy + dy) + (px ? 7 : 8)) >> 4;
    if (im.fy == 2) return (3 * at(cx, cy) + at(cx, cy + dy) + (py ? 2 : 1)) >> 2;
    if (im.fx == 1) return at(cx, cy);
    const int bias = im.fx == 4 ? (px < 2 ? 4 : 3) : (px ? 2 : 1);
    return ((hs - hfar) * at(cx, cy) + hfar * at(cx + dx, cy) + bias) / hs;
}

std::vector<uint8_t> ref_to_packed(const Img &im, int format, bool nearest) {
    const int bpp = kivoc_pixel_size(format);
    std::vector<uint8_t> out;
    for (int y = 0; y < im.h; ++y)
        for (int x = 0; x < im.w; ++x) {
            const int l = im.p[0][size_t(y) * im.w + x];
            const bool grey = im.p[1].empty();
            const int u = grey ? 0 : ref_chroma(im, 1, x, y, nearest) - 128, v = grey ? 0 : ref_chroma(im, 2, x, y, nearest) - 128;
            const uint8_t r = clip(l + floor_div(q14(1402000) * v + 8192, 16384)), b = clip(l + floor_div(q14(1772000) * u + 8192, 16384));
            const uint8_t g = clip(l + floor_div(-q14(344136) * u - q14(714136) * v + 8192, 16384));
            const uint8_t px[4][4] = {{r, g, b}, {r, g, b, 255}, {b, g, r, 255}, {uint8_t(l)}};
            out.insert(out.end(), px[format - 1], px[format - 1] + bpp);
        }
    return out;
}

// Planes from packed pixels: full-size Y, Cb, Cr, then each chroma group
// averaged, the last column and row standing in beyond the edges.
void ref_from_packed(const std::vector<uint8_t> &px, int format, Img *im) {
    const int bpp = kivoc_pixel_size(format), w = im->w, h = im->h;
    std::vector<int> full[3];
    for (size_t i = 0; i < size_t(w) * h; ++i) {
        const uint8_t *s = &px[i * bpp];
        const bool grey = format == KIVOC_GREY;
        const int r = s[format == KIVOC_BGRA ? 2 : 0], g = s[grey ? 0 : 1], b = s[grey || format == KIVOC_BGRA ? 0 : 2];
        full[0].push_back(grey ? s[0] : floor_div(q14(299000) * r + q14(587000) * g + q14(114000) * b + 8192, 16384));
        full[1].push_back(grey ? 128 : floor_div(-q14(168736) * r - q14(331264) * g + q14(500000) * b + 8191, 16384) + 128);
        full[2].push_back(grey ? 128 : floor_div(q14(500000) * r - q14(418688) * g - q14(81312) * b + 8191, 16384) + 128);
    }
    im->p[0].assign(full[0].begin(), full[0].end());
    const int n = im->fx * im->fy;
    for (int k = 1; k < 3 && !im->p[1].empty(); ++k)
        for (int cy = 0; cy < im->ch(); ++cy)
            for (int cx = 0; cx < im->cw(); ++cx) {
                int sum = 0;
                for (int dy = 0; dy < im->fy; ++dy)
                    for (int dx = 0; dx < im->fx; ++dx)
                        sum += full[k][size_t(std::min(cy * im->fy + dy, h - 1)) * w + std::min(cx * im->fx + dx, w - 1)];
                im->p[k][size_t(cy) * im->cw() + cx] = uint8_t((sum + n / 2) / n);
            }
}

struct LayoutCase {
    int32_t format;
    int fx, fy;  // 0: grey
};
const LayoutCase kLayouts[] = {{XELO_CS_YCBCR400, 0, 0}, {XELO_CS_YCBCR420, 2, 2}, {XELO_CS_YCBCR422, 2, 1},
                               {XELO_CS_YCBCR444, 1, 1}, {XELO_CS_YCBCR440, 1, 2}, {XELO_CS_YCBCR411, 4, 1}};
const int32_t kPacked[] = {KIVOC_RGB, KIVOC_RGBA, KIVOC_BGRA, KIVOC_GREY};

// Random samples, or extremes: 0 and 255 in random runs (saturates the
// matrix and the upsampler's sums).
uint8_t sample(testpic::Rng &rng, bool extreme) {
    return extreme && (rng.next() >> 7) % 3 ? uint8_t((rng.next() & 1) * 255) : uint8_t(rng.next());
}

Img make_img(const LayoutCase &lc, int w, int h, uint64_t seed, bool extreme) {
    Img im{w, h, lc.fx ? lc.fx : 1, lc.fy ? lc.fy : 1, {}};
    testpic::Rng rng(seed);
    im.p[0].resize(size_t(w) * h);
    if (lc.fx) im.p[1].resize(size_t(im.cw()) * im.ch()), im.p[2].resize(im.p[1].size());
    for (auto &p : im.p)
        for (uint8_t &v : p) v = sample(rng, extreme);
    return im;
}

// An xelo buffer of the layout with odd line distances.
struct Buffer {
    xelo_imgb *b;
    Buffer(const LayoutCase &lc, int w, int h) {
        const uint32_t align[4] = {XELO_PAIR(1, 1), XELO_PAIR(1, 1), XELO_PAIR(1, 1), XELO_PAIR(1, 1)};
        const uint32_t pad[4] = {XELO_PAIR(3, 1), XELO_PAIR(5, 1), XELO_PAIR(1, 2), XELO_PAIR(0, 0)};
        b = xelo_imgb_create(w, h, lc.format, 3, align, pad, 0, 0, 0);
    }
    ~Buffer() { b->release(b); }
    // Copies im into the buffer, or with `out` the buffer into im.
    void copy(Img *im, bool out) const {
        for (int k = 0; k < 3 && !im->p[k].empty(); ++k)
            for (int y = 0, pw = k ? im->cw() : im->w; y < (k ? im->ch() : im->h); ++y) {
                uint8_t *mine = b->plane[k] + y * b->stride[k], *theirs = &im->p[k][size_t(y) * pw];
                std::memcpy(out ? theirs : mine, out ? mine : theirs, pw);
            }
    }
};

// Converts im to packed pixels with a line distance of w * bpp + 3.
std::vector<uint8_t> to_packed(const LayoutCase &lc, Img im, int32_t format, uint32_t flags, int threads) {
    Buffer buf(lc, im.w, im.h);
    buf.copy(&im, false);
    const int bpp = kivoc_pixel_size(format), stride = im.w * bpp + 3;
    std::vector<uint8_t> raw(size_t(stride) * im.h), out;
    kivo_tpool tp;
    kivo_tpool_std(&tp, threads);
    EXPECT_EQ(kivoc_to_packed(buf.b, raw.data(), stride, raw.size(), format, flags, &tp), 0);
    for (int y = 0; y < im.h; ++y) out.insert(out.end(), &raw[size_t(y) * stride], &raw[size_t(y) * stride] + im.w * bpp);
    return out;
}

Img from_packed(const LayoutCase &lc, const std::vector<uint8_t> &px, int32_t format, int w, int h, int threads) {
    Img im = make_img(lc, w, h, 0, false);
    Buffer buf(lc, w, h);
    kivo_tpool tp;
    kivo_tpool_std(&tp, threads);
    EXPECT_EQ(kivoc_from_packed(px.data(), w * kivoc_pixel_size(format), px.size(), format, buf.b, &tp), 0);
    buf.copy(&im, true);
    return im;
}

// CPU levels to check: plain and every SIMD level the machine has.
std::vector<uint32_t> levels() {
    std::vector<uint32_t> flags{0};
    for (uint32_t f : {KIVO_CPU_SSE2, KIVO_CPU_SSE2 | KIVO_CPU_AVX2, KIVO_CPU_NEON})
        if ((kivo_cpu_detected() & f) == f) flags.push_back(f);
    return flags;
}

TEST(Colour, EveryLevelAndThreadCountMatchesTheReference) {
    const int sizes[][2] = {{1, 1}, {2, 1}, {5, 3}, {7, 6}, {35, 17}, {197, 43}};
    uint64_t seed = 1;
    for (uint32_t flags : levels())
        for (int threads : {1, 3, 8})
            for (const LayoutCase &lc : kLayouts)
                for (const auto &sz : sizes)
                    for (bool extreme : {false, true}) {
                        SCOPED_TRACE(testing::Message() << "cpu " << flags << " threads " << threads << " layout " << lc.format
                                                        << " " << sz[0] << "x" << sz[1] << (extreme ? " extreme" : ""));
                        kivo_cpu_set_mask(flags);
                        const Img im = make_img(lc, sz[0], sz[1], ++seed, extreme);
                        for (int32_t f : kPacked) {
                            for (uint32_t nearest : {0u, KIVOC_NEAREST})
                                ASSERT_EQ(to_packed(lc, im, f, nearest, threads), ref_to_packed(im, f, nearest != 0))
                                    << "to packed " << f << " nearest " << nearest;
                            const Img src = make_img({XELO_CS_YCBCR444, 1, 1}, sz[0] * kivoc_pixel_size(f), sz[1], ++seed, extreme);
                            Img want = make_img(lc, sz[0], sz[1], 0, false);
                            ref_from_packed(src.p[0], f, &want);
                            const Img got = from_packed(lc, src.p[0], f, sz[0], sz[1], threads);
                            for (int k = 0; k < 3; ++k) ASSERT_EQ(got.p[k], want.p[k]) << "from packed " << f << " plane " << k;
                        }
                        kivo_cpu_set_mask(~0u);
                    }
}

TEST(Colour, KernelsMatchPlain) {
    // Rounding terms, shift and largest sum of the 2x2 and 2x1 upsampling.
    const int fancy[2][4] = {{8, 7, 4, 1020}, {1, 2, 2, 255}};
    const kivo::ColorDsp &c = kivo::color_dsp(0);
    testpic::Rng rng(7);
    std::vector<uint8_t> a(512), b(512), d0(512), d1(512), e0(512), e1(512), f0(512), f1(512);
    std::vector<uint16_t> s(260), o0(260), o1(260);
    for (uint32_t flags : levels()) {
        const kivo::ColorDsp &v = kivo::color_dsp(flags);
        for (int n = 0; n <= 100; ++n)
            for (int off = 0; off < 3; ++off)
                for (bool extreme : {false, true}) {
                    SCOPED_TRACE(testing::Message() << "flags " << flags << " n " << n << " off " << off << (extreme ? " extreme" : ""));
                    for (size_t i = 0; i < a.size(); ++i) a[i] = sample(rng, extreme), b[i] = sample(rng, extreme);
                    uint8_t *a1 = a.data() + off, *a2 = a.data() + 200;
                    for (int k = 0; k < kivo::kPackCount; ++k) {
                        c.to_packed[k](a1, b.data(), a2, d0.data() + off, n);
                        v.to_packed[k](a1, b.data(), a2, d1.data() + off, n);
                        ASSERT_EQ(d0, d1) << "to_packed " << k;
                        c.from_packed[k](a1, d0.data(), e0.data() + off, f0.data(), n);
                        v.from_packed[k](a1, d1.data(), e1.data() + off, f1.data(), n);
                        ASSERT_TRUE(d0 == d1 && e0 == e1 && f0 == f1) << "from_packed " << k;
                    }
                    c.vsum3(a1, b.data(), o0.data(), n);
                    v.vsum3(a1, b.data(), o1.data(), n);
                    ASSERT_EQ(o0, o1) << "vsum3";
                    for (const auto &m : fancy) {
                        for (uint16_t &x : s) x = uint16_t(extreme ? (rng.next() & 1) * m[3] : rng.next() % (m[3] + 1));
                        c.h2_fancy(s.data() + 1 + off, d0.data(), n, m[0], m[1], m[2]);
                        v.h2_fancy(s.data() + 1 + off, d1.data(), n, m[0], m[1], m[2]);
                        ASSERT_EQ(d0, d1) << "h2_fancy " << m[0];
                    }
                    c.down_h2v2(a1, b.data(), d0.data() + off, n);
                    v.down_h2v2(a1, b.data(), d1.data() + off, n);
                    c.down_h2v1(a1, b.data(), e0.data(), n);
                    v.down_h2v1(a1, b.data(), e1.data(), n);
                    ASSERT_TRUE(d0 == d1 && e0 == e1) << "down";
                }
    }
}

TEST(Colour, RefusedArguments) {
    Buffer buf({XELO_CS_YCBCR420, 2, 2}, 9, 5);
    std::vector<uint8_t> px(9 * 4 * 5);
    const int32_t st = 9 * 4;
    const size_t sz = px.size();
    xelo_imgb narrow = *buf.b, short_lines = *buf.b, no_plane = *buf.b, nv12 = *buf.b, empty = *buf.b;
    narrow.stride[1] = 4;  // chroma width is 5
    short_lines.lines[2] = 2;
    no_plane.plane[2] = nullptr;
    nv12.color_format = XELO_CS_NV12;
    empty.width = 0;
    const int32_t kArg = KIVO_ERR_INVALID_ARG, kFmt = KIVO_ERR_COLOR_FORMAT, kImgb = KIVO_ERR_IMGB;
    const struct {
        const xelo_imgb *img;
        uint8_t *dst;
        int32_t stride;
        size_t size;
        int32_t format;
        uint32_t flags;
        int32_t want;
    } cases[] = {
        {buf.b, px.data(), st, sz, KIVOC_RGBA, 0, 0},         {nullptr, px.data(), st, sz, KIVOC_RGBA, 0, kArg},
        {buf.b, nullptr, st, sz, KIVOC_RGBA, 0, kArg},        {buf.b, px.data(), st, sz, KIVOC_RGBA, 2, kArg},
        {&no_plane, px.data(), st, sz, KIVOC_RGBA, 0, kArg},  {&empty, px.data(), st, sz, KIVOC_RGBA, 0, kArg},
        {buf.b, px.data(), st, sz, 0, 0, kFmt},               {buf.b, px.data(), st, sz, 5, 0, kFmt},
        {&nv12, px.data(), st, sz, KIVOC_RGBA, 0, kFmt},      {buf.b, px.data(), st - 1, sz, KIVOC_RGBA, 0, kImgb},
        {buf.b, px.data(), -st, sz, KIVOC_RGBA, 0, kImgb},    {buf.b, px.data(), st, sz - 1, KIVOC_RGBA, 0, kImgb},
        {buf.b, px.data(), st + 1, sz, KIVOC_RGBA, 0, kImgb}, {buf.b, px.data(), st + 1, sz, KIVOC_RGB, 0, 0},
        {&narrow, px.data(), st, sz, KIVOC_RGBA, 0, kImgb},   {&short_lines, px.data(), st, sz, KIVOC_RGBA, 0, kImgb},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
        EXPECT_EQ(kivoc_to_packed(c.img, c.dst, c.stride, c.size, c.format, c.flags, nullptr), c.want);
        EXPECT_TRUE(c.flags || kivoc_from_packed(c.dst, c.stride, c.size, c.format, const_cast<xelo_imgb *>(c.img), nullptr) == c.want);
    }
    // A pool that refuses its workers.
    kivo_tpool refusing;
    kivo_tpool_std(&refusing, 4);
    refusing.create = [](kivo_tpool *, int32_t) -> void * { return nullptr; };
    EXPECT_EQ(kivoc_to_packed(buf.b, px.data(), st, sz, KIVOC_RGBA, 0, &refusing), KIVO_ERR_THREAD);
}

// A decoder with `threads` threads and the reduction, its headers read from jpg.
kivod_ctx *open_decoder(const std::vector<uint8_t> &jpg, int threads, int reduction, xelo_bitb *bitb,
                        kivo_tpool *tp, kivod_frame_info *info) {
    kivo_tpool_std(tp, threads);
    const kivod_create_param p{0, tp};
    kivod_ctx *dec = kivod_create(&p, nullptr);
    kivod_set_reduction(dec, reduction);
    bitb->addr = const_cast<uint8_t *>(jpg.data());
    bitb->ssize = static_cast<int32_t>(jpg.size());
    const kivod_input in{KIVOD_INPUT_BITB, bitb, nullptr};
    EXPECT_EQ(kivod_decode(dec, &in, info), 0);
    return dec;
}

TEST(Colour, DecodePackedMatchesTwoSteps) {
    const struct {
        int32_t cs;
        int w, h;
        bool progressive;
        int reduction;
        int32_t format;
        uint32_t flags;
        bool fake_marker = false;  // a restart marker that is not one, early in the data
        bool second_scan = false;  // another picture's scan after the first, which a lone component's decode takes too
        bool cut = false;          // data ending early: rows below are mid-grey when the picture is decoded whole
    } cases[] = {
        {XELO_CS_YCBCR420, 77, 83, false, 0, KIVOC_RGBA, 0},  {XELO_CS_YCBCR420, 64, 64, false, 1, KIVOC_BGRA, 0},
        {XELO_CS_YCBCR420, 77, 83, false, 0, KIVOC_RGB, KIVOC_NEAREST},
        {XELO_CS_YCBCR422, 45, 70, false, 0, KIVOC_RGB, 0},   {XELO_CS_YCBCR444, 50, 41, false, 0, KIVOC_RGBA, 0},
        {XELO_CS_YCBCR440, 33, 75, false, 0, KIVOC_RGBA, 0},  {XELO_CS_YCBCR411, 61, 34, false, 0, KIVOC_RGBA, 0},
        {XELO_CS_YCBCR400, 39, 57, false, 0, KIVOC_RGBA, 0},  {XELO_CS_YCBCR420, 77, 83, false, 0, KIVOC_GREY, 0},
        {XELO_CS_YCBCR420, 77, 83, true, 0, KIVOC_RGBA, 0},   {XELO_CS_YCBCR420, 77, 83, false, 2, KIVOC_RGBA, 0},
        {XELO_CS_YCBCR444, 50, 41, false, 4, KIVOC_RGB, 0},   {XELO_CS_YCBCR420, 77, 83, false, 0, KIVOC_RGBA, 0, true},
        {XELO_CS_YCBCR400, 39, 57, false, 0, KIVOC_RGBA, 0, false, true},
        {XELO_CS_YCBCR420, 77, 83, false, 2, KIVOC_RGB, 0, false, false, true},
    };
    uint64_t seed = 40;
    for (const auto &c : cases) {
        kivotest::EncodeOptions o;
        o.quality = 85;
        o.progressive = c.progressive;
        o.threads = c.second_scan ? 1 : 2;  // restart markers between the encoder's slices
        kivotest::Encoded e = kivotest::encode(c.cs, c.w, c.h, kivotest::make_picture(c.cs, c.w, c.h, ++seed), o);
        ASSERT_EQ(e.status, 0);
        if (c.second_scan) {
            const kivotest::Encoded other =
                kivotest::encode(c.cs, c.w, c.h, kivotest::make_picture(c.cs, c.w, c.h, seed + 100), o);
            size_t sos = other.jpg.size() - 2;
            while (sos > 0 && !(other.jpg[sos] == 0xFF && other.jpg[sos + 1] == 0xDA)) --sos;
            e.jpg.insert(e.jpg.end() - 2, other.jpg.begin() + static_cast<ptrdiff_t>(sos), other.jpg.end() - 2);
        }
        if (c.cut) e.jpg.resize(e.jpg.size() / 2);
        if (c.fake_marker) {
            // Slices started from the markers then disagree with the decode
            // and run again: the packed rows must come from the second run.
            size_t sos = e.jpg.size() - 2;
            while (sos > 0 && !(e.jpg[sos] == 0xFF && e.jpg[sos + 1] == 0xDA)) --sos;
            size_t at = sos + (e.jpg.size() - sos) / 4;
            while (e.jpg[at - 1] == 0xFF || e.jpg[at] == 0x00) ++at;
            e.jpg.insert(e.jpg.begin() + static_cast<ptrdiff_t>(at), {0xFF, 0xD0});
        }
        for (int threads : {1, 2}) {
            SCOPED_TRACE(testing::Message() << "case " << (&c - cases) << " threads " << threads);
            xelo_bitb bitb{};
            kivo_tpool tp;
            kivod_frame_info info{};
            kivod_ctx *dec = open_decoder(e.jpg, threads, c.reduction, &bitb, &tp, &info);
            const int d = c.reduction > 1 ? c.reduction : 1, w = (c.w + d - 1) / d, h = (c.h + d - 1) / d;
            const int bpp = kivoc_pixel_size(c.format);
            xelo_imgb *img = kivotest::to_imgb(c.cs, w, h, kivotest::make_picture(c.cs, w, h, 0));
            for (int p = 0; c.cut && p < 3; ++p) std::memset(img->plane[p], 128, size_t(img->stride[p]) * img->lines[p]);
            std::vector<uint8_t> want(size_t(w) * h * bpp), got(want.size(), 0x5A);
            const int32_t status = kivod_clone(dec, img);
            ASSERT_GE(status, 0);
            ASSERT_EQ(kivoc_to_packed(img, want.data(), w * bpp, want.size(), c.format, c.flags, nullptr), 0);
            const kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
            ASSERT_EQ(kivod_decode(dec, &in, &info), 0);
            ASSERT_EQ(kivoc_decode_packed(dec, got.data(), w * bpp, got.size(), c.format, c.flags), status);
            EXPECT_EQ(got, want);
            img->release(img);
            kivod_delete(dec);
        }
    }
}

TEST(Colour, DecodePackedRefusals) {
    const int w = 20, h = 12;
    const kivotest::Encoded e = kivotest::encode(XELO_CS_YCBCR420, w, h, kivotest::make_picture(XELO_CS_YCBCR420, w, h, 3), {});
    ASSERT_EQ(e.status, 0);
    const std::vector<uint8_t> cmyk =
        kivotest::encode(41, w, h, kivotest::make_picture(41, w, h, 3), {}).jpg;
    std::vector<uint8_t> px(w * h * 4);
    const int32_t st = w * 4;
    const size_t sz = px.size();
    const int32_t kArg = KIVO_ERR_INVALID_ARG, kFmt = KIVO_ERR_COLOR_FORMAT, kImgb = KIVO_ERR_IMGB;
    const struct {
        const std::vector<uint8_t> *jpg;  // null: a handle with no picture to decode
        bool null_handle;
        uint8_t *dst;
        int32_t stride;
        size_t size;
        int32_t format;
        uint32_t flags;
        int32_t want;
    } cases[] = {
        {&e.jpg, false, px.data(), st, sz, KIVOC_RGBA, 0, 0},      {&e.jpg, true, px.data(), st, sz, KIVOC_RGBA, 0, kArg},
        {&e.jpg, false, nullptr, st, sz, KIVOC_RGBA, 0, kArg},     {&e.jpg, false, px.data(), st, sz, KIVOC_RGBA, 2, kArg},
        {&e.jpg, false, px.data(), st, sz, 5, 0, kFmt},            {&e.jpg, false, px.data(), st - 1, sz, KIVOC_RGBA, 0, kImgb},
        {&e.jpg, false, px.data(), st, sz - 1, KIVOC_RGBA, 0, kImgb}, {&cmyk, false, px.data(), st, sz, KIVOC_RGBA, 0, kFmt},
        {nullptr, false, px.data(), st, sz, KIVOC_RGBA, 0, KIVO_ERR_UNAVAILABLE},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
        xelo_bitb bitb{};
        kivo_tpool tp;
        kivod_frame_info info{};
        kivod_ctx *dec = open_decoder(c.jpg ? *c.jpg : e.jpg, 1, 0, &bitb, &tp, &info);
        if (!c.jpg) {
            ASSERT_EQ(kivoc_decode_packed(dec, px.data(), st, sz, KIVOC_RGBA, 0), 0);  // the picture is taken
        }
        std::fill(px.begin(), px.end(), uint8_t(0x5A));
        EXPECT_EQ(kivoc_decode_packed(c.null_handle ? nullptr : dec, c.dst, c.stride, c.size, c.format, c.flags), c.want);
        // A refusal writes nothing.
        if (c.want != 0) {
            EXPECT_EQ(std::count(px.begin(), px.end(), uint8_t(0x5A)), long(sz));
        }
        kivod_delete(dec);
    }
    // Decoded whole (here at 1/2), the picture's planes (3072 bytes) count
    // against max_memory with the frame buffers, which alone fit.
    for (const int64_t limit : {int64_t(0), int64_t(3000)}) {
        xelo_bitb bitb{};
        kivo_tpool tp;
        kivod_frame_info info{};
        kivod_ctx *dec = open_decoder(e.jpg, 1, 2, &bitb, &tp, &info);
        const kivod_limits lim{0, 0, limit, 0};
        ASSERT_EQ(kivod_set_limits(dec, &lim), 0);
        EXPECT_EQ(kivoc_decode_packed(dec, px.data(), st, sz, KIVOC_RGBA, 0), limit ? KIVO_ERR_OUT_OF_MEMORY : 0);
        kivod_delete(dec);
    }
}

}  // namespace
