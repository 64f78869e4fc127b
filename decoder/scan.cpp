// Sequential scans: the scan header, the slice job that walks MCUs, decodes
// blocks, reconstructs them and writes them out.
#include <cstring>

#include "decoder/out.h"

namespace {

// Geometry of one scan component inside the slice job.
struct ScanComp {
    int c;             // frame component
    int h, v;          // blocks per MCU across and down (1 x 1 in a one-component scan)
    int32_t row_w;     // blocks per MCU row
    int32_t col, row;  // block position of the current MCU
    const kivod_dc_tbl *dc;
    const kivod_ac_tbl *ac;
    const kivod_qtbl *q;
    uint64_t *dc_count;
    uint64_t *ac_count;
    int16_t q0;
    int fill;          // reduced lines written into the strip
    int32_t src_line;  // next source line handed to the resizer
    xelo_irsz_t *rsz;
};

// Sets the per-component block geometry of the scan: one block per MCU in a
// one-component scan, whole MCUs of the frame's factors otherwise.
void scan_geometry(kivod_ctx *ctx) {
    const kivod_sh &sh = ctx->sh;
    for (int k = 0; k < sh.n_comp; ++k) {
        const int c = sh.comp_idx[k];
        int32_t bw = (ctx->comp_w[c] + 7) >> 3, bh = (ctx->comp_h[c] + 7) >> 3;
        if (sh.n_comp > 1) {
            const int hf = ctx->fh.h[c], vf = ctx->fh.v[c];
            bw = (bw + hf - 1) / hf * hf;
            bh = (bh + vf - 1) / vf * vf;
            ctx->mcu_lines[c] = static_cast<uint8_t>(vf * 8);
        } else {
            ctx->mcu_lines[c] = 8;
        }
        ctx->blk_w[c] = bw;
        ctx->blk_h[c] = bh;
    }
}

// Checks what the scan header names before anything is indexed with it.
int32_t check_scan(const kivod_ctx *ctx) {
    const kivod_sh &sh = ctx->sh;
    if (sh.n_comp < 1) return KIVO_ERR_MALFORMED;
    int blocks = 0;
    for (int k = 0; k < sh.n_comp; ++k) {
        const int c = sh.comp_idx[k];
        if (c >= ctx->fh.n_comp) return KIVO_ERR_MALFORMED;
        for (int j = 0; j < k; ++j)
            if (sh.comp_idx[j] == c) return KIVO_ERR_MALFORMED;
        const int td = sh.td[c], ta = sh.ta[c], tq = ctx->fh.tq[c];
        if (td > 3 || ta > 3 || tq > 3) return KIVO_ERR_MALFORMED;
        // Tables the scan uses must have been defined.
        if (ctx->dc_tbl[td].count == 0 || ctx->ac_tbl[ta].count <= 1 || ctx->qtbl[tq].length == 0)
            return KIVO_ERR_MALFORMED;
        blocks += sh.n_comp > 1 ? ctx->fh.h[c] * ctx->fh.v[c] : 1;
    }
    return blocks > 10 ? KIVO_ERR_MALFORMED : KIVO_OK;
}

// Coefficient magnitudes are summed per block in 32-bit lanes (one block
// adds at most 32768 per lane) and moved to the 64-bit statistics before
// they could overflow.
constexpr int32_t kMagFlush = 65535;

void flush_magnitudes(kivod_work *w, uint32_t mag[2][64], int32_t *blocks) {
    for (int i = 1; i < 64; ++i) {
        w->stat_luma[i] += mag[0][i];
        w->stat_chroma[i] += mag[1][i];
    }
    std::memset(mag, 0, 2 * 64 * sizeof(uint32_t));
    *blocks = 0;
}

void end_resizers(ScanComp *sc, int ns, kivod_work *w, bool flush) {
    for (int k = 0; k < ns; ++k) {
        if (!sc[k].rsz) continue;
        if (flush && sc[0].fill != 0) xelo_irsz(sc[k].rsz, w->strip[k], sc[k].src_line, w->ctx->mcu_lines[sc[k].c]);
        xelo_irsz_delete(sc[k].rsz);
        sc[k].rsz = nullptr;
    }
}

}  // namespace

