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
    "ComponentUnmountError": "Failed to remove Component {1}, files may still be in use.",
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
    "LiveInstallationError": "An error occurred while performing live system changes during the remediation.",
    "LockingError": "Remediation cannot begin because another process is updating the host.",
    "MaintenanceModeError": "Maintenance mode is either not enabled or cannot be determined on the host.",
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
    "PaxCertStoreError": "Failed to import certificates or revocation lists while verifying PAX signature.",
    "PaxSigFormatError": "PAX {1} contains an invalid or corrupted signature.",
    "PaxSigInvalidError": "PAX {1} contains an invalid or corrupted signature.",
    "PaxSigMissingError": "PAX {1} does not have a signature and thus cannot be verified.",
    "PaxSigDigestError": "Signature of PAX {1} cannot be verified against its contents.",
    "ReleaseUnitConflictError": "There are unequal Base Images, Addons or Solutions metadata that share the same "
                                "ID {1}.",
    "ServiceDisableError": "Failed to remove Component {1}: an error occurred while disabling service {2}.",
    "ServiceEnableError": "Failed to apply Component {1}: an error occurred while enabling service {2}.",
    "SoftwareInfoExtractError": "An error occurred while extracting image info on the host.",
    "SoftwareSpecFormatError": "Corrputed or invalid software specification format. Missing attribute: {1}.",
    "SolutionComponentNotFound": "Component(s) {1} within software Solution {2} cannot be found in depot.",
    "SolutionNotFound": "Software Solution {1} with version {2} cannot be found in depot.",
    "StatelessError": "The bootbank partition is not accessible or contains an invalid image database. "
                      "Check /bootbank, /altbootbank paths are valid and accessible.",
    "UnknownError": "An unknown error occurred while performing the operation.",
    # What is told beside the others: why, and what to do.
    "Detail": "In detail: {1}",
    "DepotLocationInvalid": "{1} is no depot's location: {2}. It has to be an absolute path, or a file:// or "
                            "http(s):// URL without credentials, query and fragment.",
    "DepotNotResolved": "The name of the host in {1} cannot be resolved: {2}. Check the depot's URL, and the name "
                        "servers of this host.",
    "DepotRefused": "Nothing accepts connections at {1}: {2}. Check host and port in the depot's URL, and whether its "
                    "server runs.",
    "DepotTimedOut": "{1} did not answer in time: {2}. Check the network and the depot's server, and try again.",
    "DepotTlsFailed": "There is no trusted connection to {1}: {2}. Check the server's certificate, and those that this "
                      "host trusts.",
    "DepotHttpStatus": "The server answered {1} with status {2}. Check the depot's URL, below which index.json lies, "
                       "and whether all its files are there.",
    "DepotFileUnreadable": "{1} cannot be read: {2}. Check the depot's location, below which index.json lies, and "
                           "whether all its files are there.",
    "NotADepot": "What is at {1} is no depot that this host can read: {2}.",
    "SignatureUnreadable": "The signature of {1} is none that this host can read: {2}. It has to be a detached CMS "
                           "signature in DER.",
    "SignatureOfOther": "{1} is not what was signed: it was changed afterwards, on its way or where it was made. "
                        "Fetch it anew from who made it, and have that signed.",
    "SignatureWrong": "The signature of {1} was not made with the key of the certificate in it.",
    "SignerUnknown": "{1} was signed by {2} with a certificate issued by {3}, and no certificate in {4} vouches for "
                     "that. If it is to be trusted, put the issuer's certificate into the folder of its level there.",
    "SignerPurpose": "{1} was signed by {2}, whose certificate is not for signing code. It has to name this purpose "
                     "(extendedKeyUsage codeSigning), and, if it names uses of its key, digitalSignature.",
    "SignerOutOfTime": "{1} was signed by {2}: the certificate of {3} holds from {4} to {5}, and the clock of this "
                       "host says {6}. Set the clock if it is wrong; otherwise have it signed with a certificate that "
                       "holds.",
    "SignerRevoked": "{1} was signed by {2}: the certificate of {3} was revoked by {4}. Have it signed with another "
                     "certificate.",
    "SignerRefused": "{1} was signed by {2}, whose certificate is refused: {3}.",
    "RevocationListMissing": "{1} was signed by {2}: whether the certificate was revoked cannot be told, since there "
                             "is no revocation list of {3}. Put it into {4}, as NAME.crl.",
    "RevocationListOld": "{1} was signed by {2}: whether the certificate was revoked cannot be told, since the "
                         "revocation list of {3} holds from {4} to {5}, and the clock of this host says {6}. Put a "
                         "newer list beside the certificate in {7}, or set the clock.",
    "RevocationListRefused": "{1} was signed by {2}: whether the certificate was revoked cannot be told, since the "
                             "revocation list of {3} is refused: {4}.",
    "TrustStoreUnreadable": "Who signed {1} cannot be told: {2}: {3}.",
    "TrustStoreEmpty": "Who signed {1} is not asked, since this host trusts nobody: there is no certificate in {2}.",
    "PaxUnsigned": "{1} is not signed, and this host takes only what is vouched for as {2} or better "
                   "(acceptance_level in {3}).",
    "PaxLevelTooLow": "{1} is vouched for as {2}, by {3}, and this host takes only what is vouched for as {4} or "
                      "better (acceptance_level in {5}).",
    "PaxSetuid": "{1} has {2}, which runs with the rights of its owner or group whoever starts it (setuid, setgid). "
                 "Only a package that a certificate in {3} vouches for may have such files.",
    "PaxsTakenUnsigned": "Nobody whom this host trusts vouches for {1} of the packages, which are taken all the same: "
                         "{2}.",
    "IndexUnsigned": "{1} is not signed, and this host takes depots only whose index is signed by who is trusted as "
                     "{2} or better (acceptance_level in {3}).",
    "IndexLevelTooLow": "{1} is vouched for as {2}, by {3}, and this host takes depots only whose index is signed by "
                        "who is trusted as {4} or better (acceptance_level in {5}).",
    "IndexExpired": "{1} held until {2}, and the clock of this host says {3}. Have its index signed anew, or set the "
                    "clock if it is wrong.",
    "IndexFromLater": "{1} was signed at {2}, and the clock of this host says {3}. Set the clock.",
    "IndexOlder": "{1} was signed at {2}; this host has seen a newer one there, signed by {3} at {4}. Somebody may "
                  "hold back what is new. If it was put back on purpose, have it signed anew.",
    "DepotsEmpty": "No depot is registered. Register one that has what is desired.",
    "DepotNotAsked": "A registered depot could not be asked; it may have what was not found.",
    "PaxContentDiffers": "PAX {1} is wanted with other content than what is installed under its name and version.",
    "FileChanged": "File {1} of PAX {2} was changed after it was installed.",
    "FileLost": "File {1} of PAX {2} was lost after it was installed.",
    "FilesMore": "{1} more files were changed or lost.",
    "PaxNotKept": "A package that is needed again is not kept on this host. Apply the specification that is wanted, "
                  "with a depot that has it.",
    "NoSpareImage": "No other image has run on this host yet. Apply the specification that is wanted.",
    "SpareImageDamaged": "The spare image cannot be used as it is. Apply its specification with a depot that has it, "
                         "to have it built anew.",
    "SpaceShort": "{1} bytes are needed on the file system of {2}, and {3} are free or can be made free there.",
    "DepotLeftOut": "The depot at {1} could not be read, and was left out.",
    "BaseImageVersionsKnown": "The depots have the Base Image in these versions: {1}.",
    "AddonVersionsKnown": "The depots have Addon {1} in these versions: {2}.",
    "AddonNamesKnown": "No depot has an Addon {1}. There is: {2}.",
    "ComponentVersionsKnown": "The depots have Component {1} in these versions: {2}.",
    "ComponentNamesKnown": "No depot has a Component {1}. There is: {2}.",
    "HardwareSupportKnown": "The depots have these Hardware Support Packages: {1}.",
    "SolutionVersionsKnown": "The depots have Solution {1} in these versions: {2}.",
    "SolutionNamesKnown": "No depot has a Solution {1}. There is: {2}.",
    "NotActivated": "not activated: {1}.",
    "ServiceState": "Service {1} is {2}.",
    "ServiceLog": "The last log lines of {1}: {2}",
    "ServiceLeftAlone": "Service {1} is left alone: {2}.",
    "NameTaken": "{1} of package {2} has the name of {3}, which the host has already.",
    "PrefixTaken": "{1} is in the way: it has to be a link to {2}. Move it away and try again.",
    "MaintenanceModeNeeded": "These packages change only while the host is in maintenance mode: {1}.",
    "PutBack": "The host runs the image from before again.",
    "BankUnusable": "Bank {1} of the image cannot be used: {2}.",
    "ComponentWanted": "{1} wants {2} {3}.",
    "ComponentWantedUnknown": "{1} wants {2} {3}. There is: {4}.",
    "ComponentPinned": "{1} pins {2} {3}.",
    "ComponentKept": "{1} has {2} {3}, which is not lowered.",
    "ComponentRemoved": "{1} removes {2}.",
    "ComponentNeeds": "{1} needs {2} {3}.",
    "ComponentNeedsPinned": "{1} needs {2} {3}, but {4} pins {5}.",
    "ComponentNeedsUnknown": "{1} needs {2} {3}. There is: {4}.",
    "ComponentClashes": "{1} does not go with {2} {3}.",
    "ComponentClashesPinned": "{1} does not go with {2} {3}, and {4} pins {5}.",
    "ComponentsInCircle": "These need each other in a circle: {1}.",
    "ReasonsLeftOut": "There are {1} more reasons.",
    "com.tessel.ryx.host_settings.command.late": "It was given up after {1} seconds. Registered depots may answer too "
                                                 "slowly.",
    "com.tessel.ryx.host_settings.command.reason": "Reason: {1}",
    "com.tessel.ryx.host_settings.command.words": "'{1}' has blanks in it: a name or version is one word.",
    "com.tessel.ryx.host_settings.depot.exists": "Depot '{1}' is registered already, for {2}. Delete it to register "
                                                 "another location under this name.",
    "com.tessel.ryx.host_settings.depot.name.form":
        "'{1}' cannot be a depot's name: a name is one word of at most 256 characters, does not begin with '-', and "
        "has none of ; \\ * + % $ ~ ! \" ' : in it.",
    "com.tessel.ryx.host_settings.depot.registered": "These depots are registered: {1}.",
    "com.tessel.ryx.host_settings.software.component.form":
        "'{1}' cannot be a component's name: letters, digits, '.', '_' and '-', of which the first is a letter or "
        "digit.",
    "com.tessel.ryx.host_settings.software.component.unlisted":
        "The desired software names no component '{1}'. It names: {2}.",
    "com.tessel.ryx.host_settings.software.unset":
        "No software is desired yet. Set the software specification or the RYX version first.",
    "com.tessel.ryx.host_settings.software.version.form":
        "'{1}' is not a version: numbers with dots between them, and behind a '-' those of a release, as in 8.0.2-1.",
    "com.tessel.ryx.orbi.invalidinput": "Required input is either missing or invalid.",
    "com.tessel.ryx.apply.invalid.depots": "No depots provided.",
    "com.tessel.ryx.apply.no.input": "No changes specified.",
    "com.tessel.ryx.host_settings.cm.validation.error": "Input document failed validation.",
    "com.tessel.ryx.kestrel_daemon.configuration.apply.generic.error":
        "There was a generic failure observed during the apply operation.",
    "com.tessel.ryx.kestrel_daemon.configuration.check_apply.error": "Check Apply API failed with a generic error.",
    "com.tessel.ryx.kestrel_daemon.configuration.parse.error": "Parsing of configuration document failed.",
    "com.tessel.ryx.settings.place": "{1}: {2}",
    "com.tessel.ryx.lifecycle.task.contention": "Another task possibly in progress. Try later.",
}

