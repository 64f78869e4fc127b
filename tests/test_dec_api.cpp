// Decoder handle and entry points on small hand-made streams: dispatch and
// statuses, workers and work records, the file interface, output buffers.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "decoder/kivod_int.h"
#include "kivoc.h"
#include "support/kivo_decode.h"
#include "xelo/xelo_hooks.h"

namespace {

// A W x H baseline stream whose every block has DC difference +1 or -1 in
// turn (category 1) and no AC coefficients. Quantizer `q` everywhere;
// Huffman tables of one or two codes. `apps` times an APP1 segment and a
// comment before the tables. Grey, or with luma factors `luma` (as in SOF)
// three components (four with `fourth`), the others at 1 x 1, all on the
// same tables, so that the scan may name Cb first (`cb_first`) and still
// decode; with luma 0x11 they may come in `separate` scans.
std::vector<uint8_t> grey_stream(int w, int h, int q, int apps, uint8_t luma = 0, bool cb_first = false,
                                 bool separate = false, bool fourth = false) {
    std::vector<uint8_t> s = {0xFF, 0xD8};
    for (int i = 0; i < apps; ++i) {
        const char app[] = "Exif\0\0abc";
        s.insert(s.end(), {0xFF, 0xE1, 0x00, static_cast<uint8_t>(2 + sizeof(app) - 1)});
        s.insert(s.end(), app, app + sizeof(app) - 1);
        s.insert(s.end(), {0xFF, 0xFE, 0x00, 0x04, 'h', 'i'});  // a comment
    }
    s.insert(s.end(), {0xFF, 0xDB, 0x00, 0x43, 0x00});
    for (int i = 0; i < 64; ++i) s.push_back(static_cast<uint8_t>(q));
    const uint8_t n = luma ? (fourth ? 4 : 3) : 1;
    s.insert(s.end(), {0xFF, 0xC0, 0x00, static_cast<uint8_t>(8 + 3 * n), 0x08, static_cast<uint8_t>(h >> 8),
                       static_cast<uint8_t>(h), static_cast<uint8_t>(w >> 8), static_cast<uint8_t>(w), n});
    for (uint8_t c = 1; c <= n; ++c) s.insert(s.end(), {c, static_cast<uint8_t>(c == 1 && luma ? luma : 0x11), 0x00});
    // DC: code 00 = category 0, code 01 = category 1. AC: code 0 = EOB.
    s.insert(s.end(), {0xFF, 0xC4, 0x00, 0x15, 0x00, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x01});
    s.insert(s.end(), {0xFF, 0xC4, 0x00, 0x14, 0x10, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00});
    for (uint8_t first = 1; first <= n; first = separate ? first + 1 : n + 1) {
        const uint8_t ns = separate ? 1 : n;
        s.insert(s.end(), {0xFF, 0xDA, 0x00, static_cast<uint8_t>(6 + 2 * ns), ns});
        for (uint8_t k = first; k < first + ns; ++k) s.insert(s.end(), {static_cast<uint8_t>(cb_first && k < 3 ? 3 - k : k), 0x00});
        s.insert(s.end(), {0x00, 0x3F, 0x00});
        // Blocks alternate DC +1 ("01 1" then EOB "0") and DC -1 ("01 0", "0"):
        // a byte 0110 0100 per pair, then 0110 and padding.
        const int hf = luma ? luma >> 4 : 1, vf = luma ? luma & 15 : 1;
        const int blocks = ((w + 8 * hf - 1) / (8 * hf)) * ((h + 8 * vf - 1) / (8 * vf)) * (hf * vf + ns - 1);
        s.insert(s.end(), blocks / 2, 0x64);
        if (blocks % 2) s.push_back(0x6F);
    }
    s.insert(s.end(), {0xFF, 0xD9});
    return s;
}

struct Handle {
    kivod_ctx *ctx = nullptr;
    explicit Handle(const kivo_tpool *pool = nullptr) {
        kivod_create_param p{1, const_cast<kivo_tpool *>(pool)};
        ctx = kivod_create(pool ? &p : nullptr, nullptr);
    }
    ~Handle() { kivod_delete(ctx); }
};

int32_t decode_mem(kivod_ctx *ctx, std::vector<uint8_t> &bytes, kivod_frame_info *info) {
    static xelo_bitb bitb;
    bitb = xelo_bitb{};
    bitb.addr = bytes.data();
    bitb.ssize = static_cast<int32_t>(bytes.size());
    kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
    return kivod_decode(ctx, &in, info);
}

// A file interface over bytes in memory that delivers `budget` bytes in all
// (read again after seeks included): the read that reaches the budget comes
// back short, later ones fail.
struct CutFile {
    std::vector<uint8_t> bytes;
    size_t budget, left, pos;
};
kivo_mfal cut_file(CutFile *file) {
    kivo_mfal m{};
    m.user[0] = file;
    m.open = [](kivo_mfal *self, int32_t, int32_t) -> void * {
        auto *f = static_cast<CutFile *>(self->user[0]);
        f->left = f->budget, f->pos = 0;
        return f;
    };
    m.close = [](void *) -> int32_t { return 0; };
    m.read = [](void *h, void *dst, int32_t n) -> int32_t {
        auto *f = static_cast<CutFile *>(h);
        const size_t got = std::min({static_cast<size_t>(n), f->left, f->bytes.size() - f->pos});
        std::memcpy(dst, f->bytes.data() + f->pos, got);
        f->pos += got, f->left -= got;
        return static_cast<int32_t>(got);
    };
    m.tell = [](void *h, int64_t *p) -> int32_t { return *p = static_cast<CutFile *>(h)->pos, 0; };
    m.seek = [](void *h, const int64_t *p, int32_t) -> int32_t { return static_cast<CutFile *>(h)->pos = *p, 0; };
    m.skip = [](void *h, const int64_t *n, int32_t) -> int32_t { return static_cast<CutFile *>(h)->pos += *n, 0; };
    m.size = [](void *h, int64_t *n) -> int32_t { return *n = static_cast<CutFile *>(h)->bytes.size(), 0; };
    return m;
}

xelo_imgb *make_img(int w, int h, int cs) {
    const uint32_t al[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
    const uint32_t pad[4] = {0, 0, 0, 0};
    return xelo_imgb_create(w, h, cs, 3, al, pad, 0, 0, 0);
}

// Statuses of the entry points, and a failing allocation while creating a
// decoder with workers: -102 and nothing left behind.
TEST(DecApi, DispatchStatusesAndCreateFailures) {
    Handle h;
    ASSERT_NE(h.ctx, nullptr);
    kivod_frame_info info{};
    kivod_input in{KIVOD_INPUT_BITB, nullptr, nullptr};
    EXPECT_EQ(kivod_decode(nullptr, &in, &info), KIVO_ERR_INVALID_ARG);
    // A block carrying the encoder's magic is not a decoder.
    alignas(32) uint8_t fake[sizeof(kivod_ctx)] = {0x45, 0x47, 0x50, 0x4A};
    EXPECT_EQ(kivod_decode(reinterpret_cast<kivod_ctx *>(fake), &in, &info), KIVO_ERR_INVALID_ARG);
    kivod_delete(reinterpret_cast<kivod_ctx *>(fake));  // ignored
    kivod_platform_deinit(h.ctx);  // an emptied slot answers -104
    EXPECT_EQ(kivod_decode(h.ctx, &in, &info), KIVO_ERR_UNAVAILABLE);
    kivod_set_ppi(h.ctx);
    kivo_tpool pool;
    kivo_tpool_std(&pool, 3);
    const int32_t live = xelo_mem_live();
    int refused = 0;
    for (int n = 1; n <= 4; ++n) {
        xelo_mem_fail_at(n);
        int32_t status = 0;
        kivod_create_param p{1, &pool};
        kivod_ctx *ctx = kivod_create(&p, &status);
        xelo_mem_fail_at(0);
        EXPECT_TRUE(ctx || status == KIVO_ERR_OUT_OF_MEMORY) << n;
        refused += !ctx;
        kivod_delete(ctx);
        EXPECT_EQ(xelo_mem_live(), live);
    }
    EXPECT_GT(refused, 0);
}

// A slice whose resizer cannot be made leaves its rows undecoded: the clone
// then fails, however the other slices fared, also when an earlier scan
// already decoded every row (here a second scan of the only component,
// every block's DC difference +1, rewrites the picture).
TEST(DecApi, FailedSliceFailsTheClone) {
    kivo_tpool pool;
    kivo_tpool_std(&pool, 3);
    std::vector<uint8_t> two = grey_stream(64, 96, 8, 0);
    two.resize(two.size() - 2);
    two.insert(two.end(), {0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00});
    two.insert(two.end(), 8 * 12 / 2, 0x66);
    two.insert(two.end(), {0xFF, 0xD9});
    // A restart marker after every MCU row, and a code no table holds in the
    // last row: its slice reports the damage while the picture completes.
    std::vector<uint8_t> rst = grey_stream(64, 96, 8, 0);
    const size_t data = rst.size() - 2 - 48;
    for (int row = 11; row > 0; --row) rst.insert(rst.begin() + data + 4 * row, {0xFF, uint8_t(0xD0 + (row - 1) % 8)});
    rst[rst.size() - 5] = 0xC0;
    rst.insert(rst.begin() + data - 10, {0xFF, 0xDD, 0x00, 0x04, 0x00, 0x08});
    for (std::vector<uint8_t> s : {grey_stream(64, 96, 8, 0), two, rst}) {
        std::vector<uint8_t> want;
        for (int n = 0; n <= 48; ++n) {
            Handle h(&pool);
            kivod_frame_info info{};
            ASSERT_EQ(decode_mem(h.ctx, s, &info), 0);
            xelo_imgb *img = make_img(40, 60, XELO_CS_YCBCR400);
            std::memset(img->plane[0], n, size_t(img->stride[0]) * img->lines[0]);
            xelo_mem_fail_at(n);
            const int32_t st = kivod_clone(h.ctx, img);
            xelo_mem_fail_at(0);
            std::vector<uint8_t> got;
            for (int y = 0; y < 60; ++y) got.insert(got.end(), img->plane[0] + y * img->stride[0], img->plane[0] + y * img->stride[0] + 40);
            if (n == 0) want = got;
            EXPECT_TRUE(st == 0 ? got == want : st == KIVO_ERR_OUT_OF_MEMORY) << n << " " << st;
            img->release(img);
        }
    }
}

// A pool that refuses to run a slice (a caller's, with a full queue) fails
// the clone with its status, and the picture is not reported whole.
TEST(DecApi, RefusedRunFailsTheClone) {
    kivo_tpool pool;
    kivo_tpool_std(&pool, 3);
    pool.run = [](void *, kivo_job_fn, void *) -> int32_t { return -55; };
    Handle h(&pool);
    kivod_frame_info info{};
    std::vector<uint8_t> s = grey_stream(64, 96, 8, 0);
    ASSERT_EQ(decode_mem(h.ctx, s, &info), 0);
    xelo_imgb *img = make_img(64, 96, XELO_CS_YCBCR400);
    EXPECT_EQ(kivod_clone(h.ctx, img), -55);
    kivod_progress p{};
    EXPECT_TRUE(kivod_get_progress(h.ctx, &p) == 0 && !p.complete && p.mcu_rows == 0) << p.mcu_rows;
    img->release(img);
}

// Data that end right after the last MCU (no EOI) decode the same picture
// at every reduction; the partial strip of a reduced one is still resized.
TEST(DecApi, DataEndingAtLastMcuAreWritten) {
    const std::vector<uint8_t> s = grey_stream(240, 16, 8, 0), cut(s.begin(), s.end() - 2);
    for (int denom : {1, 2, 4, 8}) {
        const kivotest::Decoded a = kivotest::decode(s, 1, 240 / denom, 16 / denom, 0, denom);
        const kivotest::Decoded b = kivotest::decode(cut, 1, 240 / denom, 16 / denom, 0, denom);
        EXPECT_TRUE(a.status == 0 && b.status == 0 && a.planes[0].px == b.planes[0].px) << denom;
    }
}

// Sample (x, y) of grey_stream(w, h, q): DC predictions run +q, 0, +q, 0, ...
// over the blocks, giving levels 128 + floor((dc + 4) / 8).
int grey_level(int w, int q, int x, int y) {
    const int b = (y / 8) * ((w + 7) / 8) + x / 8;
    return 128 + (((b % 2 == 0 ? q : 0) + 4) >> 3);
}

TEST(DecApi, HeadersAppListAndPicture) {
    struct Case {
        int w, h, q, apps;
    };
    // 200,000 APPn segments must not take quadratic time (each node once
    // took a walk over the list).
    const Case cases[] = {{8, 8, 1, 0}, {17, 9, 2, 1}, {1, 1, 16, 1}, {64, 3, 8, 0}, {8, 8, 1, 200000}};
    for (const Case &tc : cases) {
        Handle h;
        std::vector<uint8_t> s = grey_stream(tc.w, tc.h, tc.q, tc.apps);
        kivod_app_node *apps = reinterpret_cast<kivod_app_node *>(&h);  // must be overwritten
        kivod_frame_info info{};
        info.app_list = &apps;
        const auto t0 = std::chrono::steady_clock::now();
        ASSERT_EQ(decode_mem(h.ctx, s, &info), 0);
        EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 5.0);
        EXPECT_EQ(info.width, tc.w);
        EXPECT_EQ(info.height, tc.h);
        EXPECT_EQ(info.color_format, XELO_CS_YCBCR400);
        int n = 0;
        for (const kivod_app_node *a = apps; a; a = a->next, ++n) {
            ASSERT_EQ(a->marker, 0xE1u);
            ASSERT_EQ(a->size, 9u);
            ASSERT_EQ(std::string(reinterpret_cast<char *>(a->data), 4), "Exif");
        }
        EXPECT_EQ(n, tc.apps);
        xelo_imgb *img = make_img(tc.w, tc.h, XELO_CS_YCBCR400);
        ASSERT_EQ(kivod_clone(h.ctx, img), 0);
        for (int y = 0; y < tc.h; ++y)
            for (int x = 0; x < tc.w; ++x)
                ASSERT_EQ(img->plane[0][y * img->stride[0] + x], grey_level(tc.w, tc.q, x, y)) << x << "," << y;
        // Cloning again without a new decode has nothing to decode.
        EXPECT_EQ(kivod_clone(h.ctx, img), KIVO_ERR_UNAVAILABLE);
        img->release(img);
        // A stream that fails in its headers leaves no pointer to the last
        // stream's list, which it freed.
        std::vector<uint8_t> cut(s.begin(), s.end() - 30);
        EXPECT_NE(decode_mem(h.ctx, cut, &info), 0);
        EXPECT_EQ(apps, nullptr);
    }
}

// Statuses of damaged and odd streams, and how far the picture got: a
// cut stream decodes with 0 as far as it goes and says so; a table that
// fails after the last row cannot spoil the picture.
TEST(DecApi, StatusesAndProgress) {
    const std::vector<uint8_t> good = grey_stream(32, 64, 4, false);
    std::vector<uint8_t> class2 = good;  // a class-2 table before EOI
    class2.insert(class2.end() - 2, {0xFF, 0xC4, 0x00, 0x05, 0x20, 0x00, 0x00});
    std::vector<uint8_t> cut(good.begin(), good.end() - 12);
    std::vector<uint8_t> zero_h = good;  // one zero sampling factor
    std::vector<uint8_t> cut42 = cut;    // grey sampled 4x2: still one block a row unit
    std::vector<uint8_t> no_frame = {0xFF, 0xD8};  // a scan before any frame
    for (size_t i = 0; i + 1 < good.size(); ++i) {
        if (good[i] == 0xFF && good[i + 1] == 0xC0) zero_h[i + 11] = 0x01, cut42[i + 11] = 0x42;
        if (good[i] == 0xFF && good[i + 1] == 0xDA) no_frame.insert(no_frame.end(), good.begin() + i, good.end());
    }
    struct Case {
        const std::vector<uint8_t> *s;
        int32_t status, complete;
    } cases[] = {
        {&good, 0, 1}, {&class2, 0, 1}, {&cut, 0, 0}, {&cut42, 0, 0}, {&zero_h, KIVO_ERR_UNSUPPORTED, 0}, {&no_frame, KIVO_ERR_UNSUPPORTED, 0}
    };
    int32_t rows_cut = -1;
    for (const Case &c : cases) {
        for (int threads : {1, 3}) {
            const kivotest::Decoded d = kivotest::decode(*c.s, threads);
            const kivod_progress &p = d.progress;
            ASSERT_EQ(d.status, c.status);
            if (c.status != 0) continue;
            EXPECT_TRUE(p.complete == c.complete && p.mcu_rows_total == 8 && (!c.complete || p.mcu_rows == 8));
            if (c.s != &cut && c.s != &cut42) continue;
            // 12 bytes fewer: the last three block rows and part of the
            // one above lack their data, on any number of threads.
            EXPECT_TRUE(p.mcu_rows < 8 && (rows_cut < 0 || p.mcu_rows == rows_cut)) << p.mcu_rows;
            rows_cut = p.mcu_rows;
        }
    }
}

// The reduction a buffer size gets, at and around every threshold of the
// ratios for the small, middle and large buffers: each ratio alone can keep
// the reduction down.
TEST(DecApi, ReductionFollowsTheRatioThresholds) {
    const struct {
        int ow, oh, t8, t4, t2;
    } classes[] = {{350, 250, 5, 1, 0}, {900, 500, 6, 2, 1}, {350, 251, 6, 2, 1}, {901, 500, 7, 3, 1}};
    for (const auto &c : classes)
        for (int r = 1; r <= 9; ++r) {
            const int want = r > c.t8 ? 8 : r > c.t4 ? 4 : r > c.t2 ? 2 : 1;
            EXPECT_EQ(kivod_choose_scale(c.ow * r, c.oh * 9, c.ow, c.oh), want) << c.ow << "x" << c.oh << " rx " << r;
            EXPECT_EQ(kivod_choose_scale(c.ow * 9, c.oh * r, c.ow, c.oh), want) << c.ow << "x" << c.oh << " ry " << r;
        }
    EXPECT_EQ(kivod_choose_scale(640, 480, 640, 480), 0);
}

// A buffer too small for the picture, or of a layout the decoder cannot
// write, is refused before anything is decoded.
TEST(DecApi, OutputBufferIsChecked) {
    Handle h;
    kivod_frame_info info{};
    struct Case {
        int fw, fh;  // frame
        int w, h, cs;
        int stride;  // line distance put on plane 0 (0: as made)
        int lines_cut;
        int32_t want;
    };
    const Case cases[] = {
        {32, 16, 32, 16, XELO_CS_YCBCR420, 0, 0, KIVO_ERR_UNSUPPORTED},  // another layout
        {32, 16, 32, 16, XELO_CS_YCBCR400, 8, 0, KIVO_ERR_INVALID_ARG},
        {32, 16, 32, 16, XELO_CS_YCBCR400, 0, 1, KIVO_ERR_INVALID_ARG},
        {32, 16, 8, 4, XELO_CS_YUYV, 0, 0, KIVO_ERR_UNSUPPORTED},  // packed pairs at full size only
        {32, 16, 32, 16, XELO_CS_YUYV, 0, 0, 0},
        {37, 21, 37, 21, XELO_CS_YUYV, 74, 0, 0},  // odd width, no room beyond the last half pair
        {37, 21, 37, 21, XELO_CS_YUYV, 73, 0, KIVO_ERR_INVALID_ARG},  // not even that
        {32, 16, 32, 16, XELO_CS_YCBCR400, 0, 0, 0},
    };
    for (const Case &tc : cases) {
        std::vector<uint8_t> s = grey_stream(tc.fw, tc.fh, 4, 0);
        ASSERT_EQ(decode_mem(h.ctx, s, &info), 0);
        xelo_imgb *img = make_img(tc.w, tc.h, tc.cs);
        ASSERT_NE(img, nullptr);
        const int32_t stride = img->stride[0], lines = img->lines[0];
        std::memset(img->plane[0], 0x55, static_cast<size_t>(stride) * lines);
        if (tc.stride) img->stride[0] = tc.stride;
        img->lines[0] = lines - (tc.lines_cut ? lines - tc.h + 1 : 0);
        EXPECT_EQ(kivod_clone(h.ctx, img), tc.want) << tc.cs;
        if (tc.want == 0 && tc.cs == XELO_CS_YUYV) {
            // Grey as packed pairs: Y, 128, Y, 128 up to the last pixel.
            for (int y = 0; y < tc.h; ++y)
                for (int x = 0; x < tc.w; ++x) {
                    const uint8_t *p = img->plane[0] + y * img->stride[0] + 2 * x;
                    ASSERT_EQ(p[0], grey_level(tc.w, 4, x, y)) << x << "," << y;
                    ASSERT_EQ(p[1], 128) << x << "," << y;
                }
        }
        img->stride[0] = stride;
        img->lines[0] = lines;
        // A refused buffer leaves the headers: the picture still decodes.
        if (tc.want < 0 && tc.cs == XELO_CS_YCBCR400) {
            EXPECT_EQ(kivod_clone(h.ctx, img), 0);
        }
        img->release(img);
    }
}

// A clone refused before decoding, for its buffer or for the memory its
// resizers (or kivoc_decode_packed's bands) would take, leaves the handle as
// it was: the last picture's statistics, and the headers, which then decode
// as on a fresh handle.
TEST(DecApi, RefusedCloneKeepsTheHandle) {
    std::vector<uint8_t> s = grey_stream(32, 16, 4, 0);
    const kivotest::Decoded fresh = kivotest::decode(s);
    ASSERT_EQ(fresh.status, 0);
    // The frame buffer alone (8 lines of 32) fits; the resizers to 16 x 8 do not.
    const kivod_limits tight{0, 0, 8 * 32, 0};
    struct Case {
        int w, h, cs;
        int32_t want;
    } cases[] = {
        {0, 16, XELO_CS_YCBCR400, KIVO_ERR_INVALID_ARG},
        {32, 16, XELO_CS_YCBCR420, KIVO_ERR_UNSUPPORTED},
        {16, 8, XELO_CS_YCBCR400, KIVO_ERR_OUT_OF_MEMORY},
        {32, 16, 0, KIVO_ERR_OUT_OF_MEMORY},  // packed grey: two MCU rows of band
    };
    for (const Case &tc : cases) {
        Handle h;
        kivod_frame_info info{};
        ASSERT_TRUE(kivod_set_limits(h.ctx, &tight) == 0 && kivod_set_stats(h.ctx, 1) == 0);
        xelo_imgb *good = make_img(32, 16, XELO_CS_YCBCR400), *bad = make_img(tc.w ? tc.w : 32, tc.h, tc.cs ? tc.cs : 10);
        ASSERT_TRUE(decode_mem(h.ctx, s, &info) == 0 && kivod_clone(h.ctx, good) == 0);
        ASSERT_EQ(decode_mem(h.ctx, s, &info), 0);
        kivod_stats before{}, after{};
        kivod_get_stats(h.ctx, &before);
        ASSERT_GT(before.n_luma, 0);
        bad->width = tc.w;
        EXPECT_EQ(tc.cs ? kivod_clone(h.ctx, bad) : kivoc_decode_packed(h.ctx, bad->plane[0], bad->stride[0], 32 * 16, KIVOC_GREY, 0),
                  tc.want) << &tc - cases;
        kivod_get_stats(h.ctx, &after);
        EXPECT_EQ(std::memcmp(&before, &after, sizeof(before)), 0) << &tc - cases;
        std::memset(good->plane[0], 0, size_t(good->stride[0]) * good->lines[0]);
        ASSERT_EQ(kivod_clone(h.ctx, good), 0) << &tc - cases;
        for (int y = 0; y < 16; ++y)
            ASSERT_TRUE(std::equal(good->plane[0] + y * good->stride[0], good->plane[0] + y * good->stride[0] + 32,
                                   fresh.planes[0].px.begin() + y * 32)) << &tc - cases << " line " << y;
        good->release(good), bad->release(bad);
    }
}

// Packed pairs carry each component's samples, the chroma of a pair's
// first pixel, whatever order the scan names the components in.
TEST(DecApi, PackedPairsFollowTheComponents) {
    Handle h;
    kivod_frame_info info{};
    for (uint8_t luma : {0x22, 0x41, 0x21})
        for (bool cb_first : {false, true}) {
            std::vector<uint8_t> s = grey_stream(48, 24, 64, 0, luma, cb_first);
            ASSERT_EQ(decode_mem(h.ctx, s, &info), 0);
            xelo_imgb *planar = make_img(48, 24, info.color_format), *packed = make_img(48, 24, XELO_CS_YUYV);
            ASSERT_EQ(kivod_clone(h.ctx, planar), 0);
            ASSERT_EQ(decode_mem(h.ctx, s, &info), 0);
            ASSERT_EQ(kivod_clone(h.ctx, packed), 0) << int(luma);
            const int sx = luma >> 4, sy = luma & 15;
            for (int y = 0; y < 24; ++y)
                for (int x = 0; x < 48; ++x) {
                    const uint8_t *p = packed->plane[0] + y * packed->stride[0] + 2 * x;
                    const int c = 1 + x % 2, cx = x / 2 * 2 / sx, cy = y / sy;
                    ASSERT_EQ(p[0], planar->plane[0][y * planar->stride[0] + x]) << int(luma) << cb_first << x << "," << y;
                    ASSERT_EQ(p[1], planar->plane[c][cy * planar->stride[c] + cx]) << int(luma) << cb_first << x << "," << y;
                }
            planar->release(planar);
            packed->release(packed);
        }
    // Separate scans, and four components: refused with the buffer's other
    // checks, the headers stay.
    for (bool fourth : {false, true}) {
        std::vector<uint8_t> s = grey_stream(48, 24, 64, 0, 0x11, false, !fourth, fourth);
        ASSERT_EQ(decode_mem(h.ctx, s, &info), 0);
        xelo_imgb *planar = make_img(48, 24, info.color_format), *packed = make_img(48, 24, XELO_CS_YUYV);
        EXPECT_TRUE(kivod_clone(h.ctx, packed) == KIVO_ERR_UNSUPPORTED && kivod_clone(h.ctx, planar) == 0) << fourth;
        planar->release(planar);
        packed->release(packed);
    }
}

TEST(DecApi, FileInterface) {
    // Several MCU rows and lent threads: a file is one shared position, which
    // the decoder must not read from several threads at once.
    std::vector<uint8_t> s = grey_stream(24, 80, 8, 1);
    const std::string path = ::testing::TempDir() + "kivo_dec_api.jpg";
    FILE *f = std::fopen(path.c_str(), "wb");
    ASSERT_TRUE(f && std::fwrite(s.data(), 1, s.size(), f) == s.size() && std::fclose(f) == 0);

    kivo_tpool pool;
    kivo_tpool_std(&pool, 3);
    Handle h(&pool);
    kivo_mfal mfal;
    ASSERT_EQ(kivo_mfal_file(&mfal, path.c_str()), 0);
    kivod_input in{KIVOD_INPUT_MFAL, nullptr, &mfal};
    kivod_app_node *apps = nullptr;
    kivod_frame_info info{};
    info.app_list = &apps;
    ASSERT_EQ(kivod_decode(h.ctx, &in, &info), 0);
    ASSERT_TRUE(apps && std::string(reinterpret_cast<char *>(apps->data), 4) == "Exif");
    xelo_imgb *a = make_img(24, 80, XELO_CS_YCBCR400);
    ASSERT_EQ(kivod_clone(h.ctx, a), 0);
    const testpic::Plane b = kivotest::decode(s, 3).planes[0];  // the same bytes from memory
    for (int y = 0; y < 80; ++y)
        for (int x = 0; x < 24; ++x) ASSERT_EQ(a->plane[0][y * a->stride[0] + x], b.at(x, y));
    a->release(a);
    // Read as it is decoded (larger than max_memory), an empty APPn segment
    // has data of its own, as from memory: the encoder's writer stops at null.
    s = grey_stream(24, 80, 8, 40);
    s.insert(s.begin() + 2, {0xFF, 0xE3, 0x00, 0x02});
    f = std::fopen(path.c_str(), "wb");
    ASSERT_TRUE(f && std::fwrite(s.data(), 1, s.size(), f) == s.size() && std::fclose(f) == 0);
    kivod_limits small{0, 0, 600, 0}, none{0, 0, 0, 0};
    ASSERT_TRUE(s.size() > 600 && kivod_set_limits(h.ctx, &small) == 0 && kivod_decode(h.ctx, &in, &info) == 0);
    EXPECT_TRUE(apps && apps->size == 0 && apps->data && apps->next && apps->next->marker == 0xE1);
    kivod_set_limits(h.ctx, &none);

    kivo_mfal missing;
    EXPECT_EQ(kivo_mfal_file(&missing, nullptr), KIVO_ERR_INVALID_ARG);
    kivo_mfal_file(&missing, "/nonexistent/dir/x.jpg");
    in.mfal = &missing;
    EXPECT_EQ(kivod_decode(h.ctx, &in, &info), KIVO_ERR_OPEN);
    EXPECT_EQ(info.width, 0);

    // Size failures, and an interface lacking any function the reader calls.
    kivo_mfal broken = mfal;
    broken.size = [](void *, int64_t *) -> int32_t { return -1; };
    in.mfal = &broken;
    EXPECT_EQ(kivod_decode(h.ctx, &in, &info), KIVO_ERR_IO);
    for (int word : {4, 5, 6, 8, 9, 10, 11}) {
        broken = mfal;
        reinterpret_cast<void **>(&broken)[word] = nullptr;
        EXPECT_EQ(kivod_decode(h.ctx, &in, &info), KIVO_ERR_INVALID_ARG) << word;
    }
    std::remove(path.c_str());

    // Reads that fail or come up short give -109, and the APPn copy made
    // before a failure is freed (LeakSanitizer). A file within the memory
    // limit is read whole before anything is decoded; one above it is read
    // as it is decoded (tables again after a seek, the APPn copy in one
    // read), so a read failing in the picture's data fails kivod_clone.
    std::vector<uint8_t> padded = s;  // bytes after EOI make the file larger than the frame's buffers
    padded.resize(s.size() + 1024);
    CutFile file{padded, 0, 0, 0};
    kivo_mfal cut = cut_file(&file);
    in.mfal = &cut;
    xelo_imgb *c = make_img(24, 80, XELO_CS_YCBCR400);
    for (const int64_t max_memory : {int64_t(0), int64_t(padded.size() - 1)}) {
        const kivod_limits limits{0, 0, max_memory, 0};
        ASSERT_EQ(kivod_set_limits(h.ctx, &limits), 0);
        for (file.budget = 0;; ++file.budget) {
            const int32_t status = kivod_decode(h.ctx, &in, &info);
            if (status == 0) break;
            ASSERT_EQ(status, KIVO_ERR_IO) << file.budget;
        }
        EXPECT_EQ(file.budget == padded.size(), max_memory == 0) << file.budget;
        const size_t headers = file.budget;
        for (;; ++file.budget) {
            ASSERT_EQ(kivod_decode(h.ctx, &in, &info), 0);
            const int32_t status = kivod_clone(h.ctx, c);
            if (status == 0) break;
            ASSERT_EQ(status, KIVO_ERR_IO) << file.budget;
        }
        EXPECT_EQ(file.budget == padded.size(), max_memory == 0) << file.budget;
        EXPECT_EQ(file.budget > headers, max_memory != 0) << file.budget;
        for (int y = 0; y < 80; ++y)
            for (int x = 0; x < 24; ++x) ASSERT_EQ(c->plane[0][y * c->stride[0] + x], b.at(x, y));
    }
    c->release(c);
}

}  // namespace