int32_t dec_scan(kivod_ctx *ctx, int32_t *done) {
    int32_t ret = kivod_vld_sh(ctx, &ctx->scan_bs, &ctx->sh);
    if (ret != 0) return ret;
    if (ctx->progressive) return kivod_dec_scan_prog(ctx, done);
    ret = check_scan(ctx);
    if (ret != 0) return ret;
    scan_geometry(ctx);

    kivod_split_slices(ctx);
    const int32_t status = kivod_skim_and_run(ctx);
    kivod_collect_stats(ctx);

    // The scan ends where the last slice's reader stopped.
    ctx->scan_bs = ctx->work[ctx->n_threads - 1]->bs;
    ret = kivod_bs_rewind_cache(&ctx->scan_bs, 0);
    if (ret != 0) return ret;
    if (ctx->sh.n_comp > 1) *done = 1;
    return status;
}

int32_t kivod_dec_slice(kivod_ctx *ctx, kivod_work *w) {
    const kivod_sh &sh = ctx->sh;
    const kivod_fh &fh = ctx->fh;
    const int ns = sh.n_comp;
    const int scale = ctx->scale;
    const kivod_vld_ac_fn vld_ac = ctx->dsp.vld_ac[scale];
    const kivod_idct_fn idct = ctx->dsp.idct[scale];
    const kivod_idct_fn idct_dc = ctx->dsp.idct_dc[scale];
    const int shift = tbl_blk_shift[scale];
    const int nblk = 1 << shift;  // output samples per block side
    xelo_imgb *img = ctx->out_imgb;
    const int32_t mode = kivod_out_mode_for(ctx, img);
    if (mode < 0) return mode;
    // Packed pairs need every component of the MCU at hand.
    if (mode == KIVOD_OUT_PACKED && fh.n_comp > 1 && ns != fh.n_comp) return KIVO_ERR_UNSUPPORTED;

    ScanComp sc[4];
    std::memset(sc, 0, sizeof(sc));
    for (int k = 0; k < ns; ++k) {
        ScanComp &s = sc[k];
        s.c = sh.comp_idx[k];
        s.h = ns > 1 ? fh.h[s.c] : 1;
        s.v = ns > 1 ? fh.v[s.c] : 1;
        s.row_w = ctx->blk_w[s.c];
        s.row = w->start_row[k];
        s.dc = &ctx->dc_tbl[sh.td[s.c]];
        s.ac = &ctx->ac_tbl[sh.ta[s.c]];
        s.q = &ctx->qtbl[fh.tq[s.c]];
        s.q0 = static_cast<int16_t>(s.q->q[0]);
        s.dc_count = w->dc_count[sh.td[s.c]];
        // AC symbols are counted for re-encoding with new quantizers, so
        // only when the quantization record carries them.
        bool requant = false;
        for (int i = 0; i < 64; ++i) requant |= s.q->rq_mul[i] != 0;
        s.ac_count = requant ? w->ac_count[sh.ta[s.c]] : nullptr;
    }
    std::memset(w->stat_luma, 0, sizeof(w->stat_luma));
    std::memset(w->stat_chroma, 0, sizeof(w->stat_chroma));
    w->n_luma = w->n_chroma = 0;
    w->dc_level_sum = 0;
    std::memset(w->dc_count, 0, sizeof(w->dc_count));
    std::memset(w->ac_count, 0, sizeof(w->ac_count));

    if (mode == KIVOD_OUT_RESIZED) {
        const int d = scale == 1 ? 1 : scale;
        for (int k = 0; k < ns; ++k) {
            const int c = sc[k].c;
            if (w->out_lines[k] < 1) continue;  // this slice adds no output line
            xelo_irsz_desc desc;
            desc.kind = 20;
            desc.mode = 11;
            desc.src_w = (ctx->comp_w[c] + d - 1) / d;
            desc.src_h = (w->lines[k] + d - 1) / d;
            if (desc.src_h < 1) desc.src_h = 1;
            desc.src_stride = ctx->line_w[c];
            desc.strip_h = ctx->mcu_lines[c];
            desc.dst_w = ctx->out_w[c];
            desc.dst_h = w->out_lines[k];
            desc.dst_stride = img->stride[c];
            desc.dst = img->plane[c] + static_cast<ptrdiff_t>(w->out_first[k]) * img->stride[c];
            sc[k].rsz = xelo_irsz_create(&desc, 0, desc.src_stride, desc.src_h);
            if (!sc[k].rsz) {
                end_resizers(sc, ns, w, false);
                return KIVO_ERR_OUT_OF_MEMORY;
            }
        }
    }

    const int32_t luma_bw = (ctx->comp_w[0] + 7) >> 3, luma_bh = (ctx->comp_h[0] + 7) >> 3;
    alignas(16) uint8_t mcu_buf[4][32 * 32];
    alignas(16) uint32_t mag[2][64] = {};  // coefficient magnitudes, luma and chroma
    int32_t mag_blocks = 0;
    kivod_bs *bs = &w->bs;
    int32_t rst_count = w->rst_count;
    const int32_t interval = ctx->dri.length ? ctx->dri.interval : 0;
    int32_t status = KIVO_OK;
    bool stopped = false;

    for (int32_t m = 0; m < w->n_mcu; ++m) {
        for (int k = 0; k < ns; ++k) {
            ScanComp &s = sc[k];
            const bool luma = s.c == 0;
            for (int v = 0; v < s.v; ++v) {
                for (int h = 0; h < s.h; ++h) {
                    int16_t *blk = w->blk;
                    int16_t diff = 0, dc_only = 1;
                    if (status == KIVO_OK) {
                        status = kivod_vld_dc(bs, s.q0, s.dc, s.dc_count, &diff);
                        if (status == KIVO_OK)
                            status = vld_ac(bs, s.q, s.ac, s.ac_count, blk, &dc_only);
                        if (status != KIVO_OK) {
                            // Without restart markers nothing after this point
                            // can be found again.
                            if (!interval) {
                                stopped = true;
                                goto slice_end;
                            }
                            diff = 0;
                            dc_only = 1;
                            std::memset(blk, 0, 128);
                        }
                    }
                    w->dc_pred[k] = static_cast<int16_t>(static_cast<uint16_t>(w->dc_pred[k]) +
                                                         static_cast<uint16_t>(diff));
                    blk[0] = w->dc_pred[k];
                    const int32_t level = (blk[0] + 1024) >> 3;
                    if (luma) {
                        // The mean level counts the blocks inside the picture,
                        // not those that only fill the last MCU.
                        if (s.col + h < luma_bw && s.row + v < luma_bh) w->dc_level_sum += level;
                        w->stat_luma[0] += level;
                        ++w->n_luma;
                    } else {
                        w->stat_chroma[0] += level;
                        ++w->n_chroma;
                    }
                    uint32_t *sum = mag[luma ? 0 : 1];
                    for (int i = 0; i < 64; ++i) sum[i] += static_cast<uint32_t>(blk[i] < 0 ? -blk[i] : blk[i]);
                    if (++mag_blocks == kMagFlush) flush_magnitudes(w, mag, &mag_blocks);
                    const kivod_idct_fn fn = dc_only ? idct_dc : idct;
                    if (mode == KIVOD_OUT_DIRECT) {
                        kivod_out_block(img, s.c, s.col + h, s.row + v, fn, blk);
                    } else if (mode == KIVOD_OUT_PACKED) {
                        fn(blk, 32, mcu_buf[k] + 32 * 8 * v + 8 * h);
                    } else {
                        const int32_t line = v * nblk + s.fill;
                        fn(blk, ctx->line_w[s.c],
                           w->strip[k] + static_cast<ptrdiff_t>(line) * ctx->line_w[s.c] +
                               (s.col + h) * nblk);
                    }
                    std::memset(blk, 0, 128);
                }
            }
        }
        if (mode == KIVOD_OUT_PACKED) kivod_out_pack_mcu(ctx, mcu_buf, sc[0].col * 8, sc[0].row * 8);
        for (int k = 0; k < ns; ++k) sc[k].col += sc[k].h;

        ++rst_count;
        if (interval && rst_count == interval && m + 1 < w->n_mcu) {
            const int32_t r = kivod_bs_sync_restart(bs, w->dc_pred, &rst_count);
            if (r != 0) {
                status = r;
                stopped = true;
                goto slice_end;
            }
            status = KIVO_OK;
        }
        if (sc[0].col >= sc[0].row_w) {
            for (int k = 0; k < ns; ++k) {
                sc[k].row += sc[k].v;
                sc[k].col = 0;
            }
            if (mode == KIVOD_OUT_RESIZED) {
                for (int k = 0; k < ns; ++k) sc[k].fill += sc[k].v * nblk;
                if (sc[0].fill >= ctx->mcu_lines[sc[0].c]) {
                    for (int k = 0; k < ns; ++k) {
                        const int lines = ctx->mcu_lines[sc[k].c];
                        if (sc[k].rsz) xelo_irsz(sc[k].rsz, w->strip[k], sc[k].src_line, lines);
                        sc[k].src_line += lines;
                        sc[k].fill = 0;
                    }
                }
            }
        }
        if (kivod_bs_input_done(bs) && bs->bits < 1) {
            stopped = true;
            goto slice_end;
        }
    }

slice_end:
    flush_magnitudes(w, mag, &mag_blocks);
    if (!stopped) kivod_bs_read_stuffing(bs);
    end_resizers(sc, ns, w, !stopped);
    return status;
}
