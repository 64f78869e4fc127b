// Encoder kernel checker: every SIMD variant kivoe_dsp_init can choose on
// this CPU against the plain kernel of the same slot, bit for bit. The
// quantizers see every 16-bit coefficient with every quantizer 1..255 and
// mixed tables, the transform random, extreme and patterned blocks; blocks
// sit at unaligned addresses between canaries. KIVO_CHECKASM_SEED=n
// changes the seed.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <vector>

#include "encoder/kivoe_int.h"

namespace {

#if defined(KIVO_ARCH_x86)
const uint32_t kLevels[] = {0, KIVO_CPU_SSE2, KIVO_CPU_SSE2 | KIVO_CPU_SSSE3,
                            KIVO_CPU_SSE2 | KIVO_CPU_SSSE3 | KIVO_CPU_SSE41,
                            KIVO_CPU_SSE2 | KIVO_CPU_SSSE3 | KIVO_CPU_SSE41 | KIVO_CPU_AVX2};
#elif defined(KIVO_ARCH_arm)
const uint32_t kLevels[] = {0, KIVO_CPU_NEON};
#else
const uint32_t kLevels[] = {0};
#endif

using Block = std::vector<int16_t>;

// 64 values `skew` int16 past a 32-byte boundary, canaries on both sides.
struct Slot {
    alignas(32) int16_t mem[112];
    int16_t *at;
    Slot(const Block &in, int skew) : at(mem + 24 + skew) {
        for (int16_t &v : mem) v = 0x5A5A;
        std::memcpy(at, in.data(), 128);
    }
    bool operator==(const Slot &o) const { return std::memcmp(mem, o.mem, sizeof(mem)) == 0; }
};

// Reciprocals, half values and adaptive offsets, at an odd address as the
// fields of kivoe_qtbl may be.
struct QTable {
    std::vector<uint16_t> store = std::vector<uint16_t>(193);
    uint16_t *recip() { return store.data() + 1; }
    uint16_t *half() { return store.data() + 65; }
    uint16_t *offset() { return store.data() + 129; }
    void set(int i, int q, uint16_t off) {
        recip()[i] = static_cast<uint16_t>(16384 / q);
        half()[i] = static_cast<uint16_t>(q >> 1);
        offset()[i] = off;
    }
};

TEST(CheckasmEnc, VariantsMatchThePlainKernels) {
    const char *env = std::getenv("KIVO_CHECKASM_SEED");
    const uint32_t seed = env ? static_cast<uint32_t>(std::strtoul(env, nullptr, 0)) : 20240611u;
    std::mt19937 rng(seed);
    // Coefficients: every 16-bit value once, then random ones of several
    // ranges and the extremes.
    std::vector<Block> every, random;
    for (int base = -32768; base < 32768; base += 64) {
        Block b(64);
        for (int i = 0; i < 64; ++i) b[i] = static_cast<int16_t>(base + i);
        every.push_back(b);
    }
    const int16_t ext[] = {32767, -32768, -32767, 0, 1, -1};
    for (int n = 0; n < 1024; ++n) {
        Block b(64);
        const int range[3] = {65536, 2049, 7};
        for (int16_t &c : b)
            c = static_cast<int16_t>(n % 4 == 3 ? ext[rng() % 6] : static_cast<int>(rng() % range[n % 4]) - range[n % 4] / 2);
        random.push_back(b);
    }
    // Samples: random, random black/white, flats, checkerboards, stripes
    // and ramps in both directions.
    std::vector<Block> samples;
    for (int n = 0; n < 4000; ++n) {
        Block b(64);
        for (int16_t &s : b) s = static_cast<int16_t>(n % 2 ? rng() % 256 : (rng() & 1) * 255);
        samples.push_back(b);
    }
    for (int v : {0, 1, 127, 128, 254, 255}) samples.push_back(Block(64, static_cast<int16_t>(v)));
    for (int p = 0; p < 8; ++p)
        for (int kind = 0; kind < 5; ++kind) {
            Block b(64);
            for (int i = 0; i < 64; ++i) {
                const int y = i / 8, x = i % 8, r = p & 1 ? 7 - (kind == 3 ? x : y) : (kind == 3 ? x : y);
                const int v[5] = {((x ^ y ^ p) & 1) * 255, ((y >> (p % 3)) & 1) * 255, ((x >> (p % 3)) & 1) * 255,
                                  r * 36 + p, r * 36 + p};
                b[i] = static_cast<int16_t>(v[kind]);
            }
            samples.push_back(b);
        }
    // Every quantizer alone over every value, the offsets plain (8192),
    // truncating (0) or any 16-bit value; mixed tables over random blocks.
    std::vector<QTable> uniform(255), mixed(64);
    for (int q = 1; q <= 255; ++q) {
        const uint16_t offs[3] = {8192, 0, static_cast<uint16_t>(rng())};
        for (int i = 0; i < 64; ++i) uniform[q - 1].set(i, q, offs[q % 3]);
    }
    for (int n = 0; n < 64; ++n)
        for (int i = 0; i < 64; ++i) {
            const int q = 1 + static_cast<int>(rng() % 255);
            mixed[n].set(i, q, static_cast<uint16_t>(n % 2 ? rng() : rng() % 8193));
        }

    kivoe_proc plain{};
    kivoe_dsp_init(&plain, 0);
    ASSERT_EQ(plain.fdct8, &kivoe_fdct8);
    ASSERT_EQ(plain.quant, &kivoe_quant);
    ASSERT_EQ(plain.quant_rdoq, &kivoe_quant_rdoq);
    ASSERT_EQ(plain.jndfilt, &kivoe_jndfilt8x8);
    std::set<const void *> seen = {reinterpret_cast<const void *>(plain.fdct8), reinterpret_cast<const void *>(plain.jndfilt),
                                   reinterpret_cast<const void *>(plain.quant),
                                   reinterpret_cast<const void *>(plain.quant_rdoq)};
    auto is_new = [&seen](const void *f) { return seen.insert(f).second; };
    int checked = 0, failures = 0;
    auto fail = [&failures](const char *what, uint32_t flags, size_t i) {
        if (failures++ < 5) ADD_FAILURE() << what << " at CPU flags " << flags << ": block " << i;
    };
    for (uint32_t flags : kLevels) {
        if (flags & ~kivo_cpu_detected()) continue;
        kivoe_proc p{};
        kivoe_dsp_init(&p, flags);
        std::printf("%s\n", kivoe_dsp_describe(flags));
        ASSERT_TRUE(p.fdct8 && p.quant && p.quant_rdoq) << flags;
        if (is_new(reinterpret_cast<const void *>(p.fdct8))) {
            ++checked;
            for (size_t i = 0; i < samples.size(); ++i) {
                Slot a(samples[i], i % 5), b(samples[i], i % 5);
                plain.fdct8(a.at);
                p.fdct8(b.at);
                if (!(a == b)) fail("fdct8", flags, i);
            }
        }
        if (is_new(reinterpret_cast<const void *>(p.jndfilt))) {
            ++checked;
            // The filter reads two lines above and below the block.
            for (size_t i = 0; i + 1 < samples.size(); ++i) {
                uint8_t plane[12 * 9 + 1];
                for (int k = 0; k < 12 * 9; ++k) plane[k + 1] = static_cast<uint8_t>(samples[i + k / 64][k % 64]);
                Slot a(Block(64), i % 5), b(Block(64), i % 5);
                plain.jndfilt(plane + 1 + 2 * 9, 9, a.at);
                p.jndfilt(plane + 1 + 2 * 9, 9, b.at);
                if (!(a == b)) fail("jndfilt", flags, i);
            }
        }
        const bool quant = is_new(reinterpret_cast<const void *>(p.quant));
        const bool rdoq = is_new(reinterpret_cast<const void *>(p.quant_rdoq));
        checked += quant + rdoq;
        for (int pass = 0; pass < 2 && (quant || rdoq); ++pass) {
            std::vector<QTable> &tables = pass ? mixed : uniform;
            const std::vector<Block> &blocks = pass ? random : every;
            size_t i = 0;
            for (QTable &t : tables)
                for (const Block &in : blocks) {
                    Slot a(in, i % 5), b(in, i % 5), c(in, i % 5), d(in, i % 5);
                    if (quant && (plain.quant(a.at, t.recip(), t.half()) != p.quant(b.at, t.recip(), t.half()) ||
                                  !(a == b)))
                        fail("quant", flags, i);
                    if (rdoq) {
                        plain.quant_rdoq(c.at, t.recip(), t.offset());
                        p.quant_rdoq(d.at, t.recip(), t.offset());
                        if (!(c == d)) fail("quant_rdoq", flags, i);
                    }
                    ++i;
                }
        }
    }
    EXPECT_EQ(failures, 0) << "seed " << seed;
    std::printf("%d variant(s) checked\n", checked);
}

}  // namespace
