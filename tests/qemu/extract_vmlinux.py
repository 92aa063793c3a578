#!/usr/bin/python3
"""Writes the uncompressed kernel (an ELF file) found inside a bzImage.

QEMU boots an ELF kernel directly through its PVH entry point, which skips
the bzImage's own decompression and saves seconds of emulated time."""
import lzma
import sys
import zlib

DECOMPRESSORS = {
    b"\xfd7zXZ\x00": lambda data: lzma.LZMADecompressor(lzma.FORMAT_XZ).decompress(data),
    b"\x1f\x8b\x08": lambda data: zlib.decompressobj(16 + zlib.MAX_WBITS).decompress(data),
}

bzimage, out = sys.argv[1:3]
image = open(bzimage, "rb").read()
for magic, decompress in DECOMPRESSORS.items():
    at = image.find(magic)
    while at >= 0:
        try:
            kernel = decompress(image[at:])
        except (lzma.LZMAError, zlib.error):
            kernel = b""
        if kernel.startswith(b"\x7fELF"):
            open(out, "wb").write(kernel)
            sys.exit(0)
        at = image.find(magic, at + 1)
sys.exit(f"no compressed ELF kernel found in {bzimage}")
