"""What scripts/package leaves: the archive, the sums, the bill of materials, signatures."""

import hashlib
import json
import os
import re
import shutil
import subprocess
import zipfile
from types import SimpleNamespace

import pytest

from machine import BUILD, ROOT

ALL_PROCESSORS = True


def pack(folder, **environment):
    # The time of the last commit is the default: one may be made between two packings.
    environment = {**os.environ, "SOURCE_DATE_EPOCH": "1767225600", **environment}
    subprocess.run([ROOT / "packaging" / "pack", BUILD, folder], check=True,
                   stdout=subprocess.DEVNULL, env=environment)
    return folder


@pytest.fixture(scope="module")
def packages(tmp_path_factory):
    return pack(tmp_path_factory.mktemp("packages"))


def one(folder, pattern):
    found = list(folder.glob(pattern))
    assert len(found) == 1, found
    return found[0]


def bill(folder):
    return json.loads(one(folder, "*.spdx.json").read_text())


def sha256(content):
    return hashlib.sha256(content).hexdigest()


def test_the_sums_are_of_every_package_and_paper(packages):
    lines = (packages / "SHA256SUMS").read_text().splitlines()
    sums = dict(reversed(line.split("  ")) for line in lines)
    files = {file.name: sha256(file.read_bytes()) for file in packages.iterdir()
             if file.name != "SHA256SUMS"}
    assert sums == files
    assert sorted(name.rpartition(".")[2] for name in files) == ["json", "msi", "zip"]


def test_the_archive_holds_what_a_till_needs(packages):
    archive = zipfile.ZipFile(one(packages, "*.zip"))
    top = one(packages, "*.zip").stem
    names = {name.removeprefix(top + "/") for name in archive.namelist() if name[-1] != "/"}
    assert names >= {
        "quillmon.exe", "quillmonctl.exe", "quillmon-till.exe", "quillmon.mof",
        "quillmon-uninstall.mof", "config/quillmon.properties", "config/zontrace.cfg",
        "samples/till.xml", "docs/install.md", "scripts/acceptance.ps1", "CHANGELOG.md",
        "THIRD-PARTY-NOTICES.txt"}
    # The rules for Prometheus come with their test.
    names.remove("samples/monitoring/prometheus-rules.test.yml")
    assert not [name for name in names if "test" in name or name.endswith((".cpp", ".h", ".py"))]
    assert archive.read(f"{top}/quillmon.mof") == (ROOT / "mof" / "quillmon.mof").read_bytes()


def test_one_number_is_the_version_everywhere(packages):
    project = (ROOT / "CMakeLists.txt").read_text()
    version = re.search(r"project\(quillmon VERSION ([\d.]+)", project)[1]
    assert {file.name for file in packages.iterdir()} == {
        f"quillmon-{version}-win64.msi", f"quillmon-{version}-win64.zip",
        f"quillmon-{version}.spdx.json", "SHA256SUMS"}
    assert bill(packages)["packages"][0]["versionInfo"] == version


def test_the_bill_of_materials_is_sound(packages):
    document = bill(packages)
    assert document["spdxVersion"] == "SPDX-2.3" and document["dataLicense"] == "CC0-1.0"
    assert document["SPDXID"] == "SPDXRef-DOCUMENT" and document["name"]
    assert re.fullmatch(r"urn:uuid:[0-9a-f-]{36}", document["documentNamespace"])
    created = document["creationInfo"]["created"]
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", created)
    assert all(re.match(r"(Tool|Organization|Person): .", who)
               for who in document["creationInfo"]["creators"])
    elements = [document, *document["packages"], *document["files"]]
    identifiers = [element["SPDXID"] for element in elements]
    assert len(set(identifiers)) == len(identifiers)
    assert all(re.fullmatch(r"SPDXRef-[A-Za-z0-9.-]+", name) for name in identifiers)
    for package in document["packages"]:
        assert re.fullmatch(r"[\d.]+", package["versionInfo"]), package
        assert package["downloadLocation"] and package["filesAnalyzed"] is False
        assert package["licenseDeclared"] and package["licenseConcluded"]
    for relation in document["relationships"]:
        assert relation["spdxElementId"] in identifiers
        assert relation["relatedSpdxElement"] in identifiers
        assert relation["relationshipType"] in ("DESCRIBES", "CONTAINS", "STATIC_LINK")


def test_the_bill_of_materials_is_of_these_files(packages):
    content = {file.name: file.read_bytes() for file in packages.iterdir()}
    with zipfile.ZipFile(one(packages, "*.zip")) as archive:
        for name in archive.namelist():
            if name.endswith(".exe"):
                content[name.rpartition("/")[2]] = archive.read(name)
    listed = {file["fileName"].removeprefix("./"): file["checksums"]
              for file in bill(packages)["files"]}
    assert set(listed) == {name for name in content if name.endswith((".exe", ".msi", ".zip"))}
    for name, checksums in listed.items():
        for checksum in checksums:
            algorithm = checksum["algorithm"].lower()
            assert checksum["checksumValue"] == hashlib.new(algorithm, content[name]).hexdigest()


