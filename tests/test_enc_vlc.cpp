// Optimal Huffman tables of the encoder: figures at the edges, never worse
// than the typical tables, always accepted by the decoder. (The coder's
// output is decoded in DecVld.BlocksAtEveryScale.)
#include <gtest/gtest.h>

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
