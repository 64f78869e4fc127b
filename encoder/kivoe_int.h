// Encoder records and the functions the encoder's files share.
//
// Data flow: kivoe_push -> kivoe_push_frm (input.cpp) ; kivoe_get_qtbl ->
// kivoe_get_qt (perceptual.cpp) ; kivoe_encode -> kivoe_enc (picture.cpp):
// kivoe_pic_init, kivoe_analysis (statistics pass, huffman.cpp),
// kivoe_enc_header (header.cpp), kivoe_enc_pic -> segments on threads ->
// kivoe_enc_dri per block: load / JND filter (jnd.cpp), forward DCT and
// quantizers (fdct.cpp, quant.cpp), suppression (jnd.cpp), offset update
// (quant.cpp), entropy coder (vlc.cpp).
#ifndef KIVO_ENCODER_INT_H
#define KIVO_ENCODER_INT_H

#include <atomic>
#include <cstdint>

#include "common/kivo_int.h"
#include "kivoe.h"

// ---- quantization tables (qtable.cpp) -----------------------------------------

// Quantizers in raster order with their Q14 reciprocals and half values.
// Invariant: q >= 1, recip = trunc(16384 / q), half = q >> 1.
struct kivoe_qtbl {
    uint8_t pq;  // DQT precision: 0
    uint8_t tq;  // DQT identifier: 0 luma, 1 chroma
    uint16_t q[64];
    uint16_t recip[64];
    uint16_t half[64];
};

extern const int16_t tbl_q_base_luma[64];
extern const int16_t tbl_q_base_chroma[64];
// Sets one entry from a quantizer value (0 becomes 1; above 255 clamps).
void kivoe_qtbl_set(kivoe_qtbl *t, int i, int32_t q);

// ---- Huffman code tables (huffman.cpp) -----------------------------------------

struct kivoe_huff_spec {
    int32_t id;     // Th: 0 luma, 1 chroma
    int32_t cls;    // Tc: 0 DC, 1 AC
    int32_t count;  // symbols in vals
    int32_t bits[16];
    int32_t vals[256];
};

struct kivoe_code {
    uint16_t code;
    uint8_t len;
};

struct kivoe_dc_tbl {
    int32_t count;
    int32_t bits[16];
    kivoe_code code[257];     // by symbol value (size category)
    uint64_t counter[257];    // by symbol value
};

struct kivoe_ac_code {
    uint16_t code;
    uint8_t len;
    uint8_t run;
    uint8_t size;
};

struct kivoe_ac_tbl {
    int32_t count;            // symbols + 1
    int32_t index[256];       // by symbol (run * 16 + size): position in code
    int32_t bits[16];
    kivoe_ac_code code[257];  // by position in the table's value list
    uint64_t counter[257];    // by symbol; 0x00 EOB, 0xF0 ZRL
    kivoe_code by_symbol[256];  // the same codes indexed by symbol (length 0: none)
    // For the block coder, by 2 symbol + (1 for a negative level): the code
    // shifted left by the size, with the size's low bits set for a negative
    // level, so that xor with |level| appends the extra bits; and the code
    // length plus the size.
    uint32_t with_extra[512];
    uint8_t len_with_extra[512];
};

// ---- headers (header.cpp) --------------------------------------------------------

struct kivoe_fh {
    uint16_t length;
    uint8_t precision;
    uint16_t height;
    uint16_t width;
    uint8_t n_comp;
    uint8_t comp_id[4];
    uint8_t h[4];
    uint8_t v[4];
    uint8_t tq[4];
};

struct kivoe_sh {
    uint16_t length;
    uint8_t n_comp;
    uint8_t cs[4];
    uint8_t td[4];  // by component identifier 1..4 (index 0..3)
    uint8_t ta[4];
    uint8_t ss;
    uint8_t se;
    uint8_t ah;
    uint8_t al;
};

// ---- context ------------------------------------------------------------------------

struct kivoe_ctx;

struct kivoe_block_code;

// Blocks in an MCU at most (two components of 2 x 2 and two of 1 x 1).
constexpr int32_t kMaxMcuBlocks = 10;

// Bytes a block can produce at most, stuffing included: the DC code, 63
// coefficient codes and three ZRLs of at most 31 bits, EOB and pending
// bits, each byte doubled by stuffing, plus the eight bytes a full buffer
// stores at once.
constexpr ptrdiff_t kBlockMargin = 2 * ((67 * 31 + 16 + 63 + 7) / 8) + 16;

