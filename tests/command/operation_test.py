"""Tests of graphs in operation, on a message bus of their own.

usage: operation_test.py PLUGINS POLICY QUORVAL

POLICY is the policy of the system's bus.
"""

import fcntl
import os
import pathlib
import pty
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest
import xml.etree.ElementTree

import dbus
import dbus.bus
import dbus.lowlevel

QUORVAL = str(pathlib.Path(sys.argv.pop()).resolve())
POLICY = str(pathlib.Path(sys.argv.pop()).resolve())
PLUGINS = str(pathlib.Path(sys.argv.pop()).resolve())

NAME = "org.quorval.graph.the_graph"
PATH = "/org/quorval/graph"
INTERFACE = "org.quorval.Graph1"
LINK_INTERFACE = "org.quorval.Links1"
ERROR = "org.quorval.Error."
STRANGER = 65534
# A test that is killed leaves nothing behind.
WITH_THE_TEST = ("setpriv", "--pdeathsig", "KILL")

GRAPH = """format = 1
name = "the-graph"
connections = ["object.out -> print.in"]
blocks.object.type = "operated:Object"
blocks.print.type = "numbers:Print"
[blocks.a]
type = "operated:Careful"
config.level = 2
[blocks.pair]
type = "pair"
config.b.level = 3
[superblocks.pair]
blocks.b.type = "operated:Careful"
"""

CONFIGURATION = """<busconfig>
  <type>session</type>
  <listen>unix:path={}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    {}
  </policy>
  {}
</busconfig>
"""
# What the system's bus allows without another policy.
SYSTEM = '''<deny own="*"/><deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/><allow receive_type="method_return"/>
    <allow receive_type="error"/><allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"/>'''
ANYTHING = '<allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>'


