#include "support/kivo_encode.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kivotest {

std::vector<testpic::Plane> make_picture(int32_t cs, int w, int h, uint64_t seed, testpic::Kind kind) {
    int32_t pw[4], ph[4], np = 0;
    std::vector<testpic::Plane> planes;
    if (xelo_cs_planes(cs, w, h, pw, ph, &np) != 0) return planes;
    for (int p = 0; p < 4; ++p)
        if (pw[p] > 0) planes.push_back(testpic::make_plane(pw[p], ph[p], seed, p, kind));
    return planes;
}

xelo_imgb *to_imgb(int32_t cs, int w, int h, const std::vector<testpic::Plane> &planes, uint32_t a, const uint32_t *pad) {
    const uint32_t align[4] = {a, a, a, a}, none[4] = {0, 0, 0, 0};
    xelo_imgb *img = xelo_imgb_create(w, h, cs, 3, align, pad ? pad : none, 0, 0, 0);
    for (size_t p = 0, i = 0; img && p < 4 && i < planes.size(); ++p) {
        if (!img->plane[p]) continue;
        const testpic::Plane &pl = planes[i++];
        for (int y = 0; y < pl.h; ++y)
            std::memcpy(img->plane[p] + static_cast<ptrdiff_t>(y) * img->stride[p], &pl.px[static_cast<size_t>(y) * pl.w], pl.w);
    }
    return img;
}

Encoded encode(int32_t cs, int w, int h, const std::vector<testpic::Plane> &planes, const EncodeOptions &o) {
    Encoded r;
    kivo_tpool pool;
    kivo_tpool_std(&pool, o.threads);
    kivoe_create_param cp{1, w, h, o.quality, cs, &pool};
    kivoe_ctx *enc = kivoe_create(&cp, &r.status);
    if (!enc) return r;
    const int32_t four = 4, size = 128;
    const int32_t flags[4] = {o.optimize, o.jnd_filter, o.jnd_suppress, o.adaptive_rounding};
    const int32_t ids[4] = {KIVOE_CFG_OPT_HUFFMAN, KIVOE_CFG_JND_FILTER, KIVOE_CFG_JND_SUPPRESS, KIVOE_CFG_ADAPTIVE_ROUNDING};
    for (int i = 0; i < 4; ++i) kivoe_config(enc, ids[i], &flags[i], &four);
    kivoe_set_progressive(enc, o.progressive);
    quality_tables(o.quality, r.q);
    if (o.qtables) kivoe_config(enc, KIVOE_CFG_QTBL, o.qtables, &size), std::memcpy(r.q, o.qtables, 128);
    xelo_imgb *img = to_imgb(cs, w, h, planes, o.copy_path ? XELO_PAIR(1, 1) : XELO_PAIR(16, 16));
    r.status = img ? kivoe_push(enc, img) : KIVO_ERR_IMGB;
    // A picture without a whole analysis block keeps its tables.
    if (r.status == 0 && o.perceptual_level >= 0 && (r.status = kivoe_get_qtbl(enc, o.perceptual_level, r.q)) == KIVO_ERR_UNAVAILABLE)
        r.status = 0;
    if (r.status == 0) {
        // Exactly sized, so that a write past the end is caught by ASan.
        Bytes buf(o.out_size ? o.out_size : static_cast<size_t>(w) * h * 12 + 4096);
        xelo_bitb bitb{};
        bitb.addr = buf.data(), bitb.ssize = static_cast<int32_t>(buf.size());
        kivoe_output out{KIVOD_INPUT_BITB, &bitb, nullptr};
        int32_t written = 0;
        r.status = kivoe_encode(enc, &out, &written);
        if (r.status == 0) r.jpg.assign(buf.begin(), buf.begin() + written);
    }
    if (img) img->release(img);
    return kivoe_delete(enc), r;
}

