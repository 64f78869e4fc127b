/* libkivo: library-wide interface.
 *
 * Status codes, the thread-pool interface through which callers lend worker
 * threads, library initialisation, the zig-zag tables, CPU feature control
 * and picture buffers. The decoder, encoder and transcoder families have
 * their own headers (kivod.h, kivoe.h, kivot.h). */
#ifndef KIVO_H
#define KIVO_H

#include <stdint.h>

#include "xelo.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(KIVO_SHARED_BUILD)
#define KIVO_API __attribute__((visibility("default")))
#else
#define KIVO_API
#endif

#define KIVO_VERSION_STRING "0.1.0"

/* ---- status codes: 0 for success, every failure negative ------------------ */
#define KIVO_OK 0
#define KIVO_ERR_OUT_OF_MEMORY (-102)
#define KIVO_ERR_UNSUPPORTED (-103)
#define KIVO_ERR_UNAVAILABLE (-104)
#define KIVO_ERR_INVALID_ARG (-105)
#define KIVO_ERR_OPEN (-108)
#define KIVO_ERR_IO (-109)
#define KIVO_ERR_MALFORMED (-202)
#define KIVO_ERR_IMGB (-203)
#define KIVO_ERR_COLOR_FORMAT (-211)
#define KIVO_ERR_THREAD (-1999)

/* Short text for a status ("unknown status" for codes not listed above). */
KIVO_API const char *kivo_strerror(int32_t status);

/* ---- thread-pool interface ------------------------------------------------ */

typedef int32_t (*kivo_job_fn)(void *arg);

typedef struct kivo_tpool kivo_tpool;
struct kivo_tpool {
    /* Makes one worker for thread index idx (1..count-1); null on failure.
     * tp is the address of the handle's own copy of this record. */
    void *(*create)(kivo_tpool *tp, int32_t idx);
    /* Starts job(arg) on the worker without waiting; negative on failure. */
    int32_t (*run)(void *thread, kivo_job_fn job, void *arg);
    /* Waits for the worker's last job and stores its result. */
    int32_t (*wait)(void *thread, int32_t *status);
    /* Destroys one worker. */
    int32_t (*release)(void *thread);
    /* Threads that may work on one picture, the calling thread included. */
    int32_t count;
    /* Copied with the record, never read by the codec. */
    uintptr_t reserved[8];
};

/* A ready pool on POSIX threads: fills *tp so that every handle created with
 * it gets count-1 worker threads of its own. Returns 0. When the system
 * refuses a thread, the constructor fails with KIVO_ERR_THREAD. */
KIVO_API int32_t kivo_tpool_std(kivo_tpool *tp, int32_t count);

/* ---- library initialisation ------------------------------------------------ */

KIVO_API extern int32_t kivo_inited;
KIVO_API int32_t kivo_init(void);
KIVO_API void kivo_deinit(void);
KIVO_API int32_t kivo_platform_init(int32_t *status);
KIVO_API void kivo_platform_deinit(void);

/* ---- shared tables ---------------------------------------------------------- */

/* Entry k: raster index (row * 8 + column) of the k-th zig-zag coefficient. */
KIVO_API extern const uint8_t kivo_tbl_zig_to_ras[64];
/* Entry r: zig-zag index of raster position r. */
KIVO_API extern const uint8_t kivo_tbl_ras_to_zig[64];

/* ---- CPU features ----------------------------------------------------------- */
#define KIVO_CPU_SSE2 (1u << 0)
#define KIVO_CPU_SSSE3 (1u << 1)
#define KIVO_CPU_SSE41 (1u << 2)
#define KIVO_CPU_AVX2 (1u << 3)
/* BMI2 where its bit extraction is fast (not on AMD processors before
 * family 19h, which run it in microcode). */
#define KIVO_CPU_BMI2 (1u << 4)
/* AVX-512 F, BW, VL, DQ and VBMI with the OS saving the opmask and ZMM
 * registers. */
#define KIVO_CPU_AVX512 (1u << 5)
#define KIVO_CPU_NEON (1u << 8)

/* Features the processor has. */
KIVO_API uint32_t kivo_cpu_detected(void);
/* Features the kernels may use: detected features within the mask. Handles
 * choose their kernels when they are created, so set the mask before. */
KIVO_API uint32_t kivo_cpu_flags(void);
KIVO_API void kivo_cpu_set_mask(uint32_t mask);

/* ---- picture buffers -------------------------------------------------------- */

typedef struct kivo_picbuf kivo_picbuf;
typedef struct kivo_picbuf_param kivo_picbuf_param;

struct kivo_picbuf_param {
    kivo_picbuf *(*alloc)(const kivo_picbuf_param *param, kivo_picbuf *existing, int32_t *status);
    void (*free)(kivo_picbuf *pic);
    int32_t width;
    int32_t height;
    int32_t color_format;
    int32_t pad;        /* margin in samples around every plane */
    int32_t margin2;    /* not read by the allocator */
    int32_t cap_width;  /* width the buffer must be able to hold */
    int32_t cap_height;
};

struct kivo_picbuf {
    uint8_t *base[4];       /* plane_base of the image buffer */
    uint8_t *plane[4];      /* planes 0, 1, 2 and again 2 */
    uint8_t *plane_alt[3];  /* planes 0, 1 and 3 */
    int32_t stride_y;
    int32_t stride_c;
    int32_t width;
    int32_t height;
    int32_t width_c;
    int32_t height_c;
    int32_t pad_x;
    int32_t pad_y;
    int32_t reserved0[4];
    xelo_imgb *imgb;        /* owns the planes */
    int32_t reserved1[3];
};

/* Makes a picture buffer for the request, or re-shapes `existing` when it is
 * large enough (otherwise `existing` is released). Returns the buffer to
 * continue with, or null with *status set (status may be null). */
KIVO_API kivo_picbuf *kivo_picbuf_alloc(const kivo_picbuf_param *param, kivo_picbuf *existing,
                                        int32_t *status);
KIVO_API void kivo_picbuf_free(kivo_picbuf *pic);

#ifdef __cplusplus
}
#endif

#endif
