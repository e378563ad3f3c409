"""The ``zelpy`` command: batch work on series of measurement data files.

Every subcommand reports problems as one line on standard error and a
non-zero exit status: 1 when something failed (a source that cannot be read,
an unknown variable, some datasets that could not be processed), 2 for a
command line that does not parse, 130 when interrupted with Ctrl-C.
"""

from __future__ import annotations

import argparse
import contextlib
import glob
import math
import os
import signal
import sys
import threading

from zelpy.series import _detail, _Refusal, progress_bar

EXIT_FAILED = 1
EXIT_USAGE = 2
EXIT_INTERRUPTED = 130

# Below this many datasets per core, the default runs in this process.
DATASETS_PER_WORKER = 4

TENSORS = {
    "lagrange": "LagrangeStrainTensor",
    "hencky": "HenckyStrainTensor",
    "euler": "EulerStrainTensor",
    "log-euler": "LogarithmicEulerTensor",
    "engineering": "EngineeringStrain",
    "biot": "BiotStrainTensor",
}


class CliError(Exception):
    """A failure that ends the command with one line on standard error."""


class DatasetError(Exception):
    """One dataset failed; the others go on."""


# ----------------------------------------------------------------- helpers

def _say(message: str) -> None:
    """A line on standard error that does not tear a progress bar."""
    try:
        from tqdm import tqdm
        tqdm.write(message, file=sys.stderr)
    except ImportError:
        print(message, file=sys.stderr)


def _library_messages():
    """The library's own explanation of what fails in the block (see
    zelpy.series.library_messages). While a command runs the library's
    console output is off (see main): its lines reach the user folded into
    the command's one-line messages."""
    from zelpy.series import library_messages
    return library_messages()


@contextlib.contextmanager
def _deferred_interrupt():
    """Hold Ctrl-C until the block is done, so no file is left half-written."""
    if threading.current_thread() is not threading.main_thread():
        yield
        return
    caught = []
    previous = signal.signal(signal.SIGINT, lambda signum, frame: caught.append(signum))
    try:
        yield
    finally:
        signal.signal(signal.SIGINT, previous)
    if caught:
        raise KeyboardInterrupt


def _progress(total: int, desc: str, quiet: bool):
    """A progress bar on standard error: on a terminal, unless -q."""
    return progress_bar(total, desc, False if quiet else None)


def _short(name: str) -> str:
    """A dataset name as a user recognises it (file, or file:out:key)."""
    if ":out:" in name:
        path, key = name.split(":out:", 1)
        return f"{os.path.basename(path)}:out:{key}"
    return name


def open_source(source: str, writable: bool = False):
    """A ZelDataSetReader over SOURCE with at least one dataset.

    An HDF5 source is opened for reading only unless the command writes back
    into it, so a write-protected file or one open in another program can
    still be listed, exported and plotted.
    """
    import zelpy

    if not os.path.exists(source) and not glob.glob(source):
        raise CliError(f"{source}: no such file or directory")
    try:
        with _library_messages() as lines:
            reader = zelpy.ZelDataSetReader(source, read_only=not writable)
    except Exception as exc:  # the reader's own classes vary by source kind
        raise CliError(f"{source}: {_detail(exc, lines)}") from None
    if not reader.get_dataset_list():
        raise CliError(f"{source}: no datasets found")
    return reader


def load_dataset(reader, name: str):
    try:
        with _library_messages() as lines:
            return reader.dataset(name)
    except Exception as exc:
        raise DatasetError(f"{name}: cannot be read: {_detail(exc, lines)}") from None


def _pick(reader, index: int) -> str:
    names = reader.get_dataset_list()
    try:
        return names[index]
    except IndexError:
        raise CliError(f"dataset index {index} out of range: the source has "
                       f"{len(names)} dataset(s)") from None


def _source_dir(reader, source: str) -> str:
    where = reader.get_data_source()
    if where and os.path.isfile(where):
        return os.path.dirname(where)
    if where:
        return where
    first = reader.get_dataset_list()[0].split(":out:")[0]
    return os.path.dirname(os.path.abspath(first))


def _finish(command: str, failed: int, total: int) -> int:
    if failed:
        print(f"zelpy {command}: {failed} of {total} datasets failed", file=sys.stderr)
        return EXIT_FAILED
    return 0


def _interrupted(command: str, done: int, total: int) -> int:
    print(f"zelpy {command}: interrupted; {done} of {total} datasets finished, "
          "the others unchanged", file=sys.stderr)
    return EXIT_INTERRUPTED


# -------------------------------------------------------------------- demo

