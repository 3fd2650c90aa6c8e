# SPDX-License-Identifier: Apache-2.0
"""What all tests in Python share. The scripts under test can be imported."""
import pathlib
import sys
import tempfile

import pytest

SOURCE = pathlib.Path(__file__).resolve().parents[1]
sys.path += [str(SOURCE / "scripts/demo")]


@pytest.fixture
def tmp_path():
    """pytest's own would stay."""
    with tempfile.TemporaryDirectory(prefix="vistrel-test.") as folder:
        yield pathlib.Path(folder)
