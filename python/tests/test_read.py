"""tnef.open and what it gives: typed properties, attachments, bodies, damage, bad calls."""

import datetime as dt
import io
import json
import os
import struct
import subprocess
import threading
import uuid
from pathlib import Path

import pytest

import tnef
from conftest import (SAMPLE, SIGNATURE, att_AttachData, att_AttachRenddata, att_AttachTitle,
                      att_MAPIProps, att_RecipTable, corpus_files, prop, props, record, stream)

UTC = dt.timezone.utc
APPOINTMENT = uuid.UUID("00062002-0000-0000-C000-000000000046")
WHEN = dt.datetime(2020, 1, 2, 3, 4, 5, 123456, tzinfo=UTC)
MAPI_EPOCH = dt.datetime(1601, 1, 1, tzinfo=UTC)
A_GUID = uuid.UUID("12345678-9abc-def0-1122-334455667788")


def ticks(when):
    return (when - MAPI_EPOCH) // dt.timedelta(microseconds=1) * 10


TYPED = [  # (property as laid out, key it is asked by, value expected)
    (prop(0x0037001E, b"Hi\0"), "PR_SUBJECT", "Hi"),
    (prop(0x0E1D001F, "Ünï".encode("utf-16le") + b"\0\0"), 0x0E1D001E, "Ünï"),
    (prop(0x00170003, struct.pack("<I", 2)), "pr_importance", 2),
    (prop(0x0029000B, struct.pack("<H", 1)), 0x0029000B, True),
    (prop(0x66000005, struct.pack("<d", 1.5)), 0x66000005, 1.5),
    (prop(0x66050006, struct.pack("<q", 12345)), 0x66050006, 1.2345),
    (prop(0x66060014, struct.pack("<q", -5)), 0x66060014, -5),
    (prop(0x00390040, struct.pack("<Q", ticks(WHEN))), "PR_CLIENT_SUBMIT_TIME", WHEN),
    (prop(0x66070040, struct.pack("<Q", 2**64 - 1)), 0x66070040, 2**64 - 1),  # past year 9999
    (prop(0x66010048, A_GUID.bytes_le), 0x66010048, A_GUID),
    (prop(0x66020102, b"\0\1\2"), 0x66020102, b"\0\1\2"),
    (prop(0x66031003, [struct.pack("<I", 1), struct.pack("<I", 7)]), 0x66031003, [1, 7]),
    (prop(0x6604101E, [b"a\0", b"b\0"]), 0x6604101E, ["a", "b"]),
    (prop(0x8000001E, b"Room 1\0", named=(APPOINTMENT.bytes_le, 0x8208)), "PidLidLocation", "Room 1"),
]


@pytest.fixture(scope="module")
def typed():
    m = tnef.open(stream(record(1, att_MAPIProps, props(*[p for p, _, _ in TYPED]))))
    yield m
    m.close()


@pytest.mark.parametrize("key,expected", [(k, v) for _, k, v in TYPED], ids=lambda x: repr(x)[:30])
def test_property_values_are_typed(typed, key, expected):
    value = typed.properties[key]
    assert value == expected and type(value) is type(expected)
    if isinstance(value, dt.datetime):
        assert value.tzinfo is not None


def test_named_property_keeps_its_identity(typed):
    p = typed.properties.property("PidLidLocation")
    assert (p.set, p.lid, p.name, p.type_name) == (APPOINTMENT, 0x8208, "PidLidLocation", "PT_STRING8")
    assert len(typed.properties) == len(TYPED) and "PR_BODY" not in typed.properties


def test_sample(tmp_path):
    with tnef.open(SAMPLE) as m:
        assert (m.subject, m.message_class, m.warnings) == ("Quarterly report", "IPM.Microsoft Mail.Note", [])
        assert m.sender.email == "reports@example.com"
        rows = [(a.index, a.kind, a.name, a.size, a.mime_type) for a in m.attachments]
        assert rows == [(1, "file", "quarterly report.txt", 65, "text/plain"),
                        (2, "file", "sales chart.png", 69, "image/png")]
        assert m.attachments[1].read()[:8] == b"\x89PNG\r\n\x1a\n"
        assert m.body() == m.body("text") and "the report and the chart" in m.body()
        assert m.body("html") is None
        first = m.extract(tmp_path)
        again = m.extract(tmp_path)
        assert [Path(p).name for p in first + again] == [
            "quarterly report.txt", "sales chart.png", "quarterly report (2).txt", "sales chart (2).png"]
        assert Path(first[0]).read_bytes() == m.attachments[0].read()
        assert m.attachments[0].save(tmp_path, overwrite=True) == first[0]
    assert m.closed and m.subject == "Quarterly report"
    with pytest.raises(ValueError, match="closed"):
        m.attachments[0].read()


