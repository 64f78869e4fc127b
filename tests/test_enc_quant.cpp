// Transform and quality control of the encoder in their plain form (the
// SIMD variants are proven equal to these in test_checkasm_enc.cpp):
// quality and perceptual tables, the forward DCT against a double-precision
// transform, both quantizers and the offset update, the JND tables, filter
// and suppression, and the perceptual selection against statistics
// computed here from the samples.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "encoder/kivoe_int.h"
#include "support/kivo_encode.h"

namespace {

void expect_invariant(const uint16_t *q, const uint16_t *recip, const uint16_t *half, int n = 64) {
    for (int i = 0; i < n; ++i) {
        ASSERT_TRUE(q[i] >= 1 && q[i] <= 255) << i;
        ASSERT_EQ(recip[i], 16384 / q[i]) << i;
        ASSERT_EQ(half[i], q[i] >> 1) << i;
    }
}

kivoe_ctx *create(int quality, int32_t cs = XELO_CS_YCBCR420, int w = 64, int h = 64) {
    kivoe_create_param p{1, w, h, quality, cs, nullptr};
    return kivoe_create(&p, nullptr);
}

TEST(EncQuant, QualityTables) {
    kivoe_ctx *def = create(0), *q90 = create(90), *q100 = create(100), *q1 = create(1);
    for (int t = 0; t < 2; ++t) {
        EXPECT_EQ(0, std::memcmp(&def->qtbl[t], &q90->qtbl[t], sizeof(kivoe_qtbl))) << "quality 0 is 90";
        EXPECT_EQ(def->qtbl[t].tq, t);
        for (int i = 0; i < 64; ++i) {
            // Luma v + u + 1; chroma twice that, DC 1, the first AC terms 3.
            const int rc = i / 8 + i % 8 + 1;
            EXPECT_EQ(def->qtbl[t].q[i], t == 0 ? rc : i == 0 ? 1 : (i == 1 || i == 8) ? 3 : 2 * rc) << t << " " << i;
            EXPECT_EQ(q100->qtbl[t].q[i], 1);
        }
        expect_invariant(q100->qtbl[t].q, q100->qtbl[t].recip, q100->qtbl[t].half);
    }
    EXPECT_EQ(q1->qtbl[1].q[63], 255);  // 300 * 99 / 100 clamps
    EXPECT_EQ(q1->qtbl[0].q[63], 148);  // 150 * 99 / 100, truncated
    for (uint32_t quality = 0; quality <= 100; ++quality) {
        ASSERT_EQ(kivoe_init_q_tbl(def, quality), KIVO_OK);
        for (const kivoe_qtbl &t : def->qtbl) expect_invariant(t.q, t.recip, t.half);
    }
    const kivoe_qtbl before = def->qtbl[0];
    EXPECT_EQ(kivoe_init_q_tbl(def, 101), KIVO_ERR_INVALID_ARG);
    EXPECT_EQ(kivoe_init_q_tbl(def, 0xFFFFFFFFu), KIVO_ERR_INVALID_ARG);
    EXPECT_EQ(0, std::memcmp(&before, &def->qtbl[0], sizeof(before)));
    for (kivoe_ctx *c : {def, q90, q100, q1}) kivoe_delete(c);
    kivoe_qtbl t{};
    const int32_t in[4] = {0, 16, 255, 300}, out[4] = {1, 16, 255, 255};
    for (int i = 0; i < 4; ++i) kivoe_qtbl_set(&t, i, in[i]);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(t.q[i], out[i]) << in[i];
    expect_invariant(t.q, t.recip, t.half, 4);
}

TEST(EncQuant, PerceptualTableFromStatistics) {
    const struct {
        int base;
        uint32_t stat;  // every AC statistic
        int index, q;
    } cases[] = {
        {2, 0, 0, 1},        {2, 0, 1, 1},        {2, 0, 63, 10}, {4, 0, 0, 3}, {4, 0, 63, 21},  // flat: 3/4
        {5, 100000, 63, 35}, {5, 100000, 1, 5},   {3, 100000, 0, 2},  // busy: the full base, DC still 3/4
        {0, 0, 0, 1},        {0, 500, 63, 1},                         // a base of 0 still gives 1
    };
    for (const auto &c : cases) {
        uint32_t stat[64];
        for (uint32_t &s : stat) s = c.stat;
        stat[0] = 0xDEADBEEF;  // not read
        int16_t q[64];
        uint16_t uq[64], recip[64], half[64];
        kivo_gen_qtbl(q, recip, half, stat, c.base);
        EXPECT_EQ(q[c.index], c.q) << "base " << c.base << " stat " << c.stat << " at " << c.index;
        for (int i = 0; i < 64; ++i) {
            uq[i] = static_cast<uint16_t>(q[i]);
            const int b = (tbl_inv_mtf[i] * c.base) >> 12;
            EXPECT_LE(q[i], b > 1 ? b : 1) << i;  // never above the weighted base
        }
        expect_invariant(uq, recip, half);
    }
    // The base quantizer follows the mean level in brackets.
    const int brackets[][2] = {{0, 2}, {23, 2}, {24, 3}, {71, 3}, {72, 4}, {159, 4}, {160, 5}, {255, 5}};
    for (const auto &b : brackets) EXPECT_EQ(tbl_thr[b[0]], b[1]) << b[0];
}

TEST(EncQuant, ForwardDct) {
    std::mt19937 rng(11);
    std::vector<std::vector<int16_t>> blocks;
    for (int v : {0, 128, 255}) blocks.push_back(std::vector<int16_t>(64, static_cast<int16_t>(v)));
    for (int n = 0; n < 3000; ++n) {
        std::vector<int16_t> b(64);
        for (int i = 0; i < 64; ++i)
            b[i] = static_cast<int16_t>(n < 4 ? ((((i % 8) >> n) ^ ((i / 8) >> (n & 1))) & 1) * 255  // patterns
                                        : n % 3 ? rng() % 256 : (rng() & 1) * 255);
        blocks.push_back(b);
    }
    // The Q10 constants leave errors of up to about 1.25 on full-swing
    // blocks: every coefficient within 1 of the correctly rounded value,
    // flat blocks exact, and the errors small on average.
    double total = 0;
    for (const auto &in : blocks) {
        int16_t b[64];
        std::memcpy(b, in.data(), sizeof(b));
        kivoe_fdct8(b);
        for (int v = 0; v < 8; ++v)
            for (int u = 0; u < 8; ++u) {
                double s = 0;
                for (int y = 0; y < 8; ++y)
                    for (int x = 0; x < 8; ++x)
                        s += (in[8 * y + x] - 128) * std::cos((2 * x + 1) * u * M_PI / 16) *
                             std::cos((2 * y + 1) * v * M_PI / 16);
                const double ref = 0.25 * (u ? 1 : M_SQRT1_2) * (v ? 1 : M_SQRT1_2) * s;
                const int got = b[8 * v + u], err = std::abs(got - static_cast<int>(std::lround(ref)));
                ASSERT_LE(err, &in - &blocks[0] < 3 ? 0 : 1) << "at " << 8 * v + u << ": " << ref;
                total += std::fabs(got - ref);
            }
    }
    EXPECT_LT(total / (64.0 * blocks.size()), 0.3);
}

TEST(EncQuant, Quantizers) {
    const struct {
        int q, offset;  // offset: Q14 for the adaptive quantizer
        int16_t c, plain, adaptive;
    } cases[] = {
        {16, 8192, 8, 1, 1},         {16, 8192, 7, 0, 0},           {16, 8192, -8, -1, -1},    {16, 8192, 0, 0, 0},
        {16, 0, 31, 2, 1},           {16, 8192, 30, 2, 2},          {3, 8192, 1100, 366, 367}, {3, 8192, -1100, -366, -367},
        {1, 0, -1000, -1000, -1000}, {1, 8192, 32767, 32767, 32767},
        // The plain quantizer saturates, the adaptive one keeps 16 bits.
        {1, 8192, -32768, -32767, -32768}, {255, 8192, -32768, -128, -128}, {2, 16383, 32767, 16384, 16384},
    };
    for (const auto &c : cases) {
        uint16_t recip[64], half[64], off[64];
        int16_t a[64] = {0}, b[64] = {0};
        for (int i = 0; i < 64; ++i) {
            recip[i] = static_cast<uint16_t>(16384 / c.q);
            half[i] = static_cast<uint16_t>(c.q >> 1);
            off[i] = static_cast<uint16_t>(c.offset);
            a[i] = b[i] = static_cast<int16_t>(i == 37 ? c.c : i % 3 ? 0 : c.q);  // the others become 0 or 1
        }
        EXPECT_EQ(kivoe_quant(a, recip, half), 22 + (c.plain != 0)) << c.c << " / " << c.q;
        EXPECT_EQ(a[37], c.plain) << c.c << " / " << c.q;
        kivoe_quant_rdoq(b, recip, off);
        EXPECT_EQ(b[37], c.adaptive) << c.c << " / " << c.q << " offset " << c.offset;
    }
}

TEST(EncQuant, OffsetUpdate) {
    const struct {
        int16_t level, coef;
        int start, after;
    } cases[] = {
        {2, 30, 8192, 8191},    // overshoot by 2: (2 * 1024) >> 11 = 1 down
        {-2, -30, 8192, 8191},  // the same below zero
        {1, 24, 4000, 4004},    // undershoot by half a step: 4 up
        {1, 8, 4000, 3996},     // overshoot by half a step: 4 down
        {0, 900, 5000, 5000},   // a zero level keeps its offset
        {1, 2000, 8190, 8192},  // clamped at 8192
        {-100, 0, 3, 0},        // clamped at 0
    };
    uint16_t q[64], recip[64];
    for (int i = 0; i < 64; ++i) q[i] = 16, recip[i] = 1024;
    for (const auto &c : cases) {
        int16_t lv[64] = {0}, coef[64] = {0};
        uint16_t off[64];
        for (uint16_t &o : off) o = 1234;
        lv[9] = c.level;
        coef[9] = c.coef;
        off[9] = static_cast<uint16_t>(c.start);
        kivoe_update_offset(lv, coef, q, recip, off);
        for (int i = 0; i < 64; ++i) EXPECT_EQ(off[i], i == 9 ? c.after : 1234) << c.level << " " << c.coef << " at " << i;
    }
}

TEST(EncQuant, JndTables) {
    // Each table steps up by one at these levels.
    const int up[8] = {11, 30, 55, 84, 118, 155, 195, 239}, down[8] = {12, 32, 58, 88, 123, 161, 202, 247};
    const int lum[8] = {12, 34, 63, 97, 129, 141, 185, 233};
    for (int c = 0; c < 256; ++c) {
        int a = 0, d = 0, k = 0;
        for (int s = 0; s < 8; ++s) a += c >= up[s], d += c >= down[s], k += c >= lum[s];
        EXPECT_EQ(tbl_pblur_max[c], std::min(c + a, 255)) << c;
        EXPECT_EQ(tbl_pblur_min[c], c - d) << c;
        EXPECT_EQ(tbl_suppr_lum[c], k) << c;
    }
    for (int i = 0; i < 512; ++i) EXPECT_EQ(kivo_tbl_suppr_thr[i], (tbl_inv_mtf[i % 64] * (i / 64 + 1)) >> 12) << i;
    // Thresholds from the DC: mean level 5 gives k = 0, 128 k = 4, white k = 8.
    const int16_t dcs[3] = {-1024 + 8 * 5, 0, 1016};
    for (int n = 0; n < 3; ++n) {
        uint8_t thr[64];
        kivoe_jnd_thresholds(dcs[n], thr);
        for (int i = 0; i < 64; ++i) EXPECT_EQ(thr[i], n ? kivo_tbl_suppr_thr[(4 * n - 1) * 64 + i] : 0) << dcs[n];
    }
}

TEST(EncQuant, JndFilter) {
    const struct {
        int lo, hi, period;  // lines of lo, then hi: an edge at line 6 (period 0) or a ripple
        int row, value;      // an output row and its value (row -1: the input unchanged)
    } cases[] = {
        {77, 77, 0, -1, 0},   {128, 168, 0, 3, 130}, {128, 168, 0, 2, 128}, {128, 168, 0, 4, 166},
        {126, 130, 1, 5, 128}, {40, 200, 1, 5, 197},  // a big ripple survives
    };
    for (const auto &c : cases) {
        uint8_t plane[16 * 12];
        for (int i = 0; i < 16 * 12; ++i) plane[i] = static_cast<uint8_t>((c.period ? i / 16 % 2 : i / 16 >= 6) ? c.hi : c.lo);
        int16_t blk[64];
        kivoe_jndfilt8x8(&plane[16 * 2 + 4], 16, blk);
        for (int i = 0; i < 64; ++i) {
            const int y = i / 8;
            if (c.row < 0 || y == c.row) {
                EXPECT_EQ(blk[i], c.row < 0 ? plane[16 * (y + 2) + 4 + i % 8] : c.value) << i;
            }
        }
    }
}

TEST(EncQuant, JndSuppression) {
    const struct {
        int16_t lv, coef;
        int thr;
        int16_t extra_ac;  // |level| of a second AC term (the block's AC sum)
        int16_t want;
    } cases[] = {
        {3, 10, 6, 5, 2}, {-3, -10, 6, 5, -2}, {2, 9, 10, 6, 0},
        {3, 10, 6, 4, 3},  // AC sum 7 is left alone
        {3, 10, 0, 5, 3},  // threshold 0 keeps every level
    };
    uint16_t q[64];
    for (uint16_t &x : q) x = 4;
    for (const auto &c : cases) {
        int16_t lv[64] = {0}, coef[64] = {0};
        uint8_t thr[64];
        std::memset(thr, c.thr, sizeof(thr));
        lv[1] = c.lv;
        coef[1] = c.coef;
        lv[2] = c.extra_ac;  // reconstructed exactly, so never lowered
        coef[2] = static_cast<int16_t>(c.extra_ac * 4 + c.thr);
        kivoe_jnd_suppress(lv, coef, q, thr);
        EXPECT_EQ(lv[1], c.want) << c.lv << " " << c.thr;
        EXPECT_EQ(lv[2], c.extra_ac);
    }
    // The DC level counts for nothing in the sum but is suppressed too.
    int16_t lv[64] = {3, 0, 0, 0, 0, 8}, coef[64] = {10, 0, 0, 0, 0, 32};
    uint8_t thr[64];
    std::memset(thr, 6, sizeof(thr));
    kivoe_jnd_suppress(lv, coef, q, thr);
    EXPECT_EQ(lv[0], 2);
    EXPECT_EQ(lv[5], 7);  // |32 - 28| < 6, |32 - 24| is not
}

// Pushes planes and selects the tables at `level`.
int32_t select(int32_t cs, int w, int h, const std::vector<testpic::Plane> &planes, int level, uint8_t out[128],
               kivoe_qtbl got[2], kivoe_qtbl before[2]) {
    kivoe_ctx *enc = create(50, cs, w, h);
    xelo_imgb *img = kivotest::to_imgb(cs, w, h, planes);
    std::memcpy(before, enc->qtbl, 2 * sizeof(kivoe_qtbl));
    int32_t status = kivoe_push(enc, img);
    if (status == KIVO_OK) status = kivoe_get_qtbl(enc, level, out);
    std::memcpy(got, enc->qtbl, 2 * sizeof(kivoe_qtbl));
    img->release(img);
    kivoe_delete(enc);
    return status;
}

// The selection against statistics computed here: whole blocks of 8 x 8
// cells of s x s samples, each cell the mean of its corners, partial blocks
// at the right and bottom left out.
TEST(EncQuant, PerceptualSelectionMatchesTheSampledStatistics) {
    struct Case {
        int32_t cs;
        int w, h, level;
    };
    std::vector<Case> cases = {{XELO_CS_YCBCR444, 64, 64, 3}};
    for (int32_t cs : {XELO_CS_YCBCR420, XELO_CS_YCBCR422, XELO_CS_YCBCR444, XELO_CS_YCBCR400})
        for (int level = 0; level <= 2; ++level) cases.push_back({cs, 75 + 40 * level, 70 + 33 * level, level});
    for (const Case &c : cases) {
        const auto planes = kivotest::make_picture(c.cs, c.w, c.h, static_cast<uint64_t>(c.cs + c.level));
        uint64_t sum[2][64] = {};
        uint32_t blocks[2] = {};
        const int s = 1 << c.level;
        for (size_t p = 0; p < planes.size(); ++p) {
            const testpic::Plane &pl = planes[p];
            const int t = p ? 1 : 0;
            for (int by = 0; by + 8 * s <= pl.h; by += 8 * s)
                for (int bx = 0; bx + 8 * s <= pl.w; bx += 8 * s, ++blocks[t]) {
                    int16_t b[64];
                    for (int i = 0; i < 64; ++i) {
                        const int x0 = bx + i % 8 * s, y0 = by + i / 8 * s, x1 = x0 + s - 1, y1 = y0 + s - 1;
                        b[i] = static_cast<int16_t>((pl.at(x0, y0) + pl.at(x1, y0) + pl.at(x0, y1) + pl.at(x1, y1)) >> 2);
                    }
                    kivoe_fdct8(b);
                    sum[t][0] += static_cast<uint64_t>((b[0] + 1024) >> 3);
                    for (int i = 1; i < 64; ++i) sum[t][i] += static_cast<uint64_t>(std::abs(b[i]));
                }
        }
        uint8_t out[128];
        kivoe_qtbl got[2], before[2];
        ASSERT_EQ(select(c.cs, c.w, c.h, planes, c.level, out, got, before), KIVO_OK) << c.cs << " " << c.level;
        uint32_t mean[2][64];
        for (int t = 0; t < 2; ++t)
            for (int i = 0; i < 64; ++i) mean[t][i] = blocks[t] ? static_cast<uint32_t>(sum[t][i] / blocks[t]) : 0;
        for (int t = 0; t < 2; ++t) {
            kivoe_qtbl want = before[t];  // no chroma: the chroma table stays and is reported
            if (t == 0 || c.cs != XELO_CS_YCBCR400) kivo_gen_qtbl(reinterpret_cast<int16_t *>(want.q), want.recip, want.half, mean[t], tbl_thr[mean[0][0]]);
            for (int i = 0; i < 64; ++i) {
                ASSERT_EQ(got[t].q[i], want.q[i]) << "format " << c.cs << " level " << c.level << " table " << t << " at " << i;
                ASSERT_EQ(got[t].recip[i], want.recip[i]);
                ASSERT_EQ(got[t].half[i], want.half[i]);
                ASSERT_EQ(out[64 * t + i], got[t].q[i]) << "output byte " << 64 * t + i;
            }
        }
    }
}

// NV12 and NV21 are analysed like 4:2:0, packed pairs like 4:2:2.
TEST(EncQuant, InterleavedLayoutsGiveThePlanarTables) {
    const int w = 96, h = 64;
    for (int32_t cs : {XELO_CS_NV12, XELO_CS_NV21, XELO_CS_YUYV}) {
        const int32_t twin = cs == XELO_CS_YUYV ? XELO_CS_YCBCR422 : XELO_CS_YCBCR420;
        const auto planar = kivotest::make_picture(twin, w, h, 9);
        std::vector<testpic::Plane> inter = planar;
        inter.resize(cs == XELO_CS_YUYV ? 1 : 2);
        testpic::Plane &mixed = inter.back();  // Y Cb Y Cr, or Cb Cr (NV12) and Cr Cb (NV21) pairs
        mixed.w = 2 * planar[inter.size() - 1].w;
        mixed.px.resize(static_cast<size_t>(mixed.w) * mixed.h);
        for (int y = 0; y < mixed.h; ++y)
            for (int x = 0; x < mixed.w; ++x) {
                const int k = cs == XELO_CS_YUYV ? (x % 2 ? 1 + x / 2 % 2 : 0) : cs == XELO_CS_NV12 ? 1 + x % 2 : 2 - x % 2;
                mixed.px[static_cast<size_t>(y) * mixed.w + x] = planar[k].at(k && cs == XELO_CS_YUYV ? x / 4 : x / 2, y);
            }
        uint8_t want[128], got[128];
        kivoe_qtbl t[2], before[2];
        ASSERT_EQ(select(twin, w, h, planar, 0, want, t, before), KIVO_OK);
        ASSERT_EQ(select(cs, w, h, inter, 0, got, t, before), KIVO_OK);
        EXPECT_EQ(0, std::memcmp(want, got, 128)) << "format " << cs;
    }
}

// Selection refused: the tables stay and the output is untouched.
TEST(EncQuant, PerceptualSelectionRefused) {
    const struct {
        int32_t cs;
        int w, h, level;
        int32_t status;
    } cases[] = {
        {XELO_CS_YCBCR444, 63, 64, 3, KIVO_ERR_UNAVAILABLE},  // no whole block
        {XELO_CS_YCBCR420, 64, 64, 3, KIVO_ERR_UNAVAILABLE},  // chroma without a whole block
        {XELO_CS_YUYV, 120, 64, 3, KIVO_ERR_UNAVAILABLE},
        {XELO_CS_YCBCR444, 64, 64, 13, KIVO_ERR_UNAVAILABLE},
        {XELO_CS_YCBCR444, 64, 64, -1, KIVO_ERR_INVALID_ARG},
    };
    for (const auto &c : cases) {
        uint8_t out[128];
        std::memset(out, 0xEE, sizeof(out));
        kivoe_qtbl got[2], before[2];
        EXPECT_EQ(select(c.cs, c.w, c.h, kivotest::make_picture(c.cs, c.w, c.h, 1), c.level, out, got, before), c.status);
        EXPECT_EQ(0, std::memcmp(before, got, sizeof(got))) << c.cs << " " << c.level << ": tables kept";
        for (uint8_t b : out) ASSERT_EQ(b, 0xEE) << c.cs << " " << c.level << ": output untouched";
    }
    kivoe_ctx *enc = create(50);  // nothing pushed yet
    uint8_t out[128];
    EXPECT_EQ(kivoe_get_qtbl(enc, 0, out), KIVO_ERR_UNAVAILABLE);
    kivoe_delete(enc);
}

}  // namespace
