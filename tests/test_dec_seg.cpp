// Marker segment parsers, fed segment bodies in exactly sized buffers.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "decoder/kivod_int.h"

namespace {

struct Mem {
    std::unique_ptr<uint8_t[]> data;
    xelo_bitb bitb{};
    kivod_bs bs{};
    explicit Mem(const std::vector<uint8_t> &b) : data(new uint8_t[b.size()]) {
        std::copy(b.begin(), b.end(), data.get());
        bitb.addr = data.get();
        bitb.ssize = static_cast<int32_t>(b.size());
        kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
        EXPECT_EQ(kivod_bs_init(&bs, &in), 0);
    }
    size_t offset() const { return static_cast<size_t>(bs.cur - bs.start); }
};

std::vector<uint8_t> dqt_table(int pq, int tq, int first) {
    std::vector<uint8_t> s = {static_cast<uint8_t>(pq << 4 | tq)};
    for (int k = 0; k < 64; ++k) {
        if (pq) s.push_back(static_cast<uint8_t>((first + k) >> 8));
        s.push_back(static_cast<uint8_t>(first + k));
    }
    return s;
}

TEST(DecSeg, QuantizationTables) {
    auto qt = std::make_unique<kivod_qtbl[]>(4);
    uint8_t unit[4] = {9, 9, 9, 9};
    // Two 8-bit tables in one segment.
    std::vector<uint8_t> s = {0, 132};
    for (int id : {0, 1}) {
        auto t = dqt_table(0, id, 10 * id + 1);
        s.insert(s.end(), t.begin(), t.end());
    }
    Mem two(s);
    ASSERT_EQ(kivod_vld_qtbl(&two.bs, qt.get(), unit, 0), 0);
    EXPECT_EQ(two.offset(), s.size());
    EXPECT_EQ(qt[0].q[5], 6);
    EXPECT_EQ(qt[1].q[63], 74);
    EXPECT_EQ(qt[1].q_copy[63], 74);
    EXPECT_EQ(qt[1].length, 132);
    // One 16-bit table stored through the zig-zag order.
    s = {0, 131};
    auto t16 = dqt_table(1, 3, 300);
    s.insert(s.end(), t16.begin(), t16.end());
    Mem wide(s);
    ASSERT_EQ(kivod_vld_qtbl(&wide.bs, qt.get(), unit, 1), 0);
    EXPECT_EQ(wide.offset(), s.size());
    for (int k = 0; k < 64; ++k) EXPECT_EQ(qt[3].q[kivo_tbl_zig_to_ras[k]], 300 + k);
    EXPECT_EQ(qt[3].precision, 1);
    EXPECT_EQ(unit[3], 0);
    // All ones.
    s = {0, 67, 0x02};
    s.insert(s.end(), 64, 1);
    Mem ones(s);
    ASSERT_EQ(kivod_vld_qtbl(&ones.bs, qt.get(), unit, 0), 0);
    EXPECT_EQ(unit[2], 1);
    // Bad Pq and Tq.
    for (uint8_t bad : {0x20, 0x04}) {
        Mem m({0, 67, bad, 1, 2});
        EXPECT_EQ(kivod_vld_qtbl(&m.bs, qt.get(), unit, 0), KIVO_ERR_MALFORMED);
    }
}

TEST(DecSeg, HuffmanSegments) {
    auto spec = std::make_unique<kivod_htbl_spec[]>(8);
    auto dc = std::make_unique<kivod_dc_tbl[]>(4);
    auto ac = std::make_unique<kivod_ac_tbl[]>(4);
    // A DC table (id 1: two codes of length 1) and an AC table (id 2) in one segment.
    std::vector<uint8_t> s = {0, 2 + 19 + 19, 0x01, 2};
    s.insert(s.end(), 15, 0);
    s.insert(s.end(), {5, 7, 0x12, 2});
    s.insert(s.end(), 15, 0);
    s.insert(s.end(), {0x01, 0x00});
    Mem m(s);
    ASSERT_EQ(kivod_vld_htbl(&m.bs, spec.get(), dc.get(), ac.get()), 0);
    EXPECT_EQ(m.offset(), s.size());
    EXPECT_EQ(spec[1].count, 2);
    EXPECT_EQ(spec[1].vals[1], 7);
    EXPECT_EQ(spec[6].cls, 1);
    EXPECT_EQ(dc[1].code[7].code, 1);
    EXPECT_EQ(dc[1].code[7].len, 1);
    EXPECT_EQ(ac[2].eob, 1);
    EXPECT_EQ(ac[2].lookup[0].size, 1);
    // Class 2 and identifier 4 are refused before anything is stored.
    spec[2].count = 77;
    for (uint8_t bad : {0x22, 0x04}) {
        Mem b({0, 19, bad, 1, 0});
        EXPECT_EQ(kivod_vld_htbl(&b.bs, spec.get(), dc.get(), ac.get()), KIVO_ERR_MALFORMED);
    }
    EXPECT_EQ(spec[2].count, 77);
    // 257 codes.
    std::vector<uint8_t> big = {0x01, 0x13, 0x10};
    big.insert(big.end(), 14, 0);
    big.insert(big.end(), {2, 255});
    big.insert(big.end(), 257, 1);
    Mem b(big);
    EXPECT_EQ(kivod_vld_htbl(&b.bs, spec.get(), dc.get(), ac.get()), KIVO_ERR_MALFORMED);
}

TEST(DecSeg, FrameHeader) {
    struct Case {
        std::vector<uint8_t> body;
        int32_t status;
    } cases[] = {
        {{0, 17, 8, 0, 16, 0, 24, 3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1}, 0},
        {{0, 11, 12, 0, 16, 0, 24, 1, 1, 0x11, 0}, KIVO_ERR_UNSUPPORTED},
        {{0, 11, 8, 0, 0, 0, 24, 1, 1, 0x11, 0}, KIVO_ERR_MALFORMED},
        {{0, 11, 8, 0, 16, 0, 24, 5}, KIVO_ERR_UNSUPPORTED},
        {{0, 8, 8, 0, 16, 0, 24, 0}, 0},
        {{0, 11, 8, 0, 16, 0, 24, 1, 1, 0x00, 0}, KIVO_ERR_MALFORMED},  // H = V = 0
        {{0, 11, 8, 0, 16, 0, 24, 1, 1, 0x01, 0}, 0},  // H = 0: a layout the driver refuses
        {{0, 11, 8, 0, 16, 0, 24, 1, 1, 0x15, 0}, KIVO_ERR_MALFORMED},  // V = 5
        {{0, 11, 8, 0, 16, 0, 24, 1, 1, 0x11, 4}, KIVO_ERR_MALFORMED},  // Tq = 4
        {{0, 17, 8, 0, 16, 0}, KIVO_ERR_MALFORMED},                     // truncated: X reads 0
    };
    for (const Case &c : cases) {
        Mem m(c.body);
        kivod_fh fh;
        EXPECT_EQ(kivod_vld_fh(&m.bs, &fh), c.status);
        EXPECT_LE(m.offset(), c.body.size());
    }
    Mem m(cases[0].body);
    kivod_fh fh;
    ASSERT_EQ(kivod_vld_fh(&m.bs, &fh), 0);
    EXPECT_EQ(fh.height, 16);
    EXPECT_EQ(fh.width, 24);
    EXPECT_EQ(fh.n_comp, 3);
    EXPECT_EQ(fh.comp_id[2], 3);
    EXPECT_EQ(fh.tq[1], 1);
    EXPECT_EQ(fh.h_max, 2);
    EXPECT_EQ(fh.v_max, 2);
}

TEST(DecSeg, ScanHeader) {
    auto ctx = std::make_unique<kivod_ctx>();
    kivod_fh &fh = ctx->fh;
    fh.n_comp = 3;
    for (int i = 0; i < 3; ++i) fh.h[i] = fh.v[i] = 1;
    fh.h[0] = fh.v[0] = 2;
    // The same selectors against frames numbered 0,1,2 and 1,2,3.
    for (int base : {0, 1}) {
        for (int i = 0; i < 3; ++i) fh.comp_id[i] = static_cast<uint8_t>(base + i);
        uint8_t b = static_cast<uint8_t>(base);
        Mem m({0, 12, 3, b, 0x00, uint8_t(b + 2), 0x11, uint8_t(b + 1), 0x23, 0, 63, 0x00});
        kivod_sh sh;
        ASSERT_EQ(kivod_vld_sh(ctx.get(), &m.bs, &sh), 0);
        EXPECT_EQ(sh.comp_idx[0], 0);
        EXPECT_EQ(sh.comp_idx[1], 2);
        EXPECT_EQ(sh.comp_idx[2], 1);
        EXPECT_EQ(sh.td[1], 2);
        EXPECT_EQ(sh.ta[1], 3);
        EXPECT_EQ(sh.ta[2], 1);
        EXPECT_EQ(sh.se, 63);
    }
    struct Case {
        std::vector<uint8_t> body;
        int32_t status;
    } cases[] = {
        {{0, 6, 0, 1, 5, 0x21}, 0},                                   // Ns = 0
        {{0, 6, 5}, KIVO_ERR_MALFORMED},                              // Ns = 5
        {{0, 8, 1, 9, 0x00, 0, 63, 0}, KIVO_ERR_MALFORMED},           // unknown selector
        {{0, 8, 1, 2, 0x40, 0, 63, 0}, KIVO_ERR_MALFORMED},           // Td = 4
        {{0, 8, 1, 2, 0x04, 0, 63, 0}, KIVO_ERR_MALFORMED},           // Ta = 4
        {{0, 8, 1, 2, 0x00, 64, 63, 0}, KIVO_ERR_MALFORMED},          // Ss = 64
        {{0, 8, 1, 2, 0x00, 0, 64, 0}, KIVO_ERR_MALFORMED},           // Se = 64
        {{0, 8, 1, 2, 0x00, 1, 5, 0xE0}, KIVO_ERR_MALFORMED},         // Ah = 14
        {{0, 8, 1, 2, 0x00, 1, 5, 0x0E}, KIVO_ERR_MALFORMED},         // Al = 14
    };
    for (const Case &c : cases) {
        Mem m(c.body);
        kivod_sh sh;
        EXPECT_EQ(kivod_vld_sh(ctx.get(), &m.bs, &sh), c.status);
        if (c.status == 0) {
            EXPECT_EQ(m.offset(), c.body.size());
            EXPECT_EQ(sh.ss, 1);
            EXPECT_EQ(sh.se, 5);
            EXPECT_EQ(sh.ah, 2);
            EXPECT_EQ(sh.al, 1);
        }
    }
    // 3x3 + 1 + 1 blocks per MCU.
    fh.h[0] = fh.v[0] = 3;
    Mem m({0, 12, 3, 1, 0, 2, 0, 3, 0, 0, 63, 0});
    kivod_sh sh;
    EXPECT_EQ(kivod_vld_sh(ctx.get(), &m.bs, &sh), KIVO_ERR_MALFORMED);
}

TEST(DecSeg, AppSkipAndMarkers) {
    // APP1 of length 2 then APP2 with 3 bytes, then a marker.
    Mem m({0, 2, 0, 5, 'a', 'b', 'c', 0xFF, 0xDB});
    auto ctx = std::make_unique<kivod_ctx>();
    ASSERT_EQ(kivod_vld_app(ctx.get(), &m.bs, 0xE1), 0);
    ASSERT_EQ(kivod_vld_app(ctx.get(), &m.bs, 0xE2), 0);
    const kivod_app_node *list = ctx->app_list;
    ASSERT_TRUE(list && list->next);
    EXPECT_EQ(list->size, 0u);
    EXPECT_EQ(list->data, m.data.get() + 2);
    EXPECT_EQ(list->next->marker, 0xE2u);
    EXPECT_EQ(list->next->size, 3u);
    EXPECT_EQ(list->next->data[2], 'c');
    EXPECT_EQ(m.bs.read_byte(&m.bs, 2), 0xFFDBu);
    // Running past the end: refused, list unchanged.
    Mem past({0, 9, 1, 2});
    EXPECT_EQ(kivod_vld_app(ctx.get(), &past.bs, 0xE3), KIVO_ERR_MALFORMED);
    EXPECT_EQ(list->next->next, nullptr);
    kivod_release_app_list(ctx.get());

    // skip_seg: 0 inside the input, 1 once it is used up.
    Mem s({0, 4, 7, 7, 0xFF, 0xD9});
    EXPECT_EQ(kivod_vld_skip_seg(&s.bs), 0);
    EXPECT_EQ(s.offset(), 4u);
    Mem s2({0, 40, 7, 7});
    EXPECT_EQ(kivod_vld_skip_seg(&s2.bs), 1);
    EXPECT_EQ(s2.bs.cur, s2.bs.end + 1);

    struct Mk {
        std::vector<uint8_t> b;
        int32_t soi, eoi;
    } mk[] = {{{0xFF, 0xD8}, 0, KIVO_ERR_MALFORMED}, {{0xFF, 0xD9}, KIVO_ERR_MALFORMED, 0},
              {{0x00, 0xD8}, KIVO_ERR_MALFORMED, KIVO_ERR_MALFORMED}};
    for (const Mk &c : mk) {
        Mem a(c.b), b(c.b);
        EXPECT_EQ(kivod_vld_soi(&a.bs), c.soi);
        EXPECT_EQ(kivod_vld_eoi(&b.bs), c.eoi);
    }
}

std::string temp_file(const std::vector<uint8_t> &bytes) {
    char name[] = "/tmp/kivo_seg_XXXXXX";
    int fd = mkstemp(name);
    FILE *f = fdopen(fd, "wb");
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    return name;
}

TEST(DecSeg, CheckEoiMemoryAndFile) {
    struct Case {
        std::vector<uint8_t> b;
        int skip;  // bytes read before the check
        int32_t status;
    } cases[] = {
        {{0xFF, 0xD8, 1, 2, 0xFF, 0xD9, 0x00}, 2, 0},   // trailing byte
        {{0xFF, 0xD8, 1, 2, 0xFF, 0xD9}, 2, 0},
        {{0xFF, 0xD8, 1, 2, 3, 4}, 2, KIVO_ERR_MALFORMED},
        {{0xFF, 0xD9, 1, 2, 3, 4}, 2, KIVO_ERR_MALFORMED},  // only behind the reader
    };
    for (const Case &c : cases) {
        Mem m(c.b);
        m.bs.read_byte(&m.bs, c.skip);
        EXPECT_EQ(kivod_chk_eoi(&m.bs), c.status);
        std::string path = temp_file(c.b);
        kivo_mfal mfal;
        kivo_mfal_file(&mfal, path.c_str());
        kivod_input in{KIVOD_INPUT_MFAL, nullptr, &mfal};
        kivod_bs f;
        ASSERT_EQ(kivod_bs_init(&f, &in), 0);
        f.read_byte(&f, c.skip);
        EXPECT_EQ(kivod_chk_eoi(&f), c.status);
        EXPECT_EQ(f.read_byte(&f, 1), c.b[c.skip]);  // position kept
        kivod_bs_deinit(&f);
        std::remove(path.c_str());
    }
}

TEST(DecSeg, FileAppCopyAndShortRead) {
    std::vector<uint8_t> bytes = {0, 5, 'x', 'y', 'z', 0, 9, 'q'};
    std::string path = temp_file(bytes);
    kivo_mfal mfal;
    kivo_mfal_file(&mfal, path.c_str());
    kivod_input in{KIVOD_INPUT_MFAL, nullptr, &mfal};
    kivod_bs f;
    ASSERT_EQ(kivod_bs_init(&f, &in), 0);
    auto ctx = std::make_unique<kivod_ctx>();
    ASSERT_EQ(kivod_vld_app(ctx.get(), &f, 0xE0), 0);
    const kivod_app_node *list = ctx->app_list;
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(list->data), 3), "xyz");
    EXPECT_EQ(f.pos, 5u);
    EXPECT_EQ(kivod_vld_app(ctx.get(), &f, 0xE1), KIVO_ERR_IO);
    EXPECT_EQ(list->next, nullptr);
    kivod_release_app_list(ctx.get());
    kivod_bs_deinit(&f);
    std::remove(path.c_str());
}

}  // namespace
