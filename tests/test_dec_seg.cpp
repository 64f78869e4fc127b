// The bit-stream reader and the marker segment parsers, fed bytes in exactly
// sized buffers so the sanitizer catches any read past the caller's bytes.
// Expected bits come from a separate bit-vector model with stuffing removed.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
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

// The same bytes as a file, removed with the object.
struct File {
    std::string path;
    kivo_mfal mfal;
    kivod_input in{KIVOD_INPUT_MFAL, nullptr, &mfal};
    explicit File(const std::vector<uint8_t> &bytes) {
        char name[] = "/tmp/kivo_seg_XXXXXX";
        FILE *f = fdopen(mkstemp(name), "wb");
        fwrite(bytes.data(), 1, bytes.size(), f);
        fclose(f);
        path = name;
        kivo_mfal_file(&mfal, path.c_str());  // the interface keeps the name
    }
    ~File() { std::remove(path.c_str()); }
};

// Random bytes rich in 0xFF, stuffed zeros and restart-like markers.
std::vector<uint8_t> random_stream(std::mt19937 &rng, size_t n) {
    std::vector<uint8_t> s;
    while (s.size() < n) {
        const uint8_t pick[][2] = {{0xFF, 0x00}, {0xFF, 0xD0}, {0xFF}, {0x00}};
        const int k = rng() % 8;
        if (k < 2) s.insert(s.end(), pick[k], pick[k] + 2);
        else s.push_back(k < 4 ? pick[k][0] : static_cast<uint8_t>(rng()));
    }
    return s;
}

// Random reads, peeks, skips and alignments, each checked against the model
// while it lies wholly inside the data.
TEST(DecBs, RandomOperationsMatchBitModel) {
    std::mt19937 rng(7);
    for (int round = 0; round < 300; ++round) {
        const std::vector<uint8_t> bytes = random_stream(rng, 1 + rng() % 120);
        std::vector<int> bits;  // a 0x00 right after 0xFF is dropped
        for (size_t i = 0; i < bytes.size(); ++i)
            if (!(i && bytes[i - 1] == 0xFF && bytes[i] == 0))
                for (int b = 7; b >= 0; --b) bits.push_back((bytes[i] >> b) & 1);
        Mem in(bytes);
        for (size_t pos = 0;;) {
            const int op = rng() % 8, n = op >= 5 ? 1 + static_cast<int>(rng() % 16) : 1 + static_cast<int>(rng() % 32);
            if (op == 7) {
                kivod_bs_align_byte(&in.bs);
                pos = (pos + 7) & ~size_t(7);
                continue;
            }
            if (pos + n > bits.size()) break;
            uint32_t want = 0;
            for (int i = 0; i < n; ++i) want = want << 1 | static_cast<uint32_t>(bits[pos + i]);
            if (op == 5) {
                ASSERT_EQ(kivod_bs_peek(&in.bs, n), want) << "round " << round << " pos " << pos;
                continue;
            }
            if (op == 6) kivod_bs_skip(&in.bs, n);
            else ASSERT_EQ(kivod_bs_read(&in.bs, n), want) << "round " << round << " pos " << pos;
            pos += n;
        }
    }
}

TEST(DecBs, EndOfInput) {
    Mem in({0x81, 0xFF, 0x7E});
    EXPECT_EQ(in.bs.refill(&in.bs, 4), 0);  // fewer than 32 bits
    EXPECT_EQ(in.bs.bits, 24);
    EXPECT_TRUE(kivod_bs_input_done(&in.bs));
    EXPECT_EQ(in.bs.refill(&in.bs, 4), KIVO_ERR_UNAVAILABLE);
    EXPECT_EQ(kivod_bs_read(&in.bs, 8), 0u);
    EXPECT_EQ(kivod_bs_peek(&in.bs, 16), 0u);
    // A peek that cannot load more keeps the cached bits.
    Mem p({0xC3});
    EXPECT_EQ(kivod_bs_read(&p.bs, 2), 3u);
    EXPECT_EQ(kivod_bs_peek(&p.bs, 16), 0x0C00u);
    EXPECT_EQ(kivod_bs_read(&p.bs, 6), 3u);
    // Whole bytes past the end read as 0 and cur stops at end + 1.
    Mem b({0xAB});
    EXPECT_EQ(b.bs.read_byte(&b.bs, 4), 0xAB000000u);
    EXPECT_EQ(b.bs.cur, b.bs.end + 1);
}

