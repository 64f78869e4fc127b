// kivo: the libkivo command-line tool.
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "decoder/kivod_int.h"
#include "encoder/kivoe_int.h"
#include "tools/tool.h"

namespace {

void usage(FILE *f) {
    std::fprintf(f,
                 "usage: kivo [--help | --version]\n"
                 "       kivo                      report the library, CPU features and kernels,\n"
                 "                                 then a short encode/decode demonstration\n"
                 "       kivo info FILE.jpg        frame, sampling, tables, APPn segments, Exif orientation\n"
                 "       kivo decode IN.jpg OUT.{png,ppm,pgm,y4m,yuv} [--size WxH | --scale 1/2|1/4|1/8]\n"
                 "                                 [--threads N]\n"
                 "       kivo encode IN.{png,ppm,pgm,y4m,yuv} OUT.jpg [options]   (kivo encode --help)\n"
                 "       kivo transcode IN.jpg OUT.jpg [options]                  (kivo transcode --help)\n"
                 "       kivo encode|transcode IN... (--out-dir DIR | --in-place) [--recursive] [options]\n"
                 "  info, decode and transcode take --max-pixels N, --max-scans N, --max-memory BYTES,\n"
                 "  --max-app-bytes BYTES (0 lifts one) and --no-limits.\n");
}

void print_flags(const char *label, uint32_t flags) {
    std::printf("%s:", label);
    if (!flags) std::printf(" none");
    if (flags & KIVO_CPU_SSE2) std::printf(" sse2");
    if (flags & KIVO_CPU_SSSE3) std::printf(" ssse3");
    if (flags & KIVO_CPU_SSE41) std::printf(" sse4.1");
    if (flags & KIVO_CPU_AVX2) std::printf(" avx2");
    if (flags & KIVO_CPU_BMI2) std::printf(" bmi2");
    if (flags & KIVO_CPU_AVX512) std::printf(" avx512");
    if (flags & KIVO_CPU_NEON) std::printf(" neon");
    std::printf("\n");
}

int report() {
    std::printf("libkivo %s\n", KIVO_VERSION_STRING);
    print_flags("cpu features", kivo_cpu_detected());
    print_flags("kernels may use", kivo_cpu_flags());
    std::printf("decoder kernels: %s\n", kivod_dsp_describe(kivo_cpu_flags()));
    std::printf("encoder kernels: %s\n", kivoe_dsp_describe(kivo_cpu_flags()));
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (kivo_init() != 0) {
        std::fprintf(stderr, "kivo: library initialisation failed\n");
        return 1;
    }
    tool::install_cleanup();
    int ret = 0;
    if (argc < 2) {
        ret = report();
        if (ret == 0) ret = tool::cmd_demo();
    } else try {
        const std::string cmd = argv[1];
        if (cmd == "--help" || cmd == "-h") {
            usage(stdout);
        } else if (cmd == "--version") {
            std::printf("kivo %s\n", KIVO_VERSION_STRING);
        } else if (cmd == "info") {
            ret = tool::cmd_info(argc - 2, argv + 2);
        } else if (cmd == "decode") {
            ret = tool::cmd_decode(argc - 2, argv + 2);
        } else if (cmd == "encode") {
            ret = tool::cmd_encode(argc - 2, argv + 2);
        } else if (cmd == "transcode") {
            ret = tool::cmd_transcode(argc - 2, argv + 2);
        } else {
            usage(stderr);
            ret = 2;
        }
    } catch (const std::exception &e) {
        // The tool's own memory (a picture's pixels, a file read whole) or
        // a thread the system refuses: a message and status 1, not an abort.
        // Outputs are renamed into place only when complete.
        tool::message("kivo: %s\n", dynamic_cast<const std::bad_alloc *>(&e) ? "out of memory" : e.what());
        ret = 1;
    }
    kivo_deinit();
    return ret;
}
