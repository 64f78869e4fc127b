// Our decoder against libjpeg-turbo on streams libjpeg-turbo makes at test
// time: every layout, odd sizes, qualities, restart intervals, optimised
// tables and separate scans; reduced sizes; thread counts; broken input.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "oracle_support/turbo.h"
#include "decoder/kivod_int.h"
#include "support/kivo_decode.h"

namespace {

struct Layout {
    const char *name;
    int n_comp;
    int h[4], v[4];
    int32_t code;
};

const Layout kLayouts[] = {
    {"grey", 1, {1}, {1}, XELO_CS_YCBCR400},
    {"420", 3, {2, 1, 1}, {2, 1, 1}, XELO_CS_YCBCR420},
    {"422", 3, {2, 1, 1}, {1, 1, 1}, XELO_CS_YCBCR422},
    {"444", 3, {1, 1, 1}, {1, 1, 1}, XELO_CS_YCBCR444},
    {"440", 3, {1, 1, 1}, {2, 1, 1}, XELO_CS_YCBCR440},
    {"411", 3, {4, 1, 1}, {1, 1, 1}, XELO_CS_YCBCR411},
    {"k420", 4, {2, 1, 1, 2}, {2, 1, 1, 2}, XELO_CS_YCBCRK420},
    {"k422", 4, {2, 1, 1, 2}, {1, 1, 1, 1}, XELO_CS_YCBCRK422},
    {"k444", 4, {1, 1, 1, 1}, {1, 1, 1, 1}, XELO_CS_YCBCRK444},
};

turbo::EncodeSpec spec_for(const Layout &l, int w, int h) {
    turbo::EncodeSpec s;
    s.width = w;
    s.height = h;
    s.n_comp = l.n_comp;
    for (int i = 0; i < 4; ++i) {
        s.h[i] = l.h[i] ? l.h[i] : 1;
        s.v[i] = l.v[i] ? l.v[i] : 1;
    }
    return s;
}

struct Diff {
    int max = 0;
    double sum = 0;
    long n = 0;
    double mean() const { return n ? sum / n : 0; }
};

void compare(const std::vector<testpic::Plane> &ours, const std::vector<testpic::Plane> &ref, Diff *d,
             const std::string &what, bool exact_sizes = true) {
    ASSERT_EQ(ours.size(), ref.size()) << what;
    for (size_t p = 0; p < ours.size(); ++p) {
        if (exact_sizes) {
            ASSERT_EQ(ours[p].w, ref[p].w) << what << " plane " << p;
            ASSERT_EQ(ours[p].h, ref[p].h) << what << " plane " << p;
        }
        const int w = std::min(ours[p].w, ref[p].w), h = std::min(ours[p].h, ref[p].h);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const int e = std::abs(ours[p].at(x, y) - ref[p].at(x, y));
                d->max = std::max(d->max, e);
                d->sum += e;
                ++d->n;
            }
    }
}

// Every layout, several sizes, with quality, restart interval, table kind
// and scan split varied across the cases: within 2 of libjpeg-turbo's islow
// raw planes, mean difference below 0.05.
TEST(OracleDecode, FullSizeMatchesLibjpegTurbo) {
    const int sizes[][2] = {{1, 1}, {17, 17}, {33, 7}, {64, 48}, {1001, 667}};
    const int qualities[] = {50, 75, 90, 100};
    const int restarts[] = {0, 1, 3};
    int idx = 0;
    for (const Layout &l : kLayouts) {
        for (const auto &sz : sizes) {
            for (int variant = 0; variant < 2; ++variant, ++idx) {
                turbo::EncodeSpec s = spec_for(l, sz[0], sz[1]);
                s.quality = qualities[idx % 4];
                s.restart_mcus = restarts[(idx / 2) % 3];
                s.optimize = variant == 1;
                s.separate_scans = variant == 1 && l.n_comp > 1 && (idx % 3 != 0);
                const std::string what = std::string(l.name) + " " + std::to_string(sz[0]) + "x" + std::to_string(sz[1]) +
                                         " q" + std::to_string(s.quality) + " rst" + std::to_string(s.restart_mcus) +
                                         (s.optimize ? " opt" : "") + (s.separate_scans ? " separate" : "");
                std::string err;
                const auto jpg = turbo::encode(s, turbo::make_planes(s, idx), &err);
                ASSERT_FALSE(jpg.empty()) << what << ": " << err;
                std::vector<testpic::Plane> ref;
                ASSERT_TRUE(turbo::decode_raw(jpg, 1, &ref, nullptr, &err)) << what << ": " << err;
                const kivotest::Decoded ours = kivotest::decode(jpg, 1 + idx % 3);
                ASSERT_EQ(ours.status, 0) << what;
                EXPECT_EQ(ours.color_format, l.code) << what;
                EXPECT_EQ(ours.width, sz[0]);
                EXPECT_EQ(ours.height, sz[1]);
                Diff d;
                compare(ours.planes, ref, &d, what);
                EXPECT_LE(d.max, 2) << what;
                EXPECT_LT(d.mean(), 0.05) << what;
            }
        }
    }
}