# These tell that what was asked for exists but cannot run on this host or together.
INCOMPATIBILITIES = frozenset((
    "AcceptanceConfigError", "AddonBaseImageMismatchError", "AddonValidationError", "BaseimageValidationError",
    "ComponentDowngradeError", "ComponentValidationError", "IncompatibleSolutionCompsError",
    "IncompatibleSolutionComponentError", "ManifestBaseImageMismatchError", "ManifestConflictError",
    "LiveInstallationError", "MaintenanceModeError", "ServiceEnableError",
    "MultipleManifestError", "PaxCertStoreError", "PaxHwPlatformError", "PaxSigDigestError", "PaxSigFormatError",
    "PaxSigInvalidError", "PaxSigMissingError"))

INVALID_INPUT = "com.tessel.ryx.orbi.invalidinput"


def full_identifier(name):
    """The identifier of a text in TEXTS."""
    return name if "." in name else PREFIX + name


class Note:
    """A further message beside that of a failure, by its name in TEXTS: why it came, or what to do."""

    def __init__(self, name, *args):
        self.identifier, self.arguments = full_identifier(name), [str(a) for a in args]

    @property
    def text(self):
        """The identifier's text with its arguments filled in."""
        parts = TEXTS.get(self.identifier.removeprefix(PREFIX), self.identifier).split("{")
        filled = parts[:1]
        for part in parts[1:]:
            number, _, rest = part.partition("}")
            filled.append(self.arguments[int(number) - 1] + rest)
        return "".join(filled)


