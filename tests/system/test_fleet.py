"""What a fleet sees of a till: its metrics, its baseline, and the samples for monitoring, by the
programs that read them."""

import http.server
import json
import re
import shutil
import signal
import threading
import time
import tomllib

import pytest
import yaml

from machine import BUILD, ROOT, wait_until
from monitoring import prometheus, promtool
from peers import Peer, device, framed, response
from ports import reserve_port

EXE = "C:\\Quillmon\\quillmonctl.exe"
SAMPLES = ROOT / "samples" / "monitoring"
METRICS = "C:\\metrics\\quillmon.prom"
EXPECTED = "C:\\expected.json"


class Tool:
    """The command line on a machine with the installed service and a till."""

    def __init__(self, machine):
        self.machine = machine
        shutil.copy(BUILD / "quillmonctl.exe", machine.home)
        self.till = machine.start_till("--quiet")  # nobody reads what it would say
        machine.install_service()
        machine.wait_for_event_port(self.till.events)
        self.textfile = machine.c / "metrics" / "quillmon.prom"
        self.expected = machine.c / "expected.json"

    def run(self, *arguments, code=0):
        done = self.machine.run(EXE, *arguments)
        assert done.returncode == code, (arguments, done.returncode, done.out, done.err)
        return done

    def json(self, *arguments, code=0):
        return json.loads(self.run(*arguments, "--json", code=code).stdout)

    def failure(self, *arguments, code):
        """What a failed call says, on one line."""
        return " ".join(self.run(*arguments, code=code).err.split())

    def metrics(self, *arguments, code=0):
        return self.run("metrics", *arguments, code=code).stdout.decode()

    def use_device_server(self, port):
        self.machine.configure(upos__requestSocket__Port=port,
                               provider__eventSocket__Port=self.till.events)

    def detach(self, name):
        self.till.type(f"detach {name}")
        wait_until(lambda: f'device="{name}"' not in self.metrics(), f"{name} to be gone")

    def attach(self, name):
        self.till.type(f"attach {name}")
        wait_until(lambda: f'device="{name}"' in self.metrics(), f"{name} to be there")


@pytest.fixture(scope="module")
def shared_tool(shared_machine):
    return Tool(shared_machine)


@pytest.fixture
def tool(shared_tool):
    """Without textfile and baseline, and with the till as the device server."""
    yield shared_tool
    shared_tool.use_device_server(shared_tool.till.requests)
    shutil.rmtree(shared_tool.textfile.parent, ignore_errors=True)
    shared_tool.expected.unlink(missing_ok=True)


def series(text):
    """{series: value} of a text."""
    lines = [line for line in text.splitlines() if line and not line.startswith("#")]
    found = dict(line.rsplit(" ", 1) for line in lines)
    assert len(found) == len(lines), "a series is there twice"
    return found


# -- metrics

def test_the_metrics_hold_every_device_and_its_category_s_counters(tool):
    text = tool.metrics()
    found = series(text)
    assert found["quillmon_up"] == "1"
    assert found['quillmon_device_info{device="PRINTER1",category="POSPrinter",maker="ORVEX",'
                 'model="RP-80 receipt & journal",serial="RP80-2210-0098",firmware="3.0.4"}'] == "1"
    assert found['quillmon_device_powered_seconds_total{device="SCANNER1",category="Scanner"}'] == (
        str(19874 * 3600))
    assert found['quillmon_scanner_good_scan_total{device="SCANNER2",category="Scanner"}'] == (
        "204871")
    assert found['quillmon_pos_printer_receipt_line_printed_total'
                 '{device="PRINTER1",category="POSPrinter"}'] == "21488031"
    assert sum(name.startswith("quillmon_device_info") for name in found) == 9
    assert text.endswith("\n# EOF\n") and "\r" not in text
    # Its key count exceeds the service's conversion.
    assert not any("key_pressed" in name for name in found)


def test_promtool_finds_nothing_wrong_with_the_metrics(tool):
    tool.run("expect", "--from-now", EXPECTED)
    done = promtool("check", "metrics", stdin=tool.metrics("--expected", EXPECTED))
    assert (done.returncode, done.stdout) == (0, "")


def test_the_textfile_is_replaced_as_a_whole(tool):
    tool.textfile.parent.mkdir()
    tool.textfile.write_text("old\n" * 10000)
    done = tool.run("metrics", "--textfile", METRICS)
    assert done.out == "9 devices in C:\\metrics\\quillmon.prom\n"
    assert tool.textfile.read_text() == tool.metrics()
    assert [file.name for file in tool.textfile.parent.iterdir()] == ["quillmon.prom"]


