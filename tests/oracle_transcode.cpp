// The transcoder on streams libjpeg-turbo makes: every output decodes with
// libjpeg-turbo without warning and follows its stream plan, its
// quantizers are exactly the largest of the perceptual ones, the source's
// and the source's shape scaled by quality; APPn segments and trailing
// bytes carried over, skip-encode, bad memory, corrupt sources, histories.
#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "decoder/kivod_int.h"
#include "kivot.h"
#include "xelo/xelo_hooks.h"
#include "oracle_support/turbo.h"
#include "transcoder/kivot_int.h"
#include "support/kivo_decode.h"
#include "support/kivo_encode.h"

namespace {

using kivotest::Bytes;

// Encodes (enc) or transcodes src (trc) into memory of out_size bytes (-1:
// plenty); the written bytes go to *jpg.
int32_t code(kivoe_ctx *enc, kivot_ctx *trc, const Bytes &src, Bytes *jpg, int32_t out_size = -1) {
    Bytes in(src), buf(out_size < 0 ? src.size() * 3 + 65536 : out_size + 1);
    xelo_bitb ib{}, ob{};
    ib.addr = in.data(), ib.ssize = static_cast<int32_t>(in.size());
    ob.addr = buf.data(), ob.ssize = out_size < 0 ? static_cast<int32_t>(buf.size()) : out_size;
    kivod_input input{KIVOD_INPUT_BITB, &ib, nullptr};
    kivoe_output output{KIVOD_INPUT_BITB, &ob, nullptr};
    int32_t written = 0;
    const int32_t status = enc ? kivoe_encode(enc, &output, &written) : kivot_txcode(trc, &input, &output, &written);
    jpg->assign(buf.begin(), buf.begin() + (status == 0 ? written : 0));
    return status;
}

struct Result { int32_t status = 0; Bytes out; uint8_t qtbl[128]; };

// A source in memory and output memory of twice its size, as the
// transcoding calls take them.
struct Io {
    Bytes in, buf;
    xelo_bitb ib{}, ob{};
    kivod_input input{};
    kivoe_output output{};
    explicit Io(const Bytes &src) : in(src), buf(src.size() * 2) {
        ib.addr = in.data(), ib.ssize = static_cast<int32_t>(in.size());
        ob.addr = buf.data(), ob.ssize = static_cast<int32_t>(buf.size());
        input = kivod_input{KIVOD_INPUT_BITB, &ib, nullptr};
        output = kivoe_output{KIVOD_INPUT_BITB, &ob, nullptr};
    }
    Io(const Io &) = delete;
    Io &operator=(const Io &) = delete;
    Bytes out(int32_t n) const { return Bytes(buf.begin(), buf.begin() + n); }
};

Result transcode(const Bytes &src, int quality = 0, bool optimize = false, int32_t out_size = -1, int threads = 1,
                 int32_t color_format = 0, int w = 0, int h = 0) {
    Result r;
    kivo_tpool pool;
    kivo_tpool_std(&pool, threads);
    kivoe_create_param p{1, w, h, quality, color_format, &pool};
    kivot_ctx *t = kivot_create(&p, &r.status);
    if (!t) return r;
    int32_t four = 4, on = optimize, s128 = 128;
    kivot_config(t, KIVOT_CFG_OPT_HUFFMAN, &on, &four);
    r.status = code(nullptr, t, src, &r.out, out_size);
    kivot_config(t, KIVOT_CFG_GET_QTBL, r.qtbl, &s128);
    return kivot_delete(t), r;
}

// The APPn segments of a stream, in order.
Bytes apps_of(const Bytes &s) {
    Bytes apps;
    for (size_t i = 2; i + 4 <= s.size() && s[i] == 0xFF && s[i + 1] != 0xDA; i += 2 + (s[i + 2] << 8 | s[i + 3]))
        if (s[i + 1] >= 0xE0 && s[i + 1] <= 0xEF) apps.insert(apps.end(), s.begin() + i, s.begin() + i + 4 + (s[i + 2] << 8 | s[i + 3]) - 2);
    return apps;
}

// The output decodes with libjpeg-turbo without warning, follows its plan
// (the source's APPn segments, the tables it reports, typical Huffman
// tables unless optimised) and has no quantizer finer than the source's
// for the same component.
void check_output(const Bytes &src, const Bytes &out, const uint8_t *q, int threads = 1, bool optimize = true,
                  const Bytes &trailer = {}) {
    std::vector<testpic::Plane> planes;
    int warnings = -1;
    ASSERT_TRUE(turbo::decode_raw(out, 1, &planes, &warnings) && warnings == 0);
    const kivotest::Decoded d = kivotest::decode(out, 1);
    EXPECT_EQ(kivotest::check_stream(out, {d.color_format, d.width, d.height, threads, q, !optimize, apps_of(src), trailer}), "");
    int sq[2][64], oq[2][64];
    ASSERT_TRUE(kivotest::stream_tables(src, sq) && kivotest::stream_tables(out, oq));
    for (int k = 0; k < (planes.size() > 1 ? 2 : 1); ++k)
        for (int z = 0; z < 64; ++z) EXPECT_GE(oq[k][z], sq[k][z]) << "table " << k << " at " << z;
}

const struct Source { const char *name; int n_comp, h0, v0; bool progressive; } kSources[] = {
    {"420", 3, 2, 2, false}, {"444", 3, 1, 1, false}, {"grey", 1, 1, 1, false}, {"k420", 4, 2, 2, false},
    {"420 progressive", 3, 2, 2, true}, {"422", 3, 2, 1, false}, {"440", 3, 1, 2, false}, {"411", 3, 4, 1, false},
    {"k422", 4, 2, 1, false}, {"k444", 4, 1, 1, false}, {"grey progressive", 1, 1, 1, true}, {"k420 progressive", 4, 2, 2, true},
};

Bytes make_source(const Source &s, int w, int h, int quality, uint64_t seed, const uint8_t *tables = nullptr) {
    turbo::EncodeSpec e;
    e.width = w, e.height = h, e.n_comp = s.n_comp, e.quality = quality, e.progressive = s.progressive, e.tables = tables;
    e.h[0] = e.h[3] = s.n_comp == 1 ? 1 : s.h0, e.v[0] = e.v[3] = s.n_comp == 1 ? 1 : s.v0;
    return turbo::encode(e, turbo::make_planes(e, seed ? seed : w));  // seed 0: the width
}

Bytes segment(uint8_t marker, const std::string &payload) {
    const size_t len = payload.size() + 2;
    const std::string s = std::string{'\xFF', char(marker), char(len >> 8), char(len)} + payload;
    return Bytes(s.begin(), s.end());
}

// Every source kind, given EXIF, an ICC profile in three APP2 segments and
// XMP before its own JFIF APP0, a fill byte before EOI and 16 bytes after
// it; two at a size or colour format of their own. Memory that holds the
// stream but not the whole trailer gives a status (and, under ASan, holds
// nothing past its end).
TEST(OracleTranscode, EverySourceKind) {
    Bytes apps;
    for (const Bytes &a : {segment(0xE1, std::string("Exif\0\0", 6) + std::string(300, '\x11')),
                           segment(0xE2, std::string("ICC_PROFILE\0\x01\x03", 14) + std::string(200, '\x22')),
                           segment(0xE2, std::string("ICC_PROFILE\0\x02\x03", 14) + std::string(200, '\x33')),
                           segment(0xE2, std::string("ICC_PROFILE\0\x03\x03", 14) + std::string(50, '\x44')),
                           segment(0xE1, std::string("http://ns.adobe.com/xap/1.0/\0<x:xmpmeta/>", 41))})
        apps.insert(apps.end(), a.begin(), a.end());
    const Bytes trailer = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xFF, 0xD9, 13, 14, 15, 16};
    int idx = 0;
    for (const Source &s : kSources)
        for (bool optimize : {false, true}) {
            SCOPED_TRACE(s.name);
            const Bytes base = make_source(s, 203 + ++idx, 131, 95, 0);
            Bytes src = {0xFF, 0xD8};
            for (const Bytes &part : {apps, Bytes(base.begin() + 2, base.end() - 2), Bytes{0xFF, 0xFF, 0xD9}, trailer})
                src.insert(src.end(), part.begin(), part.end());
            const int threads = 1 + idx % 3, w = idx == 4 ? 100 : 0, h = idx == 4 ? 60 : 0;
            const Result r = transcode(src, idx % 3 ? 0 : 80, optimize, -1, threads, idx == 3 ? XELO_CS_YCBCR420 : 0, w, h);
            ASSERT_EQ(r.status, 0);
            EXPECT_LT(r.out.size(), src.size());
            check_output(src, r.out, r.qtbl, threads, optimize, trailer);
            const kivotest::Decoded d = kivotest::decode(r.out, 1);
            EXPECT_TRUE((idx != 3 || d.color_format == XELO_CS_YCBCR420) && (idx != 4 || (d.width == 100 && d.height == 60)));
            EXPECT_TRUE(idx != 1 || transcode(src, 0, optimize, static_cast<int32_t>(r.out.size()) - 5, threads).status < 0);
        }
}