@pytest.mark.parametrize("make", [
    lambda: str(SAMPLE), lambda: SAMPLE, lambda: SAMPLE.read_bytes(),
    lambda: bytearray(SAMPLE.read_bytes()), lambda: memoryview(SAMPLE.read_bytes()),
    lambda: open(SAMPLE, "rb"), lambda: io.BytesIO(SAMPLE.read_bytes()),
], ids=["str", "path", "bytes", "bytearray", "memoryview", "file", "bytesio"])
def test_open_takes_paths_bytes_and_files(make):
    with tnef.open(make()) as m:
        assert [a.read() for a in m.attachments] == [a.read() for a in tnef.open(SAMPLE).attachments]


@pytest.mark.parametrize("call,error", [
    (lambda: tnef.open(42), TypeError),
    (lambda: tnef.open(None), TypeError),
    (lambda: tnef.open(io.StringIO("text")), TypeError),
    (lambda: tnef.open(SAMPLE).properties[1.5], TypeError),
    (lambda: tnef.open(SAMPLE).body("pdf"), ValueError),
    (lambda: tnef.open("/nonexistent/winmail.dat"), FileNotFoundError),
    (lambda: tnef.open("/"), IsADirectoryError),
    (lambda: tnef.server.scan(SAMPLE, want="x"), TypeError),
])
def test_bad_calls_raise(call, error):
    import tnef.server  # noqa: F401
    with pytest.raises(error):
        call()


def rend():
    return record(2, att_AttachRenddata, struct.pack("<HIHHI", 1, 0xFFFFFFFF, 0, 0, 0))


def attachment(title, data=b"data"):
    return rend() + record(2, att_AttachTitle, title + b"\0") + record(2, att_AttachData, data)


@pytest.mark.parametrize("title,saved", [
    (b"../../etc/passwd", "passwd"),
    (b"..\\..\\boot.ini", "boot.ini"),
    (b".bashrc", "bashrc"),
    (b"a\x01b\x7f.txt", "ab.txt"),
    (b"caf\xe9.txt", "café.txt"),
    (b"", "attachment-1.dat"),
    (b"x" * 300 + b".txt", "x" * 251 + ".txt"),
])
def test_saved_names_stay_in_their_folder(tmp_path, title, saved):
    with tnef.open(stream(attachment(title))) as m:
        path = m.attachments[0].save(tmp_path / "out")
    assert Path(path) == tmp_path / "out" / saved and Path(path).read_bytes() == b"data"


def test_symlink_is_never_followed(tmp_path):
    (tmp_path / "victim").write_bytes(b"keep")
    (tmp_path / "a.txt").symlink_to(tmp_path / "victim")
    with tnef.open(stream(attachment(b"a.txt"))) as m:
        assert Path(m.attachments[0].save(tmp_path, overwrite=True)).name == "a (2).txt"
    assert (tmp_path / "victim").read_bytes() == b"keep"


HOSTILE = [  # (bytes, error group/reason or the warning expected)
    (b"", (102, 1531)),
    (b"not TNEF at all", (102, 1531)),
    (SIGNATURE, "the file holds no record"),
    (stream(record(1, att_MAPIProps, props(prop(0x00170003, b"\2\0\0\0"), count=0xFFFFFFFF))),
     "a property list could not be read to its end"),
    (stream(record(1, att_MAPIProps, props(struct.pack("<III", 0x66031003, 0x7FFFFFFF, 1)))),
     "a property list could not be read to its end"),
    (stream(record(1, att_RecipTable, struct.pack("<I", 0x7FFFFFFF))), "a count announces more than the data holds"),
    (stream(record(1, att_MAPIProps, props(), length=0x7FFFFFF0)), "the file ends inside a record"),
    (stream(attachment(b"a.txt", b"x" * 100))[:-40], "the file ends inside a record"),
    (stream(record(1, att_MAPIProps, props(prop(0x0037001E, b"Hi\0")))[:-2] + b"\0\0"), "a record's checksum is wrong"),
]


