// Decoder records and the functions the decoder's files share.
//
// Data flow: kivod_decode -> kivod_dec (driver.cpp: reader bs.cpp, segments
// seg.cpp, Huffman tables htbl.cpp) ; kivod_clone -> kivod_clone_frm ->
// kivod_dec_pic -> dec_scan (scan.cpp) -> slices on threads (mt.cpp) ->
// kivod_dec_slice: coefficients (vld.cpp), IDCT (idct*.cpp), output (out.cpp).
#ifndef KIVO_DECODER_INT_H
#define KIVO_DECODER_INT_H

#include <cstdint>

#include "common/kivo_int.h"
#include "kivod.h"

// ---- bit-stream reader -----------------------------------------------------

struct kivod_bs;
typedef int32_t (*kivod_bs_refill_fn)(kivod_bs *bs, int32_t wanted);
typedef uint32_t (*kivod_bs_read_byte_fn)(kivod_bs *bs, int32_t n);

// A plain record, copied freely to come back to a stream position.
struct kivod_bs {
    uint32_t cache;        // unconsumed bits, next bit at bit 31; bits below the valid ones are 0
    int32_t bits;          // valid bits in cache; may go negative at the end of the input
    const uint8_t *cur;    // memory: next byte to load (never beyond end + 1)
    const uint8_t *end;    // memory: last byte of the input
    const uint8_t *start;  // memory: first byte
    uint32_t not_ff;       // last byte loaded XOR 0xFF; 1 after init
    uint32_t pos;          // file: bytes taken from the file so far
    uint32_t last;         // file: size - 1
    kivod_bs_refill_fn refill;
    kivod_bs_read_byte_fn read_byte;
    int32_t type;          // KIVOD_INPUT_BITB or KIVOD_INPUT_MFAL
    xelo_bitb bitb;
    kivo_mfal mfal;
    void *handle;          // file: what open returned
    int32_t io_error;      // file: a read failed (the input then counts as used up)
};

int32_t kivod_bs_init(kivod_bs *bs, const kivod_input *input);
void kivod_bs_deinit(kivod_bs *bs);
uint32_t kivod_bs_read(kivod_bs *bs, int32_t n);
uint32_t kivod_bs_peek(kivod_bs *bs, int32_t n);
void kivod_bs_skip(kivod_bs *bs, int32_t n);
void kivod_bs_align_byte(kivod_bs *bs);
void kivod_bs_read_stuffing(kivod_bs *bs);
uint32_t kivod_bs_read_byte_bitb(kivod_bs *bs, int32_t n);
uint32_t kivod_bs_read_byte_mfal(kivod_bs *bs, int32_t n);
int32_t kivod_bs_flush_bitb(kivod_bs *bs, int32_t wanted);
int32_t kivod_bs_flush_mfal(kivod_bs *bs, int32_t wanted);
// Restart synchronisation: finds the next RSTn, zeroes the predictors and
// the MCU counter. 0, or -202 when no marker is found before the end.
int32_t kivod_bs_sync_restart(kivod_bs *bs, int16_t dc_pred[4], int32_t *mcu_count);
// True when the input is used up: memory cur beyond end, file pos beyond last.
bool kivod_bs_input_done(const kivod_bs *bs);
// Marks a file input whose read failed or came up short: used up, so that
// every loop over it ends, with io_error set. Returns -109.
int32_t kivod_bs_fail_io(kivod_bs *bs);
// Gives the whole bytes still cached back to the input and empties the cache
// (file input seeks). 0 or -109.
int32_t kivod_bs_rewind_cache(kivod_bs *bs, int32_t extra_back);
// Memory input: the reader's next byte with its cache given back.
const uint8_t *kivod_bs_position(kivod_bs bs);
// The first 0xFF at or after p, before the last byte (end: one past it),
// that is not a stuffed 0xFF 0x00: a marker or fill byte; null when none.
const uint8_t *kivod_next_marker(const uint8_t *p, const uint8_t *end);

// ---- marker segments -------------------------------------------------------

struct kivod_fh {
    uint16_t length;
    uint8_t precision;
    uint8_t n_comp;
    uint16_t height;
    uint16_t width;
    uint8_t comp_id[4];
    uint8_t h[4];
    uint8_t v[4];
    uint8_t tq[4];
    uint8_t h_max;
    uint8_t v_max;
};

