# SPDX-License-Identifier: Apache-2.0
"""Stereo frames, their exact capture times and the inertial data of a virtual stereo camera.

    import vistrel
    with vistrel.open("rtsp://board:34000/stereo") as camera:
        for frame in camera:
            print(frame.time_ns, frame.left.shape, len(frame.imu))

docs/python.md has more.
"""
from __future__ import annotations

import os
from functools import cached_property
from typing import Iterator, Optional, Union

import numpy as np

from . import _vistrel

__all__ = ["Camera", "Error", "Frame", "IMU_DTYPE", "Timeout", "open"]

#: Fields of `Frame.imu`, one element per packet: `time_ns` (ns since 1970), `sequence`, `valid_fields`
#: (bits: 1 acceleration, 2 angular rate, 4 magnetic field, 8 orientation, 16 temperature, 32 pressure),
#: `acceleration` (3, m/s², gravity included), `angular_rate` (3, rad/s), `magnetic_field` (3, µT),
#: `orientation` (4, unit quaternion x y z w), `temperature` (°C), `pressure` (hPa), and
#: `acceleration_covariance`, `angular_rate_covariance`, `orientation_covariance` (3 × 3). Fields that are
#: not measured are 0.
IMU_DTYPE: np.dtype = _vistrel.IMU_DTYPE


class Error(Exception):
    """A stream or file that cannot be opened, or breaks."""

    def __init__(self, address: str, reason: str) -> None:
        super().__init__(address, reason)
        self.address = address  #: without user and password
        self.reason = reason

    def __str__(self) -> str:
        return f"{self.address}: {self.reason}"


class Timeout(Error):
    """No frame came in time. The camera stays open, and may be read again."""


class Frame:
    """One stereo frame. It stays as it is for as long as it, or an array of it, is kept."""

    def __init__(self, native: _vistrel.Frame, color: bool) -> None:
        self._native = native
        self._color = color
        #: Capture time of the left eye, ns since 1970. When `counter` is None it is exact to 12 µs only.
        self.time_ns: int = native.time_ns
        #: Number of the frame, from 0 when the sender was opened; a gap is a frame that was lost, or that
        #: this program left out. None: the frame's data were lost in the network.
        self.counter: Optional[int] = native.counter
        #: Serial number of the virtual camera, or None as above.
        self.serial: Optional[int] = native.serial
        #: How long after the left eye the right one was taken, ns, where cameras run without a common
        #: trigger and are stamped by the grid; 0 where they are triggered. None as above.
        self.eye_offset_ns: Optional[int] = native.eye_offset_ns

    @cached_property
    def left(self) -> np.ndarray:
        """The left eye, uint8: grey (height, width), read-only, where the decoder has put it; with
        `color=True` (height, width, 3) in the order blue, green, red, converted at the first use of either
        eye. Rows need not lie one after the other."""
        return self._pair[:, :self._width] if self._color else self._native.grey(0)

    @cached_property
    def right(self) -> np.ndarray:
        """The right eye, like the left."""
        return self._pair[:, self._width:] if self._color else self._native.grey(1)

    @cached_property
    def _pair(self) -> np.ndarray:
        return self._native.colour()

    @property
    def _width(self) -> int:
        return self._pair.shape[1] // 2

    @cached_property
    def imu(self) -> np.ndarray:
        """The inertial packets since the frame that was read before, in the order of the stream: (n,) of
        `IMU_DTYPE`. Frames that are left out leave their packets to the next."""
        return self._native.imu

    def __repr__(self) -> str:
        return f"<vistrel.Frame {self.counter} at {self.time_ns} ns>"


