# SPDX-License-Identifier: Apache-2.0
import sys
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent))

FAKE = HERE / "fake_zelsim.py"


@pytest.fixture
def sweep(tmp_path):
    """Writes a sweep file into the test's folder and returns its path."""
    def write(text, name="s.toml"):
        path = tmp_path / name
        path.write_text(text)
        return path
    return write


@pytest.fixture
def fake(tmp_path, monkeypatch):
    """The fake zelsim, with its calls logged; returns a reader of the calls."""
    calls = tmp_path / "calls.txt"
    monkeypatch.setenv("FAKE_ZELSIM_CALLS", str(calls))

    def read():
        return calls.read_text().splitlines() if calls.exists() else []
    return read
