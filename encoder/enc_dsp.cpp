// Encoder kernel slots: the plain kernels; SIMD variants replace them where
// the CPU flags allow.
#include "encoder/kivoe_int.h"

void kivoe_dsp_init(kivoe_proc *proc, uint32_t cpu_flags) {
    (void)cpu_flags;
    proc->fdct8 = kivoe_fdct8;
    proc->quant = kivoe_quant;
    proc->quant_rdoq = kivoe_quant_rdoq;
}

const char *kivoe_dsp_describe(uint32_t cpu_flags) {
    (void)cpu_flags;
    return "fdct8 c, quant c, quant_rdoq c";
}
