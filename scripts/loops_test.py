#!/usr/bin/env python3
"""Tests a program of examples/loops: stores files, and serves each in a later run.

usage: loops_test.py PROGRAM [SLOW_DISK_LIBRARY]
"""
import contextlib
import os
import random
import resource
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

MIB = 1 << 20
PROGRAM, *SLOW_DISK = sys.argv[1:]
SECONDS = 60


def check(condition, what):
    if not condition:
        sys.exit(f"loops_test: {what}")


def store(cache, **options):
    """The identifier of the new cached file."""
    done = subprocess.run([PROGRAM, "store", cache], stdout=subprocess.PIPE, timeout=SECONDS, check=True, **options)
    return done.stdout.decode().strip()


@contextlib.contextmanager
def serve(cache, identifier):
    """The process that serves a file, and a function that connects to it."""
    with subprocess.Popen([PROGRAM, "serve", cache, identifier, "0"], stdout=subprocess.PIPE, text=True) as process:
        port = int(process.stdout.readline().removeprefix("port "))
        try:
            yield process, lambda: socket.create_connection(("127.0.0.1", port), timeout=SECONDS)
        finally:
            process.kill()


def receive(connect):
    with connect() as client:
        return b"".join(iter(lambda: client.recv(MIB), b""))


def check_served(cache, identifier, expected):
    with serve(cache, identifier) as (_, connect):
        check(receive(connect) == expected, f"{len(expected)} bytes: the client received something else")
        with connect() as client:
            client.recv(1)  # closed in the middle of the transfer
        # The loads of a small file are over: its blocks are in memory.
        check(receive(connect) == expected, f"{len(expected)} bytes: the last client received something else")


def transfers(cache):
    """Regular files. The last length exceeds the bytes after which the programs reopen a file."""
    for length in (0, 1, 2 * MIB, 66 * MIB + 1):
        with tempfile.TemporaryFile() as source:
            source.write(expected := random.randbytes(length))
            source.seek(0)
            check_served(cache, store(cache, stdin=source), expected)


def non_blocking_input(cache):
    """The input comes late, through a pipe whose reading end is non-blocking."""
    expected = random.randbytes(2 * MIB)
    reading, writing = os.pipe()
    os.set_blocking(reading, False)
    with subprocess.Popen([PROGRAM, "store", cache], stdin=reading, stdout=subprocess.PIPE, text=True) as writer:
        os.close(reading)
        for part in (expected[:MIB], expected[MIB:]):
            time.sleep(0.2)
            os.write(writing, part)
        os.close(writing)
        identifier = writer.stdout.read().strip()
    check_served(cache, identifier, expected)


def closed_streams(cache):
    for stream in (0, 1):
        done = subprocess.run([PROGRAM, "store", cache], stderr=subprocess.PIPE, timeout=SECONDS,
                              preexec_fn=lambda stream=stream: os.close(stream), stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL)
        check(done.returncode == 1 and b"closed" in done.stderr, f"no message if stream {stream} is closed")


def slow_disk(cache):
    """The input is paused and resumed: the input is complete long before the disk has stored it."""
    environment = {**os.environ, "LD_PRELOAD": SLOW_DISK[0], "SLOW_DISK_US": "20000"}
    expected = random.randbytes(40 * MIB)
    check_served(cache, store(cache, input=expected, env=environment), expected)


def full_disk(cache):
    """The input stays paused while no block can be stored."""
    def limit():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)  # a write that is too long fails with EFBIG
        resource.setrlimit(resource.RLIMIT_FSIZE, (MIB, resource.RLIM_INFINITY))

    with subprocess.Popen([PROGRAM, "store", cache], stdin=subprocess.PIPE, stderr=subprocess.DEVNULL, bufsize=0,
                          preexec_fn=limit, restore_signals=False) as writer:
        os.set_blocking(writer.stdin.fileno(), False)
        written, idle_since = 0, time.monotonic()
        while written < 40 * MIB and time.monotonic() < idle_since + 1:
            if count := writer.stdin.write(bytes(MIB)):
                written, idle_since = written + count, time.monotonic()
            time.sleep(0.001)
        check(writer.poll() is None, "the program ended instead of waiting for the disk")
        writer.kill()
    check(8 * MIB < written < 24 * MIB, f"the program read {written} bytes from its input")


def failures(cache):
    identifier = store(cache, input=bytes(3 * MIB))
    unknown = "{00000000-0000-0000-0000-000000000001}"
    for expected, *arguments in ([2], [2, "serve", cache, "no-identifier", "0"],
                                 [2, "serve", cache, identifier, "65536"], [1, "serve", cache, unknown, "0"]):
        status = subprocess.run([PROGRAM, *arguments], stderr=subprocess.DEVNULL, timeout=SECONDS).returncode
        check(status == expected, f"status {status} of {arguments}")
    os.truncate(Path(cache, "sdstore", identifier + ".sdd"), 2 * MIB)
    with serve(cache, identifier) as (process, connect):
        check(len(receive(connect)) <= 2 * MIB, "bytes that are not in the cache were sent")
        check(process.wait(SECONDS) == 1, "a damaged file is no failure")


CASES = [transfers, non_blocking_input, closed_streams, full_disk, failures]
for case in CASES + [slow_disk] * len(SLOW_DISK):
    with tempfile.TemporaryDirectory() as directory:
        case(directory)
        print(f"{case.__name__}: passed", flush=True)
