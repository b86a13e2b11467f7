"""Whom a host trusts: what is signed by whom is taken as what, and what is not taken is told exactly."""

import contextlib
import datetime
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import zipfile

import pytest
from authority import SIGNER, Authority, openssl, self_signed
from depot_maker import base_image, component, package, reference, tar, write_depot, write_metadata, write_tree
from sandboxed_host import LIFECYCLE, REPOSITORY
from tessel_lifecycle import depot_index, files, host as own_host, index_trust, install, paths, pax, signature, trust
from tessel_lifecycle.compliance import is_incompatibility
from tessel_lifecycle.depot import Depot
from tessel_lifecycle.depot_writer import DepotWriter
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.fetch import Patience
from tessel_lifecycle.image import Image
from tessel_lifecycle.payload import PayloadFile
from test_image import QuietTask, plan

ONCE = Patience(attempts=1, timeout=2, pause=0, limit=2)


class World:
    """Two authorities, one of which has another below it, and everybody with a certificate of theirs."""

    def __init__(self, folder):
        root, other = Authority(folder), Authority(folder, "other")
        sub, fake = Authority(folder, "sub", root), root.issue("fake", SIGNER)
        self.all = {
            "root": (root.certificate, root.key), "other": (other.certificate, other.key),
            "sub": (sub.certificate, sub.key), "good": root.issue("good"), "lasting": root.issue("lasting", until=300),
            "below sub": sub.issue("below"),
            "second": other.issue("second"), "alone": self_signed(folder, "alone"),
            "expired": root.issue("expired", since=-9, until=-1), "early": root.issue("early", since=1),
            "revoked": root.issue("revoked"), "fake": fake,
            "server": root.issue("server", "extendedKeyUsage=serverAuth\n"),
            "any": root.issue("any", "subjectAltName=DNS:x\n"),
            "cannot": root.issue("cannot", "extendedKeyUsage=codeSigning\nkeyUsage=keyEncipherment\n"),
            "listed": other.issue("listed", SIGNER + "crlDistributionPoints=URI:http://nowhere/list.crl\n")}
        # One that calls itself root, too, and one whose issuer is no authority.
        impostor = Authority(folder / "elsewhere")
        self.all["impostor"] = impostor.issue("good")
        shutil.copy(fake[0], folder / "fake.pem")
        below = Authority(folder, "fake ca", root)
        below.certificate, below.key = fake
        self.all["below fake"] = below.issue("below-fake")
        root.revoke(self.all["revoked"][0])
        self.lists = {"new": root.revocation_list(), "old": root.revocation_list(since=-9, until=-1),
                      "other list": other.revocation_list()}

    def sign(self, content, *names, chain=None):
        """A signature by these over the content."""
        with contextlib.ExitStack() as stack:
            identities = [(str(self.all[name][0]), stack.enter_context(open(self.all[name][1])).fileno())
                          for name in names]
            return signature.sign(content, identities, chain and str(self.all[chain][0]))

    def store(self, folder, layout):
        """Lays out a trust store: level -> names of certificates and lists."""
        for level, names in layout.items():
            (folder / level).mkdir(parents=True)
            for number, name in enumerate(names):
                source, kind = (self.lists[name], "crl") if name in self.lists else (self.all[name][0], "pem")
                shutil.copy(source, folder / level / f"{number}.{kind}")
        return folder


@pytest.fixture(scope="session")
def world(tmp_path_factory):
    former = os.umask(0o022)
    yield World(tmp_path_factory.mktemp("authorities"))
    os.umask(former)


