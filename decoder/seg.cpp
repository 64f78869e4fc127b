// Marker segment parsers. Each is called with the reader just past the
// marker's two bytes and reads whole bytes through read_byte.
#include <cstdlib>
#include <cstring>

#include "decoder/kivod_int.h"

namespace {

inline uint32_t rd(kivod_bs *bs, int32_t n) { return bs->read_byte(bs, n); }

inline int32_t check_marker(kivod_bs *bs, uint32_t code) {
    if (rd(bs, 1) != 0xFFu) return KIVO_ERR_MALFORMED;
    return rd(bs, 1) == code ? KIVO_OK : KIVO_ERR_MALFORMED;
}

// Bytes of the input not yet loaded into the reader.
inline int64_t bytes_left(const kivod_bs *bs) {
    if (bs->type == KIVOD_INPUT_BITB)
        return bs->cur > bs->end ? 0 : static_cast<int64_t>(bs->end - bs->cur) + 1;
    return static_cast<int64_t>(bs->last) + 1 - static_cast<int64_t>(bs->pos);
}

}  // namespace

int32_t kivod_vld_soi(kivod_bs *bs) { return check_marker(bs, 0xD8); }

int32_t kivod_vld_eoi(kivod_bs *bs) { return check_marker(bs, 0xD9); }

int32_t kivod_vld_fh(kivod_bs *bs, kivod_fh *fh) {
    std::memset(fh, 0, sizeof(*fh));
    fh->length = static_cast<uint16_t>(rd(bs, 2));
    fh->precision = static_cast<uint8_t>(rd(bs, 1));
    if (fh->precision != 8) return KIVO_ERR_UNSUPPORTED;
    fh->height = static_cast<uint16_t>(rd(bs, 2));
    fh->width = static_cast<uint16_t>(rd(bs, 2));
    if (fh->height == 0 || fh->width == 0) return KIVO_ERR_MALFORMED;
    uint32_t nf = rd(bs, 1);
    if (nf > 4) return KIVO_ERR_UNSUPPORTED;
    fh->n_comp = static_cast<uint8_t>(nf);
    for (uint32_t i = 0; i < nf; ++i) {
        fh->comp_id[i] = static_cast<uint8_t>(rd(bs, 1));
        uint32_t hv = rd(bs, 1);
        uint32_t h = hv >> 4, v = hv & 15;
        uint32_t tq = rd(bs, 1);
        // Factors above 4 and table selectors beyond the four tables would
        // index outside the decoder's per-component arrays later. A single
        // zero factor is a layout the driver refuses as unsupported.
        if ((h == 0 && v == 0) || h > 4 || v > 4 || tq > 3) return KIVO_ERR_MALFORMED;
        fh->h[i] = static_cast<uint8_t>(h);
        fh->v[i] = static_cast<uint8_t>(v);
        fh->tq[i] = static_cast<uint8_t>(tq);
        if (h > fh->h_max) fh->h_max = static_cast<uint8_t>(h);
        if (v > fh->v_max) fh->v_max = static_cast<uint8_t>(v);
    }
    return KIVO_OK;
}

int32_t kivod_vld_sh(kivod_ctx *ctx, kivod_bs *bs, kivod_sh *sh) {
    std::memset(sh, 0, sizeof(*sh));
    sh->length = static_cast<uint16_t>(rd(bs, 2));
    uint32_t ns = rd(bs, 1);
    if (ns > 4) return KIVO_ERR_MALFORMED;
    sh->n_comp = static_cast<uint8_t>(ns);
    const kivod_fh &fh = ctx->fh;
    int32_t nf = fh.n_comp > 4 ? 4 : fh.n_comp;
    for (uint32_t j = 0; j < ns; ++j) {
        uint32_t cs = rd(bs, 1);
        uint32_t t = rd(bs, 1);
        int32_t idx = -1;
        for (int32_t i = 0; i < nf; ++i) {
            if (fh.comp_id[i] == cs) {
                idx = i;
                break;
            }
        }
        if (idx < 0) return KIVO_ERR_MALFORMED;
        uint32_t td = t >> 4, ta = t & 15;
        if (td > 3 || ta > 3) return KIVO_ERR_MALFORMED;
        sh->comp_idx[j] = static_cast<uint8_t>(idx);
        sh->td[idx] = static_cast<uint8_t>(td);
        sh->ta[idx] = static_cast<uint8_t>(ta);
    }
    uint32_t ss = rd(bs, 1);
    uint32_t se = rd(bs, 1);
    uint32_t a = rd(bs, 1);
    sh->ss = static_cast<uint8_t>(ss);
    sh->se = static_cast<uint8_t>(se);
    sh->ah = static_cast<uint8_t>(a >> 4);
    sh->al = static_cast<uint8_t>(a & 15);
    if (ss > 63 || se > 63 || sh->ah > 13 || sh->al > 13) return KIVO_ERR_MALFORMED;
    if (ns > 0) {
        // Blocks per MCU, counted over the first Ns frame components and over
        // the scan's own components; either above 10 is refused.
        uint32_t first = 0, own = 0;
        for (uint32_t j = 0; j < ns; ++j) {
            if (static_cast<int32_t>(j) < nf) first += static_cast<uint32_t>(fh.h[j]) * fh.v[j];
            own += static_cast<uint32_t>(fh.h[sh->comp_idx[j]]) * fh.v[sh->comp_idx[j]];
        }
        if (first > 10 || (ns > 1 && own > 10)) return KIVO_ERR_MALFORMED;
    }
    return KIVO_OK;
}

