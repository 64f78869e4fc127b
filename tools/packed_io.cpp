// Packed RGB and grey pictures in files: PNG (through libspng) and binary
// PPM/PGM with 8-bit samples.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/tool.h"

#ifdef KIVO_HAVE_PNG
#include <spng.h>
#endif

namespace tool {
namespace {

// Reads one header number of a PNM file, skipping white space and comments.
bool pnm_number(const std::vector<uint8_t> &b, size_t *pos, int *out) {
    size_t i = *pos;
    for (;;) {
        while (i < b.size() && (b[i] == ' ' || b[i] == '\t' || b[i] == '\r' || b[i] == '\n')) ++i;
        if (i < b.size() && b[i] == '#') {
            while (i < b.size() && b[i] != '\n') ++i;
            continue;
        }
        break;
    }
    long v = 0;
    const size_t start = i;
    while (i < b.size() && b[i] >= '0' && b[i] <= '9' && v <= 65535) v = v * 10 + (b[i++] - '0');
    if (i == start || v > 65535) return false;
    *pos = i;
    *out = static_cast<int>(v);
    return true;
}

bool too_many_pixels(int64_t w, int64_t h, int64_t max_pixels, const std::string &path) {
    if (max_pixels <= 0 || w * h <= max_pixels) return false;
    message("kivo: %s: %lld x %lld is more than --max-pixels %lld (0 lifts it)\n", path.c_str(),
            static_cast<long long>(w), static_cast<long long>(h), static_cast<long long>(max_pixels));
    return true;
}

bool read_pnm(const std::string &path, const std::vector<uint8_t> &b, Packed *out, int64_t max_pixels) {
    if (b.size() < 2 || b[0] != 'P' || (b[1] != '5' && b[1] != '6')) {
        message("kivo: %s is not a binary PPM or PGM (P6 or P5)\n", path.c_str());
        return false;
    }
    size_t pos = 2;
    int w = 0, h = 0, maxval = 0;
    if (!pnm_number(b, &pos, &w) || !pnm_number(b, &pos, &h) || !pnm_number(b, &pos, &maxval) ||
        pos >= b.size() || w < 1 || h < 1 || maxval < 1) {
        message("kivo: %s: bad PNM header\n", path.c_str());
        return false;
    }
    if (maxval > 255) {
        message("kivo: %s: only 8-bit PNM samples are read (maxval %d)\n", path.c_str(), maxval);
        return false;
    }
    if (too_many_pixels(w, h, max_pixels, path)) return false;
    ++pos;  // the single white-space byte before the samples
    out->width = w, out->height = h, out->channels = b[1] == '6' ? 3 : 1;
    // In 64 bits: three samples a pixel of 65535 x 21846 wrap a 32-bit size_t
    // to 65534, which a short file would pass.
    const uint64_t n = uint64_t(w) * uint64_t(h) * uint64_t(out->channels);
    if (b.size() - pos < n) {
        message("kivo: %s: %zu bytes of samples, %llu needed\n", path.c_str(), b.size() - pos,
                static_cast<unsigned long long>(n));
        return false;
    }
    out->pixels.assign(b.begin() + static_cast<ptrdiff_t>(pos), b.begin() + static_cast<ptrdiff_t>(pos + n));
    // Samples below another maximum are stretched to 0..255, as cjpeg does.
    if (maxval != 255)
        for (uint8_t &v : out->pixels) v = static_cast<uint8_t>(v >= maxval ? 255 : (v * 255 + maxval / 2) / maxval);
    return true;
}

#ifdef KIVO_HAVE_PNG
// Any PNG becomes 8-bit RGB (16-bit samples reduced, palettes expanded,
// alpha dropped); grey colour types keep one channel.
// A header declaring more than max_pixels (0: no limit) is refused before
// the samples' memory is taken: a PNG of a few hundred bytes may declare
// 65535 x 65535.
bool read_png(const std::string &path, const std::vector<uint8_t> &b, Packed *out, int64_t max_pixels) {
    spng_ctx *ctx = spng_ctx_new(0);
    if (!ctx) return false;
    spng_set_image_limits(ctx, 65535, 65535);  // a JPEG frame's limit
    spng_set_chunk_limits(ctx, 1u << 26, 1u << 26);
    spng_ihdr ihdr{};
    size_t size = 0;
    int err = spng_set_png_buffer(ctx, b.data(), b.size());
    if (!err) err = spng_get_ihdr(ctx, &ihdr);
    const bool too_large = !err && too_many_pixels(ihdr.width, ihdr.height, max_pixels, path);
    if (!err && !too_large) err = spng_decoded_image_size(ctx, SPNG_FMT_RGB8, &size);
    std::vector<uint8_t> rgb;
    if (!err && !too_large) {
        rgb.resize(size);
        err = spng_decode_image(ctx, rgb.data(), size, SPNG_FMT_RGB8, 0);
    }
    spng_ctx_free(ctx);
    if (too_large) return false;
    if (err) {
        message("kivo: %s: %s\n", path.c_str(), spng_strerror(err));
        return false;
    }
    out->width = static_cast<int32_t>(ihdr.width), out->height = static_cast<int32_t>(ihdr.height);
    const bool grey = ihdr.color_type == SPNG_COLOR_TYPE_GRAYSCALE || ihdr.color_type == SPNG_COLOR_TYPE_GRAYSCALE_ALPHA;
    out->channels = grey ? 1 : 3;
    if (grey) {
        out->pixels.resize(rgb.size() / 3);
        for (size_t i = 0; i < out->pixels.size(); ++i) out->pixels[i] = rgb[3 * i];
    } else {
        out->pixels.swap(rgb);
    }
    return true;
}

bool png_bytes(const Packed &pic, std::vector<uint8_t> *out) {
    spng_ctx *ctx = spng_ctx_new(SPNG_CTX_ENCODER);
    if (!ctx) return false;
    spng_set_option(ctx, SPNG_ENCODE_TO_BUFFER, 1);
    spng_ihdr ihdr{};
    ihdr.width = static_cast<uint32_t>(pic.width), ihdr.height = static_cast<uint32_t>(pic.height);
    ihdr.bit_depth = 8;
    ihdr.color_type = pic.channels == 1 ? SPNG_COLOR_TYPE_GRAYSCALE : SPNG_COLOR_TYPE_TRUECOLOR;
    int err = spng_set_ihdr(ctx, &ihdr);
    if (!err) err = spng_encode_image(ctx, pic.pixels.data(), pic.pixels.size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE);
    size_t len = 0;
    void *png = err ? nullptr : spng_get_png_buffer(ctx, &len, &err);
    if (png) {
        const uint8_t *p = static_cast<const uint8_t *>(png);
        out->assign(p, p + len);
        std::free(png);
    } else if (err) {
        message("kivo: PNG: %s\n", spng_strerror(err));
    }
    spng_ctx_free(ctx);
    return png != nullptr;
}
#endif

}  // namespace

FileKind file_kind(const std::string &path) {
    static const struct { const char *ext; FileKind kind; } exts[] = {
        {".png", FileKind::Png}, {".ppm", FileKind::Ppm}, {".pgm", FileKind::Pgm},  {".pnm", FileKind::Pnm},
        {".y4m", FileKind::Y4m}, {".jpg", FileKind::Jpeg}, {".jpeg", FileKind::Jpeg},
    };
    std::string lower = path;
    for (char &c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    for (const auto &e : exts)
        if (ends_with(lower, e.ext)) return e.kind;
    return FileKind::Raw;
}

bool is_packed(FileKind k) { return k == FileKind::Png || k == FileKind::Ppm || k == FileKind::Pgm || k == FileKind::Pnm; }

bool is_picture_name(const std::string &path) {
    const FileKind k = file_kind(path);
    std::string lower = path;
    for (char &c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    return is_packed(k) || k == FileKind::Y4m || ends_with(lower, ".yuv");
}

bool have_png() {
#ifdef KIVO_HAVE_PNG
    return true;
#else
    return false;
#endif
}

bool read_packed(const std::string &path, Packed *out, int64_t max_pixels) {
    std::vector<uint8_t> bytes;
    if (!read_file(path, &bytes)) {
        message("kivo: cannot read %s\n", path.c_str());
        return false;
    }
    if (file_kind(path) != FileKind::Png) return read_pnm(path, bytes, out, max_pixels);
#ifdef KIVO_HAVE_PNG
    return read_png(path, bytes, out, max_pixels);
#else
    message("kivo: built without PNG support (libspng was not found); use .ppm or .pgm\n");
    return false;
#endif
}

bool write_packed(const std::string &path, const Packed &pic) {
    std::vector<uint8_t> bytes;
    if (file_kind(path) == FileKind::Png) {
#ifdef KIVO_HAVE_PNG
        if (!png_bytes(pic, &bytes)) return false;
#else
        message("kivo: built without PNG support (libspng was not found); use .ppm or .pgm\n");
        return false;
#endif
    } else {
        char header[64];
        const int n = std::snprintf(header, sizeof(header), "P%c\n%d %d\n255\n", pic.channels == 1 ? '5' : '6',
                                    pic.width, pic.height);
        bytes.assign(header, header + n);
        bytes.insert(bytes.end(), pic.pixels.begin(), pic.pixels.end());
    }
    return write_file(path, bytes);
}

}  // namespace tool
