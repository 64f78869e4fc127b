#include "support/pictures.h"

#include <cmath>

namespace testpic {

Plane make_plane(int w, int h, uint64_t seed, int plane, Kind kind) {
    Plane p{w, h, std::vector<uint8_t>(static_cast<size_t>(w) * h)};
    Rng rng(seed * 31 + plane);
    if (kind != Kind::Natural) {
        const uint8_t flat = kind == Kind::Flat ? static_cast<uint8_t>(rng.range(0, 255)) : 0;
        for (uint8_t &x : p.px) x = kind == Kind::Flat ? flat : static_cast<uint8_t>(rng.next());
        return p;
    }
    const double fx = 0.5 + rng.range(0, 100) / 40.0, fy = 0.5 + rng.range(0, 100) / 40.0, ph = rng.range(0, 628) / 100.0;
    const int base = plane == 0 ? 128 : 112 + rng.range(0, 32), amp = plane == 0 ? 90 : 40;
    // Edges: a few rectangles of constant offset; strokes: thin dark lines.
    struct Rect { int x0, y0, x1, y1, d; } rects[4];
    for (Rect &r : rects) {
        r.x0 = rng.range(0, w - 1), r.y0 = rng.range(0, h - 1);
        r.x1 = r.x0 + rng.range(1, w / 3 + 1), r.y1 = r.y0 + rng.range(1, h / 3 + 1), r.d = rng.range(-60, 60);
    }
    const int stroke_period = 7 + rng.range(0, 9);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const double u = static_cast<double>(x) / (w > 1 ? w : 1), v = static_cast<double>(y) / (h > 1 ? h : 1);
            double val = base + amp * 0.5 * (std::sin(6.28 * fx * u + ph) + std::cos(6.28 * fy * v - ph * 0.5));
            for (const Rect &r : rects)
                if (x >= r.x0 && x < r.x1 && y >= r.y0 && y < r.y1) val += r.d;
            if (plane == 0 && y % stroke_period == 0 && (x / 5) % 3 == 0) val -= 70;
            val += static_cast<int>(rng.next() % 17) - 8;  // texture
            const int q = static_cast<int>(std::lround(val));
            p.px[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>(q < 0 ? 0 : q > 255 ? 255 : q);
        }
    return p;
}

}  // namespace testpic
