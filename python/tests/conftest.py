"""Shared fixtures: the sample, the shared corpus, the command-line tool, and a few bytes
of TNEF laid out by hand (independently of the codec's writers)."""

import os
import shutil
import struct
from pathlib import Path

import pytest

SOURCE = Path(os.environ.get("TNEF_SOURCE_DIR", Path(__file__).resolve().parents[2]))
SAMPLE = SOURCE / "samples" / "winmail.dat"


def corpus_dir():
    d = Path(os.environ.get("TNEF_CORPUS", SOURCE.parent / "shared" / "corpus"))
    return d if (d / "files").is_dir() else None


def corpus_files():
    d = corpus_dir()
    return sorted((d / "files").iterdir()) if d else []


@pytest.fixture
def tool():
    path = os.environ.get("TNEF_TOOL") or shutil.which("tnefx")
    if not path:
        pytest.skip("the command-line tool is not built (TNEF_TOOL unset, tnefx not on PATH)")
    return path


# ---- TNEF by hand ----------------------------------------------------------------------

SIGNATURE = struct.pack("<IH", 0x223E9F78, 0x04D2)
att_MAPIProps, att_RecipTable, att_AttachRenddata, att_AttachData, att_AttachTitle = (
    0x00069003, 0x00069004, 0x00069002, 0x0006800F, 0x00018010)


def record(level, attr, data, length=None):
    """level, id, length, data, 16-bit byte-sum checksum."""
    n = len(data) if length is None else length
    return struct.pack("<BII", level, attr, n) + data + struct.pack("<H", sum(data) & 0xFFFF)


def pad(b):
    return b + b"\0" * (-len(b) % 4)


def prop(tag, value, named=None):
    """One property of a list: tag, a named header ((guid bytes_le, lid)), then the value in
    the layout its type wants. value: bytes for variable types, packed bytes for fixed."""
    out = struct.pack("<I", tag)
    if named:
        out += named[0] + struct.pack("<II", 0, named[1])
    t = tag & 0xFFFF
    if t in (0x001E, 0x001F, 0x0102, 0x000D) or t & 0x1000:
        values = value if t & 0x1000 else [value]
        out += struct.pack("<I", len(values))
        for v in values:
            if t & 0x1000 and t & 0xFFF in (0x0003,):
                out += v
            else:
                out += struct.pack("<I", len(v)) + pad(v)
        return out
    return out + pad(value)


def props(*entries, count=None):
    return struct.pack("<I", len(entries) if count is None else count) + b"".join(entries)


def stream(*records):
    return SIGNATURE + record(1, 0x00089006, struct.pack("<I", 0x00010000)) + b"".join(records)
