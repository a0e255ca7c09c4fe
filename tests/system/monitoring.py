"""Prometheus and its node exporter, as Debian has them, for the tests and the demo.

monitoring.py FOLDER RULES WORK: serves the textfiles of FOLDER by a node exporter to a Prometheus
with the alert rules of RULES, and prints the address of that Prometheus once it is ready. Both end
with the standard input. WORK is for their own files.
"""

import contextlib
import json
import subprocess
import sys
import urllib.parse
import urllib.request
from pathlib import Path

from machine import ROOT, wait_until
from ports import reserve_port

TOOLS = ROOT / "build" / "deps" / "prometheus" / "usr" / "bin"


def promtool(*arguments, stdin=None):
    """Runs it to its end; its output, errors included, in stdout."""
    return subprocess.run([TOOLS / "promtool", *map(str, arguments)], input=stdin, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60)


class Prometheus:
    """A running server."""

    def __init__(self, port):
        self.address = f"http://127.0.0.1:{port}"

    def ask(self, path, **parameters):
        """What its API answers, or None while it does not answer."""
        with contextlib.suppress(OSError):
            address = f"{self.address}/api/v1/{path}?{urllib.parse.urlencode(parameters)}"
            with urllib.request.urlopen(address, timeout=10) as answer:
                return json.load(answer)["data"]
        return None

    def query(self, expression):
        """The series of an expression, as [(labels, value)]."""
        answer = self.ask("query", query=expression)
        return [(one["metric"], float(one["value"][1])) for one in answer["result"]]

    def wait_for(self, expression, what=None):
        """The series, once there are some: scraping takes its time."""
        return wait_until(lambda: self.query(expression), what or expression)

    def firing(self):
        """{alert name: labels of its alerts} of the alerts that fire."""
        alerts = {}
        for alert in self.ask("alerts")["alerts"]:
            if alert["state"] == "firing":
                alerts.setdefault(alert["labels"]["alertname"], []).append(alert["labels"])
        return alerts


@contextlib.contextmanager
def running(log, *command):
    with open(log, "wb") as output:
        process = subprocess.Popen(list(map(str, command)), stdin=subprocess.DEVNULL,
                                   stdout=output, stderr=output)
    try:
        yield process
    finally:
        process.kill()
        process.wait()


@contextlib.contextmanager
def prometheus(folder, rules, work, jobs=""):
    """Serves the textfiles of a folder as the job "tills". `jobs`: more scrape configurations."""
    exporter, server = reserve_port(), reserve_port()
    (work / "prometheus.yml").write_text(f"""\
global: {{scrape_interval: 1s, scrape_timeout: 1s, evaluation_interval: 1s}}
rule_files: ['{rules}']
scrape_configs:
  - job_name: tills
    static_configs: [{{targets: ['127.0.0.1:{exporter}']}}]
{jobs}""")
    with contextlib.ExitStack() as processes:
        processes.enter_context(running(
            work / "exporter.log", TOOLS / "prometheus-node-exporter",
            f"--web.listen-address=127.0.0.1:{exporter}", "--collector.disable-defaults",
            "--collector.textfile", f"--collector.textfile.directory={folder}"))
        process = processes.enter_context(running(
            work / "prometheus.log", TOOLS / "prometheus",
            f"--web.listen-address=127.0.0.1:{server}", f"--config.file={work}/prometheus.yml",
            f"--storage.tsdb.path={work}/data", "--log.level=warn"))
        result = Prometheus(server)

        def is_ready():
            assert process.poll() is None, (work / "prometheus.log").read_text()
            return result.ask("query", query="up")
        wait_until(is_ready, "Prometheus to answer", seconds=60)
        yield result


if __name__ == "__main__":
    with prometheus(sys.argv[1], sys.argv[2], Path(sys.argv[3])) as started:
        print(started.address, flush=True)
        sys.stdin.read()