TEST(DecBs, RestartSync) {
    struct Case {
        std::vector<uint8_t> bytes;
        int pre_read;     // bits read before the call
        int32_t status;
        int16_t pred0;    // predictor 0 afterwards (starts at 99)
        uint32_t next16;  // next 16 bits afterwards
    } cases[] = {
        {{0xA5, 0x12, 0xFF, 0xD3, 0x5A, 0x77}, 3, 0, 0, 0x5A77},
        {{0x12, 0xFF, 0x00, 0xFF, 0xD1, 0x77, 0x88}, 4, 0, 0, 0x7788},  // stuffed FF before
        {{0x12, 0x34, 0xFF, 0xD9}, 1, 0, 99, 0xFFD9},                   // EOI: nothing consumed
        {{0x12, 0x34, 0x56}, 2, KIVO_ERR_MALFORMED, 99, 0},
    };
    for (const Case &c : cases) {
        Mem in(c.bytes);
        kivod_bs_read(&in.bs, c.pre_read);
        int16_t pred[4] = {99, 99, 99, 99};
        int32_t mcu = 5;
        EXPECT_EQ(kivod_bs_sync_restart(&in.bs, pred, &mcu), c.status);
        EXPECT_EQ(pred[0], c.pred0);
        if (c.status == 0) {
            EXPECT_EQ(mcu, 0);
            EXPECT_EQ(kivod_bs_read(&in.bs, 16), c.next16);
        }
    }
}

TEST(DecBs, FileInputMatchesMemoryInput) {
    std::mt19937 rng(11);
    for (int round = 0; round < 20; ++round) {
        const std::vector<uint8_t> bytes = random_stream(rng, 50 + rng() % 200);
        File file(bytes);
        kivod_bs f;
        ASSERT_EQ(kivod_bs_init(&f, &file.in), 0);
        Mem m(bytes);
        for (int step = 0; step < 200; ++step) {
            const int op = rng() % 10, n = 1 + static_cast<int>(rng() % 24);
            uint32_t a, b;
            if (op == 0 && m.bs.end - m.bs.cur > 8) {  // whole bytes after giving the cache back
                ASSERT_EQ(kivod_bs_rewind_cache(&f, step % 3), 0);
                ASSERT_EQ(kivod_bs_rewind_cache(&m.bs, step % 3), 0);
                ASSERT_EQ(f.pos, static_cast<uint32_t>(m.offset()));
                a = f.read_byte(&f, 1 + n % 4);
                b = m.bs.read_byte(&m.bs, 1 + n % 4);
            } else if (op < 3) {
                a = kivod_bs_peek(&f, n % 17 + 1);
                b = kivod_bs_peek(&m.bs, n % 17 + 1);
            } else {
                a = kivod_bs_read(&f, n);
                b = kivod_bs_read(&m.bs, n);
            }
            ASSERT_EQ(a, b) << "round " << round << " step " << step;
            ASSERT_EQ(f.bits, m.bs.bits);
            ASSERT_EQ(kivod_bs_input_done(&f), kivod_bs_input_done(&m.bs));
        }
        kivod_bs_deinit(&f);
    }
}

// ---- segments ----------------------------------------------------------------------

