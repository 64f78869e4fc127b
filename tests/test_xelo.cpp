// The support layer against computations written separately here: plane
// sizes by ceiling division, a bit-by-bit writer, a floating-point filter.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "kivo.h"
#include "xelo.h"
#include "xelo/xelo_int.h"
#include "support/pictures.h"
#include "xelo/xelo_hooks.h"

namespace {

const struct {
    void *(*alloc)(size_t);
    void (*free)(void *);
} kAlloc[] = {{xelo_malloc_align32, xelo_mfree_align32}, {xelo_malloc_fast_align32, xelo_mfree_fast_align32}};

// Both allocators: aligned, distinct, counted, filled exactly in bounds;
// fail_at refuses exactly the n-th allocation, also across threads.
TEST(XeloMem, AllocatorsAndFaultInjection) {
    const int32_t live0 = xelo_mem_live();
    std::vector<std::pair<void *, int>> blocks;
    for (int a = 0; a < 2; ++a)
        for (size_t size : {0, 1, 31, 33, 1000, 1 << 20}) {
            uint8_t *p = static_cast<uint8_t *>(kAlloc[a].alloc(size));
            ASSERT_TRUE(p && reinterpret_cast<uintptr_t>(p) % 32 == 0);
            for (const auto &b : blocks) EXPECT_NE(b.first, p);
            blocks.push_back({p, a});
            if (size < 3) continue;
            std::memset(p, 0x11, size);
            xelo_mset_x64(p + 1, 0xA7, size - 2);  // odd start and length
            xelo_mset_x64a(p, 0x3C, size / 2);
            for (size_t i = 0; i < size; ++i) ASSERT_EQ(p[i], i < size / 2 ? 0x3C : i + 1 < size ? 0xA7 : 0x11) << i;
        }
    EXPECT_EQ(xelo_mem_live(), live0 + int32_t(blocks.size()));
    for (const auto &b : blocks) kAlloc[b.second].free(b.first);
    for (int32_t n : {1, 2, 5, 0}) {
        xelo_mem_fail_at(n);
        for (int i = 0; i < 8; ++i) {
            void *p = kAlloc[i & 1].alloc(16);
            EXPECT_EQ(p == nullptr, i == n - 1) << "n=" << n << " i=" << i;
            kAlloc[i & 1].free(p);
        }
    }
    std::atomic<int> failures{0};
    xelo_mem_fail_at(3000);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&failures, t] {
            for (int i = 0; i < 2000; ++i) {
                void *p = kAlloc[t & 1].alloc(size_t(i % 100));
                failures += !p;
                kAlloc[t & 1].free(p);
            }
        });
    for (std::thread &t : threads) t.join();
    EXPECT_EQ(failures.load(), 1);
    EXPECT_EQ(xelo_mem_live(), live0);
}

// Plane p is hmul * ceil(w / hdiv) bytes by ceil(h / vdiv) lines; hmul 0
// marks an absent plane.
struct Geo {
    int32_t cs;
    int hmul[4], hdiv[4], vdiv[4];
};
const Geo kGeos[] = {
    {XELO_CS_YCBCR400, {1, 0, 0, 0}, {1, 1, 1, 1}, {1, 1, 1, 1}},  {XELO_CS_YCBCR420, {1, 1, 1, 0}, {1, 2, 2, 1}, {1, 2, 2, 1}},
    {XELO_CS_YCBCR422, {1, 1, 1, 0}, {1, 2, 2, 1}, {1, 1, 1, 1}},  {XELO_CS_YCBCR444, {1, 1, 1, 0}, {1, 1, 1, 1}, {1, 1, 1, 1}},
    {XELO_CS_YCBCR440, {1, 1, 1, 0}, {1, 1, 1, 1}, {1, 2, 2, 1}},  {XELO_CS_YCBCR411, {1, 1, 1, 0}, {1, 4, 4, 1}, {1, 1, 1, 1}},
    {XELO_CS_NV12, {1, 2, 0, 0}, {1, 2, 1, 1}, {1, 2, 1, 1}},      {XELO_CS_NV21, {1, 2, 0, 0}, {1, 2, 1, 1}, {1, 2, 1, 1}},
    {XELO_CS_YCBCRK400, {1, 0, 0, 1}, {1, 1, 1, 1}, {1, 1, 1, 1}}, {XELO_CS_YCBCRK420, {1, 1, 1, 1}, {1, 2, 2, 1}, {1, 2, 2, 1}},
    {XELO_CS_YCBCRK422, {1, 1, 1, 1}, {1, 2, 2, 1}, {1, 1, 1, 1}}, {XELO_CS_YCBCRK444, {1, 1, 1, 1}, {1, 1, 1, 1}, {1, 1, 1, 1}},
    {XELO_CS_YCBCRK440, {1, 1, 1, 1}, {1, 1, 1, 1}, {1, 2, 2, 1}}, {XELO_CS_YUYV, {2, 0, 0, 0}, {1, 1, 1, 1}, {1, 1, 1, 1}},
};

