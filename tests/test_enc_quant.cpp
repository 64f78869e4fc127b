// Transform and quality control of the encoder: quality and perceptual
// tables, the forward DCT against a double-precision transform, both
// quantizers and the offset update, the JND tables, filter and suppression,
// and the perceptual selection from pictures of every layout. The kernels
// are checked in their plain form and in the variant this CPU selects.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "encoder/kivoe_int.h"

namespace {

struct Enc {
    kivoe_ctx *ctx;
    explicit Enc(int quality = 90) {
        kivoe_create_param p{1, 64, 64, quality, XELO_CS_YCBCR420, nullptr};
        ctx = kivoe_create(&p, nullptr);
    }
    ~Enc() { kivoe_delete(ctx); }
};

// The plain kernels and the ones this CPU gets.
std::vector<kivoe_proc> kernel_sets() {
    kivoe_proc plain{}, best{};
    kivoe_dsp_init(&plain, 0);
    kivoe_dsp_init(&best, kivo_cpu_flags());
    return {plain, best};
}

void expect_invariant(const uint16_t *q, const uint16_t *recip, const uint16_t *half, const char *what, int n = 64) {
    for (int i = 0; i < n; ++i) {
        ASSERT_GE(q[i], 1) << what << " at " << i;
        ASSERT_LE(q[i], 255) << what << " at " << i;
        ASSERT_EQ(recip[i], 16384 / q[i]) << what << " at " << i;
        ASSERT_EQ(half[i], q[i] >> 1) << what << " at " << i;
    }
}

TEST(EncQuant, QualityTables) {
    Enc def(0), q90(90), q100(100), q1(1);
    for (int t = 0; t < 2; ++t) {
        const kivoe_qtbl &d = def.ctx->qtbl[t];
        EXPECT_EQ(0, std::memcmp(&d, &q90.ctx->qtbl[t], sizeof(d))) << "quality 0 is quality 90, table " << t;
        EXPECT_EQ(d.pq, 0);
        EXPECT_EQ(d.tq, t);
        for (int i = 0; i < 64; ++i) {
            const int rc = i / 8 + i % 8 + 1;
            // Default: luma v + u + 1; chroma twice that, DC 1, first AC terms 3.
            const int want = t == 0 ? rc : (i == 0 ? 1 : (i == 1 || i == 8) ? 3 : 2 * rc);
            EXPECT_EQ(d.q[i], want) << "table " << t << " at " << i;
            EXPECT_EQ(q100.ctx->qtbl[t].q[i], 1);
            EXPECT_EQ(q100.ctx->qtbl[t].recip[i], 16384);
            EXPECT_EQ(q100.ctx->qtbl[t].half[i], 0);
        }
    }
    // Quality 1 (scale 99): chroma 300 * 99 / 100 = 297 clamps to 255.
    EXPECT_EQ(q1.ctx->qtbl[1].q[63], 255);
    EXPECT_EQ(q1.ctx->qtbl[1].recip[63], 64);
    EXPECT_EQ(q1.ctx->qtbl[1].half[63], 127);
    EXPECT_EQ(q1.ctx->qtbl[0].q[63], 148);  // 150 * 99 / 100, truncated
    EXPECT_EQ(def.ctx->qtbl[1].recip[1], 5461);
    EXPECT_EQ(def.ctx->qtbl[0].recip[6], 2340);  // q = 7
    // Every quality keeps the table invariant; above 100 nothing changes.
    Enc e(50);
    for (uint32_t quality = 0; quality <= 100; ++quality) {
        ASSERT_EQ(kivoe_init_q_tbl(e.ctx, quality), KIVO_OK);
        for (const kivoe_qtbl &t : e.ctx->qtbl) expect_invariant(t.q, t.recip, t.half, "quality table");
    }
    const kivoe_qtbl before = e.ctx->qtbl[0];
    EXPECT_EQ(kivoe_init_q_tbl(e.ctx, 101), KIVO_ERR_INVALID_ARG);
    EXPECT_EQ(kivoe_init_q_tbl(e.ctx, 0xFFFFFFFFu), KIVO_ERR_INVALID_ARG);
    EXPECT_EQ(0, std::memcmp(&before, &e.ctx->qtbl[0], sizeof(before)));
    // Single entries: 0 becomes 1, more than 255 clamps.
    kivoe_qtbl t{};
    const int32_t in[4] = {0, 16, 255, 300};
    const int out[4] = {1, 16, 255, 255};
    for (int i = 0; i < 4; ++i) kivoe_qtbl_set(&t, i, in[i]);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(t.q[i], out[i]) << in[i];
    expect_invariant(t.q, t.recip, t.half, "set", 4);
}

TEST(EncQuant, PerceptualTableFromStatistics) {
    struct Case {
        int base;
        uint32_t stat;  // every AC statistic
        int index, q;
    };
    const Case cases[] = {
        {2, 0, 0, 1},     {2, 0, 1, 1},      {2, 0, 63, 10},   // flat: 3/4 of the weighted base, at least 1
        {4, 0, 0, 3},     {4, 0, 63, 21},    {5, 0, 0, 3},     // mid-grey DC 3, [7][7] 21
        {5, 100000, 63, 35}, {5, 100000, 1, 5}, {3, 100000, 0, 2},  // busy: the full base, DC still 3/4
        {0, 0, 0, 1},     {0, 500, 63, 1},                      // a base of 0 still gives 1
    };
    for (const Case &c : cases) {
        uint32_t stat[64];
        for (uint32_t &s : stat) s = c.stat;
        stat[0] = 0xDEADBEEF;  // not read
        int16_t q[64];
        uint16_t recip[64], half[64];
        kivo_gen_qtbl(q, recip, half, stat, c.base);
        EXPECT_EQ(q[c.index], c.q) << "base " << c.base << " stat " << c.stat << " at " << c.index;
        uint16_t uq[64];
        for (int i = 0; i < 64; ++i) uq[i] = static_cast<uint16_t>(q[i]);
        expect_invariant(uq, recip, half, "gen");
        // Never above the weighted base, whatever the statistics.
        for (int i = 0; i < 64; ++i) {
            const int b = (tbl_inv_mtf[i] * c.base) >> 12;
            EXPECT_LE(q[i], b > 1 ? b : 1) << i;
        }
    }
    // The weights are symmetric; the base quantizer follows the mean level.
    for (int i = 0; i < 64; ++i) EXPECT_EQ(tbl_inv_mtf[i], tbl_inv_mtf[8 * (i % 8) + i / 8]) << i;
    const int brackets[][2] = {{0, 2}, {23, 2}, {24, 3}, {71, 3}, {72, 4}, {159, 4}, {160, 5}, {255, 5}};
    for (const auto &b : brackets) EXPECT_EQ(tbl_thr[b[0]], b[1]) << b[0];
}

// The T.81 forward DCT of a level-shifted block in double precision.
void reference_fdct(const int16_t *in, double *out) {
    for (int v = 0; v < 8; ++v)
        for (int u = 0; u < 8; ++u) {
            double s = 0;
            for (int y = 0; y < 8; ++y)
                for (int x = 0; x < 8; ++x)
                    s += (in[8 * y + x] - 128) * std::cos((2 * x + 1) * u * M_PI / 16) *
                         std::cos((2 * y + 1) * v * M_PI / 16);
            out[8 * v + u] = 0.25 * (u ? 1 : M_SQRT1_2) * (v ? 1 : M_SQRT1_2) * s;
        }
}

TEST(EncQuant, ForwardDct) {
    std::mt19937 rng(11);
    std::vector<std::vector<int16_t>> blocks;
    for (int n = 0; n < 3000; ++n) {
        std::vector<int16_t> b(64);
        for (int16_t &s : b) s = static_cast<int16_t>(n % 3 ? rng() % 256 : (rng() & 1) * 255);
        blocks.push_back(b);
    }
    for (int p = 0; p < 4; ++p) {  // checkerboards and stripes at full swing
        std::vector<int16_t> b(64);
        for (int i = 0; i < 64; ++i) b[i] = static_cast<int16_t>((((i % 8) >> p) ^ ((i / 8) >> (p & 1))) & 1 ? 255 : 0);
        blocks.push_back(b);
    }
    for (const kivoe_proc &k : kernel_sets()) {
        // Flat blocks: DC only.
        const int flats[][2] = {{128, 0}, {255, 1016}, {0, -1024}};
        for (const auto &f : flats) {
            int16_t b[64];
            for (int16_t &s : b) s = static_cast<int16_t>(f[0]);
            k.fdct8(b);
            EXPECT_EQ(b[0], f[1]) << f[0];
            for (int i = 1; i < 64; ++i) EXPECT_EQ(b[i], 0) << f[0] << " at " << i;
        }
        // Ramps: a horizontal one lives in row 0, a vertical one in column 0.
        for (int vertical = 0; vertical < 2; ++vertical) {
            int16_t b[64];
            for (int i = 0; i < 64; ++i) b[i] = static_cast<int16_t>(20 + 31 * (vertical ? i / 8 : i % 8));
            k.fdct8(b);
            for (int i = 0; i < 64; ++i) {
                const bool on_axis = vertical ? i % 8 == 0 : i < 8;
                if (!on_axis) {
                    EXPECT_EQ(b[i], 0) << (vertical ? "vertical" : "horizontal") << " at " << i;
                }
            }
            EXPECT_NE(b[vertical ? 8 : 1], 0);
        }
        // The Q10 constants leave errors of up to about 1.25 on full-swing
        // blocks (1.1 on random ones), so every coefficient is held within
        // 1 of the correctly rounded value, and the errors to be small on
        // average.
        double total = 0;
        for (const auto &in : blocks) {
            double ref[64];
            reference_fdct(in.data(), ref);
            int16_t b[64];
            std::memcpy(b, in.data(), sizeof(b));
            k.fdct8(b);
            for (int i = 0; i < 64; ++i) {
                ASSERT_LE(std::abs(b[i] - static_cast<int>(std::lround(ref[i]))), 1) << "at " << i << ": " << ref[i];
                total += std::fabs(b[i] - ref[i]);
            }
        }
        EXPECT_LT(total / (64.0 * blocks.size()), 0.3);
    }
}

// Tables of one quantizer for all 64 positions.
struct Uniform {
    uint16_t recip[64], half[64], off[64];
    Uniform(int q, int offset) {
        for (int i = 0; i < 64; ++i) {
            recip[i] = static_cast<uint16_t>(16384 / q);
            half[i] = static_cast<uint16_t>(q >> 1);
            off[i] = static_cast<uint16_t>(offset);
        }
    }
};

TEST(EncQuant, Quantizers) {
    struct Case {
        int q, offset;  // offset: Q14 for the adaptive quantizer
        int16_t c;
        int16_t plain, adaptive;
    };
    const Case cases[] = {
        {16, 8192, 8, 1, 1},      {16, 8192, 7, 0, 0},        {16, 8192, -8, -1, -1},     {16, 8192, 0, 0, 0},
        {16, 0, 31, 2, 1},        {16, 8192, 30, 2, 2},       {3, 8192, 1100, 366, 367},  {3, 8192, -1100, -366, -367},
        {1, 0, -1000, -1000, -1000}, {1, 8192, 32767, 32767, 32767},
        // The plain quantizer saturates, the adaptive one keeps 16 bits.
        {1, 8192, -32768, -32767, -32768}, {255, 8192, -32768, -128, -128}, {2, 16383, 32767, 16384, 16384},
    };
    for (const kivoe_proc &k : kernel_sets()) {
        for (const Case &c : cases) {
            const Uniform t(c.q, c.offset);
            int16_t a[64] = {0}, b[64] = {0};
            a[37] = b[37] = c.c;
            EXPECT_EQ(k.quant(a, t.recip, t.half), c.plain != 0 ? 1 : 0) << c.c << " / " << c.q;
            EXPECT_EQ(a[37], c.plain) << c.c << " / " << c.q;
            k.quant_rdoq(b, t.recip, t.off);
            EXPECT_EQ(b[37], c.adaptive) << c.c << " / " << c.q << " offset " << c.offset;
        }
        // q = 1 passes every coefficient through and counts the non-zero ones.
        const Uniform one(1, 0);
        int16_t b[64], in[64];
        for (int i = 0; i < 64; ++i) in[i] = static_cast<int16_t>(i % 5 ? i * 331 - 9000 : 0);
        std::memcpy(b, in, sizeof(b));
        EXPECT_EQ(k.quant(b, one.recip, one.half), 64 - 13);
        EXPECT_EQ(0, std::memcmp(b, in, sizeof(b)));
        // Plain rounding two ways: the adaptive quantizer at 8192 and the
        // plain one at half a step differ by at most one level, and rarely.
        int differ = 0, total = 0;
        for (int q = 1; q <= 255; q += 2) {
            const Uniform t(q, 8192);
            for (int base = -1024; base <= 1024; base += 64) {
                int16_t x[64], y[64];
                for (int i = 0; i < 64; ++i) x[i] = y[i] = static_cast<int16_t>(base + i);
                k.quant(x, t.recip, t.half);
                k.quant_rdoq(y, t.recip, t.off);
                for (int i = 0; i < 64; ++i) {
                    ASSERT_LE(std::abs(x[i] - y[i]), 1) << "q " << q << " c " << base + i;
                    differ += x[i] != y[i];
                    ++total;
                }
            }
        }
        EXPECT_LT(differ * 20, total);
        EXPECT_GT(differ, 0);
    }
}

TEST(EncQuant, OffsetUpdate) {
    const Uniform t(16, 8192);
    uint16_t q[64];
    for (uint16_t &x : q) x = 16;
    struct Case {
        int16_t level, coef;
        int start, after;
    };
    const Case cases[] = {
        {2, 30, 8192, 8191},   // overshoot by 2: (2 * 1024) >> 11 = 1 down
        {-2, -30, 8192, 8191}, // the same below zero
        {1, 24, 4000, 4004},   // undershoot by half a step: 4 up
        {1, 8, 4000, 3996},    // overshoot by half a step: 4 down
        {0, 900, 5000, 5000},  // a zero level keeps its offset
        {1, 2000, 8190, 8192}, // clamped at 8192
        {-100, 0, 3, 0},       // clamped at 0
    };
    for (const Case &c : cases) {
        int16_t lv[64] = {0}, coef[64] = {0};
        uint16_t off[64];
        for (uint16_t &o : off) o = 1234;
        lv[9] = c.level;
        coef[9] = c.coef;
        off[9] = static_cast<uint16_t>(c.start);
        kivoe_update_offset(lv, coef, q, t.recip, off);
        EXPECT_EQ(off[9], c.after) << c.level << " " << c.coef;
        for (int i = 0; i < 64; ++i)
            if (i != 9) {
                EXPECT_EQ(off[i], 1234) << i;
            }
    }
    // A long run of random blocks with the adaptive quantizer never leaves
    // 0..8192.
    std::mt19937 rng(5);
    uint16_t off[64];
    for (uint16_t &o : off) o = 8192;
    for (int n = 0; n < 20000; ++n) {
        int16_t coef[64], lv[64];
        for (int i = 0; i < 64; ++i) coef[i] = static_cast<int16_t>(static_cast<int>(rng() % 4097) - 2048);
        std::memcpy(lv, coef, sizeof(lv));
        kivoe_quant_rdoq(lv, t.recip, off);
        kivoe_update_offset(lv, coef, q, t.recip, off);
        for (uint16_t o : off) ASSERT_LE(o, 8192);
    }
}

TEST(EncQuant, JndTables) {
    const int up[8] = {11, 30, 55, 84, 118, 155, 195, 239}, down[8] = {12, 32, 58, 88, 123, 161, 202, 247};
    const int lum_steps[8] = {12, 34, 63, 97, 129, 141, 185, 233};
    for (int c = 0; c < 256; ++c) {
        int a = 0, d = 0, k = 0;
        for (int s = 0; s < 8; ++s) {
            a += c >= up[s];
            d += c >= down[s];
            k += c >= lum_steps[s];
        }
        EXPECT_EQ(tbl_pblur_max[c], c + a > 255 ? 255 : c + a) << c;
        EXPECT_EQ(tbl_pblur_min[c], c - d) << c;
        EXPECT_EQ(tbl_suppr_lum[c], k) << c;
    }
    for (int r = 0; r < 8; ++r)
        for (int i = 0; i < 64; ++i) EXPECT_EQ(kivo_tbl_suppr_thr[64 * r + i], (tbl_inv_mtf[i] * (r + 1)) >> 12);
    const uint8_t kernel[5] = {1, 4, 6, 4, 1};
    EXPECT_EQ(0, std::memcmp(tbl_pblur_coeff, kernel, 5));
    // Thresholds from the DC: mean level 5 gives k = 0, 128 gives k = 4.
    uint8_t thr[64];
    kivoe_jnd_thresholds(-1024 + 8 * 5, thr);
    for (uint8_t x : thr) EXPECT_EQ(x, 0);
    kivoe_jnd_thresholds(0, thr);
    EXPECT_EQ(0, std::memcmp(thr, kivo_tbl_suppr_thr + 3 * 64, 64));
    kivoe_jnd_thresholds(1016, thr);  // white: k = 8
    EXPECT_EQ(0, std::memcmp(thr, kivo_tbl_suppr_thr + 7 * 64, 64));
}

TEST(EncQuant, JndFilter) {
    struct Case {
        const char *name;
        std::function<int(int y, int x)> plane;  // 12 lines, block at line 2
        int row, value;                          // an output row and its value (row -1: the input unchanged)
    };
    const Case cases[] = {
        {"flat", [](int, int) { return 77; }, -1, 0},
        {"above the edge", [](int y, int) { return y < 6 ? 128 : 168; }, 3, 130},
        {"two lines above", [](int y, int) { return y < 6 ? 128 : 168; }, 2, 128},
        {"below the edge", [](int y, int) { return y < 6 ? 128 : 168; }, 4, 166},
        {"ripple", [](int y, int) { return y % 2 ? 130 : 126; }, 5, 128},
        {"big ripple survives", [](int y, int) { return y % 2 ? 200 : 40; }, 5, 197},
    };
    for (const Case &c : cases) {
        std::vector<uint8_t> plane(16 * 12);
        for (int y = 0; y < 12; ++y)
            for (int x = 0; x < 16; ++x) plane[16 * y + x] = static_cast<uint8_t>(c.plane(y, x));
        int16_t blk[64];
        kivoe_jndfilt8x8(&plane[16 * 2 + 4], 16, blk);
        for (int i = 0; i < 64; ++i) {
            const int y = i / 8, src = plane[16 * (y + 2) + 4 + i % 8];
            if (c.row < 0) {
                EXPECT_EQ(blk[i], src) << c.name << " at " << i;
            } else if (y == c.row) {
                EXPECT_EQ(blk[i], c.value) << c.name << " at " << i;
            }
        }
    }
}

TEST(EncQuant, JndSuppression) {
    struct Case {
        const char *name;
        int16_t lv, coef;
        int q, thr;
        int16_t extra_ac;  // |level| of a second AC term (the block's AC sum)
        int16_t want;
    };
    const Case cases[] = {
        {"3 with q 4, C 10, T 6 becomes 2", 3, 10, 4, 6, 5, 2},
        {"negative", -3, -10, 4, 6, 5, -2},
        {"all the way to 0", 2, 9, 4, 10, 6, 0},
        {"AC sum 7 is left alone", 3, 10, 4, 6, 4, 3},
        {"threshold 0 keeps every level", 3, 10, 4, 0, 5, 3},
    };
    for (const Case &c : cases) {
        int16_t lv[64] = {0}, coef[64] = {0};
        uint16_t q[64];
        uint8_t thr[64];
        for (uint16_t &x : q) x = static_cast<uint16_t>(c.q);
        std::memset(thr, c.thr, sizeof(thr));
        lv[1] = c.lv;
        coef[1] = c.coef;
        lv[2] = c.extra_ac;  // reconstructed exactly, so never lowered
        coef[2] = static_cast<int16_t>(c.extra_ac * c.q + c.thr);
        kivoe_jnd_suppress(lv, coef, q, thr);
        EXPECT_EQ(lv[1], c.want) << c.name;
        EXPECT_EQ(lv[2], c.extra_ac) << c.name;
    }
    // The DC level counts for nothing in the sum but is suppressed too.
    int16_t lv[64] = {0}, coef[64] = {0};
    uint16_t q[64];
    uint8_t thr[64];
    for (uint16_t &x : q) x = 4;
    std::memset(thr, 6, sizeof(thr));
    lv[0] = 3;
    coef[0] = 10;
    lv[5] = 8;
    coef[5] = 32;
    kivoe_jnd_suppress(lv, coef, q, thr);
    EXPECT_EQ(lv[0], 2);
    EXPECT_EQ(lv[5], 7);  // |32 - 28| < 6, |32 - 24| is not
}

// A picture as the encoder holds it after a push, with line distances that
// differ from the widths (and between luma and chroma).
struct Picture {
    std::vector<uint8_t> y, c1, c2;
    kivo_picbuf pb{};
    int32_t format;

