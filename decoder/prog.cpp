// Progressive frames: every scan adds to whole-picture coefficient buffers
// (DC first, DC refinement, AC first, AC refinement, T.81 G.1.2), and the
// picture is reconstructed once, after the last scan, one component per
// thread.
#include <cstring>

#include "decoder/bs_inline.h"
#include "decoder/out.h"
#include "common/nonzero.h"

namespace {

// v << al kept to 16 bits, without shifting a negative value.
inline int16_t shifted(int32_t v, int32_t al) { return low16(static_cast<int32_t>(static_cast<uint32_t>(v) << al)); }

// Decodes a DC category; -1 when no code matches.
int32_t decode_dc_category(kivod_bs *bs, const kivod_dc_tbl *t) {
    top_up(bs);
    const uint32_t b16 = bs->bits >= 16 ? bs->cache >> 16 : kivod_bs_peek(bs, 16);
    int32_t len = 0;
    const int32_t cat = dc_category(t, b16, &len);
    if (cat >= 0) kivod_bs_skip(bs, len);
    return cat;
}

// Decodes an AC symbol into run and size. 0, or -202 for a code the table
// does not hold.
int32_t decode_ac_symbol(kivod_bs *bs, const kivod_ac_tbl *t, int32_t *run, int32_t *size) {
    top_up(bs);
    const bool cached = bs->bits >= 16;
    const uint32_t b16 = cached ? bs->cache >> 16 : kivod_bs_peek(bs, 16);
    const kivod_ac_look e = t->lookup[b16 >> 8];
    int32_t len = e.len;
    if (len <= 8) {
        *run = e.run;
        *size = e.size;
    } else {
        const int32_t idx = long_ac_code(t, b16, &len);
        if (idx < 0) return KIVO_ERR_MALFORMED;
        *run = t->sym[idx].run;
        *size = t->sym[idx].size;
    }
    if (cached) {
        bs->cache <<= len;
        bs->bits -= len;
    } else {
        kivod_bs_skip(bs, len);
    }
    return KIVO_OK;
}

// Bits 0 to n - 1 (n 0 to 64).
inline uint64_t below(int32_t n) { return n >= 64 ? ~uint64_t(0) : (uint64_t(1) << n) - 1; }

// Correction bits of the coefficients of mask m (zig-zag positions), in
// order: each moves its coefficient one step of p1 away from zero unless
// that bit is set already.
inline void refine_all(kivod_bs *bs, int16_t *blk, uint64_t m, int32_t p1) {
    while (m) {
        // Up to 16 bits at a time, as many consumed as there were coefficients.
        top_up(bs);
        uint32_t bits = (bs->bits >= 16 ? bs->cache >> 16 : kivod_bs_peek(bs, 16)) << 16;
        int32_t used = 0;
        for (; m && used < 16; ++used, bits <<= 1, m &= m - 1) {
            int16_t *coef = &blk[kivo_tbl_zig_to_ras[__builtin_ctzll(m)]];
            const int32_t c = *coef;
            const int32_t step = (bits >> 31) && (c & p1) == 0 ? p1 : 0;
            *coef = low16(static_cast<uint32_t>(c + (c < 0 ? -step : step)));
        }
        if (bs->bits >= used) {
            bs->cache <<= used;
            bs->bits -= used;
        } else {
            kivod_bs_skip(bs, used);
        }
    }
}

// A block's coefficients from its levels (raster order, q likewise), kept
// to 16 bits as the sequential decoder keeps them; the levels stay as they
// are.
inline void dequantize(const int16_t *levels, const uint16_t *q, int16_t *blk) {
    for (int i = 0; i < 64; ++i) blk[i] = low16(static_cast<uint32_t>(levels[i]) * q[i]);
}

bool exhausted(const kivod_bs *bs) { return bs->bits < 1 && kivod_bs_input_done(bs); }

}  // namespace

