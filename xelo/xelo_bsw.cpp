// Bit writer: a 32-bit cache filled from its most significant end and
// emptied by a pluggable flush function.
//
// Flush contract: a flush moves the (39 - free_bits) / 8 leading bytes of the
// cache to write_ptr, most significant first, and leaves cache == 0 and
// free_bits == 32. The writer only calls it with a full cache, except from
// xelo_bsw_sink where the unused low bits are zero and so pad the last byte.
#include "xelo.h"

namespace xelo {
namespace {

void flush_cache(xelo_bsw *bsw) {
    if (bsw->flush) bsw->flush(bsw);
    // Whatever the flush did, the cache is empty from here on; this keeps the
    // shift amounts in xelo_bsw_write in range even with a faulty flush.
    bsw->cache = 0;
    bsw->free_bits = 32;
}

}  // namespace
}  // namespace xelo

extern "C" {

XELO_API void xelo_bsw_init(xelo_bsw *bsw, uint8_t *out, int32_t size, xelo_bsw_flush_fn flush) {
    if (!bsw) return;
    if (!out || size < 0) size = 0;
    bsw->cache = 0;
    bsw->free_bits = 32;
    bsw->write_ptr = out;
    bsw->size = size;
    bsw->start_ptr = out;
    bsw->end_ptr = out ? out + size : out;
    bsw->flush = flush;
    bsw->overflow = 0;
    bsw->reserved[0] = bsw->reserved[1] = 0;
}

XELO_API void xelo_bsw_write(xelo_bsw *bsw, uint32_t value, int32_t n) {
    if (!bsw || n < 1 || n > 32) return;
    if (bsw->free_bits < 1 || bsw->free_bits > 32) xelo::flush_cache(bsw);
    if (n < 32) value &= (uint32_t(1) << n) - 1;
    const int32_t free_bits = bsw->free_bits;
    if (n < free_bits) {
        bsw->cache |= value << (free_bits - n);
        bsw->free_bits = free_bits - n;
        return;
    }
    // The value fills the cache: its top `free_bits` bits go now, the other
    // `rest` (0..31) bits start the next cache.
    const int32_t rest = n - free_bits;
    bsw->cache |= rest ? value >> rest : value;
    bsw->free_bits = 0;
    xelo::flush_cache(bsw);
    if (rest) {
        bsw->cache = value << (32 - rest);
        bsw->free_bits = 32 - rest;
    }
}

XELO_API void xelo_bsw_sink(xelo_bsw *bsw) {
    if (!bsw) return;
    if (bsw->free_bits < 32) xelo::flush_cache(bsw);
    bsw->cache = 0;
    bsw->free_bits = 32;
}

XELO_API int32_t xelo_bsw_flush_plain(xelo_bsw *bsw) {
    if (!bsw) return -1;
    int32_t used = 32 - bsw->free_bits;
    if (used < 0) used = 0;
    if (used > 32) used = 32;
    const int32_t bytes = (used + 7) / 8;
    uint32_t cache = bsw->cache;
    for (int32_t i = 0; i < bytes; ++i) {
        if (bsw->write_ptr && bsw->write_ptr < bsw->end_ptr)
            *bsw->write_ptr++ = uint8_t(cache >> 24);
        else
            bsw->overflow = 1;
        cache <<= 8;
    }
    bsw->cache = 0;
    bsw->free_bits = 32;
    return bsw->overflow ? -1 : 0;
}

}  // extern "C"
