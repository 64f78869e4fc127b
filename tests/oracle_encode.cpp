// Our encoder's streams decoded by libjpeg-turbo: every planar layout, odd
// sizes, qualities, switches, table sources and thread counts decode
// without warning within a PSNR of the picture, follow their stream plan,
// and at quality 100 carry exactly the transform of every block (blocks
// past the edge repeat the last column and row; interior luma blocks go
// through the JND filter when it is on). Progressive streams and the
// coefficient-picture writer: libjpeg-turbo reads back exactly the levels.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "encoder/kivoe_int.h"
#include "oracle_support/turbo.h"
#include "support/kivo_decode.h"
#include "support/kivo_encode.h"

namespace {

using kivotest::EncodeOptions;

std::vector<testpic::Plane> turbo_decode(const std::vector<uint8_t> &jpg, const std::string &what) {
    std::vector<testpic::Plane> planes;
    int warnings = -1;
    std::string err;
    EXPECT_TRUE(turbo::decode_raw(jpg, 1, &planes, &warnings, &err) && warnings == 0) << what << ": " << err;
    return planes;
}

TEST(OracleEncode, EveryLayoutSizeAndSwitch) {
    const int sizes[][2] = {{1, 1}, {17, 9}, {33, 7}, {64, 48}, {301, 203}};
    uint8_t custom[128];
    for (int i = 0; i < 128; ++i) custom[i] = static_cast<uint8_t>(1 + (i * 7) % 60);
    int idx = 0;
    // Format 40 declares its chroma components with 0x0 sampling factors,
    // which libjpeg-turbo refuses (test_encoder checks its streams).
    for (int32_t cs : {10, 11, 12, 13, 18, 22, 41, 42, 43, 44})
        for (const auto &sz : sizes)
            for (int variant = 0; variant < 4; ++variant, ++idx) {
                EncodeOptions o;
                o.quality = (idx * 17) % 101, o.threads = 1 + idx % 8;
                const int combo = idx % 16;  // every combination of the four switches over the cases
                o.optimize = combo & 1, o.jnd_filter = combo & 2, o.jnd_suppress = combo & 4, o.adaptive_rounding = combo & 8;
                o.copy_path = variant >= 2;
                if (variant == 3) o.perceptual_level = idx % 3;
                if (idx % 7 == 0) o.qtables = custom;
                const std::string what = "format " + std::to_string(cs) + " " + std::to_string(sz[0]) + "x" +
                                         std::to_string(sz[1]) + " case " + std::to_string(idx);
                const auto pic = kivotest::make_picture(cs, sz[0], sz[1], idx);
                const kivotest::Encoded e = kivotest::encode(cs, sz[0], sz[1], pic, o);
                ASSERT_EQ(e.status, 0) << what;
                EXPECT_EQ(kivotest::check_stream(e.jpg, {cs, sz[0], sz[1], o.threads, e.q, !o.optimize, {}, {}}), "") << what;
                const auto got = turbo_decode(e.jpg, what);
                ASSERT_EQ(got.size(), pic.size()) << what;
                // Loss grows with the quantizers and the JND switches.
                const int worst = *std::max_element(e.q, e.q + 128), jnd = o.jnd_filter || o.jnd_suppress;
                EXPECT_GT(kivotest::psnr(pic, got), (worst < 2 ? 39 : worst < 20 ? 35 : 23) - 5 * jnd) << what;
            }
}

TEST(OracleEncode, QualityHundredCarriesTheTransformOfEveryBlock) {
    for (int32_t cs : {11, 22, 44})
        for (const auto &sz : {std::pair<int, int>{17, 9}, {41, 37}}) {
            const auto pic = kivotest::make_picture(cs, sz.first, sz.second, 5);
            EncodeOptions o;
            o.quality = 100, o.threads = 2;
            o.jnd_filter = sz.first > 20;  // luma blocks a whole block inside the picture go through the filter
            const kivotest::Encoded e = kivotest::encode(cs, sz.first, sz.second, pic, o);
            std::vector<turbo::Coefficients> comps;
            ASSERT_TRUE(e.status == 0 && turbo::read_coefficients(e.jpg, &comps));
            ASSERT_EQ(comps.size(), pic.size());
            for (size_t c = 0; c < comps.size(); ++c) {
                const turbo::Coefficients &k = comps[c];
                const testpic::Plane &pl = pic[c];
                for (int by = 0; by < k.padded_h; ++by)
                    for (int bx = 0; bx < k.padded_w; ++bx) {
                        int16_t b[64];
                        for (int i = 0; i < 64; ++i) b[i] = pl.at(std::min(8 * bx + i % 8, pl.w - 1), std::min(8 * by + i / 8, pl.h - 1));
                        if (o.jnd_filter && c == 0 && bx && by && 8 * bx + 16 <= pl.w && 8 * by + 16 <= pl.h)
                            kivoe_jndfilt8x8(&pl.px[static_cast<size_t>(8 * by) * pl.w + 8 * bx], pl.w, b);
                        kivoe_fdct8(b);
                        const bool inside = bx < k.blocks_w && by < k.blocks_h;
                        for (int i = 0; i < (inside ? 64 : 1); ++i)
                            ASSERT_EQ(inside ? k.coef[(by * k.blocks_w + bx) * 64 + i] : k.padded_dc[by * k.padded_w + bx], b[i])
                                << "format " << cs << " " << sz.first << "x" << sz.second << " component " << c << " block " << bx << "," << by << " at " << i;
                    }
            }
        }
}

// Any thread count gives the same picture, with or without optimised
// tables (which make a smaller stream). Noise at quality 100 gives segments
// of several hundred kilobytes, whose memory grows as they are coded.
TEST(OracleEncode, ThreadCountsAgree) {
    const struct { int32_t cs; int w, h, quality; testpic::Kind kind; } cases[] = {
        {11, 256, 192, 90, testpic::Kind::Natural}, {13, 256, 192, 90, testpic::Kind::Natural},
        {10, 256, 192, 90, testpic::Kind::Natural}, {10, 1024, 512, 100, testpic::Kind::Noise}};
    for (const auto &c : cases) {
        const int32_t cs = c.cs;
        const auto pic = kivotest::make_picture(cs, c.w, c.h, 3, c.kind);
        EncodeOptions o;
        o.quality = c.quality;
        const kivotest::Encoded plain = kivotest::encode(cs, c.w, c.h, pic, o);
        const auto want = turbo_decode(plain.jpg, "plain");
        for (o.threads = 2; o.threads <= 8; ++o.threads) {
            o.optimize = o.threads % 2;
            const kivotest::Encoded e = kivotest::encode(cs, c.w, c.h, pic, o);
            EXPECT_TRUE(!o.optimize || e.jpg.size() < plain.jpg.size()) << "format " << cs;
            EXPECT_EQ(kivotest::psnr(want, turbo_decode(e.jpg, "threads")), 99) << "format " << cs << " t" << o.threads;
        }
    }
}

// Progressive encodes on 1, 3 and 5 threads give one stream, which
// libjpeg-turbo and our decoder decode without warning to the samples of
// the baseline stream of 8 threads (the same levels: adaptive rounding
// restarts at the same places), and which is smaller than the optimised
// baseline one for photograph-like pictures.
TEST(OracleEncode, ProgressiveMatchesBaseline) {
    const struct { int32_t cs; int w, h, quality, switches; } cases[] = {
        {10, 640, 480, 90, 0}, {11, 640, 480, 75, 8}, {12, 640, 480, 95, 3}, {13, 640, 480, 85, 12},
        {41, 320, 240, 90, 8}, {11, 17, 9, 50, 8}, {11, 1, 300, 80, 8}, {13, 1, 1, 90, 0}, {44, 40, 24, 90, 0},
        {40, 16, 16, 90, 0}};
    for (const auto &c : cases) {
        const std::string what = "format " + std::to_string(c.cs) + " " + std::to_string(c.w) + "x" + std::to_string(c.h);
        const auto pic = kivotest::make_picture(c.cs, c.w, c.h, 7);
        EncodeOptions o;
        o.quality = c.quality, o.threads = 8, o.optimize = true;
        o.jnd_filter = c.switches & 1, o.jnd_suppress = c.switches & 2, o.adaptive_rounding = c.switches & 8;
        const kivotest::Encoded base = kivotest::encode(c.cs, c.w, c.h, pic, o);
        o.progressive = true, o.threads = 1;
        const kivotest::Encoded prog = kivotest::encode(c.cs, c.w, c.h, pic, o);
        if (c.cs == XELO_CS_YCBCRK400) {  // chroma components without samples have no progressive form
            EXPECT_EQ(prog.status, KIVO_ERR_UNSUPPORTED);
            continue;
        }
        ASSERT_TRUE(base.status == 0 && prog.status == 0) << what;
        for (o.threads = 3; o.threads <= 5; o.threads += 2)  // 19 MCUs in 1x300: 5 runs of 8 planned segments
            EXPECT_TRUE(kivotest::encode(c.cs, c.w, c.h, pic, o).jpg == prog.jpg) << what << " t" << o.threads;
        EXPECT_EQ(kivotest::psnr(turbo_decode(base.jpg, what), turbo_decode(prog.jpg, what)), 99) << what;
        if (c.cs != XELO_CS_YCBCRK440) {  // not a layout our decoder takes
            EXPECT_EQ(kivotest::psnr(kivotest::decode(base.jpg).planes, kivotest::decode(prog.jpg).planes), 99) << what;
        }
        if (c.w < 320) continue;
        std::printf("%s: progressive %zu bytes, %.1f%% of optimised baseline\n", what.c_str(), prog.jpg.size(),
                    100.0 * prog.jpg.size() / base.jpg.size());
        EXPECT_LT(prog.jpg.size(), base.jpg.size()) << what;
    }
}

// Levels for the coefficient writer: DC levels wandering over the whole
// 8-bit range (differences up to 2047) and sparse AC levels with the
// extremes, lone coefficients at the end of the band and long zero runs;
// or empty bands everywhere (end-of-band runs past their longest); or
// levels of 2 and 3 (only correction bits in the last refinement scans).
enum class Levels { Mixed, Empty, Corrections };

struct CoefPic {
    kivoe_coef_pic pic{};
    std::vector<int16_t> buf[4];
};

CoefPic make_levels(int n, const int *h, const int *v, int w, int ht, int q_max, Levels kind, uint64_t seed) {
    CoefPic r;
    kivoe_coef_pic &p = r.pic;
    p.width = w, p.height = ht, p.n_comp = n;
    testpic::Rng rng(seed);
    const int hmax = *std::max_element(h, h + n), vmax = *std::max_element(v, v + n);
    for (int c = 0; c < n; ++c) {
        p.id[c] = static_cast<uint8_t>(c ? 40 + c : 7);  // any identifiers
        p.h[c] = static_cast<uint8_t>(h[c]), p.v[c] = static_cast<uint8_t>(v[c]), p.tq[c] = static_cast<uint8_t>(3 - c % 2);
        p.blk_w[c] = (w + 8 * hmax - 1) / (8 * hmax) * h[c] + c, p.blk_h[c] = (ht + 8 * vmax - 1) / (8 * vmax) * v[c];
        r.buf[c].assign(static_cast<size_t>(p.blk_w[c]) * p.blk_h[c] * 64, 0);
        int dc = 0;
        for (size_t b = 0; b < r.buf[c].size(); b += 64) {
            int16_t *blk = &r.buf[c][b];
            const int pick = rng.range(0, 99);
            dc = pick == 0 ? -1024 : pick == 1 ? 1023 : std::clamp(dc + rng.range(-60, 60), -1024, 1023);
            blk[0] = static_cast<int16_t>(dc);
            for (int k = 1; k < 64 && kind != Levels::Empty; ++k) {
                const int z = kivo_tbl_zig_to_ras[k], sign = rng.range(0, 1) ? 1 : -1;
                if (kind == Levels::Corrections) blk[z] = static_cast<int16_t>(sign * rng.range(2, 3));
                else if (pick < 5) blk[z] = static_cast<int16_t>(k == 63 || rng.range(0, 20) == 0 ? sign * 1023 : 0);
                else if (rng.range(0, 3 * k) < 6) blk[z] = static_cast<int16_t>(sign * (1 + (rng.next() % 4096 >> rng.range(3, 12))));
            }
        }
        p.coef[c] = r.buf[c].data();
    }
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 64; ++i) p.qt[t][i] = static_cast<uint16_t>(1 + (i * 37 + t * 11) % q_max);
    return r;
}

