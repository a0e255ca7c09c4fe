"""The client samples that Wine's script host can run, against the installed service."""

import json
import re

from machine import ROOT

CLIENTS = ROOT / "samples" / "clients"


def cscript(machine, name, *arguments):
    (machine.c / name).write_bytes((CLIENTS / name).read_bytes())
    return machine.run("cscript", "//nologo", f"C:\\{name}", *arguments)


def test_the_list_sample_prints_every_device(shared_machine, till):
    done = cscript(shared_machine, "devices.vbs")
    lines = [line.split("\t") for line in done.out.splitlines() if line]
    assert done.returncode == 0
    assert lines[0] == ["SCANNER1", "Scanner", "Veltran", "VS-3200 bi-optic", "VS32-004711",
                        "4.12.0"]
    assert len(lines) == 9


def test_the_list_sample_prints_one_class(shared_machine, till):
    done = cscript(shared_machine, "devices.vbs", "UPOS_Scale")
    assert [line.split("\t")[0] for line in done.out.splitlines() if line] == ["SCALE1"]


def test_the_list_sample_names_a_class_that_is_not_there(shared_machine, till):
    done = cscript(shared_machine, "devices.vbs", "UPOS_Nonsense")
    assert (done.out.strip(), done.returncode) == ("devices: UPOS_Nonsense: error 0x80041002", 1)


def test_the_device_sample_prints_the_reported_properties(shared_machine, till):
    done = cscript(shared_machine, "device.js", "UPOS_Scanner", "SCANNER1")
    properties = dict(line.split(" = ", 1) for line in done.out.splitlines() if line)
    assert done.returncode == 0
    assert properties["SerialNumber"] == "VS32-004711"
    assert properties["HoursPoweredCount"] == "19874"


def test_the_device_sample_fails_for_a_device_that_is_not_there(shared_machine, till):
    done = cscript(shared_machine, "device.js", "UPOS_Scanner", "NOBODY")
    assert (done.out.strip(), done.returncode) == (
        'device: UPOS_Scanner.DeviceID="NOBODY": error 0x80041001', 1)


def test_the_device_sample_prints_the_properties_asked_for(shared_machine, till):
    done = cscript(shared_machine, "device.js", "UPOS_Scale", "SCALE1", "GoodWeightReadCount",
                   "CapUpdateStatistics")  # which this scale does not report
    assert (done.out, done.returncode) == ("GoodWeightReadCount = 402118\n", 0)


def properties(name):
    """{property: type} of a class of ours."""
    classes = json.loads((ROOT / "mof" / "quillmon.json").read_text())
    [found] = [one for one in classes if one["name"] == name]
    return {one["name"]: one["type"] for one in found["properties"]}


def members(mof, name):
    """The same of a class in a sample's MOF text."""
    body = re.search(r"\bclass " + name + r"\b[^{]*\{(.*?)^\};", mof, re.DOTALL | re.MULTILINE)
    assert body, f"no class {name}"
    return {found[1]: found[0]
            for found in re.findall(r"\]\s*(string|uint32|boolean) (\w+);", body[1])}


def test_the_inventory_names_properties_that_the_classes_have():
    inventory = (ROOT / "samples" / "inventory" / "hardware-inventory.mof").read_text()
    reported = re.findall(r"^class (\w+) : SMS_Class_Template", inventory, re.MULTILINE)
    assert reported == ["UPOS_LogicalDevice", "UPOS_Scanner"]
    for name in reported:
        have = properties("UPOS_Device") | properties(name)
        asked = members(inventory, name)
        assert "DeviceID" in asked
        assert asked.items() <= have.items()


def test_the_event_log_sample_names_properties_that_an_event_has():
    sample = (ROOT / "samples" / "inventory" / "events-to-eventlog.mof").read_text()
    template = re.search(r'InsertionStringTemplates = \{"(.*)"\}', sample)[1]
    assert set(re.findall(r"%(\w+)%", template)) == set(properties("QuillmonEvent"))


def powershell_sources():
    sources = [*CLIENTS.glob("*.ps1"), ROOT / "packaging" / "scripts" / "acceptance.ps1"]
    assert len(sources) >= 3
    return {source.name: source.read_bytes().decode() for source in sources}


def test_the_powershell_sources_are_ascii_which_windows_powershell_reads_alike_everywhere():
    assert [name for name, text in powershell_sources().items() if not text.isascii()] == []


def test_the_powershell_sources_name_the_encoding_of_each_file_that_they_write():
    writes = re.compile(r"(Set-Content|Add-Content|Out-File|Export-Csv|Tee-Object|>>? *[$'\"])(.*)")
    for name, text in powershell_sources().items():
        unnamed = [found[0] for found in writes.finditer(re.sub(r"^ *#.*", "", text, flags=re.M))
                   if not re.search("-Encoding (UTF8|Ascii)", found[2])]
        assert unnamed == [], name


def test_every_claim_of_the_acceptance_script_is_on_the_page_of_claims():
    script = powershell_sources()["acceptance.ps1"]
    claims = {re.split(r" \$", one)[0].replace("''", "'")
              for _, one in re.findall(r"""Test-Claim (['"])(.*?)\1 \{""", script)}
    page = (ROOT / "docs" / "windows.md").read_text()
    rows = {line.split("|")[1].strip() for line in page.splitlines() if line.startswith("| ")}
    assert len(claims) > 20
    assert sorted(claims - rows) == []
