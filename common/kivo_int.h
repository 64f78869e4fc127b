// Library frame shared by the three codec families: handle creation,
// dispatch and deletion, fork-join over kivo_tpool, CPU features.
#ifndef KIVO_COMMON_INT_H
#define KIVO_COMMON_INT_H

#include <cstddef>
#include <cstdint>

#include "kivo.h"

#define KIVO_EXPORT extern "C" KIVO_API

namespace kivo {

constexpr uint32_t kMagicDecoder = 0x4A504744u;  // 'D','G','P','J'
constexpr uint32_t kMagicEncoder = 0x4A504745u;  // 'E','G','P','J' (encoder and transcoder)
constexpr int kMaxThreads = 8;

// Head of every codec context: magic, then the context's own address.
struct HandleHead {
    uint32_t magic;
    void *self;
};

// The encoder and the transcoder share a magic; their contexts continue the
// head with a kind word that tells them apart.
enum class Kind : uint32_t { Encoder = 0x4E4B4E45u, Transcoder = 0x4E4B5254u };  // "ENKN", "TRKN"
struct SharedHead {
    uint32_t magic;
    void *self;
    Kind kind;
};

// What the shared creation and deletion need to know about one family's
// context: its size and magic, where its tpool copy, thread handles and
// procedure table sit, and its family operations.
struct Family {
    uint32_t magic;
    size_t ctx_size;
    size_t off_tpool;    // kivo_tpool copy
    size_t off_threads;  // void *threads[8]
    size_t off_proc;     // procedure table
    size_t proc_size;
    // Fills the procedure table; non-zero refuses the creation.
    int32_t (*platform_init)(void *ctx, const void *create_param);
    // Calls the ready slot when it is set; 0 otherwise.
    int32_t (*ready)(void *ctx);
    // Calls the flush slot when it is set.
    void (*flush)(void *ctx);
    // Releases what else the family holds (may be null).
    void (*finish)(void *ctx);
};

// Allocates, zeroes and sets up a context; returns it with the magic and
// self pointer written, or null with *status set (status may be null).
// Every failure releases the workers made so far and frees the block.
void *handle_create(const Family &fam, const void *create_param, const kivo_tpool *tpool,
                    int32_t *status);
// Releases workers, flushes and frees a handle; ignores null or foreign handles.
void handle_delete(const Family &fam, void *handle);
// The context when the handle carries the magic, else null.
inline void *handle_check(void *handle, uint32_t magic) {
    if (!handle || static_cast<HandleHead *>(handle)->magic != magic) return nullptr;
    return handle;
}

// The context of an encoder-magic handle of the given kind, else null.
inline void *handle_check(void *handle, Kind kind) {
    void *ctx = handle_check(handle, kMagicEncoder);
    return ctx && static_cast<SharedHead *>(ctx)->kind == kind ? ctx : nullptr;
}

// Fork-join: runs job(args[i]) for i = 1..n-1 on threads[i] and job(args[0])
// on the calling thread, then waits for every started job. The result is the
// last negative status met (the calling thread's first), or 0. When a run is
// refused, the jobs already started are still waited for before returning
// the refusal, so nothing they use is freed under them.
int32_t fork_join(const kivo_tpool &tp, void *const *threads, int n, kivo_job_fn job,
                  void *const *args);

// Thread limit of a tpool copy: max(1, count), at most 8.
inline int thread_limit(const kivo_tpool &tp) {
    return tp.count < 1 ? 1 : (tp.count > kMaxThreads ? kMaxThreads : tp.count);
}

// ---- colour layouts ------------------------------------------------------------

// What the library knows of one colour format: the planes the caller's
// buffer holds, the chroma subsampling and, for the layouts the encoder
// writes, the components and their sampling factors. Chroma planes are
// ceil(width >> x_shift) by ceil(height >> y_shift).
struct Layout {
    int32_t format;
    uint8_t n_comp;          // components of an encoded frame; 0: not encodable
    uint8_t h[4], v[4];      // sampling factors per component
    uint8_t x_shift, y_shift;
    bool chroma;             // Cb and Cr samples exist
    bool fourth;             // a full-size fourth plane (plane 3)
    enum Chroma : uint8_t { Planar, Pairs, Packed } kind;  // Pairs: NV12/NV21; Packed: YUYV
};

// The layout of a colour format code, or null for a code no layout has.
const Layout *layout_of(int32_t format);

inline int32_t chroma_width(const Layout &l, int32_t w) { return l.chroma ? (w + (1 << l.x_shift) - 1) >> l.x_shift : 0; }
inline int32_t chroma_height(const Layout &l, int32_t h) { return l.chroma ? (h + (1 << l.y_shift) - 1) >> l.y_shift : 0; }

// ---- magnitude category ----------------------------------------------------------

// T.81 magnitude category of v taken as a signed 16-bit value: the number
// of bits of |v| (0 for 0), or -1 for values above 2047 and for -32768.
inline int32_t category(int32_t v) {
    const int32_t s = static_cast<int16_t>(v);
    if (s > 2047 || s == -32768) return -1;
    const uint32_t m = static_cast<uint32_t>(s < 0 ? -s : s);
    return 31 - __builtin_clz((m << 1) | 1);
}

}  // namespace kivo

// Exported form of kivo::category.
extern "C" KIVO_API int32_t kivo_category(int32_t v);

#endif