// At 1/8 the buffer is exactly the reduced frame, so no resampling happens:
// the luma plane (every plane for grey and 4:4:4) must equal libjpeg-turbo's
// 1/8 output sample for sample.
TEST(OracleDecode, EighthScaleIsExact) {
    const int sizes[][2] = {{1001, 667}, {640, 480}, {801, 603}};
    for (const Layout &l : kLayouts) {
        for (const auto &sz : sizes) {
            turbo::EncodeSpec s = spec_for(l, sz[0], sz[1]);
            s.quality = 85;
            const auto jpg = turbo::encode(s, turbo::make_planes(s, sz[0]));
            ASSERT_FALSE(jpg.empty());
            std::vector<testpic::Plane> ref;
            ASSERT_TRUE(turbo::decode_raw(jpg, 8, &ref));
            for (int threads : {1, 3}) {
                const int ow = (sz[0] + 7) / 8, oh = (sz[1] + 7) / 8;
                const kivotest::Decoded ours = kivotest::decode(jpg, threads, ow, oh);
                const std::string what = std::string(l.name) + " " + std::to_string(sz[0]) + "x" +
                                         std::to_string(sz[1]) + " threads " + std::to_string(threads);
                ASSERT_EQ(ours.status, 0) << what;
                const bool all = l.n_comp == 1 || l.code == XELO_CS_YCBCR444 || l.code == XELO_CS_YCBCRK444;
                const size_t n = all ? ours.planes.size() : 1;
                for (size_t p = 0; p < n; ++p) {
                    const int w = std::min(ours.planes[p].w, ref[p].w), h = std::min(ours.planes[p].h, ref[p].h);
                    int mismatches = 0;
                    for (int y = 0; y < h; ++y)
                        for (int x = 0; x < w; ++x) mismatches += ours.planes[p].at(x, y) != ref[p].at(x, y);
                    EXPECT_EQ(mismatches, 0) << what << " plane " << p;
                }
            }
        }
    }
}

// The picture a decoder at 1/denom must produce from the coefficients
// libjpeg-turbo read: each block keeps the coefficients whose code started
// at a zig-zag position within the scale's bound (as a sequential stream
// sends them: runs of 16 zeros first, then the symbol), reconstructed by
// the reduced transform.
std::vector<testpic::Plane> expected_reduced(const std::vector<turbo::Coefficients> &comps, int denom) {
    const int bound = denom == 1 ? 63 : denom == 2 ? 9 : denom == 4 ? 2 : 0;
    const kivod_idct_fn idct = denom == 1 ? kivod_idct8 : denom == 2 ? kivod_idct4 : denom == 4 ? kivod_idct2 : kivod_idct1;
    const int n = 8 / denom;
    std::vector<testpic::Plane> planes;
    for (const turbo::Coefficients &c : comps) {
        testpic::Plane p;
        p.w = (c.width + denom - 1) / denom;
        p.h = (c.height + denom - 1) / denom;
        p.px.assign(static_cast<size_t>(p.w) * p.h, 0);
        for (int by = 0; by < c.blocks_h; ++by) {
            for (int bx = 0; bx < c.blocks_w; ++bx) {
                const int16_t *src = &c.coef[(static_cast<size_t>(by) * c.blocks_w + bx) * 64];
                int16_t blk[64] = {0};
                blk[0] = src[0];
                int next = 1;  // zig-zag position after the last coefficient sent
                for (int k = 1; k < 64; ++k) {
                    const int r = kivo_tbl_zig_to_ras[k];
                    if (src[r] == 0) continue;
                    const int start = next + (k - next) / 16 * 16;
                    if (start <= bound) blk[r] = src[r];
                    next = k + 1;
                }
                uint8_t out[64];
                idct(blk, n, out);
                for (int y = 0; y < n; ++y)
                    for (int x = 0; x < n; ++x) {
                        const int px = bx * n + x, py = by * n + y;
                        if (px < p.w && py < p.h) p.px[static_cast<size_t>(py) * p.w + px] = out[y * n + x];
                    }
            }
        }
        planes.push_back(std::move(p));
    }
    return planes;
}

