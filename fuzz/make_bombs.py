#!/usr/bin/env python3
"""Writes small JPEG files that ask a decoder for far more time or memory
than their size suggests, to check the limits against:

  prog_30000.jpg  progressive grey frame of 30000 x 30000
  seq_65535.jpg   sequential grey frame of 65535 x 65535
  scans_2000.jpg  8192 x 8192 grey: a DC scan and 1999 AC scans of end-of-band runs
  apps_2m.jpg     two million empty APP1 segments before a small picture

usage: fuzz/make_bombs.py OUT_DIR"""
import os
import struct
import sys


def seg(marker, body):
    return bytes([0xFF, marker]) + struct.pack('>H', len(body) + 2) + body


def entropy(bits):
    """Bit string to bytes: padded with ones, 0xFF stuffed."""
    bits += '1' * (-len(bits) % 8)
    out = bytearray()
    for k in range(0, len(bits), 8):
        out.append(int(bits[k:k + 8], 2))
        if out[-1] == 0xFF:
            out.append(0)
    return bytes(out)


def grey(width, height, sof, scans):
    dqt = seg(0xDB, b'\x00' + bytes([1] * 64))
    frame = seg(sof, bytes([8]) + struct.pack('>HH', height, width) + bytes([1, 1, 0x11, 0]))
    dc = seg(0xC4, bytes([0x00, 1] + [0] * 15 + [0]))  # one DC code '0': category 0
    # AC: '00' runs of 32767 end-of-bands (symbol 0xE0, 14 extra bits),
    # '01' 32 of them (0x50), '10' end of block (0x00)
    ac = seg(0xC4, bytes([0x10, 0, 3] + [0] * 14 + [0xE0, 0x50, 0x00]))
    return b'\xff\xd8' + dqt + frame + dc + ac + scans + b'\xff\xd9'


def main():
    out = sys.argv[1]
    os.makedirs(out, exist_ok=True)
    one_block = seg(0xDA, bytes([1, 1, 0x00, 0, 63, 0])) + entropy('0' + '10')
    files = {
        'seq_65535.jpg': grey(65535, 65535, 0xC0, one_block),
        'prog_30000.jpg': grey(30000, 30000, 0xC2, seg(0xDA, bytes([1, 1, 0x00, 0, 0, 0])) + entropy('0')),
    }
    blocks = 1024 * 1024
    runs, rest = divmod(blocks, 32767)
    ac_scan = seg(0xDA, bytes([1, 1, 0x00, 1, 63, 0])) + entropy(('00' + '1' * 14) * runs + '01' + '0' * 5)
    assert rest == 32
    dc_scan = seg(0xDA, bytes([1, 1, 0x00, 0, 0, 0])) + entropy('0' * blocks)
    files['scans_2000.jpg'] = grey(8192, 8192, 0xC2, dc_scan + ac_scan * 1999)
    small = grey(8, 8, 0xC0, one_block)
    files['apps_2m.jpg'] = small[:2] + b'\xff\xe1\x00\x02' * 2000000 + small[2:]
    for name, data in files.items():
        with open(os.path.join(out, name), 'wb') as f:
            f.write(data)
        print(name, len(data))


main()