int32_t kivod_check_prog_scan(const kivod_ctx *ctx, const kivod_sh &sh, const kivod_dc_tbl *dc_tbl,
                              const kivod_ac_tbl *ac_tbl) {
    if (sh.n_comp < 1) return KIVO_ERR_MALFORMED;
    if (sh.ss > sh.se || sh.se > 63 || (sh.ss == 0 && sh.se != 0) || (sh.ss > 0 && sh.n_comp != 1))
        return KIVO_ERR_MALFORMED;
    if (sh.ah > 13 || sh.al > 13) return KIVO_ERR_MALFORMED;
    int blocks = 0;
    for (int k = 0; k < sh.n_comp; ++k) {
        const int c = sh.comp_idx[k];
        if (c >= ctx->fh.n_comp) return KIVO_ERR_MALFORMED;
        for (int j = 0; j < k; ++j)
            if (sh.comp_idx[j] == c) return KIVO_ERR_MALFORMED;
        if (sh.td[c] > 3 || sh.ta[c] > 3) return KIVO_ERR_MALFORMED;
        if (sh.ss == 0 && sh.ah == 0 && dc_tbl[sh.td[c]].count == 0) return KIVO_ERR_MALFORMED;
        if (sh.ss > 0 && ac_tbl[sh.ta[c]].count <= 1) return KIVO_ERR_MALFORMED;
        blocks += sh.n_comp > 1 ? ctx->fh.h[c] * ctx->fh.v[c] : 1;
    }
    return blocks > 10 ? KIVO_ERR_MALFORMED : KIVO_OK;
}

namespace {

typedef int32_t (*dc_prog_fn)(kivod_bs *bs, int32_t al, int16_t *pred, const kivod_dc_tbl *t, int16_t *blk);
typedef int32_t (*ac_prog_fn)(kivod_bs *bs, int32_t ss, int32_t se, int32_t al, int32_t *eob_run,
                              const kivod_ac_tbl *t, int16_t *blk);

// What every block of one scan needs: its routine, band, point transform
// and, per frame component, its table.
struct ScanCoder {
    dc_prog_fn dc;
    ac_prog_fn ac;
    int32_t ss, se, al;
    const kivod_dc_tbl *dc_tbl[4];
    const kivod_ac_tbl *ac_tbl[4];
};

inline int32_t decode_block(const ScanCoder &s, kivod_bs *bs, int c, int16_t *blk, int16_t *pred,
                            int32_t *eob_run) {
    if (s.ss == 0) return s.dc(bs, s.al, pred, s.dc_tbl[c], blk);
    return s.ac(bs, s.ss, s.se, s.al, eob_run, s.ac_tbl[c], blk);
}

}  // namespace

int32_t kivod_vld_dc_prog(kivod_bs *bs, int32_t al, int16_t *pred, const kivod_dc_tbl *t, int16_t *blk) {
    const int32_t cat = decode_dc_category(bs, t);
    if (cat < 0) return KIVO_ERR_MALFORMED;
    const int32_t diff = cat ? extend(get_bits(bs, cat), cat) : 0;
    *pred = low16(*pred + diff);
    blk[0] = shifted(*pred, al);
    return KIVO_OK;
}

int32_t kivod_vld_dc_prog_refine(kivod_bs *bs, int32_t al, int16_t *, const kivod_dc_tbl *, int16_t *blk) {
    if (get_bits(bs, 1)) blk[0] = low16(blk[0] | (1 << al));
    return KIVO_OK;
}

