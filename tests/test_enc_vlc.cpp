// Optimal Huffman tables of the encoder: figures at the edges, never worse
// than the typical tables, always accepted by the decoder; blocks coded an
// MCU at a time as one by one. (The coder's output is decoded in
// DecVld.BlocksAtEveryScale.)
#include <gtest/gtest.h>

#include <algorithm>
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

// Blocks coded an MCU at a time give the bytes of blocks coded one by one,
// and both those of the separate DC and AC coders: sparse and dense
// blocks, long codes before ZRLs, masks known or not, DC differences and
// levels without a category; with room for everything, and with an output
// that ends within the last MCU, of levels of the largest category, when
// there is room left for a block but not for an MCU. The counting twins
// agree as well.
TEST(EncHuffman, BlocksInTurnAsOneByOne) {
    Ctx c;
    std::mt19937 rng(5);
    constexpr int kBlocks = 240, kMcu = 6;
    std::vector<int16_t> levels(64 * kBlocks);
    std::vector<kivoe_block_code> code(kBlocks);
    for (int i = 0; i < kBlocks; ++i) {
        int16_t *b = &levels[64 * i];
        const unsigned density = i >= kBlocks - kMcu ? 32 : 1 + i % 4 * 8;  // in 32
        for (int k = 1; k < 64; ++k)
            if (rng() % 32 < density) b[k] = static_cast<int16_t>(i >= kBlocks - kMcu ? (k % 2 ? 1023 : -1023) : static_cast<int>(rng() % 2047) - 1023);
        if (i % 37 == 5 || i % 37 == 6) b[9] = i % 37 == 5 ? 3000 : -3000;  // no category, either sign
        if (i % 37 == 20) {  // two long codes, then three ZRLs
            std::fill_n(b, 64, 0);
            b[kivo_tbl_zig_to_ras[1]] = b[kivo_tbl_zig_to_ras[63]] = 1023;
            b[kivo_tbl_zig_to_ras[2]] = -1023;
        }
        uint64_t mask = 0;
        for (int z = 1; z < 64; ++z) mask |= static_cast<uint64_t>(b[kivo_tbl_zig_to_ras[z]] != 0) << z;
        const int32_t diff = i % 29 == 3 ? 5000 : i % 31 == 7 ? -3000 : i % 37 == 11 ? 2048 : static_cast<int32_t>(rng() % 4095) - 2047;
        code[i] = {&c.ctx->dc_tbl[i % kMcu / 4], &c.ctx->ac_tbl[i % kMcu / 4], b, i % 3 && std::abs(b[9]) != 3000 ? mask : ~uint64_t(0), diff};
    }
    ptrdiff_t before_last = 0;
    for (int32_t size : {64 * kBlocks * 4, 0}) {
        if (!size) size = static_cast<int32_t>(before_last) + 700;
        std::vector<uint8_t> one(static_cast<size_t>(size)), mcu(static_cast<size_t>(size)), apart(static_cast<size_t>(size));
        xelo_bsw a, b, r;
        xelo_bsw_init(&a, one.data(), size, kivoe_bs_flush_data_seg);
        xelo_bsw_init(&b, mcu.data(), size, kivoe_bs_flush_data_seg);
        xelo_bsw_init(&r, apart.data(), size, kivoe_bs_flush_data_seg);
        for (int i = 0; i < kBlocks; i += kMcu) {
            before_last = a.write_ptr - a.start_ptr;
            for (int k = i; k < i + kMcu; ++k) {
                kivoe_vlc_block_mask(&a, code[k].dc, code[k].ac, code[k].diff, code[k].blk, code[k].mask);
                if (kivoe_vlc_dc(&r, code[k].dc, code[k].diff) == 0) kivoe_vlc_ac(&r, code[k].ac, code[k].blk);
            }
            kivoe_vlc_blocks(&b, &code[i], kMcu);
        }
        xelo_bsw_sink(&a);
        xelo_bsw_sink(&b);
        xelo_bsw_sink(&r);
        EXPECT_TRUE(a.overflow == (size < 64 * kBlocks * 4) && b.overflow == a.overflow && r.overflow == a.overflow) << size;
        EXPECT_TRUE(a.write_ptr - a.start_ptr == b.write_ptr - b.start_ptr && one == mcu) << size;
        EXPECT_TRUE(r.write_ptr - r.start_ptr == a.write_ptr - a.start_ptr && apart == one) << size;
        EXPECT_NE(std::find(one.begin(), one.end(), 0xFF), one.end());  // stuffing is exercised
    }
    // Counted with a second array, the blocks' symbols add up to those
    // counted in one.
    auto dc = std::make_unique<kivoe_dc_tbl[]>(2);
    auto ac = std::make_unique<kivoe_ac_tbl[]>(2);
    std::vector<uint64_t> odd(256);
    for (const kivoe_block_code &k : code) {
        kivoe_vlc_dc_stat(nullptr, &dc[0], k.diff);
        kivoe_vlc_ac_stat(nullptr, &ac[0], k.blk);
        kivoe_vlc_block_stat(&dc[1], &ac[1], odd.data(), k.diff, k.blk, k.mask);
    }
    for (int v = 0; v < 256; ++v) EXPECT_EQ(ac[1].counter[v] + odd[v], ac[0].counter[v]) << "AC symbol " << v;
    for (int v = 0; v < 16; ++v) EXPECT_EQ(dc[1].counter[v], dc[0].counter[v]) << "DC category " << v;
}

}  // namespace
