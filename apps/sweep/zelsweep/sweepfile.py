# SPDX-License-Identifier: Apache-2.0
"""The sweep file: reading it, checking it, and expanding it into points.

A point is one zelsim run: one value of every axis and one seed. Its
command line is built here, from the file alone, so that the same file
gives the same command lines on any machine.
"""
import hashlib
import itertools
import json
import math
import re
import tomllib
from dataclasses import dataclass, field
from pathlib import Path

# Core clock period of the compiled configuration, in ns. A request rate is
# turned into REQUEST_SPACING cycles with it, unless the sweep sets CORE_CLK.
DEFAULT_CORE_CLK_NS = 1.6

# The axis that gives the offered load as requests per microsecond and
# generator; it becomes REQUEST_SPACING.
RATE = "request_rate"

TOP_LEVEL = ("title", "zelsim", "run_length_ns", "seeds", "settings", "options", "axes")
# Options the tool sets itself for every point.
RESERVED_OPTIONS = {"json", "seed", "set", "help", "version"}
OPTION_NAME = re.compile(r"^[a-z][a-z0-9_]*$")
KEY_NAME = re.compile(r"^[A-Za-z_][A-Za-z0-9_]*$")


class SweepError(Exception):
    """A bad sweep file; the message names the file and, where known, the line."""


@dataclass
class Point:
    index: int
    axes: dict          # axis name -> the value as the sweep file gives it
    seed: int
    args: list          # zelsim's arguments, without --json
    key: str = ""       # set once zelsim's version is known (point_key)

    def label(self, names=None):
        names = self.axes.keys() if names is None else names
        return ", ".join(f"{n}={self.axes[n]}" for n in names)


@dataclass
class Sweep:
    path: Path
    title: str
    zelsim: str | None
    run_length_ns: float
    seeds: list
    axis_names: list
    points: list = field(default_factory=list)


def is_key(name):
    """Configuration keys have capitals (NUM_LINKS, tRAS); options don't."""
    return any(c.isupper() for c in name)


def value_text(value):
    """A TOML value as zelsim reads it on its command line."""
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, float):
        text = repr(value)
        if "e" in text or "inf" in text or "nan" in text:
            if not math.isfinite(value):
                raise ValueError(f"{value} is not a finite number")
            text = format(value, ".15f").rstrip("0").rstrip(".")
        return text
    return str(value)


class _Source:
    """The file's text, to find the line that a table or key stands on.

    tomllib reports lines only for syntax errors; for a value that parses but
    makes no sense, this scan finds the line of the key that holds it.
    """

    HEADER = re.compile(r"^\s*\[\s*([^\]\[]+?)\s*\]\s*(#.*)?$")
    ASSIGN = re.compile(r"""^\s*("?)([A-Za-z0-9_\-]+)\1\s*=""")

    def __init__(self, path, text):
        self.path = path
        self.lines = text.splitlines()

    def line_of(self, table, key=None):
        """The line of `key` in `table`, else of the table `key` (written as
        a header of its own), else of `table` itself."""
        table = tuple(table)
        if key is not None:
            return self._find(table, key) or self._find((*table, key)) or self._find(table)
        return self._find(table)

    def _find(self, table, key=None):
        """The line of `key = ...` in `table`; without a key, the table's
        header, or its `name = { ... }` line when it is written inline."""
        current = ()
        for number, line in enumerate(self.lines, 1):
            header = self.HEADER.match(line)
            if header:
                current = tuple(p.strip().strip('"') for p in header.group(1).split("."))
                if key is None and current == table:
                    return number
                continue
            if key is not None:
                wanted = (current, key) == (table, self._key(line))
            else:
                wanted = bool(table) and current == table[:-1] and self._key(line) == table[-1]
            if wanted:
                return number
        return None

    def _key(self, line):
        assign = self.ASSIGN.match(line)
        return assign.group(2) if assign else None

    def error(self, message, table=(), key=None):
        line = self.line_of(table, key)
        where = f"'{self.path}' line {line}" if line else f"'{self.path}'"
        return SweepError(f"{where}: {message}")


def _number(value):
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def _values(src, table, name, given, what):
    """The values of an axis or of the seeds: a list, or a range table."""
    if isinstance(given, list):
        if not given:
            raise src.error(f"{what} '{name}' has no values", table, name)
        for v in given:
            if not isinstance(v, (bool, int, float, str)):
                raise src.error(f"{what} '{name}': values must be numbers, strings or booleans", table, name)
        if len(set(map(repr, given))) != len(given):
            raise src.error(f"{what} '{name}' repeats a value", table, name)
        return list(given)
    if isinstance(given, dict) and set(given) <= {"from", "to", "step"}:
        where = (*table, name)
        missing = [k for k in ("from", "to") if k not in given]
        if missing:
            raise src.error(f"{what} '{name}': a range needs 'from' and 'to'", where)
        start, stop, step = given["from"], given["to"], given.get("step", 1)
        if not all(_number(v) for v in (start, stop, step)):
            raise src.error(f"{what} '{name}': 'from', 'to' and 'step' must be numbers", where)
        if step <= 0 or stop < start:
            raise src.error(f"{what} '{name}': a range needs 'step' above 0 and 'to' not below 'from'", where)
        count = math.floor((stop - start) / step + 1e-9) + 1
        if all(isinstance(v, int) for v in (start, stop, step)):
            return [start + i * step for i in range(count)]
        # Rounded so that 0.1 steps give 0.3 and not 0.30000000000000004.
        return [round(start + i * step, 12) for i in range(count)]
    raise src.error(f"{what} '{name}' must be a list of values or a range {{ from, to, step }}", table, name)


