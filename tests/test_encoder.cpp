// Encoder building blocks against exact figures: quality and perceptual
// tables, forward DCT, both quantizers, the offset update, the JND filter
// and suppression, default Huffman codes, optimal tables, header bytes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "decoder/kivod_int.h"
#include "encoder/kivoe_int.h"

namespace {

struct Enc {
    kivoe_ctx *ctx;
    explicit Enc(int quality = 90, int32_t cs = XELO_CS_YCBCR420, kivo_tpool *pool = nullptr) {
        kivoe_create_param p{1, 64, 48, quality, cs, pool};
        ctx = kivoe_create(&p, nullptr);
    }
    ~Enc() { kivoe_delete(ctx); }
};

TEST(Encoder, CreationAndConfiguration) {
    struct Case {
        int platform, quality;
        int32_t status;
    };
    const int32_t live = xelo_mem_live();
    for (const Case &c : {Case{2, 50, KIVO_ERR_UNSUPPORTED}, Case{1, 101, KIVO_ERR_INVALID_ARG},
                          Case{1, -1, KIVO_ERR_INVALID_ARG}}) {
        kivoe_create_param p{c.platform, 16, 16, c.quality, 11, nullptr};
        int32_t status = 0;
        EXPECT_EQ(kivoe_create(&p, &status), nullptr);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(xelo_mem_live(), live);
    }
    Enc e;
    ASSERT_NE(e.ctx, nullptr);
    EXPECT_NE(e.ctx->job[0], nullptr);
    EXPECT_EQ(e.ctx->job[1], nullptr);
    const int32_t v = 1, four = 4, two = 2, s127 = 127;
    uint8_t q[128] = {0};
    EXPECT_EQ(kivoe_config(e.ctx, 21004, &v, &four), KIVO_ERR_UNSUPPORTED);
    EXPECT_EQ(kivoe_config(e.ctx, 99999, &v, &four), KIVO_ERR_UNSUPPORTED);
    EXPECT_EQ(kivoe_config(e.ctx, KIVOE_CFG_QUALITY, &v, &two), KIVO_ERR_INVALID_ARG);
    EXPECT_EQ(kivoe_config(e.ctx, KIVOE_CFG_QTBL, q, &s127), KIVO_ERR_INVALID_ARG);
    EXPECT_EQ(kivoe_config(nullptr, KIVOE_CFG_OPT_HUFFMAN, &v, &four), KIVO_ERR_INVALID_ARG);
    // A zero quantizer byte becomes 1; 16 gives recip 1024 and half 8.
    for (int i = 0; i < 128; ++i) q[i] = i == 5 ? 0 : 16;
    const int32_t s128 = 128;
    ASSERT_EQ(kivoe_config(e.ctx, KIVOE_CFG_QTBL, q, &s128), 0);
    EXPECT_EQ(e.ctx->qtbl[0].q[5], 1);
    EXPECT_EQ(e.ctx->qtbl[0].recip[5], 16384);
    EXPECT_EQ(e.ctx->qtbl[1].q[63], 16);
    EXPECT_EQ(e.ctx->qtbl[1].recip[63], 1024);
    EXPECT_EQ(e.ctx->qtbl[1].half[63], 8);
    // A decoder handle is not an encoder.
    kivod_ctx *dec = kivod_create(nullptr, nullptr);
    kivoe_delete(reinterpret_cast<kivoe_ctx *>(dec));
    EXPECT_EQ(kivoe_config(reinterpret_cast<kivoe_ctx *>(dec), KIVOE_CFG_OPT_HUFFMAN, &v, &four), KIVO_ERR_INVALID_ARG);
    kivod_delete(dec);
}

TEST(Encoder, QualityTables) {
    struct Case {
        int quality, table, index;
        int q, recip, half;
    };
    const Case cases[] = {
        {100, 0, 0, 1, 16384, 0}, {100, 1, 63, 1, 16384, 0}, {0, 0, 0, 1, 16384, 0}, {0, 0, 63, 15, 1092, 7},
        {90, 0, 63, 15, 1092, 7}, {1, 0, 63, 148, 110, 74},  {1, 1, 63, 255, 64, 127}, {50, 0, 0, 5, 3276, 2},
        {50, 1, 1, 15, 1092, 7},  {0, 1, 1, 3, 5461, 1},     {0, 1, 8, 3, 5461, 1},     {0, 0, 6, 7, 2340, 3},
    };
    for (const Case &c : cases) {
        Enc e(c.quality);
        ASSERT_NE(e.ctx, nullptr);
        const kivoe_qtbl &t = e.ctx->qtbl[c.table];
        EXPECT_EQ(t.q[c.index], c.q) << "quality " << c.quality << " table " << c.table << " at " << c.index;
        EXPECT_EQ(t.recip[c.index], c.recip) << c.quality;
        EXPECT_EQ(t.half[c.index], c.half) << c.quality;
        EXPECT_EQ(t.tq, c.table);
    }
    Enc e(90);
    const int32_t four = 4, bad = 101;
    EXPECT_EQ(kivoe_config(e.ctx, KIVOE_CFG_QUALITY, &bad, &four), KIVO_ERR_INVALID_ARG);
    EXPECT_EQ(e.ctx->qtbl[0].q[63], 15);  // unchanged
}

TEST(Encoder, PerceptualTable) {
    int16_t q[64];
    uint16_t recip[64], half[64];
    uint32_t stat[64] = {0};
    kivo_gen_qtbl(q, recip, half, stat, 2);
    EXPECT_EQ(q[1], 1);   // b = 2, t = 1
    EXPECT_EQ(q[63], 10); // b = 14, t = 10
    EXPECT_EQ(recip[63], 1638);
    EXPECT_EQ(half[63], 5);
    // Busy pictures get the full base, never more; DC always 3/4 of it.
    for (uint32_t &s : stat) s = 10000;
    kivo_gen_qtbl(q, recip, half, stat, 5);
    EXPECT_EQ(q[63], 35);
    EXPECT_EQ(q[0], 3 * 5 / 4);
    for (int i = 1; i < 64; ++i) EXPECT_EQ(q[i], (tbl_inv_mtf[i] * 5) >> 12) << i;
    // Mid-grey: mean 128, base 4: DC 3 and [7][7] 21.
    std::memset(stat, 0, sizeof(stat));
    kivo_gen_qtbl(q, recip, half, stat, tbl_thr[128]);
    EXPECT_EQ(tbl_thr[128], 4);
    EXPECT_EQ(q[0], 3);
    EXPECT_EQ(q[63], 21);
    EXPECT_EQ(tbl_thr[0], 2);
    EXPECT_EQ(tbl_thr[255], 5);
}

// Double-precision T.81 forward DCT of a level-shifted block.
void reference_fdct(const int16_t *in, double *out) {
    for (int v = 0; v < 8; ++v)
        for (int u = 0; u < 8; ++u) {
            double s = 0;
            for (int y = 0; y < 8; ++y)
                for (int x = 0; x < 8; ++x)
                    s += (in[8 * y + x] - 128) * std::cos((2 * x + 1) * u * M_PI / 16) * std::cos((2 * y + 1) * v * M_PI / 16);
            out[8 * v + u] = 0.25 * (u ? 1 : M_SQRT1_2) * (v ? 1 : M_SQRT1_2) * s;
        }
}

TEST(Encoder, ForwardDct) {
    struct Flat {
        int sample, dc;
    };
    for (const Flat &f : {Flat{128, 0}, Flat{255, 1016}, Flat{0, -1024}}) {
        int16_t b[64];
        for (int16_t &x : b) x = static_cast<int16_t>(f.sample);
        kivoe_fdct8(b);
        EXPECT_EQ(b[0], f.dc);
        for (int i = 1; i < 64; ++i) EXPECT_EQ(b[i], 0) << f.sample << " at " << i;
    }
    int16_t ramp[64];
    for (int i = 0; i < 64; ++i) ramp[i] = static_cast<int16_t>(40 + 20 * (i % 8));
    kivoe_fdct8(ramp);
    for (int i = 8; i < 64; ++i) EXPECT_EQ(ramp[i], 0) << i;
    srand(7);
    for (int n = 0; n < 500; ++n) {
        int16_t b[64];
        for (int16_t &x : b) x = static_cast<int16_t>(rand() % 256);
        double ref[64];
        reference_fdct(b, ref);
        kivoe_fdct8(b);
        for (int i = 0; i < 64; ++i) ASSERT_LT(std::fabs(b[i] - ref[i]), 1.0) << i;
    }
}

TEST(Encoder, Quantizers) {
    int16_t b[64] = {0};
    uint16_t recip[64], half[64], off[64];
    for (int i = 0; i < 64; ++i) {
        recip[i] = 1024;  // q = 16
        half[i] = 8;
        off[i] = 8192;
    }
    const int16_t in[6] = {8, 7, -8, 0, 30, 31};
    const int16_t plain[6] = {1, 0, -1, 0, 2, 2};
    std::memcpy(b, in, sizeof(in));
    EXPECT_EQ(kivoe_quant(b, recip, half), 4);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(b[i], plain[i]) << i;
    // q = 1 passes coefficients through.
    int16_t ident[64];
    uint16_t r1[64], h0[64] = {0};
    for (int i = 0; i < 64; ++i) {
        ident[i] = static_cast<int16_t>(i * 37 - 1000);
        r1[i] = 16384;
    }
    int16_t copy[64];
    std::memcpy(copy, ident, sizeof(copy));
    kivoe_quant(ident, r1, h0);
    EXPECT_EQ(0, std::memcmp(ident, copy, sizeof(copy)));
    // Adaptive quantizer: offset after the product; 0 truncates.
    int16_t c[64] = {0};
    c[0] = 31;
    c[1] = 1100;
    uint16_t rq[64];
    for (int i = 0; i < 64; ++i) rq[i] = 1024;
    rq[1] = 5461;  // q = 3
    uint16_t zero[64] = {0};
    int16_t t[64];
    std::memcpy(t, c, sizeof(t));
    kivoe_quant_rdoq(t, rq, zero);
    EXPECT_EQ(t[0], 1);
    std::memcpy(t, c, sizeof(t));
    kivoe_quant_rdoq(t, rq, off);
    EXPECT_EQ(t[1], 367);
    uint16_t h3[64];
    for (int i = 0; i < 64; ++i) h3[i] = i == 1 ? 1 : 8;
    std::memcpy(t, c, sizeof(t));
    kivoe_quant(t, rq, h3);
    EXPECT_EQ(t[1], 366);
    // Offset update: coefficient 30, q 16, level 2: error -2 moves it down 1.
    int16_t lv[64] = {0}, coef[64] = {0};
    uint16_t q16[64];
    for (int i = 0; i < 64; ++i) q16[i] = 16;
    lv[3] = 2;
    coef[3] = 30;
    uint16_t o[64];
    for (uint16_t &x : o) x = 8192;
    kivoe_update_offset(lv, coef, q16, recip, o);
    EXPECT_EQ(o[3], 8191);
    EXPECT_EQ(o[4], 8192);
    // Offsets stay within 0..8192 however far the errors push them.
    for (int n = 0; n < 20000; ++n) {
        lv[3] = 1;
        coef[3] = static_cast<int16_t>(n % 2 ? 2000 : -2000);
        kivoe_update_offset(lv, coef, q16, recip, o);
        ASSERT_LE(o[3], 8192);
    }
}

TEST(Encoder, JndFilterAndSuppression) {
    EXPECT_EQ(tbl_pblur_max[250], 255);
    EXPECT_EQ(tbl_pblur_min[0], 0);
    EXPECT_EQ(tbl_pblur_max[128], 133);
    // A plane 12 lines high: lines 0..5 at 128, 6..11 at 168; the block
    // starts at line 2, so its lines 0..3 lie above the edge.
    std::vector<uint8_t> plane(8 * 12);
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 8; ++x) plane[8 * y + x] = y < 6 ? 128 : 168;
    int16_t blk[64];
    kivoe_jndfilt8x8(&plane[8 * 2], 8, blk);
    EXPECT_EQ(blk[0], 128);       // two lines above the edge: untouched
    EXPECT_EQ(blk[8 * 3], 130);   // just above: 168 clamped to 133
    // Lines alternating 126 / 130 smooth to 128.
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 8; ++x) plane[8 * y + x] = y % 2 ? 130 : 126;
    kivoe_jndfilt8x8(&plane[8 * 2], 8, blk);
    for (int i = 0; i < 64; ++i) EXPECT_EQ(blk[i], 128) << i;

    uint8_t thr[64];
    kivoe_jnd_thresholds(-1024 + 8 * 5, thr);  // mean level 5: k = 0
    for (uint8_t t : thr) EXPECT_EQ(t, 0);
    kivoe_jnd_thresholds(0, thr);  // mean 128: k = 4
    for (int i = 0; i < 64; ++i) EXPECT_EQ(thr[i], kivo_tbl_suppr_thr[3 * 64 + i]);
    // Level 3, q 4, C 10, T 6: becomes 2. Blocks with AC sum 7 are untouched.
    int16_t lv[64] = {0}, coef[64] = {0};
    uint16_t q[64];
    for (uint16_t &x : q) x = 4;
    std::memset(thr, 6, sizeof(thr));
    lv[1] = 3;
    coef[1] = 10;
    lv[2] = 4;
    coef[2] = 16;
    int16_t kept[64];
    std::memcpy(kept, lv, sizeof(kept));
    kivoe_jnd_suppress(lv, coef, q, thr);
    EXPECT_EQ(0, std::memcmp(lv, kept, sizeof(kept)));
    lv[2] = 5;
    coef[2] = 20;
    kivoe_jnd_suppress(lv, coef, q, thr);
    EXPECT_EQ(lv[1], 2);
}