def test_the_metrics_for_scripts_are_an_object(tool):
    result = tool.json("metrics")
    assert (result["up"], result["devices"], result["file"]) == (True, 9, "")
    assert result["text"] == tool.metrics()
    assert tool.json("metrics", "--textfile", METRICS) == {
        "up": True, "devices": 9, "file": METRICS}


def block_writing(tool):
    """A folder stands where the draft of the textfile would; the textfile is an old one."""
    (tool.textfile.parent / "quillmon.prom.new").mkdir(parents=True)
    tool.textfile.write_text("old\n")


def test_a_textfile_that_cannot_be_written_is_named_and_the_old_one_stays(tool):
    block_writing(tool)
    text = tool.failure("metrics", "--textfile", METRICS, code=5)
    assert text.startswith(f"quillmonctl: failed: making {METRICS}.new error 5: ")
    assert tool.textfile.read_text() == "old\n"


def test_a_service_that_cannot_ask_is_down_and_its_old_devices_are_gone(tool):
    tool.run("metrics", "--textfile", METRICS)
    tool.use_device_server(reserve_port())
    text = tool.failure("metrics", "--textfile", METRICS, code=1)
    assert "failed: listing UPOS_LogicalDevice through WMI error 0x80041001" in text
    assert series(tool.textfile.read_text()) == {"quillmon_up": "0"}
    assert tool.json("metrics", "--textfile", METRICS, code=1)["error"]["code"] == 0x80041001
    wait_until(lambda: tool.machine.run(EXE, "metrics").returncode == 1, "the same again")
    tool.use_device_server(tool.till.requests)
    # The pause after the failed connect has to pass, or the service to start anew.
    tool.machine.restart_service(tool.till.events)


def test_a_device_server_that_does_not_answer_is_down_after_the_time_out(tool):
    release = threading.Event()
    with Peer(answer=lambda connection, request: release.wait(60)) as stalled:
        tool.use_device_server(stalled.port)
        text = tool.failure("metrics", "--timeout", "1", "--textfile", METRICS, code=6)
        assert "failed: listing UPOS_LogicalDevice: no answer within 1 s" in text
        assert series(tool.textfile.read_text()) == {"quillmon_up": "0"}
        release.set()


def test_hostile_names_stay_inside_their_labels(tool):
    hostile = response(
        device('A"} 1&#10;quillmon_up 7', ModelName="&#9;back\\slash", SerialNumber="\u00e9"),
        device("TWICE", ModelName="first", CommunicationErrorCount=("uint32", "1")),
        device("TWICE", ModelName="second", CommunicationErrorCount=("uint32", "2")),
        device("SIGNED", CommunicationErrorCount=("uint32", "-1")))
    with Peer(answer=framed(hostile)) as server:
        tool.use_device_server(server.port)
        text = tool.metrics()
    done = promtool("check", "metrics", stdin=text)
    assert (done.returncode, done.stdout) == (0, "")
    found = series(text)
    assert found["quillmon_up"] == "1"
    assert any(r'device="A\"} 1\\x0aquillmon_up 7"' in name for name in found), text
    assert [value for name, value in found.items() if "TWICE" in name and "error" in name] == ["1"]
    assert [value for name, value in found.items() if "SIGNED" in name and "error" in name] == [
        "4294967295"]


def test_a_category_that_is_not_served_costs_only_its_own_properties(tool):
    def answer(connection, request):
        instances = [] if b"UPOS_Scanner" in request else [
            device(DeviceCategory="Scanner", CommunicationErrorCount=("uint32", "5"))]
        connection.sendall(framed(response(*instances)))
    with Peer(answer=answer) as server:
        tool.use_device_server(server.port)
        assert tool.json("get", "SCANNER1")["__CLASS"] == "UPOS_LogicalDevice"
        found = series(tool.metrics())
    assert found["quillmon_up"] == "1"
    assert found['quillmon_device_communication_error_total'
                 '{device="SCANNER1",category="Scanner"}'] == "5"
    assert not any("good_scan" in name for name in found)


