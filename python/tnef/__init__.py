"""Read TNEF (winmail.dat) files: properties, recipients, attachments and bodies.

>>> import tnef
>>> with tnef.open("winmail.dat") as message:
...     print(message.subject)
...     for a in message.attachments:
...         a.save("out")

Threads: the codec keeps process-wide state (the server home, customisation flags, the
character-set alias map), so every call into it holds one process-wide lock, taken after
the GIL is released. Threads of one process therefore read messages one at a time while
other Python code runs; to read in parallel, use processes (``tnef.dask`` does). Copying
attachment bytes (``read``, ``save``) runs outside that lock.
"""

from __future__ import annotations

import collections.abc
import datetime as _datetime
import os
import uuid
from typing import Any, Iterator, List, NamedTuple, Optional, Union

from . import _tnef
from ._errors import TnefError

__all__ = ["open", "Message", "Attachment", "Property", "Properties", "Recipient",
           "TnefError", "prop_name", "tag_by_name"]

prop_name = _tnef.prop_name
tag_by_name = _tnef.tag_by_name

_PT_STRING8 = 0x001E
_PT_UNICODE = 0x001F
_MV = 0x1000


class Property(NamedTuple):
    """One MAPI property with its value typed.

    Values: ``str`` (8-bit strings converted from the stream's code page), ``int``,
    ``bool``, ``float`` (PT_DOUBLE, PT_APPTIME, PT_CURRENCY in units), aware UTC
    ``datetime`` (PT_SYSTIME; an ``int`` of 100 ns steps since 1601 beyond year 9999),
    ``bytes``, ``uuid.UUID``; a ``list`` of those for multi-valued types.
    """

    tag: int
    type: int
    type_name: Optional[str]
    name: Optional[str]          # PR_SUBJECT, PidLidLocation; None when unpublished
    set: Optional[uuid.UUID]     # named properties only
    lid: Optional[int]           # named by number
    string_name: Optional[str]   # named by string
    value: Any


def _textless(tag: int) -> int:
    # 8-bit and Unicode text are one property to a reader, as the library compares them.
    return tag - 1 if (tag & 0xFFFF) & ~_MV == _PT_UNICODE else tag


class Properties(collections.abc.Mapping):
    """MAPI properties by tag (``0x0037001F``; 8-bit and Unicode text alike) or by
    published name (``"PR_SUBJECT"``, ``"PidLidLocation"``, case ignored).

    Iterating gives the tags in stream order; :meth:`list` gives every :class:`Property`
    with its name, type and named-property identity.
    """

    def __init__(self, rows: list) -> None:
        self._list = [Property._make(r) for r in rows]
        self._by_tag = {}
        for p in self._list:
            if p.set is None:
                self._by_tag.setdefault(_textless(p.tag), p)

    def _find(self, key: Union[int, str]) -> Optional[Property]:
        if isinstance(key, bool) or not isinstance(key, (int, str)):
            raise TypeError(f"property key must be a tag or a name, not {type(key).__name__}")
        if isinstance(key, int):
            return self._by_tag.get(_textless(key))
        tag = _tnef.tag_by_name(key)
        if tag:
            return self._by_tag.get(_textless(tag))
        folded = key.casefold()
        for p in self._list:
            if p.name is not None and p.name.casefold() == folded:
                return p
            if p.string_name is not None and p.string_name == key:
                return p
        return None

    def __getitem__(self, key: Union[int, str]) -> Any:
        p = self._find(key)
        if p is None:
            raise KeyError(key)
        return p.value

    def __contains__(self, key: object) -> bool:
        try:
            return self._find(key) is not None  # type: ignore[arg-type]
        except TypeError:
            return False

    def __iter__(self) -> Iterator[int]:
        return (p.tag for p in self._list)

    def __len__(self) -> int:
        return len(self._list)

    def property(self, key: Union[int, str]) -> Property:
        """The whole :class:`Property` for a tag or name; KeyError when absent."""
        p = self._find(key)
        if p is None:
            raise KeyError(key)
        return p

    def list(self) -> List[Property]:
        """Every property in stream order, duplicates and named properties included."""
        return list(self._list)

    def __repr__(self) -> str:
        return f"<tnef.Properties of {len(self._list)}>"


