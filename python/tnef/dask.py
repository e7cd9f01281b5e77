"""Extract the attachments of a TNEF archive on a Dask cluster.

>>> from tnef.dask import extract_archive
>>> df = extract_archive(glob.glob("archive/**/*.dat", recursive=True), "out")
>>> df[df.error.notnull()].compute()          # the files that failed, one row each

Each task extracts a batch of files on one worker: attachments are copied file to file by
the kernel, never read whole, and a task keeps only its rows, so a worker's memory does not
grow with the archive or with an attachment's size. A file that cannot be read, or an
attachment that cannot be written, becomes a row with ``error`` set; nothing raises.
"""

from __future__ import annotations

import hashlib
import os
from typing import Iterable, List, Optional, Sequence, Union

import pandas as pd

import tnef

__all__ = ["extract_archive", "extract_files", "COLUMNS"]

# One row per attachment written, or per failure.
COLUMNS = {
    "file": "object",        # the TNEF file
    "attachment": "int64",   # its number in the file, as `tnefx list` numbers them (0 on a
                             # file's failure row)
    "name": "object",        # its name as the file gives it
    "kind": "object",        # file, ole, message
    "size": "int64",
    "mime_type": "object",
    "sha256": "object",      # of the bytes written
    "path": "object",        # where they were written
    "warnings": "object",    # the file's warnings, "; " between them ("" when none)
    "error": "object",       # None, or why the file or this attachment failed
}

_CHUNK = 1 << 20


def _sha256(path: str) -> str:
    h = hashlib.sha256()
    with open(path, "rb") as f:  # builtin open: the module's own is tnef.open
        while chunk := f.read(_CHUNK):
            h.update(chunk)
    return h.hexdigest()


def _folder_for(path: str) -> str:
    # Archives hold thousands of files all called winmail.dat: the folder takes the name and
    # a digest of the whole path, stable whatever order the files come in.
    digest = hashlib.sha256(os.path.abspath(path).encode("utf-8", "surrogateescape")).hexdigest()
    return f"{os.path.basename(path)}.{digest[:12]}"


def _failure(file: str, error: BaseException, warnings: str = "", index: int = 0,
             name: Optional[str] = None) -> dict:
    return {"file": file, "attachment": index, "name": name, "kind": None, "size": 0,
            "mime_type": None, "sha256": None, "path": None, "warnings": warnings,
            "error": f"{type(error).__name__}: {error}"}


def extract_files(paths: Sequence[str], out_dir: str, embedded: bool = False,
                  subfolders: bool = True, overwrite: bool = False) -> pd.DataFrame:
    """Extracts the files one after another in this process; the rows as a pandas
    DataFrame. The unit of work of :func:`extract_archive`."""
    rows: List[dict] = []
    for file in paths:
        try:
            message = tnef.open(file)
        except (OSError, ValueError) as e:
            rows.append(_failure(file, e))
            continue
        with message:
            warnings = "; ".join(message.warnings)
            target_dir = os.path.join(out_dir, _folder_for(file)) if subfolders else out_dir
            target = None
            for a in message.walk():
                if a.kind == "none" or (a.kind == "message" and not embedded):
                    continue
                try:
                    if target is None:
                        target = tnef._tnef._Target(target_dir, overwrite)
                    path = target.save(a._a)
                    error = f"attachment {a.index} is cut short" if a.data_cut else None
                    rows.append({"file": file, "attachment": a.index, "name": a.name, "kind": a.kind,
                                 "size": a.size, "mime_type": a.mime_type,
                                 "sha256": _sha256(path), "path": path,
                                 "warnings": warnings, "error": error})
                except (OSError, ValueError) as e:
                    rows.append(_failure(file, e, warnings, a.index, a.name))
    return pd.DataFrame(rows, columns=list(COLUMNS)).astype(COLUMNS)


def _batches(paths: List[str], size: int) -> List[List[str]]:
    return [paths[i:i + size] for i in range(0, len(paths), size)]


def extract_archive(paths: Union[str, Iterable[Union[str, os.PathLike]]], out_dir: Union[str, os.PathLike],
                    client=None, *, files_per_task: int = 200, embedded: bool = False,
                    subfolders: bool = True, overwrite: bool = False, progress: bool = True,
                    n_workers: Optional[int] = None):
    """Extracts the attachments of many TNEF files on a ``dask.distributed`` cluster and
    returns a Dask DataFrame with one row per attachment written (:data:`COLUMNS`) and one
    per failure.

    ``paths``: the files (a list, or a directory to walk); ``out_dir`` must be reachable
    under the same name from every worker (a local disk for a ``LocalCluster``, a shared
    or mounted object file system for a real cluster). With ``subfolders`` each file's
    attachments go into a folder of their own (``<name>.<digest of its path>``), else all
    into ``out_dir``, numbered when names collide, as ``tnefx extract`` does.

    ``client``: a ``distributed.Client`` (the result stays on its cluster, partitions as
    futures), a scheduler address such as ``"tcp://scheduler:8786"``, or None for a
    ``LocalCluster`` of ``n_workers`` single-threaded worker processes (default: one per
    core). For an address or None the result is gathered and the client closed again.
    ``progress`` shows Dask's progress bar.
    """
    from dask import dataframe as dd
    from distributed import Client, LocalCluster, progress as show_progress, wait

    if isinstance(paths, (str, os.PathLike)) and os.path.isdir(paths):
        root = os.fspath(paths)
        files = sorted(os.path.join(d, f) for d, _, fs in os.walk(root) for f in fs)
    elif isinstance(paths, (str, os.PathLike)):
        files = [os.fspath(paths)]
    else:
        files = [os.fspath(p) for p in paths]
    if files_per_task < 1:
        raise ValueError("files_per_task must be at least 1")
    out = os.path.abspath(os.fspath(out_dir))
    os.makedirs(out, exist_ok=True)

    owned = None
    if client is None:
        cluster = LocalCluster(n_workers=n_workers or os.cpu_count() or 1, threads_per_worker=1,
                               processes=True, dashboard_address=None)
        owned = client = Client(cluster)
    elif isinstance(client, str):
        owned = client = Client(client)
    try:
        futures = client.map(extract_files, _batches(files, files_per_task), out_dir=out,
                             embedded=embedded, subfolders=subfolders, overwrite=overwrite,
                             pure=False)
        if progress and futures:
            show_progress(futures)
        else:
            wait(futures)
        meta = pd.DataFrame({k: pd.Series(dtype=v) for k, v in COLUMNS.items()})
        if owned is None:
            return dd.from_delayed(futures, meta=meta) if futures else dd.from_pandas(meta, npartitions=1)
        parts = client.gather(futures)
        frame = pd.concat(parts, ignore_index=True) if parts else meta
        return dd.from_pandas(frame, npartitions=max(1, len(parts)))
    finally:
        if owned is not None:
            cluster = getattr(owned, "cluster", None)
            owned.close()
            if cluster is not None and client is owned and isinstance(cluster, LocalCluster):
                cluster.close()
