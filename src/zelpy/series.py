"""Histories over a whole measurement, and batch work on a Dask cluster.

A measurement is a series of data files, one per image. :class:`Series`
runs a function over every dataset of a series (:meth:`Series.map`) and
builds on it what engineers report: values at gauge points over the series
(:meth:`Series.probe`), a virtual extensometer (:meth:`Series.extensometer`),
line profiles at chosen stages (:meth:`Series.line_profile`) and statistics
per stage (:meth:`Series.reduce`).

Every operation streams: one dataset is in memory per worker at a time, and
only small results (or encoded bytes) travel back. It runs in this process,
or on ``dask.distributed`` (the ``zelpy[cluster]`` extra) when given an
executor: a ``distributed.Client``, a scheduler address, or ``"local"`` for a
local cluster sized to the machine. Workers receive dataset *names* and read
the files themselves, which assumes they see the same file system as this
process; ``transfer="bytes"`` sends the encoded datasets instead, for workers
that cannot see the files. Nothing is ever written by a worker.
"""

from __future__ import annotations

import atexit
import contextlib
import math
import os
import re
import sys
import threading
import uuid
import warnings

import numpy as np

__all__ = ["Series", "SeriesError", "SeriesInterrupted", "open_executor",
           "short_name", "dataset_number"]

_OUT_NUMBER = re.compile(r"[\-_]([0-9]+)_[0-9]\.out$")
_STATS = ("min", "max", "mean", "std", "median", "count")
_PERCENTILE = re.compile(r"^p(\d{1,2}(?:\.\d+)?|100)$")

CLUSTER_HINT = "pip install \"zelpy[cluster]\""


class SeriesError(RuntimeError):
    """Some datasets of a series could not be processed.

    Raised after every other dataset was processed. ``failures`` maps each
    failed dataset name to its message; ``result`` holds what the operation
    would have returned, with gaps (None in a list, NaN rows in a frame)
    where datasets failed.
    """

    def __init__(self, failures: dict, result=None):
        self.failures = dict(failures)
        self.result = result
        names = list(self.failures)
        shown = "; ".join(self.failures[n] for n in names[:3])
        more = f" (and {len(names) - 3} more)" if len(names) > 3 else ""
        super().__init__(f"{len(names)} dataset(s) failed: {shown}{more}")


class _Refusal(ValueError):
    """What was asked does not fit the data (an unknown variable, a window
    wider than the grid): the caller's mistake, not a problem of one dataset.

    Raised by a per-dataset function. When it comes before any dataset
    succeeded, the run stops and the caller gets it as it is; after one did,
    it is that dataset's failure like any other (see :func:`_outcomes`).
    """


class SeriesInterrupted(KeyboardInterrupt):
    """Ctrl-C stopped a series operation.

    A KeyboardInterrupt, so scripts stop as they always do; ``result`` holds
    what was finished (gaps where datasets were not), and ``done`` counts it.
    """

    def __init__(self, result=None, done: int = 0, total: int = 0):
        super().__init__(f"interrupted; {done} of {total} datasets finished")
        self.result = result
        self.done = done
        self.total = total


# ------------------------------------------------------------------ names

def short_name(name: str) -> str:
    """A dataset name as a user recognises it: the file name, or
    ``file.h5:out:key`` for a member of an HDF5 file."""
    if ":out:" in name:
        path, key = name.split(":out:", 1)
        return f"{os.path.basename(path)}:out:{key}"
    return os.path.basename(name)


def dataset_number(name: str) -> int | None:
    """The image number a dataset name carries (the key of an HDF5 member,
    or INDEX in ``NAME-INDEX_0.out``); None when it carries none."""
    if ":out:" in name:
        key = name.split(":out:", 1)[1]
        return int(key) if key.isdigit() else None
    m = _OUT_NUMBER.search(name)
    return int(m.group(1)) if m else None


# ------------------------------------------------------- optional packages

def _distributed():
    """The ``distributed`` module, or None when it is not installed."""
    try:
        import distributed
    except ImportError:
        return None
    return distributed


def _pandas():
    try:
        import pandas
    except ImportError:
        raise ImportError("series tables need pandas: pip install \"zelpy[series]\"") from None
    return pandas


# ------------------------------------------------- library diagnostics

class _LibraryLines:
    """The error lines the library logged on this thread since creation.

    Read when used, so a handler inside the block already sees the line that
    explains the failure it handles.
    """

    def __init__(self):
        from zelpyx.zelpy import zelpy as core
        self._mark = core.log_error_count()

    def _lines(self) -> list[str]:
        from zelpyx.zelpy import zelpy as core
        return [line.strip() for line in core.log_errors_since(self._mark) if line.strip()]

    def __iter__(self):
        return iter(self._lines())

    def __len__(self):
        return len(self._lines())

    def __getitem__(self, index):
        return self._lines()[index]


@contextlib.contextmanager
def library_messages():
    """The library's own explanation of what fails in the block: its error
    lines, kept per thread whatever the log severity, so a failure message
    can carry them (on a worker thread too, without touching standard
    error)."""
    yield _LibraryLines()


def _detail(exc: BaseException, lines=()) -> str:
    """Why ``exc`` happened: the library's own lines when it logged any
    (they say more than the fixed message of the exception), else the
    exception with its notes."""
    found = list(dict.fromkeys(lines))
    if found:
        return "; ".join(found)
    notes = getattr(exc, "__notes__", None)
    return f"{exc} ({'; '.join(notes)})" if notes else str(exc)