// Same planes, as libjpeg-turbo decodes them.
bool same_pixels(const Bytes &a, const Bytes &b) {
    std::vector<testpic::Plane> pa, pb;
    if (!turbo::decode_raw(a, 1, &pa) || !turbo::decode_raw(b, 1, &pb) || pa.size() != pb.size()) return false;
    for (size_t i = 0; i < pa.size(); ++i)
        if (pa[i].px != pb[i].px) return false;
    return true;
}

// Lossless re-encoding of every kind of source libjpeg-turbo makes: the
// decoder's levels times the tables are libjpeg-turbo's coefficients; both
// outputs decode to the source's pixels and are within 1% of libjpeg-turbo's
// own lossless outputs (jpegtran -optimize, -progressive); the smallest-of
// output is never larger than the source, is exact unless it is the
// pipeline's (and then kivot_txcode's), and is not the pipeline's for a
// quality-75 source.
TEST(OracleTranscode, LosslessAndSmallest) {
    const struct Case { const char *name; int n_comp, h0, v0, quality, restart; bool progressive; } kCases[] = {
        {"grey", 1, 1, 1, 90, 0, false}, {"420", 3, 2, 2, 75, 0, false}, {"422", 3, 2, 1, 85, 0, false},
        {"444", 3, 1, 1, 95, 0, false},  {"420 progressive", 3, 2, 2, 75, 0, true},
        {"420 restarts", 3, 2, 2, 90, 3, false}, {"grey progressive", 1, 1, 1, 98, 0, true},
    };
    kivoe_create_param p{1, 0, 0, 0, 0, nullptr};
    kivot_ctx *t = kivot_create(&p, nullptr);
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.name);
        turbo::EncodeSpec e;
        e.width = 317, e.height = 243, e.n_comp = c.n_comp, e.quality = c.quality, e.progressive = c.progressive;
        e.restart_mcus = c.restart, e.h[0] = c.h0, e.v[0] = c.v0;
        const Bytes src = turbo::encode(e, turbo::make_planes(e, c.quality));
        Io io(src);
        const kivod_input &input = io.input;
        const kivoe_output &output = io.output;
        kivoe_coef_pic pic;
        std::vector<turbo::Coefficients> want;
        ASSERT_TRUE(kivot_read_levels(t, &input, &pic, true) == 0 && turbo::read_coefficients(src, &want));
        for (int k = 0; k < c.n_comp; ++k)
            for (int by = 0; by < want[k].blocks_h; ++by)
                for (int bx = 0; bx < want[k].blocks_w; ++bx)
                    for (int i = 0; i < 64; ++i)
                        ASSERT_EQ(int16_t(pic.coef[k][(size_t(by) * pic.blk_w[k] + bx) * 64 + i] * pic.qt[pic.tq[k]][i]),
                                  want[k].coef[(size_t(by) * want[k].blocks_w + bx) * 64 + i]) << k << " " << bx << "," << by;
        kivod_stats from_levels{}, from_pixels{};
        ASSERT_EQ(kivod_get_stats(t->dec, &from_levels), 0);
        kivod_release_frame_buffers(t->dec);
        int32_t sizes[3] = {0, 0, 0};  // each candidate's: lossless, progressive, pipeline
        Bytes lossless[2];
        ASSERT_EQ(kivot_txcode(t, &input, &output, &sizes[2]), 0);
        const Bytes pipeline = io.out(sizes[2]);
        // A sequential source's levels come with the statistics of its pixels.
        ASSERT_EQ(kivod_get_stats(t->dec, &from_pixels), 0);
        EXPECT_TRUE(c.progressive || (from_levels.mean_level == from_pixels.mean_level &&
                                      !std::memcmp(from_levels.stat_luma, from_pixels.stat_luma, sizeof(from_pixels.stat_luma)) &&
                                      !std::memcmp(from_levels.stat_chroma, from_pixels.stat_chroma, sizeof(from_pixels.stat_chroma)) &&
                                      from_levels.n_luma == from_pixels.n_luma));
        for (int32_t coding : {KIVOT_LOSSLESS_BASELINE, KIVOT_LOSSLESS_PROGRESSIVE}) {
            int32_t &n = sizes[coding];
            ASSERT_EQ(kivot_txcode_lossless(t, &input, &output, &n, coding), 0);
            const Bytes out = io.out(n), ref = turbo::transcode(src, coding != 0, true);
            lossless[coding] = out;
            EXPECT_TRUE(same_pixels(src, out)) << coding;
            EXPECT_LT(std::abs(double(out.size()) / ref.size() - 1), 0.01) << coding << ": " << out.size() << " vs " << ref.size();
            // Exactly its size is room enough, a byte less is not.
            for (int32_t less : {0, 1}) {
                int32_t m = 0;
                io.ob.ssize = n - less;
                EXPECT_EQ(kivot_txcode_lossless(t, &input, &output, &m, coding), less ? KIVO_ERR_INVALID_ARG : 0);
            }
            io.ob.ssize = static_cast<int32_t>(io.buf.size());
        }
        int32_t n = 0, chosen = 0;
        ASSERT_EQ(kivot_txcode_smallest(t, &input, &output, &n, &chosen), 0);
        const Bytes out = io.out(n);
        EXPECT_LE(out.size(), src.size());
        EXPECT_LE(n, std::min(sizes[0], sizes[1]));
        // Sources of quality 95 and up get coarser tables, and the pipeline competes.
        EXPECT_TRUE(c.quality < 95 || n <= sizes[2]) << n << " " << sizes[2];
        EXPECT_TRUE(chosen == KIVOT_CHOSEN_PIPELINE || same_pixels(src, out)) << kivot_chosen_name(chosen);
        // The pipeline's candidate is kivot_txcode's stream, whether made
        // from the levels already read or from a second decode.
        EXPECT_TRUE(chosen != KIVOT_CHOSEN_PIPELINE || out == pipeline);
        EXPECT_TRUE(c.quality != 75 || chosen != KIVOT_CHOSEN_PIPELINE);
        // Memory one byte short of the winner is refused; the handle goes on.
        io.ob.ssize = n - 1;
        EXPECT_EQ(kivot_txcode_smallest(t, &input, &output, &n, &chosen), KIVO_ERR_INVALID_ARG);
        io.ob.ssize = static_cast<int32_t>(io.buf.size());
        EXPECT_TRUE(kivot_txcode_smallest(t, &input, &output, &n, &chosen) == 0 && io.out(n) == out);
        // On two threads, which share the lossless codings' steps: the same
        // lossless streams, and no larger a choice.
        kivo_tpool two;
        kivo_tpool_std(&two, 2);
        kivoe_create_param p2 = p;
        p2.tpool = &two;
        kivot_ctx *t2 = kivot_create(&p2, nullptr);
        int32_t n2 = 0, chosen2 = 0;
        ASSERT_EQ(kivot_txcode_smallest(t2, &input, &output, &n2, &chosen2), 0);
        const Bytes out2 = io.out(n2);
        EXPECT_LE(n2, std::min(sizes[0], sizes[1]));
        EXPECT_TRUE(chosen2 != KIVOT_CHOSEN_LOSSLESS || out2 == lossless[KIVOT_LOSSLESS_BASELINE]);
        EXPECT_TRUE(chosen2 != KIVOT_CHOSEN_PROGRESSIVE || out2 == lossless[KIVOT_LOSSLESS_PROGRESSIVE]);
        EXPECT_TRUE(c.quality != 75 || chosen2 != KIVOT_CHOSEN_PIPELINE);
        kivot_delete(t2);
        // A failed allocation anywhere, on a new handle, fails the call (for
        // want of memory or of a picture buffer) and never changes the choice.
        for (int32_t at = 1; at <= 40; ++at) {
            for (const kivoe_create_param *q : {&p, &p2}) {
                kivot_ctx *fresh = kivot_create(q, nullptr);
                xelo_mem_fail_at(at);
                const int32_t st = kivot_txcode_smallest(fresh, &input, &output, &n, &chosen);
                xelo_mem_fail_at(0);
                kivot_delete(fresh);
                EXPECT_TRUE(st == KIVO_ERR_OUT_OF_MEMORY || st == KIVO_ERR_IMGB ||
                            (st == 0 && io.out(n) == (q == &p ? out : out2)))
                    << at << ": " << st;
            }
        }
    }
    kivot_delete(t);
}

