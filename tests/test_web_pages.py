"""Pages in a browser on the administrator's desk: none can call the daemon but those of the console."""

import contextlib
import http.client
import json
import pathlib
import re
import shutil
import socket
import socketserver
import subprocess
import threading

import pytest

from sandboxed_host import PORT
from orbi_client import envelope

BROWSER = shutil.which("chromium-headless-shell") or shutil.which("chromium")
REBOUND = f"http://rebound.test:{PORT}"
CALL = json.dumps(envelope("com.tessel.orbi.std.introspection.service", "list"))

PAGES = {
    "/page": """<iframe name=frame></iframe>
<form method=post enctype=text/plain target=frame action=DAEMON/form><input name='FIRST,"x":"' value='"}'></form>
<script>
  const send = (path, more) => fetch("DAEMON/" + path, {method: "POST", body: CALL, ...more});
  const text = "text/plain; x=application/json";
  const framed = new Promise(loaded => document.querySelector("iframe").onload = loaded);
  document.querySelector("form").submit();
  navigator.sendBeacon("DAEMON/beacon", new Blob([CALL], {type: text}));
  Promise.allSettled([framed,
    send("simple", {mode: "no-cors", headers: {"Content-Type": text}}),
    send("simple-unreferred", {mode: "no-cors", headers: {"Content-Type": text}, referrerPolicy: "no-referrer"}),
    send("asked", {headers: {"Content-Type": "application/json"}}),
    fetch("DAEMON/get", {mode: "no-cors"})]).then(() => location = "REBOUND/page-rebound");
</script>""",
    "/page-rebound": """<script>
  const headers = {"Content-Type": "application/json"};
  const send = (path, more) => fetch(path, {method: "POST", body: CALL, headers, ...more});
  Promise.allSettled([send("/rebound"), send("/rebound-unreferred", {referrerPolicy: "no-referrer"}),
    fetch("/rebound-get", {headers})]).then(() => fetch("/done"));
</script>""",
    "/done": "",
}


class Desk(socketserver.ThreadingTCPServer):
    """What the browser finds behind each name: pages, and the daemon, as if it had just taken over a page's name."""

    daemon_threads = True

    def __init__(self):
        super().__init__(("127.0.0.1", 0), self.Connection)
        self.done = threading.Event()
        self.outcomes = {}

    class Connection(socketserver.StreamRequestHandler):
        def handle(self):
            head = b"".join(iter(self.rfile.readline, b"\r\n")) + b"\r\n"
            path = head.split(b" ")[1].decode() if head.count(b" ") > 1 else ""
            if path in PAGES:
                page = PAGES[path].replace("DAEMON", f"http://daemon.test:{PORT}").replace("REBOUND", REBOUND)
                page = page.replace("CALL", json.dumps(CALL)).replace("FIRST", CALL[:-1]).encode()
                self.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nConnection: close\r\n"
                                 b"Content-Length: %d\r\n\r\n" % len(page) + page)
                if path == "/done":
                    self.server.done.set()
            elif path:
                self.pass_on(path, head)

        def pass_on(self, path, head):
            length = re.search(rb"\r\nContent-Length: ([0-9]+)", head, re.IGNORECASE)
            with socket.create_connection(("127.0.0.1", PORT), timeout=20) as connection:
                connection.sendall(head + self.rfile.read(int(length[1]) if length else 0))
                response = http.client.HTTPResponse(connection)
                response.begin()
                answer = response.read()
            self.server.outcomes[path] = "carried out" if b'"result":{"output"' in answer else response.status
            self.wfile.write(b"HTTP/1.1 %d X\r\nConnection: close\r\nContent-Length: %d\r\n\r\n"
                             % (response.status, len(answer)) + answer)


def outcomes_in_a_browser(folder):
    """What comes of all that the pages try."""
    with Desk() as desk:
        threading.Thread(target=desk.serve_forever, daemon=True).start()
        here = f"127.0.0.1:{desk.server_address[1]}"
        names = ", ".join(f"MAP {name} {here}" for name in ("evil.test", f"daemon.test:{PORT}", f"rebound.test:{PORT}"))
        process = subprocess.Popen(
            [BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             "--remote-debugging-port=0", f"--user-data-dir={folder}", f"--host-resolver-rules={names}",
             "http://evil.test/page"],
            env={"HOME": str(folder), "PATH": "/usr/bin:/bin"}, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            assert desk.done.wait(60), f"the browser did not come to the end of its pages: {desk.outcomes}"
        finally:
            process.terminate()
            process.wait(20)
            desk.shutdown()
        return desk.outcomes


@pytest.mark.skipif(BROWSER is None, reason="no Chromium to show pages in: tools/install-dependencies test brings it")
@pytest.mark.parametrize("console", [None, REBOUND, "https://console.example"])
def test_no_page_calls_but_the_consoles(start_daemon, tmp_path, console):
    preferences = pathlib.Path("/etc/tessel/preferences")
    with contextlib.ExitStack() as stack:
        if console:
            preferences.write_text(f"console_origin = {console}\n")
            stack.callback(preferences.unlink)
        start_daemon()
    ours = "carried out" if console == REBOUND else 400
    assert outcomes_in_a_browser(tmp_path) == {
        "/form": 400, "/beacon": 400, "/simple": 400, "/simple-unreferred": 400, "/asked": 400, "/get": 400,
        "/rebound": ours, "/rebound-unreferred": ours, "/rebound-get": 200}