ROOT = {"CERTIFIED": ["root"]}
BOTH = {"CERTIFIED": ["root"], "PARTNER": ["other"]}
# Who signed, with which certificate beside the signer's, and what is trusted: the level, or why not.
SIGNATURES = {
    "trusted issuer": (["good"], None, ROOT, "CERTIFIED"),
    "trusted itself": (["alone"], None, {"ACCEPTED": ["alone"]}, "ACCEPTED"),
    "through an intermediate": (["below sub"], "sub", ROOT, "CERTIFIED"),
    "intermediate is missing": (["below sub"], None, ROOT, "Invalid SignerUnknown"),
    "intermediate is trusted": (["below sub"], None, {"PARTNER": ["sub"]}, "PARTNER"),
    "issuer is no authority": (["below fake"], "fake", ROOT, "Invalid SignerUnknown"),
    "no authority, though trusted": (["below fake"], None, {"CERTIFIED": ["fake"]}, "Invalid SignerUnknown"),
    "signed by itself": (["alone"], None, ROOT, "Invalid SignerUnknown"),
    "brings its own authority": (["second"], "other", ROOT, "Invalid SignerUnknown"),
    "issuer of the same name": (["impostor"], None, ROOT, "Invalid SignerRefused"),
    "expired": (["expired"], None, ROOT, "Invalid SignerOutOfTime"),
    "not valid yet": (["early"], None, ROOT, "Invalid SignerOutOfTime"),
    "for servers": (["server"], None, ROOT, "Invalid SignerPurpose"),
    "for nothing said": (["any"], None, ROOT, "Invalid SignerPurpose"),
    "key may not sign": (["cannot"], None, ROOT, "Invalid SignerPurpose"),
    "the authority itself": (["root"], None, ROOT, "Invalid SignerPurpose"),
    "not in a list": (["good"], None, {"CERTIFIED": ["root", "new"]}, "CERTIFIED"),
    "revoked": (["revoked"], None, {"CERTIFIED": ["root", "new"]}, "Invalid SignerRevoked"),
    "revoked, nobody says so": (["revoked"], None, ROOT, "CERTIFIED"),
    "list in another folder": (["revoked"], None, {"CERTIFIED": ["root"], "PARTNER": ["new"]}, "Invalid SignerRevoked"),
    "old list beside a new one": (["good"], None, {"CERTIFIED": ["root", "old", "new"]}, "CERTIFIED"),
    "old list": (["good"], None, {"CERTIFIED": ["root", "old"]}, "Store RevocationListOld"),
    "list of another": (["listed"], None, {"PARTNER": ["other", "new"]}, "Store RevocationListMissing"),
    "list that is named": (["listed"], None, {"PARTNER": ["other", "other list"]}, "PARTNER"),
    "intermediate, its issuer's list": (["below sub"], "sub", {"CERTIFIED": ["root", "new"]}, "CERTIFIED"),
    "two levels": (["second"], None, BOTH, "PARTNER"),
    "in two levels": (["good"], None, {"CERTIFIED": ["root"], "COMMUNITY": ["root"]}, "CERTIFIED"),
    "two signers": (["second", "good"], None, BOTH, "CERTIFIED"),
    "two signers, one known": (["good", "alone"], None, ROOT, "CERTIFIED"),
    "two signers, one expired": (["expired", "second"], None, BOTH, "PARTNER"),
    "two signers, none known": (["alone", "second"], None, ROOT, "Invalid SignerUnknown"),
    "nobody is trusted": (["good"], None, {"CERTIFIED": ["new"]}, "Invalid TrustStoreEmpty"),
}


def answer(store, made, content):
    try:
        return store.vouch(made, content).level
    except signature.Refusal as refusal:
        assert refusal.note("it").text
        return f"{refusal.kind} {refusal.note('it').identifier.rpartition('.')[2]}"


@pytest.mark.parametrize("case", SIGNATURES)
def test_who_vouches_for_what(case, world, tmp_path):
    names, chain, layout, expected = SIGNATURES[case]
    store = trust.TrustStore(str(world.store(tmp_path, layout)))
    assert answer(store, world.sign(b"content", *names, chain=chain), b"content") == expected


# What lies in the store: the level that a signature has then, or why it has none.
STORES = {
    "no certificate": ("CERTIFIED/a.pem", b"nonsense", "Store TrustStoreUnreadable"),
    "cut off": ("CERTIFIED/a.pem", b"-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n",
                "Store TrustStoreUnreadable"),
    "no list": ("PARTNER/a.crl", b"nonsense", "Store TrustStoreUnreadable"),
    "something else": ("CERTIFIED/README", b"nonsense", "CERTIFIED"),
    "another level": ("OWN/a.pem", b"nonsense", "CERTIFIED"),
}


@pytest.mark.parametrize("case", STORES)
def test_what_lies_in_the_store(case, world, tmp_path):
    name, content, expected = STORES[case]
    folder = world.store(tmp_path, ROOT)
    (folder / name).parent.mkdir(exist_ok=True)
    (folder / name).write_bytes(content)
    assert answer(trust.TrustStore(str(folder)), world.sign(b"x", "good"), b"x") == expected


