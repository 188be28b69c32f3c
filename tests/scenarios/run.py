#!/usr/bin/env python3
"""Runs the scenario cases of one or more case files against a build.

Usage: tests/scenarios/run.py BUILD_DIR CASE_FILE...
       SONDERLARK_UPDATE_GOLDEN=1 ... rewrites the goldens after a deliberate change.

A case file (TOML) holds data only: [[case]] tables, each naming the program
and its arguments, the files and planted paths of its folder, the device,
and what must come out (exit status, standard output and error, goldens with
their masks, files left as they were, files that must not exist). A case
whose run needs more than a row (a stream that never ends, a file cut while
it is read, a full disk) names a scenario function of this file instead.
Every run happens in a folder of its own, removed afterwards; every process
started is waited for, and ended by PID if it outlives its deadline.
"""
import array
import concurrent.futures
import json
import os
import re
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import threading
import time
import tomllib
import wave

TESTS = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TOP = os.path.dirname(TESTS)
UPDATE = os.environ.get("SONDERLARK_UPDATE_GOLDEN") is not None
DEADLINE = 120  # seconds: only a hung run is that slow (a case may set its own "deadline")
MASKS = {  # name: (pattern, replacement, must be there); {dir} in a pattern is the run's folder
    "timestamp": (r'"timestamp": "\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z"', '"timestamp": "TIMESTAMP"', True),
    "frame_time": (r"at 20[0-9-]{8}T[0-9:]{8}Z", "at TIMESTAMP", False),
    "status_path": (r"{dir}/status\.json", "STATUS", False),
    "dir": (r"{dir}", "TMP", False),
}


class Failure(Exception):
    pass


def check(ok, what):
    if not ok:
        raise Failure(what)


def read(path):
    with open(path, "rb") as f:
        return f.read()


def write(path, data):
    os.makedirs(os.path.dirname(path) or ".", exist_ok=True)
    with open(path, "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


def text(data):
    return data.decode("utf-8", "surrogateescape")


def source(what):
    """File contents from "golden/NAME" (under tests/) or "text:CONTENT"; {now} becomes the current time as a status
    record writes it."""
    data = what[5:].encode() if what.startswith("text:") else read(os.path.join(TESTS, what))
    return data.replace(b"{now}", time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()).encode())


def expand(value, run):
    """{dir}: the run's folder; {tests}, {top}, {build}: the tests folder, the source tree, the build; {env:NAME}: the
    variable NAME of the runner's environment; {xHH}: the byte HH, which TOML cannot hold when it is not UTF-8 (passed
    on as the bytes)."""
    value = value.replace("{dir}", run["dir"]).replace("{tests}", TESTS).replace("{top}", TOP)
    value = value.replace("{build}", run["build"])
    value = re.sub(r"\{env:(\w+)\}", lambda m: os.environ.get(m.group(1), ""), value)
    return re.sub(r"\{x([0-9a-f]{2})\}", lambda m: chr(int(m.group(1), 16) + (0xdc00 if m.group(1) >= "80" else 0)),
                  value)


def prepare(case, run):
    """The run folder: its files, planted paths and device."""
    for name, what in case.get("files", {}).items():
        write(os.path.join(run["dir"], expand(name, run)), source(what))
    for name in case.get("executables", []):
        os.chmod(os.path.join(run["dir"], name), 0o755)
    for name, seconds in case.get("ages", {}).items():  # negative: from the future
        os.utime(os.path.join(run["dir"], name), (time.time() - seconds,) * 2)
    for name, uid in case.get("owners", {}).items():
        os.chown(os.path.join(run["dir"], name), uid, -1)
    for sim in case.get("simulate", []):  # a simulated array recording, made by sonderlark-sim
        simulate(run, ["--output", sim["output"]] + [expand(a, run) for a in sim["args"]],
                 deadline=case.get("deadline", DEADLINE))
    for plant in case.get("plant", []):
        path = os.path.join(run["dir"], plant["path"])
        if plant["kind"] == "link":  # to a path in the folder, or an absolute one
            os.symlink(os.path.join(run["dir"], plant["to"]), path)
            continue
        if plant["kind"] == "fifo":
            os.mkfifo(path, 0o600)
        elif plant["kind"] == "filled":  # an open brace, then blanks up to `bytes`
            write(path, b"{" + b" " * (plant["bytes"] - 1))
        else:
            os.makedirs(path)
        if "mode" in plant:
            os.chmod(path, plant["mode"])
        if "owner" in plant:
            os.chown(path, plant["owner"], -1)
    env = dict(os.environ)
    if "device_file" in case:
        env.update(file_device(run["dir"], os.path.join(run["dir"], case["device_file"])))
    env.update({k: expand(v, run) for k, v in case.get("env", {}).items()})
    for name in case.get("env_unset", []):
        env.pop(name, None)
    return env


def simulate(run, args, folder=None, deadline=DEADLINE):
    """Runs sonderlark-sim with `args` in `folder` (the run's by default); its failure fails the case."""
    argv = [os.path.join(run["build"], "sonderlark-sim")] + args
    status, _, err = execute(argv, None, folder or run["dir"], deadline=deadline)
    check(status == 0, "sonderlark-sim failed: " + text(err))


def file_device(folder, infile):
    """The ALSA device "sonderlark_array" under folder/config: ALSA's file plugin reads its frames from `infile`.
    Returns the environment that names it, with a private runtime folder (ALSA's PulseAudio plugin otherwise leaves a
    /tmp/pulse-* folder behind)."""
    config = os.path.join(folder, "config")
    write(os.path.join(config, "alsa", "asoundrc"), 'pcm.sonderlark_array {\n  type file\n  slave.pcm "null"\n'
          '  file "/dev/null"\n  infile "%s"\n  format "raw"\n}\n' % infile)
    os.makedirs(os.path.join(config, "run"), mode=0o700)
    return {"XDG_CONFIG_HOME": config, "XDG_RUNTIME_DIR": os.path.join(config, "run")}


def paced_device(run, folder, name="pacer"):
    """The device of folder/frames.raw, paced at real time: a pacer writes the frames into a FIFO and silence after
    them, so that a run reads the same frames at any build's speed. One device serves one capture."""
    os.mkfifo(os.path.join(folder, "infile"), 0o600)
    spawn([os.path.join(TOP, "scripts", "try-live"), "pace", os.path.join(folder, "frames.raw"),
           os.path.join(folder, "infile"), "--once"], None, run, name)
    return file_device(folder, os.path.join(folder, "infile"))


def command(case, run):
    argv = [os.path.join(run["build"], expand(case["program"], run))] + [expand(a, run) for a in case.get("args", [])]
    for key, limit in (("file_size_limit", "fsize"), ("address_space_limit", "as"), ("fd_limit", "nofile")):
        if key in case:
            argv = ["prlimit", "--%s=%d" % (limit, case[key])] + argv
    if case.get("stdout_closed"):  # a reader gone before the first line
        argv = [sys.executable, "-c", "import os, subprocess, sys\nr, w = os.pipe()\nos.close(r)\n"
                "sys.exit(subprocess.run(sys.argv[1:], stdout=w).returncode)"] + argv
    return argv


def execute(argv, env, cwd, stdin=None, deadline=DEADLINE):
    """Runs argv to its end (killed by PID past the deadline), `stdin` its input if given: status, stdout, stderr."""
    with subprocess.Popen(argv, env=env, cwd=cwd, stdin=subprocess.DEVNULL if stdin is None else subprocess.PIPE,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE) as child:
        try:
            out, err = child.communicate(stdin and stdin.encode(), timeout=deadline)
        except subprocess.TimeoutExpired:
            child.kill()
            child.communicate()
            raise Failure("still running after %d s: %s" % (deadline, " ".join(argv)))
        return child.returncode, out, err


