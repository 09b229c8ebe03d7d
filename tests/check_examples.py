#!/usr/bin/env python3
"""Runs every example that signdb shows its users: the "examples:" of the program's help and of
each command's help, the EXAMPLES of the man pages, and the ```sh blocks of the README.

Each group of examples (one help text, one man page, one README section) runs in a scratch host
of its own: a configuration at $SIGNDB_CONFIG, the policies etc, usr, var and home over small
trees, and, unless the group starts by setting up (signdb init), a recorded baseline with an
accepted change and pending ones among which a critical one. Paths that name the system's own
places (/etc, /usr, /var, /home, /etc/signdb, ~/.config/signdb, /media/offline, /transfer,
/backup) are taken to the scratch host's. `sudo` runs the command as it is (the test runs as
root); `systemctl enable --now UNIT` starts what the installed unit's ExecStart says.

An example fails when a command ends with status 2 or more (0 and 1 are what the tool answers:
nothing to report, or differences / nothing found), when a pipeline that ends in jq prints
nothing, or when a README output block (```text right after the example) shows a line that the
example does not print (hashes, times and sizes aside).

usage: check_examples.py BIN_DIR SOURCE_DIR
"""

import fcntl
import os
import pty
import re
import select
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import termios
import time

if len(sys.argv) > 1 and sys.argv[1] == "--systemctl":
    BIN, SOURCE = os.environ["SIGNDB_EXAMPLES_BIN"], os.environ["SIGNDB_EXAMPLES_SOURCE"]
else:
    BIN, SOURCE = (os.path.abspath(a) for a in sys.argv[1:3])
SIGNDB = os.path.join(BIN, "signdb")
# Lines that are not examples of the tool's use but of building or installing it: the test
# command and the package test run those.
NOT_RUN = [
    (re.compile(r"^bash scripts/"), "the project's set-up command, which CI runs itself"),
    (re.compile(r"^(sudo )?(apt|apt-get|dpkg) "), "an installation, tested by tests/check_debian_package.sh"),
    (re.compile(r"^(cmake|dpkg-buildpackage|ninja|ctest) "), "a build, which the test command runs"),
    (re.compile(r"^sudo signdb (scan|check) --all$"),
     "the whole installed system, recorded and checked in a fresh chroot by tests/check_debian_package.sh"),
]


def runs_signdb(command, verb, anywhere=True):
    """Whether the command runs `signdb [--config FILE] VERB` (at its start only, unless anywhere)."""
    pattern = r"\bsigndb( --config \S+)? " + verb + r"\b"
    return re.search(pattern, command) if anywhere else re.match(r"(sudo )?" + pattern, command)


def help_groups():
    top = subprocess.run([SIGNDB, "--help"], capture_output=True, text=True, check=True).stdout
    commands = re.findall(r"^  ([a-z]+)\s", top.split("commands:")[1].split("options:")[0], re.M)
    texts = [("signdb --help", top)]
    for command in commands:
        text = subprocess.run([SIGNDB, command, "--help"], capture_output=True, text=True, check=True).stdout
        texts.append((f"signdb {command} --help", text))
    for name, text in texts:
        if "examples:\n" not in text:
            continue
        section = text.split("examples:\n", 1)[1]
        lines = []
        for line in section.splitlines():
            if not line.startswith("  "):
                break
            lines.append(line.strip())
        # A help's examples are one story, but each `signdb init` sets up a host of its own.
        story = []
        for line in lines:
            if runs_signdb(line, "init", anywhere=False) and story:
                yield name, story
                story = []
            story.append([line])
        if story:
            yield name, story


ROFF = [(r"\-", "-"), (r"\(aq", "'"), (r"\(dq", '"'), (r"\e", "\\"), (r"\&", "")]


def man_groups():
    folder = os.path.join(SOURCE, "doc", "man")
    for page in sorted(os.listdir(folder)):
        blocks, block = [], None
        for line in open(os.path.join(folder, page), encoding="utf-8"):
            line = line.rstrip("\n")
            if line == ".EX":
                block = []
            elif line == ".EE":
                blocks.append(block)
                block = None
            elif block is not None:
                for escaped, plain in ROFF:
                    line = line.replace(escaped, plain)
                block.append(line)
        # A page's examples are one story: each block may build on the one before.
        commands = [c for b in blocks if looks_like_commands(b) for c in join_lines(b)]
        if commands:
            yield f"man {page}", [[c] for c in commands]


