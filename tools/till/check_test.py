"""quillmon-till's checks as a program: of documents, and of a device server, which the simulated
till plays with each of its faults.

QUILLMON_TILL names it, as in till_test.py.
"""

import contextlib
import json
import os
import socket
import subprocess
import sys
import threading
import unittest
from concurrent.futures import ThreadPoolExecutor

from till_test import (BS, ESC, PATIENCE, PROGRAM, SCALES, Program, TillTestCase, reserve_port)

ATTACHED = 2  # of the devices in the till's file
GOOD, PROBLEM = 0, 3


class CheckDocumentTest(TillTestCase):
    def check(self, document, *options, code=GOOD, **environment):
        done = subprocess.run([*PROGRAM, "check-document", "-", *options], input=document,
                              capture_output=True, timeout=PATIENCE,
                              env=dict(os.environ, **environment))
        self.assertEqual(done.returncode, code, done)
        return done.stdout.decode().replace("\r", ""), done.stderr.decode().replace("\r", "")

    def findings(self, document, code=PROBLEM, **environment):
        report = json.loads(self.check(document, "--json", code=code, **environment)[0])
        return [(each["code"], each["field"]) for each in report["findings"]]

    def test_reports_on_standard_input_and_on_a_file(self):
        out, errors = self.check(SCALES)
        self.assertEqual(errors, "")
        self.assertTrue(out.startswith(
            f"standard input: {len(SCALES)} bytes: an answer, read (status 0)\n"
            "1 instance: 1 kept, 0 discarded\n"), out)
        self.write("answer.xml", SCALES.decode())
        code, from_file, _ = self.run_to_end("--json", "check-document", "answer.xml")
        self.assertEqual(code, GOOD)
        self.assertEqual(json.loads(from_file)["instances"],
                         [{"class": "UPOS_Scale", "device": "W1", "kept": True}])

    def test_ends_with_3_for_a_document_that_does_not_arrive_as_it_stands(self):
        out, _ = self.check(b"<response>\n <instance></response>", code=PROBLEM)
        self.assertIn("unreadable (status -1): expected end of tag 'instance' at line 2, column 14",
                      " ".join(out.split()))
        self.assertEqual(self.findings(SCALES.replace(b"ORVEX", b"orvex")), [("discarded", "")])
        self.assertEqual(self.findings(ESC + SCALES), [("no-frame-end", "")])
        self.assertEqual(self.findings(ESC + SCALES + BS, code=GOOD), [])

    def test_converts_as_the_service_does(self):
        for word, value, code in (
                ("uint32", "2147483647", None), ("uint64", "7", None),
                ("uint32", "2147483648", "not-converted"), ("uint32", "many", "not-converted"),
                ("uint64", "5120447318", "not-converted"), ("string", "7", "type-does-not-fit"),
                ("sint32", "7", "type-does-not-fit"), ("uint32", "-7", "negative")):
            field = f'<field name="HoursPoweredCount" type="{word}">{value}</field></instance>'
            self.assertEqual(
                self.findings(SCALES.replace(b"</instance>", field.encode()),
                              code=PROBLEM if code else GOOD),
                [(code, "HoursPoweredCount")] if code else [], (word, value))

    def test_takes_a_large_document(self):
        device = SCALES[SCALES.index(b"<instance"):SCALES.index(b"</response>")]
        out, _ = self.check(b"<response>" + device * 20000 + b"</response>")
        self.assertIn("20000 instances: 20000 kept, 0 discarded\n", out)
        self.assertIn("... and 19950 more\n", out)

    def test_a_failure_names_step_number_and_advice(self):
        code, out, errors = self.run_to_end("check-document", "nowhere.xml")
        self.assertEqual((code, out), (1, ""))
        self.assertRegex(errors, r"\Aquillmon-till: failed: reading nowhere\.xml\n  error 2: .+\n"
                                 r"  what to do: .+\n\Z")
        code, out, errors = self.run_to_end("check-document", "nowhere.xml", "--json")
        self.assertEqual((code, errors), (1, ""))
        self.assertEqual(json.loads(out)["error"]["code"], 2)
        for line in (["check-document"], ["check-document", "a", "b"],
                     ["check-document", "a", "--bogus"]):
            self.assertEqual(self.run_to_end(*line)[:2], (2, ""))


