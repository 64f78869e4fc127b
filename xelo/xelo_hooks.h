// Test hooks of the aligned allocators. They are compiled only into the
// static library (KIVO_TEST_HOOKS), which the tests link; the shared library
// and the public headers do not carry them.
#ifndef XELO_HOOKS_H
#define XELO_HOOKS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Number of blocks of both aligned allocators not yet freed. */
int32_t xelo_mem_live(void);
/* The n-th aligned allocation from now fails (n >= 1); 0 switches it off. */
void xelo_mem_fail_at(int32_t n);

#ifdef __cplusplus
}
#endif

#endif
