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
HAPROXY = """global
  nbthread 1
defaults
  mode http
  timeout client 30s
  timeout server 30s
  timeout connect 5s
{}"""
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


def post(document, method="POST", more=""):
    body = document if isinstance(document, bytes) else json.dumps(document).encode()
    return (f"{method} /api HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n{more}"
            f"Content-Length: {len(body)}\r\n\r\n").encode() + body


def exchange(port, request, method="POST", source=""):
    """The status of an answer, and whose it is."""
    with contextlib.ExitStack() as stack:
        connection = stack.enter_context(socket.create_connection(("127.0.0.1", port), 20, (source, 0)))
        if port == 443:
            tls = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
            tls.check_hostname, tls.verify_mode = False, ssl.CERT_NONE
            connection = stack.enter_context(tls.wrap_socket(connection))
        connection.sendall(request)
        response = http.client.HTTPResponse(connection, method=method)
        response.begin()
        answer = response.read()
        return response.status, json.loads(answer)["id"] if response.status == 200 and answer else None


def attack(port, method, ended):
    """What a client gets that sends requests whose body is a whole call, again and again."""
    request = post(post(envelope(*LIST) | {"id": "smuggled"}), method)
    seen = set()
    while not ended.is_set():
        with contextlib.suppress(OSError, http.client.HTTPException):
            seen.add(exchange(port, request, method))
    return seen


def all_get_their_own(port, method):
    """Whether a client that calls again and again gets its own answers while others attack."""
    ended = threading.Event()
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        attackers = [pool.submit(attack, port, method, ended) for _ in range(2)]
        try:
            for number in range(ROUNDS):
                own = f"own {number}"
                assert (method, *exchange(port, post(envelope(*LIST) | {"id": own}))) == (method, 200, own)
        finally:
            ended.set()
    return set.union(*(attacker.result() for attacker in attackers))


@pytest.mark.parametrize("kind, config", [
    ("nginx", NGINX.format(NGINX_KEPT.format(""))),
    ("nginx", NGINX.format(NGINX_KEPT.format("proxy_set_header X-Forwarded-For $remote_addr;"))),
    ("apache", APACHE.format(APACHE_KEPT.format("On"))), ("apache", APACHE.format(APACHE_KEPT.format("Off"))),
    ("haproxy", HAPROXY.format(HAPROXY_KEPT.format(""))),
    ("haproxy", HAPROXY.format(HAPROXY_KEPT.format("option forwardfor")))],
    ids=["nginx", "nginx that tells", "apache that tells", "apache", "haproxy", "haproxy that tells"])
def test_nobody_gets_anothers_answer_on_a_connection_that_clients_share(daemon, tmp_path, kind, config):
    with proxy(kind, config, tmp_path, 8080):
        for method in ("GET", "HEAD", "OPTIONS"):
            assert {whose for _, whose in all_get_their_own(8080, method)} == {None}


@pytest.fixture
def shipped_proxy(fresh_host, tmp_path):
    """Runs a proxy by the configuration that is shipped for it."""
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=localhost",
                    "-keyout", CERTIFICATE, "-out", tmp_path / "certificate"], check=True, capture_output=True)
    with open(CERTIFICATE, "ab") as file:
        file.write((tmp_path / "certificate").read_bytes())
    return lambda kind: proxy(kind, {
        "nginx": NGINX.format(f"include {SHIPPED}/nginx.conf;"),
        "apache": APACHE.format(f"Listen 443\nInclude {SHIPPED}/apache.conf"),
        "haproxy": HAPROXY.format((SHIPPED / "haproxy.cfg").read_text())}[kind], tmp_path, 443)


@pytest.mark.parametrize("kind", COMMANDS)
def test_the_shipped_configurations_pass_on_calls_and_nothing_else(shipped_proxy, daemon, kind):
    with shipped_proxy(kind):
        assert all_get_their_own(443, "GET") == {(405, None)}


@pytest.mark.parametrize("kind", COMMANDS)
def test_the_shipped_configurations_tell_the_clients_address(shipped_proxy, kind):
    heads = []

    class Recorder(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_POST(self):
            heads.append((self.client_address, self.headers))
            self.rfile.read(int(self.headers["Content-Length"]))
            self.send_response(204)
            self.end_headers()

    lies = "X-Forwarded-For: 192.0.2.1\r\nx-forwarded-for: 192.0.2.2\r\nForwarded: for=192.0.2.3\r\n"
    with http.server.ThreadingHTTPServer(("127.0.0.1", PORT), Recorder) as recorder, shipped_proxy(kind):
        threading.Thread(target=recorder.serve_forever, daemon=True).start()
        for source in ("127.0.0.2", "127.0.0.3"):
            assert exchange(443, post({}, more=lies), source=source)[0] == 204
        recorder.shutdown()
    assert [head.get_all("X-Forwarded-For") for _, head in heads] == [["127.0.0.2"], ["127.0.0.3"]]
    assert all((head["Connection"], head["Forwarded"]) == ("close", None) for _, head in heads)
    assert heads[0][0] != heads[1][0]  # each on a connection of its own