int32_t kivod_vld_ac_prog(kivod_bs *bs, int32_t ss, int32_t se, int32_t al, int32_t *eob_run,
                          const kivod_ac_tbl *t, int16_t *blk) {
    if (*eob_run > 0) {
        --*eob_run;
        return KIVO_OK;
    }
    // The reader's cache in local copies, handed back before anything else
    // reads the reader; symbols the one-step look-up does not give go
    // through the reader.
    uint32_t cache = bs->cache;
    int32_t bits = bs->bits;
    const auto store = [&]() {
        bs->cache = cache;
        bs->bits = bits;
    };
    const auto load = [&]() {
        cache = bs->cache;
        bits = bs->bits;
    };
    for (int32_t k = ss; k <= se; ++k) {
        if (bits < 16) {
            store();
            top_up(bs);
            load();
        }
        if (bits >= kivod_fast_bits) {
            // Codes that fit with their extra bits in the next few bits: one
            // look-up gives run, value and the bits to consume.
            const int32_t f = t->fast[cache >> (32 - kivod_fast_bits)];
            if (f) {
                const int32_t len = f & 0xFF;
                cache <<= len;
                bits -= len;
                if (f & kivod_fast_eob) break;  // a run of this block only
                if (f & kivod_fast_zrl) {
                    k += 15;
                    continue;
                }
                k += (f >> 8) & 15;
                if (k > se) {
                    store();
                    return KIVO_ERR_MALFORMED;
                }
                const int16_t value = static_cast<int16_t>(static_cast<uint32_t>(f) >> 16);
                blk[kivo_tbl_zig_to_ras[k]] = shifted(value, al);
                continue;
            }
        }
        store();
        int32_t run, size;
        if (decode_ac_symbol(bs, t, &run, &size) != 0) return KIVO_ERR_MALFORMED;
        if (size) {
            k += run;
            if (k > se) return KIVO_ERR_MALFORMED;
            blk[kivo_tbl_zig_to_ras[k]] = shifted(extend(get_bits(bs, size), size), al);
        } else if (run == 15) {
            k += 15;
        } else {
            // This block and 2^run + (run bits) - 1 more end here.
            *eob_run = (1 << run) - 1 + (run ? static_cast<int32_t>(get_bits(bs, run)) : 0);
            return KIVO_OK;
        }
        load();
    }
    store();
    return KIVO_OK;
}

int32_t kivod_vld_ac_prog_refine(kivod_bs *bs, int32_t ss, int32_t se, int32_t al, int32_t *eob_run,
                                 const kivod_ac_tbl *t, int16_t *blk) {
    // New coefficients are +-2^al; every coefficient already non-zero that
    // the scan passes reads one correction bit. The runs of the block's
    // symbols are walked coefficient by coefficient; the rest of the band
    // inside an end-of-band run, where most correction bits are, goes
    // through a mask of the non-zero coefficients only.
    //
    // The walk reads the reader's cache through local copies, which it
    // hands back before anything else reads the reader: where the cache runs
    // short of what a step needs even after a top-up (the data's end),
    // that step goes through the reader as get_bits would.
    const int32_t p1 = 1 << al;
    int32_t k = ss;
    if (*eob_run == 0) {
        uint32_t cache = bs->cache;
        int32_t bits = bs->bits;
        const auto store = [&]() {
            bs->cache = cache;
            bs->bits = bits;
        };
        const auto load = [&]() {
            cache = bs->cache;
            bits = bs->bits;
        };
        // n bits (1 to 16) as get_bits reads them.
        const auto read = [&](int32_t n) -> uint32_t {
            if (bits < n) {
                store();
                top_up(bs);
                const uint32_t v = get_bits(bs, n);
                load();
                return v;
            }
            const uint32_t v = cache >> (32 - n);
            cache <<= n;
            bits -= n;
            return v;
        };
        for (; k <= se; ++k) {
            int32_t run, size;
            if (bits < 16) {
                store();
                top_up(bs);
                load();
            }
            if (bits >= 16) {
                const kivod_ac_look e = t->lookup[cache >> 24];
                int32_t len = e.len;
                if (len <= 8) {
                    run = e.run;
                    size = e.size;
                } else {
                    const int32_t idx = long_ac_code(t, cache >> 16, &len);
                    if (idx < 0) {
                        store();
                        return KIVO_ERR_MALFORMED;
                    }
                    run = t->sym[idx].run;
                    size = t->sym[idx].size;
                }
                cache <<= len;
                bits -= len;
            } else {
                store();
                const int32_t r = decode_ac_symbol(bs, t, &run, &size);
                load();
                if (r != 0) return KIVO_ERR_MALFORMED;
            }
            int32_t value = 0;
            if (size) {
                if (size != 1) {
                    store();
                    return KIVO_ERR_MALFORMED;
                }
                value = read(1) ? p1 : -p1;
            } else if (run != 15) {
                // The run counts this block, which ends below.
                *eob_run = (1 << run) + (run ? static_cast<int32_t>(read(run)) : 0);
                break;
            }
            // Pass `run` zero coefficients, refining the non-zero ones met;
            // stop on the zero that takes the new value (or ends sixteen zeros).
            for (; k <= se; ++k) {
                int16_t *coef = &blk[kivo_tbl_zig_to_ras[k]];
                const int32_t c = *coef;
                if (c) {
                    if (read(1) && (c & p1) == 0) *coef = low16(c >= 0 ? c + p1 : c - p1);
                } else {
                    if (run == 0) break;
                    --run;
                }
            }
            if (value && k <= se) blk[kivo_tbl_zig_to_ras[k]] = low16(value);
        }
        store();
    }
    if (*eob_run > 0) {
        // Inside a run: only correction bits for the rest of the band.
        bool unused;
        if (k <= se) refine_all(bs, blk, kivo_zigzag_ac_mask(blk, &unused) & below(se + 1) & ~below(k), p1);
        --*eob_run;
    }
    return KIVO_OK;
}

