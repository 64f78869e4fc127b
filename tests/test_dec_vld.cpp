// Huffman decoding tables and coefficient decoding. Streams are produced by
// a small encoder written here (canonical codes, run/size symbols with their
// value bits), independent of the decoder's tables.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "decoder/kivod_int.h"

namespace {

struct Dht {
    std::vector<uint8_t> bits, vals;
};
// The usual luminance DC table; an AC table of the usual luminance shape
// (codes of 2 to 16 bits) over every symbol, in run/size order.
const Dht kLumaDc = {{0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}};
const Dht kLumaAc = [] {
    Dht d{{0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d}, {0x01, 0x00, 0xF0}};
    for (int rs = 0x02; rs < 0x100; ++rs)
        if ((rs & 15) && (rs & 15) <= 10) d.vals.push_back(static_cast<uint8_t>(rs));
    return d;
}();

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
};

// Code and code length of each symbol value.
struct Code {
    uint32_t co[256] = {};
    int si[256] = {};
    explicit Code(const Dht &s) {
        std::vector<int> size;
        for (int l = 1; l <= 16; ++l)
            for (int i = 0; i < s.bits[l - 1]; ++i) size.push_back(l);
        uint32_t code = 0;
        size_t k = 0;
        for (int si_ = size.empty() ? 0 : size[0]; k < size.size(); ++si_, code <<= 1)
            for (; k < size.size() && size[k] == si_; ++k) co[s.vals[k]] = code++, si[s.vals[k]] = si_;
    }
};

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

int category(int v) {
    int m = v < 0 ? -v : v, c = 0;
    for (; m; m >>= 1) ++c;
    return c;
}

void put_value(Writer &w, int v, int cat) {
    if (cat) w.put(static_cast<uint32_t>(v < 0 ? v - 1 : v) & ((1u << cat) - 1), cat);
}

// One block: levels in zig-zag order (entry 0 the DC difference) and, for
// each coefficient, the zig-zag position where its symbol starts.
struct Block {
    int lev[64] = {};
    int start[64] = {};
    std::vector<int> ac_symbols;  // symbols emitted, for the counters
};

void encode(Writer &w, Block &b, const Code &dc, const Code &ac) {
    int c = category(b.lev[0]);
    w.put(dc.co[c], dc.si[c]);
    put_value(w, b.lev[0], c);
    int run = 0;
    for (int k = 1; k < 64; ++k) {
        if (b.lev[k] == 0) {
            ++run;
            continue;
        }
        for (; run > 15; run -= 16) w.put(ac.co[0xF0], ac.si[0xF0]), b.ac_symbols.push_back(0xF0);
        int s = run << 4 | category(b.lev[k]);
        w.put(ac.co[s], ac.si[s]);
        put_value(w, b.lev[k], category(b.lev[k]));
        b.ac_symbols.push_back(s);
        b.start[k] = k - run;
        run = 0;
    }
    if (run) w.put(ac.co[0], ac.si[0]), b.ac_symbols.push_back(0);
}

int16_t wrap16(int v) { return static_cast<int16_t>(static_cast<uint16_t>(v & 0xFFFF)); }

std::vector<Block> make_blocks(std::mt19937 &rng) {
    std::vector<Block> blocks(400);
    auto level = [&](int max_cat) {
        int c = 1 + static_cast<int>(rng() % max_cat);
        int v = (1 << (c - 1)) + static_cast<int>(rng() % (1u << (c - 1)));
        return rng() % 2 ? v : -v;
    };
    for (size_t i = 0; i < blocks.size(); ++i) {
        Block &b = blocks[i];
        b.lev[0] = rng() % 4 ? level(11) : 0;
        int density = static_cast<int>(rng() % 5);
        for (int k = 1; k < 64; ++k)
            if (density && rng() % (2 + 4 * density) == 0) b.lev[k] = level(10);
    }
    // Fixed shapes: DC only, a lone coefficient at 63, a full block, runs of
    // 38 and 15 zeros, category 11 DC with all extra bits zero.
    blocks[0] = Block{};
    blocks[1] = Block{};
    blocks[1].lev[63] = -5;
    for (int k = 0; k < 64; ++k) blocks[2].lev[k] = k % 2 ? 3 : -1;
    blocks[3] = Block{};
    blocks[3].lev[1] = 7, blocks[3].lev[40] = 1;
    blocks[4] = Block{};
    blocks[4].lev[16] = 2, blocks[4].lev[20] = 9;
    blocks[5] = Block{};
    blocks[5].lev[0] = -2047;
    return blocks;
}

