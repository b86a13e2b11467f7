"""Proxies before the daemon: their clients get the answers to their own calls, whatever one of them sends."""

import concurrent.futures
import contextlib
import http.client
import http.server
import json
import socket
import ssl
import subprocess
import threading

import pytest

from sandboxed_host import PORT, REPOSITORY, wait_until
from orbi_client import envelope

SHIPPED = REPOSITORY / "packaging/proxies"
CERTIFICATE = "/etc/ssl/private/kestreld.pem"
LIST = ("com.tessel.orbi.std.introspection.service", "list")
ROUNDS = 300

NGINX = "daemon off; worker_processes 1; pid nginx.pid; events {{}} http {{ access_log off; {} }}"
NGINX_KEPT = """upstream kestreld {{ server 127.0.0.1:%d; keepalive 1; }} server {{ listen 8080; location / {{
  proxy_pass http://kestreld; proxy_http_version 1.1; proxy_set_header Connection ""; {} }} }}"""
APACHE_MODULES = ("mpm_event authz_core proxy proxy_http headers allowmethods ssl socache_shmcb "
                  "setenvif reqtimeout").split()
APACHE = "\n".join(["ServerName localhost", "PidFile apache.pid", "ErrorLog /dev/null", "StartServers 1",
                    "ServerLimit 1", "MaxRequestWorkers 25", "DefaultRuntimeDir .", *(
                        f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so"
                        for name in APACHE_MODULES), "{}"])
APACHE_KEPT = "Listen 8080\nProxyPass / http://127.0.0.1:%d/\nProxyAddHeaders {}"
HAPROXY = "global\n  nbthread 1\ndefaults\n  mode http\n  timeout client 30s\n  timeout server 30s\n  timeout connect 5s\n{}"
HAPROXY_KEPT = """listen kestreld
  bind :8080
  http-reuse always
  {}
  server kestreld 127.0.0.1:%d"""

COMMANDS = {
    "nginx": lambda path: ["nginx", "-p", path.parent, "-c", path, "-e", path.parent / "error.log"],
    "apache": lambda path: ["apache2", "-D", "FOREGROUND", "-d", path.parent, "-f", path],
    "haproxy": lambda path: ["haproxy", "-db", "-q", "-f", path],
}


@contextlib.contextmanager
def proxy(kind, config, folder, port):
    path = folder / f"{kind}.conf"
    path.write_text(config.replace("%d", str(PORT)) + "\n")
    process = subprocess.Popen(COMMANDS[kind](path), cwd=folder)
    try:
        def listens():
            assert process.poll() is None, (folder / "error.log").read_text() if kind == "nginx" else kind
            with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), timeout=5):
                return True
        wait_until(listens, what=f"{kind} on port {port}")
        yield
    finally:
        process.terminate()
        process.wait(20)


def smuggling(method):
    """A request whose body is a whole call."""
    call = json.dumps(envelope(*LIST) | {"id": "smuggled"})
    inner = (f"POST /api HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\nContent-Length: {len(call)}"
             f"\r\n\r\n{call}")
    return (f"{method} /api HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\nContent-Length: {len(inner)}"
            f"\r\n\r\n{inner}").encode()


def attack(port, method, ended):
    """What a client gets that smuggles, again and again."""
    seen = set()
    while not ended.is_set():
        with contextlib.suppress(OSError, http.client.HTTPException):
            with socket.create_connection(("127.0.0.1", port), timeout=5) as connection:
                connection.sendall(smuggling(method))
                response = http.client.HTTPResponse(connection, method=method)
                response.begin()
                answer = response.read()
                seen.add(json.loads(answer)["id"] if response.status == 200 and answer else response.status)
    return seen


def calls(port):
    """What a client gets that calls again and again, up to the first answer that is not its own."""
    for number in range(ROUNDS):
        with contextlib.closing(http.client.HTTPConnection("127.0.0.1", port, timeout=20)) as connection:
            connection.request("POST", "/api", json.dumps(envelope(*LIST) | {"id": f"own {number}"}),
                               {"Content-Type": "application/json"})
            response = connection.getresponse()
            answer = response.read()
            if response.status != 200 or json.loads(answer)["id"] != f"own {number}":
                return number, response.status, answer[:100]
    return "own answers"


@pytest.mark.parametrize("kind, config", [
    ("nginx", NGINX.format(NGINX_KEPT.format(""))),
    ("nginx", NGINX.format(NGINX_KEPT.format("proxy_set_header X-Forwarded-For $remote_addr;"))),
    ("apache", APACHE.format(APACHE_KEPT.format("On"))), ("apache", APACHE.format(APACHE_KEPT.format("Off"))),
    ("haproxy", HAPROXY.format(HAPROXY_KEPT.format(""))),
    ("haproxy", HAPROXY.format(HAPROXY_KEPT.format("option forwardfor")))],
    ids=["nginx", "nginx that tells", "apache that tells", "apache", "haproxy", "haproxy that tells"])
def test_nobody_gets_anothers_answer_on_a_connection_that_clients_share(daemon, tmp_path, kind, config):
    with proxy(kind, config, tmp_path, 8080), concurrent.futures.ThreadPoolExecutor(2) as pool:
        for method in ("GET", "HEAD", "OPTIONS"):
            ended = threading.Event()
            attackers = [pool.submit(attack, 8080, method, ended) for _ in range(2)]
            try:
                assert (method, calls(8080)) == (method, "own answers")
            finally:
                ended.set()
            assert set.union(*(attacker.result() for attacker in attackers)) <= {None, 200, 400, 502}
