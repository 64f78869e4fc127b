// Encoder handle, configuration and input checks, default Huffman codes,
// optimal tables, header bytes and the statistics pass. The transform and
// quality-control kernels are checked in test_enc_quant.cpp.
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
