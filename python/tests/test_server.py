"""tnef.server: the codec's server entries, their round trip, and their escapes."""

import errno
import os
from pathlib import Path

import pytest

import tnef
import tnef.server as server
from conftest import SAMPLE


@pytest.fixture
def home(tmp_path):
    return tmp_path / "home"


def test_decode_encode_getprop_writeblob_scan_round_trip(home, tmp_path):
    d = server.decode(SAMPLE, home)
    assert (d.receipt, d.reply_requested) == ("read", False)
    assert Path(d.folder).is_dir() and str(home) in d.folder
    sample = tnef.open(SAMPLE)
    assert [Path(p).read_bytes() for p in d.parts] == [a.read() for a in sample.attachments]

    e = server.encode(d.message, tmp_path / "sent.dat", home)
    assert e.result == 1 and e.size == os.path.getsize(tmp_path / "sent.dat")
    sent = tnef.open(tmp_path / "sent.dat")
    assert [(a.name, a.read()) for a in sent.attachments] == [(a.name, a.read()) for a in sample.attachments]

    texts = server.getprop(SAMPLE, home=home)
    assert texts.found and texts.properties == b"170003\x1d2" and b"\x1dsales chart.png" in texts.attachments
    body = server.getprop(SAMPLE, "PR_BODY", home)
    assert body.properties.startswith(b"1000001e\x1dHello,") and body == server.getprop(SAMPLE, "1000001e", home)
    assert server.getprop(SAMPLE, "0ff10003", home).found is False
    size = server.writeblob(tmp_path / "blob.dat", texts.properties, texts.attachments, texts.recipients, home=home)
    assert size == os.path.getsize(tmp_path / "blob.dat")
    blob = tnef.open(tmp_path / "blob.dat")
    assert blob.properties["PR_IMPORTANCE"] == 2 and [a.name for a in blob.attachments] == [
        a.name for a in sample.attachments]

    scanned = server.scan(SAMPLE, 0x3707001E, home)
    assert scanned.found and [a.long_file_name for a in scanned.attachments] == [
        b"quarterly report.txt", b"sales chart.png"]


def test_flags_last_for_one_call(home, tmp_path):
    def size(name, **kw):
        return server.writeblob(tmp_path / name, b"", recipients=b"", home=home, **kw)
    plain = size("a")
    assert size("b", flags={"MAPIXML_GEN_EMPTY_RECIP_TABLE": "true"}) > plain == size("c")


ERRORS = [  # (call, exception, group/reason or errno)
    (lambda h, t: server.decode(t / "none.dat", h), FileNotFoundError, errno.ENOENT),
    (lambda h, t: server.decode(__file__, h), tnef.TnefError, (102, 1531)),
    (lambda h, t: server.getprop(__file__, home=h), tnef.TnefError, (102, 1531)),
    (lambda h, t: server.encode("0123456789abcdef", t / "x.dat", h), FileNotFoundError, errno.ENOENT),
    (lambda h, t: server.writeblob(t / "x.dat", b"bad\0text", home=h), ValueError, None),
    (lambda h, t: server.writeblob(t / "no/such/dir/x.dat", b"", home=h), FileNotFoundError, errno.ENOENT),
    (lambda h, t: server.getprop(SAMPLE, "PR_NO_SUCH_THING", h), ValueError, None),
    (lambda h, t: server.getprop(SAMPLE, 0x37001E, h), TypeError, None),
    (lambda h, t: server.decode(SAMPLE, h, flags=["x"]), TypeError, None),
]


@pytest.mark.parametrize("call,error,code", ERRORS)
def test_escapes_become_python_errors(home, tmp_path, call, error, code):
    with pytest.raises(error) as e:
        call(home, tmp_path)
    if isinstance(code, tuple):
        assert (e.value.group, e.value.reason) == code
    elif code is not None:
        assert e.value.errno == code
    # A failed decode leaves no message behind.
    messages = home / "store" / "messages"
    assert not messages.exists() or not any(messages.iterdir())
