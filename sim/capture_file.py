"""Reads a kvt_zqp_capture file (its format: kvt_zqp_capture(1), FILE FORMAT)
into plain Python values, for the simulated board's replay.

    records, problem = read_capture(path)

records is a list of (kind, fields) in file order; problem is None for a file
that ended after a whole record, else the reason reading stopped (a cut-short
or corrupt record; what precedes it is in records). A file that is not a
readable capture raises CaptureError.
"""
import struct
import zlib

MAGIC = b"\x89KZC\r\n\x1a\n"
VERSION = 1
MAX_PAYLOAD = 64 << 20
KINDS = {1: "start", 2: "list", 3: "file", 4: "engine", 5: "ypu", 6: "dsp", 7: "ddr", 8: "end",
         9: "ddr-exit"}


class CaptureError(Exception):
    pass


class _Payload:
    def __init__(self, data):
        self.data, self.at = data, 0

    def varint(self):
        value, shift = 0, 0
        while shift < 64:
            if self.at >= len(self.data):
                raise CaptureError("its fields run past its end")
            byte = self.data[self.at]
            self.at += 1
            if shift == 63 and byte & 0xFE:
                break  # the tenth byte may carry only the 64th bit
            value |= (byte & 0x7F) << shift
            if not byte & 0x80:
                return value
            shift += 7
        raise CaptureError("a number longer than 64 bits")

    def bytes(self):
        n = self.varint()
        if self.at + n > len(self.data):
            raise CaptureError("its fields run past its end")
        self.at += n
        return self.data[self.at - n:self.at]


def _batch(p, with_bytes):
    count, n, t, out = p.varint(), p.varint(), 0, []
    for _ in range(n):
        t += p.varint()
        item = {"t_us": t, "index": p.varint()}
        if with_bytes:
            item["present"] = bool(p.varint())
            item["bytes"] = p.bytes()
        else:
            item["cap"] = p.varint()
        out.append(item)
    return {"count": count, "changes": out}


def _decode(kind, p):
    if kind == "start":
        return {"wall_ns": p.varint(), "delay_ms": p.varint(), "frequency": p.varint(),
                "enable": p.bytes().decode(errors="replace"),
                "release": p.bytes().decode(errors="replace"),
                "machine": p.bytes().decode(errors="replace")}
    if kind == "list":
        t, folder, ok = p.varint(), p.bytes().decode(errors="replace"), bool(p.varint())
        return {"t_us": t, "dir": folder, "ok": ok,
                "names": [p.bytes().decode(errors="replace") for _ in range(p.varint())]}
    if kind == "file":
        return {"t_us": p.varint(), "path": p.bytes().decode(errors="replace"),
                "present": bool(p.varint()), "mode": p.varint(), "content": p.bytes()}
    if kind == "engine":
        name, cores = p.bytes().decode(errors="replace"), p.varint()
        return {"name": name, "cores": cores,
                "files": [p.bytes().decode(errors="replace") for _ in range(p.varint())]}
    if kind in ("ypu", "dsp"):
        return _batch(p, kind == "dsp")
    if kind == "ddr":
        return {"t_us": p.varint(), "line": p.bytes()}
    if kind == "end":
        return {"t_us": p.varint()}
    if kind == "ddr-exit":
        return {"t_us": p.varint(), "status": p.varint()}
    return {}


def read_capture(path):
    with open(path, "rb") as f:
        data = f.read()
    if not data:
        raise CaptureError(f"{path}: empty, not a capture")
    if data[:len(MAGIC)] != MAGIC[:len(data)]:
        raise CaptureError(f"{path}: not a capture")
    if len(data) < 16:
        raise CaptureError(f"{path}: cut short inside its header")
    version = struct.unpack_from("<I", data, 8)[0]
    if version == 0:
        raise CaptureError(f"{path}: not a capture (format version 0)")
    if version > VERSION:
        raise CaptureError(f"{path}: capture format version {version} is newer than this "
                           f"program reads ({VERSION})")
    records, at = [], 16
    while at < len(data):
        if at + 12 > len(data):
            return records, f"{path}: cut short at byte {at}, inside a record"
        if not any(data[at:]):
            # What a power loss leaves of blocks the file system had allotted.
            return records, f"{path}: cut short at byte {at}, zeros from there on"
        size, kind, flags, _, crc = struct.unpack_from("<IBBHI", data, at)
        if size > MAX_PAYLOAD:
            return records, f"{path}: record at byte {at} is corrupt: size {size}"
        stored = data[at + 12:at + 12 + size]
        if len(stored) < size:
            return records, f"{path}: cut short at byte {at}, inside a record"
        if zlib.crc32(data[at:at + 8] + stored) != crc:
            return records, f"{path}: record at byte {at} is corrupt: checksum mismatch"
        try:
            if flags & 1:
                p = _Payload(stored)
                plain_size = p.varint()
                if plain_size > MAX_PAYLOAD:
                    raise CaptureError("bad size")
                plain = zlib.decompressobj().decompress(stored[p.at:], plain_size + 1)
                if len(plain) != plain_size:
                    raise CaptureError("does not inflate")
            else:
                plain = stored
            name = KINDS.get(kind, "unknown")
            records.append((name, _decode(name, _Payload(plain))))
        except (CaptureError, zlib.error) as e:
            return records, f"{path}: record at byte {at} is corrupt: {e}"
        at += 12 + size
    return records, None
