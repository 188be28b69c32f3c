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
import json
import os
import re
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time
import tomllib

TESTS = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
UPDATE = os.environ.get("SONDERLARK_UPDATE_GOLDEN") is not None
DEADLINE = 120  # seconds: only a hung run is that slow
MASKS = {  # name: (pattern, replacement, must be there); {dir} in a pattern is the run's folder
    "timestamp": (r'"timestamp": "\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z"', '"timestamp": "TIMESTAMP"', True),
    "frame_time": (r"at 20[0-9-]{8}T[0-9:]{8}Z", "at TIMESTAMP", False),
    "status_path": (r"{dir}/status\.json", "STATUS", False),
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
    """File contents from "golden/NAME" (under tests/) or "text:CONTENT"; {now}
    becomes the current time as a status record writes it."""
    data = what[5:].encode() if what.startswith("text:") else read(os.path.join(TESTS, what))
    return data.replace(b"{now}", time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()).encode())


def expand(value, run):
    """{dir}: the run's folder; {tests}: the tests folder; {xHH}: the byte HH,
    which TOML cannot hold when it is not UTF-8 (passed on as the bytes)."""
    value = value.replace("{dir}", run["dir"]).replace("{tests}", TESTS)
    return re.sub(r"\{x([0-9a-f]{2})\}", lambda m: chr(int(m.group(1), 16) + (0xdc00 if m.group(1) >= "80" else 0)),
                  value)


def prepare(case, run):
    """The run folder: its files, planted paths and device."""
    for name, what in case.get("files", {}).items():
        write(os.path.join(run["dir"], expand(name, run)), source(what))
    for sim in case.get("simulate", []):  # a simulated array recording, made by sonderlark-sim
        argv = [os.path.join(run["build"], "sonderlark-sim"), "--output", os.path.join(run["dir"], sim["output"])]
        status, _, err = execute(argv + [expand(a, run) for a in sim["args"]], dict(os.environ), run["dir"])
        check(status == 0, "sonderlark-sim failed: " + text(err))
    for plant in case.get("plant", []):
        path = os.path.join(run["dir"], plant["path"])
        if plant["kind"] == "fifo":
            os.mkfifo(path, 0o600)
        elif plant["kind"] == "link":  # to a path in the folder, or an absolute one
            os.symlink(os.path.join(run["dir"], plant["to"]), path)
        elif plant["kind"] == "filled":  # an open brace, then blanks up to `bytes`
            write(path, b"{" + b" " * (plant["bytes"] - 1))
        else:
            os.makedirs(path)
    env = dict(os.environ)
    if "device_file" in case:  # ALSA's file plugin reads the device's frames from this file
        config = os.path.join(run["dir"], "config")
        write(os.path.join(config, "alsa", "asoundrc"),
              'pcm.sonderlark_array {\n  type file\n  slave.pcm "null"\n  file "/dev/null"\n  infile "%s"\n'
              '  format "raw"\n}\n' % os.path.join(run["dir"], case["device_file"]))
        os.makedirs(os.path.join(config, "run"), mode=0o700)
        env.update(XDG_CONFIG_HOME=config, XDG_RUNTIME_DIR=os.path.join(config, "run"))
    env.update({k: expand(v, run) for k, v in case.get("env", {}).items()})
    for name in case.get("env_unset", []):
        env.pop(name, None)
    return env


def command(case, run):
    argv = [os.path.join(run["build"], case["program"])] + [expand(a, run) for a in case.get("args", [])]
    if "file_size_limit" in case:
        argv = ["prlimit", "--fsize=%d" % case["file_size_limit"]] + argv
    if "fd_limit" in case:
        argv = ["prlimit", "--nofile=%d" % case["fd_limit"]] + argv
    if case.get("stdout_closed"):  # a reader gone before the first line
        argv = [sys.executable, "-c", "import os, subprocess, sys\nr, w = os.pipe()\nos.close(r)\n"
                "sys.exit(subprocess.run(sys.argv[1:], stdout=w).returncode)"] + argv
    return argv