def cmd_demo(args) -> int:
    from zelpy import demo

    try:
        import matplotlib  # noqa: F401
        plot = not args.no_plot
    except ImportError:
        plot = False
        if not args.no_plot:
            print("zelpy demo: matplotlib is not installed, so no plot is made "
                  "(pip install \"zelpy[demo]\")", file=sys.stderr)
    if args.window > args.size:
        raise CliError(f"window {args.window} is larger than the grid ({args.size}x{args.size} "
                       "points); use a smaller --window or a larger --size")
    series = demo.DemoSeries(size=args.size, steps=args.steps, seed=args.seed,
                             max_stress=args.stress)
    bar = _progress(series.steps, "demo", args.quiet)
    try:
        with _library_messages() as lines:
            result = demo.run_demo(args.directory, series, window=args.window,
                                   plot=plot, progress=lambda i, n: bar.update(1))
    except Exception as exc:
        raise CliError(f"demo failed: {_detail(exc, lines)}") from None
    finally:
        bar.close()

    plate = series.plate
    share = 100.0 * result.valid_points / result.points
    print(f"Plate with a central hole (radius {plate.radius:g} mm) under uniaxial "
          f"tension, E = {plate.young / 1000:g} GPa, nu = {plate.poisson:g}")
    print(f"  datasets      {result.datasets} (remote stress 0 to {result.stress:g} MPa)")
    print(f"  points        {result.points} per dataset, {share:.1f} % valid "
          f"(hole and a {series.margin:g} mm margin masked)")
    print(f"  strain        Lagrange, window {result.window}, principal and von Mises")
    print(f"  peak e1       {result.peak_e1:.6f} at X = {result.peak_xy[0]:.2f} mm, "
          f"Y = {result.peak_xy[1]:.2f} mm")
    print(f"  closed form   {result.closed_form_at_peak:.6f} at that point; "
          f"{result.closed_form_peak:.6f} = Kt * S / E = 3 * {result.stress:g} / "
          f"{plate.young:g} at the hole edge")
    print(f"  ratio         {result.peak_e1 / result.closed_form_peak:.3f} of the "
          f"edge value (the edge itself is not measured)")
    print(f"  e2 there      {result.e2_at_peak:.6f}, closed form {result.closed_form_e2:.6f} "
          f"(-3 * nu * S / E = {-3 * plate.poisson * result.stress / plate.young:.6f} "
          f"at the edge)")
    print(f"  wrote         {result.h5_path}")
    print(f"                {result.project_path} (with time, force and stress per image)")
    if result.png_path:
        print(f"                {result.png_path}")
    print(f"  time          {result.seconds:.2f} s")
    return 0


# -------------------------------------------------------------------- info

def _repeated_note(names: list[str], where: str) -> str:
    one = len(names) == 1
    return (f"note: {', '.join(names)} {'occurs' if one else 'occur'} more than once in "
            f"{where}; the first {'' if one else 'of each '}is used, as by every look-up by name")


def cmd_info(args) -> int:
    import numpy as np
    from zelpy.export import repeated_variables, valid_mask

    reader = open_source(args.source)
    names = reader.get_dataset_list()
    detail_name = _pick(reader, args.dataset)
    where = reader.get_data_source() or os.path.abspath(args.source)
    kind = ("HDF5 file" if reader.h5_file_path else
            "directory" if reader.out_directory else "files")
    print(f"{where}: {kind}, {len(names)} dataset(s)")
    failed = 0
    detail = None
    for i, name in enumerate(names):
        try:
            ds = load_dataset(reader, name)
        except DatasetError as exc:
            _say(f"zelpy info: {exc}")
            failed += 1
            continue
        valid = valid_mask(ds)
        grids = ", ".join(f"{ds.data(n).num_rows()}x{ds.data(n).num_columns()}"
                          for n in range(ds.num_data()))
        share = 100.0 * valid.mean() if valid.size else 0.0
        print(f"  [{i}] {_short(name)}: {ds.num_data()} AOI ({grids}), "
              f"{valid.size} points, {share:.1f} % valid")
        if name == detail_name:
            detail = ds
    if detail is not None:
        print(f"variables of [{names.index(detail_name)}] {_short(detail_name)}:")
        valid = valid_mask(detail)
        # A repeated name is listed once, with its first variable: the one
        # get_values and every other look-up by name reach.
        listed = {}
        for v, desc, typ in zip(detail.variables(), detail.variables_descriptions(),
                                detail.variables_types()):
            listed.setdefault(v, (desc, typ))
        values = detail.get_values(list(listed)) if listed else None
        width = max((len(v) for v in listed), default=4)
        for v, (desc, typ) in listed.items():
            col = values[v][valid] if valid.any() else values[v]
            lo, hi = (float(np.min(col)), float(np.max(col))) if col.size else (0.0, 0.0)
            print(f"  {v:<{width}}  {typ.name:<19} {desc!r:<28} "
                  f"[{lo:.6g}, {hi:.6g}]")
        repeated = repeated_variables(detail)
        if repeated:
            print("  " + _repeated_note(repeated, "this dataset"))
    return _finish("info", failed, len(names))


# ------------------------------------------------------------------ strain

def _strain_options(args) -> dict:
    return dict(window_size=args.window, tensor=TENSORS[args.tensor],
                compute_principal_strain=not args.no_principal,
                reuse_variables=not args.no_reuse,
                weighted_filter=not args.unweighted,
                compute_tresca=args.tresca, compute_von_mises=args.von_mises,
                output_gradient=args.gradient)


def _window_problem(ds, window: int) -> str | None:
    """Why WINDOW makes no sense on the grids of DS, or None.

    The library clips the window at the grid border, so a window wider than
    every grid quietly fits one plane to a whole AOI instead of smoothing.
    """
    grids = [(ds.data(n).num_rows(), ds.data(n).num_columns()) for n in range(ds.num_data())]
    if grids and window > max(max(grid) for grid in grids):
        sizes = ", ".join(f"{rows}x{columns}" for rows, columns in grids)
        return (f"window {window} is larger than the grid ({sizes} points): the smoothing "
                "would fit one plane to the whole AOI")
    return None


class _StrainJob:
    """Strain on one dataset; runs in this process or on a cluster worker.

    A worker sends the dataset back encoded (a ZelDataSet does not travel
    as it is); in this process the dataset itself is handed on. A window
    that does not fit the grid is refused here, so that it is said before
    anything is written without reading a dataset twice.
    """

    def __init__(self, options: dict, encode: bool):
        self.options = options
        self.encode = encode

    def __call__(self, ds):
        import zelpy

        problem = _window_problem(ds, self.options["window_size"])
        if problem:
            raise _Refusal(problem)
        opts = dict(self.options)
        opts["tensor_type"] = getattr(zelpy.TensorType, opts.pop("tensor"))
        with _library_messages() as lines:
            try:
                ds.compute_strain(**opts)
            except Exception as exc:
                raise RuntimeError(f"strain failed: {_detail(exc, lines)}") from None
        return ds.export_raw() if self.encode else ds


