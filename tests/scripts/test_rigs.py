# SPDX-License-Identifier: Apache-2.0
"""Rigs of the demonstration: which cameras are paired, how a recording is played, what is refused."""
import json

import pytest
import rigs
from conftest import SOURCE


def camera(serial, model="KOR T Solo GS", imu="none"):
    return {"serial": serial, "model": model, "source": {"type": "simulated"}, "imu": {"type": imu}}


@pytest.fixture
def write(tmp_path):
    """Writes a rig's document."""
    def rig(document):
        file = tmp_path / "rig.json"
        file.write_text(document if isinstance(document, str) else json.dumps(document))
        return file
    return rig


@pytest.fixture
def pair(write):
    """The pair among cameras."""
    return lambda *cameras: rigs.pair(write({"cameras": cameras}), None, 30, 30000)[0]["101234567"]


def test_built_in_rig():
    rig = SOURCE / "sdk/rigs/two-gs.json"
    assert rigs.pair(rig, None, 30, 30000)[0] == {"101234567": {
        "FPS": 30, "HDR": 0, "Height": 600, "IMU": True, "Left": 30123456, "Port": 30000,
        "Right": 30123457, "Width": 960}}
    asked = rigs.pair(rig, (1920, 1200), 60, 1234)[0]["101234567"]
    assert [asked[key] for key in ("Width", "Height", "FPS", "Port")] == [1920, 1200, 60, 1234]


@pytest.mark.parametrize("shipped", (SOURCE / "sdk/rigs").glob("*.json"), ids=lambda path: path.name)
def test_shipped_rigs(shipped):
    assert rigs.pair(shipped, None, 30, 30000)


def test_first_two_of_a_family(pair):
    uhd = "KOR T Solo UHD"
    found = pair(camera(31000001, uhd), camera(30000001), camera(41, "KOR T"), camera(42, "KOR T"),
                 camera(30000002, imu="simulated"))
    assert (found["Left"], found["Right"]) == (30000001, 30000002)
    assert (found["Width"], found["Height"], found["IMU"]) == (960, 600, False)
    found = pair(camera(31000002, uhd, "simulated"), camera(31000001, uhd))
    assert (found["Left"], found["Right"]) == (31000002, 31000001)
    assert (found["Width"], found["Height"], found["IMU"]) == (1920, 1080, True)
    for cameras in [], [camera(31000001, uhd), camera(30000001)]:
        with pytest.raises(rigs.Failed, match="rig.json: has no two cameras of the same family"):
            pair(*cameras)


def test_imu_of_another_type_is_left_to_the_program(pair):
    assert pair({**camera(30000001), "imu": 7}, camera(30000002))["IMU"] is False


@pytest.mark.parametrize("reason, document", [
    ("not a rig file: Expecting value: line 2 column 1", '{"cameras": [\n'),
    ("not a rig file: Extra data", "{} {}"), ("not a rig file", []), ("not a rig file: 'cameras'", {}),
    ("not a rig file", {"cameras": 7}), ("not a rig file", {"cameras": ["30000001"]}),
    ("not a rig file", {"cameras": [camera(1, [])]}), ("not a rig file", {"cameras": [], "stream": 7}),
    ("not a rig file: 'serial'", {"cameras": [{"model": "KOR T Solo GS"}]}),
    ("has no two cameras", {"cameras": [camera(30000001), camera("30000002"), camera(True)]})])
def test_refused_rigs(write, reason, document):
    rig = write(document)
    with pytest.raises(rigs.Failed, match=f"^{rig}: {reason}"):
        rigs.pair(rig, None, 30, 30000)


def test_absent_rig(tmp_path):
    with pytest.raises(rigs.Failed, match="absent.json: cannot be read"):
        rigs.pair(tmp_path / "absent.json", None, 30, 30000)


@pytest.fixture
def recording(tmp_path):
    """Indices with carriage returns and headings, first pictures' headers."""
    times = 1403715273262142976, 1403715273312143104, 1403715273362142976
    lines = "".join(f"{time},{index}.png\r\n" for index, time in enumerate(times))
    for name in "cam0", "cam1":
        (tmp_path / "mav0" / name / "data").mkdir(parents=True)
        (tmp_path / "mav0" / name / "data.csv").write_text("#timestamp [ns],filename\r\n" + lines)
        (tmp_path / "mav0" / name / "data/0.png").write_bytes(
            b"\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\x02\xf0\0\0\x01\xe0")
    return tmp_path


def test_recording(recording):
    rig, size, fps = rigs.record(recording)
    assert (size, fps) == ((752, 480), 20)
    assert [camera["source"] for camera in rig["cameras"]] == [
        {"type": "recording", "path": str(recording), "camera": name, "loop": True}
        for name in ("cam0", "cam1")]
    assert [camera["imu"]["type"] for camera in rig["cameras"]] == ["none", "none"]


def test_recording_is_played_once(recording):
    rig, _, _ = rigs.record(recording, once=True)
    assert [camera["source"]["loop"] for camera in rig["cameras"]] == [False, False]


def test_recorded_stream():
    statistics = {"frameRecords": 60, "fps": 29.97, "imuPackets": 400, "eyeWidth": 480, "eyeHeight": 300}
    rig, size, fps = rigs.play_file("/x/session.ts", statistics)
    assert (size, fps) == ((480, 300), 30)
    assert [camera["source"]["camera"] for camera in rig["cameras"]] == ["cam0", "cam1"]
    assert [camera["imu"]["type"] for camera in rig["cameras"]] == ["recorded", "none"]


def test_inertial_data_belong_to_the_left_camera(recording):
    (recording / "mav0/imu0").mkdir()
    (recording / "mav0/imu0/data.csv").write_text("#timestamp [ns]\n")
    rig, size, fps = rigs.record(recording / "mav0")
    assert (size, fps) == ((752, 480), 20)
    assert [camera["imu"]["type"] for camera in rig["cameras"]] == ["recorded", "none"]


@pytest.mark.parametrize("file, content, reason", [
    ("cam1/data.csv", None, "cam1/data.csv is missing"),
    ("cam1/data/0.png", None, "cam1/data/0.png is missing"),
    ("cam0/data.csv", "#timestamp\n", "lists no frames"),
    ("cam0/data.csv", "1403715273262142976,0.png\n", "fewer than two frames"),
    ("cam0/data.csv", "1,0.png\n3000000001,1.png\n", "less than one frame per second"),
    ("cam0/data/0.png", "no picture at all, but long enough", "is no PNG picture")])
def test_refused_recordings(recording, file, content, reason):
    (recording / "mav0" / file).unlink()
    if content:
        (recording / "mav0" / file).write_text(content)
    with pytest.raises(rigs.Failed, match=reason):
        rigs.record(recording)


def test_absent_recording(tmp_path):
    with pytest.raises(rigs.Failed, match="absent is not a folder"):
        rigs.record(tmp_path / "absent")
