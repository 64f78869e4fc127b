// libFuzzer target: any bytes through kivod_decode and kivod_clone on one
// thread and on three, into a buffer the input's last byte chooses (full
// size, a reduction, an odd resize, packed pairs, another layout). Both
// decodes must give the same status, the same progress and the same bytes
// in every plane; the buffers are filled with a pattern first, so samples
// left alone compare too. Pictures are capped at 1 megapixel to keep runs
// fast.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kivod.h"

namespace {

const uint32_t kAlign[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
const uint32_t kPad[4] = {0, 0, 0, 0};

struct Result {
    int32_t status = 1;
    kivod_progress progress{};
    xelo_imgb *img = nullptr;
};

Result decode_once(kivod_ctx *ctx, const uint8_t *data, size_t size, uint8_t choice) {
    Result r;
    xelo_bitb bitb{};
    bitb.addr = const_cast<uint8_t *>(data);
    bitb.ssize = static_cast<int32_t>(size);
    kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
    kivod_frame_info info{};
    r.status = kivod_decode(ctx, &in, &info);
    if (r.status != 0) return r;
    if (static_cast<int64_t>(info.width) * info.height > 1000 * 1000) return r;
    int32_t w = info.width, h = info.height, cs = info.color_format;
    switch (choice % 7) {
    case 1: case 2: case 3: {
        const int d = 2 << (choice % 7 - 1);
        w = (w + d - 1) / d;
        h = (h + d - 1) / d;
        break;
    }
    case 4: w = w * 2 / 3 + 1; h = h * 3 / 5 + 1; break;
    case 5: cs = XELO_CS_YUYV; break;
    case 6: if (cs != XELO_CS_YCBCR400) cs = XELO_CS_YCBCR444; break;
    default: break;
    }
    r.img = xelo_imgb_create(w, h, cs, 3, kAlign, kPad, 0, 0, 0);
    if (!r.img) return r;
    for (int p = 0; p < 4; ++p)
        if (r.img->plane[p]) std::memset(r.img->plane[p], 0xA5, static_cast<size_t>(r.img->stride[p]) * r.img->lines[p]);
    r.status = kivod_clone(ctx, r.img);
    kivod_get_progress(ctx, &r.progress);
    return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static kivo_tpool pool1, pool3;
    static kivod_ctx *one = nullptr, *three = nullptr;
    if (!one) {
        kivo_init();
        kivo_tpool_std(&pool1, 1);
        kivo_tpool_std(&pool3, 3);
        kivod_create_param p1{1, &pool1}, p3{1, &pool3};
        one = kivod_create(&p1, nullptr);
        three = kivod_create(&p3, nullptr);
    }
    if (size < 2 || size > (1u << 24)) return 0;
    const uint8_t choice = data[size - 1];
    Result a = decode_once(one, data, size - 1, choice);
    Result b = decode_once(three, data, size - 1, choice);
    if (a.status != b.status || a.progress.complete != b.progress.complete ||
        a.progress.mcu_rows != b.progress.mcu_rows || !a.img != !b.img)
        std::abort();
    if (a.img) {
        for (int p = 0; p < 4; ++p) {
            if (!a.img->plane[p]) continue;
            for (int32_t y = 0; y < a.img->lines[p]; ++y)
                if (std::memcmp(a.img->plane[p] + static_cast<ptrdiff_t>(y) * a.img->stride[p],
                                b.img->plane[p] + static_cast<ptrdiff_t>(y) * b.img->stride[p],
                                static_cast<size_t>(a.img->stride[p])) != 0)
                    std::abort();
        }
        a.img->release(a.img);
        b.img->release(b.img);
    }
    return 0;
}
