// Encoder kernel checker: every SIMD variant that kivoe_dsp_init can choose
// on this CPU against the plain kernel of the same slot, bit for bit.
//
// The CPU-flag mask climbs from no features upward; at each level the slots
// whose function is new are checked. The quantizers see every 16-bit
// coefficient with every quantizer 1..255 and mixed tables, the transform
// random, extreme and patterned sample blocks; blocks and tables sit at
// unaligned addresses between canaries. KIVO_CHECKASM_SEED=n changes the
// seed, KIVO_CHECKASM_BENCH=1 also prints ns/call for every variant.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <vector>

#include "encoder/kivoe_int.h"

namespace {

struct Level {
    const char *name;
    uint32_t flags;
};

#if defined(KIVO_ARCH_x86)
const Level kLevels[] = {{"c", 0},
                         {"sse2", KIVO_CPU_SSE2},
                         {"ssse3", KIVO_CPU_SSE2 | KIVO_CPU_SSSE3},
                         {"sse41", KIVO_CPU_SSE2 | KIVO_CPU_SSSE3 | KIVO_CPU_SSE41},
                         {"avx2", KIVO_CPU_SSE2 | KIVO_CPU_SSSE3 | KIVO_CPU_SSE41 | KIVO_CPU_AVX2}};
#elif defined(KIVO_ARCH_arm)
const Level kLevels[] = {{"c", 0}, {"neon", KIVO_CPU_NEON}};
#else
const Level kLevels[] = {{"c", 0}};
#endif

uint32_t seed() {
    const char *s = std::getenv("KIVO_CHECKASM_SEED");
    return s ? static_cast<uint32_t>(std::strtoul(s, nullptr, 0)) : 20240611u;
}

using Block = std::vector<int16_t>;

// 64 values at an address `skew` int16 past a 32-byte boundary, with canary
// values on both sides, so that misaligned accesses and stray writes show.
struct Slot {
    static constexpr int kPad = 24;
    alignas(32) int16_t mem[64 + 2 * kPad];
    int16_t *at;
    explicit Slot(int skew) : at(mem + kPad + skew) {
        for (int16_t &v : mem) v = 0x5A5A;
    }
    bool same_as(const Slot &o) const { return std::memcmp(mem, o.mem, sizeof(mem)) == 0; }
};

// Quantizer tables: reciprocals, half values and adaptive offsets.
struct QTable {
    std::vector<uint16_t> recip, half, offset;
};

QTable uniform_table(int q, uint16_t offset) {
    QTable t;
    t.recip.assign(64, static_cast<uint16_t>(16384 / q));
    t.half.assign(64, static_cast<uint16_t>(q >> 1));
    t.offset.assign(64, offset);
    return t;
}

QTable mixed_table(std::mt19937 &rng, bool any_offset) {
    QTable t;
    for (int i = 0; i < 64; ++i) {
        const int q = 1 + static_cast<int>(rng() % 255);
        t.recip.push_back(static_cast<uint16_t>(16384 / q));
        t.half.push_back(static_cast<uint16_t>(q >> 1));
        // Adaptive offsets live in 0..8192; the kernels take any 16-bit one.
        t.offset.push_back(static_cast<uint16_t>(any_offset ? rng() % 65536 : rng() % 8193));
    }
    return t;
}

// Coefficient blocks: every 16-bit value once (in blocks of 64 consecutive
// values), then random ones of several ranges and the extremes.
std::vector<Block> coefficient_corpus(std::mt19937 &rng) {
    std::vector<Block> out;
    for (int base = -32768; base < 32768; base += 64) {
        Block b(64);
        for (int i = 0; i < 64; ++i) b[i] = static_cast<int16_t>(base + i);
        out.push_back(b);
    }
    std::uniform_int_distribution<int> full(-32768, 32767), dct(-1024, 1024), tiny(-3, 3);
    const int16_t ext[] = {32767, -32768, -32767, 0, 1, -1};
    for (int n = 0; n < 1024; ++n) {
        Block b(64);
        for (int16_t &c : b) {
            switch (n % 4) {
            case 0: c = static_cast<int16_t>(full(rng)); break;
            case 1: c = static_cast<int16_t>(dct(rng)); break;
            case 2: c = static_cast<int16_t>(tiny(rng)); break;
            default: c = ext[rng() % 6]; break;
            }
        }
        out.push_back(b);
    }
    return out;
}

// Sample blocks 0..255: random, random black/white, flats, checkerboards,
// stripes and ramps in both directions.
std::vector<Block> sample_corpus(std::mt19937 &rng) {
    std::vector<Block> out;
    for (int n = 0; n < 4000; ++n) {
        Block b(64);
        for (int16_t &s : b) s = static_cast<int16_t>(n % 2 ? rng() % 256 : (rng() & 1) * 255);
        out.push_back(b);
    }
    for (int v : {0, 1, 127, 128, 254, 255}) out.push_back(Block(64, static_cast<int16_t>(v)));
    for (int p = 0; p < 8; ++p) {
        Block cb(64), rows(64), cols(64), ramp(64), vramp(64);
        for (int i = 0; i < 64; ++i) {
            const int y = i / 8, x = i % 8;
            cb[i] = static_cast<int16_t>(((x ^ y ^ p) & 1) * 255);
            rows[i] = static_cast<int16_t>(((y >> (p % 3)) & 1) * 255);
            cols[i] = static_cast<int16_t>(((x >> (p % 3)) & 1) * 255);
            ramp[i] = static_cast<int16_t>((p & 1 ? 7 - x : x) * 36 + p);
            vramp[i] = static_cast<int16_t>((p & 1 ? 7 - y : y) * 36 + p);
        }
        for (const Block *b : {&cb, &rows, &cols, &ramp, &vramp}) out.push_back(*b);
    }
    return out;
}

void print_block(const char *what, const int16_t *b) {
    std::printf("    %s:\n", what);
    for (int y = 0; y < 8; ++y) {
        std::printf("     ");
        for (int x = 0; x < 8; ++x) std::printf(" %6d", b[8 * y + x]);
        std::printf("\n");
    }
}

struct Failures {
    int count = 0;
    // Reports the first few failures with the input and both outputs.
    void add(const char *name, const char *level, size_t index, const Block &in, const Slot &ref, const Slot &got) {
        if (count++ >= 5) return;
        std::printf("FAIL %s_%s: input %zu\n", name, level, index);
        print_block("input", in.data());
        print_block("plain", ref.at);
        print_block(level, got.at);
    }
};

// Runs one quantizer over the whole corpus with each table; `rdoq` picks
// the adaptive offsets and the adaptive kernel's signature.
void check_quant(const char *name, const char *level, kivoe_quant_fn fn, kivoe_quant_fn ref,
                 kivoe_quant_rdoq_fn fn_rdoq, kivoe_quant_rdoq_fn ref_rdoq, const std::vector<Block> &corpus,
                 const std::vector<QTable> &tables, Failures &fail) {
    // Tables at an odd address, as the fields of kivoe_qtbl may be.
    std::vector<uint16_t> store(3 * 64 + 1);
    size_t index = 0;
    for (const QTable &t : tables) {
        uint16_t *recip = store.data() + 1, *off = recip + 64;
        std::memcpy(recip, t.recip.data(), 128);
        std::memcpy(off, (fn_rdoq ? t.offset : t.half).data(), 128);
        for (const Block &in : corpus) {
            const int skew = static_cast<int>(index % 5);
            Slot a(skew), b(skew);
            std::memcpy(a.at, in.data(), 128);
            std::memcpy(b.at, in.data(), 128);
            bool same = true;
            if (fn_rdoq) {
                ref_rdoq(a.at, recip, off);
                fn_rdoq(b.at, recip, off);
            } else {
                same = ref(a.at, recip, off) == fn(b.at, recip, off);
            }
            if (!same || !a.same_as(b)) fail.add(name, level, index, in, a, b);
            ++index;
        }
    }
}

void check_fdct(const char *level, kivoe_fdct_fn fn, kivoe_fdct_fn ref, const std::vector<Block> &corpus,
                Failures &fail) {
    for (size_t i = 0; i < corpus.size(); ++i) {
        const int skew = static_cast<int>(i % 5);
        Slot a(skew), b(skew);
        std::memcpy(a.at, corpus[i].data(), 128);
        std::memcpy(b.at, corpus[i].data(), 128);
        ref(a.at);
        fn(b.at);
        if (!a.same_as(b)) fail.add("fdct8", level, i, corpus[i], a, b);
    }
}

// ns per call over a few blocks that stay in the first-level cache (the
// fastest of five rounds; the copy into the work block is included).
template <typename Call>
double bench_ns(const std::vector<Block> &blocks, Call call) {
    alignas(32) int16_t work[64];
    const int reps = 200000;
    double best = 1e30;
    for (int round = 0; round < 5; ++round) {
        const auto t0 = std::chrono::steady_clock::now();
        for (int r = 0; r < reps; ++r) {
            std::memcpy(work, blocks[r & 31].data(), sizeof(work));
            call(work);
        }
        const auto t1 = std::chrono::steady_clock::now();
        const double ns = std::chrono::duration<double, std::nano>(t1 - t0).count() / reps;
        if (ns < best) best = ns;
    }
    volatile int16_t sink = work[0];
    (void)sink;
    return best;
}

TEST(CheckasmEnc, VariantsMatchThePlainKernels) {
    const uint32_t s = seed();
    std::mt19937 rng(s);
    const std::vector<Block> coefs = coefficient_corpus(rng);
    const std::vector<Block> samples = sample_corpus(rng);
    // Every quantizer alone (all 65536 coefficients each), with the rounding
    // offsets plain (8192), truncating (0) or anywhere; then mixed tables.
    std::vector<QTable> exhaustive;
    for (int q = 1; q <= 255; ++q) {
        const uint16_t offs[3] = {8192, 0, static_cast<uint16_t>(rng() % 65536)};
        exhaustive.push_back(uniform_table(q, offs[q % 3]));
    }
    std::vector<QTable> mixed;
    for (int n = 0; n < 64; ++n) mixed.push_back(mixed_table(rng, n % 2 != 0));
    const std::vector<Block> every_value(coefs.begin(), coefs.begin() + 1024);
    const std::vector<Block> random_blocks(coefs.begin() + 1024, coefs.end());

    const bool bench = std::getenv("KIVO_CHECKASM_BENCH") != nullptr;
    const std::vector<Block> bench_samples(samples.begin() + 1, samples.begin() + 65);
    std::vector<Block> bench_coefs;
    for (const Block &b : bench_samples) {
        Block c = b;
        kivoe_fdct8(c.data());
        bench_coefs.push_back(c);
    }
    const QTable bench_table = uniform_table(6, 8192);

    kivoe_proc plain{};
    kivoe_dsp_init(&plain, 0);
    ASSERT_EQ(plain.fdct8, &kivoe_fdct8);
    ASSERT_EQ(plain.quant, &kivoe_quant);
    ASSERT_EQ(plain.quant_rdoq, &kivoe_quant_rdoq);
    std::set<const void *> seen = {reinterpret_cast<const void *>(plain.fdct8),
                                   reinterpret_cast<const void *>(plain.quant),
                                   reinterpret_cast<const void *>(plain.quant_rdoq)};
    const uint32_t have = kivo_cpu_detected();
    Failures fail;
    int checked = 0;
    for (const Level &lv : kLevels) {
        if (lv.flags & ~have) {
            std::printf("%-6s not available on this CPU\n", lv.name);
            continue;
        }
        kivoe_proc p{};
        kivoe_dsp_init(&p, lv.flags);
        std::printf("%-6s %s\n", lv.name, kivoe_dsp_describe(lv.flags));
        ASSERT_TRUE(p.fdct8 && p.quant && p.quant_rdoq) << lv.name;
        const int before = fail.count;
        if (seen.insert(reinterpret_cast<const void *>(p.fdct8)).second) {
            check_fdct(lv.name, p.fdct8, plain.fdct8, samples, fail);
            ++checked;
            std::printf("  fdct8      %s\n", fail.count == before ? "ok" : "FAILED");
            if (bench)
                std::printf("    %.2f ns/call (plain %.2f)\n", bench_ns(bench_samples, p.fdct8),
                            bench_ns(bench_samples, plain.fdct8));
        }
        if (seen.insert(reinterpret_cast<const void *>(p.quant)).second) {
            const int b0 = fail.count;
            check_quant("quant", lv.name, p.quant, plain.quant, nullptr, nullptr, every_value, exhaustive, fail);
            check_quant("quant", lv.name, p.quant, plain.quant, nullptr, nullptr, random_blocks, mixed, fail);
            ++checked;
            std::printf("  quant      %s\n", fail.count == b0 ? "ok" : "FAILED");
            if (bench) {
                auto call = [&](kivoe_quant_fn f) {
                    return [&, f](int16_t *blk) { f(blk, bench_table.recip.data(), bench_table.half.data()); };
                };
                std::printf("    %.2f ns/call (plain %.2f)\n", bench_ns(bench_coefs, call(p.quant)),
                            bench_ns(bench_coefs, call(plain.quant)));
            }
        }
        if (seen.insert(reinterpret_cast<const void *>(p.quant_rdoq)).second) {
            const int b0 = fail.count;
            check_quant("quant_rdoq", lv.name, nullptr, nullptr, p.quant_rdoq, plain.quant_rdoq, every_value,
                        exhaustive, fail);
            check_quant("quant_rdoq", lv.name, nullptr, nullptr, p.quant_rdoq, plain.quant_rdoq, random_blocks,
                        mixed, fail);
            ++checked;
            std::printf("  quant_rdoq %s\n", fail.count == b0 ? "ok" : "FAILED");
            if (bench) {
                auto call = [&](kivoe_quant_rdoq_fn f) {
                    return [&, f](int16_t *blk) { f(blk, bench_table.recip.data(), bench_table.offset.data()); };
                };
                std::printf("    %.2f ns/call (plain %.2f)\n", bench_ns(bench_coefs, call(p.quant_rdoq)),
                            bench_ns(bench_coefs, call(plain.quant_rdoq)));
            }
        }
    }
    if (fail.count) std::printf("seed %u: %d failing blocks\n", s, fail.count);
    EXPECT_EQ(fail.count, 0);
    std::printf("%d variant(s) checked\n", checked);
}

}  // namespace