struct kivod_sh {
    uint16_t length;
    uint8_t n_comp;
    uint8_t ss;
    uint8_t comp_idx[4];  // frame component of the j-th scan component
    uint8_t td[4];        // DC table selector, at the frame component's index
    uint8_t ta[4];        // AC table selector, at the frame component's index
    uint8_t se;
    uint8_t ah;
    uint8_t al;
};

struct kivod_qtbl {
    uint16_t length;
    uint8_t precision;
    uint8_t id;
    uint16_t q[64];       // zig-zag order for sequential frames, raster for progressive
    uint16_t q_copy[64];
    int16_t rq_mul[64];   // re-quantization multiplier per zig-zag position (transcoder), else 0
    int16_t rq_off[64];   // re-quantization rounding offset per zig-zag position
};

struct kivod_htbl_spec {
    uint8_t id;
    uint8_t cls;
    uint16_t count;
    uint8_t bits[16];
    uint8_t vals[256];
};

struct kivod_dri {
    uint16_t length;
    uint16_t interval;
};

// ---- Huffman decoding tables ------------------------------------------------

struct kivod_dc_code {
    uint16_t code;
    uint8_t len;
};

// Bits of the one-step look-ups of the DC and AC tables.
constexpr int kivod_fast_bits = 11;
struct kivod_dc_tbl {
    uint16_t count;
    uint8_t lookup[256];
    kivod_dc_code code[12];
    uint64_t dc_count[12];
    // Codes of the 8-bit look-up that fit in kivod_fast_bits bits together
    // with their extra bits, decoded in one step: indexed by the next
    // kivod_fast_bits bits, (value << 16) | (category << 8) | (code length +
    // category); 0 when the code and its bits need more.
    int32_t fast[1 << kivod_fast_bits];
};

struct kivod_ac_sym {
    uint16_t code;
    uint8_t len;
    uint8_t run;
    uint8_t size;
};

struct kivod_ac_range {
    uint16_t mincode;
    uint16_t maxcode;
    uint16_t valptr;
};

struct kivod_ac_look {
    uint8_t len;  // 255: a code longer than 8 bits starts here
    uint8_t sym;
    uint8_t size;
    uint8_t run;
};
static_assert(sizeof(kivod_ac_look) == 4, "one 32-bit load per AC look-up");

struct kivod_ac_tbl {
    uint16_t count;  // codes + 1
    uint8_t eob;
    uint8_t zrl;
    kivod_ac_sym sym[256];
    kivod_ac_range range[17];
    kivod_ac_look lookup[256];
    uint64_t ac_count[256];
    // Codes that fit in kivod_fast_bits bits together with their extra bits,
    // decoded in one step: indexed by the next kivod_fast_bits bits,
    // (value << 16) | flags | (run << 8) | (code length + size), the flags
    // saying end-of-block, sixteen zeros or coefficient; 0 when the
    // code and its bits need more. End-of-block and sixteen-zero codes carry
    // a flag and value 0.
    int32_t fast[1 << kivod_fast_bits];
    // Unique in the process to the codes the table was built from: what is
    // derived from the table (the skim's look-up) is known by it. A table
    // built again from the same codes keeps it.
    uint64_t serial;
    bool whole;  // the build completed, from these codes:
    uint8_t code_bits[16];
    uint8_t code_vals[256];
};
constexpr int32_t kivod_fast_eob = 1 << 12;
constexpr int32_t kivod_fast_zrl = 1 << 13;
constexpr int32_t kivod_fast_coef = 1 << 14;  // a coefficient: one test tells the common case

// Builds the decoding table of the table description's class and identifier.
// tables: four DC tables followed by four AC tables. 0 or -202.
int32_t kivod_build_htbl(const kivod_htbl_spec *spec, kivod_dc_tbl dc[4], kivod_ac_tbl ac[4]);

// The skim's look-up over the next kivod_skim_bits bits of a block's AC
// codes: the codes that begin in those bits, taken one after the other as
// long as the bits hold them whole (the last one's extra bits may run
// past them, up to kivod_skim_max_len bits in all), ending at an
// end-of-block. An entry holds the bits they take (bits 0-5), whether the
// last one is end-of-block (bit 6, worth 64 positions) and, from bit 8,
// the zig-zag positions they move on by, end-of-block counting one;
// kivod_skim_none when the first code is longer or one the decoders refuse.
constexpr int kivod_skim_bits = 12;
constexpr int kivod_skim_max_len = 24;
constexpr uint16_t kivod_skim_eob = 1 << 6;
constexpr uint16_t kivod_skim_none = 127 << 8;  // moves on too far to ever be taken
// first: scratch of the same size.
void kivod_build_skim(const kivod_ac_tbl *t, uint16_t skim[1 << kivod_skim_bits], uint16_t first[1 << kivod_skim_bits]);