def masked(data, masks, run):
    result = text(data)
    for name in masks:
        pattern, replacement, required = MASKS[name]
        pattern = pattern.replace("{dir}", re.escape(run["dir"]))
        check(not required or re.search(pattern, result), "no %s to mask" % name)
        result = re.sub(pattern, replacement, result)
    return result


def golden(got, name, masks, run):
    path = os.path.join(TESTS, name)
    body = masked(got, masks, run).encode("utf-8", "surrogateescape") if masks else got
    if UPDATE:
        write(path, body)
    check(os.path.exists(path) and read(path) == body, "%s differs from what the run gave" % name)


def verify(case, run, status, out, err):
    d = run["dir"]
    check(status == case.get("exit", 0), "exit status %d, not %d; stderr: %s" % (status, case.get("exit", 0), text(err)))
    if "stderr" in case:
        check(text(err) == expand(case["stderr"], run), "stderr %r, not %r" % (text(err), case["stderr"]))
    got = text(out)
    for key, holds in (("stdout", lambda want: got == want), ("stdout_starts", got.startswith),
                       ("stdout_ends", got.endswith), ("stdout_is", lambda name: out == read(os.path.join(d, name)))):
        check(key not in case or holds(expand(case[key], run)), "%s %r: stdout is %r" % (key, case.get(key), got))
    if "stdout_golden" in case:
        golden(out, case["stdout_golden"], case.get("masks", {}).get("stdout", []), run)
    check(not case.get("stderr_said") or err, "nothing on stderr")
    for piece in case.get("stdout_has", []):
        check(expand(piece, run) in got, "stdout lacks %r" % piece)
    for piece in case.get("stdout_lacks", []):
        check(expand(piece, run) not in got, "stdout has %r" % piece)
    for piece, times in case.get("stdout_counts", {}).items():
        check(got.count(expand(piece, run)) == times, "stdout has %r %d times, not %d" % (piece, got.count(expand(piece, run)), times))
    if "stdout_order" in case:
        at = [got.find(expand(piece, run)) for piece in case["stdout_order"]]
        check(-1 not in at and at == sorted(at), "stdout is not in the order %r" % case["stdout_order"])
    for name, what in case.get("goldens", {}).items():
        golden(read(os.path.join(d, name)), what, case.get("masks", {}).get(name, []), run)
    for name, what in case.get("contents", {}).items():
        check(read(os.path.join(d, name)) == source(what), name + " does not hold " + what[:60])
    for name, what in case.get("ends_with_start_of", {}).items():
        start = read(os.path.join(d, what["file"]))[:what["bytes"]]
        check(len(start) == what["bytes"] and read(os.path.join(d, name)).endswith(start),
              "%s does not end with the first %d bytes of %s" % (name, what["bytes"], what["file"]))
    for name in case.get("changed", []):
        check(read(os.path.join(d, name)) != source(case["files"][name]), name + " was not written")
    for name in case.get("absent", []):
        check(not os.path.lexists(os.path.join(d, name)), name + " exists")
    partial = [n for n in os.listdir(d) if n.endswith(".tmp") and stat.S_ISREG(os.lstat(os.path.join(d, n)).st_mode)]
    check(not case.get("no_partial_files") or not partial, "partial files %s" % partial)
    for name, kind in case.get("kinds", {}).items():  # a planted path is still what it was
        path = os.path.join(d, name)
        check({"fifo": stat.S_ISFIFO, "link": stat.S_ISLNK}[kind](os.lstat(path).st_mode), name + " is no " + kind)
    for name, size in case.get("sizes", {}).items():
        check(os.path.getsize(os.path.join(d, name)) == size, "%s has %d bytes" % (name, os.path.getsize(os.path.join(d, name))))
    for name, limit in case.get("at_most_bytes", {}).items():
        check(os.path.getsize(os.path.join(d, name)) <= limit, "%s is over %d bytes" % (name, limit))
    for name, fields in case.get("json_fields", {}).items():
        doc = strict_json(read(os.path.join(d, name)))
        for key, value in fields.items():
            check(doc.get(key) == value, "%s: %s is %r, not %r" % (name, key, doc.get(key), value))


def run_case(case, build, notes):
    """Runs the case in a folder of its own; what it notes goes to `notes`."""
    with tempfile.TemporaryDirectory(prefix="sonderlark-scenario-", dir="/tmp") as d:
        run = {"dir": d, "build": build, "children": [], "server": False, "notes": notes}
        try:
            if case.get("needs_root") and os.geteuid() != 0:
                run["notes"].append("skipped: needs root")
                return
            # A sanitizer build reserves terabytes of address space and runs tens of times slower.
            if case.get("optimised_only") and "SONDERLARK_SANITIZE:BOOL=ON" in file_text(os.path.join(build, "CMakeCache.txt")):
                run["notes"].append("skipped: moves gigabytes; runs in the Release build's suite")
                return
            if "scenario" in case:
                globals()[case["scenario"]](case, run)  # a function of this file
                return
            env = prepare(case, run)
            verify(case, run, *execute(command(case, run), env, d, deadline=case.get("deadline", DEADLINE)))
        finally:
            if run["server"]:  # a sound server the scenario started
                stop_server(run)
            if run.get("try"):  # the device of scripts/try-live
                execute([os.path.join(TOP, "scripts", "try-live"), "stop", run["try"]], None, d)
            if run.get("tmux"):  # what runs in its panes first: a hung program may not heed the hangup
                for pid in tmux(run, "list-panes", "-a", "-F", "#{pane_pid}").split():
                    try:
                        os.kill(int(pid), signal.SIGKILL)
                    except ProcessLookupError:  # ended meanwhile
                        pass
                tmux(run, "kill-server")
            for child in run["children"]:  # what the scenario started and left running
                if child.poll() is None:
                    child.terminate()
                    child.wait()


# Scenarios whose run is more than one command.

def endless_stream(case, run):
    """A FIFO whose writer never stops: the run reads what the header says."""
    os.mkfifo(os.path.join(run["dir"], "endless.wav"), 0o600)
    write(os.path.join(run["dir"], "header"), source(case["header"])[:44])
    spawn(["sh", "-c", "cat header /dev/zero > endless.wav"], None, run, "writer")  # ended with the case
    verify(case, run, *execute(command(case, run) + [os.path.join(run["dir"], "endless.wav")], None, run["dir"]))


def cut_while_read(case, run):
    """The input is cut short once the run has read part of it."""
    path = os.path.join(run["dir"], "long.wav")
    frames = 8000000
    with open(path, "wb") as f:
        f.write(b"RIFF" + (36 + 16 * frames).to_bytes(4, "little") + b"WAVEfmt " + (16).to_bytes(4, "little") +
                bytes.fromhex("01000400803e0000") + (16000 * 16).to_bytes(4, "little") +
                bytes.fromhex("10002000") + b"data" + (16 * frames).to_bytes(4, "little"))
        f.truncate(44 + 16 * frames)
    with subprocess.Popen(command(case, run) + [path], cwd=run["dir"], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE) as child:
        caught = False
        deadline = time.monotonic() + DEADLINE
        while not caught and child.poll() is None and time.monotonic() < deadline:
            try:
                io = read("/proc/%d/io" % child.pid).decode()
            except OSError:
                break
            if int(re.search(r"rchar: (\d+)", io).group(1)) > (16 << 20):
                os.kill(child.pid, signal.SIGSTOP)  # still ours: not yet collected by poll()
                caught = True
            else:
                time.sleep(0.0002)
        os.truncate(path, 1 << 20)
        if caught:
            os.kill(child.pid, signal.SIGCONT)
        out, err = child.communicate(timeout=DEADLINE)
    check(caught, "the run ended before it could be stopped mid-read")
    verify(case, run, child.returncode, out, err)