double psnr(const std::vector<testpic::Plane> &a, const std::vector<testpic::Plane> &b) {
    double se = 0;
    long n = 0;
    for (size_t p = 0; p < a.size() && p < b.size(); ++p)
        for (int y = 0; y < std::min(a[p].h, b[p].h); ++y)
            for (int x = 0; x < std::min(a[p].w, b[p].w); ++x, ++n) se += std::pow(a[p].at(x, y) - b[p].at(x, y), 2);
    return n == 0 ? 0 : se == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * n / se);
}

void quality_tables(int quality, uint8_t q[128]) {
    const int scale = quality ? 100 - quality : 10;
    for (int i = 0; i < 128; ++i) {
        const int d = i % 64 / 8 + i % 8, base = i < 64 ? 10 * (d + 1) : d == 0 ? 10 : d == 1 ? 30 : 20 * d + 20;
        const int v = static_cast<int>(scale * base / 100.0);
        q[i] = static_cast<uint8_t>(v < 1 ? 1 : v > 255 ? 255 : v);
    }
}

bool stream_tables(const Bytes &s, int q[2][64]) {
    int tables[4][64] = {}, sel[2] = {-1, -1};
    for (size_t i = 2; i + 4 <= s.size() && s[i] == 0xFF;) {
        const size_t end = i + 2 + (s[i + 2] << 8 | s[i + 3]);
        if (s[i + 1] == 0xDA || end > s.size()) break;
        for (size_t j = i + 4; s[i + 1] == 0xDB && j < end; j += 1 + 64 * (1 + (s[j] >> 4)))
            for (int k = 0; k < 64; ++k) tables[s[j] & 3][k] = s[j] >> 4 ? s[j + 1 + 2 * k] << 8 | s[j + 2 + 2 * k] : s[j + 1 + k];
        for (int c = 0; c < 2 && s[i + 1] >= 0xC0 && s[i + 1] <= 0xC2; ++c) sel[c] = s[i + 12 + 3 * (c < s[i + 9] ? c : 0)] & 3;
        i = end;
    }
    for (int c = 0; c < 2 && sel[0] >= 0; ++c) std::memcpy(q[c], tables[sel[c]], sizeof(q[c]));
    return sel[0] >= 0;
}

