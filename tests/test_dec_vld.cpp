// Huffman decoding tables and coefficient decoding. Streams are produced by
// a small encoder written here from T.81 Annex C (canonical codes) and
// F.1.2 (symbol coding), independent of the decoder's tables.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "decoder/kivod_int.h"

namespace {

// ---- T.81 Annex K typical tables -------------------------------------------------

struct Dht {
    std::vector<uint8_t> bits, vals;
};
const Dht kLumaDc = {{0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0},
                      {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}};
const Dht kChromaDc = {{0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0},
                        {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}};
const Dht kLumaAc = {
    {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d},
    {0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61,
     0x07, 0x22, 0x71, 0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52,
     0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72, 0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25,
     0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45,
     0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63, 0x64,
     0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83,
     0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99,
     0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6,
     0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3,
     0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8,
     0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa}};
const Dht kChromaAc = {
    {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77},
    {0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61,
     0x71, 0x13, 0x22, 0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33,
     0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1, 0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18,
     0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44,
     0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63,
     0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a,
     0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97,
     0x98, 0x99, 0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4,
     0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca,
     0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7,
     0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa}};

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

// ---- encoder ---------------------------------------------------------------------------

// EHUFCO/EHUFSI of T.81 C.2 and C.3, indexed by symbol value.
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

struct Quant {
    std::unique_ptr<kivod_qtbl> q = std::make_unique<kivod_qtbl>();
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

// ---- tests -------------------------------------------------------------------------------

TEST(DecVld, AnnexKTableFigures) {
    Tables t;
    ASSERT_EQ(t.build(kLumaDc, 0, 3), 0);
    const kivod_dc_tbl &dc = t.dc[3];
    for (int i = 0; i < 256; ++i) {
        int want = i < 0x40 ? 0 : (i < 0x60 ? 1 : -1);
        if (want >= 0) {
            EXPECT_EQ(dc.lookup[i], want) << i;
        }
    }
    EXPECT_EQ(dc.lookup[0xFE], 10);
    EXPECT_EQ(dc.lookup[0xFF], 10);
    EXPECT_EQ(dc.code[11].len, 9);
    EXPECT_EQ(dc.count, 12);

    ASSERT_EQ(t.build(kLumaAc, 1, 3), 0);
    const kivod_ac_tbl &ac = t.ac[3];
    EXPECT_EQ(ac.count, 163);
    EXPECT_EQ(ac.sym[ac.eob].code, 0xA);
    EXPECT_EQ(ac.sym[ac.eob].len, 4);
    EXPECT_EQ(ac.sym[ac.zrl].len, 11);
    EXPECT_EQ(ac.sym[ac.zrl].run, 15);
    for (int i = 0; i < 0x40; ++i) {
        EXPECT_EQ(ac.lookup[i].len, 2);
        EXPECT_EQ(ac.lookup[i].size, 1);
        EXPECT_EQ(ac.lookup[i].run, 0);
    }
    EXPECT_EQ(ac.lookup[0xFA].len, 8);
    for (int i = 0xFB; i < 0x100; ++i) EXPECT_EQ(ac.lookup[i].len, 255);
}

TEST(DecVld, TableBuildFailures) {
    Dht over_ac = {{3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {1, 2, 3}};
    Dht many_ac = {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 255}, {}};
    Dht many_dc = {{0, 0, 0, 13, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {}};
    Dht big_val = {{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {12}};
    struct Case {
        const Dht *s;
        int cls, id;
    } cases[] = {{&over_ac, 1, 3}, {&over_ac, 0, 3}, {&many_ac, 1, 3}, {&many_dc, 0, 3},
                 {&big_val, 0, 3}, {&kLumaDc, 2, 0}, {&kLumaDc, 0, 4}};
    for (const Case &c : cases) {
        Tables t;
        EXPECT_EQ(t.build(*c.s, c.cls, c.id), KIVO_ERR_MALFORMED);
    }
}

TEST(DecVld, CategoryFigures) {
    const int32_t figures[][2] = {{0, 0},      {1, 1},       {-1, 1},      {3, 2},     {-4, 3},
                                  {2047, 11},  {2048, -1},   {-2048, 12},  {-4095, 12},
                                  {-4096, 13}, {-32767, 15}, {-32768, -1}, {0xFFFF, 1}};
    for (const auto &f : figures) EXPECT_EQ(kivo_category(f[0]), f[1]) << f[0];
}

// Random and shaped blocks through every scale's routine: each stores
// exactly its share, all consume the same bits.
TEST(DecVld, BlocksAtEveryScale) {
    const struct {
        AcFn fn;
        int last;  // symbols starting at or before this position are stored
    } routines[] = {{kivod_vld_ac8, 63}, {kivod_vld_ac4, 9}, {kivod_vld_ac2, 2}, {kivod_vld_ac1, 0}};
    const Dht *pairs[][2] = {{&kLumaDc, &kLumaAc}, {&kChromaDc, &kChromaAc}};
    std::mt19937 rng(3);
    for (int qmode = 0; qmode < 2; ++qmode) {
        Quant q;
        for (int k = 0; k < 64; ++k) q.q->q[k] = qmode ? static_cast<uint16_t>(1 + rng() % 255) : 1;
        for (const auto &pair : pairs) {
            Tables t;
            ASSERT_EQ(t.build(*pair[0], 0), 0);
            ASSERT_EQ(t.build(*pair[1], 1), 0);
            Code dc(*pair[0]), ac(*pair[1]);
            std::vector<Block> blocks = make_blocks(rng);
            Writer w;
            for (Block &b : blocks) encode(w, b, dc, ac);
            std::vector<uint8_t> stream = w.finish();
            for (const auto &r : routines) {
                Reader in(stream);
                uint64_t dc_count[12] = {}, want_dc[12] = {};
                for (size_t i = 0; i < blocks.size(); ++i) {
                    const Block &b = blocks[i];
                    int16_t diff = 1234, blk[64], want[64], dc_only = 7;
                    const int16_t fill = r.last ? 0 : 0x5555;
                    std::fill_n(blk, 64, fill);
                    std::fill_n(want, 64, fill);
                    bool any_ac = false;
                    for (int k = 1; k < 64; ++k) {
                        any_ac = any_ac || b.lev[k];
                        if (b.lev[k] && b.start[k] <= r.last)
                            want[kivo_tbl_zig_to_ras[k]] = wrap16(b.lev[k] * q.q->q[k]);
                    }
                    ++want_dc[category(b.lev[0])];
                    ASSERT_EQ(kivod_vld_dc(&in.bs, static_cast<int16_t>(q.q->q[0]), &t.dc[0], dc_count, &diff), 0);
                    ASSERT_EQ(diff, wrap16(b.lev[0] * q.q->q[0])) << "block " << i;
                    ASSERT_EQ(r.fn(&in.bs, q.q.get(), &t.ac[0], nullptr, blk, &dc_only), 0);
                    for (int j = 0; j < 64; ++j)
                        ASSERT_EQ(blk[j], want[j]) << "routine " << r.last << " block " << i << " at " << j;
                    ASSERT_EQ(dc_only, r.last == 0 || !any_ac ? 1 : 0) << "block " << i;
                }
                for (int c = 0; c < 12; ++c) EXPECT_EQ(dc_count[c], want_dc[c]);
                kivod_bs_align_byte(&in.bs);
                EXPECT_EQ(kivod_bs_read(&in.bs, 16), 0xFFD9u);
            }
        }
    }
    Quant one;
    std::fill_n(one.q->q, 64, uint16_t(1));
    Tables t;
    ASSERT_EQ(t.build(kChromaDc, 0), 0);
    Writer w;
    w.bits("11111111110" "00000000000");  // category 11, extra bits 0
    Reader in(w.finish());
    int16_t diff = 0;
    ASSERT_EQ(kivod_vld_dc(&in.bs, 1, &t.dc[0], nullptr, &diff), 0);
    EXPECT_EQ(diff, -2047);
}

// With rq_mul = 16384 and rq_off = 0 the re-quantized block equals the
// decoded one, so the counters hold the symbols the encoder emitted, plus
// the end-of-block the counting adds after a coefficient at position 63.
TEST(DecVld, SymbolCountsAndRequantLimit) {
    std::mt19937 rng(5);
    Quant q;
    for (int k = 0; k < 64; ++k) q.q->q[k] = 1, q.q->rq_mul[k] = 16384, q.q->rq_off[k] = 0;
    Tables t;
    ASSERT_EQ(t.build(kLumaDc, 0), 0);
    ASSERT_EQ(t.build(kLumaAc, 1), 0);
    Code dc(kLumaDc), ac(kLumaAc);
    std::vector<Block> blocks = make_blocks(rng);
    Writer w;
    uint64_t want[256] = {}, got[256] = {};
    for (Block &b : blocks) {
        encode(w, b, dc, ac);
        for (int s : b.ac_symbols) ++want[s];
        if (b.lev[63]) ++want[0];
    }
    Reader in(w.finish());
    for (size_t i = 0; i < blocks.size(); ++i) {
        int16_t diff, blk[64] = {}, dc_only;
        ASSERT_EQ(kivod_vld_dc(&in.bs, 1, &t.dc[0], nullptr, &diff), 0);
        ASSERT_EQ(kivod_vld_ac8(&in.bs, q.q.get(), &t.ac[0], got, blk, &dc_only), 0) << i;
    }
    for (int s = 0; s < 256; ++s) EXPECT_EQ(got[s], want[s]) << "symbol " << s;

    // A re-quantized value of 2048 or more has no category.
    for (int k = 0; k < 64; ++k) q.q->q[k] = 2, q.q->rq_mul[k] = 32767;
    Block b;
    b.lev[1] = 600;
    Writer w2;
    encode(w2, b, dc, ac);
    Reader in2(w2.finish());
    int16_t diff, blk[64] = {}, dc_only;
    ASSERT_EQ(kivod_vld_dc(&in2.bs, 2, &t.dc[0], nullptr, &diff), 0);
    EXPECT_EQ(kivod_vld_ac8(&in2.bs, q.q.get(), &t.ac[0], got, blk, &dc_only), KIVO_ERR_UNAVAILABLE);
}

TEST(DecVld, MalformedCodes) {
    // AC tables: EOB "0" and 0x01 at 9 bits (longer than the symbol count
    // allows); 0x01 "0" and EOB at 9 bits (allowed); EOB and a size-0 run-5 symbol.
    const Dht long_sym = {{1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}, {0x00, 0x01}};
    const Dht long_eob = {{1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}, {0x01, 0x00}};
    const Dht bad_run = {{0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {0x00, 0x50}};
    struct Case {
        const Dht *dc, *ac;
        const char *bits;
        int32_t dc_status, ac_status;
    } cases[] = {
        {&kLumaDc, &kLumaAc, "00" "1111111111111111", 0, KIVO_ERR_MALFORMED},
        {&kLumaDc, &kLumaAc, "1111111111111111", KIVO_ERR_MALFORMED, 0},
        {&kChromaDc, &kChromaAc, "111111111111" "1111", KIVO_ERR_MALFORMED, 0},
        {&kLumaDc, &long_sym, "00" "100000000" "1" "0", 0, KIVO_ERR_MALFORMED},
        {&kLumaDc, &long_eob, "00" "0" "1" "100000000", 0, 0},
        {&kLumaDc, &bad_run, "00" "01", 0, KIVO_ERR_MALFORMED},
    };
    Quant q;
    std::fill_n(q.q->q, 64, uint16_t(1));
    for (const Case &c : cases) {
        Tables t;
        ASSERT_EQ(t.build(*c.dc, 0), 0);
        ASSERT_EQ(t.build(*c.ac, 1), 0);
        for (AcFn fn : {kivod_vld_ac8, kivod_vld_ac4, kivod_vld_ac2, kivod_vld_ac1}) {
            Writer w;
            w.bits(c.bits);
            Reader in(w.finish());
            int16_t diff = 0, blk[64] = {}, dc_only;
            ASSERT_EQ(kivod_vld_dc(&in.bs, 1, &t.dc[0], nullptr, &diff), c.dc_status) << c.bits;
            if (c.dc_status == 0) {
                EXPECT_EQ(fn(&in.bs, q.q.get(), &t.ac[0], nullptr, blk, &dc_only), c.ac_status)
                    << c.bits;
            }
        }
    }
}

// Progressive AC scans refuse exactly the long codes sequential decoding
// refuses, whether the code is read through the one-step look-up (more
// bytes follow) or bit by bit (the data ends right after it).
TEST(DecVld, ProgressiveCodesFollowTheSequentialRule) {
    const Dht long_sym = {{1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}, {0x00, 0x01}};
    const Dht long_eob = {{1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}, {0x01, 0x00}};
    struct Case {
        const Dht *ac;
        const char *bits;
    } cases[] = {
        {&long_sym, "0" "0" "0" "100000000" "0"},   // EOB x3, then 0x01 too long for the table
        {&long_eob, "01" "01" "01" "100000000"},    // +1 three times, then a long end-of-block
    };
    Quant q;
    std::fill_n(q.q->q, 64, uint16_t(1));
    for (const Case &c : cases) {
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
            for (int b = 0; b < 3 && want == 0; ++b) want = kivod_vld_ac8(&seq.bs, q.q.get(), &t.ac[0], nullptr, blk, &dc_only);
            if (want == 0) want = kivod_vld_ac8(&seq.bs, q.q.get(), &t.ac[0], nullptr, blk, &dc_only);
            // The same bits as one progressive block (band 1..63), first
            // and refining.
            Reader first(w.out), refine(w.out);
            int16_t b1[64] = {}, b2[64] = {};
            int32_t run1 = 0, run2 = 0, got1 = 0, got2 = 0;
            const int blocks = c.ac == &long_sym ? 4 : 1;
            for (int b = 0; b < blocks && got1 == 0; ++b) got1 = kivod_vld_ac_prog(&first.bs, 1, 63, 0, &run1, &t.ac[0], b1);
            for (int b = 0; b < blocks && got2 == 0; ++b)
                got2 = kivod_vld_ac_prog_refine(&refine.bs, 1, 63, 0, &run2, &t.ac[0], b2);
            EXPECT_EQ(got1, want) << c.bits << " tail " << tail;
            EXPECT_EQ(got2, want) << c.bits << " tail " << tail;
        }
    }
}

}  // namespace