// Layouts this library does not reconstruct (chroma factors unlike each
// other, luma below chroma, four components in 4:4:0) still have their
// levels coded again: both
// lossless codings decode with libjpeg-turbo to the source's pixels within
// 1% of jpegtran's size, and the smallest-of output is one of them or the
// source, while a decode to pixels and the pipeline refuse such a source.
TEST(OracleTranscode, LosslessOfAnyLayout) {
    const struct { int n_comp, h[4], v[4]; bool progressive; } kCases[] = {
        {3, {2, 2, 1}, {2, 1, 2}, false}, {3, {1, 2, 2}, {1, 2, 2}, true}, {4, {1, 1, 1, 1}, {2, 1, 1, 2}, false}};
    kivoe_create_param p{1, 0, 0, 0, 0, nullptr};
    kivot_ctx *t = kivot_create(&p, nullptr);
    for (const auto &c : kCases) {
        turbo::EncodeSpec e;
        e.width = 203, e.height = 131, e.n_comp = c.n_comp, e.quality = 85, e.progressive = c.progressive;
        for (int k = 0; k < c.n_comp; ++k) e.h[k] = c.h[k], e.v[k] = c.v[k];
        const Bytes src = turbo::encode(e, turbo::make_planes(e, 7));
        ASSERT_FALSE(src.empty());
        const int32_t refused = c.n_comp == 4 ? KIVO_ERR_COLOR_FORMAT : KIVO_ERR_UNSUPPORTED;
        EXPECT_EQ(kivotest::decode(src, 1).status, refused);
        EXPECT_EQ(transcode(src).status, refused);
        Io io(src);
        int32_t n = 0, chosen = 0;
        for (int32_t coding : {KIVOT_LOSSLESS_BASELINE, KIVOT_LOSSLESS_PROGRESSIVE}) {
            ASSERT_EQ(kivot_txcode_lossless(t, &io.input, &io.output, &n, coding), 0) << coding;
            const Bytes out = io.out(n), ref = turbo::transcode(src, coding != 0, true);
            EXPECT_TRUE(same_pixels(src, out)) << coding;
            EXPECT_LT(std::abs(double(out.size()) / ref.size() - 1), 0.01) << coding << ": " << out.size() << " vs " << ref.size();
        }
        ASSERT_EQ(kivot_txcode_smallest(t, &io.input, &io.output, &n, &chosen), 0);
        EXPECT_TRUE(n <= static_cast<int32_t>(src.size()) && chosen != KIVOT_CHOSEN_PIPELINE && same_pixels(src, io.out(n)))
            << kivot_chosen_name(chosen);
    }
    kivot_delete(t);
}