@pytest.mark.parametrize("name", ["CERTIFIED", "CERTIFIED/0.pem"])
def test_a_store_that_others_may_change_is_none(name, world, tmp_path):
    folder = world.store(tmp_path, ROOT)
    (folder / name).chmod(0o777)
    assert answer(trust.TrustStore(str(folder)), world.sign(b"x", "good"), b"x") == "Store TrustStoreUnreadable"


def test_a_policy_that_every_issuer_has_a_list(world, tmp_path):
    made = world.sign(b"x", "good")
    for layout, expected in ((ROOT, "Store RevocationListMissing"), ({"PARTNER": ["root", "new"]}, "PARTNER")):
        store = trust.TrustStore(str(world.store(tmp_path / expected, layout)), required=True)
        assert answer(store, made, b"x") == expected


def test_what_is_no_signature_over_this_content(world, tmp_path):
    """Damage anywhere is refused, but where it changes nothing of what is signed."""
    store, made = trust.TrustStore(str(world.store(tmp_path, ROOT))), world.sign(b"content", "good")
    attached = subprocess.run(["openssl", "cms", "-sign", "-binary", "-nodetach", "-outform", "DER", "-signer",
                               world.all["good"][0], "-inkey", world.all["good"][1]], input=b"content",
                              capture_output=True, check=True).stdout
    bare = subprocess.run(["openssl", "cms", "-sign", "-binary", "-noattr", "-outform", "DER", "-signer",
                           world.all["good"][0], "-inkey", world.all["good"][1]], input=b"content",
                          capture_output=True, check=True).stdout
    for data in (b"", b"nonsense", made[:-1], made + b"\0", made * 2, attached, bare, b"\x30\x80" + made[2:]):
        assert answer(store, data, b"content") == "Format SignatureUnreadable"
    assert answer(store, made, b"Content") == "Digest SignatureOfOther"
    assert answer(store, made[:-1] + bytes([made[-1] ^ 1]), b"content") == "Invalid SignatureWrong"
    two = bytearray(world.sign(b"content", "good", "second"))
    two[-1] ^= 1
    assert answer(store, bytes(two), b"content") == "Invalid SignatureWrong"
    chance, seen = random.Random(4), set()
    for _ in range(150):
        damaged = bytearray(made)
        damaged[chance.randrange(len(damaged))] ^= 1 << chance.randrange(8)
        seen.add(answer(store, bytes(damaged), b"content").partition(" ")[0])
    assert {"Format", "Invalid", "Digest"} <= seen <= {"Format", "Invalid", "Digest", "CERTIFIED"}


@pytest.fixture
def settings(tmp_path, monkeypatch):
    """Sets the host's preferences."""
    def set_preferences(text):
        (tmp_path / "preferences").write_text(text)

    monkeypatch.setattr(paths, "PREFERENCES", str(tmp_path / "preferences"))
    monkeypatch.setattr(paths, "TRUST", str(tmp_path / "trust"))
    return set_preferences


def offered(folder, *units, **options):
    """The PAXs of a depot that is made of these."""
    return list(Depot(write_depot(folder, *units, **options), ONCE).catalogue().paxs.values())


def test_the_least_level_decides(world, settings, tmp_path):
    """A package for each kind of signature, at each level: taken, taken with a warning, or refused, and as what."""
    world.store(tmp_path / "trust", {**BOTH, "COMMUNITY": ["alone"]})
    made = {}
    for name in ("good", "second", "alone", "expired", None):
        sign = (lambda content: None) if name is None else lambda content, name=name: world.sign(content, name)
        made[name], = offered(tmp_path / f"depot-{name}", package("p", {"etc/x": "x"}), sign=sign)
    missing, low, invalid = "PaxSigMissingError", "AcceptanceConfigError", "PaxSigInvalidError"
    for level, expected in {"COMMUNITY": ("CERTIFIED", "PARTNER", "COMMUNITY", "COMMUNITY!", "COMMUNITY!"),
                            "PARTNER": ("CERTIFIED", "PARTNER", low, invalid, missing),
                            "CERTIFIED": ("CERTIFIED", low, low, invalid, missing)}.items():
        settings(f"acceptance_level = {level}\n")
        seen = []
        for made_of in made.values():
            try:
                admission = own_host.check_admitted([made_of])
                seen.append(admission.level(made_of) + "!" * bool(admission.warnings))
            except ImageError as error:
                assert error.arguments == ([] if error.name == low else ["p(1-1)"]) and error.notes
                seen.append(error.name)
        assert tuple(seen) == expected


