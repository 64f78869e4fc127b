// Lossless re-encoding: the source's quantized levels, as the decoder reads
// them, coded again as a baseline stream with optimised tables or as a
// progressive one; and the smallest-of choice among that, the pipeline and
// the source itself.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "transcoder/kivot_int.h"

int32_t kivot_read_levels(kivot_ctx *t, const kivod_input *in, kivoe_coef_pic *pic, bool statistics) {
    kivod_ctx *d = t->dec;
    if (!d->proc.dec) return KIVO_ERR_UNAVAILABLE;
    std::memset(d->qtbl, 0, sizeof(d->qtbl));
    *pic = kivoe_coef_pic{};
    kivod_frame_info info{};
    // Levels are coded again whatever the layout, also one this library
    // does not reconstruct (colour format 0 then).
    d->any_layout = 1;
    int32_t ret = d->proc.dec(d, in, &info);
    d->any_layout = 0;
    if (ret < 0) return ret;
    const kivod_fh &fh = d->fh;
    pic->width = fh.width;
    pic->height = fh.height;
    ret = kivod_dec_levels(d, statistics);
    if (ret < 0) return ret;
    pic->n_comp = fh.n_comp;
    pic->rgb = kivod_rgb_coding(fh, d->app_list) != kivod_rgb::no;
    for (int c = 0; c < fh.n_comp; ++c) {
        pic->id[c] = fh.comp_id[c];
        // One component is coded block by block whatever its factors say.
        pic->h[c] = fh.n_comp > 1 ? fh.h[c] : 1;
        pic->v[c] = fh.n_comp > 1 ? fh.v[c] : 1;
        const int tq = fh.tq[c] & 3;
        pic->tq[c] = static_cast<uint8_t>(tq);
        const kivod_qtbl &q = d->qtbl[tq];
        for (int r = 0; r < 64; ++r) pic->qt[tq][r] = d->progressive ? q.q[r] : q.q[kivo_tbl_ras_to_zig[r]];
        pic->blk_w[c] = d->prog_blk_w[c];
        pic->blk_h[c] = d->prog_blk_h[c];
        pic->coef[c] = d->coef_buf[c];
    }
    return KIVO_OK;
}

int32_t kivot_write_levels(const kivoe_coef_pic *pic, int32_t coding, uint8_t *dst, int32_t cap, int32_t *written,
                           kivoe_coef_store *store) {
    *written = 0;
    if (!dst || cap <= 0) return KIVO_ERR_INVALID_ARG;
    xelo_bsw bs;
    xelo_bsw_init(&bs, dst, cap, kivoe_bs_flush);
    const int32_t ret = kivoe_write_coef_pic(pic, coding, &bs, store);
    if (ret < 0) return ret;
    if (bs.overflow) return KIVO_ERR_INVALID_ARG;
    *written = static_cast<int32_t>(bs.write_ptr - bs.start_ptr);
    return KIVO_OK;
}

