// A program linked with libkivo.so that defines one of the library's exported
// names: the library's own calls must still reach its own definition.
#include <gtest/gtest.h>

#include "kivod.h"

namespace {
int g_program_allocs = 0;
}  // namespace

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