// Quantizers of 1 in an exactly sized block, re-quantization that changes nothing.
struct Quant {
    std::unique_ptr<kivod_qtbl> q = std::make_unique<kivod_qtbl>();
    Quant() {
        for (int k = 0; k < 64; ++k) q->q[k] = 1, q->rq_mul[k] = 16384, q->rq_off[k] = 0;
    }
};

using AcFn = int32_t (*)(kivod_bs *, const kivod_qtbl *, const kivod_ac_tbl *, uint64_t *,
                         int16_t *, int16_t *);

struct Reader {
    std::unique_ptr<uint8_t[]> data;
    xelo_bitb bitb{};
    kivod_bs bs{};
    explicit Reader(const std::vector<uint8_t> &b) : data(new uint8_t[b.size()]) {
        std::copy(b.begin(), b.end(), data.get());
        bitb.addr = data.get();
        bitb.ssize = static_cast<int32_t>(b.size());
        kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
        EXPECT_EQ(kivod_bs_init(&bs, &in), 0);
    }
};

const Dht kLongSym = {{1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}, {0x00, 0x01}};  // EOB "0", 0x01 in 9 bits
const Dht kLongEob = {{1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}, {0x01, 0x00}};  // 0x01 "0", EOB in 9 bits

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
    const int32_t figures[][2] = {{0, 0},      {1, 1},       {-1, 1},      {3, 2},     {-4, 3},
                                  {2047, 11},  {2048, -1},   {-2048, 12},  {-4095, 12},
                                  {-4096, 13}, {-32767, 15}, {-32768, -1}, {0xFFFF, 1}};
    for (const auto &f : figures) EXPECT_EQ(kivo_category(f[0]), f[1]) << f[0];
}

// Random and shaped blocks through every scale's routine: each stores
// exactly its share, all consume the same bits. With quantizers of 1 and
// re-quantization that changes nothing, the full routine's counters hold
// the symbols the encoder emitted, plus the end-of-block the counting adds
// after a coefficient at position 63.
TEST(DecVld, BlocksAtEveryScale) {
    const struct {
        AcFn fn;
        int last;  // symbols starting at or before this position are stored
    } routines[] = {{kivod_vld_ac8, 63}, {kivod_vld_ac4, 9}, {kivod_vld_ac2, 2}, {kivod_vld_ac1, 0}};
    std::mt19937 rng(3);
    Tables t;
    ASSERT_EQ(t.build(kLumaDc, 0), 0);
    ASSERT_EQ(t.build(kLumaAc, 1), 0);
    const Code dc(kLumaDc), ac(kLumaAc);
    for (int qmode = 0; qmode < 2; ++qmode) {
        Quant q;
        for (int k = 0; k < 64 && qmode; ++k) q.q->q[k] = static_cast<uint16_t>(1 + rng() % 255);
        std::vector<Block> blocks = make_blocks(rng);
        Writer w;
        uint64_t want_ac[256] = {};
        for (Block &b : blocks) {
            encode(w, b, dc, ac);
            for (int s : b.ac_symbols) ++want_ac[s];
            want_ac[0] += b.lev[63] != 0;
        }
        const std::vector<uint8_t> stream = w.finish();
        for (const auto &r : routines) {
            Reader in(stream);
            uint64_t dc_count[12] = {}, want_dc[12] = {}, ac_count[256] = {};
            uint64_t *counts = qmode == 0 && r.last == 63 ? ac_count : nullptr;
            for (size_t i = 0; i < blocks.size(); ++i) {
                const Block &b = blocks[i];
                int16_t diff = 1234, blk[64], want[64], dc_only = 7;
                std::fill_n(blk, 64, r.last ? 0 : 0x5555);
                std::fill_n(want, 64, r.last ? 0 : 0x5555);
                bool any_ac = false;
                for (int k = 1; k < 64; ++k) {
                    any_ac = any_ac || b.lev[k];
                    if (b.lev[k] && b.start[k] <= r.last) want[kivo_tbl_zig_to_ras[k]] = wrap16(b.lev[k] * q.q->q[k]);
                }
                ++want_dc[category(b.lev[0])];
                ASSERT_EQ(kivod_vld_dc(&in.bs, static_cast<int16_t>(q.q->q[0]), &t.dc[0], dc_count, &diff), 0);
                ASSERT_EQ(diff, wrap16(b.lev[0] * q.q->q[0])) << "block " << i;
                ASSERT_EQ(r.fn(&in.bs, q.q.get(), &t.ac[0], counts, blk, &dc_only), 0);
                for (int j = 0; j < 64; ++j) ASSERT_EQ(blk[j], want[j]) << "routine " << r.last << " block " << i << " at " << j;
                ASSERT_EQ(dc_only, r.last == 0 || !any_ac ? 1 : 0) << "block " << i;
            }
            for (int c = 0; c < 12; ++c) EXPECT_EQ(dc_count[c], want_dc[c]);
            for (int s = 0; s < 256 && counts; ++s) EXPECT_EQ(ac_count[s], want_ac[s]) << "symbol " << s;
            kivod_bs_align_byte(&in.bs);
            EXPECT_EQ(kivod_bs_read(&in.bs, 16), 0xFFD9u);
        }
    }
    // A category 11 DC difference whose extra bits are all zero.
    Writer w;
    w.bits("111111110" "00000000000");
    Reader in(w.finish());
    int16_t diff = 0;
    ASSERT_EQ(kivod_vld_dc(&in.bs, 1, &t.dc[0], nullptr, &diff), 0);
    EXPECT_EQ(diff, -2047);
    // A re-quantized value of 2048 or more has no category.
    Quant q;
    for (int k = 0; k < 64; ++k) q.q->q[k] = 2, q.q->rq_mul[k] = 32767;
    Block b;
    b.lev[1] = 600;
    Writer w2;
    encode(w2, b, dc, ac);
    Reader in2(w2.finish());
    int16_t blk[64] = {}, dc_only;
    uint64_t counts[256] = {};
    ASSERT_EQ(kivod_vld_dc(&in2.bs, 2, &t.dc[0], nullptr, &diff), 0);
    EXPECT_EQ(kivod_vld_ac8(&in2.bs, q.q.get(), &t.ac[0], counts, blk, &dc_only), KIVO_ERR_UNAVAILABLE);
}

