"""Reads the ad-hoc code signature of Mach-O files, and computes its page hashes again."""
import hashlib
import struct

FAT_MAGIC, MACHO_MAGIC = 0xCAFEBABE, 0xFEEDFACF
PROCESSORS = {0x01000007: "x86_64", 0x0100000C: "arm64"}
LOAD_CODE_SIGNATURE = 0x1D
EMBEDDED_SIGNATURE, CODE_DIRECTORY = 0xFADE0CC0, 0xFADE0C02
AD_HOC, LINKER_SIGNED = 0x2, 0x20000
SHA256 = 2


def slices(data):
    """The images of a universal file, or the one of a thin file."""
    if struct.unpack_from(">I", data)[0] != FAT_MAGIC:
        return [data]
    count = struct.unpack_from(">I", data, 4)[0]
    places = (struct.unpack_from(">II", data, 16 + 20 * number) for number in range(count))
    return [data[offset:offset + size] for offset, size in places]


def signature_place(image):
    """Offset and size of the signature; None when the image carries none."""
    count = struct.unpack_from("<I", image, 16)[0]
    offset = 32
    for _ in range(count):
        command, size = struct.unpack_from("<II", image, offset)
        if command == LOAD_CODE_SIGNATURE:
            return struct.unpack_from("<II", image, offset + 8)
        offset += size
    return None


def code_directory(signature):
    magic, _, count = struct.unpack_from(">III", signature)
    assert magic == EMBEDDED_SIGNATURE
    for number in range(count):
        _, offset = struct.unpack_from(">II", signature, 12 + 8 * number)
        if struct.unpack_from(">I", signature, offset)[0] == CODE_DIRECTORY:
            return signature[offset:]
    return None


def complaints_about_directory(directory, image, signature_offset):
    flags, hashes = struct.unpack_from(">II", directory, 12)
    pages, limit = struct.unpack_from(">II", directory, 28)
    hash_size, hash_type, _, page_bits = struct.unpack_from(">BBBB", directory, 36)
    if flags != AD_HOC | LINKER_SIGNED:
        yield f"signature flags {flags:#x}"
    if hash_type != SHA256 or limit != signature_offset:
        yield f"signature of type {hash_type} covers {limit} of {signature_offset} bytes"
        return
    for page in range(pages):
        start = page << page_bits
        wanted = directory[hashes + page * hash_size:hashes + (page + 1) * hash_size]
        if hashlib.sha256(image[start:min(start + (1 << page_bits), limit)]).digest() != wanted:
            yield f"page {page} does not have the hash it is signed with"


def complaints_about_signature(data):
    """An arm64 image must be signed or no Mac starts it; an x86_64 image need not be."""
    for image in slices(data):
        magic, processor = struct.unpack_from("<II", image)
        assert magic == MACHO_MAGIC
        name, place = PROCESSORS[processor], signature_place(image)
        if place is None:
            if name == "arm64":
                yield "arm64: not signed"
            continue
        offset, size = place
        directory = code_directory(image[offset:offset + size])
        if directory is None:
            yield f"{name}: signature without code directory"
            continue
        for complaint in complaints_about_directory(directory, image, offset):
            yield f"{name}: {complaint}"
