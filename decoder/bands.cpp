// Band output: the picture's rows handed to a sink, MCU row by MCU row, from
// rings of planes the slices reconstruct into (kivod_clone_bands).
#include <cstdlib>

#include "decoder/kivod_int.h"

int32_t kivod_pending_frame(const kivod_ctx *ctx, int32_t *width, int32_t *height, int32_t *color_format) {
    // The frame buffers exist from kivod_decode until the picture is decoded.
    if (!ctx->sample_buf[0]) return KIVO_ERR_UNAVAILABLE;
    *width = ctx->fh.width;
    *height = ctx->fh.height;
    *color_format = ctx->color_format;
    return KIVO_OK;
}

bool kivod_bands_possible(const kivod_ctx *ctx) {
    const int n = ctx->fh.n_comp;
    if (!ctx->sample_buf[0] || ctx->reduction > 1 || (n != 1 && n != 3)) return false;
    // A file input shares one position among copies of its reader.
    if (ctx->main_bs.type != KIVOD_INPUT_BITB) return false;
    // A progressive frame is reconstructed at the end, all of it at hand.
    if (ctx->progressive) return true;
    // The reader stands on the first scan's marker: its header says whether
    // the scan carries every component. Such a scan ends the picture when it
    // interleaves several; a later scan of a lone component is decoded too
    // and would rewrite rows already handed on, so a grey picture needs no
    // other scan marker in its data.
    kivod_bs bs = ctx->main_bs;
    if (kivod_bs_read(&bs, 16) != 0xFFDA) return false;
    kivod_bs_read(&bs, 16);  // length
    if (static_cast<int>(kivod_bs_read(&bs, 8)) != n) return false;
    if (n > 1) return true;
    for (const uint8_t *p = bs.cur; (p = kivod_next_marker(p, bs.end + 1)); ++p)
        if (p[1] == 0xDA) return false;
    return true;
}

int32_t kivod_clone_bands(kivod_ctx *ctx, const kivod_band_sink *sink) {
    if (!kivod_bands_possible(ctx)) return KIVO_ERR_UNSUPPORTED;
    const kivod_fh &fh = ctx->fh;
    // Two MCU rows per ring: the row being reconstructed and the one above,
    // which the sink may still read for the rows at their junction. A
    // sequential one-component scan's MCU rows are 8 lines, within the same
    // ring.
    size_t bytes = 0;
    for (int c = 0; c < fh.n_comp; ++c) {
        ctx->band_ring[c] = 2 * 8 * fh.v[c];
        ctx->band_offset[c] = bytes;
        bytes += static_cast<size_t>(ctx->band_ring[c]) * static_cast<size_t>(ctx->line_w[c]);
    }
    ctx->band_bytes = (bytes + 63) & ~static_cast<size_t>(63);
    const size_t all = ctx->band_bytes * static_cast<size_t>(kivo::thread_limit(ctx->tpool));
    // Refused before anything is decoded: the headers stay for another call.
    if (kivod_over(ctx->limits.max_memory, ctx->frame_bytes + all)) return KIVO_ERR_OUT_OF_MEMORY;
    ctx->band_buf = static_cast<uint8_t *>(xelo_malloc_fast_align32(all));
    if (!ctx->band_buf) return KIVO_ERR_OUT_OF_MEMORY;
    // The picture at the frame's size and layout, without planes: the
    // slices write into their rings.
    xelo_imgb img{};
    img.width = fh.width;
    img.height = fh.height;
    img.color_format = ctx->color_format;
    ctx->bands = sink;
    const int32_t ret = kivod_clone_frm(ctx, &img);
    ctx->bands = nullptr;
    xelo_mfree_fast_align32(ctx->band_buf);
    ctx->band_buf = nullptr;
    return ret;
}
