// libjpeg-turbo as the oracle: it makes test streams of every layout and
// gives the reference planes our decoder is compared with.
#ifndef KIVO_TESTS_TURBO_H
#define KIVO_TESTS_TURBO_H

#include <cstdint>
#include <string>
#include <vector>

#include "support/pictures.h"

namespace turbo {

// One scan of a custom script: components (frame indices), spectral band
// and successive approximation.
struct ScanSpec {
    int n_comp;
    int comps[4];
    int ss, se, ah, al;
};

struct EncodeSpec {
    int width = 0, height = 0;
    int n_comp = 3;
    int h[4] = {1, 1, 1, 1};  // sampling factors per component
    int v[4] = {1, 1, 1, 1};
    int quality = 90;
    int restart_mcus = 0;     // restart interval in MCUs, 0 for none
    bool optimize = false;    // optimised Huffman tables
    bool separate_scans = false;  // one sequential scan per component
    bool progressive = false;     // libjpeg's default progressive script, or `scans`
    std::vector<ScanSpec> scans;  // a custom script (progressive when any band or step is partial)
    const uint8_t *tables = nullptr;  // 128 quantizers (luma, chroma; raster order) instead of the quality's
    int qslot[4] = {-1, -1, -1, -1};  // quantization table of each component (-1: libjpeg's)
};

// Encodes full-resolution-per-component planes (each already at its
// component's size: ceil(width * h / hmax) x ceil(height * v / vmax)).
// Returns an empty vector on failure (message in *error).
std::vector<uint8_t> encode(const EncodeSpec &spec, const std::vector<testpic::Plane> &planes,
                            std::string *error = nullptr);

// Component planes for a picture of the given layout, made by make_plane.
std::vector<testpic::Plane> make_planes(const EncodeSpec &spec, uint64_t seed,
                                        testpic::Kind kind = testpic::Kind::Natural);

// Decodes to raw component planes (islow IDCT), scaled by 1/denom, each
// cropped to the component's scaled size. warnings counts libjpeg warnings.
bool decode_raw(const std::vector<uint8_t> &jpg, int denom, std::vector<testpic::Plane> *planes,
                int *warnings = nullptr, std::string *error = nullptr);

// Dequantized coefficients of every block as libjpeg-turbo's own entropy
// decoder reads them: per component, blocks_w x blocks_h blocks of 64
// values in raster order (16-bit products, as a decoder keeps them).
struct Coefficients {
    int width = 0, height = 0;  // component size in samples
    int blocks_w = 0, blocks_h = 0;
    std::vector<int16_t> coef;  // blocks_w * blocks_h * 64
    int padded_w = 0, padded_h = 0;  // blocks of whole MCUs
    std::vector<int16_t> padded_dc;  // dequantized DC of those blocks
};
bool read_coefficients(const std::vector<uint8_t> &jpg, std::vector<Coefficients> *comps);

// The same coefficients written again as a sequential (or, with
// `progressive`, libjpeg's default progressive) stream: lossless.
std::vector<uint8_t> transcode(const std::vector<uint8_t> &jpg, bool progressive, bool optimize = false);

}  // namespace turbo

#endif
