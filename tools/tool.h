// The kivo command-line tool: shared helpers of its subcommands.
#ifndef KIVO_TOOLS_TOOL_H
#define KIVO_TOOLS_TOOL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kivo.h"

namespace tool {

bool read_file(const std::string &path, std::vector<uint8_t> *out);
// Writes the bytes to a temporary file in the same directory and renames it
// into place once complete, so that path never holds a partial file.
// Returns false with a message on stderr.
bool write_file(const std::string &path, const std::vector<uint8_t> &bytes);
bool ends_with(const std::string &s, const char *suffix);
// A switch as the parsers compare it: cjpeg's single-dash spellings
// ("-quality") become the double-dash ones ("--quality"); "-h" stays.
std::string option_name(const char *arg);

// File formats, chosen by the name's extension (any case); Raw is any other name.
enum class FileKind { Raw, Y4m, Png, Ppm, Pgm, Pnm, Jpeg };
FileKind file_kind(const std::string &path);
bool is_packed(FileKind k);  // PNG or PNM
bool have_png();             // built with libspng

// Packed pixels, line distance width * channels: RGB (3) or grey (1).
struct Packed {
    int32_t width = 0, height = 0, channels = 0;
    std::vector<uint8_t> pixels;
};
// Reads a PNG or binary 8-bit PPM/PGM; false with a message on failure.
bool read_packed(const std::string &path, Packed *out);
// Writes PNG for a .png name, PGM (one channel) or PPM otherwise.
bool write_packed(const std::string &path, const Packed &pic);

// Orientation (1 to 8) of an APP1 segment's data that begins "Exif\0\0";
// 0 for other segments or none given, -1 for malformed data. Reads nothing
// beyond n bytes.
int exif_orientation(const uint8_t *data, size_t n);
const char *orientation_name(int v);

// Writes the picture's planes: raw planes for .yuv (component order, each
// plane exactly its width times height), YUV4MPEG2 for .y4m. Returns false
// with a message on stderr.
bool write_picture(const std::string &path, const xelo_imgb *img);
// Name of a colour format code ("420", "444", ...), or "?".
const char *color_format_name(int32_t cs);
// Colour format code of a name ("420", "k444", "nv12", ...) or a number; -1 if unknown.
int32_t color_format_from_name(const std::string &s);
// Reads a picture: YUV4MPEG2 for a .y4m name (size and layout from its
// header), raw planes otherwise (component order, no padding, with the
// given colour format and size). Null with a message on failure.
xelo_imgb *read_picture(const std::string &path, int32_t cs, int32_t w, int32_t h);

int cmd_info(int argc, char **argv);
int cmd_decode(int argc, char **argv);
int cmd_encode(int argc, char **argv);
int cmd_transcode(int argc, char **argv);
int cmd_demo();

}  // namespace tool

#endif
