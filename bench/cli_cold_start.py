#!/usr/bin/python3
"""cli_cold_start: one call from a cold start, as a person types it: the wall time of
`velmo call KXMemory.ping` (a new process each time) against `rosservice call` on the
ROS 1 echo service of the peer benchmarks (bench-peers/ros), in one run.

Knobs (environment): VELMO_BUILD (default <repo>/build), BENCH_PEERS_DIR (default
<repo>/../shared/bench-peers), CLI_N (velmo runs, default 50), ROS_N (rosservice runs,
default 10).

Usage: /usr/bin/python3 bench/cli_cold_start.py
"""
import os
import socket
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
BUILD = os.path.abspath(os.environ.get("VELMO_BUILD", os.path.join(REPO, "build")))
PEERS = os.path.abspath(os.environ.get("BENCH_PEERS_DIR",
                                       os.path.join(REPO, "..", "shared", "bench-peers")))
VELMO = os.path.join(BUILD, "bin", "velmo")


def timed_runs(argv, count, env=None):
    seconds = []
    for _ in range(count):
        started = time.perf_counter()
        done = subprocess.run(argv, capture_output=True, text=True, env=env, timeout=60)
        seconds.append(time.perf_counter() - started)
        if done.returncode != 0:
            raise SystemExit(f"{' '.join(argv)} failed: {done.stderr}")
    return seconds


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def velmo_runs(count):
    port = free_port()
    root = subprocess.Popen([VELMO, "--ip", "127.0.0.1", "--port", str(port)],
                            stdout=subprocess.PIPE, text=True)
    try:
        for line in root.stdout:
            if "is listening" in line:
                break
        return timed_runs([VELMO, "call", "KXMemory.ping", "--broker", f"127.0.0.1:{port}"], count)
    finally:
        root.terminate()
        root.wait(30)


def rosservice_runs(count):
    sys.path[:0] = [os.path.join(PEERS, "ros"), PEERS]
    import common
    import ros_bench
    ros_bench.generate_and_build()
    env = ros_bench.ros_env(ros_bench.free_port())
    os.makedirs(env["ROS_HOME"], exist_ok=True)
    port = env["ROS_MASTER_URI"].rsplit(":", 1)[1]
    master = common.popen(["/usr/bin/rosmaster", "--core", "-p", port], env=env,
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        ros_bench.wait_master(env["ROS_MASTER_URI"])
        server, _ = common.start_server([sys.executable, ros_bench.__file__, "pyserver"])
        try:
            return timed_runs(["rosservice", "call", ros_bench.PY_ECHO, "key: key42"], count, env)
        finally:
            common.stop(server)
    finally:
        common.stop(master)


def summary(name, seconds):
    millis = sorted(s * 1000 for s in seconds)
    p90 = millis[min(len(millis) - 1, len(millis) * 9 // 10)]
    print(f"{name:28} median {statistics.median(millis):8.1f} ms   p90 {p90:8.1f} ms"
          f"   ({len(millis)} runs)")
    return statistics.median(millis)


def main():
    ours = summary("velmo call KXMemory.ping", velmo_runs(int(os.environ.get("CLI_N", "50"))))
    theirs = summary("rosservice call (echo)", rosservice_runs(int(os.environ.get("ROS_N", "10"))))
    print(f"rosservice / velmo: {theirs / ours:.0f}x")


if __name__ == "__main__":
    main()
