"""A certification authority of the tests, made at its first use, and another that nobody trusts."""

import functools
import os

from servers.process import new_folder, run

_KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes")


class Authority:
    def __init__(self, name):
        self.folder = new_folder(f"ca_{name}")
        self.certificate = os.path.join(self.folder, "ca.pem")
        self._key = os.path.join(self.folder, "ca.key")
        run("openssl", "req", "-x509", *_KEY, "-days", "30", "-subj", f"/CN=Test Authority {name}",
            "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign",
            "-keyout", self._key, "-out", self.certificate)

    def issue(self, names, days=30):
        """Certificate and key of a server; `names` such as IP:127.0.0.1,DNS:dc1.corp.test. Less than no `days`: it
        has expired."""
        stem = os.path.join(self.folder, "".join(c if c.isalnum() else "_" for c in f"{names}{days}"))
        request, extensions = f"{stem}.csr", f"{stem}.ext"
        with open(extensions, "w", encoding="ascii") as file:
            file.write(f"subjectAltName={names}\nextendedKeyUsage=serverAuth\n")
        run("openssl", "req", *_KEY, "-subj", "/CN=server", "-keyout", f"{stem}.key", "-out", request)
        run("openssl", "x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey", self._key,
            "-CAcreateserial", "-days", str(days), "-out", f"{stem}.pem", "-extfile", extensions)
        return f"{stem}.pem", f"{stem}.key"


@functools.cache
def authority(name="trusted"):
    return Authority(name)
