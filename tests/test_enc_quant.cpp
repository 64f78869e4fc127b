// The encoder's plain kernels and tables against a reference written here
// plainly from their rules (forward DCT, both quantizers, offset update,
// quality and perceptual tables, JND filter, thresholds and suppression);
// every SIMD variant kivoe_dsp_init can choose here against the plain
// kernel (KIVO_CHECKASM_SEED=n changes the seed); the perceptual selection.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <vector>

#include "encoder/kivoe_int.h"
#include "support/kivo_encode.h"

namespace ref {

// Per-frequency weight, Q12, raster order.
const int kMtf[64] = {
    4096, 4096, 4096, 4096, 4267, 4683, 5330, 6233, 4096, 4096, 4096, 4096, 4412, 4873, 5556, 6495,
    4096, 4096, 4279, 4603, 5000, 5556, 6329, 7369, 4096, 4096, 4603, 5377, 6141, 6928, 7882, 9112,
    4267, 4412, 5000, 6141, 7558, 8974, 10422, 12071, 4683, 4873, 5556, 6928, 8974, 11384, 13894, 16516,
    5330, 5556, 6329, 7882, 10422, 13894, 17980, 22407, 6233, 6495, 7369, 9112, 12071, 16516, 22407, 29446};

// How many of the eight steps are at or below v.
int steps(const int (&s)[8], int v) { return static_cast<int>(std::count_if(s, s + 8, [v](int x) { return x <= v; })); }

void fdct(const int16_t *in, int16_t *out) {
    int32_t t[64];
    for (int pass = 0; pass < 2; ++pass)
        for (int n = 0; n < 8; ++n) {
            int32_t x[8];
            for (int k = 0; k < 8; ++k) x[k] = pass ? t[8 * k + n] : in[8 * n + k] - 128;
            const int32_t s07 = x[0] + x[7], s16 = x[1] + x[6], s25 = x[2] + x[5], s34 = x[3] + x[4];
            const int32_t d07 = x[0] - x[7], d16 = x[1] - x[6], d25 = x[2] - x[5], d34 = x[3] - x[4];
            const int32_t e0 = s07 + s34, e1 = s16 + s25, a = s07 - s34, b = s16 - s25;
            const int32_t m1 = (724 * (d16 - d25) + 512) >> 10, m2 = (724 * (d16 + d25) + 512) >> 10;
            const int32_t g = d07 + m2, h = d34 + m1, g2 = d07 - m2, h2 = d34 - m1;
            const int32_t y[8] = {e0 + e1, 710 * g + 141 * h, 669 * a + 277 * b, 602 * g2 - 402 * h2,
                                  e0 - e1, 602 * h2 + 402 * g2, 277 * a - 669 * b, 141 * g - 710 * h};
            for (int k = 0; k < 8; ++k) {
                if (pass == 0) t[8 * n + k] = k % 4 ? y[k] : y[k] * 512;
                else out[8 * k + n] = static_cast<int16_t>(k % 4 ? (y[k] + (1 << 20)) >> 21 : (y[k] + 2048) >> 12);
            }
        }
}

int16_t quant(int c, int recip, int half) {
    const int64_t n = std::min<int64_t>((std::abs(c) + half) * int64_t(recip) >> 14, 32767);
    return static_cast<int16_t>(c > 0 ? n : -n);
}

int16_t quant_rdoq(int c, int recip, int offset) {
    const int64_t n = (std::abs(c) * int64_t(recip) + offset) >> 14;
    return static_cast<int16_t>(static_cast<uint16_t>(c > 0 ? n : -n));
}

uint16_t update_offset(int level, int coef, int q, int recip, int offset) {
    if (level == 0) return static_cast<uint16_t>(offset);
    const int64_t err = std::abs(coef) - std::abs(level * q), d = std::abs(err) * recip >> 11;
    const int o = static_cast<int16_t>(static_cast<uint16_t>(err > 0 ? offset + d : offset - d));
    return static_cast<uint16_t>(std::clamp(o, 0, 8192));
}

int gen_q(int i, uint32_t stat, int base) {
    const int b = static_cast<int16_t>((kMtf[i] * base) >> 12);
    int m = b;
    if (i > 0) m = std::max<int>(b, static_cast<int16_t>(static_cast<int64_t>(std::pow(b, 0.30000000000000004) * std::pow(double(stat), 0.7))));
    const int t = 3 * m / 4;
    return b < t ? b : std::max(t, 1);
}

int base_of_level(int level) { return level < 24 ? 2 : level < 72 ? 3 : level < 160 ? 4 : 5; }

int threshold(int dc, int i) {
    static const int kLum[8] = {12, 34, 63, 97, 129, 141, 185, 233};
    return kMtf[i] * steps(kLum, std::clamp((dc + 1024) >> 3, 0, 255)) >> 12;
}

// Sample (x, y) of the filtered block at src (line distance s).
int jnd_filter(const uint8_t *src, int s, int x, int y) {
    static const int kUp[8] = {11, 30, 55, 84, 118, 155, 195, 239}, kDown[8] = {12, 32, 58, 88, 123, 161, 202, 247};
    const int c = src[y * s + x], lo = c - steps(kDown, c), hi = std::min(255, c + steps(kUp, c));
    auto n = [&](int dy) { return std::clamp<int>(src[(y + dy) * s + x], lo, hi); };
    return (n(-2) + 4 * n(-1) + 6 * c + 4 * n(1) + n(2) + 8) >> 4;
}

void suppress(int16_t *lv, const int16_t *coef, const uint16_t *q, const uint8_t *thr) {
    int sum = 0;
    for (int i = 1; i < 64; ++i) sum += std::abs(lv[i]);
    for (int i = 0; i < 64 && sum > 7; ++i) {
        const int sign = lv[i] < 0 ? -1 : 1;
        for (int m = std::abs(lv[i]) - 1; m >= 0 && std::abs(coef[i] - sign * m * q[i]) < thr[i]; --m) lv[i] = int16_t(sign * m);
    }
}

}  // namespace ref