@pytest.mark.parametrize("signer, name", [
    (None, "PaxSigMissingError"), ("alone", "PaxSigInvalidError"), ("expired", "PaxSigInvalidError"),
    ("revoked", "PaxSigInvalidError"), ("server", "PaxSigInvalidError"), ("second", "AcceptanceConfigError"),
    ("listed", "PaxCertStoreError"), ("good", None)])
def test_what_a_certified_host_does_not_take(signer, name, world, settings, tmp_path):
    world.store(tmp_path / "trust", {"CERTIFIED": ["root", "new"], "PARTNER": ["other"]})
    units = offered(tmp_path / "depot", package("p", {}), sign=lambda content: signer and world.sign(content, signer))
    settings("acceptance_level = CERTIFIED\n")
    with pytest.raises(ImageError) if name else contextlib.nullcontext() as error:
        own_host.check_admitted(units)
    assert name is None or (error.value.name, is_incompatibility(error.value)) == (name, True)


def test_many_refusals_are_told_in_few_words(settings, tmp_path):
    paxs = offered(tmp_path / "depot", *(package(f"p{n}", {}) for n in range(9)))
    settings("acceptance_level = PARTNER\n")
    with pytest.raises(ImageError) as error:
        own_host.check_admitted(paxs)
    assert error.value.arguments == ["p0(1-1), p1(1-1), p2(1-1), p3(1-1), p4(1-1) and 4 more"]
    settings("")
    (warning,) = own_host.check_admitted(paxs).warnings
    assert warning.arguments == ["9", *error.value.arguments] and len(error.value.notes) == 5


@pytest.mark.parametrize("mode", [0o4755, 0o2755])
def test_programs_with_their_owners_rights_come_from_the_certified_only(mode, world, settings, tmp_path):
    world.store(tmp_path / "trust", BOTH)
    for name, taken in (("good", True), ("second", False), (None, False)):
        write_tree(tmp_path / f"files-{name}", {"bin/su": "su"})
        (tmp_path / f"files-{name}/bin/su").chmod(mode)
        listing = pax.listing(str(tmp_path / f"files-{name}"))
        writer = DepotWriter(str(tmp_path / f"depot-{name}"), "Test")
        writer.add_pax({**reference("p"), "acceptance_level": "CERTIFIED", "files": listing},
                       str(tmp_path / f"files-{name}"), [PayloadFile(entry) for entry in listing],
                       lambda content, name=name: name and world.sign(content, name))
        writer.finish()
        (found,) = Depot(str(tmp_path / f"depot-{name}"), ONCE).catalogue().paxs.values()
        with contextlib.nullcontext() if taken else pytest.raises(ImageError) as error:
            own_host.check_admitted([found])
        assert taken or error.value.name == "AcceptanceConfigError" and "bin/su" in error.value.notes[-1].text


def index(world, folder, signer, valid_for=1, issued=0):
    """Writes an index that is signed by somebody, so many hours from now."""
    if not (folder / "index.json").exists():
        write_metadata(folder, {})
    moment = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(hours=issued)
    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(depot_index, "now", lambda: moment)
        depot_index.write(str(folder), json.loads((folder / "index.json").read_text()),
                          signer and (lambda content: world.sign(content, signer)), valid_for)
    return folder


@pytest.fixture
def signed_depot(world, settings, tmp_path):
    """A depot whose packages are signed by somebody of a level that the host takes."""
    world.store(tmp_path / "trust", ROOT)
    settings("acceptance_level = CERTIFIED\n")
    location = write_depot(
        tmp_path / "depot",
        base_image("8.0-1", {"c": "1-1", "d": "1-1"}), base_image("8.0-2", {"c": "2-1", "d": "1-1"}),
        component("c", paxs=["p"]), component("c", "2-1", paxs=["p 2-1"]), component("d", paxs=["q"]),
        package("p", {"etc/x": "old"}), package("p 2-1", {"etc/x": "new"}), package("q", {"etc/q": "both"}),
        sign=lambda content: world.sign(content, "good"))
    index(world, tmp_path / "depot", "lasting")
    return location


def apply(image, location, version="8.0-1"):
    with image.locked():
        made = plan(image, location, version)
        made.check()
        install.apply(image, made, QuietTask())


