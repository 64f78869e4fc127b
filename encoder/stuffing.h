// Byte stuffing of entropy-coded data written straight to memory: a 0x00
// after every 0xFF byte.
#ifndef KIVO_ENCODER_STUFFING_H
#define KIVO_ENCODER_STUFFING_H

#include <cstdint>

namespace kivoe_stuff {

// Writes the n high bytes of w, a 0x00 after each 0xFF; returns the end.
__attribute__((noinline)) inline uint8_t *store_stuffed(uint8_t *p, uint64_t w, int32_t n) {
    for (int32_t i = 0; i < n; ++i, w <<= 8) {
        const uint8_t b = static_cast<uint8_t>(w >> 56);
        *p++ = b;
        if (b == 0xFF) *p++ = 0x00;
    }
    return p;
}

// True when one of the bytes of w is 0xFF.
template <class W>
inline bool has_ff(W w) {
    constexpr W ones = static_cast<W>(~W(0)) / 255;
    return ((~w - ones) & w & (ones << 7)) != 0;
}

inline uint64_t big_endian(uint64_t w) { return __builtin_bswap64(w); }
inline uint32_t big_endian(uint32_t w) { return __builtin_bswap32(w); }

}  // namespace kivoe_stuff

#endif
