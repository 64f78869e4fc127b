// The transcoding pipeline: decode the source completely, choose tables
// never finer than its own, encode again with the source's APPn segments,
// and append what followed the source's end of image.
#include <cstring>

#include "transcoder/kivot_int.h"

namespace {

int32_t fail_with_picture(kivot_ctx *t, int32_t status) {
    if (t->pic) t->pic_req.free(t->pic);
    t->pic = nullptr;
    return status;
}

// Raises the quantizers of eq to the floors that source table sq sets:
// the source's own quantizer, and its shape scaled by quality and raised by
// the weights of table k.
void floor_by(kivoe_qtbl &eq, const kivod_qtbl &sq, int k, int32_t f, bool progressive) {
    // Sequential sources keep their tables in zig-zag order, progressive
    // ones in raster order. A 0 entry (not a valid quantizer) counts as 1.
    auto source_q = [&](int p) {
        const int32_t v = progressive ? sq.q[kivo_tbl_zig_to_ras[p]] : sq.q[p];
        return v < 1 ? 1 : v;
    };
    int32_t minq = 65535;
    for (int p = 0; p < 64; ++p) minq = source_q(p) < minq ? source_q(p) : minq;
    for (int p = 0; p < 64; ++p) {
        const int r = kivo_tbl_zig_to_ras[p];
        const int32_t s = source_q(p);
        const int32_t a = s / minq;
        int32_t v = static_cast<int16_t>(static_cast<uint16_t>(static_cast<int32_t>((a + tbl_trc_weight[k][r]) * 10.0)));
        v = static_cast<int16_t>(static_cast<uint16_t>(static_cast<int32_t>(static_cast<double>(v) * f / 100.0)));
        if (v < 1) v = 1;
        if (v > 255) v = 255;
        // A baseline table holds 8-bit quantizers: a 16-bit source entry
        // above 255 is floored at 255.
        int32_t m = s > v ? s : v;
        if (m > 255) m = 255;
        if (eq.q[r] < m) kivoe_qtbl_set(&eq, r, m);
    }
}

// Output table 0 serves components 0 and 3, table 1 components 1 and 2.
// Each is floored by the source table of every source component it serves,
// whatever order the source defined its tables in, so that no component
// gets a quantizer finer than its own source's. A table no source component
// maps to (chroma of a grey source) is floored by the luma one.
void floor_tables(kivot_ctx *t, int32_t quality) {
    const kivod_ctx *d = t->dec;
    const int32_t f = 105 - quality;
    for (int k = 0; k < 2; ++k) {
        kivoe_qtbl &eq = t->enc->qtbl[k];
        eq.pq = 0;
        eq.tq = static_cast<uint8_t>(k);
        bool floored = false;
        for (int c = 0; c < d->fh.n_comp && c < 4; ++c) {
            if ((c == 1 || c == 2) != (k == 1)) continue;
            const kivod_qtbl &sq = d->qtbl[d->fh.tq[c] & 3];
            if (!sq.length) continue;
            floor_by(eq, sq, k, f, d->progressive);
            floored = true;
        }
        if (!floored && d->fh.n_comp > 0 && d->qtbl[d->fh.tq[0] & 3].length)
            floor_by(eq, d->qtbl[d->fh.tq[0] & 3], k, f, d->progressive);
    }
}

// Bytes after the source's end of image, appended to the output. Returns 0,
// or -105 when they do not fit (the output then ends at its last byte).
int32_t append_trailer(kivod_ctx *d, xelo_bsw *out) {
    kivod_bs *bs = &d->scan_bs;
    kivod_bs_rewind_cache(bs, 0);
    // Find FF (FF...) D9.
    bool found = false;
    while (!kivod_bs_input_done(bs)) {
        if (bs->read_byte(bs, 1) != 0xFF) continue;
        uint32_t b = 0xFF;
        while (b == 0xFF && !kivod_bs_input_done(bs)) b = bs->read_byte(bs, 1);
        if (b == 0xD9) {
            found = true;
            break;
        }
    }
    if (!found) return KIVO_OK;
    // The rest is copied in blocks: straight from memory, or read from the
    // file into the output.
    uint8_t *dst = out->write_ptr;
    const size_t room = static_cast<size_t>(out->end_ptr - dst);
    if (bs->type == KIVOD_INPUT_BITB) {
        const size_t n = static_cast<size_t>(bs->end + 1 - bs->cur);
        if (n > room) return KIVO_ERR_INVALID_ARG;
        std::memcpy(dst, bs->cur, n);
        bs->cur = bs->end + 1;
        out->write_ptr = dst + n;
        return KIVO_OK;
    }
    const int64_t left = static_cast<int64_t>(bs->last) - bs->pos + 1;
    if (left > static_cast<int64_t>(room)) return KIVO_ERR_INVALID_ARG;
    int64_t done = 0;
    while (done < left) {
        const int32_t want = static_cast<int32_t>(left - done > (1 << 20) ? (1 << 20) : left - done);
        const int32_t got = bs->mfal.read(bs->handle, dst + done, want);
        if (got <= 0) break;
        done += got;
    }
    bs->pos += static_cast<uint32_t>(done);
    out->write_ptr = dst + done;
    return KIVO_OK;
}

}  // namespace

