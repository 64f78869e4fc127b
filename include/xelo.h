/* xelo: the support layer under libkivo.
 *
 * Aligned memory, image buffers, the bit writer and the plane resizer.
 * Records keep their documented field order; fields marked reserved belong
 * to the support layer. */
#ifndef XELO_H
#define XELO_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(KIVO_SHARED_BUILD)
#define XELO_API __attribute__((visibility("default")))
#else
#define XELO_API
#endif

/* Colour format codes. */
#define XELO_CS_YCBCR400 10
#define XELO_CS_YCBCR420 11
#define XELO_CS_YCBCR422 12
#define XELO_CS_YCBCR444 13
#define XELO_CS_NV12 16
#define XELO_CS_NV21 17
#define XELO_CS_YCBCR440 18
#define XELO_CS_YCBCR411 22
#define XELO_CS_YCBCRK400 40
#define XELO_CS_YCBCRK420 41
#define XELO_CS_YCBCRK422 42
#define XELO_CS_YCBCRK444 43
#define XELO_CS_YCBCRK440 44
#define XELO_CS_YUYV 101

/* An (horizontal, vertical) pair of 16-bit values in one word: horizontal in
 * the low half. Used for plane alignments and margins. */
#define XELO_PAIR(h, v) ((uint32_t)(((uint32_t)(v) << 16) | ((uint32_t)(h) & 0xFFFFu)))

/* Status of xelo_imgb_rebirth when the buffer cannot hold the picture
 * (same value as the codec's image-buffer status). */
#define XELO_ERR_CAPACITY (-203)
#define XELO_ERR_ARG (-105)

/* ---- memory ------------------------------------------------------------ */

/* Both pairs return 32-byte aligned blocks; a block goes back to the pair
 * that produced it. A size of 0 gives a valid unique block. All memory
 * functions may be called from several threads at once. */

XELO_API void *xelo_malloc_align32(size_t size);
XELO_API void xelo_mfree_align32(void *p);
XELO_API void *xelo_malloc_fast_align32(size_t size);
XELO_API void xelo_mfree_fast_align32(void *p);
XELO_API void xelo_mset_x64(void *dst, int value, size_t size);
XELO_API void xelo_mset_x64a(void *dst, int value, size_t size);

/* ---- image buffer -------------------------------------------------------- */

typedef struct xelo_imgb xelo_imgb;
struct xelo_imgb {
    int32_t magic;                      /* 0: reserved */
    void (*proc)(xelo_imgb *);          /* 1: optional procedure of the owner */
    void *priv;                         /* 2: reserved */
    void (*release)(xelo_imgb *);       /* 3: destroys the record and its planes */
    int32_t width;                      /* 4: width of the first plane */
    int32_t height;                     /* 5: height of the first plane */
    int32_t cap_width;                  /* 6: reserved: capacity width */
    int32_t cap_height;                 /* 7: reserved: capacity height */
    int32_t color_format;               /* 8 */
    int32_t stride[4];                  /* 9-12: bytes between line starts */
    int32_t lines[4];                   /* 13-16: lines held per plane */
    uint8_t *plane[4];                  /* 17-20: first visible pixel */
    int32_t plane_w[4];                 /* 21-24: reserved: visible width */
    int32_t plane_h[4];                 /* 25-28: reserved: visible height */
    uint32_t align[4];                  /* 29-32: reserved */
    uint32_t pad[4];                    /* 33-36: reserved */
    size_t capacity[4];                 /* 37-40: reserved: bytes per plane */
    int32_t n_planes;                   /* 41: reserved */
    int32_t reserved[4];                /* 42-45 */
    uint8_t *plane_base[4];             /* 46-49: whole allocation per plane */
};

/* Creates a buffer able to hold pictures up to cap_w x cap_h of the given
 * colour format. `version` must be 3; align and pad point to four pairs
 * (XELO_PAIR), one per plane; the three trailing values must be 0. An
 * alignment of 0 means 1; alignments and margins are at most 4096 and sizes
 * 1..65535. Planes the format does not use have a null plane[].
 * Returns null on bad arguments or failed allocation. */
XELO_API xelo_imgb *xelo_imgb_create(int32_t cap_w, int32_t cap_h, int32_t color_format,
                                     int32_t version, const uint32_t *align, const uint32_t *pad,
                                     int32_t r0, int32_t r1, int32_t r2);
/* Re-shapes the buffer for a picture of w x h without allocating. Returns 0,
 * XELO_ERR_CAPACITY when a plane does not fit, XELO_ERR_ARG on bad
 * arguments; on failure the record keeps its previous shape. */