def rewritten(world, location, change):
    """Has the metadata of a depot say something else, and the signed index agree."""
    path = pathlib.Path(location)
    with zipfile.ZipFile(path / "metadata.zip") as archive:
        members = {name: json.loads(archive.read(name)) for name in archive.namelist()}
    change(members)
    write_metadata(path, members)
    index(world, path, "lasting")


def swap_descriptor(members):
    members["paxs/p_1-1.json"]["descriptor"]["summary"] = "harmless"


def strip(members):
    del members["paxs/p_1-1.json"]["signature"]


def exchange(members):
    members["paxs/p_1-1.json"]["signature"] = members["paxs/q_1-1.json"]["signature"]


def scribble(members):
    members["paxs/p_1-1.json"]["signature"] = "AAAA"


@pytest.mark.parametrize("change, name", [
    (swap_descriptor, "PaxSigDigestError"), (exchange, "PaxSigDigestError"), (scribble, "PaxSigFormatError"),
    (strip, "PaxSigMissingError")])
def test_what_was_tampered_with_is_not_even_fetched(change, name, world, signed_depot, tmp_path):
    rewritten(world, signed_depot, change)
    shutil.rmtree(f"{signed_depot}/paxs")
    with pytest.raises(ImageError) as error:
        apply(Image(str(tmp_path / "image")), signed_depot)
    assert (error.value.name, error.value.arguments) == (name, ["p(1-1)"])


def test_another_payload_is_not_installed(world, signed_depot, tmp_path):
    """In a package whose descriptor and signature are as they were, whether its depot announces the new file or not."""
    path = pathlib.Path(signed_depot, "paxs/p-1-1.pax")
    with zipfile.ZipFile(path) as archive:
        members = {name: archive.read(name) for name in archive.namelist()}
    with zipfile.ZipFile(path, "w") as archive:
        for name, content in (members | {pax.PAYLOAD: tar(("etc/x", b"own", {}))}).items():
            archive.writestr(name, content)

    def announce(members):
        members["paxs/p_1-1.json"] |= {"size": path.stat().st_size, "sha256": files.sha256(path)}

    for change in (lambda members: None, announce):
        rewritten(world, signed_depot, change)
        with pytest.raises(ImageError) as error:
            apply(Image(str(tmp_path / "image")), signed_depot)
        assert error.value.name == "PaxSigDigestError" and not (tmp_path / "image/current").exists()


def test_an_image_remembers_who_vouched_and_hands_it_on(signed_depot, settings, world, tmp_path, monkeypatch):
    image = Image(str(tmp_path / "image"))
    apply(image, signed_depot)
    settings("")
    shutil.rmtree(tmp_path / "trust")
    apply(image, signed_depot, "8.0-2")
    told = {entry["name"]: (entry["version"], entry["acceptance_level"], entry.get("signed_by"))
            for entry in image.database()["paxs"]}
    assert told == {"p": ("2-1", "COMMUNITY", None), "q": ("1-1", "CERTIFIED", "CN=good")}


def test_a_certificate_that_expires_between_stage_and_apply(signed_depot, tmp_path, monkeypatch):
    image = Image(str(tmp_path / "image"))
    staged = plan(image, signed_depot, "8.0-1")
    staged.check()
    install.stage(image, staged.new)
    later = trust.now() + datetime.timedelta(days=40)
    monkeypatch.setattr(trust, "now", lambda: later)
    with pytest.raises(ImageError) as error:
        apply(image, signed_depot)
    assert error.value.name == "PaxSigInvalidError" and later.strftime("%Y-%m-%d") in error.value.notes[0].text
    assert not (tmp_path / "image/current").exists()


def told_of(folder):
    """What a depot's index is refused as, with the first note; None when it is taken."""
    try:
        Depot(str(folder), ONCE).connect()
    except ImageError as error:
        named = error.name not in ("PaxCertStoreError", "AcceptanceConfigError")
        assert error.arguments == ([f"{folder}/index.json"] if named else [])
        return f"{error.name} {error.notes[0].identifier.rpartition('.')[2]}"
    return None


def tamper(folder):
    (folder / "index.json").write_text((folder / "index.json").read_text().replace("Test", "Best"))