std::string check_stream(const Bytes &s, const Plan &p) {
    // Components, and the sampling of the first (and fourth) by format;
    // chroma is 1x1, in format 40 declared with 0x0.
    static const struct { int32_t cs; int n, h, v; } kFormats[] = {
        {10, 1, 1, 1}, {11, 3, 2, 2}, {12, 3, 2, 1}, {13, 3, 1, 1}, {18, 3, 1, 2}, {22, 3, 4, 1},
        {40, 4, 1, 1}, {41, 4, 2, 2}, {42, 4, 2, 1}, {43, 4, 1, 1}, {44, 4, 1, 2}};
    // BITS of the typical tables: luma DC, luma AC, chroma DC, chroma AC.
    static const uint8_t kBits[4][16] = {{0, 1, 5, 1, 1, 1, 1, 1, 1}, {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7D},
                                         {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1}, {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77}};
    const auto *f = std::find_if(std::begin(kFormats), std::end(kFormats), [&](const auto &x) { return x.cs == p.cs; });
    if (f == std::end(kFormats)) return "no plan for format " + std::to_string(p.cs);
    const int n = f->n;
    Bytes want = {0xFF, 0xD8};
    want.insert(want.end(), p.apps.begin(), p.apps.end());
    want.insert(want.end(), {0xFF, 0xC0, 0, uint8_t(8 + 3 * n), 8, uint8_t(p.h >> 8), uint8_t(p.h), uint8_t(p.w >> 8),
                             uint8_t(p.w), uint8_t(n)});
    for (int c = 0; c < n; ++c)
        want.insert(want.end(), {uint8_t(c + 1), uint8_t(c != 1 && c != 2 ? f->h << 4 | f->v : p.cs == 40 ? 0 : 0x11), uint8_t(c == 1 || c == 2)});
    want.insert(want.end(), {0xFF, 0xDB, 0, 0x84});
    int zz[64], k = 0;  // raster position of each zig-zag position: the anti-diagonals, alternating
    for (int d = 0; d < 15; ++d)
        for (int i = 0, r; i <= d; ++i)
            if ((r = d % 2 ? i : d - i) < 8 && d - r < 8) zz[k++] = 8 * r + d - r;
    for (int t = 0; t < 2; ++t) {
        want.push_back(uint8_t(t));
        for (int z = 0; z < 64; ++z) want.push_back(p.q ? p.q[64 * t + zz[z]] : want.size() < s.size() ? s[want.size()] : 0);
    }
    const size_t dht = want.size();
    const auto diff = std::mismatch(want.begin(), want.end(), s.begin(), s.begin() + std::min(s.size(), dht));
    if (diff.first != want.end()) return "header differs at byte " + std::to_string(diff.first - want.begin());
    if (s.size() < dht + 4 || s[dht] != 0xFF || s[dht + 1] != 0xC4) return "no DHT after DQT";
    size_t at = dht + 4;
    for (int t = 0; t < 4; ++t, at += 17) {
        int count = 0;
        for (int l = 0; l < 16 && at + 17 < s.size(); ++l) count += s[at + 1 + l];
        if (at + 17 >= s.size() || s[at] != (t % 2 * 16 + t / 2)) return "DHT table " + std::to_string(t) + " misplaced";
        if (p.typical && !std::equal(kBits[t], kBits[t] + 16, s.begin() + at + 1)) return "DHT table not typical";
        at += count;
    }
    if (at != dht + 2 + (s[dht + 2] << 8 | s[dht + 3])) return "DHT length differs from its tables";
    // The segment plan: one segment per thread of whole restart intervals,
    // no more segments than it takes to cover the MCUs, none with one.
    const int64_t across = (p.w + 8 * f->h - 1) / (8 * f->h), total = across * ((p.h + 8 * f->v - 1) / (8 * f->v));
    int64_t segs = std::min<int64_t>(total, p.threads), ri = (total + segs / 2) / segs, mult = 1;
    for (; ri > 65535; mult *= 2) ri /= 2;
    segs = std::min(segs, (total + mult * ri - 1) / (mult * ri));
    if (segs == 1) ri = 0;
    Bytes markers, tail;
    for (int64_t i = 0; i < segs && ri; ++i)
        for (int64_t m = 0; m < (i < segs - 1 ? mult * ri : total - (segs - 1) * mult * ri) / ri; ++m)
            markers.push_back(uint8_t(0xD0 + (i * mult + m) % 8));
    if (ri) tail = {0xFF, 0xDD, 0, 4, uint8_t(ri >> 8), uint8_t(ri)};
    tail.insert(tail.end(), {0xFF, 0xDA, 0, uint8_t(6 + 2 * n), uint8_t(n)});
    for (int c = 0; c < n; ++c) tail.insert(tail.end(), {uint8_t(c + 1), uint8_t(c == 1 || c == 2 ? 0x11 : 0)});
    tail.insert(tail.end(), {0, 0x3F, 0});
    if (s.size() < at + tail.size() || !std::equal(tail.begin(), tail.end(), s.begin() + at)) return "DRI or SOS differs";
    Bytes got;
    bool last = false;  // a marker directly before EOI
    for (at += tail.size(); at + 1 < s.size() && !(s[at] == 0xFF && s[at + 1] == 0xD9); ++at) {
        if (s[at] != 0xFF || s[++at] == 0) continue;
        if (s[at] < 0xD0 || s[at] > 0xD7) return "marker " + std::to_string(s[at]) + " in the data";
        got.push_back(s[at]);
        last = at + 2 < s.size() && s[at + 1] == 0xFF && s[at + 2] == 0xD9;
    }
    if (at + 1 >= s.size()) return "no EOI";
    if (got != markers) return "RSTn markers: " + std::to_string(got.size()) + " not as planned (" + std::to_string(markers.size()) + ")";
    if (last != (ri && (total - (segs - 1) * mult * ri) % ri == 0)) return "last RSTn misplaced";
    if (Bytes(s.begin() + at + 2, s.end()) != p.trailer) return "trailer differs";
    return "";
}

}  // namespace kivotest