TEST(Encoder, DefaultAndOptimalHuffmanTables) {
    Enc e;
    const kivoe_dc_tbl &dc = e.ctx->dc_tbl[0];
    EXPECT_EQ(dc.code[0].code, 0);
    EXPECT_EQ(dc.code[0].len, 2);
    EXPECT_EQ(dc.code[11].code, 0x1FE);
    EXPECT_EQ(dc.code[11].len, 9);
    const kivoe_ac_tbl &ac = e.ctx->ac_tbl[0];
    EXPECT_EQ(ac.by_symbol[0x00].code, 0xA);
    EXPECT_EQ(ac.by_symbol[0x00].len, 4);
    EXPECT_EQ(ac.by_symbol[0xF0].code, 0x7F9);
    EXPECT_EQ(ac.by_symbol[0xF0].len, 11);

    // Only category 0 seen: one 1-bit code. Fibonacci counts: limited to 16
    // bits with every symbol kept. No counts at all: an empty table.
    std::memset(e.ctx->dc_tbl[0].counter, 0, sizeof(e.ctx->dc_tbl[0].counter));
    e.ctx->dc_tbl[0].counter[0] = 500;
    uint64_t a = 1, b = 1;
    for (int s = 0; s < 40; ++s) {
        e.ctx->ac_tbl[0].counter[s] = a;
        const uint64_t c = a + b;
        a = b;
        b = c > 900000000 ? 900000000 : c;
    }
    kivoe_opt_huff_tbl(e.ctx);
    const kivoe_huff_spec &sdc = e.ctx->huff_spec[0];
    EXPECT_EQ(sdc.bits[0], 1);
    EXPECT_EQ(sdc.count, 1);
    EXPECT_EQ(sdc.vals[0], 0);
    const kivoe_huff_spec &sac = e.ctx->huff_spec[1];
    int sum = 0;
    for (int l = 0; l < 16; ++l) sum += sac.bits[l];
    EXPECT_EQ(sum, 40);
    EXPECT_EQ(sac.count, 40);
    const kivoe_huff_spec &schroma = e.ctx->huff_spec[3];
    for (int l = 0; l < 16; ++l) EXPECT_EQ(schroma.bits[l], 0);
    EXPECT_EQ(schroma.count, 0);
    // The optimal tables are prefix codes our decoder accepts.
    for (int i = 0; i < 3; ++i) {
        kivod_htbl_spec spec{};
        spec.cls = static_cast<uint8_t>(e.ctx->huff_spec[i].cls);
        spec.id = static_cast<uint8_t>(e.ctx->huff_spec[i].id);
        spec.count = static_cast<uint16_t>(e.ctx->huff_spec[i].count);
        for (int l = 0; l < 16; ++l) spec.bits[l] = static_cast<uint8_t>(e.ctx->huff_spec[i].bits[l]);
        for (int k = 0; k < spec.count; ++k) spec.vals[k] = static_cast<uint8_t>(e.ctx->huff_spec[i].vals[k]);
        static kivod_dc_tbl dct[4];
        static kivod_ac_tbl act[4];
        EXPECT_EQ(kivod_build_htbl(&spec, dct, act), 0) << i;
    }
}

