// Our decoder against libjpeg-turbo on streams it makes at test time: every
// layout, odd sizes, qualities, restart intervals, optimised tables,
// separate scans and progressive scripts; reduced sizes; thread counts;
// limits; broken input.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "decoder/kivod_int.h"
#include "oracle_support/turbo.h"
#include "support/kivo_decode.h"

namespace {

struct Layout {
    const char *name;
    int n_comp;
    int h[4], v[4];
    int32_t code;
};

const Layout kLayouts[] = {
    {"grey", 1, {1, 1, 1, 1}, {1, 1, 1, 1}, XELO_CS_YCBCR400},  {"420", 3, {2, 1, 1, 1}, {2, 1, 1, 1}, XELO_CS_YCBCR420},
    {"422", 3, {2, 1, 1, 1}, {1, 1, 1, 1}, XELO_CS_YCBCR422},   {"444", 3, {1, 1, 1, 1}, {1, 1, 1, 1}, XELO_CS_YCBCR444},
    {"440", 3, {1, 1, 1, 1}, {2, 1, 1, 1}, XELO_CS_YCBCR440},   {"411", 3, {4, 1, 1, 1}, {1, 1, 1, 1}, XELO_CS_YCBCR411},
    {"k420", 4, {2, 1, 1, 2}, {2, 1, 1, 2}, XELO_CS_YCBCRK420}, {"k422", 4, {2, 1, 1, 2}, {1, 1, 1, 1}, XELO_CS_YCBCRK422},
    {"k444", 4, {1, 1, 1, 1}, {1, 1, 1, 1}, XELO_CS_YCBCRK444},
};

turbo::EncodeSpec spec_for(const Layout &l, int w, int h) {
    turbo::EncodeSpec s;
    s.width = w;
    s.height = h;
    s.n_comp = l.n_comp;
    std::copy(l.h, l.h + 4, s.h);
    std::copy(l.v, l.v + 4, s.v);
    return s;
}

// Samples that differ where both planes have them.
int mismatches(const testpic::Plane &a, const testpic::Plane &b) {
    int n = 0;
    for (int y = 0; y < std::min(a.h, b.h); ++y)
        for (int x = 0; x < std::min(a.w, b.w); ++x) n += a.at(x, y) != b.at(x, y);
    return n;
}

// The picture a decoder at 1/denom must produce from the coefficients
// libjpeg-turbo read, through the reduced transform. A sequential block keeps
// the coefficients whose code started at a zig-zag position within the
// scale's bound (runs of 16 zeros are sent first, then the symbol); a
// progressive one keeps its whole low-frequency corner.
std::vector<testpic::Plane> reconstruct(const std::vector<turbo::Coefficients> &comps, int denom, bool sequential) {
    const int bound = !sequential || denom == 1 ? 63 : denom == 2 ? 9 : denom == 4 ? 2 : 0, n = 8 / denom;
    const kivod_idct_fn idct = denom == 1 ? kivod_idct8 : denom == 2 ? kivod_idct4 : denom == 4 ? kivod_idct2 : kivod_idct1;
    std::vector<testpic::Plane> planes;
    for (const turbo::Coefficients &c : comps) {
        testpic::Plane p;
        p.w = (c.width + denom - 1) / denom;
        p.h = (c.height + denom - 1) / denom;
        p.px.assign(static_cast<size_t>(p.w) * p.h, 0);
        for (int by = 0; by < c.blocks_h; ++by)
            for (int bx = 0; bx < c.blocks_w; ++bx) {
                const int16_t *src = &c.coef[(static_cast<size_t>(by) * c.blocks_w + bx) * 64];
                int16_t blk[64] = {src[0]};
                for (int k = 1, next = 1; k < 64; ++k) {  // next: the position after the last one sent
                    const int r = kivo_tbl_zig_to_ras[k];
                    if (src[r] == 0) continue;
                    if (next + (k - next) / 16 * 16 <= bound) blk[r] = src[r];
                    next = k + 1;
                }
                uint8_t out[64];
                idct(blk, n, out);
                for (int i = 0; i < n * n; ++i)
                    if (bx * n + i % n < p.w && by * n + i / n < p.h)
                        p.px[static_cast<size_t>(by * n + i / n) * p.w + bx * n + i % n] = out[i];
            }
        planes.push_back(std::move(p));
    }
    return planes;
}

// The exact 2x2 means of a plane of even size.
std::vector<uint8_t> half(const testpic::Plane &f) {
    std::vector<uint8_t> out;
    for (int y = 0; y + 1 < f.h; y += 2)
        for (int x = 0; x + 1 < f.w; x += 2)
            out.push_back(static_cast<uint8_t>((f.at(x, y) + f.at(x + 1, y) + f.at(x, y + 1) + f.at(x + 1, y + 1) + 2) >> 2));
    return out;
}

// Sequential streams of every layout and several sizes, with quality,
// restart interval, table kind, scan split and thread count varied across
// the cases. Into a buffer of exactly the frame's or a reduced size (no
// resampling) every plane equals the reconstruction of the coefficients
// libjpeg-turbo's own entropy decoder reads; full size is also within 2 of
// libjpeg-turbo's islow planes. The mean level averages the DC levels of the
// first component's blocks of whole MCUs (of interleaved scans), the statistics sum each AC
// position's magnitude over luma and the other blocks (where every block
// lies inside the picture); neither depends on the reduction. Packed pairs
// carry the planar samples: Y0 Cb Y1 Cr, chroma of the pair's first pixel
// (grey: 128); 4:4:4 into a 4:2:0 buffer halves chroma by exact 2x2 means.
TEST(OracleDecode, SequentialMatchesTheCoefficients) {
    const int sizes[][2] = {{1, 1}, {17, 17}, {37, 21}, {64, 48}, {1280, 962}};
    int idx = 0;
    for (const Layout &l : kLayouts)
        for (const auto &sz : sizes)
            for (int variant = 0; variant < 2; ++variant, ++idx) {
                turbo::EncodeSpec s = spec_for(l, sz[0], sz[1]);
                s.quality = idx % 4 == 3 ? 100 : 50 + idx % 4 * 20;
                s.restart_mcus = (idx / 2) % 3 * 3 / 2;
                s.optimize = variant == 1;
                s.separate_scans = variant == 1 && l.n_comp > 1 && idx % 3 != 0;
                const std::string what = std::string(l.name) + " " + std::to_string(sz[0]) + " case " + std::to_string(idx);
                const auto jpg = turbo::encode(s, turbo::make_planes(s, idx, variant ? testpic::Kind::Noise : testpic::Kind::Natural));
                std::vector<testpic::Plane> ref;
                std::vector<turbo::Coefficients> coefs;
                ASSERT_TRUE(turbo::decode_raw(jpg, 1, &ref) && turbo::read_coefficients(jpg, &coefs)) << what;
                kivotest::Decoded full;
                for (int denom : {1, 2, 4, 8}) {
                    const int ow = (sz[0] + denom - 1) / denom, oh = (sz[1] + denom - 1) / denom;
                    if (std::max(1, kivod_choose_scale(sz[0], sz[1], ow, oh)) != denom) continue;  // resized, not reduced
                    // Statistics are gathered and checked for 64-wide pictures.
                    const kivotest::Decoded d = kivotest::decode(jpg, 1 + (idx + denom) % 3, ow, oh, 0, 0, nullptr,
                                                                 sz[0] == 64);
                    ASSERT_EQ(d.status, 0) << what << " 1/" << denom;
                    const std::vector<testpic::Plane> want = reconstruct(coefs, denom, true);
                    ASSERT_EQ(d.planes.size(), want.size()) << what;
                    for (size_t p = 0; p < want.size(); ++p)
                        EXPECT_EQ(mismatches(d.planes[p], want[p]), 0) << what << " 1/" << denom << " plane " << p;
                    if (denom == 1) full = d;
                    EXPECT_EQ(d.stats.mean_level, full.stats.mean_level) << what << " 1/" << denom;
                    EXPECT_TRUE(d.stats.n_luma == full.stats.n_luma && d.stats.n_chroma == full.stats.n_chroma) << what;
                    EXPECT_EQ(d.stats.stat_luma[0], full.stats.stat_luma[0]) << what << " 1/" << denom;
                    EXPECT_EQ(0, std::memcmp(d.stats.dc_count, full.stats.dc_count, sizeof(d.stats.dc_count))) << what;
                }
                EXPECT_TRUE(full.color_format == l.code && full.width == sz[0] && full.height == sz[1]) << what;
                int worst = 0;
                double sum = 0, n = 0;
                for (size_t p = 0; p < ref.size(); ++p)
                    for (size_t i = 0; i < ref[p].px.size(); ++i, ++n)
                        worst = std::max(worst, std::abs(full.planes[p].px[i] - ref[p].px[i])), sum += std::abs(full.planes[p].px[i] - ref[p].px[i]);
                EXPECT_LE(worst, 2) << what;
                EXPECT_LT(sum / n, 0.05) << what;
                int64_t dc_sum = 0, mag[2][64] = {};
                for (int16_t dc : coefs[0].padded_dc) dc_sum += (dc + 1024) >> 3;
                const int64_t blocks = int64_t(coefs[0].padded_w) * coefs[0].padded_h;
                EXPECT_TRUE(s.separate_scans || full.stats.mean_level == (sz[0] == 64 ? dc_sum / blocks : 0)) << what;
                for (size_t c = 0; c < coefs.size() && sz[0] == 64; ++c)
                    for (size_t k = 0; k < coefs[c].coef.size(); ++k) mag[c ? 1 : 0][k % 64] += std::abs(coefs[c].coef[k]);
                for (int i = 1; i < 64 && sz[0] == 64; ++i)
                    EXPECT_TRUE(full.stats.stat_luma[i] == mag[0][i] && full.stats.stat_chroma[i] == mag[1][i]) << what << " " << i;
                if (l.n_comp == 4 || sz[0] > 64 || s.separate_scans) continue;  // packed pairs from interleaved scans
                const kivotest::Decoded pk = kivotest::decode(jpg, 2, 0, 0, XELO_CS_YUYV);
                ASSERT_EQ(pk.status, 0) << what;
                const int sx = l.h[0] / l.h[1], sy = l.v[0] / l.v[1];
                for (int y = 0; y < sz[1]; ++y)
                    for (int x = 0; x < sz[0]; ++x) {
                        ASSERT_EQ(pk.planes[0].at(2 * x, y), full.planes[0].at(x, y)) << what << " " << x << "," << y;
                        for (int c = 1; c < 3 && x % 2 == 0 && 2 * x + 2 * c - 1 < pk.planes[0].w; ++c)
                            ASSERT_EQ(pk.planes[0].at(2 * x + 2 * c - 1, y), l.n_comp == 1 ? 128 : full.planes[c].at(x / sx, y / sy))
                                << what << " " << x << "," << y;
                    }
                if (l.code != XELO_CS_YCBCR444 || sz[0] != 64) continue;
                const kivotest::Decoded sub = kivotest::decode(jpg, 2, 0, 0, XELO_CS_YCBCR420);
                ASSERT_EQ(sub.status, 0);
                EXPECT_EQ(sub.planes[0].px, full.planes[0].px);
                for (int p = 1; p < 3; ++p) EXPECT_EQ(sub.planes[p].px, half(full.planes[p])) << p;
            }
}

turbo::ScanSpec scan1(int c, int ss, int se, int ah, int al) { return {1, {c, 0, 0, 0}, ss, se, ah, al}; }

// A progressive stream of libjpeg's default script (0); separate DC scans, odd
// luma bands and two refinement steps (1); or complete DC first and every
// component's AC in three refinement steps (2).
std::vector<uint8_t> progressive(const Layout &l, int w, int h, int script, uint64_t seed) {
    turbo::EncodeSpec s = spec_for(l, w, h);
    s.quality = 70 + static_cast<int>(seed % 30);
    s.progressive = script == 0;
    const int n = l.n_comp;
    if (script == 1) {
        for (int c = 0; c < n; ++c) s.scans.push_back(scan1(c, 0, 0, 0, 1));
        for (int ss : {1, 3, 18}) s.scans.push_back(scan1(0, ss, ss == 1 ? 2 : ss == 3 ? 17 : 63, 0, 2));
        for (int c = 1; c < n; ++c) s.scans.push_back(scan1(c, 1, 63, 0, 1));
        s.scans.push_back({n, {0, 1, 2, 3}, 0, 0, 1, 0});
        s.scans.push_back(scan1(0, 1, 63, 2, 1));
        for (int c = 0; c < n; ++c) s.scans.push_back(scan1(c, 1, 63, 1, 0));
    } else if (script == 2) {
        s.scans.push_back({n, {0, 1, 2, 3}, 0, 0, 0, 0});
        for (int c = 0; c < n; ++c)
            for (int al = 3; al >= 0; --al) s.scans.push_back(scan1(c, 1, 63, al == 3 ? 0 : al + 1, al));
    }
    return turbo::encode(s, turbo::make_planes(s, seed));
}

// A progressive stream decodes to the reconstruction of libjpeg-turbo's
// coefficients; reduced, each block's whole low-frequency corner goes through
// the reduced transform (unlike a sequential block's, see reconstruct).
TEST(OracleProgressive, MatchesTheCoefficientsAtEveryScale) {
    const int sizes[][2] = {{1, 1}, {17, 17}, {33, 7}, {301, 203}};
    int idx = 0;
    for (const Layout &l : kLayouts)
        for (const auto &sz : sizes)
            for (int script = 0; script < 3; ++script, ++idx) {
                const std::string what = std::string(l.name) + " " + std::to_string(sz[0]) + " script " + std::to_string(script);
                const auto prog = progressive(l, sz[0], sz[1], script, idx);
                std::vector<turbo::Coefficients> coefs;
                ASSERT_TRUE(turbo::read_coefficients(prog, &coefs));
                for (int denom : {1, 2, 4, 8}) {
                    const int ow = (sz[0] + denom - 1) / denom, oh = (sz[1] + denom - 1) / denom;
                    // At 1/8 decoding stops at the first AC scan: only a DC
                    // sent whole before it is complete there.
                    if (std::max(1, kivod_choose_scale(sz[0], sz[1], ow, oh)) != denom || (denom == 8 && script != 2)) continue;
                    const bool stats = idx % 2 == 0;  // without them the mean level stays 0
                    const kivotest::Decoded r = kivotest::decode(prog, 1 + idx % 4, ow, oh, 0, 0, nullptr, stats);
                    ASSERT_EQ(r.status, 0) << what << " 1/" << denom;
                    const auto want = reconstruct(coefs, denom, false);
                    ASSERT_EQ(r.planes.size(), want.size());
                    int64_t dc_sum = 0;  // the mean level: over the first component's blocks in the picture
                    for (size_t b = 0; b < coefs[0].coef.size(); b += 64) dc_sum += (coefs[0].coef[b] + 1024) >> 3;
                    EXPECT_EQ(r.stats.mean_level, stats ? dc_sum / int64_t(coefs[0].coef.size() / 64) : 0) << what << " 1/" << denom;
                    for (size_t p = 0; p < want.size(); ++p)
                        EXPECT_EQ(mismatches(r.planes[p], want[p]), 0) << what << " 1/" << denom << " plane " << p;
                }
            }
}

// A hand-made progressive grey 8x8 stream: a DC scan of one code (category
// 0), then an AC scan (first, or refining with `ah`) whose one-code table
// holds `sym`, followed by the bytes `data`.
std::vector<uint8_t> tiny_progressive(uint8_t sym, const std::vector<uint8_t> &data, bool with_dri, uint8_t ah = 0) {
    std::vector<uint8_t> s = {0xFF, 0xD8, 0xFF, 0xDB, 0x00, 0x43, 0x00};
    s.insert(s.end(), 64, 1);
    s.insert(s.end(), {0xFF, 0xC2, 0x00, 0x0B, 0x08, 0x00, 0x08, 0x00, 0x08, 0x01, 0x01, 0x11, 0x00});
    s.insert(s.end(), {0xFF, 0xC4, 0x00, 0x14, 0x00, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00});
    s.insert(s.end(), {0xFF, 0xC4, 0x00, 0x14, 0x10, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, sym});
    if (with_dri) s.insert(s.end(), {0xFF, 0xDD, 0x00, 0x04, 0x00, 0x01});
    s.insert(s.end(), {0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x7F});  // DC: code 0, pad
    s.insert(s.end(), {0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x01, 0x3F, static_cast<uint8_t>(ah << 4)});
    s.insert(s.end(), data.begin(), data.end());
    s.insert(s.end(), {0xFF, 0xD9});
    return s;
}

TEST(OracleProgressive, BrokenStreamsEndCleanly) {
    const std::vector<uint8_t> good = tiny_progressive(0x00, {0x7F}, false);
    std::vector<uint8_t> absent = good, band = good, huge = good;
    absent[good.size() - 24 + 5] = 7;  // the first scan's component selector
    band[good.size() - 24 + 8] = 64;   // the first scan's Se
    for (size_t i = 0; i + 8 < huge.size(); ++i)
        if (huge[i] == 0xFF && huge[i + 1] == 0xC2) huge[i + 5] = huge[i + 6] = huge[i + 7] = huge[i + 8] = 0xFF;  // 65535 x 65535
    struct Case {
        std::vector<uint8_t> s;
        int32_t status;
    } cases[] = {
        {good, 0},
        {tiny_progressive(0x10, {0x3F}, false), KIVO_ERR_MALFORMED},  // an end-of-band run past the last block
        {tiny_progressive(0x02, std::vector<uint8_t>(16, 0), false, 1), KIVO_ERR_MALFORMED},  // refinements of size 2
        {tiny_progressive(0x00, {0x7F}, true), KIVO_ERR_UNSUPPORTED},  // restart intervals in a progressive frame
        {absent, KIVO_ERR_MALFORMED}, {band, KIVO_ERR_MALFORMED}, {huge, KIVO_ERR_OUT_OF_MEMORY},
    };
    for (const Case &c : cases) EXPECT_EQ(kivotest::decode(c.s).status, c.status) << (&c - cases);
    // Stray bytes between the last scan and EOI (and fill bytes) end the
    // picture as EOI alone does; followed by another marker they stop it.
    std::vector<uint8_t> padded = good, stray = good;
    padded.insert(padded.end() - 2, {0x00, 0x12, 0xFF, 0xFF});
    stray.insert(stray.end() - 2, {0x00, 0x12, 0xFF, 0xFE, 0x00, 0x02});
    for (int threads : {1, 2}) {
        EXPECT_EQ(kivotest::decode(padded, threads).progress.complete, 1);
        EXPECT_EQ(kivotest::decode(stray, threads).progress.complete, 0);
    }
}

// The DC category counts cover every block of the picture's scans, also
// when a table is defined again between them (optimised tables before each
// of separate scans).
TEST(OracleDecode, DcCountsSpanTablesDefinedBetweenScans) {
    turbo::EncodeSpec s = spec_for(kLayouts[1], 97, 61);
    s.optimize = s.separate_scans = true;
    const auto jpg = turbo::encode(s, turbo::make_planes(s, 3));
    std::vector<turbo::Coefficients> coefs;
    ASSERT_TRUE(turbo::read_coefficients(jpg, &coefs));
    uint64_t blocks = 0, counted = 0;
    for (const turbo::Coefficients &c : coefs) blocks += uint64_t(c.blocks_w) * c.blocks_h;
    const kivotest::Decoded d = kivotest::decode(jpg, 2, 0, 0, 0, 0, nullptr, true);
    ASSERT_EQ(d.status, 0);
    for (const auto &table : d.stats.dc_count)
        for (uint64_t n : table) counted += n;
    EXPECT_EQ(counted, blocks);
}

// A reduction the caller sets: full size into a half-size buffer is the
// exact 2x2 mean of the full decode; 1/2 is the reduced reconstruction of the
// coefficients, where the decoder's own choice would be 1/4; 3 is refused.
TEST(OracleDecode, ReductionTheCallerSets) {
    turbo::EncodeSpec s = spec_for(kLayouts[0], 512, 384);
    const auto jpg = turbo::encode(s, turbo::make_planes(s, 21));
    const kivotest::Decoded full = kivotest::decode(jpg, 2);
    ASSERT_EQ(full.status, 0);
    EXPECT_EQ(kivotest::decode(jpg, 2, 256, 192, 0, 1).planes[0].px, half(full.planes[0]));
    std::vector<turbo::Coefficients> coefs;
    ASSERT_TRUE(turbo::read_coefficients(jpg, &coefs));
    EXPECT_EQ(kivod_choose_scale(512, 384, 256, 192), 4);
    EXPECT_EQ(kivotest::decode(jpg, 2, 256, 192, 0, 2).planes[0].px, reconstruct(coefs, 2, true)[0].px);
    EXPECT_EQ(kivotest::decode(jpg, 1, 256, 192, 0, 3).status, KIVO_ERR_INVALID_ARG);
}

// Each limit refuses what exceeds it, with its status, and lets through
// what is at it.
TEST(OracleDecode, LimitsRefuseWhatExceedsThem) {
    turbo::EncodeSpec s = spec_for(kLayouts[1], 96, 80);
    s.separate_scans = true;  // three scans
    const auto separate = turbo::encode(s, turbo::make_planes(s, 5));
    s.separate_scans = false;
    s.progressive = true;  // libjpeg's ten scans
    const auto progressive = turbo::encode(s, turbo::make_planes(s, 5));
    std::vector<uint8_t> with_app = separate;  // one APP1 of 10 bytes after SOI
    with_app.insert(with_app.begin() + 2, {0xFF, 0xE1, 0x00, 0x0C, 'E', 'x', 'i', 'f', 0, 0, 1, 2, 3, 4});
    // Limits, buffer width (height to scale) and the status of decode, then clone.
    struct Case {
        const std::vector<uint8_t> *jpg;
        kivod_limits limits;
        int out_w;
        int32_t status;
    } cases[] = {
        {&separate, {96 * 80, 0, 0, 0}, 96, 0},
        {&separate, {96 * 80 - 1, 0, 0, 0}, 96, KIVO_ERR_UNSUPPORTED},
        {&separate, {0, 3, 0, 0}, 96, 0},
        {&separate, {0, 2, 0, 0}, 96, KIVO_ERR_UNSUPPORTED},  // from clone
        {&progressive, {0, 9, 0, 0}, 96, KIVO_ERR_UNSUPPORTED},
        // libjpeg-turbo's APP0 (14 bytes) and ours, each with its node.
        {&with_app, {0, 0, 0, 24 + 2 * int64_t(sizeof(kivod_app_node))}, 96, 0},
        {&with_app, {0, 0, 0, 23 + 2 * int64_t(sizeof(kivod_app_node))}, 96, KIVO_ERR_OUT_OF_MEMORY},
        // 4:2:0 frame buffers on one thread: 16 + 2 x 8 lines of 96 + 2 x 48 samples.
        {&separate, {0, 0, 16 * 96 + 2 * 8 * 48, 0}, 96, 0},
        {&separate, {0, 0, 16 * 96 + 2 * 8 * 48 - 1, 0}, 96, KIVO_ERR_OUT_OF_MEMORY},
        {&separate, {0, 0, 16 * 96 + 2 * 8 * 48, 0}, 48, KIVO_ERR_OUT_OF_MEMORY},  // resizers on top
    };
    for (const Case &c : cases)
        EXPECT_EQ(kivotest::decode(*c.jpg, 1, c.out_w, c.out_w * 80 / 96, 0, 0, &c.limits).status, c.status) << (&c - cases);
    kivod_limits bad{0, -1, 0, 0};
    EXPECT_EQ(kivod_set_limits(nullptr, &bad), KIVO_ERR_INVALID_ARG);
}

// A block that fails after some of its AC coefficients were stored adds
// none of them to the statistics: a grey picture with a restart marker after
// every block, one interval's data past its first bytes made all ones (no
// code), gives libjpeg-turbo's magnitudes of every other block.
TEST(OracleDecode, StatisticsSkipAFailedBlock) {
    turbo::EncodeSpec s = spec_for(kLayouts[0], 64, 48);
    s.restart_mcus = 1;
    const auto jpg = turbo::encode(s, turbo::make_planes(s, 5, testpic::Kind::Noise));
    std::vector<turbo::Coefficients> coefs;
    ASSERT_TRUE(turbo::read_coefficients(jpg, &coefs));
    const int bad_block = 20;
    std::vector<size_t> rst;  // where each restart marker starts
    for (size_t i = 0; i + 1 < jpg.size(); ++i)
        if (jpg[i] == 0xFF && jpg[i + 1] >= 0xD0 && jpg[i + 1] <= 0xD7) rst.push_back(i);
    ASSERT_GT(rst.size(), size_t(bad_block));
    std::vector<uint8_t> bad(jpg);
    for (size_t i = rst[bad_block - 1] + 2 + 3; i + 1 < rst[bad_block]; i += 2) bad[i] = 0xFF, bad[i + 1] = 0x00;
    const kivotest::Decoded d = kivotest::decode(bad, 1, 0, 0, 0, 0, nullptr, true);
    EXPECT_EQ(d.status, 0);
    int64_t mag[64] = {};
    for (size_t k = 0; k < coefs[0].coef.size(); ++k)
        if (int(k / 64) != bad_block) mag[k % 64] += std::abs(coefs[0].coef[k]);
    for (int i = 1; i < 64; ++i) EXPECT_EQ(d.stats.stat_luma[i], mag[i]) << i;
}

// Fill bytes (0xFF) may precede any marker. Before each marker of the
// headers, up to the first scan's, they change nothing: libjpeg-turbo reads
// the stream without a warning, and we decode the planes of the stream
// without them.
TEST(OracleDecode, FillBytesBeforeHeaderMarkers) {
    for (const bool progressive : {false, true}) {
        turbo::EncodeSpec s = spec_for(kLayouts[progressive ? 3 : 1], 45, 29);
        s.progressive = progressive;
        const auto jpg = turbo::encode(s, turbo::make_planes(s, 5));
        ASSERT_FALSE(jpg.empty());
        std::vector<uint8_t> filled(jpg.begin(), jpg.begin() + 2);
        size_t at = 2;
        for (int k = 1; at + 4 <= jpg.size(); ++k) {
            filled.insert(filled.end(), k % 3 + 1, 0xFF);
            const bool sos = jpg[at + 1] == 0xDA;
            const size_t end = sos ? jpg.size() : at + 2 + (size_t(jpg[at + 2]) << 8 | jpg[at + 3]);
            filled.insert(filled.end(), jpg.begin() + at, jpg.begin() + end);
            at = end;
        }
        std::vector<testpic::Plane> ref;
        int warnings = -1;
        ASSERT_TRUE(turbo::decode_raw(filled, 1, &ref, &warnings));
        EXPECT_EQ(warnings, 0);
        const kivotest::Decoded plain = kivotest::decode(jpg), d = kivotest::decode(filled);
        ASSERT_EQ(d.status, 0) << progressive;
        EXPECT_EQ(d.progress.complete, 1);
        ASSERT_EQ(d.planes.size(), plain.planes.size());
        for (size_t p = 0; p < d.planes.size(); ++p) EXPECT_EQ(d.planes[p].px, plain.planes[p].px) << progressive << p;
    }
}

// Damaged and truncated streams of every kind (restart markers or not,
// interleaved or separate scans, progressive) decode alike on 1 to 8
// threads: the same status, the same progress and the same bytes in every
// plane, at full size, at every reduction and resized; never a crash, hang,
// leak or stray access (the sanitizer build checks those).
TEST(OracleDecode, DamageDecodesAlikeOnAnyThreadCount) {
    struct Kind {
        const Layout *layout;
        int restart;
        bool separate, progressive;
    } kinds[] = {
        {&kLayouts[1], 0, false, false}, {&kLayouts[1], 2, false, false}, {&kLayouts[1], 3, true, false},
        {&kLayouts[3], 1, false, false}, {&kLayouts[0], 4, false, false}, {&kLayouts[2], 0, true, false},
        {&kLayouts[1], 0, false, true},
    };
    const int w = 203, h = 389;
    // Full size, each reduction, resized both ways, packed pairs, another layout.
    const int outs[][3] = {{0, 0, 0},    {102, 195, 0}, {51, 98, 0}, {26, 49, 0},
                           {70, 121, 0}, {260, 410, 0}, {0, 0, XELO_CS_YUYV}, {0, 0, XELO_CS_YCBCR444}};
    int damaged = 0, incomplete = 0, failed = 0;
    for (const Kind &k : kinds) {
        turbo::EncodeSpec s = spec_for(*k.layout, w, h);
        s.restart_mcus = k.restart;
        s.separate_scans = k.separate;
        s.progressive = k.progressive;
        const auto jpg = turbo::encode(s, turbo::make_planes(s, 11));
        ASSERT_FALSE(jpg.empty());
        size_t data = 2;  // the entropy-coded data: after the first SOS segment
        while (!(jpg[data] == 0xFF && jpg[data + 1] == 0xDA)) ++data;
        data += 2 + (size_t(jpg[data + 2]) << 8 | jpg[data + 3]);
        testpic::Rng rng(k.restart * 31 + k.layout->n_comp + k.separate * 7 + k.progressive * 13);
        for (int i = -1; i < 15; ++i) {
            std::vector<uint8_t> bad(jpg);
            const size_t at = data + rng.next() % (jpg.size() - 2 - data);
            if (i == 14) {
                // Cut just before the restart marker that ends the second
                // MCU row: the row is decoded whole (its last bits as zeros)
                // and no marker follows; at 1/2 it completes the first strip.
                const int cols = (w + 8 * k.layout->h[0] - 1) / (8 * k.layout->h[0]);
                if (!k.restart || k.separate || k.progressive || 2 * cols % k.restart) continue;
                size_t p = data;
                for (int m = 0; m < 2 * cols / k.restart; ++p) m += bad[p] == 0xFF && (bad[p + 1] & 0xF8) == 0xD0;
                bad.resize(p - 4);
            } else if (i >= 0 && i % 5 == 4) {
                bad.resize(at);  // cut short
            } else if (i >= 0 && i % 5 == 3) {
                // A stuffed 0xFF followed by a restart marker's second byte.
                const uint8_t run[] = {0xFF, 0x00, static_cast<uint8_t>(0xD0 + rng.next() % 8)};
                for (size_t j = 0; j < 3 && at + j < bad.size() - 2; ++j) bad[at + j] = run[j];
            } else if (i >= 0) {
                for (int f = 0; f <= i % 3; ++f) bad[at + f * 37 % (bad.size() - 2 - at)] ^= static_cast<uint8_t>(1 + rng.next() % 255);
            }
            for (const auto &o : outs) {
                const int32_t cs = k.layout->n_comp == 1 && o[2] == XELO_CS_YCBCR444 ? 0 : o[2];
                const kivotest::Decoded one = kivotest::decode(bad, 1, o[0], o[1], cs);
                EXPECT_LE(one.status, 0);
                damaged += one.status != 0 || one.progress.complete == 0;
                incomplete += one.progress.complete == 0;
                failed += one.status < 0;
                if (i == 14) {
                    // The first MCU row is the intact stream's at every size.
                    const kivotest::Decoded whole = kivotest::decode(jpg, 1, o[0], o[1], cs);
                    const testpic::Plane &a = one.planes[0], &b = whole.planes[0];
                    const size_t n = size_t(a.w) * (8 * k.layout->v[0] * a.h / h);
                    EXPECT_TRUE(std::equal(a.px.begin(), a.px.begin() + n, b.px.begin())) << &k - kinds << " out " << &o - outs;
                }
                if (o[0] == 26) {
                    // At 1/8 the AC codes are walked as the skim walks them;
                    // with statistics gathered, the block decoder takes them.
                    const kivotest::Decoded blocks = kivotest::decode(bad, 1, o[0], o[1], cs, 0, nullptr, true);
                    ASSERT_EQ(one.status, blocks.status) << &k - kinds << " case " << i;
                    for (size_t p = 0; p < one.planes.size(); ++p) ASSERT_EQ(one.planes[p].px, blocks.planes[p].px) << p;
                }
                for (int t : {2, 3, 4, 8}) {
                    const kivotest::Decoded many = kivotest::decode(bad, t, o[0], o[1], cs);
                    const std::string what = "kind " + std::to_string(&k - kinds) + " case " + std::to_string(i) + " out " +
                                             std::to_string(&o - outs) + " threads " + std::to_string(t);
                    ASSERT_EQ(one.status, many.status) << what;
                    EXPECT_EQ(one.progress.complete, many.progress.complete) << what;
                    EXPECT_EQ(one.progress.mcu_rows, many.progress.mcu_rows) << what;
                    ASSERT_EQ(one.planes.size(), many.planes.size()) << what;
                    for (size_t p = 0; p < one.planes.size(); ++p) ASSERT_EQ(one.planes[p].px, many.planes[p].px) << what << " plane " << p;
                    // Statistics and table counters are summed per slice.
                    EXPECT_TRUE(i >= 0 || std::memcmp(&one.stats, &many.stats, sizeof(kivod_stats)) == 0) << what;
                }
            }
        }
    }
    // The damage is seen: statuses, incomplete pictures, and plain failures.
    EXPECT_GT(damaged, 0);
    EXPECT_GT(incomplete, 0);
    EXPECT_GT(failed, 0);
}

}  // namespace
