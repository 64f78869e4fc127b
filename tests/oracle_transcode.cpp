// The transcoder on streams libjpeg-turbo makes: every output decodes with
// libjpeg-turbo, quantizers never finer than the source's, APPn segments
// and trailing bytes carried over, skip-encode, bad memory and corrupt
// sources.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "decoder/kivod_int.h"
#include "kivot.h"
#include "oracle_support/turbo.h"
#include "support/kivo_decode.h"
#include "support/kivo_encode.h"

namespace {

// Encodes (enc) or transcodes src (trc) into memory of out_size bytes (-1:
// plenty); the written bytes go to *jpg.
int32_t code(kivoe_ctx *enc, kivot_ctx *trc, const std::vector<uint8_t> &src, std::vector<uint8_t> *jpg,
             int32_t out_size = -1) {
    std::vector<uint8_t> in(src), buf(out_size < 0 ? src.size() * 3 + 65536 : out_size + 1);
    xelo_bitb ib{}, ob{};
    ib.addr = in.data();
    ib.ssize = static_cast<int32_t>(in.size());
    ob.addr = buf.data();
    ob.ssize = out_size < 0 ? static_cast<int32_t>(buf.size()) : out_size;
    kivod_input input{KIVOD_INPUT_BITB, &ib, nullptr};
    kivoe_output output{KIVOD_INPUT_BITB, &ob, nullptr};
    int32_t written = 0;
    const int32_t status = enc ? kivoe_encode(enc, &output, &written) : kivot_txcode(trc, &input, &output, &written);
    jpg->assign(buf.begin(), buf.begin() + (status == 0 ? written : 0));
    return status;
}

struct Result {
    int32_t status = 0;
    std::vector<uint8_t> out;
    uint8_t qtbl[128];
};

Result transcode(const std::vector<uint8_t> &src, int quality = 0, bool optimize = false, int32_t out_size = -1,
                 int threads = 1, int32_t color_format = 0, int w = 0, int h = 0) {
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
    kivot_delete(t);
    return r;
}

// The quantizers of the frame's first two components (zig-zag order), as
// our decoder reads them; false for a progressive frame.
bool sequential_tables(const std::vector<uint8_t> &jpg, uint16_t q[2][64]) {
    kivod_ctx *d = kivod_create(nullptr, nullptr);
    std::vector<uint8_t> in(jpg);
    xelo_bitb b{};
    b.addr = in.data();
    b.ssize = static_cast<int32_t>(in.size());
    kivod_input input{KIVOD_INPUT_BITB, &b, nullptr};
    kivod_frame_info info{};
    EXPECT_EQ(kivod_decode(d, &input, &info), 0);
    for (int k = 0; k < 2; ++k) {
        const int id = d->fh.tq[d->fh.n_comp > 1 ? k : 0] & 3;
        for (int z = 0; z < 64; ++z) q[k][z] = d->progressive ? d->qtbl[id].q[kivo_tbl_zig_to_ras[z]] : d->qtbl[id].q[z];
    }
    const bool sequential = !d->progressive;
    kivod_delete(d);
    return sequential;
}

// The output decodes with libjpeg-turbo without warning, and no quantizer of
// its first `tables` components is finer than the source's.
void check_output(const std::vector<uint8_t> &src, const std::vector<uint8_t> &out, int tables) {
    std::vector<testpic::Plane> planes;
    int warnings = -1;
    std::string err;
    ASSERT_TRUE(turbo::decode_raw(out, 1, &planes, &warnings, &err)) << err;
    EXPECT_EQ(warnings, 0);
    uint16_t sq[2][64], oq[2][64];
    sequential_tables(src, sq);
    EXPECT_TRUE(sequential_tables(out, oq));
    for (int k = 0; k < tables; ++k)
        for (int z = 0; z < 64; ++z) EXPECT_GE(oq[k][z], sq[k][z]) << "table " << k << " at " << z;
}

const struct Source {
    const char *name;
    int n_comp, h0, v0;
    bool progressive;
} kSources[] = {
    {"420", 3, 2, 2, false},  {"444", 3, 1, 1, false},  {"grey", 1, 1, 1, false},  {"k420", 4, 2, 2, false},
    {"420 progressive", 3, 2, 2, true},  {"422", 3, 2, 1, false},  {"440", 3, 1, 2, false},  {"411", 3, 4, 1, false},
    {"k422", 4, 2, 1, false},  {"k444", 4, 1, 1, false},  {"grey progressive", 1, 1, 1, true},
    {"k420 progressive", 4, 2, 2, true},
};

std::vector<uint8_t> make_source(const Source &s, int w, int h, int quality, uint64_t seed) {
    turbo::EncodeSpec e;
    e.width = w, e.height = h, e.n_comp = s.n_comp, e.quality = quality, e.progressive = s.progressive;
    e.h[0] = e.h[3] = s.n_comp == 1 ? 1 : s.h0;
    e.v[0] = e.v[3] = s.n_comp == 1 ? 1 : s.v0;
    return turbo::encode(e, turbo::make_planes(e, seed));
}

TEST(OracleTranscode, OutputsDecodeAndNeverRefine) {
    int idx = 0;
    for (const Source &s : kSources)
        for (bool optimize : {false, true}) {
            SCOPED_TRACE(s.name);
            ++idx;
            const auto src = make_source(s, 203 + idx, 131, 95, idx);
            const Result r = transcode(src, idx % 3 ? 0 : 80, optimize, -1, 1 + idx % 3);
            ASSERT_EQ(r.status, 0);
            EXPECT_LT(r.out.size(), src.size());
            check_output(src, r.out, s.n_comp > 1 ? 2 : 1);
            // A grey source has one table: it floors both output tables.
            uint16_t sq[2][64];
            sequential_tables(src, sq);
            for (int z = 0; s.n_comp == 1 && z < 64; ++z) EXPECT_GE(r.qtbl[64 + kivo_tbl_zig_to_ras[z]], sq[0][z]) << z;
        }
}

// Quality 100 over a source whose tables are all 1: each quantizer is the
// larger of floor((1 + weight) / 2) and the perceptual one from the
// decoded picture's statistics.
TEST(OracleTranscode, AllOneSourceAtQualityHundred) {
    const auto src = make_source(kSources[0], 160, 120, 100, 3);
    const Result r = transcode(src, 100);
    ASSERT_EQ(r.status, 0);
    const kivotest::Decoded dec = kivotest::decode(src, 1);
    ASSERT_EQ(dec.status, 0);
    uint32_t stat[2][64];
    for (int i = 0; i < 64; ++i) {
        stat[0][i] = static_cast<uint32_t>(dec.stats.stat_luma[i] / dec.stats.n_luma);
        stat[1][i] = static_cast<uint32_t>(dec.stats.stat_chroma[i] / dec.stats.n_chroma);
    }
    const int32_t base = tbl_thr[std::min<uint32_t>(stat[0][0], 255)];
    for (int k = 0; k < 2; ++k) {
        int16_t pq[64];
        uint16_t recip[64], half[64];
        kivo_gen_qtbl(pq, recip, half, stat[k], base);
        for (int i = 0; i < 64; ++i) {
            // Luma weights: tbl_inv_mtf / 4096; chroma by zig-zag band.
            const int z = kivo_tbl_ras_to_zig[i];
            const int w = k == 0 ? tbl_inv_mtf[i] / 4096 : z <= 3 ? 1 : z <= 9 ? 2 : z <= 14 ? 4 : z <= 60 ? 6 : 7;
            EXPECT_EQ(r.qtbl[64 * k + i], std::max<int>((1 + w) / 2, pq[i])) << "table " << k << " at " << i;
        }
    }
}

std::vector<uint8_t> segment(uint8_t marker, const std::string &payload) {
    const size_t len = payload.size() + 2;
    const std::string s = std::string{'\xFF', char(marker), char(len >> 8), char(len)} + payload;
    return std::vector<uint8_t>(s.begin(), s.end());
}

TEST(OracleTranscode, AppSegmentsAndTrailerCarriedOver) {
    const auto base = make_source(kSources[0], 120, 80, 95, 4);
    // EXIF, an ICC profile in three APP2 segments and XMP before the
    // picture's own JFIF APP0; a fill byte before EOI, 16 bytes after it.
    std::vector<std::vector<uint8_t>> apps = {
        segment(0xE1, std::string("Exif\0\0", 6) + std::string(300, '\x11')),
        segment(0xE2, std::string("ICC_PROFILE\0\x01\x03", 14) + std::string(200, '\x22')),
        segment(0xE2, std::string("ICC_PROFILE\0\x02\x03", 14) + std::string(200, '\x33')),
        segment(0xE2, std::string("ICC_PROFILE\0\x03\x03", 14) + std::string(50, '\x44')),
        segment(0xE1, std::string("http://ns.adobe.com/xap/1.0/\0<x:xmpmeta/>", 41)),
        std::vector<uint8_t>(base.begin() + 2, base.begin() + 4 + ((base[4] << 8) | base[5])),
    };
    std::vector<uint8_t> src(base.begin(), base.begin() + 2);
    for (const auto &a : apps) src.insert(src.end(), a.begin(), a.end());
    src.insert(src.end(), base.begin() + 2 + apps.back().size(), base.end());
    const std::vector<uint8_t> trailer = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xFF, 0xD9, 13, 14, 15, 16};
    ASSERT_EQ(src[src.size() - 2], 0xFF);
    src.insert(src.end() - 2, 0xFF);
    src.insert(src.end(), trailer.begin(), trailer.end());

