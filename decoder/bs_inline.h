// What every coefficient decoder shares: bit access on the reader's cache
// (topped up in place from memory input), the value helpers, and the
// Huffman steps that resolve a DC category or a long AC code, each with its
// one rule for codes a table does not hold.
#ifndef KIVO_DECODER_BS_INLINE_H
#define KIVO_DECODER_BS_INLINE_H

#include "decoder/kivod_int.h"

namespace {

constexpr int32_t kFill = 24;

// Brings the cache to at least 24 bits unless the input is nearly used
// up; 0xFF bytes and file input go through the reader's refill.
inline void top_up(kivod_bs *bs) {
    if (bs->bits >= kFill) return;
    if (bs->type == KIVOD_INPUT_BITB && bs->bits >= 0 && bs->not_ff != 0 && bs->end - bs->cur >= 3) {
        // Memory input with 4 bytes ahead: load bytes straight into the
        // cache up to the first 0xFF, which the reader's refill handles.
        const uint8_t *p = bs->cur;
        uint32_t cache = bs->cache;
        int32_t bits = bs->bits;
        do {
            uint32_t b = *p;
            if (b == 0xFF) break;
            cache |= b << (24 - bits);
            bits += 8;
            ++p;
        } while (bits <= 24);
        if (p != bs->cur) bs->not_ff = p[-1] ^ 0xFFu;
        bs->cache = cache;
        bs->bits = bits;
        bs->cur = p;
        if (bits >= kFill) return;
    }
    kivod_bs_peek(bs, kFill);
}

// The next n bits (1 to 16), from the cache when it holds them.
inline uint32_t get_bits(kivod_bs *bs, int32_t n) {
    if (bs->bits >= n) {
        const uint32_t v = bs->cache >> (32 - n);
        bs->cache <<= n;
        bs->bits -= n;
        return v;
    }
    return kivod_bs_read(bs, n);
}

// The low 16 bits of v as a signed value (modular conversion).
inline int16_t low16(uint32_t v) { return static_cast<int16_t>(static_cast<uint16_t>(v)); }

// a + b kept to 16 bits.
inline int16_t add16(int32_t a, int32_t b) { return low16(static_cast<uint32_t>(a) + static_cast<uint32_t>(b)); }

// T.81 EXTEND: the size-bit field v (size >= 1) as a signed value.
// Without a branch: the sign of a coefficient is a coin toss.
inline int32_t extend(uint32_t v, int32_t size) {
    const int32_t neg = v < (1u << (size - 1));
    return static_cast<int32_t>(v) - (neg << size) + neg;
}

// The DC category whose code begins the 16 bits b16 (its length in *len),
// or -1: the 8-bit look-up when its code really begins the bits, else the
// categories' codes tried in order.
inline int32_t dc_category(const kivod_dc_tbl *t, uint32_t b16, int32_t *len) {
    const uint32_t b8 = b16 >> 8;
    int32_t cat = t->lookup[b8];
    if (cat < 12) {
        const int32_t l = t->code[cat].len;
        if (l >= 1 && l <= 8 && (b8 >> (8 - l)) == t->code[cat].code) {
            *len = l;
            return cat;
        }
    }
    for (cat = 0; cat < 12; ++cat) {
        const int32_t l = t->code[cat].len;
        if (l != 0 && (b16 >> (16 - l)) == t->code[cat].code) {
            *len = l;
            return cat;
        }
    }
    return -1;
}

// The symbol index of the AC code longer than 8 bits that begins the 16
// bits b16 (its length in *len), or -1. A code as long as the table's
// symbol count plus one cannot occur in a valid table: it is refused unless
// it is end-of-block.
inline int32_t long_ac_code(const kivod_ac_tbl *t, uint32_t b16, int32_t *len) {
    for (int32_t l = 9; l <= 16; ++l) {
        const uint32_t code = b16 >> (16 - l);
        const kivod_ac_range &r = t->range[l];
        if (code < r.mincode || code > r.maxcode) continue;
        const uint32_t idx = code - r.mincode + r.valptr;
        if (idx > 255) return -1;
        if (l >= t->count && (t->sym[idx].run != 0 || t->sym[idx].size != 0)) return -1;
        *len = l;
        return static_cast<int32_t>(idx);
    }
    return -1;
}

// The AC code at the top of `top` (the next 32 bits): its length, run and
// size. 0, or -202 for a code the table does not hold.
inline int32_t ac_code(const kivod_ac_tbl *t, uint32_t top, int32_t *len, int32_t *run, int32_t *size) {
    const kivod_ac_look e = t->lookup[top >> 24];
    if (e.len <= 8) {
        *len = e.len;
        *run = e.run;
        *size = e.size;
        return KIVO_OK;
    }
    const int32_t idx = long_ac_code(t, top >> 16, len);
    if (idx < 0) return KIVO_ERR_MALFORMED;
    *run = t->sym[idx].run;
    *size = t->sym[idx].size;
    return KIVO_OK;
}

}  // namespace

#endif