# ------------------------------------------------------------ one dataset

def _read_bytes(name: str) -> bytes:
    """The encoded bytes of a dataset as stored (a file or an HDF5 member),
    read with the checks of a load and failing with its errors."""
    from zelpyx.zelpy import zelpy as core
    return core._dataset_bytes(name)


def _payload(name: str):
    """(bytes, None) to send for a dataset, or (None, why it cannot be read)."""
    lines = ()
    try:
        with library_messages() as lines:
            return _read_bytes(name), None
    except Exception as exc:
        return None, f"{name}: cannot be read: {_detail(exc, lines)}"


def load(name: str, payload: bytes | None = None):
    """A ZelDataSet from its name, or from ``payload`` (its encoded bytes)."""
    from zelpyx.zelpy import zelpy as core

    if payload is not None:
        ds = core.ZelDataSet()
        ds.load_from_data(payload, name)
        return ds
    return core._load_dataset(name)


def _on_worker() -> str | None:
    """The address of the dask worker running this code, if any."""
    distributed = _distributed()
    if distributed is None:
        return None
    try:
        return distributed.get_worker().address
    except (ValueError, AttributeError):
        return None


def _apply(fn, position: int, name: str, payload):
    """Load one dataset and run ``fn`` on it: (position, ok, result or message).

    Every failure becomes a message naming the dataset, so one bad file never
    stops the others and the report says which file it was.
    """
    stage, lines = "read", ()
    try:
        with library_messages() as lines:
            ds = load(name, payload)
            stage = "run"
            return position, True, fn(ds)
    except _Refusal as exc:
        return position, False, exc
    except Exception as exc:
        if stage == "run":
            text = str(exc)
            extra = [line for line in dict.fromkeys(lines) if line not in text]
            return position, False, f"{name}: {text}" + (f" ({'; '.join(extra)})" if extra else "")
        where = _on_worker()
        if payload is None and where and not os.path.exists(name.split(":out:")[0]):
            return position, False, (
                f"{name}: not found on worker {where} (workers read the files "
                "themselves; without a shared file system send the data with "
                "transfer='bytes' / --transfer bytes)")
        return position, False, f"{name}: cannot be read: {_detail(exc, lines)}"


# --------------------------------------------------------------- executors

_local_lock = threading.Lock()
_local_clients: dict = {}


def _close_local_clusters() -> None:
    for client in list(_local_clients.values()):
        _close_local(client)
    _local_clients.clear()


@contextlib.contextmanager
def _children_ignore_sigint():
    """Start worker processes with Ctrl-C ignored.

    Ctrl-C on a terminal reaches the whole process group; it is this
    process's business to stop the work and close the cluster, and workers
    torn down half-way by the same signal only litter the terminal. A
    process inherits an ignored SIGINT, and Python then leaves it ignored.
    """
    import signal

    if threading.current_thread() is not threading.main_thread():
        yield
        return
    previous = signal.signal(signal.SIGINT, signal.SIG_IGN)
    try:
        yield
    finally:
        signal.signal(signal.SIGINT, previous)


def _share_cores(threads: int):
    """A worker plugin: the library's threaded analyses (strain, smoothing)
    use this worker's share of the cores rather than all of them, so that
    one worker per core does not start a thread per core each; and the
    library's console lines stay off, since they come back folded into each
    dataset's failure message."""
    from distributed.diagnostics.plugin import WorkerPlugin

    class ShareCores(WorkerPlugin):
        idempotent = True

        def setup(self, worker):
            from zelpyx.zelpy import zelpy as core
            core._set_analysis_workers(threads)
            core.set_log_severity(0)

    return ShareCores()