class Camera:
    """An open stream or file, made by `open`. May be used by several threads; each frame goes to one."""

    def __init__(self, address: str, reader: _vistrel.Reader, color: bool,
                 timeout: Optional[float]) -> None:
        self.address = address  #: without user and password
        self.timeout = timeout  #: seconds to wait for a frame, None: for ever
        self._reader = reader
        self._color = color

    def read(self, timeout: Optional[float] = None) -> Optional[Frame]:
        """The next frame, waiting for it up to `timeout` seconds (None: the camera's `timeout`).

        Frames come without gaps as long as no more than `buffer` of them wait for this program; then the
        oldest are dropped, and counted in `dropped`. Files wait for the reader and drop none.

        Returns None at the end of a file, and when the camera was closed. Raises `Timeout` when none came
        in time, and `Error` when the stream broke."""
        return self._read(timeout, newest=False)

    def read_latest(self, timeout: Optional[float] = None) -> Optional[Frame]:
        """Like `read`, but the newest frame; those before it are left out. Of a file, the next."""
        return self._read(timeout, newest=True)

    @property
    def is_connected(self) -> bool:
        """Whether frames come: nothing ended the stream, and the newest frame is not older than
        `timeout`. Of a file: whether it is open and not read to its end."""
        if self._reader.is_over():
            return False
        return self._is_file or self.timeout is None or self._reader.age() < self.timeout

    @property
    def dropped(self) -> int:
        """Frames that `read` could not give, because more than `buffer` waited."""
        return self._reader.dropped()

    def close(self) -> None:
        """Ends the stream. Whoever waits for a frame gets None. Frames that were read stay valid."""
        self._reader.close()

    def __enter__(self) -> Camera:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __iter__(self) -> Iterator[Frame]:
        """Frames as `read` gives them, until the end of the file or `close`."""
        return iter(self.read, None)

    @property
    def _is_file(self) -> bool:
        return "://" not in self.address

    def _patience(self, timeout: Optional[float]) -> Optional[float]:
        return self.timeout if timeout is None else timeout

    def _read(self, timeout: Optional[float], newest: bool) -> Optional[Frame]:
        patience = self._patience(timeout)
        native = self._call(self._reader.next, patience, newest)
        return native and Frame(native, self._color)

    def _call(self, function, patience, *arguments):
        try:
            return function(patience, *arguments)
        except TimeoutError:
            raise Timeout(self.address, f"no frame for {patience:g} s") from None
        except RuntimeError as error:
            raise Error(self.address, str(error)) from None


def open(address: Union[str, os.PathLike], *, color: bool = False, timeout: Optional[float] = 10.0,
         buffer: int = 16, tcp: bool = False, jitter: float = 0.2, ca: Optional[str] = None,
         insecure: bool = False) -> Camera:
    """Opens a stream or a recorded file, and waits for its first frame.

    address   rtsp:// or rtsps:// address, with user:password@ in it where the stream asks for them, or
              the path of a file that vistrel-receive has recorded (FILE.ts)
    color     frames as blue, green, red instead of grey
    timeout   seconds to wait for each frame, also the first, None: for ever
    buffer    frames that may wait for this program. Each takes 1.5 bytes for every pixel of both eyes:
              16 of 2 × 1920 × 1200 are 110 MB
    tcp       media through the RTSP connection, for networks that let no UDP through
    jitter    seconds to wait for a packet of the network that is missing
    ca        PEM file of the authorities to trust with rtsps://, default the system's
    insecure  accept any certificate

    Raises `Error` when it cannot be opened, `Timeout` when no frame comes."""
    text = os.fspath(address)
    shown = _vistrel.without_credentials(text)
    try:
        if "://" not in text:
            os.stat(text)
        reader = _vistrel.Reader(text, tcp, round(jitter * 1000), ca or "", insecure, buffer)
    except OSError as error:
        raise Error(shown, os.strerror(error.errno)) from None
    except RuntimeError as error:
        raise Error(shown, str(error)) from None
    camera = Camera(shown, reader, color, timeout)
    try:
        if not camera._call(reader.wait, timeout):
            raise Error(shown, "holds no frame")
    except BaseException:
        camera.close()
        raise
    return camera
