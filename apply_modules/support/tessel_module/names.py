"""Names and texts of the host's configuration files."""

import ipaddress
import re

from tessel_module.program import Refusal

_LABEL = re.compile(r"[A-Za-z0-9]([A-Za-z0-9-]{0,61}[A-Za-z0-9])?")


def is_address(text):
    """Whether it is an IPv4 or IPv6 address."""
    try:
        ipaddress.ip_address(text)
    except ValueError:
        return False
    return "%" not in text


def is_host(text):
    """Whether it is an address or the name of a host (RFC 1123, 2.1)."""
    labels = text.removesuffix(".").split(".")
    named = len(text) <= 254 and all(_LABEL.fullmatch(label) for label in labels) and not labels[-1].isdigit()
    return named or is_address(text)


def carried(text, form, path):
    """The text, when it has a form that a file's syntax can carry. @throws Refusal"""
    if not re.fullmatch(form, text):
        raise Refusal("com.tessel.modules.text", path, text)
    return text
