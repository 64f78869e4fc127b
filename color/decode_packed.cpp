// kivoc_decode_packed: a decode straight to packed pixels. The decoder hands
// each slice's MCU rows over as soon as they are reconstructed
// (kivod_clone_bands), and the rows are converted by the same row loop as
// kivoc_to_packed's while they are in cache. Pictures the decoder cannot
// hand over in bands are decoded whole and converted after.
#include <algorithm>
#include <cstring>

#include "color/kivoc_int.h"
#include "decoder/kivod_int.h"

namespace kivo {
namespace {

// The conversion's state for the band sink: the shared task and, per slice,
// its scratch and the next output row it owes.
struct Bands {
    Task task;
    const kivod_ctx *ctx;
    int32_t context;  // chroma lines below an output row's own that it reads (0 or 1)
    uint8_t *scratch[kMaxThreads];
    int32_t next[kMaxThreads];
    // Output rows saved for a slice started ahead of the skim: where, and
    // the rows' span in the output.
    uint8_t *saved[kMaxThreads];
    size_t saved_at[kMaxThreads], saved_bytes[kMaxThreads];
};

// The output rows a slice owns: from its first line to the next slice's;
// with vertical chroma context the ownership moves down by that one line,
// and each slice but the last decodes the next slice's first MCU row for the
// rows at its bottom.
void owned(const Bands &bd, const kivod_band *b, int32_t *first, int32_t *end) {
    *first = b->first == 0 ? 0 : std::min(bd.task.h, b->first + bd.context);
    *end = b->end >= b->total ? bd.task.h : std::min(bd.task.h, b->end + bd.context);
}

// Converts the rows of the slice that are ready.
void rows_done(void *user, const kivod_band *b) {
    Bands &bd = *static_cast<Bands *>(user);
    Task t = bd.task;
    for (int p = 0; p < 3; ++p) {
        t.plane[p] = const_cast<uint8_t *>(b->plane[p]);
        t.stride[p] = b->stride[p];
        t.ring[p] = b->ring[p];
    }
    int32_t own, own_end;
    owned(bd, b, &own, &own_end);
    const int32_t ready = b->done >= b->total ? t.h : std::min(t.h, b->done - bd.context);
    int32_t &next = bd.next[b->slice];
    const int32_t first = std::max(next, own), end = std::min(ready, own_end);
    if (end <= first) return;
    to_packed_rows(t, bd.scratch[b->slice], first, end);
    next = end;
}

// Saves the output rows a slice started ahead of the skim may write; false
// for rows not worth the memory (the slice then does not start ahead).
bool keep_rows(void *user, const kivod_band *b) {
    Bands &bd = *static_cast<Bands *>(user);
    const Task &t = bd.task;
    int32_t first, end;
    owned(bd, b, &first, &end);
    const int i = b->slice;
    if (end <= first) return true;
    const size_t bytes = static_cast<size_t>(end - first - 1) * t.packed_stride +
                         static_cast<size_t>(t.w) * pixel_size(t.packed_format);
    if (!kivod_may_save(bd.ctx, bytes)) return false;
    bd.saved[i] = static_cast<uint8_t *>(xelo_malloc_fast_align32(bytes));
    if (!bd.saved[i]) return false;
    bd.saved_at[i] = static_cast<size_t>(first) * t.packed_stride;
    bd.saved_bytes[i] = bytes;
    std::memcpy(bd.saved[i], t.packed + bd.saved_at[i], bytes);
    return true;
}

// Puts the saved rows back and starts every slice's rows afresh, unless the
// result stands; frees them either way.
void put_rows_back(void *user, bool kept) {
    Bands &bd = *static_cast<Bands *>(user);
    for (int i = 0; i < kMaxThreads; ++i) {
        if (!kept && bd.saved[i]) std::memcpy(bd.task.packed + bd.saved_at[i], bd.saved[i], bd.saved_bytes[i]);
        xelo_mfree_fast_align32(bd.saved[i]);
        bd.saved[i] = nullptr;
        if (!kept) bd.next[i] = 0;
    }
}

int32_t decode_in_bands(kivod_ctx *ctx, Task &t) {
    Bands bd{};
    bd.task = t;
    bd.ctx = ctx;
    bd.context = t.lay->chroma && t.lay->y_shift && !t.nearest && t.packed_format != KIVOC_GREY ? 1 : 0;
    const int n = thread_limit(ctx->tpool);
    const size_t bytes = scratch_bytes(t.w, t.cw);
    uint8_t *block = static_cast<uint8_t *>(xelo_malloc_fast_align32(bytes * n));
    if (!block) return KIVO_ERR_OUT_OF_MEMORY;
    for (int i = 0; i < n; ++i) bd.scratch[i] = block + bytes * i;
    const kivod_band_sink sink{bd.context, rows_done, &bd, keep_rows, put_rows_back};
    const int32_t ret = kivod_clone_bands(ctx, &sink);
    xelo_mfree_fast_align32(block);
    return ret;
}

// Whole planes of the picture, then kivoc_to_packed over the handle's pool.
int32_t decode_whole(kivod_ctx *ctx, const Task &t, int32_t color_format, uint32_t flags) {
    const uint32_t al[4] = {XELO_PAIR(32, 32), XELO_PAIR(32, 32), XELO_PAIR(32, 32), XELO_PAIR(32, 32)};
    const uint32_t pad[4] = {0, 0, 0, 0};
    // The planes are the decoder's memory for this picture too: held to its
    // limit with the frame buffers it already has.
    int32_t pw[4], ph[4], np;
    if (xelo_cs_planes(color_format, t.w, t.h, pw, ph, &np) != 0) return KIVO_ERR_COLOR_FORMAT;
    uint64_t bytes = 0;
    for (int p = 0; p < np; ++p) bytes += uint64_t((pw[p] + 31) & ~31) * uint64_t((ph[p] + 31) & ~31);
    if (kivod_over(ctx->limits.max_memory, ctx->frame_bytes + bytes)) return KIVO_ERR_OUT_OF_MEMORY;
    xelo_imgb *img = xelo_imgb_create(t.w, t.h, color_format, 3, al, pad, 0, 0, 0);
    if (!img) return KIVO_ERR_OUT_OF_MEMORY;
    // Rows the data do not reach are converted too: mid-grey, not whatever
    // the new planes' memory held before.
    for (int p = 0; p < 4; ++p)
        if (img->plane[p]) std::memset(img->plane[p], 128, static_cast<size_t>(img->stride[p]) * img->lines[p]);
    // The decode's own memory (resizers, rows saved for slices started
    // ahead) is then counted on top of the planes.
    ctx->frame_bytes += bytes;
    int32_t ret = kivod_clone(ctx, img);
    ctx->frame_bytes = ctx->frame_bytes > bytes ? ctx->frame_bytes - bytes : 0;
    if (ret == KIVO_OK)
        ret = kivoc_to_packed(img, t.packed, t.packed_stride,
                              static_cast<size_t>(t.h - 1) * t.packed_stride + static_cast<size_t>(t.w) * pixel_size(t.packed_format),
                              t.packed_format, flags, &ctx->tpool);
    img->release(img);
    return ret;
}

}  // namespace
}  // namespace kivo

