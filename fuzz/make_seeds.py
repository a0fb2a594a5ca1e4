#!/usr/bin/env python3
"""Writes the fuzzer's seed corpus: the vbmeta block of every reference
package, once on its own and once as an image tail (the block followed by a
footer that points at it)."""
import pathlib
import struct
import sys
import zipfile

FOOTER = struct.Struct(">4sIIQQQ28x")


def main(pkgs: pathlib.Path, out: pathlib.Path) -> None:
    out.mkdir(parents=True, exist_ok=True)
    for package in sorted(pkgs.glob("*.zip")):
        with zipfile.ZipFile(package) as archive:
            image = archive.read("update_payload.img")
        magic, _, _, _, offset, size = FOOTER.unpack(image[-FOOTER.size:])
        if magic != b"AVBf":
            continue
        block = image[offset:offset + size]
        (out / f"{package.stem}.vbmeta").write_bytes(block)
        tail = FOOTER.pack(b"AVBf", 1, 0, len(block), 0, len(block))
        (out / f"{package.stem}.tail").write_bytes(block + tail)


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]))