def looks_like_commands(lines):
    return not lines[0].lstrip().startswith(("{", "[", '"'))


def join_lines(lines):
    """Lines that end with a pipe or a backslash continue on the next one."""
    commands, current = [], ""
    for line in lines:
        current = current + ("\n" if current else "") + line
        if current.rstrip().endswith(("|", "\\")):
            continue
        commands.append(current)
        current = ""
    if current:
        commands.append(current)
    return commands


def readme_groups():
    text = open(os.path.join(SOURCE, "README.md"), encoding="utf-8").read()
    section = "README"
    examples = []
    lines = text.splitlines()
    i = 0
    while i < len(lines):
        line = lines[i]
        if line.startswith("#"):
            if examples:
                yield section, examples
            section, examples = "README: " + line.lstrip("# "), []
        if line == "```sh":
            block = []
            i += 1
            while lines[i] != "```":
                block.append(re.sub(r"\s+#\s.*$", "", lines[i]) if not lines[i].startswith("#") else "")
                i += 1
            commands = join_lines([b for b in block if b.strip()])
            shown = None
            j = i + 1
            while j < len(lines) and not lines[j].strip():
                j += 1
            if j < len(lines) and lines[j] == "```text":
                shown = []
                j += 1
                while lines[j] != "```":
                    shown.append(lines[j])
                    j += 1
            examples.append(commands + ([("shown", shown)] if shown is not None else []))
        i += 1
    if examples:
        yield section, examples