XELO_API int32_t xelo_imgb_rebirth(xelo_imgb *imgb, int32_t w, int32_t h, int32_t color_format,
                                   int32_t version, const uint32_t *align, const uint32_t *pad);

/* Plane geometry of a colour format: number of planes and each plane's
 * width in bytes and height for a w x h picture. n_planes counts the slots
 * up to the highest one in use; unused slots get 0 x 0 (YCbCrK 400 uses
 * slots 0 and 3). Returns 0, or -1 for an unknown code or a size outside
 * 1..65535. */
XELO_API int32_t xelo_cs_planes(int32_t color_format, int32_t w, int32_t h,
                                int32_t width[4], int32_t height[4], int32_t *n_planes);

/* ---- compressed bytes ------------------------------------------------------ */

typedef struct xelo_bitb {
    int32_t reserved0[4];  /* 0-3 */
    uint8_t *addr;         /* 4: first byte */
    int32_t bsize;         /* 5: reserved: capacity */
    int32_t ssize;         /* 6: size in bytes */
    int32_t reserved1[3];  /* 7-9 */
} xelo_bitb;

/* ---- bit writer ------------------------------------------------------------ */

/* A flush moves the (39 - free_bits) / 8 leading bytes of the cache to
 * write_ptr, most significant first, advancing write_ptr, and must leave
 * cache == 0 and free_bits == 32 (the writer resets both after every flush
 * as well). The writer calls it when the cache is full and from
 * xelo_bsw_sink. */
typedef struct xelo_bsw xelo_bsw;
typedef int32_t (*xelo_bsw_flush_fn)(xelo_bsw *bsw);
struct xelo_bsw {
    uint32_t cache;           /* 0: bits placed from the most significant end */
    int32_t free_bits;        /* 1: free positions in cache; 32 when empty */
    uint8_t *write_ptr;       /* 2: next byte to write */
    int32_t size;             /* 3: output size in bytes */
    uint8_t *start_ptr;       /* 4: first byte of the output */
    uint8_t *end_ptr;         /* 5: one past the last byte of the output */
    xelo_bsw_flush_fn flush;  /* 6: moves the cache's bytes to write_ptr */
    int32_t overflow;         /* 7: set by a flush that met end_ptr; bytes past it are dropped */
    int32_t reserved[2];
};

XELO_API void xelo_bsw_init(xelo_bsw *bsw, uint8_t *out, int32_t size, xelo_bsw_flush_fn flush);
/* Appends the low n bits of value (n 1..32), most significant first. */
XELO_API void xelo_bsw_write(xelo_bsw *bsw, uint32_t value, int32_t n);
/* Flushes the cache, padding the last byte with zero bits; empties the cache. */
XELO_API void xelo_bsw_sink(xelo_bsw *bsw);
/* A flush that writes the cache's bytes as they are, bounded by end_ptr:
 * bytes that do not fit are dropped and overflow is set. Returns 0, or -1
 * once overflow is set. */
XELO_API int32_t xelo_bsw_flush_plain(xelo_bsw *bsw);

/* ---- resizer --------------------------------------------------------------- */

typedef struct xelo_irsz_desc {
    int32_t kind;        /* 20 */
    int32_t mode;        /* 11 */
    int32_t src_w;
    int32_t src_h;
    int32_t src_stride;
    int32_t strip_h;     /* lines per strip */
    int32_t dst_w;
    int32_t dst_h;
    int32_t dst_stride;
    uint8_t *dst;
} xelo_irsz_desc;

typedef struct xelo_irsz_t xelo_irsz_t;
/* Creates a resizer for one plane (kind 20, mode 11; sizes 1..65535). The
 * src_stride and src_h arguments are authoritative: the descriptor's copies
 * may be 0 or must agree. Returns null on bad arguments or failed
 * allocation. */
XELO_API xelo_irsz_t *xelo_irsz_create(const xelo_irsz_desc *desc, int32_t zero,
                                       int32_t src_stride, int32_t src_h);
/* Feeds rows [first, first + n) of the source, in order from the top; row
 * first + k is at strip + k * src_stride. Rows at or below src_h are ignored
 * (never read). A destination line is written as soon as the source rows it
 * depends on have arrived. Returns 0, or -105 for out-of-order rows or bad
 * arguments. */
XELO_API int32_t xelo_irsz(xelo_irsz_t *rsz, const uint8_t *strip, int32_t first, int32_t n);
XELO_API void xelo_irsz_delete(xelo_irsz_t *rsz);

#ifdef __cplusplus
}
#endif

#endif
