// Frame and scan header records, and the header of a baseline stream: SOI,
// APPn segments handed in, SOF0, DQT, DHT, DRI and SOS.
#include <cstring>

#include "encoder/kivoe_int.h"

namespace {

void put(xelo_bsw *bs, uint32_t v, int32_t bits) { xelo_bsw_write(bs, v, bits); }

}  // namespace

void kivoe_init_fh(kivoe_fh *fh, int32_t width, int32_t height, int32_t color_format) {
    // Only encodable layouts reach here (kivoe_pic_init checks).
    const kivo::Layout *s = kivo::layout_of(color_format);
    fh->n_comp = s ? s->n_comp : 0;
    fh->length = static_cast<uint16_t>(8 + 3 * fh->n_comp);
    fh->precision = 8;
    fh->height = static_cast<uint16_t>(height);
    fh->width = static_cast<uint16_t>(width);
    static const uint8_t tq[4] = {0, 1, 1, 0};
    for (int c = 0; c < 4; ++c) {
        fh->comp_id[c] = static_cast<uint8_t>(c + 1);
        if (s) {
            fh->h[c] = s->h[c];
            fh->v[c] = s->v[c];
        }
        fh->tq[c] = tq[c];
    }
}

void kivoe_init_sh(kivoe_sh *sh, int32_t, int32_t, int32_t color_format) {
    const kivo::Layout *s = kivo::layout_of(color_format);
    sh->n_comp = s ? s->n_comp : 0;
    sh->length = static_cast<uint16_t>(6 + 2 * sh->n_comp);
    static const uint8_t sel[4] = {0, 1, 1, 0};
    for (int c = 0; c < 4; ++c) {
        sh->cs[c] = static_cast<uint8_t>(c + 1);
        sh->td[c] = sel[c];
        sh->ta[c] = sel[c];
    }
    sh->ss = 0;
    sh->se = 63;
    sh->ah = 0;
    sh->al = 0;
}

void kivoe_write_app(xelo_bsw *bs, const kivod_app_node *node) {
    xelo_bsw_sink(bs);
    for (; node && node->data; node = node->next) {
        put(bs, 0xFF, 8);
        put(bs, node->marker & 0xFF, 8);
        put(bs, (node->size + 2) & 0xFFFF, 16);
        xelo_bsw_sink(bs);
        // The data are copied straight to the output, never past its end.
        size_t n = node->size;
        const size_t room =
            bs->write_ptr && bs->end_ptr > bs->write_ptr ? static_cast<size_t>(bs->end_ptr - bs->write_ptr) : 0;
        if (n > room) {
            n = room;
            bs->overflow = 1;
        }
        if (n) {
            std::memcpy(bs->write_ptr, node->data, n);
            bs->write_ptr += n;
        }
    }
}

void kivoe_write_fh(xelo_bsw *bs, const kivoe_fh *fh) { kivoe_write_sof(bs, fh, 0xC0); }

void kivoe_write_sof(xelo_bsw *bs, const kivoe_fh *fh, int32_t marker) {
    put(bs, 0xFF00 | (static_cast<uint32_t>(marker) & 0xFF), 16);
    put(bs, fh->length, 16);
    put(bs, fh->precision, 8);
    put(bs, fh->height, 16);
    put(bs, fh->width, 16);
    put(bs, fh->n_comp, 8);
    for (int c = 0; c < fh->n_comp; ++c) {
        put(bs, fh->comp_id[c], 8);
        put(bs, static_cast<uint32_t>(fh->h[c] << 4 | fh->v[c]), 8);
        put(bs, fh->tq[c], 8);
    }
}

void kivoe_write_qt(kivoe_ctx *ctx, xelo_bsw *bs) {
    put(bs, 0xFFDB, 16);
    put(bs, 0x0084, 16);
    for (int t = 0; t < 2; ++t) {
        const kivoe_qtbl &q = ctx->qtbl[t];
        put(bs, static_cast<uint32_t>(q.pq << 4 | q.tq), 8);
        for (int k = 0; k < 64; ++k) put(bs, q.q[kivo_tbl_zig_to_ras[k]] & 0xFF, 8);
    }
}

void kivoe_write_ht(kivoe_ctx *ctx, xelo_bsw *bs) { kivoe_write_dht(bs, ctx->huff_spec, 4); }

void kivoe_write_dht(xelo_bsw *bs, const kivoe_huff_spec *specs, int32_t n) {
    int32_t total = 0;
    for (int32_t i = 0; i < n; ++i) total += specs[i].count;
    put(bs, 0xFFC4, 16);
    put(bs, static_cast<uint32_t>(2 + 17 * n + total), 16);
    for (int32_t i = 0; i < n; ++i) {
        const kivoe_huff_spec &s = specs[i];
        put(bs, static_cast<uint32_t>(s.cls << 4 | s.id), 8);
        for (int l = 0; l < 16; ++l) put(bs, static_cast<uint32_t>(s.bits[l]) & 0xFF, 8);
        for (int k = 0; k < s.count; ++k) put(bs, static_cast<uint32_t>(s.vals[k]) & 0xFF, 8);
    }
}

void kivoe_write_dri(xelo_bsw *bs, int32_t interval) {
    put(bs, 0xFFDD, 16);
    put(bs, 0x0004, 16);
    put(bs, static_cast<uint32_t>(interval) & 0xFFFF, 16);
}

void kivoe_write_sh(xelo_bsw *bs, const kivoe_sh *sh) {
    put(bs, 0xFFDA, 16);
    put(bs, sh->length, 16);
    put(bs, sh->n_comp, 8);
    for (int c = 0; c < sh->n_comp; ++c) {
        const int id = sh->cs[c];
        put(bs, static_cast<uint32_t>(id), 8);
        put(bs, static_cast<uint32_t>(sh->td[(id - 1) & 3] << 4 | sh->ta[(id - 1) & 3]), 8);
    }
    put(bs, sh->ss, 8);
    put(bs, sh->se, 8);
    put(bs, static_cast<uint32_t>(sh->ah << 4 | sh->al), 8);
}

int32_t kivoe_enc_header(kivoe_ctx *ctx) {
    xelo_bsw *bs = &ctx->bs;
    put(bs, 0xFFD8, 16);
    if (ctx->app_list) kivoe_write_app(bs, ctx->app_list);
    kivoe_write_fh(bs, &ctx->fh);
    kivoe_write_qt(ctx, bs);
    kivoe_write_ht(ctx, bs);
    if (ctx->rst_interval) kivoe_write_dri(bs, ctx->rst_interval);
    kivoe_write_sh(bs, &ctx->sh);
    xelo_bsw_sink(bs);
    return bs->overflow ? KIVO_ERR_INVALID_ARG : KIVO_OK;
}
