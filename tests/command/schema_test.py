"""Compares what `quorval schema` accepts with what `quorval check` does.

usage: schema_test.py CASES QUORVAL PLUGINS

CASES is a directory of texts with graph files, each behind a line "=== NAME": `right.txt` is right
for both, `wrong.txt` wrong for both, and `parts.txt` right for the schema, as another file brings
what is missing.
"""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import tomllib
import unittest

import jsonschema

PLUGINS = sys.argv.pop()
QUORVAL = sys.argv.pop()
CASES = pathlib.Path(sys.argv.pop())


def quorval(command, *arguments):
    return subprocess.run([QUORVAL, command, "--plugin-path", PLUGINS, *arguments], text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def read_cases(name):
    parts = re.split(r"^=== (.*)\n", (CASES / name).read_text(), flags=re.MULTILINE)
    return list(zip(parts[1::2], parts[2::2]))


def status_of_check(text):
    with tempfile.NamedTemporaryFile("w", suffix=".toml") as file:
        file.write(text)
        file.flush()
        return quorval("check", file.name).returncode


class Schema(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.schema = json.loads(quorval("schema", "declares").stdout)
        jsonschema.Draft202012Validator.check_schema(cls.schema)
        cls.validator = jsonschema.Draft202012Validator(cls.schema)

    def check(self, name, is_valid, status):
        cases = read_cases(name)
        self.assertGreater(len(cases), 5)
        for case, text in cases:
            with self.subTest(case=case):
                errors = list(self.validator.iter_errors(tomllib.loads(text)))
                self.assertEqual(not errors, is_valid, errors)
                if status is not None:
                    self.assertEqual(status_of_check(text), status)

    def test_accepts_what_check_accepts(self):
        self.check("right.txt", True, 0)

    def test_refuses_what_check_refuses(self):
        self.check("wrong.txt", False, 3)

    def test_requires_nothing_that_another_file_may_bring(self):
        self.check("parts.txt", True, None)

    def test_says_which_draft_it_is(self):
        self.assertEqual(self.schema["$schema"], "https://json-schema.org/draft/2020-12/schema")

    def test_shows_texts_and_defaults(self):
        rules = self.schema["$defs"]["rules"]["allOf"]
        config = next(rule["then"]["properties"]["config"] for rule in rules
                      if rule["if"]["properties"]["type"]["const"] == "declares:All")
        self.assertEqual(config["description"], "Has a setting of each kind.")
        self.assertEqual(config["properties"]["factor"],
                         {"type": "number", "minimum": -1000, "maximum": 1000, "default": 1,
                          "description": "a number in a range"})

    def test_knows_no_types_without_a_plugin(self):
        schema = json.loads(quorval("schema").stdout)
        jsonschema.Draft202012Validator.check_schema(schema)
        validator = jsonschema.Draft202012Validator(schema)
        for config in ({"facto": 1}, {"factor": "x"}):
            self.assertTrue(validator.is_valid(
                {"format": 1, "blocks": {"a": {"type": "declares:All", "config": config}}}))
        self.assertFalse(validator.is_valid({"format": 1, "blocks": {"a": {"typ": "a:B"}}}))

    def test_names_a_plugin_that_cannot_be_used(self):
        result = quorval("schema", "declares", "nobody")
        self.assertEqual((result.returncode, result.stdout), (3, ""))
        self.assertRegex(result.stderr, "^quorval: error: there is no plug-in 'nobody' in [^\n]*\n$")

    def test_refuses_wrong_use(self):
        for arguments, text in ((["a/b"], "'a/b' is not a valid name (letters, digits, '_' and '-')"),
                                (["--set", "x"], "'x' is not of the form KEY=VALUE")):
            result = quorval("schema", *arguments)
            self.assertEqual((result.returncode, result.stdout), (2, ""))
            self.assertEqual(result.stderr, f"quorval: error: {text}\n")


if __name__ == "__main__":
    unittest.main()