// An RGB source (an Adobe segment of transform 0 in place of JFIF's) gets
// the progressive script of components alike, as jpegtran gives it; the
// YCbCr script's whole-band chroma scans cost such a source up to 1.5%.
TEST(OracleTranscode, LosslessProgressiveOfRgb) {
    turbo::EncodeSpec e;
    e.width = 317, e.height = 243, e.quality = 95;
    // Three planes of luma's kind: red, green and blue are all detailed.
    std::vector<testpic::Plane> planes;
    for (int k = 0; k < 3; ++k) planes.push_back(testpic::make_plane(e.width, e.height, 95 + k, 0));
    const Bytes jfif = turbo::encode(e, planes);
    ASSERT_TRUE(jfif.size() > 20 && jfif[3] == 0xE0);
    const size_t app0_end = 4 + (jfif[4] << 8 | jfif[5]);
    const uint8_t head[] = {0xFF, 0xD8, 0xFF, 0xEE, 0, 14, 'A', 'd', 'o', 'b', 'e', 0, 100, 0, 0, 0, 0, 0};
    Bytes src(sizeof(head) + jfif.size() - app0_end);
    std::copy(head, head + sizeof(head), src.begin());
    std::copy(jfif.begin() + app0_end, jfif.end(), src.begin() + sizeof(head));
    kivoe_create_param p{1, 0, 0, 0, 0, nullptr};
    kivot_ctx *t = kivot_create(&p, nullptr);
    Io io(src);
    int32_t n = 0;
    ASSERT_EQ(kivot_txcode_lossless(t, &io.input, &io.output, &n, KIVOT_LOSSLESS_PROGRESSIVE), 0);
    const Bytes out = io.out(n), ref = turbo::transcode(src, true, true);
    EXPECT_TRUE(same_pixels(src, out));
    EXPECT_LT(std::abs(double(out.size()) / ref.size() - 1), 0.005) << out.size() << " vs " << ref.size();
    kivot_delete(t);
}

// A later sequential scan of a component replaces the levels an earlier one
// left, as it replaces the pixels: picture A's scan followed by picture B's
// (same size and tables) reads as B alone, on 1 and 2 threads.
TEST(OracleTranscode, LaterScanReplacesLevels) {
    turbo::EncodeSpec e;
    e.width = 96, e.height = 64, e.n_comp = 1, e.quality = 90;
    const Bytes a = turbo::encode(e, turbo::make_planes(e, 1)), b = turbo::encode(e, turbo::make_planes(e, 2));
    size_t sos = 2;
    while (sos + 1 < b.size() && !(b[sos] == 0xFF && b[sos + 1] == 0xDA)) sos += 2 + (b[sos + 2] << 8 | b[sos + 3]);
    ASSERT_LT(sos + 1, b.size());
    Bytes both(a.begin(), a.end() - 2);
    both.insert(both.end(), b.begin() + static_cast<std::ptrdiff_t>(sos), b.end());
    for (int threads : {1, 2}) {
        kivo_tpool pool;
        kivo_tpool_std(&pool, threads);
        kivoe_create_param p{1, 0, 0, 0, 0, &pool};
        kivot_ctx *t = kivot_create(&p, nullptr);
        std::vector<int16_t> levels[2];
        for (int i = 0; i < 2; ++i) {
            Io io(i ? both : b);
            kivoe_coef_pic pic;
            ASSERT_EQ(kivot_read_levels(t, &io.input, &pic, false), 0);
            levels[i].assign(pic.coef[0], pic.coef[0] + size_t(pic.blk_w[0]) * pic.blk_h[0] * 64);
            kivod_release_frame_buffers(t->dec);
        }
        EXPECT_TRUE(levels[0] == levels[1]) << threads;
        kivot_delete(t);
    }
}

