"""The codec's server entries, for mail-server integrators.

Each call runs on a *server home* (``home=``; default: the home in effect, ``$TNEF_HOME``
or ``./tnef-home``) and may set customisation flags for its own duration (``flags=``,
``{"NAME": "VALUE"}``, as ``--set`` does for the tool). Escapes of the codec are raised as
:class:`tnef.TnefError` (with ``group`` and ``reason``), I/O failures (group 100) as
``OSError``. Calls hold the module's process-wide lock (see :mod:`tnef`), so they run one at
a time per process.
"""

from __future__ import annotations

import os
from typing import List, Mapping, NamedTuple, Optional, Union

from . import _tnef

__all__ = ["decode", "encode", "getprop", "writeblob", "scan",
           "Decoded", "Encoded", "PropTexts", "ScanResult", "ScannedAttachment"]

_Path = Union[str, os.PathLike]
_RECEIPTS = {4: "delivery", 7: "read"}


class Decoded(NamedTuple):
    message: str        # the stored message's id
    folder: str         # its folder in the store
    receipt: str        # "none", "delivery" or "read"
    reply_requested: bool
    parts: List[str]    # the stored attachment parts (part 3 onward), in order


class Encoded(NamedTuple):
    result: int         # 1 written, 0 nothing to send as TNEF (no file is kept)
    result_word: int
    size: int


class PropTexts(NamedTuple):
    found: bool
    properties: Optional[bytes]   # property texts, byte for byte as the server stores them
    attachments: Optional[bytes]
    recipients: Optional[bytes]


class ScannedAttachment(NamedTuple):
    long_file_name: bytes
    file_name: bytes
    has_data: bool


class ScanResult(NamedTuple):
    found: bool
    attachments: List[ScannedAttachment]


def _settings(home: Optional[_Path], flags: Optional[Mapping[str, str]]):
    if flags is not None and not isinstance(flags, Mapping):
        raise TypeError("flags must be a mapping of flag names to values")
    return (os.fspath(home) if home is not None else "",
            [(str(k), str(v)) for k, v in (flags or {}).items()])


def decode(path: _Path, home: Optional[_Path] = None, *, suppress_mapi: bool = False,
           update_addresses: bool = False, flags: Optional[Mapping[str, str]] = None) -> Decoded:
    """Builds a received message around the TNEF file in the store, decodes the file into
    it (tnef_Decode) and saves it. On an escape nothing of the message is left."""
    h, f = _settings(home, flags)
    mid, folder, receipt, reply, parts = _tnef._server.decode(
        os.fspath(path), h, f, bool(suppress_mapi), bool(update_addresses))
    return Decoded(mid, folder, _RECEIPTS.get(receipt, "none"), reply, list(parts))


def encode(message: str, out: _Path, home: Optional[_Path] = None, *,
           flags: Optional[Mapping[str, str]] = None) -> Encoded:
    """Writes the stored message ``message`` (its id) as TNEF to ``out`` (tnef_Encode)."""
    h, f = _settings(home, flags)
    return Encoded(*_tnef._server.encode(str(message), os.fspath(out), h, f))


def getprop(path: _Path, request: str = "GET-ALL", home: Optional[_Path] = None, *,
            tables: Optional[bool] = None, flags: Optional[Mapping[str, str]] = None) -> PropTexts:
    """Property texts of a TNEF file (tnef_GetProp). ``request``: ``GET-ALL``, a
    hexadecimal tag (``"37001e"``), a published name (``"PR_SUBJECT"``) or ``"#TYPE/ID"``
    for a named property. The attachment and recipient tables come with GET-ALL, or when
    ``tables`` is true."""
    if not isinstance(request, str):
        raise TypeError("request must be a str")
    asked = request
    if request != "GET-ALL" and not request.startswith("#"):
        try:
            int(request, 16)
        except ValueError:
            tag = _tnef.tag_by_name(request)
            if tag == 0:
                raise ValueError(f"request {request!r} is neither GET-ALL, a hexadecimal tag, "
                                 "#TYPE/ID nor a published property name") from None
            asked = f"{tag:x}"
    h, f = _settings(home, flags)
    want_tables = asked == "GET-ALL" if tables is None else bool(tables)
    return PropTexts(*_tnef._server.getprop(os.fspath(path), asked, want_tables, h, f))


def writeblob(out: _Path, properties: Optional[bytes] = None, attachments: Optional[bytes] = None,
              recipients: Optional[bytes] = None, saved: Optional[_Path] = None,
              home: Optional[_Path] = None, *, flags: Optional[Mapping[str, str]] = None) -> int:
    """Writes a TNEF file from property texts as :func:`getprop` gives them
    (tnef_WriteBrenvoProps2ObjectFile) and returns its size. ``saved`` names a TNEF file
    whose attachments are kept when no attachment table is written."""
    for t in (properties, attachments, recipients):
        if t is not None and not isinstance(t, (bytes, bytearray)):
            raise TypeError("property texts are bytes")
    h, f = _settings(home, flags)
    return _tnef._server.writeblob(os.fspath(out),
                                   None if properties is None else bytes(properties),
                                   None if attachments is None else bytes(attachments),
                                   None if recipients is None else bytes(recipients),
                                   "" if saved is None else os.fspath(saved), h, f)


def scan(path: _Path, want: int = 0, home: Optional[_Path] = None, *,
         flags: Optional[Mapping[str, str]] = None) -> ScanResult:
    """The encoder's scan (tnef_ScanTnef): whether attribute or tag ``want`` occurs, and the
    attachments it finds."""
    if isinstance(want, bool) or not isinstance(want, int):
        raise TypeError("want must be an int tag")
    h, f = _settings(home, flags)
    found, rows = _tnef._server.scan(os.fspath(path), want & 0xFFFFFFFF, h, f)
    return ScanResult(found, [ScannedAttachment(*r) for r in rows])