int32_t ceil_div(int32_t a, int32_t b) { return (a + b - 1) / b; }

// Checks the record against the arithmetic above, then writes a pattern over
// every plane with its margins and reads it back: margins of adjacent rows
// that overlap show as mismatches, writes outside the allocation fail the
// address checks (and AddressSanitizer).
void check_layout(const xelo_imgb *im, const Geo &g, int32_t w, int32_t h, uint32_t align, uint32_t pad) {
    const int32_t ah = align & 0xFFFF, av = align >> 16, ph = pad & 0xFFFF, pv = pad >> 16;
    ASSERT_TRUE(im->width == w && im->height == h && im->color_format == g.cs);
    int32_t cw[4], ch[4], n = 0;
    ASSERT_EQ(xelo_cs_planes(g.cs, w, h, cw, ch, &n), 0);
    for (int p = 0; p < 4; ++p) {
        SCOPED_TRACE(testing::Message() << "plane " << p);
        uint8_t *plane = im->plane[p];
        ASSERT_EQ(plane != nullptr, g.hmul[p] != 0);
        if (!plane) continue;
        const int32_t pw = g.hmul[p] * ceil_div(w, g.hdiv[p]), plh = ceil_div(h, g.vdiv[p]), stride = im->stride[p];
        EXPECT_TRUE(cw[p] == pw && ch[p] == plh && stride % ah == 0 && im->lines[p] == ceil_div(plh, av) * av);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(plane) % ah, 0u);
        ASSERT_GE(plane - int64_t(pv) * stride - ph, im->plane_base[p]);
        ASSERT_LE(plane + int64_t(im->lines[p] + pv - 1) * stride + pw + ph, im->plane_base[p] + im->capacity[p]);
        for (int pass = 0; pass < 2; ++pass)
            for (int32_t y = -pv; y < im->lines[p] + pv; ++y)
                for (int32_t x = -ph; x < pw + ph; ++x) {
                    uint8_t &px = plane[int64_t(y) * stride + x];
                    if (pass == 0) px = uint8_t(y * 7 + x * 13);
                    else ASSERT_EQ(px, uint8_t(y * 7 + x * 13)) << x << "," << y;
                }
    }
}

TEST(XeloImgb, PlaneGeometryForEveryFormat) {
    const int32_t live0 = xelo_mem_live();
    for (const Geo &g : kGeos)
        for (const auto &s : {std::pair<int, int>{1, 1}, {7, 5}, {33, 17}, {101, 75}})
            for (uint32_t a : {XELO_PAIR(16, 16), XELO_PAIR(1, 1), XELO_PAIR(64, 2), XELO_PAIR(24, 3)})
                for (uint32_t pd : {XELO_PAIR(0, 0), XELO_PAIR(3, 3), XELO_PAIR(16, 16), XELO_PAIR(37, 5)}) {
                    SCOPED_TRACE(testing::Message() << "cs " << g.cs << " " << s.first << "x" << s.second << std::hex
                                                    << " align " << a << " pad " << pd);
                    const uint32_t al[4] = {a, a, a, a}, pa[4] = {pd, pd, pd, pd};
                    xelo_imgb *im = xelo_imgb_create(s.first, s.second, g.cs, 3, al, pa, 0, 0, 0);
                    ASSERT_NE(im, nullptr);
                    check_layout(im, g, s.first, s.second, a, pd);
                    im->release(im);
                }
    EXPECT_EQ(xelo_mem_live(), live0);
}

