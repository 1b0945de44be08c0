# SPDX-License-Identifier: Apache-2.0
"""The sweep file reader: what a good file expands to, and the message a bad
one gets."""
import pytest

from zelsweep.sweepfile import SweepError, point_key, read_sweep


def test_points_are_every_combination_with_seeds_innermost(sweep):
    s = read_sweep(sweep("""
title = "t"
run_length_ns = 20000
seeds = { from = 1, to = 2 }
[settings]
NUM_REQUESTS = 500
CORE_CLK = 2.0
[options]
lanes = 8
check_rest = true
dump_state = false
correct = ["smoothing-stall", "bank-ownership"]
[axes]
request_rate = [10, "max"]
[axes.traffic.reads]
PERCENTAGE_READ = 100
[axes.traffic.mixed]
PERCENTAGE_READ = 50
link_rate = 50
"""))
    assert len(s.points) == 2 * 2 * 2
    assert [(p.axes["request_rate"], p.axes["traffic"], p.seed) for p in s.points[:4]] == [
        (10, "reads", 1), (10, "reads", 2), (10, "mixed", 1), (10, "mixed", 2)]
    # 10 requests per us at a 2 ns clock: one every 50 cycles; "max" is 0.
    assert s.points[0].args == [
        "--lanes", "8", "--check-rest", "--correct", "smoothing-stall", "--correct", "bank-ownership",
        "--set", "NUM_REQUESTS=500", "--set", "CORE_CLK=2.0", "--set", "PERCENTAGE_READ=100",
        "--set", "REQUEST_SPACING=50", "--set", "SIM_TIME=20000", "--seed", "1"]
    mixed_max = s.points[-1].args
    assert "--link-rate" in mixed_max and "REQUEST_SPACING=0" in mixed_max and mixed_max[-1] == "2"


def test_ranges_and_default_clock(sweep):
    s = read_sweep(sweep("""
run_length_ns = 1000
[axes]
REQUEST_SPACING = { from = 0, to = 8, step = 4 }
tRAS = { from = 0.1, to = 0.3, step = 0.1 }
"""))
    spacing = sorted({p.axes["REQUEST_SPACING"] for p in s.points})
    assert spacing == [0, 4, 8]
    assert sorted({p.axes["tRAS"] for p in s.points}) == [0.1, 0.2, 0.3]
    assert "tRAS=0.3" in s.points[2].args
    assert s.points[0].seed == 1 and s.title == "s"
    # The compiled 1.6 ns clock: 25 requests per us are one per 25 cycles.
    rate = read_sweep(sweep("run_length_ns = 1\n[axes]\nrequest_rate = [25]\n", "r.toml"))
    assert "REQUEST_SPACING=25" in rate.points[0].args


def test_key_follows_the_command_version_and_config_content(sweep, tmp_path):
    (tmp_path / "a.ini").write_text("NUM_QUADS = 4\n")
    s = read_sweep(sweep('run_length_ns = 100\nseeds = [1, 2]\n[options]\nconfig = ["a.ini"]\n'))
    first, second = s.points
    assert str(tmp_path / "a.ini") in first.args
    key = point_key(first.args, "v1")
    assert key == point_key(list(first.args), "v1")
    assert key != point_key(second.args, "v1")
    assert key != point_key(first.args, "v2")
    # The same configuration elsewhere is the same point; a changed one isn't.
    (tmp_path / "b.ini").write_text("NUM_QUADS = 4\n")
    moved = [str(tmp_path / "b.ini") if a.endswith("a.ini") else a for a in first.args]
    assert point_key(moved, "v1") == key
    (tmp_path / "a.ini").write_text("NUM_QUADS = 2\n")
    assert point_key(first.args, "v1") != key


BAD_FILES = [
    # (file text, line named, words of the message)
    ("run_length_ns = 10\nseeds = [1,\n[axes]\n", 3, "Invalid"),
    ("run_length_ns = 10\n[axes]\nNUM_LINKS = [1, 2\n", 3, "Unclosed array at the end of the file"),
    ("run_length_ns = 10\nspeed = 3\n", 2, "unknown entry 'speed'"),
    ("title = 'x'\n", None, "run_length_ns is missing"),
    ("run_length_ns = -5\n", 1, "run_length_ns must be"),
    ("run_length_ns = 10\n[settings]\nSIM_TIME = 5\n", 3, "SIM_TIME is the sweep's run_length_ns"),
    ("run_length_ns = 10\n[settings]\nlanes = 8\n", 3, "belongs in [options]"),
    ("run_length_ns = 10\n[options]\nseed = 3\n", 3, "option 'seed' is set by the sweep tool"),
    ("run_length_ns = 10\n[settings]\nNUM_LINKS = [1, 2]\n", 3, "key NUM_LINKS"),
    ("run_length_ns = 10\n[axes]\nNUM_LINKS = []\n", 3, "has no values"),
    ("run_length_ns = 10\n[axes]\nNUM_LINKS = [1, 2, 1]\n", 3, "repeats a value"),
    ("run_length_ns = 10\n[axes]\n\nNUM_LINKS = { from = 4, to = 1 }\n", 4, "'to' not below 'from'"),
    ("run_length_ns = 10\n[axes]\nNUM_LINKS = { from = 1 }\n", 3, "needs 'from' and 'to'"),
    ("run_length_ns = 10\n[axes]\nNUM_LINKS = 4\n", 3, "must be a list of values or a range"),
    ("run_length_ns = 10\n[axes]\nrequest_rate = [10, 0]\n", 3, "request_rate must be above 0"),
    ("run_length_ns = 10\n[settings]\nNUM_LINKS = 2\n[axes]\nx = [1]\nNUM_LINKS = [1, 2]\n", 6,
     "sets NUM_LINKS, which [settings] sets already"),
    ("run_length_ns = 10\n[axes]\nREQUEST_SPACING = [1]\nrequest_rate = [5]\n", 4,
     "sets REQUEST_SPACING, which axis 'REQUEST_SPACING' sets already"),
    ("run_length_ns = 10\n[axes.mix.reads]\nPERCENTAGE_READ = 100\n[axes.mix.odd]\n\n", 4,
     "variant 'odd' sets nothing"),
    ("run_length_ns = 10\n[axes.mix.reads]\nPERCENTAGE_READ = 100\nBad-Key = 1\n", 4,
     "'Bad-Key' is not a configuration key"),
    ("run_length_ns = 10\nseeds = [1, -2]\n", 2, "seeds must be whole numbers"),
    ("run_length_ns = 10\n[axes]\nrequest_rate = [300, 350]\n", 3,
     "request_rate=300 and request_rate=350 give the same zelsim command (REQUEST_SPACING=2)"),
]


@pytest.mark.parametrize("text,line,words", BAD_FILES)
def test_a_bad_file_gets_one_message_naming_the_line(sweep, text, line, words):
    path = sweep(text)
    with pytest.raises(SweepError) as error:
        read_sweep(path)
    message = str(error.value)
    assert "\n" not in message
    where = f"'{path}' line {line}:" if line else f"'{path}':"
    assert message.startswith(where), message
    assert words in message


def test_a_missing_file_is_named(tmp_path):
    with pytest.raises(SweepError, match="can't read sweep file .*nothing.toml"):
        read_sweep(tmp_path / "nothing.toml")