// ---- coefficient decoding ------------------------------------------------------
// Counters are the calling thread's own copies (dc_count[12], ac_count[256]);
// they are summed into the tables after the threads join.

int32_t kivod_vld_dc(kivod_bs *bs, int16_t q0, const kivod_dc_tbl *t, uint64_t *dc_count,
                     int16_t *out);
typedef int32_t (*kivod_vld_ac_fn)(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t,
                                   uint64_t *ac_count, int16_t *blk, int16_t *dc_only);
int32_t kivod_vld_ac8(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t,
                      uint64_t *ac_count, int16_t *blk, int16_t *dc_only);
int32_t kivod_vld_ac4(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t,
                      uint64_t *ac_count, int16_t *blk, int16_t *dc_only);
int32_t kivod_vld_ac2(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t,
                      uint64_t *ac_count, int16_t *blk, int16_t *dc_only);
int32_t kivod_vld_ac1(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t,
                      uint64_t *ac_count, int16_t *blk, int16_t *dc_only);

// Block decoding for the slices: DC and AC codes of one block through a
// 64-bit window over memory input that stays open across the blocks of an
// MCU (kivod_win_close hands its state back to the reader before anything
// else reads it).
struct kivod_win {
    uint64_t acc;  // valid bits at the top, zeros below
    int32_t n;     // valid bits
    bool open;
    const uint8_t *p;
    const uint8_t *end;  // last byte of the input
    const uint8_t *ff;   // the last stuffed 0xFF taken since the window opened, or null
};
void kivod_win_close(kivod_win *w, kivod_bs *bs);
// A scan component's tables and counters (null: not counted).
struct kivod_blk_tbls {
    const kivod_dc_tbl *dc;
    const kivod_ac_tbl *ac;
    const kivod_qtbl *q;
    uint64_t *dc_count;
    uint64_t *ac_count;
    uint32_t *mag;  // per raster position: magnitudes of the stored AC coefficients are added (null: not gathered)
    const uint32_t *qz;  // per zig-zag position: quantizer | raster position << 16 (kivod_make_qz)
    const uint16_t *skim;  // the AC table's kivod_build_skim look-up (the skim's block walk only)
    int16_t q0;
};
// The quantizers of a sequential table with their raster positions, as the
// block decoders look them up: one load gives both.
void kivod_make_qz(const kivod_qtbl *q, uint32_t qz[64]);
typedef int32_t (*kivod_vld_blk_fn)(kivod_bs *bs, kivod_win *w, const kivod_blk_tbls *t, int16_t *blk,
                                    int16_t *diff, int16_t *dc_only);
// The block decoder of a scale (0, 1, 2, 4, 8): the AC routine of that scale
// after kivod_vld_dc, adding magnitudes to t->mag when `magnitudes`.
kivod_vld_blk_fn kivod_vld_blk_for(int32_t scale, bool magnitudes);
// The skim's walk over the n blocks of an MCU (blocks[i]: block i's tables),
// through one window over them: each block's DC difference decoded into
// diff[i], its AC codes consumed several at a time through its skim
// look-up; nothing stored. Consumes and fails exactly as the 1/8 block
// decoder does, block after block. Returns the blocks walked before one
// failed, n when none did, the failure in *status.
typedef int32_t (*kivod_skim_mcu_fn)(kivod_bs *bs, const kivod_blk_tbls *const *blocks, int32_t n, int16_t *diff,
                                     int32_t *status);
int32_t kivod_skim_mcu(kivod_bs *bs, const kivod_blk_tbls *const *blocks, int32_t n, int16_t *diff, int32_t *status);
#if defined(KIVO_ARCH_arm)
// Their ARMv7 variants without magnitudes (kivod_dsp's vld_blk slots), whose
// common symbols go through assembly.
kivod_vld_blk_fn kivod_vld_blk_arm_for(int32_t scale);
#endif

// ---- inverse DCT --------------------------------------------------------------