def test_the_bill_of_materials_names_what_was_linked(packages):
    document = bill(packages)
    component = {package["name"]: package for package in document["packages"]}
    linked = {(relation["spdxElementId"].removeprefix("SPDXRef-file-"),
               relation["relatedSpdxElement"].removeprefix("SPDXRef-"))
              for relation in document["relationships"]
              if relation["relationshipType"] == "STATIC_LINK"}
    assert linked >= {("quillmon.exe", "xerces-c"), ("quillmon.exe", "gcc-runtime"),
                      ("quillmon.exe", "mingw-w64-runtime"), ("quillmon-till.exe", "asio"),
                      ("quillmon-till.exe", "fmt"), ("quillmon-till.exe", "cli11")}
    assert not linked & {("quillmon.exe", "asio"), ("quillmonctl.exe", "asio"),
                         ("quillmonctl.exe", "xerces-c")}
    # The versions against what the program and the build themselves say.
    library = re.search(r"^xerces_version=(.*)$", (ROOT / "scripts/lib.sh").read_text(), re.M)[1]
    assert component["xerces-c"]["versionInfo"] == library
    for patch in (ROOT / "cmake" / "patches").iterdir():
        assert patch.name in component["xerces-c"]["sourceInfo"]
    compiler = re.search(rb"GCC: \(GNU\) (\d+)", (BUILD / "quillmon.exe").read_bytes())[1].decode()
    assert component["gcc-runtime"]["versionInfo"].split(".")[0] == compiler
    headers = (BUILD / "headers" / "fmt" / "fmt" / "core.h").read_text()
    number = int(re.search(r"#define FMT_VERSION (\d+)", headers)[1])
    assert component["fmt"]["versionInfo"] == (
        f"{number // 10000}.{number // 100 % 100}.{number % 100}")


def test_the_notices_carry_the_terms_of_every_component(packages):
    with zipfile.ZipFile(one(packages, "*.zip")) as archive:
        name = next(n for n in archive.namelist() if n.endswith("THIRD-PARTY-NOTICES.txt"))
        notices = archive.read(name).decode()
    for component in bill(packages)["packages"][1:]:
        assert f"{component['name']} {component['versionInfo']} (" in notices
    for terms in ("Apache License", "This product includes software developed by",  # Xerces-C
                  "GCC RUNTIME LIBRARY EXCEPTION", "ZPL-2.1", "Boost Software License"):
        assert terms.lower() in notices.lower(), terms


def table(packages, name):
    """The rows of one of the installer's tables, each as {column: text}."""
    lines = subprocess.run(["msiinfo", "export", one(packages, "*.msi"), name], check=True,
                           stdout=subprocess.PIPE, text=True).stdout.splitlines()
    columns = lines[0].split("\t")
    return [dict(zip(columns, line.split("\t"), strict=True)) for line in lines[3:]]


def test_each_step_of_the_installer_follows_one_that_takes_it_back(packages):
    in_script, rollback, as_system = 0x400, 0x100, 0x800
    kinds = {row["Action"]: int(row["Type"]) for row in table(packages, "CustomAction")}
    order = sorted(table(packages, "InstallExecuteSequence"), key=lambda row: int(row["Sequence"]))
    steps = 0
    for before, row in zip(order, order[1:]):
        kind = kinds.get(row["Action"], 0)
        if kind & in_script and not kind & rollback:
            steps += 1
            assert kind & as_system
            assert kinds[before["Action"]] & (in_script | rollback | as_system) == (
                in_script | rollback | as_system), row
            assert before["Condition"] == row["Condition"]
    assert steps == 6
    names = [row["Action"] for row in order]
    assert names.index("MakeFolders") < names.index("CreateFolders") < names.index("InstallFiles")
    # The new version is complete before the old one goes.
    assert names[-2:] == ["InstallFinalize", "RemoveExistingProducts"]


def test_an_installation_with_windows_decides_nothing_in_them(packages):
    assert [row["Action"] for row in table(packages, "InstallUISequence")] == ["ExecuteAction"]


def test_the_installer_s_registry_keys_end_in_a_name(packages):
    keys = {row["Key"] for row in table(packages, "Registry")}
    assert len(keys) == 3 and not [key for key in keys if key.endswith("\\")]


def test_each_error_of_the_installer_is_documented(packages):
    source = (ROOT / "packaging" / "setup" / "SetupActions.cpp").read_text()
    said = set(re.findall(r"Refusal\{(\d+),|refuse\(\{(\d+),", source))
    numbers = {int(one or other) for one, other in said}
    for row in table(packages, "LaunchCondition"):
        numbers.add(int(re.match(r"Quillmon error (\d+): ", row["Description"])[1]))
    documented = (ROOT / "docs" / "install.md").read_text().partition("| error |")[2]
    listed = re.findall(r"^\| (\d+) \|", documented.partition("\n\n")[0], re.MULTILINE)
    assert sorted(numbers) == list(map(int, listed))


def test_the_same_build_makes_the_same_packages(packages, tmp_path):
    again = pack(tmp_path / "again")
    assert (again / "SHA256SUMS").read_text() == (packages / "SHA256SUMS").read_text()