def _start_local(workers: int):
    distributed = _distributed()
    if distributed is None:
        raise ImportError(f"a local cluster needs dask.distributed: {CLUSTER_HINT}")
    import logging
    with _children_ignore_sigint():
        # Every failure that matters comes back as the outcome of a
        # dataset; the workers' own log (heartbeats lost while a cluster
        # shuts down, say) would only litter the terminal.
        cluster = distributed.LocalCluster(
            n_workers=workers, threads_per_worker=1, processes=True,
            host="127.0.0.1", dashboard_address=None, silence_logs=logging.CRITICAL,
            # The scheduler serves HTTP even without a dashboard: on loopback,
            # on a free port, not on 8787 of every interface.
            scheduler_kwargs={"dashboard_address": "127.0.0.1:0"})
    client = None
    try:
        client = distributed.Client(cluster, set_as_default=False)
        client.register_plugin(_share_cores(max(1, (os.cpu_count() or 1) // workers)),
                               name="zelpy-share-cores")
    except BaseException:
        # Nobody else holds the cluster: its worker processes would live
        # until this process ends.
        if client is not None:
            with contextlib.suppress(Exception):
                client.close()
        with contextlib.suppress(Exception):
            cluster.close()
        raise
    return client


def _close_local(client) -> None:
    """Client first, then the cluster, which stops its workers before its
    scheduler."""
    cluster = getattr(client, "cluster", None)
    with contextlib.suppress(Exception):
        client.close()
    if cluster is not None:
        with contextlib.suppress(Exception):
            cluster.close()


def local_client(workers: int | None = None):
    """A client of a local cluster with ``workers`` single-threaded worker
    processes (default: one per core), started on first use and kept for
    the life of the process."""
    workers = workers or os.cpu_count() or 1
    with _local_lock:
        client = _local_clients.get(workers)
        if client is None or client.status not in ("running", "connecting"):
            if client is not None:
                # Closed by the user, or its scheduler died: its cluster's
                # workers may still run.
                _close_local(client)
                del _local_clients[workers]
            client = _start_local(workers)
            if not _local_clients:
                atexit.register(_close_local_clusters)
            _local_clients[workers] = client
    return client


@contextlib.contextmanager
def open_executor(executor=None, workers: int | None = None, keep: bool = True):
    """Resolve an ``executor`` argument; yields a ``distributed.Client`` or
    None (run in this process).

    - None: the client a script made current (``distributed.Client(...)``
      makes itself the default), else this process;
    - ``"inline"``: this process;
    - ``"local"``: a local cluster of ``workers`` processes (default one per
      core), kept for later calls (with ``keep=False``, closed afterwards);
    - a scheduler address such as ``"tcp://10.0.0.5:8786"``: a client of
      that cluster, closed afterwards;
    - a ``distributed.Client``: used as it is.
    """
    if executor is None:
        distributed = _distributed()
        client = None
        if distributed is not None:
            with contextlib.suppress(ValueError):
                client = distributed.default_client()
        yield client
        return
    if isinstance(executor, str):
        if executor == "inline":
            yield None
            return
        if executor == "local":
            if keep:
                yield local_client(workers)
                return
            client = _start_local(workers or os.cpu_count() or 1)
            try:
                yield client
            finally:
                _close_local(client)
            return
        distributed = _distributed()
        if distributed is None:
            raise ImportError(f"a scheduler address needs dask.distributed: {CLUSTER_HINT}")
        import logging
        logging.getLogger("distributed").setLevel(logging.ERROR)
        try:
            client = distributed.Client(executor, set_as_default=False, timeout=30)
        except OSError as exc:
            raise OSError(f"cannot reach the scheduler at {executor}: {exc}") from None
        try:
            yield client
        finally:
            client.close()
        return
    if hasattr(executor, "submit") and hasattr(executor, "gather"):
        yield executor
        return
    raise TypeError("executor must be None, 'inline', 'local', a scheduler address "
                    f"or a distributed.Client, not {type(executor).__name__}")


def _outcomes(fn, items, client, transfer: str, tick=None):
    """Run ``fn`` over ``items`` ((position, name) pairs; a position may
    be any key the caller likes); yields (position, ok, result or message)
    as datasets finish.

    On a cluster only a few datasets are in flight at a time, so results and
    sent bytes never pile up; leaving the generator early (Ctrl-C, an error
    in the caller) cancels what is still queued. A :class:`_Refusal` from
    ``fn`` before any dataset succeeded ends the run and is raised here.
    """
    if transfer not in ("names", "bytes"):
        raise ValueError(f"transfer must be 'names' or 'bytes', not {transfer!r}")
    items = list(items)
    names = dict(items)
    succeeded = False
    with contextlib.closing(_each_outcome(fn, items, client, transfer, tick)) as outcomes:
        for position, ok, value in outcomes:
            if isinstance(value, _Refusal):
                if not succeeded:
                    raise _Refusal(str(value))
                value = f"{names[position]}: {value}"
            succeeded = succeeded or ok
            yield position, ok, value


def _each_outcome(fn, items, client, transfer: str, tick=None):
    if client is None:
        for position, name in items:
            payload = failure = None
            if transfer == "bytes":
                payload, failure = _payload(name)
            outcome = (position, False, failure) if failure else _apply(
                fn, position, name, payload)
            if tick:
                tick()
            yield outcome
        return

    distributed = _distributed()
    try:
        threads = max(1, sum(client.nthreads().values()))
    except Exception:
        threads = 2
    # Enough in flight that no worker waits for the next dataset while a
    # result travels back, few enough that results never pile up.
    slots = 4 * threads + 2
    queue = iter(items)
    running: dict = {}
    # One copy of the function per worker, shared by its tasks, so that what
    # it learns on one dataset (a probe's locations) serves the next.
    shared = client.scatter(fn, broadcast=True, hash=False)
    # Results come back with the completion, in the client's own thread,
    # instead of one more round trip per dataset.
    completed = distributed.as_completed(loop=client.loop, with_results=True,
                                         raise_errors=False)
    tag = uuid.uuid4().hex[:8]

    def submit() -> tuple | None:
        """Send the next dataset; an outcome when it fails before leaving."""
        position, name = next(queue)
        payload = None
        if transfer == "bytes":
            data, failure = _payload(name)
            if failure:
                return position, False, failure
            payload = client.scatter(data, hash=False)
        future = client.submit(_apply, shared, position, name, payload,
                               key=f"zelpy-{tag}-{position}", pure=False)
        running[future.key] = (future, position, name, payload)
        completed.add(future)
        return None

    try:
        exhausted = False
        while True:
            while not exhausted and len(running) < slots:
                try:
                    early = submit()
                except StopIteration:
                    exhausted = True
                    break
                if early is not None:
                    if tick:
                        tick()
                    yield early
            if not running:
                break
            future, outcome = next(completed)
            _, position, name, payload = running.pop(future.key)
            if isinstance(outcome, BaseException) or future.status != "finished":
                # Only a worker that died (or was killed) gets here; the
                # function's own errors come back as messages.
                outcome = (position, False, f"{name}: worker failed: "
                           f"{type(outcome).__name__}: {outcome}")
            if payload is not None:
                payload.release()
            future.release()
            if tick:
                tick()
            yield outcome
    finally:
        if running:
            with contextlib.suppress(Exception):
                client.cancel([entry[0] for entry in running.values()])
        with contextlib.suppress(Exception):
            shared.release()


# -------------------------------------------------------------- progress

class _NoBar:
    def update(self, n=1):
        pass

    def close(self):
        pass


def progress_bar(total: int, desc: str, show=None, stream=None):
    """A tqdm bar on standard error; by default only on a terminal."""
    stream = stream or sys.stderr
    if show is None:
        show = bool(getattr(stream, "isatty", lambda: False)())
    if not show:
        return _NoBar()
    try:
        from tqdm import tqdm
    except ImportError:
        return _NoBar()
    return tqdm(total=total, desc=desc, unit="dataset", file=stream, dynamic_ncols=True)


# ----------------------------------------------------- per-dataset functions
# Module-level classes rather than closures: they travel to workers by
# reference, and a worker imports zelpy.series to run them.

def _require(ds, variables) -> None:
    """A variable the dataset lacks is a mistake in what was asked: checked
    on every dataset (none is read twice for it), refused on the first."""
    if not ds.num_data():
        return   # nothing to look in; the dataset answers with NaN
    first = ds.data(0)   # whose names ds.variables() lists
    for v in variables:
        if first.variable_index(v) < 0:
            raise _Refusal("Could not find variable " + v)


def _valid(ds) -> np.ndarray:
    from zelpy.export import valid_mask
    return valid_mask(ds)


class _Reduce:
    def __init__(self, variables, stats):
        self.variables = list(variables)
        self.stats = list(stats)

    def __call__(self, ds) -> np.ndarray:
        _require(ds, self.variables)
        values = ds.get_values(self.variables)
        valid = _valid(ds)
        out = np.full((len(self.variables), len(self.stats)), np.nan)
        for i, v in enumerate(self.variables):
            column = values[v].astype(np.float64)
            column = column[valid & np.isfinite(column)]
            for j, stat in enumerate(self.stats):
                out[i, j] = _statistic(column, stat)
        return out


_POSITION = ("X", "Y", "Z")
_DISPLACEMENT = ("U", "V", "W")


def _mesh_state(ds, pixel: bool):
    """What a look-up in ``ds`` reads: (layout, arrays). ``layout`` holds the
    grid shapes and which variables the mesh of each AOI is built from;
    ``arrays`` per AOI the flat x and y coordinates and the validity of its
    points, None for an AOI without a mesh. Both None when the look-up
    refuses an AOI (and so finds nothing in the dataset)."""
    from zelpyx.zelpy import zelpy as core

    inputs = core._mesh_inputs(ds, pixel)
    if any(used is False for used in inputs):
        return None, None
    shapes, arrays = [], []
    for n, used in enumerate(inputs):
        aoi = ds.data(n)
        shapes.append((aoi.num_rows(), aoi.num_columns()))
        if used is None:
            arrays.append(None)
            continue
        x, y, confidence = (aoi.variable_view(i, writable=False).reshape(-1) for i in used)
        arrays.append((x, y, confidence >= 0))
    return (tuple(shapes), tuple(inputs)), arrays


# Cells x positions tested before a probe locates every position afresh.
_CHECK_BUDGET = 1 << 22


def _cells_moved(old, new, rows: int, columns: int):
    """The grid cells a change of coordinates or validity between two states
    of one AOI touches (their top-left point indices), and the state to keep
    for the next comparison: ``old``'s arrays where they are equal, copies of
    ``new``'s where they differ (the dataset goes)."""
    kept, moved = [], []
    for was, now in zip(old, new):
        a, b = was, now
        if a.dtype == np.float32:
            # Bit patterns, so that a NaN equals itself. Coordinates usually
            # stay as they were: one pass, two values to a word, tells so.
            whole = np.uint64 if a.size % 2 == 0 else np.uint32
            if np.array_equal(a.view(whole), b.view(whole)):
                kept.append(was)
                continue
            a, b = a.view(np.uint32), b.view(np.uint32)
        points = np.flatnonzero(a != b)
        kept.append(now.copy() if points.size else was)
        moved.append(points)
    if not moved:
        return np.zeros(0, dtype=np.int64), tuple(kept)
    r, c = np.divmod(np.concatenate(moved), columns)
    a, b = np.concatenate([r - 1, r - 1, r, r]), np.concatenate([c - 1, c, c - 1, c])
    keep = (a >= 0) & (a < rows - 1) & (b >= 0) & (b < columns - 1)
    return np.unique(a[keep] * columns + b[keep]), tuple(kept)


def _in_cells(points: np.ndarray, states, corners: np.ndarray) -> np.ndarray:
    """Which points lie, in any of the ``states`` of one AOI, in the box of
    the valid corners of a cell (``corners``: 4 x cells), with a margin
    above the rounding of the containment test; a cell without valid corners
    holds nothing."""
    ok = np.concatenate([valid[corners] for _, _, valid in states], axis=1)
    xs = np.where(ok, np.concatenate([x[corners] for x, _, _ in states], axis=1), np.nan)
    ys = np.where(ok, np.concatenate([y[corners] for _, y, _ in states], axis=1), np.nan)
    lo_x, hi_x = np.fmin.reduce(xs, axis=0), np.fmax.reduce(xs, axis=0)
    lo_y, hi_y = np.fmin.reduce(ys, axis=0), np.fmax.reduce(ys, axis=0)
    margin = 1e-6 * (np.abs(lo_x) + np.abs(hi_x) + np.abs(lo_y) + np.abs(hi_y)) + 1e-12
    px, py = points[:, :1], points[:, 1:]
    inside = ((px >= lo_x - margin) & (px <= hi_x + margin)
              & (py >= lo_y - margin) & (py <= hi_y + margin))
    return inside.any(axis=1)


class _Probe:
    """Values of variables at fixed positions: (points, variables), NaN
    where a position has no value.

    A look-up is the search for the triangle that holds the position
    followed by an interpolation in it. The search reads only the
    coordinates and validity of the grid points, and a position can only be
    held by a triangle of a cell whose valid corners surround it. So from
    one dataset to the next of the same grid, only positions within the box
    of the valid corners of a cell that changed (a point moved, lost or
    regained its validity), in its old or its new state, are located again;
    every other keeps its triangle, or stays outside the mesh. The result is
    that of ``at_global_xy`` / ``lookup_variables`` on each dataset itself,
    at the cost of one comparison of the coordinates per dataset.
    """

    def __init__(self, points, variables, space="global"):
        self.points = [(float(x), float(y)) for x, y in points]
        self.variables = list(variables)
        self.space = space
        self._forget()
        self._lock = threading.Lock()

    def _forget(self):
        self._layout = self._arrays = None
        self._located: list = [None] * len(self.points)

    def __getstate__(self):
        # Locations belong to the process that found them.
        state = dict(self.__dict__)
        state.update(_layout=None, _arrays=None, _located=[None] * len(self.points))
        del state["_lock"]
        return state

    def __setstate__(self, state):
        self.__dict__.update(state)
        self._lock = threading.Lock()

    def __call__(self, ds) -> np.ndarray:
        _require(ds, self.variables)
        # A worker with several threads shares one instance between them.
        with self._lock:
            return self._reusing(ds)

    def _stale(self, layout, arrays):
        """The positions whose location may differ in a dataset of this
        layout and these arrays from the one they were located in, and the
        arrays to compare the next dataset with (None: as before)."""
        everything = list(range(len(self.points)))
        if layout is None:
            return everything, None
        if layout != self._layout:
            return everything, [None if a is None else tuple(v.copy() for v in a) for a in arrays]
        points = np.asarray(self.points, dtype=np.float64).reshape(-1, 2)
        stale = np.zeros(len(points), dtype=bool)
        kept, changed = [], False
        for (rows, columns), old, new in zip(layout[0], self._arrays, arrays):
            if new is None:
                kept.append(None)
                continue
            cells, state = _cells_moved(old, new, rows, columns)
            kept.append(state)
            if not cells.size:
                continue
            changed = True
            if cells.size * len(points) > _CHECK_BUDGET:
                stale[:] = True
                continue
            corners = cells + np.array([[0], [1], [columns], [columns + 1]])
            stale |= _in_cells(points, (old, new), corners)
        return np.flatnonzero(stale).tolist(), kept if changed else None

    def _reusing(self, ds) -> np.ndarray:
        pixel = self.space == "pixel"
        layout, arrays = _mesh_state(ds, pixel)
        stale, kept = self._stale(layout, arrays)
        # One tree per dataset pays off from a few positions on; a single
        # position is found faster by the plain search.
        use_tree = len(stale) > 2
        for i in stale:
            self._located[i] = ds._locate(*self.points[i], pixel, use_tree)
        if layout is None:
            self._forget()
        elif kept is not None:
            # Every location now holds for this dataset: the next one is
            # compared with it.
            self._layout, self._arrays = layout, kept
        out = np.full((len(self.points), len(self.variables)), np.nan)
        for i, location in enumerate(self._located):
            if location is not None:
                found = ds._interpolate(location, self.variables)
                if found is not None:
                    out[i] = found
        return out


class _Extensometer:
    """Per pair of reference positions: L0, L, L - L0 and (L - L0) / L0,
    from the interpolated reference and deformed (X + U) positions."""

    def __init__(self, pairs):
        self.pairs = [tuple(map(float, a)) + tuple(map(float, b)) for a, b in pairs]
        self._probe = None

    def __call__(self, ds) -> np.ndarray:
        have = set(ds.variables())
        names = [v for v in _POSITION + _DISPLACEMENT if v in have]
        if not {"X", "Y", "U", "V"} <= set(names):
            raise ValueError("an extensometer needs the variables X, Y, U and V")
        if self._probe is None or self._probe.variables != names:
            ends = [p[:2] for p in self.pairs] + [p[2:] for p in self.pairs]
            self._probe = _Probe(ends, names)
        values = self._probe(ds)
        n = len(self.pairs)
        ref = np.zeros((2 * n, 3))
        moved = np.zeros((2 * n, 3))
        for k, (axis, disp) in enumerate(zip(_POSITION, _DISPLACEMENT)):
            if axis in names:
                ref[:, k] = values[:, names.index(axis)]
            if disp in names:
                moved[:, k] = values[:, names.index(disp)]
        moved += ref
        length0 = np.linalg.norm(ref[n:] - ref[:n], axis=1)
        length = np.linalg.norm(moved[n:] - moved[:n], axis=1)
        with np.errstate(invalid="ignore", divide="ignore"):
            return np.column_stack([length0, length, length - length0,
                                    (length - length0) / length0])


class _LineProfile:
    """Values at steps + 1 evenly spaced positions from a to b: columns s
    (distance from a), X, Y, then the variables."""

    def __init__(self, a, b, steps, variables):
        self.a, self.b = np.asarray(a, float), np.asarray(b, float)
        self.steps = int(steps)
        self.variables = list(variables)
        self._probe = _Probe(self.samples(), self.variables)

    def samples(self) -> np.ndarray:
        t = np.linspace(0.0, 1.0, self.steps + 1)
        return self.a + t[:, None] * (self.b - self.a)

    def __call__(self, ds) -> np.ndarray:
        where = self.samples()
        values = self._probe(ds)
        s = np.linalg.norm(where - self.a, axis=1)
        return np.column_stack([s, where, values])


def _statistic(values: np.ndarray, stat: str) -> float:
    if stat == "count":
        return float(values.size)
    if values.size == 0:
        return math.nan
    if stat in ("min", "max", "mean", "std", "median"):
        return float(getattr(np, stat)(values))
    return float(np.percentile(values, float(_PERCENTILE.match(stat).group(1))))


def _check_stats(stats) -> list[str]:
    stats = [stats] if isinstance(stats, str) else list(stats)
    for stat in stats:
        if stat not in _STATS and not _PERCENTILE.match(stat):
            raise ValueError(f"unknown statistic '{stat}' (choose from "
                             f"{', '.join(_STATS)} or a percentile such as p95)")
    if not stats:
        raise ValueError("no statistic asked for")
    return stats


# ------------------------------------------------------------------ Series

class Series:
    """The datasets of one measurement, in order, for operations over all
    of them.

    ``source`` is anything ``ZelDataSetReader`` accepts (a directory, a
    ``.out`` file, a glob pattern, an HDF5 file, a project, or a list of
    these), or a reader; the datasets keep the reader's order.

    ``analog`` gives values per dataset to plot against (load, time): a
    sequence of numbers, a dict of columns (name -> sequence; the dict of
    ``ProjectFile.get_analog_data_csv()`` fits as it is, its "header" key
    naming the columns), or a pandas DataFrame. Rows are matched to datasets
    in order when there are as many rows as datasets; otherwise by image
    number (row k belongs to the dataset numbered k). With a project as
    ``source``, ``analog=True`` reads the project's own analog data.

    ``executor`` is the default of every operation (see :meth:`map`).
    """

    def __init__(self, source, analog=None, executor=None):
        import zelpy

        if isinstance(source, zelpy.ZelDataSetReader):
            reader = source
        else:
            # Nothing here writes: an HDF5 file open in a viewer, or
            # write-protected, is still read.
            reader = zelpy.ZelDataSetReader(source, read_only=True)
        self.reader = reader
        self.names = list(reader.get_dataset_list())
        numbers = [dataset_number(n) for n in self.names]
        if None in numbers or len(set(numbers)) != len(numbers):
            numbers = list(range(len(self.names)))
        self.numbers = numbers
        self.executor = executor
        if analog is True:
            analog = self._project_analog(source)
        self.analog = self._match_analog(analog) if analog is not None else None

    # ------------------------------------------------------------ basics

    def __len__(self) -> int:
        return len(self.names)

    def __getitem__(self, position: int):
        """The dataset at ``position`` (negative counts from the end)."""
        return load(self.names[position])

    def __iter__(self):
        """The datasets in order, loaded one at a time."""
        for name in self.names:
            yield load(name)

    def __repr__(self) -> str:
        where = self.reader.get_data_source() or (self.names[0] if self.names else "")
        return f"<Series of {len(self)} datasets from {where}>"

    def index(self, stages=None):
        """The pandas index of the result tables: (number, dataset)."""
        pd = _pandas()
        positions = self._positions(stages)
        return pd.MultiIndex.from_arrays(
            [[self.numbers[p] for p in positions],
             [short_name(self.names[p]) for p in positions]],
            names=["number", "dataset"])

    # ------------------------------------------------------------ analog

    @staticmethod
    def _project_analog(source):
        import zelpy

        path = os.fspath(source) if isinstance(source, (str, os.PathLike)) else None
        if not path or not path.endswith(".z3d"):
            raise ValueError("analog=True needs a .z3d project as the source")
        return zelpy.ProjectFile(path).get_analog_data_csv()

    def _match_analog(self, analog):
        pd = _pandas()
        if isinstance(analog, pd.DataFrame):
            frame = analog.reset_index(drop=True)
        elif isinstance(analog, dict):
            columns = analog.get("header") or [k for k in analog if k != "header"]
            frame = pd.DataFrame({c: list(analog[c]) for c in columns})
        else:
            frame = pd.DataFrame({"analog": list(np.asarray(analog).ravel())})
        # CSV columns arrive as text; numbers become numbers, the rest stays.
        for column in frame.columns:
            converted = pd.to_numeric(frame[column], errors="coerce")
            if converted.notna().sum() == frame[column].notna().sum():
                frame[column] = converted
        n = len(self.names)
        if len(frame) == n:
            rows = list(range(n))
        elif len(frame) > max(self.numbers, default=-1):
            rows = list(self.numbers)
        else:
            raise ValueError(f"the analog data has {len(frame)} rows for {n} datasets "
                             f"(numbered up to {max(self.numbers, default=0)})")
        frame = frame.iloc[rows].reset_index(drop=True)
        frame.index = self.index()
        return frame

    def x_values(self, axis: str | None, stages=None):
        """The x axis a history is plotted against: ``None`` or "number"
        (the image number), "index" (the position in the series), or
        "analog:COLUMN" (a column of the analog data; COLUMN may leave out a
        unit in square brackets, so "analog:force" finds "force [kN]").
        Returns (label, values)."""
        positions = self._positions(stages)
        if axis in (None, "number"):
            return "image number", np.array([self.numbers[p] for p in positions], float)
        if axis == "index":
            return "index", np.array(positions, dtype=float)
        if axis.startswith("analog:"):
            if self.analog is None:
                raise ValueError("the series has no analog data")
            column = _find_column(self.analog.columns, axis[len("analog:"):])
            return str(column), self.analog[column].to_numpy()[positions].astype(float)
        raise ValueError(f"unknown x axis '{axis}' (number, index or analog:COLUMN)")

    # ------------------------------------------------------------- map

    def _positions(self, stages) -> list[int]:
        n = len(self.names)
        if stages is None:
            return list(range(n))
        if isinstance(stages, (int, np.integer)):
            stages = [stages]
        out = []
        for s in stages:
            s = int(s)
            if not -n <= s < n:
                raise IndexError(f"stage {s} outside the series of {n} datasets")
            out.append(s % n)
        return out

    def map(self, fn, *, stages=None, executor=None, transfer: str = "names",
            errors: str = "raise", progress=None, desc: str = "series") -> list:
        """``fn(dataset)`` for every dataset (or the positions ``stages``), in
        series order.

        ``executor``: None uses the current ``distributed`` client if a
        script made one, else this process; ``"inline"``, ``"local"`` (a
        local cluster sized to the machine), a scheduler address or a
        ``distributed.Client`` choose explicitly. On a cluster ``fn`` must be
        picklable (cloudpickle also takes lambdas and closures) and zelpy
        installed on the workers, and its results travel back, so they
        should be small. ``transfer="names"`` lets workers read the files
        (a shared file system); ``"bytes"`` sends them each dataset.

        A dataset that fails (unreadable, or ``fn`` raises) does not stop
        the others. ``errors="raise"`` then raises :class:`SeriesError` at
        the end, naming each failed file, with the results in ``.result``
        (None where it failed); ``"warn"`` issues one warning per failed
        file and returns the results with None; ``"ignore"`` returns them
        silently. Ctrl-C raises :class:`SeriesInterrupted`, which carries
        what was finished. A progress bar is shown on a terminal
        (``progress=True``/``False`` to force it).
        """
        if errors not in ("raise", "warn", "ignore"):
            raise ValueError(f"errors must be 'raise', 'warn' or 'ignore', not {errors!r}")
        positions = self._positions(stages)
        results = [None] * len(positions)
        failures: dict = {}
        done = 0
        bar = progress_bar(len(positions), desc, progress)
        try:
            with open_executor(executor if executor is not None else self.executor) as client:
                # Keyed by the place in the list: a stage asked for twice
                # is run, and answered, twice.
                items = [(i, self.names[p]) for i, p in enumerate(positions)]
                for i, ok, value in _outcomes(fn, items, client, transfer, bar.update):
                    if ok:
                        results[i] = value
                        done += 1
                    else:
                        failures[self.names[positions[i]]] = value
                        if errors == "warn":
                            warnings.warn(value, RuntimeWarning, stacklevel=2)
        except KeyboardInterrupt:
            raise SeriesInterrupted(results, done, len(positions)) from None
        except _Refusal as exc:
            raise ValueError(str(exc)) from None
        finally:
            bar.close()
        if failures and errors == "raise":
            raise SeriesError(failures, results)
        return results

    def _table(self, fn, stages, build, options):
        """map, with the result lists turned into a table also when the map
        fails or is interrupted part-way."""
        try:
            results = self.map(fn, stages=stages, **options)
        except (SeriesError, SeriesInterrupted) as exc:
            exc.result = build(exc.result)
            raise
        return build(results)

    # ------------------------------------------------------------ reduce

    def reduce(self, variables, stats=("min", "max", "mean", "std"), *,
               stages=None, **options):
        """Statistics of each variable over the valid points of each dataset.

        Valid points are those whose AOI confidence is >= 0 and whose value
        is finite, over all AOIs. ``stats`` from "min", "max", "mean",
        "std" (population, ddof 0), "median", "count" and percentiles
        "p5" ... "p99". A dataset without valid points gives NaN (count 0).

        Returns a DataFrame indexed by (number, dataset) with columns
        (variable, statistic). Options as for :meth:`map`.
        """
        pd = _pandas()
        variables = [variables] if isinstance(variables, str) else list(variables)
        stats = _check_stats(stats)
        columns = pd.MultiIndex.from_product([variables, stats], names=["variable", "statistic"])
        width = len(variables) * len(stats)

        def build(results):
            rows = [np.full(width, np.nan) if r is None else np.asarray(r).ravel()
                    for r in results]
            data = np.vstack(rows) if rows else np.zeros((0, width))
            return pd.DataFrame(data, index=self.index(stages), columns=columns)

        options.setdefault("desc", "reduce")
        return self._table(_Reduce(variables, stats), stages, build, options)

    # ------------------------------------------------------------ probe

    def probe(self, points, variables, space: str = "global", *, stages=None, **options):
        """Values of ``variables`` at fixed positions in every dataset.

        ``points``: (x, y) pairs, or a dict label -> (x, y). With
        ``space="global"`` they are reference global positions (X, Y, in the
        coordinate unit), with ``"pixel"`` reference pixel positions (x, y).
        Values are interpolated linearly inside the triangle of the grid
        that holds the position (``ZelDataSet.at_global_xy`` /
        ``lookup_variables``); NaN where there is none (outside the AOIs,
        in a hole, next to an invalid point).

        Returns a DataFrame indexed by (number, dataset) with columns
        (point, variable). Options as for :meth:`map`.
        """
        pd = _pandas()
        if space not in ("global", "pixel"):
            raise ValueError(f"space must be 'global' or 'pixel', not {space!r}")
        labels, where = _points(points)
        variables = [variables] if isinstance(variables, str) else list(variables)
        columns = pd.MultiIndex.from_product([labels, variables], names=["point", "variable"])
        options.setdefault("desc", "probe")
        return self._table(_Probe(where, variables, space), stages,
                           lambda results: self._frame(results, columns, stages), options)

    def _frame(self, results, columns, stages):
        pd = _pandas()
        width = len(columns)
        rows = [np.full(width, np.nan) if r is None else np.asarray(r, float).ravel()
                for r in results]
        data = np.vstack(rows) if rows else np.zeros((0, width))
        return pd.DataFrame(data, index=self.index(stages), columns=columns)

    def extensometer(self, a, b, *, stages=None, **options):
        """A virtual extensometer between the reference global positions
        ``a`` and ``b`` (each (X, Y)).

        In every dataset the reference positions (X, Y, Z) and the deformed
        positions (X + U, Y + V, Z + W) are interpolated at ``a`` and ``b``;
        planar data without Z, W uses 0. Returns a DataFrame indexed by
        (number, dataset) with columns "L0" (reference length), "length"
        (deformed length L), "change" (L - L0, in the coordinate unit) and
        "strain" (engineering strain (L - L0) / L0); NaN where an end has
        no value. Options as for :meth:`map`.
        """
        pd = _pandas()
        columns = pd.Index(["L0", "length", "change", "strain"])
        options.setdefault("desc", "extensometer")
        return self._table(_Extensometer([(a, b)]), stages,
                           lambda results: self._frame(results, columns, stages), options)

    def line_profile(self, a, b, steps: int, variables, stages=-1, **options):
        """Values of ``variables`` along the straight line from ``a`` to
        ``b`` (reference global positions), at ``steps`` + 1 evenly spaced
        samples, in the datasets ``stages`` (positions in the series;
        default the last).

        Returns a long DataFrame indexed by (number, dataset, sample) with
        columns "s" (distance from ``a``), "X", "Y" and the variables; NaN
        where a sample has no value. Options as for :meth:`map`.
        """
        pd = _pandas()
        if int(steps) < 1:
            raise ValueError(f"steps must be at least 1, got {steps}")
        variables = [variables] if isinstance(variables, str) else list(variables)
        job = _LineProfile(a, b, steps, variables)
        samples = int(steps) + 1
        positions = self._positions(stages)

        def build(results):
            width = 3 + len(variables)
            blocks = [np.full((samples, width), np.nan) if r is None else r for r in results]
            if blocks and any(r is None for r in results):
                where = job.samples()
                for block, r in zip(blocks, results):
                    if r is None:
                        block[:, 0] = np.linalg.norm(where - job.a, axis=1)
                        block[:, 1:3] = where
            data = np.vstack(blocks) if blocks else np.zeros((0, width))
            index = pd.MultiIndex.from_arrays(
                [np.repeat([self.numbers[p] for p in positions], samples),
                 np.repeat([short_name(self.names[p]) for p in positions], samples),
                 np.tile(np.arange(samples), len(positions))],
                names=["number", "dataset", "sample"])
            return pd.DataFrame(data, index=index, columns=["s", "X", "Y", *variables])

        options.setdefault("desc", "profile")
        return self._table(job, positions, build, options)


def _points(points):
    """Labels and (x, y) of probe points given as pairs or a dict label ->
    pair."""
    if isinstance(points, dict):
        items = list(points.items())
    else:
        points = list(points)
        if len(points) == 2 and all(np.isscalar(v) for v in points):
            points = [points]
        items = [(f"({_g(x)}, {_g(y)})", (x, y)) for x, y in points]
    labels = [str(label) for label, _ in items]
    if len(set(labels)) != len(labels):
        raise ValueError("probe points must be distinct")
    return labels, [(float(x), float(y)) for _, (x, y) in items]


def _g(value) -> str:
    return f"{float(value) + 0.0:g}"   # never "-0"


def _find_column(columns, wanted: str):
    if wanted in columns:
        return wanted
    for column in columns:
        if str(column).split("[")[0].strip() == wanted:
            return column
    raise ValueError(f"no analog column '{wanted}' (available: "
                     f"{', '.join(map(str, columns))})")