// A DQT segment between the separate scans of a sequential source: the
// chroma table defined only before the chroma scans (libjpeg-turbo reads
// it without a warning), or the luma table defined again with its own
// values, is coded again losslessly; the luma table changed after the luma
// scan is refused (its levels would need two tables).
TEST(OracleTranscode, TableBetweenSeparateScans) {
    turbo::EncodeSpec e;
    e.width = 75, e.height = 53, e.quality = 80, e.separate_scans = true, e.h[0] = e.v[0] = 2;
    const Bytes src = turbo::encode(e, turbo::make_planes(e, 3));
    // Offsets of the two DQT segments (luma, chroma) and of the second SOS.
    size_t dqt[2] = {0, 0}, sos = 2;
    for (int n = 0; sos + 4 <= src.size() && !(src[sos] == 0xFF && src[sos + 1] == 0xDA); sos += 2 + (src[sos + 2] << 8 | src[sos + 3]))
        if (src[sos + 1] == 0xDB && n < 2) dqt[n++] = sos;
    ASSERT_TRUE(dqt[1] > 0 && src[dqt[0] + 4] == 0 && src[dqt[1] + 4] == 1);
    for (++sos; sos + 1 < src.size() && !(src[sos] == 0xFF && src[sos + 1] == 0xDA); ++sos) {}
    ASSERT_LT(sos + 1, src.size());
    const size_t len = 69;  // marker, length, table byte, 64 quantizers
    const Bytes luma(src.begin() + dqt[0], src.begin() + dqt[0] + len), chroma(src.begin() + dqt[1], src.begin() + dqt[1] + len);
    Bytes changed = luma;
    changed[len - 1] ^= 1;
    const struct { const Bytes *seg; bool move; int32_t status; } kCases[] = {
        {&chroma, true, 0}, {&luma, false, 0}, {&changed, false, KIVO_ERR_UNSUPPORTED}};
    kivoe_create_param p{1, 0, 0, 0, 0, nullptr};
    kivot_ctx *t = kivot_create(&p, nullptr);
    for (const auto &c : kCases) {
        Bytes v(src.begin(), src.begin() + sos);
        v.insert(v.end(), c.seg->begin(), c.seg->end());
        v.insert(v.end(), src.begin() + sos, src.end());
        if (c.move) v.erase(v.begin() + dqt[1], v.begin() + dqt[1] + len);
        std::vector<testpic::Plane> planes;
        int warnings = -1;
        ASSERT_TRUE(c.status != 0 || (turbo::decode_raw(v, 1, &planes, &warnings) && warnings == 0));
        Io io(v);
        for (int32_t coding : {KIVOT_LOSSLESS_BASELINE, KIVOT_LOSSLESS_PROGRESSIVE}) {
            int32_t n = 0;
            ASSERT_EQ(kivot_txcode_lossless(t, &io.input, &io.output, &n, coding), c.status) << &c - kCases;
            EXPECT_TRUE(c.status != 0 || same_pixels(v, io.out(n))) << &c - kCases << " " << coding;
        }
    }
    kivot_delete(t);
}

// The copy choices keep the segments they name, in the pipeline's and the
// lossless outputs alike: all of them and the bytes after the end of image;
// JFIF, Adobe and the ICC profile's; JFIF and Adobe only. The smallest-of
// output follows them too, the source included.
TEST(OracleTranscode, CopyChoices) {
    const Bytes jfif = segment(0xE0, std::string("JFIF\0\x01\x01\0\0\x01\0\x01\0\0", 14)),
                exif = segment(0xE1, std::string("Exif\0\0", 6) + std::string(40, 'e')),
                icc1 = segment(0xE2, std::string("ICC_PROFILE\0\x01\x02", 14) + std::string(30, 'i')),
                icc2 = segment(0xE2, std::string("ICC_PROFILE\0\x02\x02", 14) + std::string(20, 'j')),
                other2 = segment(0xE2, std::string("MPF\0", 4) + std::string(10, 'm')),
                adobe = segment(0xEE, std::string("Adobe\0\x64\0\0\0\0\x01", 12));
    const Bytes base = make_source(kSources[0], 120, 80, 75, 4);
    Bytes src = {0xFF, 0xD8};
    for (const Bytes &part : {jfif, exif, icc1, other2, icc2, adobe}) src.insert(src.end(), part.begin(), part.end());
    size_t pos = 2;  // past the source's own APP0
    while (base[pos + 1] >= 0xE0 && base[pos + 1] <= 0xEF) pos += 2 + (base[pos + 2] << 8 | base[pos + 3]);
    src.insert(src.end(), base.begin() + pos, base.end());
    const std::string trailer = "a motion photo's video";
    src.insert(src.end(), trailer.begin(), trailer.end());
    auto cat = [](std::initializer_list<Bytes> parts) {
        Bytes b;
        for (const Bytes &p : parts) b.insert(b.end(), p.begin(), p.end());
        return b;
    };
    const struct { int32_t copy; Bytes want; } kCopies[] = {
        {KIVOT_COPY_ALL, cat({jfif, exif, icc1, other2, icc2, adobe})},
        {KIVOT_COPY_ICC, cat({jfif, icc1, icc2, adobe})},
        {KIVOT_COPY_NONE, cat({jfif, adobe})},
    };
    kivoe_create_param p{1, 0, 0, 0, 0, nullptr};
    kivot_ctx *t = kivot_create(&p, nullptr);
    EXPECT_EQ(kivot_set_copy(t, 3), KIVO_ERR_INVALID_ARG);
    Io io(src);
    for (const auto &c : kCopies) {
        ASSERT_EQ(kivot_set_copy(t, c.copy), 0);
        for (int call = 0; call < 3; ++call) {
            int32_t n = 0, chosen = 0;
            const int32_t st = call == 0   ? kivot_txcode(t, &io.input, &io.output, &n)
                               : call == 1 ? kivot_txcode_lossless(t, &io.input, &io.output, &n, KIVOT_LOSSLESS_PROGRESSIVE)
                                           : kivot_txcode_smallest(t, &io.input, &io.output, &n, &chosen);
            ASSERT_EQ(st, 0);
            const Bytes out = io.out(n);
            EXPECT_EQ(apps_of(out), c.want) << c.copy << " " << call;
            const Bytes tail(out.end() - int(trailer.size()) - 2, out.end());
            EXPECT_EQ(tail == cat({{0xFF, 0xD9}, Bytes(trailer.begin(), trailer.end())}), c.copy == KIVOT_COPY_ALL) << c.copy << " " << call;
        }
    }
    // A source kept as it is (progressive with restarts: not re-encoded)
    // loses what the choice drops, between its scans too, its comments and
    // the bytes after its end of image.
    turbo::EncodeSpec e;
    e.width = 64, e.height = 48, e.progressive = true, e.restart_mcus = 2;
    const Bytes prog = turbo::encode(e, turbo::make_planes(e, 1)), rest(prog.begin() + 2, prog.end());
    Bytes between = rest;
    const uint8_t sos[2] = {0xFF, 0xDA};
    const auto first = std::search(between.begin(), between.end(), sos, sos + 2);
    const auto next = std::search(first + 2, between.end(), sos, sos + 2);
    ASSERT_TRUE(next != between.end());
    between.insert(next, exif.begin(), exif.end());
    Io kept(cat({{0xFF, 0xD8}, exif, segment(0xFE, "a comment"), between, Bytes(trailer.begin(), trailer.end())}));
    int32_t n = 0, chosen = 0;
    ASSERT_EQ(kivot_txcode_smallest(t, &kept.input, &kept.output, &n, &chosen), 0);  // the copy choice: none
    EXPECT_TRUE(chosen == KIVOT_CHOSEN_SOURCE && kept.out(n) == cat({{0xFF, 0xD8}, rest}));
    // Components named R, G and B without a JFIF or Adobe segment: the
    // smallest-of output is still read as RGB (libjpeg-turbo's reading),
    // which the pipeline's, with components 1, 2 and 3, is not.
    Bytes rgb = make_source(kSources[1], 96, 64, 98, 2);
    rgb.erase(rgb.begin() + 2, rgb.begin() + 4 + (rgb[4] << 8 | rgb[5]));  // its APP0
    for (size_t i = 2, scan = 0; !scan && i + 12 < rgb.size(); ++i)
        if (rgb[i] == 0xFF && (rgb[i + 1] == 0xC0 || rgb[i + 1] == 0xDA)) {
            scan = rgb[i + 1] == 0xDA;
            for (int k = 0; k < 3; ++k) rgb[i + (scan ? 5 + 2 * k : 10 + 3 * k)] = "RGB"[k];
        }
    Io named(rgb);
    ASSERT_EQ(kivot_txcode_smallest(t, &named.input, &named.output, &n, &chosen), 0);
    int w = 0, h = 0, subsamp = 0, colorspace = -1;
    tjhandle tj = tjInitDecompress();
    EXPECT_TRUE(tjDecompressHeader3(tj, named.in.data(), named.in.size(), &w, &h, &subsamp, &colorspace) == 0 && colorspace == TJCS_RGB);
    EXPECT_TRUE(tjDecompressHeader3(tj, named.buf.data(), n, &w, &h, &subsamp, &colorspace) == 0 && colorspace == TJCS_RGB);
    tjDestroy(tj);
    kivot_delete(t);
}

