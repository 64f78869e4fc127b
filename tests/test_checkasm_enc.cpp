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
const uint32_t kSse = KIVO_CPU_SSE2 | KIVO_CPU_SSSE3 | KIVO_CPU_SSE41;
const uint32_t kLevels[] = {0, KIVO_CPU_SSE2, KIVO_CPU_SSE2 | KIVO_CPU_SSSE3, kSse, kSse | KIVO_CPU_AVX2};
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

TEST(CheckasmEnc, VariantsMatchThePlainKernels) {
    const char *env = std::getenv("KIVO_CHECKASM_SEED");
    const uint32_t seed = env ? static_cast<uint32_t>(std::strtoul(env, nullptr, 0)) : 20240611u;
    std::mt19937 rng(seed);
    // Coefficients: every 16-bit value once, then random ones of several
    // ranges and the extremes.
    std::vector<Block> every, random, samples;
    for (int base = -32768; base < 32768; base += 64) {
        every.emplace_back(64);
        for (int i = 0; i < 64; ++i) every.back()[i] = static_cast<int16_t>(base + i);
    }
    const int16_t ext[] = {32767, -32768, -32767, 0, 1, -1};
    const int range[3] = {65536, 2049, 7};
    for (int n = 0; n < 1024; ++n) {
        random.emplace_back(64);
        for (int16_t &c : random.back())
            c = static_cast<int16_t>(n % 4 == 3 ? ext[rng() % 6] : static_cast<int>(rng() % range[n % 4]) - range[n % 4] / 2);
    }
    // Samples: random, black and white, flats, checkerboards, stripes and
    // ramps both ways.
    for (int n = 0; n < 4000; ++n) {
        samples.emplace_back(64);
        for (int16_t &s : samples.back()) s = static_cast<int16_t>(n % 2 ? rng() % 256 : (rng() & 1) * 255);
    }
    for (int v : {0, 1, 127, 128, 254, 255}) samples.push_back(Block(64, static_cast<int16_t>(v)));
    for (int p = 0; p < 8; ++p)
        for (int kind = 0; kind < 5; ++kind) {
            samples.emplace_back(64);
            for (int i = 0, y, x; i < 64; ++i) {
                y = i / 8, x = i % 8;
                const int r = p & 1 ? 7 - (kind == 3 ? x : y) : (kind == 3 ? x : y);
                const int v[5] = {((x ^ y ^ p) & 1) * 255, ((y >> (p % 3)) & 1) * 255, ((x >> (p % 3)) & 1) * 255,
                                  r * 36 + p, r * 36 + p};
                samples.back()[i] = static_cast<int16_t>(v[kind]);
            }
        }
    // Reciprocals, half values and adaptive offsets at an odd address: every
    // quantizer alone with plain, truncating or any offsets; mixed tables.
    std::vector<std::vector<uint16_t>> uniform(255, std::vector<uint16_t>(193)), mixed(64, std::vector<uint16_t>(193));
    auto set = [](std::vector<uint16_t> &t, int i, int q, uint16_t off) {
        t[1 + i] = static_cast<uint16_t>(16384 / q), t[65 + i] = static_cast<uint16_t>(q >> 1), t[129 + i] = off;
    };
    for (int q = 1; q <= 255; ++q) {
        const uint16_t offs[3] = {8192, 0, static_cast<uint16_t>(rng())};
        for (int i = 0; i < 64; ++i) set(uniform[q - 1], i, q, offs[q % 3]);
    }
    for (int n = 0; n < 64; ++n)
        for (int i = 0; i < 64; ++i) set(mixed[n], i, 1 + static_cast<int>(rng() % 255), static_cast<uint16_t>(n % 2 ? rng() : rng() % 8193));

    kivoe_proc plain{};
    kivoe_dsp_init(&plain, 0);
    ASSERT_TRUE(plain.fdct8 == &kivoe_fdct8 && plain.quant == &kivoe_quant && plain.quant_rdoq == &kivoe_quant_rdoq);
    std::set<const void *> seen = {reinterpret_cast<const void *>(plain.fdct8), reinterpret_cast<const void *>(plain.quant),
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
        const bool quant = is_new(reinterpret_cast<const void *>(p.quant));
        const bool rdoq = is_new(reinterpret_cast<const void *>(p.quant_rdoq));
        checked += quant + rdoq;
        for (int pass = 0; pass < 2 && (quant || rdoq); ++pass) {
            size_t i = 0;
            for (std::vector<uint16_t> &t : pass ? mixed : uniform)
                for (const Block &in : pass ? random : every) {
                    Slot a(in, i % 5), b(in, i % 5), c(in, i % 5), d(in, i % 5);
                    const uint16_t *recip = &t[1], *half = &t[65], *off = &t[129];
                    if (quant && (plain.quant(a.at, recip, half) != p.quant(b.at, recip, half) || !(a == b)))
                        fail("quant", flags, i);
                    if (rdoq) {
                        plain.quant_rdoq(c.at, recip, off);
                        p.quant_rdoq(d.at, recip, off);
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
