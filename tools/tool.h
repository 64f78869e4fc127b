// The kivo command-line tool: shared helpers of its subcommands.
#ifndef KIVO_TOOLS_TOOL_H
#define KIVO_TOOLS_TOOL_H

#include <cstdint>
#include <string>
#include <vector>

#include "kivo.h"

namespace tool {

bool read_file(const std::string &path, std::vector<uint8_t> *out);
bool ends_with(const std::string &s, const char *suffix);
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
