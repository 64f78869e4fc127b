// The plain inverse DCTs: DC values, scaled outputs against the full
// transform, saturation, and accuracy against an exact inverse DCT.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>

#include "decoder/kivod_int.h"
#include "idct_blocks.h"

namespace {

using idct_blocks::Pixels;

struct Kernel {
    const char *name;
    kivod_idct_fn fn;
    int n;  // output size
};

const Kernel kFull[] = {{"idct8", kivod_idct8, 8}, {"idct4", kivod_idct4, 4}, {"idct2", kivod_idct2, 2},
                        {"idct1", kivod_idct1, 1}};
const Kernel kDc[] = {{"idct8_dc", kivod_idct8_dc, 8}, {"idct4_dc", kivod_idct4_dc, 4},
                      {"idct2_dc", kivod_idct2_dc, 2}, {"idct1", kivod_idct1, 1}};

// Runs a kernel into a packed n x n picture.
void run(const Kernel &k, const int16_t *coef, uint8_t *out) { k.fn(coef, k.n, out); }

TEST(Idct, DcOnlyValues) {
    struct Case {
        int16_t c0;
        uint8_t value;
    };
    const Case cases[] = {{-1024, 0}, {1016, 255}, {0, 128}, {-4, 128}, {-5, 127},
                          {3, 128},   {4, 129},    {-32768, 0}, {32767, 255}};
    for (const Case &c : cases) {
        int16_t blk[64] = {};
        blk[0] = c.c0;
        for (const Kernel *set : {kFull, kDc}) {
            for (int i = 0; i < 4; i++) {
                // 8x8 full transform of c0 = +-32768 wraps in 16 bits; only the
                // DC routines are defined for the whole range.
                if (set == kFull && set[i].n != 1 && (c.c0 < -4096 || c.c0 > 4095)) continue;
                uint8_t out[64];
                run(set[i], blk, out);
                for (int p = 0; p < set[i].n * set[i].n; p++)
                    ASSERT_EQ(out[p], c.value) << set[i].name << " c0=" << c.c0 << " at " << p;
            }
        }
    }
}

// For every DC value whose 8x8 transform stays within 16 bits, the full
// routines agree with 128 + floor((c0 + 4) / 8) clamped, and with the DC ones.
TEST(Idct, FullAndDcAgreeOnDcOnlyBlocks) {
    for (int c0 = -4096; c0 <= 4095; c0++) {
        int16_t blk[64] = {};
        blk[0] = static_cast<int16_t>(c0);
        const int floor_div = (c0 + 4 >= 0) ? (c0 + 4) / 8 : -((-(c0 + 4) + 7) / 8);
        const uint8_t expect = static_cast<uint8_t>(std::clamp(128 + floor_div, 0, 255));
        for (int i = 0; i < 4; i++) {
            uint8_t full[64], dc[64];
            run(kFull[i], blk, full);
            run(kDc[i], blk, dc);
            for (int p = 0; p < kFull[i].n * kFull[i].n; p++) {
                ASSERT_EQ(full[p], expect) << kFull[i].name << " c0=" << c0;
                ASSERT_EQ(dc[p], expect) << kDc[i].name << " c0=" << c0;
            }
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
        if (iter % 2) {
            for (int16_t &c : blk) c = static_cast<int16_t>(wide(rng));
        } else {
            idct_blocks::make_realistic(static_cast<Pixels>(iter / 2 % 4), iter % 3 == 0, 10 + iter % 91, rng,
                                        blk);
        }
        for (int n : {4, 2}) {
            int16_t corner[64] = {}, dirty[64];
            for (int i = 0; i < 64; i++) {
                const bool inside = i / 8 < n && i % 8 < n;
                if (inside) corner[i] = blk[i];
                dirty[i] = inside ? blk[i] : static_cast<int16_t>(garbage(rng));
            }
            uint8_t full[64], scaled[16];
            kivod_idct8(corner, 8, full);
            (n == 4 ? kivod_idct4 : kivod_idct2)(dirty, n, scaled);
            const int step = 8 / n;
            for (int i = 0; i < n; i++)
                for (int j = 0; j < n; j++)
                    ASSERT_EQ(scaled[i * n + j], full[i * step * 8 + j * step])
                        << "idct" << n << " iter " << iter << " at " << i << "," << j;
        }
    }
}

// Reconstructions beyond the sample range clamp instead of wrapping.
TEST(Idct, Saturation) {
    struct Case {
        int16_t c0, c1, c8;
    };
    const Case cases[] = {{1016, 400, 0}, {-1024, 400, 0}, {1016, 0, -400}, {-1024, -300, 300}, {600, 900, 900}};
    for (const Case &c : cases) {
        int16_t blk[64] = {};
        blk[0] = c.c0, blk[1] = c.c1, blk[8] = c.c8;
        uint8_t out[64], ref[64];
        kivod_idct8(blk, 8, out);
        idct_blocks::idct_ref(blk, ref);
        int clamped = 0;
        for (int p = 0; p < 64; p++) {
            EXPECT_LE(std::abs(out[p] - ref[p]), 1) << "c0=" << c.c0 << " at " << p;
            if (ref[p] == 0 || ref[p] == 255) {
                clamped++;
                EXPECT_EQ(out[p], ref[p]) << "c0=" << c.c0 << " at " << p;
            }
        }
        EXPECT_GT(clamped, 0) << "case does not leave the sample range, c0=" << c.c0;
    }
}

// The integer transform stays within one step of the exact one on the blocks
// of real pictures.
TEST(Idct, AccuracyAgainstExactTransform) {
    std::mt19937 rng(99);
    int off_by_one = 0, total = 0;
    for (int kind = 0; kind < static_cast<int>(Pixels::kCount); kind++) {
        for (int quality : {5, 25, 50, 75, 90, 100}) {
            for (int iter = 0; iter < 60; iter++) {
                int16_t blk[64];
                idct_blocks::make_realistic(static_cast<Pixels>(kind), iter % 2, quality, rng, blk);
                uint8_t out[64], ref[64];
                kivod_idct8(blk, 8, out);
                idct_blocks::idct_ref(blk, ref);
                for (int p = 0; p < 64; p++) {
                    const int d = std::abs(out[p] - ref[p]);
                    ASSERT_LE(d, 1) << "kind " << kind << " q" << quality << " at " << p;
                    off_by_one += d;
                    total++;
                }
            }
        }
    }
    // Rounding differences are rare, not systematic.
    EXPECT_LT(off_by_one, total / 20);
}

}  // namespace
