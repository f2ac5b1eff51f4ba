"""The extension for VS Code says of a configuration's settings what the adapter makes of them."""

import json
import re
import subprocess
import sys
import unittest
import zipfile
from pathlib import Path

from host_support import HOST_DIR, module_dir, scratch_folder

sys.path[:0] = [module_dir(), str(HOST_DIR)]
from brixdebug.dap import arguments  # noqa: E402  (from the folder above)

ROOT = Path(__file__).resolve().parent.parent.parent
PACKAGE = json.loads((ROOT / "editors" / "vscode" / "package.json").read_text())
DEBUGGER, = PACKAGE["contributes"]["debuggers"]

# Of each JSON type a value that may be right.
SAMPLES = {"string": "5678", "boolean": True, "integer": 5678, "array": [], "object": {"port": 5678}, "number": 0.5}


def rows(request):
    return {name: parse for name, requests, parse, _ in arguments._ROWS if request in requests}


def is_accepted(parse, name, value):
    try:
        parse(name, value)
    except arguments.ArgumentError:
        return False
    return True


def filled(value):
    """A snippet's body as the user has it who takes what is proposed."""
    if isinstance(value, dict):
        return {name: filled(each) for name, each in value.items()}
    if isinstance(value, list):
        return [filled(each) for each in value]
    if isinstance(value, str):
        is_raw = value.startswith("^")
        text = re.sub(r"(?<!\\)\$\{\d:([^}]*)\}", r"\1", value.lstrip("^")).replace("\\$", "$")
        return json.loads(text) if is_raw else text
    return value


class ExtensionTest(unittest.TestCase):
    def properties(self, request):
        return DEBUGGER["configurationAttributes"][request]["properties"]

    def test_settings_are_those_of_the_adapter(self):
        for request in ("launch", "attach"):
            with self.subTest(request):
                self.assertEqual(set(self.properties(request)), set(rows(request)))

    def test_types_are_those_that_the_adapter_accepts(self):
        for request in ("launch", "attach"):
            for name, parse in rows(request).items():
                schema = self.properties(request)[name]
                types = [schema["type"]] if isinstance(schema["type"], str) else schema["type"]
                samples = {**SAMPLES, "string": schema["enum"][0]} if "enum" in schema else SAMPLES
                with self.subTest(request=request, name=name):
                    accepted = {kind for kind, sample in samples.items() if is_accepted(parse, name, sample)}
                    if name == "env":                        # any object
                        accepted |= {"object"}
                    self.assertEqual(accepted, set(types))

    def test_values_of_a_choice_and_defaults_are_accepted(self):
        for request in ("launch", "attach"):
            for name, schema in self.properties(request).items():
                for value in [*schema.get("enum", ()), *([schema["default"]] if "default" in schema else ())]:
                    with self.subTest(request=request, name=name, value=value):
                        self.assertTrue(is_accepted(rows(request)[name], name, value))
        self.assertEqual(tuple(self.properties("launch")["console"]["enum"]), arguments.CONSOLES)

    def test_every_setting_is_described(self):
        for request in ("launch", "attach"):
            for name, schema in self.properties(request).items():
                with self.subTest(request=request, name=name):
                    self.assertRegex(schema["description"], r"^[A-Z].*\.$")

    def test_configurations_that_are_offered_are_whole(self):
        bodies = DEBUGGER["initialConfigurations"] + [each["body"] for each in DEBUGGER["configurationSnippets"]]
        for body in map(filled, bodies):
            with self.subTest(body["name"]):
                self.assertEqual(body["type"], DEBUGGER["type"])
                self.assertEqual(arguments.parse(body["request"], body).ignored, [])

    def test_each_way_to_attach_is_offered(self):
        bodies = [filled(each["body"]) for each in DEBUGGER["configurationSnippets"]]
        ways = [set(body) - {"name", "type", "request"} for body in bodies if body["request"] == "attach"]
        self.assertEqual(ways, [{"connect"}, {"processId"}])
        process, = [body for body in bodies if "processId" in body]
        self.assertEqual(arguments.parse("attach", process).process_id, 4711)

    def test_packed_extension_has_all_that_it_names(self):
        folder = scratch_folder(self)
        path = subprocess.run([sys.executable, str(ROOT / "tools" / "make_vsix"), str(folder)], check=True,
                              capture_output=True, text=True).stdout.strip()
        with zipfile.ZipFile(path) as archive:
            self.assertEqual(sorted(archive.namelist()), [
                "[Content_Types].xml", "extension.vsixmanifest", "extension/README.md", "extension/extension.js",
                "extension/package.json"])
            self.assertEqual(json.loads(archive.read("extension/package.json")), PACKAGE)
            manifest = archive.read("extension.vsixmanifest").decode()
        for key in ("name", "version", "publisher"):
            self.assertIn('"%s"' % PACKAGE[key], manifest)
        self.assertTrue((ROOT / "editors" / "vscode" / PACKAGE["main"]).exists())


if __name__ == "__main__":
    unittest.main()