namespace {

// The source's levels with the APPn segments and trailer the outputs carry.
struct Levels {
    kivoe_coef_pic pic{};
    kivot_app_view apps;
    kivot_trailer trailer;
    kivod_kept kept;  // after keep(): the levels and APPn list, out of the decoder
    int32_t read(kivot_ctx *t, const kivod_input *in, bool statistics) {
        int32_t ret = kivot_read_levels(t, in, &pic, statistics);
        if (ret == KIVO_OK) ret = apps.select(t->copy, t->dec->app_list);
        if (ret == KIVO_OK) ret = trailer.take(t->dec, t->copy);
        if (ret < 0) return ret;
        pic.app_list = apps.head;
        pic.trailer = trailer.data;
        pic.trailer_len = static_cast<int32_t>(trailer.size);
        return KIVO_OK;
    }
    // Lets the decoder decode again without touching pic.
    void keep(kivod_ctx *d) { kept.take(d); }
    // The levels' buffers go back to the decoder for the handle's next
    // call, which then needs no new memory (and no page faults) for levels
    // of the same size.
    void spare(kivod_ctx *d) { kept.spare(d); }
};

// The source's bytes in memory: the caller's, or read from its file.
struct Source {
    const uint8_t *data = nullptr;
    int32_t size = 0;
    uint8_t *owned = nullptr;
    Source() = default;
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;
    ~Source() { std::free(owned); }
    int32_t load(const kivod_input *in) {
        if (in->type == KIVOD_INPUT_BITB) {
            if (!in->bitb || !in->bitb->addr || in->bitb->ssize <= 0) return KIVO_ERR_INVALID_ARG;
            data = in->bitb->addr;
            size = in->bitb->ssize;
            return KIVO_OK;
        }
        if (in->type != KIVOD_INPUT_MFAL || !in->mfal || !in->mfal->open || !in->mfal->read || !in->mfal->size ||
            !in->mfal->close)
            return KIVO_ERR_INVALID_ARG;
        kivo_mfal *m = in->mfal;
        void *h = m->open(m, 2, 1);
        if (!h) return KIVO_ERR_OPEN;  // as the decoder says of a file it cannot open
        int64_t n = 0;
        int32_t ret = m->size(h, &n) != 0 || n <= 0 || n > INT32_MAX ? KIVO_ERR_IO : KIVO_OK;
        if (ret == KIVO_OK) owned = static_cast<uint8_t *>(std::malloc(static_cast<size_t>(n)));
        if (ret == KIVO_OK && !owned) ret = KIVO_ERR_OUT_OF_MEMORY;
        int64_t done = 0;
        while (ret == KIVO_OK && done < n) {
            const int32_t want = static_cast<int32_t>(n - done > (1 << 20) ? (1 << 20) : n - done);
            const int32_t got = m->read(h, owned + done, want);
            if (got <= 0) ret = KIVO_ERR_IO;
            done += got > 0 ? got : 0;
        }
        m->close(h);
        data = owned;
        size = static_cast<int32_t>(n);
        return ret;
    }
};

// The source as the copy setting keeps it, into dst (room for the
// source): all of it, or without the APPn segments the setting drops, its
// comments (COM) and the bytes after its end of image, wherever they stand
// among its scans. Returns the bytes written, or 0 when its segments cannot
// be walked; a source cut short in a scan keeps what it has.
int32_t strip_source(const uint8_t *s, int32_t n, int32_t copy, uint8_t *dst) {
    if (copy == KIVOT_COPY_ALL) {
        std::memcpy(dst, s, static_cast<size_t>(n));
        return n;
    }
    if (n < 4 || s[0] != 0xFF || s[1] != 0xD8) return 0;
    int32_t in = 2, out = 2;
    std::memcpy(dst, s, 2);
    const auto take = [&](int32_t len) {
        std::memcpy(dst + out, s + in, static_cast<size_t>(len));
        out += len;
        in += len;
    };
    for (;;) {
        if (in + 2 > n || s[in] != 0xFF) return 0;
        const uint32_t marker = s[in + 1];
        if (marker == 0xFF) {  // a fill byte before a marker
            ++in;
            continue;
        }
        if (marker == 0xD9) {
            take(2);
            return out;
        }
        if (in + 4 > n) return 0;
        const int32_t len = s[in + 2] << 8 | s[in + 3];
        if (len < 2 || in + 2 + len > n) return 0;
        const bool app = marker >= 0xE0 && marker <= 0xEF;
        if (app ? kivot_keeps_app(copy, marker, s + in + 4, static_cast<uint32_t>(len - 2)) : marker != 0xFE) take(2 + len);
        else in += 2 + len;
        if (marker != 0xDA) continue;
        // The scan's coded bytes, up to a marker that is neither a
        // stuffed 0xFF nor a restart marker.
        int32_t end = in;
        for (;;) {
            const void *ff = end < n ? std::memchr(s + end, 0xFF, static_cast<size_t>(n - end)) : nullptr;
            if (!ff || static_cast<const uint8_t *>(ff) + 1 == s + n) {
                take(n - in);
                return out;
            }
            end = static_cast<int32_t>(static_cast<const uint8_t *>(ff) - s);
            const uint32_t next = s[end + 1];
            if (next != 0x00 && (next < 0xD0 || next > 0xD7)) break;
            end += 2;
        }
        take(end - in);
    }
}

// The lossless candidates, each offered with its size: written one after
// the other into the buffer the best so far leaves free, so that each may
// stop as soon as it cannot win; or, when the handle has lent threads,
// shared by two of them into the two free buffers. Returns -102 when
// either ran out of memory, else 0.
template <class Best>
int32_t write_lossless(kivot_ctx *t, const kivoe_coef_pic *pic, uint8_t *const buf[3], Best &best) {
    const kivoe_ctx *e = t->enc;
    const int32_t kinds[2] = {KIVOT_CHOSEN_PROGRESSIVE, KIVOT_CHOSEN_LOSSLESS};
    // A lossless coding is seldom a tenth smaller than its source: where the
    // best so far is, the codings are likely to be counted only.
    const auto coding_of = [&best](int32_t kind) {
        const int32_t c = kind == KIVOT_CHOSEN_PROGRESSIVE ? KIVOE_CODING_PROGRESSIVE : KIVOE_CODING_BASELINE;
        return best.cap(kind) < best.room / 10 * 9 ? c | KIVOE_CODING_LIKELY_COUNTED_ONLY : c;
    };
    if (kivo::thread_limit(e->tpool) >= 2) {
        const int free0 = best.free_buffer(0), free1 = best.free_buffer(1);
        uint8_t *const dst[2] = {buf[free0], buf[free1]};
        const int32_t cap[2] = {best.cap(kinds[0]), best.cap(kinds[1])};
        const kivoe_coef_pic *const pics[2] = {pic, pic};
        const int32_t codings[2] = {coding_of(kinds[0]), coding_of(kinds[1])};
        int32_t size[2];
        const int32_t r = kivoe_write_coef_pics(&e->tpool, e->threads, 2, pics, codings, dst, cap, size, &t->coef_store);
        if (r == KIVO_ERR_OUT_OF_MEMORY) return r;
        if (r == KIVO_OK) {
            for (int i = 0; i < 2; ++i) best.offer(i ? free1 : free0, size[i], kinds[i]);
            return KIVO_OK;
        }
    }
    // Progressive first: usually the smaller of the two.
    for (int32_t kind : kinds) {
        int32_t size = 0;
        const int i = best.free_buffer(0);
        const int32_t r = kivot_write_levels(pic, coding_of(kind), buf[i], best.cap(kind), &size, &t->coef_store);
        if (r == KIVO_ERR_OUT_OF_MEMORY) return r;
        if (r == KIVO_OK) best.offer(i, size, kind);
    }
    return KIVO_OK;
}

// The best candidate so far: its buffer (of three), size and kind. Ties go
// to the one with less re-encoded: the source, then the baseline lossless
// coding, the progressive one, the pipeline.
struct Best {
    int32_t room;  // bytes of each buffer
    int index = 0;
    int32_t size = 0, choice = 0;