def start_watch(tool, *arguments):
    watch = tool.machine.start(EXE, "metrics", "--textfile", METRICS, "--watch", "1", *arguments)
    assert watch.stdout.readline() == (
        b"Replacing C:\\metrics\\quillmon.prom every 1 s; Ctrl-C ends.\n")
    return watch


def read(file):
    """Its text, or none while there is no such file."""
    return file.read_text() if file.is_file() else ""


def test_watching_replaces_the_file_and_tells_the_time_of_the_last_event(tool):
    watch = start_watch(tool)
    wait_until(lambda: "quillmon_up 1" in read(tool.textfile), "the file")
    assert "last_event" not in read(tool.textfile)
    before = int(time.time())
    tool.till.type("change SCALE1 2")
    stamp = wait_until(lambda: re.search(r"^quillmon_last_event_timestamp_seconds (\d+)$",
                                         read(tool.textfile), re.MULTILINE), "the event's time")
    assert before <= int(stamp[1]) <= time.time()
    watch.kill()


def test_watching_goes_on_when_the_file_could_not_be_written_once(tool):
    block_writing(tool)
    watch = start_watch(tool)
    assert watch.stdout.readline().startswith(
        b"quillmonctl: failed: making C:\\metrics\\quillmon.prom.new")
    assert tool.textfile.read_text() == "old\n"
    (tool.textfile.parent / "quillmon.prom.new").rmdir()
    wait_until(lambda: "quillmon_up 1" in read(tool.textfile), "the file")
    watch.kill()


def test_watching_outlives_the_service(tool):
    watch = start_watch(tool)
    wait_until(lambda: "quillmon_up 1" in read(tool.textfile), "the till to be up")
    tool.machine.stop_service()
    wait_until(lambda: "quillmon_up 0" in read(tool.textfile), "the till to be down")
    tool.machine.restart_service(tool.till.events)
    wait_until(lambda: "quillmon_up 1" in read(tool.textfile), "the till to be up again")

    def has_event():
        tool.till.type("change SCALE1 2")  # it may not have subscribed again yet
        return "quillmon_last_event" in read(tool.textfile)
    wait_until(has_event, "an event", longest_pause=0.5)
    watch.kill()


def test_ctrl_c_ends_the_watching_and_leaves_the_file(tool):
    watch = start_watch(tool)
    wait_until(lambda: "quillmon_up 1" in read(tool.textfile), "the file")
    watch.send_signal(signal.SIGINT)
    watch.wait(timeout=30)
    assert [file.name for file in tool.textfile.parent.iterdir()] == ["quillmon.prom"]
    assert read(tool.textfile).endswith("# EOF\n")


@pytest.mark.parametrize("line", [["--watch", "5"], ["--textfile", METRICS, "--watch", "0"]])
def test_watching_needs_a_file_and_a_time(tool, line):
    assert "quillmonctl: --watch" in tool.failure("metrics", *line, code=2)


# -- the baseline

def test_status_doctor_and_metrics_tell_missing_and_new_devices(tool):
    assert "9 devices are expected from now on" in " ".join(
        tool.run("expect", "--from-now", EXPECTED).out.split())
    assert tool.json("status", "--expected", EXPECTED)["expected"] == {
        "expected": 9, "missing": [], "new": []}
    assert "expected       all 9 devices are there, and no other\n" in (
        tool.run("doctor", "--expected", EXPECTED).out)
    tool.detach("PRINTER1")
    tool.attach("MICR1")
    try:
        status = tool.json("status", "--expected", EXPECTED, code=3)["expected"]
        assert [one["device"] for one in status["missing"]] == ["PRINTER1"]
        assert [one["device"] for one in status["new"]] == ["MICR1"]
        text = tool.run("status", "--expected", EXPECTED, code=3).out
        assert re.search(r"^missing +PRINTER1 \(POSPrinter\)\nnew +MICR1 \(MICR\)$", text,
                         re.MULTILINE)
        text = tool.run("doctor", "--expected", EXPECTED, code=3).out
        assert "BAD   expected       1 of 9 missing: PRINTER1 (POSPrinter)\n" in text
        assert "WARN  expected       1 new: MICR1 (MICR)\n" in text
        found = series(tool.metrics("--expected", EXPECTED))
        assert found['quillmon_device_present{device="PRINTER1",category="POSPrinter"}'] == "0"
        assert found['quillmon_device_expected{device="PRINTER1",category="POSPrinter"}'] == "1"
        assert found['quillmon_device_expected{device="MICR1",category="MICR"}'] == "0"
    finally:
        tool.detach("MICR1")
        tool.attach("PRINTER1")


