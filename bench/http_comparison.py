#!/usr/bin/python3
"""Usage: tools/sandbox --host DIR bench/http_comparison.py [ROUNDS]

Measures, side by side: calls per second of one call that needs neither helper nor password, against aria2's JSON-RPC
server and a static nginx answer of the same size; the time from start to the first answered request; resident memory
idle, with 1,000 idle keep-alive connections and around one large answer. The servers take turns round by round on one
core, the load generator and the reader of the system log have the other, and medians are printed. Run with a reader on
the system log and without one. Beside its calls per second stands the processor time that a server took for each: it
changes less when others use the machine. The kernel keeps as many datagrams for the reader as on a host with systemd.
"""

import contextlib
import json
import os
import pathlib
import resource
import socket
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tools"))

from orbi_client import Client, envelope

DAEMON = "/usr/lib/tessel/lifecycle/bin/kestreld"
LOG_READER = ROOT / "build/release/bench/log_reader"
LOG_QUEUE = pathlib.Path("/proc/sys/net/unix/max_dgram_qlen")
TASK_STATUS = pathlib.Path("/var/tessel/lifecycle/task-status.json")
SERVER_CPU, LOAD_CPU = "0", "1"
SECONDS = 3
CONNECTIONS = 16
KESTRELD_CALL = json.dumps(envelope("com.tessel.orbi.std.introspection.operation", "list",
                                    {"service_id": "com.tessel.cis.tasks"}))
ARIA2_CALL = json.dumps({"jsonrpc": "2.0", "id": "1", "method": "aria2.getVersion"})


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(port):
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), timeout=1):
            return
        time.sleep(0.005)
    sys.exit(f"nothing listens on port {port}")


@contextlib.contextmanager
def running(command, port):
    process = subprocess.Popen(["taskset", "-c", SERVER_CPU, *command], stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    try:
        wait_for(port)
        yield process
    finally:
        process.terminate()
        process.wait()


@contextlib.contextmanager
def system_log(read):
    """/dev/log with a fast reader, or no /dev/log at all."""
    with contextlib.suppress(FileNotFoundError):
        os.unlink("/dev/log")
    if not read:
        yield
        return
    with contextlib.suppress(OSError):  # where the kernel's parameters cannot be set
        LOG_QUEUE.write_text("512")  # systemd's
    process = subprocess.Popen(["taskset", "-c", LOAD_CPU, LOG_READER])
    try:
        while not os.path.exists("/dev/log"):
            time.sleep(0.005)
        yield
    finally:
        process.terminate()
        process.wait()
        os.unlink("/dev/log")


def processor_seconds(pid):
    threads = pathlib.Path(f"/proc/{pid}/task").iterdir()
    return sum(int((thread / "schedstat").read_text().split()[0]) for thread in threads) / 1e9


def wrk(folder, port, path, body):
    script = folder / "post.lua"
    script.write_text("wrk.method = 'POST'\nwrk.headers['Content-Type'] = 'application/json'\n"
                      f"wrk.body = [==[{body}]==]\n")
    output = subprocess.run(
        ["taskset", "-c", LOAD_CPU, "wrk", "-t1", f"-c{CONNECTIONS}", f"-d{SECONDS}s", "-s", script,
         f"http://127.0.0.1:{port}{path}"], check=True, capture_output=True, text=True).stdout
    if "Non-2xx" in output or "Socket errors" in output:
        sys.exit(f"the load met errors:\n{output}")
    (line,) = [line for line in output.splitlines() if line.startswith("Requests/sec:")]
    return float(line.split()[1])


def nginx_command(folder, port, answer_size):
    config = folder / "nginx.conf"
    config.write_text(f"""
daemon off; master_process off; pid {folder}/nginx.pid; error_log /dev/null;
events {{ worker_connections 2000; }}
http {{ access_log off; client_body_temp_path {folder}/body; proxy_temp_path {folder}/proxy;
  fastcgi_temp_path {folder}/fastcgi; uwsgi_temp_path {folder}/uwsgi; scgi_temp_path {folder}/scgi;
  keepalive_requests 100000000;
  server {{ listen 127.0.0.1:{port};
    location / {{ default_type application/json; return 200 '{"x" * answer_size}'; }} }} }}
""")
    return ["nginx", "-c", config, "-e", "/dev/null"]


def compare_calls(folder, rounds):
    port = socket.getservbyname("kestreld")
    nginx_port, aria2_port = free_port(), free_port()
    with running([DAEMON], port):
        _, answer = Client(port=port).post(KESTRELD_CALL)
    servers = {
        "kestreld": ([DAEMON], port, "/api", KESTRELD_CALL),
        "aria2": (["aria2c", "--enable-rpc", f"--rpc-listen-port={aria2_port}", "--quiet", "--no-conf",
                   f"--dir={folder}"], aria2_port, "/jsonrpc", ARIA2_CALL),
        "nginx": (nginx_command(folder, nginx_port, len(answer)), nginx_port, "/api", KESTRELD_CALL),
    }
    rates = {name: [] for name in servers}
    times = {name: [] for name in servers}
    for _ in range(rounds):
        for name, (command, server_port, path, body) in servers.items():
            with running(command, server_port) as process:
                before = processor_seconds(process.pid)
                rate = wrk(folder, server_port, path, body)
                times[name].append(1e6 * (processor_seconds(process.pid) - before) / (rate * SECONDS))
                rates[name].append(rate)
    rate = {name: statistics.median(values) for name, values in rates.items()}
    time_each = {name: statistics.median(values) for name, values in times.items()}
    for name in servers:
        print(f"  {name:<10} {rate[name]:>9.0f} calls/s (runs {min(rates[name]):.0f} to {max(rates[name]):.0f}), "
              f"ratio to aria2 {rate[name] / rate['aria2']:.2f}; processor time {time_each[name]:.2f} µs a call "
              f"({min(times[name]):.2f} to {max(times[name]):.2f}), "
              f"ratio {time_each['aria2'] / time_each[name]:.2f}")


def resident_kib(pid, now_or_most="VmRSS"):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith(now_or_most):
            return int(line.split()[1])
    raise RuntimeError(f"no {now_or_most}")


def start_up(rounds):
    port = socket.getservbyname("kestreld")
    times = []
    for _ in range(rounds):
        started = time.monotonic()
        process = subprocess.Popen([DAEMON])
        while True:
            try:
                response, _ = Client(port=port).post(KESTRELD_CALL)
                break
            except ConnectionError:
                time.sleep(0.0005)
        times.append(1000 * (time.monotonic() - started))
        assert response.status == 200
        process.terminate()
        process.wait()
    print(f"  start to first answered request: {statistics.median(times):.1f} ms "
          f"(runs {min(times):.1f} to {max(times):.1f})")


def memory(connections):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 2 * connections + 100), hard))
    port = socket.getservbyname("kestreld")
    process = subprocess.Popen([DAEMON])
    try:
        wait_for(port)
        clients = [Client(port=port)]
        clients[0].post(KESTRELD_CALL)
        idle = resident_kib(process.pid)
        for _ in range(connections - 1):
            clients.append(Client(port=port))
            response, _ = clients[-1].post(KESTRELD_CALL)
            assert response.status == 200
        loaded = resident_kib(process.pid)
    finally:
        process.terminate()
        process.wait()
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    print(f"  resident memory: {idle / 1024:.1f} MiB idle, {loaded / 1024:.1f} MiB with {connections} idle connections")


