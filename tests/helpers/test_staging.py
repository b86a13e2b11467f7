"""The stage: packages from one depot and from several, at once, and what a call leaves to the next."""

import os
import pathlib
import signal

import pytest
from depot_maker import base_image, package, reference, write_depot
from misbehaving_server import FolderServer, Server, answer, rest_of
from sandboxed_host import wait_until
from tessel_lifecycle import paths
from tessel_lifecycle.depot import Depot
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.fetch import Patience
from tessel_lifecycle.image import Image
from tessel_lifecycle.staging import stage, staged

ONCE = Patience(attempts=1, timeout=5, pause=0, limit=5)
NOISE = "".join(chr(33 + n * n % 89 + n % 5) for n in range(9000))
STAGE = "software --stage --software-spec DOCUMENT --depot {} --task-id ID"


def depot_of(folder, number=1):
    names = [f"p{n}" for n in range(number)]
    return pathlib.Path(write_depot(folder, base_image(paxs=[reference(name) for name in names]),
                                    *(package(name, {f"etc/{name}": NOISE[n:]}) for n, name in enumerate(names))))


def served(depot, *packages):
    """The depot, with scripts for one package after the other."""
    left = list(packages)

    def by_path(server, connection):
        name = server.requests[-1].split()[1].lstrip("/")
        script = left.pop(0) if name.startswith("paxs/") else answer(200, (depot / name).read_bytes())
        script(server, connection)
    return Server(by_path)


def offers(location):
    return list(Depot(str(location), ONCE).catalogue().paxs.values())


@pytest.fixture
def image(tmp_path):
    return Image(str(tmp_path / "image"))


def test_eight_packages_come_at_once_over_connections_that_are_kept(image, tmp_path):
    depot, heard = depot_of(tmp_path / "depot", 24), []
    with FolderServer(depot, together=8) as server:
        paxs = offers(server.url)
        assert stage(image, paxs, heard.append) == sum(pax.size for pax in paxs) == sum(heard)
        assert server.most_at_once == 8 and server.connections <= 9
        (depot / "paxs" / os.path.basename(paxs[3].file)).unlink()
        assert stage(image, paxs) == 0
    assert {(depot / pax.file).read_bytes() for pax in paxs if pax != paxs[3]} < {
        pathlib.Path(staged(image, pax)).read_bytes() for pax in paxs}


@pytest.mark.parametrize("first, asked", [("lacks it", 12), ("has another", 12), ("has half", 8), ("is away", 8)])
def test_another_depot_has_what_one_has_not(first, asked, image, tmp_path):
    """One that does not answer for the first eight is not asked for the others."""
    depot = depot_of(tmp_path / "depot", 12)
    wrong = {"lacks it": answer(404), "has another": answer(200, b"x" * (1 << 16)), "is away": lambda *_: None,
             "has half": rest_of((depot / "paxs/p0-1-1.pax").read_bytes(), 300)}[first]
    paxs, heard = offers(depot), []
    with Server(wrong) as server:
        unlucky = Depot(server.url, ONCE)
        for pax in paxs:
            pax.depots = [unlucky, pax.depot]
        stage(image, paxs, heard.append)
        assert len(server.requests) == asked and sum(heard) == sum(pax.size for pax in paxs)
        for pax in paxs:
            pax.depots = pax.depots[:1]
        assert stage(image, paxs) == 0
        os.unlink(staged(image, paxs[0]))
        with pytest.raises(ImageError) as error:
            stage(image, paxs)
    assert error.value.name == ("PaxSigDigestError" if first == "has another" else "PaxDownloadError")
    assert all(os.path.exists(staged(image, pax)) for pax in paxs[1:])


def test_a_call_goes_on_where_the_last_one_ended(image, tmp_path):
    depot, heard = depot_of(tmp_path / "depot"), []
    content = (depot / "paxs/p0-1-1.pax").read_bytes()
    with served(depot, rest_of(content, 500), rest_of(content, 1 << 20)) as server:
        paxs = offers(server.url)
        with pytest.raises(ImageError):
            stage(image, paxs, heard.append)
        assert sum(heard) == 0
        assert stage(image, paxs, heard.append) == len(content) - 500
        assert sum(heard) == len(content) and "Range: bytes=500-" in server.requests[-1]


def test_a_task_that_is_ended_leaves_what_came(host, tmp_path):
    depot = depot_of(tmp_path / "depot")
    content = (depot / "paxs/p0-1-1.pax").read_bytes()
    spec = {"base_image": {"version": "8.0-1"}, "components": {}}

    def half(server, connection):
        rest_of(content, 500)(server, connection)
        server._stopped.wait(30)

    def came():
        return [path.stat().st_size for path in pathlib.Path(paths.IMAGE, "stage").glob("*.part")]
    with served(depot, half) as server:
        task, process = host.start(STAGE.format(server.url), spec)
        wait_until(lambda: came() == [500])
        process.send_signal(signal.SIGTERM)
        assert process.wait(10) == 1 and host.record(task)["status"] == "FAILED" and came() == [500]
    with served(depot, rest_of(content, 1 << 20)) as server:
        assert host.result(STAGE.format(server.url), spec)["downloaded"] == len(content) - 500
        assert "Range: bytes=500-" in server.requests[-1]
    assert came() == []