class WindowsTest(CheckDocumentTest):
    def test_names_characters_that_the_code_page_lacks(self):
        named = SCALES.replace(b"</instance>", '<field name="ModelName" type="string">Касса'
                                               "</field></instance>".encode())
        self.assertEqual(self.findings(named, code=GOOD, LC_ALL="ru_RU.UTF-8"), [])
        self.assertEqual(self.findings(named, LC_ALL="en_US.UTF-8"),
                         [("characters-lost", "ModelName")])


class CheckServerTest(TillTestCase):
    """Each run is against a till with one fault."""

    def check(self, *options, code, change=None):
        """What the check says: {name: (result, findings)}. `change` are the commands to type at the
        till when an event is waited for."""
        check = Program(self.folder, "check-server", *options, "--json")
        self.addCleanup(check.close)
        if change:
            check.expect_error(r"quillmon-till: waiting for \d+ event\(s\).*")
            change()
        return self.result(check, code)

    def result(self, check, code):
        ended = check.wait()
        self.assertIn(ended, (GOOD, PROBLEM) if code is None else (code,), list(check.lines.queue))
        report = json.loads("\n".join(line for line in check.lines.queue if line is not None))
        return {each["name"]: (each["result"], each["findings"]) for each in report["checks"]}

    def failures(self, checks):
        """The findings of failed checks, each once."""
        return sorted({finding for result, findings in checks.values() if result == "failed"
                       for finding in findings})


class CheckAdapterTest(CheckServerTest):
    def check_till(self, fault="none", *options, code):
        till = self.start("--misbehave", fault)
        # The till's event port is this test's; the check's is its own, where the till sends nothing.
        return self.check(f"127.0.0.1:{till.port}", "--event-port", str(reserve_port()),
                          *(options or ("--events", "0")), code=code)

    def test_a_till_that_behaves_passes_every_check(self):
        checks = self.check_till(code=GOOD)
        self.assertEqual(list(checks), [
            "list of all devices", "list of UPOS_Scale", "list of UPOS_Scanner",
            "list of a class without devices", "the same request in pieces",
            "retrieval of S1 as UPOS_Scanner", "retrieval of W1 as UPOS_Scale",
            "retrieval of S1 as UPOS_LogicalDevice", "retrieval of an unknown id",
            "request of an unknown type", "four requests at once, after a connection without one",
            "events, as datagrams"])
        self.assertEqual([each for each in checks.values() if each != ("ok", [])], [])

    def test_pieces_do_no_harm(self):
        for fault in ("pieces", "byte-at-a-time"):
            checks = self.check_till(fault, code=GOOD)
            self.assertEqual([each for each in checks.values() if each != ("ok", [])], [])

    def test_noise_before_the_frame_is_a_warning(self):
        result, findings = self.check_till("garbage", code=GOOD)["list of all devices"]
        self.assertEqual(result, "warning")
        self.assertRegex(findings[0], r"\A\d+ bytes before the start mark \(ESC\) are dropped\Z")

    def test_a_server_that_stalls_is_given_up_once(self):
        checks = self.check_till("stall", "--timeout", "500", "--events", "0", code=PROBLEM)
        self.assertEqual(self.failures(checks),
                         ["no whole answer within 500 ms (without a byte of an answer): the service "
                          "would go on waiting"])
        self.assertEqual(checks["list of all devices"][0], "failed")
        self.assertEqual({result for name, (result, _) in checks.items()
                          if name not in ("list of all devices", "events, as datagrams")},
                         {"skipped"})

    def test_each_other_fault_has_its_verdict(self):
        for fault, verdict in (
                ("close-early", r"the connection was closed without a byte of an answer"),
                ("truncate", r"the connection was closed after \d+ bytes, without the end mark \(BS\)"),
                ("reset", r"the connection was reset without a byte of an answer"),
                ("not-xml", r"the document is unreadable: .+ at line 1, column \d+"),
                ("error", r"an error answer: the client's request fails")):
            with self.subTest(fault):
                checks = self.check_till(fault, code=PROBLEM)
                for finding in self.failures(checks):
                    self.assertRegex(finding, rf"\A{verdict}\Z")
                self.assertEqual(checks["list of all devices"][0], "failed")

    def test_devices_that_nobody_asked_for_are_seen(self):
        checks = self.check_till("huge 20", code=PROBLEM)
        self.assertIn("the devices are HUGE000001, HUGE000002, HUGE000003, HUGE000004, HUGE000005 "
                      "and 15 more, not none", self.failures(checks))

    def test_a_slow_answer_is_timed_and_a_warning(self):
        till = self.start("--misbehave", "slow 1100")
        check = Program(self.folder, "check-server", str(till.port), "--event-port",
                        str(reserve_port()), "--events", "0")
        self.addCleanup(check.close)
        till.expect(r"request .* \(slow 1100\)")
        till.misbehave("none")
        check.expect(r"list of all devices +warning +\d{4,} ms")
        check.expect(r"list of all devices: clients wait for it, .*")
        self.assertEqual(check.wait(), GOOD)

    def test_a_server_of_one_connection_at_a_time_is_told_so(self):
        with socket.create_server(("127.0.0.1", 0)) as listener:
            def serve():
                with contextlib.suppress(OSError):
                    while True:
                        with listener.accept()[0] as client:
                            request = b""
                            while BS not in request and (piece := client.recv(4096)):
                                request += piece
                            if BS in request:
                                client.sendall(ESC + b"<response/>" + BS)
            thread = threading.Thread(target=serve)
            thread.start()
            checks = self.check(str(listener.getsockname()[1]), "--event-port", str(reserve_port()),
                                "--events", "0", "--timeout", "2000", code=GOOD)
            listener.shutdown(socket.SHUT_RDWR)
            thread.join()
        result, findings = checks["four requests at once, after a connection without one"]
        self.assertEqual((result, len(findings)), ("warning", 1))
        self.assertIn("one at a time", findings[0])

    def test_nobody_who_listens_is_one_verdict(self):
        checks = self.check(str(reserve_port()), "--event-port", str(reserve_port()),
                            "--events", "0", code=PROBLEM)
        for finding in self.failures(checks):
            self.assertRegex(finding, r"\Ano connection to 127\.0\.0\.1:\d+: .+\Z")


