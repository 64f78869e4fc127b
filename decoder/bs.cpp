// Bit-stream reader: whole bytes for marker segments and MSB-first bits with
// byte stuffing (0xFF 0x00) removed for entropy-coded data. Memory and file
// inputs differ only in their read_byte and refill functions.
#include <cstring>

#include "decoder/kivod_int.h"

namespace {

// Shift helpers that stay defined for a shift of 32.
inline uint32_t shl(uint32_t v, int32_t n) { return static_cast<uint32_t>(static_cast<uint64_t>(v) << n); }
inline uint32_t top(uint32_t v, int32_t n) { return static_cast<uint32_t>((static_cast<uint64_t>(v) << n) >> 32); }

inline int32_t clamp_wanted(int32_t wanted) { return wanted < 1 ? 1 : (wanted > 4 ? 4 : wanted); }

// Bytes the input still holds beyond what has been loaded.
inline int64_t bytes_left(const kivod_bs *bs) {
    if (bs->type == KIVOD_INPUT_BITB) {
        return bs->cur > bs->end ? 0 : static_cast<int64_t>(bs->end - bs->cur) + 1;
    }
    return static_cast<int64_t>(bs->last) + 1 - static_cast<int64_t>(bs->pos);
}

}  // namespace

int32_t kivod_bs_init(kivod_bs *bs, const kivod_input *input) {
    if (!bs || !input) return KIVO_ERR_INVALID_ARG;
    std::memset(bs, 0, sizeof(*bs));
    bs->not_ff = 1;
    if (input->type == KIVOD_INPUT_BITB) {
        const xelo_bitb *b = input->bitb;
        if (!b || !b->addr || b->ssize < 1) return KIVO_ERR_INVALID_ARG;
        bs->start = b->addr;
        bs->cur = b->addr;
        bs->end = b->addr + (b->ssize - 1);
        bs->refill = kivod_bs_flush_bitb;
        bs->read_byte = kivod_bs_read_byte_bitb;
        bs->bitb = *b;
        bs->type = KIVOD_INPUT_BITB;
        return KIVO_OK;
    }
    if (input->type != KIVOD_INPUT_MFAL || !input->mfal) return KIVO_ERR_INVALID_ARG;
    kivo_mfal *m = input->mfal;
    // Every function the decoder calls later is checked here, once.
    if (!m->open || !m->close || !m->read || !m->tell || !m->seek || !m->skip || !m->size)
        return KIVO_ERR_INVALID_ARG;
    void *h = m->open(m, 2, 1);
    if (!h) return KIVO_ERR_OPEN;
    int64_t size = 0;
    // pos and last are 32-bit: an empty file or one of 4 GiB or more is refused.
    if (m->size(h, &size) != 0 || size < 1 || size > 0xFFFFFFFFll) {
        m->close(h);
        return KIVO_ERR_IO;
    }
    bs->last = static_cast<uint32_t>(size - 1);
    bs->handle = h;
    bs->refill = kivod_bs_flush_mfal;
    bs->read_byte = kivod_bs_read_byte_mfal;
    bs->mfal = *m;
    bs->type = KIVOD_INPUT_MFAL;
    return KIVO_OK;
}

void kivod_bs_deinit(kivod_bs *bs) {
    if (!bs) return;
    if (bs->type == KIVOD_INPUT_MFAL && bs->handle && bs->mfal.close) bs->mfal.close(bs->handle);
    bs->handle = nullptr;
}

// ---- whole bytes ----------------------------------------------------------------

uint32_t kivod_bs_read_byte_bitb(kivod_bs *bs, int32_t n) {
    // Bytes past the end read as 0; cur stops at end + 1.
    uint32_t v = 0;
    const uint8_t *p = bs->cur;
    for (int32_t i = 0; i < n; ++i) {
        v <<= 8;
        if (p <= bs->end) v |= *p++;
    }
    bs->cur = p;
    return v;
}

uint32_t kivod_bs_read_byte_mfal(kivod_bs *bs, int32_t n) {
    uint32_t v = 0;
    for (int32_t i = 0; i < n; ++i) {
        uint8_t b = 0;
        if (bs->mfal.read(bs->handle, &b, 1) != 1) {
            kivod_bs_fail_io(bs);
            return 0;
        }
        bs->pos += 1;
        v = (v << 8) | b;
    }
    return v;
}

// ---- refill -----------------------------------------------------------------------
// Replaces the cache with up to `wanted` (1..4) data bytes, dropping stuffed
// zero bytes. not_ff carries a trailing 0xFF over to the next call.

