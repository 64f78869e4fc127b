/* A program as a user of the installed library writes it: C, public headers
 * only. Exits 0 when the library initialises, makes and frees a decoder and
 * names a status. */
#include <stdio.h>
#include <string.h>

#include "kivod.h"

int main(void) {
    if (kivo_init() != KIVO_OK) return 1;
    kivod_create_param param = {0, NULL};
    int32_t status = 1;
    kivod_ctx *dec = kivod_create(&param, &status);
    if (!dec || status != KIVO_OK) {
        fprintf(stderr, "kivod_create: %s\n", kivo_strerror(status));
        return 1;
    }
    kivod_delete(dec);
    const char *text = kivo_strerror(KIVO_ERR_UNSUPPORTED);
    if (!text || !strlen(text) || strcmp(text, kivo_strerror(KIVO_OK)) == 0) return 1;
    printf("kivo %s: %s\n", KIVO_VERSION_STRING, text);
    kivo_deinit();
    return 0;
}
