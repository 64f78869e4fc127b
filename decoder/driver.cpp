// Decode driver: headers up to the first scan (kivod_dec), then the picture
// into the caller's buffer (kivod_clone_frm, kivod_dec_pic, kivod_finish).
#include <cstdlib>
#include <cstring>

#include "decoder/out.h"
#include "xelo/xelo_int.h"

namespace {

// Colour format of a frame, or a negative status for layouts this decoder
// does not reconstruct. Besides the sample-count ratio, the factors must
// describe the layout the code names (a luma 1x4 over chroma 1x1 has ratio 4
// but is not 4:2:0), so that the plane geometry below is the real one.
int32_t frame_color_format(const kivod_fh &fh) {
    const int n = fh.n_comp;
    for (int c = 0; c < n; ++c)
        if (fh.h[c] == 0 || fh.v[c] == 0) return KIVO_ERR_UNSUPPORTED;
    if (n == 1) return XELO_CS_YCBCR400;
    if (n != 3 && n != 4) return KIVO_ERR_UNSUPPORTED;
    const int h0 = fh.h[0], v0 = fh.v[0], h1 = fh.h[1], v1 = fh.v[1];
    if (h1 * v1 == 0 || fh.h[2] != h1 || fh.v[2] != v1) return KIVO_ERR_UNSUPPORTED;
    int32_t cs;
    if (h0 == h1 && v0 == v1) cs = XELO_CS_YCBCR444;
    else if (h0 == 2 * h1 && v0 == v1) cs = XELO_CS_YCBCR422;
    else if (h0 == h1 && v0 == 2 * v1) cs = XELO_CS_YCBCR440;
    else if (h0 == 2 * h1 && v0 == 2 * v1) cs = XELO_CS_YCBCR420;
    else if (h0 == 4 * h1 && v0 == v1) cs = XELO_CS_YCBCR411;
    else return KIVO_ERR_UNSUPPORTED;
    // Both factors must also be whole multiples of the largest ones, or the
    // MCU would hold fractional chroma blocks.
    if (fh.h_max % h1 || fh.v_max % v1 || h0 != fh.h_max || v0 != fh.v_max) return KIVO_ERR_UNSUPPORTED;
    if (n == 4) {
        if (fh.h[3] != h0 || fh.v[3] != v0) return KIVO_ERR_UNSUPPORTED;
        cs += 30;
    }
    return cs;
}

// Whether the frame's levels can be read and coded again whatever its
// layout: one, three or four components, every factor 1 to 4.
bool levels_layout(const kivod_fh &fh) {
    if (fh.n_comp != 1 && fh.n_comp != 3 && fh.n_comp != 4) return false;
    for (int c = 0; c < fh.n_comp; ++c)
        if (fh.h[c] < 1 || fh.h[c] > 4 || fh.v[c] < 1 || fh.v[c] > 4) return false;
    return true;
}

bool is_decodable_format(int32_t cs) {
    switch (cs) {
    case 10: case 11: case 12: case 13: case 18: case 22: case 41: case 42: case 43: return true;
    default: return false;
    }
}

// Plane size of component c of a W x H frame of colour format cs.
void comp_size(int32_t cs, int c, int32_t w, int32_t h, int32_t *cw, int32_t *ch) {
    const kivo::Layout *l = kivo::layout_of(cs);
    const bool chroma = (c == 1 || c == 2) && l;
    *cw = chroma ? kivo::chroma_width(*l, w) : w;
    *ch = chroma ? kivo::chroma_height(*l, h) : h;
}

int32_t fail(kivod_ctx *ctx, int32_t status) {
    // Whatever a failed file read led to, the failed read is the cause.
    if (ctx->main_bs.io_error) status = KIVO_ERR_IO;
    kivod_release_frame_buffers(ctx);
    kivod_bs_deinit(&ctx->main_bs);
    std::memset(&ctx->main_bs, 0, sizeof(ctx->main_bs));
    return status;
}

// File input is read whole when the file's size is within the memory limit
// and kWholeFile, and then decoded as memory input is: the reader's fast
// paths and slices on every lent thread. Otherwise, or when that memory
// cannot be had, it is read through the interface as it is decoded. A file
// that reads short of its size fails with -109, as it would later.
constexpr uint32_t kWholeFile = 1u << 30;

int32_t read_whole_file(kivod_ctx *ctx) {
    kivod_bs *bs = &ctx->main_bs;
    const uint32_t size = bs->last + 1;  // 1 .. 2^32 - 1
    if (size > kWholeFile || kivod_over(ctx->limits.max_memory, size)) return KIVO_OK;
    uint8_t *copy = static_cast<uint8_t *>(std::malloc(size));
    if (!copy) return KIVO_OK;
    uint32_t got = 0;
    while (got < size) {
        const int32_t n = bs->mfal.read(bs->handle, copy + got, static_cast<int32_t>(size - got));
        if (n <= 0 || static_cast<uint32_t>(n) > size - got) break;
        got += static_cast<uint32_t>(n);
    }
    if (got < size) {
        std::free(copy);
        return KIVO_ERR_IO;
    }
    kivod_bs_deinit(bs);
    xelo_bitb bitb{};
    bitb.addr = copy;
    bitb.ssize = static_cast<int32_t>(size);
    const kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
    std::memset(bs, 0, sizeof(*bs));
    kivod_bs_init(bs, &in);  // cannot fail on a non-empty block
    ctx->file_copy = copy;
    return KIVO_OK;
}

// Bytes of a frame buffer, or 0 when it would not fit the address space.
size_t buffer_bytes(uint64_t a, uint64_t b, uint64_t c) {
    uint64_t n = a * b * c;  // each factor is below 2^20, so no 64-bit overflow
    if (n == 0 || n > static_cast<uint64_t>(SIZE_MAX / 2)) return 0;
    return static_cast<size_t>(n);
}

int32_t seek_to(kivod_bs *bs, uint32_t pos) {
    int64_t p = pos;
    if (bs->mfal.seek(bs->handle, &p, 0) != 0) return KIVO_ERR_IO;
    bs->pos = pos;
    bs->cache = 0;
    bs->bits = 0;
    bs->not_ff = 1;
    return KIVO_OK;
}

int32_t parse_saved_tables(kivod_ctx *ctx) {
    const bool file = ctx->main_bs.type == KIVOD_INPUT_MFAL;
    for (int i = 0; i < ctx->n_dqt; ++i) {
        kivod_bs *bs = &ctx->dqt_pos[i];
        if (file && seek_to(bs, bs->pos) != 0) return KIVO_ERR_IO;
        int32_t ret = kivod_vld_qtbl(bs, ctx->qtbl, ctx->q_unit, ctx->progressive);
        if (bs->io_error) return KIVO_ERR_IO;
        if (ret != 0) return ret;
    }
    for (int i = 0; i < ctx->n_dht; ++i) {
        kivod_bs *bs = &ctx->dht_pos[i];
        if (file && seek_to(bs, bs->pos) != 0) return KIVO_ERR_IO;
        int32_t ret = kivod_vld_htbl(bs, ctx->dht_spec, ctx->dc_tbl, ctx->ac_tbl);
        if (bs->io_error) return KIVO_ERR_IO;
        if (ret != 0) return ret;
    }
    return KIVO_OK;
}

// Bytes of the coefficient buffers, all components together.
uint64_t coef_bytes(const kivod_ctx *ctx) {
    uint64_t total = 0;
    for (int c = 0; c < ctx->fh.n_comp; ++c) total += uint64_t(ctx->prog_blk_h[c]) * ctx->prog_blk_w[c] * 128u;
    return total;
}

// Zero-filled coefficient buffer of component c, the spare one when it is
// large enough (zeroing it costs less than the page faults of a new one);
// false when it cannot be had.
bool alloc_coef_buf(kivod_ctx *ctx, int c) {
    const size_t cb = buffer_bytes(ctx->prog_blk_h[c] * 8u, ctx->prog_blk_w[c] * 8u, 2);
    if (cb && ctx->coef_spare[c] && ctx->spare_bytes[c] >= cb) {
        ctx->coef_buf[c] = ctx->coef_spare[c];
        ctx->coef_bytes[c] = ctx->spare_bytes[c];
        ctx->coef_spare[c] = nullptr;
        std::memset(ctx->coef_buf[c], 0, cb);
        return true;
    }
    ctx->coef_buf[c] = cb ? static_cast<int16_t *>(std::calloc(cb, 1)) : nullptr;
    ctx->coef_bytes[c] = cb;
    return ctx->coef_buf[c] != nullptr;
}

// Starts decoding the picture's scans: the scan reader on the first SOS,
// and statistics and counters that describe this picture only.
void start_picture(kivod_ctx *ctx) {
    ctx->scan_bs = ctx->main_bs;
    std::memset(ctx->stat_luma, 0, sizeof(ctx->stat_luma));
    std::memset(ctx->stat_chroma, 0, sizeof(ctx->stat_chroma));
    ctx->n_luma = ctx->n_chroma = 0;
    ctx->dc_level_total = 0;
    for (int t = 0; t < 4; ++t) {
        std::memset(ctx->dc_tbl[t].dc_count, 0, sizeof(ctx->dc_tbl[t].dc_count));
        std::memset(ctx->ac_tbl[t].ac_count, 0, sizeof(ctx->ac_tbl[t].ac_count));
    }
}

// A DQT segment between the scans of levels: they are handed out with one
// set of tables, so it may define the tables of components no scan has
// reached yet (a sequential frame's later scans), but not change one that
// a component read so far uses (-103).
int32_t levels_qtbl(kivod_ctx *ctx, kivod_bs *bs) {
    kivod_qtbl before[4];
    std::memcpy(before, ctx->qtbl, sizeof(before));
    const int32_t ret = kivod_vld_qtbl(bs, ctx->qtbl, ctx->q_unit, ctx->progressive);
    if (ret != KIVO_OK) return ret;
    for (int c = 0; c < ctx->fh.n_comp; ++c) {
        const int t = ctx->fh.tq[c] & 3;
        if (ctx->comp_rows[c] >= 0 && std::memcmp(before[t].q, ctx->qtbl[t].q, sizeof(before[t].q)) != 0)
            return KIVO_ERR_UNSUPPORTED;
    }
    return KIVO_OK;
}

// Walks the markers from the first scan on and decodes every scan and
// table, up to EOI, the end of the data or the first failure, whose status
// goes to *scan_status. Returns 0, or the status of a failure that ends the
// picture at once (a failed read, a comment past the end), after releasing
// the frame buffers.
int32_t decode_scans(kivod_ctx *ctx, int32_t *scan_status) {
    kivod_bs *bs = &ctx->scan_bs;
    int32_t done = 0;
    int64_t scans = 0;
    *scan_status = KIVO_OK;
    if (kivod_prog_scans_mt(ctx, scan_status, &done)) {
        ctx->reached_end = done;
        return KIVO_OK;
    }
    while (!done) {
        if (kivod_bs_read(bs, 8) != 0xFF) {
            // Stray bytes behind a scan: where the end of image follows them,
            // every scan was there and the picture ended (encoders leave such
            // padding); before any other marker decoding stops, as it does
            // at markers it does not take.
            for (;;) {
                const uint32_t w = kivod_bs_peek(bs, 16);
                if (w == 0xFFD9u) {
                    done = 1;
                    break;
                }
                if (w >> 8 == 0xFF && (w & 0xFF) != 0xFF && (w & 0xFF) != 0x00) break;
                if (kivod_bs_input_done(bs) && bs->bits < 8) break;
                kivod_bs_skip(bs, 8);
            }
            // The reader ends on EOI, as when it follows a scan directly.
            if (kivod_bs_rewind_cache(bs, 0) != 0) {
                kivod_release_frame_buffers(ctx);
                return KIVO_ERR_IO;
            }
            break;
        }
        uint32_t m = kivod_bs_read(bs, 8);
        while (m == 0xFF) m = kivod_bs_read(bs, 8);  // fill bytes before a marker
        // EOI stays unread, so that the reader ends on it whatever the
        // frame's last scan was (what follows it can then be found).
        if (kivod_bs_rewind_cache(bs, m == 0xD9 ? 2 : 0) != 0) {
            kivod_release_frame_buffers(ctx);
            return KIVO_ERR_IO;
        }
        if (m == 0xC4) {
            *scan_status = kivod_vld_htbl(bs, ctx->dht_spec, ctx->dc_tbl, ctx->ac_tbl);
        } else if (m == 0xDB) {
            *scan_status = ctx->levels_only && scans > 0 ? levels_qtbl(ctx, bs)
                                                         : kivod_vld_qtbl(bs, ctx->qtbl, ctx->q_unit, ctx->progressive);
        } else if (m == 0xDD) {
            kivod_vld_dri(bs, &ctx->dri);
        } else if (m == 0xDA) {
            *scan_status = kivod_over(ctx->limits.max_scans, uint64_t(++scans)) ? KIVO_ERR_UNSUPPORTED
                                                                                   : dec_scan(ctx, &done);
        } else if (m == 0xD9) {
            done = 1;
        } else if (m == 0xFE) {
            if (kivod_vld_skip_seg(bs) != 0) {
                kivod_release_frame_buffers(ctx);
                return KIVO_ERR_MALFORMED;
            }
        } else {
            break;
        }
        if (*scan_status != 0) break;
    }
    ctx->reached_end = done;
    return KIVO_OK;
}

// Bytes the resizers of one picture take: one per plane and thread (each
// slice has its own).
uint64_t resizer_bytes(const kivod_ctx *ctx) {
    const int d = kivod_denom(ctx->scale);
    uint64_t per_thread = 0;
    for (int c = 0; c < ctx->fh.n_comp; ++c)
        per_thread += xelo::irsz_bytes((ctx->comp_w[c] + d - 1) / d, (ctx->comp_h[c] + d - 1) / d, ctx->out_w[c],
                                       ctx->out_h[c]);
    return per_thread * uint64_t(kivo::thread_limit(ctx->tpool));
}

}  // namespace

