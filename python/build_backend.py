"""Builds vexawire with the standard library alone, so that neither setuptools
nor wheel has to be installed:

- pip's build backend (pyproject.toml): a wheel, an editable wheel, an sdist;
- the single-file zipapp that any python3 of 3.9 or later runs without pip:
      python3 -B build_backend.py OUTPUT.pyz VERSION    (CMake's vexawire_zipapp)

The version comes from the CMake project (vexawire/version.py) and is written
into what is built, never into the source tree.
"""

import base64
import hashlib
import io
import os
import sys
import tarfile
import tempfile
import zipapp
import zipfile

sys.dont_write_bytecode = True  # reading the version leaves the source tree as it is
HERE = os.path.dirname(os.path.abspath(__file__))

from vexawire.version import version, version_module  # noqa: E402

NAME = "vexawire"
ENTRY_POINT = "vexawire.__main__:main"
SUMMARY = "Pure-Python peer (test client and host) for the framed messages of libvexatool64"
# An sdist holds the license beside this file, the repository one folder up.
LICENSE_PLACES = (os.path.join(HERE, "LICENSE"), os.path.join(HERE, os.pardir, "LICENSE"))


def _read(path):
    with open(path, "rb") as source:
        return source.read()


def _license():
    for path in LICENSE_PLACES:
        if os.path.exists(path):
            return _read(path)
    raise FileNotFoundError("no LICENSE beside %s or one folder up" % HERE)


def _package(ver):
    """{path in the archive: bytes} of the package, its version written in."""
    folder = os.path.join(HERE, NAME)
    files = {NAME + "/" + name: _read(os.path.join(folder, name))
             for name in sorted(os.listdir(folder))
             if name.endswith(".py") and name != "_version.py"}
    files[NAME + "/_version.py"] = version_module(ver)
    return files


def _metadata(ver):
    head = ("Metadata-Version: 2.1\nName: %s\nVersion: %s\nSummary: %s\nLicense: Apache-2.0\n"
            "License-File: LICENSE\n"
            "Classifier: License :: OSI Approved :: Apache Software License\n"
            "Requires-Python: >=3.9\nDescription-Content-Type: text/markdown\n\n"
            % (NAME, ver, SUMMARY))
    return head.encode() + _read(os.path.join(HERE, "README.md"))


def _write_wheel(directory, files):
    ver = version()
    info = "%s-%s.dist-info/" % (NAME, ver)
    files = dict(files)
    files[info + "METADATA"] = _metadata(ver)
    files[info + "LICENSE"] = _license()
    files[info + "WHEEL"] = (b"Wheel-Version: 1.0\nGenerator: vexawire build_backend\n"
                             b"Root-Is-Purelib: true\nTag: py3-none-any\n")
    files[info + "entry_points.txt"] = ("[console_scripts]\n%s = %s\n"
                                        % (NAME, ENTRY_POINT)).encode()
    record = ""
    for path, data in files.items():
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=")
        record += "%s,sha256=%s,%d\n" % (path, digest.decode(), len(data))
    files[info + "RECORD"] = (record + info + "RECORD,,\n").encode()
    name = "%s-%s-py3-none-any.whl" % (NAME, ver)
    with zipfile.ZipFile(os.path.join(directory, name), "w", zipfile.ZIP_DEFLATED) as wheel:
        for path, data in files.items():
            entry = zipfile.ZipInfo(path, date_time=(1980, 1, 1, 0, 0, 0))
            entry.external_attr = 0o644 << 16  # readable by all, as installed files should be
            wheel.writestr(entry, data, zipfile.ZIP_DEFLATED)
    return name


# PEP 517 and PEP 660 hooks; the optional ones are left to pip's defaults (no
# build requirements, metadata taken from the wheel).
def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    return _write_wheel(wheel_directory, _package(version()))


def build_editable(wheel_directory, config_settings=None, metadata_directory=None):
    # The .pth puts this folder on the path: the source tree is what runs.
    return _write_wheel(wheel_directory, {NAME + ".pth": (HERE + "\n").encode()})


def build_sdist(sdist_directory, config_settings=None):
    ver = version()
    files = _package(ver)
    files["PKG-INFO"] = _metadata(ver)
    files["LICENSE"] = _license()
    for name in ("pyproject.toml", "README.md", "build_backend.py"):
        files[name] = _read(os.path.join(HERE, name))
    base = "%s-%s" % (NAME, ver)
    with tarfile.open(os.path.join(sdist_directory, base + ".tar.gz"), "w:gz",
                      format=tarfile.PAX_FORMAT) as sdist:
        for path, data in sorted(files.items()):
            entry = tarfile.TarInfo(base + "/" + path)
            entry.size, entry.mode = len(data), 0o644
            sdist.addfile(entry, io.BytesIO(data))
    return base + ".tar.gz"


def build_zipapp(output, ver):
    with tempfile.TemporaryDirectory() as stage:
        files = _package(ver)
        # zipapp's own --main ignores main()'s result; the exit status must pass.
        files["__main__.py"] = b"import sys\nfrom vexawire.__main__ import main\nsys.exit(main())\n"
        for path, data in files.items():
            os.makedirs(os.path.dirname(os.path.join(stage, path)), exist_ok=True)
            with open(os.path.join(stage, path), "wb") as out:
                out.write(data)
        zipapp.create_archive(stage, output, interpreter="/usr/bin/env python3", compressed=True)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: python3 -B build_backend.py OUTPUT.pyz VERSION")
    build_zipapp(sys.argv[1], sys.argv[2])
