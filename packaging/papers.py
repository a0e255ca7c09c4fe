"""Writes the papers of the packages from what was really built and linked.

    papers.py notices BUILD         writes BUILD/THIRD-PARTY-NOTICES.txt
    papers.py materials BUILD OUT   writes OUT/quillmon-VERSION.spdx.json for the packages in OUT

The build's own record of inputs says which library is in which program. The headers, libraries and
packages that were used give the versions. Only the licences are written down here.
"""

import hashlib
import json
import os
import re
import subprocess
import sys
import uuid
import zipfile
from datetime import datetime, timezone
from pathlib import Path
from urllib.parse import quote

SOURCE = Path(__file__).resolve().parents[1]
PROGRAMS = ("quillmon.exe", "quillmonctl.exe", "quillmon-till.exe")
SETUP = "quillmon-setup.dll"  # inside the installer
# The folders by which libraries of headers are included.
HEADER_LIBRARIES = {"fmt": "fmt", "CLI": "cli11", "nlohmann": "nlohmann-json",
                    "asio": "asio", "asio.hpp": "asio"}
# SPDX licence expressions; the full texts are in the notices.
LICENCES = {
    "xerces-c": "Apache-2.0",
    "fmt": "MIT",
    "nlohmann-json": "MIT",
    "cli11": "BSD-3-Clause",
    "asio": "BSL-1.0",
    "gcc-runtime": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "mingw-w64-runtime": "ZPL-2.1 AND MIT AND BSD-3-Clause",
}