// Output quantizers against their rule: for table k (luma, chroma) and
// zig-zag position p, the largest of the perceptual quantizer of the
// decoded picture's statistics, the source quantizer s of the component's
// table, and trunc(trunc((s / minq + weight) * 10) * (105 - quality) / 100)
// held to 1..255; a grey source's one table floors both.
TEST(OracleTranscode, TablesFollowTheirRule) {
    std::mt19937 rng(3);
    for (int n = 0; n < 12; ++n) {
        uint8_t tables[128];
        for (int i = 0; i < 128; ++i) tables[i] = uint8_t(n == 0 ? 1 : 1 + n % 4 + rng() % (n % 3 ? 40 : 4));
        const int quality = n == 0 ? 100 : n % 4 == 1 ? 0 : 30 + 10 * (n % 7);
        const Bytes src = make_source(kSources[n % 3], 96 + 8 * n, 64, 90, n, tables);
        const Result r = transcode(src, quality);
        ASSERT_EQ(r.status, 0);
        const kivod_stats st = kivotest::decode(src, 1, 0, 0, 0, 0, nullptr, true).stats;
        uint32_t stat[2][64];
        for (int i = 0; i < 64; ++i)
            stat[0][i] = uint32_t(st.stat_luma[i] / st.n_luma), stat[1][i] = st.n_chroma ? uint32_t(st.stat_chroma[i] / st.n_chroma) : 0;
        const int f = 105 - (quality ? quality : 96 - tbl_thr[st.mean_level]);
        int sq[2][64];
        int16_t pq[64];
        uint16_t recip[64], half[64];
        ASSERT_TRUE(kivotest::stream_tables(src, sq));
        for (int k = 0; k < 2; ++k) {
            kivo_gen_qtbl(pq, recip, half, stat[k], tbl_thr[std::min<uint32_t>(stat[0][0], 255)]);
            const int minq = *std::min_element(sq[k], sq[k] + 64);
            for (int p = 0; p < 64; ++p) {
                const int r0 = kivo_tbl_zig_to_ras[p];
                const int w = k == 0 ? tbl_inv_mtf[r0] / 4096 : p <= 3 ? 1 : p <= 9 ? 2 : p <= 14 ? 4 : p <= 60 ? 6 : 7;
                const int v = static_cast<int16_t>(static_cast<int16_t>((sq[k][p] / minq + w) * 10.0) * f / 100.0);
                const int want = std::max({static_cast<int>(pq[r0]), sq[k][p], std::clamp(v, 1, 255)});
                EXPECT_EQ(r.qtbl[64 * k + r0], want) << "case " << n << " table " << k << " at " << p;
            }
        }
    }
}