    // sample(plane, x, y) gives the content; plane 1 and 2 are Cb and Cr.
    Picture(int32_t f, int w, int h, const std::function<int(int, int, int)> &sample) : format(f) {
        pb.width = w;
        pb.height = h;
        const bool nv = f == XELO_CS_NV12 || f == XELO_CS_NV21;
        pb.width_c = f == XELO_CS_YCBCR444 ? w : w >> 1;
        pb.height_c = f == XELO_CS_YCBCR420 || nv ? h >> 1 : h;
        pb.stride_y = (f == XELO_CS_YUYV ? 2 * w : w) + 13;
        pb.stride_c = pb.width_c + 5;
        y.assign(static_cast<size_t>(pb.stride_y) * h, 0);
        pb.plane[0] = y.data();
        if (f == XELO_CS_YUYV) {
            for (int j = 0; j < h; ++j)
                for (int i = 0; i < w; ++i) {
                    uint8_t *p = &y[static_cast<size_t>(j) * pb.stride_y + 2 * i];
                    p[0] = static_cast<uint8_t>(sample(0, i, j));
                    p[1] = static_cast<uint8_t>(sample(i % 2 ? 2 : 1, i / 2, j));  // Cb, then Cr
                }
            pb.plane[1] = y.data() + 1;
            pb.plane[2] = y.data() + 3;
            return;
        }
        for (int j = 0; j < h; ++j)
            for (int i = 0; i < w; ++i) y[static_cast<size_t>(j) * pb.stride_y + i] = static_cast<uint8_t>(sample(0, i, j));
        if (f == XELO_CS_YCBCR400) return;
        if (nv) {  // one plane of pairs, with a line distance of its own
            pb.stride_c = pb.stride_y + 3;
            c1.assign(static_cast<size_t>(pb.stride_c) * pb.height_c, 0);
            const int first = f == XELO_CS_NV12 ? 1 : 2;
            for (int j = 0; j < pb.height_c; ++j)
                for (int i = 0; i < pb.width_c; ++i) {
                    c1[static_cast<size_t>(j) * pb.stride_c + 2 * i] = static_cast<uint8_t>(sample(first, i, j));
                    c1[static_cast<size_t>(j) * pb.stride_c + 2 * i + 1] = static_cast<uint8_t>(sample(3 - first, i, j));
                }
            pb.plane[first] = c1.data();
            pb.plane[3 - first] = c1.data() + 1;
            return;
        }
        for (int k = 1; k <= 2; ++k) {
            std::vector<uint8_t> &c = k == 1 ? c1 : c2;
            c.assign(static_cast<size_t>(pb.stride_c) * pb.height_c, 0);
            for (int j = 0; j < pb.height_c; ++j)
                for (int i = 0; i < pb.width_c; ++i) c[static_cast<size_t>(j) * pb.stride_c + i] = static_cast<uint8_t>(sample(k, i, j));
            pb.plane[k] = c.data();
        }
    }
};

// What the selection should find, from the content alone: whole blocks of
// 8 x 8 cells of s x s samples, each cell the mean of its corners.
struct Expected {
    uint64_t sum[2][64] = {};
    uint32_t blocks[2] = {};