def _output_directory(path: str, what: str) -> None:
    """Make sure PATH is a directory to write into, creating a new one.

    A new name with a suffix (result.txt, run.h6) is more likely a mistyped
    file name than a wanted directory, so it is refused rather than created.
    """
    if os.path.isdir(path):
        return
    if os.path.exists(path):
        raise CliError(f"{path}: {what}")
    if os.path.splitext(os.path.basename(os.path.normpath(path)))[1]:
        raise CliError(f"{path}: {what} (a new directory is not made for a name with a "
                       "suffix; create it first to use this name)")
    try:
        os.makedirs(path)
    except OSError as exc:
        raise CliError(f"{path}: cannot create the directory: {exc.strerror}") from None


def _new_path(path: str | None) -> str | None:
    """PATH when it does not exist yet: a directory the command makes for
    its output is taken back (see _take_back) when the command is refused
    before writing into it."""
    return path if path is not None and not os.path.exists(path) else None


def _take_back(made: str | None) -> None:
    if made:
        with contextlib.suppress(OSError):
            os.rmdir(made)   # only while empty


def _make_writer(reader, dest: str | None):
    """A function that stores a dataset: in place, or under DEST."""
    import zelpy

    if dest is None:
        # In place keeps every file under its own name, including names the
        # writer would spell differently (plate_0001_0.out, say).
        def save(ds):
            ds.save(ds.file_name())
        return save
    if not dest.endswith(".h5"):
        _output_directory(dest, "the destination must be a directory or an .h5 file")
    else:
        parent = os.path.dirname(os.path.abspath(dest))
        if not os.path.isdir(parent):
            raise CliError(f"{parent}: no such directory")
    try:
        writer = zelpy.ZelDataSetWriter(output_dest=dest)
    except Exception as exc:
        raise CliError(f"{dest}: {exc}") from None
    return writer.save


def _store(save, ds, name: str) -> None:
    try:
        with _deferred_interrupt(), _library_messages() as lines:
            save(ds)
    except KeyboardInterrupt:
        raise
    except UnboundLocalError:
        raise DatasetError(f"{name}: no output name can be made from this file name "
                           "(expected NAME-INDEX_0.out or NAME_INDEX_0.out)") from None
    except Exception as exc:
        raise DatasetError(f"{name}: cannot be written: {_detail(exc, lines)}") from None


