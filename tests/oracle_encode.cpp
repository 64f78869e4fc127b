// Our encoder's streams decoded by libjpeg-turbo: every planar layout, odd
// sizes, qualities, switches, table sources and thread counts; quality
// against the source picture; restart plans; output memory bounds.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "oracle_support/turbo.h"
#include "support/kivo_decode.h"
#include "support/kivo_encode.h"

namespace {

using kivotest::EncodeOptions;

// Decodes with libjpeg-turbo; fails the test on any error or warning.
std::vector<testpic::Plane> turbo_decode(const std::vector<uint8_t> &jpg, const std::string &what) {
    std::vector<testpic::Plane> planes;
    int warnings = -1;
    std::string err;
    EXPECT_TRUE(turbo::decode_raw(jpg, 1, &planes, &warnings, &err)) << what << ": " << err;
    EXPECT_EQ(warnings, 0) << what;
    return planes;
}

std::string describe(int32_t cs, int w, int h, const EncodeOptions &o) {
    return "format " + std::to_string(cs) + " " + std::to_string(w) + "x" + std::to_string(h) + " q" +
           std::to_string(o.quality) + " t" + std::to_string(o.threads) + (o.optimize ? " opt" : "") +
           (o.jnd_filter ? " jndf" : "") + (o.jnd_suppress ? " jnds" : "") + (o.adaptive_rounding ? " ar" : "") +
           (o.perceptual_level >= 0 ? " perceptual" : "") + (o.qtables ? " custom" : "") + (o.copy_path ? " copied" : "");
}

// Format 40 declares its chroma components with 0x0 sampling factors,
// which libjpeg-turbo refuses (its header is checked in test_enc_header).
const int32_t kLayouts[] = {10, 11, 12, 13, 18, 22, 41, 42, 43, 44};

TEST(OracleEncode, EveryLayoutSizeAndSwitchDecodes) {
    const int sizes[][2] = {{1, 1}, {17, 9}, {33, 7}, {64, 48}, {301, 203}};
    uint8_t custom[128];
    for (int i = 0; i < 128; ++i) custom[i] = static_cast<uint8_t>(1 + (i * 7) % 60);
    int idx = 0;
    for (int32_t cs : kLayouts) {
        for (const auto &sz : sizes) {
            for (int variant = 0; variant < 4; ++variant, ++idx) {
                EncodeOptions o;
                o.quality = (idx * 17) % 101;
                o.threads = 1 + idx % 8;
                // Every combination of the four switches, over the cases.
                const int combo = idx % 16;
                o.optimize = combo & 1;
                o.jnd_filter = combo & 2;
                o.jnd_suppress = combo & 4;
                o.adaptive_rounding = combo & 8;
                o.copy_path = variant >= 2;
                if (variant == 3) o.perceptual_level = idx % 3;
                if (idx % 7 == 0) o.qtables = custom;
                const std::string what = describe(cs, sz[0], sz[1], o);
                const auto pic = kivotest::make_picture(cs, sz[0], sz[1], idx);
                const kivotest::Encoded e = kivotest::encode(cs, sz[0], sz[1], pic, o);
                ASSERT_EQ(e.status, 0) << what;
                const auto ref = turbo_decode(e.jpg, what);
                ASSERT_EQ(ref.size(), pic.size()) << what;
                // Our decoder reads our stream as libjpeg-turbo does.
                if (cs != 44) {
                    const kivotest::Decoded ours = kivotest::decode(e.jpg, 1);
                    ASSERT_EQ(ours.status, 0) << what;
                    for (size_t p = 0; p < ref.size(); ++p)
                        for (size_t i = 0; i < ref[p].px.size(); ++i)
                            ASSERT_LE(std::abs(ours.planes[p].px[i] - ref[p].px[i]), 2) << what << " plane " << p;
                }
            }
        }
    }
}

// Fidelity rises with quality; optimised tables make a smaller stream;
// every switch on four threads keeps a good picture.
TEST(OracleEncode, QualitySizeAndSwitches) {
    for (int32_t cs : {11, 13, 10}) {
        const auto pic = kivotest::make_picture(cs, 256, 192, 3);
        double last = 0;
        size_t plain = 0;
        for (int q : {10, 30, 50, 70, 90, 100}) {
            EncodeOptions o;
            o.quality = q;
            const kivotest::Encoded e = kivotest::encode(cs, 256, 192, pic, o);
            ASSERT_EQ(e.status, 0);
            const double p = kivotest::psnr(pic, turbo_decode(e.jpg, "quality"));
            EXPECT_GT(p, last) << "format " << cs << " q" << q;
            last = p;
            if (q == 90) plain = e.jpg.size();
        }
        EXPECT_GT(last, 50.0) << "format " << cs << " at quality 100";
        EncodeOptions o;
        o.optimize = true;
        const kivotest::Encoded e = kivotest::encode(cs, 256, 192, pic, o);
        EXPECT_LT(e.jpg.size(), plain) << "format " << cs;
        const auto plain_pic = turbo_decode(kivotest::encode(cs, 256, 192, pic, EncodeOptions{}).jpg, "plain");
        EXPECT_EQ(kivotest::psnr(plain_pic, turbo_decode(e.jpg, "optimised")), 99) << "format " << cs;
        o.threads = 4;
        o.jnd_filter = o.jnd_suppress = o.adaptive_rounding = true;
        EXPECT_GT(kivotest::psnr(pic, turbo_decode(kivotest::encode(cs, 256, 192, pic, o).jpg, "switches")), 30.0);
    }
}

// Restart markers: segments of whole intervals, markers in sequence, the
// last one directly before EOI when the last segment is a whole interval.
TEST(OracleEncode, RestartPlan) {
    const auto pic = kivotest::make_picture(11, 640, 480, 4);
    EncodeOptions o;
    o.threads = 4;
    const kivotest::Encoded e = kivotest::encode(11, 640, 480, pic, o);
    ASSERT_EQ(e.status, 0);
    const auto &s = e.jpg;
    std::vector<int> markers;
    size_t dri = 0, sos = 0;
    for (size_t i = 0; i + 1 < s.size(); ++i) {
        if (s[i] != 0xFF) continue;
        if (s[i + 1] == 0xDD && !dri) dri = i;
        if (s[i + 1] == 0xDA && !sos) sos = i;
        if (sos && s[i + 1] >= 0xD0 && s[i + 1] <= 0xD7) markers.push_back(s[i + 1]);
    }
    ASSERT_NE(dri, 0u);
    EXPECT_EQ((s[dri + 4] << 8) | s[dri + 5], 300);
    EXPECT_EQ(markers, (std::vector<int>{0xD0, 0xD1, 0xD2, 0xD3}));
    ASSERT_GE(s.size(), 4u);
    EXPECT_EQ(s[s.size() - 4], 0xFF);
    EXPECT_EQ(s[s.size() - 3], 0xD3);
    EXPECT_EQ(s[s.size() - 1], 0xD9);
    turbo_decode(s, "restart plan");
}

// Any thread count gives the same picture, also for pictures with fewer
// MCUs than threads.
TEST(OracleEncode, ThreadCountsAgree) {
    const int sizes[][2] = {{8, 8}, {40, 8}, {16, 48}, {100, 70}};
    for (const auto &sz : sizes) {
        const auto pic = kivotest::make_picture(11, sz[0], sz[1], 8);
        EncodeOptions o;
        const auto one = turbo_decode(kivotest::encode(11, sz[0], sz[1], pic, o).jpg, "one thread");
        for (int t = 2; t <= 8; ++t) {
            o.threads = t;
            o.optimize = t % 2;
            o.adaptive_rounding = t % 3 == 0;
            const kivotest::Encoded e = kivotest::encode(11, sz[0], sz[1], pic, o);
            ASSERT_EQ(e.status, 0);
            const auto many = turbo_decode(e.jpg, "threads");
            if (o.adaptive_rounding) continue;  // offsets restart per segment
            for (size_t p = 0; p < one.size(); ++p) EXPECT_EQ(one[p].px, many[p].px) << sz[0] << "x" << sz[1] << " t" << t;
        }
    }
}

// Output memory too small, at every size up to what the stream needs: a
// status, and (under ASan) nothing written past the end.
TEST(OracleEncode, SmallOutputMemory) {
    const auto pic = kivotest::make_picture(11, 24, 16, 2);
    for (int threads : {1, 2}) {
        EncodeOptions o;
        o.threads = threads;
        const size_t need = kivotest::encode(11, 24, 16, pic, o).jpg.size();
        ASSERT_GT(need, 0u);
        for (size_t size = 1; size < need; ++size) {
            o.out_size = size;
            EXPECT_LT(kivotest::encode(11, 24, 16, pic, o).status, 0) << size;
        }
        o.out_size = need;
        EXPECT_EQ(kivotest::encode(11, 24, 16, pic, o).status, 0);
    }
}

}  // namespace