TEST(DecVld, MalformedCodes) {
    const Dht bad_run = {{0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {0x00, 0x50}};  // a size-0 run-5 symbol
    const struct {
        const Dht *ac;
        const char *bits;
        int32_t dc_status, ac_status;
    } cases[] = {
        {&kLumaAc, "00" "1111111111111111", 0, KIVO_ERR_MALFORMED},
        {&kLumaAc, "1111111111111111", KIVO_ERR_MALFORMED, 0},
        {&kLongSym, "00" "100000000" "1" "0", 0, KIVO_ERR_MALFORMED},  // longer than the symbol count allows
        {&kLongEob, "00" "0" "1" "100000000", 0, 0},
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
            Reader in(w.finish());
            int16_t diff = 0, blk[64] = {}, dc_only;
            ASSERT_EQ(kivod_vld_dc(&in.bs, 1, &t.dc[0], nullptr, &diff), c.dc_status) << c.bits;
            if (c.dc_status != 0) continue;
            EXPECT_EQ(fn(&in.bs, q.q.get(), &t.ac[0], nullptr, blk, &dc_only), c.ac_status) << c.bits;
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
        {&kLongSym, "0" "0" "0" "100000000" "0", 4},  // EOB x3, then 0x01 too long for the table
        {&kLongEob, "01" "01" "01" "100000000", 1},   // +1 three times, then a long end-of-block
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
            Reader seq(w.out);
            int32_t want = 0;
            for (int b = 0; b < 4 && want == 0; ++b) want = kivod_vld_ac8(&seq.bs, q.q.get(), &t.ac[0], nullptr, blk, &dc_only);
            // The same bits as progressive blocks (band 1..63), first and refining.
            Reader first(w.out), refine(w.out);
            int16_t b1[64] = {}, b2[64] = {};
            int32_t run1 = 0, run2 = 0, got1 = 0, got2 = 0;
            for (int b = 0; b < c.blocks && got1 == 0; ++b) got1 = kivod_vld_ac_prog(&first.bs, 1, 63, 0, &run1, &t.ac[0], b1);
            for (int b = 0; b < c.blocks && got2 == 0; ++b) got2 = kivod_vld_ac_prog_refine(&refine.bs, 1, 63, 0, &run2, &t.ac[0], b2);
            EXPECT_EQ(got1, want) << c.bits << " tail " << tail;
            EXPECT_EQ(got2, want) << c.bits << " tail " << tail;
        }
    }
}

}  // namespace
