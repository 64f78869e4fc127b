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

// Size category of a coefficient within what an 8-bit baseline stream holds
// (|v| up to 2047; negative values further down as kivo_category allows).
inline int32_t category(int32_t v) {
    const uint32_t a = static_cast<uint32_t>(v < 0 ? -v : v);
    if (v >= 2048 || v == -32768) return -1;
    return a ? 32 - __builtin_clz(a) : 0;
}

// Bits on their way into entropy-coded data: a 64-bit accumulator written
// out 32 bits at a time with byte stuffing, bounded by the output's end.
// Loaded from and stored back to the writer record, so the bytes and the
// record's state are those the writer with the stuffing flush would give.
struct Sink {
    uint64_t acc;  // n valid bits at the top
    int32_t n;
    uint8_t *p;
    uint8_t *end;
    int32_t overflow;

    explicit Sink(const xelo_bsw *bs)
        : acc(static_cast<uint64_t>(bs->cache) << 32), n(32 - bs->free_bits), p(bs->write_ptr), end(bs->end_ptr),
          overflow(bs->overflow) {}

    void store(xelo_bsw *bs) const {
        bs->cache = static_cast<uint32_t>(acc >> 32);
        bs->free_bits = 32 - n;
        bs->write_ptr = p;
        bs->overflow = overflow;
    }

    void byte(uint8_t b) {
        if (p < end) *p++ = b;
        else overflow = 1;
    }

    void emit32() {
        const uint32_t w = static_cast<uint32_t>(acc >> 32);
        const uint32_t inv = ~w;
        const bool has_ff = ((inv - 0x01010101u) & ~inv & 0x80808080u) != 0;
        if (!has_ff && end - p >= 4) {
            p[0] = static_cast<uint8_t>(w >> 24);
            p[1] = static_cast<uint8_t>(w >> 16);
            p[2] = static_cast<uint8_t>(w >> 8);
            p[3] = static_cast<uint8_t>(w);
            p += 4;
        } else {
            for (int s = 24; s >= 0; s -= 8) {
                const uint8_t b = static_cast<uint8_t>(w >> s);
                byte(b);
                if (b == 0xFF) byte(0x00);
            }
        }
        acc <<= 32;
        n -= 32;
    }

    // len is at most 31.
    void put(uint32_t v, int32_t len) {
        acc |= static_cast<uint64_t>(v) << (64 - n - len);
        n += len;
        if (n >= 32) emit32();
    }
};

template <bool kCount>
int32_t code_ac(xelo_bsw *bs, kivoe_ac_tbl *t, const int16_t *blk) {
    // The coefficients in zig-zag order and a mask of the non-zero ones.
    int16_t zz[64];
    uint64_t mask = 0;
    for (int z = 1; z < 64; ++z) {
        const int16_t v = blk[kivo_tbl_zig_to_ras[z]];
        zz[z] = v;
        mask |= static_cast<uint64_t>(v != 0) << z;
    }
    const bool direct = !kCount && bs->flush == kivoe_bs_flush_data_seg;
    Sink sink(bs);
    int32_t prev = 0;  // zig-zag position of the last coefficient coded
    int32_t status = KIVO_OK;
    while (mask) {
        const int32_t z = __builtin_ctzll(mask);
        mask &= mask - 1;
        int32_t run = z - prev - 1;
        const int32_t v = zz[z];
        const int32_t k = category(v);
        if (k < 0) {
            status = KIVO_ERR_UNAVAILABLE;
            break;
        }
        for (; run >= 16; run -= 16) {
            if (kCount) {
                ++t->counter[0xF0];
            } else {
                const kivoe_code &zrl = t->by_symbol[0xF0];
                if (direct) sink.put(zrl.code, zrl.len);
                else xelo_bsw_write(bs, zrl.code, zrl.len);
            }
        }
        const int32_t sym = run * 16 + k;
        if (kCount) {
            ++t->counter[sym];
        } else {
            const kivoe_code &c = t->by_symbol[sym];
            const uint32_t bits = (static_cast<uint32_t>(c.code) << k) | extra_bits(v, k);
            if (direct) sink.put(bits, c.len + k);
            else xelo_bsw_write(bs, bits, c.len + k);
        }
        prev = z;
    }
    if (status == KIVO_OK && prev < 63) {
        if (kCount) {
            ++t->counter[0x00];
        } else {
            const kivoe_code &eob = t->by_symbol[0x00];
            if (direct) sink.put(eob.code, eob.len);
            else xelo_bsw_write(bs, eob.code, eob.len);
        }
    }
    if (direct) sink.store(bs);
    return status;
}

}  // namespace

int32_t kivoe_vlc_dc(xelo_bsw *bs, kivoe_dc_tbl *t, int32_t diff) {
    const int32_t k = category(diff);
    if (k < 0) return KIVO_ERR_UNAVAILABLE;
    const kivoe_code &c = t->code[k];
    xelo_bsw_write(bs, (static_cast<uint32_t>(c.code) << k) | (k ? extra_bits(diff, k) : 0), c.len + k);
    return KIVO_OK;
}

int32_t kivoe_vlc_ac(xelo_bsw *bs, kivoe_ac_tbl *t, const int16_t *blk) { return code_ac<false>(bs, t, blk); }

int32_t kivoe_vlc_dc_stat(xelo_bsw *, kivoe_dc_tbl *t, int32_t diff) {
    const int32_t k = category(diff);
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
