#!/usr/bin/env python3
"""A web server, beside a bare loop, Boost.Beast, nginx, cpp-httplib and Poco; with hostile and with common clients.

Each connection has one request, a GET of 1 KiB. The table shows the CPU time that all processes and threads of a server
take for a request, because elapsed time also depends on the load generator. Every server answers once in each round. The
table shows medians over the rounds. A ratio is the median of the time of a server in a round divided by the time of the
bare loop in that round.

After that the server of the library is attacked, and then called by common clients.
"""

import argparse
import http.client
import os
import pathlib
import re
import shutil
import socket
import statistics
import subprocess
import tempfile
import threading
import time
import urllib.request

NGINX_CONFIG = """daemon off; worker_processes 1; pid {folder}/pid; error_log {folder}/error.log;
events {{ worker_connections 256; }}
http {{
  access_log off; keepalive_timeout 0; default_type text/plain; client_body_temp_path {folder}/body;
  proxy_temp_path {folder}/a; fastcgi_temp_path {folder}/b; uwsgi_temp_path {folder}/c; scgi_temp_path {folder}/d;
  upstream zarip {{ server 127.0.0.1:{upstream}; keepalive 8; }}
  server {{
    listen 127.0.0.1:{port} backlog=10; root {folder};
    location /proxy/ {{ proxy_pass http://zarip/; proxy_http_version 1.1; proxy_set_header Connection ""; }}
  }}
}}
"""

HEAD = b"GET / HTTP/1.1\r\nHost: camera\r\n"
BODY = b"POST / HTTP/1.1\r\nHost: camera\r\nContent-Length: 100000\r\n\r\n"
LARGE = b"GET /large HTTP/1.1\r\nHost: camera\r\n\r\n"


def cpu_ns(pid):
    """CPU time of a process and its children, all threads."""
    total = 0
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        total += int((task / "schedstat").read_text().split()[0])
        for child in (task / "children").read_text().split():
            total += cpu_ns(child)
    return total


def start_nginx(folder, upstream):
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    folder = pathlib.Path(folder)
    folder.chmod(0o755)
    (folder / "kibibyte").write_text("x" * 1024)
    (folder / "nginx.conf").write_text(NGINX_CONFIG.format(folder=folder, port=port, upstream=upstream))
    process = subprocess.Popen(["nginx", "-c", folder / "nginx.conf", "-e", folder / "error.log"])
    for _ in range(1000):
        try:
            urllib.request.urlopen(f"http://127.0.0.1:{port}/kibibyte").read()
            return process, port
        except OSError:
            time.sleep(0.01)
    raise RuntimeError("nginx did not start")


def start(program, *arguments):
    process = subprocess.Popen([program, *arguments], stdout=subprocess.PIPE, text=True)
    return process, int(process.stdout.readline())


def load(programs, port, clients, requests):
    command = [programs / "zarip-bench-http-load", str(port), str(clients), str(requests)]
    answer = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout
    return [float(word) for word in answer.split()]


class Attack:
    """So many connections that send a beginning, and then a byte a second; those that are cut come back."""

    def __init__(self, port, count, begin=b"", dribble=b""):
        self.port, self.count, self.begin, self.dribble = port, count, begin, dribble
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.run)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        self.thread.join()

    def connect(self):
        connection = socket.socket()
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        connection.connect(("127.0.0.1", self.port))
        connection.sendall(self.begin)
        return connection

    def run(self):
        connections = [self.connect() for _ in range(self.count)]
        while not self.ended.wait(1):
            for i, connection in enumerate(connections):
                try:
                    connection.send(self.dribble)
                    if self.begin != LARGE and connection.recv(1000, socket.MSG_DONTWAIT) is not None:
                        raise ConnectionError
                except BlockingIOError:
                    pass
                except OSError:
                    connection.close()
                    connections[i] = self.connect()


