// Kernel checker: every SIMD variant that kivod_dsp_init can choose on this
// CPU against the plain kernel of the same slot, bit for bit.
//
// The CPU-flag mask climbs from no features upward; at each level the slots
// whose function is new are checked on random, realistic, sparse and extreme
// blocks, into destinations with a canary border, odd line distances and
// unaligned addresses. KIVO_CHECKASM_SEED=n changes the seed,
// KIVO_CHECKASM_BENCH=1 also prints ns/call for every variant.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "decoder/kivod_int.h"
#include "idct_blocks.h"

namespace {

using idct_blocks::Pixels;

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

const int kScales[] = {0, 1, 2, 4, 8};

uint32_t seed() {
    const char *s = std::getenv("KIVO_CHECKASM_SEED");
    return s ? static_cast<uint32_t>(std::strtoul(s, nullptr, 0)) : 20240607u;
}

// The block corpus, the same at every level.
std::vector<std::vector<int16_t>> make_corpus(uint32_t s) {
    std::mt19937 rng(s);
    std::vector<std::vector<int16_t>> out;
    auto add = [&out](const int16_t *b) { out.emplace_back(b, b + 64); };
    std::uniform_int_distribution<int> full(-32768, 32767), small(-1024, 1023), tiny(-64, 63);
    int16_t b[64];
    // Uniform random coefficients, small and over the whole 16-bit range.
    for (int i = 0; i < 3000; i++) {
        for (int16_t &c : b) c = static_cast<int16_t>(i % 3 == 0 ? full(rng) : (i % 3 == 1 ? small(rng) : tiny(rng)));
        add(b);
    }
    // Realistic blocks of every pixel kind, both quantizer tables, many qualities.
    for (int i = 0; i < 2000; i++) {
        idct_blocks::make_realistic(static_cast<Pixels>(i % 4), i % 2, 1 + (i * 7) % 100, rng, b);
        add(b);
    }
    // Sparse: only the top-left k x k corner, the rest zero (k = 1 is DC only).
    for (int i = 0; i < 1000; i++) {
        const int k = 1 + i % 4;
        std::memset(b, 0, sizeof(b));
        for (int y = 0; y < k; y++)
            for (int x = 0; x < k; x++) b[y * 8 + x] = static_cast<int16_t>(i % 5 ? small(rng) : full(rng));
        add(b);
    }
    // Extremes: +-32767 / -32768 at random places, over random or empty blocks.
    const int16_t ext[] = {32767, -32768, -32767};
    std::uniform_int_distribution<int> pos(0, 63), pick(0, 2);
    for (int i = 0; i < 1000; i++) {
        for (int16_t &c : b) c = static_cast<int16_t>(i % 2 ? small(rng) : 0);
        for (int n = 1 + i % 16; n > 0; n--) b[pos(rng)] = ext[pick(rng)];
        add(b);
    }
    for (int16_t v : ext) {
        for (int16_t &c : b) c = v;
        add(b);
        for (int i = 0; i < 64; i++) b[i] = static_cast<int16_t>((i ^ (i >> 3)) & 1 ? v : -v - 1);
        add(b);
    }
    return out;
}

// Destination geometry: line distance and offset of the first sample from a
// 16-byte aligned address. Negative distances go upward in memory.
struct Geometry {
    int32_t stride;
    int offset;
};
const Geometry kGeometries[] = {{8, 0}, {16, 0}, {9, 3}, {13, 1}, {31, 7}, {64, 5}, {-24, 2}, {8, 1}};

constexpr int kPad = 16;  // canary bytes around every row and above/below

// A picture buffer with canary borders around an n x n block. The layout
// relative to the 16-byte aligned start is the same for every canvas of the
// same geometry, so two canvases compare byte for byte.
struct Canvas {
    std::vector<uint8_t> raw;
    uint8_t *mem;
    size_t size;
    uint8_t *dst;