kivod_prog_scan kivod_prog_scan_of(kivod_ctx *ctx, const kivod_sh &sh, const kivod_dc_tbl *dc_tbl,
                                   const kivod_ac_tbl *ac_tbl) {
    kivod_prog_scan s{};
    s.sh = sh;
    for (int c = 0; c < 4; ++c) {
        s.dc[c] = &dc_tbl[sh.td[c] & 3];
        s.ac[c] = &ac_tbl[sh.ta[c] & 3];
        s.dst[c] = ctx->coef_buf[c];
    }
    s.step = 64;
    return s;
}

namespace {

// The block loop with its step (values a block) a constant.
template <size_t step>
int32_t scan_blocks(const kivod_ctx *ctx, const kivod_prog_scan &s, kivod_bs *bs, int32_t *rows_done) {
    const kivod_sh &sh = s.sh;
    const kivod_fh &fh = ctx->fh;
    ScanCoder coder;
    coder.ss = sh.ss;
    coder.se = sh.se;
    coder.al = sh.al;
    coder.dc = sh.ah ? kivod_vld_dc_prog_refine : kivod_vld_dc_prog;
    coder.ac = sh.ah ? kivod_vld_ac_prog_refine : kivod_vld_ac_prog;
    for (int c = 0; c < 4; ++c) {
        coder.dc_tbl[c] = s.dc[c];
        coder.ac_tbl[c] = s.ac[c];
    }
    int16_t pred[4] = {0, 0, 0, 0};
    int32_t eob_run = 0;
    const int ns = sh.n_comp;
    int32_t ret = KIVO_OK;
    *rows_done = 0;  // block rows (one component) or MCU rows decoded
    if (ns == 1) {
        const int c = sh.comp_idx[0];
        int32_t bw = (ctx->comp_w[c] + 7) / 8, bh = (ctx->comp_h[c] + 7) / 8;
        if (bw > ctx->prog_blk_w[c]) bw = ctx->prog_blk_w[c];
        if (bh > ctx->prog_blk_h[c]) bh = ctx->prog_blk_h[c];
        for (int32_t r = 0; r < bh && ret == KIVO_OK; ++r) {
            if (s.before_row && !s.before_row(s.arg, r)) return KIVO_ERR_MALFORMED;
            for (int32_t q = 0; q < bw; ++q) {
                int16_t *blk = s.dst[c] + (static_cast<size_t>(r) * ctx->prog_blk_w[c] + q) * step;
                ret = decode_block(coder, bs, c, blk, &pred[c], &eob_run);
                if (ret == KIVO_OK && exhausted(bs)) ret = KIVO_ERR_MALFORMED;
                if (ret != KIVO_OK) break;
            }
            if (ret == KIVO_OK && s.after_row) s.after_row(s.arg, r + 1);
            *rows_done += ret == KIVO_OK;
        }
    } else {
        for (int32_t r = 0; r < ctx->prog_blk_w[5] && ret == KIVO_OK; ++r) {
            for (int32_t q = 0; q < ctx->prog_blk_w[4] && ret == KIVO_OK; ++q)
                for (int k = 0; k < ns && ret == KIVO_OK; ++k) {
                    const int c = sh.comp_idx[k];
                    for (int v = 0; v < fh.v[c] && ret == KIVO_OK; ++v)
                        for (int h = 0; h < fh.h[c] && ret == KIVO_OK; ++h) {
                            const size_t row = static_cast<size_t>(r) * fh.v[c] + v, col = static_cast<size_t>(q) * fh.h[c] + h;
                            int16_t *blk = s.dst[c] + (row * ctx->prog_blk_w[c] + col) * step;
                            ret = decode_block(coder, bs, c, blk, &pred[c], &eob_run);
                        }
                    if (ret == KIVO_OK && exhausted(bs)) ret = KIVO_ERR_MALFORMED;
                }
            if (ret == KIVO_OK && s.after_row) s.after_row(s.arg, r + 1);
            *rows_done += ret == KIVO_OK;
        }
    }
    if (ret == KIVO_OK && eob_run > 0) ret = KIVO_ERR_MALFORMED;
    return ret;
}

}  // namespace

