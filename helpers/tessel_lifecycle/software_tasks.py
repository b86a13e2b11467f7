"""The tasks that compare, stage and change the host's software. Each takes the task and its options, and returns the
task's result in plain JSON."""

from tessel_lifecycle import (activation, compliance, files, install, paths, pending_reboot, planning, spare, staging,
                              verify)
from tessel_lifecycle.build import Build
from tessel_lifecycle.errors import INVALID_INPUT, ImageError, Note, TaskError
from tessel_lifecycle.image import Image, InstalledImage
from tessel_lifecycle.progress import Progress
from tessel_lifecycle.space import Room, shortage
from tessel_lifecycle.spec import MOST_SPEC, SoftwareSpec, parse_spec

_MOST_VERIFIED = 1000  # files that a verification tells of
_RESOLVED = 5          # percent of a change that are done when it is known what it takes


def scan(task, options):
    """Compares the host with a specification."""
    spec = spec_document(options["--software-spec"])
    image = Image(paths.IMAGE)
    installed, unreadable = _installed_or_error(image)
    damaged = verify.find_damage(installed)
    present = None if unreadable else compliance.of_content(installed.content, verify.names(damaged))
    try:
        plan = planning.plan(task, image, installed, spec, options["--depot"], damaged, 60)
    except ImageError as error:
        if not compliance.is_incompatibility(error):
            raise
        present = present or compliance.of_content(installed.content)
        return compliance.scan_result(present, compliance.of_spec(spec), errors=[error],
                                      warnings=verify.notes(damaged))
    task.progress(80)
    errors = [unreadable] if unreadable else []
    try:
        plan.check()
        activation.check(image, installed.content, plan.content)
    except ImageError as error:
        if not compliance.is_incompatibility(error):
            raise
        errors.append(error)
    warnings = [Note("PaxContentDiffers", pax.label) for pax in plan.replaced] + verify.notes(damaged) + plan.warnings
    download, *space = (plan.download_size, None, None) if unreadable else _costs(image, plan)
    if space[0] and space[0] > space[1]:
        warnings.append(shortage(paths.IMAGE, *space))
    return compliance.scan_result(present, compliance.of_content(plan.content), download, errors, warnings, space,
                                  () if unreadable else pending_reboot.pending(image))


def _costs(image, plan):
    """Bytes that bringing the host to the plan downloads, takes on the file system, and finds there; None is all that
    a change takes that does not come."""
    if plan.is_done:
        return 0, None, None
    if plan.bank:
        return 0, 0, Room(image).free()
    build = Build(image, plan, is_trial=True)
    return sum(p.size for p in build.missing), build.need().total, Room(image, build.wanted).obtainable()


def _installed_or_error(image):
    try:
        return image.read(), None
    except ImageError as error:
        return InstalledImage(), error


def software_verify(task, _):
    """Compares every file of the running image with its package's list: a scan for what the image itself holds."""
    image = Image(paths.IMAGE)
    with image.locked(shared=True):
        installed = image.read()
        if installed.content.base_image is None:
            raise ImageError("StatelessError", detail="no image is installed")
        progress = Progress(task.progress, verify=sum(p.descriptor.installed_size for p in installed.paxs.values()))
        progress.enter("verify")
        damaged = verify.find_damage(installed, thorough=True, on_bytes=progress.add_and_tell)
        warnings = verify.notes(damaged, _MOST_VERIFIED) + spare.warnings(image)
    present = compliance.of_content(installed.content, verify.names(damaged))
    return compliance.scan_result(present, compliance.of_content(installed.content), warnings=warnings)


def software_stage(task, options):
    """Downloads and verifies what a specification needs."""
    return _change(task, options["--depot"], lambda installed: spec_document(options["--software-spec"]), _stage)


def software_apply(task, options):
    """Brings the host to a specification."""
    return _change(task, options["--depot"], lambda installed: spec_document(options["--software-spec"]), _apply)


def apply_spec(task, spec, depots):
    """As software_apply, for a specification and depots that are not those of a command line."""
    return _change(task, depots, lambda installed: spec, _apply)


def components_apply(task, options):
    """Adds or updates single components of the running image."""
    def spec(installed):
        document = _spec_of(installed)
        for entry in options["--component"]:
            name, colon, version = entry.partition(":")
            if not colon:
                raise TaskError(INVALID_INPUT, detail=f"--component {entry}: not NAME:VERSION")
            document["components"][name] = {"version": version}
        return _checked(document)
    return _change(task, options["--depot"], spec, _apply)


