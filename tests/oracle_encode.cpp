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
// which libjpeg-turbo refuses; it is checked with our own decoder below.
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

// A picture of several megapixels on several threads with every switch.
TEST(OracleEncode, LargePicture) {
    const auto pic = kivotest::make_picture(11, 2048, 1536, 12);
    EncodeOptions o;
    o.threads = 4;
    o.optimize = o.jnd_filter = o.jnd_suppress = o.adaptive_rounding = true;
    const kivotest::Encoded e = kivotest::encode(11, 2048, 1536, pic, o);
    ASSERT_EQ(e.status, 0);
    EXPECT_GT(kivotest::psnr(pic, turbo_decode(e.jpg, "large")), 30.0);
}

// The interleaved layouts are analysed like their planar twins: NV12 and
// NV21 like 4:2:0, packed pairs like 4:2:2, giving the same tables.
TEST(OracleEncode, InterleavedLayoutsGiveThePlanarTables) {
    struct Pair {
        int32_t interleaved, planar;
    };
    for (const Pair &p : {Pair{XELO_CS_NV12, XELO_CS_YCBCR420}, Pair{XELO_CS_NV21, XELO_CS_YCBCR420},
                          Pair{XELO_CS_YUYV, XELO_CS_YCBCR422}}) {
        const int w = 96, h = 64;
        const auto planar = kivotest::make_picture(p.planar, w, h, 9);
        // The same samples laid out interleaved.
        std::vector<testpic::Plane> inter(2);
        if (p.interleaved == XELO_CS_YUYV) {
            inter.resize(1);
            inter[0].w = 2 * w;
            inter[0].h = h;
            inter[0].px.resize(static_cast<size_t>(2 * w) * h);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; x += 2) {
                    uint8_t *q = &inter[0].px[static_cast<size_t>(y) * 2 * w + 2 * x];
                    q[0] = planar[0].at(x, y);
                    q[1] = planar[1].at(x / 2, y);
                    q[2] = planar[0].at(x + 1, y);
                    q[3] = planar[2].at(x / 2, y);
                }
        } else {
            inter[0] = planar[0];
            inter[1].w = 2 * planar[1].w;
            inter[1].h = planar[1].h;
            inter[1].px.resize(static_cast<size_t>(inter[1].w) * inter[1].h);
            const int first = p.interleaved == XELO_CS_NV12 ? 1 : 2;
            for (int y = 0; y < planar[1].h; ++y)
                for (int x = 0; x < planar[1].w; ++x) {
                    inter[1].px[static_cast<size_t>(y) * inter[1].w + 2 * x] = planar[first].at(x, y);
                    inter[1].px[static_cast<size_t>(y) * inter[1].w + 2 * x + 1] = planar[3 - first].at(x, y);
                }
        }
        uint8_t want[128], got[128];
        for (int pass = 0; pass < 2; ++pass) {
            const int32_t cs = pass ? p.interleaved : p.planar;
            kivoe_create_param cp{1, w, h, 90, cs, nullptr};
            kivoe_ctx *enc = kivoe_create(&cp, nullptr);
            xelo_imgb *img = kivotest::to_imgb(cs, w, h, pass ? inter : planar);
            ASSERT_NE(img, nullptr);
            ASSERT_EQ(kivoe_push(enc, img), 0);
            ASSERT_EQ(kivoe_get_qtbl(enc, 0, pass ? got : want), 0);
            img->release(img);
            kivoe_delete(enc);
        }
        EXPECT_EQ(0, std::memcmp(want, got, 128)) << "format " << p.interleaved;
    }
}

TEST(OracleEncode, QualityRaisesFidelity) {
    for (int32_t cs : {11, 13, 10}) {
        const auto pic = kivotest::make_picture(cs, 256, 192, 3);
        double last = 0;
        for (int q : {10, 30, 50, 70, 90, 100}) {
            EncodeOptions o;
            o.quality = q;
            const kivotest::Encoded e = kivotest::encode(cs, 256, 192, pic, o);
            ASSERT_EQ(e.status, 0);
            const double p = kivotest::psnr(pic, turbo_decode(e.jpg, "quality"));
            EXPECT_GT(p, last) << "format " << cs << " q" << q;
            last = p;
        }
        EXPECT_GT(last, 50.0) << "format " << cs << " at quality 100";
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

TEST(OracleEncode, OptimisedTablesAreSmaller) {
    for (int32_t cs : {11, 13, 10}) {
        const auto pic = kivotest::make_picture(cs, 320, 240, 6);
        EncodeOptions o;
        const size_t plain = kivotest::encode(cs, 320, 240, pic, o).jpg.size();
        o.optimize = true;
        const kivotest::Encoded e = kivotest::encode(cs, 320, 240, pic, o);
        ASSERT_EQ(e.status, 0);
        EXPECT_LT(e.jpg.size(), plain) << "format " << cs;
        turbo_decode(e.jpg, "optimised");
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

TEST(OracleEncode, GreyWithFourthPlaneRoundTrips) {
    const auto pic = kivotest::make_picture(40, 50, 30, 5);
    EncodeOptions o;
    o.quality = 100;
    const kivotest::Encoded e = kivotest::encode(40, 50, 30, pic, o);
    ASSERT_EQ(e.status, 0);
    // SOF0 with four components, the middle two with 0x0 factors.
    const auto &s = e.jpg;
    ASSERT_GT(s.size(), 24u);
    EXPECT_EQ(s[2], 0xFF);
    EXPECT_EQ(s[3], 0xC0);
    EXPECT_EQ(s[11], 4);
    EXPECT_EQ(s[13], 0x11);
    EXPECT_EQ(s[16], 0x00);
    EXPECT_EQ(s[19], 0x00);
    EXPECT_EQ(s[22], 0x11);
}

}  // namespace
