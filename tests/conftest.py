"""Fixtures of the whole-daemon tests. They run inside a sandboxed host, where the fixed paths are the tests' own."""

import contextlib
import pathlib
import shutil
import subprocess

import pytest

from fault_injection import Breaker, build_library
from sandboxed_host import REPOSITORY, STATE, Daemon, SystemLog


collect_ignore = ["booted"]  # they are not for a sandboxed host


def pytest_addoption(parser):
    parser.addoption("--record", action="store_true", help="rewrite session transcripts by what is seen, for a review")
    parser.addoption("--stress", type=float, default=3, help="seconds in which operations are called at random")
    parser.addoption("--share", metavar="FOLDER", help="leave out the tests that another run with this folder takes")
    parser.addoption("--every-point", action="store_true", help="break helpers at each of their calls, not at a few")


def taken(items, folder):
    """The tests that no other run has taken, each at the moment at which it is asked for."""
    for number, item in enumerate(items):
        with contextlib.suppress(FileExistsError):
            pathlib.Path(folder, str(number)).touch(exist_ok=False)
            yield item


def pytest_runtestloop(session):
    folder = session.config.getoption("--share")
    if folder is None:
        return None  # pytest's own loop
    own = taken(session.items, folder)
    item = next(own, None)
    while item and not session.shouldstop and not session.shouldfail:
        following = next(own, None)
        item.ihook.pytest_runtest_protocol(item=item, nextitem=following)
        item = following
    return True


@pytest.fixture(scope="session")
def sample_depot(tmp_path_factory):
    """Location of the sample depot."""
    depot = tmp_path_factory.mktemp("sample") / "depot"
    subprocess.run([REPOSITORY / "helpers/build-depot", REPOSITORY / "helpers/sample-depot", depot], check=True)
    return str(depot)


@pytest.fixture(scope="session")
def system_log():
    return SystemLog()


def wipe(folder):
    if folder.exists():
        for entry in folder.iterdir():
            shutil.rmtree(entry) if entry.is_dir() and not entry.is_symlink() else entry.unlink()


def give_back(folder):
    """Takes back what configuration modules have changed."""
    for left in folder.rglob("*-kestreld*"):
        if left.name.endswith(".before-kestreld"):
            left.replace(left.with_suffix(""))
        else:
            left.unlink()


@pytest.fixture
def fresh_host(system_log):
    """A host without any state of other tests."""
    yield system_log
    wipe(STATE)
    wipe(pathlib.Path("/run/tessel"))
    give_back(pathlib.Path("/etc"))


@pytest.fixture
def trusted_front(fresh_host):
    """Has the daemon take the tests' own word on the addresses of their clients, as it takes that of the TLS front."""
    preferences = pathlib.Path("/etc/tessel/preferences")
    preferences.write_text("front_account = root\n")
    yield
    preferences.unlink()


@pytest.fixture
def start_daemon(fresh_host):
    """Starts daemons on a fresh host; those that still run at the end must stop in order."""
    started = []

    def start(**options):
        started.append(Daemon(fresh_host, **options))
        return started[-1]

    yield start
    assert [daemon.stop() for daemon in started if daemon.process.poll() is None] in ([], [0])


@pytest.fixture
def daemon(start_daemon):
    """A running daemon on a fresh host."""
    return start_daemon()


@pytest.fixture
def root(daemon):
    """A client of the running daemon that calls as root."""
    return daemon.client()


@pytest.fixture(scope="session")
def breaking_library(tmp_path_factory):
    return build_library(tmp_path_factory.mktemp("library"))


@pytest.fixture
def breaker(tmp_path, monkeypatch, breaking_library):
    made = Breaker(tmp_path)
    monkeypatch.setenv("LD_PRELOAD", str(breaking_library))
    monkeypatch.setenv("ASAN_OPTIONS", "verify_asan_link_order=0")  # in that build, the sanitizer comes second
    monkeypatch.setenv("FAULT_PLAN", str(made.path))
    return made


@pytest.fixture
def points(request):
    """Picks the calls to break, of so many."""
    if request.config.getoption("--every-point"):
        return lambda count, few: range(1, count + 1)
    return lambda count, few: [1 + count * (2 * number + 1) // (2 * few) for number in range(few)]
