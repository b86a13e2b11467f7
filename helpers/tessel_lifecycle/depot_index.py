"""A depot's index, and the signature over it.

    index.json        names the metadata files; a signed one tells from when to when it holds (`issued`, `valid_until`)
    index.json.cms    its detached signature
"""

import datetime
import os

from tessel_lifecycle import files
from tessel_lifecycle.clock import now, shown_time
from tessel_lifecycle.document import compact

INDEX = "index.json"
SIGNATURE = INDEX + ".cms"


def write(folder, index, sign=None, valid_for=None):
    """Writes the index of the depot in a folder: `index` (a JSON value), with a signature if `sign` makes one.

    @param valid_for  days for which it holds, if it is signed
    """
    path, issued = os.path.join(folder, SIGNATURE), now()
    index = {name: value for name, value in index.items() if name not in ("issued", "valid_until")}
    if sign is None:
        files.remove(path)
    else:
        valid_until = issued + datetime.timedelta(days=valid_for)
        index |= {"issued": shown_time(issued), "valid_until": shown_time(valid_until)}
    data = compact(index).encode()
    if sign is not None:
        files.replace(path, sign(data))
    files.replace(os.path.join(folder, INDEX), data)