int32_t kivod_bs_flush_bitb(kivod_bs *bs, int32_t wanted) {
    const uint8_t *p = bs->cur;
    const uint8_t *end = bs->end;
    if (p > end) {
        bs->cache = 0;
        bs->bits = 0;
        return KIVO_ERR_UNAVAILABLE;
    }
    wanted = clamp_wanted(wanted);
    uint32_t acc = 0;
    int32_t got = 0;
    uint32_t nf = bs->not_ff;
    do {
        uint32_t b = *p++;
        if (nf != 0 || b != 0) {
            acc = (acc << 8) | b;
            got += 8;
            --wanted;
        }
        nf = b ^ 0xFFu;
    } while (wanted > 0 && p <= end);
    // A stuffing byte right after the last 0xFF goes with it, so that a
    // reader never holds a 0xFF without its stuffing: every copy of the
    // reader then sees the end of the data at the same bit.
    if (nf == 0 && p <= end && *p == 0x00) {
        ++p;
        nf = 0xFFu;
    }
    bs->cache = shl(acc, 32 - got);
    bs->bits = got;
    bs->cur = p;
    bs->not_ff = nf;
    return KIVO_OK;
}

int32_t kivod_bs_flush_mfal(kivod_bs *bs, int32_t wanted) {
    int64_t left = bytes_left(bs);
    if (left <= 0) {
        bs->cache = 0;
        bs->bits = 0;
        return KIVO_ERR_UNAVAILABLE;
    }
    wanted = clamp_wanted(wanted);
    uint32_t acc = 0;
    int32_t got = 0;
    do {
        uint8_t byte = 0;
        if (bs->mfal.read(bs->handle, &byte, 1) != 1) return kivod_bs_fail_io(bs);
        bs->pos += 1;
        --left;
        uint32_t b = byte;
        if (bs->not_ff != 0 || b != 0) {
            acc = (acc << 8) | b;
            got += 8;
            --wanted;
        }
        bs->not_ff = b ^ 0xFFu;
    } while (wanted > 0 && left > 0);
    bs->cache = shl(acc, 32 - got);
    bs->bits = got;
    return KIVO_OK;
}

// ---- bits ---------------------------------------------------------------------------

uint32_t kivod_bs_read(kivod_bs *bs, int32_t n) {
    if (n <= 0) return 0;
    if (n > 32) n = 32;
    if (bs->bits >= n) {
        uint32_t v = top(bs->cache, n);
        bs->cache = shl(bs->cache, n);
        bs->bits -= n;
        return v;
    }
    uint32_t old = bs->cache;
    int32_t old_bits = bs->bits > 0 ? bs->bits : 0;
    if (bs->refill(bs, 4) != 0) return 0;
    int32_t need = n - old_bits;
    uint32_t v = (old >> (32 - n)) | top(bs->cache, need);
    bs->cache = shl(bs->cache, need);
    bs->bits -= need;  // negative when the input ran out
    return v;
}

void kivod_bs_skip(kivod_bs *bs, int32_t n) {
    while (n > 0) {
        int32_t step = n > 32 ? 32 : n;
        n -= step;
        if (bs->bits >= step) {
            bs->cache = shl(bs->cache, step);
            bs->bits -= step;
            continue;
        }
        int32_t need = step - (bs->bits > 0 ? bs->bits : 0);
        bs->refill(bs, 4);  // on failure the cache is left empty
        bs->cache = shl(bs->cache, need);
        bs->bits -= need;
    }
}

uint32_t kivod_bs_peek(kivod_bs *bs, int32_t n) {
    if (n <= 0) return 0;
    if (n > 32) n = 32;
    if (bs->bits < 0) {
        bs->bits = 0;
        bs->cache = 0;
    }
    int32_t room = (32 - bs->bits) / 8;
    if (bs->bits >= n || room == 0) return top(bs->cache, n);
    uint32_t old = bs->cache;
    int32_t old_bits = bs->bits;
    if (bs->refill(bs, room) != 0) {
        // Nothing more to load: the cached bits stay, followed by zeros.
        bs->cache = old;
        bs->bits = old_bits;
        return top(old, n);
    }
    bs->cache = old | (bs->cache >> old_bits);
    bs->bits += old_bits;
    return top(bs->cache, n);
}

void kivod_bs_align_byte(kivod_bs *bs) {
    if (bs->bits <= 0) {
        bs->cache = 0;
        bs->bits = 0;
        return;
    }
    bs->cache = shl(bs->cache, bs->bits & 7);
    bs->bits &= ~7;
}

void kivod_bs_read_stuffing(kivod_bs *bs) { kivod_bs_align_byte(bs); }

// ---- positions ------------------------------------------------------------------------

