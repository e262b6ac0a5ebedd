"""The test cases, each in a process of its own, and the build that they come from."""
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
JOBS = len(os.sched_getaffinity(0))
scratch = None  # where the cases may write, see scratch_directory


def scratch_directory():
    global scratch
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    made = tempfile.TemporaryDirectory(dir=memory, prefix="filemanager-suite-", ignore_cleanup_errors=True)
    scratch = made.name
    os.chmod(scratch, 0o711)
    return made


def build(source, folder, flags, optimize, with_tool, jobs, **options):
    """Builds the tests of the tree `source` with assertions and a static library."""
    options = {"BUILD_SHARED_LIBS": "OFF", "CMAKE_BUILD_TYPE": "RelWithDebInfo", "CMAKE_CXX_FLAGS": flags,
               "CMAKE_CXX_FLAGS_RELWITHDEBINFO": f"{optimize} -D_GLIBCXX_ASSERTIONS", "FILEMANAGER_QUICK_DRIVERS": "ON",
               "FILEMANAGER_PRECOMPILE": "ON", "FILEMANAGER_WERROR": "OFF", "FILEMANAGER_BUILD_EXAMPLES": "OFF",
               "FILEMANAGER_BUILD_TOOLS": "ON" if with_tool else "OFF", **options}
    quietly(["cmake", "-S", source, "-B", folder, "-G", "Ninja", *(f"-D{key}={value}" for key, value in options.items())])
    quietly(["cmake", "--build", folder, "--parallel", str(jobs), "--target", "tests/all",
             *(["fmcache"] if with_tool else [])])


def quietly(command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if done.returncode:
        sys.exit("\n".join(line for line in done.stdout.splitlines()[-200:]))


class Case:
    """One test case, in a process of its own."""

    def __init__(self, name, command, **environment):
        self.name, self.command, self.environment = name, command, environment
        self.seconds, self.reached = 0.0, b""  # without a mutant

    def run(self, limit, **environment):
        """Returns whether the case passes. One that takes longer than `limit` seconds fails."""
        with tempfile.TemporaryDirectory(dir=scratch, ignore_cleanup_errors=True) as folder:
            os.chmod(folder, 0o711)  # some tests change to another user
            process = subprocess.Popen(
                self.command, cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                start_new_session=True, env={**os.environ, **self.environment, **environment, "TMPDIR": folder})
            try:
                return process.wait(limit) == 0
            except subprocess.TimeoutExpired:
                return False
            finally:
                try:
                    os.killpg(process.pid, signal.SIGKILL)  # and what the case has started
                except ProcessLookupError:
                    pass
                process.wait()


def cases(source, folder, programs, with_tool):
    """`programs`: how many programs of the simulator run after the first 400."""
    for binary in sorted((folder / "tests").glob("*_test")):
        listed = subprocess.run([binary, "--gtest_list_tests"], check=True, text=True, stdout=subprocess.PIPE).stdout
        suite = ""
        for line in listed.splitlines():
            line = line.split("#")[0].rstrip()
            if not line.startswith(" "):
                suite = line
                continue
            name = f"{suite}{line.strip()}"
            command = [binary, f"--gtest_filter={name}"]
            if binary.name != "simulator_test":
                yield Case(f"{binary.name}.{name}", command)
            elif "Seeds." in name:  # first few programs, then others
                for first, count in ((0, 400), (400, programs)):
                    yield Case(f"{binary.name}.{name} ({count // 4} programs)", command,
                               FILEMANAGER_SEED=str(first), FILEMANAGER_SEEDS=str(count))
            elif "BothThreads" not in name:  # takes a minute
                yield Case(f"{binary.name}.{name}", command)
    if with_tool:
        for script in sorted((source / "tests").glob("fmcache*_test.sh")):
            yield Case(script.stem, ["bash", script, folder / "tools/fmcache/fmcache", folder])


def reasons(path):
    """The lines of a list: pairs of a pattern, in which * stands for any text, and a reason."""
    lines = [line for line in path.read_text("utf-8").splitlines() if line and not line.startswith("#")]
    pairs = [line.split("  # ", 1) for line in lines]
    return [(re.compile(re.escape(pattern.strip()).replace(r"\*", ".*")), reason) for pattern, reason in pairs]