typedef void (*kivod_idct_fn)(const int16_t *coef, int32_t stride, uint8_t *dst);
void kivod_idct8(const int16_t *coef, int32_t stride, uint8_t *dst);
void kivod_idct4(const int16_t *coef, int32_t stride, uint8_t *dst);
void kivod_idct2(const int16_t *coef, int32_t stride, uint8_t *dst);
void kivod_idct1(const int16_t *coef, int32_t stride, uint8_t *dst);
void kivod_idct8_dc(const int16_t *coef, int32_t stride, uint8_t *dst);
// 128 + floor((c0 + 4) / 8), clamped: the value of a DC-only block, the
// pixel of a 1/8 one.
inline uint8_t kivod_dc_value(int16_t c0) {
    const int32_t x = c0 * 2048 + 8320;  // |c0| < 2^15: no overflow
    const int32_t v = (x >= 0 ? x >> 14 : ~(~x >> 14)) + 128;
    return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}
void kivod_idct4_dc(const int16_t *coef, int32_t stride, uint8_t *dst);
void kivod_idct2_dc(const int16_t *coef, int32_t stride, uint8_t *dst);

// Per-scale kernel tables, indexed by the scale denominator 0, 1, 2, 4, 8;
// the other slots are empty. Filled from the best variant the CPU flags allow.
struct kivod_dsp {
    kivod_idct_fn idct[9];
    kivod_idct_fn idct_dc[9];
    kivod_vld_ac_fn vld_ac[9];
    kivod_vld_blk_fn vld_blk[9];  // the slices' block decoders without magnitudes
    kivod_skim_mcu_fn skim_mcu;   // the skim's walk over an MCU
};
void kivod_dsp_init(kivod_dsp *dsp, uint32_t cpu_flags);
// Names of the variants kivod_dsp_init would choose, for reports.
const char *kivod_dsp_describe(uint32_t cpu_flags);
// Block output size shift per scale: 3, 3, 2, 1, 0 for 0, 1, 2, 4, 8.
extern const uint8_t tbl_blk_shift[9];
// The reduction's denominator of a scale: 1 for 0 and 1, else the scale.
inline int kivod_denom(int32_t scale) { return scale <= 1 ? 1 : scale; }

// ---- context -----------------------------------------------------------------

struct kivod_work;

// ---- band output (bands.cpp) -----------------------------------------------------
// Instead of writing planes of the whole picture, each slice reconstructs its
// MCU rows into a ring of planes of its own and reports every MCU row it
// finishes, so that a caller can take the rows while they are in cache.
struct kivod_band {
    const uint8_t *plane[3];
    int32_t stride[3];
    int32_t ring[3];  // lines each plane's ring holds: whole MCU rows, two at least;
                      // picture line y of a plane sits at ring line y % ring
    int32_t first;    // the slice's first luma line
    int32_t end;      // luma line where the next slice starts (total for the last slice)
    int32_t total;    // luma lines of the scan's MCU rows, padding included
    int32_t done;     // luma lines reconstructed so far, counted from the picture's top
    int32_t slice;    // 0 .. threads - 1
};
struct kivod_band_sink {
    // MCU rows below its own that every slice but the last also decodes,
    // for rows of its own that need one more row below (0 or 1).
    int32_t context_rows;
    // Called on the slice's thread after each MCU row; a slice's calls come
    // in picture order.
    void (*rows_done)(void *user, const kivod_band *band);
    void *user;
    // For slices started ahead of the skim (restart streams), both or
    // neither: keep saves the caller's memory that the slice's rows go to
    // (band: its first, end, total and slice), on the slice's thread before
    // it runs, false when it cannot; put_back restores every saved slice and
    // forgets every slice's progress before the slices run again, or only
    // frees what was saved (kept: the result stands).
    bool (*keep)(void *user, const kivod_band *band);
    void (*put_back)(void *user, bool kept);
};
// The lines of slice `slice` (first, end, total, slice; done at first).
void kivod_band_span(const kivod_ctx *ctx, int slice, kivod_band *band);
// Size and layout of the frame whose headers kivod_dec read, while its
// picture is still to be decoded; else KIVO_ERR_UNAVAILABLE.
int32_t kivod_pending_frame(const kivod_ctx *ctx, int32_t *width, int32_t *height, int32_t *color_format);
// Whether kivod_clone_bands can decode the picture whose headers kivod_dec
// read: at full size from memory input, a progressive frame or a sequential
// one whose first scan carries every component.
bool kivod_bands_possible(const kivod_ctx *ctx);
// Decodes the picture as kivod_clone would into planes of the frame's size
// and layout, handing the rows to the sink instead. Statuses as kivod_clone's;
// KIVO_ERR_UNSUPPORTED (nothing read) when kivod_bands_possible is false.
int32_t kivod_clone_bands(kivod_ctx *ctx, const kivod_band_sink *sink);

