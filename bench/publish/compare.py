#!/usr/bin/env python3
"""Runs the whole publishing job of zellive and of ffmpeg in turn and compares what they cost.

Started by scripts/bench publish, which builds what this needs.
"""

import argparse
import collections
import json
import os
import pathlib
import re
import signal
import statistics
import struct
import subprocess
import sys
import tempfile
import time

import rtmp_wire
from relay import Relay
from server import Server

OURS, PEER = "zellive", "ffmpeg"
PROGRAMS = (OURS, PEER)
SENDING_CALLS = "sendto,sendmsg,sendmmsg,write,writev"
DECODED, PUSHED, SUBMITTED, ENCODED = 1, 2, 3, 4
TAIL = 24  # Bytes; the same in Handover.cpp.


class BenchError(Exception):
    pass


def options():
    parser = argparse.ArgumentParser(prog="scripts/bench publish", description=__doc__.split("\n")[0])
    parser.add_argument("--input", required=True, help="clip to publish, looped")
    parser.add_argument("--pairs", type=int, default=3, help="pairs of runs for CPU time and memory (%(default)s)")
    parser.add_argument("--delay-pairs", type=int, default=1, help="pairs of runs for the delay (%(default)s)")
    parser.add_argument("--trace-pairs", type=int, default=1, help="pairs of runs for system calls (%(default)s)")
    parser.add_argument("--seconds", type=int, default=20, help="length of each run (%(default)s)")
    parser.add_argument("--size", default="1280x720", help="of the stream (%(default)s)")
    parser.add_argument("--fps", type=int, default=24, help="pictures a second (%(default)s)")
    parser.add_argument("--bitrate", type=int, default=1500, help="of the video, kbit/s (%(default)s)")
    parser.add_argument("--preset", default="superfast", help="of libx264 (%(default)s)")
    parser.add_argument("--peer-threads", default="1", help="libx264's threads in ffmpeg, or auto (%(default)s)")
    parser.add_argument("--peer-aac-coder", default="twoloop", help="search of ffmpeg's AAC encoder (%(default)s)")
    parser.add_argument("--json", metavar="FILE", help="write every run's figures there as well")
    parser.add_argument("--tool", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--handover", required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def command(program, url, asked):
    if program == OURS:
        return [
            asked.tool, "publish", url, "--input", asked.input, "--loop", "--size", asked.size,
            "--fps", str(asked.fps), "--bitrate", f"{asked.bitrate}k", "--encoder", "libx264",
            "--preset", asked.preset, "--duration", str(asked.seconds),
        ]  # fmt: skip
    # The same limits as the session's: one and a half times the average in any second, which is a bucket of half a
    # second, and a key frame every two seconds.
    threads = [] if asked.peer_threads == "auto" else ["-threads:v", asked.peer_threads]
    return [
        "ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-re", "-stream_loop", "-1", "-i", asked.input,
        "-t", str(asked.seconds), "-map", "0:v:0", "-map", "0:a:0", "-s", asked.size, "-r", str(asked.fps),
        "-c:v", "libx264", "-preset", asked.preset, "-tune", "zerolatency", "-profile:v", "high", "-bf", "0",
        "-g", str(2 * asked.fps), "-sc_threshold", "0", "-b:v", f"{asked.bitrate}k",
        "-maxrate", f"{asked.bitrate}k", "-bufsize", f"{asked.bitrate // 2}k", *threads, "-c:a", "aac", "-aac_coder", asked.peer_aac_coder,
        "-b:a", "128k", "-ac", "1", "-ar", "48000", "-flvflags", "no_duration_filesize", "-f", "flv", url,
    ]  # fmt: skip


def anonymous_memory(pid):
    """KiB of the process's resident memory that is no file's; 0 when it has ended."""
    try:
        status = pathlib.Path(f"/proc/{pid}/status").read_text()
    except OSError:
        return 0
    found = re.search(r"^RssAnon:\s+(\d+) kB", status, re.MULTILINE)
    return int(found[1]) if found else 0


class Runs:
    def __init__(self, asked, server, scratch):
        self.asked = asked
        self.server = server
        self.scratch = scratch
        self.count = 0

    def run(self, program, kind, port=None, prefix=(), environment=None):
        """Runs a program to its end. Gives its resource usage, its most private memory in KiB and its stream's name."""
        self.count += 1
        stream = f"{kind}{self.count}-{program}"
        url = f"rtmp://127.0.0.1:{port or self.server.port}/live/{stream}"
        log = self.scratch / f"{stream}.log"
        with open(log, "wb") as output:
            process = subprocess.Popen(
                [*prefix, *command(program, url, self.asked)], stdin=subprocess.DEVNULL, stdout=output,
                stderr=subprocess.STDOUT, env={**os.environ, **(environment or {})}, start_new_session=True,
            )  # fmt: skip
            usage, private = self._wait(process)
        if process.returncode != 0:
            raise BenchError(f"{program} ended with {process.returncode}:\n{log.read_text(errors='replace')[-2000:]}")
        return usage, private, stream

    def _wait(self, process):
        """Popen.wait() with the process's own resource usage, its most private memory meanwhile, and a limit."""
        private = 0
        try:
            limit = time.monotonic() + 2 * self.asked.seconds + 30
            while time.monotonic() < limit:
                pid, status, usage = os.wait4(process.pid, os.WNOHANG)
                if pid != 0:
                    process.returncode = os.waitstatus_to_exitcode(status)
                    return usage, private
                private = max(private, anonymous_memory(process.pid))
                time.sleep(0.1)
            raise BenchError("a run does not end")
        finally:
            if process.returncode is None:
                os.killpg(process.pid, signal.SIGKILL)
                process.wait()

    def cost(self, program):
        usage, private, stream = self.run(program, "cost")
        deadline = time.monotonic() + 5
        while not (pictures := self.server.recording(stream)) and time.monotonic() < deadline:
            time.sleep(0.1)
        frames = len({stamp for stamp, _ in pictures})
        expected = self.asked.seconds * self.asked.fps
        if frames < 0.9 * expected:
            raise BenchError(f"{program} published {frames} pictures instead of {expected}")
        span = (pictures[-1][0] - pictures[0][0]) / 1000
        return {
            "cpu": (usage.ru_utime + usage.ru_stime) / self.asked.seconds,
            "user": usage.ru_utime / self.asked.seconds,
            "system": usage.ru_stime / self.asked.seconds,
            "memory": usage.ru_maxrss / 1024,
            "private": private / 1024,
            "switches": (usage.ru_nvcsw + usage.ru_nivcsw) / self.asked.seconds,
            "fps": (frames - 1) / span,
            "kbits": sum(size for _, size in pictures) * 8 / 1000 / span,
        }

    def calls(self, program):
        """Sending system calls on TCP sockets against messages on the wire, from the handshake to the end."""
        trace = self.scratch / "trace"
        relay = Relay(self.server.address)
        prefix = ["strace", "-f", "--seccomp-bpf", "-yy", "-qq", "-e", f"trace={SENDING_CALLS}", "-s", "0",
                  "-o", str(trace)]  # fmt: skip
        self.run(program, "calls", relay.port, prefix)
        relay.close()
        sent = re.compile(rf"^\d+ +(\w+)\(\d+<TCP(?:v6)?:\[[^]]*:{relay.port}\]>.*= \d+$")
        calls = sum(1 for line in trace.read_text(errors="replace").splitlines() if sent.match(line))
        messages = list(rtmp_wire.messages(relay.data))
        media = sum(map(rtmp_wire.is_media, messages))
        if calls == 0 or media < self.asked.seconds * self.asked.fps:
            raise BenchError(f"{program}: {calls} calls for {media} messages is not a whole run")
        return {"calls": calls / media, "messages": media / self.asked.seconds}

    def delay(self, program):
        """Milliseconds from a picture's handover to its last byte's arrival at the server's socket."""
        notes = self.scratch / "handover"
        notes.unlink(missing_ok=True)
        relay = Relay(self.server.address)
        environment = {"LD_PRELOAD": self.asked.handover, "ZELLIVE_HANDOVER": str(notes)}
        self.run(program, "delay", relay.port, environment=environment)
        relay.close()
        whole, encoder, total = delays(notes.read_bytes(), relay)
        if len(whole) < 0.5 * self.asked.seconds * self.asked.fps:
            raise BenchError(f"{program}: only {len(whole)} of {total} pictures were found again")
        return {
            "delay": statistics.median(whole),
            "delay95": sorted(whole)[int(0.95 * len(whole))],
            "encoder": statistics.median(encoder),
            "matched": len(whole) / total,
        }


def delays(notes, relay):
    """From handover, and from the encoder's entrance, to arrival; and how many pictures arrived at all."""
    handed = {}  # By the picture's place in memory, which is used again for later ones.
    submitted = {}
    encoded = {}
    records = list(struct.iter_unpack("=4Q", notes))
    entrance = PUSHED if any(record[0] == PUSHED for record in records) else DECODED
    for kind, when, key, pts in records:
        if kind == entrance:
            handed[key] = when
        elif kind == SUBMITTED:
            submitted[pts] = (handed.get(key), when)
        elif kind == ENCODED:
            encoded[key] = submitted.get(pts)
    whole, encoder, total = [], [], 0
    for message in filter(rtmp_wire.is_picture, rtmp_wire.messages(relay.data)):
        total += 1
        start, entered = encoded.pop(fnv1a(message.body[-TAIL:]), None) or (None, None)
        if start is not None:
            arrived = relay.arrival(message.end)
            whole.append((arrived - start) / 1e6)
            encoder.append((arrived - entered) / 1e6)
    return whole, encoder, total


def fnv1a(data):
    value = 0xCBF29CE484222325
    for byte in data:
        value = (value ^ byte) * 0x100000001B3 & 0xFFFFFFFFFFFFFFFF
    return value


ROWS = (
    ("cpu", "CPU seconds a second", "{:.3f}"),
    ("user", "  of that in user mode", "{:.3f}"),
    ("system", "  of that in the kernel", "{:.3f}"),
    ("memory", "peak resident memory, MiB", "{:.1f}"),
    ("private", "  of that private, MiB", "{:.1f}"),
    ("switches", "context switches a second", "{:.0f}"),
    ("calls", "sending calls a message", "{:.2f}"),
    ("messages", "messages a second", "{:.1f}"),
    ("delay", "delay to the server, ms (median)", "{:.1f}"),
    ("delay95", "delay to the server, ms (95 %)", "{:.1f}"),
    ("encoder", "  of that from the encoder on", "{:.1f}"),
    ("fps", "pictures a second, recorded", "{:.2f}"),
    ("kbits", "video kbit/s, recorded", "{:.0f}"),
)


def measure(runs, asked):
    figures = {program: collections.defaultdict(list) for program in PROGRAMS}
    jobs = [runs.cost] * asked.pairs + [runs.calls] * asked.trace_pairs + [runs.delay] * asked.delay_pairs
    for number, job in enumerate(jobs):
        # The one that goes first changes, so that neither always finds the machine warm.
        for program in PROGRAMS if number % 2 == 0 else reversed(PROGRAMS):
            result = job(program)
            print(f"{program:8} {job.__name__:6}", *(f"{key} {value:.4g}" for key, value in result.items()), flush=True)
            for key, value in result.items():
                figures[program][key].append(value)
    return figures


def report(figures):
    print(f"\n{'medians':34}{OURS:>10}{PEER:>10}{'ratio':>8}")
    for key, name, form in ROWS:
        if not figures[OURS][key] or not figures[PEER][key]:
            continue
        ours, peer = (statistics.median(figures[program][key]) for program in PROGRAMS)
        ratio = f"{ours / peer:.2f}" if peer else "-"
        print(f"{name:34}{form.format(ours):>10}{form.format(peer):>10}{ratio:>8}")


def main():
    asked = options()
    with tempfile.TemporaryDirectory(prefix="zellive-bench.") as name:
        scratch = pathlib.Path(name)
        with Server(scratch) as server:
            figures = measure(Runs(asked, server, scratch), asked)
    report(figures)
    if asked.json:
        pathlib.Path(asked.json).write_text(json.dumps(figures, indent=1) + "\n")


if __name__ == "__main__":
    # An end from outside unwinds, and takes the server along.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        main()
    except (BenchError, RuntimeError, rtmp_wire.WireError) as error:
        sys.exit(f"scripts/bench: {error}")
    except KeyboardInterrupt:
        sys.exit(130)