// Mean DC level of the first component's blocks, the MCUs' padding blocks
// included.
void kivod_set_mean_level(kivod_ctx *ctx) {
    const int64_t blocks = static_cast<int64_t>(ctx->blk_h[0]) * ctx->blk_w[0];
    ctx->mean_level = blocks > 0 ? ctx->dc_level_total / blocks : 0;
}

int32_t kivod_choose_scale(int32_t fw, int32_t fh, int32_t ow, int32_t oh) {
    if (ow == fw && oh == fh) return 0;
    const int32_t rx = fw / ow, ry = fh / oh;
    int t8, t4, t2;
    if (ow <= 350 && oh <= 250) { t8 = 5; t4 = 1; t2 = 0; }
    else if (ow <= 900 && oh <= 500) { t8 = 6; t4 = 2; t2 = 1; }
    else { t8 = 7; t4 = 3; t2 = 1; }
    if (rx > t8 && ry > t8) return 8;
    if (rx > t4 && ry > t4) return 4;
    if (rx > t2 && ry > t2) return 2;
    return 1;
}

int32_t kivod_dec(kivod_ctx *ctx, const kivod_input *input, kivod_frame_info *info) {
    // A decode that was never cloned may still hold buffers, and the input of
    // the previous stream is closed before a new one is opened.
    kivod_prepare(ctx);
    kivod_release_frame_buffers(ctx);
    kivod_bs_deinit(&ctx->main_bs);
    std::memset(&ctx->main_bs, 0, sizeof(ctx->main_bs));
    std::memset(&ctx->fh, 0, sizeof(ctx->fh));
    ctx->progressive = 0;
    ctx->first_scan_ns = 0;
    for (int32_t &r : ctx->comp_rows) r = -1;
    ctx->reached_end = 0;
    ctx->app_bytes = 0;

    info->reserved = info->width = info->height = info->color_format = 0;
    // The previous stream's list is gone: a failure below must not leave
    // the caller pointing at it.
    if (info->app_list) *info->app_list = nullptr;
    int32_t ret = kivod_bs_init(&ctx->main_bs, input);
    if (ret != 0) {
        std::memset(&ctx->main_bs, 0, sizeof(ctx->main_bs));
        return ret;
    }
    if (ctx->main_bs.type == KIVOD_INPUT_MFAL && read_whole_file(ctx) != 0) return fail(ctx, KIVO_ERR_IO);
    kivod_bs *bs = &ctx->main_bs;
    if (kivod_vld_soi(bs) != 0) return fail(ctx, KIVO_ERR_MALFORMED);

    bool have_frame = false;
    int32_t scan_header_read = 0;  // bytes of the first scan's header read past its marker
    for (;;) {
        if (bs->read_byte(bs, 1) == 0xFF) {
            uint32_t m = bs->read_byte(bs, 1);
            while (m == 0xFF) m = bs->read_byte(bs, 1);  // fill bytes before a marker (0 past the end)
            if (m == 0xC0 || m == 0xC1 || m == 0xC2) {
                ctx->progressive = m == 0xC2;
                ret = kivod_vld_fh(bs, &ctx->fh);
                if (ret != 0) return fail(ctx, ret);
                if (kivod_over(ctx->limits.max_pixels, uint64_t(ctx->fh.width) * ctx->fh.height))
                    return fail(ctx, KIVO_ERR_UNSUPPORTED);
                have_frame = true;
            } else if (m == 0xDB) {
                if (ctx->n_dqt >= 4) return fail(ctx, KIVO_ERR_MALFORMED);
                ctx->dqt_pos[ctx->n_dqt++] = *bs;
                kivod_vld_skip_seg(bs);
            } else if (m == 0xC4) {
                if (ctx->n_dht >= 8) return fail(ctx, KIVO_ERR_MALFORMED);
                ctx->dht_pos[ctx->n_dht++] = *bs;
                kivod_vld_skip_seg(bs);
            } else if (m == 0xDD) {
                kivod_vld_dri(bs, &ctx->dri);
            } else if (m == 0xDA) {
                // The first scan's component count (after its length) tells
                // packed output, before any scan is decoded, whether the
                // components come interleaved; a header cut short leaves it
                // unread.
                const int64_t left = bs->type == KIVOD_INPUT_BITB
                                         ? (bs->cur > bs->end ? 0 : int64_t(bs->end - bs->cur) + 1)
                                         : int64_t(bs->last) + 1 - int64_t(bs->pos);
                if (left >= 3) {
                    ctx->first_scan_ns = static_cast<int32_t>(bs->read_byte(bs, 3) & 0xFF);
                    scan_header_read = 3;
                }
                break;
            } else if (m == 0xFE) {
                if (kivod_vld_skip_seg(bs) != 0) return fail(ctx, KIVO_ERR_MALFORMED);
            } else if (m >= 0xE0 && m <= 0xEF) {
                // A segment that cannot be kept for want of memory, or past
                // max_app_bytes (checked before its memory is taken), is not
                // a malformed stream: -102.
                ret = kivod_vld_app(ctx, bs, m);
                if (ret != 0) return fail(ctx, ret);
                ctx->app_bytes += int64_t(ctx->app_last->size) + int64_t(sizeof(kivod_app_node));
            }
        }
        if (kivod_bs_input_done(bs) && bs->bits < 1) return fail(ctx, KIVO_ERR_MALFORMED);
    }
    // A scan without a frame header before it has no components: an
    // unsupported layout, like a frame of none.
    if (!have_frame) return fail(ctx, KIVO_ERR_UNSUPPORTED);

    // Back onto the SOS marker.
    ret = kivod_bs_rewind_cache(bs, 2 + scan_header_read);
    if (ret != 0) return fail(ctx, ret);

    const kivod_fh &fh = ctx->fh;
    info->width = fh.width;
    info->height = fh.height;
    int32_t cs = frame_color_format(fh);
    if ((cs < 0 || !is_decodable_format(cs)) && ctx->any_layout && levels_layout(fh)) cs = 0;
    if (cs < 0) return fail(ctx, cs);
    ctx->color_format = cs;
    info->color_format = cs;
    if (info->app_list) *info->app_list = ctx->app_list;
    if (cs != 0 && !is_decodable_format(cs)) return fail(ctx, KIVO_ERR_COLOR_FORMAT);

    const int n = fh.n_comp;
    for (int c = 0; c < n; ++c) {
        if (cs == 0) {
            // Component size: ceil(X * H / Hmax) by ceil(Y * V / Vmax).
            ctx->comp_w[c] = (fh.width * fh.h[c] + fh.h_max - 1) / fh.h_max;
            ctx->comp_h[c] = (fh.height * fh.v[c] + fh.v_max - 1) / fh.v_max;
        } else {
            comp_size(cs, c, fh.width, fh.height, &ctx->comp_w[c], &ctx->comp_h[c]);
        }
        ctx->blk_w[c] = (ctx->comp_w[c] + 7) / 8;
        ctx->blk_h[c] = (ctx->comp_h[c] + 7) / 8;
    }
    // Coefficient buffers (a progressive frame's, or any frame's levels)
    // cover whole MCUs of every component.
    {
        const int mcu_cols = (fh.width + 8 * fh.h_max - 1) / (8 * fh.h_max);
        const int mcu_rows = (fh.height + 8 * fh.v_max - 1) / (8 * fh.v_max);
        for (int c = 0; c < n; ++c) {
            ctx->prog_blk_w[c] = mcu_cols * fh.h[c];
            ctx->prog_blk_h[c] = mcu_rows * fh.v[c];
        }
        ctx->prog_blk_w[4] = mcu_cols;
        ctx->prog_blk_w[5] = mcu_rows;
    }
    if (!ctx->progressive) {
        for (int c = 0; c < n; ++c) {
            const int hf = fh.h[c], vf = fh.v[c];
            if (ctx->blk_w[c] % hf) ctx->blk_w[c] += hf - ctx->blk_w[c] % hf;
            if (ctx->blk_h[c] % vf) ctx->blk_h[c] += vf - ctx->blk_h[c] % vf;
        }
    }

    const int threads = kivo::thread_limit(ctx->tpool);
    uint64_t frame_bytes = 0;
    for (int c = 0; c < n; ++c) frame_bytes += uint64_t(fh.v[c]) * 8u * ctx->blk_w[c] * 8u * threads;
    if (ctx->progressive) {
        if (coef_bytes(ctx) > kMaxProgressiveBytes) return fail(ctx, KIVO_ERR_OUT_OF_MEMORY);
        frame_bytes += coef_bytes(ctx);
    }
    if (kivod_over(ctx->limits.max_memory, frame_bytes)) return fail(ctx, KIVO_ERR_OUT_OF_MEMORY);
    ctx->frame_bytes = frame_bytes;
    for (int c = 0; c < n; ++c) {
        ctx->mcu_lines[c] = static_cast<uint8_t>(fh.v[c] * 8);
        ctx->line_w[c] = ctx->blk_w[c] * 8;
        const size_t bytes = buffer_bytes(fh.v[c] * 8u, ctx->blk_w[c] * 8u, threads);
        ctx->sample_buf[c] = bytes ? static_cast<uint8_t *>(std::malloc(bytes)) : nullptr;
        if (!ctx->sample_buf[c]) return fail(ctx, KIVO_ERR_OUT_OF_MEMORY);
        if (ctx->progressive && !alloc_coef_buf(ctx, c)) return fail(ctx, KIVO_ERR_OUT_OF_MEMORY);
    }

    ctx->proc.pic_job = ctx->progressive ? kivod_dec_pic_prog : kivod_dec_slice;

    uint32_t sos_pos = 0;
    if (bs->type == KIVOD_INPUT_MFAL) {
        int64_t p = 0;
        if (bs->mfal.tell(bs->handle, &p) != 0) return fail(ctx, KIVO_ERR_IO);
        sos_pos = static_cast<uint32_t>(p);
    }
    ret = parse_saved_tables(ctx);
    if (ret != 0) return fail(ctx, ret);
    if (bs->type == KIVOD_INPUT_MFAL && seek_to(bs, sos_pos) != 0) return fail(ctx, KIVO_ERR_IO);
    return KIVO_OK;
}

