"""The recorder's outputs read back for the black-box tests: CSV and JSON
lines as records, an exposition as samples."""
import csv
import json
import re
import socket

MIB = 1 << 20
RFC3339 = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")


def number(cell, kind=int):
    """A CSV cell; None where the figure is missing."""
    return kind(cell) if cell else None


def csv_records(path):
    """The rows of a recorded CSV as records; every row complete, CRLF line ends;
    a missing figure is None."""
    raw = path.read_bytes()
    assert raw.endswith(b"\r\n") and raw.count(b"\n") == raw.count(b"\r\n")
    header, *rows = csv.reader(raw.decode().splitlines())
    assert header[:2] == ["time", "elapsed_s"]
    out = []
    for row in rows:
        assert len(row) == len(header), row
        cell = dict(zip(header, row))
        heaps = {k[:-len("_total_bytes")] for k in header if k.endswith("_total_bytes")}
        out.append({
            "time": cell["time"], "elapsed_s": float(cell["elapsed_s"]),
            "loading": [(k, number(cell[k], float)) for k in header[2:]
                        if re.fullmatch(r"[A-Z]+\d+", k)],
            "ddr": (number(cell["ddr_read_bytes_per_second"]),
                    number(cell["ddr_write_bytes_per_second"])),
            "heaps": {h: tuple(number(cell[f"{h}_{f}_bytes"]) for f in ("total", "used", "free"))
                      for h in heaps}})
    return out


def json_records(text):
    out = []
    for line in text.splitlines():
        r = json.loads(line)
        ddr = r["ddr"] or {"read_bytes_per_second": None, "write_bytes_per_second": None}
        out.append(dict(r, loading=[(x["label"], x["percent"]) for x in r["loading"]],
                        ddr=(ddr["read_bytes_per_second"], ddr["write_bytes_per_second"]),
                        heaps={h["name"]: (h["total_bytes"], h["used_bytes"], h["free_bytes"])
                               for h in r["heaps"]}))
        assert all(x["label"] == f'{x["engine"]}{x["core"]}' for x in r["loading"])
    return out


def prom_samples(text):
    """{(name, ((label, value), ...)): value} of an exposition."""
    samples = {}
    for line in text.splitlines():
        if line and not line.startswith("#"):
            m = re.fullmatch(r"(\w+)(?:\{(.*)\})? (\S+)", line)
            labels = tuple(sorted(re.findall(r'(\w+)="((?:[^"\\]|\\.)*)"', m[2] or "")))
            samples[(m[1], labels)] = float(m[3])
    return samples


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]
