// A ready file interface over stdio: user[0] holds the path, and the handle
// open returns is the FILE * itself, so that opening takes no memory of ours.
//
// Positions are 64-bit through fseeko and ftello, except on 32-bit Android:
// there those two exist only from API level 24 on (and with 64-bit offsets
// not before either), so fseek and ftell with their long positions serve,
// which limits files to 2 GiB.
#if !defined(__ANDROID__) && !defined(_FILE_OFFSET_BITS)
#define _FILE_OFFSET_BITS 64
#endif
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/types.h>

#include "common/kivo_int.h"
#include "kivod.h"

namespace {

#if defined(__ANDROID__) && !defined(__LP64__)
using file_pos = long;
int seek_to(FILE *f, file_pos at, int whence) { return std::fseek(f, at, whence); }
file_pos position(FILE *f) { return std::ftell(f); }
#else
using file_pos = off_t;
int seek_to(FILE *f, file_pos at, int whence) { return fseeko(f, at, whence); }
file_pos position(FILE *f) { return ftello(f); }
#endif

FILE *file_of(void *h) { return static_cast<FILE *>(h); }

void *file_open(kivo_mfal *mfal, int32_t mode, int32_t flags) {
    // The decoder always asks to read; mode and flags carry nothing else.
    if (!mfal || !mfal->user[0]) return nullptr;
    return std::fopen(static_cast<const char *>(mfal->user[0]), "rb");
}

int32_t file_close(void *h) {
    if (!h) return KIVO_ERR_INVALID_ARG;
    return std::fclose(file_of(h)) == 0 ? KIVO_OK : KIVO_ERR_IO;
}

int32_t file_read(void *h, void *dst, int32_t n) {
    FILE *f = file_of(h);
    if (!f || !dst || n <= 0) return 0;
    return static_cast<int32_t>(std::fread(dst, 1, static_cast<size_t>(n), f));
}

int32_t file_tell(void *h, int64_t *pos) {
    FILE *f = file_of(h);
    if (!f || !pos) return KIVO_ERR_INVALID_ARG;
    const file_pos p = position(f);
    if (p < 0) return KIVO_ERR_IO;
    *pos = static_cast<int64_t>(p);
    return KIVO_OK;
}

int32_t file_seek(void *h, const int64_t *pos, int32_t whence) {
    FILE *f = file_of(h);
    if (!f || !pos) return KIVO_ERR_INVALID_ARG;
    int w = whence == 1 ? SEEK_CUR : (whence == 2 ? SEEK_END : SEEK_SET);
    if (w == SEEK_SET && *pos < 0) return KIVO_ERR_IO;
    // A position the platform's offsets cannot hold is refused, not wrapped.
    if (static_cast<int64_t>(static_cast<file_pos>(*pos)) != *pos) return KIVO_ERR_IO;
    return seek_to(f, static_cast<file_pos>(*pos), w) == 0 ? KIVO_OK : KIVO_ERR_IO;
}

int32_t file_skip(void *h, const int64_t *n, int32_t type) {
    FILE *f = file_of(h);
    if (!f || !n) return KIVO_ERR_INVALID_ARG;
    if (static_cast<int64_t>(static_cast<file_pos>(*n)) != *n) return KIVO_ERR_IO;
    return seek_to(f, static_cast<file_pos>(*n), SEEK_CUR) == 0 ? KIVO_OK : KIVO_ERR_IO;
}

int32_t file_size(void *h, int64_t *size) {
    FILE *f = file_of(h);
    if (!f || !size) return KIVO_ERR_INVALID_ARG;
    const file_pos here = position(f);
    if (here < 0 || seek_to(f, 0, SEEK_END) != 0) return KIVO_ERR_IO;
    const file_pos s = position(f);
    if (seek_to(f, here, SEEK_SET) != 0 || s < 0) return KIVO_ERR_IO;
    *size = static_cast<int64_t>(s);
    return KIVO_OK;
}

}  // namespace

KIVO_EXPORT int32_t kivo_mfal_file(kivo_mfal *mfal, const char *path) {
    if (!mfal || !path) return KIVO_ERR_INVALID_ARG;
    std::memset(mfal, 0, sizeof(*mfal));
    mfal->user[0] = const_cast<char *>(path);
    mfal->open = file_open;
    mfal->close = file_close;
    mfal->read = file_read;
    mfal->tell = file_tell;
    mfal->seek = file_seek;
    mfal->skip = file_skip;
    mfal->size = file_size;
    return KIVO_OK;
}