// With a buffer of exactly the reduced size no resampling happens, so every
// plane at 1, 1/2, 1/4 and 1/8 equals the reduced reconstruction of the
// coefficients that libjpeg-turbo's own entropy decoder reads.
TEST(OracleDecode, ReducedScalesMatchTheCoefficients) {
    const int sizes[][2] = {{1280, 960}, {1001, 667}};
    for (const Layout &l : kLayouts) {
        for (const auto &sz : sizes) {
            turbo::EncodeSpec s = spec_for(l, sz[0], sz[1]);
            s.quality = sz[0] == 1280 ? 90 : 60;
            s.restart_mcus = l.n_comp == 4 ? 5 : 0;
            s.separate_scans = l.n_comp == 3 && sz[0] == 1001;
            const auto jpg = turbo::encode(s, turbo::make_planes(s, 5));
            std::vector<turbo::Coefficients> coefs;
            ASSERT_TRUE(turbo::read_coefficients(jpg, &coefs));
            for (int denom : {1, 2, 4, 8}) {
                const std::vector<testpic::Plane> want = expected_reduced(coefs, denom);
                const int ow = (sz[0] + denom - 1) / denom, oh = (sz[1] + denom - 1) / denom;
                // Only where the buffer's size selects this reduction.
                if (kivod_choose_scale(sz[0], sz[1], ow, oh) != (denom == 1 ? 0 : denom)) continue;
                const kivotest::Decoded ours = kivotest::decode(jpg, 1 + denom % 3, ow, oh);
                const std::string what = std::string(l.name) + " " + std::to_string(sz[0]) + " 1/" + std::to_string(denom);
                ASSERT_EQ(ours.status, 0) << what;
                ASSERT_EQ(ours.planes.size(), want.size()) << what;
                for (size_t p = 0; p < want.size(); ++p) {
                    const int w = std::min(ours.planes[p].w, want[p].w), h = std::min(ours.planes[p].h, want[p].h);
                    int mismatches = 0;
                    for (int y = 0; y < h; ++y)
                        for (int x = 0; x < w; ++x) mismatches += ours.planes[p].at(x, y) != want[p].at(x, y);
                    EXPECT_EQ(mismatches, 0) << what << " plane " << p;
                }
            }
        }
    }
}

