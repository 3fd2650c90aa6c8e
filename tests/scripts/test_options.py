# SPDX-License-Identifier: Apache-2.0
"""What "--help" names is in the man page and in the completion, and nothing else is."""
import os
import pathlib
import re
import shutil
import subprocess

import pytest
from conftest import SOURCE

# The programs under test, separated by colons.
PROGRAMS = [pathlib.Path(path) for path in os.environ["VISTREL_PROGRAMS"].split(":")]
# Asked of the shell as a user who has typed two hyphens asks.
ASK = """. "$1"; COMP_WORDS=("$2" --) COMP_CWORD=1
"$(complete -p "$2" | sed -E 's/.*-F ([^ ]+).*/\\1/')"; printf '%s\\n' "${COMPREPLY[@]}" """


def run(*command):
    return subprocess.run(command, text=True, stdout=subprocess.PIPE, check=False).stdout


def long_options(text):
    return sorted(set(re.findall(r"(?<![A-Za-z0-9-])--[a-z][a-z-]*", text)))


def short_options(text):
    return sorted(set(re.findall(r"(?:^| )(-[a-z])[ ,]", text, re.MULTILINE)))


@pytest.mark.parametrize("program", PROGRAMS, ids=lambda program: program.name)
def test_options(program):
    offered = run(program, "--help")
    assert long_options(offered)
    page = SOURCE / f"packaging/man/{program.name}.1"
    # Plain text: hyphens and font changes of the source are markup. Options begin a paragraph.
    text = re.sub(r"\\f[A-Z]", "", page.read_text().replace(r"\-", "-"))
    tags = "\n".join(re.findall(r"^\.TP\n\.B[A-Z]* (.*)", text, re.MULTILINE))
    assert long_options(tags) == long_options(offered)
    assert short_options(tags) == short_options(offered)

    completion = SOURCE / "packaging/completion" / program.name
    completed = run("bash", "-c", ASK, "ask", completion, program.name)
    assert sorted(set(completed.split())) == long_options(offered)

    if shutil.which("man"):
        done = subprocess.run(
            ["man", "--warnings", "--local-file", "--encoding=UTF-8", page], text=True, check=False,
            env={**os.environ, "MANWIDTH": "80"}, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        assert done.stderr == ""
