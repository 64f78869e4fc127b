// Encoder kernel checker: every variant the CPU offers against the plain
// kernel, on random, realistic and extreme blocks, for every quantizer.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "encoder/kivoe_int.h"

namespace {

TEST(CheckasmEnc, VariantsMatchThePlainKernels) {
    kivoe_proc plain{}, best{};
    kivoe_dsp_init(&plain, 0);
    kivoe_dsp_init(&best, kivo_cpu_flags());
    std::mt19937 rng(2026);
    int checked = 0;
    for (int q = 1; q <= 255; ++q) {
        uint16_t recip[64], half[64], off[64];
        for (int i = 0; i < 64; ++i) {
            const int qi = (q + i * 37) % 255 + 1;  // a different quantizer per position
            recip[i] = static_cast<uint16_t>(16384 / qi);
            half[i] = static_cast<uint16_t>(qi >> 1);
            off[i] = static_cast<uint16_t>(rng() % 8193);
        }
        for (int n = 0; n < 40; ++n) {
            int16_t blk[64];
            for (int i = 0; i < 64; ++i) {
                switch (n % 4) {
                case 0: blk[i] = static_cast<int16_t>(static_cast<int>(rng() % 2049) - 1024); break;  // DCT range
                case 1: blk[i] = static_cast<int16_t>(rng()); break;                                // anything
                case 2: blk[i] = (rng() & 1) ? 32767 : -32768; break;                              // extremes
                default: blk[i] = static_cast<int16_t>(static_cast<int>(rng() % 7) - 3); break;     // near zero
                }
            }
            int16_t a[64], b[64];
            std::memcpy(a, blk, sizeof(a));
            std::memcpy(b, blk, sizeof(b));
            ASSERT_EQ(plain.quant(a, recip, half), best.quant(b, recip, half)) << "q " << q;
            ASSERT_EQ(0, std::memcmp(a, b, sizeof(a))) << "quant, q " << q << " case " << n;
            std::memcpy(a, blk, sizeof(a));
            std::memcpy(b, blk, sizeof(b));
            plain.quant_rdoq(a, recip, off);
            best.quant_rdoq(b, recip, off);
            ASSERT_EQ(0, std::memcmp(a, b, sizeof(a))) << "quant_rdoq, q " << q << " case " << n;
            // The forward DCT on samples 0..255.
            for (int i = 0; i < 64; ++i) a[i] = b[i] = static_cast<int16_t>(n % 4 == 2 ? (rng() & 1) * 255 : rng() % 256);
            plain.fdct8(a);
            best.fdct8(b);
            ASSERT_EQ(0, std::memcmp(a, b, sizeof(a))) << "fdct8, case " << n;
            ++checked;
        }
    }
    EXPECT_EQ(checked, 255 * 40);
    RecordProperty("variants", kivoe_dsp_describe(kivo_cpu_flags()));
}

}  // namespace