class Host:
    """A scratch host: trees, a configuration, and what a group of examples expects to find."""

    def __init__(self, root):
        self.root = root
        self.conf = os.path.join(root, "conf")
        self.shims = os.path.join(root, "shims")
        self.changed = False
        self.clickhouse = None
        os.makedirs(self.conf, mode=0o700)
        for folder in ("etc/ssh", "usr/bin", "var/log", "home/ann", "media/offline", "transfer", "backup",
                       "shims"):
            os.makedirs(os.path.join(root, folder), exist_ok=True)
        self.write("etc/hosts", "127.0.0.1 localhost\n")
        self.write("etc/passwd", "root:x:0:0:root:/root:/bin/bash\n")
        self.write("etc/ssh/sshd_config", "PermitRootLogin no\n")
        self.write("etc/motd", "welcome\n")
        self.write("etc/test", "test")  # the content whose hash the lookup examples show
        shutil.copy("/usr/bin/ls", os.path.join(root, "usr/bin/ls"))
        self.write("var/log/syslog", "started\n")
        self.write("home/ann/.profile", "umask 022\n")
        self.env = dict(os.environ)
        self.env.update({
            "HOME": os.path.join(root, "home/ann"),
            "SIGNDB_CONFIG": os.path.join(self.conf, "signdb.json"),
            "PATH": self.shims + ":" + BIN + ":" + os.environ["PATH"],
            "LC_ALL": "C.UTF-8",
            "SIGNDB_EXAMPLES_BIN": BIN,
            "SIGNDB_EXAMPLES_SOURCE": SOURCE,
        })
        self.env.pop("SIGNDB_MODULE", None)
        self.make_shims()

    def write(self, relative, text):
        with open(os.path.join(self.root, relative), "w") as out:
            out.write(text)

    def make_shims(self):
        # sudo: the test is root already. systemctl: what the unit would start, started here.
        with open(os.path.join(self.shims, "sudo"), "w") as out:
            out.write('#!/bin/sh\nexec "$@"\n')
        with open(os.path.join(self.shims, "systemctl"), "w") as out:
            out.write(f'#!/bin/sh\nexec {shlex.quote(sys.executable)} {shlex.quote(os.path.abspath(__file__))} '
                      f'--systemctl {shlex.quote(self.root)} "$@"\n')
        for shim in ("sudo", "systemctl"):
            os.chmod(os.path.join(self.shims, shim), 0o755)

    def signdb(self, *args, ok=(0, 1), config=None):
        env = dict(self.env, SIGNDB_CONFIG=config) if config else self.env
        run = subprocess.run([SIGNDB, "--quiet", *args], capture_output=True, text=True, env=env,
                             cwd=os.path.dirname(env["SIGNDB_CONFIG"]))
        if run.returncode not in ok:
            raise RuntimeError(f"setting up: signdb {' '.join(args)} ended with {run.returncode}: {run.stderr}")
        return run

    def configure(self, fleet=False):
        policies = []
        for name in ("etc", "usr", "var", "home"):
            policies += ["--policy", f"{name}={self.root}/{name}"]
        self.signdb("init", *policies, "--ca-key-out", f"{self.root}/media/offline/signdb-ca.key", ok=(0,))
        if fleet:
            self.start_clickhouse()

    def record(self):
        """A baseline with history: scanned, a change accepted, changes pending (one critical)."""
        self.signdb("scan", "--all", ok=(0,))
        self.write("etc/hosts", "127.0.0.1 localhost\n10.0.0.1 intranet\n")
        self.signdb("update", "etc", "hosts", ok=(0,))
        shutil.copy(os.path.join(self.conf, "data/etc.previous.hdb"), os.path.join(self.root, "backup/etc-2026-11-01.hdb"))
        shutil.copy(os.path.join(self.conf, "data/etc.previous.hdb.p7s"),
                    os.path.join(self.root, "backup/etc-2026-11-01.hdb.p7s"))
        self.change_trees()

    def change_trees(self):
        """What happens on a host between two looks: an edit, a new file, a setuid program."""
        self.changed = True
        self.write("etc/hosts", "127.0.0.1 localhost\n10.0.0.2 intranet\n")
        self.write("etc/motd", "welcome back\n")
        shell = os.path.join(self.root, "etc/rootshell")
        shutil.copy("/usr/bin/ls", shell)
        os.chmod(shell, 0o4755)
        self.write("conf/iocs.txt", "# known bad\n" + subprocess.run(
            ["sha256sum", os.path.join(self.root, "etc/test")], capture_output=True, text=True).stdout)

    def candidate(self, signed):
        self.signdb("update", "etc", "--sign-later", ok=(0,))
        data = os.path.join(self.conf, "data")
        if signed:
            self.signdb("sign", os.path.join(data, "etc.hdb.candidate"), ok=(0,))
        else:
            for name in os.listdir(data):
                if name.startswith("etc.hdb.candidate"):
                    shutil.copy(os.path.join(data, name), os.path.join(self.root, "transfer", name))

    def start_clickhouse(self):
        folder = os.path.join(self.root, "clickhouse")
        os.makedirs(folder)
        ports = []
        for _ in range(2):
            with socket.socket() as probe:
                probe.bind(("127.0.0.1", 0))
                ports.append(probe.getsockname()[1])
        with open(os.path.join(folder, "config.xml"), "w") as out:
            out.write(f"""<?xml version="1.0"?>
<yandex><logger><level>warning</level><log>{folder}/server.log</log><errorlog>{folder}/error.log</errorlog>
<console>0</console></logger><http_port>{ports[0]}</http_port><tcp_port>{ports[1]}</tcp_port>
<listen_host>127.0.0.1</listen_host><path>{folder}/data/</path><tmp_path>{folder}/tmp/</tmp_path>
<user_files_path>{folder}/user_files/</user_files_path><users_config>users.xml</users_config>
<default_profile>default</default_profile><default_database>default</default_database>
<mark_cache_size>5368709</mark_cache_size></yandex>
""")
        with open(os.path.join(folder, "users.xml"), "w") as out:
            out.write("""<?xml version="1.0"?>
<yandex><profiles><default></default></profiles><users><default><password></password>
<networks><ip>127.0.0.1</ip></networks><profile>default</profile><quota>default</quota></default></users>
<quotas><default></default></quotas></yandex>
""")
        self.clickhouse = subprocess.Popen(["/usr/sbin/clickhouse-server", f"--config-file={folder}/config.xml"],
                                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd=folder)
        deadline = time.time() + 60
        while time.time() < deadline:
            try:
                socket.create_connection(("127.0.0.1", ports[0]), timeout=1).close()
                break
            except OSError:
                time.sleep(0.2)
        else:
            raise RuntimeError("clickhouse-server did not start")
        config_path = self.env["SIGNDB_CONFIG"]
        text = open(config_path).read().rstrip().rstrip("}")
        text += (f',\n  "fleet": {{"url": "http://127.0.0.1:{ports[0]}", "host": "web-01", '
                 f'"groups": ["web"], "period": 3600}}\n}}\n')
        open(config_path, "w").write(text)
        self.signdb("fleet", "init", ok=(0,))

    def second_fleet_host(self):
        """Another host of the group that published its records, for the fleet's questions."""
        other = os.path.join(self.root, "conf-web-02")
        shutil.copytree(self.conf, other, ignore=shutil.ignore_patterns("fleet-spool", "*.sock", "*.pid"))
        config = os.path.join(other, "signdb.json")
        text = open(config).read().replace('"web-01"', '"web-02"')
        open(config, "w").write(text)
        self.write("etc/motd", "welcome to web-02\n")
        self.signdb("scan", "--all", "--replace", ok=(0,), config=config)

    def localise(self, command):
        """The system's places in an example, taken to this host's."""
        root = self.root
        for place, here in (("~/.config/signdb", self.conf), ("/etc/signdb", self.conf),
                            ("/media/offline", f"{root}/media/offline"), ("/transfer", f"{root}/transfer"),
                            ("/backup", f"{root}/backup")):
            command = command.replace(place, here)
        return re.sub(r"(?<![\w.~/-])/(etc|usr|var|home)(?=[/\s'\"=]|$)", lambda m: f"{root}/{m.group(1)}", command)

    def stop(self):
        """Stops the services the examples started (each named in service.pid) and the store."""
        pids = os.path.join(self.root, "service.pid")
        if os.path.exists(pids):
            for pid in open(pids).read().split():
                # A unit's service leads a session of its own; a `signdb watch &` is the process itself.
                for stop in (os.killpg, os.kill):
                    try:
                        stop(int(pid), signal.SIGTERM)
                    except ProcessLookupError:
                        pass
            time.sleep(0.5)
        if self.clickhouse:
            self.clickhouse.terminate()
            self.clickhouse.wait(30)


