// Stream headers of the encoder byte for byte: SOI, APPn, SOF0, DQT, DHT,
// DRI and SOS, against T.81 (zig-zag order, Annex K tables) and exact
// figures; output memory too small for the header at every size.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <vector>

#include "encoder/kivoe_int.h"

namespace {

// T.81 Figure A.6: raster position of each zig-zag position.
const int kZigZag[64] = {0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  12, 19, 26, 33, 40, 48,
                         41, 34, 27, 20, 13, 6,  7,  14, 21, 28, 35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23,
                         30, 37, 44, 51, 58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

using Bytes = std::vector<uint8_t>;

struct Ctx {
    kivoe_ctx *ctx = static_cast<kivoe_ctx *>(std::calloc(1, sizeof(kivoe_ctx)));
    Ctx(int w, int h, int format) {
        kivoe_init_huff_tbl(ctx);
        kivoe_init_fh(&ctx->fh, w, h, format);
        kivoe_init_sh(&ctx->sh, w, h, format);
        for (int t = 0; t < 2; ++t) {
            ctx->qtbl[t].tq = static_cast<uint8_t>(t);
            for (int i = 0; i < 64; ++i) ctx->qtbl[t].q[i] = static_cast<uint16_t>(100 * t + i + 1);
        }
    }
    ~Ctx() { std::free(ctx); }

    // The header written into memory of the given size.
    Bytes header(int32_t size, int32_t *status = nullptr, int32_t *overflow = nullptr) {
        std::unique_ptr<uint8_t[]> mem(new uint8_t[static_cast<size_t>(size)]);
        xelo_bsw_init(&ctx->bs, mem.get(), size, kivoe_bs_flush);
        const int32_t st = kivoe_enc_header(ctx);
        if (status) *status = st;
        if (overflow) *overflow = ctx->bs.overflow;
        return Bytes(mem.get(), ctx->bs.write_ptr);
    }
};


// The 640 x 480 4:2:0 header with the typical tables, checked whole.
TEST(EncHeader, Format420Picture) {
    Ctx c(640, 480, XELO_CS_YCBCR420);
    int32_t status = 1;
    const Bytes s = c.header(4096, &status);
    EXPECT_EQ(status, 0);
    Bytes want = {0xFF, 0xD8, 0xFF, 0xC0, 0x00, 0x11, 0x08, 0x01, 0xE0, 0x02, 0x80, 0x03, 0x01, 0x22, 0x00,
                  0x02, 0x11, 0x01, 0x03, 0x11, 0x01, 0xFF, 0xDB, 0x00, 0x84};
    for (int t = 0; t < 2; ++t) {
        want.push_back(static_cast<uint8_t>(t));
        for (int k = 0; k < 64; ++k) want.push_back(static_cast<uint8_t>(100 * t + kZigZag[k] + 1));
    }
    ASSERT_GE(s.size(), want.size());
    EXPECT_TRUE(std::equal(want.begin(), want.end(), s.begin()));

    // DHT: T.81 Tables K.3 to K.6.
    size_t p = want.size();
    ASSERT_EQ(s.size(), p + 4 + 418 - 2 + 14);
    EXPECT_EQ(Bytes(s.begin() + p, s.begin() + p + 4), (Bytes{0xFF, 0xC4, 0x01, 0xA2}));
    p += 4;
    const struct {
        Bytes bits;   // class and identifier, then the counts of each length
        Bytes first;  // leading values
    } tables[] = {
        {{0x00, 0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},
        {{0x10, 0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7D},
         {0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61, 0x07}},
        {{0x01, 0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},
        {{0x11, 0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77},
         {0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61, 0x71}},
    };
    for (const auto &t : tables) {
        EXPECT_EQ(Bytes(s.begin() + p, s.begin() + p + 17), t.bits);
        int n = 0;
        for (int l = 1; l <= 16; ++l) n += t.bits[l];
        const Bytes vals(s.begin() + p + 17, s.begin() + p + 17 + n);
        EXPECT_TRUE(std::equal(t.first.begin(), t.first.end(), vals.begin())) << int(t.bits[0]);
        // Every baseline AC symbol once: EOB, ZRL, runs 0-15 of sizes 1-10.
        std::set<int> want_set = {0x00, 0xF0}, got(vals.begin(), vals.end());
        for (int r = 0; r < 16; ++r)
            for (int z = 1; z <= 10; ++z) want_set.insert(r << 4 | z);
        EXPECT_TRUE(!(t.bits[0] & 0x10) || got == want_set);
        p += 17 + n;
    }
    EXPECT_EQ(Bytes(s.begin() + p, s.end()),
              (Bytes{0xFF, 0xDA, 0x00, 0x0C, 0x03, 0x01, 0x00, 0x02, 0x11, 0x03, 0x11, 0x00, 0x3F, 0x00}));
}

// Frame and scan headers by colour format.
TEST(EncHeader, ComponentsByFormat) {
    const struct {
        int format, w, h;
        Bytes sof, sos;
    } cases[] = {
        {XELO_CS_YCBCR400, 16, 16, {0xFF, 0xC0, 0x00, 0x0B, 0x08, 0x00, 0x10, 0x00, 0x10, 0x01, 0x01, 0x11, 0x00},
         {0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00}},
        {XELO_CS_YCBCRK444, 16, 16,
         {0xFF, 0xC0, 0x00, 0x14, 0x08, 0x00, 0x10, 0x00, 0x10, 0x04, 0x01, 0x11, 0x00, 0x02, 0x11, 0x01, 0x03, 0x11,
          0x01, 0x04, 0x11, 0x00},
         {0xFF, 0xDA, 0x00, 0x0E, 0x04, 0x01, 0x00, 0x02, 0x11, 0x03, 0x11, 0x04, 0x00, 0x00, 0x3F, 0x00}},
        {XELO_CS_YCBCRK400, 65536 + 300, 2,
         {0xFF, 0xC0, 0x00, 0x14, 0x08, 0x00, 0x02, 0x01, 0x2C, 0x04, 0x01, 0x11, 0x00, 0x02, 0x00, 0x01, 0x03, 0x00,
          0x01, 0x04, 0x11, 0x00},
         {0xFF, 0xDA, 0x00, 0x0E, 0x04, 0x01, 0x00, 0x02, 0x11, 0x03, 0x11, 0x04, 0x00, 0x00, 0x3F, 0x00}},
    };
    for (const auto &k : cases) {
        Ctx c(k.w, k.h, k.format);
        const Bytes s = c.header(4096);
        // SOI and SOF0 first (no APPn); DQT, DHT (typical tables), SOS last.
        EXPECT_EQ(Bytes(s.begin(), s.begin() + 2), (Bytes{0xFF, 0xD8})) << k.format;
        EXPECT_EQ(Bytes(s.begin() + 2, s.begin() + 2 + k.sof.size()), k.sof) << k.format;
        const size_t dqt = 2 + k.sof.size();
        EXPECT_EQ(Bytes(s.begin() + dqt, s.begin() + dqt + 4), (Bytes{0xFF, 0xDB, 0x00, 0x84})) << k.format;
        EXPECT_EQ(Bytes(s.begin() + dqt + 134, s.begin() + dqt + 138), (Bytes{0xFF, 0xC4, 0x01, 0xA2})) << k.format;
        ASSERT_EQ(s.size(), dqt + 134 + 420 + k.sos.size()) << k.format;
        EXPECT_EQ(Bytes(s.end() - k.sos.size(), s.end()), k.sos) << k.format;
    }
}

// DRI between DHT and SOS; an optimised table that counted nothing goes
// into the DHT as sixteen zero counts.
TEST(EncHeader, RestartIntervalAndEmptyTable) {
    Ctx c(320, 240, XELO_CS_YCBCR420);
    c.ctx->rst_interval = 150;
    kivoe_huff_spec &s3 = c.ctx->huff_spec[3];
    std::memset(s3.bits, 0, sizeof(s3.bits));
    s3.count = 0;
    const Bytes s = c.header(4096);
    const Bytes marker = {0xFF, 0xC4};
    const size_t dht = static_cast<size_t>(std::search(s.begin(), s.end(), marker.begin(), marker.end()) - s.begin());
    ASSERT_LT(dht, s.size());
    EXPECT_EQ(s[dht + 2] << 8 | s[dht + 3], 0x100);  // 70 + 12 + 162 + 12
    const size_t last = dht + 2 + 0x100 - 17;
    EXPECT_EQ(s[last], 0x11);
    for (int l = 0; l < 16; ++l) EXPECT_EQ(s[last + 1 + l], 0) << l;
    EXPECT_EQ(Bytes(s.begin() + last + 17, s.begin() + last + 23), (Bytes{0xFF, 0xDD, 0x00, 0x04, 0x00, 0x96}));
    EXPECT_EQ(s[last + 23] << 8 | s[last + 24], 0xFFDA);
}

// APPn segments straight after SOI, up to the first node without data;
// the header in memory of every size up to what it needs: the bytes that
// fit are the header's first bytes and nothing lands past the end.
TEST(EncHeader, AppSegmentsAndSmallOutput) {
    Ctx c(48, 32, XELO_CS_YCBCR444);
    uint8_t d1[5] = {'E', 'x', 'i', 'f', 0}, d2[1] = {0};
    kivod_app_node n3{0xE3, 4, nullptr, nullptr};
    kivod_app_node n2{0xE2, 0, d2, &n3};
    kivod_app_node n1{0xE1, 5, d1, &n2};
    c.ctx->app_list = &n1;
    int32_t status = 1, overflow = 1;
    const Bytes whole = c.header(4096, &status, &overflow);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(overflow, 0);
    const Bytes head = {0xFF, 0xD8, 0xFF, 0xE1, 0x00, 0x07, 'E', 'x', 'i', 'f', 0x00, 0xFF, 0xE2, 0x00, 0x02, 0xFF, 0xC0};
    EXPECT_EQ(Bytes(whole.begin(), whole.begin() + head.size()), head);
    const int32_t need = static_cast<int32_t>(whole.size());
    for (int32_t size = 0; size <= need; ++size) {
        const Bytes s = c.header(size, &status, &overflow);
        ASSERT_EQ(static_cast<int32_t>(s.size()), size) << size;
        ASSERT_TRUE(std::equal(s.begin(), s.end(), whole.begin())) << size;
        ASSERT_EQ(overflow, size < need ? 1 : 0) << size;
        ASSERT_EQ(status < 0, size < need) << size;
    }
}

}  // namespace
