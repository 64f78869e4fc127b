// Entropy coder and Huffman tables of the encoder, checked against T.81
// Annex K figures and against the decoder: what the coder writes is decoded
// with the decoder's own tables and routines and must give back the blocks
// and the symbols the statistics twins counted.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "decoder/kivod_int.h"
#include "encoder/kivoe_int.h"

namespace {

// A zero-filled context with the default tables.
struct Ctx {
    kivoe_ctx *ctx = static_cast<kivoe_ctx *>(std::calloc(1, sizeof(kivoe_ctx)));
    Ctx() { kivoe_init_huff_tbl(ctx); }
    ~Ctx() { std::free(ctx); }
};

// Decoding tables built by the decoder from the encoder's specifications.
struct DecTables {
    std::unique_ptr<kivod_dc_tbl[]> dc = std::make_unique<kivod_dc_tbl[]>(4);
    std::unique_ptr<kivod_ac_tbl[]> ac = std::make_unique<kivod_ac_tbl[]>(4);
    int32_t build(const kivoe_huff_spec &s) {
        kivod_htbl_spec h{};
        h.cls = static_cast<uint8_t>(s.cls);
        h.id = static_cast<uint8_t>(s.id);
        h.count = static_cast<uint16_t>(s.count);
        for (int l = 0; l < 16; ++l) h.bits[l] = static_cast<uint8_t>(s.bits[l]);
        for (int k = 0; k < s.count; ++k) h.vals[k] = static_cast<uint8_t>(s.vals[k]);
        return kivod_build_htbl(&h, dc.get(), ac.get());
    }
};

// Same stuffing as the coder's own flush, but a different function: the
// coder then takes the writer's ordinary path, the reference for its own.
int32_t reference_flush(xelo_bsw *bs) { return kivoe_bs_flush_data_seg(bs); }

// Quantized blocks in raster order with the DC difference in entry 0.
struct Block {
    int16_t c[64] = {};
};

std::vector<Block> make_blocks(std::mt19937 &rng, int max_ac_cat) {
    auto level = [&](int cat) {
        const int v = (1 << (cat - 1)) + static_cast<int>(rng() % (1u << (cat - 1)));
        return static_cast<int16_t>(rng() % 2 ? v : -v);
    };
    auto set_zz = [](Block &b, int z, int16_t v) { b.c[kivo_tbl_zig_to_ras[z]] = v; };
    std::vector<Block> out;
    for (int i = 0; i < 600; ++i) {
        Block b;
        // DC differences of every category 0 to 11, both signs.
        const int dc_cat = i % 12;
        b.c[0] = dc_cat ? level(dc_cat) : 0;
        switch (i % 6) {
        case 0:  // sparse
            for (int z = 1; z < 64; ++z)
                if (rng() % 12 == 0) set_zz(b, z, level(1 + static_cast<int>(rng() % 4)));
            break;
        case 1:  // dense, large values
            for (int z = 1; z < 64; ++z) set_zz(b, z, level(1 + static_cast<int>(rng() % max_ac_cat)));
            break;
        case 2:  // runs of 16 and more zeros
            set_zz(b, 1 + static_cast<int>(rng() % 3), level(3));
            set_zz(b, 20 + static_cast<int>(rng() % 4), level(5));
            set_zz(b, 40 + static_cast<int>(rng() % 4), level(2));
            if (rng() % 2) set_zz(b, 63, level(1));
            break;
        case 3:  // a lone coefficient at 63, or none at all
            if (rng() % 2) set_zz(b, 63, level(1 + static_cast<int>(rng() % max_ac_cat)));
            break;
        case 4:  // the extremes of the largest category
            for (int z = 1; z < 64; z += 1 + static_cast<int>(rng() % 9))
                set_zz(b, z, static_cast<int16_t>(rng() % 2 ? (1 << max_ac_cat) - 1 : -((1 << max_ac_cat) - 1)));
            break;
        default:  // last coefficient at 47: EOB follows
            for (int z = 1; z <= 47; ++z)
                if (rng() % 3 == 0) set_zz(b, z, level(1 + static_cast<int>(rng() % 6)));
            set_zz(b, 47, 1);
            break;
        }
        out.push_back(b);
    }
    return out;
}

// Codes the blocks as the picture loop does and returns the bytes, stuffed,
// with an EOI behind them; after every block the writer's state must equal
// that of the reference path.
std::vector<uint8_t> encode(const std::vector<Block> &blocks, kivoe_dc_tbl *dc, kivoe_ac_tbl *ac) {
    const size_t cap = blocks.size() * 300 + 64;
    std::vector<uint8_t> fast(cap), ref(cap);
    xelo_bsw a, b;
    xelo_bsw_init(&a, fast.data(), static_cast<int32_t>(cap), kivoe_bs_flush_data_seg);
    xelo_bsw_init(&b, ref.data(), static_cast<int32_t>(cap), reference_flush);
    for (size_t i = 0; i < blocks.size(); ++i) {
        for (xelo_bsw *w : {&a, &b}) {
            EXPECT_EQ(kivoe_vlc_dc(w, dc, blocks[i].c[0]), 0);
            EXPECT_EQ(kivoe_vlc_ac(w, ac, blocks[i].c), 0);
        }
        const ptrdiff_t n = a.write_ptr - a.start_ptr;
        EXPECT_EQ(n, b.write_ptr - b.start_ptr) << "block " << i;
        EXPECT_EQ(a.cache, b.cache) << "block " << i;
        EXPECT_EQ(a.free_bits, b.free_bits) << "block " << i;
        if (n != b.write_ptr - b.start_ptr || std::memcmp(fast.data(), ref.data(), static_cast<size_t>(n)) != 0) {
            ADD_FAILURE() << "bytes differ after block " << i;
            break;
        }
    }
    xelo_bsw_sink(&a);
    EXPECT_EQ(a.overflow, 0);
    fast.resize(static_cast<size_t>(a.write_ptr - a.start_ptr));
    fast.insert(fast.end(), {0xFF, 0xD9});
    return fast;
}

// Decodes the blocks with the decoder and compares; the decoder counts the
// AC symbols it reads (plus an EOB after a coefficient at 63).
void decode_and_compare(const std::vector<uint8_t> &bytes, const std::vector<Block> &blocks,
                        const kivod_dc_tbl *dc, const kivod_ac_tbl *ac, uint64_t dc_count[12],
                        uint64_t ac_count[256]) {
    auto q = std::make_unique<kivod_qtbl>();
    for (int k = 0; k < 64; ++k) q->q[k] = 1, q->rq_mul[k] = 16384, q->rq_off[k] = 0;
    xelo_bitb bitb{};
    bitb.addr = const_cast<uint8_t *>(bytes.data());
    bitb.ssize = static_cast<int32_t>(bytes.size());
    kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
    kivod_bs bs{};
    ASSERT_EQ(kivod_bs_init(&bs, &in), 0);
    for (size_t i = 0; i < blocks.size(); ++i) {
        int16_t diff = 0, dc_only = 0, blk[64] = {};
        ASSERT_EQ(kivod_vld_dc(&bs, 1, dc, dc_count, &diff), 0) << "block " << i;
        ASSERT_EQ(diff, blocks[i].c[0]) << "block " << i;
        ASSERT_EQ(kivod_vld_ac8(&bs, q.get(), ac, ac_count, blk, &dc_only), 0) << "block " << i;
        for (int j = 1; j < 64; ++j) ASSERT_EQ(blk[j], blocks[i].c[j]) << "block " << i << " at " << j;
    }
    kivod_bs_align_byte(&bs);
    EXPECT_EQ(kivod_bs_read(&bs, 16), 0xFFD9u);
}

// Encodes, decodes and compares the statistics twins' counts with the
// symbols decoded, for DC/AC table pair `id` of the context.
void round_trip(kivoe_ctx *ctx, int id, const std::vector<Block> &blocks) {
    DecTables dt;
    ASSERT_EQ(dt.build(ctx->huff_spec[2 * id]), 0);
    ASSERT_EQ(dt.build(ctx->huff_spec[2 * id + 1]), 0);
    const std::vector<uint8_t> bytes = encode(blocks, &ctx->dc_tbl[id], &ctx->ac_tbl[id]);
    uint64_t dc_count[12] = {}, ac_count[256] = {};
    decode_and_compare(bytes, blocks, &dt.dc[id], &dt.ac[id], dc_count, ac_count);

    // Stuffing: every 0xFF of the data is followed by 0x00.
    size_t ff = 0;
    for (size_t i = 0; i + 2 < bytes.size(); ++i)
        if (bytes[i] == 0xFF) {
            ++ff;
            EXPECT_EQ(bytes[i + 1], 0x00) << "at " << i;
        }
    EXPECT_GT(ff, 0u);

    auto dcs = std::make_unique<kivoe_dc_tbl>(ctx->dc_tbl[id]);
    auto acs = std::make_unique<kivoe_ac_tbl>(ctx->ac_tbl[id]);
    std::memset(dcs->counter, 0, sizeof(dcs->counter));
    std::memset(acs->counter, 0, sizeof(acs->counter));
    uint64_t eob_after_63 = 0;
    for (const Block &b : blocks) {
        ASSERT_EQ(kivoe_vlc_dc_stat(nullptr, dcs.get(), b.c[0]), 0);
        ASSERT_EQ(kivoe_vlc_ac_stat(nullptr, acs.get(), b.c), 0);
        eob_after_63 += b.c[63] != 0;
    }
    for (int s = 0; s < 12; ++s) EXPECT_EQ(dcs->counter[s], dc_count[s]) << "DC category " << s;
    ac_count[0x00] -= eob_after_63;
    for (int s = 0; s < 256; ++s) EXPECT_EQ(acs->counter[s], ac_count[s]) << "AC symbol " << s;
}

// ---- tests ---------------------------------------------------------------------

TEST(EncVlc, DefaultCodesAndRates) {
    Ctx c;
    // T.81 Tables K.3 to K.6.
    const struct {
        int tbl, cls, sym;
        uint16_t code;
        uint8_t len;
    } figures[] = {
        {0, 0, 0, 0x0, 2},     {0, 0, 11, 0x1FE, 9}, {0, 0, 6, 0xE, 4},       {2, 0, 0, 0x0, 2},
        {2, 0, 11, 0x7FE, 11}, {1, 1, 0x00, 0xA, 4}, {1, 1, 0xF0, 0x7F9, 11}, {1, 1, 0x01, 0x0, 2},
        {1, 1, 0x03, 0x4, 3},  {1, 1, 0xFA, 0xFFFE, 16}, {3, 1, 0x00, 0x0, 2}, {3, 1, 0xF0, 0x3FA, 10},
        {3, 1, 0x01, 0x1, 2},  {3, 1, 0xFA, 0xFFFE, 16},
    };
    for (const auto &f : figures) {
        const int id = f.tbl >> 1;
        const kivoe_code got = f.cls ? c.ctx->ac_tbl[id].by_symbol[f.sym] : c.ctx->dc_tbl[id].code[f.sym];
        EXPECT_EQ(got.code, f.code) << f.tbl << " " << f.sym;
        EXPECT_EQ(got.len, f.len) << f.tbl << " " << f.sym;
    }
    EXPECT_EQ(c.ctx->ac_tbl[0].count, 163);
    EXPECT_EQ(c.ctx->dc_tbl[1].count, 12);

    const kivoe_dc_tbl *dc = &c.ctx->dc_tbl[0];
    const kivoe_ac_tbl *ac = &c.ctx->ac_tbl[0];
    EXPECT_EQ(get_vlc_dc_bits(dc, -3), 3 + 2);
    EXPECT_EQ(get_vlc_dc_bits(dc, 0), 2);
    EXPECT_EQ(get_vlc_dc_bits(dc, 2048), KIVO_ERR_UNAVAILABLE);
    EXPECT_EQ(get_vlc_ac_bits(ac, 2, 0, 1), 2 * 11 + 2 + 1);
    EXPECT_EQ(get_vlc_ac_bits(ac, 0, 15, -1000), 16 + 10);
    EXPECT_EQ(get_vlc_ac_bits(ac, 0, 0, -32768), KIVO_ERR_UNAVAILABLE);
    EXPECT_EQ(get_vlc_eob_bits(ac), 4);
}

// Exact bits of small cases, written with the plain flush so that the
// bytes are the bits themselves.
TEST(EncVlc, ExactBits) {
    Ctx c;
    kivoe_dc_tbl *dc = &c.ctx->dc_tbl[0];
    kivoe_ac_tbl *ac = &c.ctx->ac_tbl[0];
    auto bits_of = [](const std::vector<uint8_t> &b, int n) {
        std::string s;
        for (int i = 0; i < n; ++i) s += (b[i / 8] >> (7 - i % 8)) & 1 ? '1' : '0';
        return s;
    };
    const struct {
        int dc;
        int z;  // zig-zag position of a single AC coefficient, 0 for none
        int v;
        const char *bits;
    } cases[] = {
        {-3, 0, 0, "01100" "1010"},                  // category 2, extra 00, then EOB
        {3, 0, 0, "01111" "1010"},                   // extra 11
        {0, 1, 1, "00" "001" "1010"},                // 0x01 = 00, extra 1, EOB
        {0, 1, -1, "00" "000" "1010"},               // extra 0
        {0, 47, 1, "00" "11111111001" "11111111001" "1111111111101011" "1" "1010"},  // 2 ZRL, 0xE1, EOB
        {0, 63, 1, "00" "11111111001" "11111111001" "11111111001" "1111111111101011" "1"},  // no EOB
    };
    for (const auto &k : cases) {
        std::vector<uint8_t> out(64, 0xEE);
        xelo_bsw w;
        xelo_bsw_init(&w, out.data(), 64, kivoe_bs_flush);
        int16_t blk[64] = {};
        if (k.z) blk[kivo_tbl_zig_to_ras[k.z]] = static_cast<int16_t>(k.v);
        ASSERT_EQ(kivoe_vlc_dc(&w, dc, k.dc), 0);
        ASSERT_EQ(kivoe_vlc_ac(&w, ac, blk), 0);
        xelo_bsw_sink(&w);
        const int n = static_cast<int>(std::strlen(k.bits));
        ASSERT_EQ(w.write_ptr - out.data(), (n + 7) / 8) << k.bits;
        EXPECT_EQ(bits_of(out, n), k.bits);
    }
}

TEST(EncVlc, RoundTripDefaultTables) {
    Ctx c;
    std::mt19937 rng(11);
    for (int id = 0; id < 2; ++id) round_trip(c.ctx, id, make_blocks(rng, 10));
}

// Optimised tables from the blocks' own counts code AC values of category
// 11 as well, which the typical tables lack.
TEST(EncVlc, RoundTripOptimisedTables) {
    Ctx c;
    std::mt19937 rng(12);
    const std::vector<Block> blocks = make_blocks(rng, 11);
    for (int id = 0; id < 2; ++id)
        for (const Block &b : blocks) {
            kivoe_vlc_dc_stat(nullptr, &c.ctx->dc_tbl[id], b.c[0]);
            kivoe_vlc_ac_stat(nullptr, &c.ctx->ac_tbl[id], b.c);
        }
    ASSERT_EQ(kivoe_opt_huff_tbl(c.ctx), 0);
    EXPECT_EQ(c.ctx->ac_tbl[0].by_symbol[0x0B].len > 0, true);
    for (int id = 0; id < 2; ++id) round_trip(c.ctx, id, blocks);
}

TEST(EncVlc, ValuesWithoutCategory) {
    Ctx c;
    kivoe_dc_tbl *dc = &c.ctx->dc_tbl[0];
    kivoe_ac_tbl *ac = &c.ctx->ac_tbl[0];
    std::vector<uint8_t> out(4096);
    xelo_bsw w;
    xelo_bsw_init(&w, out.data(), 4096, kivoe_bs_flush_data_seg);
    for (int v : {2048, 4000, 32767}) {
        EXPECT_EQ(kivoe_vlc_dc(&w, dc, v), KIVO_ERR_UNAVAILABLE);
        EXPECT_EQ(kivoe_vlc_dc_stat(&w, dc, v), KIVO_ERR_UNAVAILABLE);
    }
    uint64_t before[257];
    std::memcpy(before, ac->counter, sizeof(before));
    for (int v : {2048, 32767, -32768}) {
        int16_t blk[64] = {};
        blk[kivo_tbl_zig_to_ras[5]] = static_cast<int16_t>(v);
        EXPECT_EQ(kivoe_vlc_ac(&w, ac, blk), KIVO_ERR_UNAVAILABLE) << v;
        EXPECT_EQ(kivoe_vlc_ac_stat(&w, ac, blk), KIVO_ERR_UNAVAILABLE) << v;
    }
    EXPECT_EQ(std::memcmp(before, ac->counter, sizeof(before)), 0);
    EXPECT_EQ(w.write_ptr, out.data());
    // Every other 16-bit value is coded with its category's length.
    for (int v = -32767; v <= 2047; ++v) {
        int16_t blk[64] = {};
        blk[1] = static_cast<int16_t>(v);
        xelo_bsw_init(&w, out.data(), 4096, kivoe_bs_flush_data_seg);
        const int k = kivo_category(v);
        ASSERT_EQ(kivoe_vlc_ac(&w, ac, blk), 0) << v;
        // Bits written: every 0xFF byte carries a stuffed 0x00 that is no bit.
        const int bytes = static_cast<int>(w.write_ptr - out.data());
        const int ff = static_cast<int>(std::count(out.data(), w.write_ptr, uint8_t(0xFF)));
        const int want = v ? ac->by_symbol[k].len + k + 4 : 4;
        ASSERT_EQ(8 * (bytes - ff) + 32 - w.free_bits, want) << v;
    }
}

// Bytes stuffed by the flush itself, and both flushes against the end of
// the output.
TEST(EncVlc, FlushProcedures) {
    uint8_t out[8];
    const struct {
        xelo_bsw_flush_fn fn;
        int room;
        std::vector<uint8_t> want;
        int overflow;
    } cases[] = {
        {kivoe_bs_flush_data_seg, 8, {0xFF, 0x00, 0x12}, 0}, {kivoe_bs_flush, 8, {0xFF, 0x12}, 0},
        {kivoe_bs_flush_data_seg, 2, {0xFF, 0x00}, 1},       {kivoe_bs_flush_data_seg, 1, {0xFF}, 1},
        {kivoe_bs_flush, 1, {0xFF}, 1},                       {kivoe_bs_flush, 0, {}, 1},
    };
    for (const auto &c : cases) {
        std::memset(out, 0xEE, sizeof(out));
        xelo_bsw w;
        xelo_bsw_init(&w, out, c.room, c.fn);
        xelo_bsw_write(&w, 0xFF12, 16);
        xelo_bsw_sink(&w);
        ASSERT_EQ(w.write_ptr - out, static_cast<ptrdiff_t>(c.want.size()));
        EXPECT_TRUE(std::equal(c.want.begin(), c.want.end(), out));
        EXPECT_EQ(out[c.want.size()], 0xEE);
        EXPECT_EQ(w.overflow, c.overflow);
        EXPECT_EQ(w.cache, 0u);
        EXPECT_EQ(w.free_bits, 32);
    }
}

// A short stream (blocks, a restart marker, more blocks, EOI) into output
// memory of every size up to what it needs: the bytes that fit are the
// stream's first bytes, nothing lands past the end (the heap block has
// exactly that size), and overflow tells whether it all fitted.
TEST(EncVlc, OutputTooSmall) {
    Ctx c;
    std::mt19937 rng(13);
    std::vector<Block> blocks = make_blocks(rng, 10);
    blocks.resize(24);
    auto write_stream = [&](uint8_t *mem, int32_t size) {
        xelo_bsw *w = &c.ctx->bs;
        xelo_bsw_init(w, mem, size, kivoe_bs_flush_data_seg);
        for (int half = 0; half < 2; ++half) {
            for (int i = 0; i < 12; ++i) {
                kivoe_vlc_dc(w, &c.ctx->dc_tbl[0], blocks[12 * half + i].c[0]);
                kivoe_vlc_ac(w, &c.ctx->ac_tbl[0], blocks[12 * half + i].c);
            }
            xelo_bsw_sink(w);
            if (half == 0) {
                w->flush = kivoe_bs_flush;
                kivoe_vlc_dri_marker(w, 0xD0);
                w->flush = kivoe_bs_flush_data_seg;
            }
        }
        w->flush = kivoe_bs_flush;
        kivoe_vlc_footer(c.ctx);
        xelo_bsw_sink(w);
        return *w;
    };
    std::vector<uint8_t> full(8192);
    const xelo_bsw whole = write_stream(full.data(), 8192);
    ASSERT_EQ(whole.overflow, 0);
    const int32_t need = static_cast<int32_t>(whole.write_ptr - whole.start_ptr);
    ASSERT_GT(need, 100);
    EXPECT_EQ(full[need - 2], 0xFF);
    EXPECT_EQ(full[need - 1], 0xD9);
    bool marker = false;
    for (int i = 0; i + 1 < need; ++i) marker = marker || (full[i] == 0xFF && full[i + 1] == 0xD0);
    EXPECT_TRUE(marker);
    for (int32_t size = 0; size <= need; ++size) {
        std::unique_ptr<uint8_t[]> mem(new uint8_t[static_cast<size_t>(size)]);
        const xelo_bsw w = write_stream(mem.get(), size);
        ASSERT_EQ(w.overflow, size < need ? 1 : 0) << size;
        ASSERT_EQ(w.write_ptr - mem.get(), size) << size;
        ASSERT_EQ(std::memcmp(mem.get(), full.data(), static_cast<size_t>(size)), 0) << size;
    }
}

TEST(EncVlc, FooterStatistics) {
    Ctx c;
    kivoe_init_fh(&c.ctx->fh, 64, 64, XELO_CS_YCBCR420);
    kivoe_init_sh(&c.ctx->sh, 64, 64, XELO_CS_YCBCR420);
    kivoe_vlc_footer_stat(c.ctx);
    EXPECT_EQ(c.ctx->ac_tbl[0].counter[0x37], 0u);
    c.ctx->adaptive_rounding = 1;
    kivoe_vlc_footer_stat(c.ctx);
    for (int s = 0; s < 256; ++s) {
        ASSERT_EQ(c.ctx->ac_tbl[0].counter[s], 1u);  // luma
        ASSERT_EQ(c.ctx->ac_tbl[1].counter[s], 2u);  // both chroma components
    }
}

// ---- optimal tables ------------------------------------------------------------

kivoe_huff_spec optimal(kivoe_ctx *ctx, int spec, const std::vector<std::pair<int, uint64_t>> &counts) {
    for (auto &t : ctx->dc_tbl) std::memset(t.counter, 0, sizeof(t.counter));
    for (auto &t : ctx->ac_tbl) std::memset(t.counter, 0, sizeof(t.counter));
    const int id = spec >> 1;
    for (const auto &c : counts) (spec & 1 ? ctx->ac_tbl[id].counter : ctx->dc_tbl[id].counter)[c.first] = c.second;
    EXPECT_EQ(kivoe_opt_huff_tbl(ctx), 0);
    return ctx->huff_spec[spec];
}

int bits_sum(const kivoe_huff_spec &s) {
    int n = 0;
    for (int l = 0; l < 16; ++l) n += s.bits[l];
    return n;
}

TEST(EncHuffman, OptimalTableFigures) {
    Ctx c;
    // Only category 0: the reserved symbol took the other 1-bit code.
    kivoe_huff_spec s = optimal(c.ctx, 0, {{0, 500}});
    EXPECT_EQ(s.bits[0], 1);
    EXPECT_EQ(bits_sum(s), 1);
    EXPECT_EQ(s.count, 1);
    EXPECT_EQ(s.vals[0], 0);
    // Nothing counted: sixteen zero counts and no values.
    for (int i = 1; i < 4; ++i) {
        EXPECT_EQ(bits_sum(c.ctx->huff_spec[i]), 0);
        EXPECT_EQ(c.ctx->huff_spec[i].count, 0);
    }
    // Equal counts: the larger symbol merges first (with the reserved
    // one), so symbol 0 keeps the 1-bit code.
    s = optimal(c.ctx, 2, {{0, 1}, {1, 1}});
    EXPECT_EQ(s.bits[0], 1);
    EXPECT_EQ(s.bits[1], 1);
    EXPECT_EQ(s.vals[0], 0);
    EXPECT_EQ(s.vals[1], 1);
    EXPECT_EQ(c.ctx->dc_tbl[1].code[0].len, 1);
    EXPECT_EQ(c.ctx->dc_tbl[1].code[1].code, 2);
    // Fibonacci counts reach 16 bits and beyond: limited to 16, none lost.
    std::vector<std::pair<int, uint64_t>> fib;
    uint64_t a = 1, b = 1;
    for (int sym = 0; sym < 30; ++sym) {
        fib.push_back({sym + 1, a});
        const uint64_t n = a + b;
        a = b;
        b = n;
    }
    s = optimal(c.ctx, 1, fib);
    EXPECT_EQ(bits_sum(s), 30);
    EXPECT_EQ(s.count, 30);
    EXPECT_GT(s.bits[15], 0);
    DecTables dt;
    EXPECT_EQ(dt.build(s), 0);
}

// Counts so skewed that code sizes pass 32: the line is printed and the
// table is still a complete, valid code holding every symbol.
TEST(EncHuffman, CodeSizeOverflow) {
    Ctx c;
    std::vector<std::pair<int, uint64_t>> fib;
    uint64_t a = 1, b = 2;
    for (int sym = 0; sym < 41; ++sym) {  // a chain 41 deep, total within the search bound
        fib.push_back({sym, a});
        const uint64_t n = a + b;
        a = b;
        b = n;
    }
    testing::internal::CaptureStdout();
    const kivoe_huff_spec s = optimal(c.ctx, 3, fib);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error : Huffman code size table overflow\n");
    EXPECT_EQ(bits_sum(s), 41);
    EXPECT_EQ(s.count, 41);
    DecTables dt;
    EXPECT_EQ(dt.build(s), 0);
    for (int sym = 0; sym < 41; ++sym) EXPECT_GT(c.ctx->ac_tbl[1].by_symbol[sym].len, 0) << sym;
}

// Random statistics: the optimal code never costs more than the typical
// one, holds exactly the counted symbols, and the decoder accepts it.
TEST(EncHuffman, OptimalNeverWorseThanTypical) {
    Ctx def;
    std::mt19937_64 rng(17);
    for (int trial = 0; trial < 40; ++trial) {
        Ctx c;
        const int spec = trial % 4;
        const kivoe_huff_spec &typical = def.ctx->huff_spec[spec];
        std::vector<std::pair<int, uint64_t>> counts;
        for (int k = 0; k < typical.count; ++k) {
            if (rng() % 4 == 0) continue;
            // Spread over many magnitudes, some beyond the 32-bit range.
            const int mag = static_cast<int>(rng() % (trial < 30 ? 24 : 40));
            counts.push_back({typical.vals[k], 1 + (rng() & ((uint64_t(1) << mag) - 1))});
        }
        const kivoe_huff_spec s = optimal(c.ctx, spec, counts);
        ASSERT_EQ(s.count, static_cast<int>(counts.size())) << trial;
        ASSERT_EQ(bits_sum(s), s.count) << trial;
        DecTables dt;
        ASSERT_EQ(dt.build(s), 0) << trial;
        const int id = spec >> 1;
        long double cost_opt = 0, cost_def = 0;
        for (const auto &cnt : counts) {
            const int len_opt = spec & 1 ? c.ctx->ac_tbl[id].by_symbol[cnt.first].len : c.ctx->dc_tbl[id].code[cnt.first].len;
            const int len_def =
                spec & 1 ? def.ctx->ac_tbl[id].by_symbol[cnt.first].len : def.ctx->dc_tbl[id].code[cnt.first].len;
            ASSERT_GT(len_opt, 0) << trial;
            cost_opt += static_cast<long double>(cnt.second) * len_opt;
            cost_def += static_cast<long double>(cnt.second) * len_def;
        }
        // Counts beyond the search bound are scaled, which may cost a
        // fraction of a bit per symbol; within it the code is optimal.
        if (trial < 30) EXPECT_LE(cost_opt, cost_def) << trial;
        else EXPECT_LE(cost_opt, cost_def * 1.001L) << trial;
    }
}

}  // namespace
