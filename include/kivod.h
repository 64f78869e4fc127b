/* libkivo decoder: Huffman-coded JPEG with 8-bit samples (baseline,
 * extended sequential, progressive) into caller-supplied image buffers, at
 * full size or reduced by 1/2, 1/4 or 1/8 and resized to the buffer. */
#ifndef KIVOD_H
#define KIVOD_H

#include "kivo.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kivod_ctx kivod_ctx;

typedef struct kivod_create_param {
    int32_t platform;   /* not examined by the decoder */
    kivo_tpool *tpool;  /* worker threads, or null for the calling thread only */
} kivod_create_param;

/* File interface: the decoder calls open, close, read, tell, seek, skip and
 * size; the other words are the caller's. */
typedef struct kivo_mfal kivo_mfal;
struct kivo_mfal {
    void *user[4];                                               /* 0-3: the caller's */
    void *(*open)(kivo_mfal *mfal, int32_t mode, int32_t flags); /* 4: called with (mfal, 2, 1) */
    int32_t (*close)(void *h);                                   /* 5 */
    int32_t (*read)(void *h, void *dst, int32_t n);              /* 6: bytes read */
    void *reserved7;                                             /* 7 */
    int32_t (*tell)(void *h, int64_t *pos);                      /* 8: 0 on success */
    int32_t (*seek)(void *h, const int64_t *pos, int32_t whence);/* 9: absolute; 0 on success */
    int32_t (*skip)(void *h, const int64_t *n, int32_t type);    /* 10: forward by n */
    int32_t (*size)(void *h, int64_t *size);                     /* 11: 0 on success */
    void *reserved[9];                                           /* 12-20 */
};

/* Fills *mfal with a file interface reading the named file (the path must
 * outlive the decoding). Returns 0, or -105 for null arguments. */
KIVO_API int32_t kivo_mfal_file(kivo_mfal *mfal, const char *path);

#define KIVOD_INPUT_BITB 2
#define KIVOD_INPUT_MFAL 4

typedef struct kivod_input {
    int32_t type;      /* KIVOD_INPUT_BITB or KIVOD_INPUT_MFAL */
    xelo_bitb *bitb;
    kivo_mfal *mfal;
} kivod_input;

typedef struct kivod_app_node kivod_app_node;
struct kivod_app_node {
    uint32_t marker;  /* 0xE0 to 0xEF */
    uint32_t size;    /* bytes of data: the segment length minus 2 */
    uint8_t *data;
    kivod_app_node *next;
};

typedef struct kivod_frame_info {
    int32_t reserved;
    int32_t width;
    int32_t height;
    int32_t color_format;
    /* When not null, receives the APPn list, owned by the decoder until its
     * next kivod_decode or kivod_delete; null when kivod_decode fails
     * without reporting a colour format. */
    kivod_app_node **app_list;
} kivod_frame_info;

KIVO_API kivod_ctx *kivod_create(const kivod_create_param *param, int32_t *status);
KIVO_API void kivod_delete(kivod_ctx *ctx);
/* Reads the headers up to the first scan; reports size and colour format. */
KIVO_API int32_t kivod_decode(kivod_ctx *ctx, const kivod_input *input, kivod_frame_info *info);
/* Decodes the picture into the buffer, reduced and resized to its size.
 * Call once after each successful kivod_decode; a buffer it refuses
 * (-105: a missing plane, or line distances or counts short of the
 * picture; -103: a layout it cannot write; -102: resizers to the buffer's
 * size beyond max_memory) leaves the headers for another call and the
 * statistics (kivod_get_stats) as they were. */
KIVO_API int32_t kivod_clone(kivod_ctx *ctx, xelo_imgb *imgb);
/* The reduction kivod_clone decodes at, for this handle's later pictures:
 * 1, 2, 4 or 8 (full size, 1/2, 1/4, 1/8; the result is then resized to the
 * buffer, which is no resampling when the buffer has exactly that size), or
 * 0 for the default choice from the ratio of frame to buffer (which, for
 * small buffers, may reduce further than the buffer needs and enlarge
 * again). Returns 0, or -105 for another value. */
