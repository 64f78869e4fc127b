// Generated test pictures: smooth fields plus texture, edges and text-like
// strokes, and plain noise. Deterministic for a given seed.
#ifndef KIVO_TESTS_PICTURES_H
#define KIVO_TESTS_PICTURES_H

#include <cstdint>
#include <vector>

namespace testpic {

struct Rng {
    uint64_t s;
    explicit Rng(uint64_t seed) : s(seed * 0x9E3779B97F4A7C15ull + 1) {}
    uint32_t next() { return s ^= s << 13, s ^= s >> 7, s ^= s << 17, static_cast<uint32_t>(s >> 11); }
    int range(int lo, int hi) { return lo + static_cast<int>(next() % static_cast<uint32_t>(hi - lo + 1)); }
};

// One plane of w x h samples, line distance w.
struct Plane {
    int w = 0, h = 0;
    std::vector<uint8_t> px;
    uint8_t at(int x, int y) const { return px[static_cast<uint64_t>(y) * w + x]; }
};

enum class Kind { Natural, Noise, Flat };

// A natural-looking plane: low-frequency fields, texture, a few sharp edges
// and strokes. `plane` varies the content between components.
Plane make_plane(int w, int h, uint64_t seed, int plane, Kind kind = Kind::Natural);

}  // namespace testpic

#endif