@pytest.mark.parametrize("data,outcome", HOSTILE)
def test_hostile_input_is_an_error_or_a_warning(data, outcome):
    if isinstance(outcome, tuple):
        with pytest.raises(tnef.TnefError) as e:
            tnef.open(data)
        assert (e.value.group, e.value.reason) == outcome and isinstance(e.value, ValueError)
        return
    with tnef.open(data) as m:
        assert outcome in m.warnings
        m.properties, m.recipients, [a.read() for a in m.walk()]


def test_every_prefix_of_the_sample_reads_or_fails_cleanly():
    data = SAMPLE.read_bytes()
    for n in range(len(data)):
        try:
            m = tnef.open(data[:n])
        except tnef.TnefError:
            assert n < 6
            continue
        m.properties, m.recipients, m.body(), [a.read() for a in m.walk()]


def rss_kib():
    with open("/proc/self/status") as f:
        return next(int(line.split()[1]) for line in f if line.startswith("VmRSS:"))


def test_many_opens_keep_memory_flat():
    data = SAMPLE.read_bytes()
    for _ in range(2000):
        tnef.open(data).attachments
    before = rss_kib()
    for _ in range(100_000):
        with tnef.open(data) as m:
            m.attachments, m.properties
    assert rss_kib() - before < 4096


def test_threads_read_alike():
    expected = [a.read() for a in tnef.open(SAMPLE).attachments]
    seen = []

    def work():
        for _ in range(300):
            with tnef.open(SAMPLE) as m:
                seen.append([a.read() for a in m.attachments] == expected and m.properties["PR_IMPORTANCE"] == 2)

    threads = [threading.Thread(target=work) for _ in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert seen == [True] * 1200


# ---- The same as the tool, on every file of the shared corpus ----------------------------

def as_tool_json(p):
    """A property value as `tnefx props --json` writes it."""
    def one(v, t):
        if isinstance(v, bytes):
            return v[:65536].hex()
        if isinstance(v, uuid.UUID):
            return str(v).upper()
        if isinstance(v, dt.datetime):
            return v.strftime("%Y-%m-%dT%H:%M:%SZ")
        if t == 0x000A:
            return f"0x{v & 0xFFFFFFFF:08X}"
        return v
    t = p.type & 0x0FFF
    return [one(v, t) for v in p.value] if p.type & 0x1000 else one(p.value, t)


def comparable(props_list, tool_list):
    assert len(props_list) == len(tool_list)
    ours = [{"tag": f"0x{p.tag:08X}", "value": as_tool_json(p)} for p in props_list]
    theirs = [{"tag": j["tag"], "value": j["value"]} for j in tool_list]
    # Times beyond datetime's years come back as their raw count; the tool prints a year.
    keep = [i for i, p in enumerate(props_list)
            if not (isinstance(p.value, int) and (p.type & 0x0FFF) == 0x0040)]
    return [ours[i] for i in keep], [theirs[i] for i in keep]


CORPUS = corpus_files()


@pytest.mark.skipif(not CORPUS, reason="no shared corpus beside the checkout (../shared/corpus or $TNEF_CORPUS)")
@pytest.mark.parametrize("path", CORPUS, ids=[p.name for p in CORPUS])
def test_corpus_file_matches_the_tool(tool, tmp_path, path):
    run = subprocess.run([tool, "--json", "props", str(path), "--attachments", "--recipients"],
                         capture_output=True, text=True)
    try:
        m = tnef.open(path)
    except tnef.TnefError:
        assert run.returncode == 2
        return
    j = json.loads(run.stdout)
    ours = [m.properties.list()] + [a.properties.list() for a in m.attachments] + \
        [r.properties.list() for r in m.recipients]
    theirs = [j["properties"]] + j["attachments"] + j["recipients"]
    assert len(ours) == len(theirs)
    for a, b in zip(ours, theirs):
        mine, tools = comparable(a, b)
        assert mine == tools
    run = subprocess.run([tool, "--json", "extract", str(path), "-C", str(tmp_path / "tool")],
                         capture_output=True, text=True)
    m.extract(tmp_path / "py")
    # The tool's own documents (a calendar, a card) are not attachments.
    attached = [Path(e["path"]) for f in json.loads(run.stdout)["files"] for e in f["extracted"]
                if e["kind"] not in ("body", "converted")]
    py = tmp_path / "py"
    ours = sorted((f.name, f.read_bytes()) for f in py.iterdir()) if py.exists() else []
    assert ours == sorted((f.name, f.read_bytes()) for f in attached)