@pytest.fixture(scope="module")
def signer(tmp_path_factory):
    """A throw-away key with its certificate."""
    folder = tmp_path_factory.mktemp("signer")
    key, certificate = folder / "key.pem", folder / "certificate.pem"
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
         "-keyout", key, "-out", certificate, "-subj", "/CN=Throw-away signer",
         "-addext", "extendedKeyUsage=codeSigning", "-addext", "keyUsage=digitalSignature"],
        check=True, stderr=subprocess.DEVNULL)
    return SimpleNamespace(key=key, certificate=certificate)


def verify(file, certificate):
    return subprocess.run(["osslsigncode", "verify", "-CAfile", certificate, "-in", file],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


def test_programs_and_installer_are_signed_if_a_key_is_given(signer, tmp_path):
    signed = pack(tmp_path / "signed", QUILLMON_SIGN_CERT=str(signer.certificate),
                  QUILLMON_SIGN_KEY=str(signer.key))
    installer = one(signed, "*.msi")
    with zipfile.ZipFile(one(signed, "*.zip")) as archive:
        archive.extractall(tmp_path / "unpacked")
    subprocess.run(["msiextract", "-C", tmp_path / "installed", installer], check=True,
                   stdout=subprocess.DEVNULL)
    setup = tmp_path / "quillmon-setup.dll"  # the custom actions
    setup.write_bytes(subprocess.run(["msiinfo", "extract", installer, "Binary.Setup"],
                                     check=True, stdout=subprocess.PIPE).stdout)
    programs = [installer, setup, *(tmp_path / "unpacked").rglob("*.exe"),
                *(tmp_path / "installed").rglob("*.exe")]
    assert len(programs) == 8
    for program in programs:
        done = verify(program, signer.certificate)
        assert done.returncode == 0 and "Throw-away signer" in done.stdout, done.stdout
    # The verification can fail: one byte of the program changed.
    tampered = tmp_path / "tampered.exe"
    content = bytearray(programs[2].read_bytes())
    content[len(content) // 2] ^= 1
    tampered.write_bytes(content)
    assert verify(tampered, signer.certificate).returncode != 0
    unsigned = verify(BUILD / "quillmon.exe", signer.certificate)
    assert unsigned.returncode != 0


def sign(file, **environment):
    return subprocess.run([ROOT / "packaging" / "sign", file], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True,
                          env={**os.environ, **{k: str(v) for k, v in environment.items()}})


def test_a_signing_service_s_command_signs(signer, tmp_path):
    file = tmp_path / "program.exe"
    shutil.copy(BUILD / "quillmon.exe", file)
    service = tmp_path / "service"
    service.write_text(f"#!/bin/sh\nexec osslsigncode sign -h sha256 -certs {signer.certificate}"
                       f" -key {signer.key} -in \"$2\" -out \"$3\"\n")
    service.chmod(0o755)
    done = sign(file, QUILLMON_SIGN_COMMAND=f"{service} --any-option",
                QUILLMON_SIGN_CA=signer.certificate)
    assert done.returncode == 0, done.stdout
    assert verify(file, signer.certificate).returncode == 0


def test_a_command_that_signs_nothing_is_not_believed(signer, tmp_path):
    file = tmp_path / "program.exe"
    shutil.copy(BUILD / "quillmon.exe", file)
    before = sha256(file.read_bytes())
    done = sign(file, QUILLMON_SIGN_COMMAND="cp", QUILLMON_SIGN_CA=signer.certificate)
    assert done.returncode != 0 and done.stdout
    assert sha256(file.read_bytes()) == before
    assert list(tmp_path.iterdir()) == [file]


def test_a_key_on_a_token_signs(signer, tmp_path):
    module = "/usr/lib/softhsm/libsofthsm2.so"
    (tmp_path / "tokens").mkdir()
    configuration = tmp_path / "softhsm2.conf"
    configuration.write_text(f"directories.tokendir = {tmp_path / 'tokens'}\n")
    environment = {**os.environ, "SOFTHSM2_CONF": str(configuration)}
    for arguments in (
            ["--init-token", "--free", "--label", "release", "--so-pin", "9876"],
            ["--import", signer.key, "--token", "release", "--label", "signer", "--id", "01"]):
        subprocess.run(["softhsm2-util", *arguments, "--pin", "1234"], check=True, env=environment,
                       stdout=subprocess.DEVNULL)
    pin = tmp_path / "pin"
    pin.write_text("1234")
    file = tmp_path / "program.exe"
    shutil.copy(BUILD / "quillmon.exe", file)
    done = sign(file, SOFTHSM2_CONF=configuration, QUILLMON_SIGN_PKCS11_MODULE=module,
                QUILLMON_SIGN_KEY="pkcs11:token=release;object=signer",
                QUILLMON_SIGN_PASSWORD_FILE=pin, QUILLMON_SIGN_CERT=signer.certificate)
    assert done.returncode == 0, done.stdout
    assert verify(file, signer.certificate).returncode == 0