int32_t kivod_clone_frm(kivod_ctx *ctx, xelo_imgb *imgb) {
    const int32_t w = imgb->width, h = imgb->height;
    for (int p = 0; p < 4; ++p) ctx->out_w[p] = ctx->out_h[p] = 0;
    ctx->out_w[0] = w;
    ctx->out_h[0] = h;
    // Planar layouts give each plane its size; packed pairs take two bytes
    // a pixel in one plane; other codes get no plane sizes.
    const kivo::Layout *l = kivo::layout_of(imgb->color_format);
    if (l && l->kind == kivo::Layout::Planar) {
        for (int p = 1; p <= 2; ++p) {
            ctx->out_w[p] = kivo::chroma_width(*l, w);
            ctx->out_h[p] = kivo::chroma_height(*l, h);
        }
        if (l->fourth) {
            ctx->out_w[3] = w;
            ctx->out_h[3] = h;
        }
    } else if (imgb->color_format == XELO_CS_YUYV) {
        ctx->out_w[0] = 2 * w;
    }
    return kivod_dec_pic(ctx, imgb);
}

int32_t kivod_dec_pic(kivod_ctx *ctx, xelo_imgb *imgb) {
    // kivod_clone is valid once after each successful kivod_decode.
    if (!ctx->sample_buf[0]) return KIVO_ERR_UNAVAILABLE;
    if (imgb->width < 1 || imgb->height < 1) return KIVO_ERR_INVALID_ARG;
    ctx->out_imgb = imgb;
    ctx->scale = kivod_choose_scale(ctx->fh.width, ctx->fh.height, imgb->width, imgb->height);
    // The caller's reduction: full size is decoded straight into a buffer
    // of the frame's size and resized into any other.
    if (ctx->reduction > 1) ctx->scale = ctx->reduction;
    else if (ctx->reduction == 1 && ctx->scale != 0) ctx->scale = 1;
    // A planar layout other than the frame's is made through the resizer,
    // which takes each plane to its size in that layout.
    if (ctx->scale == 0 && imgb->color_format != ctx->color_format && imgb->color_format != XELO_CS_YUYV)
        ctx->scale = 1;
    // A buffer the picture cannot go to, or cannot be resized to within the
    // memory limit, is refused before anything is decoded, so that the
    // handle keeps the headers (and the last picture's statistics) for
    // another buffer.
    const int32_t mode = kivod_out_mode_for(ctx, imgb);
    if (mode < 0) return mode;
    if (ctx->scale != 0 && kivod_over(ctx->limits.max_memory, ctx->frame_bytes + resizer_bytes(ctx)))
        return KIVO_ERR_OUT_OF_MEMORY;

    start_picture(ctx);
    int32_t scan_status;
    const int32_t fatal = decode_scans(ctx, &scan_status);
    if (fatal != 0) return fatal;
    const bool complete = kivod_picture_complete(ctx);
    const int32_t ret = kivod_finish(ctx);
    // A damaged scan or table between scans still leaves what was decoded in
    // the buffer; while the picture is incomplete its status tells the
    // caller so. Once every row is decoded, what follows cannot change the
    // picture and the picture's own status stands.
    // A file that could not be read is the cause of whatever followed.
    if (ret == 0 && ctx->scan_bs.io_error) return KIVO_ERR_IO;
    // Memory that could not be had fails the call even then: a later scan
    // of a component already whole would have changed its samples.
    if (ret == 0 && scan_status == KIVO_ERR_OUT_OF_MEMORY) return scan_status;
    return ret != 0 || complete ? ret : scan_status;
}