def large_answer(tasks):
    """What listing a large task status file takes, and what of it is left when the daemon has had time to trim."""
    port = socket.getservbyname("kestreld")
    record = {"status": "SUCCEEDED", "operation": "com.tessel.ryx.kestrel_daemon.software.scan", "user": "root",
              "progress": {"completed": 100, "total": 100}, "startTime": "2026-03-03T00:00:00.000Z",
              "endTime": "2026-03-03T00:01:00.000Z",
              "result": json.dumps({"STRUCTURE": {"result": {"status": "NON_COMPLIANT"}}})}
    TASK_STATUS.write_text(json.dumps({f"{number:036}": record for number in range(tasks)}))
    size = TASK_STATUS.stat().st_size
    process = subprocess.Popen([DAEMON])
    try:
        wait_for(port)
        client = Client(port=port)
        started = time.monotonic()
        response, answer = client.post(envelope("com.tessel.cis.tasks", "list", {}, "root", "kestrel"))
        assert response.status == 200 and len(answer) > size
        seconds = time.monotonic() - started
        most = resident_kib(process.pid, "VmHWM")
        time.sleep(11)
        left = resident_kib(process.pid)
    finally:
        process.terminate()
        process.wait()
        TASK_STATUS.unlink()
    print(f"  listing {tasks} tasks ({size / 2**20:.0f} MiB): {seconds:.1f} s, {most / 1024:.0f} MiB at the peak, "
          f"{left / 1024:.1f} MiB eleven seconds later")


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    with tempfile.TemporaryDirectory() as name:
        for read in (True, False):
            print("With a reader on the system log" if read else "Without a reader on the system log")
            with system_log(read):
                compare_calls(pathlib.Path(name), rounds)
                start_up(rounds)
                memory(1000)
        large_answer(100_000)


if __name__ == "__main__":
    main()