// Packed pairs carry exactly the planar samples: Y0 Cb Y1 Cr, chroma taken
// at the pair's first pixel (grey: neutral chroma).
// A reduction the caller sets: full size into a half-size buffer is the
// exact 2x2 mean of the full decode; 1/2 is a true half-size decode, closer
// to that mean than the default, which picks 1/4 and enlarges here.
TEST(OracleDecode, ReductionTheCallerSets) {
    turbo::EncodeSpec s = spec_for(kLayouts[0], 512, 384);
    const auto jpg = turbo::encode(s, turbo::make_planes(s, 21));
    const kivotest::Decoded full = kivotest::decode(jpg, 2);
    ASSERT_EQ(full.status, 0);
    const testpic::Plane &f = full.planes[0];
    std::vector<uint8_t> mean(256 * 192);
    for (int y = 0; y < 192; ++y)
        for (int x = 0; x < 256; ++x)
            mean[y * 256 + x] = static_cast<uint8_t>(
                (f.at(2 * x, 2 * y) + f.at(2 * x + 1, 2 * y) + f.at(2 * x, 2 * y + 1) + f.at(2 * x + 1, 2 * y + 1) + 2) >> 2);
    EXPECT_EQ(kivotest::decode(jpg, 2, 256, 192, 0, 1).planes[0].px, mean);
    // libjpeg-turbo's 1/2 decode for comparison: PSNR against the mean.
    std::vector<testpic::Plane> half;
    ASSERT_TRUE(turbo::decode_raw(jpg, 2, &half));
    auto psnr = [&](const std::vector<uint8_t> &px) {
        double se = 0;
        for (size_t i = 0; i < px.size(); ++i) se += (px[i] - mean[i]) * (px[i] - mean[i]);
        return 10 * std::log10(255.0 * 255.0 * px.size() / (se > 0 ? se : 1));
    };
    const double turbo_db = psnr(half[0].px);
    const kivotest::Decoded ours = kivotest::decode(jpg, 2, 256, 192, 0, 2);
    const kivotest::Decoded chosen = kivotest::decode(jpg, 1, 256, 192);
    ASSERT_EQ(ours.status, 0);
    ASSERT_EQ(chosen.status, 0);
    // The 1/2 decode keeps the coefficients of symbols that start at
    // zig-zag position 9 or before, so it stays below libjpeg-turbo's; it
    // is still ahead of the default's 1/4 enlarged.
    const double ours_db = psnr(ours.planes[0].px), chosen_db = psnr(chosen.planes[0].px);
    EXPECT_GT(ours_db, chosen_db + 2) << turbo_db;
    EXPECT_GT(turbo_db, ours_db);
    EXPECT_EQ(kivotest::decode(jpg, 1, 256, 192, 0, 3).status, KIVO_ERR_INVALID_ARG);
}

