"""Crash states of a recorded run, under a pessimistic model of a power cut.

The recorder (recorder.c) logs every file-system operation of a run under one
folder. `Replay` reads that log and keeps, for each point of the run, what a
power cut may leave:

- data flushed (fsync, fdatasync) is kept; a file's unflushed writes and
  truncations may be lost wholly or from some point on, or leave zeroes where
  the bytes were;
- a name change (create, rename, unlink, mkdir, rmdir) is kept once its
  folder was flushed after it; before that, each folder keeps some first part
  of its unflushed changes in order, and a rename is kept or lost whole;
- what the run did not touch is as it was.

`state(point, rng, mode)` gives a tree for the crash point: everything lost,
everything kept (as a kill leaves it), or random choices.
"""

import os
import shutil

PARTIAL = (".downloading", ".progress")


# The fields of each kind of line: i a number, b hex bytes, n a hex name.
# Unlink, mkdir, rmdir and a folder's flush carry one name.
FIELDS = {"W": "iib", "C": "in", "R": "inn", "T": "ii", "S": "i"}


def parse(log_path):
    """The recorded operations: (kind, fields...) with names as str."""
    def field(form, text):
        if form == "i":
            return int(text)
        data = bytes.fromhex(text.decode())
        return data if form == "b" else data.decode("utf-8", "surrogateescape")

    ops = []
    with open(log_path, "rb") as f:
        for line in f:
            kind, *fields = line.rstrip(b"\n").split(b"\t")
            kind = kind.decode()
            ops.append((kind,) + tuple(map(field, FIELDS.get(kind, "n"), fields)))
    return ops


def apply_data(data, op, zero=False):
    if op[0] == "T":
        size = op[1]
        return data[:size] + b"\0" * max(0, size - len(data))
    off, chunk = op[1], op[2]
    if zero:
        chunk = b"\0" * len(chunk)
    data = data + b"\0" * max(0, off - len(data))
    return data[:off] + chunk + data[off + len(chunk):]


def folder_of(path):
    return path.rsplit("/", 1)[0]


