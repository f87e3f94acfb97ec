#!/usr/bin/env python3
"""Publishes a camera with zellive and with GStreamer in turn and compares the CPU time of a picture.

The job: NV12 pictures from PipeWire are uploaded, converted to BGRA by OpenGL, read back, encoded by libx264 and
published to nginx, with silence as AAC beside them. Daemon, camera and server are processes of their own and do not
count. CPU time is the kernel's account of the whole process over some seconds in the middle of the stream, divided by
the pictures that the server recorded meanwhile, so start-up and the compiling of shaders do not count either. Started
by scripts/bench camera, which builds what this needs.
"""

import argparse
import collections
import json
import os
import pathlib
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "publish"))
from rtmp_wire import AUDIO, VIDEO  # noqa: E402
from server import Server  # noqa: E402

OURS, PEER, BARE = "zellive", "GStreamer", "GStreamer, no OpenGL"
CAMERA = "bench-camera"
WIDTH, HEIGHT = 1280, 720
AAC_UNITS = 48000 / 1024  # A second.
LEAST = 0.97  # Of pictures and sound; a run that lost more did an easier job.
TICKS = os.sysconf("SC_CLK_TCK")


class BenchError(Exception):
    pass


def options():
    parser = argparse.ArgumentParser(prog="scripts/bench camera", description=__doc__.split("\n")[0])
    parser.add_argument("--rounds", type=int, default=5, help="runs of each program, alternating (%(default)s)")
    parser.add_argument("--seconds", type=int, default=10, help="that are measured of each run (%(default)s)")
    parser.add_argument("--warm-up", type=float, default=3, help="seconds of stream before that (%(default)s)")
    parser.add_argument("--fps", type=int, default=30, help="pictures a second (%(default)s)")
    parser.add_argument("--bitrate", type=int, default=1500, help="kbit/s (%(default)s)")
    parser.add_argument("--preset", default="superfast", help="of libx264 (%(default)s)")
    parser.add_argument("--pattern", default="smpte", help="what videotestsrc shows the camera (%(default)s)")
    parser.add_argument("--json", metavar="FILE", help="write every run's figures there as well")
    parser.add_argument("--devices", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--tool", required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def command(program, url, asked):
    if program == OURS:
        return [
            asked.tool, "publish", url, "--camera", CAMERA, "--fps", str(asked.fps),
            "--bitrate", f"{asked.bitrate}k", "--encoder", "libx264", "--preset", asked.preset,
        ]  # fmt: skip
    # A source that keeps the camera's pictures while it is late may bring this camera to a halt: it copies, as
    # zellive's does.
    # The session's encoder: one thread, one slice, a key frame every two seconds and no other, no B-frames, one and a
    # half times the average in any second, which is a bucket of half a second.
    encoder = (
        f"x264enc speed-preset={asked.preset} tune=zerolatency bitrate={asked.bitrate} vbv-buf-capacity=500 "
        f"key-int-max={2 * asked.fps} bframes=0 threads=1 sliced-threads=false option-string=scenecut=0"
    )
    opengl = [
        "glupload", "glcolorconvert", "video/x-raw(memory:GLMemory),format=BGRA", "gldownload",
        "video/x-raw,format=BGRA",
    ]  # fmt: skip
    elements = [
        f"pipewiresrc target-object={CAMERA} always-copy=true do-timestamp=true",
        f"video/x-raw,format=NV12,width={WIDTH},height={HEIGHT},framerate={asked.fps}/1",
        *(opengl if program == PEER else []),
        "videoconvert", "video/x-raw,format=I420", encoder, "video/x-h264,profile=high",
        "queue", "flvmux name=mux streamable=true", f"rtmp2sink location={url} sync=false",
    ]  # fmt: skip
    # zellive's stream has silence where there is no microphone, and its AAC encoder is libavcodec's with this search.
    sound = [
        "audiotestsrc is-live=true wave=silence", "audio/x-raw,format=S16LE,rate=48000,channels=1", "audioconvert",
        "avenc_aac aac-coder=fast bitrate=128000", "queue", "mux.",
    ]  # fmt: skip
    return ["gst-launch-1.0", "-q", "-e", *" ! ".join(elements).split(), *" ! ".join(sound).split()]


class Devices:
    """A PipeWire daemon with the camera, gone at the end of the `with` block."""

    def __init__(self, asked):
        self.process = subprocess.Popen(
            [asked.devices, CAMERA, str(WIDTH), str(HEIGHT), str(asked.fps), asked.pattern],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
        )  # fmt: skip
        self.directory = self.process.stdout.readline().strip()
        if not self.directory:
            raise BenchError("the camera's daemon does not start")

    def __enter__(self):
        # GStreamer waits for ever for a camera that is not there when it comes.
        limit = time.monotonic() + 20
        while time.monotonic() < limit:
            listed = subprocess.run(
                ["pw-cli", "ls", "Node"], env={**os.environ, "XDG_RUNTIME_DIR": self.directory}, capture_output=True,
                text=True, timeout=20,
            )  # fmt: skip
            if CAMERA in listed.stdout:
                time.sleep(1)  # It is told of before it is ready to be linked.
                return self
            time.sleep(0.2)
        self.__exit__()
        raise BenchError("the camera does not appear")

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait(30)


class Runs:
    def __init__(self, asked, server, scratch):
        self.asked = asked
        self.server = server
        self.scratch = scratch
        self.count = 0

    def run(self, program):
        """Figures of one run; None when it lost too much."""
        # With devices of its own, as a camera that was let go of in mid-stream may not deliver again.
        with Devices(self.asked) as devices:
            return self._run(program, devices.directory)

    def _run(self, program, runtime_directory):
        # The same renderer for both, which needs no window system.
        environment = {
            **os.environ, "XDG_RUNTIME_DIR": runtime_directory, "GST_GL_PLATFORM": "egl", "GST_GL_WINDOW": "egl-device",
        }  # fmt: skip
        self.count += 1
        stream = f"camera{self.count}"
        url = f"rtmp://127.0.0.1:{self.server.port}/live/{stream}"
        log = self.scratch / f"{stream}.log"
        with open(log, "wb") as output:
            process = subprocess.Popen(
                command(program, url, self.asked), env=environment, stdin=subprocess.DEVNULL, stdout=output,
                stderr=subprocess.STDOUT,
            )  # fmt: skip
        try:
            if not self._running(process, stream):
                print(f"{program}: no stream; {log.read_text(errors='replace')[-300:]}", flush=True)
                return None
            before = self._account(process, stream)
            time.sleep(self.asked.seconds)
            after = self._account(process, stream)
            if process.poll() is not None:
                raise BenchError(f"ended with {process.returncode}")
            process.send_signal(signal.SIGINT)
            process.wait(20)
            if process.returncode != 0:
                raise BenchError(f"ended with {process.returncode}")
        except subprocess.TimeoutExpired:
            print(f"{program} does not end", flush=True)
        except (BenchError, OSError) as error:
            raise BenchError(f"{program}: {error}\n{log.read_text(errors='replace')[-2000:]}") from error
        finally:
            if process.poll() is None:
                process.kill()
                process.wait()
        span = after["at"] - before["at"]
        pictures = after["pictures"] - before["pictures"]
        figures = {
            "cpu": (after["cpu"] - before["cpu"]) / max(pictures, 1) * 1000,
            "fps": pictures / span,
            "aac": (after["sounds"] - before["sounds"]) / span,
            "kbits": (after["bytes"] - before["bytes"]) * 8 / 1000 / span,
            "memory": after["memory"] / 1024,
            "load": os.getloadavg()[0],
        }
        print(f"{program:22}", *(f"{key} {value:.4g}" for key, value in figures.items()), flush=True)
        whole = figures["fps"] >= LEAST * self.asked.fps and figures["aac"] >= LEAST * AAC_UNITS
        return figures if whole else None

    def _account(self, process, stream):
        """CPU seconds, peak resident memory in KiB, and what the server has recorded, all until now."""
        pictures = self.server.recording(stream, VIDEO)
        fields = pathlib.Path(f"/proc/{process.pid}/stat").read_text().rpartition(")")[2].split()
        status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
        return {
            "at": time.monotonic(),
            "cpu": (int(fields[11]) + int(fields[12])) / TICKS,
            "memory": int(re.search(r"^VmHWM:\s+(\d+) kB", status, re.MULTILINE)[1]),
            "pictures": len(pictures),
            "bytes": sum(size for _, size in pictures),
            "sounds": len(self.server.recording(stream, AUDIO)),
        }

    def _running(self, process, stream):
        """Whether the stream has run for the time of warming up, at last."""
        limit = time.monotonic() + self.asked.warm_up + 15
        while time.monotonic() < limit:
            if process.poll() is not None:
                raise BenchError(f"ended with {process.returncode}")
            recorded = self.server.recording(stream)
            if recorded and recorded[-1][0] - recorded[0][0] >= self.asked.warm_up * 1000:
                return True
            time.sleep(0.1)
        return False


def measure(runs, asked):
    programs = (OURS, PEER, BARE)
    rounds = []
    for attempt in range(2 * asked.rounds):
        results = {}
        # The one that goes first changes, so that none always finds the machine as another left it.
        for program in programs[attempt % 3 :] + programs[: attempt % 3]:
            results[program] = runs.run(program)
            if results[program] is None:
                print("pictures or sound were lost: the round does not count", flush=True)
                break
        else:
            rounds.append(results)
        if len(rounds) == asked.rounds:
            return rounds
    raise BenchError("the machine is too busy for this camera")


def report(rounds):
    loads = [figures["load"] for each in rounds for figures in each.values()]
    print(f"\nmedians of {len(rounds)} rounds, load average {min(loads):.1f} to {max(loads):.1f}")
    print(f"{'':22}{'CPU ms a picture':>18}{'ratio':>8}{'':16}{'fps':>7}{'kbit/s':>8}{'peak MiB':>10}")
    for program in rounds[0]:
        figures = collections.defaultdict(list)
        for each in rounds:
            for key, value in each[program].items():
                figures[key].append(value)
        ratios = sorted(each[program]["cpu"] / each[PEER]["cpu"] for each in rounds)
        median = {key: statistics.median(values) for key, values in figures.items()}
        print(
            f"{program:22}{median['cpu']:18.2f}{statistics.median(ratios):8.2f}"
            f"{f'({ratios[0]:.2f} to {ratios[-1]:.2f})':>16}"
            f"{median['fps']:7.2f}{median['kbits']:8.0f}{median['memory']:10.1f}"
        )


def main():
    asked = options()
    with tempfile.TemporaryDirectory(prefix="zellive-bench.") as name:
        scratch = pathlib.Path(name)
        with Server(scratch) as server:
            rounds = measure(Runs(asked, server, scratch), asked)
    report(rounds)
    if asked.json:
        pathlib.Path(asked.json).write_text(json.dumps(rounds, indent=1) + "\n")


if __name__ == "__main__":
    # An end from outside unwinds, and takes the server and the devices along.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        main()
    except (BenchError, RuntimeError) as error:
        sys.exit(f"scripts/bench: {error}")
    except KeyboardInterrupt:
        sys.exit(130)