TEST(OracleTranscode, SkipEncodeBadMemoryAndCorruptSources) {
    Bytes src = make_source(kSources[0], 64, 48, 90, 5), out;
    kivoe_create_param p{1, 0, 0, 0, 0, nullptr}, ep{1, 16, 16, 50, 11, nullptr};
    kivot_ctx *t = kivot_create(&p, nullptr);
    kivoe_ctx *enc = kivoe_create(&ep, nullptr);
    uint8_t q64[64];
    int32_t s64 = 64, four = 4, on = 1, ptr = static_cast<int32_t>(sizeof(void *));
    EXPECT_TRUE(kivot_config(t, KIVOT_CFG_GET_QTBL, q64, &s64) == KIVO_ERR_INVALID_ARG && kivot_config(t, 21006, q64, &four) == KIVO_ERR_UNSUPPORTED);
    EXPECT_EQ(code(nullptr, t, src, &out, 0), KIVO_ERR_INVALID_ARG);
    // Skip-encode writes nothing and keeps the decoded picture.
    kivot_config(t, KIVOT_CFG_SKIP_ENCODE, &on, &four);
    EXPECT_TRUE(code(nullptr, t, src, &out) == 0 && out.empty());
    kivod_progress pr{};
    EXPECT_TRUE(kivot_get_progress(t, &pr) == 0 && pr.complete && pr.mcu_rows == pr.mcu_rows_total);
    xelo_imgb *pic = nullptr;
    ASSERT_TRUE(kivot_config(t, KIVOT_CFG_GET_PICTURE, &pic, &ptr) == 0 && pic);
    const kivotest::Decoded d = kivotest::decode(src, 1);
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x) ASSERT_EQ(pic->plane[0][y * pic->stride[0] + x], d.planes[0].at(x, y));
    EXPECT_EQ(transcode(src, 0, false, -1, 1, XELO_CS_YUYV).status, KIVO_ERR_COLOR_FORMAT);  // planar layouts only
    // A source that ends early leaves mid-grey below its data, not what the
    // kept picture held.
    Bytes cut(src.begin(), src.begin() + src.size() * 2 / 3);
    EXPECT_EQ(code(nullptr, t, cut, &out), 0);
    ASSERT_EQ(kivot_config(t, KIVOT_CFG_GET_PICTURE, &pic, &ptr), 0);
    EXPECT_EQ(pic->plane[0][47 * pic->stride[0] + 63], 128);
    EXPECT_TRUE(kivot_get_progress(t, &pr) == 0 && !pr.complete && pr.mcu_rows > 0 && pr.mcu_rows < pr.mcu_rows_total);
    // The picture the pipeline decodes into (4608 bytes) counts against the
    // memory limit with the decoder's frame buffers (1536), which alone fit.
    const kivod_limits tight{0, 0, 4000, 0}, none{};
    EXPECT_EQ(kivotest::decode(src, 1, 0, 0, 0, 0, &tight).status, 0);
    EXPECT_TRUE(kivot_set_limits(t, &tight) == 0 && code(nullptr, t, src, &out) == KIVO_ERR_OUT_OF_MEMORY);
    kivot_set_limits(t, &none);
    src[0] = 0;  // a corrupt source gives the decoder's status
    EXPECT_EQ(code(nullptr, t, src, &out), KIVO_ERR_MALFORMED);
    // An encoder handle is not a transcoder, nor the other way round.
    EXPECT_EQ(code(nullptr, reinterpret_cast<kivot_ctx *>(enc), src, &out), KIVO_ERR_INVALID_ARG);
    EXPECT_EQ(kivoe_push(reinterpret_cast<kivoe_ctx *>(t), pic), KIVO_ERR_INVALID_ARG);
    EXPECT_TRUE(kivot_get_progress(reinterpret_cast<kivot_ctx *>(enc), &pr) == KIVO_ERR_INVALID_ARG &&
                kivot_get_progress(t, nullptr) == KIVO_ERR_INVALID_ARG);
    kivot_delete(reinterpret_cast<kivot_ctx *>(enc)), kivoe_delete(reinterpret_cast<kivoe_ctx *>(t));
    kivoe_delete(enc), kivot_delete(t);
}

// A trailer is copied in blocks: reading it through the caller's file
// interface costs a few calls, not one per byte.
int g_reads = 0;
int32_t (*g_read)(void *, void *, int32_t) = nullptr;

TEST(OracleTranscode, TrailerReadInBlocks) {
    const auto src = make_source(kSources[0], 96, 64, 90, 9);
    int reads[2] = {0, 0};
    for (int with : {0, 1}) {
        Bytes file(src);
        if (with) file.insert(file.end(), 1 << 20, 0x5C);
        const std::string path = ::testing::TempDir() + "kivo_trailer.jpg";
        FILE *f = std::fopen(path.c_str(), "wb");
        ASSERT_TRUE(f && std::fwrite(file.data(), 1, file.size(), f) == file.size() && std::fclose(f) == 0);
        kivo_mfal m{};
        ASSERT_EQ(kivo_mfal_file(&m, path.c_str()), 0);
        g_read = m.read;
        m.read = [](void *h, void *dst, int32_t n) { return ++g_reads, g_read(h, dst, n); };
        kivoe_create_param p{1, 0, 0, 0, 0, nullptr};
        kivot_ctx *t = kivot_create(&p, nullptr);
        kivod_input input{KIVOD_INPUT_MFAL, nullptr, &m};
        Bytes buf(file.size() * 2);
        xelo_bitb ob{};
        ob.addr = buf.data(), ob.ssize = static_cast<int32_t>(buf.size());
        kivoe_output output{KIVOD_INPUT_BITB, &ob, nullptr};
        int32_t written = g_reads = 0;
        ASSERT_EQ(kivot_txcode(t, &input, &output, &written), 0);
        reads[with] = g_reads;
        EXPECT_TRUE(!with || std::equal(file.end() - (1 << 20), file.end(), buf.begin() + written - (1 << 20)));
        kivot_delete(t), std::remove(path.c_str());
    }
    EXPECT_LT(reads[1] - reads[0], 64);
    // A file that cannot be opened gives -108 from every call, as from the decoder.
    kivo_mfal m{};
    kivo_mfal_file(&m, "/nonexistent/kivo.jpg");
    const kivod_input missing{KIVOD_INPUT_MFAL, nullptr, &m};
    Bytes buf(1024);
    xelo_bitb ob{};
    ob.addr = buf.data(), ob.ssize = static_cast<int32_t>(buf.size());
    const kivoe_output output{KIVOD_INPUT_BITB, &ob, nullptr};
    kivoe_create_param p{1, 0, 0, 0, 0, nullptr};
    kivot_ctx *t = kivot_create(&p, nullptr);
    int32_t written = 0;
    EXPECT_EQ(kivot_txcode(t, &missing, &output, &written), KIVO_ERR_OPEN);
    EXPECT_EQ(kivot_txcode_lossless(t, &missing, &output, &written, KIVOT_LOSSLESS_BASELINE), KIVO_ERR_OPEN);
    EXPECT_EQ(kivot_txcode_smallest(t, &missing, &output, &written, nullptr), KIVO_ERR_OPEN);
    kivot_delete(t);
    // A worker run the pool refuses fails the smallest-of call, as memory
    // that cannot be had does, rather than leaving candidates out.
    kivo_tpool refusing;
    kivo_tpool_std(&refusing, 2);
    refusing.run = [](void *, kivo_job_fn, void *) -> int32_t { return -55; };
    kivoe_create_param rp{1, 0, 0, 0, 0, &refusing};
    t = kivot_create(&rp, nullptr);
    const Bytes big = make_source(kSources[0], 512, 256, 98, 3);
    xelo_bitb ib{};
    ib.addr = const_cast<uint8_t *>(big.data()), ib.ssize = static_cast<int32_t>(big.size());
    const kivod_input in{KIVOD_INPUT_BITB, &ib, nullptr};
    buf.resize(big.size() * 2), ob.addr = buf.data(), ob.ssize = static_cast<int32_t>(buf.size());
    EXPECT_EQ(kivot_txcode_smallest(t, &in, &output, &written, nullptr), -55);
    kivot_delete(t);
}

