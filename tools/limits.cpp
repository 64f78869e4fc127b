// The decoder limits the kivo tool sets on every input: safe defaults for
// pictures from anywhere, each one lifted with its option set to 0.
#include <cstdio>
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

// What the headers of the JPEG file name that the library does not decode
// (arithmetic, lossless or hierarchical coding, samples of other than 8
// bits, a progressive frame with restart intervals), or null: a decoded
// coding, no frame header before the first scan, or not a file to read
// again (a pipe).
const char *undecoded_coding(const char *path) {
    FILE *f = std::fopen(path, "rb");
    if (!f) return nullptr;
    int c = std::fgetc(f), sof = 0, precision = 0, interval = 0;
    bool jpeg = c == 0xFF && std::fgetc(f) == 0xD8;
    while (jpeg) {
        while ((c = std::fgetc(f)) != EOF && c != 0xFF) {}
        while (c == 0xFF) c = std::fgetc(f);  // fill bytes
        if (c == EOF || c == 0xDA || c == 0xD9) break;
        if ((c >= 0xD0 && c <= 0xD7) || c == 0x01) continue;  // no length
        const int hi = std::fgetc(f), lo = std::fgetc(f), length = hi << 8 | lo;
        if (lo == EOF || length < 2) break;
        long skip = length - 2;
        if (c >= 0xC0 && c <= 0xCF && c != 0xC4 && c != 0xC8 && c != 0xCC && !sof) {
            sof = c;
            precision = std::fgetc(f);
            --skip;
        } else if (c == 0xDD && length >= 4) {
            interval = std::fgetc(f) << 8;
            interval |= std::fgetc(f);
            skip -= 2;
        }
        if (std::fseek(f, skip, SEEK_CUR) != 0) break;
    }
    std::fclose(f);
    if (sof & 0x08) return "arithmetic-coded JPEG";
    if ((sof & 3) == 3) return "lossless JPEG";
    if (sof >= 0xC5) return "hierarchical JPEG";
    if (sof && precision != 8) return "JPEG of other than 8-bit samples";
    if (sof == 0xC2 && interval > 0) return "progressive JPEG with restart intervals";
    return nullptr;
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

void limit_hint(int32_t status, const char *input, const kivod_limits &limits) {
    const char *coding = status == KIVO_ERR_UNSUPPORTED && input ? undecoded_coding(input) : nullptr;
    if (coding) {
        message("kivo: %s: this library does not decode %s\n", input, coding);
    } else if (status == KIVO_ERR_UNSUPPORTED && (limits.max_pixels || limits.max_scans)) {
        message("kivo: a limit may have refused it: --max-pixels and --max-scans set them (0 lifts one), "
                "--no-limits lifts all\n");
    } else if (status == KIVO_ERR_OUT_OF_MEMORY) {
        if (limits.max_memory || limits.max_app_bytes)
            message("kivo: the memory ran out, or a limit refused it: --max-memory and --max-app-bytes set "
                    "them (0 lifts one), --no-limits lifts all; a progressive frame's coefficients take at "
                    "most 1 GiB whatever they say\n");
        else
            message("kivo: the memory ran out; a progressive frame's coefficients take at most 1 GiB\n");
    }
}

std::string progress_text(const kivod_progress &progress) {
    if (progress.mcu_rows == progress.mcu_rows_total) return "the stream ends before its last scan";
    return std::to_string(progress.mcu_rows) + " of " + std::to_string(progress.mcu_rows_total) + " MCU rows decoded";
}

}  // namespace tool
