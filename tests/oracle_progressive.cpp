// Progressive streams made by libjpeg-turbo at test time: its default
// script and custom ones (separate DC scans, odd bands, several refinement
// steps). Our decode must equal our decode of the same coefficients sent as
// a sequential stream, stay within the sequential bounds of libjpeg-turbo's
// planes, reduce exactly at 1/8, ignore the thread count, and end cleanly
// on broken input.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "decoder/kivod_int.h"
#include "oracle_support/turbo.h"
#include "support/kivo_decode.h"

namespace {

struct Layout {
    const char *name;
    int n_comp;
    int h[4], v[4];
};

const Layout kLayouts[] = {
    {"grey", 1, {1, 1, 1, 1}, {1, 1, 1, 1}},      {"420", 3, {2, 1, 1, 1}, {2, 1, 1, 1}},
    {"422", 3, {2, 1, 1, 1}, {1, 1, 1, 1}},       {"444", 3, {1, 1, 1, 1}, {1, 1, 1, 1}},
    {"440", 3, {1, 1, 1, 1}, {2, 1, 1, 1}},       {"411", 3, {4, 1, 1, 1}, {1, 1, 1, 1}},
    {"k420", 4, {2, 1, 1, 2}, {2, 1, 1, 2}},      {"k422", 4, {2, 1, 1, 2}, {1, 1, 1, 1}},
    {"k444", 4, {1, 1, 1, 1}, {1, 1, 1, 1}},
};

turbo::EncodeSpec spec_for(const Layout &l, int w, int h) {
    turbo::EncodeSpec s;
    s.width = w;
    s.height = h;
    s.n_comp = l.n_comp;
    for (int i = 0; i < 4; ++i) {
        s.h[i] = l.h[i];
        s.v[i] = l.v[i];
    }
    return s;
}

using Script = std::vector<turbo::ScanSpec>;

turbo::ScanSpec scan1(int c, int ss, int se, int ah, int al) { return {1, {c, 0, 0, 0}, ss, se, ah, al}; }
turbo::ScanSpec scan_all(int n, int ah, int al) { return {n, {0, 1, 2, 3}, 0, 0, ah, al}; }

// Separate DC scans, odd luma bands, two refinement steps.
Script script_bands(int n) {
    Script s;
    for (int c = 0; c < n; ++c) s.push_back(scan1(c, 0, 0, 0, 1));
    s.push_back(scan1(0, 1, 2, 0, 2));
    s.push_back(scan1(0, 3, 17, 0, 2));
    s.push_back(scan1(0, 18, 63, 0, 2));
    for (int c = 1; c < n; ++c) s.push_back(scan1(c, 1, 63, 0, 1));
    s.push_back(scan_all(n, 1, 0));
    s.push_back(scan1(0, 1, 63, 2, 1));
    s.push_back(scan1(0, 1, 63, 1, 0));
    for (int c = 1; c < n; ++c) s.push_back(scan1(c, 1, 63, 1, 0));
    return s;
}

// Complete DC first, then every component's AC in three refinement steps.
Script script_refine3(int n) {
    Script s{scan_all(n, 0, 0)};
    for (int c = 0; c < n; ++c) {
        s.push_back(scan1(c, 1, 63, 0, 3));
        for (int al = 2; al >= 0; --al) s.push_back(scan1(c, 1, 63, al + 1, al));
    }
    return s;
}

std::vector<uint8_t> make_stream(const Layout &l, int w, int h, int script, uint64_t seed) {
    turbo::EncodeSpec s = spec_for(l, w, h);
    s.quality = 70 + static_cast<int>(seed % 30);
    if (script == 0) s.progressive = true;
    else if (script == 1) s.scans = script_bands(l.n_comp);
    else s.scans = script_refine3(l.n_comp);
    std::string err;
    auto jpg = turbo::encode(s, turbo::make_planes(s, seed), &err);
    EXPECT_FALSE(jpg.empty()) << err;
    return jpg;
}

// A progressive picture at 1/denom: every block's coefficients through the
// reduced transform, which reads the 4x4, 2x2 or 1x1 low-frequency corner.
std::vector<testpic::Plane> corner_reconstruction(const std::vector<turbo::Coefficients> &comps, int denom) {
    const kivod_idct_fn idct = denom == 2 ? kivod_idct4 : denom == 4 ? kivod_idct2 : kivod_idct1;
    const int n = 8 / denom;
    std::vector<testpic::Plane> planes;
    for (const turbo::Coefficients &c : comps) {
        testpic::Plane p;
        p.w = (c.width + denom - 1) / denom;
        p.h = (c.height + denom - 1) / denom;
        p.px.assign(static_cast<size_t>(p.w) * p.h, 0);
        for (int by = 0; by < c.blocks_h; ++by)
            for (int bx = 0; bx < c.blocks_w; ++bx) {
                uint8_t out[64];
                idct(&c.coef[(static_cast<size_t>(by) * c.blocks_w + bx) * 64], n, out);
                for (int y = 0; y < n; ++y)
                    for (int x = 0; x < n; ++x)
                        if (bx * n + x < p.w && by * n + y < p.h)
                            p.px[static_cast<size_t>(by * n + y) * p.w + bx * n + x] = out[y * n + x];
            }
        planes.push_back(std::move(p));
    }
    return planes;
}

TEST(OracleProgressive, EqualsSequentialAndStaysNearLibjpegTurbo) {
    const int sizes[][2] = {{1, 1}, {17, 17}, {33, 7}, {301, 203}};
    int idx = 0;
    for (const Layout &l : kLayouts) {
        for (const auto &sz : sizes) {
            for (int script = 0; script < 3; ++script, ++idx) {
                const std::string what = std::string(l.name) + " " + std::to_string(sz[0]) + "x" + std::to_string(sz[1]) +
                                         " script " + std::to_string(script);
                const auto prog = make_stream(l, sz[0], sz[1], script, idx);
                const auto seq = turbo::transcode(prog, false);
                ASSERT_FALSE(seq.empty()) << what;
                // Full size: the same picture as the sequential stream.
                const kivotest::Decoded a = kivotest::decode(prog, 1 + idx % 4);
                const kivotest::Decoded b = kivotest::decode(seq, 1);
                ASSERT_EQ(a.status, 0) << what;
                ASSERT_EQ(b.status, 0) << what;
                ASSERT_EQ(a.planes.size(), b.planes.size());
                for (size_t p = 0; p < a.planes.size(); ++p) EXPECT_EQ(a.planes[p].px, b.planes[p].px) << what << " plane " << p;
                // Reduced: each block's whole low-frequency corner through the
                // reduced transform, from the coefficients libjpeg-turbo reads.
                // (A reduced sequential decode drops corner coefficients sent
                // late in the block, so it is no reference here.)
                std::vector<turbo::Coefficients> coefs;
                ASSERT_TRUE(turbo::read_coefficients(prog, &coefs));
                for (int denom : {2, 4, 8}) {
                    const int ow = (sz[0] + denom - 1) / denom, oh = (sz[1] + denom - 1) / denom;
                    if (kivod_choose_scale(sz[0], sz[1], ow, oh) != denom) continue;
                    // At 1/8 decoding stops at the first AC scan: only a DC
                    // sent whole before it is complete there.
                    if (denom == 8 && script != 2) continue;
                    const kivotest::Decoded r = kivotest::decode(prog, 1 + idx % 3, ow, oh);
                    ASSERT_EQ(r.status, 0) << what << " 1/" << denom;
                    const auto want = corner_reconstruction(coefs, denom);
                    for (size_t p = 0; p < want.size(); ++p) {
                        const int w = std::min(r.planes[p].w, want[p].w), h = std::min(r.planes[p].h, want[p].h);
                        int mismatches = 0;
                        for (int y = 0; y < h; ++y)
                            for (int x = 0; x < w; ++x) mismatches += r.planes[p].at(x, y) != want[p].at(x, y);
                        EXPECT_EQ(mismatches, 0) << what << " 1/" << denom << " plane " << p;
                    }
                }
                std::vector<testpic::Plane> ref;
                ASSERT_TRUE(turbo::decode_raw(prog, 1, &ref)) << what;
                const kivotest::Decoded ours = kivotest::decode(prog, 2);
                double sum = 0;
                long n = 0;
                int worst = 0;
                for (size_t p = 0; p < ref.size(); ++p)
                    for (size_t i = 0; i < ref[p].px.size(); ++i) {
                        const int e = std::abs(ours.planes[p].px[i] - ref[p].px[i]);
                        worst = std::max(worst, e);
                        sum += e;
                        ++n;
                    }
                EXPECT_LE(worst, 2) << what;
                EXPECT_LT(sum / n, 0.05) << what;
            }
        }
    }
}

// At 1/8 a stream whose DC is complete before its first AC scan gives each
// block's mean: 128 + floor((DC + 4) / 8) of the dequantized DC that
// libjpeg-turbo reads.
TEST(OracleProgressive, EighthScaleIsTheBlockMeans) {
    for (const Layout &l : kLayouts) {
        const auto jpg = make_stream(l, 640, 480, 2, 21);
        std::vector<turbo::Coefficients> coefs;
        ASSERT_TRUE(turbo::read_coefficients(jpg, &coefs));
        for (int threads : {1, 3}) {
            const kivotest::Decoded ours = kivotest::decode(jpg, threads, 80, 60);
            ASSERT_EQ(ours.status, 0) << l.name;
            for (size_t p = 0; p < coefs.size(); ++p) {
                const turbo::Coefficients &c = coefs[p];
                const testpic::Plane &o = ours.planes[p];
                int mismatches = 0;
                for (int by = 0; by < c.blocks_h && by < o.h; ++by)
                    for (int bx = 0; bx < c.blocks_w && bx < o.w; ++bx) {
                        const int dc = c.coef[(static_cast<size_t>(by) * c.blocks_w + bx) * 64];
                        int want = 128 + ((dc + 4) >> 3);
                        want = want < 0 ? 0 : want > 255 ? 255 : want;
                        mismatches += o.at(bx, by) != want;
                    }
                EXPECT_EQ(mismatches, 0) << l.name << " plane " << p << " threads " << threads;
            }
        }
    }
}

TEST(OracleProgressive, ThreadCountChangesNothing) {
    for (const Layout &l : {kLayouts[1], kLayouts[6]}) {
        const auto jpg = make_stream(l, 203, 151, 0, 5);
        const kivotest::Decoded one = kivotest::decode(jpg, 1);
        ASSERT_EQ(one.status, 0);
        for (int t = 2; t <= 8; ++t) {
            const kivotest::Decoded many = kivotest::decode(jpg, t);
            ASSERT_EQ(many.status, 0);
            for (size_t p = 0; p < one.planes.size(); ++p) EXPECT_EQ(one.planes[p].px, many.planes[p].px) << t;
            EXPECT_EQ(one.stats.mean_level, many.stats.mean_level);
        }
    }
}

// A hand-made progressive grey 8x8 stream: one DC code (category 0) and one
// AC code, the end-of-band run symbol with run bits `r`.
std::vector<uint8_t> tiny_progressive(int r, uint8_t run_bits_byte, bool with_dri) {
    std::vector<uint8_t> s = {0xFF, 0xD8, 0xFF, 0xDB, 0x00, 0x43, 0x00};
    for (int i = 0; i < 64; ++i) s.push_back(1);
    s.insert(s.end(), {0xFF, 0xC2, 0x00, 0x0B, 0x08, 0x00, 0x08, 0x00, 0x08, 0x01, 0x01, 0x11, 0x00});
    s.insert(s.end(), {0xFF, 0xC4, 0x00, 0x14, 0x00, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00});
    s.insert(s.end(), {0xFF, 0xC4, 0x00, 0x14, 0x10, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                       static_cast<uint8_t>(r << 4)});
    if (with_dri) s.insert(s.end(), {0xFF, 0xDD, 0x00, 0x04, 0x00, 0x01});
    s.insert(s.end(), {0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x7F});  // DC: code 0, pad
    s.insert(s.end(), {0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x01, 0x3F, 0x00, run_bits_byte});
    s.insert(s.end(), {0xFF, 0xD9});
    return s;
}

TEST(OracleProgressive, BrokenStreamsEndCleanly) {
    // An end-of-band run that covers exactly the one block, and one block more.
    EXPECT_EQ(kivotest::decode(tiny_progressive(0, 0x7F, false)).status, 0);
    EXPECT_EQ(kivotest::decode(tiny_progressive(1, 0x3F, false)).status, KIVO_ERR_MALFORMED);
    // Restart intervals are not decoded in progressive frames.
    EXPECT_EQ(kivotest::decode(tiny_progressive(0, 0x7F, true)).status, KIVO_ERR_UNSUPPORTED);
    // Scan headers naming an absent component or a band beyond 63.
    std::vector<uint8_t> bad = tiny_progressive(0, 0x7F, false);
    for (size_t i = 0; i + 1 < bad.size(); ++i) {
        if (bad[i] == 0xFF && bad[i + 1] == 0xDA) {
            std::vector<uint8_t> absent = bad, band = bad;
            absent[i + 5] = 7;   // component selector
            band[i + 8] = 64;    // Se of the first scan
            EXPECT_EQ(kivotest::decode(absent).status, KIVO_ERR_MALFORMED);
            EXPECT_EQ(kivotest::decode(band).status, KIVO_ERR_MALFORMED);
            break;
        }
    }
    // A frame whose coefficients would need more memory than allowed.
    std::vector<uint8_t> huge = tiny_progressive(0, 0x7F, false);
    for (size_t i = 0; i + 8 < huge.size(); ++i) {
        if (huge[i] == 0xFF && huge[i + 1] == 0xC2) {
            for (size_t j = i + 5; j <= i + 8; ++j) huge[j] = 0xFF;  // 65535 x 65535
            break;
        }
    }
    EXPECT_EQ(kivotest::decode(huge).status, KIVO_ERR_OUT_OF_MEMORY);
    int failures = 0;
    for (const Layout &l : {kLayouts[0], kLayouts[1], kLayouts[6]}) {
        const auto jpg = make_stream(l, 29, 23, 1, 7);
        for (size_t n = 0; n < jpg.size(); ++n) {
            std::vector<uint8_t> cut(jpg.begin(), jpg.begin() + n);
            const kivotest::Decoded r = kivotest::decode(cut, 1 + n % 2);
            EXPECT_LE(r.status, 0);
            failures += r.status < 0;
        }
        testpic::Rng rng(l.n_comp);
        for (int i = 0; i < 200; ++i) {
            std::vector<uint8_t> b(jpg);
            for (int f = 0; f < 3; ++f) b[rng.next() % b.size()] ^= static_cast<uint8_t>(1 + rng.next() % 255);
            EXPECT_LE(kivotest::decode(b, 1 + i % 3, i % 2 ? 0 : 5, i % 2 ? 0 : 4).status, 0);
        }
    }
    EXPECT_GT(failures, 0);
}

}  // namespace
