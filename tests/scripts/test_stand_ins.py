# SPDX-License-Identifier: Apache-2.0
"""The stand-ins of the demonstration: the switch of the automatic start keeps its state, everything
else does nothing."""
import os
import subprocess

from conftest import SOURCE

UNIT = "kor_vistrel_cli.service"


def test_stand_ins(tmp_path):
    environment = {"VISTREL_DEMO_STATE": str(tmp_path),
                   "PATH": f"{SOURCE}/scripts/demo/commands:{os.environ['PATH']}"}

    def call(*command):
        done = subprocess.run(command, env=environment, text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, check=False)
        return done.stdout, done.returncode

    assert call("systemctl", "is-enabled", UNIT) == ("disabled\n", 1)
    assert call("sudo", "systemctl", "enable", UNIT) == ("", 0)
    assert call("systemctl", "is-enabled", UNIT) == ("enabled\n", 0)
    for verb in "restart", "stop":
        assert call("sudo", "systemctl", verb, UNIT) == ("", 0)
    assert call("systemctl", "is-enabled", UNIT) == ("enabled\n", 0)
    assert call("sudo", "systemctl", "disable", UNIT) == ("", 0)
    assert call("systemctl", "is-enabled", UNIT) == ("disabled\n", 1)
    victim = tmp_path / "victim"
    victim.touch()
    assert call("sudo", "rm", victim) == ("", 1)
    assert victim.exists()
