"""Memory of bytes-like objects is written to as the editor's hex view does."""

import base64
import unittest

from dap_client import AdapterTestCase
from session import line_of

PROGRAM = """\
    import array
    data = bytearray(b"abcdefgh")
    view = memoryview(data)[2:6]
    numbers = array.array("H", [1, 2])
    fixed = b"abc"
    fixed_view = memoryview(fixed)
    strided = memoryview(bytearray(8))[::2]
    released = memoryview(bytearray(3))
    stop = 1                        # here
    print(bytes(data), numbers.tolist())
"""


class WriteMemoryTest(AdapterTestCase):
    def setUp(self):
        super().setUp()
        path = self.program(PROGRAM)
        self.client = self.client()
        self.client.launch(path, {path: [line_of(path, "here")]},
                           {"supportsMemoryEvent": True, "supportsInvalidatedEvent": True})
        self.frame_id = self.client.wait_for_stop("breakpoint")["frame"]["id"]
        self.rows = self.client.locals(self.frame_id)

    def arguments(self, name, data, offset=0, **more):
        return {"memoryReference": self.rows[name]["memoryReference"], "offset": offset,
                "data": base64.b64encode(data).decode(), **more}

    def write(self, *arguments, **more):
        return self.client.ask("writeMemory", self.arguments(*arguments, **more))

    def refused(self, *arguments, **more):
        return self.client.refused("writeMemory", self.arguments(*arguments, **more))

    def read(self, name):
        return base64.b64decode(self.client.ask("readMemory", memoryReference=self.rows[name]["memoryReference"], count=99)["data"])

    def finish(self):
        self.client.go_on()
        self.client.wait_for("terminated")
        return self.client.output["stdout"]

    def test_writes_into_what_can_be_written_to(self):
        self.assertIs(self.client.capabilities["supportsWriteMemoryRequest"], True)
        self.assertEqual(self.write("data", b"XY", 6), {"offset": 6, "bytesWritten": 2})
        self.assertEqual(self.write("view", b"12"), {"offset": 0, "bytesWritten": 2})
        self.assertEqual(self.write("numbers", (770).to_bytes(2, "little"), 2), {"offset": 2, "bytesWritten": 2})
        self.assertEqual(self.write("data", b""), {"offset": 0, "bytesWritten": 0})
        self.assertEqual((self.read("view"), self.read("numbers")), (b"12ef", b"\1\0\2\3"))
        self.assertEqual(self.finish(), "b'ab12efXY' [1, 770]\n")

    def test_all_or_nothing_unless_a_part_is_enough(self):
        outside = "this memory cannot be written to: it has 8 bytes"
        for offset in (6, 8, -1, 2**70):
            self.assertEqual(self.refused("data", b"123", offset), outside)
        for offset in (9, -5):
            self.assertEqual(self.refused("data", b"123", offset, allowPartial=True), outside)
        self.assertEqual(self.read("data"), b"abcdefgh")
        self.assertEqual(self.write("data", b"123", 6, allowPartial=True), {"offset": 6, "bytesWritten": 2})
        self.assertEqual(self.write("data", b"890", -1, allowPartial=True), {"offset": 0, "bytesWritten": 2})
        self.assertEqual(self.read("data"), b"90cdef12")

    def test_what_cannot_be_written_to_is_refused(self):
        self.client.evaluate("released.release()", self.frame_id)
        for name, why in (("fixed", "it is read-only"), ("fixed_view", "it is read-only"),
                          ("strided", "it is not in one piece"),
                          ("released", "operation forbidden on released memoryview object")):
            self.assertEqual(self.refused(name, b"x"), "this memory cannot be written to: " + why)
        self.assertEqual(self.client.refused("writeMemory", self.arguments("data", b"") | {"data": "?"}),
                         "writeMemory: 'data' has to be base64")
        self.assertEqual(self.client.refused("writeMemory", memoryReference="0", data=""),
                         "memory 0 is gone: the program has gone on")
        old = self.arguments("data", b"x")
        self.finish()
        self.assertFalse(self.client.wait_for_answer(self.client.send("writeMemory", old))["success"])

    def test_client_is_told_of_what_has_changed(self):
        self.write("view", b"1")
        self.assertEqual(self.client.wait_for("invalidated"), {"areas": ["variables"]})
        told = {self.client.wait_for("memory")["memoryReference"] for _ in range(5)}
        self.assertEqual(told, {self.rows[name]["memoryReference"] for name in ("data", "view", "numbers", "strided", "released")})


if __name__ == "__main__":
    unittest.main()