// Each limit refuses what exceeds it, with its status, and lets through
// what is at it.
TEST(OracleDecode, LimitsRefuseWhatExceedsThem) {
    turbo::EncodeSpec s = spec_for(kLayouts[1], 96, 80);
    s.separate_scans = true;  // three scans
    const auto separate = turbo::encode(s, turbo::make_planes(s, 5));
    s.separate_scans = false;
    s.progressive = true;  // libjpeg's ten scans
    const auto progressive = turbo::encode(s, turbo::make_planes(s, 5));
    std::vector<uint8_t> with_app = separate;  // one APP1 of 10 bytes after SOI
    with_app.insert(with_app.begin() + 2, {0xFF, 0xE1, 0x00, 0x0C, 'E', 'x', 'i', 'f', 0, 0, 1, 2, 3, 4});
    struct Case {
        const std::vector<uint8_t> *jpg;
        kivod_limits limits;
        int out_w;
        int32_t decode, clone;
    } cases[] = {
        {&separate, {96 * 80, 0, 0, 0}, 96, 0, 0},
        {&separate, {96 * 80 - 1, 0, 0, 0}, 96, KIVO_ERR_UNSUPPORTED, 0},
        {&separate, {0, 3, 0, 0}, 96, 0, 0},
        {&separate, {0, 2, 0, 0}, 96, 0, KIVO_ERR_UNSUPPORTED},
        {&progressive, {0, 9, 0, 0}, 96, 0, KIVO_ERR_UNSUPPORTED},
        // libjpeg-turbo's APP0 (14 bytes) and ours, each with its node.
        {&with_app, {0, 0, 0, 24 + 2 * int64_t(sizeof(kivod_app_node))}, 96, 0, 0},
        {&with_app, {0, 0, 0, 23 + 2 * int64_t(sizeof(kivod_app_node))}, 96, KIVO_ERR_OUT_OF_MEMORY, 0},
        // 4:2:0 frame buffers on one thread: 16 + 2 x 8 lines of 96 + 2 x 48 samples.
        {&separate, {0, 0, 16 * 96 + 2 * 8 * 48, 0}, 96, 0, 0},
        {&separate, {0, 0, 16 * 96 + 2 * 8 * 48 - 1, 0}, 96, KIVO_ERR_OUT_OF_MEMORY, 0},
        {&separate, {0, 0, 16 * 96 + 2 * 8 * 48, 0}, 48, 0, KIVO_ERR_OUT_OF_MEMORY},  // resizers on top
    };
    for (const Case &c : cases) {
        kivod_ctx *ctx = kivod_create(nullptr, nullptr);
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(kivod_set_limits(ctx, &c.limits), 0);
        std::vector<uint8_t> bytes = *c.jpg;
        xelo_bitb bitb{};
        bitb.addr = bytes.data();
        bitb.ssize = static_cast<int32_t>(bytes.size());
        kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
        kivod_frame_info info{};
        EXPECT_EQ(kivod_decode(ctx, &in, &info), c.decode) << (&c - cases);
        if (c.decode == 0) {
            const uint32_t al[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
            const uint32_t pad[4] = {0, 0, 0, 0};
            xelo_imgb *img = xelo_imgb_create(c.out_w, c.out_w * 80 / 96, XELO_CS_YCBCR420, 3, al, pad, 0, 0, 0);
            EXPECT_EQ(kivod_clone(ctx, img), c.clone) << (&c - cases);
            img->release(img);
        }
        kivod_delete(ctx);
    }
    kivod_limits bad{0, -1, 0, 0};
    EXPECT_EQ(kivod_set_limits(nullptr, &bad), KIVO_ERR_INVALID_ARG);
}

TEST(OracleDecode, PackedPairsInterleaveThePlanes) {
    for (const Layout &l : {kLayouts[2], kLayouts[1], kLayouts[0], kLayouts[3]}) {
        for (const auto &sz : {std::pair<int, int>{37, 21}, {64, 32}}) {
            turbo::EncodeSpec s = spec_for(l, sz.first, sz.second);
            const auto jpg = turbo::encode(s, turbo::make_planes(s, 11));
            const kivotest::Decoded planar = kivotest::decode(jpg, 1);
            const kivotest::Decoded packed = kivotest::decode(jpg, 2, 0, 0, XELO_CS_YUYV);
            ASSERT_EQ(planar.status, 0);
            ASSERT_EQ(packed.status, 0) << l.name;
            ASSERT_EQ(packed.planes.size(), 1u);
            const testpic::Plane &pk = packed.planes[0];
            const int sx = l.n_comp == 1 ? 1 : l.h[0] / l.h[1], sy = l.n_comp == 1 ? 1 : l.v[0] / l.v[1];
            for (int y = 0; y < sz.second; ++y) {
                for (int x = 0; x < sz.first; ++x) {
                    ASSERT_EQ(pk.at(2 * x, y), planar.planes[0].at(x, y)) << l.name << " " << x << "," << y;
                    if (x % 2) continue;
                    const int cb = l.n_comp == 1 ? 128 : planar.planes[1].at(x / sx, y / sy);
                    const int cr = l.n_comp == 1 ? 128 : planar.planes[2].at(x / sx, y / sy);
                    ASSERT_EQ(pk.at(2 * x + 1, y), cb) << l.name << " " << x << "," << y;
                    if (2 * x + 3 < pk.w) {
                        ASSERT_EQ(pk.at(2 * x + 3, y), cr) << l.name << " " << x << "," << y;
                    }
                }
            }
        }
    }
}

// Into a buffer of another planar layout each plane is resized: 4:4:4 into
// 4:2:0 keeps luma and halves chroma by exact 2x2 means.
TEST(OracleDecode, AnotherLayoutIsResizedPlaneByPlane) {
    turbo::EncodeSpec s = spec_for(kLayouts[3], 96, 64);
    const auto jpg = turbo::encode(s, turbo::make_planes(s, 17));
    const kivotest::Decoded full = kivotest::decode(jpg, 1);
    const kivotest::Decoded sub = kivotest::decode(jpg, 2, 0, 0, XELO_CS_YCBCR420);
    ASSERT_EQ(full.status, 0);
    ASSERT_EQ(sub.status, 0);
    ASSERT_EQ(sub.planes.size(), 3u);
    EXPECT_EQ(sub.planes[0].px, full.planes[0].px);
    for (int p = 1; p < 3; ++p) {
        const testpic::Plane &f = full.planes[p], &h = sub.planes[p];
        ASSERT_EQ(h.w, 48);
        ASSERT_EQ(h.h, 32);
        for (int y = 0; y < h.h; ++y)
            for (int x = 0; x < h.w; ++x) {
                const int sum = f.at(2 * x, 2 * y) + f.at(2 * x + 1, 2 * y) + f.at(2 * x, 2 * y + 1) + f.at(2 * x + 1, 2 * y + 1);
                ASSERT_EQ(h.at(x, y), (sum + 2) >> 2) << p << " " << x << "," << y;
            }
    }
}

// The mean level averages the DC levels of the first component's blocks of
// whole MCUs, and the statistics sum each AC position's magnitude over the
// luma and the other blocks (libjpeg-turbo's coefficients give both; at
// 64 x 48 every block lies inside the picture). The mean level, the block
// counts and the DC counters do not depend on the reduction.
TEST(OracleDecode, MeanLevelAndStatisticsAtEveryReduction) {
    const int sizes[][2] = {{8, 8}, {333, 219}, {64, 48}};
    for (const Layout &l : {kLayouts[1], kLayouts[0], kLayouts[2], kLayouts[6]}) {
        for (const auto &sz : sizes) {
            turbo::EncodeSpec s = spec_for(l, sz[0], sz[1]);
            const auto jpg = turbo::encode(s, turbo::make_planes(s, 9, testpic::Kind::Noise));
            std::vector<turbo::Coefficients> coefs;
            ASSERT_TRUE(turbo::read_coefficients(jpg, &coefs));
            int64_t sum = 0;
            for (int16_t dc : coefs[0].padded_dc) sum += (dc + 1024) >> 3;
            const int64_t want = sum / (int64_t(coefs[0].padded_w) * coefs[0].padded_h);
            const kivotest::Decoded full = kivotest::decode(jpg, 1);
            ASSERT_EQ(full.status, 0);
            EXPECT_EQ(full.stats.mean_level, want) << l.name << " " << sz[0];
            if (sz[0] == 64) {
                int64_t mag[2][64] = {};
                for (size_t c = 0; c < coefs.size(); ++c)
                    for (size_t k = 0; k < coefs[c].coef.size(); ++k)
                        mag[c ? 1 : 0][k % 64] += std::abs(coefs[c].coef[k]);
                for (int i = 1; i < 64; ++i) {
                    EXPECT_EQ(full.stats.stat_luma[i], mag[0][i]) << l.name << " " << i;
                    EXPECT_EQ(full.stats.stat_chroma[i], mag[1][i]) << l.name << " " << i;
                }
            }
            for (int denom : {2, 8}) {
                const kivotest::Decoded one = kivotest::decode(jpg, 1, (sz[0] + denom - 1) / denom, (sz[1] + denom - 1) / denom);
                ASSERT_EQ(one.status, 0);
                EXPECT_EQ(one.stats.mean_level, full.stats.mean_level) << denom;
                EXPECT_EQ(one.stats.n_luma, full.stats.n_luma) << denom;
                EXPECT_EQ(one.stats.n_chroma, full.stats.n_chroma) << denom;
                EXPECT_EQ(one.stats.stat_luma[0], full.stats.stat_luma[0]) << denom;
                EXPECT_EQ(0, std::memcmp(one.stats.dc_count, full.stats.dc_count, sizeof(one.stats.dc_count))) << denom;
            }
        }
    }
}

// Where the entropy-coded data of a stream lies: after the first SOS
// segment, up to the EOI marker.
size_t scan_data_start(const std::vector<uint8_t> &jpg) {
    for (size_t i = 2; i + 3 < jpg.size(); ++i)
        if (jpg[i] == 0xFF && jpg[i + 1] == 0xDA) return i + 2 + (size_t(jpg[i + 2]) << 8 | jpg[i + 3]);
    return jpg.size();
}

// Damaged and truncated streams of every kind (restart markers or not,
// interleaved or separate scans, progressive) decode alike on 1 to 8
// threads: the same status, the same progress and the same bytes in every
// plane, at full size, at every reduction and resized; never a crash, hang,
// leak or stray access (the sanitizer build checks those).
TEST(OracleDecode, DamageDecodesAlikeOnAnyThreadCount) {
    struct Kind {
        const Layout *layout;
        int restart;
        bool separate, progressive;
    } kinds[] = {
        {&kLayouts[1], 0, false, false}, {&kLayouts[1], 2, false, false}, {&kLayouts[1], 3, true, false},
        {&kLayouts[3], 1, false, false}, {&kLayouts[0], 4, false, false}, {&kLayouts[2], 0, true, false},
        {&kLayouts[1], 0, false, true},
    };
    const int w = 203, h = 389;
    // Full size, each reduction, resized both ways, packed pairs, another layout.
    const int outs[][3] = {{0, 0, 0},    {102, 195, 0}, {51, 98, 0}, {26, 49, 0},
                           {70, 121, 0}, {260, 410, 0}, {0, 0, XELO_CS_YUYV}, {0, 0, XELO_CS_YCBCR444}};
    int damaged = 0, incomplete = 0, failed = 0;
    for (const Kind &k : kinds) {
        turbo::EncodeSpec s = spec_for(*k.layout, w, h);
        s.restart_mcus = k.restart;
        s.separate_scans = k.separate;
        s.progressive = k.progressive;
        const auto jpg = turbo::encode(s, turbo::make_planes(s, 11));
        ASSERT_FALSE(jpg.empty());
        const size_t data = scan_data_start(jpg);
        testpic::Rng rng(k.restart * 31 + k.layout->n_comp + k.separate * 7 + k.progressive * 13);
        for (int i = -1; i < 14; ++i) {
            std::vector<uint8_t> bad(jpg);
            const size_t at = data + rng.next() % (jpg.size() - 2 - data);
            if (i < 0) {
                // intact
            } else if (i % 5 == 4) {
                bad.resize(at);  // cut short
            } else if (i % 5 == 3) {
                // A stuffed 0xFF followed by a restart marker's second byte.
                const uint8_t run[] = {0xFF, 0x00, static_cast<uint8_t>(0xD0 + rng.next() % 8)};
                for (size_t j = 0; j < 3 && at + j < bad.size() - 2; ++j) bad[at + j] = run[j];
            } else {
                for (int f = 0; f <= i % 3; ++f) bad[at + f * 37 % (bad.size() - 2 - at)] ^= static_cast<uint8_t>(1 + rng.next() % 255);
            }
            for (const auto &o : outs) {
                const int32_t cs = k.layout->n_comp == 1 && o[2] == XELO_CS_YCBCR444 ? 0 : o[2];
                const kivotest::Decoded one = kivotest::decode(bad, 1, o[0], o[1], cs);
                EXPECT_LE(one.status, 0);
                damaged += one.status != 0 || one.progress.complete == 0;
                incomplete += one.progress.complete == 0;
                failed += one.status < 0;
                for (int t : {2, 3, 4, 8}) {
                    const kivotest::Decoded many = kivotest::decode(bad, t, o[0], o[1], cs);
                    const std::string what = std::string(k.layout->name) + " rst " + std::to_string(k.restart) +
                                             (k.separate ? " separate" : "") + (k.progressive ? " progressive" : "") +
                                             " case " + std::to_string(i) + " at " + std::to_string(at) + " out " +
                                             std::to_string(o[0]) + "/" + std::to_string(cs) + " threads " + std::to_string(t);
                    ASSERT_EQ(one.status, many.status) << what;
                    EXPECT_EQ(one.progress.complete, many.progress.complete) << what;
                    EXPECT_EQ(one.progress.mcu_rows, many.progress.mcu_rows) << what;
                    ASSERT_EQ(one.planes.size(), many.planes.size()) << what;
                    for (size_t p = 0; p < one.planes.size(); ++p)
                        ASSERT_EQ(one.planes[p].px, many.planes[p].px) << what << " plane " << p;
                    if (i < 0) {
                        // Statistics and table counters are summed per slice.
                        const kivod_stats &a = one.stats, &b = many.stats;
                        EXPECT_EQ(a.mean_level, b.mean_level) << what;
                        EXPECT_EQ(a.n_luma, b.n_luma) << what;
                        EXPECT_EQ(a.n_chroma, b.n_chroma) << what;
                        EXPECT_EQ(0, std::memcmp(a.stat_luma, b.stat_luma, sizeof(a.stat_luma))) << what;
                        EXPECT_EQ(0, std::memcmp(a.stat_chroma, b.stat_chroma, sizeof(a.stat_chroma))) << what;
                        EXPECT_EQ(0, std::memcmp(a.dc_count, b.dc_count, sizeof(a.dc_count))) << what;
                        EXPECT_EQ(0, std::memcmp(a.ac_count, b.ac_count, sizeof(a.ac_count))) << what;
                    }
                }
            }
        }
    }
    // The damage is seen: statuses, incomplete pictures, and plain failures.
    EXPECT_GT(damaged, 0);
    EXPECT_GT(incomplete, 0);
    EXPECT_GT(failed, 0);
}

}  // namespace
