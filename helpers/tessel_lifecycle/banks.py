"""Where the host's image lies: two banks, of which one is the running one.

    image/current -> a     the running bank; changed by one rename
    image/a, image/b       each with image.json (the database), root/ (the installed files), and of each package
                           descriptors/NAME.json and, if it was signed, NAME.cms;
                           files that both have alike are one file with two names
    image/a/unfit          there while that bank is nothing to go back to: it has never run, or did not come up
    image/stage            PAXs that were downloaded and verified
    image/store            PAXs of the banks, kept as they came
    image/activation.json  which bank has not come up well yet, and in place of which it runs
    image/reboot.json      what has been running since the boot of packages that wait for the next
    image/lock             locked while the image is being changed, or shared while it is being read out

Imported by commands that have to answer fast, so it imports little.
"""

import os

from tessel_lifecycle import files
from tessel_lifecycle.document import parse
from tessel_lifecycle.errors import ImageError

BANKS = ("a", "b")
ACTIVATION = "activation.json"  # there while the running bank has not come up well yet
MOST_DATABASE = 64 << 20


class Banks:
    """The banks below a directory. Without a current one nothing is installed."""

    def __init__(self, directory):
        self.directory = directory
        self.stage, self.store = os.path.join(directory, "stage"), os.path.join(directory, "store")

    def path(self, *parts):
        return os.path.join(self.directory, *parts)

    def current(self):
        """The running bank's name, or None. @throws ImageError"""
        try:
            bank = os.readlink(self.path("current"))
        except FileNotFoundError:
            return None
        except OSError as error:
            raise ImageError("StatelessError", detail=error) from error
        if bank not in BANKS or not os.path.isdir(self.path(bank)):
            raise ImageError("StatelessError", detail=f"current leads to {bank!r}")
        return bank

    def spare(self):
        """The name of the other bank if it is complete and ran before, or None. @throws ImageError"""
        bank = {"a": "b", "b": "a"}.get(self.current())
        return bank if bank and self.is_fit(bank) else None

    def is_fit(self, bank):
        """Whether a bank is complete, and one to go back to. One that is a link is another's folder."""
        return (not os.path.islink(self.path(bank)) and os.path.exists(self.path(bank, "image.json"))
                and not os.path.lexists(self.path(bank, "unfit")))

    def disown(self, bank):
        """Has a bank not be gone back to. @throws OSError"""
        open(self.path(bank, "unfit"), "w").close()
        files.sync_directory(self.path(bank))

    def keep(self, bank):
        """Has a bank, which runs, be one to go back to later."""
        files.remove(self.path(bank, "unfit"))

    def database(self):
        """The running bank's database as a JSON value, or None when nothing is installed. @throws ImageError"""
        bank = self.current()
        return None if bank is None else self.document(bank, "image.json")

    def document(self, *parts):
        """A JSON file of the image. @throws ImageError"""
        try:
            return parse(files.read_bounded(self.path(*parts), MOST_DATABASE))
        except OSError as error:
            raise ImageError("DatabaseIOError", detail=error) from error
        except ValueError as error:
            raise ImageError("DatabaseFormatError", detail=error) from error
