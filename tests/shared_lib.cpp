// A program linked with libkivo.so that defines some of the library's
// exported names: the library's own calls and reads must still reach its own
// definitions.
#include <gtest/gtest.h>

#include <cstring>

#include "kivoe.h"

namespace {
int g_program_allocs = 0;
}  // namespace

// A table of the program's own that shares a name with one of the library's.
extern "C" const uint8_t tbl_thr[256] = {};

// Refuses every block, so a library that called it could not make a handle.
extern "C" void *xelo_malloc_align32(size_t) {
    ++g_program_allocs;
    return nullptr;
}

TEST(SharedLibrary, ProgramDefinitionDoesNotReplaceTheLibraryAllocator) {
    kivod_create_param cp = {1, nullptr};
    int32_t status = 1;
    kivod_ctx *dec = kivod_create(&cp, &status);
    EXPECT_EQ(status, KIVO_OK);
    EXPECT_EQ(g_program_allocs, 0);
    kivod_delete(dec);
    EXPECT_EQ(xelo_malloc_align32(64), nullptr);  // the program's calls reach its own
    EXPECT_EQ(g_program_allocs, 1);
}

// The perceptual choice reads the library's own tbl_thr: a flat mid-grey
// picture has base 4, so quantizers 3 (DC) and 21 (7,7); read from the
// program's table of zeros they were 1 and 1.
TEST(SharedLibrary, ProgramTableDoesNotReplaceTheLibrarys) {
    const uint32_t align[4] = {}, pad[4] = {};
    xelo_imgb *img = xelo_imgb_create(64, 64, XELO_CS_YCBCR420, 3, align, pad, 0, 0, 0);
    ASSERT_NE(img, nullptr);
    for (int p = 0; p < 3; ++p) std::memset(img->plane[p], 128, static_cast<size_t>(img->stride[p]) * img->lines[p]);
    const kivoe_create_param cp = {1, 64, 64, 90, XELO_CS_YCBCR420, nullptr};
    kivoe_ctx *e = kivoe_create(&cp, nullptr);
    uint8_t q[128] = {};
    EXPECT_TRUE(e && kivoe_push(e, img) == 0 && kivoe_get_qtbl(e, 0, q) == 0);
    EXPECT_TRUE(q[0] == 3 && q[63] == 21) << int(q[0]) << " " << int(q[63]);
    kivoe_delete(e);
    img->release(img);
}