def _executor(args, total: int):
    """What runs the datasets: --scheduler, a local cluster of --jobs
    workers (default: one per core), or this process (--jobs 1, a single
    dataset, or no dask installed)."""
    from zelpy import series

    if getattr(args, "scheduler", None):
        if series._distributed() is None:
            raise CliError(f"--scheduler needs dask.distributed: {series.CLUSTER_HINT}")
        return series.open_executor(args.scheduler)
    jobs = args.jobs
    if jobs is None:
        # A local cluster costs a second or more to start (an interpreter
        # per worker); it pays for itself from a few datasets per worker on.
        jobs = min(os.cpu_count() or 1, total // DATASETS_PER_WORKER)
        if jobs < 2 or series._distributed() is None:
            return series.open_executor("inline")
    if jobs == 1 or total <= 1:
        return series.open_executor("inline")
    if series._distributed() is None:
        _say(f"zelpy {args.command}: dask.distributed is not installed, so the "
             f"datasets run in this process ({series.CLUSTER_HINT})")
        return series.open_executor("inline")
    # The command's cluster lives as long as the command's work, and is shut
    # down before the last line is printed.
    return series.open_executor("local", min(jobs, total), keep=False)


def _outcomes(args, job_for, names, transfer=None):
    """Yields (position, ok, result or message) per dataset as they finish,
    on the executor the options choose. ``job_for(remote)`` makes the
    per-dataset function; a mistake on the command line it finds on the
    first dataset ends the command."""
    from zelpy import series

    try:
        with _executor(args, len(names)) as client:
            yield from series._outcomes(job_for(client is not None), list(enumerate(names)),
                                        client, transfer or args.transfer)
    except (OSError, _Refusal) as exc:
        raise CliError(str(exc)) from None


def _same_file(a: str, b: str) -> bool:
    """Whether two paths name one file (through links, or spelt apart)."""
    try:
        return os.path.samefile(a, b)
    except OSError:
        return os.path.realpath(a) == os.path.realpath(b)


def cmd_strain(args) -> int:
    import zelpy

    reader = open_source(args.source, writable=args.output is None)
    source_h5 = reader.h5_file_path
    into_source = source_h5 and (args.output is None or _same_file(args.output, source_h5))
    if into_source and args.output is not None:
        # Checked as for a write in place: writable, not open elsewhere.
        reader = open_source(args.source, writable=True)
    names = list(reader.get_dataset_list())
    options = _strain_options(args)
    made = _new_path(args.output)
    save = _make_writer(reader, args.output)
    total = len(names)
    # Writing back into the HDF5 file the workers read from would make them
    # race for the file; then this process reads and sends the bytes.
    transfer = "bytes" if into_source else None
    failed = done = 0
    bar = _progress(total, "strain", args.quiet)
    try:
        for position, ok, result in _outcomes(args, lambda remote: _StrainJob(options, remote),
                                             names, transfer):
            name = names[position]
            try:
                if not ok:
                    raise DatasetError(result)
                if isinstance(result, bytes):
                    ds = zelpy.ZelDataSet()
                    ds.load_from_data(result, name)
                    result = ds
                _store(save, result, name)
            except DatasetError as exc:
                _say(f"zelpy strain: {exc}")
                failed += 1
            done += 1
            bar.update(1)
    except KeyboardInterrupt:
        bar.close()
        return _interrupted("strain", done - failed, total)
    except CliError:
        bar.close()
        _take_back(made)
        raise
    bar.close()
    return _finish("strain", failed, total)


# ----------------------------------------------------------------- convert

def cmd_convert(args) -> int:
    reader = open_source(args.source)
    src = reader.get_data_source()
    if src and os.path.abspath(args.dest) == os.path.abspath(src):
        raise CliError(f"{args.dest}: source and destination are the same")
    save = _make_writer(reader, args.dest)
    names = reader.get_dataset_list()
    failed = done = 0
    bar = _progress(len(names), "convert", args.quiet)
    try:
        for name in names:
            try:
                _store(save, load_dataset(reader, name), name)
            except DatasetError as exc:
                _say(f"zelpy convert: {exc}")
                failed += 1
            done += 1
            bar.update(1)
    except KeyboardInterrupt:
        bar.close()
        return _interrupted("convert", done - failed, len(names))
    bar.close()
    return _finish("convert", failed, len(names))


# ------------------------------------------------------------------ export

def _selected(reader, indices) -> list[str]:
    if not indices:
        return list(reader.get_dataset_list())
    # -d 2 -d -1 on three datasets names one of them twice: written once.
    return list(dict.fromkeys(_pick(reader, i) for i in indices))


class _ExportJob:
    """One dataset as the bytes of its CSV or VTU file, and the repeated
    variable names among those written; the file itself is written by the
    command, where the data lives. Without ``variables`` each dataset's own
    are written (a name given twice once, the first of them)."""

    def __init__(self, fmt: str, variables, all_points: bool):
        self.fmt, self.variables, self.all_points = fmt, variables, all_points

    def __call__(self, ds):
        from zelpy import export

        variables = self.variables
        if variables is None:
            variables = list(dict.fromkeys(ds.variables()))
        else:
            # A misspelt variable is a mistake on the command line.
            try:
                export.check_variables(ds, variables)
            except KeyError as exc:
                raise _Refusal(exc.args[0]) from None
        repeated = [v for v in export.repeated_variables(ds) if v in variables]
        try:
            if self.fmt == "csv":
                return export.csv_bytes(ds, variables, self.all_points)[0], repeated
            return export.vtu_bytes(ds, variables)[0], repeated
        except KeyError as exc:
            raise ValueError(exc.args[0]) from None


def cmd_export(args) -> int:
    import zelpy
    from zelpy import export

    reader = open_source(args.source)
    names = _selected(reader, args.dataset)
    outdir = args.output or _source_dir(reader, args.source)
    variables = list(dict.fromkeys(args.variables)) if args.variables else None
    made = _new_path(outdir)
    _output_directory(outdir, "the output must be a directory")
    ext = "." + args.format
    written, failed, noted = {}, 0, False
    bar = _progress(len(names), "export", args.quiet)
    try:
        job = _ExportJob(args.format, variables, args.all_points)
        for position, ok, result in _outcomes(args, lambda remote: job, names):
            name = names[position]
            path = os.path.join(outdir, os.path.basename(
                zelpy.change_file_extension(name, ext)))
            try:
                if not ok:
                    raise DatasetError(result)
                data, repeated = result
                if repeated and not noted:
                    # Said once: a series computed this way repeats them everywhere.
                    _say(f"zelpy export: {_repeated_note(repeated, _short(name))} "
                         "(noted for the first dataset only)")
                    noted = True
                with _deferred_interrupt():
                    try:
                        export.write_bytes(path, data)
                    except OSError as exc:
                        raise DatasetError(f"{name}: {exc}") from None
                written[position] = path
            except DatasetError as exc:
                _say(f"zelpy export: {exc}")
                failed += 1
            bar.update(1)
        if args.format == "vtu" and len(written) > 1:
            stem = os.path.splitext(os.path.basename(
                reader.get_data_source() or next(iter(written.values()))))[0]
            export.write_pvd(os.path.join(outdir, stem + ".pvd"),
                             [written[p] for p in sorted(written)])
    except KeyboardInterrupt:
        bar.close()
        return _interrupted("export", len(written), len(names))
    except CliError:
        bar.close()
        _take_back(made)
        raise
    bar.close()
    if not args.quiet:
        print(f"wrote {len(written)} {args.format.upper()} file(s) to {os.path.abspath(outdir)}")
    return _finish("export", failed, len(names))


# ------------------------------------------------------------------ series

def _numbers(count: int, what: str):
    def parse(text: str) -> tuple[float, ...]:
        try:
            values = tuple(float(v) for v in text.split(","))
        except ValueError:
            values = ()
        if len(values) != count or not all(map(math.isfinite, values)):
            raise argparse.ArgumentTypeError(f"expected {what}, got '{text}'")
        return values
    return parse


def _read_analog(args, reader):
    """The analog data for --x analog:COLUMN: --analog FILE.csv, or the
    project's own."""
    import csv

    if args.analog:
        try:
            with open(args.analog, newline="", encoding="utf-8") as stream:
                rows = csv.DictReader(stream)
                table = {"header": rows.fieldnames or []}
                for name in table["header"]:
                    table[name] = []
                for row in rows:
                    for name in table["header"]:
                        table[name].append(row.get(name))
                return table
        except OSError as exc:
            raise CliError(f"{args.analog}: {exc.strerror or exc}") from None
    if not (args.x or "").startswith("analog:"):
        return None
    if not args.source.endswith(".z3d"):
        raise CliError("--x analog:COLUMN needs a project source (.z3d) with analog "
                       "data, or the data in --analog FILE.csv")
    import zelpy
    try:
        return zelpy.ProjectFile(args.source).get_analog_data_csv()
    except Exception as exc:
        raise CliError(f"{args.source}: no analog data can be read ({exc})") from None


def _segment_label(a, b) -> str:
    # + 0.0 turns a typed -0 into 0.
    return f"({a[0] + 0.0:g}, {a[1] + 0.0:g})-({b[0] + 0.0:g}, {b[1] + 0.0:g})"


def cmd_series(args) -> int:
    import numpy as np

    from zelpy import export, series as zseries

    if not (args.probe or args.extensometer or args.reduce):
        raise CliError("nothing to compute: give --probe, --extensometer or --reduce")
    try:
        zseries._pandas()
    except ImportError as exc:
        raise CliError(str(exc)) from None
    if args.plot:
        try:
            import matplotlib  # noqa: F401
        except ImportError:
            raise CliError("--plot needs matplotlib: pip install \"zelpy[demo]\"") from None
        try:
            export.plot_format(args.plot)
        except ValueError as exc:
            raise CliError(str(exc)) from None
    reader = open_source(args.source)
    try:
        stats = zseries._check_stats(args.stats.split(","))
        series = zseries.Series(reader, analog=_read_analog(args, reader))
        x_label, x = series.x_values(args.x)
    except ValueError as exc:
        raise CliError(str(exc)) from None
    names = series.names

    probe_vars = args.variables or (["e1"] if args.probe else [])
    needed = list(dict.fromkeys(probe_vars + (args.reduce or [])
                                + (["X", "Y", "U", "V"] if args.extensometer else [])))
    hint = " (extensometers need X, Y, U, V)" if args.extensometer else ""
    parts = []
    if args.probe:
        parts.append(zseries._Probe(args.probe, probe_vars, "pixel" if args.pixel else "global"))
    if args.extensometer:
        pairs = [(e[:2], e[2:]) for e in args.extensometer]
        parts.append(zseries._Extensometer(pairs))
    if args.reduce:
        parts.append(zseries._Reduce(args.reduce, stats))

    results: dict = {}
    failed = 0
    interrupted = False
    bar = _progress(len(names), "series", args.quiet)
    try:
        job = _SeriesJob(parts, needed, hint)
        for position, ok, value in _outcomes(args, lambda remote: job, names):
            if ok:
                results[position] = value
            else:
                _say(f"zelpy series: {value}")
                failed += 1
            bar.update(1)
    except KeyboardInterrupt:
        interrupted = True
    finally:
        bar.close()

    # Units as the first dataset done describes its variables.
    descriptions = results[min(results)][1] if results else {}

    def unit(variable):
        return export.unit_of(descriptions.get(variable, ""))

    quantities = []
    if args.probe:
        labels = [f"({x_ + 0.0:g}, {y_ + 0.0:g})" for x_, y_ in args.probe]
        quantities.append(("probe", [(lab, v, "", unit(v)) for lab in labels for v in probe_vars]))
    if args.extensometer:
        length_unit = unit("X")
        quantities.append(("extensometer", [
            (_segment_label(a, b), q, "", u) for a, b in pairs
            for q, u in (("L0", length_unit), ("length", length_unit),
                         ("change", length_unit), ("strain", "1"))]))
    if args.reduce:
        quantities.append(("reduce", [("", v, st, "" if st == "count" else unit(v))
                                      for v in args.reduce for st in stats]))
    results = {p: values for p, (values, _) in results.items()}

    done = sorted(results)
    if done:
        # What was computed is written whole, even if Ctrl-C comes now.
        try:
            with _deferred_interrupt():
                _write_series_csv(args.output, series, done, results, quantities, x_label, x)
                if args.plot:
                    _plot_series(args, series, done, results, quantities, x_label, x)
        except KeyboardInterrupt:
            interrupted = True
    if interrupted:
        print(f"zelpy series: interrupted; {len(done)} of {len(names)} datasets finished"
              + ("; results written for those" if done else ""), file=sys.stderr)
        return EXIT_INTERRUPTED
    return _finish("series", failed, len(names))


class _SeriesJob:
    """The quantities of ``zelpy series`` on one load of a dataset: their
    values (flat arrays, one per part) and the descriptions of the variables
    used, for their units. A variable the dataset lacks is a mistake on the
    command line."""

    def __init__(self, parts, needed, hint: str):
        self.parts, self.needed, self.hint = list(parts), list(needed), hint

    def __call__(self, ds):
        import numpy as np

        have = ds.variables()
        missing = [v for v in self.needed if v not in have]
        if missing:
            raise _Refusal(f"unknown variable '{missing[0]}'{self.hint} "
                           f"(available: {', '.join(have)})")
        described: dict = {}
        for v, text in zip(have, ds.variables_descriptions()):
            described.setdefault(v, text)   # the first of a repeated name, as look-ups
        values = [np.asarray(part(ds), float).ravel() for part in self.parts]
        return values, {v: described[v] for v in self.needed}


def _write_series_csv(output, series, done, results, quantities, x_label, x):
    """The tidy table: one row per dataset and quantity."""
    import csv
    import io

    from zelpy import export
    from zelpy.series import short_name

    analog = series.analog
    analog_columns = [str(c) for c in analog.columns] if analog is not None else []
    out = io.StringIO()
    table = csv.writer(out, lineterminator="\n")
    table.writerow(["number", "dataset", *analog_columns, "quantity", "location",
                    "variable", "statistic", "value", "unit"])
    for position in done:
        head = [series.numbers[position], short_name(series.names[position])]
        head += [_cell(v) for v in analog.iloc[position]] if analog is not None else []
        for (kind, columns), values in zip(quantities, results[position]):
            for (location, variable, statistic, unit), value in zip(columns, values):
                table.writerow([*head, kind, location, variable, statistic,
                                _cell(value), unit or ""])
    data = out.getvalue().encode("utf-8")
    if output in (None, "-"):
        sys.stdout.write(data.decode("utf-8"))
        sys.stdout.flush()
    else:
        try:
            export.write_bytes(output, data)
        except OSError as exc:
            raise CliError(f"{output}: {exc.strerror or exc}") from None


def _cell(value) -> str:
    if isinstance(value, str):
        return value
    value = float(value)
    return "" if value != value else f"{value:.9g}"


def _plot_series(args, series, done, results, quantities, x_label, x):
    import numpy as np

    from zelpy import export

    lines = []
    for k, (kind, columns) in enumerate(quantities):
        values = np.array([results[p][k] for p in done])
        for j, (location, variable, statistic, unit) in enumerate(columns):
            if kind == "probe":
                lines.append((f"{variable} at {location}", variable, unit, values[:, j]))
            elif kind == "extensometer" and variable == "strain":
                lines.append((f"extensometer {location}", "extensometer strain", unit,
                              values[:, j]))
            elif kind == "reduce" and statistic != "count":
                lines.append((f"{statistic} of {variable}", variable, unit, values[:, j]))
    source = os.path.basename(os.path.normpath(args.source))
    try:
        export.plot_histories(args.plot, x_label, np.asarray(x)[done], lines,
                              title=f"{source}: {len(done)} datasets", size=args.size)
    except OSError as exc:
        raise CliError(f"{args.plot}: {exc.strerror or exc}") from None


# -------------------------------------------------------------------- plot

def _size(text: str) -> tuple[int, int]:
    try:
        w, h = (int(v) for v in text.lower().split("x"))
    except ValueError:
        raise argparse.ArgumentTypeError(f"expected WIDTHxHEIGHT in pixels, got '{text}'")
    if not (16 <= w <= 20000 and 16 <= h <= 20000):
        raise argparse.ArgumentTypeError(f"size out of range: '{text}'")
    return w, h


def cmd_plot(args) -> int:
    from zelpy import export

    try:
        import matplotlib  # noqa: F401
    except ImportError:
        raise CliError("plotting needs matplotlib: pip install \"zelpy[demo]\"") from None
    directory = None
    if args.output is not None and os.path.isdir(args.output):
        directory, args.output = args.output, None
    elif args.output is not None:
        try:
            export.plot_format(args.output)
        except ValueError as exc:
            raise CliError(str(exc)) from None
    reader = open_source(args.source)
    name = _pick(reader, args.dataset)
    try:
        ds = load_dataset(reader, name)
    except DatasetError as exc:
        raise CliError(str(exc)) from None
    try:
        export.check_variables(ds, [args.variable])
    except KeyError as exc:
        raise CliError(exc.args[0]) from None
    if args.variable in export.repeated_variables(ds):
        _say(f"zelpy plot: {_repeated_note([args.variable], _short(name))}")
    image = None
    if args.overlay:
        if not os.path.isfile(args.overlay):
            raise CliError(f"{args.overlay}: no such file")
        try:
            image = export.read_image(args.overlay)
        except ImportError as exc:
            raise CliError(str(exc)) from None
        except Exception as exc:
            raise CliError(f"{args.overlay}: cannot be read as an image: {exc}") from None
    out = args.output
    if out is None:
        stem = os.path.splitext(os.path.basename(
            name.split(":out:")[0]))[0]
        if ":out:" in name:
            stem += "-" + name.split(":out:")[1]
        out = os.path.join(directory or "", f"{stem}_{args.variable}.png")
    try:
        with _library_messages() as lines:
            export.plot_variable(ds, args.variable, out, size=args.size,
                                 levels=args.levels, image=image,
                                 title=f"{args.variable}: {_short(name)}")
    except (ValueError, OSError) as exc:
        raise CliError(f"{name}: {_detail(exc, lines)}") from None
    print(f"wrote {os.path.abspath(out)}")
    return 0


# ------------------------------------------------------------------- serve

def cmd_serve(args) -> int:
    try:
        from zelpy import rtserver
    except ImportError:
        raise CliError("the streaming server is not part of this installation") from None
    open_source(args.source)  # same one-line errors as the other commands
    argv = [args.source, "--host", args.host, "--port", str(args.port)]
    if args.fps is not None:
        argv += ["--fps", repr(args.fps)]
    if args.loop:
        argv.append("--loop")
    return rtserver.main(argv)


# ------------------------------------------------------------------ parser

class _Parser(argparse.ArgumentParser):
    """argparse, but a bad command line is one line, not a usage dump."""

    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        # Coordinates are numbers that may be negative, several to an
        # argument: "--probe -30,25" is a value, not an unknown option.
        import re
        self._negative_number_matcher = re.compile(r"^-\.?\d[\d.,eE+-]*$")

    def error(self, message):
        self.exit(EXIT_USAGE, f"{self.prog}: error: {message} "
                              f"(see '{self.prog} --help')\n")


def _positive(text: str) -> int:
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"invalid integer: '{text}'")
    if value < 1:
        raise argparse.ArgumentTypeError(f"must be at least 1, got {value}")
    return value


