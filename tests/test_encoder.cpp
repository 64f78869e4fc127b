// Encoder handle, configuration and input checks and the statistics pass.
// Kernels are checked in test_enc_quant.cpp, the entropy coder and Huffman
// tables in test_enc_vlc.cpp, headers in test_enc_header.cpp.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "decoder/kivod_int.h"
#include "encoder/kivoe_int.h"
#include "support/kivo_encode.h"
#include "xelo/xelo_hooks.h"

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

// The statistics pass writes nothing into the caller's memory, and its
// counts add up over the pictures a handle encodes.
TEST(Encoder, StatisticsPass) {
    Enc e(75);
    const int32_t four = 4, on = 1;
    kivoe_config(e.ctx, KIVOE_CFG_OPT_HUFFMAN, &on, &four);
    xelo_imgb *img = kivotest::to_imgb(XELO_CS_YCBCR420, 64, 48, kivotest::make_picture(XELO_CS_YCBCR420, 64, 48, 2));
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
    EXPECT_EQ(out[3], 0xC0);  // the header follows straight after SOI
    ASSERT_EQ(kivoe_push(e.ctx, img), 0);
    ASSERT_EQ(kivoe_encode(e.ctx, &o, &written), 0);
    EXPECT_EQ(total() - before, 2 * first);
    img->release(img);
}

TEST(Encoder, PushChecks) {
    Enc e;
    const auto planes = kivotest::make_picture(XELO_CS_YCBCR420, 40, 20, 1);
    // A stride that is not a multiple of 16 is copied; an aligned one is not.
    xelo_imgb *img = kivotest::to_imgb(XELO_CS_YCBCR420, 40, 20, planes);
    ASSERT_EQ(kivoe_push(e.ctx, img), 0);
    EXPECT_EQ(e.ctx->pic_cur->plane[0], img->plane[0]);
    img->release(img);
    img = kivotest::to_imgb(XELO_CS_YCBCR420, 40, 20, planes, true);
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
    xelo_imgb *nv12 = kivotest::to_imgb(XELO_CS_NV12, 40, 20, kivotest::make_picture(XELO_CS_NV12, 40, 20, 1));
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

// Planes whose line distances differ (a margin on one plane only) are
// read as they are: quantizer selection and stream equal those of the same
// picture in a buffer whose planes share their line distances.
TEST(Encoder, UnequalLineDistances) {
    struct Run {
        int32_t push, qt, enc;
        std::vector<uint8_t> bytes;
    };
    auto run = [](int32_t f, xelo_imgb *img) {
        Enc e(90, f);
        Run r;
        r.bytes.resize(1 << 17);
        r.push = kivoe_push(e.ctx, img);
        r.qt = kivoe_get_qtbl(e.ctx, 0, r.bytes.data());
        xelo_bitb b{};
        b.addr = r.bytes.data() + 128;
        b.ssize = static_cast<int32_t>(r.bytes.size() - 128);
        kivoe_output o{KIVOD_INPUT_BITB, &b, nullptr};
        int32_t written = 0;
        r.enc = kivoe_encode(e.ctx, &o, &written);
        r.bytes.resize(128 + static_cast<size_t>(written));
        img->release(img);
        return r;
    };
    const uint32_t m = XELO_PAIR(32, 32);
    const uint32_t pads[4][4] = {{m, 0, 0, 0}, {0, m, 0, 0}, {0, 0, XELO_PAIR(16, 16), 0}, {0, 0, 0, m}};
    for (int32_t f : {10, 11, 12, 13, 18, 22, 40, 41, 42, 43, 44, 16, 17, 101}) {
        const auto planes = kivotest::make_picture(f, 217, 125, static_cast<uint64_t>(f));
        const Run ref = run(f, kivotest::to_imgb(f, 217, 125, planes));
        ASSERT_EQ(ref.push, 0) << f;
        ASSERT_EQ(ref.qt, 0) << f;
        EXPECT_EQ(ref.enc, f == 16 || f == 17 || f == 101 ? KIVO_ERR_COLOR_FORMAT : 0) << f;
        for (const uint32_t *pad : pads) {
            const Run got = run(f, kivotest::to_imgb(f, 217, 125, planes, false, pad));
            EXPECT_EQ(got.push, ref.push) << f;
            EXPECT_EQ(got.qt, ref.qt) << f;
            EXPECT_EQ(got.enc, ref.enc) << f;
            EXPECT_TRUE(got.bytes == ref.bytes) << "format " << f << " margin on plane " << (&pad[0] - &pads[0][0]) / 4;
        }
    }
}

}  // namespace
