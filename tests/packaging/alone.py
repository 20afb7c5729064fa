#!/usr/bin/env python3
"""alone.py PACKAGES TEST...: runs pytest in namespaces of its own (network, mounts, processes), for tests that
install the packages of that folder. Status 77, a skipped test, where that is impossible."""

import glob
import os
import shutil
import subprocess
import sys

NAMESPACES = ["unshare", "--net", "--mount", "--pid", "--ipc", "--uts", "--fork", "--kill-child", "--mount-proc"]


def skip(reason):
    print(f"SKIPPED: {reason}")
    sys.exit(77)


def main():
    folder = os.path.abspath(sys.argv[1])
    if os.geteuid() != 0:
        skip("needs root for namespaces of its own")
    if not glob.glob(f"{folder}/quarn-authd_*.deb"):
        skip(f"no packages in {folder}; make deb-test builds and tries them")
    if missing := [tool for tool in ("debootstrap", "dpkg-deb", "systemd-nspawn") if not shutil.which(tool)]:
        skip(f"without {', '.join(missing)}; make deb-test installs what is missing")
    if subprocess.run(NAMESPACES + ["true"], capture_output=True, check=False).returncode != 0:
        skip("no namespaces on this machine")
    os.environ["AUTHD_PACKAGES"] = folder
    import bare_root  # pylint: disable=import-outside-toplevel # it wants to know the folder

    bare_root.make_roots()  # before the network is gone
    pytest = [sys.executable, "-B", "-m", "pytest", "-q", "-ra", "-p", "no:cacheprovider", *sys.argv[2:]]
    os.execvp(NAMESPACES[0], NAMESPACES + pytest)


if __name__ == "__main__":
    main()
