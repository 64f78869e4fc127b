// libFuzzer target: the decoder reading any bytes through a kivo_mfal file
// interface whose open, read, seek, tell or size fails, or whose size
// overstates the file, where the input says. Without a failure the picture
// and status must be those of the decode from memory; after one, the same
// handle must decode a sound file as the memory decode does. Every opened
// file must be closed once the handle is deleted, and a closed one is never
// touched again (its record is freed at close, so ASan sees a late use).
#include "fuzz/fuzz_util.h"
#include "kivod.h"

namespace {

enum { kOpen, kRead, kSeek, kTell, kSize, kKinds };

struct File {
    const uint8_t *data = nullptr;
    int64_t size = 0;
    int64_t extra_size = 0;           // size() reports this many bytes more
    uint32_t fail_at[kKinds] = {};    // the n-th call of each kind fails (0: none)
    uint32_t calls[kKinds] = {};
    bool failed = false;              // a call failed or read short
    int32_t opens = 0, closes = 0;

    bool fails(int kind) {
        const bool f = ++calls[kind] == fail_at[kind];
        failed |= f;
        return f;
    }
};

struct Handle {
    File *file;
    int64_t pos;
};

File *file_of(kivo_mfal *m) { return static_cast<File *>(m->user[0]); }

void *f_open(kivo_mfal *m, int32_t, int32_t) {
    File *f = file_of(m);
    if (f->fails(kOpen)) return nullptr;
    ++f->opens;
    return new Handle{f, 0};
}
int32_t f_close(void *h) {
    ++static_cast<Handle *>(h)->file->closes;
    delete static_cast<Handle *>(h);
    return 0;
}
int32_t f_read(void *hv, void *dst, int32_t n) {
    Handle *h = static_cast<Handle *>(hv);
    File *f = h->file;
    if (f->fails(kRead)) return -1;
    int32_t got = 0;
    for (; got < n && h->pos >= 0 && h->pos < f->size; ++got) static_cast<uint8_t *>(dst)[got] = f->data[h->pos++];
    f->failed |= got < n;
    return got;
}
int32_t f_tell(void *hv, int64_t *pos) {
    Handle *h = static_cast<Handle *>(hv);
    if (h->file->fails(kTell)) return -1;
    *pos = h->pos;
    return 0;
}
int32_t f_seek(void *hv, const int64_t *pos, int32_t whence) {
    Handle *h = static_cast<Handle *>(hv);
    if (h->file->fails(kSeek)) return -1;
    h->pos = whence == 0 ? *pos : whence == 1 ? h->pos + *pos : h->file->size + *pos;
    return 0;
}
int32_t f_skip(void *hv, const int64_t *n, int32_t) {
    Handle *h = static_cast<Handle *>(hv);
    h->pos += *n;
    return 0;
}
int32_t f_size(void *hv, int64_t *size) {
    Handle *h = static_cast<Handle *>(hv);
    if (h->file->fails(kSize)) return -1;
    *size = h->file->size + h->file->extra_size;
    return 0;
}

// Decodes at the reduction `denom` into a buffer of the frame's layout,
// 1/denom of its size; every sample counts as written after a complete
// picture.
fz::Result decode(kivod_ctx *ctx, const kivod_input &in, int32_t denom, uint8_t pattern) {
    fz::Result r;
    kivod_frame_info info{};
    r.status = kivod_decode(ctx, &in, &info);
    if (r.status != 0) return r;
    const int32_t zero[4] = {0, 0, 0, 0};
    fz::Image img;
    if (!img.make(info.color_format, (info.width + denom - 1) / denom, (info.height + denom - 1) / denom, zero,
                  zero, zero)) {
        r.status = 2;
        return r;
    }
    img.fill(pattern);
    r.status = kivod_clone(ctx, &img.img);
    kivod_progress progress{};
    kivod_get_progress(ctx, &progress);
    if (r.status == 0 && progress.complete) r.bytes = img.visible();
    return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fz::init();
    if (size > (1u << 22)) return 0;
    fz::Input in{data, size};
    const int32_t denoms[] = {1, 1, 2, 4, 8};
    const int32_t denom = in.one_of(denoms);
    const uint32_t mask = fz::cpu_mask(in.byte());
    const uint32_t fail_alloc = in.pick(24);
    File bad;
    const uint8_t which = in.byte();
    for (int k = 0; k < kKinds; ++k) bad.fail_at[k] = which >> k & 1 ? 1 + in.pick(k == kRead ? 4096 : 4) : 0;
    bad.extra_size = which & 0x20 ? 1 + in.pick(64) : 0;
    if (in.size == 0) return 0;  // memory input refuses it as an argument, a file as a read failure
    bad.data = in.data;
    bad.size = int64_t(in.size);
    File good = bad;
    for (uint32_t &f : good.fail_at) f = 0;
    good.extra_size = 0;
    // A memory limit below the file's size makes the decoder read the file as
    // it decodes instead of whole (the frame's buffers must fit it too, or
    // both decodes refuse the frame alike).
    const kivod_limits limits{1 << 20, 0, which & 0x40 ? int64_t(in.size) - 1 : 0, 0};

    xelo_bitb bitb{};
    bitb.addr = const_cast<uint8_t *>(in.data);
    bitb.ssize = int32_t(in.size);
    const kivod_input mem{KIVOD_INPUT_BITB, &bitb, nullptr};
    kivo_cpu_set_mask(0);
    const kivod_create_param one{1, nullptr};
    kivod_ctx *ref = kivod_create(&one, nullptr);
    fz::check(ref && kivod_set_reduction(ref, denom) == 0 && kivod_set_limits(ref, &limits) == 0, "reference handle");
    const fz::Result a = decode(ref, mem, denom, 0x00);
    kivod_delete(ref);

    kivo_cpu_set_mask(mask);
    const int32_t live = xelo_mem_live();
    kivod_ctx *ctx = kivod_create(&one, nullptr);
    fz::check(ctx && kivod_set_reduction(ctx, denom) == 0 && kivod_set_limits(ctx, &limits) == 0, "handle");
    kivo_mfal mfal_bad{}, mfal_good{};
    for (kivo_mfal *m : {&mfal_bad, &mfal_good}) {
        m->open = f_open;
        m->close = f_close;
        m->read = f_read;
        m->tell = f_tell;
        m->seek = f_seek;
        m->skip = f_skip;
        m->size = f_size;
    }
    mfal_bad.user[0] = &bad;
    mfal_good.user[0] = &good;
    {
        fz::FailAt f(fail_alloc);
        const fz::Result r = decode(ctx, kivod_input{KIVOD_INPUT_MFAL, nullptr, &mfal_bad}, denom, 0x5A);
        if (!bad.failed && (fail_alloc == 0 || r.status == 0))
            fz::check_same(a, r, "a file that read well decoded unlike memory");
    }
    const fz::Result b = decode(ctx, kivod_input{KIVOD_INPUT_MFAL, nullptr, &mfal_good}, denom, 0xFF);
    // A stream that runs past its end makes a decoder reading as it goes read
    // past the file's end, which it reports as a read failure (-109) where
    // memory gives -202.
    if (!good.failed) fz::check_same(a, b, "after a failure, a sound file decoded unlike memory");
    kivod_delete(ctx);
    fz::check(bad.opens == bad.closes && good.opens == good.closes, "a file left open");
    fz::check_no_leak(live);
    kivo_cpu_set_mask(~0u);
    return 0;
}