    void add_plane(int comp, int cw, int ch, int level, const std::function<int(int, int)> &at) {
        const int s = 1 << level;
        for (int by = 0; by + 8 * s <= ch; by += 8 * s)
            for (int bx = 0; bx + 8 * s <= cw; bx += 8 * s) {
                int16_t b[64];
                for (int j = 0; j < 8; ++j)
                    for (int k = 0; k < 8; ++k) {
                        const int x0 = bx + k * s, y0 = by + j * s, x1 = x0 + s - 1, y1 = y0 + s - 1;
                        b[8 * j + k] = static_cast<int16_t>((at(x0, y0) + at(x1, y0) + at(x0, y1) + at(x1, y1)) >> 2);
                    }
                kivoe_fdct8(b);
                const int t = comp ? 1 : 0;
                sum[t][0] += static_cast<uint64_t>((b[0] + 1024) >> 3);
                for (int i = 1; i < 64; ++i) sum[t][i] += static_cast<uint64_t>(std::abs(b[i]));
                ++blocks[t];
            }
    }
};

TEST(EncQuant, PerceptualSelectionMatchesTheSampledStatistics) {
    std::mt19937 rng(3);
    std::vector<uint8_t> noise(4096);
    for (uint8_t &n : noise) n = static_cast<uint8_t>(rng());
    // Smooth fields with some texture, different per component.
    auto content = [&noise](int p, int x, int y) {
        const int v = 60 + 40 * p + ((x * (3 + p) + y * (5 - p)) & 63) + noise[(x * 31 + y * 17 + p * 7) & 4095] / 8;
        return v > 255 ? 255 : v;
    };
    const int32_t formats[] = {XELO_CS_YCBCR420, XELO_CS_YCBCR422, XELO_CS_YCBCR444, XELO_CS_YCBCR400,
                               XELO_CS_NV12,     XELO_CS_NV21,     XELO_CS_YUYV};
    int compared = 0;
    for (int32_t f : formats) {
        for (int level = 0; level <= 2; ++level) {
            const int w = 75 + 40 * level, h = 70 + 33 * level;  // partial blocks at the right and bottom
            Picture pic(f, w, h, content);
            Expected e;
            e.add_plane(0, w, h, level, [&](int x, int y) { return content(0, x, y); });
            if (f != XELO_CS_YCBCR400) {
                // YUYV: chroma blocks are counted on the luma width.
                const int cw = f == XELO_CS_YUYV ? w >> 1 : pic.pb.width_c;
                for (int k = 1; k <= 2; ++k)
                    e.add_plane(k, cw, pic.pb.height_c, level, [&](int x, int y) { return content(k, x, y); });
            }
            Enc enc(50);
            enc.ctx->pic_cur = &pic.pb;
            enc.ctx->color_format = f;
            const kivoe_qtbl chroma_before = enc.ctx->qtbl[1];
            uint8_t out[128];
            const int32_t status = kivoe_get_qtbl(enc.ctx, level, out);
            enc.ctx->pic_cur = nullptr;
            ASSERT_EQ(status, KIVO_OK) << "format " << f << " level " << level;
            uint32_t mean[2][64];
            for (int t = 0; t < 2; ++t)
                for (int i = 0; i < 64; ++i) mean[t][i] = e.blocks[t] ? static_cast<uint32_t>(e.sum[t][i] / e.blocks[t]) : 0;
            ASSERT_GT(e.blocks[0], 0u);
            const int base = tbl_thr[mean[0][0]];
            for (int t = 0; t < 2; ++t) {
                const kivoe_qtbl &got = enc.ctx->qtbl[t];
                if (t == 1 && f == XELO_CS_YCBCR400) {
                    // No chroma: the chroma table stays and is reported.
                    EXPECT_EQ(0, std::memcmp(&got, &chroma_before, sizeof(got)));
                } else {
                    int16_t q[64];
                    uint16_t recip[64], half[64];
                    kivo_gen_qtbl(q, recip, half, mean[t], base);
                    for (int i = 0; i < 64; ++i) {
                        ASSERT_EQ(got.q[i], q[i]) << "format " << f << " level " << level << " table " << t << " at " << i;
                        ASSERT_EQ(got.recip[i], recip[i]);
                        ASSERT_EQ(got.half[i], half[i]);
                    }
                }
                for (int i = 0; i < 64; ++i) ASSERT_EQ(out[64 * t + i], got.q[i]) << "output byte " << 64 * t + i;
            }
            ++compared;
        }
    }
    EXPECT_EQ(compared, 21);
}

TEST(EncQuant, PerceptualSelectionFigures) {
    struct Case {
        const char *name;
        int32_t format;
        int w, h, level;
        int value;  // flat luma (chroma 128); -1: a white top-left 16 x 16, the rest black
        int32_t status;
        int dc, q63;  // luma quantizers expected
    };
    const Case cases[] = {
        {"mid-grey: base 4", XELO_CS_YCBCR420, 64, 64, 0, 128, KIVO_OK, 3, 21},
        {"black: base 2", XELO_CS_YCBCR420, 64, 64, 0, 0, KIVO_OK, 1, 10},
        {"white: base 5", XELO_CS_YCBCR420, 64, 64, 0, 255, KIVO_OK, 3, 26},
        // 16 blocks at level 1: mean (255 + 15 * 0) / 16 = 15, base 2 (9 or 4
        // blocks would give a mean above 23).
        {"one of 16 blocks white", XELO_CS_YCBCR444, 64, 64, 1, -1, KIVO_OK, 1, 10},
        {"level 3: one block", XELO_CS_YCBCR444, 64, 64, 3, 200, KIVO_OK, 3, 26},
        {"level 3: no whole block", XELO_CS_YCBCR444, 63, 64, 3, 200, KIVO_ERR_UNAVAILABLE, 0, 0},
        {"chroma without a whole block", XELO_CS_YCBCR420, 64, 64, 3, 200, KIVO_ERR_UNAVAILABLE, 0, 0},
        {"YUYV chroma without a whole block", XELO_CS_YUYV, 120, 64, 3, 200, KIVO_ERR_UNAVAILABLE, 0, 0},
        {"level 13", XELO_CS_YCBCR444, 64, 64, 13, 200, KIVO_ERR_UNAVAILABLE, 0, 0},
        {"negative level", XELO_CS_YCBCR444, 64, 64, -1, 200, KIVO_ERR_INVALID_ARG, 0, 0},
    };
    for (const Case &c : cases) {
        Picture pic(c.format, c.w, c.h, [&c](int p, int x, int y) {
            if (p) return 128;
            return c.value >= 0 ? c.value : (x < 16 && y < 16 ? 255 : 0);
        });
        Enc enc(50);
        enc.ctx->pic_cur = &pic.pb;
        enc.ctx->color_format = c.format;
        kivoe_qtbl before[2];
        std::memcpy(before, enc.ctx->qtbl, sizeof(before));
        uint8_t out[128];
        std::memset(out, 0xEE, sizeof(out));
        const int32_t status = kivoe_get_qtbl(enc.ctx, c.level, out);
        enc.ctx->pic_cur = nullptr;
        ASSERT_EQ(status, c.status) << c.name;
        if (c.status != KIVO_OK) {
            EXPECT_EQ(0, std::memcmp(before, enc.ctx->qtbl, sizeof(before))) << c.name << ": tables kept";
            for (uint8_t b : out) ASSERT_EQ(b, 0xEE) << c.name << ": output untouched";
            continue;
        }
        EXPECT_EQ(enc.ctx->qtbl[0].q[0], c.dc) << c.name;
        EXPECT_EQ(enc.ctx->qtbl[0].q[63], c.q63) << c.name;
        // Flat chroma takes 3/4 of the same weighted base.
        EXPECT_EQ(enc.ctx->qtbl[1].q[63], c.q63) << c.name;
    }
    // Nothing pushed yet.
    Enc enc(50);
    uint8_t out[128];
    EXPECT_EQ(kivoe_get_qtbl(enc.ctx, 0, out), KIVO_ERR_UNAVAILABLE);
}

}  // namespace