class CheckDatagramsTest(CheckServerTest):
    def check_events(self, *commands, events=1, code):
        """The check of the events that the till sends for these commands."""
        port = reserve_port()
        # From one processor, since each has a queue of its own for what the machine sends to itself.
        processors = os.sched_getaffinity(0)
        os.sched_setaffinity(0, {min(processors)})
        try:
            till = Program(self.folder, "till.xml", "--request-port", "0", "--event-port", str(port))
        finally:
            os.sched_setaffinity(0, processors)
        self.addCleanup(till.close)
        requests = till.expect(r"quillmon-till: ready: requests on 127\.0\.0\.1:(\d+), .*")[1]
        return self.check(requests, "--event-port", str(port), "--events", str(events), code=code,
                          change=lambda: [till.type(each) for each in commands]
                          )["events, as datagrams"]

    def test_events_pass_also_in_pieces_and_two_at_once(self):
        self.assertEqual(self.check_events("change S1 1", "detach S1", events=2, code=GOOD),
                         ("ok", []))
        self.assertEqual(self.check_events("misbehave-events pieces", "change S1 1", code=GOOD),
                         ("ok", []))
        self.assertEqual(self.check_events("misbehave-events twice", "change S1 1", events=2,
                                           code=GOOD), ("ok", []))

    def test_each_fault_has_its_verdict(self):
        for fault, result, finding in (
                ("garbage", "warning", r"\d+ bytes before a start mark \(ESC\) are dropped"),
                ("empty", "warning", r"an empty datagram is ignored"),
                ("oversize", "failed", r"a datagram of 4096 bytes is lost: 1024 are read"),
                ("not-xml", "failed", r"the document is unreadable: .+"),
                ("truncate", "failed", r"the document is unreadable: .+")):
            with self.subTest(fault):
                # The proper event behind it ends the wait.
                got, findings = self.check_events(
                    f"misbehave-events {fault}", "change S1 1", "misbehave-events none",
                    "change S1 2", events=1 + (fault in ("garbage", "empty", "not-xml")),
                    code=PROBLEM if result == "failed" else GOOD)
                self.assertEqual(got, result, findings)
                self.assertRegex(findings[0], rf"\A{finding}\Z")

    def test_an_event_that_does_not_come_fails_if_it_was_asked_for(self):
        till = self.start()
        port = ("--event-port", str(reserve_port()), "--timeout", "500")
        asked = self.check(str(till.port), *port, "--events", "2", code=PROBLEM)
        self.assertEqual(asked["events, as datagrams"],
                         ("failed", ["0 of 2 events came within 500 ms"]))
        self.assertEqual(self.check(str(till.port), *port, code=GOOD)["events, as datagrams"],
                         ("warning", ["0 of 1 events came within 500 ms"]))

    def test_a_port_in_use_is_one_clear_line(self):
        till = self.start()
        port = till.events.getsockname()[1]  # which this test holds
        code, out, errors = self.run_to_end("check-server", str(till.port), "--event-port", str(port))
        self.assertEqual((code, out), (1, ""))
        self.assertRegex(errors, rf"\Aquillmon-till: failed: opening the event port, UDP {port}\n"
                                 r"  error \d+: .+\n")