# Who signed the index, for how many days and how many hours from now, what was done to it: how it is refused at the
# level CERTIFIED, and at COMMUNITY.
INDEXES = {
    "signed": (("second", 1, 0), None, None, None),
    "not signed": ((None, 1, 0), None, "PaxSigMissingError IndexUnsigned", None),
    "signed by a stranger": (("alone", 1, 0), None, "PaxSigInvalidError SignerUnknown", None),
    "signed by who has expired": (("expired", 1, 0), None, "PaxSigInvalidError SignerOutOfTime", None),
    "list is missing": (("listed", 1, 0), None, "PaxCertStoreError RevocationListMissing", None),
    "changed": (("second", 1, 0), tamper, *["PaxSigDigestError SignatureOfOther"] * 2),
    "no signature": (("second", 1, 0), lambda folder: (folder / "index.json.cms").write_text("x"),
                     "PaxSigFormatError SignatureUnreadable", None),
    "has held": (("second", 1, -30), None, *["MetadataDownloadError IndexExpired"] * 2),
    "of tomorrow": (("second", 9, 30), None, *["MetadataDownloadError IndexFromLater"] * 2),
}


@pytest.mark.parametrize("case", INDEXES)
def test_whose_index_is_taken(case, world, settings, tmp_path, monkeypatch):
    (signer, valid_for, issued), change, *expected = INDEXES[case]
    monkeypatch.setattr(paths, "SEEN_INDEXES", str(tmp_path / "seen.json"))
    world.store(tmp_path / "trust", {"CERTIFIED": ["other"], "PARTNER": ["root"]})
    folder = index(world, tmp_path / "depot", signer, valid_for, issued)
    if change:
        change(folder)
    seen = []
    for level in ("CERTIFIED", "COMMUNITY"):
        settings(f"acceptance_level = {level}\n")
        seen.append(told_of(folder))
    assert seen == expected
    index(world, tmp_path / "low", "good")
    assert told_of(tmp_path / "low") is None
    settings("acceptance_level = CERTIFIED\n")
    assert told_of(tmp_path / "low") == "AcceptanceConfigError IndexLevelTooLow"


def test_an_index_of_yesterday_is_refused(world, settings, tmp_path, monkeypatch):
    """Once a newer one of the same signer was seen there; elsewhere, or by another, it is the newest."""
    monkeypatch.setattr(paths, "SEEN_INDEXES", str(tmp_path / "seen.json"))
    world.store(tmp_path / "trust", BOTH)
    folder = index(world, tmp_path / "depot", "good", issued=-5)
    assert told_of(folder) is None
    shutil.copytree(folder, tmp_path / "old")
    index(world, folder, "good", issued=-2)
    assert [told_of(folder), told_of(folder)] == [None, None]
    for name in ("index.json", "index.json.cms"):
        shutil.copy(tmp_path / "old" / name, folder / name)
    assert told_of(folder) == "MetadataDownloadError IndexOlder" and told_of(tmp_path / "old") is None
    assert told_of(index(world, folder, "second", issued=-4)) is None
    assert os.stat(tmp_path / "seen.json").st_mode & 0o777 == 0o600
    (tmp_path / "seen.json").write_text("damaged")
    assert told_of(folder) is None
    (tmp_path / "seen.json").unlink()
    monkeypatch.setattr(index_trust, "_MOST_SEEN", 3)
    for number in range(5):
        assert told_of(index(world, tmp_path / f"depot-{number}", "good")) is None
    assert len(json.loads((tmp_path / "seen.json").read_text())["seen"]) == 3


def test_an_index_that_is_replaced_while_it_is_read(world, settings, tmp_path, monkeypatch):
    monkeypatch.setattr(paths, "SEEN_INDEXES", str(tmp_path / "seen.json"))
    world.store(tmp_path / "trust", ROOT)
    folder = index(world, tmp_path / "depot", "good", issued=-5)
    former = (folder / "index.json").read_bytes()
    index(world, folder, "good")
    answers = iter([former, (folder / "index.json").read_bytes()])
    source = Depot(str(folder), ONCE).source
    assert json.loads(index_trust.check(source, lambda: next(answers)))["issued"] > json.loads(former)["issued"]


APPLY, SCAN = (f"software --{what} --task-id ID --depot {{}} --software-spec DOCUMENT" for what in ("apply", "scan"))


@pytest.fixture
def own_settings():
    """Gives back what a test sets in /etc/tessel."""
    yield
    shutil.rmtree(paths.TRUST, ignore_errors=True)
    pathlib.Path(paths.PREFERENCES).unlink(missing_ok=True)


