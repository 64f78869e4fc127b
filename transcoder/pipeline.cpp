// The transcoding pipeline: decode the source completely, choose tables
// never finer than its own, encode again with the source's APPn segments,
// and append what followed the source's end of image.
#include <cstdlib>
#include <cstring>

#include "transcoder/kivot_int.h"

namespace {

int32_t fail_with_picture(kivot_ctx *t, int32_t status) {
    if (t->pic) t->pic_req.free(t->pic);
    t->pic = nullptr;
    return status;
}

// The picture the pipeline encodes: the handle's size and layout, or the
// source's where the handle leaves them open. It counts against the
// decoder's memory limit together with the frame buffers the decoder holds,
// before its memory is taken (-102).
int32_t alloc_picture(kivot_ctx *t, int32_t width, int32_t height, int32_t color_format) {
    kivo_picbuf_param &req = t->pic_req;
    req.width = req.cap_width = t->width > 0 ? t->width : width;
    req.height = req.cap_height = t->height > 0 ? t->height : height;
    req.color_format = t->color_format ? t->color_format : color_format;
    int32_t pw[4] = {}, ph[4] = {}, np = 0;
    uint64_t bytes = 0;
    if (xelo_cs_planes(req.color_format, req.width, req.height, pw, ph, &np) == 0)
        for (int p = 0; p < np && p < 4; ++p) bytes += uint64_t(pw[p]) * uint64_t(ph[p]);
    if (kivod_over(t->dec->limits.max_memory, t->dec->frame_bytes + bytes)) {
        kivod_release_frame_buffers(t->dec);
        return fail_with_picture(t, KIVO_ERR_OUT_OF_MEMORY);
    }
    req.pad = 0;
    req.margin2 = 0;
    int32_t status = KIVO_OK;
    t->pic = req.alloc(&req, t->pic, &status);
    if (!t->pic || status < 0) return fail_with_picture(t, status < 0 ? status : KIVO_ERR_OUT_OF_MEMORY);
    return KIVO_OK;
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

// Whether output table k serves component c.
bool serves(int k, int c) { return (c == 1 || c == 2) == (k == 1); }

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
            if (!serves(k, c)) continue;
            const kivod_qtbl &sq = d->qtbl[d->fh.tq[c] & 3];
            if (!sq.length) continue;
            floor_by(eq, sq, k, f, d->progressive);
            floored = true;
        }
        if (!floored && d->fh.n_comp > 0 && d->qtbl[d->fh.tq[0] & 3].length)
            floor_by(eq, d->qtbl[d->fh.tq[0] & 3], k, f, d->progressive);
    }
}

}  // namespace

kivot_trailer::~kivot_trailer() { std::free(owned); }

int32_t kivot_trailer::take(kivod_ctx *d, int32_t copy) {
    if (copy != KIVOT_COPY_ALL) return KIVO_OK;
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
    if (bs->type == KIVOD_INPUT_BITB) {
        data = bs->cur;
        size = static_cast<size_t>(bs->end + 1 - bs->cur);
        bs->cur = bs->end + 1;
        return KIVO_OK;
    }
    // From a file the rest is read in blocks.
    const int64_t left = static_cast<int64_t>(bs->last) - bs->pos + 1;
    if (left <= 0) return KIVO_OK;
    owned = static_cast<uint8_t *>(std::malloc(static_cast<size_t>(left)));
    if (!owned) return KIVO_ERR_OUT_OF_MEMORY;
    int64_t done = 0;
    while (done < left) {
        const int32_t want = static_cast<int32_t>(left - done > (1 << 20) ? (1 << 20) : left - done);
        const int32_t got = bs->mfal.read(bs->handle, owned + done, want);
        if (got <= 0) break;
        done += got;
    }
    bs->pos += static_cast<uint32_t>(done);
    data = owned;
    size = static_cast<size_t>(done);
    return KIVO_OK;
}

bool kivot_keeps_app(int32_t copy, uint32_t marker, const uint8_t *data, uint32_t size) {
    auto named = [&](uint32_t m, const char *id, uint32_t len) {
        return marker == m && size >= len && data && std::memcmp(data, id, len) == 0;
    };
    // JFIF and Adobe segments tell how the samples are to be read (colour
    // space, transform): they stay whatever the choice.
    return copy == KIVOT_COPY_ALL || named(0xE0, "JFIF", 5) || named(0xEE, "Adobe", 5) ||
           (copy == KIVOT_COPY_ICC && named(0xE2, "ICC_PROFILE", 12));
}

kivot_app_view::~kivot_app_view() { std::free(nodes); }

