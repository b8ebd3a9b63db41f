#!/usr/bin/env python3
"""check-macho-signature.py FILE...: fails unless every slice of each Mach-O file carries a code
signature whose page hashes are right. An Arm Mac ends a process that maps code without one."""

import hashlib
import struct
import sys

FAT_MAGIC = 0xCAFEBABE
LC_CODE_SIGNATURE = 0x1D
CODE_DIRECTORY = 0xFADE0C02
ARCHITECTURES = {0x0100000C: "arm64", 0x01000007: "x86_64"}


def slices(image):
    """The (architecture, bytes) of each slice."""
    (magic,) = struct.unpack_from(">I", image)
    if magic != FAT_MAGIC:
        yield struct.unpack_from("<I", image, 4)[0], image
        return
    (count,) = struct.unpack_from(">I", image, 4)
    for index in range(count):
        cpu, _, offset, size, _ = struct.unpack_from(">5I", image, 8 + 20 * index)
        yield cpu, image[offset:offset + size]


def signature(image):
    """The signature's bytes, or None."""
    (commands,) = struct.unpack_from("<I", image, 16)
    offset = 32
    for _ in range(commands):
        command, size = struct.unpack_from("<2I", image, offset)
        if command == LC_CODE_SIGNATURE:
            start, length = struct.unpack_from("<2I", image, offset + 8)
            return image[start:start + length]
        offset += size
    return None


def code_directory(blob):
    """The signature's code directory, or None."""
    (count,) = struct.unpack_from(">I", blob, 8)
    for index in range(count):
        (offset,) = struct.unpack_from(">I", blob, 16 + 8 * index)
        if struct.unpack_from(">I", blob, offset)[0] == CODE_DIRECTORY:
            return blob[offset:]
    return None


def wrong_pages(image, directory):
    """(pages whose hash is wrong, pages)."""
    hashes, _, _, pages, limit = struct.unpack_from(">5I", directory, 16)
    size = 1 << directory[39]
    wrong = 0
    for page in range(pages):
        code = image[page * size:min((page + 1) * size, limit)]
        stored = directory[hashes + 32 * page:hashes + 32 * (page + 1)]
        wrong += hashlib.sha256(code).digest() != stored
    return wrong, pages


def check(image):
    """(is it right, what was found)."""
    blob = signature(image)
    directory = blob and code_directory(blob)
    if not directory:
        return False, "no signature"
    wrong, pages = wrong_pages(image, directory)
    return wrong == 0 and pages > 0, f"{pages} pages signed, {wrong} wrong"


def main(paths):
    good = bool(paths)
    for path in paths:
        with open(path, "rb") as file:
            image = file.read()
        for cpu, part in slices(image):
            right, found = check(part)
            good &= right
            print(f"{path} ({ARCHITECTURES.get(cpu, hex(cpu))}): {found}")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
