"""Data breakpoints of the debug adapter: stops where a value has changed."""

import unittest

from dap_client import AdapterTestCase
from session import line_of

PROGRAM = """\
    import threading
    COUNT = 0

    class Account:
        def __init__(self):
            self.balance = 1
            self.items = {"a": 1}
        def add(self, amount):
            self.balance += amount          # add
            return self.balance             # after add

    def work(account):
        total = 0                           # start
        for n in range(3):
            total += n                      # total
        account.add(5)                      # call
        account.items["a"] = 2              # item
        numbers = [1, 2, 3]
        numbers[1] = 20                     # element
        return total                        # return

    account = Account()
    work(account)
    thread = threading.Thread(target=account.add, args=(7,), name="worker")
    thread.start()
    thread.join()
    COUNT = 1                               # count
    COUNT = 2
    print("end", account.balance)           # end
"""


class DataBreakpointTest(AdapterTestCase):
    def stopped_at(self, mark):
        self.path = self.program(PROGRAM)
        client = self.client()
        client.launch(self.path, {self.path: [line_of(self.path, mark)]})
        self.stop = client.wait_for_stop("breakpoint")
        client.set_breakpoints(self.path, [])
        self.frame_id = self.stop["frame"]["id"]
        return client

    def watch(self, client, *data_ids, **more):
        rows = client.ask("setDataBreakpoints", breakpoints=[{"dataId": each, **more} for each in data_ids])["breakpoints"]
        return rows[0] if len(rows) == 1 else rows

    def data_id(self, client, name, *path, scope=0):
        """That of a variable, found as a user finds it: by opening what it is in."""
        reference = client.ask("scopes", frameId=self.frame_id)["scopes"][scope]["variablesReference"]
        for each in path:
            reference = client.variables(reference)[each]["variablesReference"]
        return client.ask("dataBreakpointInfo", variablesReference=reference, name=name)

    def next_change(self, client):
        client.go_on()
        stop = client.wait_for_stop("data breakpoint")
        self.stop = stop
        return stop["frame"]["name"], stop["text"]

    def line(self, mark):
        return line_of(self.path, mark)

    def test_local_variable_until_its_call_ends(self):
        client = self.stopped_at("start")
        info = client.ask("dataBreakpointInfo", name="n", frameId=self.frame_id)       # not bound yet
        self.assertEqual((info["description"], info["accessTypes"], info["canPersist"]), ("n", ["write"], False))
        row = self.watch(client, info["dataId"])
        self.assertEqual(row["verified"], True)
        changes = [self.next_change(client) for _ in range(3)]
        self.assertEqual(changes[1:], [("work", "n was %d, is %d; changed in work(), line %d" % (
            n - 1, n, self.line("start") + 1)) for n in (1, 2)])
        self.assertTrue(changes[0][1].startswith("n was <NameError: name 'n' is not defined>, is 0"), changes[0])
        self.assertEqual(self.stop["hitBreakpointIds"], [row["id"]])
        client.go_on()
        self.assertEqual(client.finish(), 0)
        event = next(each["body"] for each in client.events if each["event"] == "breakpoint")
        self.assertEqual(event, {"reason": "changed", "breakpoint": {
            "id": row["id"], "verified": False, "message": "the call of work() has ended"}})

    def test_attribute_in_all_threads_and_elements(self):
        client = self.stopped_at("start")
        self.watch(client, self.data_id(client, "balance", "account")["dataId"],
                   self.data_id(client, "'a'", "account", "items")["dataId"])
        self.assertEqual(self.next_change(client),
                         ("Account.add", "account.balance was 1, is 6; changed in Account.add(), line %d" % self.line("add")))
        self.assertEqual(self.next_change(client),
                         ("work", "account.items['a'] was 1, is 2; changed in work(), line %d" % self.line("item")))
        self.assertEqual(self.next_change(client)[1],
                         "account.balance was 6, is 13; changed in Account.add(), line %d" % self.line("add"))
        names = {each["id"]: each["name"] for each in client.ask("threads")["threads"]}
        self.assertEqual(names[self.stop["threadId"]], "worker")
        client.go_on()
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "end 13\n")

    def test_global_name_and_expression(self):
        client = self.stopped_at("start")
        of_scope = self.data_id(client, "COUNT", scope=1)
        anywhere = client.ask("dataBreakpointInfo", name="COUNT + 10")
        self.assertEqual((anywhere["canPersist"], anywhere["description"]), (True, "COUNT + 10"))
        rows = self.watch(client, of_scope["dataId"], anywhere["dataId"])
        self.assertEqual([row["verified"] for row in rows], [True, True])
        name, text = self.next_change(client)
        self.assertEqual((name, text), ("<module>", "COUNT was 0, is 1; changed in <module>(), line %d\n"
                                        "COUNT + 10 was 10, is 11; changed in <module>(), line %d" % (
                                            self.line("count"), self.line("count"))))
        self.assertEqual(self.stop["hitBreakpointIds"], [row["id"] for row in rows])
        self.watch(client)
        client.go_on()
        self.assertEqual(client.finish(), 0)

    def test_condition_and_hits(self):
        for more, texts in (({"condition": "total > 1"}, ["total was 1, is 3"]),
                            ({"hitCondition": "2"}, ["total was 1, is 3"]),
                            ({"condition": "total > 0", "hitCondition": "1"}, ["total was 0, is 1"])):
            with self.subTest(more):
                client = self.stopped_at("total")
                self.watch(client, client.ask("dataBreakpointInfo", name="total", frameId=self.frame_id)["dataId"], **more)
                self.assertEqual([self.next_change(client)[1].partition(";")[0] for _ in texts], texts)
                client.go_on()
                self.assertEqual(client.finish(), 0)

    def test_one_that_is_kept_goes_on_with_another_condition(self):
        client = self.stopped_at("total")
        data_id = self.data_id(client, "total")["dataId"]
        first = self.watch(client, data_id)
        self.assertEqual(self.next_change(client)[1].partition(";")[0], "total was 0, is 1")
        second = self.watch(client, data_id, condition="total == 3")
        self.assertEqual(first, second)
        self.assertEqual(self.next_change(client)[1].partition(";")[0], "total was 1, is 3")
        self.assertEqual(self.watch(client), [])
        client.go_on()
        self.assertEqual(client.finish(), 0)

    def test_what_cannot_be_watched_is_said(self):
        client = self.stopped_at("return")
        self.assertEqual(client.ask("dataBreakpointInfo", name="1 +", frameId=self.frame_id), {
            "dataId": None, "description": "1 + cannot be watched: invalid syntax"})
        self.assertEqual(client.refused("dataBreakpointInfo", name="nothing", variablesReference=client.ask(
            "scopes", frameId=self.frame_id)["scopes"][0]["variablesReference"]), "there is no variable nothing")
        data_id = self.data_id(client, "total")["dataId"]
        for more, text in (({"accessType": "read"}, "only a change of the value can be stopped at"),
                           ({"condition": "x ="}, "invalid syntax"),
                           ({"hitCondition": "often"}, "hit condition expected: == N, >= N, <= N, > N, < N or % N")):
            with self.subTest(more):
                row = self.watch(client, data_id, **more)
                self.assertEqual((row["verified"], row["message"]), (False, text))
        client.go_on("next")
        client.wait_for("stopped")
        row = self.watch(client, data_id)
        self.assertEqual((row["verified"], row["message"]),
                         (False, "the program has gone on since this was chosen; choose it again"))
        client.go_on()
        self.assertEqual(client.finish(), 0)


if __name__ == "__main__":
    unittest.main()