int32_t kivot_trc(kivot_ctx *t, const kivod_input *in, const kivoe_output *out, int32_t *written) {
    *written = 0;
    kivod_ctx *d = t->dec;
    kivoe_ctx *e = t->enc;
    if (!d->proc.dec || !d->proc.clone_frm) return KIVO_ERR_UNAVAILABLE;
    // Tables come from this source only: none is left from the one before.
    std::memset(d->qtbl, 0, sizeof(d->qtbl));
    kivod_frame_info info{};
    int32_t ret = d->proc.dec(d, in, &info);
    if (ret < 0) return ret;

    kivo_picbuf_param &req = t->pic_req;
    req.width = req.cap_width = t->width > 0 ? t->width : info.width;
    req.height = req.cap_height = t->height > 0 ? t->height : info.height;
    req.color_format = t->color_format ? t->color_format : info.color_format;
    req.pad = 0;
    req.margin2 = 0;
    int32_t status = KIVO_OK;
    t->pic = req.alloc(&req, t->pic, &status);
    if (!t->pic || status < 0) return fail_with_picture(t, status < 0 ? status : KIVO_ERR_OUT_OF_MEMORY);

    // A source that ends early decodes as far as its data go and leaves the
    // rows below as the buffer held them: start from mid-grey, so that no
    // earlier picture or stale memory reaches the new stream.
    xelo_imgb *img = t->pic->imgb;
    for (int p = 0; p < 4; ++p)
        if (img->plane_base[p]) std::memset(img->plane_base[p], 128, img->capacity[p]);
    ret = d->proc.clone_frm(d, img);
    if (ret < 0) return fail_with_picture(t, ret);

    // Statistics of the decoded picture choose the perceptual tables.
    uint32_t stat[2][64] = {};
    for (int i = 0; i < 64; ++i) {
        stat[0][i] = d->n_luma ? static_cast<uint32_t>(d->stat_luma[i] / d->n_luma) : 0;
        stat[1][i] = d->n_chroma ? static_cast<uint32_t>(d->stat_chroma[i] / d->n_chroma) : 0;
    }
    const int32_t base = tbl_thr[stat[0][0] > 255 ? 255 : stat[0][0]];
    const int64_t level = d->mean_level < 0 ? 0 : d->mean_level > 255 ? 255 : d->mean_level;
    const int32_t quality = t->quality ? t->quality : 96 - tbl_thr[level];
    for (int k = 0; k < 2; ++k)
        kivo_gen_qtbl(reinterpret_cast<int16_t *>(e->qtbl[k].q), e->qtbl[k].recip, e->qtbl[k].half, stat[k], base);
    floor_tables(t, quality);

    if (t->skip_encode) return KIVO_OK;
    if (!e->proc.push) return KIVO_ERR_UNAVAILABLE;
    ret = e->proc.push(e, t->pic->imgb);
    if (ret < 0) return fail_with_picture(t, ret);
    e->jnd_filter = t->jnd_filter;
    e->adaptive_rounding = t->adaptive_rounding;
    e->jnd_suppress = t->jnd_suppress;
    // Optimised tables are counted by the encoder's statistics pass over the
    // symbols it writes: the decoder's counts describe the source's finer
    // quantizers and fit the new stream badly (streams up to half as large
    // again were measured with them). Every transcoding starts from the
    // typical tables and empty counters, so that its tables depend on its
    // own picture only.
    e->opt_huffman = t->opt_huffman;
    kivoe_init_huff_tbl(e);
    for (int k = 0; k < 4; ++k) {
        std::memset(e->dc_tbl[k].counter, 0, sizeof(e->dc_tbl[k].counter));
        std::memset(e->ac_tbl[k].counter, 0, sizeof(e->ac_tbl[k].counter));
    }
    e->huff_overflow_msg = "Huffman code size table overflow";
    if (!out || !out->bitb || !out->bitb->addr || out->bitb->ssize <= 0) return KIVO_ERR_INVALID_ARG;
    xelo_bsw_init(&e->bs, out->bitb->addr, out->bitb->ssize, kivoe_bs_flush);
    e->app_list = d->app_list;
    ret = kivoe_pic_init(e);
    if (ret < 0) return fail_with_picture(t, ret);
    kivoe_proc &p = e->proc;
    if (!p.analysis || !p.header || !p.pic || !p.vlc_footer) {
        kivoe_pic_deinit(e);
        return KIVO_ERR_UNAVAILABLE;
    }
    ret = p.analysis(e);
    if (ret >= 0) {
        p.header(e);
        ret = p.pic(e);
    }
    if (ret < 0) {
        kivoe_pic_deinit(e);
        return fail_with_picture(t, ret);
    }
    p.vlc_footer(e);
    kivoe_pic_deinit(e);
    // The stream and then the source's trailing bytes must fit the output;
    // otherwise nothing is handed out (nothing was written past its end).
    if (e->bs.overflow || append_trailer(d, &e->bs) != KIVO_OK) return KIVO_ERR_INVALID_ARG;
    *written = static_cast<int32_t>(e->bs.write_ptr - e->bs.start_ptr);
    return KIVO_OK;
}