def _window(text: str) -> int:
    value = _positive(text)
    # The library would quietly widen an even window; saying so up front is
    # kinder than a result computed over a window nobody asked for.
    if value < 3 or value % 2 == 0:
        raise argparse.ArgumentTypeError(f"must be an odd number of at least 3, got {value}")
    return value


def _positive_float(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"invalid number: '{text}'")
    if not value > 0:
        raise argparse.ArgumentTypeError(f"must be positive, got {text}")
    return value


def _stress(text: str) -> float:
    value = _positive_float(text)
    # The summary compares with the closed form at the remote stress: an
    # unloaded or unbounded plate has nothing to compare.
    if not math.isfinite(value):
        raise argparse.ArgumentTypeError(f"must be a finite number, got {text}")
    return value


def _port(text: str) -> int:
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"invalid port: '{text}'")
    if not 0 <= value <= 65535:
        raise argparse.ArgumentTypeError(f"must be in 0..65535, got {value}")
    return value


def _cluster_options(p) -> None:
    p.add_argument("-j", "--jobs", type=_positive, default=None,
                   help="worker processes of a local dask cluster (default: one per "
                        "core, for series of at least %d datasets per core; 1 runs "
                        "in this process)" % DATASETS_PER_WORKER)
    p.add_argument("--scheduler", metavar="ADDRESS",
                   help="run on this dask.distributed cluster (tcp://HOST:PORT) "
                        "instead of a local one")
    p.add_argument("--transfer", choices=("names", "bytes"), default="names",
                   help="what workers get: dataset names, read from a shared file "
                        "system (default), or the datasets' bytes")