namespace {

using Block = std::vector<int16_t>;

// Transform inputs: random, black and white, flat, and ramps of random
// slope either way. Coefficients: every 16-bit value with every quantizer
// 1..255 and plain, truncating or any adaptive offsets, then random and
// extreme values with mixed tables. A table is q, recip, half and offset.
struct Sets {
    std::vector<Block> samples, coefs, tables;
    std::vector<std::pair<size_t, size_t>> pairs;  // coefficient block, table
    explicit Sets(uint32_t seed) {
        std::mt19937 rng(seed);
        for (int n = 0; n < 20000; ++n) {
            const int kind = n % 4, v = static_cast<int>(rng() % 256), dx = static_cast<int>(rng() % 65) - 32;
            samples.emplace_back(64);
            for (int i = 0; i < 64; ++i)
                samples.back()[i] = int16_t(kind == 0 ? rng() % 256 : kind == 1 ? (rng() & 1) * 255 : kind == 2 ? v : std::clamp(v + dx * (n & 8 ? i / 8 : i % 8), 0, 255));
        }
        const int16_t ext[] = {32767, -32768, -32767, 0, 1, -1};
        for (int n = 0; n < 2048; ++n) {
            coefs.emplace_back(64);
            for (int i = 0; i < 64; ++i)
                coefs.back()[i] = int16_t(n < 1024 ? n * 64 - 32768 + i : n % 4 == 3 ? ext[rng() % 6] : static_cast<int>(rng() % (n % 2 ? 65536 : 2049)) - (n % 2 ? 32768 : 1024));
        }
        for (int n = 0; n < 255 + 64; ++n) {
            tables.emplace_back(256);
            for (int i = 0; i < 64; ++i) {
                const int q = n < 255 ? n + 1 : 1 + static_cast<int>(rng() % 255);
                const uint16_t off[3] = {8192, 0, uint16_t(rng() % 2 ? rng() : rng() % 8193)};
                tables.back()[i] = int16_t(q), tables.back()[64 + i] = int16_t(16384 / q), tables.back()[128 + i] = int16_t(q >> 1);
                tables.back()[192 + i] = int16_t(off[n < 255 ? n % 3 : 2]);
            }
            for (size_t k = n < 255 ? 0 : 1024; k < (n < 255 ? 1024 : 2048); ++k) pairs.push_back({k, tables.size() - 1});
        }
    }
};

TEST(EncRef, ForwardDctAndQuantizers) {
    const Sets sets(5);
    std::mt19937 rng(6);
    int16_t want[64], got[64], lv[64];
    for (size_t n = 0; n < sets.samples.size(); ++n) {
        ref::fdct(sets.samples[n].data(), want);
        kivoe_fdct8(static_cast<int16_t *>(std::memcpy(got, sets.samples[n].data(), sizeof(got))));
        for (int i = 0; i < 64; ++i) ASSERT_EQ(got[i], want[i]) << "block " << n << " at " << i;
    }
    for (const auto &pr : sets.pairs) {
        const int16_t *c = sets.coefs[pr.first].data();
        const uint16_t *q = reinterpret_cast<const uint16_t *>(sets.tables[pr.second].data()), *recip = q + 64, *half = q + 128, *off = q + 192;
        const int nonzero = kivoe_quant(static_cast<int16_t *>(std::memcpy(got, c, sizeof(got))), recip, half);
        kivoe_quant_rdoq(static_cast<int16_t *>(std::memcpy(lv, c, sizeof(lv))), recip, off);
        for (int i = 0; i < 64; ++i) {
            ASSERT_EQ(got[i], ref::quant(c[i], recip[i], half[i])) << c[i] << " / " << q[i];
            ASSERT_EQ(lv[i], ref::quant_rdoq(c[i], recip[i], off[i])) << c[i] << " / " << q[i] << " offset " << off[i];
        }
        ASSERT_EQ(nonzero, 64 - std::count(got, got + 64, 0));
        // The same levels with their zig-zag mask, bit 0 for a level beyond +-2047.
        uint64_t mask = std::any_of(got, got + 64, [](int16_t v) { return std::abs(v) > 2047; });
        for (int z = 1; z < 64; ++z) mask |= uint64_t(got[kivo_tbl_zig_to_ras[z]] != 0) << z;
        ASSERT_EQ(kivoe_quant_mask(static_cast<int16_t *>(std::memcpy(lv, c, sizeof(lv))), recip, half), mask);
        ASSERT_EQ(std::memcmp(lv, got, sizeof(lv)), 0);
        if (pr.first % 16) continue;
        // The offset update: levels near the coefficient's own, and any, with any offset.
        uint16_t adapt[64], adapt_want[64];
        for (int i = 0; i < 64; ++i) {
            lv[i] = int16_t(rng() % 8 ? lv[i] + int(rng() % 5) - 2 : rng());
            adapt[i] = uint16_t(rng() % 16 ? rng() % 8193 : rng());
            adapt_want[i] = ref::update_offset(lv[i], c[i], q[i], recip[i], adapt[i]);
        }
        kivoe_update_offset(lv, c, q, recip, adapt);
        for (int i = 0; i < 64; ++i) ASSERT_EQ(adapt[i], adapt_want[i]) << lv[i] << " for " << c[i] << " / " << q[i];
    }
}

TEST(EncRef, QualityAndPerceptualTables) {
    kivoe_create_param p{1, 16, 16, 50, XELO_CS_YCBCR420, nullptr};
    kivoe_ctx *enc = kivoe_create(&p, nullptr);
    uint8_t want[128];
    for (uint32_t quality = 0; quality <= 102; ++quality) {
        const kivoe_qtbl before = enc->qtbl[0];
        ASSERT_EQ(kivoe_init_q_tbl(enc, quality), quality > 100 ? KIVO_ERR_INVALID_ARG : KIVO_OK);
        kivotest::quality_tables(quality > 100 ? 100 : static_cast<int>(quality), want);
        EXPECT_TRUE(quality <= 100 || std::memcmp(&before, &enc->qtbl[0], sizeof(before)) == 0) << "tables kept";
        for (int i = 0; i < 128; ++i) {
            const kivoe_qtbl &t = enc->qtbl[i / 64];
            ASSERT_TRUE(t.q[i % 64] == want[i] && t.recip[i % 64] == 16384 / want[i] && t.half[i % 64] == want[i] / 2) << quality << " at " << i;
        }
    }
    kivoe_delete(enc);
    std::mt19937 rng(7);
    const uint32_t ext[] = {0, 1, 2, 100, 0xFFFFFFFFu, 0x80000000u, 2000000};
    for (int n = 0; n < 3000; ++n) {
        uint32_t stat[64];
        for (uint32_t &s : stat) s = n % 3 ? rng() % (1u << (n % 24)) : ext[rng() % 7];
        const int base = n % 8;
        int16_t q[64];
        uint16_t recip[64], half[64];
        kivo_gen_qtbl(q, recip, half, stat, base);
        for (int i = 0, w; i < 64; ++i)
            ASSERT_TRUE(q[i] == (w = ref::gen_q(i, stat[i], base)) && recip[i] == 16384 / w && half[i] == w / 2) << base << " " << stat[i] << " at " << i;
    }
    for (int level = 0; level < 256; ++level) EXPECT_EQ(tbl_thr[level], ref::base_of_level(level)) << level;
}

TEST(EncRef, JndFilterThresholdsAndSuppression) {
    std::mt19937 rng(9);
    uint8_t thr[64];
    for (int dc = -1100; dc <= 1100; ++dc) {
        kivoe_jnd_thresholds(static_cast<int16_t>(dc), thr);
        for (int i = 0; i < 64; ++i) ASSERT_EQ(thr[i], ref::threshold(dc, i)) << dc << " at " << i;
    }
    for (int n = 0; n < 2000; ++n) {
        // A 12 x 12 area: smooth with ripples, edges and noise of every size.
        uint8_t plane[144];
        const int base = static_cast<int>(rng() % 256), amp = 1 << (n % 9);
        for (uint8_t &s : plane) s = uint8_t(std::clamp(base + static_cast<int>(rng() % amp) - amp / 2, 0, 255));
        int16_t blk[64];
        kivoe_jndfilt8x8(plane + 26, 12, blk);
        for (int i = 0; i < 64; ++i) ASSERT_EQ(blk[i], ref::jnd_filter(plane + 26, 12, i % 8, i / 8)) << n << " at " << i;
        // Levels near the coefficients' own, thresholds of every brightness.
        int16_t coef[64], lv[64], want[64];
        uint16_t q[64];
        kivoe_jnd_thresholds(static_cast<int16_t>(rng() % 2049) - 1024, thr);
        for (int i = 0; i < 64; ++i) {
            q[i] = uint16_t(1 + rng() % (n % 2 ? 4 : 40));
            coef[i] = int16_t(rng() % (3 + n % 30) ? 0 : static_cast<int>(rng() % 200) - 100);  // AC sums about 7 too
            want[i] = lv[i] = int16_t(std::lround(double(coef[i]) / q[i]) + (rng() % 4 ? 0 : 1));
        }
        ref::suppress(want, coef, q, thr);
        kivoe_jnd_suppress(lv, coef, q, nullptr, thr);
        for (int i = 0; i < 64; ++i) ASSERT_EQ(lv[i], want[i]) << n << " at " << i;
    }
}

#if defined(KIVO_ARCH_x86)
const uint32_t kSse = KIVO_CPU_SSE2 | KIVO_CPU_SSSE3 | KIVO_CPU_SSE41;
const uint32_t kLevels[] = {0, KIVO_CPU_SSE2, KIVO_CPU_SSE2 | KIVO_CPU_SSSE3, kSse, kSse | KIVO_CPU_AVX2,
                             kSse | KIVO_CPU_AVX2 | KIVO_CPU_BMI2, kSse | KIVO_CPU_AVX2 | KIVO_CPU_BMI2 | KIVO_CPU_AVX512};
#elif defined(KIVO_ARCH_arm)
const uint32_t kLevels[] = {0, KIVO_CPU_NEON};
#else
const uint32_t kLevels[] = {0};
#endif

// 64 values `skew` int16 past a 32-byte boundary, canaries on both sides.
struct Slot {
    alignas(32) int16_t mem[112];
    int16_t *at;
    Slot(const int16_t *in, int skew) : at(mem + 24 + skew) {
        for (int16_t &v : mem) v = 0x5A5A;
        std::memcpy(at, in, 128);
    }
    bool operator==(const Slot &o) const { return std::memcmp(mem, o.mem, sizeof(mem)) == 0; }
};

// Every SIMD variant against the plain kernel on the sets above, with
// tables at an odd address as kivoe_qtbl fields may be.
TEST(CheckasmEnc, VariantsMatchThePlainKernels) {
    const char *env = std::getenv("KIVO_CHECKASM_SEED");
    const Sets sets(env ? static_cast<uint32_t>(std::strtoul(env, nullptr, 0)) : 20240611u);
    kivoe_proc plain{};
    kivoe_dsp_init(&plain, 0);
    ASSERT_TRUE(plain.fdct8 == &kivoe_fdct8 && plain.quant == &kivoe_quant && plain.quant_rdoq == &kivoe_quant_rdoq &&
                plain.jndfilt == &kivoe_jndfilt8x8 && plain.planes == &kivoe_planes_c && plain.quant_mask == &kivoe_quant_mask &&
                plain.fdct_quant_mask == &kivoe_fdct_quant_mask && plain.jnd_suppress == &kivoe_jnd_suppress &&
                plain.update_offset == &kivoe_update_offset && plain.levels_mask == &kivoe_levels_mask &&
                plain.box2 == &kivoe_box2 && plain.abs_acc == &kivoe_abs_acc);
    std::set<const void *> seen;
    auto is_new = [&seen](auto f) { return seen.insert(reinterpret_cast<const void *>(f)).second; };
    is_new(plain.fdct8), is_new(plain.quant), is_new(plain.quant_rdoq), is_new(plain.jndfilt), is_new(plain.planes),
        is_new(plain.quant_mask), is_new(plain.fdct_quant_mask), is_new(plain.jnd_suppress), is_new(plain.update_offset),
        is_new(plain.box2), is_new(plain.abs_acc);
    ASSERT_TRUE(plain.jndfilt_u8 == &kivoe_jndfilt8x8_u8 && plain.quant_kept == nullptr &&
                plain.fdct_quant_kept_samples == nullptr && plain.jnd_fdct_quant_kept == nullptr &&
                plain.fdct_quant_kept2 == nullptr && plain.jnd_fdct_quant_kept2 == nullptr &&
                plain.jnd_fdct_quant_kept4 == nullptr &&
                plain.box2_strip == nullptr);
    int checked = 0, failures = 0;
    auto fail = [&failures](const char *what, uint32_t flags, size_t i) {
        if (failures++ < 5) ADD_FAILURE() << what << " at CPU flags " << flags << ": block " << i;
    };
    std::vector<uint16_t> odd(1 + 256);
    for (uint32_t flags : kLevels) {
        if (flags & ~kivo_cpu_detected()) continue;
        kivoe_proc p{};
        kivoe_dsp_init(&p, flags);
        std::printf("%s\n", kivoe_dsp_describe(flags));
        ASSERT_TRUE(p.fdct8 && p.quant && p.quant_rdoq && p.jndfilt && p.planes && p.quant_mask && p.fdct_quant_mask) << flags;
        const bool fdct = is_new(p.fdct8), quant = is_new(p.quant), rdoq = is_new(p.quant_rdoq), jnd = is_new(p.jndfilt),
                   planes = is_new(p.planes), qmask = is_new(p.quant_mask), fqmask = is_new(p.fdct_quant_mask);
        checked += fdct + quant + rdoq + jnd + planes + qmask + fqmask;
        for (size_t i = 0; fdct && i < sets.samples.size(); ++i) {
            Slot a(sets.samples[i].data(), i % 5), b(sets.samples[i].data(), i % 5);
            plain.fdct8(a.at);
            p.fdct8(b.at);
            if (!(a == b)) fail("fdct8", flags, i);
        }
        // From 8-bit samples, rows 13 bytes apart at an odd address.
        const bool fqs = p.fdct_quant_samples && is_new(p.fdct_quant_samples);
        checked += fqs;
        for (size_t i = 0; fqs && i < sets.samples.size(); ++i) {
            uint8_t plane[8 * 13 + 1];
            for (int k = 0; k < 64; ++k) plane[1 + k / 8 * 13 + k % 8] = static_cast<uint8_t>(sets.samples[i][k]);
            std::memcpy(&odd[1], sets.tables[i % sets.tables.size()].data(), 512);
            const int16_t zero[64] = {};
            Slot a(zero, i % 5), b(zero, i % 5);
            // The half values, or the table's offsets where all lie below
            // 32768 (8192 with small q: levels past 2047).
            const bool any = i % 2 && std::all_of(&odd[193], &odd[257], [](uint16_t v) { return v < 32768; });
            const uint16_t *off = any ? &odd[193] : &odd[129];
            if (kivoe_fdct_quant_samples(plane + 1, 13, a.at, &odd[65], off) !=
                    p.fdct_quant_samples(plane + 1, 13, b.at, &odd[65], off) || !(a == b))
                fail("fdct_quant_samples", flags, i);
        }
        for (size_t i = 0; fqmask && i < sets.samples.size(); ++i) {
            std::memcpy(&odd[1], sets.tables[i % sets.tables.size()].data(), 512);
            Slot a(sets.samples[i].data(), i % 5), b(sets.samples[i].data(), i % 5);
            if (plain.fdct_quant_mask(a.at, &odd[65], &odd[129]) != p.fdct_quant_mask(b.at, &odd[65], &odd[129]) || !(a == b))
                fail("fdct_quant_mask", flags, i);
        }
        // Runs of one to three blocks: the range flag as given, the planes
        // and DC levels without -32768.
        for (size_t i = 0; planes && i + 3 <= sets.coefs.size(); ++i) {
            const int n = 1 + static_cast<int>(i % 3);
            std::vector<int16_t> run(64 * n);
            for (int b = 0; b < n; ++b) std::copy(sets.coefs[i + b].begin(), sets.coefs[i + b].end(), run.begin() + 64 * b);
            kivoe_planes x[3], y[3];
            int16_t dx[3], dy[3];
            if (!plain.planes(run.data(), n, x, dx) != !p.planes(run.data(), n, y, dy)) fail("planes range", flags, i);
            for (int16_t &v : run) v = std::max<int16_t>(v, -32767);
            if (!plain.planes(run.data(), n, x, dx) != !p.planes(run.data(), n, y, dy) || std::memcmp(x, y, n * sizeof(x[0])) ||
                std::memcmp(dx, dy, n * sizeof(dx[0])))
                fail("planes", flags, i);
        }
        // The filter reads two lines above and below the block, here from
        // consecutive sample blocks.
        for (size_t i = 0; jnd && i + 1 < sets.samples.size(); ++i) {
            uint8_t plane[12 * 9 + 1];
            for (int k = 0; k < 12 * 9; ++k) plane[k + 1] = static_cast<uint8_t>(sets.samples[i + k / 64][k % 64]);
            const int16_t zero[64] = {};
            Slot a(zero, i % 5), b(zero, i % 5);
            plain.jndfilt(plane + 1 + 2 * 9, 9, a.at);
            p.jndfilt(plane + 1 + 2 * 9, 9, b.at);
            if (!(a == b)) fail("jndfilt", flags, i);
        }
        // The filter to bytes against the plain filter, and the transform of
        // bytes (rows 13 apart at an odd address) against the plain one.
        const bool filt8 = is_new(p.jndfilt_u8);
        checked += filt8;
        for (size_t i = 0; filt8 && i + 2 < sets.samples.size(); ++i) {
            uint8_t plane[12 * 13 + 1], got[64 + 2];
            for (int k = 0; k < 12 * 13; ++k) plane[k + 1] = static_cast<uint8_t>(sets.samples[i + k / 64][k % 64]);
            const int16_t zero[64] = {};
            Slot a(zero, i % 5), b(zero, i % 5);
            plain.jndfilt(plane + 1 + 2 * 13, 13, a.at);
            std::memset(got, 0xA5, sizeof(got));
            if (filt8) p.jndfilt_u8(plane + 1 + 2 * 13, 13, got + 1);
            for (int k = 0; filt8 && k < 64; ++k)
                if (got[k + 1] != a.at[k] || got[0] != 0xA5 || got[65] != 0xA5) {
                    fail("jndfilt_u8", flags, i);
                    break;
                }
        }
        for (size_t i = 0; (quant || rdoq || qmask) && i < sets.pairs.size(); ++i) {
            const int16_t *in = sets.coefs[sets.pairs[i].first].data();
            std::memcpy(&odd[1], sets.tables[sets.pairs[i].second].data(), 512);
            const uint16_t *recip = &odd[65], *half = &odd[129], *off = &odd[193];
            Slot a(in, i % 5), b(in, i % 5), c(in, i % 5), d(in, i % 5);
            if (quant && (plain.quant(a.at, recip, half) != p.quant(b.at, recip, half) || !(a == b))) fail("quant", flags, i);
            // Any offsets below 32768 (zero coefficients then quantize to -n).
            Slot e(in, i % 5), f(in, i % 5);
            if (quant && std::all_of(off, off + 64, [](uint16_t v) { return v < 32768; }) &&
                (plain.quant(e.at, recip, off) != p.quant(f.at, recip, off) || !(e == f))) fail("quant, offsets", flags, i);
            Slot g(in, i % 5), h(in, i % 5);
            if (qmask && (plain.quant_mask(g.at, recip, half) != p.quant_mask(h.at, recip, half) || !(g == h))) fail("quant_mask", flags, i);
            if (rdoq) plain.quant_rdoq(c.at, recip, off), p.quant_rdoq(d.at, recip, off);
            if (rdoq && !(c == d)) fail("quant_rdoq", flags, i);
        }
        // Suppression and the offset update: levels near the coefficients'
        // own (suppressed) or any (extremes), thresholds of the table, zero,
        // random or 255; offsets of the table (8192, 0 or any). The coder's
        // mask against one made here.
        const bool sup = is_new(p.jnd_suppress), upd = is_new(p.update_offset), lmask = is_new(p.levels_mask);
        const bool kept = p.quant_kept && is_new(p.quant_kept);
        checked += sup + upd + lmask + kept;
        std::mt19937 rng(static_cast<uint32_t>(flags) + 1);
        for (size_t i = 0; (sup || upd || lmask || kept) && i < sets.pairs.size(); i += 3) {
            const int16_t *in = sets.coefs[sets.pairs[i].first].data();
            std::memcpy(&odd[1], sets.tables[sets.pairs[i].second].data(), 512);
            const uint16_t *q = &odd[1], *recip = &odd[65], *half = &odd[129];
            int16_t lv[64];
            if (i % 2) {
                std::memcpy(lv, sets.coefs[(sets.pairs[i].first * 7 + i) % sets.coefs.size()].data(), sizeof(lv));
            } else {
                kivoe_quant(static_cast<int16_t *>(std::memcpy(lv, in, sizeof(lv))), recip, half);
                for (int16_t &v : lv) v = int16_t(v + (rng() % 4 ? 0 : static_cast<int>(rng() % 5) - 2));
            }
            uint8_t thr[64];
            for (int k = 0; k < 64; ++k)
                thr[k] = uint8_t(i % 4 == 0 ? 0 : i % 4 == 1 ? kivo_tbl_suppr_thr[64 * (i / 4 % 8) + k] : i % 4 == 2 ? rng() : 255);
            Slot a(lv, i % 5), b(lv, i % 5);
            if (sup) plain.jnd_suppress(a.at, in, q, recip, thr), p.jnd_suppress(b.at, in, q, recip, thr);
            if (sup && !(a == b)) fail("jnd_suppress", flags, i);
            uint16_t oa[64], ob[64];
            std::memcpy(oa, &odd[193], sizeof(oa));
            std::memcpy(ob, oa, sizeof(ob));
            if (upd) plain.update_offset(a.at, in, q, recip, oa), p.update_offset(a.at, in, q, recip, ob);
            if (upd && std::memcmp(oa, ob, sizeof(oa))) fail("update_offset", flags, i);
            uint64_t want = 0;
            bool coded = true;
            for (int z = 0; z < 64; ++z) {
                const int16_t v = a.at[kivo_tbl_zig_to_ras[z]];
                want |= uint64_t(z > 0 && v != 0) << z;
                coded = coded && v <= 2047 && v >= -2047;
            }
            if (lmask && p.levels_mask(a.at) != (coded ? want : ~uint64_t(0))) fail("levels_mask", flags, i);
            // The fused steps, from the coefficients, against the plain ones.
            if (!kept) continue;
            Slot e(in, i % 5), f(in, i % 5);
            std::memcpy(oa, &odd[193], sizeof(oa));
            std::memcpy(ob, oa, sizeof(ob));
            const bool adaptive = i / 3 % 3 != 0, suppressed = i / 3 % 5 != 0;
            if (kivoe_quant_kept(e.at, q, recip, half, adaptive ? oa : nullptr, suppressed ? thr : nullptr) !=
                    p.quant_kept(f.at, q, recip, half, adaptive ? ob : nullptr, suppressed ? thr : nullptr) ||
                !(e == f) || std::memcmp(oa, ob, sizeof(oa)))
                fail("quant_kept", flags, i);
        }
        // From 8-bit samples (rows 13 bytes apart at an odd address, two
        // more above and below for the filter) to the levels with any of
        // the steps, against the plain ones; the offsets run on from block
        // to block, restarting from the table's (8192, 0 or any up to 8192)
        // every 50 blocks.
        const bool ks = p.fdct_quant_kept_samples && is_new(p.fdct_quant_kept_samples);
        const bool kf = p.jnd_fdct_quant_kept && is_new(p.jnd_fdct_quant_kept);
        checked += ks + kf;
        for (size_t i = 0; (ks || kf) && i + 2 < sets.samples.size(); ++i) {
            uint8_t plane[12 * 13 + 1];
            for (int k = 0; k < 12 * 13; ++k) plane[k + 1] = static_cast<uint8_t>(sets.samples[i + k / 64][k % 64]);
            const size_t t = i / 50 % sets.tables.size();
            std::memcpy(&odd[1], sets.tables[t].data(), 512);
            static uint16_t oa[64], ob[64];
            if (i % 50 == 0)
                for (int k = 0; k < 64; ++k) oa[k] = ob[k] = std::min<uint16_t>(odd[193 + k], 8192);
            const int16_t zero[64] = {};
            Slot a(zero, i % 5), b(zero, i % 5);
            const bool adaptive = i % 3 != 0, filter = i % 7 < 3 ? kf : !ks;
            const int32_t suppress = i % 5 != 0;
            const kivoe_kept_samples_fn want = filter ? kivoe_jnd_fdct_quant_kept : kivoe_fdct_quant_kept_samples;
            const kivoe_kept_samples_fn got = filter ? p.jnd_fdct_quant_kept : p.fdct_quant_kept_samples;
            const uint8_t *src = plane + 1 + 2 * 13;
            if (want(src, 13, a.at, &odd[1], &odd[65], &odd[129], adaptive ? oa : nullptr, suppress) !=
                    got(src, 13, b.at, &odd[1], &odd[65], &odd[129], adaptive ? ob : nullptr, suppress) ||
                !(a == b) || std::memcmp(oa, ob, sizeof(oa)))
                fail("fdct_quant_kept_samples", flags, i);
        }
        // Two blocks at a time against the plain kernels one after the
        // other, side by side in a 12-row area (rows 21 bytes apart),
        // offsets running on as above.
        const bool k2 = p.fdct_quant_kept2 && is_new(p.fdct_quant_kept2);
        const bool kf2 = p.jnd_fdct_quant_kept2 && is_new(p.jnd_fdct_quant_kept2);
        checked += k2 + kf2;
        for (size_t i = 0; (k2 || kf2) && i + 4 < sets.samples.size(); i += 2) {
            uint8_t plane[12 * 21 + 1];
            for (int k = 0; k < 12 * 21; ++k) plane[k + 1] = static_cast<uint8_t>(sets.samples[i + k / 64][k % 64]);
            std::memcpy(&odd[1], sets.tables[i / 50 % sets.tables.size()].data(), 512);
            static uint16_t oa[64], ob[64];
            if (i % 50 == 0)
                for (int k = 0; k < 64; ++k) oa[k] = ob[k] = std::min<uint16_t>(odd[193 + k], 8192);
            const int16_t zero[128] = {};
            Slot a0(zero, i % 5), a1(zero, i % 3), b0(zero, i % 5), b1(zero, i % 3);
            const bool adaptive = i % 3 != 0, filter = i % 4 < 2 ? kf2 : !k2;
            const int32_t suppress = i % 5 != 0;
            const uint8_t *const src[2] = {plane + 1 + 2 * 21, plane + 1 + 2 * 21 + (i % 8 < 4 ? 8 : 13)};
            int16_t *const want_at[2] = {a0.at, a1.at}, *const got_at[2] = {b0.at, b1.at};
            uint64_t want[2], got[2];
            (filter ? kivoe_jnd_fdct_quant_kept2 : kivoe_fdct_quant_kept2)(src, 21, want_at, &odd[1], &odd[65], &odd[129],
                                                                           adaptive ? oa : nullptr, suppress, want);
            (filter ? p.jnd_fdct_quant_kept2 : p.fdct_quant_kept2)(src, 21, got_at, &odd[1], &odd[65], &odd[129],
                                                                   adaptive ? ob : nullptr, suppress, got);
            if (want[0] != got[0] || want[1] != got[1] || !(a0 == b0) || !(a1 == b1) || std::memcmp(oa, ob, sizeof(oa)))
                fail(filter ? "jnd_fdct_quant_kept2" : "fdct_quant_kept2", flags, i);
        }
        // Four filtered blocks, 2 x 2 in a 20-row area.
        const bool kf4 = p.jnd_fdct_quant_kept4 && is_new(p.jnd_fdct_quant_kept4);
        checked += kf4;
        for (size_t i = 0; kf4 && i + 8 < sets.samples.size(); i += 4) {
            uint8_t plane[20 * 21 + 1];
            for (int k = 0; k < 20 * 21; ++k) plane[k + 1] = static_cast<uint8_t>(sets.samples[i + k / 64][k % 64]);
            std::memcpy(&odd[1], sets.tables[i / 52 % sets.tables.size()].data(), 512);
            uint16_t oa[64], ob[64];
            for (int k = 0; k < 64; ++k) oa[k] = ob[k] = std::min<uint16_t>(odd[193 + k], 8192);
            int16_t want_blk[4][64], got_blk[4][64];
            int16_t *const want_at[4] = {want_blk[0], want_blk[1], want_blk[2], want_blk[3]};
            int16_t *const got_at[4] = {got_blk[0], got_blk[1], got_blk[2], got_blk[3]};
            const uint8_t *at = plane + 1 + 2 * 21;
            const uint8_t *const src[4] = {at, at + 8, at + 8 * 21, at + 8 * 21 + 8};
            const bool adaptive = i % 3 != 0;
            uint64_t want[4], got[4];
            kivoe_jnd_fdct_quant_kept4(src, 21, want_at, &odd[1], &odd[65], &odd[129], adaptive ? oa : nullptr, i % 5 != 0, want);
            p.jnd_fdct_quant_kept4(src, 21, got_at, &odd[1], &odd[65], &odd[129], adaptive ? ob : nullptr, i % 5 != 0, got);
            if (std::memcmp(want, got, sizeof(want)) || std::memcmp(want_blk, got_blk, sizeof(want_blk)) ||
                std::memcmp(oa, ob, sizeof(oa)))
                fail("jnd_fdct_quant_kept4", flags, i);
        }
        // The perceptual sampling's kernels, rows 37 bytes apart, and sums
        // near the top of 32 bits.
        const bool box = is_new(p.box2), acc = is_new(p.abs_acc);
        checked += box + acc;
        for (size_t i = 0; (box || acc) && i + 4 < sets.samples.size(); i += 4) {
            uint8_t plane[16 * 37 + 1];
            for (int k = 0; k < 16 * 37; ++k) plane[k + 1] = static_cast<uint8_t>(sets.samples[i + k / 160][k % 64]);
            const int16_t zero[64] = {};
            Slot a(zero, i % 5), b(zero, i % 5);
            if (box) plain.box2(plane + 1, 37, a.at), p.box2(plane + 1, 37, b.at);
            if (box && !(a == b)) fail("box2", flags, i);
            uint32_t sa[64], sb[64];
            for (int k = 0; k < 64; ++k) sa[k] = sb[k] = i % 8 ? rng() % 1000 : 0xFFFFFFFFu - 32768;
            const int16_t *c = sets.coefs[i % sets.coefs.size()].data();
            if (acc) plain.abs_acc(c, sa), p.abs_acc(c, sb);
            if (acc && std::memcmp(sa, sb, sizeof(sa))) fail("abs_acc", flags, i);
        }
        // Strips of 1 to 70 blocks (past one and two chunks of 32) and a few
        // past 160 (the AVX2 kernel's buffer), samples of the sets or only 0
        // and 255, rows 16 n + 3 bytes apart; the strip of 101 blocks is
        // vertical edges, near the largest magnitude (924 a block).
        const bool strip = p.box2_strip && is_new(p.box2_strip);
        checked += strip;
        for (int n = 1; strip && n <= 200; n += n < 70 ? 1 : 31) {
            const int32_t stride = 16 * n + 3;
            std::vector<uint8_t> plane(16 * stride + 1);
            for (size_t k = 0; k < plane.size(); ++k)
                plane[k] = n == 101 ? ((k + stride - 1) % stride % 16 < 8) * 255
                           : n % 3  ? static_cast<uint8_t>(sets.samples[(k / 64 + n) % sets.samples.size()][k % 64])
                                    : (rng() & 1) * 255;
            uint32_t sa[64], sb[64];
            for (int k = 0; k < 64; ++k) sa[k] = sb[k] = rng() % 1000;
            kivoe_box2_strip(plane.data() + 1, stride, n, sa);
            p.box2_strip(plane.data() + 1, stride, n, sb);
            if (std::memcmp(sa, sb, sizeof(sa))) fail("box2_strip", flags, n);
        }
    }
    EXPECT_EQ(failures, 0);
    std::printf("%d variant(s) checked\n", checked);
}

// A refinement scan (bit al of band ss..se) coded from the levels one bit
// at a time, as bytes with 0xFF stuffed and the last one padded with 0s;
// counts by symbol and, in count[256], the correction bits.
std::vector<uint8_t> refine_ref(const int16_t *lv, int n_blk, int ss, int se, int al, const kivoe_code *code,
                                std::vector<uint64_t> &count) {
    std::vector<uint8_t> bits, held;  // one a bit; held: an end-of-band run's correction bits
    count.assign(257, 0);
    auto put = [&bits](uint32_t v, int n) {
        for (int i = n - 1; i >= 0; --i) bits.push_back(v >> i & 1);
    };
    auto symbol = [&](int sym, uint32_t extra, int n) {
        ++count[sym];
        put(code[sym].code, code[sym].len);
        put(extra, n);
    };
    int eobrun = 0;
    auto flush = [&] {
        if (!eobrun) return;
        int n = 0;
        while (eobrun >> (n + 1)) ++n;
        symbol(n << 4, eobrun & ((1 << n) - 1), n);
        bits.insert(bits.end(), held.begin(), held.end());
        held.clear();
        eobrun = 0;
    };
    for (int b = 0; b < n_blk; ++b) {
        auto level = [&](int k) { return lv[64 * b + kivo_tbl_zig_to_ras[k]]; };
        int last_new = 0, r = 0;
        for (int k = ss; k <= se; ++k)
            if (std::abs(level(k)) >> al == 1) last_new = k;
        std::vector<uint8_t> corr;
        for (int k = ss; k <= se; ++k) {
            const int t = std::abs(level(k)) >> al;
            if (!t) {
                ++r;
                continue;
            }
            for (; r > 15 && k <= last_new; r -= 16) {
                flush();
                symbol(0xF0, 0, 0);
                bits.insert(bits.end(), corr.begin(), corr.end());
                corr.clear();
            }
            if (t > 1) {
                corr.push_back(t & 1);
                ++count[256];
                continue;
            }
            flush();
            symbol(r << 4 | 1, level(k) > 0, 1);
            bits.insert(bits.end(), corr.begin(), corr.end());
            corr.clear();
            r = 0;
        }
        if (r > 0 || !corr.empty()) {
            ++eobrun;
            held.insert(held.end(), corr.begin(), corr.end());
            if (eobrun == 0x7FFF || held.size() > 936) flush();
        }
    }
    flush();
    std::vector<uint8_t> out;
    for (size_t i = 0; i < bits.size(); i += 8) {
        uint8_t byte = 0;
        for (size_t k = i; k < i + 8; ++k) byte = static_cast<uint8_t>(byte << 1 | (k < bits.size() ? bits[k] : 0));
        out.push_back(byte);
        if (byte == 0xFF) out.push_back(0);
    }
    return out;
}

// Refinement scans by every kernel against the reference above: symbol
// counts, correction bits and bytes, over blocks with long zero runs
// before new levels (ZRL), blocks of correction bits only, whose
// end-of-band runs are cut for the bits they hold, and 33000 empty blocks,
// whose run is cut at its longest; each symbol's code is random.
TEST(CheckasmEnc, RefineScansMatchTheReference) {
    std::mt19937 rng(20240612u);
    const int kBlocks = 38000;
    std::vector<int16_t> lv(64 * kBlocks, 0);
    for (int i = 0; i < kBlocks; ++i) {
        if (i >= 2000 && i < 35000) continue;
        // Sparse, dense, correction bits only, a far new level; at the end
        // a few correction bits only, so that some run holds exactly the
        // most bits it may.
        const int kind = i < 35000 ? i % 4 : 4;
        for (int k = 1; k < 64; ++k) {
            const bool set = kind == 1 || kind == 2 || (kind == 0 && rng() % 6 == 0) || (kind == 3 && rng() % 20 == 0) ||
                             (kind == 4 && rng() % 16 == 0);
            int v = set ? 1 + static_cast<int>(rng() % (kind >= 2 && kind != 3 ? 6 : 9)) + (kind == 2 || kind == 4) : 0;
            if (kind == 3 && k == 63) v = 1;
            lv[64 * i + kivo_tbl_zig_to_ras[k]] = static_cast<int16_t>(rng() % 2 ? -v : v);
        }
    }
    std::vector<kivoe_planes> planes(kBlocks);
    std::vector<int16_t> dc(kBlocks);
    kivoe_planes_c(lv.data(), kBlocks, planes.data(), dc.data());
    kivoe_code code[256];
    for (kivoe_code &c : code) {
        c.len = static_cast<uint8_t>(1 + rng() % 16);
        c.code = static_cast<uint16_t>(rng() & ((1u << c.len) - 1));
    }
    const int kBands[][3] = {{1, 63, 0}, {1, 63, 1}, {1, 5, 0}, {6, 63, 1}, {3, 40, 0}};
    std::vector<uint8_t> got(4 << 20);
    std::set<const void *> seen;
    for (uint32_t flags : kLevels) {
        kivoe_proc p{};
        kivoe_dsp_init(&p, flags);
        if ((flags & ~kivo_cpu_detected()) || !seen.insert(reinterpret_cast<const void *>(p.refine_write)).second) continue;
        for (const auto &b : kBands)
            for (int start : {0, 20000}) {  // all the blocks, and a run that starts in the empty ones
                std::vector<uint64_t> want_count, count(257, 0);
                const auto want = refine_ref(&lv[64 * start], kBlocks - start, b[0], b[1], b[2], code, want_count);
                const kivoe_ac_scan s{planes.data() + start, kBlocks - start, b[0], b[1], b[2]};
                xelo_bsw bs;
                xelo_bsw_init(&bs, got.data(), static_cast<int32_t>(got.size()), kivoe_bs_flush_data_seg);
                p.refine_write(&s, code, &bs);
                xelo_bsw_sink(&bs);
                count[256] = p.refine_count(&s, count.data());
                const std::vector<uint8_t> written(bs.start_ptr, bs.write_ptr);
                ASSERT_TRUE(written == want && count == want_count)
                    << kivoe_dsp_describe(flags) << ": band " << b[0] << "-" << b[1] << " al " << b[2] << " from " << start;
            }
    }
}

// Pushes planes and selects the tables at `level`; got: the tables after.
int32_t select(int32_t cs, int w, int h, const std::vector<testpic::Plane> &planes, int level, uint8_t out[128],
               kivoe_qtbl got[2], kivoe_qtbl before[2]) {
    kivoe_create_param p{1, w, h, 50, cs, nullptr};
    kivoe_ctx *enc = kivoe_create(&p, nullptr);
    xelo_imgb *img = kivotest::to_imgb(cs, w, h, planes);
    std::memcpy(before, enc->qtbl, 2 * sizeof(kivoe_qtbl));
    const int32_t status = kivoe_push(enc, img) ? -1 : kivoe_get_qtbl(enc, level, out);
    std::memcpy(got, enc->qtbl, 2 * sizeof(kivoe_qtbl));
    img->release(img);
    kivoe_delete(enc);
    return status;
}

// The selection against statistics sampled here: whole blocks of 8 x 8
// cells of s x s samples, each cell the mean of its corners, partial blocks
// at the right and bottom left out; NV12 and NV21 are sampled as 4:2:0,
// packed pairs as 4:2:2. Refused selections keep the tables and leave the
// output alone.
TEST(EncQuant, PerceptualSelection) {
    struct Case { int32_t cs; int w, h, level; };
    std::vector<Case> cases = {{XELO_CS_YCBCR444, 64, 64, 3}, {XELO_CS_NV12, 96, 64, 0}, {XELO_CS_NV21, 96, 64, 1},
                               {XELO_CS_YUYV, 96, 64, 0}, {XELO_CS_YCBCR400, 24, 24, 0}};  // the last flat at 24, a bracket's edge
    for (int32_t cs : {XELO_CS_YCBCR420, XELO_CS_YCBCR422, XELO_CS_YCBCR444, XELO_CS_YCBCR400})
        for (int level = 0; level <= 2; ++level) cases.push_back({cs, 75 + 40 * level, 70 + 33 * level, level});
    for (const Case &c : cases) {
        const int32_t twin = c.cs == XELO_CS_YUYV ? XELO_CS_YCBCR422 : c.cs == XELO_CS_NV12 || c.cs == XELO_CS_NV21 ? XELO_CS_YCBCR420 : c.cs;
        auto planes = kivotest::make_picture(twin, c.w, c.h, static_cast<uint64_t>(c.cs + c.level));
        if (c.w == 24) std::fill(planes[0].px.begin(), planes[0].px.end(), 24);
        std::vector<testpic::Plane> given = planes;
        if (twin != c.cs) {  // Y Cb Y Cr, or Cb Cr (NV12) and Cr Cb (NV21) pairs
            given.resize(c.cs == XELO_CS_YUYV ? 1 : 2);
            testpic::Plane &mixed = given.back();
            mixed.w = 2 * planes[given.size() - 1].w;
            mixed.px.resize(static_cast<size_t>(mixed.w) * mixed.h);
            for (int y = 0; y < mixed.h; ++y)
                for (int x = 0, k; x < mixed.w; ++x) {
                    k = c.cs == XELO_CS_YUYV ? (x % 2 ? 1 + x / 2 % 2 : 0) : c.cs == XELO_CS_NV12 ? 1 + x % 2 : 2 - x % 2;
                    mixed.px[static_cast<size_t>(y) * mixed.w + x] = planes[k].at(k && c.cs == XELO_CS_YUYV ? x / 4 : x / 2, y);
                }
        }
        uint64_t sum[2][64] = {};
        uint32_t blocks[2] = {}, mean[2][64];
        const int s = 1 << c.level;
        for (size_t p = 0; p < planes.size(); ++p) {
            const testpic::Plane &pl = planes[p];
            const int t = p ? 1 : 0;
            for (int by = 0; by + 8 * s <= pl.h; by += 8 * s)
                for (int bx = 0; bx + 8 * s <= pl.w; bx += 8 * s, ++blocks[t]) {
                    int16_t b[64], f[64];
                    for (int i = 0; i < 64; ++i) {
                        const int x0 = bx + i % 8 * s, y0 = by + i / 8 * s, x1 = x0 + s - 1, y1 = y0 + s - 1;
                        b[i] = static_cast<int16_t>((pl.at(x0, y0) + pl.at(x1, y0) + pl.at(x0, y1) + pl.at(x1, y1)) >> 2);
                    }
                    ref::fdct(b, f);
                    sum[t][0] += static_cast<uint64_t>((f[0] + 1024) >> 3);
                    for (int i = 1; i < 64; ++i) sum[t][i] += static_cast<uint64_t>(std::abs(f[i]));
                }
        }
        for (int i = 0; i < 128; ++i) mean[i / 64][i % 64] = blocks[i / 64] ? static_cast<uint32_t>(sum[i / 64][i % 64] / blocks[i / 64]) : 0;
        uint8_t out[128];
        kivoe_qtbl got[2], before[2];
        ASSERT_EQ(select(c.cs, c.w, c.h, given, c.level, out, got, before), 0) << c.cs << " " << c.level;
        for (int i = 0; i < 128; ++i) {
            // No chroma: the chroma table stays and is reported.
            const int want = i < 64 || c.cs != XELO_CS_YCBCR400 ? ref::gen_q(i % 64, mean[i / 64][i % 64], ref::base_of_level(mean[0][0]))
                                                                : before[1].q[i % 64];
            ASSERT_TRUE(got[i / 64].q[i % 64] == want && out[i] == want) << "format " << c.cs << " level " << c.level << " at " << i;
        }
    }
    // No whole block; chroma without one; levels out of range.
    const struct { int32_t cs; int w, h, level; int32_t status; } refusals[] = {
        {XELO_CS_YCBCR444, 63, 64, 3, KIVO_ERR_UNAVAILABLE}, {XELO_CS_YCBCR420, 64, 64, 3, KIVO_ERR_UNAVAILABLE},
        {XELO_CS_YUYV, 120, 64, 3, KIVO_ERR_UNAVAILABLE},    {XELO_CS_YCBCR444, 64, 64, 13, KIVO_ERR_UNAVAILABLE},
        {XELO_CS_YCBCR444, 64, 64, -1, KIVO_ERR_INVALID_ARG}};
    for (const auto &c : refusals) {
        uint8_t out[128];
        std::memset(out, 0xEE, sizeof(out));
        kivoe_qtbl got[2], before[2];
        EXPECT_EQ(select(c.cs, c.w, c.h, kivotest::make_picture(c.cs, c.w, c.h, 1), c.level, out, got, before), c.status);
        EXPECT_TRUE(!std::memcmp(before, got, sizeof(got)) && std::count(out, out + 128, 0xEE) == 128) << c.cs << " " << c.level << ": all kept";
    }
}

}  // namespace
