// libFuzzer target: any bytes through kivod_decode and kivod_clone, at full
// size on two threads and at a reduced size, into buffers of the frame's
// colour format. Pictures are capped at 4 megapixels to keep runs fast.
#include <cstddef>
#include <cstdint>

#include "kivod.h"

namespace {

const uint32_t kAlign[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
const uint32_t kPad[4] = {0, 0, 0, 0};

void decode_once(kivod_ctx *ctx, const uint8_t *data, size_t size, int denom) {
    xelo_bitb bitb{};
    bitb.addr = const_cast<uint8_t *>(data);
    bitb.ssize = static_cast<int32_t>(size);
    kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
    kivod_frame_info info{};
    if (kivod_decode(ctx, &in, &info) != 0) return;
    if (static_cast<int64_t>(info.width) * info.height > 4 * 1000 * 1000) return;
    const int32_t w = (info.width + denom - 1) / denom, h = (info.height + denom - 1) / denom;
    xelo_imgb *img = xelo_imgb_create(w, h, info.color_format, 3, kAlign, kPad, 0, 0, 0);
    if (!img) return;
    kivod_clone(ctx, img);
    // Touch every written sample so that uninitialised output is seen.
    volatile uint32_t sum = 0;
    for (int p = 0; p < 4; ++p)
        if (img->plane[p])
            for (int32_t y = 0; y < img->lines[p] && y < h; ++y) sum = sum + img->plane[p][y * img->stride[p]];
    img->release(img);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static kivo_tpool pool;
    static kivod_ctx *ctx = [] {
        kivo_init();
        kivo_tpool_std(&pool, 2);
        kivod_create_param p{1, &pool};
        return kivod_create(&p, nullptr);
    }();
    if (size > (1u << 24)) return 0;
    decode_once(ctx, data, size, 1);
    decode_once(ctx, data, size, 4);
    return 0;
}
