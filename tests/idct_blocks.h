// Coefficient blocks for the inverse DCT tests: pixel blocks of several
// kinds, a double-precision forward DCT with JPEG quantizers to turn them into
// the dequantized coefficients a decoder sees, and a double-precision inverse
// DCT as an independent reference.
#ifndef KIVO_TESTS_IDCT_BLOCKS_H
#define KIVO_TESTS_IDCT_BLOCKS_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>

namespace idct_blocks {

using Block = int16_t[64];

constexpr double kPi = 3.14159265358979323846;

// Luminance and chrominance quantizers of ITU-T T.81 Annex K, raster order.
constexpr uint16_t kLuma[64] = {16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
                                14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
                                18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
                                49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};
constexpr uint16_t kChroma[64] = {17, 18, 24, 47, 99, 99, 99, 99, 18, 21, 26, 66, 99, 99, 99, 99,
                                  24, 26, 56, 99, 99, 99, 99, 99, 47, 66, 99, 99, 99, 99, 99, 99,
                                  99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
                                  99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};

// Quantizer at a quality of 1..100, scaled the usual way and kept in 1..255.
inline uint16_t quantizer(const uint16_t *base, int i, int quality) {
    const int scale = quality < 50 ? 5000 / quality : 200 - 2 * quality;
    return static_cast<uint16_t>(std::clamp((base[i] * scale + 50) / 100, 1, 255));
}

inline double basis(int k, int n) { return (k ? 1.0 : std::sqrt(0.5)) * std::cos((2 * n + 1) * k * kPi / 16); }

// Orthonormal 8x8 forward DCT of level-shifted pixels, quantized and
// dequantized with the given quantizers.
inline void fdct_quant(const uint8_t px[64], const uint16_t q[64], int16_t out[64]) {
    for (int v = 0; v < 8; v++) {
        for (int u = 0; u < 8; u++) {
            double s = 0;
            for (int y = 0; y < 8; y++)
                for (int x = 0; x < 8; x++) s += (px[y * 8 + x] - 128.0) * basis(u, x) * basis(v, y);
            const long level = std::lround(s / 4 / q[v * 8 + u]);
            out[v * 8 + u] = static_cast<int16_t>(level * q[v * 8 + u]);
        }
    }
}

// Exact inverse DCT, level-shifted, rounded and clamped to 0..255.
inline void idct_ref(const int16_t c[64], uint8_t out[64]) {
    for (int y = 0; y < 8; y++) {
        for (int x = 0; x < 8; x++) {
            double s = 0;
            for (int v = 0; v < 8; v++)
                for (int u = 0; u < 8; u++) s += c[v * 8 + u] * basis(u, x) * basis(v, y);
            out[y * 8 + x] = static_cast<uint8_t>(std::clamp<long>(std::lround(s / 4 + 128), 0, 255));
        }
    }
}

enum class Pixels { kNoise, kSmooth, kEdge, kFlat, kCount };

inline void make_pixels(Pixels kind, std::mt19937 &rng, uint8_t px[64]) {
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const double base = 255 * u(rng), gx = 40 * (u(rng) - 0.5), gy = 40 * (u(rng) - 0.5);
    const double amp = 60 * u(rng), fx = 1.5 * u(rng), fy = 1.5 * u(rng);
    const double hi = 255 * u(rng), lo = 255 * u(rng), slope = 4 * (u(rng) - 0.5), cut = 8 * u(rng);
    for (int y = 0; y < 8; y++) {
        for (int x = 0; x < 8; x++) {
            double v = 0;
            switch (kind) {
                case Pixels::kNoise: v = 256 * u(rng); break;
                case Pixels::kSmooth: v = base + gx * (x - 3.5) / 8 + gy * (y - 3.5) / 8 +
                                          amp * std::sin(fx * x + fy * y); break;
                case Pixels::kEdge: v = (x - 3.5 + slope * (y - 3.5) < cut - 4 ? lo : hi) + 6 * (u(rng) - 0.5); break;
                default: v = base + 3 * (u(rng) - 0.5); break;
            }
            px[y * 8 + x] = static_cast<uint8_t>(std::clamp(v, 0.0, 255.0));
        }
    }
}

// A realistic block: pixels of the given kind through the forward DCT with
// luminance or chrominance quantizers at the given quality.
inline void make_realistic(Pixels kind, bool chroma, int quality, std::mt19937 &rng, int16_t out[64]) {
    uint8_t px[64];
    uint16_t q[64];
    make_pixels(kind, rng, px);
    for (int i = 0; i < 64; i++) q[i] = quantizer(chroma ? kChroma : kLuma, i, quality);
    fdct_quant(px, q, out);
}

}  // namespace idct_blocks

#endif
