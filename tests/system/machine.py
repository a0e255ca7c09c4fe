"""A throw-away Windows: one Wine prefix of its own, with the product's executable in it.

Everything a test does to it goes through Windows' own programs or the product's own interfaces.
"""

import contextlib
import fcntl
import os
import queue
import re
import select
import shutil
import signal
import subprocess
import tempfile
import threading
import time
from pathlib import Path

from ports import reserve_port

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("QUILLMON_BUILD", ROOT / "build" / "windows"))
SERVICE = "QuillmonServ"
NOT_STARTED = (
    "You should start your application using the Services panel\nQuillmon Services not started\n")
WMI_HOST = "HKLM\\SOFTWARE\\QuillmonTest\\WmiHost"
TESTS_WINE = ROOT / "tests" / "wine"
WINE = ROOT / "build" / "wine"
MACHINES = WINE / "machines"  # a folder each, whose file "owner" is locked as long as its test runs


def wine(prefix, *command, **options):
    """Runs a program to its end in a prefix, or one of the options of tests/wine."""
    return subprocess.run([TESTS_WINE, *command], check=True, stdin=subprocess.DEVNULL,
                          env=dict(os.environ, QUILLMON_WINEPREFIX=str(prefix)), **options)


def template():
    """A prefix at rest that machines are copied from, with the WMI stand-in registered; kept in the
    build folder, and made again when the stand-in is another one."""
    prefix = WINE / "template"
    library = BUILD / "wmi_host.dll"
    wanted = f"{library} {library.stat().st_mtime_ns}"
    stamp = prefix / ".registered"
    WINE.mkdir(parents=True, exist_ok=True)
    with open(WINE / "template.making", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not stamp.exists() or stamp.read_text() != wanted:
            try:
                remove_prefix(prefix)
                wine(prefix, "regsvr32", "/s", library, stdout=subprocess.DEVNULL)
                wine(prefix, "reg", "add", WMI_HOST, "/v", "Mof", "/d", MOF, "/f",
                     stdout=subprocess.DEVNULL)
                wine(prefix, "--end")
                stamp.write_text(wanted)
            except BaseException:
                remove_prefix(prefix)
                raise
    return prefix


def processes_of(prefix):
    """The ids of the prefix's processes on the host, its server among them."""
    mark, found = f"WINEPREFIX={prefix}".encode(), []
    for folder in Path("/proc").iterdir():
        with contextlib.suppress(OSError):  # ended meanwhile, or somebody else's
            if (folder.name.isdigit()
                    and mark in (folder / "environ").read_bytes().split(b"\0")):
                found.append(int(folder.name))
    return found


def kill_processes_of(prefix, but="\0"):
    for process in processes_of(prefix):
        with contextlib.suppress(OSError):  # ended meanwhile
            if not Path(f"/proc/{process}/comm").read_text().startswith(but):
                os.kill(process, signal.SIGKILL)


def remove_prefix(prefix):
    """The prefix with all that belongs to it: programs, server, files."""
    kill_processes_of(prefix, but="wineserver")  # which would ask them to end, and wait
    wine(prefix, "--end", stderr=subprocess.DEVNULL)
    kill_processes_of(prefix)  # a server whose files are gone
    wait_until(lambda: not processes_of(prefix), f"the programs of {prefix} to end")
    if Path(prefix).exists():
        shutil.rmtree(prefix)
    Path(f"{prefix}.lock").unlink(missing_ok=True)


def without_limit(source):
    """A pipe that takes all that `source` brings, however late it is read. The system's own take
    64 KiB, and 8 KiB from an ordinary user who has many, as Wine does; then the program waits for
    somebody to read what it prints, and a request to it waits, too."""
    pieces = queue.SimpleQueue()
    reading, writing = os.pipe()

    def collect():
        with source:
            while piece := source.read1(65536):
                pieces.put(piece)
        pieces.put(b"")

    def deliver():
        with contextlib.suppress(BrokenPipeError), open(writing, "wb") as target:
            while piece := pieces.get():
                target.write(piece)
                target.flush()

    for job in (collect, deliver):
        threading.Thread(target=job, daemon=True).start()
    return open(reading, "rb")


@contextlib.contextmanager
def temporary_machine(**environment):
    """A machine that is gone afterwards, whatever happened."""
    machine = Machine(**environment)
    try:
        machine.boot()
        yield machine
    finally:
        machine.shut_down()


def wait_until(condition, what, seconds=20.0, longest_pause=0.05):
    """Polls until condition() is true and returns its value; fails the test with `what`."""
    deadline, pause = time.monotonic() + seconds, 0.001
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {seconds:.0f} s in vain for {what}")
        time.sleep(pause)
        pause = min(2 * pause, longest_pause)


def bound_datagram_ports():
    """The UDP ports that are bound on this host, by whatever process."""
    lines = Path("/proc/net/udp").read_text().splitlines()[1:]
    return {int(line.split()[1].rpartition(":")[2], 16) for line in lines}


def listening_ports():
    """The TCP ports that are listened on on this host, by whatever process."""
    lines = Path("/proc/net/tcp").read_text().splitlines()[1:]
    return {int(line.split()[1].rpartition(":")[2], 16)
            for line in lines if line.split()[3] == "0A"}


def windows_path(path):
    return "Z:" + str(Path(path).resolve()).replace("/", "\\")


MOF = windows_path(ROOT / "mof" / "quillmon.mof")


class Machine:
    def __init__(self, **environment):
        MACHINES.mkdir(parents=True, exist_ok=True)
        self.folder = Path(tempfile.mkdtemp(dir=MACHINES))
        self.owner = open(self.folder / "owner", "w")
        fcntl.flock(self.owner, fcntl.LOCK_EX)
        self.prefix = self.folder / "prefix"
        self.c = self.prefix / "drive_c"
        self.home = self.c / "Quillmon"
        self.exe = self.home / "quillmon.exe"
        self.service_path = "C:/Quillmon/quillmon.exe"  # as it is registered
        self.env = dict(os.environ, QUILLMON_WINEPREFIX=str(self.prefix), **environment)
        self.processes = []

    # -- the machine itself

    def boot(self):
        """Copies the template, whose program files are linked and whose other files are the
        server's, and starts the copy; returns once a program has run in it and found a setting."""
        self.prefix.mkdir()
        for entry in template().iterdir():
            flag = "-al" if entry.name == "drive_c" else "-a"
            subprocess.run(["cp", flag, entry, self.prefix], check=True)
        self.home.mkdir(exist_ok=True)
        shutil.copy(BUILD / "quillmon.exe", self.exe)
        subprocess.run([TESTS_WINE, "--start"], env=self.env, check=True, stdin=subprocess.DEVNULL)
        booted = self.query_registry(WMI_HOST, "Mof")
        assert booted == MOF, f"a new machine does not work: {booted}"

    def shut_down(self):
        for process in self.processes:
            if process.poll() is None:
                process.kill()
            process.wait()
        remove_prefix(self.prefix)
        for process in self.processes:
            process.stdout.close()
        shutil.rmtree(self.folder)
        self.owner.close()

    # -- programs

    def run(self, program, *arguments, cwd=None, timeout=60):
        """Runs a Windows program to its end; its output with plain line ends. The output goes to
        files: the first program that needs a desktop starts Wine's process for it, which inherits
        the output, lives longer, and would keep a pipe open."""
        command = [TESTS_WINE, program, *map(str, arguments)]
        with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
            code = subprocess.run(command, env=self.env, cwd=cwd or self.home, timeout=timeout,
                                  stdin=subprocess.DEVNULL, stdout=out, stderr=err).returncode
            out.seek(0)
            err.seek(0)
            done = subprocess.CompletedProcess(command, code, out.read(), err.read())
        done.out = done.stdout.decode("latin-1").replace("\r\n", "\n")
        done.err = done.stderr.decode("latin-1").replace("\r\n", "\n")
        return done

    def start(self, program, *arguments, cwd=None):
        """Starts a Windows program and returns its Popen; it is killed with the machine."""
        process = subprocess.Popen(
            [TESTS_WINE, program, *map(str, arguments)], env=self.env, cwd=cwd or self.home,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        process.stdout = without_limit(process.stdout)
        self.processes.append(process)
        return process

    def quillmon(self, *arguments, **options):
        return self.run("C:\\Quillmon\\quillmon.exe", *arguments, **options)

    def start_quillmon(self, *arguments, **options):
        return self.start("C:\\Quillmon\\quillmon.exe", *arguments, **options)

    # -- configuration

    def configure(self, **keys):
        """configure(upos__requestSocket__Port=1): writes the configuration file."""
        lines = [f"{key.replace('__', '.')}={value}\r\n" for key, value in keys.items()]
        self.write_configuration("[default]\r\n" + "".join(lines))

    def write_configuration(self, text):
        folder = self.c / "POS" / "JavaPOS" / "Config"
        folder.mkdir(parents=True, exist_ok=True)
        (folder / "quillmon.properties").write_bytes(text.encode("latin-1"))

    def set_registry(self, key, name, value, kind="REG_SZ"):
        done = self.run("reg", "add", key, "/v", name, "/t", kind, "/d", value, "/f")
        assert done.returncode == 0, done.out + done.err

    def delete_registry(self, key, name):
        self.run("reg", "delete", key, "/v", name, "/f")

    def query_registry(self, key, name):
        for line in self.run("reg", "query", key, "/v", name).out.splitlines():
            words = line.split(None, 2)
            if words and words[0] == name:
                return words[2] if len(words) == 3 else ""
        return None

    def set_wmi(self, name, value):
        """A setting or failure switch of the WMI stand-in (tests/wmi_host/README.md)."""
        kind = "REG_DWORD" if isinstance(value, int) else "REG_SZ"
        self.set_registry(WMI_HOST, name, value, kind)

    def wmi_counter(self, name):
        value = self.query_registry(f"{WMI_HOST}\\Counters", name)
        return None if value is None else int(value, 0)

    # -- the device server

    def start_till(self, *arguments, inventory=ROOT / "samples" / "till.xml"):
        """Starts quillmon-till on ports of this machine's own, and configures the service for
        them."""
        requests, events = reserve_port(), reserve_port()
        self.configure(upos__requestSocket__Port=requests, provider__eventSocket__Port=events)
        return Till(self, requests, events, inventory, arguments)

    def start_connecting_till(self, events):
        """The same for the proxy strategy: it connects to the service's event port."""
        return Till(self, None, events, ROOT / "samples" / "till.xml", ["--strategy", "proxy"])

    # -- WMI clients

    def wmic(self, class_name, *properties):
        """The rows that wmic prints, each as {property: text}."""
        done = self.run("wmic", "path", class_name, "get", ",".join(properties))
        lines = done.stdout.decode("utf-16").replace("\r", "").splitlines()
        if not lines or not lines[0].strip():
            return []
        # The columns come in the class's order, each as wide as the longest value and two blanks,
        # however long the header's names are.
        order = sorted(properties, key=lines[0].index)
        rows = []
        for line in filter(str.strip, lines[1:]):
            width, rest = divmod(len(line), len(order))
            assert rest == 0, lines
            rows.append({name: line[i * width:(i + 1) * width].strip()
                         for i, name in enumerate(order)})
        return rows

    def script(self, text):
        """Runs a VBScript with Windows' own script host; what it prints, as lines."""
        file = self.c / "script.vbs"
        file.write_bytes(text.replace("\n", "\r\n").encode("latin-1"))
        done = self.run("cscript", "//nologo", "C:\\script.vbs")
        return [line for line in done.out.splitlines() if line.strip()]

    def wmi(self, *arguments, **options):
        """Runs the direct client: list CLASS, get PATH, query WQL."""
        return self.run(str(BUILD / "wmi_client.exe"), *arguments, **options)

    def start_list(self, class_name):
        """Starts a direct client that lists the ids of a class."""
        return self.start(str(BUILD / "wmi_client.exe"), "list", class_name, "DeviceID")

    def start_wmi_client(self):
        """The direct client as a process for many calls, each of which then costs a tenth."""
        return WmiClient(self)

    def watch_events(self, *query):
        """Starts a subscriber, which does not end by itself; returns it once it is subscribed."""
        watcher = self.start(str(BUILD / "wmi_client.exe"), "watch", 0, 0, *query)
        assert watcher.stdout.readline().strip() == b"ready"
        return watcher

    # -- the service

    def service_state(self):
        """'RUNNING', 'STOPPED', ... or None when the service is not installed."""
        for line in self.run("sc", "query", SERVICE).out.splitlines():
            if line.strip().startswith("STATE"):
                return line.split()[-1]
        return None

    def install_service(self):
        done = self.quillmon("-i")
        assert "Quillmon Services has been started." in done.out, done.out + done.err

    def stop_service(self):
        """Returns once the service's process has ended, too: until then it could not be started."""
        self.run("net", "stop", SERVICE)
        wait_until(lambda: self.service_state() == "STOPPED", "the service to stop")
        wait_until(lambda: self.service_process() is None, "the service's process to end")

    def service_process(self):
        """The id of the service's process on the host; what it uses is best seen from there."""
        program = f"{self.service_path}\0".encode()
        for process in processes_of(self.prefix):
            with contextlib.suppress(OSError):  # ended meanwhile
                if Path(f"/proc/{process}/cmdline").read_bytes().startswith(program):
                    return process
        return None

    def service_datagram_ports(self):
        """The UDP ports that the service has open."""
        inodes = set()
        for link in Path(f"/proc/{self.service_process()}/fd").iterdir():
            with contextlib.suppress(OSError):  # closed meanwhile
                inodes.add(os.readlink(link))
        lines = [line.split() for line in Path("/proc/net/udp").read_text().splitlines()[1:]]
        return {int(words[1].rpartition(":")[2], 16) for words in lines
                if f"socket:[{words[9]}]" in inodes}

    def service_status(self, name):
        """A number that the host knows of the service's process: VmHWM in KiB, Threads, ..."""
        for line in Path(f"/proc/{self.service_process()}/status").read_text().splitlines():
            if line.startswith(name + ":"):
                return int(line.split()[1])
        raise KeyError(name)

    def service_time(self):
        """Seconds of processor time that the service's process has used."""
        fields = Path(f"/proc/{self.service_process()}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def service_memory_peak(self):
        """The most memory that the service's process ever held, in MiB."""
        return self.service_status("VmHWM") / 1024

    def end_service(self):
        """Stops the service if it runs; returns once its process has ended."""
        if self.service_process() is not None:
            self.run("net", "stop", SERVICE)
            wait_until(lambda: self.service_process() is None, "the service's process to end")

    def restart_service(self, event_port):
        """Starts the service, after its end if it runs; returns once its event port is open."""
        self.end_service()
        done = self.run("sc", "start", SERVICE)
        assert done.returncode == 0, done.out + done.err
        self.wait_for_event_port(event_port)

    @staticmethod
    def has_event_port(port):
        """Whether that port is open, for datagrams or for connections, by whatever process."""
        return port in bound_datagram_ports() or port in listening_ports()

    def wait_for_event_port(self, port):
        """Returns once the service has opened its event port, the last step of its start; that it
        runs it says before it has begun."""
        wait_until(lambda: self.has_event_port(port), "the event port to be opened")

    def choose_option(self, option):
        """Has the installed service start with it from now on. Wine's own sc has no "config"."""
        done = self.run(str(BUILD / "service_config.exe"), SERVICE, f"{self.service_path} {option}")
        assert done.returncode == 0, done.err

    def start_proxy_service(self, **keys):
        """Has the service start in the proxy strategy, on a port that is returned."""
        port = reserve_port()
        self.configure(provider__eventSocket__Port=port, **keys)
        if self.service_state() is None:
            self.install_service()
            self.choose_option("-o")
        self.restart_service(port)
        return port

    # -- the trace

    @property
    def log(self):
        return self.home / "Quillmon.log"

    def switch_trace_on(self):
        """Creates and signals the enabling event, and holds it until the machine is shut down."""
        switch = self.start(str(BUILD / "trace_switch.exe"))
        assert switch.stdout.readline().strip() == b"on"
        return switch

    def trace(self, log=None):
        """The traced messages so far, without their time stamps."""
        log = log or self.log
        if not log.exists():
            return []
        lines = log.read_bytes().decode("latin-1").split("\r\n")
        return [line[21:] for line in lines if line]

    def wait_for_trace(self, text):
        return wait_until(lambda: next((line for line in self.trace() if text in line), None),
                          f"the trace line {text!r}")


class WmiClient:
    """The direct client, taking commands as if typed at it."""

    def __init__(self, machine):
        self.process = machine.start(str(BUILD / "wmi_client.exe"), "shell")

    def run(self, *arguments, timeout=60):
        """list CLASS, get PATH, query WQL: its output, with plain line ends in `out`."""
        self.process.stdin.write("\t".join(map(str, arguments)).encode() + b"\n")
        self.process.stdin.flush()
        output, deadline = b"", time.monotonic() + timeout
        while not (end := re.search(rb"^= (-?\d+)\r\n\Z", output, re.MULTILINE)):
            left = max(0, deadline - time.monotonic())
            assert select.select([self.process.stdout], [], [], left)[0], f"no end of {output!r}"
            piece = os.read(self.process.stdout.fileno(), 65536)
            assert piece, f"the client ended after {output!r}"
            output += piece
        done = subprocess.CompletedProcess(arguments, int(end[1]), output[:end.start()])
        done.out = done.stdout.decode().replace("\r\n", "\n")
        return done


class Till:
    """quillmon-till, taking commands as if typed at it."""

    def __init__(self, machine, requests, events, inventory, arguments):
        self.requests, self.events = requests, events
        self.process = machine.start(
            str(BUILD / "quillmon-till.exe"), windows_path(inventory),
            *(["--request-port", requests] if requests else []), "--event-port", events, *arguments)
        line = self.process.stdout.readline().decode()
        assert line.startswith("quillmon-till: ready:"), line

    def type(self, command):
        self.process.stdin.write(command.encode() + b"\n")
        self.process.stdin.flush()

    def expect(self, text):
        """Reads the till's log up to a line that holds `text`, and returns it."""
        for line in self.process.stdout:
            if text in line.decode():
                return line.decode().rstrip()
        raise AssertionError(f"the till ended before {text!r}")

    def stop(self):
        self.process.stdin.close()
        self.process.wait(timeout=60)