def output(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


class Build:
    def __init__(self, folder):
        self.folder = Path(folder).resolve()
        cache = (self.folder / "CMakeCache.txt").read_text()
        self.version = re.search(r"^CMAKE_PROJECT_VERSION:STATIC=(.*)$", cache, re.M)[1]
        found = next(self.folder.glob("CMakeFiles/*/CMakeCXXCompiler.cmake")).read_text()
        self.compiler = re.search(r'^set\(CMAKE_CXX_COMPILER "(.*)"\)$', found, re.M)[1]
        self.programs = [name for name in PROGRAMS if (self.folder / name).exists()]
        # "object: #deps ...", then its headers, one an indented line.
        self.headers = {}
        for line in output("ninja", "-C", str(self.folder), "-t", "deps").splitlines():
            if line.startswith(" "):
                self.headers[target].append(line.strip())
            elif line:
                target = line.split(":")[0]
                self.headers[target] = []

    def inputs(self, program):
        return output("ninja", "-C", str(self.folder), "-t", "inputs", program).splitlines()

    def libraries_of(self, program):
        """{library: one of its files that went into the program}"""
        found = {"gcc-runtime": self.linked("libstdc++.a"),  # linked statically, as any program
                 "mingw-w64-runtime": self.linked("libmingw32.a")}
        toolchain = (self.linked("include").parent,
                     (self.linked("libmingw32.a").parents[1] / "include/wchar.h").resolve().parent)
        for name in self.inputs(program):
            if name.endswith("/libxerces-c.a"):
                found["xerces-c"] = Path(name).resolve()
            for header in self.headers.get(name, ()):
                file = (self.folder / header).resolve()
                library = next((library for folder, library in HEADER_LIBRARIES.items()
                                if folder in file.parts), None)
                if library:
                    found[library] = file
                elif not any(map(file.is_relative_to, (SOURCE, *toolchain))) and (
                        "xercesc" not in file.parts):
                    sys.exit(f"papers.py: {file} belongs to no library that is known here")
        return found

    def components(self):
        """Each as (name, version, package URL, what was done with it, its licence files)."""
        used = {}
        for program in self.programs:
            used.update(self.libraries_of(program))
        for name, file in sorted(used.items()):
            yield self.xerces(file) if name == "xerces-c" else self.packaged(name, file)

    def linked(self, library):
        return Path(output(self.compiler, f"-print-file-name={library}").strip()).resolve()

    def xerces(self, library):
        prefix = library.parents[1]
        papers = prefix / "share" / "doc" / "xerces-c"
        version = re.search(r'^set\(PACKAGE_VERSION "([\d.]+)"', next(prefix.rglob(
            "XercesCConfigVersion.cmake")).read_text(), re.M)[1]
        source = (papers / "source.dsc").read_text()
        package = re.search(r"^Version: (.*)$", source, re.M)[1]
        sums = re.search(r"^Checksums-Sha256:\n((?: .*\n)+)", source, re.M)[1].splitlines()
        text = "Built from " + " and ".join("{2} (SHA-256 {0})".format(*line.split())
                                            for line in sums)
        text += "; patches: " + ", ".join((papers / "patches").read_text().split()) + "."
        return ("xerces-c", version, f"pkg:deb/debian/xerces-c@{quote(package)}?arch=source", text,
                [papers / "LICENSE", papers / "NOTICE"])

    @staticmethod
    def packaged(name, file):
        """A component out of the Debian package that owns `file`."""
        package = output("dpkg", "-S", str(file)).split(":")[0]
        version, source, source_version = output(
            "dpkg-query", "-W", "-f=${Version} ${source:Package} ${source:Version}",
            package).split()
        return (name, re.match(r"(?:\d+:)?([\d.]+)", version)[1],
                f"pkg:deb/debian/{source}@{quote(source_version)}?arch=source",
                f"From Debian's package {package} {version}.",
                [Path("/usr/share/doc") / package / "copyright"])


def notices(build):
    parts = ["Quillmon contains the following works of others, under the terms below.\n"]
    for name, version, _, text, files in build.components():
        parts.append(f"{'=' * 100}\n{name} {version} ({LICENCES[name]})\n{text}\n{'=' * 100}\n")
        parts += [file.read_text(encoding="utf-8", errors="replace") for file in files]
    (build.folder / "THIRD-PARTY-NOTICES.txt").write_text("\n".join(parts), encoding="utf-8")


def materials(build, out):
    now = datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), timezone.utc)
    files, relations = [], [("SPDXRef-DOCUMENT", "DESCRIBES", "SPDXRef-quillmon")]

    def add_file(name, content):
        identifier = "SPDXRef-file-" + re.sub(r"[^\w.-]", "-", name)
        files.append({
            "SPDXID": identifier, "fileName": "./" + name,
            "checksums": [{"algorithm": algorithm,
                           "checksumValue": hashlib.new(algorithm.lower(), content).hexdigest()}
                          for algorithm in ("SHA1", "SHA256")],
            "licenseConcluded": "NOASSERTION", "licenseInfoInFiles": ["NOASSERTION"],
            "copyrightText": "NOASSERTION"})
        relations.append(("SPDXRef-quillmon", "CONTAINS", identifier))
        return identifier

    for package in sorted(out.iterdir()):
        identifier = add_file(package.name, package.read_bytes())
        if package.suffix == ".msi":
            relations += [(identifier, "STATIC_LINK", "SPDXRef-" + library)
                          for library in build.libraries_of(SETUP)]
        else:
            with zipfile.ZipFile(package) as archive:
                for program in build.programs:
                    name = next(n for n in archive.namelist() if n.endswith("/" + program))
                    identifier = add_file(program, archive.read(name))
                    relations += [(identifier, "STATIC_LINK", "SPDXRef-" + library)
                                  for library in build.libraries_of(program)]
    packages = [{
        "SPDXID": "SPDXRef-quillmon", "name": "quillmon", "versionInfo": build.version,
        "supplier": "Organization: ORVEX", "downloadLocation": "NOASSERTION",
        "filesAnalyzed": False, "primaryPackagePurpose": "APPLICATION",
        "licenseConcluded": "NOASSERTION", "licenseDeclared": "NOASSERTION",
        "copyrightText": "NOASSERTION"}]
    for name, version, purl, text, _ in build.components():
        packages.append({
            "SPDXID": "SPDXRef-" + name, "name": name, "versionInfo": version,
            "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "sourceInfo": text,
            "licenseConcluded": "NOASSERTION", "licenseDeclared": LICENCES[name],
            "copyrightText": "NOASSERTION",
            "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                              "referenceLocator": purl}]})
    content = json.dumps(files).encode()
    document = {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"quillmon-{build.version}",
        # Of the content, so that the same packages have the same paper.
        "documentNamespace": uuid.UUID(bytes=hashlib.sha256(content).digest()[:16], version=5).urn,
        "creationInfo": {"created": now.strftime("%Y-%m-%dT%H:%M:%SZ"),
                         "creators": ["Organization: ORVEX", "Tool: packaging/papers.py"]},
        "packages": packages, "files": files,
        "relationships": [{"spdxElementId": a, "relationshipType": kind, "relatedSpdxElement": b}
                          for a, kind, b in relations]}
    path = out / f"quillmon-{build.version}.spdx.json"
    path.write_text(json.dumps(document, indent=1) + "\n")


if __name__ == "__main__":
    if sys.argv[1] == "notices":
        notices(Build(sys.argv[2]))
    else:
        materials(Build(sys.argv[2]), Path(sys.argv[3]))