int32_t kivod_prog_scan_blocks(const kivod_ctx *ctx, const kivod_prog_scan &s, kivod_bs *bs, int32_t *rows_done) {
    return s.step == 1 ? scan_blocks<1>(ctx, s, bs, rows_done) : scan_blocks<64>(ctx, s, bs, rows_done);
}

int32_t kivod_dec_scan_prog(kivod_ctx *ctx, int32_t *done) {
    // Restart intervals in progressive frames are not decoded.
    if (ctx->dri.length && ctx->dri.interval) return KIVO_ERR_UNSUPPORTED;
    int32_t ret = kivod_check_prog_scan(ctx, ctx->sh, ctx->dc_tbl, ctx->ac_tbl);
    if (ret != 0) return ret;
    const kivod_sh &sh = ctx->sh;
    // At 1/8 only DC coefficients matter: the first AC scan ends the picture.
    if (ctx->scale == 8 && sh.ss != 0) {
        *done = 1;
        return KIVO_OK;
    }
    kivod_bs *bs = &ctx->scan_bs;
    int32_t rows_done = 0;
    ret = kivod_prog_scan_blocks(ctx, kivod_prog_scan_of(ctx, sh, ctx->dc_tbl, ctx->ac_tbl), bs, &rows_done);
    for (int k = 0; k < sh.n_comp; ++k) {
        const int c = sh.comp_idx[k];
        kivod_note_rows(ctx, c, ret == KIVO_OK ? ctx->prog_blk_h[c] : rows_done * (sh.n_comp > 1 ? ctx->fh.v[c] : 1));
    }
    kivod_bs_read_stuffing(bs);
    const int32_t rew = kivod_bs_rewind_cache(bs, 0);
    return ret != KIVO_OK ? ret : rew;
}

int32_t kivod_finish_prog(kivod_ctx *ctx) {
    const int nc = ctx->fh.n_comp;
    for (int c = 0; c < nc; ++c) {
        ctx->blk_w[c] = (ctx->comp_w[c] + 7) / 8;
        ctx->blk_h[c] = (ctx->comp_h[c] + 7) / 8;
    }
    int n = kivo::thread_limit(ctx->tpool);
    // Band output takes every component of a share of the MCU rows (and,
    // but for the last share, the next share's first MCU row as well),
    // other output a share of the components.
    const int32_t mcu_rows = ctx->prog_blk_w[5];
    if (n > (ctx->bands ? mcu_rows : nc)) n = ctx->bands ? mcu_rows : nc;
    ctx->n_threads = n;
    for (int t = 0; t < n; ++t) {
        kivod_work *w = ctx->work[t];
        xelo_mset_x64a(w, 0, sizeof(kivod_work));
        w->ctx = ctx;
        w->first_comp = static_cast<uint8_t>(t);
        w->n_comp = static_cast<uint8_t>(t == n - 1 ? nc - t : 1);
        w->first_mcu = static_cast<int32_t>(int64_t(mcu_rows) * t / n);
        w->n_mcu = static_cast<int32_t>(int64_t(mcu_rows) * (t + 1) / n) - w->first_mcu;
        w->extra_mcu = ctx->bands && t < n - 1 ? ctx->bands->context_rows : 0;
    }
    const int32_t ret = dec_mt(ctx);
    for (int t = 0; t < n; ++t) ctx->dc_level_total += ctx->work[t]->dc_level_sum;
    return ret;
}