def test_without_a_baseline_nothing_is_expected(tool):
    assert tool.json("status")["expected"] is None
    assert "quillmon_device_expected" not in tool.metrics()


def test_nothing_is_missing_while_nobody_answers(tool):
    tool.run("expect", "--from-now", EXPECTED)
    tool.machine.stop_service()
    found = series(tool.metrics("--expected", EXPECTED, code=1))
    assert found["quillmon_up"] == "0"
    assert not any(name.startswith("quillmon_device_present") for name in found)
    assert sum(name.startswith("quillmon_device_expected") for name in found) == 9
    assert tool.json("status", "--expected", EXPECTED, code=3)["expected"] is None
    tool.machine.restart_service(tool.till.events)


@pytest.mark.parametrize("content, why", [
    (None, "there is no such file"),
    ("garbage", 'it is not a file of "quillmonctl expect"'),
    ('{"computer": "TILL-OTHER", "devices": [{"device": "A", "category": "B"}]}',
     "they are those of TILL-OTHER, and this is ")])
@pytest.mark.parametrize("command", [["status"], ["doctor"], ["metrics", "--textfile", METRICS]])
def test_a_bad_baseline_ends_with_2_before_anything_is_done(tool, command, content, why):
    if content:
        tool.expected.write_text(content)
    text = tool.failure(*command, "--expected", EXPECTED, code=2)
    assert text.startswith(f"quillmonctl: failed: reading the expected devices from {EXPECTED}: "
                           f"{why}"), text
    assert "what to do: Write" in text
    assert not tool.textfile.exists()


def test_a_baseline_without_a_computer_holds_for_any_till(tool):
    tool.run("expect", "--from-now", EXPECTED)
    baseline = json.loads(tool.expected.read_text())
    assert baseline.pop("computer")
    tool.expected.write_text(json.dumps(baseline))
    assert tool.json("status", "--expected", EXPECTED)["expected"]["missing"] == []


def test_an_old_baseline_stays_when_no_new_one_can_be_made(tool):
    tool.run("expect", "--from-now", EXPECTED)
    before = tool.expected.read_bytes()
    (tool.machine.c / "expected.json.new").mkdir()
    assert f"making {EXPECTED}.new" in tool.failure("expect", "--from-now", EXPECTED, code=5)
    (tool.machine.c / "expected.json.new").rmdir()
    with Peer(answer=framed(response())) as empty:
        tool.use_device_server(empty.port)
        assert "none is listed" in tool.failure("expect", "--from-now", EXPECTED, code=1)
    assert tool.expected.read_bytes() == before


# -- Prometheus and the samples for it

def with_short_waits(rules):
    """The sample's rules; a test cannot wait for minutes."""
    return re.sub(r"for: \d+m", "for: 1s", rules.read_text())


def dashboard_queries():
    """{panel's title: query}, for all tills and a short range."""
    dashboard = json.loads((SAMPLES / "grafana-dashboard.json").read_text())
    return {panel["title"] + f" {panel['id']}": target["expr"].replace("$instance", ".*")
            .replace("$__rate_interval", "1m")
            for panel in dashboard["panels"] for target in panel["targets"]}