// A segment's MCUs in chunks. Another job, done with its own segment, may
// take the chunks just ahead of the segment's job and make their levels
// while that job codes; it codes every chunk in order, so the bytes are the
// same whoever made the levels. Open only in the plain block loop with the
// typical or the caller's Huffman tables; a job's record is zero until
// then.
constexpr int32_t kShareMcus = 8;   // MCUs in a chunk
constexpr int32_t kShareSlots = 8;  // chunks made ahead at most
struct kivoe_share {
    std::atomic<int32_t> open;   // 1 while the segment's job takes help
    std::atomic<int32_t> next;   // the first chunk not taken
    std::atomic<int32_t> coded;  // chunks the segment's job has coded
    std::atomic<int32_t> ready[kShareSlots];  // 1 + the chunk a slot holds, once made
    int32_t chunks;
    int16_t *levels;         // kShareSlots slots of the levels of kShareMcus MCUs; chunk i in slot i % kShareSlots
    kivoe_block_code *code;  // their code records, after the levels
};

struct kivoe_job {
    alignas(16) int16_t block[64];
    int16_t dc_pred[4];
    alignas(16) uint16_t offset[4][64];  // adaptive rounding offsets per table id, Q14
    int32_t n_mcu;
    int32_t start_col[4];
    int32_t start_row[4];
    xelo_bsw *writer;
    uint8_t *own_buf;
    uint8_t first_marker;
    xelo_bsw *own_writer;        // jobs 1..7: their own writer record
    // Statistics pass: the tables this job counts into (only their counters
    // are used), made at the first pass and kept until the handle goes;
    // stat_ac[4 + id] holds counts of table id's AC symbols as well.
    kivoe_dc_tbl *stat_dc;
    kivoe_ac_tbl *stat_ac;
    bool counting;               // a statistics pass is running
    // The levels of the segment's blocks in coding order, stored by the
    // statistics pass so that the coding pass only codes them; allocated per
    // picture, null when the picture is too large to keep them.
    int16_t *levels;
    // Each kept block's mask as kivoe_vlc_block_mask takes it, in the same
    // allocation after the levels.
    uint64_t *masks;
    bool levels_kept;            // levels holds this picture's blocks
    kivoe_share share;           // its levels allocated with the job, kept until the handle goes
    kivoe_ctx *ctx;
};

