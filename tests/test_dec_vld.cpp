// The bit-stream reader, the marker segment parsers, the Huffman tables and
// coefficient decoding, fed bytes in exactly sized buffers so the sanitizer
// catches any read past the caller's bytes. Expected bits come from a bit
// model with stuffing removed; coefficient streams from the encoder's
// entropy coder (which libjpeg-turbo checks in oracle_encode) or written
// bit by bit here.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "decoder/kivod_int.h"
#include "encoder/kivoe_int.h"

namespace {

// Bytes in an exactly sized block, read from memory or, with `file`, from a
// temporary file (removed with the object).
struct Mem {
    std::unique_ptr<uint8_t[]> data;
    xelo_bitb bitb{};
    kivod_bs bs{};
    std::string path;
    kivo_mfal mfal{};
    explicit Mem(const std::vector<uint8_t> &b, bool file = false) : data(new uint8_t[b.size()]) {
        std::copy(b.begin(), b.end(), data.get());
        bitb.addr = data.get();
        bitb.ssize = static_cast<int32_t>(b.size());
        kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
        if (file) {
            char name[] = "/tmp/kivo_bs_XXXXXX";
            FILE *f = fdopen(mkstemp(name), "wb");
            fwrite(b.data(), 1, b.size(), f);
            fclose(f);
            path = name;
            kivo_mfal_file(&mfal, path.c_str());  // the interface keeps the name
            in = {KIVOD_INPUT_MFAL, nullptr, &mfal};
        }
        EXPECT_EQ(kivod_bs_init(&bs, &in), 0);
    }
    ~Mem() {
        kivod_bs_deinit(&bs);
        if (!path.empty()) std::remove(path.c_str());
    }
    size_t offset() const { return static_cast<size_t>(bs.cur - bs.start); }
};

// Random bytes rich in 0xFF, stuffed zeros and restart-like markers.
std::vector<uint8_t> random_stream(std::mt19937 &rng, size_t n) {
    std::vector<uint8_t> s;
    while (s.size() < n) {
        const uint32_t k = rng() % 8;
        if (k < 2) s.insert(s.end(), {0xFF, static_cast<uint8_t>(k ? 0xD0 : 0x00)});
        else s.push_back(k == 2 ? 0xFF : k == 3 ? 0 : static_cast<uint8_t>(rng()));
    }
    return s;
}

// Random reads, peeks, skips and alignments on a memory and a file reader in
// step, checked against the model while the bits lie wholly inside the
// data, and alike after giving the cache back (which ends the round: the
// model's position is lost there).
TEST(DecBs, RandomOperationsMatchBitModelFromMemoryAndFile) {
    std::mt19937 rng(7);
    for (int round = 0; round < 200; ++round) {
        const std::vector<uint8_t> bytes = random_stream(rng, 1 + rng() % 160);
        std::vector<int> bits;  // a 0x00 right after 0xFF is dropped
        for (size_t i = 0; i < bytes.size(); ++i)
            if (!(i && bytes[i - 1] == 0xFF && bytes[i] == 0))
                for (int b = 7; b >= 0; --b) bits.push_back((bytes[i] >> b) & 1);
        Mem m(bytes), f(bytes, true);
        for (size_t pos = 0, step = 0; step < 200; ++step) {
            const int op = rng() % 16, n = op < 6 ? 1 + static_cast<int>(rng() % 16) : 1 + static_cast<int>(rng() % 32);
            if (op == 0 && m.bs.end - m.bs.cur > 8) {
                ASSERT_EQ(kivod_bs_rewind_cache(&m.bs, step % 3), 0);
                ASSERT_EQ(kivod_bs_rewind_cache(&f.bs, step % 3), 0);
                ASSERT_EQ(f.bs.pos, static_cast<uint32_t>(m.offset()));
                ASSERT_EQ(m.bs.read_byte(&m.bs, 1 + n % 4), f.bs.read_byte(&f.bs, 1 + n % 4));
                break;
            }
            if (op == 1) {
                kivod_bs_align_byte(&m.bs), kivod_bs_align_byte(&f.bs);
                pos = (pos + 7) & ~size_t(7);
                continue;
            }
            uint32_t want = 0, a = 0, b = 0;
            for (int i = 0; i < n && pos + n <= bits.size(); ++i) want = want << 1 | static_cast<uint32_t>(bits[pos + i]);
            if (op < 6) a = kivod_bs_peek(&m.bs, n), b = kivod_bs_peek(&f.bs, n);
            else if (op < 9) kivod_bs_skip(&m.bs, n), kivod_bs_skip(&f.bs, n), a = b = want;
            else a = kivod_bs_read(&m.bs, n), b = kivod_bs_read(&f.bs, n);
            if (pos + n <= bits.size()) {
                ASSERT_EQ(a, want) << "round " << round << " pos " << pos;
                ASSERT_TRUE(a == b && m.bs.bits == f.bs.bits) << "round " << round << " step " << step;
            }
            pos += op < 6 ? 0 : n;
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
    // A stuffing zero as the last byte goes with the 0xFF that ends a refill.
    Mem z({0x11, 0x22, 0x33, 0xFF, 0x00});
    EXPECT_EQ(z.bs.refill(&z.bs, 4), 0);
    EXPECT_TRUE(kivod_bs_input_done(&z.bs));
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
        {{0, 11, 8, 0, 16, 0, 24, 1, 1, 0x51, 0}, KIVO_ERR_MALFORMED},  // H = 5
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
    for (int i = 0; i < 3; ++i) fh.comp_id[i] = static_cast<uint8_t>(1 + i);
    Mem sel({0, 12, 3, 1, 0x00, 3, 0x11, 2, 0x23, 0, 63, 0x00});  // selectors out of frame order
    kivod_sh sh;
    ASSERT_EQ(kivod_vld_sh(ctx.get(), &sel.bs, &sh), 0);
    EXPECT_TRUE(sh.comp_idx[1] == 2 && sh.comp_idx[2] == 1 && sh.td[1] == 2 && sh.ta[1] == 3 && sh.se == 63);
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
        EXPECT_EQ(kivod_vld_sh(ctx.get(), &m.bs, &sh), c.status);
        if (c.status == 0) {
            EXPECT_EQ(m.offset(), c.body.size());
            EXPECT_EQ(sh.ss * 1000 + sh.se * 100 + sh.ah * 10 + sh.al, 1521);
        }
    }
    // Blocks per MCU above 10: over the scan's own components (3x3 + 2 + 1),
    // or over the frame's first Ns (3x3 + 2 for a scan of the other two).
    fh.h[0] = fh.v[0] = 3;
    fh.h[1] = 2;
    for (const std::vector<uint8_t> &b : {std::vector<uint8_t>{0, 12, 3, 1, 0, 2, 0, 3, 0, 0, 63, 0}, {0, 10, 2, 2, 0, 3, 0, 0, 63, 0}}) {
        Mem m(b);
        EXPECT_EQ(kivod_vld_sh(ctx.get(), &m.bs, &sh), KIVO_ERR_MALFORMED);
    }
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
}

// The trailer check, from memory and from a file: it keeps the position.
TEST(DecSeg, CheckEoiMemoryAndFile) {
    const std::pair<std::vector<uint8_t>, int32_t> cases[] = {
        {{0xFF, 0xD8, 1, 2, 0xFF, 0xD9, 0x00}, 0},  // trailing byte
        {{0xFF, 0xD8, 1, 2, 0xFF, 0xD9}, 0},
        {{0xFF, 0xD8, 1, 2, 3, 4}, KIVO_ERR_MALFORMED},
        {{0xFF, 0xD9, 1, 2, 3, 4}, KIVO_ERR_MALFORMED},  // only behind the reader
    };
    for (const auto &c : cases)
        for (bool file : {false, true}) {
            Mem m(c.first, file);
            m.bs.read_byte(&m.bs, 2);
            EXPECT_EQ(kivod_chk_eoi(&m.bs), c.second) << file;
            EXPECT_EQ(m.bs.read_byte(&m.bs, 1), c.first[2]) << file;
        }
}

// ---- Huffman tables and coefficients ---------------------------------------------------

struct Dht {
    std::vector<uint8_t> bits, vals;
};
// The usual luminance DC table.
const Dht kLumaDc = {{0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}};

// Decoding tables of one DC and one AC table description, in exactly sized arrays.
struct Tables {
    std::unique_ptr<kivod_dc_tbl[]> dc = std::make_unique<kivod_dc_tbl[]>(4);
    std::unique_ptr<kivod_ac_tbl[]> ac = std::make_unique<kivod_ac_tbl[]>(4);
    int32_t build(const Dht &s, int cls, int id = 0) {
        kivod_htbl_spec h{};
        h.cls = static_cast<uint8_t>(cls);
        h.id = static_cast<uint8_t>(id);
        for (int i = 0; i < 16; ++i) h.bits[i] = s.bits[i], h.count += s.bits[i];
        for (size_t i = 0; i < s.vals.size() && i < 256; ++i) h.vals[i] = s.vals[i];
        return kivod_build_htbl(&h, dc.get(), ac.get());
    }
    int32_t build(const kivoe_huff_spec &s) {
        return build({{s.bits, s.bits + 16}, {s.vals, s.vals + s.count}}, s.cls);
    }
};

// Bits with stuffing, padded with ones and closed by EOI.
struct Writer {
    std::vector<uint8_t> out;
    uint32_t acc = 0;
    int n = 0;
    void put(uint32_t v, int len) {
        for (int i = len - 1; i >= 0; --i) {
            acc = (acc << 1) | ((v >> i) & 1);
            if (++n == 8) {
                out.push_back(static_cast<uint8_t>(acc));
                if (acc == 0xFF) out.push_back(0);
                acc = 0, n = 0;
            }
        }
    }
    void bits(const char *s) {
        for (; *s; ++s) put(*s == '1', 1);
    }
    std::vector<uint8_t> finish() {
        while (n) put(1, 1);
        out.insert(out.end(), {0xFF, 0xD9});
        return out;
    }
};

using Block = std::array<int16_t, 64>;  // raster order, DC difference in entry 0

// DC differences of every category, and AC blocks sparse, dense, with runs
// of 16 and more zeros, a lone coefficient at 63, the extremes of the
// largest category, and a last coefficient at 47.
std::vector<Block> make_blocks(std::mt19937 &rng, int max_cat) {
    auto level = [&](int cat) {
        const int v = (1 << (cat - 1)) + static_cast<int>(rng() % (1u << (cat - 1)));
        return static_cast<int16_t>(rng() % 2 ? v : -v);
    };
    auto cat = [&](int n) { return 1 + static_cast<int>(rng() % n); };
    std::vector<Block> out(600);
    for (int i = 0; i < 600; ++i) {
        Block &b = out[i];  // zero-filled
        auto set = [&b](int z, int16_t v) { b[kivo_tbl_zig_to_ras[z]] = v; };
        b[0] = i % 12 ? level(i % 12) : 0;
        const int kind = i % 6;
        for (int z = 1; z < 64; ++z) {
            if (kind == 0 && rng() % 12 == 0) set(z, level(cat(4)));
            if (kind == 1) set(z, level(cat(max_cat)));
            if (kind == 4 && z % 7 == static_cast<int>(rng() % 7)) set(z, static_cast<int16_t>((rng() % 2 ? 1 : -1) * ((1 << max_cat) - 1)));
            if (kind == 5 && z <= 47 && (z == 47 || rng() % 3 == 0)) set(z, level(cat(6)));
        }
        if (kind == 2) set(cat(3), level(3)), set(19 + cat(4), level(5)), set(39 + cat(4), level(2));
        if ((kind == 2 || kind == 3) && rng() % 2) set(63, level(cat(kind == 2 ? 1 : max_cat)));
    }
    return out;
}

// The blocks as the encoder codes them with table pair `id`, then EOI.
std::vector<uint8_t> code(kivoe_ctx *ctx, int id, const std::vector<Block> &blocks) {
    std::vector<uint8_t> bytes(blocks.size() * 300);
    xelo_bsw w;
    xelo_bsw_init(&w, bytes.data(), static_cast<int32_t>(bytes.size()), kivoe_bs_flush_data_seg);
    for (const Block &b : blocks)
        EXPECT_TRUE(kivoe_vlc_dc(&w, &ctx->dc_tbl[id], b[0]) == 0 && kivoe_vlc_ac(&w, &ctx->ac_tbl[id], b.data()) == 0);
    xelo_bsw_sink(&w);
    EXPECT_EQ(w.overflow, 0);
    bytes.resize(static_cast<size_t>(w.write_ptr - w.start_ptr));
    bytes.insert(bytes.end(), {0xFF, 0xD9});
    return bytes;
}

int16_t wrap16(int v) { return static_cast<int16_t>(static_cast<uint16_t>(v & 0xFFFF)); }

// Quantizers of 1 in an exactly sized block, re-quantization that changes nothing.
struct Quant {
    std::unique_ptr<kivod_qtbl> q = std::make_unique<kivod_qtbl>();
    Quant() {
        for (int k = 0; k < 64; ++k) q->q[k] = 1, q->rq_mul[k] = 16384, q->rq_off[k] = 0;
    }
};

using AcFn = int32_t (*)(kivod_bs *, const kivod_qtbl *, const kivod_ac_tbl *, uint64_t *,
                         int16_t *, int16_t *);

// What a routine that stores up to zig-zag position `last` makes of block
// b (zeros elsewhere): coefficients whose symbol starts at or before
// `last` (runs of 16 zeros go first), dequantized. Returns whether any AC
// coefficient was sent.
bool expected(const Block &b, int last, const kivod_qtbl &q, int16_t want[64]) {
    bool any_ac = false;
    for (int z = 1, next = 1; z < 64; ++z) {  // next: the position after the last one sent
        const int k = kivo_tbl_zig_to_ras[z];
        if (b[k] == 0) continue;
        if (next + (z - next) / 16 * 16 <= last) want[k] = wrap16(b[k] * q.q[z]);
        any_ac = true, next = z + 1;
    }
    return any_ac;
}

// The slices' block decoders of a scale: the plain one and the variant
// this CPU gets.
std::vector<kivod_vld_blk_fn> block_decoders(int scale) {
    kivod_dsp dsp;
    kivod_dsp_init(&dsp, kivo_cpu_detected());
    std::vector<kivod_vld_blk_fn> fns{kivod_vld_blk_for(scale, false)};
    if (dsp.vld_blk[scale] != fns[0]) fns.push_back(dsp.vld_blk[scale]);
    return fns;
}

// A block decoder's tables over one DC and one AC table.
struct BlkTables {
    uint32_t qz[64];
    kivod_blk_tbls t{};
    BlkTables(const kivod_qtbl *q, const kivod_dc_tbl *dc, const kivod_ac_tbl *ac) {
        kivod_make_qz(q, qz);
        t.dc = dc, t.ac = ac, t.q = q, t.qz = qz, t.q0 = static_cast<int16_t>(q->q[0]);
    }
};

// Eight codes, of lengths 1 to 7 and 9: the 9-bit code "111111100" is one
// bit longer than the symbol count allows. EOB "0" and 0x01 in 9 bits, or
// the other way round.
const Dht kLongSym = {{1, 1, 1, 1, 1, 1, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0}, {0x00, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x01}};
const Dht kLongEob = {{1, 1, 1, 1, 1, 1, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0}, {0x01, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x00}};

TEST(DecVld, TableBuildFailures) {
    const Dht over = {{3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {1, 2, 3}};
    const Dht many_ac = {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 255}, {}};
    const Dht many_dc = {{0, 0, 0, 13, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {}};
    const Dht big_val = {{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {12}};
    const struct {
        const Dht *s;
        int cls, id;
    } cases[] = {{&over, 1, 3}, {&over, 0, 3}, {&many_ac, 1, 3}, {&many_dc, 0, 3},
                 {&big_val, 0, 3}, {&kLumaDc, 2, 0}, {&kLumaDc, 0, 4}};
    for (const auto &c : cases) EXPECT_EQ(Tables().build(*c.s, c.cls, c.id), KIVO_ERR_MALFORMED) << (&c - cases);
}

TEST(DecVld, CategoryFigures) {
    const int32_t figures[][2] = {{0, 0},     {1, 1},       {-1, 1},      {3, 2},       {-4, 3},    {2047, 11}, {2048, -1},
                                  {-2048, 12}, {-4095, 12}, {-4096, 13}, {-32767, 15}, {-32768, -1}, {0xFFFF, 1}};
    for (const auto &f : figures) EXPECT_EQ(kivo_category(f[0]), f[1]) << f[0];
}

// Blocks the encoder codes with its typical tables, then with tables
// optimised for their own counts (AC values of category 11 too), decoded
// by every scale's routine under quantizers of 1 and random ones: each
// stores the coefficients whose symbol starts at or before its last
// position (runs of 16 zeros go first), all consume the same bits, and the
// full routine's counters hold what the encoder's statistics twins counted
// plus the end-of-block counted after a coefficient at 63.
TEST(DecVld, BlocksAtEveryScale) {
    const struct {
        AcFn fn;
        int last, scale;
    } routines[] = {{kivod_vld_ac8, 63, 1}, {kivod_vld_ac4, 9, 2}, {kivod_vld_ac2, 2, 4}, {kivod_vld_ac1, 0, 8}};
    std::mt19937 rng(3);
    std::unique_ptr<kivoe_ctx, void (*)(void *)> ctx(static_cast<kivoe_ctx *>(std::calloc(1, sizeof(kivoe_ctx))), std::free);
    kivoe_init_huff_tbl(ctx.get());
    for (int opt = 0; opt < 2; ++opt) {
        const std::vector<Block> blocks = make_blocks(rng, 10 + opt);
        auto dcs = std::make_unique<kivoe_dc_tbl[]>(2);
        auto acs = std::make_unique<kivoe_ac_tbl[]>(2);  // statistics twins, from 0
        for (int id = 0; id < 2; ++id)
            for (const Block &b : blocks)
                for (int into_ctx = 0; into_ctx <= opt; ++into_ctx) {
                    kivoe_vlc_dc_stat(nullptr, into_ctx ? &ctx->dc_tbl[id] : &dcs[id], b[0]);
                    kivoe_vlc_ac_stat(nullptr, into_ctx ? &ctx->ac_tbl[id] : &acs[id], b.data());
                }
        if (opt) {
            ASSERT_EQ(kivoe_opt_huff_tbl(ctx.get()), 0);
            EXPECT_GT(ctx->ac_tbl[0].by_symbol[0x0B].len, 0);
        }
        for (int id = 0; id < 2; ++id) {
            const uint64_t *want_dc = dcs[id].counter, *want_ac = acs[id].counter;
            const std::vector<uint8_t> bytes = code(ctx.get(), id, blocks);
            EXPECT_NE(std::find(bytes.begin(), bytes.end() - 2, 0xFF), bytes.end() - 2);  // stuffing is exercised
            Tables t;
            ASSERT_TRUE(t.build(ctx->huff_spec[2 * id]) == 0 && t.build(ctx->huff_spec[2 * id + 1]) == 0);
            for (int qmode = 0; qmode < 2; ++qmode) {
                Quant q;
                for (int k = 0; k < 64 && qmode; ++k) q.q->q[k] = static_cast<uint16_t>(1 + rng() % 255);
                for (const auto &r : routines) {
                    Mem in(bytes);
                    uint64_t dc_count[12] = {}, ac_count[256] = {};
                    uint64_t *counts = qmode == 0 && r.last == 63 ? ac_count : nullptr;
                    for (size_t i = 0; i < blocks.size(); ++i) {
                        const Block &b = blocks[i];
                        int16_t diff = 1234, blk[64], want[64], dc_only = 7;
                        std::fill_n(blk, 64, r.last ? 0 : 0x5555);
                        std::fill_n(want, 64, r.last ? 0 : 0x5555);
                        const bool any_ac = expected(b, r.last, *q.q, want);
                        ac_count[0] -= counts && b[63] != 0;  // the end-of-block counted after position 63
                        ASSERT_EQ(kivod_vld_dc(&in.bs, static_cast<int16_t>(q.q->q[0]), &t.dc[0], dc_count, &diff), 0);
                        ASSERT_EQ(diff, wrap16(b[0] * q.q->q[0])) << "block " << i;
                        ASSERT_EQ(r.fn(&in.bs, q.q.get(), &t.ac[0], counts, blk, &dc_only), 0);
                        for (int j = 0; j < 64; ++j) ASSERT_EQ(blk[j], want[j]) << "routine " << r.last << " block " << i << " at " << j;
                        ASSERT_EQ(dc_only, r.last == 0 || !any_ac ? 1 : 0) << "block " << i;
                    }
                    for (int c = 0; c < 12; ++c) EXPECT_EQ(dc_count[c], want_dc[c]) << "DC category " << c;
                    for (int s = 0; s < 256 && counts; ++s) EXPECT_EQ(ac_count[s], want_ac[s]) << "symbol " << s;
                    kivod_bs_align_byte(&in.bs);
                    EXPECT_EQ(kivod_bs_read(&in.bs, 16), 0xFFD9u);
                }
                // The block decoders of every scale, DC and AC in one call,
                // through a window kept open over three blocks at a time.
                for (const auto &r : routines)
                for (kivod_vld_blk_fn fn : block_decoders(r.scale)) {
                    Mem in(bytes);
                    BlkTables bt(q.q.get(), &t.dc[0], &t.ac[0]);
                    kivod_win win{};
                    for (size_t i = 0; i < blocks.size(); ++i) {
                        int16_t diff = 1234, blk[64] = {}, want[64] = {}, dc_only = 7;
                        const bool any_ac = expected(blocks[i], r.last, *q.q, want);
                        ASSERT_EQ(fn(&in.bs, &win, &bt.t, blk, &diff, &dc_only), 0) << "block " << i;
                        if (i % 3 == 2) kivod_win_close(&win, &in.bs);
                        ASSERT_EQ(diff, wrap16(blocks[i][0] * q.q->q[0])) << "block " << i;
                        for (int j = 0; j < 64; ++j) ASSERT_EQ(blk[j], want[j]) << r.last << " block " << i << " at " << j;
                        ASSERT_EQ(dc_only, r.last == 0 || !any_ac ? 1 : 0) << r.last << " block " << i;
                    }
                    kivod_win_close(&win, &in.bs);
                    kivod_bs_align_byte(&in.bs);
                    EXPECT_EQ(kivod_bs_read(&in.bs, 16), 0xFFD9u);
                }
            }
        }
    }
    // A re-quantized value of 2048 or more has no category.
    Quant q;
    for (int k = 0; k < 64; ++k) q.q->q[k] = 2, q.q->rq_mul[k] = 32767;
    Block b{};
    b[1] = 600;
    Mem in(code(ctx.get(), 0, {b}));
    Tables t;
    ASSERT_TRUE(t.build(ctx->huff_spec[0]) == 0 && t.build(ctx->huff_spec[1]) == 0);
    int16_t diff = 0, blk[64] = {}, dc_only;
    uint64_t counts[256] = {};
    ASSERT_EQ(kivod_vld_dc(&in.bs, 2, &t.dc[0], nullptr, &diff), 0);
    EXPECT_EQ(kivod_vld_ac8(&in.bs, q.q.get(), &t.ac[0], counts, blk, &dc_only), KIVO_ERR_UNAVAILABLE);
}

TEST(DecVld, MalformedCodes) {
    const Dht bad_run = {{0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {0x00, 0x50}};  // a size-0 run-5 symbol
    const struct {
        const Dht *ac;
        const char *bits;
        int32_t dc_status, ac_status;
    } cases[] = {
        {&kLumaDc, "00" "1111111111111111", 0, KIVO_ERR_MALFORMED},
        {&kLumaDc, "1111111111111111", KIVO_ERR_MALFORMED, 0},
        {&kLongSym, "00" "111111100" "1" "0", 0, KIVO_ERR_MALFORMED},  // longer than the symbol count allows
        {&kLongEob, "00" "0" "1" "111111100", 0, 0},
        {&bad_run, "00" "01", 0, KIVO_ERR_MALFORMED},
    };
    Quant q;
    for (const auto &c : cases) {
        Tables t;
        ASSERT_EQ(t.build(kLumaDc, 0), 0);
        ASSERT_EQ(t.build(*c.ac, 1), 0);
        for (AcFn fn : {kivod_vld_ac8, kivod_vld_ac4, kivod_vld_ac2, kivod_vld_ac1}) {
            Writer w;
            w.bits(c.bits);
            Mem in(w.finish());
            int16_t diff = 0, blk[64] = {}, dc_only;
            ASSERT_EQ(kivod_vld_dc(&in.bs, 1, &t.dc[0], nullptr, &diff), c.dc_status) << c.bits;
            if (c.dc_status != 0) continue;
            EXPECT_EQ(fn(&in.bs, q.q.get(), &t.ac[0], nullptr, blk, &dc_only), c.ac_status) << c.bits;
        }
        for (int scale : {1, 2, 4, 8})
        for (kivod_vld_blk_fn fn : block_decoders(scale)) {
            Writer w;
            w.bits(c.bits);
            Mem in(w.finish());
            BlkTables bt(q.q.get(), &t.dc[0], &t.ac[0]);
            kivod_win win{};
            int16_t diff = 0, blk[64] = {}, dc_only;
            EXPECT_EQ(fn(&in.bs, &win, &bt.t, blk, &diff, &dc_only), c.dc_status ? c.dc_status : c.ac_status) << c.bits;
            kivod_win_close(&win, &in.bs);
        }
    }
}

// Progressive AC scans refuse exactly the long codes sequential decoding
// refuses, whether the code is read through the one-step look-up (more
// bytes follow) or bit by bit (the data ends right after it).
TEST(DecVld, ProgressiveCodesFollowTheSequentialRule) {
    const struct {
        const Dht *ac;
        const char *bits;
        int blocks;
    } cases[] = {
        {&kLongSym, "0" "0" "0" "111111100" "0", 4},  // EOB x3, then 0x01 too long for the table
        {&kLongEob, "01" "01" "01" "111111100", 1},   // +1 three times, then a long end-of-block
    };
    Quant q;
    for (const auto &c : cases) {
        Tables t;
        ASSERT_EQ(t.build(*c.ac, 1), 0);
        for (int tail : {0, 6}) {
            Writer w;
            w.bits(c.bits);
            while (w.n) w.put(1, 1);
            w.out.insert(w.out.end(), static_cast<size_t>(tail), 0x00);
            int16_t blk[64] = {}, dc_only;
            Mem seq(w.out);
            int32_t want = 0;
            for (int b = 0; b < 4 && want == 0; ++b) want = kivod_vld_ac8(&seq.bs, q.q.get(), &t.ac[0], nullptr, blk, &dc_only);
            // The same bits as progressive blocks (band 1..63), first and refining.
            Mem first(w.out), refine(w.out);
            int16_t b1[64] = {}, b2[64] = {};
            int32_t run1 = 0, run2 = 0, got1 = 0, got2 = 0;
            for (int b = 0; b < c.blocks && got1 == 0; ++b) got1 = kivod_vld_ac_prog(&first.bs, 1, 63, 0, &run1, &t.ac[0], b1);
            for (int b = 0; b < c.blocks && got2 == 0; ++b) got2 = kivod_vld_ac_prog_refine(&refine.bs, 1, 63, 0, &run2, &t.ac[0], b2);
            EXPECT_EQ(got1, want) << c.bits << " tail " << tail;
            EXPECT_EQ(got2, want) << c.bits << " tail " << tail;
        }
    }
}

// A code of random lengths up to 16 bits, not always complete, with
// max_count symbols at most drawn by sym(), shortest codes first.
template <class Sym>
Dht random_code(std::mt19937 &rng, int max_count, Sym sym) {
    Dht d{std::vector<uint8_t>(16), {}};
    uint32_t code = 0;  // the first free code of the length
    for (int len = 1; len <= 16; ++len, code <<= 1) {
        const uint32_t room = (1u << len) - code - (len < 16);  // one left for longer codes
        const uint32_t n = std::min<uint32_t>({room, uint32_t(max_count) - uint32_t(d.vals.size()), uint32_t(rng() % (len + 2))});
        d.bits[len - 1] = static_cast<uint8_t>(n);
        code += n;
        for (uint32_t i = 0; i < n; ++i) d.vals.push_back(sym());
    }
    return d;
}

// Writes random symbols of a table description: code and extra bits.
struct SymWriter {
    std::vector<std::pair<uint32_t, int>> codes;  // code, length of each value in order
    const Dht &d;
    explicit SymWriter(const Dht &dht) : d(dht) {
        uint32_t code = 0;
        for (int len = 1; len <= 16; code <<= 1, ++len)
            for (int i = 0; i < d.bits[len - 1]; ++i) codes.push_back({code++, len});
    }
    // Puts symbol i (any when i < 0) and returns its value.
    int put(Writer &w, std::mt19937 &rng, bool ac, int i = -1) const {
        if (codes.empty()) return 0;
        if (i < 0) i = static_cast<int>(rng() % codes.size());
        w.put(codes[i].first, codes[i].second);
        const int size = ac ? d.vals[i] & 15 : d.vals[i];
        if (size) w.put(rng(), size);
        return d.vals[i];
    }
};

// The skim walks a scan as the slices do through the 1/8 block decoder: random
// and typical tables, every sampling layout, restart intervals, and data
// written from the tables, then damaged (bits flipped, bytes overwritten
// with 0xFF and markers, the end cut) or all random. At each stop the
// variants agree with the reference on everything a slice starts from.
TEST(DecSkim, WalksAsTheBlockDecoder) {
    const struct {
        int n;
        uint8_t h[4], v[4];
    } layouts[] = {{1, {1}, {1}},          {3, {1, 1, 1}, {1, 1, 1}}, {3, {2, 1, 1}, {2, 1, 1}}, {3, {2, 1, 1}, {1, 1, 1}},
                   {3, {1, 1, 1}, {2, 1, 1}}, {4, {1, 1, 1, 1}, {1, 1, 1, 1}}, {3, {4, 1, 1}, {2, 1, 1}}};
    std::mt19937 rng(11);
    std::unique_ptr<kivoe_ctx, void (*)(void *)> enc(static_cast<kivoe_ctx *>(std::calloc(1, sizeof(kivoe_ctx))), std::free);
    kivoe_init_huff_tbl(enc.get());
    std::unique_ptr<kivod_ctx, void (*)(void *)> ctx(static_cast<kivod_ctx *>(std::calloc(1, sizeof(kivod_ctx))), std::free);
    kivod_dsp dsp;
    kivod_dsp_init(&dsp, kivo_cpu_detected());
    std::vector<kivod_skim_mcu_fn> variants{kivod_skim_mcu};
    if (dsp.skim_mcu != kivod_skim_mcu) variants.push_back(dsp.skim_mcu);
    int stopped = 0, held = 0, fast = 0;
    Dht prev_ac[2];
    for (int round = 0; round < 1200; ++round) {
        const auto &lay = layouts[round % 7];
        kivod_ctx &c = *ctx;
        Dht dht[2][2];  // [class][id]
        for (int id = 0; id < 2; ++id) {
            const kivoe_huff_spec *typical = &enc->huff_spec[2 * id];
            const bool random = round % 3 != 0;
            dht[0][id] = random ? random_code(rng, 12, [&] { return uint8_t(rng() % 12); })
                                : Dht{{typical[0].bits, typical[0].bits + 16}, {typical[0].vals, typical[0].vals + typical[0].count}};
            const auto sym = [&] {
                const uint32_t r = rng() % 64;
                return uint8_t(r < 6 ? 0x00 : r < 9 ? 0xF0 : r == 9 && round % 4 == 1 ? 0x50 : (rng() % 16) << 4 | (1 + rng() % (r == 10 ? 15 : 10)));
            };
            // Now and then the last round's code lengths with other symbols.
            if (random && round % 4 == 2)
                for (uint8_t &v : prev_ac[id].vals) v = sym();
            else
                prev_ac[id] = random ? random_code(rng, 1 + rng() % 200, sym)
                                     : Dht{{typical[1].bits, typical[1].bits + 16}, {typical[1].vals, typical[1].vals + typical[1].count}};
            dht[1][id] = prev_ac[id];
            for (int cls = 0; cls < 2; ++cls) {
                kivod_htbl_spec h{};
                h.cls = uint8_t(cls), h.id = uint8_t(id);
                for (int i = 0; i < 16; ++i) h.bits[i] = dht[cls][id].bits[i];
                std::copy(dht[cls][id].vals.begin(), dht[cls][id].vals.end(), h.vals);
                ASSERT_EQ(kivod_build_htbl(&h, c.dc_tbl, c.ac_tbl), 0);
            }
            c.qtbl[id].q[0] = uint16_t(1 + rng() % 255);
        }
        const int32_t cols = 1 + rng() % 6, rows = 1 + rng() % 4, interval = rng() % 3 ? 0 : 1 + rng() % 5;
        c.fh.n_comp = c.sh.n_comp = uint8_t(lay.n);
        for (int k = 0; k < lay.n; ++k) {
            c.sh.comp_idx[k] = uint8_t(k);
            c.fh.h[k] = lay.h[k], c.fh.v[k] = lay.v[k];
            c.fh.tq[k] = c.sh.td[k] = c.sh.ta[k] = uint8_t(k && rng() % 4 ? 1 : 0);
            c.blk_w[k] = cols * lay.h[k], c.blk_h[k] = rows * lay.v[k];
        }
        c.dri.length = interval ? 4 : 0, c.dri.interval = uint16_t(interval);
        // The scan's data, restart markers after every interval but the last.
        const int damage = round % 5;
        Writer w;
        for (int32_t m = 0; m < cols * rows; ++m) {
            if (interval && m && m % interval == 0) {
                while (w.n) w.put(1, 1);
                w.out.insert(w.out.end(), {0xFF, uint8_t(0xD0 + (m / interval - 1) % 8)});
            }
            for (int k = 0; k < lay.n; ++k)
                for (int b = 0; b < lay.h[k] * lay.v[k]; ++b) {
                    const int id = c.sh.ta[k];
                    SymWriter(dht[0][id]).put(w, rng, false);
                    // Symbols at random, end-of-block now and then, often
                    // a last coefficient at 63, sometimes followed by an
                    // end-of-block too many.
                    const SymWriter ac(dht[1][id]);
                    const std::vector<uint8_t> &vals = dht[1][id].vals;
                    const int eob = int(std::find(vals.begin(), vals.end(), 0x00) - vals.begin());
                    for (int z = 1; z <= 63;) {
                        const int at63 = int(std::find_if(vals.begin(), vals.end(), [z](uint8_t v) { return v >> 4 == 63 - z && (v & 15); }) - vals.begin());
                        const int pick = rng() % 6 == 0 ? eob : z > 56 || rng() % 2 ? at63 : -1;
                        const int v = ac.put(w, rng, true, pick < int(vals.size()) ? pick : -1);
                        if (v == 0) break;
                        z += v == 0xF0 ? 16 : (v >> 4) + 1;
                        if (z == 64 && eob < int(vals.size()) && (damage || round % 2) && rng() % 2) ac.put(w, rng, true, eob);
                    }
                }
        }
        std::vector<uint8_t> data = w.finish();
        for (int i = 0; damage == 1 && i < 3; ++i) data[rng() % data.size()] ^= uint8_t(1 << rng() % 8);
        for (int i = 0; damage == 2 && i < 3; ++i) data[rng() % data.size()] = rng() % 2 ? 0xFF : uint8_t(0xC0 + rng() % 64);
        if (damage == 3) data.resize(1 + rng() % data.size());
        if (damage == 4) data = random_stream(rng, data.size());
        Mem in(data);
        const auto position = [](const kivod_bs &bs) {  // data bits consumed: stuffing bytes do not count
            int64_t bytes = 0;
            for (const uint8_t *p = bs.start; p < bs.cur; ++p) bytes += !(*p == 0 && p > bs.start && p[-1] == 0xFF);
            return bytes * 8 - bs.bits;
        };
        const int32_t total = cols * rows, targets[3] = {int32_t(rng() % total), int32_t(rng() % total), total};
        // The reference: the walk as the slices take it, block by block
        // through the 1/8 block decoder with a window open over each MCU.
        std::unique_ptr<BlkTables> bt[4];
        for (int k = 0; k < lay.n; ++k)
            bt[k] = std::make_unique<BlkTables>(&c.qtbl[c.fh.tq[k]], &c.dc_tbl[c.sh.td[k]], &c.ac_tbl[c.sh.ta[k]]);
        const auto walk = [&](kivod_skim &r, int32_t target) {
            for (; r.mcu < target; ++r.mcu) {
                kivod_win win{};
                for (int k = 0; k < lay.n; ++k)
                    for (int b = 0; b < lay.h[k] * lay.v[k] && !r.held; ++b) {
                        int16_t diff, dc_only;
                        r.held = kivod_vld_blk_for(8, false)(&r.bs, &win, &bt[k]->t, nullptr, &diff, &dc_only);
                        if (!r.held) r.pred[k] = wrap16(r.pred[k] + diff);
                    }
                kivod_win_close(&win, &r.bs);
                if (r.held && !interval) return 1;
                if (++r.run == interval && r.mcu + 1 != total && (r.held = kivod_bs_sync_restart(&r.bs, r.pred, &r.run))) {
                    ++r.mcu;
                    return 1;
                }
                if (kivod_bs_input_done(&r.bs) && r.bs.bits < 1) {
                    ++r.mcu;
                    return 1;
                }
            }
            return 0;
        };
        kivod_skim ref{in.bs, {}, 0, 0, 0};
        std::vector<kivod_skim> sk(variants.size(), ref);
        for (int32_t target : targets) {
            const int32_t want = walk(ref, std::max(target, ref.mcu));
            for (size_t i = 0; i < variants.size(); ++i) {
                c.dsp.skim_mcu = variants[i];
                ASSERT_EQ(kivod_skim_to(&c, &sk[i], std::max(target, sk[i].mcu)), want) << round;
                ASSERT_EQ(sk[i].mcu, ref.mcu) << round;
                ASSERT_EQ(position(sk[i].bs), position(ref.bs)) << round << " at MCU " << ref.mcu;
                ASSERT_TRUE(std::equal(ref.pred, ref.pred + 4, sk[i].pred) && sk[i].run == ref.run && sk[i].held == ref.held) << round;
            }
            if (want) break;
        }
        stopped += ref.mcu < total;
        held += ref.held != 0;
        fast += round % 3 == 0 && damage == 0 && ref.mcu == total;
    }
    // Every kind of ending was met.
    EXPECT_GT(stopped, 100);
    EXPECT_GT(held, 100);
    EXPECT_GT(fast, 40);
}

}  // namespace