    const Result r = transcode(src, 0, true);
    ASSERT_EQ(r.status, 0);
    // SOI, the source's APPn segments in order byte for byte, then SOF0; the
    // trailer follows the new EOI unchanged.
    size_t at = 2;
    for (const auto &a : apps) {
        ASSERT_LE(at + a.size(), r.out.size());
        EXPECT_TRUE(std::equal(a.begin(), a.end(), r.out.begin() + at)) << "segment at " << at;
        at += a.size();
    }
    EXPECT_TRUE(r.out[at] == 0xFF && r.out[at + 1] == 0xC0);
    ASSERT_GE(r.out.size(), trailer.size() + 2);
    EXPECT_TRUE(std::equal(trailer.begin(), trailer.end(), r.out.end() - trailer.size()));
    EXPECT_TRUE(r.out[r.out.size() - trailer.size() - 2] == 0xFF && r.out[r.out.size() - trailer.size() - 1] == 0xD9);
    // Output memory that holds the stream but not the whole trailer: a
    // status, and (under ASan) nothing past its end.
    EXPECT_LT(transcode(src, 0, true, static_cast<int32_t>(r.out.size()) - 5).status, 0);
}

// Output size and colour format overrides; packed pairs are a decode-only
// output, the encoder takes planar layouts.
TEST(OracleTranscode, Overrides) {
    const auto src = make_source(kSources[1], 320, 240, 95, 8);
    const Result small = transcode(src, 0, false, -1, 2, 0, 160, 120);
    const kivotest::Decoded d = kivotest::decode(small.out, 1);
    EXPECT_TRUE(small.status == 0 && d.status == 0 && d.width == 160 && d.height == 120);
    const Result sub = transcode(src, 0, false, -1, 1, XELO_CS_YCBCR420);
    ASSERT_EQ(sub.status, 0);
    EXPECT_EQ(kivotest::decode(sub.out, 1).color_format, XELO_CS_YCBCR420);
    EXPECT_EQ(transcode(src, 0, false, -1, 1, XELO_CS_YUYV).status, KIVO_ERR_COLOR_FORMAT);
}

