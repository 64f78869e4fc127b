// What the side-by-side benchmarks share: reading a file, timing, and the
// memory input and output the codec calls take.
#ifndef KIVO_BENCH_UTIL_H
#define KIVO_BENCH_UTIL_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "kivoe.h"

namespace bench {

using Clock = std::chrono::steady_clock;

inline std::vector<uint8_t> load(const char *path) {
    std::vector<uint8_t> v;
    FILE *f = std::fopen(path, "rb");
    if (!f) return v;
    uint8_t buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0) v.insert(v.end(), buf, buf + n);
    std::fclose(f);
    return v;
}

// Best of `reps` runs of f (which returns false on failure), in seconds;
// -1 when a run fails.
template <class F>
double best_of(int reps, F &&f) {
    double best = 1e30;
    for (int i = 0; i < reps; ++i) {
        const auto t0 = Clock::now();
        if (!f()) return -1;
        best = std::min(best, std::chrono::duration<double>(Clock::now() - t0).count());
    }
    return best;
}

// Memory input holding a copy of src, and output memory of four times its
// size and 64 KiB more.
struct MemoryIo {
    std::vector<uint8_t> in, out;
    xelo_bitb ib{}, ob{};
    kivod_input input{};
    kivoe_output output{};
    explicit MemoryIo(const std::vector<uint8_t> &src) : in(src), out(src.size() * 4 + 65536) {
        ib.addr = in.data();
        ib.ssize = static_cast<int32_t>(in.size());
        ob.addr = out.data();
        ob.ssize = static_cast<int32_t>(out.size());
        input = kivod_input{KIVOD_INPUT_BITB, &ib, nullptr};
        output = kivoe_output{KIVOD_INPUT_BITB, &ob, nullptr};
    }
    MemoryIo(const MemoryIo &) = delete;
    MemoryIo &operator=(const MemoryIo &) = delete;
    // The first n bytes written.
    std::vector<uint8_t> written(int32_t n) const { return std::vector<uint8_t>(out.begin(), out.begin() + n); }
};

}  // namespace bench

#endif