class Bus:
    """A bus that can go away and come back."""

    def __init__(self, directory, policy=ANYTHING, more=""):
        self.socket = directory / "bus"
        self.file = directory / "bus.conf"
        self.file.write_text(CONFIGURATION.format(self.socket, policy, more))
        self.address = f"unix:path={self.socket}"
        self.start()

    def start(self):
        self.process = subprocess.Popen([*WITH_THE_TEST, "dbus-daemon", "--nofork",
                                         f"--config-file={self.file}", "--print-address"],
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.process.stdout.readline()
        self.socket.chmod(0o666)

    def stop(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()
        self.socket.unlink(missing_ok=True)


class Broker:
    """mosquitto, on a port of its own."""

    def __init__(self, directory):
        for _ in range(20):
            with socket.create_server(("127.0.0.1", 0)) as free:
                self.port = free.getsockname()[1]
            if self.start(directory / "mosquitto.conf"):
                return
        raise RuntimeError("mosquitto does not start")

    def start(self, file):
        file.write_text(f"listener {self.port} 127.0.0.1\nallow_anonymous true\nlog_dest stderr\n"
                        "log_type information\n" + ("user root\n" if os.geteuid() == 0 else ""))
        self.process = subprocess.Popen([*WITH_THE_TEST, "/usr/sbin/mosquitto", "-c", str(file)],
                                        text=True, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.PIPE)
        if any(line.endswith(" running\n") for line in self.process.stderr):
            return True
        self.stop()
        return False

    def stop(self):
        self.process.kill()
        self.process.communicate()


class Operation(unittest.TestCase):
    system_address = None

    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="q")
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        self.directory.chmod(0o755)
        self.bus = Bus(self.directory)
        self.addCleanup(lambda: self.bus.stop())  # the present one
        self.write(GRAPH)

    def write(self, text, name="g.toml"):
        (self.directory / name).write_text(text)

    def environment(self):
        environment = {name: value for name, value in os.environ.items()
                       if name not in ("STATE_DIRECTORY", "JOURNAL_STREAM")}
        return {**environment, "QUORVAL_PLUGIN_DIR": PLUGINS,
                "QUORVAL_PLUGIN_PATH": f"{PLUGINS}/operated", "NO_COLOR": "1", "LC_ALL": "C",
                "DBUS_SESSION_BUS_ADDRESS": self.bus.address,
                "DBUS_SYSTEM_BUS_ADDRESS": self.system_address or f"unix:path={self.directory}/none"}

    def popen(self, *arguments, **more):
        process = subprocess.Popen([*WITH_THE_TEST, QUORVAL, *arguments], cwd=self.directory,
                                   text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, env=self.environment(), **more)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.kill()
        process.communicate()

    def run_quorval(self, *arguments, **more):
        """Exit status and both streams."""
        process = self.popen(*arguments, **more)
        out, err = process.communicate(timeout=100)
        return process.returncode, out, err

    def start(self, *arguments, ready=True):
        """A running graph that answers."""
        process = self.popen("run", "--bus", "user", *arguments, "g.toml")
        if ready:
            self.wait_for_name(process)
            self.graph().Describe()
        return process

    def wait_for_name(self, process, name=NAME):
        bus = self.connect()
        while not bus.name_has_owner(name):
            self.assertIsNone(process.poll(), "the graph has ended")

    def connect(self):
        connection = dbus.bus.BusConnection(self.bus.address)
        connection.set_exit_on_disconnect(False)
        self.addCleanup(connection.close)
        return connection

    def graph(self, interface=INTERFACE, path=PATH):
        return dbus.Interface(self.connect().get_object(NAME, path, introspect=False), interface)

    def stop(self, process):
        """What the graph wrote until its end."""
        self.graph().Stop()
        out, err = process.communicate(timeout=100)
        self.assertEqual((process.returncode, err), (0, ""))
        return out

    def own_interfaces(self):
        """The members of each, as the graph describes them."""
        text = self.graph("org.freedesktop.DBus.Introspectable").Introspect()
        interfaces = {}
        for interface in xml.etree.ElementTree.fromstring(text).iter("interface"):
            if interface.get("name").startswith("org.quorval."):
                interfaces[interface.get("name")] = shown = {}
                for member in interface:
                    arguments = [(one.get("direction", "out"), one.get("type"))
                                 for one in member.iter("arg")]
                    shown[member.get("name")] = (member.tag, member.get("type") or arguments)
        return interfaces

    def refused(self, name, text, call, *arguments):
        with self.assertRaises(dbus.DBusException) as caught:
            call(*arguments)
        self.assertEqual((caught.exception.get_dbus_name(), caught.exception.get_dbus_message()),
                         (ERROR + name, text))

    def busctl(self, *arguments, **more):
        return subprocess.run(["busctl", f"--address={self.bus.address}", *arguments], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, **more)


class Interface(Operation):
    def test_it_is_described_to_callers(self):
        self.start()
        self.assertEqual(list(self.own_interfaces()), [INTERFACE])
        self.assertEqual(self.own_interfaces()[INTERFACE], {
            "Describe": ("method", [("out", "s")]),
            "Configure": ("method", [("in", "a{ss}")]),
            "Get": ("method", [("in", "s"), ("out", "s")]),
            "Save": ("method", []),
            "Statistics": ("method", [("out", "a(sttttt)")]),
            "Stop": ("method", []),
            "Name": ("property", "s"),
            "State": ("property", "s"),
            "Waves": ("property", "t"),
            "BlockFailed": ("signal", [("out", "s"), ("out", "s")]),
            "Configured": ("signal", [("out", "a{ss}")]),
        })

    def test_busctl_reads_and_calls(self):
        process = self.start()
        for name, value in (("Name", 's "the-graph"\n'), ("State", 's "running"\n'),
                            ("Waves", "t 0\n")):
            self.assertEqual(self.busctl("get-property", NAME, PATH, INTERFACE, name).stdout, value)
        result = self.busctl("call", NAME, PATH, INTERFACE, "Configure", "a{ss}", "1", "a.level", "4")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(self.busctl("call", NAME, PATH, INTERFACE, "Get", "s", "pair/b").stdout,
                         's "# fixed = 0  # default\\n# label = \\"none\\"  # default\\n'
                         'level = 3  # g.toml:11\\n"\n')
        self.assertEqual(self.stop(process), "a 4 none\n")

    def test_statistics_count_runs(self):
        self.start()
        self.graph("test.Object", "/object").Fire()
        rows = {str(row[0]): tuple(int(cell) for cell in row[1:])
                for row in self.graph().Statistics()}
        self.assertEqual(rows, {"a": (0,) * 5, "object": (0,) * 5, "pair/b": (0,) * 5,
                                "print": (1, 0, 0, 0, 0)})

    def test_the_description_has_the_present_configuration(self):
        self.start()
        self.graph().Configure({"a.level": "4", "a.label": "'x'"})
        status, out, err = self.run_quorval("describe", "the-graph")
        self.assertEqual((status, err), (0, ""))
        _, drawn, _ = self.run_quorval("graph", "--format", "json", "--set", "a.level=4",
                                       "--set", "a.label=x", "g.toml")
        self.assertEqual(out, drawn)


class Changes(Operation):
    def test_all_or_none(self):
        process = self.start()
        self.refused("Refused", "block 'pair/b': 7 is odd", self.graph().Configure,
                     {"a.level": "5", "a.label": "x", "pair/b.level": "7"})
        self.graph().Configure({"a.level": "6", "pair/b.label": '"y"'})
        self.assertEqual(self.stop(process),
                         "a 5 x\nb 7 none\na 2 none\nb 3 none\na 6 none\nb 3 y\n")

    def test_what_is_wrong_is_refused_before_anything_is_touched(self):
        process = self.start()
        configure = self.graph().Configure
        for name, text, values in (
                ("UnknownBlock", "there is no block 'c'", {"c.x": "1"}),
                ("UnknownBlock", "there is no block 'pair'", {"pair.b.level": "1"}),
                ("InvalidValue", "'level' is a date", {"a.level": "1979-05-27"}),
                ("InvalidValue", "'level' is an empty list", {"a.level": "[]"}),
                ("InvalidValue", "'level' is out of the range of an int", {"a.level": "3000000000"}),
                ("InvalidValue", "Parameter name 'l$' not valid (should be [a-z0-9_.-]).",
                 {"a.l$": "1"}),
                ("InvalidValue", "'a' is not of the form PATH.KEY", {"a": "1"}),
                ("InvalidValue", "'a.b=c' is not of the form PATH.KEY", {"a.b=c": "1"}),
                ("Refused", "block 'a': block type 'operated:Careful' has no setting 'levl'; did you "
                            "mean 'level'?", {"a.levl": "1"}),
                ("Refused", "block 'a': 'fixed' cannot be changed while the graph runs",
                 {"a.fixed": "1"}),
                ("Refused", "block 'a': 'level' has to be from 0 to 10, not 11", {"a.level": "11"}),
                ("Refused", "block 'a': 'pstore_path' cannot be changed while the graph runs",
                 {"a.pstore_path": '"/"'})):
            self.refused(name, text, configure, {"pair/b.level": "9", **values})
        self.refused("UnknownBlock", "there is no block 'c'", self.graph().Get, "c")
        self.assertEqual(self.stop(process), "")

    def test_a_change_wins_over_assignments_saved_values_and_files(self):
        process = self.start("--state", "state")
        self.graph().Configure({"a.level": "4", "a.label": "saved"})
        self.graph().Save()
        self.stop(process)

        process = self.start("--state", "state", "--set", "a.label=assigned")
        shown = '# fixed = 0  # default\nlabel = "assigned"  # --set\nlevel = 4  # saved\n'
        shown += f'pstore_path = "{self.directory.resolve()}/state/a/"\n'
        self.assertEqual(self.run_quorval("get", "the-graph", "a"), (0, shown, ""))
        self.graph().Configure({"a.label": "changed"})
        self.write(GRAPH.replace("level = 2", "level = 5\nconfig.label = 'file'")
                   .replace("level = 3", "level = 8"))
        process.send_signal(signal.SIGHUP)
        self.assertEqual([process.stdout.readline() for _ in range(2)],
                         ["a 4 changed\n", "b 8 none\n"])
        shown = shown.replace('"assigned"  # --set', '"changed"  # changed')
        self.assertEqual(self.run_quorval("get", "the-graph", "a"), (0, shown, ""))
        self.assertEqual(self.stop(process), "")

    def monitor(self, *matches):
        """Lines about the messages from here on."""
        monitor = subprocess.Popen(["dbus-monitor", "--address", self.bus.address, *matches],
                                   text=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(self.end, monitor)
        monitor.stdout.readline()
        # It listens when it has lost its own name.
        for line in monitor.stdout:
            if "NameLost" in line:
                break
        return monitor.stdout

    def test_the_caller_is_answered_before_others_are_told(self):
        self.start()
        lines = self.monitor()
        self.graph().Configure({"a.level": "4"})
        seen = []
        for line in lines:
            if "sender=:" in line:
                seen += re.findall("member=Configured?$|^method return", line)
            if "member=Configured" in seen:
                break
        self.assertEqual(seen, ["member=Configure", "method return", "member=Configured"])

    def test_signals_tell_of_changes_and_failures(self):
        process = self.start()
        lines = self.monitor(f"type='signal',interface='{INTERFACE}'")
        self.graph().Configure({"a.level": "4", "a.label": "x"})
        self.write(GRAPH.replace("config.b.level = 3", "config.b.level = 8"))
        process.send_signal(signal.SIGHUP)
        process.stdout.readline()
        self.assertEqual(process.stdout.readline(), "b 8 none\n")
        with self.assertRaises(dbus.DBusException):
            self.graph("test.Object", "/object").Fail()
        texts = []
        for line in lines:
            texts += re.findall(r'string "(.*)"', line)
            if "not today" in line:
                break
        self.assertEqual([text for text in texts if not text.startswith(":")],
                         ["a.label", '"x"', "a.level", "4", "pair/b.level", "8", "object",
                          "not today"])


class Saving(Operation):
    def test_without_a_state_directory_it_is_refused(self):
        self.start()
        self.refused("Refused", "the graph has no state directory", self.graph().Save)

    def test_what_was_changed_before_can_be_saved_alone(self):
        process = self.start("--state", "state")
        self.assertEqual(self.run_quorval("set", "the-graph", "a.level=4"), (0, "", ""))
        self.assertFalse((self.directory / "state" / "overrides").exists())
        self.assertEqual(self.run_quorval("set", "--save", "the-graph"), (0, "", ""))
        self.stop(process)
        self.start("--state", "state")
        self.assertIn("\nlevel = 4  # saved\n", self.run_quorval("get", "the-graph", "a")[1])

    def test_what_is_gone_is_a_warning_and_kept(self):
        process = self.start("--state", "state")
        self.assertEqual(self.run_quorval("set", "--save", "the-graph", "a.level=4",
                                          "pair/b.label=x"), (0, "", ""))
        self.stop(process)
        file = self.directory / "state" / "overrides"
        self.assertEqual(file.stat().st_mode & 0o777, 0o600)
        self.assertEqual((self.directory / "state").stat().st_mode & 0o777, 0o700)

        before = file.read_bytes()
        self.write(GRAPH.replace("[superblocks.pair]\nblocks.b", "[superblocks.pair]\nblocks.c")
                   .replace("config.b.level", "config.c.level"))
        process = self.start("--state", "state")
        self.graph().Save()
        self.graph().Stop()
        out, err = process.communicate(timeout=100)
        self.assertEqual((process.returncode, out), (0, ""))
        self.assertEqual(err, f"{self.directory.resolve()}/state/overrides: warning: "
                              "there is no block 'pair/b'\n")
        self.assertEqual(file.read_bytes(), before)

    def test_a_key_that_is_gone_is_a_warning_and_a_wrong_value_an_error(self):
        file = self.directory.resolve() / "state" / "overrides"
        file.parent.mkdir()
        for value, status, text in (
                ("gone=1", 0, "warning: block type 'operated:Careful' has no setting 'gone'"),
                ("level=11", 3, "error: 'level' has to be from 0 to 10, not 11")):
            file.unlink(missing_ok=True)
            self.run_quorval("config", "set", str(file), "block.0.path=a", f"block.0.set.{value}")
            self.assertEqual(self.run_quorval("run", "--state", "state", "--for", "1ms", "g.toml"),
                             (status, "", f"{file}: {text}\n"))

    def test_a_block_of_the_name_of_the_file_stands_in_the_way(self):
        self.write(GRAPH.replace("[blocks.a]", "[blocks.overrides]"))
        process = self.start("--state", "state")
        self.graph().Configure({"overrides.level": "4"})
        self.refused("Refused", "the changes cannot be saved: block 'overrides' keeps its state in "
                     f"'{self.directory.resolve()}/state/overrides/'", self.graph().Save)
        self.assertEqual(self.stop(process), "overrides 4 none\n")

    def test_a_block_cannot_take_the_place_of_the_file(self):
        process = self.start("--state", "state")
        self.graph().Configure({"a.level": "4"})
        self.graph().Save()
        self.stop(process)
        file = self.directory.resolve() / "state" / "overrides"
        before = file.read_bytes()
        self.write(GRAPH + '[blocks.overrides]\ntype = "operated:Careful"\n')
        self.assertEqual(self.run_quorval("run", "--state", "state", "g.toml"),
                         (3, "", "g.toml:15:8: error: block 'overrides' cannot be created: "
                                 f"{file}: Not a directory\n"))
        self.assertEqual(file.read_bytes(), before)

    def test_a_damaged_file_is_wrong(self):
        process = self.start("--state", "state")
        self.run_quorval("set", "--save", "the-graph", "a.level=4")
        self.stop(process)
        file = self.directory / "state" / "overrides"
        file.write_bytes(file.read_bytes()[:-3])
        status, out, err = self.run_quorval("run", "--state", "state", "g.toml")
        self.assertEqual((status, out), (3, ""))
        self.assertRegex(err, "^" + re.escape(f"{file.resolve()}: error: ") +
                         "the saved changes cannot be read: .*\n$")

    def test_a_state_directory_is_for_one_run(self):
        self.start("--state", "state")
        self.assertEqual(self.run_quorval("run", "--state", "state", "g.toml"),
                         (1, "", "quorval: error: the state directory "
                                 f"'{self.directory.resolve()}/state' is in use\n"))


class Objects(Operation):
    def test_they_are_where_the_blocks_said(self):
        process = self.start()
        item = self.graph("test.Object", "/object")
        self.assertEqual(item.Echo("hello"), "hello")
        self.assertEqual(item.Wait(), "late")
        item.Nothing()
        item.Fire()
        properties = self.graph("org.freedesktop.DBus.Properties", "/object")
        self.assertEqual(properties.Get("test.Object", "Level"), 3)
        properties.Set("test.Object", "Level", dbus.Int32(9, variant_level=1))
        self.assertEqual(properties.Get("test.Object", "Level"), 9)
        self.assertEqual(self.stop(process), "17\n")

    def test_the_wave_of_a_call_runs_before_the_next_call(self):
        process = self.start()
        bus = self.connect()
        process.send_signal(signal.SIGSTOP)
        for path, interface, name, arguments in (
                ("/object", "test.Object", "Fire", ()),
                (PATH, INTERFACE, "Configure", ({"a.level": "4"},)),
                ("/object", "test.Object", "Fire", ())):
            message = dbus.lowlevel.MethodCallMessage(NAME, path, interface, name)
            message.set_no_reply(True)
            message.append(*arguments)
            bus.send_message(message)
        # Once this is answered, the bus has taken the others.
        bus.name_has_owner(NAME)
        process.send_signal(signal.SIGCONT)
        self.assertEqual(self.stop(process), "17\na 4 none\n17\n")

    def test_what_a_handler_throws_goes_to_the_caller(self):
        process = self.start()
        self.refused("Refused", "not today", self.graph("test.Object", "/object").Fail)
        self.refused("Refused", "an unknown exception",
                     self.graph("org.freedesktop.DBus.Properties", "/object").Get, "test.Object",
                     "Broken")
        self.graph().Stop()
        out, err = process.communicate(timeout=100)
        self.assertEqual((process.returncode, out), (0, ""))
        self.assertEqual(err, "quorval: error: block 'object' failed in D-Bus call: not today\n"
                              "quorval: error: block 'object' failed in D-Bus call: an unknown "
                              "exception\n")

    def test_what_ends_the_process_in_a_call_is_named(self):
        self.write(GRAPH + "[blocks.deadly]\ntype = 'operated:Deadly'\n")
        for call, status, text in (
                ("Crash", -signal.SIGSEGV, "crashed in D-Bus call: signal 11 (SIGSEGV)"),
                ("Exit", 1, "called exit in D-Bus call")):
            process = self.start()
            with self.assertRaises(dbus.DBusException):
                self.graph("test.Deadly", "/deadly").get_dbus_method(call)()
            self.assertEqual((process.communicate(timeout=100), process.returncode),
                             (("", f"quorval: fatal: block 'deadly' {text}\n"), status))

    def test_two_at_one_place_are_wrong(self):
        for interface, text in (("test.Object", "block 'again' and block 'object' both offer"),
                                ("test.Other", None)):
            self.write(GRAPH + "[blocks.again]\ntype = 'operated:Object'\n"
                       f"config.interface = '{interface}'\n")
            if text is None:
                self.stop(self.start())
            else:
                self.assertEqual(self.run_quorval("run", "--bus", "user", "g.toml"),
                                 (3, "", f"quorval: error: {text} the object /object with the "
                                         "interface test.Object\n"))

    def test_one_that_cannot_be_is_wrong(self):
        for config, text in (
                ('path = "relative"', "block 'object': the object relative with the interface "
                 "test.Object cannot be published: Invalid argument"),
                *((f'path = "{PATH}", interface = "{interface}"', "the graph itself and block "
                   f"'object' both offer the object {PATH} with the interface {interface}")
                  for interface in (INTERFACE, LINK_INTERFACE))):
            self.write(GRAPH.replace('blocks.object.type = "operated:Object"',
                                     'blocks.object = { type = "operated:Object", '
                                     f"config = {{ {config} }} }}"))
            self.assertEqual(self.run_quorval("run", "--bus", "user", "g.toml"),
                             (3, "", f"quorval: error: {text}\n"))


class Life(Operation):
    def test_a_name_that_is_taken_ends_the_run_before_its_start(self):
        process = self.start()
        status, out, err = self.run_quorval("run", "--bus", "user", "g.toml")
        self.assertEqual((status, out), (1, ""))
        self.assertEqual(err, f"quorval: error: the name {NAME} is taken on the user's bus by process "
                              f"{process.pid} (quorval)\n")

    def test_without_a_bus_it_is_not_started(self):
        self.assertEqual(self.run_quorval("run", "--bus", "system", "g.toml"),
                         (1, "", "quorval: error: the system's bus cannot be reached: No such file "
                                 "or directory\n"))

    def test_a_lost_bus_is_looked_for(self):
        process = self.start()
        self.graph().Configure({"a.level": "4"})
        self.bus.stop()
        self.assertEqual(process.stderr.readline(), "quorval: warning: the user's bus is lost; the "
                                                    "graph runs on without it\n")
        self.bus.start()
        self.wait_for_name(process)
        self.graph("test.Object", "/object").Fire()
        self.graph().Configure({"a.level": "5"})
        self.assertEqual(self.stop(process), "a 4 none\n17\na 5 none\n")

    def test_nobody_reaches_stopped_blocks_while_values_wait_for_a_broker(self):
        with socket.create_server(("127.0.0.1", 0)) as broker:  # that never answers
            self.write(f"""format = 1
name = "the-graph"
connections = [{{ from = "object.out", to = "print.in", delivery = "all" }}]
machines = {{ edge = {{}}, hub = {{}} }}
link.broker = "mqtt://127.0.0.1:{broker.getsockname()[1]}"
blocks.object = {{ type = "operated:Object", machine = "edge" }}
blocks.print = {{ type = "numbers:Print", machine = "hub" }}
""")
            process = self.start("--machine", "edge")
            self.graph("test.Object", "/object").Fire()
            self.graph().Stop()
            bus = self.connect()
            while bus.name_has_owner(NAME):
                pass
            # It waits for its broker for some seconds.
            self.assertIsNone(process.poll())
            _, err = process.communicate(timeout=100)
            self.assertEqual((process.returncode, err),
                             (0, "quorval: warning: 1 values of object.out are lost: the graph stopped "
                                 "before they were sent\n"))

    def test_a_name_is_made_fit(self):
        self.write(GRAPH.replace("the-graph", "1-more"))
        process = self.start(ready=False)
        self.wait_for_name(process, "org.quorval.graph._1_more")
        self.assertEqual(self.run_quorval("stop", "1-more"), (0, "", ""))


class Strangers(Operation):
    """Only root can be somebody else: where the tests run as another user, the owner is seen."""

    @property
    def stranger(self):
        return {"user": STRANGER, "group": STRANGER, "extra_groups": []} if os.geteuid() == 0 else {}

    def check(self, run):
        """What a caller can do with the graph and with an object of a block."""
        calls = {"Describe": [], "Get": ["s", "a"], "Statistics": [],
                 "Configure": ["a{ss}", "1", "a.level", "4"], "Save": [], "Stop": []}
        allowed = []
        for name, arguments in calls.items():
            result = self.busctl("call", NAME, PATH, INTERFACE, name, *arguments, **self.stranger)
            if result.returncode == 0:
                allowed.append(name)
            else:
                self.assertEqual(result.stderr, "Call failed: only root and the user who runs the "
                                                "graph may do this\n")
        self.assertEqual(allowed, list(calls)[:3] if self.stranger else list(calls))
        if self.stranger:
            self.assertIsNone(run.poll())

    def test_they_can_look_and_not_change(self):
        self.check(self.start("--state", "state"))

    def test_they_can_look_and_not_change_on_the_bus_of_the_system(self):
        self.bus.stop()
        # Root has the right to own names there; whoever else runs the tests gets it here.
        self.bus = Bus(self.directory, SYSTEM, f"<include>{POLICY}</include>" +
                       ("" if os.geteuid() == 0 else
                        f'<policy user="{os.geteuid()}"><allow own="*"/></policy>'))
        self.system_address = self.bus.address
        run = self.popen("run", "--bus", "system", "--state", "state", "g.toml")
        self.wait_for_name(run)
        if self.stranger:
            result = self.busctl("call", NAME, "/object", "test.Object", "Privileged",
                                 **self.stranger)
            self.assertEqual((result.returncode, result.stderr),
                             (1, "Call failed: Access denied\n"))
        self.check(run)

    def test_they_cannot_take_the_name_of_a_graph(self):
        self.bus.stop()
        self.bus = Bus(self.directory, SYSTEM, f"<include>{POLICY}</include>")
        self.system_address = self.bus.address
        script = "import dbus.bus, sys; dbus.bus.BusConnection(sys.argv[1]).request_name(sys.argv[2])"
        result = subprocess.run([sys.executable, "-c", script, self.bus.address, NAME], text=True,
                                stderr=subprocess.PIPE, cwd="/", **self.stranger)
        self.assertEqual(result.returncode, 1)
        self.assertIn("org.freedesktop.DBus.Error.AccessDenied", result.stderr)


class Commands(Operation):
    def test_list_shows_running_graphs(self):
        self.assertEqual(self.run_quorval("list"), (0, "", ""))
        self.start()
        self.assertEqual(self.run_quorval("list"), (0, "the-graph  user\n", ""))
        self.assertEqual(self.run_quorval("list", "--bus", "system"),
                         (1, "", "quorval: error: the system's bus cannot be reached: No such file "
                                 "or directory\n"))

    def test_set_changes_and_stop_stops(self):
        process = self.start()
        self.assertEqual(self.run_quorval("set", "the-graph", "a.level=4", "a.label=dB"),
                         (0, "", ""))
        self.assertEqual(self.run_quorval("set", "the-graph", "a.level=70"),
                         (1, "", "quorval: error: block 'a': 'level' has to be from 0 to 10, not "
                                 "70\n"))
        self.assertEqual(self.run_quorval("stop", "the-graph"), (0, "", ""))
        out, err = process.communicate(timeout=100)
        self.assertEqual((process.returncode, out, err), (0, "a 4 dB\n", ""))

    def test_a_graph_that_does_not_run_is_told(self):
        for command in (["describe", "x"], ["get", "x", "a"], ["set", "x", "a.b=1"], ["stop", "x"],
                        ["top", "x"], ["top", "--once", "x"]):
            self.assertEqual(self.run_quorval(*command),
                             (1, "", "quorval: error: there is no running graph 'x'\n"))

    def test_wrong_use_is_told(self):
        for command, text in (
                (["get"], "the name of a graph is missing"),
                (["get", "x"], "the path of a block is missing"),
                (["get", "x", "a", "b"], "'b' is too much"),
                (["list", "x"], "'x' is too much"),
                (["describe", "x", "y"], "'y' is too much"),
                (["stop", "x", "y"], "'y' is too much"),
                (["top"], "the name of a graph is missing"),
                (["top", "x", "y"], "'y' is too much"),
                (["set", "x"], "an assignment is missing"),
                (["set", "x", "a=1"], "'a=1' is not of the form PATH.KEY=VALUE"),
                (["list", "--bus", "none"], "--bus has to be one of user, system, not 'none'"),
                (["run", "--bus", "x", "g.toml"],
                 "--bus has to be one of user, system, none, not 'x'")):
            self.assertEqual(self.run_quorval(*command), (2, "", f"quorval: error: {text}\n"))

    def test_top_prints_a_table_once(self):
        self.start()
        titles = "block   runs  failures  total   max  99 %"
        status, out, err = self.run_quorval("top", "--once", "the-graph")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out.splitlines(), [titles] + [
            f"{path:6}     0         0   0 ns  0 ns  0 ns" for path in ("a", "object", "pair/b", "print")])
        self.graph("test.Object", "/object").Fire()
        # Without a terminal it is the same.
        status, out, err = self.run_quorval("top", "the-graph")
        self.assertEqual((status, err), (0, ""))
        self.assertRegex(out.splitlines()[1], "^print +1 +0 +[1-9]")


class SilentSocket:
    """Takes connections at the place of a bus, and says nothing."""

    def __init__(self, path):
        self.connections = []
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(100)
        other = path.with_suffix(".new")
        self.socket.bind(str(other))
        self.socket.listen()
        other.rename(path)

    def accept(self, process):
        """The connection of the process; others may come too."""
        caller = None
        while caller != process.pid:
            connection = self.socket.accept()[0]
            self.connections.append(connection)
            caller = struct.unpack("iII", connection.getsockopt(socket.SOL_SOCKET,
                                                                socket.SO_PEERCRED, 12))[0]

    def close(self):
        for one in (self.socket, *self.connections):
            one.close()


ENTER = "\x1b[?1049h"
LEAVE = "\x1b[?25h\x1b[?1049l"


class OnTerminal(Operation):
    """`quorval top`."""

    def open_terminal(self):
        self.terminal, self.inside = pty.openpty()
        self.addCleanup(os.close, self.inside)
        self.resize(80, 24)
        self.before = termios.tcgetattr(self.inside)
        self.shown = ""
        self.top = self.start_top()

    def start_top(self):
        top = subprocess.Popen(
            [QUORVAL, "top", "the-graph"], stdin=self.inside, stdout=self.inside,
            stderr=subprocess.PIPE, text=True, env={**self.environment(), "TERM": "xterm"},
            start_new_session=True, preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        self.addCleanup(self.end, top)
        return top

    def resize(self, width, height):
        fcntl.ioctl(self.inside, termios.TIOCSWINSZ, struct.pack("HHHH", height, width, 0, 0))

    def wait_for(self, pattern):
        """The end of what is shown; nothing before it is looked at again."""
        end = time.monotonic() + 100
        while not (found := re.search(pattern, self.shown, re.DOTALL)):
            ready, _, _ = select.select([self.terminal], [], [], max(0, end - time.monotonic()))
            self.assertTrue(ready, f"{pattern!r} did not come after {self.shown!r}")
            self.shown += os.read(self.terminal, 65536).decode()
        self.shown = self.shown[found.end():]
        return found[0]

    def check_end(self, err=""):
        self.wait_for(re.escape(LEAVE))
        self.assertEqual((self.top.communicate(timeout=100)[1], self.top.returncode), (err, 0))
        self.assertEqual(termios.tcgetattr(self.inside), self.before)


class Top(OnTerminal):
    def setUp(self):
        super().setUp()
        self.graph_process = self.start()
        self.open_terminal()
        self.wait_for(r"the-graph: 4 blocks, 0 waves\r\n.*\x1b\[J")

    def test_it_shows_blocks_by_time_until_q(self):
        self.assertNotEqual(termios.tcgetattr(self.inside), self.before)
        self.graph("test.Object", "/object").Fire()
        frame = self.wait_for(r"the-graph: 4 blocks, 1 waves\r\n.*?\x1b\[J")
        lines = [line.replace("\x1b[K", "") for line in frame.split("\r\n")]
        self.assertRegex(lines[1], "^block +load +runs +failures +total +max +99 %$")
        self.assertRegex(lines[2], r"^print +\d+\.\d % +#+ +1 +0 +[1-9].*s$")
        self.assertEqual([len(line) for line in lines[1:-1]], [lines[1].index("99 %") + 4] * 5)
        os.write(self.terminal, b"q")
        self.check_end()

    def test_it_fits_a_terminal_that_gets_smaller(self):
        self.resize(20, 3)
        self.assertEqual(self.wait_for(r"the-graph: 4 blocks,\r\n.*?\x1b\[H"),
                         "the-graph: 4 blocks,\r\n\x1b[Kblock    load  runs\r\n"
                         "\x1b[Ka       0.0 %     0\x1b[H")
        os.write(self.terminal, b"\4")
        self.check_end()

    def test_signals_end_it(self):
        os.write(self.terminal, b"\3")
        self.check_end()

    def test_sigterm_ends_it(self):
        self.top.terminate()
        self.check_end()

    def test_it_can_be_suspended(self):
        os.write(self.terminal, b"\x1a")
        self.assertTrue(os.WIFSTOPPED(os.waitpid(self.top.pid, os.WUNTRACED)[1]))
        self.wait_for(re.escape(LEAVE))
        self.assertEqual(termios.tcgetattr(self.inside), self.before)
        self.top.send_signal(signal.SIGCONT)
        self.wait_for(re.escape(ENTER) + ".*the-graph: 4 blocks")
        os.write(self.terminal, b"q")
        self.check_end()

    def test_it_ends_with_its_terminal(self):
        os.close(self.terminal)
        self.assertEqual(self.top.communicate(timeout=100)[1],
                         "quorval: error: cannot write to standard output: Input/output error\n")

    def test_it_ends_with_the_graph(self):
        self.graph().Stop()
        self.check_end("quorval: graph 'the-graph' has gone\n")

    def test_a_bus_that_does_not_answer_any_more_holds_nothing_up(self):
        silent = SilentSocket(self.bus.socket)
        self.addCleanup(silent.close)
        self.bus.process.kill()
        silent.accept(self.top)
        os.write(self.terminal, b"q")
        self.check_end()

    def test_sigint_ends_the_search_for_the_graph(self):
        os.write(self.terminal, b"q")
        self.check_end()
        silent = SilentSocket(self.bus.socket)
        self.addCleanup(silent.close)
        self.top = self.start_top()
        silent.accept(self.top)
        self.top.send_signal(signal.SIGINT)
        self.assertEqual((self.top.communicate(timeout=100)[1], self.top.returncode),
                         ("", -signal.SIGINT))

    def test_it_goes_on_with_a_graph_that_came_back(self):
        self.top.send_signal(signal.SIGSTOP)
        os.waitpid(self.top.pid, os.WUNTRACED)
        os.write(self.terminal, b"x")  # means nothing
        self.graph_process.kill()
        self.graph_process.communicate()
        self.start()
        self.graph("test.Object", "/object").Fire()
        self.top.send_signal(signal.SIGCONT)
        self.wait_for("the-graph: 4 blocks, 1 waves")
        os.write(self.terminal, b"q")
        self.check_end()

    def test_a_graph_that_does_not_answer_holds_nothing_up(self):
        self.graph_process.send_signal(signal.SIGSTOP)
        self.addCleanup(self.graph_process.send_signal, signal.SIGCONT)
        self.wait_for(r"0 waves, no answer for \d s")
        os.write(self.terminal, b"q")
        self.check_end()


class WaitingTop(OnTerminal):
    """Of a graph that has never answered."""

    def setUp(self):
        super().setUp()
        self.graph_process = self.start()
        self.graph_process.send_signal(signal.SIGSTOP)
        self.open_terminal()
        self.wait_for(r"the-graph: waiting for its answer\r\n\x1b\[Kblock +load.*\x1b\[J")

    def test_it_ends_when_it_is_told(self):
        os.write(self.terminal, b"q")
        self.check_end()

    def test_it_shows_the_blocks_when_they_are_known(self):
        self.graph_process.send_signal(signal.SIGCONT)
        self.wait_for("the-graph: 4 blocks, 0 waves")
        os.write(self.terminal, b"q")
        self.check_end()

    def test_it_fails_when_the_graph_ends(self):
        self.graph_process.kill()
        self.wait_for(re.escape(LEAVE))
        # The text is that of the bus.
        self.assertRegex(self.top.communicate(timeout=100)[1], r"^quorval: error: [^\n]+\n$")
        self.assertEqual(self.top.returncode, 1)
        self.assertEqual(termios.tcgetattr(self.inside), self.before)


class Links(OnTerminal):
    """A graph on two machines, each with a bus of its own."""

    GRAPH = """format = 1
name = "the-graph"
connections = [{ from = "object.out", to = "print.in", delivery = "all" }]
machines = { edge = {}, hub = {} }
link.broker = "mqtt://127.0.0.1:PORT"
blocks.object = { type = "operated:Object", machine = "edge" }
blocks.print = { type = "numbers:Print", machine = "hub" }
"""

    def setUp(self):
        super().setUp()
        broker = Broker(self.directory)
        self.addCleanup(broker.stop)
        self.write(self.GRAPH.replace("PORT", str(broker.port)))
        there = self.directory / "hub"
        there.mkdir()
        self.buses = {"hub": Bus(there), "edge": self.bus}
        self.addCleanup(self.buses["hub"].stop)
        # Nothing is kept for a hub that was never there.
        self.hub = self.start_machine("hub")
        self.edge = self.start_machine("edge")

    def start_machine(self, machine):
        self.bus = self.buses[machine]
        process = self.popen("run", "--bus", "user", "-v", "--machine", machine, "g.toml")
        self.assertTrue(any(line.endswith(" stands\n") for line in process.stderr))
        return process

    def fire(self, count):
        """One after the other, so that none waits for another."""
        for at in range(count):
            self.graph("test.Object", "/object").Fire()
            self.bus = self.buses["hub"]
            while self.statistics()[0][2] != at + 1:
                self.assertIsNone(self.hub.poll())
            self.bus = self.buses["edge"]

    def statistics(self):
        return [tuple(row) for row in self.graph(LINK_INTERFACE).Statistics()]

    def test_what_went_over_them_is_on_the_bus(self):
        self.assertEqual(self.statistics(), [("object.out", False, 0, 0, 0, 0, 0, 0)])
        self.fire(3)
        self.assertEqual(self.statistics(), [("object.out", False, 3, 15, 0, 0, 0, 1)])
        self.bus = self.buses["hub"]
        self.assertEqual(self.statistics(), [("object.out", True, 3, 15, 0, 0, 0, 1)])
        self.assertEqual(self.own_interfaces()[LINK_INTERFACE],
                         {"Statistics": ("method", [("out", "a(sbtttttt)")])})
        self.bus = self.buses["edge"]

    def test_a_queue_and_what_it_loses_are_counted(self):
        self.edge.send_signal(signal.SIGTERM)
        self.edge.communicate(timeout=100)
        self.write("format = 1\nlink.queue = 2\nlink.broker = 'mqtt://127.0.0.1:1'\n", "away.toml")
        self.popen("run", "--bus", "user", "--machine", "edge", "g.toml", "away.toml")
        bus = self.connect()
        while not bus.name_has_owner(NAME):
            pass
        for _ in range(5):
            self.graph("test.Object", "/object").Fire()
        self.assertEqual(self.statistics(), [("object.out", False, 0, 0, 3, 0, 0, 2)])

    def test_top_shows_them_below_the_blocks(self):
        self.fire(2)
        self.assertEqual(self.run_quorval("top", "--once", "the-graph"), (
            0, "block   runs  failures  total   max  99 %\n"
               "object     0         0   0 ns  0 ns  0 ns\n"
               "link           values  bytes  lost  gaps  queue\n"
               "object.out ->       2     10     0     0      1\n", ""))
        self.open_terminal()
        frame = self.wait_for(r"the-graph: 1 blocks, 2 waves\r\n.*?\x1b\[J")
        lines = [line.replace("\x1b[K", "") for line in frame.split("\r\n")]
        self.assertEqual(lines[3:6], ["", "link           values  bytes  lost  gaps  queue",
                                      "object.out ->       2     10     0     0      1"])
        os.write(self.terminal, b"q")
        self.check_end()


if __name__ == "__main__":
    unittest.main()