TEST(OracleTranscode, SkipEncodeBadMemoryAndCorruptSources) {
    auto src = make_source(kSources[0], 64, 48, 90, 5);
    kivoe_create_param p{1, 0, 0, 0, 0, nullptr};
    kivot_ctx *t = kivot_create(&p, nullptr);
    ASSERT_NE(t, nullptr);
    uint8_t q64[64];
    int32_t s64 = 64, four = 4, on = 1, ptr = static_cast<int32_t>(sizeof(void *));
    EXPECT_EQ(kivot_config(t, KIVOT_CFG_GET_QTBL, q64, &s64), KIVO_ERR_INVALID_ARG);
    EXPECT_EQ(kivot_config(t, 21006, q64, &four), KIVO_ERR_UNSUPPORTED);
    std::vector<uint8_t> out;
    EXPECT_EQ(code(nullptr, t, src, &out, 0), KIVO_ERR_INVALID_ARG);
    // Skip-encode writes nothing and keeps the decoded picture.
    kivot_config(t, KIVOT_CFG_SKIP_ENCODE, &on, &four);
    EXPECT_EQ(code(nullptr, t, src, &out), 0);
    EXPECT_TRUE(out.empty());
    xelo_imgb *pic = nullptr;
    ASSERT_EQ(kivot_config(t, KIVOT_CFG_GET_PICTURE, &pic, &ptr), 0);
    ASSERT_NE(pic, nullptr);
    const kivotest::Decoded d = kivotest::decode(src, 1);
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x) ASSERT_EQ(pic->plane[0][y * pic->stride[0] + x], d.planes[0].at(x, y));
    // A source that ends early leaves mid-grey below its data, not what the
    // kept picture held.
    std::vector<uint8_t> cut(src.begin(), src.begin() + src.size() * 2 / 3);
    EXPECT_EQ(code(nullptr, t, cut, &out), 0);
    ASSERT_EQ(kivot_config(t, KIVOT_CFG_GET_PICTURE, &pic, &ptr), 0);
    EXPECT_EQ(pic->plane[0][47 * pic->stride[0] + 63], 128);
    src[0] = 0;  // a corrupt source gives the decoder's status
    EXPECT_EQ(code(nullptr, t, src, &out), KIVO_ERR_MALFORMED);
    // An encoder handle is not a transcoder, nor the other way round.
    kivoe_create_param ep{1, 16, 16, 50, 11, nullptr};
    kivoe_ctx *enc = kivoe_create(&ep, nullptr);
    EXPECT_EQ(code(nullptr, reinterpret_cast<kivot_ctx *>(enc), src, &out), KIVO_ERR_INVALID_ARG);
    EXPECT_EQ(kivoe_push(reinterpret_cast<kivoe_ctx *>(t), pic), KIVO_ERR_INVALID_ARG);
    kivot_delete(reinterpret_cast<kivot_ctx *>(enc));
    kivoe_delete(reinterpret_cast<kivoe_ctx *>(t));
    kivoe_delete(enc);
    kivot_delete(t);
}