def full_disk(case, run):
    """A small tmpfs, filled: the failing write is reported, earlier files stay."""
    full = os.path.join(run["dir"], "full")
    os.makedirs(full)
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", full]).returncode != 0:
        run["notes"].append("skipped: cannot mount a small tmpfs here (needs root)")
        return
    try:
        env = prepare(case, run)  # its files in the tmpfs too: the earlier outputs
        subprocess.run(["sh", "-c", 'cat /dev/zero > "$0"/filler', full], stderr=subprocess.DEVNULL)
        verify(case, run, *execute(command(case, run), env, run["dir"]))
        check(not any(n.endswith(".tmp") for n in os.listdir(full)), "partial file left")
    finally:
        subprocess.run(["umount", full])


def command_lines(case, run):
    """Every refused row of the command-line table: its status, message, the usage, no log."""
    usage = read(os.path.join(TESTS, "golden/usage.txt")).decode()
    rows = 0
    for line in read(os.path.join(TESTS, case["table"])).decode().splitlines():
        fields = line.split("\t")
        if not line or line.startswith("#") or fields[0] != "refused":
            continue
        rows += 1
        log = os.path.join(run["dir"], "log.txt")
        argv = [os.path.join(run["build"], "sonderlark"), "--log", log] + fields[3:]
        status, out, err = execute(argv, dict(os.environ), run["dir"])
        where = "row %r: " % line
        check(status == int(fields[1]), where + "exit %d" % status)
        check(text(err) == fields[2].replace("\\n", "\n"), where + "stderr %r" % text(err))
        check(text(out) == usage.replace("PROGRAM", argv[0]), where + "stdout is not the usage")
        check(not os.path.exists(log), where + "a log was written")
    check(rows == case["rows"], "%d refused rows, not %d" % (rows, case["rows"]))


def stand_in(case, run):
    """Live mode with the scripted arecord of tests/arecord_stand_in.sh, steered by the case's plan; the log, the
    status file and what a reader saw at every start against one golden."""
    d = run["dir"]
    for sub in ("bin", "record", "state"):
        os.makedirs(os.path.join(d, sub))
    shutil.copy(os.path.join(TESTS, "arecord_stand_in.sh"), os.path.join(d, "bin", "arecord"))
    status_path = os.path.join(d, "state", "status.json")
    env = prepare(case, run)
    env.update(PATH=os.path.join(d, "bin") + ":" + os.environ["PATH"], STAND_IN_DIR=os.path.join(d, "record"),
               STATUS_FILE=status_path)
    frames = None
    for key, value in case["plan"].items():
        if key in ("FRAMES", "FIRST_FRAMES"):  # a count of chunks of the simulated array, and 3 samples more
            if frames is None:
                simulate(run, ["--input", os.path.join(TESTS, "golden/noise_lag5.wav"), "--lag", "2", "--repeat", "6",
                               "--raw", "--output", "array.raw"])
                frames = read(os.path.join(d, "array.raw"))
            write(os.path.join(d, key), frames[:value * 1024 * 16] + bytes(12))
            env[key] = os.path.join(d, key)
        else:
            env[key] = expand(value, run)
    argv = [os.path.join(run["build"], "sonderlark"), "--live", "--live-duration", case.get("duration", "30"), "--pcm-output",
            os.path.join(d, "none.pcm"), "--event-output", status_path, "--log", os.path.join(d, "live.log")]
    if "args" in case:  # the case's own command line instead
        argv = [argv[0]] + [expand(a, run) for a in case["args"]]
    status, out, err = execute(argv, env, d)
    verify(case, run, status, out, err)
    record = lambda name: read(os.path.join(d, "record", name)) if os.path.exists(os.path.join(d, "record", name)) else b""
    check(record("starts") == (b"%d\n" % case["starts"] if case["starts"] else b""), "starts: %r" % record("starts"))
    if "golden" not in case:
        return
    check(out == read(os.path.join(d, "live.log")), "the log file differs from standard output")
    report = b"== standard output\n" + out + b"== status file\n" + read(status_path)
    for n in range(2, case["starts"] + 1):
        report += b"== status file at start %d\n" % n + record("snapshot.%d" % n)
    golden(report.replace(d.encode(), b"TMP"), case["golden"], ["timestamp"], run)
    check(b"live.log" not in record("own_fds"), "the child holds the log")
    check(len(set(record("fds").split())) <= 1, "the tool held other descriptors at a later start")
    check(set(record("zombies").split()) <= {b"0"}, "a zombie child at a start")
    stamps = [json.loads(record("snapshot.%d" % n))["timestamp"] for n in range(2, case["starts"] + 1)]
    seconds = [time.mktime(time.strptime(t, "%Y-%m-%dT%H:%M:%SZ")) for t in stamps]
    for a, b in zip(seconds, seconds[1:]):  # the 2 s pause by the tool's own clock; room for a busy machine
        check(2 <= b - a <= 60, "restarts %d s apart" % (b - a))


# Live mode on the real arecord, reading a file-backed ALSA device.

def spawn(argv, env, run, name):
    """Starts argv in the background, its output in NAME.out and NAME.err; ended by PID at the end of the case if it
    is still running."""
    with open(os.path.join(run["dir"], name + ".out"), "wb") as out, \
            open(os.path.join(run["dir"], name + ".err"), "wb") as err:
        child = subprocess.Popen(argv, env=env, cwd=run["dir"], stdin=subprocess.DEVNULL, stdout=out, stderr=err)
    run["children"].append(child)
    return child


def finish(child):
    """The child's exit status, once it has ended (by itself, within the deadline)."""
    try:
        return child.wait(timeout=DEADLINE)
    except subprocess.TimeoutExpired:
        raise Failure("still running after %d s: %s" % (DEADLINE, " ".join(child.args)))


def wait_for(ready, what):
    """Polls until ready() holds; only a hung run reaches the deadline. A file ready() reads that is not there yet (a
    reader that has not made its output file, on a busy machine) is not ready yet."""
    deadline = time.monotonic() + DEADLINE
    while True:
        try:
            if ready():
                return
        except FileNotFoundError:
            pass
        check(time.monotonic() < deadline, "waited %d s for %s" % (DEADLINE, what))
        time.sleep(0.01)


def file_text(path):
    return text(read(path)) if os.path.exists(path) else ""


def array_device(case, run):
    """The device "sonderlark_array" of a simulated array (a source at 30 degrees: lag 4), playing `repeat` times the
    4000 frames of a noise recording. Paced, a pacer writes the frames at real time and silence after them, so that a
    run reads the same frames at any build's speed; unpaced, arecord reads them as fast as the tool takes them."""
    d = run["dir"]
    frames = os.path.join(d, "frames.raw")
    simulate(run, ["--input", os.path.join(TESTS, "golden/noise_lag5.wav"), "--lag", "4", "--repeat",
                   str(case["repeat"]), "--raw", "--output", frames])
    if not case.get("paced"):
        return prepare(dict(case, device_file="frames.raw"), run)
    return {**prepare(case, run), **paced_device(run, d)}


def live_argv(run, duration, pcm, *more):
    d = run["dir"]
    return [os.path.join(run["build"], "sonderlark"), "--live", "--device", "sonderlark_array", "--live-duration",
            duration, "--pcm-output", pcm, "--event-output", os.path.join(d, "state/status.json"), "--log",
            os.path.join(d, "status.log")] + list(more)