int32_t kivod_mcu_rows_total(const kivod_ctx *ctx) {
    // A single component is coded a block at a time whatever its sampling
    // factors, so its MCU rows are block rows.
    const int32_t unit = 8 * (ctx->fh.n_comp > 1 && ctx->fh.v_max ? ctx->fh.v_max : 1);
    return (ctx->fh.height + unit - 1) / unit;
}

int32_t kivod_mcu_rows_done(const kivod_ctx *ctx) {
    const int32_t total = kivod_mcu_rows_total(ctx);
    int32_t rows = total;
    for (int c = 0; c < ctx->fh.n_comp; ++c) {
        const int32_t r = ctx->comp_rows[c];
        if (r >= (ctx->comp_h[c] + 7) / 8) continue;  // every block row inside the plane
        const int32_t v = ctx->fh.n_comp > 1 ? ctx->fh.v[c] : 1;
        const int32_t mcu_rows = r < 0 ? 0 : r / v;
        if (mcu_rows < rows) rows = mcu_rows;
    }
    return rows;
}

bool kivod_picture_complete(const kivod_ctx *ctx) {
    return ctx->fh.n_comp > 0 && kivod_mcu_rows_done(ctx) == kivod_mcu_rows_total(ctx) &&
           (ctx->reached_end || !ctx->progressive);
}

