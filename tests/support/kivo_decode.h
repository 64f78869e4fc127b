// Decoding through the public API into plain planes, for tests.
#ifndef KIVO_TESTS_KIVO_DECODE_H
#define KIVO_TESTS_KIVO_DECODE_H

#include <cstdint>
#include <vector>

#include "kivod.h"
#include "support/pictures.h"

namespace kivotest {

struct Decoded {
    int32_t status = 0;        // of kivod_decode, then of kivod_clone
    int32_t width = 0, height = 0, color_format = 0;
    std::vector<testpic::Plane> planes;  // each plane at its own size, no padding
    kivod_stats stats{};
    kivod_progress progress{};
};

// Decodes a stream from memory with `threads` threads into a buffer of
// out_w x out_h (0: the frame's size) of the frame's colour format (or
// `out_cs` when not 0), at the reduction given (kivod_set_reduction; 0:
// the decoder's choice), under `limits` if given, gathering the magnitude
// statistics when `stats`. The buffer is filled with
// 0x5A beforehand, so samples the decoder leaves alone read the same on
// every run.
Decoded decode(const std::vector<uint8_t> &jpg, int threads = 1, int out_w = 0, int out_h = 0,
               int32_t out_cs = 0, int reduction = 0, const kivod_limits *limits = nullptr, bool stats = false);

}  // namespace kivotest

#endif
