// The JND filter's clamp band as table look-ups by the high nibble of the
// centre sample, for the SIMD filters: the steps 11, 30, 55, 84, 118, 155,
// 195, 239 (up) and 12, 32, 58, 88, 123, 161, 202, 247 (down) lie at least
// 16 apart, so each nibble's range of 16 values holds at most one. The
// count at c is base[c >> 4] plus one when c >= step[c >> 4]; a range
// without a step has 255 there, which only c = 255 reaches, where the
// band's top saturates at 255 anyway and no down step is missing.
#ifndef KIVO_ENCODER_JND_STEPS_H
#define KIVO_ENCODER_JND_STEPS_H

#include <stdint.h>

namespace {

struct JndSteps {
    uint8_t base[16];
    uint8_t step[16];
};

constexpr JndSteps make_jnd_steps(const uint8_t (&s)[8]) {
    JndSteps t{};
    for (int b = 0; b < 16; ++b) {
        t.step[b] = 255;
        for (uint8_t v : s) {
            if (v < 16 * b) ++t.base[b];
            else if (v < 16 * b + 16) t.step[b] = v;
        }
    }
    return t;
}

constexpr uint8_t kJndUpSteps[8] = {11, 30, 55, 84, 118, 155, 195, 239};
constexpr uint8_t kJndDownSteps[8] = {12, 32, 58, 88, 123, 161, 202, 247};
constexpr JndSteps kJndUp = make_jnd_steps(kJndUpSteps);
constexpr JndSteps kJndDown = make_jnd_steps(kJndDownSteps);

}  // namespace

#endif