int32_t kivod_finish(kivod_ctx *ctx) {
    if (ctx->progressive) {
        const int32_t ret = kivod_finish_prog(ctx);
        if (ret != 0) {
            kivod_release_frame_buffers(ctx);
            return ret;
        }
    }
    kivod_set_mean_level(ctx);
    kivod_release_frame_buffers(ctx);
    return KIVO_OK;
}

int32_t kivod_pull_frm(kivod_ctx *, void *) { return KIVO_ERR_UNSUPPORTED; }

int32_t kivod_dec_levels(kivod_ctx *ctx, bool statistics) {
    if (!ctx->sample_buf[0]) return KIVO_ERR_UNAVAILABLE;
    // A sequential frame's levels take coefficient buffers here, within the
    // same bounds as a progressive frame's.
    if (!ctx->progressive) {
        const uint64_t bytes = coef_bytes(ctx);
        if (bytes > kMaxProgressiveBytes || kivod_over(ctx->limits.max_memory, ctx->frame_bytes + bytes)) {
            kivod_release_frame_buffers(ctx);
            return KIVO_ERR_OUT_OF_MEMORY;
        }
        ctx->frame_bytes += bytes;
        for (int c = 0; c < ctx->fh.n_comp; ++c)
            if (!alloc_coef_buf(ctx, c)) {
                kivod_release_frame_buffers(ctx);
                return KIVO_ERR_OUT_OF_MEMORY;
            }
    }
    start_picture(ctx);
    ctx->out_imgb = nullptr;
    ctx->scale = 0;
    ctx->levels_only = 1;
    const int32_t stats_wanted = ctx->stats_wanted;
    if (!statistics) ctx->stats_wanted = 0;
    int32_t scan_status;
    const int32_t fatal = decode_scans(ctx, &scan_status);
    ctx->levels_only = 0;
    ctx->stats_wanted = stats_wanted;
    if (fatal != 0) return fatal;
    int32_t ret = scan_status;
    if (ret == 0 && ctx->scan_bs.io_error) ret = KIVO_ERR_IO;
    if (ret == 0 && !kivod_picture_complete(ctx)) ret = KIVO_ERR_MALFORMED;
    if (ret != 0) kivod_release_frame_buffers(ctx);
    // A sequential frame's statistics are those a decode to pixels gathers.
    if (ret == 0 && !ctx->progressive) kivod_set_mean_level(ctx);
    return ret;
}
