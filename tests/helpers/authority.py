"""Certificates and revocation lists made on the spot by openssl, as an authority of a test issues them."""

import datetime
import subprocess

CONFIGURATION = """
[ca]
default_ca = own
[own]
database = {folder}/database
new_certs_dir = {folder}
serial = {folder}/serial
crlnumber = {folder}/number
default_md = sha256
policy = any
unique_subject = no
[any]
commonName = supplied
organizationName = optional
[req]
distinguished_name = any
prompt = no
"""
SIGNER = "extendedKeyUsage=codeSigning\nkeyUsage=digitalSignature\nbasicConstraints=critical,CA:FALSE\n"
ISSUER = "basicConstraints=critical,CA:TRUE\nkeyUsage=keyCertSign,cRLSign\n"


def openssl(*words):
    return subprocess.run(["openssl", *map(str, words)], check=True, capture_output=True)


def new_key(path):
    openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", path)
    return path


def self_signed(folder, name, extensions=SIGNER, days=900):
    """A certificate that its own key vouches for, and the key: both paths."""
    folder.mkdir(parents=True, exist_ok=True)
    key, certificate = new_key(folder / f"{name}.key"), folder / f"{name}.pem"
    options = [word for line in extensions.split() for word in ("-addext", line)]
    openssl("req", "-x509", "-new", "-key", key, "-subj", f"/CN={name}", "-days", days, "-out", certificate, *options,
            "-config", _configuration(folder))
    return certificate, key


def _configuration(folder):
    path = folder / "ca.cnf"
    path.write_text(CONFIGURATION.format(folder=folder))
    return path


class Authority:
    """An authority: `certificate` and `key` are its own."""

    def __init__(self, folder, name="root", issuer=None):
        self.folder = folder / name
        if issuer is None:
            self.certificate, self.key = self_signed(self.folder, name, ISSUER)
        else:
            self.folder.mkdir()
            self.certificate, self.key = issuer.issue(name, ISSUER)
        self._configuration = _configuration(self.folder)
        (self.folder / "database").touch()
        for counter in ("serial", "number"):
            (self.folder / counter).write_text("01\n")

    def _ca(self, *words):
        openssl("ca", "-config", self._configuration, "-cert", self.certificate, "-keyfile", self.key, *words)

    def issue(self, name, extensions=SIGNER, since=-1, until=30, key=None):
        """A certificate that holds between two days from today, and its key: both paths."""
        key = key or new_key(self.folder / f"{name}.key")
        request, certificate, wanted = (self.folder / f"{name}.{kind}" for kind in ("csr", "pem", "ext"))
        openssl("req", "-new", "-key", key, "-subj", f"/CN={name}", "-out", request, "-config", self._configuration)
        wanted.write_text(extensions)
        self._ca("-batch", "-notext", "-in", request, "-out", certificate, "-extfile", wanted,
                 "-startdate", day(since), "-enddate", day(until))
        return certificate, key

    def revoke(self, certificate):
        self._ca("-revoke", certificate)

    def revocation_list(self, since=-1, until=30):
        """The path of a list of what was revoked so far."""
        path = self.folder / f"{since}-{until}.crl"
        self._ca("-gencrl", "-crl_lastupdate", day(since), "-crl_nextupdate", day(until), "-out", path)
        return path


def day(days):
    """The time so many days from now, as openssl takes it."""
    moment = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(days=days)
    return moment.strftime("%Y%m%d%H%M%SZ")
