"""Calls of a graph on a bus with whatever a caller may send.

usage: bus_fuzz_test.py PLUGINS POLICY QUORVAL

The calls are made from what the graph says of itself, and go wrong in every place. QUORVAL_BUS_CALLS
says how many there are, QUORVAL_BUS_SEED which.
"""

import json
import os
import random
import subprocess
import sys
import unittest
import xml.etree.ElementTree

import dbus
import dbus.lowlevel

sys.dont_write_bytecode = True  # beside the sources
from operation_test import ERROR, INTERFACE, NAME, PATH, QUORVAL, WITH_THE_TEST, Operation

CALLS = int(os.environ.get("QUORVAL_BUS_CALLS", "1500"))
SEED = int(os.environ.get("QUORVAL_BUS_SEED", "1"))

PROPERTIES = "org.freedesktop.DBus.Properties"
OBJECTS = ((PATH, INTERFACE), ("/object", "test.Object"))
SIGNATURES = ("", "s", "ss", "sss", "i", "t", "d", "b", "o", "g", "v", "as", "ay", "a{ss}", "a{sv}",
              "a{si}", "(ss)", "a(ss)", "ssv", "aas")
OWN_ERRORS = {ERROR + name for name in ("UnknownBlock", "InvalidValue", "Refused")}
# What a bus has for calls that are not as the object says.
COMMON_ERRORS = {"org.freedesktop.DBus.Error." + name for name in (
    "InvalidArgs", "InvalidSignature", "UnknownInterface", "UnknownMethod", "UnknownObject",
    "UnknownProperty", "PropertyReadOnly", "AccessDenied")}
PATHS = ("a", "pair/b", "pair", "object", "print", "c", "", "/", "a/", "../a", "a b", "ä", "x" * 5000)
KEYS = ("level", "label", "fixed", "levl", "pstore_path", "", ".", "a..b", "l$", "label.x", "=",
        "ä", "k" * 5000)
VALUES = ("4", "-4", "11", "7", "3000000000", "1e999", "nan", "true", "x", '"x"', "'''x'''", "", " ",
          "[]", "[1]", "[1, 2.0]", "['a', 1]", "[[1]]", "{}", "{ a = 1 }", "1979-05-27", "07:32:00",
          '"\\u0000"', '"', "[1", "1 # 2", "1\n2", "x = 1", "[x]", "\x01", "ä\U0001f600", "[" * 5000,
          "9" * 5000, "[" + "1," * 20000 + "]", '"' + "y" * 100000 + '"')

EXPECTED = ("^quorval: (error: block 'object' failed in D-Bus call: (not today|an unknown exception)"
            "|warning: print: Block print possibly did not consume all of \\(Re-\\)Configuration)$")


class Caller:
    """Makes up calls."""

    def __init__(self, seed, members):
        self.random = random.Random(seed)
        self.members = members

    def text(self):
        choose = self.random.choice
        kinds = (lambda: choose(PATHS), lambda: choose(KEYS), lambda: choose(VALUES),
                 lambda: choose(PATHS) + "." + choose(KEYS))
        return choose(kinds)()

    def target(self):
        return self.random.choice(PATHS[:2] * 3 + PATHS) + "." + self.random.choice(
            KEYS[:2] * 5 + KEYS)

    def change(self):
        """Now and then one that nothing is wrong with."""
        if self.random.random() < 0.3:
            return {"a.level": str(self.random.choice((1, 2, 3, 7))), "a.label": self.text()}
        size = self.random.choice((0, 1, 1, 1, 2, 3, 500))
        return {self.target(): self.random.choice(VALUES) for _ in range(size)}

    def value(self, signature):
        """A value of one complete type."""
        count = self.random.choice((0, 1, 3))
        return {
            "s": self.text, "i": lambda: self.random.randrange(-2**31, 2**31),
            "t": lambda: self.random.randrange(2**64), "d": lambda: self.random.choice((
                0.0, float("nan"), float("inf"), 1e308)),
            "b": lambda: self.random.random() < 0.5, "o": lambda: self.random.choice(("/", PATH)),
            "g": lambda: "a{ss}", "v": lambda: dbus.String(self.text(), variant_level=1),
            "as": lambda: [self.text() for _ in range(count)], "ay": lambda: b"\xff" * count,
            "a{ss}": self.change, "a{sv}": lambda: {self.text(): dbus.Int32(1)},
            "a{si}": lambda: {self.text(): 1}, "(ss)": lambda: (self.text(), self.text()),
            "a(ss)": lambda: [(self.text(), self.text())] * count,
            "aas": lambda: [[self.text()]] * count,
        }[signature]()

    def arguments(self, signature):
        return [self.value(one) for one in map(str, dbus.Signature(signature))]

    def call(self):
        """Object path, interface, method, signature, and whether all of that is as it should be."""
        path, interface = self.random.choice(OBJECTS)
        kind = self.random.random()
        if kind < 0.6:
            name, signature = self.random.choice(self.members[interface])
            return path, interface, name, signature, True
        if kind < 0.75:
            name, signature = self.random.choice(self.members[interface])
            wrong = self.random.choice([one for one in SIGNATURES if one != signature])
            return path, interface, name, wrong, False
        if kind < 0.9:
            name, signature = self.random.choice((("Get", "ss"), ("GetAll", "s"), ("Set", "ssv")))
            return path, PROPERTIES, name, signature, False
        return (self.random.choice(("/", "/org", "/org/quorval/graph/a", path)),
                self.random.choice((interface, PROPERTIES, "org.quorval.Graph2")),
                self.random.choice(("Nothing", "Get", "Configure", "Ping")),
                self.random.choice(SIGNATURES), False)

    def property_arguments(self, signature, interface, names):
        """Of calls of properties, which name one."""
        value = dbus.Int32(self.random.randrange(100)) if self.random.random() < 0.5 else self.text()
        return [self.random.choice((interface, interface, self.text())),
                self.random.choice(names + [self.text()]), value][:len(signature)]


