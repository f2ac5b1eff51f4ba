"""Files, lines and columns as the client has asked for them in `initialize`."""

import unittest

from dap_client import AdapterTestCase

NAME = "a b%41é#?.py"
QUOTED = "a%20b%2541%C3%A9%23%3F.py"
TEXT = """\
import sys
def work(n):
    x = n; y = int(str(n))
    return y
work(1)
work(2)
"""


class UriTest(AdapterTestCase):
    def setUp(self):
        super().setUp()
        self.path = self.program(TEXT, NAME)
        self.uri = "file://%s/%s" % (self.folder, QUOTED)

    def begun(self, breakpoints, path_format="uri", **arguments):
        client = self.client()
        client.begin("launch", {"program": str(self.path), "console": "internalConsole", **arguments}, breakpoints,
                     pathFormat=path_format)
        return client

    def test_files_have_uris_in_both_directions(self):
        client = self.begun({self.uri: [4]})
        frame = client.wait_for_stop("breakpoint")["frame"]
        self.assertEqual((frame["line"], frame["source"]["path"], frame["source"]["name"]), (4, self.uri, NAME))
        self.assertIn(self.uri, [each["path"] for each in client.ask("loadedSources")["sources"]])
        modules = {each["name"]: each.get("path") for each in client.ask("modules", {})["modules"]}
        self.assertEqual(modules["__main__"], self.uri)
        self.assertEqual([row["line"] for row in client.ask("breakpointLocations", source={"path": self.uri}, line=4)["breakpoints"]], [4])
        self.assertEqual(client.ask("gotoTargets", source={"path": self.uri}, line=3)["targets"][0]["line"], 3)
        functions = client.ask("setFunctionBreakpoints", breakpoints=[{"name": "work"}])["breakpoints"]
        self.assertEqual(functions[0]["source"]["path"], self.uri)

    def test_log_points_name_the_file_by_its_uri(self):
        client = self.begun({self.uri: [{"line": 4, "logMessage": "y is {y}"}]})
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["console"], "y is 1\ny is 2\n")
        self.assertEqual(client.output_places, [(self.uri, 4), (self.uri, 4)])

    def test_other_forms_of_the_same(self):
        for uri in self.uri.replace("file://", "file:"), self.uri.replace("file://", "file://localhost"), str(self.path), \
                self.uri.replace("%C3%A9", "é"), self.uri.replace("file:", "FILE:"):
            with self.subTest(uri):
                client = self.begun({uri: [4]})
                self.assertEqual(client.wait_for_stop("breakpoint")["frame"]["source"]["path"], self.uri)

    def test_paths_are_mapped(self):
        mappings = [{"localRoot": "/home/some one", "remoteRoot": str(self.folder)}]
        uri = "file:///home/some%20one/" + QUOTED
        client = self.begun({uri: [4]}, pathMappings=mappings)
        self.assertEqual(client.wait_for_stop("breakpoint")["frame"]["source"]["path"], uri)

    def test_paths_of_windows_are_mapped(self):
        uri = "file:///C%3A/some%20one/" + QUOTED
        client = self.begun({uri: [4]}, pathMappings=[{"localRoot": "C:\\some one", "remoteRoot": str(self.folder)}])
        self.assertEqual(client.wait_for_stop("breakpoint")["frame"]["source"]["path"], uri)

    def test_name_that_is_no_text_in_utf_8(self):
        client = self.begun({"file://%s/caf%%E9.py" % self.folder: [1]})
        row, = client.breakpoints.popitem()[1]
        self.assertEqual((row["verified"], row["message"]), (
            False, "there is no file %s/caf\N{REPLACEMENT CHARACTER}.py where the program runs" % self.folder))

    def test_unknown_format_is_refused(self):
        client = self.client()
        self.assertEqual(client.refused("initialize", adapterID="brixdebug", pathFormat="url"),
                         "initialize: 'pathFormat' has to be \"path\" or \"uri\", not 'url'")


class NumbersFromZeroTest(AdapterTestCase):
    def test_lines_and_columns(self):
        path = self.program(TEXT)
        client = self.client()
        client.begin("launch", {"program": str(path), "console": "internalConsole"}, linesStartAt1=False, columnsStartAt1=False,
                     breakpoints={str(path): [{"line": 2, "column": 11}, {"line": 3, "logMessage": "y is {y}"}]})
        self.assertEqual([(row["line"], row.get("column")) for row in client.breakpoints[str(path)]], [(2, 11), (3, None)])
        frame = client.wait_for_stop("breakpoint")["frame"]
        self.assertEqual((frame["line"], frame["column"]), (2, 11))
        self.assertEqual([(row["line"], row.get("column")) for row in client.ask(
            "breakpointLocations", source={"path": str(path)}, line=2, endLine=3)["breakpoints"]], [(2, None), (2, 11), (3, None)])
        target = client.ask("gotoTargets", source={"path": str(path)}, line=3)["targets"][0]
        self.assertEqual((target["line"], target["label"]), (3, "line 3"))
        targets = client.ask("stepInTargets", frameId=frame["id"])["targets"]
        self.assertEqual([(row["label"], row["line"], row["column"], row["endColumn"]) for row in targets],
                         [("str", 2, 19, 25), ("int", 2, 15, 26)])
        function = client.ask("setFunctionBreakpoints", breakpoints=[{"name": "work"}])["breakpoints"][0]
        self.assertEqual(function["line"], 1)
        names = [row["label"] for row in client.ask("completions", text="sys.exe\nn", column=7, frameId=frame["id"])["targets"]]
        self.assertEqual(names, ["exec_prefix", "executable"])
        client.ask("setBreakpoints", source={"path": str(path)}, breakpoints=[{"line": 3, "logMessage": "y is {y}"}])
        client.ask("setFunctionBreakpoints", breakpoints=[])
        client.go_on()
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["console"], "y is 1\ny is 2\n")
        self.assertEqual(client.output_places, [(str(path), 3), (str(path), 3)])


    def test_lines_of_what_is_completed(self):
        path = self.program(TEXT)
        for first in 0, 1:
            client = self.client()
            client.begin("launch", {"program": str(path), "console": "internalConsole", "stopOnEntry": True},
                         linesStartAt1=bool(first), columnsStartAt1=bool(first))
            frame_id = client.wait_for_stop("entry")["frame"]["id"]
            client.evaluate("import sys", frame_id)
            for line, column in (0, 7), (1, 13), (2, 7):
                targets = client.ask("completions", text="sys.exe\nx = 1,sys.exe\nsys.exe", line=first + line, column=first + column,
                                     frameId=frame_id)["targets"]
                self.assertEqual([row["label"] for row in targets], ["exec_prefix", "executable"], (first, line))

    def test_what_is_no_flag_is_refused(self):
        client = self.client()
        client.record_nothing()
        for name in "linesStartAt1", "columnsStartAt1":
            self.assertEqual(client.refused("initialize", {"adapterID": "brixdebug", name: 1}),
                             "initialize: %r has to be true or false, not 1" % name)
        client.ask("initialize", adapterID="brixdebug", linesStartAt1=True)


if __name__ == "__main__":
    unittest.main()
