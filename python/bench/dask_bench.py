#!/usr/bin/env python3
"""Times the Dask recipe against the tool on a generated archive (docs/performance.md).

    dask_bench.py BUILD_DIR [N]      (BUILD_DIR: build/release; N: 20000 files)

In one run: the tool extracting every file in one process; extract_archive on a
LocalCluster of 2 workers and of 1 worker; the same with a dask-scheduler and 2 dask-worker
processes started by hand; each output compared with the tool's. Then tnef.open + listing
attachments per file against `tnefx list` in one process.
"""

import filecmp
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path


def main():
    build = Path(sys.argv[1]).resolve()
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 20000
    sys.path.insert(0, str(build / "python"))
    import tnef  # noqa: E402
    from tnef.dask import extract_archive  # noqa: E402
    from distributed import Client, LocalCluster  # noqa: E402

    tool = next(p for p in (build / "tools/tnef/tnefx", build / "tools/tnef/tnef") if p.exists())
    work = Path(tempfile.mkdtemp(prefix="tnef-dask-"))
    archive = work / "archive"
    archive.mkdir()
    subprocess.run([str(build / "python/tnef_make_archive"), str(archive), str(count)], check=True)
    names = sorted(os.listdir(archive))
    files = [str(archive / n) for n in names]
    print(f"{count} files, {sum(os.path.getsize(f) for f in files) / 2**20:.1f} MiB, tool {tool.name}")


    def same_tree(a, b):
        c = filecmp.dircmp(a, b)
        if c.left_only or c.right_only:
            return False
        _, mismatch, errors = filecmp.cmpfiles(a, b, c.common_files, shallow=False)
        return not mismatch and not errors


    def timed(label, fn):
        t = time.perf_counter()
        result = fn()
        s = time.perf_counter() - t
        print(f"{label}: {s:.2f} s")
        return s, result


    t_tool, _ = timed("tool extract, one process", lambda: subprocess.run(
        [str(tool), "extract", *names, "-C", str(work / "tool")], cwd=archive,
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))


    def dask_run(label, client, out):
        s, df = timed(label, lambda: extract_archive(files, work / out, client, subfolders=False,
                                                     progress=False).compute())
        failed = int(df.error.notnull().sum())
        print(f"  rows {len(df)}, failures {failed}, identical to the tool: {same_tree(work / 'tool', work / out)}")
        shutil.rmtree(work / out)
        return s


    results = {}
    for workers in (1, 2, 1, 2):
        t0 = time.perf_counter()
        cluster = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=None)
        client = Client(cluster)
        print(f"LocalCluster of {workers} started in {time.perf_counter() - t0:.1f} s")
        results[workers] = min(results.get(workers, 1e9), dask_run(f"extract_archive, LocalCluster of {workers}", client, f"dask{workers}"))
        client.close()
        cluster.close()

    # A real cluster's shape: a scheduler and two worker processes, started by hand.
    port = 8786 + os.getpid() % 1000
    env = dict(os.environ, PYTHONPATH=str(build / "python"))
    procs = [subprocess.Popen(["dask-scheduler", "--port", str(port), "--dashboard-address", ":0"],
                              env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)]
    time.sleep(3)
    for _ in range(2):
        procs.append(subprocess.Popen(["dask-worker", f"tcp://127.0.0.1:{port}", "--nthreads", "1",
                                       "--nworkers", "1", "--dashboard-address", ":0"],
                                      env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
    try:
        with Client(f"tcp://127.0.0.1:{port}") as c:
            c.wait_for_workers(2, timeout=60)
        results["manual"] = dask_run("extract_archive, dask-scheduler + 2 dask-worker", f"tcp://127.0.0.1:{port}", "manual")
    finally:
        for p in reversed(procs):
            p.terminate()
            p.wait()

    print(f"best of two: 2 workers against 1: {results[1] / results[2]:.2f}x; "
          f"2 workers against the tool: {t_tool / results[2]:.2f}x; load {os.getloadavg()[0]:.1f}")

    # Reading: tnef.open + the attachments' names and sizes, per file, against `tnefx list`.
    def py_list():
        for f in files:
            try:
                with tnef.open(f) as m:
                    [(a.name, a.size) for a in m.attachments]
            except tnef.TnefError:
                pass


    t_list, _ = timed("tool list, one process", lambda: subprocess.run(
        [str(tool), "list", *names], cwd=archive, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
    t_py, _ = timed("tnef.open + attachments, one process", py_list)
    print(f"per file: tool {t_list / count * 1e6:.0f} us, Python {t_py / count * 1e6:.0f} us, "
          f"ratio {t_py / t_list:.2f}")
    shutil.rmtree(work)


# Worker processes are started by spawning: they import this file again, which must not
# run the benchmark.
if __name__ == "__main__":
    main()