// A trailer is copied in blocks: reading it through the caller's file
// interface costs a few calls, not one per byte.
int g_reads = 0;
int32_t (*g_read)(void *, void *, int32_t) = nullptr;

TEST(OracleTranscode, TrailerReadInBlocks) {
    const auto src = make_source(kSources[0], 96, 64, 90, 9);
    int reads[2] = {0, 0};
    for (int with : {0, 1}) {
        std::vector<uint8_t> file(src);
        if (with) file.insert(file.end(), 1 << 20, 0x5C);
        const std::string path = ::testing::TempDir() + "kivo_trailer.jpg";
        FILE *f = std::fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        std::fwrite(file.data(), 1, file.size(), f);
        std::fclose(f);
        kivo_mfal m{};
        ASSERT_EQ(kivo_mfal_file(&m, path.c_str()), 0);
        g_read = m.read;
        m.read = [](void *h, void *dst, int32_t n) { return ++g_reads, g_read(h, dst, n); };
        kivoe_create_param p{1, 0, 0, 0, 0, nullptr};
        kivot_ctx *t = kivot_create(&p, nullptr);
        kivod_input input{KIVOD_INPUT_MFAL, nullptr, &m};
        std::vector<uint8_t> buf(file.size() * 2);
        xelo_bitb ob{};
        ob.addr = buf.data();
        ob.ssize = static_cast<int32_t>(buf.size());
        kivoe_output output{KIVOD_INPUT_BITB, &ob, nullptr};
        int32_t written = 0;
        g_reads = 0;
        ASSERT_EQ(kivot_txcode(t, &input, &output, &written), 0);
        reads[with] = g_reads;
        EXPECT_TRUE(!with || std::equal(file.end() - (1 << 20), file.end(), buf.begin() + written - (1 << 20)));
        kivot_delete(t);
        std::remove(path.c_str());
    }
    EXPECT_LT(reads[1] - reads[0], 64);
}

// Histories of encoder and transcoder handles. Letters, in order:
//   f / b / c   push a flat picture, a busy one, the busy one through the copy path
//   x / w       refused pushes: a null luma plane at 2048 x 2048; width 70000, format 200
//   E / e       encode (E: the bytes must equal a fresh handle's given the same switches and picture)
//   1 2 3 g     transcode a colour source with one table, with two, with two whose luma
//               table is the second one defined, a grey source (always as a fresh handle would)
//   O J S R     optimised Huffman, JND filter, JND suppression, adaptive rounding on (lower case: off)
// Every stream must decode with libjpeg-turbo without warning; a transcoded
// one never has a quantizer finer than the source's for the same component.
struct Handles {
    int32_t sw[4] = {0, 0, 0, 0};
    kivoe_ctx *enc;
    kivot_ctx *trc;
    std::vector<std::shared_ptr<xelo_imgb>> pushed;  // alive until the handles go
    Handles() {
        kivoe_create_param p{1, 64, 48, 90, XELO_CS_YCBCR420, nullptr}, tp{1, 0, 0, 0, 0, nullptr};
        enc = kivoe_create(&p, nullptr);
        trc = kivot_create(&tp, nullptr);
    }
    ~Handles() {
        kivoe_delete(enc);
        kivot_delete(trc);
    }
    void set(int k, int32_t on) {
        const int32_t ids[4] = {KIVOE_CFG_OPT_HUFFMAN, KIVOE_CFG_JND_FILTER, KIVOE_CFG_JND_SUPPRESS,
                                KIVOE_CFG_ADAPTIVE_ROUNDING};
        const int32_t four = 4;
        sw[k] = on;
        kivoe_config(enc, ids[k], &on, &four);
        kivot_config(trc, ids[k], &on, &four);
    }
    int32_t push(char c) {
        const auto kind = c == 'f' ? testpic::Kind::Flat : testpic::Kind::Noise;
        xelo_imgb *img = kivotest::to_imgb(11, 96, 64, kivotest::make_picture(11, 96, 64, 7, kind), c == 'c');
        pushed.emplace_back(img, [](xelo_imgb *i) { i->release(i); });
        if (c == 'x') {
            img->width = img->height = 2048;
            img->plane[0] = nullptr;
        } else if (c == 'w') {
            img->width = 70000;
            img->color_format = 200;
        }
        return kivoe_push(enc, img);
    }
    int32_t code(const std::vector<uint8_t> &src, std::vector<uint8_t> *jpg) {
        return ::code(src.empty() ? enc : nullptr, trc, src, jpg);
    }
};

