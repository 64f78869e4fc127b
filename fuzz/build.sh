#!/usr/bin/env bash
# Builds the decoder fuzzer with clang's libFuzzer, ASan and UBSan into
# build/fuzz/. Usage: fuzz/build.sh, then build/fuzz/fuzz_decode CORPUS_DIR.
set -euo pipefail
cd "$(dirname "$0")/.."
mkdir -p build/fuzz
sources=$(ls xelo/*.cpp common/*.cpp decoder/*.cpp | grep -v '_neon\.cpp$')
clang++ -std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -Iinclude -I. -DKIVO_ARCH_x86=1 \
  -mavx2 fuzz/fuzz_decode.cpp $sources -o build/fuzz/fuzz_decode
echo "built build/fuzz/fuzz_decode"
