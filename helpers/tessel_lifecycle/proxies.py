"""The proxies through which this host reaches depots: `http_proxy`, `https_proxy` and `no_proxy` of its preferences.

What the environment says counts for nothing: the daemon's is nobody's choice.
"""

import functools
import ipaddress
import urllib.parse

from tessel_lifecycle import paths, platform_file
from tessel_lifecycle.fetch import Refused


def proxy_for(url):
    """The URL of the proxy to ask for this one, which may hold credentials; empty for none. @throws Refused"""
    parts = urllib.parse.urlsplit(url)
    name = f"{parts.scheme}_proxy"
    proxy = _preferences().get(name, "")
    if not proxy or _is_excepted(parts.hostname, _preferences().get("no_proxy", "")):
        return ""
    try:
        found = urllib.parse.urlsplit(proxy)
        if found.scheme in ("http", "https") and found.hostname and found.port != 0 and proxy.isascii():
            return proxy
    except ValueError:
        pass
    raise Refused(f"the preference {name} is no proxy's URL")


@functools.cache
def _preferences():
    try:
        return platform_file.read(paths.PREFERENCES)
    except (OSError, ValueError):
        return {}


def _is_excepted(host, listed):
    """Whether a host is this one, its link's, or one of `listed`: domains, addresses and networks, or * for all."""
    try:
        address = ipaddress.ip_address(host.partition("%")[0])
    except ValueError:
        address = None
    if host == "localhost" or address and (address.is_loopback or address.is_link_local):
        return True
    return any(_is_in(host, address, entry.lower().lstrip(".")) for entry in listed.replace(",", " ").split())


def _is_in(host, address, entry):
    if entry == "*" or host == entry:
        return True
    if address is None:
        return host.endswith("." + entry)
    try:
        return address in ipaddress.ip_network(entry, strict=False)
    except ValueError:
        return False