@pytest.fixture
def open_metrics(tool):
    """Serves the textfile as OpenMetrics; returns a scrape configuration."""
    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            self.send_response(200)
            self.send_header("Content-Type",
                             "application/openmetrics-text; version=1.0.0; charset=utf-8")
            self.end_headers()
            self.wfile.write(tool.textfile.read_bytes())

        def log_message(self, *_):
            pass
    port = reserve_port()
    server = http.server.ThreadingHTTPServer(("127.0.0.1", port), Handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    yield f"  - job_name: open\n    static_configs: [{{targets: ['127.0.0.1:{port}']}}]\n"
    server.shutdown()
    server.server_close()


def test_prometheus_has_every_series_and_fires_for_a_device_that_disappears(
        tool, tmp_path, open_metrics):
    def write():
        tool.run("metrics", "--textfile", METRICS, "--expected", EXPECTED)
        return tool.textfile.read_text()
    rules = tmp_path / "rules.yml"
    rules.write_text(with_short_waits(SAMPLES / "prometheus-rules.yml"))
    tool.run("expect", "--from-now", EXPECTED)
    text = write()
    with prometheus(tool.textfile.parent, rules, tmp_path, open_metrics) as server:
        for job in ("tills", "open"):
            wanted = {name: float(value) for name, value in series(text).items()}
            server.wait_for(f'quillmon_up{{job="{job}"}} == 1')
            assert server.query(f'up{{job="{job}"}}')[0][1] == 1
            got = {}
            for labels, value in server.query(f'{{__name__=~"quillmon_.+", job="{job}"}}'):
                got[labels["__name__"], labels.get("device"), labels.get("category")] = value
            assert len(got) == len(wanted)
            for name, value in wanted.items():
                family, _, rest = name.partition("{")
                found = dict(re.findall(r'(\w+)="((?:[^"\\]|\\.)*)"', rest))
                assert got[family, found.get("device"), found.get("category")] == value, name
        assert server.query("node_textfile_scrape_error")[0][1] == 0
        types = server.ask("metadata")
        for family in re.findall(r"^# TYPE (\w+) (\w+)$", text, re.MULTILINE):
            assert {one["type"] for one in types[family[0]]} == {family[1]}
        assert server.firing() == {}

        tool.detach("PRINTER1")
        tool.attach("MICR1")
        try:
            write()
            wait_until(lambda: {"TillDeviceMissing", "TillDeviceNew"} <= set(server.firing()),
                       "the alerts")
            alerts = server.firing()
            assert {alert["device"] for alert in alerts["TillDeviceMissing"]} == {"PRINTER1"}
            assert {alert["device"] for alert in alerts["TillDeviceNew"]} == {"MICR1"}
            for panel, query in dashboard_queries().items():
                server.wait_for(query, f"the panel {panel}")
        finally:
            tool.detach("MICR1")
            tool.attach("PRINTER1")
        write()
        wait_until(lambda: not server.firing(), "the alerts to end")


def test_the_alert_rules_pass_their_unit_tests():
    done = promtool("check", "rules", SAMPLES / "prometheus-rules.yml")
    assert done.returncode == 0 and "SUCCESS: 6 rules found" in done.stdout, done.stdout
    done = promtool("test", "rules", SAMPLES / "prometheus-rules.test.yml")
    assert done.returncode == 0 and "SUCCESS" in done.stdout, done.stdout


def test_every_alert_rule_has_a_unit_test_in_which_it_fires():
    rules = yaml.safe_load((SAMPLES / "prometheus-rules.yml").read_text())
    names = {rule["alert"] for group in rules["groups"] for rule in group["rules"]}
    tests = yaml.safe_load((SAMPLES / "prometheus-rules.test.yml").read_text())["tests"]
    fired = {one["alertname"] for test in tests for one in test["alert_rule_test"]
             if one.get("exp_alerts")}
    assert fired == names


def test_the_collector_s_scrape_configuration_is_one_for_prometheus(tmp_path):
    sample = yaml.safe_load((SAMPLES / "otel-collector.yaml").read_text())
    config = tmp_path / "prometheus.yml"
    config.write_text(yaml.safe_dump(sample["receivers"]["prometheus"]["config"]))
    done = promtool("check", "config", config)
    assert done.returncode == 0 and "SUCCESS" in done.stdout, done.stdout
    pipeline = sample["service"]["pipelines"]["metrics"]
    for kind in ("receivers", "processors", "exporters"):
        assert set(pipeline[kind]) == set(sample[kind])


def test_the_samples_name_the_same_file():
    telegraf = tomllib.loads((SAMPLES / "telegraf.conf").read_text())
    [reader] = telegraf["inputs"]["file"]
    zabbix = yaml.safe_load((SAMPLES / "zabbix-template.yaml").read_text())["zabbix_export"]
    [template] = zabbix["templates"]
    assert reader["files"] == [template["macros"][0]["value"]]
    assert reader["data_format"] == "prometheus"
    assert reader["files"][0] in (ROOT / "docs" / "fleet.md").read_text()


def test_the_samples_name_metrics_that_are_written(tool):
    tool.run("expect", "--from-now", EXPECTED)
    written = {name.partition("{")[0] for name in series(tool.metrics("--expected", EXPECTED))}
    for sample in SAMPLES.iterdir():
        named = set(re.findall(r"\bquillmon_[a-z_0-9]*[a-z0-9]\b", sample.read_text()))
        assert named <= written, sample
        assert named or sample.name in ("telegraf.conf", "otel-collector.yaml"), sample
