# SPDX-License-Identifier: Apache-2.0
"""What scripts/run-tests makes of a run of ctest."""
import os
import subprocess

import pytest
from conftest import SOURCE


@pytest.fixture
def tests(tmp_path):
    """Runs run-tests on scripts by name; its status, its lines, and what it left."""
    def run(scripts, *arguments):
        with open(tmp_path / "CTestTestfile.cmake", "w", encoding="utf-8") as file:
            for name, script in scripts.items():
                limit = 2 if "sleep" in script else 200
                file.write(f'add_test({name} sh -c [==[{script}]==])\nset_tests_properties({name} '
                           f"PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT {limit})\n")
        results = tmp_path / "results"
        environment = {name: value for name, value in os.environ.items()
                       if not name.startswith("CTEST_")}
        done = subprocess.run(
            [SOURCE / "scripts/run-tests", "--results", results, "--test-dir", tmp_path,
             "--parallel", "6", *arguments], cwd=tmp_path, env=environment, text=True,
            stdout=subprocess.PIPE, check=False)
        lines = results.read_text().splitlines() if results.exists() else []
        return done.returncode, lines, done.stdout.splitlines()
    return run


def test_passed(tests):
    status, lines, said = tests({"one": "true", "two": "echo PASS"})
    assert status == 0
    assert lines == ["passed: one", "passed: two"]
    assert said[-1] == "2 passed, 0 failed, 0 skipped"


def test_skipped_tests_and_functions(tests):
    noise = "seq 1 20000"
    parts = {f"part_{i}": f"{noise}; echo 'SKIP   : Suite::f{i}(row) reason {i}'; {noise}"
             for i in range(6)}
    status, lines, said = tests({
        **parts, "silent": "exit 77", "qt": "echo 'SKIP   : no sandbox'; exit 77",
        "script": "echo ok; echo 'script: skipped: no tool' >&2; exit 77",
        "pytest": "echo 'SKIPPED [1] test_x.py:7: no shell'"})
    assert status == 0
    assert [line for line in lines if not line.startswith("passed: ")] == sorted([
        *(f"skipped: part_{i}: Suite::f{i}(row) reason {i}" for i in range(6)),
        "skipped: silent: it does not say why", "skipped: qt: no sandbox",
        "skipped: script: script: skipped: no tool", "skipped: pytest: test_x.py:7: no shell"])
    assert said[-1] == "7 passed, 0 failed, 10 skipped"


def test_failures_are_told_apart(tests):
    status, lines, said = tests({
        "fails": "echo 'SKIP   : Suite::other() why'; exit 1", "hangs": "exec sleep 60",
        "crashes": "kill -SEGV $$", "crashes_in_a_script": "echo 'Received signal 11'; exit 1",
        "sanitizer": "echo '==1==ERROR: AddressSanitizer: heap-use-after-free'"})
    assert status != 0
    assert lines == [
        "failed: crashes: SEGFAULT", "failed: crashes_in_a_script: it crashed",
        "failed: fails: Failed", "failed: hangs: Timeout",
        "failed: sanitizer: a sanitizer reports", "skipped: fails: Suite::other() why"]
    assert said[-1] == "0 passed, 5 failed, 1 skipped"


# Fails in its first run, as told by the script after it.
ONCE = "test -e once_{0} || {{ touch once_{0}; {1}; }}"


def test_second_run(tests, tmp_path):
    once = {name: f"cd {tmp_path}; " + ONCE.format(name, script) for name, script in {
        "halted": "exit 1", "hung": "exec sleep 60", "crashed": "kill -SEGV $$",
        "reported": "echo 'x.cpp:1: runtime error: overflow'; exit 1"}.items()}
    status, lines, _ = tests(
        {**once, "always": "exit 1", "skips": once["halted"].replace("once", "other") + "; exit 77"},
        "--twice")
    assert status != 0
    assert lines == [
        "failed: always: Failed", "failed: crashed: SEGFAULT", "failed: hung: Timeout",
        "failed: reported: a sanitizer reports", "failed: skips: Failed", "passed: halted",
        "unsteady: halted: passed in run 2"]


def test_no_second_run_unless_asked(tests, tmp_path):
    status, lines, _ = tests({"halted": f"cd {tmp_path}; " + ONCE.format("x", "exit 1")})
    assert status != 0
    assert lines == ["failed: halted: Failed"]


def test_unsteady_tests_are_no_failure(tests, tmp_path):
    status, _, said = tests({"halted": f"cd {tmp_path}; " + ONCE.format("x", "exit 1")}, "--twice")
    assert status == 0
    assert said[-2:] == ["unsteady: halted: passed in run 2", "1 passed, 0 failed, 0 skipped"]


def test_results_of_an_earlier_run_are_gone(tests):
    tests({"one": "true"})
    status, lines, _ = tests({"one": "true"}, "-R", "nobody")
    assert status != 0
    assert lines == []