class TaskError(Exception):
    """A failure with the identifier and arguments that a task's record carries, and the Notes that go along.

    `detail` is for the log: what exactly was wrong, where the identifier's own text does not say it. It is told to
    clients, too, where no note says it better.
    """

    def __init__(self, identifier, args=(), detail="", notes=()):
        super().__init__(identifier, args, detail)
        self._told, self.detail = Note(identifier, *args), detail
        self.notes = list(notes) or ([Note("Detail", str(detail)[:2000])] if str(detail) else [])

    @property
    def identifier(self):
        return self._told.identifier

    @property
    def arguments(self):
        return self._told.arguments

    @property
    def text(self):
        """The identifier's text with its arguments filled in."""
        return self._told.text

    def messages(self):
        """Everything that a client is told, the failure's own message first."""
        return [self, *self.notes]

    def recorded(self):
        """The members by which a failed task's record tells this failure."""
        told = {"error": {"message": {"id": self.identifier, "args": self.arguments}}}
        if self.notes:
            from tessel_lifecycle.document import compact
            from tessel_lifecycle.plain_json import error_value, message
            told["exception"] = compact(error_value("error", *map(message, self.notes)))
        return told

    def __str__(self):
        return f"{self.text} ({self.detail})" if self.detail else self.text


class ImageError(TaskError):
    """One of the failures in TEXTS, by its short name."""

    def __init__(self, name, *args, detail="", notes=()):
        super().__init__(PREFIX + name, args, detail, notes)
        self.name = name


class CommandError(Exception):
    """An inline command's failure: the exit code its caller knows, the reason for people, and what clients are told."""

    def __init__(self, exit_code, reason, notes=()):
        super().__init__(reason)
        self.exit_code = exit_code
        self.notes = [*(reason.messages() if isinstance(reason, TaskError) else ()), *notes]


class UsageError(Exception):
    """A command line that the command does not take."""


EXISTS, INTERNAL, NOT_FOUND, NOT_REACHABLE, BAD_ARGUMENT, NO_IMAGE_INFO = 80, 81, 82, 83, 84, 145
