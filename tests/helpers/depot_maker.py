"""Small depots for tests, described by Python values."""

import io
import json
import os
import tarfile
import zipfile

from tessel_lifecycle import pax
from tessel_lifecycle.catalogue import KINDS
from tessel_lifecycle.depot_writer import DepotWriter
from tessel_lifecycle.payload import PayloadFile

DATE = "2026-03-02T00:00:00.000Z"


def base_image(version="8.0-1", components=None, **more):
    return "base_images", {"version": version, "release_date": DATE, "components": components or {}, **more}


def add_on(name, version="1-1", **more):
    return "add_ons", {"name": name, "version": version, "release_date": DATE, "base_images": "*", **more}


def solution(name, components, version="1-1", **more):
    return "solutions", {"name": name, "version": version, "release_date": DATE, "components": components, **more}


def manifest(name, components=None, base_images="*"):
    return "manifests", {"id": name, "version": "1-1", "manager": "hsm", "package": "rack", "base_images": base_images,
                         "components": components or {}}


def component(name, version="1-1", paxs=(), depends=None, conflicts=None):
    relations = {key: [{"name": n, "range": r} for n, r in (value or {}).items()]
                 for key, value in (("depends", depends), ("conflicts", conflicts))}
    return "components", {"name": name, "version": version, "paxs": [reference(p) for p in paxs], **relations}


def reference(text):
    """"name 1-1" or, for version 1-1, "name"."""
    name, _, version = text.partition(" ")
    return {"name": name, "version": version or "1-1"}


def package(text, files, **descriptor):
    """A PAX with these files: path -> content, or ("link", target)."""
    return "paxs", {**reference(text), "acceptance_level": "PARTNER", **descriptor}, files


def write_tree(root, files):
    for path, content in files.items():
        target = os.path.join(root, path)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if isinstance(content, tuple):
            os.symlink(content[1], target)
        else:
            with open(target, "w") as file:
                file.write(content)


def write_depot(folder, *units, sign=lambda content: None):
    """Writes a depot; returns its location. Units are what the functions above return; `sign` makes signatures."""
    folder.mkdir(parents=True)
    writer = DepotWriter(str(folder), "Test")
    for number, (kind, document, *files) in enumerate(units):
        if kind == "paxs":
            root = folder.parent / f"{folder.name}-files-{number}"
            root.mkdir()
            write_tree(root, files[0])
            listing = pax.listing(str(root))
            writer.add_pax(document | {"files": listing}, str(root), [PayloadFile(entry) for entry in listing],
                           sign)
        else:
            writer.add(KINDS[kind](document))
    writer.finish()
    return str(folder)


def write_metadata(folder, members, index=None):
    """Writes a depot with exactly these members (name -> bytes or JSON value) in its metadata, true or not."""
    folder.mkdir(parents=True, exist_ok=True)
    buffer = io.BytesIO()
    with zipfile.ZipFile(buffer, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, content in members.items():
            archive.writestr(name, content if isinstance(content, bytes) else json.dumps(content))
    write_raw_metadata(folder, buffer.getvalue(), index)


def write_raw_metadata(folder, data, index=None):
    """Writes a depot whose metadata file is `data`; `index` changes members of its entry in the index."""
    import hashlib
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "metadata.zip").write_bytes(data)
    entry = {"file": "metadata.zip", "size": len(data), "sha256": hashlib.sha256(data).hexdigest()}
    (folder / "index.json").write_text(json.dumps({"format": 1, "vendor": "Test", "metadata": [entry | (index or {})]}))


def tar(*members):
    """An xz-packed tar archive of (name, content or None, fields of the TarInfo)."""
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w:xz", preset=0) as archive:
        for name, content, fields in members:
            info = tarfile.TarInfo(name)
            info.size = len(content or b"")
            for key, value in fields.items():
                setattr(info, key, value)
            archive.addfile(info, io.BytesIO(content or b""))
    return buffer.getvalue()
