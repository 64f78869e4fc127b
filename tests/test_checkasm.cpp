// The inverse DCTs: the plain kernels against an exact double-precision
// transform, and every SIMD variant kivod_dsp_init can choose on this CPU
// against the plain kernel of the same slot, bit for bit, on random,
// realistic, sparse and extreme blocks, into destinations with a canary
// border, odd line distances and unaligned addresses.
// KIVO_CHECKASM_SEED=n changes the checker's seed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <vector>

#include "decoder/kivod_int.h"

namespace {

const double kPi = 3.14159265358979323846;
const uint8_t kLuma[64] = {16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
                           14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
                           18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
                           49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};

double basis(int k, int n) { return (k ? 1.0 : std::sqrt(0.5)) * std::cos((2 * n + 1) * k * kPi / 16); }

// Exact inverse DCT, level-shifted (into `raw`), rounded and clamped to 0..255.
void idct_ref(const int16_t c[64], uint8_t out[64], double raw[64]) {
    for (int i = 0; i < 64; i++) {
        double s = 0;
        for (int k = 0; k < 64; k++) s += c[k] * basis(k % 8, i % 8) * basis(k / 8, i / 8);
        raw[i] = s / 4 + 128;
        out[i] = static_cast<uint8_t>(std::clamp<long>(std::lround(s / 4 + 128), 0, 255));
    }
}

// The dequantized coefficients of a picture's block: noise (kind 0), a smooth
// field, an edge or a flat patch, through an exact forward DCT and the usual
// luminance quantizer scaled to `quality`.
void make_realistic(int kind, int quality, std::mt19937 &rng, int16_t out[64]) {
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const double base = 255 * u(rng), gx = 40 * (u(rng) - 0.5), gy = 40 * (u(rng) - 0.5), amp = 60 * u(rng);
    const double hi = 255 * u(rng), lo = 255 * u(rng), slope = 4 * (u(rng) - 0.5), cut = 8 * u(rng) - 4;
    double px[64];
    for (int y = 0; y < 8; y++)
        for (int x = 0; x < 8; x++) {
            const double v = kind == 0   ? 256 * u(rng)
                             : kind == 1 ? base + gx * (x - 3.5) / 8 + gy * (y - 3.5) / 8 + amp * std::sin(x * gx / 30 + y)
                             : kind == 2 ? (x - 3.5 + slope * (y - 3.5) < cut ? lo : hi) + 6 * (u(rng) - 0.5)
                                         : base + 3 * (u(rng) - 0.5);
            px[y * 8 + x] = std::floor(std::clamp(v, 0.0, 255.0)) - 128;
        }
    const int scale = quality < 50 ? 5000 / quality : 200 - 2 * quality;
    for (int k = 0; k < 64; k++) {
        double s = 0;
        for (int i = 0; i < 64; i++) s += px[i] * basis(k % 8, i % 8) * basis(k / 8, i / 8);
        const int q = std::clamp((kLuma[k] * scale + 50) / 100, 1, 255);
        out[k] = static_cast<int16_t>(std::lround(s / 4 / q) * q);
    }
}

struct Kernel {
    kivod_idct_fn full, dc;
    int n;  // output size
    kivod_vld_ac_fn vld;
};
const Kernel kPlain[] = {{kivod_idct8, kivod_idct8_dc, 8, kivod_vld_ac8}, {kivod_idct4, kivod_idct4_dc, 4, kivod_vld_ac4},
                         {kivod_idct2, kivod_idct2_dc, 2, kivod_vld_ac2}, {kivod_idct1, kivod_idct1, 1, kivod_vld_ac1}};

// DC-only blocks: every routine gives 128 + floor((c0 + 4) / 8), clamped, over
// the range a full 8x8 transform holds in 16 bits, the DC routines over all.
TEST(Idct, DcOnlyBlocks) {
    for (int c0 = -32768; c0 <= 32767; c0++) {
        int16_t blk[64] = {static_cast<int16_t>(c0)};
        const int want = std::clamp(128 + ((c0 + 4) >> 3), 0, 255);
        for (const Kernel &k : kPlain)
            for (kivod_idct_fn fn : {k.full, k.dc}) {
                if (fn == kivod_idct8 || fn == kivod_idct4 || fn == kivod_idct2)
                    if (c0 < -4096 || c0 > 4095) continue;
                uint8_t out[64];
                fn(blk, k.n, out);
                for (int p = 0; p < k.n * k.n; p++) ASSERT_EQ(out[p], want) << k.n << " c0=" << c0;
            }
    }
}

// idct4 and idct2 equal the 8x8 transform of the zero-padded corner at every
// 2nd / 4th sample, and ignore the coefficients outside their corner.
TEST(Idct, ScaledMatchFullAtSubsampledPositions) {
    std::mt19937 rng(1234);
    std::uniform_int_distribution<int> wide(-2048, 2047), garbage(-32768, 32767);
    for (int iter = 0; iter < 4000; iter++) {
        int16_t blk[64];
        if (iter % 2)
            for (int16_t &c : blk) c = static_cast<int16_t>(wide(rng));
        else
            make_realistic(iter / 2 % 4, 10 + iter % 91, rng, blk);
        for (int n : {4, 2}) {
            int16_t corner[64] = {}, dirty[64];
            for (int i = 0; i < 64; i++) {
                const bool inside = i / 8 < n && i % 8 < n;
                corner[i] = inside ? blk[i] : 0;
                dirty[i] = inside ? blk[i] : static_cast<int16_t>(garbage(rng));
            }
            uint8_t full[64], scaled[16];
            kivod_idct8(corner, 8, full);
            (n == 4 ? kivod_idct4 : kivod_idct2)(dirty, n, scaled);
            for (int i = 0; i < n * n; i++)
                ASSERT_EQ(scaled[i], full[(i / n) * (8 / n) * 8 + (i % n) * (8 / n)]) << n << " iter " << iter;
        }
    }
}

// The integer transform stays within one step of the exact one on the blocks
// of real pictures and on blocks that leave the sample range, and clamps
// exactly where the exact transform clamps.
TEST(Idct, AccuracyAgainstExactTransform) {
    std::mt19937 rng(99);
    int off_by_one = 0, total = 0, clamped = 0;
    for (int iter = 0; iter < 1500; iter++) {
        int16_t blk[64];
        make_realistic(iter % 4, std::max(5, iter % 101), rng, blk);
        if (iter % 5 == 0) blk[0] = static_cast<int16_t>(iter % 2 ? 1016 : -1024), blk[1] = 400, blk[8] = -300;
        uint8_t out[64], ref[64];
        double raw[64];
        kivod_idct8(blk, 8, out);
        idct_ref(blk, ref, raw);
        for (int p = 0; p < 64; p++) {
            const int d = std::abs(out[p] - ref[p]);
            ASSERT_LE(d, 1) << "iter " << iter << " at " << p;
            if (raw[p] < -1 || raw[p] > 256) {
                ASSERT_EQ(out[p], ref[p]) << "iter " << iter << " at " << p;
                clamped++;
            }
            off_by_one += d;
            total++;
        }
    }
    EXPECT_GT(clamped, 1000);
    EXPECT_LT(off_by_one, total / 20);  // rounding differences are rare, not systematic
}

// ---- the kernel checker -------------------------------------------------------------

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

std::vector<std::vector<int16_t>> make_corpus(uint32_t s) {
    std::mt19937 rng(s);
    std::vector<std::vector<int16_t>> out;
    std::uniform_int_distribution<int> full(-32768, 32767), small(-1024, 1023), tiny(-64, 63), pos(0, 63);
    const int16_t ext[] = {32767, -32768, -32767};
    int16_t b[64];
    for (int i = 0; i < 7000; i++) {
        if (i < 3000) {  // uniform, small and over the whole 16-bit range
            for (int16_t &c : b) c = static_cast<int16_t>(i % 3 == 0 ? full(rng) : i % 3 == 1 ? small(rng) : tiny(rng));
        } else if (i < 5000) {
            make_realistic(i % 4, 1 + (i * 7) % 100, rng, b);
        } else if (i < 6000) {  // only the top-left k x k corner (k = 1: DC only)
            std::memset(b, 0, sizeof(b));
            for (int k = 1 + i % 4, y = 0; y < k; y++)
                for (int x = 0; x < k; x++) b[y * 8 + x] = static_cast<int16_t>(i % 5 ? small(rng) : full(rng));
        } else {  // extremes at random places over random or empty blocks
            for (int16_t &c : b) c = static_cast<int16_t>(i % 2 ? small(rng) : 0);
            for (int n = 1 + i % 16; n > 0; n--) b[pos(rng)] = ext[rng() % 3];
        }
        out.emplace_back(b, b + 64);
    }
    for (int16_t v : ext) {
        for (int i = 0; i < 64; i++) b[i] = v;
        out.emplace_back(b, b + 64);
        for (int i = 0; i < 64; i++) b[i] = static_cast<int16_t>((i ^ (i >> 3)) & 1 ? v : -v - 1);
        out.emplace_back(b, b + 64);
    }
    return out;
}

// Line distance and offset of the first sample from a 16-byte aligned
// address; negative distances go upward in memory.
const int kGeometries[][2] = {{8, 0}, {16, 0}, {9, 3}, {13, 1}, {31, 7}, {64, 5}, {-24, 2}, {8, 1}};
constexpr int kPad = 16;  // canary bytes around the block

// An n x n block inside canary bytes, laid out alike for equal geometries.
struct Canvas {
    std::vector<uint8_t> raw;
    uint8_t *mem, *dst;
    size_t size;
    Canvas(int n, const int *g, uint8_t canary) {
        const size_t span = static_cast<size_t>(std::abs(g[0]));
        size = span * (n + 2) + 2 * kPad;
        raw.assign(size + 16, canary);
        mem = raw.data() + (16 - reinterpret_cast<uintptr_t>(raw.data()) % 16) % 16;
        dst = mem + kPad + span + g[1] + (g[0] < 0 ? span * (n - 1) : 0);
    }
};

// Number of corpus blocks on which fn and ref differ (output, canaries or input).
int check_kernel(const char *name, kivod_idct_fn fn, kivod_idct_fn ref, int n,
                 const std::vector<std::vector<int16_t>> &corpus) {
    int fails = 0;
    for (size_t bi = 0; bi < corpus.size(); bi++) {
        const int *g = kGeometries[bi % 8];
        Canvas a(n, g, bi & 1 ? 0x99 : 0x66), b(n, g, bi & 1 ? 0x99 : 0x66);
        alignas(16) int16_t in[64];
        std::memcpy(in, corpus[bi].data(), sizeof(in));
        ref(in, g[0], a.dst);
        fn(in, g[0], b.dst);
        if (std::memcmp(a.mem, b.mem, a.size) == 0 && std::memcmp(in, corpus[bi].data(), sizeof(in)) == 0) continue;
        if (fails++ < 5) {
            const size_t at = std::mismatch(a.mem, a.mem + a.size, b.mem).first - a.mem;
            std::printf("FAIL %s: block %zu, stride %d, offset %d, byte %td: plain %d, variant %d\n", name, bi,
                        g[0], g[1], a.mem + at - a.dst, at < a.size ? a.mem[at] : -1, at < a.size ? b.mem[at] : -1);
        }
    }
    return fails;
}

TEST(Checkasm, DspTablesMatchPlainKernels) {
    const char *env = std::getenv("KIVO_CHECKASM_SEED");
    const uint32_t s = env ? static_cast<uint32_t>(std::strtoul(env, nullptr, 0)) : 20240607u;
    const auto corpus = make_corpus(s);
    kivod_dsp plain;
    kivod_dsp_init(&plain, 0);
    // Each scale's slots hold the plain transform and coefficient decoder of
    // its output size, on every level.
    for (int i = 0; i < 5; i++) {
        const Kernel &k = kPlain[i ? i - 1 : 0];
        EXPECT_EQ(plain.idct[kScales[i]], k.full) << kScales[i];
        EXPECT_EQ(plain.idct_dc[kScales[i]], k.dc) << kScales[i];
        EXPECT_EQ(1 << tbl_blk_shift[kScales[i]], k.n) << kScales[i];
        for (const Level &lv : kLevels) {
            kivod_dsp dsp;
            kivod_dsp_init(&dsp, lv.flags & kivo_cpu_detected());
            EXPECT_EQ(dsp.vld_ac[kScales[i]], k.vld) << lv.name << " " << kScales[i];
        }
    }
    std::set<kivod_idct_fn> seen;
    for (int sc : kScales) seen.insert({plain.idct[sc], plain.idct_dc[sc]});
    int fails = 0, checked = 0;
    for (const Level &lv : kLevels) {
        if (lv.flags & ~kivo_cpu_detected()) {
            std::printf("%-6s not available on this CPU\n", lv.name);
            continue;
        }
        kivod_dsp dsp;
        kivod_dsp_init(&dsp, lv.flags);
        std::printf("%-6s %s\n", lv.name, kivod_dsp_describe(lv.flags));
        for (int sc : kScales)
            for (int dc = 0; dc < 2; dc++) {
                const kivod_idct_fn fn = dc ? dsp.idct_dc[sc] : dsp.idct[sc];
                ASSERT_NE(fn, nullptr) << "scale " << sc;
                if (!seen.insert(fn).second) continue;  // already checked at a lower level
                char name[48];
                std::snprintf(name, sizeof(name), "%s%d_%s", dc ? "idct_dc" : "idct", 1 << tbl_blk_shift[sc], lv.name);
                const int f = check_kernel(name, fn, dc ? plain.idct_dc[sc] : plain.idct[sc], 1 << tbl_blk_shift[sc], corpus);
                std::printf("  %-16s %s\n", name, f ? "FAILED" : "ok");
                fails += f;
                checked++;
            }
    }
    EXPECT_EQ(fails, 0) << "seed " << s;
    std::printf("%d variant(s) checked\n", checked);
}

}  // namespace
