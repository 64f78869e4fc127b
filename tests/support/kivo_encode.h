// Encoding through the public API, for tests.
#ifndef KIVO_TESTS_KIVO_ENCODE_H
#define KIVO_TESTS_KIVO_ENCODE_H

#include <cstdint>
#include <vector>

#include "kivoe.h"
#include "support/pictures.h"

namespace kivotest {

struct EncodeOptions {
    int quality = 90;
    int threads = 1;
    bool optimize = false;
    bool jnd_filter = false;
    bool jnd_suppress = false;
    bool adaptive_rounding = false;
    int perceptual_level = -1;           // >= 0: tables from kivoe_get_qtbl
    const uint8_t *qtables = nullptr;    // 128 bytes for KIVOE_CFG_QTBL
    size_t out_size = 0;                 // 0: enough for any stream
    bool copy_path = false;              // planes with unaligned line distances: copied at push
};

struct Encoded {
    int32_t status = 0;
    std::vector<uint8_t> jpg;
};

// Planes of a picture of colour format cs, each at its own size, made by
// make_plane.
std::vector<testpic::Plane> make_picture(int32_t cs, int w, int h, uint64_t seed,
                                         testpic::Kind kind = testpic::Kind::Natural);
// An image buffer holding the planes (stride padded unless `tight`; `pad`:
// four margin pairs, none when null).
xelo_imgb *to_imgb(int32_t cs, int w, int h, const std::vector<testpic::Plane> &planes, bool tight = false,
                   const uint32_t *pad = nullptr);
Encoded encode(int32_t cs, int w, int h, const std::vector<testpic::Plane> &planes, const EncodeOptions &o);
// PSNR of b against a over all samples of all planes (99 when equal).
double psnr(const std::vector<testpic::Plane> &a, const std::vector<testpic::Plane> &b);

}  // namespace kivotest

#endif
