// Our decode followed by kivoc_to_packed against libjpeg-turbo's decode to
// RGB (tjDecompress2: islow IDCT, fancy upsampling), and our conversion of
// libjpeg-turbo's own planes against the same RGB: that isolates the colour
// step, where only the 14-bit matrix (libjpeg's has 16 bits) differs, by at
// most 1. 4:1:1 is compared with nearest upsampling, which is what libjpeg
// does there.
#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cstdlib>

#include "kivoc.h"
#include "oracle_support/turbo.h"
#include "support/kivo_decode.h"

namespace {

TEST(OracleColour, DecodeToRgbMatchesTurbo) {
    const struct {
        const char *name;
        int n_comp, h0, v0;
        int32_t code;
        uint32_t flags;
    } cases[] = {{"grey", 1, 1, 1, XELO_CS_YCBCR400, 0}, {"420", 3, 2, 2, XELO_CS_YCBCR420, 0},
                          {"422", 3, 2, 1, XELO_CS_YCBCR422, 0},  {"444", 3, 1, 1, XELO_CS_YCBCR444, 0},
                          {"440", 3, 1, 2, XELO_CS_YCBCR440, 0},  {"411", 3, 4, 1, XELO_CS_YCBCR411, KIVOC_NEAREST}};
    const int w = 227, h = 149;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        turbo::EncodeSpec spec;
        spec.width = w, spec.height = h, spec.n_comp = c.n_comp, spec.h[0] = c.h0, spec.v[0] = c.v0;
        const std::vector<uint8_t> jpg = turbo::encode(spec, turbo::make_planes(spec, 5));
        ASSERT_FALSE(jpg.empty());

        std::vector<uint8_t> ref(static_cast<size_t>(w) * h * 3);
        tjhandle tj = tjInitDecompress();
        ASSERT_EQ(tjDecompress2(tj, jpg.data(), jpg.size(), ref.data(), w, w * 3, h, TJPF_RGB, 0), 0);
        tjDestroy(tj);

        // Our conversion of our decoder's planes, then of libjpeg-turbo's own
        // planes (the colour step alone).
        std::vector<testpic::Plane> theirs;
        ASSERT_TRUE(turbo::decode_raw(jpg, 1, &theirs));
        const kivotest::Decoded d = kivotest::decode(jpg);
        ASSERT_EQ(d.status, 0);
        const struct {
            const char *what;
            const std::vector<testpic::Plane> &planes;
            int max_bound;
            double mean_bound;
        } sources[] = {{"our decode", d.planes, 3, 0.06}, {"turbo planes", theirs, 1, 0.002}};
        for (const auto &src : sources) {
            xelo_imgb img{};
            img.width = w, img.height = h, img.color_format = c.code;
            for (size_t p = 0; p < src.planes.size(); ++p) {
                img.plane[p] = const_cast<uint8_t *>(src.planes[p].px.data());
                img.stride[p] = src.planes[p].w;
                img.lines[p] = src.planes[p].h;
            }
            std::vector<uint8_t> ours(ref.size());
            ASSERT_EQ(kivoc_to_packed(&img, ours.data(), w * 3, ours.size(), KIVOC_RGB, c.flags, nullptr), 0);
            int max = 0;
            double sum = 0;
            for (size_t i = 0; i < ours.size(); ++i) max = std::max(max, std::abs(ours[i] - ref[i])), sum += std::abs(ours[i] - ref[i]);
            EXPECT_LE(max, src.max_bound) << src.what;
            EXPECT_LE(sum / static_cast<double>(ours.size()), src.mean_bound) << src.what;
        }
    }
}

}  // namespace