KIVO_EXPORT int32_t kivoc_decode_packed(kivod_ctx *dec, uint8_t *dst, int32_t dst_stride, size_t dst_size,
                                        int32_t dst_format, uint32_t flags) {
    kivod_ctx *ctx = static_cast<kivod_ctx *>(kivo::handle_check(dec, kivo::kMagicDecoder));
    if (!ctx || (flags & ~KIVOC_NEAREST)) return KIVO_ERR_INVALID_ARG;
    kivo::Task t{};
    int32_t fw, fh, cs;
    int32_t ret = kivod_pending_frame(ctx, &fw, &fh, &cs);
    if (ret != KIVO_OK) return ret;
    t.lay = kivo::planar_layout(cs);
    if (!t.lay) return KIVO_ERR_COLOR_FORMAT;
    const int32_t d = ctx->reduction > 1 ? ctx->reduction : 1;
    t.w = (fw + d - 1) / d;
    t.h = (fh + d - 1) / d;
    t.cw = kivo::chroma_width(*t.lay, t.w);
    t.ch = kivo::chroma_height(*t.lay, t.h);
    ret = kivo::check_packed(dst, dst_stride, dst_size, dst_format, &t);
    if (ret != KIVO_OK) return ret;
    t.dsp = &kivo::color_dsp(kivo_cpu_flags());
    t.nearest = (flags & KIVOC_NEAREST) != 0;
    return kivod_bands_possible(ctx) ? kivo::decode_in_bands(ctx, t) : kivo::decode_whole(ctx, t, cs, flags);
}