def status_record(run):
    """The status record: strict JSON (no NaN, no Infinity) with its 20 members."""
    record = strict_json(read(os.path.join(run["dir"], "state/status.json")))
    check(len(record) == 20, "the status record has %d members" % len(record))
    return record


def chunks_now(run):
    try:
        return status_record(run)["chunks_processed"]
    except (OSError, ValueError, Failure):
        return 0


def library_beams(run, chunks):
    """What live mode must stream for the device's frames: chunk by chunk, computed with the library."""
    argv = [os.path.join(run["build"], "tests", "live_beams"), os.path.join(run["dir"], "frames.raw"), str(chunks)]
    return subprocess.run(argv, stdout=subprocess.PIPE, check=True, timeout=DEADLINE).stdout


def fifo_reader(run, fifo, name):
    """A reader copying the FIFO into the file NAME, returned once it waits in open(). Its pipe is widened to 1 MiB,
    so that a moment off the CPU does not make the writer drop samples."""
    child = spawn([sys.executable, "-c", "import fcntl, os, sys\nfd = os.open(sys.argv[1], os.O_RDONLY)\n"
                   "fcntl.fcntl(fd, 1031, 1 << 20)  # F_SETPIPE_SZ\nwith open(sys.argv[2], 'wb') as out:\n"
                   "    while data := os.read(fd, 65536):\n        out.write(data); out.flush()",
                   fifo, os.path.join(run["dir"], name)], dict(os.environ), run, name + ".reader")
    proc = "/proc/%d" % child.pid

    def waiting():
        try:
            opened = any(os.readlink(os.path.join(proc, "fd", fd)) == fifo for fd in os.listdir(proc + "/fd"))
            return opened or "wait_for_partner" in file_text(proc + "/wchan")
        except OSError:  # a descriptor closed while it was listed: look again
            return False
    wait_for(waiting, "the reader to open " + fifo)
    return child


def finish_reader(child, fifo):
    """Lets a reader still waiting for a writer see the end of the stream."""
    try:
        os.close(os.open(fifo, os.O_WRONLY | os.O_NONBLOCK))
    except OSError:
        pass
    return finish(child)


def live_finite_run(case, run):
    """A finite paced run into a regular file or a FIFO whose reader keeps up: exactly the beams the library computes,
    chunk for chunk, and a clean end."""
    env = array_device(case, run)
    pcm = os.path.join(run["dir"], "out.pcm")
    reader = None
    if case["pcm"] == "fifo":
        os.mkfifo(pcm, 0o600)
        reader = fifo_reader(run, pcm, "received")
    else:
        write(pcm, "")
    status, out, err = execute(live_argv(run, "2", pcm), env, run["dir"])
    if reader:
        check(finish_reader(reader, pcm) == 0, "the reader failed")
    verify(case, run, status, out, err)
    check(out == read(os.path.join(run["dir"], "status.log")), "the log file differs from standard output")
    chunks = status_record(run)["chunks_processed"]
    check(chunks > 0, "no chunk processed")
    got = read(os.path.join(run["dir"], "received" if reader else "out.pcm"))
    check(got == library_beams(run, chunks), "the stream is not the library's beams")
    log = text(out)
    check(log.count("live chunk=") == 1 + chunks // 50, "chunk lines for chunk 1 and every 50th only")
    check(log.count("live chunk=50 ") == (chunks >= 50), "chunk 50's line")
    check("\nlive chunks_processed: %d\n" % chunks in log, "the summary's chunk count")


def live_reader_returns(case, run):
    """A continuous run: no reader, a reader that leaves, one that comes back; each gets a run of whole chunks of the
    stream. Each phase waits for the tool to report the one before, at whatever speed the machine has."""
    env = array_device(case, run)
    d = run["dir"]
    fifo, log = os.path.join(d, "mic.pcm"), os.path.join(d, "status.log")
    os.mkfifo(fifo, 0o600)
    said = lambda what, times: lambda: file_text(log).count(what) >= times
    tool = spawn(live_argv(run, "0", fifo), env, run, "tool")
    wait_for(said("warning: live PCM output has no reader", 1), "the no-reader warning")
    first = fifo_reader(run, fifo, "part1")
    wait_for(said("live PCM output connected", 1), "the first connection")
    wait_for(lambda: os.path.getsize(os.path.join(d, "part1")) >= 4096, "two chunks for the first reader")
    first.terminate()
    finish(first)
    wait_for(said("reader disconnected", 1), "the disconnection")
    second = fifo_reader(run, fifo, "part2")
    wait_for(said("live PCM output connected", 2), "the second connection")
    wait_for(lambda: os.path.getsize(os.path.join(d, "part2")) >= 4096, "two chunks for the second reader")
    tool.send_signal(signal.SIGTERM)
    status = finish(tool)
    check(finish_reader(second, fifo) == 0, "the second reader failed")
    verify(case, run, status, read(os.path.join(d, "tool.out")), read(os.path.join(d, "tool.err")))
    # The first reader's run is found by content, at a chunk; the second read to the end.
    beams = library_beams(run, status_record(run)["chunks_processed"])
    part1, part2 = read(os.path.join(d, "part1")), read(os.path.join(d, "part2"))
    at = beams.find(part1[:2048])
    check(at >= 0 and at % 2048 == 0 and beams[at:at + len(part1)] == part1, "the first reader's run")
    check((len(beams) - len(part2)) % 2048 == 0 and beams.endswith(part2), "the second reader's run")


def live_slow_reader(case, run):
    """A reader that never reads: the pipe fills after 32 chunks. The run goes on past 100 chunks with the reader
    still connected and stops cleanly."""
    env = array_device(case, run)
    fifo = os.path.join(run["dir"], "mic.pcm")
    os.mkfifo(fifo, 0o600)
    spawn([sys.executable, "-c", "import os, sys, time\nfd = os.open(sys.argv[1], os.O_RDONLY | os.O_NONBLOCK)\n"
           "open(sys.argv[1] + '.open', 'w').close()\ntime.sleep(600)", fifo], env, run, "reader")
    wait_for(lambda: os.path.exists(fifo + ".open"), "the reader")
    tool = spawn(live_argv(run, "0", fifo), env, run, "tool")
    wait_for(lambda: chunks_now(run) > 100, "100 chunks")
    tool.send_signal(signal.SIGTERM)
    verify(case, run, finish(tool), read(os.path.join(run["dir"], "tool.out")), b"")


def live_planted_pcm(case, run):
    """Another user's FIFO, file or link at the PCM path in a shared sticky folder never receives the audio; our own
    FIFO there does; a device is refused."""
    if os.geteuid() != 0 or shutil.which("setpriv") is None:
        run["notes"].append("skipped: planting files as another user needs root and setpriv")
        return
    env = array_device(case, run)
    d = run["dir"]
    os.chmod(d, 0o755)
    shared = os.path.join(d, "shared")
    os.mkdir(shared)
    os.chmod(shared, 0o1777)
    write(os.path.join(d, "ours"), "our file")
    plant = [expand(a, run).replace("{shared}", shared) for a in case["plant_command"]]
    if case.get("as_nobody"):
        plant = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] + plant
    check(subprocess.run(plant).returncode == 0, "planting failed")
    path = expand(case["pcm"], run).replace("{shared}", shared)
    fifo = stat.S_ISFIFO(os.lstat(path).st_mode)
    reader = fifo_reader(run, path, "got") if fifo else None
    status, out, err = execute(live_argv(run, "1", path), env, d)
    if reader:
        check(finish_reader(reader, path) == 0, "the reader failed")
    verify(case, run, status, out, err)
    check(fifo and os.path.getsize(os.path.join(d, "got")) > 0 if case.get("receives") else
          not os.path.exists(os.path.join(d, "got")) or os.path.getsize(os.path.join(d, "got")) == 0,
          "who received audio")
    check(read(os.path.join(d, "ours")) == b"our file", "our file changed")


