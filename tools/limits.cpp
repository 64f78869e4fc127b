// The decoder limits the kivo tool sets on every input: safe defaults for
// pictures from anywhere, each one lifted with its option set to 0.
#include <cstring>
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

namespace {

// A limit's value: digits, then K, M or G for 2^10, 2^20 or 2^30 (either
// case). False for anything else, a negative number or one past 2^62.
bool limit_value(const char *text, int64_t *v) {
    const std::string t = text;
    size_t n = 0;
    int64_t x = 0;
    for (; n < t.size() && t[n] >= '0' && t[n] <= '9'; ++n) {
        if (x > (int64_t(1) << 58)) return false;
        x = 10 * x + (t[n] - '0');
    }
    if (n == 0 || n + 1 < t.size()) return false;
    if (n < t.size()) {
        const char *units = "KMG";
        const char *u = std::strchr(units, t[n] & ~0x20);
        if (!u || !*u) return false;
        const int shift = 10 * static_cast<int>(u - units + 1);
        if (x > (int64_t(1) << (62 - shift))) return false;
        x <<= shift;
    }
    *v = x;
    return x <= (int64_t(1) << 62);
}

}  // namespace

int limit_option(const std::string &a, int argc, char **argv, int *i, kivod_limits *l) {
    if (a == "--no-limits") {
        *l = kivod_limits{0, 0, 0, 0};
        return 1;
    }
    int64_t *field = a == "--max-pixels"      ? &l->max_pixels
                     : a == "--max-scans"     ? &l->max_scans
                     : a == "--max-memory"    ? &l->max_memory
                     : a == "--max-app-bytes" ? &l->max_app_bytes
                                              : nullptr;
    if (!field || *i + 1 >= argc) return 0;
    const char *text = argv[++*i];
    if (!limit_value(text, field)) {
        message("kivo: %s takes a number (K, M or G may follow), not %s\n", a.c_str(), text);
        return -1;
    }
    return 1;
}

void limit_hint(int32_t status) {
    if (status == KIVO_ERR_UNSUPPORTED || status == KIVO_ERR_OUT_OF_MEMORY)
        message("kivo: a limit may have refused it: --max-pixels, --max-scans, --max-memory and "
                "--max-app-bytes set them (0 lifts one), --no-limits lifts all\n");
}

}  // namespace tool