def execute(argv, env, cwd):
    """Runs argv to its end (killed by PID past the deadline): status, stdout, stderr."""
    with subprocess.Popen(argv, env=env, cwd=cwd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE) as child:
        try:
            out, err = child.communicate(timeout=DEADLINE)
        except subprocess.TimeoutExpired:
            child.kill()
            child.communicate()
            raise Failure("still running after %d s: %s" % (DEADLINE, " ".join(argv)))
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
        check(text(err) == case["stderr"], "stderr %r, not %r" % (text(err), case["stderr"]))
    if "stdout" in case:
        check(text(out) == expand(case["stdout"], run), "stdout %r" % text(out))
    if "stdout_starts" in case:
        check(text(out).startswith(case["stdout_starts"]), "stdout starts %r" % text(out)[:100])
    if case.get("stderr_said"):
        check(err != b"", "nothing on stderr")
    if "stdout_is" in case:
        check(out == read(os.path.join(d, case["stdout_is"])), "stdout is not " + case["stdout_is"])
    for piece in case.get("stdout_has", []):
        check(expand(piece, run) in text(out), "stdout lacks %r" % piece)
    for piece in case.get("stdout_lacks", []):
        check(expand(piece, run) not in text(out), "stdout has %r" % piece)
    if "stdout_ends" in case:
        check(text(out).endswith(expand(case["stdout_ends"], run)), "stdout ends %r" % text(out)[-200:])
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
    if case.get("no_partial_files"):
        for name in os.listdir(d):
            path = os.path.join(d, name)
            check(not (name.endswith(".tmp") and os.path.isfile(path) and not os.path.islink(path)),
                  "partial file " + name)
    for name, kind in case.get("kinds", {}).items():  # a planted path is still what it was
        path = os.path.join(d, name)
        check({"fifo": stat.S_ISFIFO, "link": stat.S_ISLNK}[kind](os.lstat(path).st_mode), name + " is no " + kind)
    for name, fields in case.get("json_fields", {}).items():
        with open(os.path.join(d, name), encoding="utf-8") as f:
            doc = json.load(f, parse_constant=lambda c: (_ for _ in ()).throw(Failure("JSON has " + c)))
        for key, value in fields.items():
            check(doc.get(key) == value, "%s: %s is %r, not %r" % (name, key, doc.get(key), value))


def run_case(case, build):
    with tempfile.TemporaryDirectory(prefix="sonderlark-scenario-", dir="/tmp") as d:
        run = {"dir": d, "build": build}
        if "scenario" in case:
            SCENARIOS[case["scenario"]](case, run)
            return
        env = prepare(case, run)
        status, out, err = execute(command(case, run), env, d)
        if "stdout_golden" in case:
            golden(out, case["stdout_golden"], case.get("masks", {}).get("stdout", []), run)
        verify(case, run, status, out, err)


# Scenarios whose run is more than one command.

def endless_stream(case, run):
    """A FIFO whose writer never stops: the run reads what the header says."""
    fifo = os.path.join(run["dir"], "endless.wav")
    os.mkfifo(fifo, 0o600)
    header = source(case["header"])[:44]
    with subprocess.Popen(["sh", "-c", 'cat "$0" /dev/zero > "$1"', "-", fifo], stdin=subprocess.PIPE,
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as writer:
        writer.stdin.write(header)
        writer.stdin.close()
        try:
            status, out, err = execute(command(case, run) + [fifo], dict(os.environ), run["dir"])
        finally:
            writer.kill()
    verify(case, run, status, out, err)


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
        print("  skipped: cannot mount a small tmpfs here (needs root)")
        return
    try:
        env = prepare(case, run)
        write(os.path.join(full, "b.wav"), "previous beam")
        write(os.path.join(full, "e.json"), "previous manifest")
        subprocess.run(["sh", "-c", 'cat /dev/zero > "$0"/filler', full], stderr=subprocess.DEVNULL)
        status, out, err = execute(command(case, run), env, run["dir"])
        verify(case, run, status, out, err)
        check(read(os.path.join(full, "b.wav")) == b"previous beam", "earlier beam changed")
        check(read(os.path.join(full, "e.json")) == b"previous manifest", "earlier manifest changed")
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
    """Live mode with the scripted arecord of tests/arecord_stand_in.sh, steered
    by the case's plan; the log, the status file and what a reader saw at every
    start against one golden."""
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
                sim = [os.path.join(run["build"], "sonderlark-sim"), "--input", os.path.join(TESTS, "golden/noise_lag5.wav"),
                       "--lag", "2", "--repeat", "6", "--raw", "--output", os.path.join(d, "array.raw")]
                check(execute(sim, env, d)[0] == 0, "sonderlark-sim failed")
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
    for a, b in zip(seconds, seconds[1:]):  # the 2 s pause by the tool's own clock; room for a slow machine
        check(2 <= b - a <= 20, "restarts %d s apart" % (b - a))


SCENARIOS = {"endless_stream": endless_stream, "cut_while_read": cut_while_read, "full_disk": full_disk,
             "command_lines": command_lines, "stand_in": stand_in}


def main():
    build = os.path.abspath(sys.argv[1])
    failed = 0
    for case_file in sys.argv[2:]:
        with open(case_file, "rb") as f:
            cases = tomllib.load(f)["case"]
        for case in cases:
            try:
                run_case(case, build)
                print("ok      %s" % case["name"])
            except (Failure, OSError, subprocess.SubprocessError, KeyError, ValueError) as e:
                failed += 1
                print("FAILED  %s: %s" % (case["name"], e))
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
