"""tnef.dask.extract_archive on a LocalCluster: rows per attachment, failures as rows, and
the same bytes and names as the tool."""

import hashlib
import json
import shutil
import subprocess
from pathlib import Path

import pytest

from conftest import SAMPLE

dask_distributed = pytest.importorskip("distributed", reason="Dask's distributed is not installed")
from tnef.dask import extract_archive  # noqa: E402


@pytest.fixture(scope="module")
def client():
    from distributed import Client, LocalCluster
    cluster = LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None)
    with Client(cluster) as c:
        yield c
    cluster.close()


def test_extract_archive_matches_the_tool(client, tool, tmp_path):
    archive = tmp_path / "archive"
    archive.mkdir()
    for i in range(5):
        shutil.copy(SAMPLE, archive / f"m{i}.dat")
    (archive / "bad.dat").write_bytes(b"not TNEF")
    files = sorted(str(p) for p in archive.iterdir()) + [str(archive / "missing.dat")]

    df = extract_archive(files, tmp_path / "out", client, files_per_task=2, progress=False).compute()
    failed = df[df.error.notnull()].sort_values("file")
    assert [(Path(f).name, e.split(":")[0]) for f, e in zip(failed.file, failed.error)] == [
        ("bad.dat", "TnefError"), ("missing.dat", "FileNotFoundError")]

    ok = df[df.error.isnull()]
    run = subprocess.run([tool, "--json", "extract", *files[:-1], "-C", str(tmp_path / "tool")],
                         capture_output=True, text=True)
    expected = {(f["file"], e["index"], e["name"], hashlib.sha256(Path(e["path"]).read_bytes()).hexdigest())
                for f in json.loads(run.stdout)["files"] for e in f["extracted"]}
    assert set(zip(ok.file, ok.attachment, ok.name, ok.sha256)) == expected and len(ok) == 10
    assert all(hashlib.sha256(Path(p).read_bytes()).hexdigest() == h for p, h in zip(ok.path, ok.sha256))


def test_extract_archive_with_its_own_cluster(tmp_path):
    df = extract_archive([str(SAMPLE)], tmp_path, n_workers=1, subfolders=False, progress=False)
    assert sorted(df.compute().name) == ["quarterly report.txt", "sales chart.png"]
    assert sorted(p.name for p in tmp_path.iterdir()) == ["quarterly report.txt", "sales chart.png"]