std::vector<uint8_t> header_of(int32_t cs, int w, int h, int threads) {
    kivo_tpool pool;
    kivo_tpool_std(&pool, threads);
    kivoe_create_param p{1, w, h, 0, cs, &pool};
    kivoe_ctx *ctx = kivoe_create(&p, nullptr);
    const uint32_t al[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
    const uint32_t pad[4] = {0, 0, 0, 0};
    xelo_imgb *img = xelo_imgb_create(w, h, cs, 3, al, pad, 0, 0, 0);
    for (int i = 0; i < 4; ++i)
        if (img->plane[i]) std::memset(img->plane[i], 100, static_cast<size_t>(img->stride[i]) * img->lines[i]);
    std::vector<uint8_t> out(1 << 20);
    xelo_bitb b{};
    b.addr = out.data();
    b.ssize = static_cast<int32_t>(out.size());
    kivoe_output o{KIVOD_INPUT_BITB, &b, nullptr};
    int32_t written = 0;
    EXPECT_EQ(kivoe_push(ctx, img), 0);
    EXPECT_EQ(kivoe_encode(ctx, &o, &written), 0);
    out.resize(written);
    img->release(img);
    kivoe_delete(ctx);
    return out;
}

bool has_bytes(const std::vector<uint8_t> &s, size_t at, std::vector<uint8_t> want) {
    return at + want.size() <= s.size() && std::equal(want.begin(), want.end(), s.begin() + at);
}

TEST(Encoder, HeaderBytes) {
    const auto s = header_of(XELO_CS_YCBCR420, 640, 480, 1);
    ASSERT_TRUE(has_bytes(s, 0, {0xFF, 0xD8, 0xFF, 0xC0, 0x00, 0x11, 0x08, 0x01, 0xE0, 0x02, 0x80, 0x03, 0x01, 0x22,
                                 0x00, 0x02, 0x11, 0x01, 0x03, 0x11, 0x01}));
    ASSERT_TRUE(has_bytes(s, 21, {0xFF, 0xDB, 0x00, 0x84, 0x00}));
    ASSERT_TRUE(has_bytes(s, 21 + 4 + 65, {0x01}));
    const size_t dht = 21 + 4 + 130;
    ASSERT_TRUE(has_bytes(s, dht, {0xFF, 0xC4, 0x01, 0xA2, 0x00}));
    ASSERT_TRUE(has_bytes(s, dht + 4 + 17 + 12, {0x10}));
    const size_t sos = dht + 2 + 0x1A2;
    ASSERT_TRUE(has_bytes(s, sos, {0xFF, 0xDA, 0x00, 0x0C, 0x03, 0x01, 0x00, 0x02, 0x11, 0x03, 0x11, 0x00, 0x3F, 0x00}));

    const auto g = header_of(XELO_CS_YCBCR400, 16, 16, 1);
    ASSERT_TRUE(has_bytes(g, 2, {0xFF, 0xC0, 0x00, 0x0B, 0x08, 0x00, 0x10, 0x00, 0x10, 0x01, 0x01, 0x11, 0x00}));
    const size_t gsos = 2 + 13 + 134 + 2 + 0x1A2;
    ASSERT_TRUE(has_bytes(g, gsos, {0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00}));

    const auto k = header_of(XELO_CS_YCBCRK444, 16, 16, 1);
    ASSERT_TRUE(has_bytes(k, 2, {0xFF, 0xC0, 0x00, 0x14, 0x08, 0x00, 0x10, 0x00, 0x10, 0x04, 0x01, 0x11, 0x00, 0x02,
                                 0x11, 0x01, 0x03, 0x11, 0x01, 0x04, 0x11, 0x00}));
    const size_t ksos = 2 + 22 + 134 + 2 + 0x1A2;
    ASSERT_TRUE(has_bytes(k, ksos, {0xFF, 0xDA, 0x00, 0x0E, 0x04, 0x01, 0x00, 0x02, 0x11, 0x03, 0x11, 0x04, 0x00}));

    // Two threads on 300 MCUs: an interval of 150 in a DRI before the SOS.
    const auto d = header_of(XELO_CS_YCBCR420, 320, 240, 2);
    ASSERT_TRUE(has_bytes(d, sos, {0xFF, 0xDD, 0x00, 0x04, 0x00, 0x96, 0xFF, 0xDA}));
}

// The statistics pass writes nothing into the caller's memory, and its
// counts add up over the pictures a handle encodes.
TEST(Encoder, StatisticsPass) {
    Enc e(75);
    const int32_t four = 4, on = 1;
    kivoe_config(e.ctx, KIVOE_CFG_OPT_HUFFMAN, &on, &four);
    const uint32_t al[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
    const uint32_t pad[4] = {0, 0, 0, 0};
    xelo_imgb *img = xelo_imgb_create(64, 48, XELO_CS_YCBCR420, 3, al, pad, 0, 0, 0);
    for (int p = 0; p < 3; ++p)
        for (int i = 0; i < img->stride[p] * img->lines[p]; ++i) img->plane[p][i] = static_cast<uint8_t>((i * 13) ^ (i >> 4));
    std::vector<uint8_t> out(65536, 0xA5);
    xelo_bitb b{};
    b.addr = out.data();
    b.ssize = static_cast<int32_t>(out.size());
    kivoe_output o{KIVOD_INPUT_BITB, &b, nullptr};
    int32_t written = 0;
    auto total = [&e] {
        uint64_t n = 0;
        for (uint64_t c : e.ctx->ac_tbl[0].counter) n += c;
        return n;
    };
    const uint64_t before = total();
    ASSERT_EQ(kivoe_push(e.ctx, img), 0);
    ASSERT_EQ(kivoe_encode(e.ctx, &o, &written), 0);
    const uint64_t first = total() - before;
    EXPECT_GT(first, 0u);
    for (size_t i = written; i < out.size(); ++i) ASSERT_EQ(out[i], 0xA5) << i;
    EXPECT_EQ(out[0], 0xFF);
    EXPECT_EQ(out[3], 0xC0);  // the header follows straight after SOI
    ASSERT_EQ(kivoe_push(e.ctx, img), 0);
    ASSERT_EQ(kivoe_encode(e.ctx, &o, &written), 0);
    EXPECT_EQ(total() - before, 2 * first);
    img->release(img);
}

TEST(Encoder, PushChecks) {
    Enc e;
    const uint32_t al[4] = {XELO_PAIR(1, 1), XELO_PAIR(1, 1), XELO_PAIR(1, 1), XELO_PAIR(1, 1)};
    const uint32_t pad[4] = {0, 0, 0, 0};
    xelo_imgb *img = xelo_imgb_create(40, 20, XELO_CS_YCBCR420, 3, al, pad, 0, 0, 0);
    // A stride that is not a multiple of 16 is copied; an aligned one is not.
    ASSERT_EQ(kivoe_push(e.ctx, img), 0);
    EXPECT_NE(e.ctx->pic_cur->plane[0], img->plane[0]);
    const int32_t w = img->width;
    img->width = 0;
    EXPECT_EQ(kivoe_push(e.ctx, img), KIVO_ERR_INVALID_ARG);
    img->width = w;
    const int32_t cs = img->color_format;
    for (int32_t bad : {9, 200}) {
        img->color_format = bad;
        EXPECT_EQ(kivoe_push(e.ctx, img), KIVO_ERR_COLOR_FORMAT);
    }
    img->color_format = cs;
    xelo_imgb *nv12 = xelo_imgb_create(40, 20, XELO_CS_NV12, 3, al, pad, 0, 0, 0);
    ASSERT_EQ(kivoe_push(e.ctx, nv12), 0);  // taken here, refused at encode
    std::vector<uint8_t> out(4096);
    xelo_bitb b{};
    b.addr = out.data();
    b.ssize = static_cast<int32_t>(out.size());
    kivoe_output o{KIVOD_INPUT_BITB, &b, nullptr};
    int32_t written = 0;
    EXPECT_EQ(kivoe_encode(e.ctx, &o, &written), KIVO_ERR_COLOR_FORMAT);
    b.ssize = 0;
    EXPECT_EQ(kivoe_encode(e.ctx, &o, &written), KIVO_ERR_INVALID_ARG);
    nv12->release(nv12);
    img->release(img);
}

}  // namespace