def systemctl(root, args):
    """`systemctl enable --now UNIT`: runs the installed unit's ExecStart (its configuration taken
    to the scratch host), a service in the background, a timer's service once."""
    host_conf = os.path.join(root, "conf", "signdb.json")
    units = [a for a in args if a.endswith((".service", ".timer"))]
    if args[:2] != ["enable", "--now"] or len(units) != 1:
        print(f"systemctl {' '.join(args)}: only 'enable --now UNIT' is played in the examples", file=sys.stderr)
        return 2
    unit = units[0].replace(".timer", ".service")
    text = open(os.path.join(SOURCE, "contrib", unit)).read()
    command = re.search(r"^ExecStart=(.*)$", text, re.M).group(1)
    argv = shlex.split(command.replace("/etc/signdb/signdb.json", host_conf))
    argv[0] = SIGNDB
    if "Type=oneshot" in text:
        status = subprocess.run(argv).returncode
        return 0 if status in (0, 1) else status
    log = open(os.path.join(root, "service.log"), "a")
    child = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)
    with open(os.path.join(root, "service.pid"), "a") as out:
        out.write(f"{child.pid}\n")
    return 0 if wait_for_service(os.path.join(root, "conf"), child) else 2


def shown_lines_missing(shown, printed):
    """The lines a README block shows that the example does not print, values that differ from
    run to run (hashes, numbers, times) aside."""
    def shape(line):
        line = re.sub(r"[0-9a-f]{12,}(\.\.)?", "H", line)
        line = re.sub(r"\d+(\.\d+)?", "N", line)
        return re.sub(r"\s+", " ", line).strip()
    have = {shape(line) for line in printed.splitlines()}
    return [line for line in shown if line.strip() and shape(line) not in have]


