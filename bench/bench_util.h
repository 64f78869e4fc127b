// What the side-by-side benchmarks share: reading a file and timing.
#ifndef KIVO_BENCH_UTIL_H
#define KIVO_BENCH_UTIL_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <vector>

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

}  // namespace bench

#endif