def show_attacks(programs, port, requests):
    print("\nOne honest client, beside others")
    print(f"  {'':34}{'p50 us':>9}{'p99 us':>9}{'longest us':>12}")

    def show(name):
        _, p50, longest, p99 = load(programs, port, 1, requests)
        print(f"  {name:34}{p50:9.0f}{p99:9.0f}{longest:12.0f}", flush=True)

    show("none")
    for name, count, begin, dribble in [("100 that say nothing", 100, b"", b""),
                                        ("100 that dribble a header", 100, HEAD, b"a"),
                                        ("100 that dribble a body", 100, BODY, b"a"),
                                        ("10 that do not read 1 MiB", 10, LARGE, b"")]:
        with Attack(port, count, begin, dribble):
            time.sleep(1)
            show(name)
    if not shutil.which("slowhttptest"):
        print("  slowhttptest is not installed")
        return
    for name, options in [("-H", ["-H", "-i", "1"]), ("-B", ["-B", "-i", "1", "-s", "8192"]),
                          ("-X", ["-X", "-w", "512", "-y", "1024", "-n", "1", "-z", "32"])]:
        test = subprocess.Popen(["slowhttptest", *options, "-c", "500", "-r", "100", "-l", "15", "-p", "3",
                                 "-u", f"http://127.0.0.1:{port}/large"], stdout=subprocess.PIPE, text=True)
        time.sleep(2)
        show(f"slowhttptest {name}, 500")
        states = re.findall(r"service available:(?:\s|\x1b\[[0-9;]*m)*(\w+)", test.communicate()[0])
        print(f"  {'':34}available {states.count('YES')} of {len(states)} times", flush=True)


def ask_with_http_client(port, path, count):
    connection = http.client.HTTPConnection("127.0.0.1", port)
    failures = 0
    for _ in range(count):
        try:
            connection.request("GET", path)
            answer = connection.getresponse()
            failures += len(answer.read()) != 1024 or answer.status != 200
        except (http.client.HTTPException, OSError):
            failures += 1
            connection.close()
    return failures


def ask_with_requests(port, count):
    import requests
    failures = 0
    with requests.Session() as session:
        for _ in range(count):
            try:
                failures += len(session.get(f"http://127.0.0.1:{port}/").content) != 1024
            except requests.RequestException:
                failures += 1
    return failures


def ask_with_curl(port, count):
    answers = subprocess.run(["curl", "-s", "-o", "/dev/null", "-w", "%{http_code} %{size_download}\\n",
                              f"http://127.0.0.1:{port}/[1-{count}]"], stdout=subprocess.PIPE, text=True).stdout
    return count - answers.splitlines().count("200 1024")


def ask_with_wrk(port, count):
    """Failures among the requests of some seconds, of which there are many more."""
    text = subprocess.run(["wrk", "-t1", "-c4", "-d3s", f"http://127.0.0.1:{port}/"], stdout=subprocess.PIPE,
                          text=True).stdout
    done = int(re.search(r"(\d+) requests in", text).group(1))
    errors = re.search(r"connect (\d+), read (\d+), write (\d+), timeout (\d+)", text)
    bad = re.search(r"Non-2xx or 3xx responses: (\d+)", text)
    return max(count - done, 0) + sum(map(int, errors.groups() if errors else [])) + int(bad.group(1) if bad else 0)


def show_clients(port, nginx_port, count):
    print(f"\nWith the web's rules: failures of {count} requests")
    print(f"  {'python http.client, one session':34}{ask_with_http_client(port, '/', count):9}")
    for name, program, ask in [("python requests, one session", None, ask_with_requests),
                               ("curl, one process", "curl", ask_with_curl), ("wrk", "wrk", ask_with_wrk)]:
        try:
            failures = ask(port, count) if program is None or shutil.which(program) else "not installed"
        except ImportError:
            failures = "not installed"
        print(f"  {name:34}{failures:>9}")
    if nginx_port:
        failures = ask_with_http_client(nginx_port, "/proxy/", count)
        print(f"  {'nginx with a keep-alive upstream':34}{failures:9}")


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
        standard = start(options.programs / "zarip-bench-http-zarip", "--standard")
        if shutil.which("nginx"):
            servers["nginx, static file"] = start_nginx(folder, standard[1])
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
            show_attacks(options.programs, port, requests)
            show_clients(standard[1], servers.get("nginx, static file", (None, None))[1], 1000)
        finally:
            for process, _ in [*servers.values(), standard]:
                process.terminate()
                process.wait()


if __name__ == "__main__":
    main()
