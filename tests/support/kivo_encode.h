// Encoding through the public API, and the structure of our streams.
#ifndef KIVO_TESTS_KIVO_ENCODE_H
#define KIVO_TESTS_KIVO_ENCODE_H

#include <cstdint>
#include <string>
#include <vector>

#include "kivoe.h"
#include "support/pictures.h"

namespace kivotest {

using Bytes = std::vector<uint8_t>;

struct EncodeOptions {
    int quality = 90, threads = 1;
    bool optimize = false, jnd_filter = false, jnd_suppress = false, adaptive_rounding = false;
    int perceptual_level = -1;         // >= 0: tables from kivoe_get_qtbl
    const uint8_t *qtables = nullptr;  // 128 bytes for KIVOE_CFG_QTBL
    size_t out_size = 0;               // 0: enough for any stream
    bool copy_path = false;            // planes with unaligned line distances: copied at push
    bool progressive = false;          // kivoe_set_progressive
};

// q: the quantizers coded with (raster, luma then chroma).
struct Encoded { int32_t status = 0; Bytes jpg; uint8_t q[128] = {}; };

// Planes of a picture of colour format cs, each at its own size.
std::vector<testpic::Plane> make_picture(int32_t cs, int w, int h, uint64_t seed,
                                         testpic::Kind kind = testpic::Kind::Natural);
// An image buffer holding the planes, line distances and counts aligned as
// `align` says (an XELO_PAIR), with margins `pad` (four pairs) if given.
xelo_imgb *to_imgb(int32_t cs, int w, int h, const std::vector<testpic::Plane> &planes,
                   uint32_t align = XELO_PAIR(16, 16), const uint32_t *pad = nullptr);
Encoded encode(int32_t cs, int w, int h, const std::vector<testpic::Plane> &planes, const EncodeOptions &o);
// PSNR of b against a over all samples of all planes (99 when equal).
double psnr(const std::vector<testpic::Plane> &a, const std::vector<testpic::Plane> &b);
// Quantizers of a quality, raster order, luma then chroma.
void quality_tables(int quality, uint8_t q[128]);
// Quantizers (zig-zag order) of a stream's first two components (the first
// twice for a single component); false when none is found.
bool stream_tables(const Bytes &jpg, int q[2][64]);

// What a stream of ours must hold for its inputs.
struct Plan {
    int32_t cs, w, h, threads;
    const uint8_t *q = nullptr;  // 128 quantizers the DQT carries (raster); null: not checked
    bool typical = true;         // the DHT holds the typical tables
    Bytes apps, trailer;         // APPn segments after SOI, bytes after EOI
};
// "" when jpg is SOI, the APPn segments, SOF0, DQT, DHT, DRI (when the
// segment plan has restart intervals), SOS, the data with its RSTn markers
// counted and numbered as the plan has them, EOI and the trailer;
// otherwise the first difference.
std::string check_stream(const Bytes &jpg, const Plan &p);

}  // namespace kivotest

#endif
