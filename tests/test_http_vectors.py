"""What the daemon takes for a request, and where it sees the end of one: docs/http.md, byte for byte."""

import concurrent.futures
import json
import re
import socket

import pytest
import yaml

from sandboxed_host import PORT, REPOSITORY
from orbi_client import envelope

GROUPS = yaml.safe_load((REPOSITORY / "tests/http_vectors.yaml").read_text())
BODY = json.dumps(envelope("com.tessel.orbi.std.introspection.service", "list") | {"id": "call"})
FIELDS = "Host: h|Content-Type: application/json|"
WORDS = {"P": "POST / HTTP/1.1|" + FIELDS, "F": FIELDS, "L": str(len(BODY)), "N": f"Content-Length: {len(BODY)}|",
         "B": BODY, "T": "Transfer-Encoding: chunked|", "X": f"{len(BODY):x}", "K": f"{len(BODY):x}|{BODY}|0||",
         "Y": f"{len(BODY) - 1:x}", "R": BODY[1:], "{": "{", "}": "}"}
FOLLOWING = (f"POST / HTTP/1.1|{FIELDS}Connection: close|Content-Length: {len(BODY)}||".replace("|", "\r\n")
             + BODY.replace('"call"', '"next"')).encode()


def as_bytes(template):
    filled = re.sub(r"\{(\{|[A-Z])\}|\{\{|\}\}", lambda word: WORDS[word[1] or word[0][0]], template)
    return filled.replace("|", "\r\n").encode("latin1")


def answers(received):
    """The answers in a stream, each in one word."""
    while received:
        head, _, received = received.partition(b"\r\n\r\n")
        status = head[9:12].decode()
        if status == "417":
            assert head.endswith(b"\0")
            yield status
            continue
        length = re.search(rb"\r\nContent-Length: (\d+)", head)
        body = received[:int(length[1])] if length and not received.startswith(b"HTTP/1.1 ") else b""
        received = received[len(body):]
        if status != "200":
            yield status
        else:
            document = json.loads(body) if body else None
            yield "head" if document is None else document["id"] or "none"


def outcome(sent, following, step):
    with socket.create_connection(("127.0.0.1", PORT), timeout=20) as connection:
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        sent += following
        for start in range(0, len(sent), step):
            try:
                connection.sendall(sent[start:start + step])
            except ConnectionError:
                break  # it was the connection's last request
        connection.shutdown(socket.SHUT_WR)
        received = b""
        while part := connection.recv(65536):
            received += part
        return " ".join(answers(received))


@pytest.mark.parametrize("group", GROUPS, ids=lambda group: group["about"].split(",")[0])
def test_bytes_are_taken_as_told(daemon, group):
    cases = [(variant, str(told), step) for told, variants in group.items() if told not in ("about", "send")
             for variant in variants for step in (1 << 20, 1)]

    def check(case):
        """What is expected of a case, and what is seen."""
        variant, told, step = case
        waits, ends = told.endswith("waits"), told.endswith((".", "400", "417"))
        expected = (told.removesuffix("waits").strip(" .") + ("" if waits or ends else " next")).strip()
        sent = as_bytes(group["send"].replace("@", variant))
        return expected, outcome(sent, b"" if waits else FOLLOWING, step)

    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        wrong = {case: seen for case, seen in zip(cases, pool.map(check, cases)) if seen[0] != seen[1]}
    assert wrong == {}