int32_t kivot_app_view::select(int32_t copy, kivod_app_node *list) {
    head = list;
    if (copy == KIVOT_COPY_ALL) return KIVO_OK;
    size_t n = 0;
    for (const kivod_app_node *a = list; a; a = a->next) ++n;
    nodes = n ? static_cast<kivod_app_node *>(std::malloc(n * sizeof(kivod_app_node))) : nullptr;
    if (n && !nodes) return KIVO_ERR_OUT_OF_MEMORY;
    head = nullptr;
    kivod_app_node **tail = &head;
    size_t used = 0;
    for (const kivod_app_node *a = list; a; a = a->next) {
        if (!kivot_keeps_app(copy, a->marker, a->data, a->size)) continue;
        kivod_app_node *node = &nodes[used++];
        *node = *a;
        node->next = nullptr;
        *tail = node;
        tail = &node->next;
    }
    return KIVO_OK;
}

int32_t kivot_trc_decode(kivot_ctx *t, const kivod_input *in) {
    kivod_ctx *d = t->dec;
    if (!d->proc.dec || !d->proc.clone_frm) return KIVO_ERR_UNAVAILABLE;
    // Tables come from this source only: none is left from the one before.
    std::memset(d->qtbl, 0, sizeof(d->qtbl));
    kivod_frame_info info{};
    int32_t ret = d->proc.dec(d, in, &info);
    if (ret < 0) return ret;

    ret = alloc_picture(t, info.width, info.height, info.color_format);
    if (ret < 0) return ret;

    // A source that ends early decodes as far as its data go and leaves the
    // rows below as the buffer held them: start from mid-grey, so that no
    // earlier picture or stale memory reaches the new stream.
    xelo_imgb *img = t->pic->imgb;
    for (int p = 0; p < 4; ++p)
        if (img->plane_base[p]) std::memset(img->plane_base[p], 128, img->capacity[p]);
    ret = d->proc.clone_frm(d, img);
    if (ret < 0) return fail_with_picture(t, ret);
    kivot_choose_tables(t);
    return KIVO_OK;
}

int32_t kivot_trc_from_levels(kivot_ctx *t, int16_t *const coef[4], const uint16_t *const q[4]) {
    kivod_ctx *d = t->dec;
    int32_t ret = alloc_picture(t, d->fh.width, d->fh.height, d->color_format);
    if (ret < 0) return ret;
    ret = kivod_levels_to_picture(d, coef, q, t->pic->imgb);
    if (ret < 0) return fail_with_picture(t, ret);
    kivot_choose_tables(t);
    return KIVO_OK;
}

void kivot_choose_tables(kivot_ctx *t) {
    const kivod_ctx *d = t->dec;
    kivoe_ctx *e = t->enc;
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
}

bool kivot_tables_changed(const kivot_ctx *t) {
    const kivod_ctx *d = t->dec;
    for (int c = 0; c < d->fh.n_comp && c < 4; ++c) {
        const int k = serves(0, c) ? 0 : 1;
        const kivod_qtbl &sq = d->qtbl[d->fh.tq[c] & 3];
        for (int r = 0; r < 64; ++r) {
            const int32_t s = d->progressive ? sq.q[r] : sq.q[kivo_tbl_ras_to_zig[r]];
            if (t->enc->qtbl[k].q[r] != s) return true;
        }
    }
    return false;
}

int32_t kivot_trc_encode(kivot_ctx *t, const kivoe_output *out, int32_t *written, const kivot_extras *extras) {
    *written = 0;
    kivod_ctx *d = t->dec;
    kivoe_ctx *e = t->enc;
    if (t->skip_encode) return KIVO_OK;
    if (!e->proc.push) return KIVO_ERR_UNAVAILABLE;
    int32_t ret = e->proc.push(e, t->pic->imgb);
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
    kivot_app_view apps;
    ret = apps.select(t->copy, extras ? extras->apps : d->app_list);
    if (ret < 0) return fail_with_picture(t, ret);
    e->app_list = apps.head;
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
    kivot_trailer trailer;
    if (extras) {
        trailer.data = extras->trailer;
        trailer.size = extras->trailer_size;
    } else {
        ret = trailer.take(d, t->copy);
        if (ret < 0) return ret;
    }
    xelo_bsw &bs = e->bs;
    if (bs.overflow || trailer.size > static_cast<size_t>(bs.end_ptr - bs.write_ptr)) return KIVO_ERR_INVALID_ARG;
    if (trailer.size) std::memcpy(bs.write_ptr, trailer.data, trailer.size);
    bs.write_ptr += trailer.size;
    *written = static_cast<int32_t>(bs.write_ptr - bs.start_ptr);
    return KIVO_OK;
}

int32_t kivot_trc(kivot_ctx *t, const kivod_input *in, const kivoe_output *out, int32_t *written) {
    *written = 0;
    const int32_t ret = kivot_trc_decode(t, in);
    return ret < 0 ? ret : kivot_trc_encode(t, out, written);
}