struct kivod_proc {
    int32_t (*ready)(kivod_ctx *ctx);
    void (*flush)(kivod_ctx *ctx);
    int32_t (*dec)(kivod_ctx *ctx, const kivod_input *input, kivod_frame_info *info);
    int32_t (*pic_job)(kivod_ctx *ctx, kivod_work *w);
    int32_t (*pull_frm)(kivod_ctx *ctx, void *frame);
    int32_t (*clone_frm)(kivod_ctx *ctx, xelo_imgb *imgb);
};

// One per thread. Statistics and counters are the thread's own and are summed
// into the context after the join, so results never depend on timing.
struct kivod_work {
    uint8_t first_comp;  // progressive reconstruction: first component
    uint8_t n_comp;      // progressive reconstruction: number of components
    // Block buffers, all zero between blocks: a block is decoded into one
    // while the other waits for its inverse DCT.
    alignas(16) int16_t blk[2][64];
    int16_t dc_pred[4];
    int64_t dc_level_sum;
    int32_t n_mcu;
    int32_t rst_count;
    int32_t start_row[4];
    int32_t lines[4];
    int32_t out_lines[4];
    int32_t out_first[4];
    uint8_t *strip[4];
    kivod_bs bs;
    int32_t held;        // failure kept from the restart interval the slice starts in
    int32_t first_mcu;   // the slice's first MCU, counted from the scan's start
    int32_t extra_mcu;   // MCUs after the slice decoded only to feed its resizers
    int32_t mcu_done;    // the slice's own MCUs decoded before it stopped
    int32_t stopped;     // 1 when the slice ended before its last MCU
    // the thread's share of the scan statistics and table counters
    int64_t stat_luma[64];
    int64_t stat_chroma[64];
    int32_t n_luma;
    int32_t n_chroma;
    uint64_t dc_count[4][12];
    uint64_t ac_count[4][256];
    kivod_ctx *ctx;
};

struct kivod_ctx {
    uint32_t magic;
    void *self;
    kivod_work *work[8];
    kivod_bs scan_bs;
    kivod_dc_tbl dc_tbl[4];
    int64_t mean_level;
    kivod_ac_tbl ac_tbl[4];
    kivod_qtbl qtbl[4];
    // Scan statistics of the last picture. Kept in 64 bits: sums of
    // coefficient magnitudes over a large picture overflow 32.
    int64_t stat_luma[64];
    int64_t stat_chroma[64];
    int32_t n_luma;
    int32_t n_chroma;
    uint8_t mcu_lines[4];
    uint8_t q_unit[4];
    int32_t blk_w[4];
    int32_t blk_h[4];
    int32_t comp_w[4];
    int32_t comp_h[4];
    int32_t line_w[4];
    int32_t prog_blk_w[6];
    int32_t prog_blk_h[4];  // block rows of the progressive coefficient buffers
    kivod_fh fh;
    kivod_sh sh;
    kivod_dri dri;
    uint8_t *sample_buf[4];
    int16_t *coef_buf[4];
    size_t coef_bytes[4];  // each coef_buf's size
    // Coefficient buffers handed back (kivod_kept::spare) for the next
    // picture's levels: taken, zeroed, by a component that fits in one.
    int16_t *coef_spare[4];
    size_t spare_bytes[4];
    xelo_imgb *out_imgb;
    int32_t out_w[4];
    int32_t out_h[4];
    kivod_bs main_bs;
    kivod_bs dqt_pos[4];
    kivod_bs dht_pos[8];
    kivod_htbl_spec dht_spec[8];
    uint8_t n_dqt;
    uint8_t n_dht;
    int32_t progressive;
    int32_t first_scan_ns;   // components the frame's first scan names (0: not read)
    int32_t color_format;
    int32_t scale;
    int32_t n_threads;
    int64_t dc_level_total;  // DC levels of component 0 summed over the picture's scans
    int32_t comp_rows[4];    // block rows of each component every scan reached (-1: no scan yet)
    int32_t reduction;       // the caller's reduction (1, 2, 4, 8), or 0 for the choice by ratio
    int32_t stats_wanted;    // sequential scans gather the statistics (kivod_set_stats)
    kivod_limits limits;     // the caller's limits (0: none)
    int64_t app_bytes;       // bytes of the kept APPn segments and their nodes
    uint64_t frame_bytes;    // bytes of the frame buffers kivod_decode allocated
    int32_t reached_end;     // the picture's last scan or EOI was reached
    int32_t levels_only;     // kivod_dec_levels is running: scans keep levels, nothing is reconstructed
    // kivod_dec takes any layout of one, three or four components with
    // factors 1 to 4 for its levels; one it does not reconstruct gets
    // colour format 0 (and can then only have its levels read).
    int32_t any_layout;
    kivod_dsp dsp;
    // The skim's look-ups of the AC tables, each built from the table of
    // the serial beside it (0: none yet) when a skim first needs it.
    uint16_t skim_tbl[4][1 << kivod_skim_bits];
    uint16_t skim_scratch[1 << kivod_skim_bits];
    uint64_t skim_serial[4];
    kivo_tpool tpool;
    void *threads[8];
    kivod_app_node *app_list;
    kivod_app_node *app_last;  // last node of app_list, so that appending takes constant time
    int32_t app_owned;         // 1 when the nodes' data are copies (file input) the list frees
    uint8_t *file_copy;        // file input read whole, decoded as memory (freed with the APPn list)
    const kivod_band_sink *bands;  // kivod_clone_bands is running: rows go to this sink
    uint8_t *band_buf;             // the slices' rings, band_bytes each
    size_t band_bytes;
    size_t band_offset[3];         // each component's ring within a slice's
    int32_t band_ring[3];
    kivod_proc proc;
};

