#!/usr/bin/env python3
"""CPU cost of sonderlark-monitor watching a live run, and a capture of its view.

Usage: monitor_cpu.py BUILD_DIR [SECONDS]
Runs a paced live run (the real arecord on an ALSA file device fed at real
time by scripts/try-live pace, a simulated source at 30 degrees) and the
monitor at its default interval inside a private tmux server for SECONDS
(default 30), then prints the monitor's CPU time over that span as a share
of one core (from /proc/PID/stat), and the last screen.
"""
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))


def ticks(pid):
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])  # utime + stime


def main():
    build = os.path.abspath(sys.argv[1])
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 30.0
    tmp = tempfile.mkdtemp(prefix="sonderlark-monitor-bench-")
    procs = []
    sock = os.path.join(tmp, "tmux.sock")
    try:
        subprocess.run(["sox", "-n", "-r", "16000", "-b", "16", "-c", "1", f"{tmp}/noise.wav", "synth",
                        str(seconds + 10), "pinknoise", "vol", "0.3"], check=True)
        subprocess.run([f"{build}/sonderlark-sim", "--input", f"{tmp}/noise.wav", "--output", f"{tmp}/frames.raw",
                        "--raw", "--angle", "30", "--noise-rms", "0.001"], check=True, stdout=subprocess.DEVNULL)
        os.mkfifo(f"{tmp}/infile")
        os.makedirs(f"{tmp}/config/alsa")
        os.makedirs(f"{tmp}/state")
        with open(f"{tmp}/config/alsa/asoundrc", "w") as f:
            f.write('pcm.sonderlark_array {\n type file\n slave.pcm "null"\n file "/dev/null"\n'
                    f' infile "{tmp}/infile"\n format "raw"\n}}\n')
        procs.append(subprocess.Popen([os.path.join(HERE, "..", "scripts", "try-live"), "pace", f"{tmp}/frames.raw",
                                       f"{tmp}/infile", "--once"]))
        env = dict(os.environ, XDG_CONFIG_HOME=f"{tmp}/config")
        env.setdefault("XDG_RUNTIME_DIR", f"{tmp}/config")  # else ALSA's PulseAudio plugin leaves /tmp/pulse-*
        status = f"{tmp}/state/status.json"
        procs.append(subprocess.Popen([f"{build}/sonderlark", "--live", "--device", "sonderlark_array", "--log", "",
                                       "--pcm-output", f"{tmp}/none", "--event-output", status],
                                      env=env, stdout=subprocess.DEVNULL))
        subprocess.run(["tmux", "-S", sock, "new-session", "-d", "-x", "80", "-y", "36",
                        f"{build}/sonderlark-monitor", status], check=True)
        pid = int(subprocess.run(["tmux", "-S", sock, "display", "-p", "-t", "0", "#{pane_pid}"],
                                 capture_output=True, text=True, check=True).stdout)
        time.sleep(2.0)  # past the start
        t0, c0 = time.monotonic(), ticks(pid)
        time.sleep(seconds)
        t1, c1 = time.monotonic(), ticks(pid)
        hz = os.sysconf("SC_CLK_TCK")
        share = (c1 - c0) / hz / (t1 - t0)
        screen = subprocess.run(["tmux", "-S", sock, "capture-pane", "-p", "-t", "0"],
                                capture_output=True, text=True).stdout
        print(f"monitor CPU over {t1 - t0:.1f} s at the default interval: {c1 - c0} ticks of 1/{hz} s "
              f"= {100 * share:.2f} % of one core")
        print(screen.rstrip())
    finally:
        subprocess.run(["tmux", "-S", sock, "kill-server"], stderr=subprocess.DEVNULL)
        for p in reversed(procs):
            p.send_signal(signal.SIGTERM)
            p.wait()
        shutil.rmtree(tmp, ignore_errors=True)


if __name__ == "__main__":
    main()
