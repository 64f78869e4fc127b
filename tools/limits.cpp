// The decoder limits the kivo tool sets on every input: safe defaults for
// pictures from anywhere, each one lifted with its option set to 0.
#include <cstdlib>
#include <string>

#include "tools/tool.h"

namespace tool {

kivod_limits default_limits() {
    kivod_limits l;
    l.max_pixels = int64_t(1) << 28;     // 268 megapixels, 16384 x 16384
    l.max_scans = 100;                   // real progressive files use about 10
    l.max_memory = int64_t(1) << 30;     // 1 GiB of the decoder's own buffers
    l.max_app_bytes = int64_t(16) << 20;  // 16 MiB of kept APPn segments
    return l;
}

bool limit_option(const std::string &a, int argc, char **argv, int *i, kivod_limits *l) {
    if (a == "--no-limits") {
        *l = kivod_limits{0, 0, 0, 0};
        return true;
    }
    int64_t *field = a == "--max-pixels"      ? &l->max_pixels
                     : a == "--max-scans"     ? &l->max_scans
                     : a == "--max-memory"    ? &l->max_memory
                     : a == "--max-app-bytes" ? &l->max_app_bytes
                                              : nullptr;
    if (!field || *i + 1 >= argc) return false;
    const long long v = std::atoll(argv[++*i]);
    *field = v < 0 ? 0 : v;
    return true;
}

void limit_hint(int32_t status) {
    if (status == KIVO_ERR_UNSUPPORTED || status == KIVO_ERR_OUT_OF_MEMORY)
        message("kivo: a limit may have refused it: --max-pixels, --max-scans, --max-memory and "
                "--max-app-bytes set them (0 lifts one), --no-limits lifts all\n");
}

}  // namespace tool
