# SPDX-License-Identifier: Apache-2.0
"""What became of every pair that was due, from the log of the program and the statistics of a
receiver."""
import re
from dataclasses import dataclass, field

# With this in its environment the program logs each image that it loses.
ENVIRONMENT = {"QT_LOGGING_RULES": "vistrel.images.debug=true"}

SKIPPED = re.compile(r"\[tq_kor\] camera S/N (\d+) skipped (\d+) frames between those of (\d+) and (\d+)")
LOST = re.compile(r"\[KTCamera\] Camera (\d+) image of (\d+) lost")
DROPPED = re.compile(r"\[VirtualCameraStreamer\] Camera (\d+) image of (\d+) dropped")


@dataclass
class Eye:
    """Images of one camera, which either made a pair or are counted here."""
    skipped: int = 0
    lost: int = 0
    dropped: int = 0
    uncertain: int = 0  # skipped shortly before or after the beginning or the end


@dataclass
class Account:
    """Pairs from the first to the last one received."""
    due: int
    joined: int
    dropped: int
    received: int
    packets_lost: int  # of the video, on the way
    eyes: list = field(default_factory=list)

    @property
    def lost_on_the_way(self):
        return self.joined - self.dropped - self.received

    @property
    def unexplained(self):
        """Pairs for which nobody has accounted; where the eyes differ, that of the worse one.
        No pair is lost on the way unless packets are."""
        before = max((self.due - eye.skipped - eye.lost - eye.dropped - self.joined for eye in self.eyes),
                     key=abs)
        after = 0 if self.packets_lost and self.lost_on_the_way > 0 else self.lost_on_the_way
        return before + after


def account(log, statistics, serials, fps):
    """log: text; statistics: of vistrel-receive; serials: of the left and the right camera."""
    span = statistics["span"]
    begin, end = span["firstCaptureTime"], span["lastCaptureTime"]
    period = 10**9 / fps
    result = Account(round((end - begin) / period) + 1, span["lastCounter"] - span["firstCounter"] + 1,
                     span["framesDroppedBySender"], span["frames"],
                     statistics["videoPacketsLost"])

    def images(pattern, serial):
        return sum(begin - period / 2 < int(time) < end + period / 2
                   for camera, time in pattern.findall(log) if int(camera) == serial)

    for serial in serials:
        eye = Eye(lost=images(LOST, serial), dropped=images(DROPPED, serial))
        for camera, count, before, after in SKIPPED.findall(log):
            if int(camera) != serial or int(after) < begin + period / 2 or int(before) > end - period / 2:
                continue
            eye.skipped += int(count)
            if int(before) < begin - period / 2 or int(after) > end + period / 2:
                eye.uncertain += int(count)
        result.eyes.append(eye)
    return result


def show(result):
    left, right = result.eyes
    print(f"pairs due                        {result.due}")
    print(f"  skipped by a source            {left.skipped} left, {right.skipped} right")
    print(f"  lost by a worker               {left.lost} left, {right.lost} right")
    print(f"  dropped unsent by the streamer {left.dropped} left, {right.dropped} right")
    print(f"given to the sender              {result.joined}")
    print(f"  dropped before the encoder     {result.dropped}")
    print(f"  lost on the way                {result.lost_on_the_way} ({result.packets_lost} packets)")
    print(f"received                         {result.received}")
    print(f"unexplained                      {result.unexplained}")
    if left.uncertain or right.uncertain:
        print(f"  of those skipped, {left.uncertain} left and {right.uncertain} right may have been "
              "due before the first or after the last pair received")
