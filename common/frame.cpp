// Library initialisation, status texts and the zig-zag tables.
#include "common/kivo_int.h"

extern "C" {
KIVO_API int32_t kivo_inited = 0;
}

KIVO_EXPORT int32_t kivo_platform_init(int32_t *status) {
    // Nothing to set up on this platform.
    if (status) *status = KIVO_OK;
    return KIVO_OK;
}

KIVO_EXPORT void kivo_platform_deinit(void) {}

// The flag is read and written atomically, so that several threads (an
// app's libraries each initialising it) may call these at once; the
// platform set-up they may then both run is idempotent.
KIVO_EXPORT int32_t kivo_init(void) {
    if (__atomic_load_n(&kivo_inited, __ATOMIC_ACQUIRE)) return KIVO_OK;
    int32_t status = KIVO_OK;
    if (kivo_platform_init(&status) != 0) return status;
    __atomic_store_n(&kivo_inited, 1, __ATOMIC_RELEASE);
    return KIVO_OK;
}

KIVO_EXPORT void kivo_deinit(void) {
    if (!__atomic_exchange_n(&kivo_inited, 0, __ATOMIC_ACQ_REL)) return;
    kivo_platform_deinit();
}

KIVO_EXPORT const char *kivo_strerror(int32_t status) {
    switch (status) {
    case KIVO_OK: return "success";
    case KIVO_ERR_OUT_OF_MEMORY: return "out of memory";
    case KIVO_ERR_UNSUPPORTED: return "unsupported";
    case KIVO_ERR_UNAVAILABLE: return "unavailable";
    case KIVO_ERR_INVALID_ARG: return "invalid argument";
    case KIVO_ERR_OPEN: return "input cannot be opened";
    case KIVO_ERR_IO: return "input/output error";
    case KIVO_ERR_MALFORMED: return "malformed stream";
    case KIVO_ERR_IMGB: return "image buffer cannot be created";
    case KIVO_ERR_COLOR_FORMAT: return "colour format not supported";
    case KIVO_ERR_THREAD: return "worker thread cannot be created";
    default: return "unknown status";
    }
}

// ITU-T T.81 Figure A.6 order.
KIVO_EXPORT const uint8_t kivo_tbl_zig_to_ras[64] = {
    0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,
    12, 19, 26, 33, 40, 48, 41, 34, 27, 20, 13, 6,  7,  14, 21, 28,
    35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23, 30, 37, 44, 51,
    58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63,
};

KIVO_EXPORT const uint8_t kivo_tbl_ras_to_zig[64] = {
    0,  1,  5,  6,  14, 15, 27, 28, 2,  4,  7,  13, 16, 26, 29, 42,
    3,  8,  12, 17, 25, 30, 41, 43, 9,  11, 18, 24, 31, 40, 44, 53,
    10, 19, 23, 32, 39, 45, 52, 54, 20, 22, 33, 38, 46, 51, 55, 60,
    21, 34, 37, 47, 50, 56, 59, 61, 35, 36, 48, 49, 57, 58, 62, 63,
};
