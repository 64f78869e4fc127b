// The kivo command-line tool: shared helpers of its subcommands.
#ifndef KIVO_TOOLS_TOOL_H
#define KIVO_TOOLS_TOOL_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "kivo.h"
#include "kivod.h"

namespace tool {

// Reads the whole file; false when it cannot be read or holds more than max bytes.
bool read_file(const std::string &path, std::vector<uint8_t> *out, size_t max = SIZE_MAX);
// Writes the bytes to a temporary file in the same directory and renames it
// into place once complete, so that path never holds a partial file (a
// link's target is replaced, or made in its directory when missing; a
// device or a pipe is written through).
// Returns false with a message on stderr.
bool write_file(const std::string &path, const std::vector<uint8_t> &bytes);
bool ends_with(const std::string &s, const char *suffix);
// Where a command's one-line report goes: stderr when the output file is
// the tool's standard output (/dev/stdout), which the report would corrupt.
FILE *report_stream(const std::string &output);
// A switch as the parsers compare it: cjpeg's single-dash spellings
// ("-quality") become the double-dash ones ("--quality"); "-h" stays.
std::string option_name(const char *arg);
// With a at argv[i] being "--", appends argv[i + 1] on to files (names that
// may start with a dash) and returns true: the options end there.
template <typename Names>
bool rest_are_files(const std::string &a, int argc, char **argv, int i, Names *files) {
    if (a != "--") return false;
    files->insert(files->end(), argv + i + 1, argv + argc);
    return true;
}

// File formats, chosen by the name's extension (any case); Raw is any other name.
enum class FileKind { Raw, Y4m, Png, Ppm, Pgm, Pnm, Jpeg };
FileKind file_kind(const std::string &path);
bool is_packed(FileKind k);  // PNG or PNM
// A name whose extension is a picture format other than JPEG (.png, .ppm,
// .pgm, .pnm, .y4m, .yuv): never a JPEG output.
bool is_picture_name(const std::string &path);
bool have_png();             // built with libspng

// Packed pixels, line distance width * channels: RGB (3) or grey (1).
struct Packed {
    int32_t width = 0, height = 0, channels = 0;
    std::vector<uint8_t> pixels;
};
// Reads a PNG or binary 8-bit PPM/PGM; false with a message on failure,
// or for a picture of more than max_pixels (0: no limit).
bool read_packed(const std::string &path, Packed *out, int64_t max_pixels = 0);
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
// The most bytes a JPEG stream of the picture can take (every coefficient
// of every padded block coded at full length, every byte stuffed, a
// restart marker a block) plus `extra`, within the int32 size the
// library's output memory takes.
size_t stream_bound(int32_t color_format, int32_t width, int32_t height, size_t extra);
inline size_t stream_bound(const xelo_imgb *img, size_t extra) {
    return stream_bound(img->color_format, img->width, img->height, extra);
}

// A message on stderr; a progress line showing there is cleared first.
void message(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Makes SIGINT, SIGTERM and SIGHUP remove the temporary outputs being
// written (create_temp) before the program ends.
void install_cleanup();
// mkstemp(tmpl), registered for removal on those signals until release_temp(*slot).
int create_temp(std::string *tmpl, int *slot);
void release_temp(int slot);

// Batch mode: several inputs, each written to its own output.
struct BatchOptions {
    std::vector<std::string> inputs;  // files, or directories
    std::string out_dir;              // outputs under this directory ...
    bool in_place = false;            // ... or beside their inputs
    bool recursive = false;           // directories' subdirectories too
    int threads = 1;                  // files worked on at once
};
// Takes --out-dir DIR, --in-place or --recursive at argv[*i]; false for another argument.
bool batch_option(const std::string &a, int argc, char **argv, int *i, BatchOptions *b);
struct FileJob {
    std::string in, out;
    uint64_t in_bytes = 0, out_bytes = 0;  // work() sets out_bytes
    const char *chosen = nullptr;          // work() may name the kind of output it chose
};
// Runs work (from several threads) on every input file, directories giving
// their files with one of exts; out_ext replaces the output's extension
// when not null. A failing file is reported and the rest go on. Shows
// progress on a terminal, prints a summary; returns 0, 1 if any input
// failed, 2 for bad options.
int run_batch(const BatchOptions &b, const std::vector<const char *> &exts, const char *out_ext,
              const std::function<bool(FileJob *)> &work);

// Decoder limits: the tool's defaults, the options that change them
// (--max-pixels, --max-scans, --max-memory, --max-app-bytes, --no-limits;
// 1 when argv[*i] was one, 0 when not, -1 with a message for a value that
// is not a number), and a hint after a status a limit can give: for the
// JPEG file `input` whose frame header names a coding the library does not
// decode, that coding; else the limits in force that give the status.
kivod_limits default_limits();
int limit_option(const std::string &a, int argc, char **argv, int *i, kivod_limits *l);
void limit_hint(int32_t status, const char *input, const kivod_limits &limits);
// How far an incomplete decode got: its MCU rows, or, for a progressive
// stream that reached every row, that its last scans are missing.
std::string progress_text(const kivod_progress &progress);

int cmd_info(int argc, char **argv);
int cmd_decode(int argc, char **argv);
int cmd_encode(int argc, char **argv);
int cmd_transcode(int argc, char **argv);
int cmd_demo();

}  // namespace tool

#endif