namespace {

// Band output of a progressive frame: the work record's MCU rows (first_mcu,
// n_mcu, then extra_mcu more), every component, into the slice's ring, each
// MCU row reported to the sink.
int32_t dec_bands_prog(kivod_ctx *ctx, kivod_work *w) {
    int slice = 0;
    while (ctx->work[slice] != w) ++slice;
    uint8_t *base = ctx->band_buf + ctx->band_bytes * static_cast<size_t>(slice);
    const kivod_fh &fh = ctx->fh;
    const int32_t lines = 8 * fh.v[0];  // luma lines per MCU row
    kivod_band b{};
    for (int c = 0; c < fh.n_comp; ++c) {
        b.plane[c] = base + ctx->band_offset[c];
        b.stride[c] = ctx->line_w[c];
        b.ring[c] = ctx->band_ring[c];
    }
    b.total = ctx->prog_blk_w[5] * lines;
    b.first = w->first_mcu * lines;
    b.end = (w->first_mcu + w->n_mcu) * lines;
    b.slice = slice;
    const kivod_idct_fn idct = ctx->dsp.idct[0];
    alignas(16) int16_t blk[64];
    for (int32_t m = w->first_mcu; m < w->first_mcu + w->n_mcu + w->extra_mcu; ++m) {
        const bool own = m < w->first_mcu + w->n_mcu;
        for (int c = 0; c < fh.n_comp; ++c) {
            const kivod_qtbl &q = ctx->qtbl[fh.tq[c] & 3];
            const int32_t stride = b.stride[c];
            for (int32_t r = m * fh.v[c]; r < (m + 1) * fh.v[c] && r < ctx->blk_h[c]; ++r) {
                uint8_t *dst = const_cast<uint8_t *>(b.plane[c]) + static_cast<ptrdiff_t>((r * 8) % b.ring[c]) * stride;
                const int16_t *coef = ctx->coef_buf[c] + static_cast<size_t>(r) * ctx->prog_blk_w[c] * 64;
                for (int32_t col = 0; col < ctx->blk_w[c]; ++col, coef += 64) {
                    // A neighbour's extra row reads the levels again.
                    dequantize(coef, q.q, blk);
                    if (c == 0 && own && ctx->stats_wanted) w->dc_level_sum += (blk[0] + 1024) >> 3;
                    idct(blk, stride, dst + col * 8);
                }
            }
        }
        b.done = (m + 1) * lines;
        ctx->bands->rows_done(ctx->bands->user, &b);
    }
    return KIVO_OK;
}

}  // namespace

int32_t kivod_dec_pic_prog(kivod_ctx *ctx, kivod_work *w) {
    if (ctx->bands) return dec_bands_prog(ctx, w);
    xelo_imgb *img = ctx->out_imgb;
    const int32_t mode = kivod_out_mode_for(ctx, img);
    if (mode < 0) return mode;
    const int scale = ctx->scale;
    const int n = 1 << tbl_blk_shift[scale];
    const kivod_idct_fn idct = ctx->dsp.idct[scale];
    const int d = kivod_denom(scale);
    int32_t status = KIVO_OK;
    for (int c = w->first_comp; c < w->first_comp + w->n_comp; ++c) {
        const kivod_qtbl &q = ctx->qtbl[ctx->fh.tq[c] & 3];
        const int32_t line_w = ctx->line_w[c];
        xelo_irsz_t *rsz = nullptr;
        if (mode == KIVOD_OUT_RESIZED) {
            xelo_irsz_desc desc;
            desc.kind = 20;
            desc.mode = 11;
            desc.src_w = (ctx->comp_w[c] + d - 1) / d;
            desc.src_h = (ctx->comp_h[c] + d - 1) / d;
            desc.src_stride = line_w;
            desc.strip_h = ctx->mcu_lines[c];
            desc.dst_w = ctx->out_w[c];
            desc.dst_h = ctx->out_h[c];
            desc.dst_stride = img->stride[c];
            desc.dst = img->plane[c];
            rsz = xelo_irsz_create(&desc, 0, desc.src_stride, desc.src_h);
            if (!rsz) return KIVO_ERR_OUT_OF_MEMORY;
        }
        uint8_t *strip = ctx->sample_buf[c];
        const int strip_h = ctx->mcu_lines[c];
        int fill = 0;
        int32_t src_line = 0;
        alignas(16) int16_t blk[64];
        for (int32_t r = 0; r < ctx->blk_h[c]; ++r) {
            for (int32_t col = 0; col < ctx->blk_w[c]; ++col) {
                const int16_t *coef = ctx->coef_buf[c] + (static_cast<size_t>(r) * ctx->prog_blk_w[c] + col) * 64;
                dequantize(coef, q.q, blk);
                if (c == 0 && ctx->stats_wanted) w->dc_level_sum += (blk[0] + 1024) >> 3;
                if (mode == KIVOD_OUT_DIRECT) kivod_out_block(img, c, col, r, idct, blk);
                else idct(blk, line_w, strip + static_cast<ptrdiff_t>(fill) * line_w + col * n);
            }
            if (rsz) {
                fill += n;
                if (fill >= strip_h) {
                    xelo_irsz(rsz, strip, src_line, strip_h);
                    src_line += strip_h;
                    fill = 0;
                }
            }
        }
        if (rsz) {
            if (fill) {
                const int32_t r = xelo_irsz(rsz, strip, src_line, strip_h);
                if (r < 0) status = r;
            }
            xelo_irsz_delete(rsz);
        }
    }
    return status;
}