def solutions_apply(task, options):
    """Adds or updates the solutions of a specification, leaving the rest of the running image."""
    return _change(task, options["--depot"], _with_solutions(options), _apply)


def solutions_stage(task, options):
    """Downloads and verifies what solutions_apply needs."""
    return _change(task, options["--depot"], _with_solutions(options), _stage)


def solutions_remove(task, options):
    """Removes solutions; a component that only they brought goes, one that they raised goes back."""
    def spec(installed):
        document = _spec_of(installed)
        for name in options["--name"]:
            if document["solutions"].pop(name, None) is None:
                raise ImageError("SolutionNotFound", name, "*", detail="not installed")
        return _checked(document)
    try:
        return _change(task, (), spec, _apply, downgrades=True)
    except ImageError as error:
        if error.name in ("MissingComponentError", "MissingPaxError", "PaxDownloadError"):
            error.notes.append(Note("PaxNotKept"))
        raise


def software_rollback(task, _):
    """Makes the spare image the running one again, as it is."""
    image = Image(paths.IMAGE)
    with image.locked():
        activation.recover(image)
        way_back = spare.find(image)
        if way_back is None:
            raise ImageError("StatelessError", notes=[Note("NoSpareImage")])
        installed, _ = _installed_or_error(image)  # what cannot be read any more is left all the more
        damaged = verify.find_damage(installed)
        plan = way_back.plan(image, installed, verify.names(damaged))
        plan.check()
        task.progress(_RESOLVED)
        return _apply(image, plan, task, verify.notes(damaged))


def spec_document(path):
    """The software specification in a file. @throws ImageError"""
    try:
        return parse_spec(files.read_bounded(path, MOST_SPEC))
    except (OSError, ValueError) as error:
        raise ImageError("SoftwareSpecFormatError", "", detail=error) from error


def _checked(document):
    try:
        return SoftwareSpec(document)
    except ValueError as error:
        raise TaskError(INVALID_INPUT, detail=error) from error


def _with_solutions(options):
    def spec(installed):
        document = _spec_of(installed)
        document["solutions"] |= spec_document(options["--software-spec"]).document.get("solutions") or {}
        return _checked(document)
    return spec


def _spec_of(installed):
    """The specification, as a document, that leads to the installed image."""
    content = installed.content
    if content.base_image is None:
        raise ImageError("StatelessError", detail="no image is installed")
    document = {
        "base_image": {"version": content.base_image.version.text},
        "components": {name: {"version": choice.version.text} for name, choice in content.components.items()
                       if choice.source == "COMPONENT" and not choice.pulled_in},
        "solutions": {name: {"version": solution.version.text, "components": parts}
                      for name, (solution, parts) in content.solutions.items()},
        "hardware_support": {manifest.manager: {"package": manifest.package, "version": manifest.version.text}
                             for manifest in content.hardware_support}}
    if content.add_on:
        document["add_on"] = {"name": content.add_on.name, "version": content.add_on.version.text}
    return document


def _change(task, depots, spec, finish, downgrades=False):
    """What all changing tasks share: lock the image, find out what is wanted and what it takes, then `finish`."""
    image = Image(paths.IMAGE)
    with image.locked():
        activation.recover(image)
        installed = image.read()
        wanted = spec(installed)
        damaged = verify.find_damage(installed)
        plan = planning.plan(task, image, installed, wanted, depots, damaged, _RESOLVED)
        plan.check(downgrades)
        task.progress(_RESOLVED)
        return finish(image, plan, task, verify.notes(damaged) + plan.warnings)


def _stage(image, plan, task, warnings):
    brought = 0 if plan.bank else install.prepare(image, plan, task)
    return compliance.stage_result(len(plan.new), brought, warnings)


def _apply(image, plan, task, warnings):
    before, brought, activated = plan.installed.content, 0, None
    activation.check(image, before, plan.content)
    if plan.bank:
        with staging.installation_errors():
            activated = activation.switch(image, plan.bank, before, plan.content, task, plan.damaged)
    elif not plan.is_done:
        brought, activated = install.apply(image, plan, task)
    else:
        with staging.installation_errors():
            activated = activation.present(image, before, task)
    changed = bool(plan.bank) or not plan.is_done
    return compliance.apply_result(changed, before, plan.content, brought, activated, warnings)