class Replay:
    """The recorded run of one scenario, from the tree it started with."""

    def __init__(self, prefix):
        """Takes the tree under `prefix` as it is before the run."""
        self.prefix = prefix
        self.start_files, self.start_dirs, self.start_data = {}, {prefix}, {}
        self.inode_of = {}  # kernel inode -> model inode
        for dirpath, dirnames, filenames in os.walk(prefix):
            self.start_dirs.update(os.path.join(dirpath, d) for d in dirnames)
            for name in filenames:
                path = os.path.join(dirpath, name)
                m = len(self.start_data)
                with open(path, "rb") as f:
                    self.start_data[m] = f.read()
                self.start_files[path] = m
                self.inode_of[os.lstat(path).st_ino] = m

    def read(self, log_path):
        """One pass over the log: the name changes with the folder flushes that
        made each durable, the data changes and flushes of each file, and every
        whole content a name took (a reader may have seen it)."""
        self.ops = parse(log_path)
        inode_of = dict(self.inode_of)
        data = dict(self.start_data)     # model inode -> bytes as the process saw them
        names = dict(self.start_files)   # path -> model inode, as the process saw them
        self.name_ops = []               # (op index, folders, effect)
        self.flushed_at = {}             # name op number -> indices of its folders' flushes
        self.data_events = []            # (op index, model inode, change or ("S", bytes))
        self.versions = set(data.values())
        self.flush_points = []
        unflushed = {}                   # folder -> name op numbers not yet flushed

        def inode(kernel_ino):
            if kernel_ino not in inode_of:
                raise ValueError("a file the log never created: inode %d" % kernel_ino)
            return inode_of[kernel_ino]

        def name_op(i, folders, effect):
            self.name_ops.append((i, folders, effect))
            for folder in folders:
                unflushed.setdefault(folder, []).append(len(self.name_ops) - 1)

        for i, op in enumerate(self.ops):
            kind = op[0]
            if kind == "C":
                m = inode_of[op[1]] = len(data)
                data[m] = b""
                names[op[2]] = m
                name_op(i, (folder_of(op[2]),), ("file", op[2], m))
            elif kind in ("W", "T"):
                m = inode(op[1])
                data[m] = apply_data(data[m], op[:1] + op[2:])
                self.data_events.append((i, m, op[:1] + op[2:]))
            elif kind == "S":
                m = inode(op[1])
                self.data_events.append((i, m, ("S", data[m])))
                self.versions.add(data[m])
                self.flush_points.append(i)
            elif kind == "D":
                for number in unflushed.pop(op[1], []):
                    self.flushed_at.setdefault(number, []).append(i)
                self.flush_points.append(i)
            elif kind in ("U", "M", "X"):
                names.pop(op[1], None)
                effect = {"U": "unlink", "M": "mkdir", "X": "rmdir"}[kind]
                name_op(i, (folder_of(op[1]),), (effect, op[1]))
            elif kind == "R":
                src, dst = op[2], op[3]
                if not src or not dst:
                    raise ValueError("a rename across the recorded folder: %r" % (op,))
                if src in names:
                    names[dst] = names.pop(src)
                    self.versions.add(data[names[dst]])
                folders = tuple(sorted({folder_of(src), folder_of(dst)}))
                name_op(i, folders, ("rename", src, dst, inode_of.get(op[1])))

    def points(self):
        """Crash points: after each flush, halfway between flushes, and the end."""
        points, last = set(), -1
        for i in sorted(set(self.flush_points)) + [len(self.ops) - 1]:
            if i - last > 1:
                points.add((last + i) // 2)
            points.add(i)
            last = i
        return sorted(p for p in points if p >= 0)

    def state(self, point, rng, mode):
        """The tree {path: bytes, folder: None} that a power cut just after
        operation `point` may leave. mode: "lost", "kept" or "random"."""
        def part(n):  # how many of n unflushed changes survive
            if mode != "random":
                return 0 if mode == "lost" else n
            return rng.choice([0, n, rng.randint(0, n)])

        durable, pending = set(), {}
        ops = [(n, op) for n, op in enumerate(self.name_ops) if op[0] <= point]
        for n, (_, folders, _) in ops:
            if sum(f <= point for f in self.flushed_at.get(n, ())) == len(folders):
                durable.add(n)
            else:
                for folder in folders:
                    pending.setdefault(folder, []).append(n)
        survive = {f: set(ns[:part(len(ns))]) for f, ns in pending.items()}
        names, dirs = dict(self.start_files), set(self.start_dirs)
        for n, (_, folders, effect) in ops:
            if n not in durable and not all(n in survive[f] for f in folders):
                continue
            kind, path = effect[0], effect[1]
            if kind == "file":
                names[path] = effect[2]
            elif kind == "unlink":
                names.pop(path, None)
            elif kind == "mkdir":
                dirs.add(path)
            elif kind == "rmdir":
                dirs.discard(path)
            elif path in dirs:  # a folder renamed, with all below it
                dst, under = effect[2], lambda p: p == path or p.startswith(path + "/")
                dirs = {dst + d[len(path):] if under(d) else d for d in dirs}
                names = {dst + p[len(path):] if under(p) else p: m for p, m in names.items()}
            else:
                names.pop(path, None)
                if effect[3] is not None:
                    names[effect[2]] = effect[3]
        contents, changes = dict(self.start_data), {}
        for i, m, change in self.data_events:
            if i > point:
                break
            if change[0] == "S":
                contents[m], changes[m] = change[1], []
            else:
                changes.setdefault(m, []).append(change)
        for m, todo in changes.items():
            keep, zero = part(len(todo)), mode == "random" and rng.random() < 0.3
            for n, change in enumerate(todo):
                if n < keep or (zero and change[0] == "W"):
                    contents[m] = apply_data(contents.get(m, b""), change, zero=n >= keep)

        def reachable(path):  # a name in a folder that did not survive is gone
            while path != self.prefix:
                path = folder_of(path)
                if path not in dirs:
                    return False
            return True

        tree = {d: None for d in dirs if reachable(d)}
        tree.update({p: contents.get(m, b"") for p, m in names.items() if reachable(p)})
        return tree


def lay(tree, prefix):
    """Makes the folder `prefix` hold exactly `tree`."""
    shutil.rmtree(prefix, ignore_errors=True)
    os.makedirs(prefix)
    for path in sorted(tree):
        if tree[path] is None:
            os.makedirs(path, exist_ok=True)
        else:
            with open(path, "wb") as f:
                f.write(tree[path])
