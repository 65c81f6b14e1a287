#!/usr/bin/env python3
"""GET of 1 KiB, one request for each connection: this library's server beside a bare loop, nginx, cpp-httplib and Poco.

What counts is the CPU time that a server takes for a request, all its processes and threads together: the times on the
clock hang on the load generator, too. In each round every server answers once; the table shows medians over the rounds
and, as ratios, the medians of what a server took in a round divided by what the bare loop took in it.
"""

import argparse
import os
import pathlib
import shutil
import socket
import statistics
import subprocess
import tempfile
import time
import urllib.request

NGINX_CONFIG = """daemon off; worker_processes 1; pid {folder}/pid; error_log {folder}/error.log;
events {{ worker_connections 256; }}
http {{
  access_log off; keepalive_timeout 0; default_type text/plain; client_body_temp_path {folder}/body;
  proxy_temp_path {folder}/a; fastcgi_temp_path {folder}/b; uwsgi_temp_path {folder}/c; scgi_temp_path {folder}/d;
  server {{ listen 127.0.0.1:{port} backlog=10; root {folder}; }}
}}
"""


def cpu_ns(pid):
    """CPU time of a process and its children, all threads."""
    total = 0
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        total += int((task / "schedstat").read_text().split()[0])
        for child in (task / "children").read_text().split():
            total += cpu_ns(child)
    return total


def start_nginx(folder):
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    folder = pathlib.Path(folder)
    folder.chmod(0o755)
    (folder / "kibibyte").write_text("x" * 1024)
    (folder / "nginx.conf").write_text(NGINX_CONFIG.format(folder=folder, port=port))
    process = subprocess.Popen(["nginx", "-c", folder / "nginx.conf", "-e", folder / "error.log"])
    for _ in range(1000):
        try:
            urllib.request.urlopen(f"http://127.0.0.1:{port}/kibibyte").read()
            return process, port
        except OSError:
            time.sleep(0.01)
    raise RuntimeError("nginx did not start")


def start(program):
    process = subprocess.Popen([program], stdout=subprocess.PIPE, text=True)
    return process, int(process.stdout.readline())


def load(programs, port, clients, requests):
    command = [programs / "zarip-bench-http-load", str(port), str(clients), str(requests)]
    answer = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout
    return [float(word) for word in answer.split()]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("programs", type=pathlib.Path, help="the folder of the zarip-bench-http-* programs")
    parser.add_argument("--quick", action="store_true", help="measure less")
    options = parser.parse_args()
    rounds, requests = (3, 2000) if options.quick else (9, 8000)

    with tempfile.TemporaryDirectory() as folder:
        servers = {}
        for name, program in [("bare accept/recv/send/close", "bare"), ("zarip HttpServer", "zarip"),
                              ("Boost.Beast", "beast"), ("cpp-httplib", "httplib"), ("Poco HTTPServer", "poco")]:
            path = options.programs / f"zarip-bench-http-{program}"
            if os.access(path, os.X_OK):
                servers[name] = start(path)
        if shutil.which("nginx"):
            servers["nginx, static file"] = start_nginx(folder)
        try:
            cpu = {name: [] for name in servers}
            median = {name: [] for name in servers}
            for _ in range(rounds):
                for name, (process, port) in servers.items():
                    before = cpu_ns(process.pid)
                    median[name].append(load(options.programs, port, 8, requests)[1])
                    cpu[name].append((cpu_ns(process.pid) - before) / requests / 1000)
            first = next(iter(servers))
            print("GET of 1 KiB, one for each connection, 8 clients")
            print(f"  {'':30}{'server CPU us':>14}{'ratio':>8}{'p50 us':>9}")
            for name in servers:
                ratio = statistics.median(a / b for a, b in zip(cpu[name], cpu[first]))
                print(f"  {name:30}{statistics.median(cpu[name]):14.1f}{ratio:8.2f}{statistics.median(median[name]):9.0f}")
            print("\nLongest request in ms, zarip")
            _, port = servers["zarip HttpServer"]
            for clients in (1, 8, 11):
                longest = max(load(options.programs, port, clients, requests)[2] for _ in range(3))
                print(f"  {clients:2} clients {longest / 1000:8.1f}")
            alone = load(options.programs, port, 1, requests)[1]
            crowd = [socket.create_connection(("127.0.0.1", port)) for _ in range(101)]
            crowd[0].sendall(b"GET / HTTP/1.1\r\nHost: dribb")
            beside = load(options.programs, port, 1, requests)[1]
            print(f"\nOne client, p50 us: alone {alone:.0f}, beside 100 silent clients and one that dribbles {beside:.0f}")
        finally:
            for process, _ in servers.values():
                process.terminate()
                process.wait()


if __name__ == "__main__":
    main()