class CheckProxyTest(CheckServerTest):
    def check_till(self, fault="none", *, code, change=None, timeout=PATIENCE // 2):
        """Of a till that is started when the check waits for it."""
        port = str(reserve_port())
        check = Program(self.folder, "check-server", "--strategy", "proxy", "--event-port", port,
                        "--timeout", str(timeout * 1000), "--devices", str(ATTACHED), "--events",
                        "1" if change else "0", "--json")
        self.addCleanup(check.close)
        check.expect_error(r"quillmon-till: waiting for the device server on .*")
        till = Program(self.folder, "till.xml", "--strategy", "proxy", "--event-port", port,
                       "--misbehave-events", fault, "--event-classname", "whole")
        self.addCleanup(till.close)
        if change:
            check.expect_error(r"quillmon-till: waiting for 1 event\(s\).*")
            till.type(change)
        return self.result(check, code)

    CHECKS = ["connection", "devices after connecting", "request for an update",
              "connection after the service has closed it", "devices after connecting again"]

    def test_a_till_that_behaves_passes_every_check(self):
        checks = self.check_till(change="change S1 1", code=GOOD)
        self.assertEqual(checks, {name: ("ok", [])
                                  for name in [*self.CHECKS, "events, on the stream"]})

    def test_pieces_and_batches_do_no_harm(self):
        for fault in ("pieces", "byte-at-a-time", "batch 2"):
            checks = self.check_till(fault, code=GOOD)
            self.assertEqual([checks[name] for name in self.CHECKS], [("ok", [])] * 5, fault)

    def test_a_device_that_is_added_twice_is_a_warning(self):
        result, findings = self.check_till("twice", code=GOOD)["devices after connecting"]
        self.assertEqual(result, "warning")
        self.assertIn("S1 is added twice: one delInstance will not remove it", findings)

    def inventories(self, *faults):
        """What is said of the devices of a till with each fault; all wait at the same time."""
        with ThreadPoolExecutor(len(faults)) as together:
            return together.map(lambda fault: (fault, *self.check_till(
                fault, code=None, timeout=5)["devices after connecting"]), faults)

    def test_each_fault_has_its_verdict(self):
        verdicts = {
            "stall": r"no addInstance came within 5000 ms",
            "garbage": r"the document is unreadable: .+",
            "not-xml": r"the document is unreadable: .+",
            # As the two halves came, in one piece or in two.
            "truncate": r"(the document is unreadable: .+|\d+ bytes are no whole document: .+)",
            "cut": r"the device server ended the connection: .+",
            "reset": r"the device server ended the connection: .+"}
        for fault, result, findings in self.inventories(*verdicts):
            self.assertEqual(result, "failed", fault)
            self.assertRegex(findings[0], rf"\A{verdicts[fault]}\Z", fault)

    def test_a_missing_start_marker_is_seen_however_the_stream_was_grouped(self):
        for fault, result, findings in self.inventories("no-declaration", "other-declaration"):
            self.assertIn(result, ("warning", "failed"), fault)
            self.assertRegex(findings[0], "does not begin with|is unreadable", fault)

    def test_nobody_who_connects_is_one_verdict(self):
        checks = self.check("--strategy", "proxy", "--event-port", str(reserve_port()),
                            "--timeout", "300", code=PROBLEM)
        self.assertEqual(checks["connection"], ("failed", ["no connection within 300 ms"]))
        self.assertEqual({result for name, (result, _) in checks.items() if name != "connection"},
                         {"skipped"})


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-b", *sys.argv[1:]])