// ---- handle (kivod.cpp) ----------------------------------------------------------
extern "C" {
KIVO_API void kivod_set_ppi(kivod_ctx *ctx);
KIVO_API int32_t kivod_platform_init(kivod_ctx *ctx);
KIVO_API void kivod_platform_deinit(kivod_ctx *ctx);
KIVO_API int32_t kivod_ready(kivod_ctx *ctx);
KIVO_API void kivod_flush(kivod_ctx *ctx);
KIVO_API void kivod_prepare(kivod_ctx *ctx);
}
void kivod_release_app_list(kivod_ctx *ctx);
void kivod_release_frame_buffers(kivod_ctx *ctx);

// The levels (kivod_dec_levels) and the APPn list of a picture, moved out
// of the decoder so that its next decode leaves them alone; freed with the
// record.
struct kivod_kept {
    int16_t *coef[4] = {};
    size_t bytes[4] = {};
    kivod_app_node *apps = nullptr;
    int32_t app_owned = 0;
    uint8_t *file_copy = nullptr;  // the file read whole that the nodes may point into
    kivod_kept() = default;
    kivod_kept(const kivod_kept &) = delete;
    kivod_kept &operator=(const kivod_kept &) = delete;
    ~kivod_kept();
    void take(kivod_ctx *ctx);
    // Hands the levels' buffers back to ctx for its next picture.
    void spare(kivod_ctx *ctx);
};

// ---- marker segment parsers (seg.cpp) -----------------------------------------------
int32_t kivod_vld_soi(kivod_bs *bs);
int32_t kivod_vld_eoi(kivod_bs *bs);
int32_t kivod_vld_fh(kivod_bs *bs, kivod_fh *fh);
int32_t kivod_vld_sh(kivod_ctx *ctx, kivod_bs *bs, kivod_sh *sh);
int32_t kivod_vld_qtbl(kivod_bs *bs, kivod_qtbl qtbl[4], uint8_t q_unit[4], int32_t progressive);
int32_t kivod_vld_htbl(kivod_bs *bs, kivod_htbl_spec spec[8], kivod_dc_tbl dc[4], kivod_ac_tbl ac[4]);
int32_t kivod_vld_dri(kivod_bs *bs, kivod_dri *dri);
// Appends an APPn segment to the context's list (file input: a copy the list owns).
int32_t kivod_vld_app(kivod_ctx *ctx, kivod_bs *bs, uint32_t marker);
// How a frame's three components are to be read, as libjpeg reads them:
// YCbCr with a JFIF segment; as an Adobe segment's transform says (0: RGB);
// without either, RGB when they are named R, G and B.
enum class kivod_rgb { no, by_adobe, by_names };
kivod_rgb kivod_rgb_coding(const kivod_fh &fh, const kivod_app_node *apps);
int32_t kivod_vld_skip_seg(kivod_bs *bs);
extern "C" KIVO_API int32_t kivod_chk_eoi(kivod_bs *bs);