KIVO_API int32_t kivod_set_reduction(kivod_ctx *ctx, int32_t denom);
/* The decoder hands out no frames of its own: always -103 on a valid handle. */
KIVO_API int32_t kivod_pull(kivod_ctx *ctx, void *frame);
/* Always -103. */
KIVO_API int32_t kivod_info(void);

/* Statistics of the last decoded picture (sequential frames), gathered only
 * by a handle asked to with kivod_set_stats, as they cost time on every
 * block and coefficient; without it every field is 0. */
typedef struct kivod_stats {
    int64_t mean_level;         /* mean luma DC level, 0..255 */
    int64_t stat_luma[64];      /* raster order; [0]: sum of (DC + 1024) >> 3 */
    int64_t stat_chroma[64];
    int32_t n_luma;
    int32_t n_chroma;
    uint64_t dc_count[4][12];   /* per DC table, per category */
    /* Per AC table, per symbol of the blocks re-quantized to other tables;
     * no public call sets such tables, so these stay 0. */
    uint64_t ac_count[4][256];
} kivod_stats;
KIVO_API int32_t kivod_get_stats(kivod_ctx *ctx, kivod_stats *stats);
/* Whether the next pictures gather the statistics of kivod_stats (on: 1,
 * off: 0, the default). Returns 0, or -105 for another value. */
KIVO_API int32_t kivod_set_stats(kivod_ctx *ctx, int32_t on);

/* Limits for untrusted input, kept by the handle; 0 in a field means no
 * limit (the default for every field). An input that exceeds one is refused
 * before the decoder makes any allocation of that size:
 *   max_pixels     frame width x height              kivod_decode: -103
 *   max_scans      scans decoded by one kivod_clone  kivod_clone: -103 unless
 *                  every row is decoded already; the scans before the
 *                  limit stay decoded in the buffer
 *   max_memory     bytes the decoder allocates for one picture: the frame
 *                  buffers (kivod_decode: -102), with the resizers a
 *                  reduced or resized output adds (kivod_clone: -102)
 *                  and the planes kivoc_decode_packed decodes a picture
 *                  into when it does not convert it band by band (-102).
 *                  File input is read whole (and then decodes on every
 *                  lent thread) when its size is within this limit and
 *                  1 GiB, a copy counted alone (with the frame buffers
 *                  the picture may then take up to twice the limit); a
 *                  larger file is read as it is decoded, on one thread,
 *                  and is not refused for its size
 *   max_app_bytes  bytes of the kept APPn segments, each counted with its
 *                  list node                         kivod_decode: -102 */
typedef struct kivod_limits {
    int64_t max_pixels;
    int64_t max_scans;
    int64_t max_memory;
    int64_t max_app_bytes;
} kivod_limits;
/* Sets the handle's limits. Returns 0, or -105 for a null argument or a
 * negative field. */
KIVO_API int32_t kivod_set_limits(kivod_ctx *ctx, const kivod_limits *limits);

/* How much of the last picture kivod_clone decoded. A stream that ends early
 * still decodes with status 0 as far as its data goes, except where they end
 * inside a progressive scan, or in the last MCU of a restart interval or
 * after it, before its marker: KIVO_ERR_MALFORMED, with what was decoded up to there
 * in the buffer. A sequential frame's rows below keep what the buffer held;
 * a progressive frame's rows are all reconstructed from the coefficients
 * that arrived (mid-grey where none did). */
typedef struct kivod_progress {
    int32_t complete;        /* 1: every MCU row of every component decoded (and,
                                progressive, the end of the image reached) */
    int32_t mcu_rows;        /* MCU rows of the frame decoded in every component */
    int32_t mcu_rows_total;  /* MCU rows of the frame */
} kivod_progress;
KIVO_API int32_t kivod_get_progress(kivod_ctx *ctx, kivod_progress *progress);

#ifdef __cplusplus
}
#endif

#endif