    static int rank(int32_t choice) {
        return choice == KIVOT_CHOSEN_SOURCE ? 0 : choice == KIVOT_CHOSEN_LOSSLESS ? 1 : choice == KIVOT_CHOSEN_PROGRESSIVE ? 2 : 3;
    }
    // Most bytes a candidate of this kind may have and still win.
    int32_t cap(int32_t kind) const {
        if (!size) return room;
        return rank(kind) < rank(choice) ? size : size - 1;
    }
    // The k-th (0 or 1) buffer not holding the best.
    int free_buffer(int k) const { return k < index ? k : k + 1; }
    void offer(int i, int32_t n, int32_t kind) {
        if (n <= 0 || n > cap(kind)) return;
        index = i;
        size = n;
        choice = kind;
    }
};

// A candidate that failed for want of resources rather than for its
// source: an allocation, an image buffer that could not be created, or a
// worker run the pool refused (KIVO_ERR_THREAD, or a caller's pool's own
// status, which is none of the library's others).
inline bool want_of_resources(int32_t status) {
    switch (status) {
    case KIVO_OK:
    case KIVO_ERR_UNSUPPORTED:
    case KIVO_ERR_UNAVAILABLE:
    case KIVO_ERR_INVALID_ARG:
    case KIVO_ERR_OPEN:
    case KIVO_ERR_IO:
    case KIVO_ERR_MALFORMED:
    case KIVO_ERR_COLOR_FORMAT: return false;
    default: return true;
    }
}

}  // namespace