    Canvas(int n, const Geometry &g, uint8_t canary) {
        const size_t span = static_cast<size_t>(std::abs(g.stride));
        size = span * (n + 2) + 2 * kPad;
        raw.assign(size + 16, canary);
        mem = raw.data() + (16 - reinterpret_cast<uintptr_t>(raw.data()) % 16) % 16;
        dst = mem + kPad + span + g.offset;
        if (g.stride < 0) dst += span * (n - 1);
    }
};

struct Failure {
    int count = 0;
};

void print_block(const int16_t *b) {
    for (int y = 0; y < 8; y++) {
        std::printf("   ");
        for (int x = 0; x < 8; x++) std::printf(" %6d", b[y * 8 + x]);
        std::printf("\n");
    }
}

// Checks one kernel against its plain reference over the whole corpus.
void check_kernel(const char *name, const char *level, kivod_idct_fn fn, kivod_idct_fn ref, int n,
                  const std::vector<std::vector<int16_t>> &corpus, Failure &fail) {
    for (size_t bi = 0; bi < corpus.size(); bi++) {
        const int16_t *blk = corpus[bi].data();
        const Geometry &g = kGeometries[bi % (sizeof(kGeometries) / sizeof(kGeometries[0]))];
        const uint8_t canary = (bi & 1) ? 0x99 : 0x66;
        Canvas a(n, g, canary), b(n, g, canary);
        alignas(16) int16_t in[64];
        std::memcpy(in, blk, sizeof(in));
        ref(in, g.stride, a.dst);
        fn(in, g.stride, b.dst);
        const bool same = std::memcmp(a.mem, b.mem, a.size) == 0;
        const bool kept = std::memcmp(in, blk, sizeof(in)) == 0;
        if (same && kept) continue;
        if (fail.count++ < 5) {
            std::printf("FAIL %s_%s: block %zu, stride %d, offset %d%s\n", name, level, bi, g.stride, g.offset,
                        kept ? "" : " (coefficients modified)");
            print_block(blk);
            for (size_t i = 0; i < a.size; i++) {
                if (a.mem[i] != b.mem[i]) {
                    const ptrdiff_t at = a.mem + i - a.dst;
                    std::printf("    first difference at byte %td from the block start: plain %d, %s %d\n", at,
                                a.mem[i], level, b.mem[i]);
                    break;
                }
            }
        }
    }
}

double bench_ns(kivod_idct_fn fn, int n, const std::vector<std::vector<int16_t>> &blocks) {
    alignas(16) uint8_t out[2][64];
    const int reps = 400000;
    const auto t0 = std::chrono::steady_clock::now();
    for (int r = 0; r < reps; r++) fn(blocks[r % blocks.size()].data(), 8, out[r & 1]);
    const auto t1 = std::chrono::steady_clock::now();
    volatile uint8_t sink = out[0][0] ^ out[1][0];
    (void)sink;
    return std::chrono::duration<double, std::nano>(t1 - t0).count() / reps;
}

TEST(Checkasm, DspTablesMatchPlainKernels) {
    const uint32_t s = seed();
    const auto corpus = make_corpus(s);
    const bool bench = std::getenv("KIVO_CHECKASM_BENCH") != nullptr;
    std::vector<std::vector<int16_t>> realistic;
    // A few realistic blocks that stay in the first-level cache, as a decoded
    // block does.
    for (size_t i = 3000; i < 3032 && i < corpus.size(); i++) realistic.push_back(corpus[i]);

    kivod_dsp plain;
    kivod_dsp_init(&plain, 0);
    std::set<kivod_idct_fn> seen;
    for (int sc : kScales) {
        seen.insert(plain.idct[sc]);
        seen.insert(plain.idct_dc[sc]);
    }

    const uint32_t have = kivo_cpu_detected();
    Failure fail;
    int checked = 0;
    for (const Level &lv : kLevels) {
        if (lv.flags & ~have) {
            std::printf("%-6s not available on this CPU\n", lv.name);
            continue;
        }
        kivod_dsp dsp;
        kivod_dsp_init(&dsp, lv.flags);
        std::printf("%-6s %s\n", lv.name, kivod_dsp_describe(lv.flags));
        for (int sc : kScales) {
            const int n = 1 << tbl_blk_shift[sc];
            for (int dc = 0; dc < 2; dc++) {
                const kivod_idct_fn fn = dc ? dsp.idct_dc[sc] : dsp.idct[sc];
                const kivod_idct_fn ref = dc ? plain.idct_dc[sc] : plain.idct[sc];
                ASSERT_NE(fn, nullptr) << "scale " << sc;
                if (!seen.insert(fn).second) continue;  // already checked at a lower level
                char name[32];
                std::snprintf(name, sizeof(name), "%s%d", dc ? "idct_dc" : "idct", n);
                const int before = fail.count;
                check_kernel(name, lv.name, fn, ref, n, corpus, fail);
                std::printf("  %-10s %s\n", name, fail.count == before ? "ok" : "FAILED");
                checked++;
                if (bench)
                    std::printf("    %.2f ns/call (plain %.2f)\n", bench_ns(fn, n, realistic),
                                bench_ns(ref, n, realistic));
            }
        }
    }
    if (fail.count) std::printf("seed %u: %d failing blocks\n", s, fail.count);
    EXPECT_EQ(fail.count, 0);
    std::printf("%d variant(s) checked\n", checked);
}

// The per-scale slots: which transform size each scale uses, empty slots in
// between, and the block size shift.
TEST(Checkasm, PerScaleSlots) {
    // Output block of 8, 8, 4, 2, 1 samples for scales 0, 1, 2, 4, 8.
    const uint8_t shift[9] = {3, 3, 2, 0, 1, 0, 0, 0, 0};
    for (const Level &lv : kLevels) {
        kivod_dsp dsp;
        kivod_dsp_init(&dsp, lv.flags & kivo_cpu_detected());
        for (int sc = 0; sc < 9; sc++) {
            const bool used = sc == 0 || sc == 1 || sc == 2 || sc == 4 || sc == 8;
            EXPECT_EQ(dsp.idct[sc] != nullptr, used) << lv.name << " scale " << sc;
            EXPECT_EQ(dsp.idct_dc[sc] != nullptr, used) << lv.name << " scale " << sc;
            EXPECT_EQ(dsp.vld_ac[sc] != nullptr, used) << lv.name << " scale " << sc;
            if (used) {
                EXPECT_EQ(tbl_blk_shift[sc], shift[sc]) << "scale " << sc;
            }
        }
        EXPECT_EQ(dsp.vld_ac[0], &kivod_vld_ac8);
        EXPECT_EQ(dsp.vld_ac[1], &kivod_vld_ac8);
        EXPECT_EQ(dsp.vld_ac[2], &kivod_vld_ac4);
        EXPECT_EQ(dsp.vld_ac[4], &kivod_vld_ac2);
        EXPECT_EQ(dsp.vld_ac[8], &kivod_vld_ac1);
        EXPECT_EQ(dsp.idct_dc[8], dsp.idct[8]);
    }
    kivod_dsp plain;
    kivod_dsp_init(&plain, 0);
    const kivod_idct_fn full[5] = {kivod_idct8, kivod_idct8, kivod_idct4, kivod_idct2, kivod_idct1};
    const kivod_idct_fn dc[5] = {kivod_idct8_dc, kivod_idct8_dc, kivod_idct4_dc, kivod_idct2_dc, kivod_idct1};
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(plain.idct[kScales[i]], full[i]) << "scale " << kScales[i];
        EXPECT_EQ(plain.idct_dc[kScales[i]], dc[i]) << "scale " << kScales[i];
    }
}

}  // namespace
