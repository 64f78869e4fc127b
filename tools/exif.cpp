// The orientation tag of an Exif APP1 segment.
#include <cstring>

#include "tools/tool.h"

namespace tool {

int exif_orientation(const uint8_t *d, size_t n) {
    if (n < 6 || std::memcmp(d, "Exif\0\0", 6) != 0) return 0;
    d += 6, n -= 6;  // offsets below count from the TIFF header
    if (n < 8) return -1;
    bool le;
    if (d[0] == 'I' && d[1] == 'I') le = true;
    else if (d[0] == 'M' && d[1] == 'M') le = false;
    else return -1;
    auto u16 = [&](size_t o) { return le ? d[o] | d[o + 1] << 8 : d[o] << 8 | d[o + 1]; };
    auto u32 = [&](size_t o) {
        return le ? static_cast<uint32_t>(u16(o)) | static_cast<uint32_t>(u16(o + 2)) << 16
                  : static_cast<uint32_t>(u16(o)) << 16 | static_cast<uint32_t>(u16(o + 2));
    };
    if (u16(2) != 42) return -1;
    // The first IFD: a count, then 12-byte entries (tag, type, count, value).
    const uint32_t ifd = u32(4);
    if (ifd < 8 || ifd > n - 2) return -1;
    const size_t entries = static_cast<size_t>(u16(ifd));
    if (entries > (n - ifd - 2) / 12) return -1;
    for (size_t i = 0; i < entries; ++i) {
        const size_t e = ifd + 2 + 12 * i;
        if (u16(e) != 0x0112) continue;
        // A SHORT with count 1 sits in the first two bytes of the value field.
        const int v = u16(e + 8);
        return u16(e + 2) == 3 && u32(e + 4) == 1 && v >= 1 && v <= 8 ? v : -1;
    }
    return 0;
}

const char *orientation_name(int v) {
    static const char *const names[] = {"normal",
                                        "mirror horizontal",
                                        "rotate 180",
                                        "mirror vertical",
                                        "mirror horizontal and rotate 270 CW",
                                        "rotate 90 CW",
                                        "mirror horizontal and rotate 90 CW",
                                        "rotate 270 CW"};
    return v >= 1 && v <= 8 ? names[v - 1] : "?";
}

}  // namespace tool