def live_signal_stop(case, run):
    """A signal ends a continuous or finite run cleanly once it has processed a chunk; the monitor then shows a
    stopped run, not a stale one."""
    env = array_device(case, run)
    d = run["dir"]
    tool = spawn(live_argv(run, case["duration"], os.path.join(d, "out.pcm")), env, run, "tool")
    wait_for(lambda: "live chunk=1 " in file_text(os.path.join(d, "status.log")), "the first chunk")
    number = getattr(signal, "SIG" + case["signal"])
    tool.send_signal(number)
    check(finish(tool) == 0, "the run did not end with status 0")
    log = file_text(os.path.join(d, "status.log"))
    stop = log.find("\nlive stop requested by signal %d\n" % number)
    check(stop >= 0, "the stop was not logged")
    chunks = status_record(run)["chunks_processed"]
    check(log.find("\nlive chunks_processed: %d\nlive low_confidence_chunks: " % chunks, stop) > stop, "the summary")
    check(log.endswith(case["log_ends"]), "the log ends %r" % log[-100:])
    verify(case, run, 0, b"", b"")
    monitor = [os.path.join(run["build"], "sonderlark-monitor"), "--once", os.path.join(d, "state/status.json")]
    status, out, _ = execute(monitor, dict(os.environ), d)
    check(status == 0 and "\nstatus: stopped   chunks: %d " % chunks in text(out) and "STALE" not in text(out),
          "the monitor shows %r" % text(out))


def strict_json(data):
    """A JSON document, refusing NaN and Infinity as a strict reader would."""
    return json.loads(data, parse_constant=lambda c: (_ for _ in ()).throw(ValueError("JSON has " + c)))


def poll_status(path, stop, reads=0, distinct=0):
    """Reads the status file as fast as it can until `stop` is set, or until it has made `reads` reads and seen
    `distinct` different records: the counts of reads, good records (20 members), partial or missing ones, different ones."""
    counts = dict.fromkeys(("reads", "good", "partial", "distinct"), 0)
    last = None
    while not stop.is_set() and not (reads and counts["reads"] >= reads and counts["distinct"] >= distinct):
        counts["reads"] += 1
        try:
            data = read(path)
            good = len(strict_json(data)) == 20
        except (OSError, ValueError, TypeError):  # a file not there, or not one whole record
            data, good = None, False
        counts["good" if good else "partial"] += 1
        counts["distinct"] += good and data != last
        last = data if good else last
    return counts


def status_never_partial(case, run):
    """A poller reading the status file as fast as it can, with a strict JSON parser, against a continuous unpaced run
    (or the case's in-place writer, which it must catch). Counts, not time: the poller ends by itself once it has seen
    enough records."""
    d = run["dir"]
    status_path, stop = os.path.join(d, "state/status.json"), threading.Event()
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        if case.get("writer") == "in_place":
            write(status_path, source("golden/live_status.json"))
            writer = spawn([sys.executable, "-c", "import sys, time\nrecord = open(sys.argv[1]).read()\n"
                            "end = time.time() + 3\nwhile time.time() < end:\n    with open(sys.argv[1], 'w') as f:\n"
                            "        f.write(record[:200]); f.flush(); f.write(record[200:])", status_path], None, run,
                           "writer")
            polled = pool.submit(poll_status, status_path, stop)
            finish(writer)
            stop.set()
            check(polled.result()["partial"] > 0, "the in-place writer was not caught")
            return
        env = array_device(case, run)
        tool = spawn(live_argv(run, "0", os.path.join(d, "no-reader.pcm"), "--live-chunk-frames", "128"), env, run,
                     "tool")
        wait_for(lambda: os.path.exists(status_path) or tool.poll() is not None, "the first record")
        polled = pool.submit(poll_status, status_path, stop, 20000, 2000)
        wait_for(lambda: polled.done() or tool.poll() is not None, "20000 reads of 2000 records")
        tool_ended = tool.poll() is not None
        tool.send_signal(signal.SIGTERM)
        finish(tool)
        stop.set()
        counts = polled.result()
    check(not tool_ended, "the run ended first: %s" % counts)
    check(counts["reads"] >= 20000 and counts["distinct"] >= 2000, "too few reads: %s" % counts)
    check(counts["partial"] == 0, "a reader saw no record or a partial one: %s" % counts)
    run["notes"].append("atomicity: %s" % counts)


# Live mode into the virtual microphone of a real sound server, started by
# scripts/sound-server. A route is the server and what makes its pipe source.

SOUND_SERVER = os.path.join(TOP, "scripts", "sound-server")
PIPE_SOURCE = "format=s16le rate=16000 channels=1"


def start_server(case, run, fifo, settings=PIPE_SOURCE):
    """Starts the case's route; returns the environment that reaches the server."""
    d, route = run["dir"], case["route"]
    options = {"pulseaudio": ["pulseaudio"] + (["--pipe-source", fifo, settings] if settings else []),
               "pipewire-drop-in": ["pipewire", "--pipe-tunnel", fifo]}.get(route, ["pipewire"])
    folder = os.path.join(d, "server")
    status, out, err = execute([SOUND_SERVER, "start", folder] + options, dict(os.environ), d)
    check(status == 0, "the %s server did not start: %s" % (route, text(err)))
    run["server"] = True
    env = {k: v for k, v in os.environ.items() if k not in ("PULSE_SERVER", "PIPEWIRE_REMOTE")}
    env.update(word.split("=", 1) for word in text(out).split())
    sources = lambda: text(execute(["pactl", "list", "short", "sources"], env, d)[1])
    if route == "pipewire-pactl":
        argv = ["pactl", "load-module", "module-pipe-source", "source_name=sonderlark_mic", "file=" + fifo]
        check(execute(argv + PIPE_SOURCE.split(), env, d)[0] == 0, "pactl load-module failed")
    if route == "pipewire-mic":
        if "mic" not in run:  # once: after a server restart the running one publishes its node again
            run["mic"] = spawn([os.path.join(run["build"], "sonderlark-mic"), "--fifo", fifo], env, run, "mic")
        wait_for(lambda: "sonderlark_mic" in sources(), "sonderlark-mic's source")
    return env


def stop_server(run):
    execute([SOUND_SERVER, "stop", os.path.join(run["dir"], "server")], dict(os.environ), run["dir"])


def with_server(case, run, server_env):
    """The environment of a tool run: the array device's, reaching the server."""
    return {**array_device(case, run), **server_env, "XDG_CONFIG_HOME": os.path.join(run["dir"], "config")}


def start_recorder(case, run, env, wav):
    """A recorder of the source at 16 kHz, returned once the server lists its stream. The Pulse layer may list the
    source before the session manager can link to it: pw-record then ends at once ("no node available") and is started
    again. Both recorders stop on SIGINT with what they got written."""
    argv = (["parecord", "-d", "sonderlark_mic", "--rate=16000", "--channels=1", "--format=s16le",
             "--latency-msec=500", "--file-format=wav", wav] if case["route"] == "pulseaudio" else
            ["pw-record", "--target", "sonderlark_mic", "--rate", "16000", "--channels", "1", "--format", "s16",
             "--latency", "500ms", wav])
    for _ in range(20):
        recorder = spawn(argv, env, run, "recorder")
        streams = lambda: text(execute(["pactl", "list", "short", "source-outputs"], env, run["dir"])[1]).strip()
        wait_for(lambda: recorder.poll() is not None or streams(), "the recorder's stream")
        if recorder.poll() is None:
            return recorder
    raise Failure("the recorder never connected: " + file_text(os.path.join(run["dir"], "recorder.err")))


