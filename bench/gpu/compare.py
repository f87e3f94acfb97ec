#!/usr/bin/env python3
"""Runs the same chain of GPU work in zellive and in GStreamer in turn and compares the CPU time of a picture.

The chain: NV12 pictures from memory are uploaded, converted to RGB, drawn by two pass-through filters and read back.
The CPU time of a picture is the difference between a long and a short run, divided by the difference in pictures, so
that start-up and the compiling of shaders do not count. Started by scripts/bench gpu, which builds what this needs.
"""

import argparse
import os
import statistics
import subprocess
import sys

SHORT = 20  # Pictures; enough for every buffer and shader to be there.
OURS, DRAWN, PEER = "zellive", "zellive, every pass drawn", "GStreamer"


def options():
    parser = argparse.ArgumentParser(prog="scripts/bench gpu", description=__doc__.split("\n")[0])
    parser.add_argument("--pairs", type=int, default=5, help="rounds of runs, alternating (%(default)s)")
    parser.add_argument("--frames", type=int, default=150, help="pictures of a long run (%(default)s)")
    parser.add_argument("--sizes", default="1280x720,1920x1080", help="WIDTHxHEIGHT,… (%(default)s)")
    parser.add_argument("--chain", required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def command(program, chain, width, height, frames):
    if program != PEER:
        return [chain, str(width), str(height), str(frames), "handed" if program == OURS else "drawn"]
    elements = [
        f"filesrc location=/dev/zero blocksize={width * height * 3 // 2} num-buffers={frames}",
        f"rawvideoparse format=nv12 width={width} height={height} framerate=30/1",
        "glupload", "glcolorconvert", "video/x-raw(memory:GLMemory),format=RGBA",
        "gleffects_identity", "gleffects_identity",
        "gldownload", "video/x-raw,format=RGBA", "filesink location=/dev/null",
    ]  # fmt: skip
    return ["gst-launch-1.0", "-q", *" ! ".join(elements).split()]


def cpu_seconds(arguments):
    environment = {**os.environ, "GST_GL_WINDOW": "egl-device"}
    process = subprocess.Popen(arguments, env=environment, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit(f"scripts/bench: failed with {process.returncode}: {' '.join(arguments)}")
    return usage.ru_utime + usage.ru_stime


def milliseconds_a_picture(program, asked, width, height):
    short, long = (
        cpu_seconds(command(program, asked.chain, width, height, frames)) for frames in (SHORT, asked.frames)
    )
    return (long - short) / (asked.frames - SHORT) * 1000


def main():
    asked = options()
    if asked.frames <= SHORT:
        sys.exit(f"scripts/bench: --frames must be above {SHORT}")
    programs = [OURS, PEER, DRAWN]
    for size in asked.sizes.split(","):
        width, height = map(int, size.split("x"))
        rounds = []
        for number in range(asked.pairs):
            order = programs if number % 2 == 0 else programs[::-1]
            rounds.append({program: milliseconds_a_picture(program, asked, width, height) for program in order})
        print(f"{size}: CPU milliseconds a picture, medians of {asked.pairs} rounds (load {os.getloadavg()[0]:.1f})")
        for program in programs:
            median = statistics.median(each[program] for each in rounds)
            ratios = sorted(each[program] / each[PEER] for each in rounds)
            print(
                f"  {program:<28}{median:8.2f}   ratio {statistics.median(ratios):.2f}"
                f"   ({ratios[0]:.2f} to {ratios[-1]:.2f})"
            )


main()