def _check_assignment(src, table, name, value):
    """One setting, option or request rate, wherever it is given."""
    if name == RATE:
        if value != "max" and not (_number(value) and value > 0):
            raise src.error(f"{RATE} must be above 0 (requests per us per generator) or \"max\"", table, name)
        return
    if name == "SIM_TIME":
        raise src.error("SIM_TIME is the sweep's run_length_ns", table, name)
    if is_key(name):
        if not KEY_NAME.match(name):
            raise src.error(f"'{name}' is not a configuration key name", table, name)
        if not isinstance(value, (bool, int, float, str)):
            raise src.error(f"key {name}: the value must be a number, a string or a boolean", table, name)
        return
    if not OPTION_NAME.match(name):
        raise src.error(f"'{name}' is neither a configuration key (capitals) nor a zelsim option (lower case)", table, name)
    if name in RESERVED_OPTIONS:
        raise src.error(f"option '{name}' is set by the sweep tool for every point", table, name)
    items = value if isinstance(value, list) else [value]
    if not items or not all(isinstance(v, (bool, int, float, str)) for v in items):
        raise src.error(f"option '{name}': the value must be a number, a string, a boolean or a list of them", table, name)


def _touched(name):
    """The zelsim setting an assignment decides, to catch one set twice."""
    return "REQUEST_SPACING" if name == RATE else name


class _Axis:
    def __init__(self, name, values, variants=None):
        self.name = name
        self.values = values            # what a point shows for this axis
        self.variants = variants        # variant name -> assignments, or None

    def assignments(self, value):
        return self.variants[value] if self.variants is not None else {self.name: value}

    def touched(self):
        if self.variants is None:
            return {_touched(self.name)}
        return {_touched(n) for v in self.variants.values() for n in v}


def _read_axis(src, name, given):
    table = ("axes",)
    is_variants = isinstance(given, dict) and given and all(isinstance(v, dict) for v in given.values())
    if not is_variants:
        values = _values(src, table, name, given, "axis")
        for v in values:
            _check_assignment(src, table, name, v)
        return _Axis(name, values)
    for variant, assignments in given.items():
        if not assignments:
            raise src.error(f"axis '{name}': variant '{variant}' sets nothing", (*table, name), variant)
        for key, value in assignments.items():
            _check_assignment(src, (*table, name, variant), key, value)
    return _Axis(name, list(given), variants=given)


def _options_args(options, base):
    """zelsim's options from `name = value` pairs: lists repeat the option,
    true is a bare flag, false leaves it out. Configuration files are taken
    relative to the sweep file."""
    args = []
    for name, value in options.items():
        flag = "--" + name.replace("_", "-")
        for item in value if isinstance(value, list) else [value]:
            if item is True:
                args.append(flag)
            elif item is not False:
                text = value_text(item)
                if name == "config":
                    text = str((base / text).resolve())
                args += [flag, text]
    return args


def _spacing(rate, assignments):
    """REQUEST_SPACING (core cycles between two requests of a generator) for
    a rate in requests per microsecond; "max" is as fast as the queue allows."""
    if rate == "max":
        return 0
    clk = assignments.get("CORE_CLK", DEFAULT_CORE_CLK_NS)
    return max(1, round(1000.0 / (rate * clk)))


def _point_args(assignments, base, run_length_ns, seed):
    options = {n: v for n, v in assignments.items() if not is_key(n) and n != RATE}
    keys = {n: v for n, v in assignments.items() if is_key(n)}
    if RATE in assignments:
        keys["REQUEST_SPACING"] = _spacing(assignments[RATE], keys)
    # zelsim applies --config and --set in command-line order, so the files
    # go first and every key of the sweep wins over them.
    configs = {"config": options.pop("config")} if "config" in options else {}
    args = _options_args(configs, base) + _options_args(options, base)
    for name, value in keys.items():
        args += ["--set", f"{name}={value_text(value)}"]
    args += ["--set", f"SIM_TIME={value_text(run_length_ns)}", "--seed", str(seed)]
    return args