// Histories of encoder and transcoder handles. Letters, in order:
//   f / b / c   push a flat picture, a busy one, the busy one through the copy path
//   x / w       refused pushes: a null luma plane at 2048 x 2048; width 70000, format 200
//   E / e       encode (E: the bytes must equal a fresh handle's given the same switches and picture)
//   1 2 3 g     transcode a colour source with one table, with two, with two whose luma
//               table is the second one defined, a grey source (always as a fresh handle would)
//   O J S R     optimised Huffman, JND filter, JND suppression, adaptive rounding on (lower case: off)
// A refused push changes nothing, an encode uses up its picture; every
// stream decodes with libjpeg-turbo without warning and follows its plan.
struct Handles {
    int32_t sw[4] = {0, 0, 0, 0};
    kivoe_create_param p{1, 64, 48, 90, XELO_CS_YCBCR420, nullptr}, tp{1, 0, 0, 0, 0, nullptr};
    kivoe_ctx *enc = kivoe_create(&p, nullptr);
    kivot_ctx *trc = kivot_create(&tp, nullptr);
    std::vector<std::shared_ptr<xelo_imgb>> pushed;  // alive until the handles go
    ~Handles() { kivoe_delete(enc), kivot_delete(trc); }
    void set(int k, int32_t on) {
        const int32_t ids[4] = {KIVOE_CFG_OPT_HUFFMAN, KIVOE_CFG_JND_FILTER, KIVOE_CFG_JND_SUPPRESS, KIVOE_CFG_ADAPTIVE_ROUNDING}, four = 4;
        sw[k] = on;
        kivoe_config(enc, ids[k], &on, &four);
        kivot_config(trc, ids[k], &on, &four);
    }
    int32_t push(char c) {
        const auto kind = c == 'f' ? testpic::Kind::Flat : testpic::Kind::Noise;
        xelo_imgb *img = kivotest::to_imgb(11, 96, 64, kivotest::make_picture(11, 96, 64, 7, kind), XELO_PAIR(c == 'c' ? 1 : 16, 16));
        pushed.emplace_back(img, [](xelo_imgb *i) { i->release(i); });
        if (c == 'x') img->width = img->height = 2048, img->plane[0] = nullptr;
        if (c == 'w') img->width = 70000, img->color_format = 200;
        return kivoe_push(enc, img);
    }
    int32_t code(const Bytes &src, Bytes *jpg) { return ::code(src.empty() ? enc : nullptr, trc, src, jpg); }
};

Bytes history_source(char c) {
    static const int8_t kSlots[3][3] = {{0, 0, 0}, {0, 1, 1}, {1, 0, 0}};
    uint8_t tables[128];
    for (int i = 0; i < 128; ++i) tables[i] = i < 64 ? (c == '1' ? 3 : 4) : 60;
    turbo::EncodeSpec e;
    e.width = 80, e.height = 56, e.n_comp = c == 'g' ? 1 : 3, e.h[0] = e.v[0] = c == 'g' ? 1 : 2;
    for (int k = 0; k < 3 && c != 'g'; ++k) e.qslot[k] = kSlots[c - '1'][k], e.tables = tables;
    return turbo::encode(e, turbo::make_planes(e, c));
}

TEST(OracleTranscode, HandleHistories) {
    for (const char *ops : {"fEE", "cfEE", "fxE", "wcE", "OfeobE", "RObeocrbe", "JSRbEfEjsrcE", "21", "3g", "O21o3",
                            "JSROg3jsro2", "fO1eo2bE"}) {
        Handles h;
        char last_push = 0;
        bool pushed = false;
        for (const char *op = ops; *op; ++op) {
            SCOPED_TRACE(testing::Message() << ops << " at " << op - ops);
            const char *sw = std::strchr("OJSR", *op), *off = std::strchr("ojsr", *op);
            if (sw || off) {
                h.set(static_cast<int>(sw ? sw - "OJSR" : off - "ojsr"), sw != nullptr);
                continue;
            }
            Bytes jpg, fresh, src;
            if (std::strchr("fbcxw", *op)) {
                ASSERT_EQ(h.push(*op), *op == 'x' || *op == 'w' ? KIVO_ERR_INVALID_ARG : 0);
                if (*op != 'x' && *op != 'w') last_push = *op, pushed = true;
                continue;
            }
            const bool encode = *op == 'E' || *op == 'e';
            if (!encode) src = history_source(*op);
            ASSERT_EQ(h.code(src, &jpg), encode && !pushed ? KIVO_ERR_UNAVAILABLE : 0);
            if (jpg.empty()) continue;
            if (*op != 'e') {
                Handles f;
                for (int i = 0; i < 4; ++i) f.set(i, h.sw[i]);
                EXPECT_TRUE((!encode || f.push(last_push) == 0) && f.code(src, &fresh) == 0 && jpg == fresh) << "not as a fresh handle";
            }
            pushed = pushed && !encode;
            if (!encode) {
                check_output(src, jpg, nullptr, 1, h.sw[0] != 0);
                continue;
            }
            std::vector<testpic::Plane> planes;
            int warnings = -1;
            EXPECT_TRUE(turbo::decode_raw(jpg, 1, &planes, &warnings) && warnings == 0);
            EXPECT_EQ(kivotest::check_stream(jpg, {11, 96, 64, 1, nullptr, false, {}, {}}), "");
        }
    }
}

}  // namespace
