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

int cmd_info(int argc, char **argv);
int cmd_decode(int argc, char **argv);

}  // namespace tool

#endif
