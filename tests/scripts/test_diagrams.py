# SPDX-License-Identifier: Apache-2.0
"""The diagrams of the documentation are those of their sources. (Graphviz differs from version to version;
what a script draws does not.)"""
import subprocess

import pytest
from conftest import SOURCE


@pytest.mark.parametrize("source", (SOURCE / "docs/diagrams").glob("*.py"), ids=lambda path: path.stem)
def test_drawn_by_a_script(source):
    drawn = subprocess.run([source], check=True, stdout=subprocess.PIPE, text=True).stdout
    assert drawn == (SOURCE / f"docs/images/{source.stem}.svg").read_text(), "draw it anew with draw"


@pytest.mark.parametrize("source", (SOURCE / "docs/diagrams").glob("*.[dp]*"), ids=lambda path: path.stem)
def test_shown(source):
    pages = "".join(page.read_text() for page in (SOURCE / "docs").glob("*.md"))
    assert (SOURCE / f"docs/images/{source.stem}.svg").exists()
    assert f"(images/{source.stem}.svg)" in pages