int32_t kivod_vld_qtbl(kivod_bs *bs, kivod_qtbl qtbl[4], uint8_t q_unit[4], int32_t progressive) {
    uint32_t lq = rd(bs, 2);
    if (lq < 3) return KIVO_OK;
    uint32_t consumed = 2;
    do {
        uint32_t pt = rd(bs, 1);
        uint32_t pq = pt >> 4, tq = pt & 15;
        if (pq > 1 || tq > 3) return KIVO_ERR_MALFORMED;
        kivod_qtbl &t = qtbl[tq];
        int32_t width = static_cast<int32_t>(pq) + 1;
        bool all_one = true;
        for (int k = 0; k < 64; ++k) {
            uint16_t v = static_cast<uint16_t>(rd(bs, width));
            int pos = progressive ? kivo_tbl_zig_to_ras[k] : k;
            t.q[pos] = v;
            t.q_copy[pos] = v;
            all_one = all_one && v == 1;
        }
        t.length = static_cast<uint16_t>(lq);
        t.precision = static_cast<uint8_t>(pq);
        t.id = static_cast<uint8_t>(tq);
        q_unit[tq] = all_one ? 1 : 0;
        consumed += 64 * static_cast<uint32_t>(width) + 1;
    } while (consumed < lq);
    return KIVO_OK;
}

int32_t kivod_vld_htbl(kivod_bs *bs, kivod_htbl_spec spec[8], kivod_dc_tbl dc[4], kivod_ac_tbl ac[4]) {
    uint32_t lh = rd(bs, 2);
    if (lh < 3) return KIVO_OK;
    uint32_t consumed = 2;
    do {
        uint32_t ct = rd(bs, 1);
        uint32_t tc = ct >> 4, th = ct & 15;
        if (tc > 1 || th > 3) return KIVO_ERR_MALFORMED;
        kivod_htbl_spec &s = spec[tc * 4 + th];
        std::memset(&s, 0, sizeof(s));
        s.cls = static_cast<uint8_t>(tc);
        s.id = static_cast<uint8_t>(th);
        uint32_t count = 0;
        for (int l = 0; l < 16; ++l) {
            s.bits[l] = static_cast<uint8_t>(rd(bs, 1));
            count += s.bits[l];
        }
        consumed += 17 + count;
        if (count > 256) return KIVO_ERR_MALFORMED;
        s.count = static_cast<uint16_t>(count);
        for (uint32_t i = 0; i < count; ++i) s.vals[i] = static_cast<uint8_t>(rd(bs, 1));
        int32_t st = kivod_build_htbl(&s, dc, ac);
        if (st < 0) return st;
    } while (consumed < lh);
    return KIVO_OK;
}

int32_t kivod_vld_dri(kivod_bs *bs, kivod_dri *dri) {
    dri->length = static_cast<uint16_t>(rd(bs, 2));
    dri->interval = static_cast<uint16_t>(rd(bs, 2));
    return KIVO_OK;
}