def test_the_guide_leads_to_a_host_that_takes_only_what_is_signed(host, own_settings, tmp_path):
    """Its commands, as they stand. What the host extracts has the packages' signatures, and none over its index."""
    guide = (REPOSITORY / "docs/depots.md").read_text()
    commands = "".join(re.findall(r"^```bash\n(.*?)^```$", guide, re.MULTILINE | re.DOTALL))
    subprocess.run(["bash", "-euc", commands], cwd=tmp_path, check=True, capture_output=True)
    spec = {"base_image": {"version": "1.0-1"}}
    assert host.result(APPLY.format(tmp_path / "depot"), spec)["warnings"] == {"OPTIONAL": None}
    vouched = [("greeter", "CERTIFIED", "CN=Depot signer, O=Example")]
    listed = json.loads(host.run("PAX --list-all")[1])
    assert [(entry["name"], entry["acceptance_level"], entry["signed_by"]) for entry in listed] == vouched
    extracted = host.result("depots --extract --task-id ID")["location"].removeprefix("file://")
    shutil.copytree(extracted, tmp_path / "extracted")
    shutil.rmtree(LIFECYCLE / "image")
    assert host.error(APPLY.format(tmp_path / "extracted"), spec)[0] == "PaxSigMissingError"
    subprocess.run(["kestreld-build-depot", "--renew", "--sign", "signer.key", "--certificate", "signer.pem",
                    "extracted"], cwd=tmp_path, check=True)
    host.result(APPLY.format(tmp_path / "extracted"), spec)
    listed = json.loads(host.run("PAX --list-all")[1])
    assert [(entry["name"], entry["acceptance_level"], entry["signed_by"]) for entry in listed] == vouched


def test_a_key_with_a_passphrase_signs_the_sample(host, own_settings, world, sample_depot, tmp_path):
    """The host takes it signed, and says of the unsigned one beforehand that it cannot."""
    certificate, key = world.all["good"]
    openssl("pkcs8", "-topk8", "-in", key, "-passout", "pass:secret words", "-out", tmp_path / "own.key")
    for passphrase, code in ((b"secret", 1), (b"secret words", 0)):
        reading, writing = os.pipe()
        os.write(writing, passphrase + b"\n")
        os.close(writing)
        made = subprocess.run([REPOSITORY / "helpers/build-depot", "--sign", tmp_path / "own.key", "--certificate",
                               certificate, "--passphrase-fd", str(reading), REPOSITORY / "helpers/sample-depot",
                               tmp_path / "depot"], pass_fds=[reading], capture_output=True, check=False)
        os.close(reading)
        assert (made.returncode, (tmp_path / "depot").exists()) == (code, not code) and b"secret" not in made.stderr
    spec = {"base_image": {"version": "8.0.1-1"}}
    world.store(pathlib.Path(paths.TRUST), {"ACCEPTED": ["root"], "PARTNER": ["other"]})
    pathlib.Path(paths.PREFERENCES).write_text("acceptance_level = ACCEPTED\n")
    scanned = host.result(SCAN.format(sample_depot), spec)
    assert scanned["status"] == "INCOMPATIBLE" and "PaxSigMissingError" in str(scanned["messages"])
    assert host.error(APPLY.format(sample_depot), spec)[0] == "PaxSigMissingError"
    assert host.result(SCAN.format(tmp_path / "depot"), spec)["status"] == "NON_COMPLIANT"
    host.result(APPLY.format(tmp_path / "depot"), spec)
    # Only the index of the unsigned one is signed now, by who is trusted.
    shutil.copytree(sample_depot, tmp_path / "half")
    index(world, tmp_path / "half", "good")
    spec["base_image"]["version"] = "8.0.2-1"
    assert host.result(SCAN.format(tmp_path / "half"), spec)["status"] == "INCOMPATIBLE"
    assert host.error(APPLY.format(tmp_path / "half"), spec)[0] == "PaxSigMissingError"


@pytest.mark.parametrize("arguments", [
    ["depot"], ["--renew", "depot"], ["--sign", "key", "a", "b"], ["--valid-for", "0", "a", "b"], ["--own", "a", "b"]])
def test_command_lines_that_build_nothing(arguments, tmp_path):
    done = subprocess.run([REPOSITORY / "helpers/build-depot", *arguments], cwd=tmp_path, capture_output=True,
                          check=False)
    assert done.returncode == 2 and b"usage: " in done.stderr and not list(tmp_path.iterdir())
