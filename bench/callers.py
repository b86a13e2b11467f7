"""What the measuring clients share: callers at any address, and accounts whose passwords take their time to check."""

import http.client
import json
import pathlib
import socket
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tools"))

from orbi_client import envelope  # noqa: E402

PORT = socket.getservbyname("kestreld", "tcp")


def trust_forwarded_addresses():
    """Has a daemon that is started then believe what this process tells of its clients' addresses."""
    pathlib.Path("/etc/tessel/preferences").write_text("front_account = root\n")


def connection(client):
    """A connection and the headers of its requests: of a client that the front tells of."""
    return (http.client.HTTPConnection("127.0.0.1", PORT, timeout=120),
            {"Content-Type": "application/json", "X-Forwarded-For": client})


def call(connected, service, operation, fields, user, password):
    """The result of a call. The answer's body is read to its end."""
    stream, headers = connected
    stream.request("POST", "/api", json.dumps(envelope(service, operation, fields, user, password)), headers)
    return json.loads(stream.getresponse().read())["result"]


def keep_as_yescrypt(account):
    """Has the account's password, "right", kept as yescrypt, at its ordinary cost."""
    hashed = subprocess.run([sys.executable, "-W", "ignore", "-c",
                             "import crypt; print(crypt.crypt('right', '$y$j9T$kestrelbench'))"],
                            check=True, capture_output=True, text=True).stdout.strip()
    shadow = pathlib.Path("/etc/shadow")
    lines = [line for line in shadow.read_text().splitlines() if not line.startswith(f"{account}:")]
    lines.append(f"{account}:{hashed}:19800:0:99999:7:::")
    shadow.write_text("\n".join(lines) + "\n")
