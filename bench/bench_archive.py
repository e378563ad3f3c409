"""Memory and time of reading hostile project archives.

A project archive is a ZIP file; its "project.xml" and its analog-data CSV
are decompressed when the project is loaded or the CSV is asked for. Each
case below is a small archive whose member expands to about a gigabyte:

- honest: the archive's directory declares the true size;
- lying: the directory declares a few hundred bytes for the same member;

with the member compressed by deflate (the usual method, about 1,000:1 at
best) and bzip2 (whose ratio has no such bound: a gigabyte fits in a few
hundred bytes). Every case runs in a child process, which reports its peak
resident memory and its time; the baseline is a child that loads a small,
valid project the same way. Figures: peak memory as a ratio to the baseline's
and as megabytes above it.

    python bench/bench_archive.py [--megabytes 1000]

The archives are built under a temporary directory that is removed at the
end (building them takes about half a minute).
"""

import argparse
import os
import struct
import subprocess
import sys
import tempfile
import time
import zipfile

CHILD = r"""
import resource, sys, time
import zelpy
path, what = sys.argv[1], sys.argv[2]
start = time.perf_counter()
try:
    project = zelpy.ProjectFile(path)
    if what == "csv":
        columns = project.get_analog_data_csv()
        outcome = "read, %d rows" % len(columns[columns["header"][0]])
    else:
        outcome = "read"
except Exception as error:
    outcome = "%s: %s" % (type(error).__name__, error)
elapsed = time.perf_counter() - start
try:
    # The peak of this process image only: ru_maxrss keeps the parent's
    # peak across fork and exec.
    with open("/proc/self/status") as status:
        peak = [int(line.split()[1]) for line in status if line.startswith("VmHWM:")][0]
except OSError:
    peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
print(peak * 1024, elapsed, outcome)
"""

XML_HEAD = b"<?xml version='1.0' encoding='utf-8'?>\n<project structure_version=\"2\">"
XML_TAIL = b"</project>"
CSV_XML = (XML_HEAD + b'<files><csvfile type="mirolet">prj:analog.csv</csvfile></files>'
           + XML_TAIL)
CSV_HEAD = b"time,force\n"
# Long fields keep the old whole-file reading of the CSV at about 1.6 bytes
# of memory per byte of text; short ones cost 4 to 20 times their size.
CSV_ROW = b"1" * 100 + b"," + b"2" * 100 + b"\n"
STEP = 1 << 24


def write_member(archive, name, method, head, filler, total, tail=b""):
    """A member of about ``total`` bytes: head, filler repeated, tail."""
    info = zipfile.ZipInfo(name)
    info.compress_type = method
    block = filler * max(1, STEP // len(filler))
    with archive.open(info, "w") as stream:
        stream.write(head)
        written = len(head)
        while written + len(block) <= total:
            stream.write(block)
            written += len(block)
        rest = (total - written) // len(filler)
        stream.write(filler * rest + tail)


def declare_size(path, name, size):
    """Make the archive claim ``size`` bytes for the member ``name``, in its
    central directory and in the member's local header."""
    with zipfile.ZipFile(path) as archive:
        info = archive.getinfo(name)
        directory = archive.start_dir
    with open(path, "r+b") as stream:
        stream.seek(info.header_offset + 22)
        stream.write(struct.pack("<I", size))
        stream.seek(directory)
        data = stream.read()
        encoded = name.encode("utf-8")
        entry = data.find(b"PK\x01\x02")
        while entry >= 0:
            length = struct.unpack_from("<H", data, entry + 28)[0]
            if data[entry + 46:entry + 46 + length] == encoded:
                stream.seek(directory + entry + 24)
                stream.write(struct.pack("<I", size))
                return
            entry = data.find(b"PK\x01\x02", entry + 46)
    raise KeyError(name)


def build(tmp, what, method, lying, megabytes):
    label = "%s-%s-%s" % (what, {zipfile.ZIP_DEFLATED: "deflate", zipfile.ZIP_BZIP2: "bzip2"}[method],
                          "lying" if lying else "honest")
    path = os.path.join(tmp, label + ".z3d")
    total = int(megabytes * 1e6)
    with zipfile.ZipFile(path, "w") as archive:
        if what == "xml":
            write_member(archive, "project.xml", method, XML_HEAD, b" ", total, XML_TAIL)
        else:
            archive.writestr("project.xml", CSV_XML)
            write_member(archive, "analog.csv", method, CSV_HEAD, CSV_ROW, total)
    if lying:
        declare_size(path, "project.xml" if what == "xml" else "analog.csv", 300)
    return label, path


def run_child(path, what):
    output = subprocess.run([sys.executable, "-c", CHILD, path, what], capture_output=True,
                            text=True, check=True).stdout
    peak, elapsed, outcome = output.strip().split(" ", 2)
    return int(peak), float(elapsed), outcome


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--megabytes", type=float, default=1200.0,
                        help="size each member expands to (default 1200)")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as tmp:
        small = os.path.join(tmp, "small.z3d")
        with zipfile.ZipFile(small, "w", compression=zipfile.ZIP_DEFLATED) as archive:
            archive.writestr("project.xml", CSV_XML)
            archive.writestr("analog.csv", CSV_HEAD + CSV_ROW * 100)
        base_peak, base_time, outcome = min(run_child(small, "csv") for _ in range(3))
        print("baseline: small valid project with its CSV: peak %.0f MB, %.3f s (%s)"
              % (base_peak / 1e6, base_time, outcome))
        started = time.perf_counter()
        cases = [build(tmp, what, method, lying, args.megabytes)
                 for what in ("xml", "csv")
                 for method in (zipfile.ZIP_DEFLATED, zipfile.ZIP_BZIP2)
                 for lying in (False, True)]
        print("built %d archives of %.0f MB each when expanded, in %.0f s"
              % (len(cases), args.megabytes, time.perf_counter() - started))
        for label, path in cases:
            peak, elapsed, outcome = run_child(path, label.split("-")[0])
            print("%-20s archive %9d bytes  peak x%6.2f of baseline (+%6.0f MB)  %7.2f s  %s"
                  % (label, os.path.getsize(path), peak / base_peak, (peak - base_peak) / 1e6,
                     elapsed, outcome[:90]))


if __name__ == "__main__":
    main()