class Recipient(NamedTuple):
    """A row of the recipient table: display name, address, kind (to, cc, bcc or None)."""

    name: str
    email: str
    kind: Optional[str]
    properties: Properties


_RECIPIENT_KINDS = {1: "to", 2: "cc", 3: "bcc"}


def _first(props: Properties, *keys: int) -> Any:
    for k in keys:
        v = props.get(k)
        if v:
            return v
    return None


class Attachment:
    """An attachment: its name, size, type and bytes, read from the file on demand.

    ``kind`` is ``file``, ``ole`` (an OLE object's storage), ``message`` (an embedded
    message, see :attr:`embedded`) or ``none`` (no bytes). ``name`` is the best name the
    file gives (long file name, file name, transport name, title, display name), else
    ``attachment-N.dat``; ``mime_type`` the attachment's MIME tag, else guessed from it.
    """

    __slots__ = ("_a", "_props")

    def __init__(self, core: _tnef.Attachment) -> None:
        self._a = core
        self._props: Optional[Properties] = None

    index = property(lambda self: self._a.index, doc="1, 2, ... in file order, across embedded messages")
    parent = property(lambda self: self._a.parent, doc="index of the embedded message holding it, 0 at the top")
    depth = property(lambda self: self._a.depth)
    kind = property(lambda self: self._a.kind)
    name = property(lambda self: self._a.name)
    safe_name = property(lambda self: self._a.safe_name,
                         doc="the file name save() starts from: no folders, control bytes or leading dots")
    size = property(lambda self: self._a.size)
    mime_type = property(lambda self: self._a.mime_type)
    content_id = property(lambda self: self._a.content_id)
    method = property(lambda self: self._a.method, doc="PR_ATTACH_METHOD, 0 when absent")
    data_cut = property(lambda self: self._a.data_cut, doc="the file ends inside the bytes")
    names = property(lambda self: self._a.names, doc="every name the file gives, '' when absent")

    @property
    def modified(self) -> Optional[_datetime.datetime]:
        """Last modification (attAttachModifyDate or PR_LAST_MODIFICATION_TIME), UTC."""
        s = self._a.modified
        if s == 0:
            return None
        return _datetime.datetime.fromtimestamp(s, _datetime.timezone.utc)

    @property
    def properties(self) -> Properties:
        if self._props is None:
            self._props = Properties(self._a._properties())
        return self._props

    @property
    def embedded(self) -> Optional["Message"]:
        """The embedded message this attachment holds, or None."""
        m = self._a._embedded()
        return None if m is None else Message(m)

    def read(self) -> bytes:
        """The attachment's bytes (as far as the file holds them)."""
        return self._a.read()

    def save(self, directory: Union[str, os.PathLike], overwrite: bool = False) -> str:
        """Writes the attachment into ``directory`` (created when missing) under its safe
        name and returns the path. A taken name becomes ``name (2).ext``; ``overwrite``
        replaces a regular file that is there instead. An embedded message is written as
        ``<subject>.tnef``."""
        return _tnef._Target(os.fspath(directory), overwrite).save(self._a)

    def __repr__(self) -> str:
        return f"<tnef.Attachment {self.index} {self.kind} {self.name!r} {self.size} bytes>"


