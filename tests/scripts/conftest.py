# SPDX-License-Identifier: Apache-2.0
"""The scripts under test can be imported."""
import pathlib
import sys

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path += [str(SOURCE / "scripts"), str(SOURCE / "scripts/demo")]
