"""Downloads from real servers that behave, and from ones that do not."""

import contextlib
import hashlib
import os
import subprocess

import pytest
from misbehaving_server import Server, answer, drip, drip_body, endless, hang, redirect
from tessel_lifecycle.fetch import ContentError, FetchError, Patience
from tessel_lifecycle.location import open_source

CONTENT = bytes(range(256)) * 2000
DIGEST = hashlib.sha256(CONTENT).hexdigest()
PATIENCE = Patience(attempts=3, timeout=0.3, pause=0, limit=0.6, slowest=10 << 20)

FULL = answer(200, CONTENT)
HALF = answer(200, CONTENT[:300000], length=len(CONTENT))


def rest(first):
    return answer(206, CONTENT[first:], f"Content-Range: bytes {first}-{len(CONTENT) - 1}/{len(CONTENT)}")


GOOD = {
    "at once": [FULL],
    "continued after half": [HALF, rest(300000)],
    "begun anew by a server without ranges": [HALF, FULL],
    "begun anew after a refused range": [HALF, answer(416), FULL],
    "other range than asked": [HALF, rest(10), FULL],
    "after an error of the server": [answer(503), FULL],
    "after a closed connection": [lambda *_: None, FULL],
    "after nonsense": [lambda _, c: c.sendall(b"\0" * 100 + b"\r\n\r\n"), FULL],
    "after hanging": [hang, FULL],
    "after wrong content": [answer(200, CONTENT[::-1]), FULL],
    "after too much": [answer(200, CONTENT + b"x"), FULL],
    "redirected": [redirect("SELF/other/place?token=a%20b"), FULL],
    "after lengths that contradict": [answer(200, CONTENT, "Content-Length: 5"), FULL],
    "after a length that is none": [answer(200, CONTENT, length="-5"), FULL],
}


@pytest.mark.parametrize("case", GOOD)
def test_download_ends_well(case, tmp_path):
    heard = []
    with Server(*GOOD[case]) as server:
        open_source(server.url, PATIENCE).download("f", str(tmp_path / "f"), len(CONTENT), DIGEST, heard.append)
        requests = server.requests
    assert (tmp_path / "f").read_bytes() == CONTENT and sum(heard) == len(CONTENT)
    assert len(requests) == len(GOOD[case])
    if "half" in case:
        assert "Range: bytes=300000-" in requests[1]
    if case == "redirected":
        assert requests[1].startswith("GET /other/place?token=a%20b ")


@pytest.mark.parametrize("left, requests", [
    (CONTENT[:300000], ["Range: bytes=300000-"]), (CONTENT, []), (b"?" * 300000, ["Range: bytes=300000-", ""]),
    (CONTENT[::-1], [""]), (CONTENT + b"?", [""])], ids=["begun", "whole", "garbage", "full of garbage", "too long"])
@pytest.mark.parametrize("local", [False, True])
def test_a_part_file_of_an_earlier_run(left, requests, local, tmp_path):
    """A server is asked for what is missing; what was left in vain does not count as a try, of which there is one."""
    (tmp_path / "got.part").write_bytes(left)
    (tmp_path / "f").write_bytes(CONTENT)
    heard, once = [], Patience(attempts=1, timeout=2, pause=0, limit=2)
    with Server(*[rest(300000) if request else FULL for request in requests] or [hang]) as server:
        source = open_source(str(tmp_path) if local else server.url, once)
        source.download("f", str(tmp_path / "got"), len(CONTENT), DIGEST, heard.append)
        asked = server.requests
    assert (tmp_path / "got").read_bytes() == CONTENT and sum(heard) == len(CONTENT)
    assert local or ["".join(line for line in r.split("\r\n") if line.startswith("Range")) for r in asked] == requests
    assert sorted(os.listdir(tmp_path)) == ["f", "got"]


@pytest.mark.parametrize("target, followed", [("127.0.0.1", False), ("[::ffff:127.0.0.1]", False),
                                              ("198.51.100.1", True)])
def test_no_server_elsewhere_leads_to_this_host(target, followed, tmp_path):
    subprocess.run(["ip", "address", "replace", "198.51.100.1/24", "dev", "lo"], check=True)
    with Server(FULL, address="127.0.0.1" if "127" in target else target) as near:
        port = near.url.rpartition(":")[2]
        with Server(redirect(f"http://{target}:{port}/f"), address="198.51.100.1") as far:
            source = open_source(far.url, PATIENCE)
            with contextlib.nullcontext() if followed else pytest.raises(FetchError, match="redirected to this host"):
                source.download("f", str(tmp_path / "f"), len(CONTENT), DIGEST)
        assert any(near.requests) == followed  # not a byte is sent


BAD = {
    "not found": (answer(404), 1), "forbidden": (answer(403), 1), "always an error": (answer(500), 3),
    "hangs": (hang, 3), "drips its head": (drip, 3), "drips its body": (drip_body, 3), "always half": (HALF, 3),
    "always wrong": (answer(200, CONTENT[::-1]), 3), "endless": (endless, 3),
    "redirects in a circle": (redirect("SELF/f"), 6), "redirects to a file": (redirect("file:///etc/passwd"), 1),
    "redirects nowhere": (redirect(""), 6), "redirects to no URL": (redirect("http://[::1"), 1),
    "endless head": (answer(200, CONTENT, "X: " + "y" * 70000), 3), "empty": (answer(204), 1),
    "only a part, unasked": (rest(0), 1), "redirects to a word and a password": (redirect("http://a:b@127.0.0.1/"), 1),
}


@pytest.mark.parametrize("case", BAD)
def test_download_is_given_up(case, tmp_path):
    script, requests = BAD[case]
    with Server(script) as server:
        with pytest.raises(FetchError):
            open_source(server.url, PATIENCE).download("f", str(tmp_path / "f"), len(CONTENT), DIGEST)
        assert len(server.requests) == requests
    assert not (tmp_path / "f").exists()
    part = tmp_path / "f.part"
    assert not part.exists() or part.stat().st_size <= len(CONTENT) + 1


def test_an_index_is_whole_or_asked_for_again():
    """It has no digest: only its announced length tells that a part of it is missing."""
    with Server(answer(200, b"{}", length=9), FULL) as server:
        assert open_source(server.url, PATIENCE).read("index.json", 1 << 20) == CONTENT
    with Server(endless) as server:
        with pytest.raises(ContentError):
            open_source(server.url, PATIENCE).read("index.json", 1 << 20)