std::vector<uint8_t> history_source(char c) {
    static const int8_t kSlots[3][3] = {{0, 0, 0}, {0, 1, 1}, {1, 0, 0}};
    uint8_t tables[128];
    for (int i = 0; i < 128; ++i) tables[i] = i < 64 ? (c == '1' ? 3 : 4) : 60;
    turbo::EncodeSpec e;
    e.width = 80, e.height = 56, e.n_comp = c == 'g' ? 1 : 3;
    e.h[0] = e.v[0] = c == 'g' ? 1 : 2;
    if (c != 'g') {
        e.tables = tables;
        for (int k = 0; k < 3; ++k) e.qslot[k] = kSlots[c - '1'][k];
    }
    return turbo::encode(e, turbo::make_planes(e, c));
}

TEST(OracleTranscode, HandleHistories) {
    const int32_t kNone = KIVO_ERR_UNAVAILABLE, kBad = KIVO_ERR_INVALID_ARG;
    const struct {
        const char *ops;
        std::vector<int32_t> status;  // one per push, encode and transcode
    } cases[] = {
        {"fEE", {0, 0, kNone}},                     // an encode uses up its picture, whichever path
        {"cfEE", {0, 0, 0, kNone}},
        {"fxE", {0, kBad, 0}},                      // a refused push changes nothing
        {"wcE", {kBad, 0, 0}},
        {"OfeobE", {0, 0, 0, 0}},                   // optimised tables that miss symbols are not kept
        {"RObeocrbe", {0, 0, 0, 0, 0}},
        {"JSRbEfEjsrcE", {0, 0, 0, 0, 0, 0}},
        {"21", {0, 0}},                             // tables of one source do not floor the next
        {"3g", {0, 0}},
        {"O21o3", {0, 0, 0}},                       // optimised tables from the picture only
        {"JSROg3jsro2", {0, 0, 0}},
        {"fO1eo2bE", {0, 0, 0, 0, 0, 0}},
    };
    for (const auto &c : cases) {
        Handles h;
        size_t k = 0;
        char last_push = 0;
        for (const char *op = c.ops; *op; ++op) {
            SCOPED_TRACE(testing::Message() << c.ops << " at " << op - c.ops);
            const char *sw = std::strchr("OJSR", *op), *off = std::strchr("ojsr", *op);
            if (sw || off) {
                h.set(static_cast<int>(sw ? sw - "OJSR" : off - "ojsr"), sw != nullptr);
                continue;
            }
            ASSERT_LT(k, c.status.size());
            const int32_t want = c.status[k++];
            std::vector<uint8_t> jpg, fresh, src;
            int32_t got;
            if (std::strchr("fbcxw", *op)) {
                got = h.push(*op);
                if (got == 0) last_push = *op;
            } else {
                if (*op != 'E' && *op != 'e') src = history_source(*op);
                got = h.code(src, &jpg);
                if (got == 0 && *op != 'e') {
                    Handles f;
                    for (int i = 0; i < 4; ++i) f.set(i, h.sw[i]);
                    ASSERT_TRUE(!src.empty() || f.push(last_push) == 0);
                    ASSERT_EQ(f.code(src, &fresh), 0);
                    EXPECT_EQ(jpg, fresh);
                }
            }
            ASSERT_EQ(got, want);
            if (src.empty() && !jpg.empty()) {
                std::vector<testpic::Plane> planes;
                int warnings = -1;
                ASSERT_TRUE(turbo::decode_raw(jpg, 1, &planes, &warnings));
                EXPECT_EQ(warnings, 0);
            } else if (!jpg.empty()) {
                check_output(src, jpg, *op == 'g' ? 1 : 2);
            }
        }
        EXPECT_EQ(k, c.status.size());
    }
}

}  // namespace
