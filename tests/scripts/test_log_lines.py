# SPDX-License-Identifier: Apache-2.0
"""Every line that the program logs is explained in the section "Logs" of docs/operations.md."""
import re

import pytest
from conftest import SOURCE

STRING = r'"(?:[^"\\]|\\.)*"'
# The texts of the SDK's results are logged by those who report one.
STATEMENT = re.compile(
    r"(?:\bq(?:C?Debug|Info|Warning|Critical|Fatal)\(|\b(?:cout|cerr|clog|log) ?<<|\blog(?:Line)?\("
    rf"|\bfprintf\(stderr,|\bcase ErrorCode::\w+:)(?:{STRING}|[^;\"])*;")
# Not logged: the camera list, for callers of the SDK that ask for it, and the result without error.
EXCEPTIONS = {", available", "opened", "success"}


def statements(code):
    """The texts of each statement that logs; texts side by side in the source are one."""
    code = re.sub(r'(?m)(?:^|\s)//.*|"\s*\n\s*"', "", code)
    for statement in STATEMENT.findall(code):
        texts = (" ".join(re.sub(r"\\[nt]", " ", text[1:-1]).replace(r'\"', '"').split())
                 for text in re.findall(STRING, statement))
        yield [text for text in texts if re.search("[A-Za-z]{2}", text)]


def test_statements():
    assert list(statements('// qDebug() << "in a comment";\nlogLine("side "\n  "by side: " + name +\n'
                           '    " is; one\\n"); log << "a \\"quoted\\" text" << "x"; f("silent");')) == [
        ["side by side:", "is; one"], ['a "quoted" text']]


@pytest.mark.parametrize("folder", ["app", "capture", "ui", "sdk"])
def test_log_lines(folder):
    manual = (SOURCE / "docs/operations.md").read_text().partition("\n## Logs\n")[2].partition("\n## ")[0]
    rows = [" ".join(row.split()) for row in manual.splitlines()]
    files = [file for kind in ("*.cpp", "*.h") for file in (SOURCE / folder).rglob(kind)]
    logged = [texts for file in files for texts in statements(file.read_text())]
    assert logged
    missing = [texts for texts in logged if not EXCEPTIONS.intersection(texts) and not any(
        re.search(".*".join(map(re.escape, texts)), row) for row in rows)]
    assert not missing
