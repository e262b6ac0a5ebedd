#!/usr/bin/env python3
"""Tests a program of examples/loops: stores files, and serves each in a later run.

usage: loops_test.py PROGRAM [SLOW_DISK_LIBRARY]
"""
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


def store(cache, source, **options):
    """The identifier of the new cached file. `source` is bytes, which pass through a pipe, or an open file."""
    kind = "input" if isinstance(source, bytes) else "stdin"
    done = subprocess.run([PROGRAM, "store", cache], stdout=subprocess.PIPE, timeout=SECONDS, check=True,
                          **{kind: source}, **options)
    return done.stdout.decode().strip()


class Server:
    """A process that serves one file."""

    def __init__(self, cache, identifier):
        self.process = subprocess.Popen([PROGRAM, "serve", cache, identifier, "0"], stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline().removeprefix("port "))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), timeout=SECONDS)

    def fetch(self):
        with self.connect() as client:
            return b"".join(iter(lambda: client.recv(MIB), b""))


def transfers(cache):
    # The last length exceeds the bytes after which the programs reopen a file.
    for length in (0, 1, 2 * MIB, 5 * MIB + 12345, 66 * MIB + 1):
        expected = random.randbytes(length)
        identifier = store(cache, expected)
        with Server(cache, identifier) as server:
            check(server.fetch() == expected, f"{length} bytes: the client received something else")
            with server.connect() as client:
                client.recv(1)  # closed in the middle of the transfer
            # The loads of a small file are over: its blocks are in memory.
            check(server.fetch() == expected, f"{length} bytes: the last client received something else")
            check(server.process.poll() is None, "the server has ended")


def regular_file(cache):
    expected = random.randbytes(3 * MIB + 1)
    with tempfile.TemporaryFile() as source:
        source.write(expected)
        source.seek(0)
        identifier = store(cache, source)
    with Server(cache, identifier) as server:
        check(server.fetch() == expected, "the file that was standard input differs")


def non_blocking_input(cache):
    """The input comes late, through a pipe whose reading end is non-blocking, and ends later still."""
    expected = random.randbytes(2 * MIB)
    reading, writing = os.pipe()
    os.set_blocking(reading, False)
    with subprocess.Popen([PROGRAM, "store", cache], stdin=reading, stdout=subprocess.PIPE) as writer:
        os.close(reading)
        with os.fdopen(writing, "wb") as pipe:
            for part in (expected[:MIB], expected[MIB:]):
                time.sleep(0.2)
                pipe.write(part)
                pipe.flush()
        identifier = writer.stdout.read().decode().strip()
        check(writer.wait(SECONDS) == 0, "a non-blocking input is a failure")
    with Server(cache, identifier) as server:
        check(server.fetch() == expected, "the file from a non-blocking input differs")


def closed_streams(cache):
    for stream in (0, 1):
        done = subprocess.run([PROGRAM, "store", cache], stderr=subprocess.PIPE, timeout=SECONDS,
                              preexec_fn=lambda stream=stream: os.close(stream), stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL)
        check(done.returncode == 1 and b"closed" in done.stderr, f"no message if stream {stream} is closed")


def slow_disk(cache):
    """The input is paused and resumed: the input is complete long before the disk has stored it."""
    expected = random.randbytes(40 * MIB)
    environment = {**os.environ, "LD_PRELOAD": SLOW_DISK[0], "SLOW_DISK_US": "20000"}
    with Server(cache, store(cache, expected, env=environment)) as server:
        check(server.fetch() == expected, "the file from the slow disk differs")


def full_disk(cache):
    """The input stays paused while no block can be stored."""
    def limit():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)  # a write that is too long fails with EFBIG
        resource.setrlimit(resource.RLIMIT_FSIZE, (MIB, resource.RLIM_INFINITY))

    with tempfile.TemporaryFile() as log, subprocess.Popen(
            [PROGRAM, "store", cache], stdin=subprocess.PIPE, stdout=log, stderr=log, bufsize=0, preexec_fn=limit,
            restore_signals=False) as writer:
        os.set_blocking(writer.stdin.fileno(), False)
        written, idle_since = 0, time.monotonic()
        while written < 40 * MIB and time.monotonic() < idle_since + 1:
            count = writer.stdin.write(bytes(MIB))
            if count:
                written, idle_since = written + count, time.monotonic()
            else:
                time.sleep(0.01)
        check(writer.poll() is None, "the program ended instead of waiting for the disk")
        writer.kill()
    check(8 * MIB < written < 24 * MIB, f"the program read {written} bytes from its input")


def failures(cache):
    def status(*arguments):
        return subprocess.run([PROGRAM, *arguments], stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              timeout=SECONDS).returncode
    check(status() == 2 and status("serve", cache, "no-identifier", "0") == 2, "wrong arguments are accepted")
    identifier = store(cache, random.randbytes(3 * MIB))
    check(status("serve", cache, "{00000000-0000-0000-0000-000000000001}", "0") == 1, "an unknown file is served")
    check(status("serve", cache, identifier, "65536") == 2, "a wrong port is accepted")
    os.truncate(Path(cache, "sdstore", identifier + ".sdd"), 2 * MIB)
    with Server(cache, identifier) as server:
        check(len(server.fetch()) <= 2 * MIB, "bytes that are not in the cache were sent")
        check(server.process.wait(SECONDS) == 1, "a damaged file is no failure")


for case in [transfers, regular_file, non_blocking_input, closed_streams, full_disk, failures] + ([slow_disk] if SLOW_DISK else []):
    with tempfile.TemporaryDirectory() as directory:
        case(directory)
        print(f"{case.__name__}: passed", flush=True)