int32_t kivod_bs_fail_io(kivod_bs *bs) {
    bs->cache = 0;
    bs->bits = 0;
    bs->pos = bs->last + 1;
    bs->io_error = 1;
    return KIVO_ERR_IO;
}

bool kivod_bs_input_done(const kivod_bs *bs) {
    if (bs->type == KIVOD_INPUT_BITB) return bs->cur > bs->end;
    return bs->pos > bs->last;
}

int32_t kivod_bs_rewind_cache(kivod_bs *bs, int32_t extra_back) {
    int32_t back = (bs->bits > 0 ? bs->bits / 8 : 0) + (extra_back > 0 ? extra_back : 0);
    // The last byte loaded was 0xFF: a stuffing 0x00 right behind it was not
    // loaded yet and belongs to the data just read, not to what follows.
    const bool after_ff = bs->not_ff == 0;
    bs->cache = 0;
    bs->bits = 0;
    bs->not_ff = 1;
    if (bs->type == KIVOD_INPUT_BITB) {
        if (back == 0) {
            if (after_ff && bs->cur <= bs->end && *bs->cur == 0x00) ++bs->cur;
            return KIVO_OK;
        }
        // Whole bytes go back to the input; stuffing bytes the refill dropped
        // are stepped over, so the position is exact.
        const uint8_t *p = bs->cur;
        while (back > 0 && p > bs->start) {
            --p;
            if (*p == 0x00 && p > bs->start && p[-1] == 0xFF) continue;
            --back;
        }
        bs->cur = p;
        return KIVO_OK;
    }
    if (back == 0) {
        if (!after_ff || bs->pos > bs->last) return KIVO_OK;
        uint8_t byte = 0xFF;
        if (bs->mfal.read(bs->handle, &byte, 1) != 1) return KIVO_ERR_IO;
        if (byte == 0x00) {
            ++bs->pos;
            return KIVO_OK;
        }
        int64_t to = bs->pos;
        return bs->mfal.seek(bs->handle, &to, 0) == 0 ? KIVO_OK : KIVO_ERR_IO;
    }
    // File input: the same walk over the bytes just before the position,
    // read again (at most two per byte given back, plus one).
    uint8_t window[2 * 8 + 8];
    const uint32_t want = static_cast<uint32_t>(back) * 2 + 1;
    const uint32_t n = want < sizeof(window) ? (want < bs->pos ? want : bs->pos) : (sizeof(window) < bs->pos ? sizeof(window) : bs->pos);
    int64_t from = bs->pos - n;
    if (bs->mfal.seek(bs->handle, &from, 0) != 0) return KIVO_ERR_IO;
    for (uint32_t i = 0; i < n; ++i)
        if (bs->mfal.read(bs->handle, &window[i], 1) != 1) return KIVO_ERR_IO;
    uint32_t q = n;
    while (back > 0 && q > 0) {
        --q;
        if (window[q] == 0x00 && q > 0 && window[q - 1] == 0xFF) continue;
        --back;
    }
    bs->pos = static_cast<uint32_t>(from) + q;
    int64_t to = bs->pos;
    return bs->mfal.seek(bs->handle, &to, 0) == 0 ? KIVO_OK : KIVO_ERR_IO;
}

const uint8_t *kivod_bs_position(kivod_bs bs) {
    kivod_bs_rewind_cache(&bs, 0);
    return bs.cur;
}

const uint8_t *kivod_next_marker(const uint8_t *p, const uint8_t *end) {
    while (p + 1 < end) {
        const void *ff = std::memchr(p, 0xFF, static_cast<size_t>(end - 1 - p));
        if (!ff) return nullptr;
        p = static_cast<const uint8_t *>(ff);
        if (p[1] != 0x00) return p;
        p += 2;
    }
    return nullptr;
}

int32_t kivod_bs_sync_restart(kivod_bs *bs, int16_t dc_pred[4], int32_t *mcu_count) {
    kivod_bs_align_byte(bs);
    for (;;) {
        uint32_t w = kivod_bs_peek(bs, 16);
        if (w >= 0xFFD0u && w <= 0xFFD7u) break;
        if (w == 0xFFD9u || w == 0xFFFEu) {
            *mcu_count = 0;
            return KIVO_OK;
        }
        kivod_bs_skip(bs, 8);
        if (kivod_bs_input_done(bs) && bs->bits < 1) return KIVO_ERR_MALFORMED;
    }
    for (int i = 0; i < 4; ++i) dc_pred[i] = 0;
    kivod_bs_skip(bs, 16);
    *mcu_count = 0;
    return KIVO_OK;
}
