// Entropy coder and Huffman tables of the encoder, checked against the
// decoder: what the coder writes is decoded with the decoder's own tables
// and routines and must give back the blocks and the symbols the
// statistics twins counted; optimal tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
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

// Builds the decoder's tables from an encoder's Huffman table (counts and values).
int32_t build(const kivoe_huff_spec &s, kivod_dc_tbl *dc, kivod_ac_tbl *ac) {
    kivod_htbl_spec h{static_cast<uint8_t>(s.id), static_cast<uint8_t>(s.cls), static_cast<uint16_t>(s.count), {}, {}};
    for (int l = 0; l < 16; ++l) h.bits[l] = static_cast<uint8_t>(s.bits[l]);
    for (int k = 0; k < s.count; ++k) h.vals[k] = static_cast<uint8_t>(s.vals[k]);
    return kivod_build_htbl(&h, dc, ac);
}

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

// Encodes the blocks with DC/AC table pair `id`, decodes them with the
// decoder and compares the blocks and the statistics twins' counts with
// the symbols decoded.
void round_trip(kivoe_ctx *ctx, int id, const std::vector<Block> &blocks) {
    auto dc = std::make_unique<kivod_dc_tbl[]>(4);
    auto ac = std::make_unique<kivod_ac_tbl[]>(4);
    ASSERT_EQ(build(ctx->huff_spec[2 * id], dc.get(), ac.get()), 0);
    ASSERT_EQ(build(ctx->huff_spec[2 * id + 1], dc.get(), ac.get()), 0);
    std::vector<uint8_t> bytes(blocks.size() * 300);
    xelo_bsw w;
    xelo_bsw_init(&w, bytes.data(), static_cast<int32_t>(bytes.size()), kivoe_bs_flush_data_seg);
    for (const Block &b : blocks)
        ASSERT_TRUE(kivoe_vlc_dc(&w, &ctx->dc_tbl[id], b[0]) == 0 && kivoe_vlc_ac(&w, &ctx->ac_tbl[id], b.data()) == 0);
    xelo_bsw_sink(&w);
    ASSERT_EQ(w.overflow, 0);
    bytes.resize(static_cast<size_t>(w.write_ptr - w.start_ptr));
    EXPECT_NE(std::find(bytes.begin(), bytes.end(), 0xFF), bytes.end());  // stuffing is exercised
    bytes.insert(bytes.end(), {0xFF, 0xD9});
    auto q = std::make_unique<kivod_qtbl>();
    for (int k = 0; k < 64; ++k) q->q[k] = 1, q->rq_mul[k] = 16384, q->rq_off[k] = 0;
    xelo_bitb bitb{};
    bitb.addr = bytes.data(), bitb.ssize = static_cast<int32_t>(bytes.size());
    kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
    kivod_bs bs{};
    ASSERT_EQ(kivod_bs_init(&bs, &in), 0);
    uint64_t dc_count[12] = {}, ac_count[256] = {};
    auto dcs = std::make_unique<kivoe_dc_tbl>();
    auto acs = std::make_unique<kivoe_ac_tbl>();  // counters of the statistics twins, from 0
    for (size_t i = 0; i < blocks.size(); ++i) {
        int16_t diff = 0, dc_only = 0, blk[64] = {};
        ASSERT_EQ(kivod_vld_dc(&bs, 1, &dc[id], dc_count, &diff), 0) << "block " << i;
        ASSERT_EQ(diff, blocks[i][0]) << "block " << i;
        ASSERT_EQ(kivod_vld_ac8(&bs, q.get(), &ac[id], ac_count, blk, &dc_only), 0) << "block " << i;
        for (int j = 1; j < 64; ++j) ASSERT_EQ(blk[j], blocks[i][j]) << "block " << i << " at " << j;
        ASSERT_EQ(kivoe_vlc_dc_stat(nullptr, dcs.get(), blocks[i][0]), 0);
        ASSERT_EQ(kivoe_vlc_ac_stat(nullptr, acs.get(), blocks[i].data()), 0);
        ac_count[0x00] -= blocks[i][63] != 0;  // the decoder counts an EOB after a coefficient at 63
    }
    kivod_bs_align_byte(&bs);
    EXPECT_EQ(kivod_bs_read(&bs, 16), 0xFFD9u);
    for (int s = 0; s < 12; ++s) EXPECT_EQ(dcs->counter[s], dc_count[s]) << "DC category " << s;
    for (int s = 0; s < 256; ++s) EXPECT_EQ(acs->counter[s], ac_count[s]) << "AC symbol " << s;
}

// The typical tables, then optimised ones from the blocks' own counts,
// which code AC values of category 11 as well.
TEST(EncVlc, RoundTrip) {
    Ctx c;
    std::mt19937 rng(11);
    for (int id = 0; id < 2; ++id) round_trip(c.ctx, id, make_blocks(rng, 10));
    const std::vector<Block> blocks = make_blocks(rng, 11);
    for (int id = 0; id < 2; ++id)
        for (const Block &b : blocks) {
            kivoe_vlc_dc_stat(nullptr, &c.ctx->dc_tbl[id], b[0]);
            kivoe_vlc_ac_stat(nullptr, &c.ctx->ac_tbl[id], b.data());
        }
    ASSERT_EQ(kivoe_opt_huff_tbl(c.ctx), 0);
    EXPECT_GT(c.ctx->ac_tbl[0].by_symbol[0x0B].len, 0);
    for (int id = 0; id < 2; ++id) round_trip(c.ctx, id, blocks);
}

