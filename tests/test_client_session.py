"""Sessions of a management client, each told by a transcript in sessions/."""

import json
import pathlib
import shutil

import pytest

from sandboxed_host import served
from session import Session
from transcript import Transcript

SESSIONS = pathlib.Path(__file__).parent / "sessions"


def host_of(daemon):
    """How configuration documents name this host."""
    document = daemon.client().call("com.tessel.ryx.kestrel_daemon.configuration", "export")["document"]
    return json.loads(document)["metadata"]["reference_host"]


@pytest.mark.parametrize("path", sorted(SESSIONS.glob("*.yaml")), ids=lambda path: path.stem)
def test_session_goes_as_its_transcript_tells(daemon, sample_depot, tmp_path, path, pytestconfig):
    shutil.copytree(sample_depot, tmp_path / "depot")
    transcript = Transcript(path)
    with served(tmp_path / "depot") as url:
        found = {"depot": url, "folder": str(tmp_path / "depot"), "tests": str(SESSIONS.parent),
                 "host": host_of(daemon)}
        session = Session(daemon, transcript.given, found)
        seen = [session.replay(step) for step in transcript.steps]
    if pytestconfig.getoption("--record"):
        transcript.record(seen, session.with_structures)
    difference = "\n".join(transcript.difference(seen, session.with_structures))
    assert not difference, f"\n{difference}"
