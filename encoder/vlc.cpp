// Entropy coder: baseline Huffman coding of DC differences and AC runs,
// the statistics twins that count symbols instead, restart markers, EOI,
// the rate functions and the two flush procedures of the bit writer.
#include "decoder/kivod_int.h"
#include "encoder/kivoe_int.h"

namespace {

// Additional bits of v in category k: v itself when positive, the low k
// bits of v - 1 when negative.
inline uint32_t extra_bits(int32_t v, int32_t k) {
    const uint32_t u = static_cast<uint32_t>(v < 0 ? v - 1 : v);
    return u & ((1u << k) - 1);
}

// Writes the bytes of the cache, stuffing a 0x00 after each 0xFF when asked;
// bytes that would pass the end of the output are dropped and flagged.
template <bool kStuff>
int32_t flush_bytes(xelo_bsw *bs) {
    int32_t n = (39 - bs->free_bits) / 8;
    if (n > 4) n = 4;
    uint32_t cache = bs->cache;
    uint8_t *p = bs->write_ptr, *end = bs->end_ptr;
    for (int32_t i = 0; i < n; ++i) {
        const uint8_t b = static_cast<uint8_t>(cache >> 24);
        cache <<= 8;
        if (p < end) *p++ = b;
        else bs->overflow = 1;
        if (kStuff && b == 0xFF) {
            if (p < end) *p++ = 0x00;
            else bs->overflow = 1;
        }
    }
    bs->write_ptr = p;
    bs->cache = 0;
    bs->free_bits = 32;
    return 0;
}

template <bool kCount>
int32_t code_ac(xelo_bsw *bs, kivoe_ac_tbl *t, const int16_t *blk) {
    int32_t run = 0;
    int32_t last = 0;
    // Last non-zero position in zig-zag order: the block ends after it.
    for (int z = 63; z >= 1; --z)
        if (blk[kivo_tbl_zig_to_ras[z]] != 0) {
            last = z;
            break;
        }
    for (int z = 1; z <= last; ++z) {
        const int32_t v = blk[kivo_tbl_zig_to_ras[z]];
        if (v == 0) {
            ++run;
            continue;
        }
        while (run >= 16) {
            if (kCount) {
                ++t->counter[0xF0];
            } else {
                const kivoe_ac_code &zrl = t->code[t->index[0xF0]];
                xelo_bsw_write(bs, zrl.code, zrl.len);
            }
            run -= 16;
        }
        const int32_t k = kivo_category(v);
        if (k < 0) return KIVO_ERR_UNAVAILABLE;
        const int32_t sym = run * 16 + k;
        if (kCount) {
            ++t->counter[sym];
        } else {
            const kivoe_ac_code &c = t->code[t->index[sym]];
            xelo_bsw_write(bs, (static_cast<uint32_t>(c.code) << k) | extra_bits(v, k), c.len + k);
        }
        run = 0;
    }
    if (last < 63) {
        if (kCount) {
            ++t->counter[0x00];
        } else {
            const kivoe_ac_code &eob = t->code[t->index[0x00]];
            xelo_bsw_write(bs, eob.code, eob.len);
        }
    }
    return KIVO_OK;
}

}  // namespace

int32_t kivoe_vlc_dc(xelo_bsw *bs, kivoe_dc_tbl *t, int32_t diff) {
    const int32_t k = kivo_category(diff);
    if (k < 0) return KIVO_ERR_UNAVAILABLE;
    const kivoe_code &c = t->code[k];
    xelo_bsw_write(bs, (static_cast<uint32_t>(c.code) << k) | (k ? extra_bits(diff, k) : 0), c.len + k);
    return KIVO_OK;
}

int32_t kivoe_vlc_ac(xelo_bsw *bs, kivoe_ac_tbl *t, const int16_t *blk) { return code_ac<false>(bs, t, blk); }

int32_t kivoe_vlc_dc_stat(xelo_bsw *, kivoe_dc_tbl *t, int32_t diff) {
    const int32_t k = kivo_category(diff);
    if (k < 0) return KIVO_ERR_UNAVAILABLE;
    ++t->counter[k];
    return KIVO_OK;
}

int32_t kivoe_vlc_ac_stat(xelo_bsw *bs, kivoe_ac_tbl *t, const int16_t *blk) { return code_ac<true>(bs, t, blk); }

int32_t kivoe_vlc_dri_marker(xelo_bsw *bs, int32_t marker) {
    xelo_bsw_sink(bs);
    xelo_bsw_write(bs, 0xFF, 8);
    xelo_bsw_write(bs, static_cast<uint32_t>(marker) & 0xFF, 8);
    xelo_bsw_sink(bs);
    return KIVO_OK;
}

int32_t kivoe_vlc_null(xelo_bsw *, int32_t) { return KIVO_OK; }

int32_t kivoe_vlc_footer(kivoe_ctx *ctx) {
    xelo_bsw_sink(&ctx->bs);
    xelo_bsw_write(&ctx->bs, 0xFF, 8);
    xelo_bsw_write(&ctx->bs, 0xD9, 8);
    return KIVO_OK;
}

int32_t kivoe_vlc_footer_stat(kivoe_ctx *ctx) {
    if (!ctx->adaptive_rounding) return KIVO_OK;
    for (int c = 0; c < ctx->fh.n_comp; ++c) {
        kivoe_ac_tbl &t = ctx->ac_tbl[ctx->sh.ta[c] & 3];
        for (int s = 0; s < 256; ++s) ++t.counter[s];
    }
    return KIVO_OK;
}

int32_t get_vlc_dc_bits(const kivoe_dc_tbl *t, int32_t diff) {
    const int32_t k = kivo_category(diff);
    return k < 0 ? KIVO_ERR_UNAVAILABLE : t->code[k].len + k;
}

int32_t get_vlc_ac_bits(const kivoe_ac_tbl *t, int32_t n_zrl, int32_t run, int32_t value) {
    const int32_t k = kivo_category(value);
    if (k < 0) return KIVO_ERR_UNAVAILABLE;
    const int32_t zrl = n_zrl > 0 ? n_zrl * t->code[t->index[0xF0]].len : 0;
    return zrl + t->code[t->index[(run * 16 + k) & 0xFF]].len + k;
}

int32_t get_vlc_eob_bits(const kivoe_ac_tbl *t) { return t->code[t->index[0x00]].len; }

int32_t kivoe_bs_flush(xelo_bsw *bs) { return flush_bytes<false>(bs); }

int32_t kivoe_bs_flush_data_seg(xelo_bsw *bs) { return flush_bytes<true>(bs); }