def received_in_order(got, want, chunk):
    """How much of `want` arrives in `got`, bit for bit and in order; the drops; a fault. Between its samples `got`
    may hold the source's own silence (before the first beam, after the last, where the FIFO ran dry). When the server
    falls behind, the tool drops the rest of a chunk: the stream then goes on at a later chunk's first sample (a
    drop)."""
    j = drops = 0
    for i, sample in enumerate(got):
        if j < len(want) and sample == want[j]:
            j += 1
            continue
        if sample == 0:
            continue
        # Two samples, so that a chance equal value is not taken for a chunk's start.
        starts = lambda k: want[k] == sample and (i + 1 == len(got) or k + 1 == len(want) or want[k + 1] == got[i + 1])
        following = (j // chunk + 1) * chunk
        while following < len(want) and not starts(following):
            following += chunk
        if j > 0 and following < len(want):
            j, drops = following + 1, drops + 1
            continue
        return j, drops, "recorded sample %d is %d, beam sample %d is %s" % (i, sample, j, want[j] if j < len(want) else "past the end")
    return j, drops, ""


def virtual_mic_bit_for_bit(case, run):
    """A paced live run into the virtual microphone: a recorder gets every beam sample bit for bit."""
    d = run["dir"]
    fifo = os.path.join(d, "mic.pcm")
    env = with_server(case, run, start_server(case, run, fifo))
    recorder = start_recorder(case, run, env, os.path.join(d, "rec.wav"))
    status, out, err = execute(live_argv(run, "4", fifo), env, d)
    verify(dict(case, stdout_has=["live PCM output connected: " + fifo]), run, status, out, err)
    beams = library_beams(run, int(re.search(r"live chunks_processed: (\d+)", text(out)).group(1)))
    wait_for(lambda: beams[-2048:] in read(os.path.join(d, "rec.wav")), "the last chunk in the recording")
    recorder.send_signal(signal.SIGINT)
    finish(recorder)
    with wave.open(os.path.join(d, "rec.wav")) as w:
        check((w.getnchannels(), w.getframerate(), w.getsampwidth()) == (1, 16000, 2), "the recording's format")
        got = array.array("h", w.readframes(w.getnframes()))
    want = array.array("h", beams)
    received, drops, fault = received_in_order(got, want, 1024)
    check(fault == "" and received == len(want), "%d of %d samples in order; %s" % (received, len(want), fault))
    run["notes"].append("%s: %d beam samples bit for bit in %d recorded, %d drops" % (case["route"], received, len(got), drops))


def virtual_mic_server_restart(case, run):
    """A continuous run while the server goes away and comes back: the reader is lost and found again, and the status
    file keeps moving meanwhile."""
    d = run["dir"]
    fifo = os.path.join(d, "mic.pcm")
    env = with_server(case, run, start_server(case, run, fifo))
    tool = spawn(live_argv(run, "0", fifo), env, run, "tool")
    log = lambda: file_text(os.path.join(d, "status.log"))
    connected = "live PCM output connected: "
    disconnected = "warning: live PCM output reader disconnected; direction status will continue"
    wait_for(lambda: log().count(connected) == 1 and chunks_now(run) > 10, "10 chunks into the microphone")
    before = chunks_now(run)
    stop_server(run)  # the source removes the FIFO it made
    wait_for(lambda: disconnected in log(), "the disconnection")
    wait_for(lambda: chunks_now(run) > before + 10, "10 chunks while the server is gone")
    while_down = chunks_now(run)
    start_server(case, run, fifo)
    wait_for(lambda: log().count(connected) == 2, "the second connection")
    wait_for(lambda: chunks_now(run) > while_down + 10, "10 chunks after the restart")
    tool.send_signal(signal.SIGTERM)
    verify(case, run, finish(tool), read(os.path.join(d, "tool.out")), b"")


def mic_follows_server(case, run):
    """sonderlark-mic through a restart of its PipeWire server: its source is published again by itself; at the end
    its FIFO is gone."""
    d = run["dir"]
    fifo = os.path.join(d, "mic.pcm")
    start_server(case, run, fifo)
    said = lambda what: lambda: file_text(os.path.join(d, "mic.err")).count(what) == 1
    check(said("sonderlark-mic: source sonderlark_mic ready")(), "not ready: " + file_text(os.path.join(d, "mic.err")))
    stop_server(run)
    wait_for(said("sonderlark-mic: lost the PipeWire server; trying again every second"), "the loss")
    start_server(case, run, fifo)
    wait_for(said("sonderlark-mic: connected to PipeWire again"), "the reconnection")
    run["mic"].send_signal(signal.SIGTERM)
    check(finish(run["mic"]) == 0, "sonderlark-mic did not end with 0")
    check(not os.path.lexists(fifo), "the FIFO is left")


def mic_makes_its_fifo(case, run):
    """With no FIFO there, sonderlark-mic makes a private one, waits for a server, and removes it at the end."""
    d = run["dir"]
    env = prepare(case, run)
    mic = spawn([os.path.join(run["build"], "sonderlark-mic")], env, run, "mic")
    wait_for(lambda: "no PipeWire server" in file_text(os.path.join(d, "mic.err")), "the wait for a server")
    info = os.lstat(os.path.join(d, "run/sonderlark-beamformed-mic.pcm"))
    check(stat.S_ISFIFO(info.st_mode) and info.st_mode & 0o777 == 0o600, "the FIFO is not a private FIFO")
    mic.send_signal(signal.SIGTERM)
    verify(case, run, finish(mic), b"", read(os.path.join(d, "mic.err")))  # the case: its FIFO is gone


def doctor_virtual_mic(case, run):
    """sonderlark-doctor against a real PulseAudio finds the pipe source loaded in the private runtime folder by
    itself and checks it."""
    d = run["dir"]
    fifo = os.path.join(d, "server/run/sonderlark-beamformed-mic.pcm")
    env = with_server(case, run, start_server(case, run, fifo, case["settings"]))
    argv = [os.path.join(run["build"], "sonderlark-doctor"), "--device", "sonderlark_array", "--seconds", "2",
            "--event-output", os.path.join(d, "status.json"), "--json"] + case.get("args", [])
    status, out, err = execute(argv, env, d)
    verify(case, run, status, out, err)
    doctor_answer(case, out)


def doctor_answer(case, out):
    """The doctor's --json answer: the state of every check as the case says, the problems counted, the channels'
    figures as numbers."""
    answer = json.loads(out)
    check(answer["problems"] == sum(c["state"] == "problem" for c in answer["checks"]), "the problem count")
    states = " ".join(c["name"].replace(" ", "_") + "=" + c["state"] for c in answer["checks"])
    check(states == case["states"], "states " + states)
    if states.startswith("device=ok channels="):
        channels = answer["checks"][1]["channels"]
        check(len(channels) == 4, "%d channel records" % len(channels))
        for channel in channels:
            check(all(isinstance(channel[k], float) for k in ("level_dbfs", "peak_dbfs", "noise_floor_dbfs", "dc_offset"))
                  and isinstance(channel["clipped_samples"], int), "a channel's figures: %s" % channel)
    return answer


def doctor_array(case, run):
    """sonderlark-doctor on the real arecord, its file device playing what sonderlark-sim made of noise bursts (the
    noise floor lies in the pauses) with the case's faults; or four taps, one per microphone in turn, the user
    pressing Enter; or silence."""
    d = run["dir"]
    def sim(source, options):
        simulate(run, ["--input", source, "--output", "part.raw", "--raw"] + options)
        return read(os.path.join(d, "part.raw"))
    sox = lambda name, synth: check(execute(["sox", "-R", "-n", "-r", "16000", "-b", "16", "-c", "1", name] +
                                            synth.split(), None, d)[0] == 0, "sox failed")
    frames = bytes(64000)
    if case.get("taps"):
        sox("click.wav", "synth 0.004 sine 2000 vol 0.8 pad 0.5 2.496")
        frames = b"".join(sim("click.wav", ["--tap", str(mic), "--noise-rms", "0.0005", "--swap", "1:2", "--seed",
                                            str(mic)]) for mic in range(4))
    elif "sim" in case:
        sox("bursts.wav", "synth 1 whitenoise vol 0.3 pad 0 1")
        frames = sim("bursts.wav", ["--lag", "2", "--noise-rms", "0.001"] + case["sim"])
    write(os.path.join(d, "frames.raw"), frames)
    env = prepare(dict(case, device_file="frames.raw"), run)
    config = os.path.join(d, "config/alsa/asoundrc")
    if case.get("two_channels"):  # two file devices side by side, one channel of each
        first = file_text(config)
        write(config, first + first.replace("sonderlark_array", "second_array", 1) +
              'pcm.stereo { type multi slaves.a.pcm "sonderlark_array" slaves.a.channels 1 slaves.b.pcm "second_array" '
              "slaves.b.channels 1 bindings.0.slave a bindings.0.channel 0 bindings.1.slave b bindings.1.channel 0 }\n")
    argv = [os.path.join(run["build"], "sonderlark-doctor"), "--seconds", "2", "--event-output",
            os.path.join(d, "status.json")] + [expand(a, run) for a in case["args"]]
    status, out, err = execute(argv, env, d, case.get("stdin", ""))
    verify(case, run, status, out, err)
    if "states" in case:
        answer = doctor_answer(case, out)
        if case.get("taps"):
            ordered_device_restores(run, env, answer, frames)


def ordered_device_restores(run, env, answer, frames):
    """The route device the answer gives puts every frame back in order, recorded through the real arecord: each frame
    of the recording is a frame of the device with channels 1 and 2 exchanged. (Through a route over a file device,
    blocks of frames may come in another order.)"""
    d = run["dir"]
    definition = [t[t.index("pcm."):] for t in answer["checks"][3]["details"] if "pcm.sonderlark_ordered" in t]
    check(definition == ['pcm.sonderlark_ordered { type route slave.pcm "sonderlark_array" slave.channels 4 '
                         "ttable.0.0 1 ttable.1.2 1 ttable.2.1 1 ttable.3.3 1 }"], "the route device %s" % definition)
    with open(os.path.join(d, "config/alsa/asoundrc"), "a") as f:
        f.write(definition[0] + "\n")
    count = len(frames) // 16
    argv = ["arecord", "-q", "-D", "sonderlark_ordered", "-f", "S32_LE", "-r", "16000", "-c", "4", "-t", "raw", "-s",
            str(count), "fixed.raw"]
    check(execute(argv, env, d)[0] == 0, "arecord through the route device failed")
    frame = lambda data, f: data[16 * f:16 * f + 16]
    restored = {frame(frames, f)[:4] + frame(frames, f)[8:12] + frame(frames, f)[4:8] + frame(frames, f)[12:]
                for f in range(count)}
    swapped = sum(frame(frames, f)[4:8] != frame(frames, f)[8:12] for f in range(count))  # frames a swap changes
    got = read(os.path.join(d, "fixed.raw"))
    check(swapped > count // 4 and len(got) == count * 16, "the recording's length, or too few frames to tell")
    check(all(frame(got, f) in restored for f in range(count)), "a frame not restored")


# sonderlark-monitor in a real terminal: a tmux server of the case's own.

def tmux(run, *args):
    return text(execute(["tmux", "-S", os.path.join(run["dir"], "tmux.sock")] + list(args), None, run["dir"])[1])


def terminal(run, argv, width, height, env=None):
    """A detached terminal of the given size running argv in the run's folder; returns a function that reads its
    screen. Ended with the case."""
    run["tmux"] = True
    status, _, err = execute(["tmux", "-S", os.path.join(run["dir"], "tmux.sock"), "new-session", "-d", "-x", str(width),
                              "-y", str(height), "-c", run["dir"]] + argv, env, run["dir"])
    check(status == 0, "tmux failed: " + text(err))
    return lambda: tmux(run, "capture-pane", "-p", "-t", "0")


def noise_frames(run, folder, angles):
    """folder/frames.raw: four seconds of noise from each of `angles` in turn."""
    os.makedirs(folder)
    check(execute(["sox", "-n", "-r", "16000", "-b", "16", "-c", "1", "noise.wav", "synth", "4", "whitenoise", "vol",
                   "0.3"], None, folder)[0] == 0, "sox failed")
    frames = b""
    for angle in angles:
        simulate(run, ["--input", "noise.wav", "--output", "part.raw", "--raw", "--angle", str(angle)], folder)
        frames += read(os.path.join(folder, "part.raw"))
    write(os.path.join(folder, "frames.raw"), frames)


def needle_column(screen):
    return next((line.index("@") for line in screen.splitlines() if "@" in line), -1)


def monitor_follows_live_run(case, run):
    """The monitor watching a real live run whose source moves from -30 to +48.59 degrees halfway; the run killed, its
    last record ages and the view says so; a new run clears the banner. How soon is reported, not asserted."""
    d = run["dir"]
    status_path = os.path.join(d, "state/status.json")
    live = lambda env, name: spawn([os.path.join(run["build"], "sonderlark"), "--live", "--device", "sonderlark_array",
                                    "--pcm-output", os.path.join(d, "none"), "--event-output", status_path, "--log",
                                    ""], dict(os.environ, **env), run, name)
    noise_frames(run, os.path.join(d, "first"), [-30, 48.59])
    tool = live(paced_device(run, os.path.join(d, "first"), "pacer1"), "first")
    screen = terminal(run, [os.path.join(run["build"], "sonderlark-monitor"), "--interval", "100", status_path], 90, 40)
    shows = lambda what: lambda: what in screen()
    wait_for(shows("direction: -30.00 degrees"), "-30 degrees on the screen")
    before = screen()
    check(all("ch%d " % c in before for c in range(4)) and "ch4 " not in before, "the four channels: " + before)
    wait_for(lambda: abs(json.loads(read(status_path)).get("direction_angle_degrees", 0) - 48.59) < 0.005,
             "a record at 48.59 degrees")
    start = time.monotonic()
    wait_for(shows("direction: 48.59 degrees"), "48.59 degrees on the screen")
    run["notes"].append("view followed the record in %.2f s" % (time.monotonic() - start))
    check(needle_column(before) < needle_column(screen()), "the needle did not move right")
    tool.kill()
    finish(tool)
    start = time.monotonic()
    wait_for(shows("STALE"), "the stale banner")
    run["notes"].append("stale banner %.1f s after the kill" % (time.monotonic() - start))
    noise_frames(run, os.path.join(d, "second"), [0])
    tool = live(paced_device(run, os.path.join(d, "second"), "pacer2"), "second")
    wait_for(lambda: "STALE" not in screen(), "the banner to go")
    check("status: running" in screen(), "not running: " + screen())
    tool.terminate()
    finish(tool)


def monitor_screen(case, run):
    """The monitor in a terminal of the case's size, on the case's record."""
    prepare(case, run)
    screen = terminal(run, [os.path.join(run["build"], "sonderlark-monitor"), "status.json"], *case["size"])
    wait_for(lambda: all(piece in screen() for piece in case["screen_has"]), "%s on the screen" % case["screen_has"])


def monitor_key_ends(case, run):
    """The key ends the view with status 0 and leaves the terminal's modes as they were."""
    d = run["dir"]
    script = ("trap '' INT; stty -g > before; \"$0\" --interval 50 missing.json; echo $? > rc; stty -g > after; "
              "sleep 60")
    screen = terminal(run, ["sh", "-c", script, os.path.join(run["build"], "sonderlark-monitor")], 80, 30)
    wait_for(lambda: "no status file here" in screen(), "the monitor's view")
    tmux(run, "send-keys", "-t", "0", case["key"])
    wait_for(lambda: file_text(os.path.join(d, "after")) != "", "the shell after the monitor")
    check(file_text(os.path.join(d, "rc")) == "0\n", "the monitor ended with " + file_text(os.path.join(d, "rc")))
    check(file_text(os.path.join(d, "after")) == file_text(os.path.join(d, "before")) != "", "the modes changed")


def hostile_text_in_terminal(case, run):
    """Text from outside as it reaches a real terminal: the monitor and the doctor on records whose every string
    member (and the timestamp) carries a title change, C1 controls and a right-to-left override, and the doctor on a
    FIFO read by a process whose name is a title change. The pane's title stays, no escape reaches the screen, each
    payload shows with '?'."""
    d = run["dir"]
    prepare(case, run)
    hostile_name = os.path.join(d, "\x1b]2;PWNED-comm\x07")
    shutil.copy("/bin/sleep", hostile_name)
    holder = spawn(["sh", "-c", 'exec 3<>"$0"; exec "$1" 600', os.path.join(d, "mic.pcm"), hostile_name], None, run,
                   "holder")
    wait_for(lambda: file_text("/proc/%d/comm" % holder.pid).startswith("\x1b"), "the holder's name")
    each = ('for f in any degraded timestamp; do echo "== $f"; "$0" --once $f.json; "$1" --device no_such_device '
            '--seconds 1 --pcm-output "$2" --event-output $f.json; done; echo END-OF-OUTPUT; exec sleep 600')
    env = dict(os.environ, XDG_RUNTIME_DIR=d, PULSE_SERVER=os.path.join(d, "no-server"))
    terminal(run, ["sh", "-c", each, os.path.join(run["build"], "sonderlark-monitor"),
                   os.path.join(run["build"], "sonderlark-doctor"), os.path.join(d, "mic.pcm")], 250, 200, env)
    history = lambda: tmux(run, "capture-pane", "-p", "-e", "-S", "-", "-t", "0")
    wait_for(lambda: "END-OF-OUTPUT" in history(), "the end of the output")
    screen = history()
    check("PWNED" not in tmux(run, "display-message", "-p", "-t", "0", "#{pane_title}"), "the title changed")
    for bad in ("\x1b", "\u009b", "\u009d", "\u202e", "\x07"):
        check(bad not in screen, "%r reached the screen" % bad)
    for piece in case["screen_has"]:
        check(piece in screen, "the screen lacks %r" % piece)


# The scripts of the README.

def try_live(case, run):
    """scripts/try-live's paced device: a live run through it, the monitor following that run, and a second capture
    (the doctor) after it; stop removes the folder."""
    d = run["dir"]
    run["try"], state = os.path.join(d, "try"), os.path.join(d, "try/status.json")
    env = dict(os.environ, XDG_RUNTIME_DIR=d, XDG_CONFIG_HOME=os.path.join(d, "try/config"))
    status, out, err = execute([os.path.join(TOP, "scripts", "try-live"), "start", run["try"], "--angle", "30", "--bin",
                                run["build"]], env, d)
    check(status == 0 and "device: sonderlark_array\nXDG_CONFIG_HOME=%s\n" % env["XDG_CONFIG_HOME"] in text(out),
          "try-live start said %r %r" % (text(out), text(err)))
    tool = spawn([os.path.join(run["build"], "sonderlark"), "--live", "--device", "sonderlark_array", "--live-duration",
                  "4", "--event-output", state, "--pcm-output", os.path.join(d, "try/mic.pcm")], env, run, "tool")
    monitor = lambda: text(execute([os.path.join(run["build"], "sonderlark-monitor"), "--once", state], env, d)[1])
    wait_for(lambda: "\nstatus: running " in "\n" + monitor(), "the monitor to show the running record")
    check(finish(tool) == 0, "the live run failed")
    check("\ndirection: 30.00 degrees" in "\n" + monitor(), "the monitor after the run: " + monitor())
    verify(case, run, *execute([os.path.join(run["build"], "sonderlark-doctor"), "--device", "sonderlark_array",
                                "--seconds", "1", "--event-output", state], env, d))
    execute([os.path.join(TOP, "scripts", "try-live"), "stop", run["try"]], None, d)
    check(not os.path.lexists(run["try"]), "stop left its folder")


def server_stop_spares_strangers(case, run):
    """scripts/sound-server stop with a PID list naming a process it did not start: the right PID and name with
    another start time (a PID used again), or the PID and name alone; the process survives both, and ends when the
    list gives its own start time."""
    d = run["dir"]
    stranger = spawn(["sleep", "300"], None, run, "stranger")
    started = text(read("/proc/%d/stat" % stranger.pid)).rsplit(")", 1)[1].split()[19]
    os.mkdir(os.path.join(d, "stack"), 0o700)
    for pids in ("%d 1 sleep" % stranger.pid, "%d sleep" % stranger.pid, "%d %s sleep" % (stranger.pid, started)):
        write(os.path.join(d, "stack/pids"), pids + "\n")
        check(execute([SOUND_SERVER, "stop", os.path.join(d, "stack")], None, d)[0] == 0, "stop failed")
        check(stranger.poll() is None or pids.endswith(started + " sleep"), "stop ended the process of " + pids)
    wait_for(lambda: stranger.poll() is not None, "stop to end the process it started")



def outcome(case, build):
    """One line for the case, and the notes its run made."""
    notes = []
    try:
        run_case(case, build, notes)
        line = "ok      %s" % case["name"]
    except (Failure, OSError, subprocess.SubprocessError, KeyError, ValueError, TypeError) as e:
        line = "FAILED  %s: %s" % (case["name"], e)
    return "".join("  %s\n" % note for note in notes) + line


def main():
    """Cases run a few at a time (SONDERLARK_SCENARIO_JOBS, 3 by default, or fewer where a case file says "jobs"):
    most of their time is spent waiting for real-time devices."""
    build = os.path.abspath(sys.argv[1])
    cases = []
    jobs = int(os.environ.get("SONDERLARK_SCENARIO_JOBS", "3"))
    for case_file in sys.argv[2:]:
        with open(case_file, "rb") as f:
            data = tomllib.load(f)
        cases += data["case"]
        jobs = min(jobs, data.get("jobs", jobs))  # a file whose cases must not run together says so
    with concurrent.futures.ThreadPoolExecutor(max_workers=jobs) as pool:
        lines = list(pool.map(lambda case: outcome(case, build), cases))
    print("\n".join(lines))
    sys.exit(1 if any(line.startswith("FAILED") for line in "\n".join(lines).splitlines()) else 0)


if __name__ == "__main__":
    main()