// ---- driver (driver.cpp) ----------------------------------------------------------
int32_t kivod_dec(kivod_ctx *ctx, const kivod_input *input, kivod_frame_info *info);
int32_t kivod_clone_frm(kivod_ctx *ctx, xelo_imgb *imgb);
int32_t kivod_dec_pic(kivod_ctx *ctx, xelo_imgb *imgb);
int32_t kivod_finish(kivod_ctx *ctx);
// Instead of kivod_clone_frm: decodes every scan of the picture whose headers
// kivod_dec read into quantized levels only (no IDCT, no output). Then
// coef_buf[c] holds component c's levels, prog_blk_w[c] x prog_blk_h[c]
// blocks of whole MCUs, 64 levels each in raster order, until
// kivod_release_frame_buffers or the next kivod_dec; qtbl holds the tables
// (zig-zag order for a sequential frame, raster for a progressive one).
// Levels of a damaged picture are not handed out: a scan that fails, a
// picture not decoded whole or a table redefined after the first scan gives
// a negative status and no buffers. Without `statistics` the picture's
// statistics (kivod_set_stats) are not gathered, whatever the handle asks.
int32_t kivod_dec_levels(kivod_ctx *ctx, bool statistics);
// The mean luma DC level from dc_level_total and the first component's blocks.
void kivod_set_mean_level(kivod_ctx *ctx);
// The pixels of the levels that kivod_dec_levels read (coef[c]: component
// c's, q[c] its quantizers in raster order), as the decode of the frame
// would write them into img (the frame's size and layout), on the handle's
// threads; for a progressive frame also its mean level, as its decode
// finds it. 0, -105 for another picture, or the thread pool's status.
int32_t kivod_levels_to_picture(kivod_ctx *ctx, int16_t *const coef[4], const uint16_t *const q[4], xelo_imgb *img);
int32_t kivod_pull_frm(kivod_ctx *ctx, void *frame);
int32_t kivod_choose_scale(int32_t fw, int32_t fh, int32_t ow, int32_t oh);
// MCU rows of the frame, and those every component of the last picture was
// decoded through.
int32_t kivod_mcu_rows_total(const kivod_ctx *ctx);
int32_t kivod_mcu_rows_done(const kivod_ctx *ctx);
// Every row decoded (and, for a progressive frame, the end of the image reached).
bool kivod_picture_complete(const kivod_ctx *ctx);
// True when `value` is above a limit that is set (not 0).
inline bool kivod_over(int64_t limit, uint64_t value) { return limit > 0 && value > static_cast<uint64_t>(limit); }
// Whether output rows of this many bytes may be saved for a slice started
// ahead of the skim (kivod_band_sink::keep): 64 MiB at most, and within the
// handle's memory limit with the frame buffers.
inline bool kivod_may_save(const kivod_ctx *ctx, size_t bytes) {
    return bytes <= (size_t(64) << 20) && !kivod_over(ctx->limits.max_memory, ctx->frame_bytes + bytes);
}

// ---- scans, slices and threads (scan.cpp, mt.cpp) ------------------------------------
int32_t dec_scan(kivod_ctx *ctx, int32_t *done);
// Marks a slice that never ran (the pool refused its run) as stopped before
// its first MCU, with no statistics.
void kivod_slice_not_run(kivod_work *w);
int32_t kivod_dec_slice(kivod_ctx *ctx, kivod_work *w);
// Slices of a sequential scan: at most this many (one per lent thread, one
// for file input, no more than the rows allow).
int kivod_slice_limit(const kivod_ctx *ctx);
// Divides the scan into that many slices of whole MCU rows, the later ones
// smaller: they start once the skim has found their entry.
void kivod_split_slices(kivod_ctx *ctx);
// Divides the scan into n slices starting at the given MCU rows (0 first,
// rising, on strip boundaries for resized output).
void kivod_split_rows(kivod_ctx *ctx, int n, const int32_t *first_rows);

