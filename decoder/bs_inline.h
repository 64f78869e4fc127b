// Inline bit access for the coefficient decoders: the reader's cache is
// topped up in place from memory input and read directly.
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

}  // namespace

#endif