// Optimal table `spec` (DC 0, AC 0, DC 1, AC 1) from the given counts.
kivoe_huff_spec optimal(kivoe_ctx *ctx, int spec, const std::vector<std::pair<int, uint64_t>> &counts) {
    for (int t = 0; t < 4; ++t) std::memset(ctx->dc_tbl[t].counter, 0, sizeof(ctx->dc_tbl[t].counter)), std::memset(ctx->ac_tbl[t].counter, 0, sizeof(ctx->ac_tbl[t].counter));
    for (const auto &c : counts) (spec & 1 ? ctx->ac_tbl[spec >> 1].counter : ctx->dc_tbl[spec >> 1].counter)[c.first] = c.second;
    EXPECT_EQ(kivoe_opt_huff_tbl(ctx), 0);
    const kivoe_huff_spec s = ctx->huff_spec[spec];
    EXPECT_EQ(std::accumulate(s.bits, s.bits + 16, 0), s.count);  // a complete code of the counted symbols, the decoder accepts it
    auto dc = std::make_unique<kivod_dc_tbl[]>(4);
    auto ac = std::make_unique<kivod_ac_tbl[]>(4);
    EXPECT_TRUE(s.count == 0 || build(s, dc.get(), ac.get()) == 0);
    return s;
}

std::vector<std::pair<int, uint64_t>> fibonacci(int n, uint64_t a, uint64_t b) {
    std::vector<std::pair<int, uint64_t>> out;
    for (int sym = 0; sym < n; ++sym, b += a, a = b - a) out.push_back({sym, a});
    return out;
}

TEST(EncHuffman, OptimalTableFigures) {
    Ctx c;
    // Only category 0: the reserved symbol took the other 1-bit code;
    // nothing counted: sixteen zero counts and no values.
    kivoe_huff_spec s = optimal(c.ctx, 0, {{0, 500}});
    EXPECT_TRUE(s.bits[0] == 1 && s.count == 1 && s.vals[0] == 0);
    for (int i = 1; i < 4; ++i) EXPECT_EQ(c.ctx->huff_spec[i].count, 0);
    // Equal counts: the larger symbol merges first (with the reserved
    // one), so symbol 0 keeps the 1-bit code.
    s = optimal(c.ctx, 2, {{0, 1}, {1, 1}});
    EXPECT_TRUE(s.bits[0] == 1 && s.bits[1] == 1 && s.vals[0] == 0 && s.vals[1] == 1 && c.ctx->dc_tbl[1].code[0].len == 1 &&
                c.ctx->dc_tbl[1].code[1].code == 2);
    // Fibonacci counts reach 16 bits and beyond: limited to 16, none lost.
    s = optimal(c.ctx, 1, fibonacci(30, 1, 1));
    EXPECT_TRUE(s.count == 30 && s.bits[15] > 0);
    // So skewed that code sizes pass 32: the line is printed, the table
    // still holds every symbol.
    testing::internal::CaptureStdout();
    s = optimal(c.ctx, 3, fibonacci(41, 1, 2));
    EXPECT_TRUE(testing::internal::GetCapturedStdout() == "Error : Huffman code size table overflow\n" && s.count == 41);
    for (int sym = 0; sym < 41; ++sym) EXPECT_GT(c.ctx->ac_tbl[1].by_symbol[sym].len, 0) << sym;
}

// Random statistics: the optimal code never costs more than the typical
// one and holds exactly the counted symbols.
TEST(EncHuffman, OptimalNeverWorseThanTypical) {
    Ctx def;
    std::mt19937_64 rng(17);
    for (int trial = 0; trial < 40; ++trial) {
        Ctx c;
        const int spec = trial % 4, id = spec >> 1;
        const kivoe_huff_spec &typical = def.ctx->huff_spec[spec];
        std::vector<std::pair<int, uint64_t>> counts;
        for (int k = 0; k < typical.count; ++k)
            if (rng() % 4) {
                // Spread over many magnitudes, some beyond the 32-bit range.
                const int mag = static_cast<int>(rng() % (trial < 30 ? 24 : 40));
                counts.push_back({typical.vals[k], 1 + (rng() & ((uint64_t(1) << mag) - 1))});
            }
        ASSERT_EQ(optimal(c.ctx, spec, counts).count, static_cast<int>(counts.size())) << trial;
        auto len = [spec, id](const Ctx &x, int sym) { return spec & 1 ? x.ctx->ac_tbl[id].by_symbol[sym].len : x.ctx->dc_tbl[id].code[sym].len; };
        long double cost_opt = 0, cost_def = 0;
        for (const auto &cnt : counts) {
            ASSERT_GT(len(c, cnt.first), 0) << trial;
            cost_opt += static_cast<long double>(cnt.second) * len(c, cnt.first);
            cost_def += static_cast<long double>(cnt.second) * len(def, cnt.first);
        }
        // Counts beyond the search bound are scaled, which may cost a
        // fraction of a bit per symbol; within it the code is optimal.
        EXPECT_LE(cost_opt, cost_def * (trial < 30 ? 1 : 1.001L)) << trial;
    }
}

}  // namespace
