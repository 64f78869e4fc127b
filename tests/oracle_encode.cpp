// Our encoder's streams decoded by libjpeg-turbo: every planar layout, odd
// sizes, qualities, switches, table sources and thread counts decode
// without warning within a PSNR of the picture, follow their stream plan,
// and at quality 100 carry exactly the transform of every block (blocks
// past the edge repeat the last column and row; interior luma blocks go
// through the JND filter when it is on).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "encoder/kivoe_int.h"
#include "oracle_support/turbo.h"
#include "support/kivo_encode.h"

namespace {

using kivotest::EncodeOptions;

std::vector<testpic::Plane> turbo_decode(const std::vector<uint8_t> &jpg, const std::string &what) {
    std::vector<testpic::Plane> planes;
    int warnings = -1;
    std::string err;
    EXPECT_TRUE(turbo::decode_raw(jpg, 1, &planes, &warnings, &err) && warnings == 0) << what << ": " << err;
    return planes;
}

TEST(OracleEncode, EveryLayoutSizeAndSwitch) {
    const int sizes[][2] = {{1, 1}, {17, 9}, {33, 7}, {64, 48}, {301, 203}};
    uint8_t custom[128];
    for (int i = 0; i < 128; ++i) custom[i] = static_cast<uint8_t>(1 + (i * 7) % 60);
    int idx = 0;
    // Format 40 declares its chroma components with 0x0 sampling factors,
    // which libjpeg-turbo refuses (test_encoder checks its streams).
    for (int32_t cs : {10, 11, 12, 13, 18, 22, 41, 42, 43, 44})
        for (const auto &sz : sizes)
            for (int variant = 0; variant < 4; ++variant, ++idx) {
                EncodeOptions o;
                o.quality = (idx * 17) % 101, o.threads = 1 + idx % 8;
                const int combo = idx % 16;  // every combination of the four switches over the cases
                o.optimize = combo & 1, o.jnd_filter = combo & 2, o.jnd_suppress = combo & 4, o.adaptive_rounding = combo & 8;
                o.copy_path = variant >= 2;
                if (variant == 3) o.perceptual_level = idx % 3;
                if (idx % 7 == 0) o.qtables = custom;
                const std::string what = "format " + std::to_string(cs) + " " + std::to_string(sz[0]) + "x" +
                                         std::to_string(sz[1]) + " case " + std::to_string(idx);
                const auto pic = kivotest::make_picture(cs, sz[0], sz[1], idx);
                const kivotest::Encoded e = kivotest::encode(cs, sz[0], sz[1], pic, o);
                ASSERT_EQ(e.status, 0) << what;
                EXPECT_EQ(kivotest::check_stream(e.jpg, {cs, sz[0], sz[1], o.threads, e.q, !o.optimize, {}, {}}), "") << what;
                const auto got = turbo_decode(e.jpg, what);
                ASSERT_EQ(got.size(), pic.size()) << what;
                // Loss grows with the quantizers and the JND switches.
                const int worst = *std::max_element(e.q, e.q + 128), jnd = o.jnd_filter || o.jnd_suppress;
                EXPECT_GT(kivotest::psnr(pic, got), (worst < 2 ? 39 : worst < 20 ? 35 : 23) - 5 * jnd) << what;
            }
}

TEST(OracleEncode, QualityHundredCarriesTheTransformOfEveryBlock) {
    for (int32_t cs : {11, 22, 44})
        for (const auto &sz : {std::pair<int, int>{17, 9}, {41, 37}}) {
            const auto pic = kivotest::make_picture(cs, sz.first, sz.second, 5);
            EncodeOptions o;
            o.quality = 100, o.threads = 2;
            o.jnd_filter = sz.first > 20;  // luma blocks a whole block inside the picture go through the filter
            const kivotest::Encoded e = kivotest::encode(cs, sz.first, sz.second, pic, o);
            std::vector<turbo::Coefficients> comps;
            ASSERT_TRUE(e.status == 0 && turbo::read_coefficients(e.jpg, &comps));
            ASSERT_EQ(comps.size(), pic.size());
            for (size_t c = 0; c < comps.size(); ++c) {
                const turbo::Coefficients &k = comps[c];
                const testpic::Plane &pl = pic[c];
                for (int by = 0; by < k.padded_h; ++by)
                    for (int bx = 0; bx < k.padded_w; ++bx) {
                        int16_t b[64];
                        for (int i = 0; i < 64; ++i) b[i] = pl.at(std::min(8 * bx + i % 8, pl.w - 1), std::min(8 * by + i / 8, pl.h - 1));
                        if (o.jnd_filter && c == 0 && bx && by && 8 * bx + 16 <= pl.w && 8 * by + 16 <= pl.h)
                            kivoe_jndfilt8x8(&pl.px[static_cast<size_t>(8 * by) * pl.w + 8 * bx], pl.w, b);
                        kivoe_fdct8(b);
                        const bool inside = bx < k.blocks_w && by < k.blocks_h;
                        for (int i = 0; i < (inside ? 64 : 1); ++i)
                            ASSERT_EQ(inside ? k.coef[(by * k.blocks_w + bx) * 64 + i] : k.padded_dc[by * k.padded_w + bx], b[i])
                                << "format " << cs << " " << sz.first << "x" << sz.second << " component " << c << " block " << bx << "," << by << " at " << i;
                    }
            }
        }
}

// Any thread count gives the same picture, with or without optimised
// tables (which make a smaller stream).
TEST(OracleEncode, ThreadCountsAgree) {
    for (int32_t cs : {11, 13, 10}) {
        const auto pic = kivotest::make_picture(cs, 256, 192, 3);
        EncodeOptions o;
        const kivotest::Encoded plain = kivotest::encode(cs, 256, 192, pic, o);
        const auto want = turbo_decode(plain.jpg, "plain");
        for (o.threads = 2; o.threads <= 8; ++o.threads) {
            o.optimize = o.threads % 2;
            const kivotest::Encoded e = kivotest::encode(cs, 256, 192, pic, o);
            EXPECT_TRUE(!o.optimize || e.jpg.size() < plain.jpg.size()) << "format " << cs;
            EXPECT_EQ(kivotest::psnr(want, turbo_decode(e.jpg, "threads")), 99) << "format " << cs << " t" << o.threads;
        }
    }
}

}  // namespace
