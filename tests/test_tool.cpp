// The tool's own file readers, run on every build (32-bit ARM under qemu
// too, where sizes are 32 bits).
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tools/tool.h"

namespace {

// Files whose headers or options declare more bytes than a 32-bit size_t
// counts, the count's wrapped value in hand: each is refused as short, saying
// how many bytes it needs. 65535 x 21846 x 3 samples are 2^32 + 65534;
// four planes of 65535 x 16385 are 2^32 + 196604.
TEST(Tool, FilesShortOfSizesPast32Bits) {
    const struct {
        const char *name, *head;
        size_t body;
        const char *says;
    } cases[] = {
        {"short.ppm", "P6\n65535 21846\n255\n", 65534, "65534 bytes of samples, 4295032830 needed"},
        {"short.yuv", "", 200000, "200000 bytes of planes, 4295163900 needed"},
    };
    for (const auto &c : cases) {
        std::vector<uint8_t> bytes(c.head, c.head + std::string(c.head).size());
        bytes.resize(bytes.size() + c.body, 0x80);
        const std::string path = ::testing::TempDir() + "kivo_tool_" + c.name;
        ASSERT_TRUE(tool::write_file(path, bytes));
        testing::internal::CaptureStderr();
        tool::Packed pic;
        xelo_imgb *img = nullptr;
        const bool read = c.head[0] ? tool::read_packed(path, &pic, 0)
                                    : (img = tool::read_picture(path, XELO_CS_YCBCRK444, 65535, 16385)) != nullptr;
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_FALSE(read) << c.name;
        EXPECT_NE(said.find(c.says), std::string::npos) << c.name << ": " << said;
        if (img) img->release(img);
        std::remove(path.c_str());
    }
}

}  // namespace