const uint32_t kAl16[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
const uint32_t kPad8[4] = {XELO_PAIR(8, 8), XELO_PAIR(8, 8), XELO_PAIR(8, 8), XELO_PAIR(8, 8)};

TEST(XeloImgb, RebirthReshapesWithoutAllocatingOrKeepsTheRecord) {
    const int32_t live0 = xelo_mem_live();
    xelo_imgb *im = xelo_imgb_create(100, 80, XELO_CS_YCBCR420, 3, kAl16, kPad8, 0, 0, 0);
    ASSERT_NE(im, nullptr);
    const int32_t live1 = xelo_mem_live();
    const struct {
        int32_t w, h, geo, version, want;  // geo indexes kGeos
    } steps[] = {
        {99, 79, 1, 3, 0},  {5, 3, 0, 3, 0}, {100, 80, 1, 3, 0},  // grey switches chroma off and it comes back
        {56, 80, 4, 3, 0},  {50, 40, 3, 3, 0},                    // 4:4:0 / 4:4:4 within 4:2:0's bytes
        {100, 80, 3, 3, XELO_ERR_CAPACITY},  {200, 80, 1, 3, XELO_ERR_CAPACITY},
        {100, 160, 1, 3, XELO_ERR_CAPACITY}, {50, 40, 9, 3, XELO_ERR_CAPACITY},  // no 4th plane
        {50, 40, 1, 2, XELO_ERR_ARG},        {0, 40, 1, 3, XELO_ERR_ARG},       {65536, 40, 1, 3, XELO_ERR_ARG},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(testing::Message() << s.w << "x" << s.h << " cs " << kGeos[s.geo].cs);
        xelo_imgb before;
        std::memcpy(&before, im, sizeof(before));
        EXPECT_EQ(xelo_imgb_rebirth(im, s.w, s.h, kGeos[s.geo].cs, s.version, kAl16, kPad8), s.want);
        EXPECT_EQ(xelo_mem_live(), live1);
        if (s.want == 0) check_layout(im, kGeos[s.geo], s.w, s.h, kAl16[0], kPad8[0]);
        else EXPECT_EQ(std::memcmp(&before, im, sizeof(before)), 0);
    }
    EXPECT_EQ(xelo_imgb_rebirth(im, 10, 10, 14, 3, kAl16, kPad8), XELO_ERR_ARG);
    im->release(im);
    EXPECT_EQ(xelo_mem_live(), live0);
}

TEST(XeloImgb, CreateRejectsBadArgumentsAndCleansUpFailures) {
    const uint32_t big_pad[4] = {XELO_PAIR(5000, 4), 0, 0, 0};
    const struct {
        int32_t w, h, cs, version;
        const uint32_t *pad;
        int32_t r0;
    } bad[] = {{16, 16, 11, 2, kPad8, 0},   {16, 16, 14, 3, kPad8, 0},   {16, 16, 200, 3, kPad8, 0},
               {0, 16, 11, 3, kPad8, 0},    {16, -1, 11, 3, kPad8, 0},   {65536, 16, 11, 3, kPad8, 0},
               {16, 16, 11, 3, nullptr, 0}, {16, 16, 11, 3, big_pad, 0}, {16, 16, 11, 3, kPad8, 1}};
    const int32_t live0 = xelo_mem_live();
    for (const auto &b : bad)
        EXPECT_EQ(xelo_imgb_create(b.w, b.h, b.cs, b.version, kAl16, b.pad, b.r0, 0, 0), nullptr) << b.w << " " << b.cs;
    // Record plus four planes: failing any one of the five allocations must
    // give null and leave nothing behind.
    for (int32_t k = 1; k <= 6; ++k) {
        xelo_mem_fail_at(k);
        xelo_imgb *im = xelo_imgb_create(40, 30, XELO_CS_YCBCRK420, 3, kAl16, kPad8, 0, 0, 0);
        xelo_mem_fail_at(0);
        EXPECT_EQ(im == nullptr, k <= 5) << k;
        if (im) im->release(im);
        EXPECT_EQ(xelo_mem_live(), live0) << k;
    }
}

// Random writes (bits above the count are junk the writer must drop) through
// the plain flush against bits appended one at a time, MSB first, the last
// byte zero-padded: whole, and cut at the end of a buffer too small, past
// which nothing is written. (The encoder's own flushes, which stuff, are
// checked through its streams.)
TEST(XeloBsw, PlainWritesMatchTheBitByBitReference) {
    for (uint32_t seed = 1; seed <= 24; ++seed) {
        std::mt19937 rng(seed);
        std::vector<std::pair<uint32_t, int>> ops;
        for (int i = 0; i < 300; ++i) ops.push_back({(rng() & 1) ? uint32_t(rng()) : ~0u, int(rng() % 32) + 1});
        std::vector<uint8_t> want;
        int nbits = 0;
        for (const auto &op : ops)
            for (int i = op.second - 1; i >= 0; --i, ++nbits) {
                if (nbits % 8 == 0) want.push_back(0);
                if ((op.first >> i) & 1) want.back() |= uint8_t(0x80 >> (nbits % 8));
            }
        const int32_t cap = seed <= 8 ? int32_t((seed - 1) * (seed - 1)) : 4096;  // too small for the first eight
        std::vector<uint8_t> buf(size_t(cap) + 16, 0xA5);
        xelo_bsw bsw;
        xelo_bsw_init(&bsw, buf.data(), cap, xelo_bsw_flush_plain);
        for (const auto &op : ops) xelo_bsw_write(&bsw, op.first, op.second);
        xelo_bsw_sink(&bsw);
        EXPECT_TRUE(bsw.cache == 0 && bsw.free_bits == 32);
        EXPECT_TRUE(std::all_of(buf.begin() + cap, buf.end(), [](uint8_t b) { return b == 0xA5; }));
        const size_t n = std::min(want.size(), size_t(cap));
        EXPECT_EQ(std::vector<uint8_t>(buf.data(), bsw.write_ptr), std::vector<uint8_t>(want.begin(), want.begin() + n));
        EXPECT_EQ(bsw.overflow, n < want.size()) << seed;
    }
}

// A floating-point filter of one axis: for each destination index, the
// (source index, weight) pairs.
using Taps = std::vector<std::vector<std::pair<int, double>>>;
Taps ref_axis(int src, int dst) {
    Taps t(static_cast<size_t>(dst));
    const double scale = double(src) / dst;
    for (int j = 0; j < dst; ++j) {
        if (dst < src) {
            for (int i = 0; i < src; ++i) {
                const double ov = std::min((j + 1) * scale, i + 1.0) - std::max(j * scale, double(i));
                if (ov > 1e-12) t[size_t(j)].push_back({i, ov / scale});
            }
        } else {
            const double pos = std::min(std::max((j + 0.5) * scale - 0.5, 0.0), src - 1.0);
            const int i0 = int(std::floor(pos));
            t[size_t(j)].push_back({i0, 1 - (pos - i0)});
            if (pos - i0 > 1e-12) t[size_t(j)].push_back({i0 + 1, pos - i0});
        }
    }
    return t;
}

using testpic::Plane;

// Resizes src feeding strips of `strip` rows; the last strip reaches past the
// bottom into junk rows. The destination sits inside a canary-filled buffer
// with a wider stride; the canary is checked at the end. With `final_px`,
// after each strip every destination row whose source rows have all arrived
// must already hold its final value. With `windows` > 1, that many resizers
// of windows of the destination lines each write theirs, fed from their
// first source row on, as the decoder's slices do.
Plane resize(const Plane &src, int dw, int dh, int strip, const Plane *final_px = nullptr, int windows = 1) {
    const int sstride = src.w + 3, dstride = dw + 5, fed = ceil_div(src.h, strip) * strip;
    std::vector<uint8_t> in(size_t(sstride) * size_t(fed));
    std::mt19937 junk(7);
    for (uint8_t &v : in) v = uint8_t(junk());
    for (int y = 0; y < src.h; ++y) std::memcpy(&in[size_t(y) * sstride], &src.px[size_t(y) * src.w], size_t(src.w));
    std::vector<uint8_t> out(size_t(dstride) * size_t(dh + 4), 0xC3);
    uint8_t *dst = out.data() + 2 * dstride + 2;
    const xelo_irsz_desc desc = {20, 11, src.w, src.h, sstride, strip, dw, dh, dstride, dst};
    const Taps ty = ref_axis(src.h, dh);
    for (int k = 0; k < windows; ++k) {
        const int j0 = dh * k / windows, j1 = dh * (k + 1) / windows;
        int32_t row0 = 0, count;
        if (windows > 1) xelo::irsz_taps(src.h, dh, j0, &row0, &count);
        xelo_irsz_t *rsz = windows > 1 ? xelo::irsz_create_window(&desc, sstride, src.h, j0, j1 - j0, row0)
                                       : xelo_irsz_create(&desc, 0, sstride, src.h);
        EXPECT_NE(rsz, nullptr);
        if (!rsz) return Plane{};
        for (int row = row0; row < fed; row += strip) {
            EXPECT_EQ(xelo_irsz(rsz, &in[size_t(row) * sstride], row, strip), 0);
            for (int j = 0; final_px && j < dh; ++j)
                EXPECT_TRUE(ty[size_t(j)].back().first >= row + strip ||
                            !std::memcmp(dst + j * dstride, &final_px->px[size_t(j) * dw], size_t(dw)))
                    << "row " << j << " not final after source row " << row + strip - 1;
        }
        xelo_irsz_delete(rsz);
    }
    Plane res{dw, dh, std::vector<uint8_t>(size_t(dw) * size_t(dh))};
    for (size_t i = 0; i < out.size(); ++i) {
        const ptrdiff_t off = ptrdiff_t(i) - (dst - out.data());
        if (off >= 0 && off / dstride < dh && off % dstride < dw) res.px[size_t(off / dstride * dw + off % dstride)] = out[i];
        else EXPECT_EQ(out[i], 0xC3) << "canary at " << i;
    }
    return res;
}

// Random planes, and all-255 ones (the largest sums), against the filter;
// every strip height gives the same bytes, each row final as soon as it can be.
// Random planes, and all-255 ones (the largest sums), against the filter
// exactly rounded (weights in units of 1/src shrinking, 1/(2 dst) enlarging),
// with plain and SIMD kernels; every strip height and every split into
// windows gives the same bytes, each row final as soon as it can be. The
// second line of sizes doubles, halves or keeps each side.
TEST(XeloIrsz, MatchesTheExactFilterStripsAndWindows) {
    const int sizes[][4] = {{8, 8, 4, 4},     {7, 5, 3, 2},   {5, 7, 13, 11},   {16, 9, 9, 16},    {1, 1, 5, 3},
                            {100, 37, 31, 74}, {64, 64, 1, 1}, {13, 17, 40, 5},  {17, 3, 17, 3},    {1000, 3, 3, 40},
                            {3, 1000, 200, 3}, {999, 997, 7, 5}, {5, 7, 211, 199}, {128, 66, 64, 33},
                            {7, 5, 14, 10},   {1, 1, 2, 2},   {40, 3, 80, 3},   {9, 4, 9, 8},      {38, 7, 19, 14},
                            {70, 10, 35, 5},  {3, 12, 6, 6},  {17, 6, 17, 3},   {66, 1, 33, 2},    {2, 34, 1, 17},
                            {128, 96, 256, 192}};
    const auto den = [](int src, int dst) -> int64_t { return dst < src ? src : dst > src ? 2 * dst : 1; };
    for (const auto &s : sizes)
        for (uint32_t cpu : {0u, ~0u})
            for (bool full : {false, true}) {
                SCOPED_TRACE(testing::Message() << s[0] << "x" << s[1] << " -> " << s[2] << "x" << s[3] << " cpu " << cpu
                                                << (full ? " 255" : ""));
                kivo_cpu_set_mask(cpu);
                std::mt19937 rng(uint32_t(s[0] * 131 + s[1]));
                Plane src{s[0], s[1], std::vector<uint8_t>(size_t(s[0]) * size_t(s[1]), 255)};
                for (uint8_t &v : src.px) v = full ? v : uint8_t(rng());
                const Plane once = resize(src, s[2], s[3], s[1]);
                const Taps tx = ref_axis(s[0], s[2]), ty = ref_axis(s[1], s[3]);
                const int64_t dx = den(s[0], s[2]), dy = den(s[1], s[3]), d = dx * dy;
                for (int y = 0; y < s[3]; ++y)
                    for (int x = 0; x < s[2]; ++x) {
                        int64_t v = 0;
                        for (const auto &wy : ty[size_t(y)])
                            for (const auto &wx : tx[size_t(x)])
                                v += std::llround(wy.second * dy) * std::llround(wx.second * dx) * src.at(wx.first, wy.first);
                        ASSERT_EQ(once.at(x, y), (v + d / 2) / d) << x << "," << y;
                    }
                for (int strip : {1, 3, 16, s[1] + 5})
                    EXPECT_EQ(resize(src, s[2], s[3], strip, &once).px, once.px) << "strip " << strip;
                for (int windows : {2, 5}) EXPECT_EQ(resize(src, s[2], s[3], 3, nullptr, windows).px, once.px) << windows;
            }
    kivo_cpu_set_mask(~0u);
}

TEST(XeloIrsz, RejectsBadArgumentsAndOutOfOrderRows) {
    std::vector<uint8_t> src(64 * 64, 9), dst(32 * 32);
    const xelo_irsz_desc good = {20, 11, 64, 64, 64, 8, 32, 32, 32, dst.data()};
    const int32_t live0 = xelo_mem_live();
    xelo_irsz_desc bad[8];
    std::fill(bad, bad + 8, good);
    bad[0].kind = 21, bad[1].mode = 10, bad[2].src_w = 0, bad[3].dst_h = 65536;
    bad[4].dst_stride = 31, bad[5].dst = nullptr, bad[6].src_h = 63, bad[7].src_w = 65;  // 65 > stride
    for (const xelo_irsz_desc &d : bad) EXPECT_EQ(xelo_irsz_create(&d, 0, 64, 64), nullptr);
    EXPECT_EQ(xelo_irsz_create(&good, 1, 64, 64), nullptr);
    xelo_irsz_t *r = xelo_irsz_create(&good, 0, 64, 64);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(xelo_irsz(r, src.data(), 0, 8), 0);
    EXPECT_EQ(xelo_irsz(r, src.data(), 9, 8), -105);
    EXPECT_EQ(xelo_irsz(r, src.data(), 0, 8), -105);
    EXPECT_EQ(xelo_irsz(r, src.data(), 8, 56), 0);
    EXPECT_EQ(std::count(dst.begin(), dst.end(), 9), 32 * 32);
    xelo_irsz_delete(r);
    EXPECT_EQ(xelo_mem_live(), live0);
}

}  // namespace