class Fuzz(Operation):
    def members_of(self, path, interface):
        text = dbus.Interface(self.connect().get_object(NAME, path, introspect=False),
                              "org.freedesktop.DBus.Introspectable").Introspect()
        tree = xml.etree.ElementTree.fromstring(text).find(f"interface[@name='{interface}']")
        methods = [(method.get("name"), "".join(one.get("type") for one in method.iter("arg")
                                                if one.get("direction") == "in"))
                   for method in tree.iter("method")]
        return methods, [one.get("name") for one in tree.iter("property")]

    def start_graph(self):
        environment = self.environment()
        # So that what was given back does not count as lost.
        environment["ASAN_OPTIONS"] = environment.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1"
        self.messages = open(self.directory / "messages", "w+", encoding="utf-8")
        self.addCleanup(self.messages.close)
        process = subprocess.Popen([*WITH_THE_TEST, QUORVAL, "run", "--bus", "user", "--state",
                                    "state", "g.toml"], cwd=self.directory,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=self.messages, env=environment)
        self.addCleanup(self.end, process)
        self.wait_for_name(process)
        return process

    @staticmethod
    def memory_of(process):
        """In KiB."""
        with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))

    def test_no_call_does_harm(self):
        process = self.start_graph()
        members, properties = {}, {}
        for path, interface in OBJECTS:
            methods, properties[interface] = self.members_of(path, interface)
            members[interface] = [one for one in methods if one[0] != "Stop"]
        self.assertIn(("Configure", "a{ss}"), members[INTERFACE])
        caller = Caller(SEED, members)
        bus = self.connect()
        answers = {}
        for number in range(CALLS):
            if number == CALLS // 2:
                memory = self.memory_of(process)
            path, interface, name, signature, is_right = caller.call()
            arguments = caller.arguments(signature)
            if interface == PROPERTIES and signature in ("s", "ss", "ssv") and name != "Nothing":
                owner = dict(OBJECTS).get(path, INTERFACE)
                arguments = caller.property_arguments(dbus.Signature(signature), owner,
                                                      properties[owner])
            message = dbus.lowlevel.MethodCallMessage(NAME, path, interface, name)
            message.append(*arguments, signature=signature)
            try:
                bus.send_message_with_reply_and_block(message, 100)
                answer = "done"
            except dbus.DBusException as error:
                answer = error.get_dbus_name()
                allowed = OWN_ERRORS if is_right else OWN_ERRORS | COMMON_ERRORS
                self.assertIn(answer, allowed, f"call {number}: {path} {interface}.{name} "
                                               f"{signature} {arguments!r}"[:2000])
            answers[answer] = answers.get(answer, 0) + 1
            self.assertIsNone(process.poll(), f"call {number} ended the graph")

        # Each kind came, so the calls were worth something.
        self.assertLessEqual(OWN_ERRORS | {"done"}, set(answers))
        self.assertLess(self.memory_of(process) - memory, 64 * 1024)
        self.assertEqual(json.loads(self.graph().Describe())["name"], "the-graph")
        self.graph().Configure({"a.level": "5"})
        self.graph().Stop()
        self.assertEqual(process.wait(timeout=100), 0)
        self.messages.seek(0)
        for line in self.messages:
            self.assertRegex(line, EXPECTED)
        # What was saved meanwhile does not keep the graph from starting.
        self.messages.truncate(0)
        process = self.start_graph()
        self.graph().Stop()
        self.assertEqual(process.wait(timeout=100), 0)


if __name__ == "__main__":
    unittest.main()