int32_t kivod_vld_app(kivod_ctx *ctx, kivod_bs *bs, uint32_t marker) {
    uint32_t len = rd(bs, 2);
    if (len < 2) return KIVO_ERR_MALFORMED;
    uint32_t size = len - 2;
    bool memory = bs->type == KIVOD_INPUT_BITB;
    // A segment running past the input's end is refused rather than pointed at.
    if (memory && static_cast<int64_t>(size) > bytes_left(bs)) return KIVO_ERR_MALFORMED;
    // The limit on kept segments holds before their memory is taken.
    if (kivod_over(ctx->limits.max_app_bytes, uint64_t(ctx->app_bytes) + size + sizeof(kivod_app_node)))
        return KIVO_ERR_OUT_OF_MEMORY;
    auto *node = static_cast<kivod_app_node *>(std::malloc(sizeof(kivod_app_node)));
    if (!node) return KIVO_ERR_OUT_OF_MEMORY;
    node->marker = marker;
    node->size = size;
    node->data = nullptr;
    node->next = nullptr;
    if (memory) {
        node->data = const_cast<uint8_t *>(bs->cur);
        bs->cur += size;
    } else {
        // An empty segment gets a byte of its own too, never read, as it
        // points into the input from memory: a null data pointer ends the
        // list for the encoder's segment writer.
        node->data = static_cast<uint8_t *>(std::malloc(size ? size : 1));
        if (!node->data) {
            std::free(node);
            return KIVO_ERR_OUT_OF_MEMORY;
        }
        int32_t got = size ? bs->mfal.read(bs->handle, node->data, static_cast<int32_t>(size)) : 0;
        if (got > 0) bs->pos += static_cast<uint32_t>(got);
        if (got != static_cast<int32_t>(size)) {
            std::free(node->data);
            std::free(node);
            return kivod_bs_fail_io(bs);
        }
    }
    if (ctx->app_last) ctx->app_last->next = node;
    else ctx->app_list = node;
    ctx->app_last = node;
    if (!memory) ctx->app_owned = 1;
    return KIVO_OK;
}

kivod_rgb kivod_rgb_coding(const kivod_fh &fh, const kivod_app_node *apps) {
    if (fh.n_comp != 3) return kivod_rgb::no;
    int adobe = -1;  // the first Adobe segment's transform
    for (const kivod_app_node *a = apps; a; a = a->next) {
        if (!a->data) continue;
        if (a->marker == 0xE0 && a->size >= 5 && std::memcmp(a->data, "JFIF", 5) == 0) return kivod_rgb::no;
        if (a->marker == 0xEE && a->size >= 12 && std::memcmp(a->data, "Adobe", 5) == 0 && adobe < 0) adobe = a->data[11];
    }
    if (adobe >= 0) return adobe == 0 ? kivod_rgb::by_adobe : kivod_rgb::no;
    return fh.comp_id[0] == 'R' && fh.comp_id[1] == 'G' && fh.comp_id[2] == 'B' ? kivod_rgb::by_names : kivod_rgb::no;
}

int32_t kivod_vld_skip_seg(kivod_bs *bs) {
    uint32_t len = rd(bs, 2);
    int64_t n = len >= 2 ? static_cast<int64_t>(len) - 2 : 0;
    int32_t st = kivod_bs_rewind_cache(bs, 0);
    if (st != 0) return st;
    int64_t left = bytes_left(bs);
    if (n > left) n = left;  // stop at the end of the input
    if (bs->type == KIVOD_INPUT_BITB) {
        bs->cur += n;
    } else if (n > 0) {
        bs->mfal.skip(bs->handle, &n, bs->type);
        bs->pos += static_cast<uint32_t>(n);
    }
    return kivod_bs_input_done(bs) && bs->bits < 1 ? 1 : 0;
}

KIVO_EXPORT int32_t kivod_chk_eoi(kivod_bs *bs) {
    if (!bs) return KIVO_ERR_INVALID_ARG;
    int64_t cached = bs->bits > 0 ? bs->bits / 8 : 0;
    if (bs->type == KIVOD_INPUT_BITB) {
        // Search backwards from the second to last byte down to the reader's
        // next unread byte.
        int64_t from = bs->cur - bs->start - cached;
        if (from < 0) from = 0;
        int64_t size = bs->end - bs->start + 1;
        for (int64_t i = size - 2; i >= from; --i) {
            if (bs->start[i] == 0xFF && bs->start[i + 1] == 0xD9) return KIVO_OK;
        }
        return KIVO_ERR_MALFORMED;
    }
    // File input: the copy shares the handle, so the file position is put
    // back before returning.
    kivod_bs c = *bs;
    int64_t from = static_cast<int64_t>(bs->pos) - cached;
    if (from < 0) from = 0;
    int32_t result = KIVO_ERR_MALFORMED;
    for (int64_t i = static_cast<int64_t>(bs->last) - 1; i >= from; --i) {
        int64_t at = i;
        if (c.mfal.seek(c.handle, &at, 0) != 0) {
            result = KIVO_ERR_IO;
            break;
        }
        uint8_t two[2] = {0, 0};
        if (c.mfal.read(c.handle, two, 2) != 2) {
            result = KIVO_ERR_IO;
            break;
        }
        if (two[0] == 0xFF && two[1] == 0xD9) {
            result = KIVO_OK;
            break;
        }
    }
    int64_t back = bs->pos;
    if (c.mfal.seek(c.handle, &back, 0) != 0) return KIVO_ERR_IO;
    return result;
}