def run_group(name, examples, scratch):
    first = next((c for e in examples for c in e if isinstance(c, str)), "")
    text = "\n".join(c for e in examples for c in e if isinstance(c, str))
    host = Host(tempfile.mkdtemp(prefix="example-", dir=scratch))
    failures = []
    try:
        starts_fresh = runs_signdb(first, "init") or "dpkg" in first or "apt" in first
        if not starts_fresh:
            host.configure(fleet="signdb fleet" in text)
            if not (runs_signdb(first, "scan") and "--replace" not in first):
                host.record()
                if host.clickhouse:
                    host.second_fleet_host()
                if re.search(r"\bsigndb sign\b", text):
                    host.candidate(signed=False)
                elif re.search(r"\bsigndb accept\b", text):
                    host.candidate(signed=True)
        for example in examples:
            printed = ""
            for command in example:
                if isinstance(command, tuple):
                    missing = shown_lines_missing(command[1], printed)
                    if missing:
                        failures.append(f"{name}: the output shown is not what the example prints:\n"
                                        + "\n".join("    shown, not printed: " + m for m in missing)
                                        + "\n    printed:\n" + "\n".join("      " + p for p in printed.splitlines()))
                    continue
                reason = next((why for pattern, why in NOT_RUN if pattern.search(command)), None)
                if reason:
                    print(f"  not run ({reason}): {command}")
                    continue
                local = host.localise(command)
                if runs_signdb(local, "watch", anywhere=False) and "&" not in local:
                    local += " &"  # runs until stopped: the group's end stops it
                background = local.rstrip().endswith("&")
                script = "set -o pipefail\n" + (f"({local.rstrip()[:-1]}) > {host.root}/service.log 2>&1 & "
                                                f"echo $! >> {host.root}/service.pid\n"
                                               if background else local + "\n")
                if background:
                    subprocess.run(["bash", "-c", script], env=host.env, cwd=host.conf)
                    wait_for_service(host.conf)
                    print(f"  ran (in the background): {command}")
                    continue
                if "--protect-key" in local:
                    run = run_on_terminal(script, host.env, host.conf)
                else:
                    run = subprocess.run(["bash", "-c", script], env=host.env, cwd=host.conf, capture_output=True,
                                         text=True, input="", timeout=600)
                # What the example prints, with the scratch host's places named as the example names them.
                printed += (run.stdout + run.stderr).replace(host.root + "/", "/")
                status = run.returncode
                ends_in_jq = re.search(r"\|\s*jq\s+(-\w+\s+)*'[^']*'\s*$", command)
                if status == 0 and not host.changed and runs_signdb(command, "scan"):
                    host.change_trees()  # "check it later": the trees change after the first record
                if status >= 2:
                    failures.append(f"{name}: `{command}` ended with status {status}:\n{run.stdout}{run.stderr}")
                elif ends_in_jq and not run.stdout.strip():
                    failures.append(f"{name}: `{command}` printed nothing (its jq filter selects nothing):\n"
                                    f"{run.stderr}")
                else:
                    print(f"  ran (status {status}): {command}")
    finally:
        host.stop()
    return failures


def run_on_terminal(script, env, cwd):
    """Runs a command that asks for a passphrase on its terminal, and answers each question."""
    master, slave = pty.openpty()

    def own_terminal():
        os.setsid()
        fcntl.ioctl(slave, termios.TIOCSCTTY, 0)

    child = subprocess.Popen(["bash", "-c", script], env=env, cwd=cwd, stdin=slave, stdout=slave, stderr=slave,
                             preexec_fn=own_terminal)
    os.close(slave)
    said, asked = b"", 0
    while True:
        ready, _, _ = select.select([master], [], [], 60)
        if not ready:
            child.kill()
            break
        try:
            chunk = os.read(master, 4096)
        except OSError:
            break
        if not chunk:
            break
        said += chunk
        questions = said.lower().count(b"passphrase")
        while asked < questions:
            time.sleep(0.2)  # the question is written before the terminal stops echoing
            os.write(master, b"example passphrase\n")
            asked += 1
    os.close(master)
    status = child.wait()
    return subprocess.CompletedProcess(script, status, said.decode(errors="replace"), "")


def wait_for_service(conf, child=None):
    """Whether the watch service of the configuration's folder answers on its socket within a
    minute (never, once the child that should run it has ended)."""
    sock = os.path.join(conf, "data", "watch.sock")
    deadline = time.time() + 60
    while time.time() < deadline and not os.path.exists(sock):
        if child is not None and child.poll() is not None:
            return False
        time.sleep(0.1)
    return os.path.exists(sock)


def main():
    if len(sys.argv) > 2 and sys.argv[1] == "--systemctl":
        sys.exit(systemctl(sys.argv[2], sys.argv[3:]))
    for tool in ("jq", "sha256sum", "socat", "less"):
        if shutil.which(tool) is None:
            print(f"SKIPPED: the examples use {tool}, which is not installed")
            sys.exit(77)
    if os.geteuid() != 0:
        print("SKIPPED: the examples are an administrator's, run as root")
        sys.exit(77)
    only = os.environ.get("SIGNDB_EXAMPLES_ONLY", "")
    groups = list(help_groups()) + list(man_groups()) + list(readme_groups())
    count = sum(1 for _, examples in groups for e in examples for c in e if isinstance(c, str))
    print(f"{count} example commands in {len(groups)} groups")
    failures = []
    with tempfile.TemporaryDirectory(prefix="signdb-examples-") as scratch:
        for name, examples in groups:
            if only and only not in name:
                continue
            print(f"{name}:")
            failures += run_group(name, examples, scratch)
    for failure in failures:
        print("FAILED " + failure, file=sys.stderr)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