typedef int32_t (*kivoe_vlc_dc_fn)(xelo_bsw *bs, kivoe_dc_tbl *t, int32_t diff);
typedef int32_t (*kivoe_vlc_ac_fn)(xelo_bsw *bs, kivoe_ac_tbl *t, const int16_t *blk);
typedef void (*kivoe_fdct_fn)(int16_t *blk);
typedef int32_t (*kivoe_quant_fn)(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
typedef void (*kivoe_quant_rdoq_fn)(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
typedef uint64_t (*kivoe_quant_mask_fn)(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
typedef uint64_t (*kivoe_quant_samples_fn)(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *recip,
                                           const uint16_t *offset);
typedef void (*kivoe_jndfilt_fn)(const uint8_t *src, int32_t stride, int16_t *blk);
typedef void (*kivoe_suppress_fn)(int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                                  const uint8_t *thr);
typedef void (*kivoe_update_offset_fn)(const int16_t *levels, const int16_t *coef, const uint16_t *q,
                                       const uint16_t *recip, uint16_t *offset);
typedef uint64_t (*kivoe_levels_mask_fn)(const int16_t *blk);
typedef uint64_t (*kivoe_quant_kept_fn)(int16_t *blk, const uint16_t *q, const uint16_t *recip, const uint16_t *half,
                                        uint16_t *adapt, const uint8_t *thr);
typedef uint64_t (*kivoe_kept_samples_fn)(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                          const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                          int32_t suppress);
// (Two blocks; four for the quadruple slot.)
typedef void (*kivoe_kept_pair_fn)(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2],
                                   const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                                   int32_t suppress, uint64_t *mask);
typedef void (*kivoe_jndfilt_u8_fn)(const uint8_t *src, int32_t stride, uint8_t *dst);
typedef void (*kivoe_box2_fn)(const uint8_t *src, int32_t stride, int16_t *blk);
typedef void (*kivoe_abs_acc_fn)(const int16_t *blk, uint32_t *acc);
typedef void (*kivoe_box2_strip_fn)(const uint8_t *src, int32_t stride, int32_t n, uint32_t *acc);
// Bit planes of a block's AC levels in zig-zag order, for the progressive
// writer: bit z of nz[a] is set when |level| >> a is not zero, of neg when
// the level is negative; bit 0 (the DC position) is clear in both. corr[a]
// holds bit a of |level| for every level set in nz[a + 1], one after the
// other from the lowest position, which goes to bit 63 (the bits below
// the last one are clear): a refinement's correction bits in the order it
// writes them.
struct kivoe_planes {
    uint64_t nz[3], corr[2], neg;
};
// The planes of n blocks (64 levels each, one after the other) into out[],
// their DC levels into dc[]. Returns non-zero when some AC level lies
// outside -1023 to 1023; a block holding -32768 may then have planes
// other than the plain kernel's.
typedef uint32_t (*kivoe_planes_fn)(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc);

// The bits of x at the positions set in m, lowest position first, packed
// from bit 63 down (kivoe_planes::corr from the bit plane of |level|).
inline uint64_t kivoe_corr_bits(uint64_t x, uint64_t m) {
    uint64_t r = 0;
    int32_t n = 0;
    for (int32_t half = 0; half < 64; half += 32) {
        const uint32_t v = static_cast<uint32_t>(x >> half);
        for (uint32_t w = static_cast<uint32_t>(m >> half); w; w &= w - 1, ++n) r = r << 1 | (v >> __builtin_ctz(w) & 1);
    }
    return n ? r << (64 - n) : 0;
}

// A refinement scan of one component: the planes of its n blocks in
// coding order, its band ss..se (1 to 63) and the bit al (0 or 1) it codes.
struct kivoe_ac_scan {
    const kivoe_planes *planes;
    int32_t n, ss, se, al;
};
// Counts the scan's symbols into counter (by symbol, added to); returns
// its correction bits.
typedef uint64_t (*kivoe_refine_count_fn)(const kivoe_ac_scan *s, uint64_t *counter);
// Writes the scan's entropy-coded data with the codes by symbol into bs,
// whose flush stuffs bytes; leaves the last bits in bs's accumulator.
typedef void (*kivoe_refine_write_fn)(const kivoe_ac_scan *s, const kivoe_code *code, xelo_bsw *bs);

struct kivoe_proc {
    int32_t (*ready)(kivoe_ctx *ctx);
    int32_t (*push)(kivoe_ctx *ctx, xelo_imgb *imgb);
    int32_t (*enc)(kivoe_ctx *ctx, const kivoe_output *out, int32_t *written);
    int32_t (*get_qt)(kivoe_ctx *ctx, int32_t level, uint8_t *out);
    int32_t (*analysis)(kivoe_ctx *ctx);
    int32_t (*header)(kivoe_ctx *ctx);
    int32_t (*pic)(kivoe_ctx *ctx);
    void (*flush)(kivoe_ctx *ctx);
    kivoe_vlc_dc_fn vlc_dc;
    kivoe_vlc_ac_fn vlc_ac;
    int32_t (*vlc_dri_marker)(xelo_bsw *bs, int32_t marker);
    int32_t (*vlc_footer)(kivoe_ctx *ctx);
    kivoe_fdct_fn fdct8;
    kivoe_quant_fn quant;
    kivoe_quant_rdoq_fn quant_rdoq;
    // Kernels beyond the fifteen slots, chosen the same way.
    kivoe_jndfilt_fn jndfilt;
    kivoe_planes_fn planes;
    kivoe_refine_count_fn refine_count;
    kivoe_refine_write_fn refine_write;
    kivoe_quant_mask_fn quant_mask;
    kivoe_quant_mask_fn fdct_quant_mask;  // kivoe_fdct_quant_mask
    // kivoe_fdct_quant_samples where a variant reads the samples faster
    // than a widening copy and kivoe_fdct_quant_mask; null otherwise.
    kivoe_quant_samples_fn fdct_quant_samples;
    kivoe_suppress_fn jnd_suppress;        // kivoe_jnd_suppress
    kivoe_update_offset_fn update_offset;  // kivoe_update_offset
    kivoe_levels_mask_fn levels_mask;      // kivoe_levels_mask
    // kivoe_quant_kept where a variant fuses its steps; null otherwise
    // (the loop then calls the kernels one by one).
    kivoe_quant_kept_fn quant_kept;
    // kivoe_fdct_quant_kept_samples where a variant keeps the coefficients
    // in registers from the samples to the levels; null otherwise.
    kivoe_kept_samples_fn fdct_quant_kept_samples;
    kivoe_kept_samples_fn jnd_fdct_quant_kept;  // kivoe_jnd_fdct_quant_kept, or null alike
    // Two blocks at a time, where a variant overlaps their steps; null
    // otherwise: kivoe_fdct_quant_kept2, kivoe_jnd_fdct_quant_kept2.
    kivoe_kept_pair_fn fdct_quant_kept2;
    kivoe_kept_pair_fn jnd_fdct_quant_kept2;
    kivoe_kept_pair_fn jnd_fdct_quant_kept4;  // kivoe_jnd_fdct_quant_kept4, or null alike
    // The plain levels of two blocks (kivoe_fdct_quant_kept2 with no
    // adaptive offsets and no suppression) where a variant transforms them
    // together faster than fdct_quant_samples takes them one by one; null
    // otherwise.
    kivoe_kept_pair_fn fdct_quant_samples2;
    // kivoe_jndfilt8x8_u8, for the kernels of 8-bit samples.
    kivoe_jndfilt_u8_fn jndfilt_u8;
    kivoe_box2_fn box2;                    // kivoe_box2
    kivoe_abs_acc_fn abs_acc;              // kivoe_abs_acc
    // kivoe_box2_strip where a variant streams the strip; null otherwise
    // (the sampling then takes the blocks one by one).
    kivoe_box2_strip_fn box2_strip;
};

struct kivoe_ctx {
    uint32_t magic;
    void *self;
    kivo::Kind kind;
    kivoe_job *job[8];
    int32_t width;
    int32_t height;
    int32_t color_format;
    int32_t quality;
    int32_t opt_huffman;
    int32_t jnd_filter;
    int32_t adaptive_rounding;
    int32_t jnd_suppress;
    int32_t platform;
    kivo_picbuf_param pic_req;
    kivo_picbuf pic_inline;
    kivo_picbuf *pic_cur;
    kivo_picbuf *pic_owned;
    int32_t max_width;
    int32_t max_height;
    xelo_bsw bs;
    int32_t blk_w[4];  // Wb: width in blocks, whole MCUs
    int32_t blk_h[4];  // Hb
    int32_t smp_w[4];  // Ws: width in samples
    int32_t smp_h[4];  // Hs
    int32_t rst_interval;
    int32_t n_segments;
    kivoe_fh fh;
    kivoe_sh sh;
    kivoe_qtbl qtbl[2];
    kivoe_huff_spec huff_spec[4];  // luma DC, luma AC, chroma DC, chroma AC
    kivoe_dc_tbl dc_tbl[4];
    kivoe_ac_tbl ac_tbl[4];
    kivod_app_node *app_list;
    kivo_tpool tpool;
    void *threads[8];
    kivoe_proc proc;
    int32_t reserved;
    // Line printed when an optimal code length passes 32 (null: the
    // encoder's own); the transcoder sets its own.
    const char *huff_overflow_msg;
    // Progressive output (kivoe_set_progressive): the picture loop stores
    // every block's levels in prog_levels (per component, raster order of
    // blocks) and the coefficient-picture writer codes them. Adaptive
    // rounding restarts every prog_chunk MCUs, whatever the thread count.
    int32_t progressive;
    int16_t *prog_levels[4];
    int32_t prog_chunk;
};

// ---- handle (kivoe.cpp) --------------------------------------------------------------
extern "C" {
KIVO_API int32_t kivoe_set_ppi(kivoe_ctx *ctx);
KIVO_API int32_t kivoe_platform_init(kivoe_ctx *ctx);
KIVO_API void kivoe_platform_deinit(kivoe_ctx *ctx);
KIVO_API int32_t kivoe_ready(kivoe_ctx *ctx);
KIVO_API void kivoe_flush(kivoe_ctx *ctx);
}

// ---- quality tables (qtable.cpp) ---------------------------------------------------------
int32_t kivoe_init_q_tbl(kivoe_ctx *ctx, uint32_t quality);

// ---- frame input (input.cpp) ---------------------------------------------------------------
int32_t kivoe_push_frm(kivoe_ctx *ctx, xelo_imgb *imgb);
void mcpy_pic(uint8_t *dst, const uint8_t *src, int32_t dst_stride, int32_t src_stride, int32_t w, int32_t h);

// ---- headers (header.cpp) -------------------------------------------------------------------
void kivoe_init_fh(kivoe_fh *fh, int32_t width, int32_t height, int32_t color_format);
void kivoe_init_sh(kivoe_sh *sh, int32_t width, int32_t height, int32_t color_format);
int32_t kivoe_enc_header(kivoe_ctx *ctx);
void kivoe_write_app(xelo_bsw *bs, const kivod_app_node *first);
void kivoe_write_fh(xelo_bsw *bs, const kivoe_fh *fh);
// The frame header under another SOFn marker (0xC0 to 0xC2).
void kivoe_write_sof(xelo_bsw *bs, const kivoe_fh *fh, int32_t marker);
void kivoe_write_qt(kivoe_ctx *ctx, xelo_bsw *bs);
void kivoe_write_ht(kivoe_ctx *ctx, xelo_bsw *bs);
// One DHT segment holding the n tables of specs.
void kivoe_write_dht(xelo_bsw *bs, const kivoe_huff_spec *specs, int32_t n);
void kivoe_write_dri(xelo_bsw *bs, int32_t interval);
void kivoe_write_sh(xelo_bsw *bs, const kivoe_sh *sh);

// ---- Huffman tables (huffman.cpp) --------------------------------------------------------------
int32_t kivoe_init_huff_tbl(kivoe_ctx *ctx);
// Puts the typical table back into specification i (0 to 3); the code
// tables are rebuilt by the caller.
void kivoe_default_huff_spec(kivoe_ctx *ctx, int32_t i);
int32_t kivoe_opt_huff_tbl(kivoe_ctx *ctx);
int32_t kivoe_gen_code_tbl(kivoe_ctx *ctx);
int32_t kivoe_gen_opt_spec(kivoe_ctx *ctx);
// The code table of one specification: dc when it is a DC table, else ac.
void kivoe_gen_code(const kivoe_huff_spec *s, kivoe_dc_tbl *dc, kivoe_ac_tbl *ac);
// An optimal specification (bits, vals, count) for counter[0..n-1]; prints
// overflow_message (unless null) when a code length passes 32.
void kivoe_gen_opt(kivoe_huff_spec *s, const uint64_t *counter, int32_t n, const char *overflow_message);

// ---- entropy coder (vlc.cpp) -----------------------------------------------------------------
int32_t kivoe_vlc_dc(xelo_bsw *bs, kivoe_dc_tbl *t, int32_t diff);
int32_t kivoe_vlc_ac(xelo_bsw *bs, kivoe_ac_tbl *t, const int16_t *blk);
int32_t kivoe_vlc_dc_stat(xelo_bsw *bs, kivoe_dc_tbl *t, int32_t diff);
int32_t kivoe_vlc_ac_stat(xelo_bsw *bs, kivoe_ac_tbl *t, const int16_t *blk);
// For a block coded twice: kivoe_vlc_ac_stat, returning the mask that
// kivoe_vlc_block_mask takes to code the block without finding its
// non-zero levels again (all ones: a level without category, found then).
uint64_t kivoe_vlc_ac_stat_mask(kivoe_ac_tbl *t, const int16_t *blk);
// kivoe_vlc_dc_stat then kivoe_vlc_ac_stat, mask as kivoe_vlc_block_mask
// takes it; odd (unless null): 256 counters that may take some of the AC
// symbols' counts instead of ac's (to be added to them).
void kivoe_vlc_block_stat(kivoe_dc_tbl *dc, kivoe_ac_tbl *ac, uint64_t *odd, int32_t diff, const int16_t *blk,
                          uint64_t mask);
// kivoe_vlc_dc then kivoe_vlc_ac, the block's codes gathered in one buffer;
// mask: the zig-zag mask of the non-zero AC levels, or all ones when not
// known (found here then).
int32_t kivoe_vlc_block_mask(xelo_bsw *bs, kivoe_dc_tbl *dc, kivoe_ac_tbl *ac, int32_t diff, const int16_t *blk,
                             uint64_t mask);
// One block for kivoe_vlc_blocks.
struct kivoe_block_code {
    kivoe_dc_tbl *dc;
    kivoe_ac_tbl *ac;
    const int16_t *blk;
    uint64_t mask;
    int32_t diff;
};
// kivoe_vlc_block_mask for n blocks in turn, the writer's state kept in
// registers from one to the next (a block that fails does not stop those
// after it).
void kivoe_vlc_blocks(xelo_bsw *bs, const kivoe_block_code *b, int32_t n);
int32_t kivoe_vlc_dri_marker(xelo_bsw *bs, int32_t marker);
int32_t kivoe_vlc_null(xelo_bsw *bs, int32_t marker);
int32_t kivoe_vlc_footer(kivoe_ctx *ctx);
int32_t kivoe_vlc_footer_stat(kivoe_ctx *ctx);
int32_t get_vlc_dc_bits(const kivoe_dc_tbl *t, int32_t diff);
int32_t get_vlc_ac_bits(const kivoe_ac_tbl *t, int32_t n_zrl, int32_t run, int32_t value);
int32_t get_vlc_eob_bits(const kivoe_ac_tbl *t);
int32_t kivoe_bs_flush(xelo_bsw *bs);
int32_t kivoe_bs_flush_data_seg(xelo_bsw *bs);

// ---- transform and quantizers (fdct.cpp, quant.cpp and SIMD variants) ----------------------------
void kivoe_fdct8(int16_t *blk);
int32_t kivoe_quant(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
void kivoe_quant_rdoq(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
// kivoe_quant returning, instead of the count, the mask of the non-zero AC
// levels in zig-zag order (bit z for zig-zag position z), with bit 0 set
// when some level of the block is above 2047 or below -2047: the coder then
// checks the block itself for levels without a size category.
uint64_t kivoe_quant_mask(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
// kivoe_fdct8 then kivoe_quant_mask, of the samples at blk.
uint64_t kivoe_fdct_quant_mask(int16_t *blk, const uint16_t *recip, const uint16_t *offset);
// kivoe_fdct_quant_mask of the 8 x 8 samples at src (rows stride bytes
// apart), the levels stored at blk.
uint64_t kivoe_fdct_quant_samples(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *recip,
                                  const uint16_t *offset);
// kivoe_fdct8 of the 8 x 8 samples at src (rows stride bytes apart).
void kivoe_fdct8_samples(const uint8_t *src, int32_t stride, int16_t *blk);
// Adaptive rounding: moves the offsets of the non-zero levels by their
// reconstruction errors (coef: the unquantized coefficients).
void kivoe_update_offset(const int16_t *levels, const int16_t *coef, const uint16_t *q,
                         const uint16_t *recip, uint16_t *offset);
// The mask the block coder takes for the levels at blk: bit z set when the
// AC level at zig-zag position z is not zero, or all ones (the coder then
// finds them itself) when a level lies above 2047 or below -2047.
uint64_t kivoe_levels_mask(const int16_t *blk);
// The levels of the coefficients at blk with JND suppression, adaptive
// rounding or both, and their mask for the coder: adaptive rounding
// (adapt not null) quantizes with kivoe_quant_rdoq and the offsets adapt,
// then updates them; otherwise kivoe_quant with half; thr, unless null,
// suppresses levels in between.
uint64_t kivoe_quant_kept(int16_t *blk, const uint16_t *q, const uint16_t *recip, const uint16_t *half, uint16_t *adapt,
                          const uint8_t *thr);
// kivoe_quant_kept of the transformed 8 x 8 samples at src (rows stride
// bytes apart), into blk, with the suppression thresholds of the DC
// coefficient's brightness when suppress is not 0. The tables as
// kivoe_qtbl holds them; offsets 0 to 8192.
uint64_t kivoe_fdct_quant_kept_samples(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                       const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress);
// The same of the JND-filtered samples (the filter reads two rows above
// and below the block).
uint64_t kivoe_jnd_fdct_quant_kept(const uint8_t *src, int32_t stride, int16_t *blk, const uint16_t *q,
                                   const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress);
// kivoe_fdct_quant_kept_samples (kivoe_jnd_fdct_quant_kept) of the block
// at src[0] into blk[0], then of the one at src[1] into blk[1], with the
// same tables and offsets; their masks into mask[0] and mask[1].
void kivoe_fdct_quant_kept2(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2], const uint16_t *q,
                            const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress,
                            uint64_t *mask);
void kivoe_jnd_fdct_quant_kept2(const uint8_t *const src[2], int32_t stride, int16_t *const blk[2], const uint16_t *q,
                                const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress,
                                uint64_t *mask);
// The same of four filtered blocks (an MCU's 2 x 2 luma blocks).
void kivoe_jnd_fdct_quant_kept4(const uint8_t *const src[4], int32_t stride, int16_t *const blk[4], const uint16_t *q,
                                const uint16_t *recip, const uint16_t *half, uint16_t *adapt, int32_t suppress,
                                uint64_t *mask);
// The perceptual selection's sampling at level 1: blk[8 j + k] is the mean
// (sum >> 2) of the 2 x 2 samples at row 2 j, column 2 k of src.
void kivoe_box2(const uint8_t *src, int32_t stride, int16_t *blk);
// The statistics of n level-1 analysis blocks side by side from src (16
// rows, 16 n columns): kivoe_box2, kivoe_fdct8, then acc[0] += the mean
// level (F + 1024) >> 3 and acc[i] += |F[i]| for i = 1..63.
void kivoe_box2_strip(const uint8_t *src, int32_t stride, int32_t n, uint32_t *acc);
// acc[i] += |blk[i]| for the 64 values (|-32768| = 32768).
void kivoe_abs_acc(const int16_t *blk, uint32_t *acc);
uint32_t kivoe_planes_c(const int16_t *blk, int32_t n, kivoe_planes *out, int16_t *dc);
uint64_t kivoe_refine_count(const kivoe_ac_scan *s, uint64_t *counter);
void kivoe_refine_write(const kivoe_ac_scan *s, const kivoe_code *code, xelo_bsw *bs);
// Fills the transform and quantizer slots from the best variant the CPU
// flags allow.
void kivoe_dsp_init(kivoe_proc *proc, uint32_t cpu_flags);
const char *kivoe_dsp_describe(uint32_t cpu_flags);

// ---- JND filter and suppression (jnd.cpp) ---------------------------------------------------------
extern const uint8_t tbl_suppr_lum[256];
void kivoe_jndfilt8x8(const uint8_t *src, int32_t stride, int16_t *blk);
// The same filtered samples as bytes, rows 8 bytes apart.
void kivoe_jndfilt8x8_u8(const uint8_t *src, int32_t stride, uint8_t *dst);
// Thresholds of a block from its unquantized DC coefficient.
void kivoe_jnd_thresholds(int16_t dc, uint8_t thr[64]);
// The same thresholds in place: a row of kivo_tbl_suppr_thr, or null when
// they are all zero (nothing is then suppressed).
inline const uint8_t *kivoe_jnd_threshold_row(int16_t dc) {
    int level = (dc + 1024) >> 3;
    level = level < 0 ? 0 : level > 255 ? 255 : level;
    const int k = tbl_suppr_lum[level];
    // Row k - 1 of the exported table holds (tbl_inv_mtf * k) >> 12.
    return k ? kivo_tbl_suppr_thr + 64 * (k - 1) : nullptr;
}
// Lowers levels while the error stays below the thresholds (blocks whose AC
// levels add up to more than 7 only). recip is 16384 / q, as in every
// table (the plain kernel does not read it; the variants divide with it).
void kivoe_jnd_suppress(int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                        const uint8_t *thr);

// ---- perceptual selection (perceptual.cpp) ----------------------------------------------------------
int32_t kivoe_get_qt(kivoe_ctx *ctx, int32_t level, uint8_t *out);

// ---- picture loop (picture.cpp) -----------------------------------------------------------------------
int32_t kivoe_enc(kivoe_ctx *ctx, const kivoe_output *out, int32_t *written);
int32_t kivoe_analysis(kivoe_ctx *ctx);
int32_t kivoe_pic_init(kivoe_ctx *ctx);
void kivoe_pic_deinit(kivoe_ctx *ctx);
int32_t kivoe_enc_pic(kivoe_ctx *ctx);
int32_t kivoe_enc_dri(kivoe_ctx *ctx, kivoe_job *job);
int32_t kivoe_segment_job(void *job);
// Encodes the picture of a planned encode as a progressive stream.
int32_t kivoe_enc_progressive(kivoe_ctx *ctx);

// ---- coefficient pictures: progressive output and lossless re-encoding (coefpic.cpp) ----------------
// A picture held as quantized levels. Component c has blk_w[c] x blk_h[c]
// blocks (at least the MCU-padded count) in raster order, 64 levels each in
// natural (row-major) order; a row of blocks is blk_w[c] * 64 levels long.
struct kivoe_coef_pic {
    int32_t width;   // samples
    int32_t height;
    int32_t n_comp;  // 1, 3 or 4
    uint8_t id[4];   // component identifiers
    uint8_t h[4];    // sampling factors
    uint8_t v[4];
    uint8_t tq[4];       // quantization table of each component
    uint16_t qt[4][64];  // quantization tables by identifier, natural order
    int32_t blk_w[4];
    int32_t blk_h[4];
    const int16_t *coef[4];
    const kivod_app_node *app_list;  // APPn segments written after SOI, or null
    const uint8_t *trailer;          // bytes written after EOI, or null
    int32_t trailer_len;
    bool rgb;  // three components of RGB: a progressive script treats them alike (no luma first)
};

enum kivoe_coding { KIVOE_CODING_BASELINE = 0, KIVOE_CODING_PROGRESSIVE = 1 };
// Added to a coding: the stream is likely to be counted only (it seldom
// fits), so its symbols are not recorded for the writing while counted.
constexpr int32_t KIVOE_CODING_LIKELY_COUNTED_ONLY = 0x100;

// Memory the coefficient coder borrows and gives back, which a handle keeps
// between calls so that pictures of the same size find it mapped already:
// per component its bit planes, DC levels and baseline masks, per scan its
// record, the interleaved scans' order, and room for the caller's own use
// (kivoe_coef_store_take with slots from KIVOE_STORE_CALLER). All zero is
// an empty store.
enum {
    KIVOE_STORE_PLANES = 0,
    KIVOE_STORE_DC = 4,
    KIVOE_STORE_MASKS = 8,
    KIVOE_STORE_RECORDS = 12,
    KIVOE_STORE_ORDER = 36,  // + the coding
    KIVOE_STORE_CALLER = 38,
    KIVOE_STORE_SLOTS = 41
};
struct kivoe_coef_store {
    void *buf[KIVOE_STORE_SLOTS];
    size_t size[KIVOE_STORE_SLOTS];
};
// At least bytes of memory from slot (*got: how many; null for want of
// memory, or for 0 bytes and an empty slot): the slot's own, or new memory
// when it holds less (then freed). Leaves the slot empty; store may be null.
void *kivoe_coef_store_take(kivoe_coef_store *store, int32_t slot, size_t bytes, size_t *got);
// Memory (of size bytes) back to slot, kept if the slot is empty, freed
// otherwise (always, with store null).
void kivoe_coef_store_give(kivoe_coef_store *store, int32_t slot, void *p, size_t size);
void kivoe_coef_store_free(kivoe_coef_store *store);

// Codes a coefficient picture as a whole stream into bs: baseline with
// Huffman tables optimised for its levels, or progressive with the scan
// script for its component count and tables optimised per scan. Returns 0 or
// a negative status; an output too small for the stream sets bs->overflow.
// The coder's memory comes from store where given.
int32_t kivoe_write_coef_pic(const kivoe_coef_pic *pic, int32_t coding, xelo_bsw *bs,
                             kivoe_coef_store *store = nullptr);

// The same coding in tasks that threads may share, each scan's counting and
// writing one task, so that what is written does not depend on which thread
// runs what. In order:
// 1. kivoe_coef_plan_new: the scan script and the memory every scan reads
//    (0, -102, or -105 for a record we cannot write).
// 2. kivoe_coef_prepare for each component below kivoe_coef_tasks(plan,
//    KIVOE_COEF_PREPARE) (the progressive bit planes; none for baseline),
//    then kivoe_coef_prepared: 0, or -103 for AC levels outside 8-bit
//    data's categories.
// 3. kivoe_coef_count for each scan below kivoe_coef_tasks(plan,
//    KIVOE_COEF_SCANS), then kivoe_coef_counted: the stream's least size
//    (stuffing aside), or -103 (levels or DC differences outside their
//    categories).
// 4. kivoe_coef_write_head, kivoe_coef_write_scan for each scan in order
//    (each may go to a writer of its own and the bytes be joined after: a
//    scan needs at most kivoe_coef_scan_room(plan, scan, true) bytes, and
//    fits in kivoe_coef_scan_room(plan, scan, false) unless its data hold
//    many 0xFF bytes), kivoe_coef_write_tail.
// A thread counts and writes with tables of its own (kivoe_coef_tables).
struct kivoe_coef_plan;
struct kivoe_coef_tables;
enum { KIVOE_COEF_PREPARE = 0, KIVOE_COEF_SCANS = 1 };
int32_t kivoe_coef_plan_new(const kivoe_coef_pic *pic, int32_t coding, kivoe_coef_plan **out,
                            kivoe_coef_store *store = nullptr);
void kivoe_coef_plan_free(kivoe_coef_plan *plan);
kivoe_coef_tables *kivoe_coef_tables_new();
void kivoe_coef_tables_free(kivoe_coef_tables *tables);
int32_t kivoe_coef_tasks(const kivoe_coef_plan *plan, int32_t step);
int32_t kivoe_coef_prepare(kivoe_coef_plan *plan, int32_t component);
int32_t kivoe_coef_prepared(const kivoe_coef_plan *plan);
void kivoe_coef_count(kivoe_coef_plan *plan, int32_t scan, kivoe_coef_tables *tables);
int32_t kivoe_coef_counted(const kivoe_coef_plan *plan, uint64_t *least);
uint64_t kivoe_coef_scan_room(const kivoe_coef_plan *plan, int32_t scan, bool any);
void kivoe_coef_write_head(const kivoe_coef_plan *plan, xelo_bsw *bs);
void kivoe_coef_write_scan(kivoe_coef_plan *plan, int32_t scan, kivoe_coef_tables *tables, xelo_bsw *bs);
void kivoe_coef_write_tail(const kivoe_coef_plan *plan, xelo_bsw *bs);
// Codings i < n (one or two) of pics[i] as codings[i], on two threads of tp
// (threads: their handles), each into dst[i] if its stream fits in cap[i]
// bytes: size[i] its bytes, 0 where it does not fit, or the negative status
// kivoe_write_coef_pic would give. The streams are those of
// kivoe_write_coef_pic. KIVO_OK, -102 for want of memory, or another
// negative status when the threads could not run it (nothing written).
int32_t kivoe_write_coef_pics(const kivo_tpool *tp, void *const *threads, int n, const kivoe_coef_pic *const pics[],
                              const int32_t codings[], uint8_t *const dst[], const int32_t cap[], int32_t size[],
                              kivoe_coef_store *store = nullptr);

#endif