SOURCE_HELP = ("a directory of .out files, a .out file, a glob pattern, an HDF5 "
               "file or a project (.z3d/.z2d)")


def build_parser() -> argparse.ArgumentParser:
    parser = _Parser(
        prog="zelpy",
        description="Batch work on digital image correlation data files: "
                    "strain, conversion, export, plots, streaming.",
        epilog="Run 'zelpy demo' for a complete example that needs no input.")
    parser.add_argument("--version", action="version", version=f"zelpy {_version()}")
    parser.add_argument("--debug", action="store_true", help=argparse.SUPPRESS)
    sub = parser.add_subparsers(dest="command", metavar="COMMAND", parser_class=_Parser)
    sub.required = True

    p = sub.add_parser("demo", help="make, analyse and plot a built-in example series",
                       description="Make a synthetic series (a plate with a central hole "
                                   "under increasing tension), compute strain, store it "
                                   "in DIR/plate_hole.h5, plot e1 to DIR/plate_hole_e1.png "
                                   "and compare the peak strain with the closed-form value.")
    p.add_argument("directory", nargs="?", default="zelpy-demo", metavar="DIR",
                   help="output directory (default: ./zelpy-demo)")
    p.add_argument("--steps", type=_positive, default=8,
                   help="number of datasets, the first unloaded (default 8)")
    p.add_argument("--size", type=_positive, default=201,
                   help="grid points per side (default 201)")
    p.add_argument("--window", type=_window, default=15,
                   help="strain smoothing window (default 15)")
    p.add_argument("--stress", type=_stress, default=100.0,
                   help="remote stress of the last dataset in MPa (default 100)")
    p.add_argument("--seed", type=int, default=1, help="seed of the measurement noise")
    p.add_argument("--no-plot", action="store_true", help="skip the PNG")
    p.add_argument("-q", "--quiet", action="store_true", help="no progress bar")
    p.set_defaults(func=cmd_demo)

    p = sub.add_parser("info", help="list the datasets, AOIs and variables of a source",
                       description="Show what a reader finds in SOURCE: datasets, AOIs "
                                   "with grid sizes, the share of valid points, and the "
                                   "variables of one dataset with kind, description and "
                                   "value range over its valid points.")
    p.add_argument("source", metavar="SOURCE", help=SOURCE_HELP)
    p.add_argument("-d", "--dataset", type=int, default=0, metavar="INDEX",
                   help="dataset whose variables are listed (default 0; -1 is the last)")
    p.set_defaults(func=cmd_info)

    p = sub.add_parser("strain", help="compute strain for every dataset of a source",
                       description="Compute strain for every dataset of SOURCE and write "
                                   "the datasets back (in place unless -o is given).")
    p.add_argument("source", metavar="SOURCE", help=SOURCE_HELP)
    p.add_argument("-o", "--output", metavar="DEST",
                   help="write to this directory or .h5 file instead of in place; "
                        "names follow the writer's rules")
    p.add_argument("-w", "--window", type=_window, default=15,
                   help="smoothing window in grid points, odd (default 15)")
    p.add_argument("-t", "--tensor", choices=sorted(TENSORS), default="lagrange",
                   help="strain tensor (default lagrange)")
    p.add_argument("--no-principal", action="store_true",
                   help="do not compute e1, e2 and gamma")
    p.add_argument("--tresca", action="store_true", help="also compute e_tresca")
    p.add_argument("--von-mises", action="store_true", help="also compute e_vonmises")
    p.add_argument("--gradient", action="store_true",
                   help="also store the displacement gradient fxx, fxy, fyx, fyy")
    p.add_argument("--unweighted", action="store_true",
                   help="smooth with equal weights instead of the weighted filter")
    p.add_argument("--no-reuse", action="store_true",
                   help="add new strain variables even where they exist already")
    _cluster_options(p)
    p.add_argument("-q", "--quiet", action="store_true", help="no progress bar")
    p.set_defaults(func=cmd_strain)

    p = sub.add_parser("convert", help="convert between a directory of .out files and HDF5",
                       description="Copy every dataset of SOURCE to DEST: a directory of "
                                   ".out files or an .h5 file. Names follow the writer's "
                                   "rules (NAME-INDEX_0.out <-> key INDEX).")
    p.add_argument("source", metavar="SOURCE", help=SOURCE_HELP)
    p.add_argument("dest", metavar="DEST", help="directory (created if needed) or .h5 file")
    p.add_argument("-q", "--quiet", action="store_true", help="no progress bar")
    p.set_defaults(func=cmd_convert)

    p = sub.add_parser("export", help="export datasets as CSV tables or VTK (.vtu) files",
                       description="Write one file per dataset: a CSV table of the "
                                   "chosen variables (valid points, with AOI, row and "
                                   "column), or a VTK XML unstructured grid (triangles "
                                   "of the triangulation as cells, the variables as "
                                   "point data) plus a .pvd series file for ParaView.")
    p.add_argument("source", metavar="SOURCE", help=SOURCE_HELP)
    p.add_argument("-f", "--format", choices=("csv", "vtu"), required=True)
    p.add_argument("-v", "--variable", dest="variables", action="extend", nargs="+",
                   metavar="VAR", help="variables to export (default: all)")
    p.add_argument("-o", "--output", metavar="DIR",
                   help="output directory (default: next to the data)")
    p.add_argument("-d", "--dataset", type=int, action="append", metavar="INDEX",
                   help="export only this dataset (repeatable; default: all)")
    p.add_argument("--all-points", action="store_true",
                   help="CSV: include invalid points too")
    _cluster_options(p)
    p.add_argument("-q", "--quiet", action="store_true", help="no progress bar")
    p.set_defaults(func=cmd_export)

    p = sub.add_parser("series", help="histories over a series: probes, extensometers, statistics",
                       description="Follow quantities over every dataset of SOURCE: values "
                                   "at gauge points (--probe), virtual extensometers "
                                   "(--extensometer) and statistics over the valid points "
                                   "(--reduce). Writes a tidy CSV (one row per dataset and "
                                   "quantity) and, with --plot, a line plot against the "
                                   "image number or an analog channel.")
    p.add_argument("source", metavar="SOURCE", help=SOURCE_HELP)
    p.add_argument("--probe", action="append", type=_numbers(2, "X,Y"), metavar="X,Y",
                   help="a gauge point in reference global coordinates (repeatable)")
    p.add_argument("--pixel", action="store_true",
                   help="probe points are reference pixel positions x,y instead")
    p.add_argument("-v", "--variable", dest="variables", action="extend", nargs="+",
                   metavar="VAR", help="variables to probe (default e1)")
    p.add_argument("--extensometer", action="append", type=_numbers(4, "X1,Y1,X2,Y2"),
                   metavar="X1,Y1,X2,Y2", help="a virtual extensometer between two "
                   "reference global positions (repeatable)")
    p.add_argument("--reduce", action="extend", nargs="+", metavar="VAR",
                   help="statistics of these variables over the valid points")
    p.add_argument("--stats", default="min,max,mean,std", metavar="LIST",
                   help="statistics for --reduce: min, max, mean, std, median, count, "
                        "pNN (default min,max,mean,std)")
    p.add_argument("--x", default="number", metavar="AXIS",
                   help="x axis: number (image number, default), index, or "
                        "analog:COLUMN (a column of the analog data)")
    p.add_argument("--analog", metavar="FILE.csv",
                   help="analog data, one row per dataset (default: the project's)")
    p.add_argument("-o", "--output", metavar="FILE.csv",
                   help="the tidy CSV (default: standard output)")
    p.add_argument("--plot", metavar="FILE.png", help="also plot the histories")
    p.add_argument("--size", type=_size, default=(1000, 700), metavar="WxH",
                   help="plot size in pixels (default 1000x700)")
    _cluster_options(p)
    p.add_argument("-q", "--quiet", action="store_true", help="no progress bar")
    p.set_defaults(func=cmd_series)

    p = sub.add_parser("plot", help="contour plot of one variable of one dataset",
                       description="Filled contour plot of VAR over the triangulation of "
                                   "one dataset, with a colour bar in the variable's unit.")
    p.add_argument("source", metavar="SOURCE", help=SOURCE_HELP)
    p.add_argument("-v", "--variable", required=True, metavar="VAR")
    p.add_argument("-o", "--output", metavar="FILE",
                   help="image to write, in the format its suffix names (.png, .pdf, "
                        ".svg, .eps, .jpg, .tif, .webp); a directory takes the default "
                        "name (default: ./<dataset>_<VAR>.png)")
    p.add_argument("-d", "--dataset", type=int, default=-1, metavar="INDEX",
                   help="dataset to plot (default -1, the last)")
    p.add_argument("--size", type=_size, default=(1000, 800), metavar="WxH",
                   help="image size in pixels (default 1000x800)")
    p.add_argument("--levels", type=_positive, default=24, help="contour levels (default 24)")
    p.add_argument("--overlay", metavar="IMAGE",
                   help="draw the variable over this camera image (the dataset's "
                        "deformed image) at the pixel positions x+u, y+v; needs imageio")
    p.set_defaults(func=cmd_plot)

    p = sub.add_parser("serve", help="stream the datasets of a source to real-time clients",
                       description="Serve the datasets of SOURCE over TCP the way the "
                                   "application does in real-time mode, for developing "
                                   "real-time scripts. Stop with Ctrl-C.")
    p.add_argument("source", metavar="SOURCE", help=SOURCE_HELP)
    p.add_argument("--port", type=_port, default=20020, help="TCP port (default 20020; 0 picks one)")
    p.add_argument("--host", default="127.0.0.1", help="address to listen on (default 127.0.0.1)")
    p.add_argument("--fps", type=_positive_float, default=None,
                   help="datasets per second (default: as fast as the client reads)")
    p.add_argument("--loop", action="store_true", help="start over after the last dataset")
    p.set_defaults(func=cmd_serve)
    return parser


def _version() -> str:
    try:
        from importlib.metadata import version
        return version("zelpy")
    except Exception:
        return "unknown"


def main(argv=None) -> int:
    args = build_parser().parse_args(argv)
    import zelpy

    # Every problem is reported as one line of the command's own, with the
    # library's explanation folded in (see _library_messages); its console
    # lines would only repeat that.
    severity = zelpy.log_severity()
    zelpy.set_log_severity(0)
    try:
        return _run(args)
    finally:
        zelpy.set_log_severity(severity)


def _run(args) -> int:
    try:
        return args.func(args)
    except CliError as exc:
        print(f"zelpy {args.command}: error: {exc}", file=sys.stderr)
        return EXIT_FAILED
    except KeyboardInterrupt:
        print(f"zelpy {args.command}: interrupted", file=sys.stderr)
        return EXIT_INTERRUPTED
    except BrokenPipeError:
        # Output piped into head and the like: not an error of ours.
        return 0
    except Exception as exc:
        if args.debug:
            raise
        print(f"zelpy {args.command}: error: {type(exc).__name__}: {exc}", file=sys.stderr)
        return EXIT_FAILED