def read_sweep(path):
    """Reads and checks a sweep file and expands its points."""
    path = Path(path)
    try:
        text = path.read_text(encoding="utf-8")
    except (OSError, UnicodeDecodeError) as e:
        raise SweepError(f"can't read sweep file '{path}': {getattr(e, 'strerror', None) or e}")
    src = _Source(path, text)
    try:
        doc = tomllib.loads(text)
    except tomllib.TOMLDecodeError as e:
        found = re.match(r"(.*) \(at line (\d+), column (\d+)\)$", str(e))
        if found:
            raise SweepError(f"'{path}' line {found.group(2)}: {found.group(1)} (column {found.group(3)})")
        at_end = re.match(r"(.*) \(at end of document\)$", str(e))
        if at_end:
            raise SweepError(f"'{path}' line {len(src.lines)}: {at_end.group(1)} at the end of the file")
        raise SweepError(f"'{path}': {e}")

    for name in doc:
        if name not in TOP_LEVEL:
            raise src.error(f"unknown entry '{name}'; a sweep file holds {', '.join(TOP_LEVEL)}", (), name)
    if "run_length_ns" not in doc:
        raise SweepError(f"'{path}': run_length_ns is missing (simulated time of each point, in ns)")
    run_length = doc["run_length_ns"]
    if not _number(run_length) or run_length < 0:
        raise src.error("run_length_ns must be a number of ns, 0 or more", (), "run_length_ns")
    title = doc.get("title", path.stem)
    zelsim = doc.get("zelsim")
    for name, value in (("title", title), ("zelsim", zelsim)):
        if value is not None and not isinstance(value, str):
            raise src.error(f"{name} must be a string", (), name)
    seeds = _values(src, (), "seeds", doc.get("seeds", [1]), "list")
    if not all(isinstance(s, int) and not isinstance(s, bool) and 0 <= s < 2**64 for s in seeds):
        raise src.error("seeds must be whole numbers, 0 or more", (), "seeds")

    common = {}
    for table in ("settings", "options"):
        entries = doc.get(table, {})
        if not isinstance(entries, dict):
            raise src.error(f"'{table}' must be a table", (), table)
        for name, value in entries.items():
            if is_key(name) != (table == "settings") and name != RATE:
                other = "options" if table == "settings" else "settings"
                raise src.error(f"'{name}' belongs in [{other}]: keys have capitals, options are lower case", (table,), name)
            _check_assignment(src, (table,), name, value)
            common[name] = value
    axes_doc = doc.get("axes", {})
    if not isinstance(axes_doc, dict):
        raise src.error("'axes' must be a table", (), "axes")
    axes = [_read_axis(src, name, given) for name, given in axes_doc.items()]

    # Each zelsim setting is decided in one place only.
    owner = {_touched(n): "[settings]" if is_key(n) else "[options]" for n in common}
    for axis in axes:
        for name in sorted(axis.touched()):
            if name in owner:
                raise src.error(f"axis '{axis.name}' sets {name}, which {owner[name]} sets already", ("axes",), axis.name)
            owner[name] = f"axis '{axis.name}'"

    if zelsim is not None and "/" in zelsim:
        zelsim = str((path.parent / zelsim).resolve())
    sweep = Sweep(path, title, zelsim, run_length, seeds, [a.name for a in axes])
    base = path.parent
    for combination in itertools.product(*(a.values for a in axes)):
        assignments = dict(common)
        for axis, value in zip(axes, combination):
            assignments.update(axis.assignments(value))
        shown = {a.name: v for a, v in zip(axes, combination)}
        for seed in seeds:
            try:
                args = _point_args(assignments, base, run_length, seed)
            except ValueError as e:
                raise SweepError(f"'{path}': {e}")
            sweep.points.append(Point(len(sweep.points), shown, seed, args))
    # Two request rates can round to one spacing: such points would be one run.
    seen = {}
    for p in sweep.points:
        twin = seen.setdefault(tuple(p.args), p)
        if twin is not p:
            axis = next(n for n in sweep.axis_names if twin.axes[n] != p.axes[n])
            spacing = next(a for a in p.args if a.startswith("REQUEST_SPACING=")) if axis == RATE else ""
            raise src.error(f"points {twin.label()} and {p.label()} give the same zelsim command"
                            + (f" ({spacing})" if spacing else ""), ("axes",), axis)
    return sweep


def point_key(args, version):
    """The point's identity for resuming: its command line and zelsim's
    version. A configuration file counts by its content, not its path."""
    canonical = []
    for i, arg in enumerate(args):
        if i > 0 and args[i - 1] == "--config":
            try:
                arg = "sha256:" + hashlib.sha256(Path(arg).read_bytes()).hexdigest()
            except OSError as e:
                raise SweepError(f"can't read configuration file '{arg}': {e.strerror}")
        canonical.append(arg)
    text = json.dumps({"zelsim": version, "args": canonical})
    return hashlib.sha256(text.encode()).hexdigest()[:16]