std::vector<uint8_t> write_coef_pic(const kivoe_coef_pic &p, int coding, int32_t *status) {
    std::vector<uint8_t> out(4 << 20);
    xelo_bsw bs;
    xelo_bsw_init(&bs, out.data(), static_cast<int32_t>(out.size()), nullptr);
    *status = kivoe_write_coef_pic(&p, coding, &bs);
    out.resize(bs.overflow ? 0 : static_cast<size_t>(bs.write_ptr - bs.start_ptr));
    return out;
}

// Levels written baseline and progressive: libjpeg-turbo reads back exactly
// the levels (times their quantizers) from both, and decodes both without
// warning to the same samples; so does our decoder. Levels without a
// category in 8-bit data are refused.
TEST(OracleEncode, CoefficientPictures) {
    // Products of level and quantizer stay within 16 bits where our decoder
    // reads the stream (the layout of 11 blocks an MCU is not one it takes).
    const struct { int n, h[4], v[4], w, ht, q_max; Levels kind; bool ours; } cases[] = {
        {1, {1}, {1}, 203, 61, 255, Levels::Mixed, true},
        {3, {2, 1, 1}, {2, 1, 1}, 77, 45, 255, Levels::Mixed, true},
        {3, {2, 1, 1}, {1, 1, 1}, 64, 32, 900, Levels::Mixed, true},  // 16-bit quantizers
        {3, {1, 1, 1}, {1, 1, 1}, 64, 24, 60, Levels::Corrections, true},
        {4, {2, 1, 1, 2}, {2, 1, 1, 2}, 50, 50, 255, Levels::Mixed, true},
        {4, {2, 1, 1, 2}, {2, 2, 1, 2}, 41, 23, 255, Levels::Mixed, false},  // 11 blocks: a scan per component
        {1, {1}, {1}, 2048, 1040, 8, Levels::Empty, true},
    };
    int idx = 0;
    for (const auto &c : cases) {
        const std::string what = "case " + std::to_string(idx++);
        CoefPic lv = make_levels(c.n, c.h, c.v, c.w, c.ht, c.q_max, c.kind, idx);
        std::vector<testpic::Plane> turbo_px[2], our_px[2];
        for (int coding = 0; coding < 2; ++coding) {
            int32_t status = -1;
            const std::vector<uint8_t> jpg = write_coef_pic(lv.pic, coding, &status);
            ASSERT_TRUE(status == 0 && !jpg.empty()) << what;
            std::vector<turbo::Coefficients> comps;
            ASSERT_TRUE(turbo::read_coefficients(jpg, &comps) && comps.size() == static_cast<size_t>(c.n)) << what;
            for (int k = 0; k < c.n; ++k)
                for (int by = 0; by < comps[k].blocks_h; ++by)
                    for (int bx = 0; bx < comps[k].blocks_w; ++bx)
                        for (int i = 0; i < 64; ++i) {
                            const int16_t level = lv.buf[k][(static_cast<size_t>(by) * lv.pic.blk_w[k] + bx) * 64 + i];
                            const int16_t want = static_cast<int16_t>(static_cast<uint16_t>(level) * lv.pic.qt[lv.pic.tq[k]][i]);
                            ASSERT_EQ(comps[k].coef[(static_cast<size_t>(by) * comps[k].blocks_w + bx) * 64 + i], want)
                                << what << " coding " << coding << " component " << k << " block " << bx << "," << by << " at " << i;
                        }
            turbo_px[coding] = turbo_decode(jpg, what);
            const kivotest::Decoded d = kivotest::decode(jpg);
            EXPECT_TRUE(d.status == 0 || !c.ours) << what;
            our_px[coding] = d.planes;
        }
        EXPECT_EQ(kivotest::psnr(turbo_px[0], turbo_px[1]), 99) << what;
        EXPECT_TRUE(!c.ours || kivotest::psnr(our_px[0], our_px[1]) == 99) << what;
    }
    // DC differences of 2047 and 2048, AC levels of 1024 and -1023, written
    // baseline and progressive in turn.
    for (int bad = 0; bad < 4; ++bad) {
        CoefPic lv = make_levels(3, cases[1].h, cases[1].v, 30, 30, 255, Levels::Mixed, 1);
        lv.buf[2][0] = static_cast<int16_t>(bad == 1 ? -1025 : -1024), lv.buf[2][64] = 1023;
        lv.buf[1][9] = static_cast<int16_t>(bad == 2 ? 1024 : -1023);
        int32_t status = 0;
        write_coef_pic(lv.pic, bad % 2, &status);
        EXPECT_EQ(status, bad % 3 ? KIVO_ERR_UNSUPPORTED : 0) << bad;
    }
}

}  // namespace
