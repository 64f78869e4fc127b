// The inverse DCTs: every plain kernel against a reference of the integer
// transform written from its rules, and every SIMD variant kivod_dsp_init can
// choose on this CPU against the plain kernel of its slot, bit for bit, on
// random, sparse and extreme blocks, into destinations with a canary border,
// odd line distances and unaligned addresses.
// KIVO_CHECKASM_SEED=n changes the checker's seed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "decoder/kivod_int.h"
#include "xelo/irsz_dsp.h"

namespace {

// 2048 * sqrt(2) * cos(k * pi / 16) and 256 / sqrt(2), rounded.
int64_t wk(int k) { return std::lround(2048 * std::sqrt(2.0) * std::cos(k * 3.14159265358979323846 / 16)); }
const int64_t W1 = wk(1), W2 = wk(2), W3 = wk(3), W5 = wk(5), W6 = wk(6), W7 = wk(7), C = std::lround(256 / std::sqrt(2.0));

// Arithmetic shift of the value wrapped to 32 bits, as 32-bit lanes hold it.
int64_t sr(int64_t v, int n) { return static_cast<int32_t>(static_cast<uint32_t>(v)) >> n; }

// One pass of the separable transform: rows (11 fraction bits, >> 8) or
// columns (products rounded to 8 fraction bits, >> 14); results in 16 bits.
void pass(const int64_t c[8], int64_t out[8], bool col) {
    const int64_t x0 = col ? c[0] * 256 + 8192 : c[0] * 2048 + 128, x1 = c[4] * (col ? 256 : 2048);
    auto r = [col](int64_t v) { return col ? sr(v + 4, 3) : v; };
    const int64_t a = r(W1 * c[1] + W7 * c[7]), b = r(W7 * c[1] - W1 * c[7]), cc = r(W3 * c[3] + W5 * c[5]);
    const int64_t d = r(W3 * c[5] - W5 * c[3]), e = r(W2 * c[2] + W6 * c[6]), f = r(W6 * c[2] - W2 * c[6]);
    const int64_t s1 = a + cc, s4 = a - cc, s6 = b + d, s5 = b - d, p = x0 + x1, q = x0 - x1;
    const int64_t t7 = p + e, t8 = p - e, t3 = q + f, t0 = q - f;
    const int64_t g2 = sr(C * (s4 + s5) + 128, 8), g4 = sr(C * (s4 - s5) + 128, 8);
    const int64_t o[8] = {t7 + s1, t3 + g2, t0 + g4, t8 + s6, t8 - s6, t0 - g4, t3 - g2, t7 - s1};
    for (int i = 0; i < 8; i++) out[i] = static_cast<int16_t>(sr(o[i], col ? 14 : 8));
}

// The 8x8 transform of the block's top-left n x n corner (the rest taken as
// zero), level-shifted with 16-bit saturation and clamped to 0..255.
void idct_ref(const int16_t *blk, int n, uint8_t out[64]) {
    int64_t rows[8][8], c[8], y[8];
    for (int i = 0; i < 8; i++) {
        for (int k = 0; k < 8; k++) c[k] = i < n && k < n ? blk[i * 8 + k] : 0;
        pass(c, rows[i], false);
    }
    for (int j = 0; j < 8; j++) {
        for (int i = 0; i < 8; i++) c[i] = rows[i][j];
        pass(c, y, true);
        for (int i = 0; i < 8; i++) out[i * 8 + j] = static_cast<uint8_t>(std::clamp<int64_t>(std::min<int64_t>(y[i] + 128, 32767), 0, 255));
    }
}

struct Kernel {
    kivod_idct_fn full, dc;
    int n;  // output size
    kivod_vld_ac_fn vld;
};
const Kernel kPlain[] = {{kivod_idct8, kivod_idct8_dc, 8, kivod_vld_ac8}, {kivod_idct4, kivod_idct4_dc, 4, kivod_vld_ac4},
                         {kivod_idct2, kivod_idct2_dc, 2, kivod_vld_ac2}, {kivod_idct1, kivod_idct1, 1, kivod_vld_ac1}};

std::vector<std::vector<int16_t>> make_corpus(uint32_t s) {
    std::mt19937 rng(s);
    std::vector<std::vector<int16_t>> out;
    std::uniform_int_distribution<int> full(-32768, 32767), small(-1024, 1023), tiny(-64, 63), pos(0, 63);
    const int16_t ext[] = {32767, -32768, -32767};
    int16_t b[64];
    for (int i = 0; i < 7000; i++) {
        if (i < 4000) {  // uniform, small and over the whole 16-bit range
            for (int16_t &c : b) c = static_cast<int16_t>(i % 3 == 0 ? full(rng) : i % 3 == 1 ? small(rng) : tiny(rng));
        } else if (i < 5500) {  // only the top-left k x k corner (k = 1: DC only)
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
    // Vertical rotation products that wrap to within 128 below 2^31: rounded
    // before the wrap instead of after, they come out 2^24 off.
    for (const auto &c : {std::pair<int16_t, int16_t>{-4034, -2347}, {204, -2838}}) {
        std::memset(b, 0, sizeof(b));
        b[8] = c.first, b[24] = c.second;
        out.emplace_back(b, b + 64);
    }
    return out;
}

uint32_t seed() {
    const char *env = std::getenv("KIVO_CHECKASM_SEED");
    return env ? static_cast<uint32_t>(std::strtoul(env, nullptr, 0)) : 20240607u;
}

// Every plain kernel equals the reference: the full and scaled transforms
// on the corpus (scaled ones with junk outside their corner), the DC-only
// routines on every DC value.
TEST(Idct, PlainKernelsMatchTheReference) {
    std::mt19937 rng(seed());
    std::uniform_int_distribution<int> junk(-32768, 32767);
    auto corpus = make_corpus(seed());
    for (int c0 = -32768; c0 <= 32767; c0++) corpus.push_back(std::vector<int16_t>(1, static_cast<int16_t>(c0)));
    for (size_t bi = 0; bi < corpus.size(); bi++) {
        int16_t blk[64] = {};
        std::copy(corpus[bi].begin(), corpus[bi].end(), blk);
        const bool dc_only = corpus[bi].size() == 1;
        uint8_t want[64], got[64];
        for (const Kernel &k : kPlain) {
            idct_ref(blk, k.n, want);
            int16_t in[64];
            for (int i = 0; i < 64; i++) in[i] = i / 8 < k.n && i % 8 < k.n ? blk[i] : static_cast<int16_t>(junk(rng));
            for (kivod_idct_fn fn : {k.full, k.dc}) {
                if (fn == k.dc && !dc_only) continue;
                fn(in, k.n, got);
                for (int i = 0; i < k.n * k.n; i++)  // DC routines: 128 + floor((c0 + 4) / 8), clamped
                    ASSERT_EQ(got[i], fn == k.dc ? std::clamp(128 + ((blk[0] + 4) >> 3), 0, 255)
                                                 : want[i / k.n * (8 / k.n) * 8 + i % k.n * (8 / k.n)])
                        << k.n << " block " << bi << " at " << i;
            }
        }
    }
}

// ---- the kernel checker -------------------------------------------------------------

struct Level {
    const char *name;
    uint32_t flags;
};
const Level kLevels[] = {{"c", 0}, {"sse2", KIVO_CPU_SSE2}, {"avx2", KIVO_CPU_SSE2 | KIVO_CPU_AVX2},
                          {"avx512", KIVO_CPU_SSE2 | KIVO_CPU_AVX2 | KIVO_CPU_AVX512}, {"neon", KIVO_CPU_NEON}};
const int kScales[] = {0, 1, 2, 4, 8};

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
    const auto corpus = make_corpus(seed());
    kivod_dsp plain;
    kivod_dsp_init(&plain, 0);
    // Each scale's slots hold the plain transform and coefficient decoder of
    // its output size, on every level.
    for (int i = 0; i < 5; i++) {
        const Kernel &k = kPlain[i ? i - 1 : 0];
        EXPECT_TRUE(plain.idct[kScales[i]] == k.full && plain.idct_dc[kScales[i]] == k.dc) << kScales[i];
        // Block decoders: their variants are checked in test_dec_vld.
        EXPECT_EQ(plain.vld_blk[kScales[i]], kivod_vld_blk_for(kScales[i], false)) << kScales[i];
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
    EXPECT_EQ(fails, 0) << "seed " << seed();
    std::printf("%d variant(s) checked\n", checked);
}

}  // namespace
// The resizer's row kernels at each level against the plain ones: rows of
// every length up to 70 at three alignments, random or only 0 and 255 (the
// largest sums), into canary-filled rows.
TEST(Checkasm, ResizerKernelsMatchPlain) {
    // (wa, wb, shift) of every vertical mix the resizer makes.
    const int mixes[][3] = {{1, 3, 4}, {3, 1, 4}, {4, 0, 4}, {1, 3, 2}, {4, 0, 3}, {1, 1, 1}, {1, 1, 3}, {1, 0, 1}, {1, 0, 2}};
    const xelo::IrszDsp &c = xelo::irsz_dsp(0);
    std::mt19937 rng(seed());
    std::vector<uint8_t> s(150), o0(80), o1(80);
    std::vector<uint16_t> a(80), b(80), h0(150), h1(150);
    for (const Level &lv : kLevels) {
        if (!lv.flags || (lv.flags & ~kivo_cpu_detected())) continue;
        const xelo::IrszDsp &v = xelo::irsz_dsp(lv.flags);
        for (int n = 1; n <= 70; n++)
            for (int off = 0; off < 3; off++)
                for (int extreme = 0; extreme < 2; extreme++) {
                    SCOPED_TRACE(testing::Message() << lv.name << " n " << n << " off " << off << " extreme " << extreme);
                    for (uint8_t &x : s) x = uint8_t(extreme ? (rng() & 1) * 255 : rng());
                    const xelo::IrszRowFn rows[][2] = {{c.up2, v.up2}, {c.down2, v.down2}, {c.widen, v.widen}};
                    for (const auto &f : rows) {
                        std::fill(h0.begin(), h0.end(), 0xA5A5);
                        std::fill(h1.begin(), h1.end(), 0xA5A5);
                        f[0](s.data() + off, h0.data() + off, n);
                        f[1](s.data() + off, h1.data() + off, n);
                        ASSERT_EQ(h0, h1) << "row kernel " << &f - rows;
                    }
                    for (const auto &m : mixes) {
                        const int most = (255 << m[2]) / (m[0] + m[1]);
                        for (size_t i = 0; i < a.size(); i++)
                            a[i] = uint16_t(extreme ? (rng() & 1) * most : rng() % (most + 1)),
                            b[i] = uint16_t(extreme ? (rng() & 1) * most : rng() % (most + 1));
                        std::fill(o0.begin(), o0.end(), 0x5A);
                        std::fill(o1.begin(), o1.end(), 0x5A);
                        c.mix(a.data() + off, b.data(), o0.data() + off, n, m[0], m[1], m[2]);
                        v.mix(a.data() + off, b.data(), o1.data() + off, n, m[0], m[1], m[2]);
                        ASSERT_EQ(o0, o1) << "mix " << m[0] << "," << m[1] << " >> " << m[2];
                    }
                }
    }
}
