"""Failures that a client is told by identifier, and failures of a command line that end in an exit code."""

PREFIX = "com.tessel.pelorus.lifecycle.RyxImage."

# The English texts, for people who read standard error and for messages inside a result. A task's record carries
# only identifier and arguments; the daemon puts in its own text.
TEXTS = {
    "AcceptanceConfigError": "A PAX package cannot be installed due to the current host acceptance level "
                             "configuration.",
    "AcceptanceGetError": "Failed to get the current host acceptance level configuration.",
    "AddonBaseImageMismatchError": "Addon {1} is incompatible with base image version {2}.",
    "AddonNotFound": "Addon {1} with version {2} cannot be found in depot.",
    "AddonValidationError": "Failed to validate metadata or components of addon {1}.",
    "BaseImageNotFound": "The Base Image with version {1} cannot be found in depot.",
    "BaseimageValidationError": "Failed to validate metadata or components of the base image.",
    "ComponentDowngradeError": "The operation cannot continue due to downgrade of the following Components: {1}.",
    "ComponentFormatError": "An error occurred while parsing or merging components.",
    "ComponentNotFoundError": "Component {1} cannot be found in depot.",
    "ComponentValidationError": "There are Compoment relation and content problems with the desired state.",
    "DatabaseFormatError": "The image database on the host is invalid or corrupted.",
    "DatabaseIOError": "Cannot read or write the image database on the host.",
    "DataStorageNotFound": "No OSData storage partition is available to extract depot. "
                           "Configure persistent storage for the host and retry.",
    "DepotConnectError": "An error occurred while connecting to depot.",
    "HardwareSupportPackageNotFound": "Manifest with Hardware Support Manager {1} and Hardware Support Package {2} "
                                      "version {3} cannot be found in depot.",
    "IncompatibleSolutionCompsError": "No compatible combination of Components {1} is found in Solution {2}.",
    "IncompatibleSolutionComponentError": "No compatible Component {1} is found in Solution {2}, "
                                          "candidate versions are: {3}.",
    "InstallationError": "An internal error occurred while remediating the host.",
    "LockingError": "Remediation cannot begin because another process is updating the host.",
    "ManifestBaseImageMismatchError": "Manifest with Hardware Support Manager {1} and Hardware Support Package {2} "
                                      "version {3} does not support Base Image version {4}.",
    "ManifestConflictError": "Hardware Support Packages with ID {1} and {2} have overlapping Base Image support. "
                             "Use a different package that does not overlap with package {1}.",
    "MemoryReserveError": "The host is out of resource: failed to reserve {1} MB of memory during remediation.",
    "MetadataDownloadError": "An error occurred while downloading depot metadata from {1}.",
    "MetadataFormatError": "The format of metadata in {1} is invalid.",
    "MissingComponentError": "Cannot find metadata for a Component.",
    "MissingPaxError": "Cannot find metadata for PAX(s) {1} in database or depot.",
    "MultipleManifestError": "The current version of RYX does not support multiple Hardware Support Packages.",
    "PaxChecksumError": "Recreation of the PAX {1} failed due to checksum mismatch. PAX may have been created using "
                        "older tools. Try a different host or update the component that contains this PAX.",
    "PaxDownloadError": "An error occurred while downloading PAX from URL {1}.",
    "PaxFormatError": "The format of PAX {1} is invalid.",
    "PaxHwPlatformError": "Hardware vendor and model requirements of PAXs cannot be satisfied by this host. "
                          "Use PAXs that match hardware vendor and model of host.",
    "PaxRecreateError": "Failed to extract depot from the host: an error occurred while re-creating PAX {1}.",
    "PaxSigDigestError": "Signature of PAX {1} cannot be verified against its contents.",
    "ReleaseUnitConflictError": "There are unequal Base Images, Addons or Solutions metadata that share the same "
                                "ID {1}.",
    "SoftwareInfoExtractError": "An error occurred while extracting image info on the host.",
    "SoftwareSpecFormatError": "Corrputed or invalid software specification format. Missing attribute: {1}.",
    "SolutionComponentNotFound": "Component(s) {1} within software Solution {2} cannot be found in depot.",
    "SolutionNotFound": "Software Solution {1} with version {2} cannot be found in depot.",
    "StatelessError": "The bootbank partition is not accessible or contains an invalid image database. "
                      "Check /bootbank, /altbootbank paths are valid and accessible.",
    "UnknownError": "An unknown error occurred while performing the operation.",
    "com.tessel.ryx.apply.invalid.depots": "No depots provided.",
    "com.tessel.ryx.apply.no.input": "No changes specified.",
    "com.tessel.ryx.host_settings.cm.validation.error": "Input document failed validation.",
    "com.tessel.ryx.kestrel_daemon.configuration.apply.generic.error":
        "There was a generic failure observed during the apply operation.",
    "com.tessel.ryx.kestrel_daemon.configuration.check_apply.error": "Check Apply API failed with a generic error.",
    "com.tessel.ryx.kestrel_daemon.configuration.parse.error": "Parsing of configuration document failed.",
    "com.tessel.ryx.lifecycle.task.contention": "Another task possibly in progress. Try later.",
}

# These tell that what was asked for exists but cannot run on this host or together.
INCOMPATIBILITIES = frozenset((
    "AcceptanceConfigError", "AddonBaseImageMismatchError", "AddonValidationError", "BaseimageValidationError",
    "ComponentDowngradeError", "ComponentValidationError", "IncompatibleSolutionCompsError",
    "IncompatibleSolutionComponentError", "ManifestBaseImageMismatchError", "ManifestConflictError",
    "MultipleManifestError", "PaxHwPlatformError"))

INVALID_INPUT = "com.tessel.ryx.orbi.invalidinput"


class TaskError(Exception):
    """A failure with the identifier and arguments that a task's record carries.

    `detail` is for the log: what exactly was wrong, where the identifier's own text does not say it.
    """

    def __init__(self, identifier, args=(), detail=""):
        super().__init__(identifier, args, detail)
        self.identifier, self.arguments, self.detail = identifier, [str(a) for a in args], detail

    @property
    def text(self):
        """The identifier's text with its arguments filled in."""
        text = TEXTS.get(self.identifier.removeprefix(PREFIX), self.identifier)
        parts = text.split("{")
        filled = parts[:1]
        for part in parts[1:]:
            number, _, rest = part.partition("}")
            filled.append(self.arguments[int(number) - 1] + rest)
        return "".join(filled)

    def recorded(self):
        """The members by which a failed task's record tells this failure."""
        return {"error": {"message": {"id": self.identifier, "args": self.arguments}}}

    def __str__(self):
        return f"{self.text} ({self.detail})" if self.detail else self.text


class ImageError(TaskError):
    """One of the failures in TEXTS, by its short name."""

    def __init__(self, name, *args, detail=""):
        super().__init__(PREFIX + name, args, detail)
        self.name = name


class CommandError(Exception):
    """An inline command's failure: the exit code its caller knows, and the reason for people."""

    def __init__(self, exit_code, reason):
        super().__init__(reason)
        self.exit_code = exit_code


class UsageError(Exception):
    """A command line that the command does not take."""


EXISTS, INTERNAL, NOT_FOUND, NOT_REACHABLE, BAD_ARGUMENT, NO_IMAGE_INFO = 80, 81, 82, 83, 84, 145
