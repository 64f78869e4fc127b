/* Where ARMv7 instructions go, per function: a TCG plugin for qemu-arm
 * (QEMU 7.2, plugin API version 1) that adds each translated block's
 * instruction count to the symbol its first instruction lies in. Symbols
 * come from the main program only; code in shared libraries is listed by
 * block address under "?" in a second file.
 *
 *   gcc -O2 -fPIC -shared -o build/armprof.so bench/armprof.c
 *   (after ../shared/armcount/run.sh has built build/armcount/armbench)
 *   cd build/armcount && ARMPROF_OUT=/tmp/dec.txt qemu-arm -L /usr/arm-linux-gnueabihf \
 *       -plugin ../armprof.so ./armbench dec kivo 10 img/q90_420.jpg 1
 *
 * The few declarations below restate QEMU 7.2's qemu-plugin.h, which Debian
 * does not ship. Counts are per whole run: run N and 3N iterations and take
 * the difference to leave set-up out. */
#include <inttypes.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef uint64_t qemu_plugin_id_t;
typedef struct qemu_info_t qemu_info_t;
struct qemu_plugin_tb;
struct qemu_plugin_insn;
enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 = 0 };
typedef void (*qemu_plugin_vcpu_tb_trans_cb_t)(qemu_plugin_id_t id, struct qemu_plugin_tb *tb);
typedef void (*qemu_plugin_udata_cb_t)(qemu_plugin_id_t id, void *userdata);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, qemu_plugin_vcpu_tb_trans_cb_t cb);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *tb);
struct qemu_plugin_insn *qemu_plugin_tb_get_insn(const struct qemu_plugin_tb *tb, size_t idx);
const char *qemu_plugin_insn_symbol(const struct qemu_plugin_insn *insn);
uint64_t qemu_plugin_tb_vaddr(const struct qemu_plugin_tb *tb);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb *tb, enum qemu_plugin_op op, void *ptr,
                                              uint64_t imm);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, qemu_plugin_udata_cb_t cb, void *userdata);
#define QEMU_PLUGIN_EXPORT __attribute__((visibility("default")))
QEMU_PLUGIN_EXPORT int qemu_plugin_version = 1;

enum { kBlocks = 1 << 18, kShown = 60 };
struct rec {
    const char *name;
    uint64_t vaddr, count;
};
static struct rec blocks[kBlocks], sums[kBlocks];
static int n_blocks;

static void tb_trans(qemu_plugin_id_t id, struct qemu_plugin_tb *tb) {
    (void)id;
    if (n_blocks == kBlocks) return; /* further blocks go uncounted */
    struct rec *r = &blocks[n_blocks++];
    r->name = qemu_plugin_insn_symbol(qemu_plugin_tb_get_insn(tb, 0));
    r->vaddr = qemu_plugin_tb_vaddr(tb);
    qemu_plugin_register_vcpu_tb_exec_inline(tb, QEMU_PLUGIN_INLINE_ADD_U64, &r->count, qemu_plugin_tb_n_insns(tb));
}

static int by_count(const void *a, const void *b) {
    const struct rec *x = a, *y = b;
    return x->count < y->count ? 1 : x->count > y->count ? -1 : 0;
}

static void at_exit(qemu_plugin_id_t id, void *p) {
    (void)id;
    (void)p;
    const char *path = getenv("ARMPROF_OUT") ? getenv("ARMPROF_OUT") : "armprof.txt";
    FILE *f = fopen(path, "w");
    if (!f) return;
    uint64_t total = 0;
    int n_sums = 0;
    for (int i = 0; i < n_blocks; ++i) {
        const char *name = blocks[i].name ? blocks[i].name : "?";
        total += blocks[i].count;
        int j = 0;
        while (j < n_sums && strcmp(sums[j].name, name) != 0) ++j;
        if (j == n_sums) sums[n_sums++] = (struct rec){name, 0, 0};
        sums[j].count += blocks[i].count;
    }
    qsort(sums, n_sums, sizeof sums[0], by_count);
    fprintf(f, "total %" PRIu64 "\n", total);
    for (int i = 0; i < n_sums && i < kShown; ++i)
        fprintf(f, "%12" PRIu64 " %5.1f%% %s\n", sums[i].count, 100.0 * sums[i].count / total, sums[i].name);
    qsort(blocks, n_blocks, sizeof blocks[0], by_count);
    fprintf(f, "\nblocks outside the program's symbols, by address:\n");
    for (int i = 0, shown = 0; i < n_blocks && shown < kShown / 3; ++i)
        if (!blocks[i].name) {
            fprintf(f, "%12" PRIu64 " %08" PRIx64 "\n", blocks[i].count, blocks[i].vaddr);
            ++shown;
        }
    fclose(f);
}

QEMU_PLUGIN_EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t *info, int argc, char **argv) {
    (void)info;
    (void)argc;
    (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, tb_trans);
    qemu_plugin_register_atexit_cb(id, at_exit, NULL);
    return 0;
}