namespace {

// One thread's share of kivod_levels_to_picture: components first to
// first + n - 1.
struct LevelsJob {
    kivod_ctx *ctx;
    int16_t *const *coef;
    const uint16_t *const *q;
    xelo_imgb *img;
    int first, n;
    int64_t dc_level_sum;  // component 0's, for the mean level
};

int32_t levels_job(void *arg) {
    LevelsJob &j = *static_cast<LevelsJob *>(arg);
    const kivod_ctx *ctx = j.ctx;
    const kivod_idct_fn idct = ctx->dsp.idct[0];
    alignas(16) int16_t blk[64];
    for (int c = j.first; c < j.first + j.n; ++c) {
        const uint16_t *q = j.q[c];
        for (int32_t r = 0; r < ctx->blk_h[c]; ++r) {
            const int16_t *coef = j.coef[c] + static_cast<size_t>(r) * ctx->prog_blk_w[c] * 64;
            for (int32_t col = 0; col < ctx->blk_w[c]; ++col, coef += 64) {
                dequantize(coef, q, blk);
                if (c == 0) j.dc_level_sum += (blk[0] + 1024) >> 3;
                kivod_out_block(j.img, c, col, r, idct, blk);
            }
        }
    }
    return KIVO_OK;
}

}  // namespace

int32_t kivod_levels_to_picture(kivod_ctx *ctx, int16_t *const coef[4], const uint16_t *const q[4], xelo_imgb *img) {
    const int nc = ctx->fh.n_comp;
    if (img->width != ctx->fh.width || img->height != ctx->fh.height || img->color_format != ctx->color_format)
        return KIVO_ERR_INVALID_ARG;
    // A progressive frame's blocks are those its decode reconstructs (the
    // MCUs' padding left out), and they give its mean level.
    if (ctx->progressive)
        for (int c = 0; c < nc; ++c) {
            ctx->blk_w[c] = (ctx->comp_w[c] + 7) / 8;
            ctx->blk_h[c] = (ctx->comp_h[c] + 7) / 8;
        }
    int n = kivo::thread_limit(ctx->tpool);
    if (n > nc) n = nc;
    LevelsJob jobs[4];
    void *args[4];
    for (int t = 0; t < n; ++t) {
        jobs[t] = LevelsJob{ctx, coef, q, img, t, t == n - 1 ? nc - t : 1, 0};
        args[t] = &jobs[t];
    }
    const int32_t ret = kivo::fork_join(ctx->tpool, ctx->threads, n, levels_job, args);
    if (ret == KIVO_OK && ctx->progressive) {
        ctx->dc_level_total = 0;
        for (int t = 0; t < n; ++t) ctx->dc_level_total += jobs[t].dc_level_sum;
        kivod_set_mean_level(ctx);
    }
    return ret;
}