TEST(DecSeg, QuantizationTables) {
    auto qt = std::make_unique<kivod_qtbl[]>(4);
    uint8_t unit[4] = {9, 9, 9, 9};
    // Two 8-bit tables (0, 1) and a 16-bit one (3) in one segment, then all ones (2).
    std::vector<uint8_t> s = {0x01, 0x05};  // 2 + 2 x 65 + 129 bytes
    for (int t : {0x00, 0x01, 0x13})
        for (int k = -1; k < 64; ++k) {
            if (k < 0) s.push_back(static_cast<uint8_t>(t));
            else if (t == 0x13) s.insert(s.end(), {static_cast<uint8_t>((300 + k) >> 8), static_cast<uint8_t>(300 + k)});
            else s.push_back(static_cast<uint8_t>(10 * t + 1 + k));
        }
    Mem m(s);
    ASSERT_EQ(kivod_vld_qtbl(&m.bs, qt.get(), unit, 1), 0);
    EXPECT_EQ(m.offset(), s.size());
    for (int k = 0; k < 64; ++k) {
        EXPECT_EQ(qt[0].q[kivo_tbl_zig_to_ras[k]], 1 + k);
        EXPECT_EQ(qt[1].q_copy[kivo_tbl_zig_to_ras[k]], 11 + k);
        EXPECT_EQ(qt[3].q[kivo_tbl_zig_to_ras[k]], 300 + k);
    }
    EXPECT_EQ(qt[1].length, s.size());
    EXPECT_EQ(qt[3].precision, 1);
    EXPECT_EQ(unit[3], 0);
    s = {0, 67, 0x02};
    s.insert(s.end(), 64, 1);
    Mem ones(s);
    ASSERT_EQ(kivod_vld_qtbl(&ones.bs, qt.get(), unit, 0), 0);
    EXPECT_EQ(unit[2], 1);
    for (uint8_t bad : {0x20, 0x04}) {  // Pq 2, Tq 4
        Mem b({0, 67, bad, 1, 2});
        EXPECT_EQ(kivod_vld_qtbl(&b.bs, qt.get(), unit, 0), KIVO_ERR_MALFORMED);
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
    EXPECT_EQ(spec[1].vals[1], 7);
    EXPECT_EQ(spec[6].cls, 1);
    EXPECT_EQ(dc[1].code[7].code, 1);
    EXPECT_EQ(ac[2].eob, 1);
    // Class 2 and identifier 4 are refused before anything is stored; so are 257 codes.
    spec[2].count = 77;
    std::vector<uint8_t> big = {0x01, 0x13, 0x10};
    big.insert(big.end(), 14, 0);
    big.insert(big.end(), {2, 255});
    big.insert(big.end(), 257, 1);
    for (const std::vector<uint8_t> &b : {std::vector<uint8_t>{0, 19, 0x22, 1, 0}, {0, 19, 0x04, 1, 0}, big}) {
        Mem bad(b);
        EXPECT_EQ(kivod_vld_htbl(&bad.bs, spec.get(), dc.get(), ac.get()), KIVO_ERR_MALFORMED);
    }
    EXPECT_EQ(spec[2].count, 77);
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
}

TEST(DecSeg, ScanHeader) {
    auto ctx = std::make_unique<kivod_ctx>();
    kivod_fh &fh = ctx->fh;
    fh.n_comp = 3;
    for (int i = 0; i < 3; ++i) fh.h[i] = fh.v[i] = i ? 1 : 2;
    // The same selectors against frames numbered 0,1,2 and 1,2,3.
    for (int base : {0, 1}) {
        for (int i = 0; i < 3; ++i) fh.comp_id[i] = static_cast<uint8_t>(base + i);
        const uint8_t b = static_cast<uint8_t>(base);
        Mem m({0, 12, 3, b, 0x00, uint8_t(b + 2), 0x11, uint8_t(b + 1), 0x23, 0, 63, 0x00});
        kivod_sh sh;
        ASSERT_EQ(kivod_vld_sh(ctx.get(), &m.bs, &sh), 0);
        EXPECT_EQ(sh.comp_idx[1], 2);
        EXPECT_EQ(sh.comp_idx[2], 1);
        EXPECT_EQ(sh.td[1], 2);
        EXPECT_EQ(sh.ta[1], 3);
        EXPECT_EQ(sh.se, 63);
    }
    struct Case {
        std::vector<uint8_t> body;
        int32_t status;
    } cases[] = {
        {{0, 6, 0, 1, 5, 0x21}, 0},                            // Ns = 0
        {{0, 6, 5}, KIVO_ERR_MALFORMED},                       // Ns = 5
        {{0, 8, 1, 9, 0x00, 0, 63, 0}, KIVO_ERR_MALFORMED},    // unknown selector
        {{0, 8, 1, 2, 0x40, 0, 63, 0}, KIVO_ERR_MALFORMED},    // Td = 4
        {{0, 8, 1, 2, 0x04, 0, 63, 0}, KIVO_ERR_MALFORMED},    // Ta = 4
        {{0, 8, 1, 2, 0x00, 64, 63, 0}, KIVO_ERR_MALFORMED},   // Ss = 64
        {{0, 8, 1, 2, 0x00, 0, 64, 0}, KIVO_ERR_MALFORMED},    // Se = 64
        {{0, 8, 1, 2, 0x00, 1, 5, 0xE0}, KIVO_ERR_MALFORMED},  // Ah = 14
        {{0, 8, 1, 2, 0x00, 1, 5, 0x0E}, KIVO_ERR_MALFORMED},  // Al = 14
    };
    for (const Case &c : cases) {
        Mem m(c.body);
        kivod_sh sh;
        EXPECT_EQ(kivod_vld_sh(ctx.get(), &m.bs, &sh), c.status);
        if (c.status == 0) {
            EXPECT_EQ(m.offset(), c.body.size());
            EXPECT_EQ(sh.ss * 1000 + sh.se * 100 + sh.ah * 10 + sh.al, 1521);
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
    EXPECT_EQ(list->next->data, m.data.get() + 4);  // no copy from memory
    EXPECT_EQ(m.bs.read_byte(&m.bs, 2), 0xFFDBu);
    Mem past({0, 9, 1, 2});  // running past the end: refused, list unchanged
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

// The trailer check, from memory and from a file: it keeps the position.
TEST(DecSeg, CheckEoiMemoryAndFile) {
    struct Case {
        std::vector<uint8_t> b;
        int32_t status;
    } cases[] = {
        {{0xFF, 0xD8, 1, 2, 0xFF, 0xD9, 0x00}, 0},  // trailing byte
        {{0xFF, 0xD8, 1, 2, 0xFF, 0xD9}, 0},
        {{0xFF, 0xD8, 1, 2, 3, 4}, KIVO_ERR_MALFORMED},
        {{0xFF, 0xD9, 1, 2, 3, 4}, KIVO_ERR_MALFORMED},  // only behind the reader
    };
    for (const Case &c : cases) {
        Mem m(c.b);
        m.bs.read_byte(&m.bs, 2);
        EXPECT_EQ(kivod_chk_eoi(&m.bs), c.status);
        File file(c.b);
        kivod_bs f;
        ASSERT_EQ(kivod_bs_init(&f, &file.in), 0);
        f.read_byte(&f, 2);
        EXPECT_EQ(kivod_chk_eoi(&f), c.status);
        EXPECT_EQ(f.read_byte(&f, 1), c.b[2]);
        kivod_bs_deinit(&f);
    }
}

}  // namespace