// Entropy-decoding position between two MCUs of a sequential scan. The skim
// steps it with the rules the slices decode by, so its copy at a slice's
// first MCU is exactly where decoding the scan from its start arrives.
struct kivod_skim {
    kivod_bs bs;
    int16_t pred[4];
    int32_t run;   // MCUs since the last restart marker
    int32_t held;  // failure kept until the next restart marker, else 0
    int32_t mcu;   // MCUs of the scan walked
};
// Walks MCUs up to MCU `target` (DC differences decoded, AC codes skipped).
// Returns 0 there, or 1 where decoding the scan stops before: a failure
// without restart markers, no marker before the end of the data, or the
// data used up.
// The AC tables' look-ups are built here when the tables are new.
int32_t kivod_skim_to(kivod_ctx *ctx, kivod_skim *sk, int32_t target);
// MCUs in a sequential scan and in one MCU row of it.
int32_t kivod_scan_mcus(const kivod_ctx *ctx, int32_t *per_row);
// Records how far a scan got: block rows reached per scan component.
void kivod_note_rows(kivod_ctx *ctx, int c, int32_t rows);
// Walks the scan to find each slice's entry state and starts every slice as
// soon as it is found: slice i on worker i + 1, the last one on the calling
// thread. Waits for all of them. Lowers n_threads to the slices that ran.
int32_t kivod_skim_and_run(kivod_ctx *ctx);
// Runs the picture job on work records 0..n_threads-1 (fork-join).
int32_t dec_mt(kivod_ctx *ctx);
int32_t kivod_thread_job(void *work);
// Sums the work records' statistics and counters into the context.
void kivod_collect_stats(kivod_ctx *ctx);

// ---- progressive frames (prog.cpp) ---------------------------------------------------
// Coefficient memory a progressive frame may take (all components together).
constexpr uint64_t kMaxProgressiveBytes = uint64_t(1) << 30;
// One progressive scan into the coefficient buffers (called by dec_scan after
// the scan header); sets *done at the first AC scan when decoding at 1/8.
int32_t kivod_dec_scan_prog(kivod_ctx *ctx, int32_t *done);
// 0 when the scan header and the tables it selects (by slot) can be decoded.
int32_t kivod_check_prog_scan(const kivod_ctx *ctx, const kivod_sh &sh, const kivod_dc_tbl *dc_tbl,
                              const kivod_ac_tbl *ac_tbl);
// One progressive scan's blocks: the tables it reads and where its values go.
struct kivod_prog_scan {
    kivod_sh sh;
    const kivod_dc_tbl *dc[4];  // by frame component
    const kivod_ac_tbl *ac[4];
    int16_t *dst[4];  // blocks of whole MCUs, prog_blk_w[c] a row, step values a block
    int32_t step;     // 64, or 1 for a DC refinement into one value a block
    // Optional: before_row(arg, r) before row r (false stops the scan),
    // after_row(arg, n) once n rows are whole; rows are block rows of one
    // component or MCU rows.
    bool (*before_row)(void *arg, int32_t row);
    void (*after_row)(void *arg, int32_t rows);
    void *arg;
};
// The scan with the tables of the given slots, into the coefficient buffers.
kivod_prog_scan kivod_prog_scan_of(kivod_ctx *ctx, const kivod_sh &sh, const kivod_dc_tbl *dc_tbl,
                                   const kivod_ac_tbl *ac_tbl);
// Decodes the scan's blocks from bs (at its first data byte): 0 or a negative
// status, *rows_done the rows decoded whole.
int32_t kivod_prog_scan_blocks(const kivod_ctx *ctx, const kivod_prog_scan &s, kivod_bs *bs, int32_t *rows_done);
// Decodes the frame's progressive scans over two threads where the stream
// allows it (see prog_mt.cpp): true when it did, with *scan_status and *done
// as the scan loop would have left them; false leaves the decoder untouched.
bool kivod_prog_scans_mt(kivod_ctx *ctx, int32_t *scan_status, int32_t *done);
// Reconstruction at the end of the picture: shares the components among the
// work records and runs kivod_dec_pic_prog on the threads.
int32_t kivod_finish_prog(kivod_ctx *ctx);
int32_t kivod_dec_pic_prog(kivod_ctx *ctx, kivod_work *w);
int32_t kivod_vld_dc_prog(kivod_bs *bs, int32_t al, int16_t *pred, const kivod_dc_tbl *t, int16_t *blk);
int32_t kivod_vld_dc_prog_refine(kivod_bs *bs, int32_t al, int16_t *pred, const kivod_dc_tbl *t, int16_t *blk);
int32_t kivod_vld_ac_prog(kivod_bs *bs, int32_t ss, int32_t se, int32_t al, int32_t *eob_run,
                          const kivod_ac_tbl *t, int16_t *blk);
int32_t kivod_vld_ac_prog_refine(kivod_bs *bs, int32_t ss, int32_t se, int32_t al, int32_t *eob_run,
                                 const kivod_ac_tbl *t, int16_t *blk);

#endif