extern "C" {

KIVO_API int32_t kivot_txcode_lossless(kivot_ctx *ctx, const kivod_input *input, const kivoe_output *output,
                                       int32_t *written, int32_t coding) {
    kivot_ctx *t = static_cast<kivot_ctx *>(kivo::handle_check(ctx, kivo::Kind::Transcoder));
    if (!t || !input || !written) return KIVO_ERR_INVALID_ARG;
    *written = 0;
    if (coding != KIVOT_LOSSLESS_BASELINE && coding != KIVOT_LOSSLESS_PROGRESSIVE) return KIVO_ERR_INVALID_ARG;
    if (!output || !output->bitb || !output->bitb->addr || output->bitb->ssize <= 0) return KIVO_ERR_INVALID_ARG;
    Levels lv;
    int32_t ret = lv.read(t, input, false);
    if (ret == KIVO_OK)
        ret = kivot_write_levels(&lv.pic, coding == KIVOT_LOSSLESS_PROGRESSIVE ? KIVOE_CODING_PROGRESSIVE
                                                                              : KIVOE_CODING_BASELINE,
                                 output->bitb->addr, output->bitb->ssize, written, &t->coef_store);
    lv.keep(t->dec);
    lv.spare(t->dec);
    kivod_release_frame_buffers(t->dec);
    return ret;
}

KIVO_API int32_t kivot_txcode_smallest(kivot_ctx *ctx, const kivod_input *input, const kivoe_output *output,
                                       int32_t *written, int32_t *chosen) {
    kivot_ctx *t = static_cast<kivot_ctx *>(kivo::handle_check(ctx, kivo::Kind::Transcoder));
    if (!t || !input || !written) return KIVO_ERR_INVALID_ARG;
    *written = 0;
    if (chosen) *chosen = 0;
    if (!output || !output->bitb || !output->bitb->addr || output->bitb->ssize <= 0) return KIVO_ERR_INVALID_ARG;
    kivod_ctx *d = t->dec;
    Source src;
    int32_t ret = src.load(input);
    if (ret < 0) return ret;
    xelo_bitb src_bitb{};
    src_bitb.addr = const_cast<uint8_t *>(src.data);
    src_bitb.ssize = src.size;
    const kivod_input in{KIVOD_INPUT_BITB, &src_bitb, nullptr};

    // The candidates compete in three buffers of the source's size (no
    // winner can be larger): the best so far and two being made, kept by
    // the handle for its next call.
    Best best{src.size};
    uint8_t *buf[3];
    size_t got[3];
    for (int i = 0; i < 3; ++i)
        buf[i] = static_cast<uint8_t *>(
            kivoe_coef_store_take(&t->coef_store, KIVOE_STORE_CALLER + i, static_cast<size_t>(src.size), &got[i]));
    const auto free_buffers = [&] {
        for (int i = 0; i < 3; ++i) kivoe_coef_store_give(&t->coef_store, KIVOE_STORE_CALLER + i, buf[i], got[i]);
    };
    if (!buf[0] || !buf[1] || !buf[2]) {
        free_buffers();
        return KIVO_ERR_OUT_OF_MEMORY;
    }

    // A candidate that fails for want of memory or of a worker fails the
    // call: the choice is made among all of them or not at all. Other
    // failures (a source that does not decode whole, levels a baseline
    // stream cannot hold) only leave a candidate out.
    bool same_picture = true;  // the handle keeps the source's size and layout
    bool tables_change = true; // the pipeline would choose other tables
    Levels lv;
    const int32_t levels = lv.read(t, &in, true);
    const bool headers = lv.pic.width > 0;  // the source's headers were read
    ret = levels;
    if (levels == KIVO_OK) {
        const kivod_fh &fh = d->fh;
        same_picture = (t->width <= 0 || t->width == fh.width) && (t->height <= 0 || t->height == fh.height) &&
                       (!t->color_format || t->color_format == d->color_format) && !t->skip_encode;
        if (!d->color_format) {
            // A layout without a colour format has no pixels to encode
            // again: its candidates are the lossless codings and the source.
            tables_change = false;
        } else if (kivod_rgb_coding(fh, d->app_list) == kivod_rgb::by_names) {
            // RGB told by the component names alone: the pipeline names its
            // components 1, 2 and 3, which decoders read as YCbCr.
            tables_change = false;
        } else if (same_picture && !d->progressive) {
            // A sequential source's levels come with the statistics that
            // choose the pipeline's tables: no second decode to learn that
            // they stay the source's.
            kivot_choose_tables(t);
            tables_change = kivot_tables_changed(t);
        }
        lv.keep(d);
    }
    kivod_release_frame_buffers(d);
    if (!want_of_resources(ret) && !same_picture) {
        // Another size or layout is the pipeline's alone.
        free_buffers();
        ret = kivot_trc(t, &in, output, written);
        if (ret == KIVO_OK && chosen) *chosen = KIVOT_CHOSEN_PIPELINE;
        return ret;
    }

    // The pipeline first, where it makes some table coarser (with the
    // source's own tables it only adds loss): it is then often much the
    // smallest, and the lossless codings stop as soon as they cannot beat
    // it. A source that does not decode whole is not re-encoded.
    if (!want_of_resources(ret) && tables_change) {
        // The picture is made from the levels already read; a source whose
        // levels could not be read is decoded again.
        const bool from_levels = levels == KIVO_OK;
        if (from_levels) {
            const uint16_t *q[4] = {};
            for (int c = 0; c < lv.pic.n_comp; ++c) q[c] = lv.pic.qt[lv.pic.tq[c]];
            ret = kivot_trc_from_levels(t, lv.kept.coef, q);
        } else {
            ret = kivot_trc_decode(t, &in);
        }
        if (ret == KIVO_OK && (from_levels || kivod_picture_complete(d)) && kivot_tables_changed(t)) {
            xelo_bitb ob{};
            ob.addr = buf[best.free_buffer(0)];
            ob.ssize = src.size;
            const kivoe_output o{KIVOD_INPUT_BITB, &ob, nullptr};
            int32_t n = 0;
            const kivot_extras extras{lv.kept.apps, lv.trailer.data, lv.trailer.size};
            ret = kivot_trc_encode(t, &o, &n, from_levels ? &extras : nullptr);
            if (ret == KIVO_OK) best.offer(best.free_buffer(0), n, KIVOT_CHOSEN_PIPELINE);
        }
    }
    if (!want_of_resources(ret) && levels == KIVO_OK) ret = write_lossless(t, &lv.pic, buf, best);
    // The source itself, when its headers could be read.
    if (!want_of_resources(ret)) {
        ret = headers ? KIVO_OK : ret;
        const int i = best.free_buffer(0);
        if (headers) best.offer(i, strip_source(src.data, src.size, t->copy, buf[i]), KIVOT_CHOSEN_SOURCE);
    }
    if (ret == KIVO_OK && !best.size) ret = KIVO_ERR_MALFORMED;
    if (ret == KIVO_OK && best.size > output->bitb->ssize) ret = KIVO_ERR_INVALID_ARG;
    if (ret == KIVO_OK) {
        std::memcpy(output->bitb->addr, buf[best.index], static_cast<size_t>(best.size));
        *written = best.size;
        if (chosen) *chosen = best.choice;
    }
    free_buffers();
    lv.spare(d);
    return ret;
}

KIVO_API const char *kivot_chosen_name(int32_t chosen) {
    switch (chosen) {
    case KIVOT_CHOSEN_PIPELINE: return "pipeline";
    case KIVOT_CHOSEN_LOSSLESS: return "lossless";
    case KIVOT_CHOSEN_PROGRESSIVE: return "progressive";
    case KIVOT_CHOSEN_SOURCE: return "source";
    default: return "?";
    }
}

}  // extern "C"
