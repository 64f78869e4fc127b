#!/usr/bin/env bash
# Generates the fuzz targets' seed corpora under OUT (default
# build/fuzz/corpus), one folder per target: JPEG files that cjpeg and
# jpegtran make from generated pictures (baseline, progressive, restart
# intervals, 4:2:0, 4:2:2, 4:4:4, 4:4:0, 4:1:1, grey, optimised tables) for
# the decoder, file-interface and transcoder targets; the pictures' raw
# samples for the encoder and colour targets. Every seed ends in setting
# bytes, which the targets read from the end of their input.
set -euo pipefail
out=${1:-build/fuzz/corpus}
rm -rf "$out"
mkdir -p "$out"/decode "$out"/mfal "$out"/transcode "$out"/encode "$out"/colour
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# n pseudo-random bytes (1..255) from a seed.
bytes() { LC_ALL=C awk -v n="$1" -v s="$2" 'BEGIN { srand(s); for (i = 0; i < n; i++) printf "%c", 1 + int(rand() * 255) }'; }
# A width x height PPM: colour gradients with some noise.
ppm() {
  LC_ALL=C awk -v w="$1" -v h="$2" -v s="$3" 'BEGIN {
    srand(s); printf "P6\n%d %d\n255\n", w, h
    for (y = 0; y < h; y++) for (x = 0; x < w; x++) for (c = 0; c < 3; c++)
      printf "%c", 1 + int(x * (c + 1) * 254 / w + y * 3 + rand() * 24) % 255 }'
}

n=0
for size in "64 48" "97 61" "1 1" "17 9" "240 16"; do
  n=$((n + 1))
  ppm $size $n > "$tmp/p.ppm"
  k=0
  for opts in "-quality 75" "-quality 95 -sample 2x1" "-quality 50 -sample 1x1" "-grayscale" "-sample 4x1" \
              "-sample 1x2" "-restart 1" "-progressive" "-progressive -sample 1x1" "-optimize -restart 2B" \
              "-sample 2x2,2x1,1x2" "-progressive -sample 1x1,2x2,2x2"; do
    k=$((k + 1))
    # shellcheck disable=SC2086
    cjpeg $opts "$tmp/p.ppm" > "$tmp/a.jpg"
    jpegtran -progressive "$tmp/a.jpg" > "$tmp/b.jpg"
    for t in decode mfal transcode; do
      { cat "$tmp/a.jpg"; bytes 48 "$n$k$t"; } > "$out/$t/$n-$k"
    done
    [ $k -le 3 ] && { cat "$tmp/b.jpg"; bytes 48 "$n$k"; } > "$out/decode/$n-$k-prog"
  done
  for t in encode colour; do
    for k in 1 2 3; do
      { tail -c +16 "$tmp/p.ppm"; bytes 256 "$n$k$t"; } > "$out/$t/$n-$k"
    done
  done
done
echo "seeds in $out: $(find "$out" -type f | wc -l)"