class Message:
    """A TNEF message read whole: see :func:`open`.

    Strings are converted to ``str`` when the file is opened; properties, recipients and
    attachments become Python objects when first asked for; binary values and attachment
    bytes are read from the file on demand, so the message keeps its file open until
    :meth:`close` (or the end of a ``with`` block).
    """

    __slots__ = ("_m", "_props", "_attachments")

    def __init__(self, core: _tnef.Message) -> None:
        self._m = core
        self._props: Optional[Properties] = None
        self._attachments: Optional[List[Attachment]] = None

    subject = property(lambda self: self._m.subject,
                       doc="attSubject, else PR_SUBJECT, else PR_CONVERSATION_TOPIC")
    message_class = property(lambda self: self._m.message_class)
    code_page = property(lambda self: self._m.code_page, doc="attOemCodepage, 0 when absent")
    depth = property(lambda self: self._m.depth, doc="0 for the file's message, 1 inside it, ...")
    closed = property(lambda self: self._m.closed)
    warnings = property(lambda self: self._m.warnings,
                        doc="what is damaged (cut short, bad checksums, ...); empty when nothing")

    @property
    def properties(self) -> Properties:
        if self._props is None:
            self._props = Properties(self._m._properties())
        return self._props

    @property
    def attachments(self) -> List[Attachment]:
        """This message's own attachments (an embedded message's are in ``embedded``)."""
        if self._attachments is None:
            self._attachments = [Attachment(a) for a in self._m.attachments]
        return self._attachments

    @property
    def embedded(self) -> List["Message"]:
        """The embedded messages, one per attachment of kind ``message``, in order."""
        return [Message(m) for m in self._m.embedded]

    def walk(self) -> Iterator[Attachment]:
        """Every attachment, those of embedded messages right after their message (the
        order ``tnefx list`` shows)."""
        for a in self.attachments:
            yield a
            if a.kind == "message":
                inner = a.embedded
                if inner is not None:
                    yield from inner.walk()

    @property
    def recipients(self) -> List[Recipient]:
        rows = []
        for row in self._m._recipients():
            p = Properties(row)
            rows.append(Recipient(
                name=_first(p, 0x3001001E) or "",                          # PR_DISPLAY_NAME
                email=_first(p, 0x39FE001E, 0x3003001E) or "",             # SMTP, else EMAIL
                kind=_RECIPIENT_KINDS.get(p.get(0x0C150003)),              # PR_RECIPIENT_TYPE
                properties=p))
        return rows

    @property
    def sender(self) -> Optional[Recipient]:
        """The sender (PR_SENDER_*, else PR_SENT_REPRESENTING_*), or None."""
        p = self.properties
        name = _first(p, 0x0C1A001E, 0x0042001E) or ""
        email = _first(p, 0x5D01001E, 0x0C1F001E, 0x0065001E) or ""
        if not name and not email:
            return None
        return Recipient(name=name, email=email, kind=None, properties=p)

    @property
    def sent(self) -> Optional[_datetime.datetime]:
        """PR_CLIENT_SUBMIT_TIME, else PR_MESSAGE_DELIVERY_TIME (aware UTC), or None."""
        v = _first(self.properties, 0x00390040, 0x0E060040)
        return v if isinstance(v, _datetime.datetime) else None

    def body(self, format: str = "best") -> Union[str, bytes, None]:
        """The message's body: ``best`` its HTML, else its text; ``html`` (PR_BODY_HTML, or
        HTML encapsulated in the compressed RTF); ``text`` (PR_BODY, attBody, or the RTF's
        text); ``rtf`` the decompressed PR_RTF_COMPRESSED as ``bytes``. HTML and text are
        ``str``. None when the message has no body of that kind."""
        return self._m.body(format)

    def extract(self, directory: Union[str, os.PathLike], embedded: bool = False,
                overwrite: bool = False) -> List[str]:
        """Writes every attachment, those of embedded messages included, into
        ``directory`` as ``tnefx extract`` does, and returns the paths written. Embedded
        messages themselves are written (as ``.tnef``) only with ``embedded``. Files this
        call wrote are never replaced, even with ``overwrite``."""
        target = _tnef._Target(os.fspath(directory), overwrite)
        return [target.save(a._a) for a in self.walk()
                if a.kind != "none" and (embedded or a.kind != "message")]

    def close(self) -> None:
        """Closes the file; the message's strings stay readable, bytes do not."""
        self._m.close()

    def __enter__(self) -> "Message":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<tnef.Message {self.subject!r} {len(self.attachments)} attachments>"


def open(source: Union[str, os.PathLike, bytes, bytearray, memoryview, Any]) -> Message:
    """Reads a TNEF file: a path, its bytes, or a binary file object (read in place when
    it is a regular file, else through its ``read()``).

    Raises :class:`TnefError` (group 102, reason 1531) when it is not TNEF, ``OSError``
    when it cannot be read, ``TypeError`` for anything else. Damage that still leaves
    something to read is not an error: see :attr:`Message.warnings`.
    """
    if isinstance(source, (str, os.PathLike)):
        path = os.fspath(source)
        if isinstance(path, bytes):
            path = os.fsdecode(path)
        return Message(_tnef._open_path(path))
    if isinstance(source, (bytes, bytearray, memoryview)):
        return Message(_tnef._open_bytes(source))
    if hasattr(source, "read"):
        return Message(_tnef._open_file(source))
    raise TypeError(f"tnef.open takes a path, bytes or a binary file, not {type(source).__name__}")
