"""The per-thread record: how threads reach their records, and how records go with their threads."""

import ctypes
import sys
import threading
import unittest

import state
import support
from record_support import BadTruth, Raising, RaisingMapping, in_thread
from test_per_thread import (CAPSULE, HOOK, INIT, OBJECT_MEMBERS, REGISTER,
                             PerThreadTestCase as _PerThreadTestCase)

SLOW = "Exception in CPerThread_SlowGetPerThread_direct ()\n"
GET = "Exception in CPerThread_GetPerThread()\n"


class LookUpTest(_PerThreadTestCase):
    def test_current_thread(self):
        record = self.cls.GetPerThread()
        self.assertIs(type(record), self.cls)
        self.assertEqual(record.fThreadId, threading.get_ident())
        self.assertIs(type(record.fThreadId), int)
        self.assertEqual(self.cls._fPerThreadDict, {threading.get_ident(): record})

    def test_every_way_to_the_current_record_leads_to_one(self):
        record = self.cls.GetPerThread()
        for args, kwargs in (((), {}), ((None,), {}), ((None, False), {}), ((), {"thread_id": None}),
                             ((), {"create": False}), ((threading.get_ident(),), {}),
                             ((), {"create": True, "thread_id": threading.get_ident()})):
            self.assertIs(self.cls.GetPerThread(*args, **kwargs), record)

    def test_unknown_id_without_create_is_none(self):
        for create in (False, None, 0, "", []):
            self.assertIsNone(self.cls.GetPerThread(5, create))
        self.assertEqual(self.cls._fPerThreadDict, {})

    def test_unknown_current_thread_without_create_is_none(self):
        for create in (False, None, 0):
            self.assertIsNone(self.cls.GetPerThread(None, create))
            self.assertIsNone(self.cls.GetPerThread(create=create))
        self.assertEqual(self.cls._fPerThreadDict, {})

    def test_unknown_id_is_made(self):
        for thread_id, create in ((5, True), (6, 1), (7, "yes")):
            record = self.cls.GetPerThread(thread_id, create)
            self.assertEqual(record.fThreadId, thread_id)
            self.assertIs(self.cls._fPerThreadDict[thread_id], record)
        self.assertEqual(self.cls.GetPerThread(8).fThreadId, 8)

    def test_create_without_a_truth_value(self):
        self.fails(ValueError, "no truth", [SLOW, GET], self.cls.GetPerThread, 5, BadTruth())
        self.fails(ValueError, "no truth", [SLOW, GET], self.cls.GetPerThread, create=BadTruth())

    def test_truth_of_create_is_not_asked_for_a_known_record(self):
        record = self.cls(5)
        self.assertIs(self.cls.GetPerThread(5, BadTruth()), record)

    def test_id_that_does_not_convert(self):
        for thread_id in ("x", 1.5, []):
            self.fails(TypeError, "'%s' object cannot be interpreted as an integer" % type(thread_id).__name__,
                       [SLOW, GET], self.cls.GetPerThread, thread_id)
        self.fails(OverflowError, "int too big to convert", [SLOW, GET], self.cls.GetPerThread, 1 << 63, False)

    def test_argument_errors(self):
        self.fails(TypeError, "Excess positional arguments passed to function", [GET], self.cls.GetPerThread,
                   None, True, 1)
        self.fails(TypeError, "Excess keyword arguments passed to function", [GET], self.cls.GetPerThread, id=1)
        self.fails(TypeError, "argument has both a positional value and a keyword value", [GET],
                   self.cls.GetPerThread, 1, thread_id=1)

    def test_registry_entry_of_a_wrong_type(self):
        self.cls._fPerThreadDict.update({5: "no record", threading.get_ident(): "no record"})
        self.fails(TypeError, "the object is not a CPerThread", [SLOW, GET], self.cls.GetPerThread, 5)
        self.fails(TypeError, "the object is not a CPerThread", [SLOW, GET], self.cls.GetPerThread)

    def test_registry_that_raises(self):
        self.cls._fPerThreadDict = RaisingMapping()
        self.fails(ValueError, "get refused", [SLOW, GET], self.cls.GetPerThread)
        self.cls._fPerThreadDict = Raising()
        self.fails(ValueError, "cannot be read", [SLOW, GET], self.cls.GetPerThread)

    def test_missing_registry_is_made_anew(self):
        del self.cls._fPerThreadDict
        self.assertIsNone(self.cls.GetPerThread(5, False))
        self.assertEqual(self.cls.__dict__["_fPerThreadDict"], {})
        del self.cls._fPerThreadDict
        record = self.cls.GetPerThread()
        self.assertEqual(self.cls._fPerThreadDict, {threading.get_ident(): record})

    def test_known_record_is_reached_without_the_registry(self):
        record = self.cls.GetPerThread()
        self.cls._fPerThreadDict = Raising()
        self.assertIs(self.cls.GetPerThread(), record)

    def test_record_found_in_the_registry_alone(self):
        record = self.cls(5)
        self.cls._fPerThreadDict[threading.get_ident()] = record
        self.assertIs(self.cls.GetPerThread(), record)
        # it is no record of this thread's id, so this thread registers no capsule
        self.assertEqual(support.references([record]), [2])     # the registry's, under both ids

    def test_look_ups_take_one_reference_each(self):
        record = self.cls.GetPerThread()
        count = sys.getrefcount(record)
        found = [self.cls.GetPerThread() for _ in range(100)] + [self.cls.GetPerThread(record.fThreadId)]
        self.assertEqual(sys.getrefcount(record), count + 101)
        del found
        self.assertEqual(sys.getrefcount(record), count)

    def test_look_ups_leak_nothing(self):
        def look_up():
            self.cls.GetPerThread()
            self.cls.GetPerThread(5, False)
            self.cls.GetPerThread(threading.get_ident())
            self.om.reset()

        before = support.total_instances(self.cls)
        support.assert_no_leak(self, look_up, 1000)
        self.assertEqual(support.total_instances(self.cls), before)


class StalePairTest(_PerThreadTestCase):
    def make_pair_alone(self, thread_id, record=None):
        """A record that the thread's slot and nothing of the thread's own leads to."""
        self.cls._fPerThreadDict[thread_id] = self.cls(5) if record is None else record
        del record

    def test_dead_record_frees_its_threads_pair(self):
        ident = threading.get_ident()
        self.make_pair_alone(ident)
        self.assertEqual(self.cls.GetPerThread().fThreadId, 5)
        self.cls._fPerThreadDict.clear()
        self.assertIsNone(self.cls.GetPerThread(None, False))
        self.assertEqual(self.cls.GetPerThread().fThreadId, ident)

    def test_record_that_died_in_another_thread_leaves_a_stale_pair(self):
        worker = self.worker()
        self.make_pair_alone(worker.ident)
        self.assertEqual(worker.do(lambda: self.cls.GetPerThread().fThreadId), 5)
        self.cls._fPerThreadDict.clear()
        self.assertIsNone(worker.do(lambda: self.cls.GetPerThread(None, False)))
        self.assertEqual(worker.do(lambda: self.cls.GetPerThread().fThreadId), worker.ident)

    def test_half_made_record(self):
        self.make_pair_alone(threading.get_ident(), self.cls.__new__(self.cls))
        self.check_all_unset(self.cls.GetPerThread(), OBJECT_MEMBERS)
        self.cls._fPerThreadDict.clear()
        filler = [ctypes.create_string_buffer(b"x" * 16, 16) for _ in range(1000)]
        self.assertIsNone(self.cls.GetPerThread(None, False))
        self.assertEqual(self.cls.GetPerThread().fThreadId, threading.get_ident())
        del filler

    def test_discarded_record_entered_again(self):
        record = self.cls.GetPerThread()
        self.om.reset()
        self.make_pair_alone(threading.get_ident(), record)
        self.assertIs(self.cls.GetPerThread(), record)
        self.cls._fPerThreadDict.clear()
        del record
        filler = [ctypes.create_string_buffer(b"x" * 16, 16) for _ in range(1000)]
        self.assertEqual(self.cls.GetPerThread().fThreadId, threading.get_ident())
        del filler

    def test_record_that_a_second_thread_takes_over(self):
        first, second = self.worker(), self.worker()
        record = self.cls(5)
        self.cls._fPerThreadDict.update({first.ident: record, second.ident: record})
        for worker in (first, second, first):
            self.assertIs(worker.do(self.cls.GetPerThread), record)
        del self.cls._fPerThreadDict[first.ident]
        if support.is_lock_off():            # no pair leads to a record that the thread itself does not hold
            self.assertIsNone(first.do(lambda: self.cls.GetPerThread(None, False)))
        else:
            self.assertIs(first.do(self.cls.GetPerThread), record)
        self.assertIs(second.do(self.cls.GetPerThread), record)
        self.cls._fPerThreadDict.clear()
        del record
        filler = [bytes(200 + index % 100) for index in range(10000)]
        for worker in (first, second):
            self.assertIsNone(worker.do(lambda: self.cls.GetPerThread(None, False)))
            self.assertEqual(worker.do(lambda: self.cls.GetPerThread().fThreadId), worker.ident)
        del filler

    def test_pairs_made_and_dropped_leak_nothing(self):
        def make():
            self.make_pair_alone(threading.get_ident())
            self.cls.GetPerThread()
            self.cls._fPerThreadDict.clear()

        before = support.total_instances(self.cls)
        support.assert_no_leak(self, make, 1000)
        self.assertEqual(support.total_instances(self.cls), before)


class ThreadLifeTest(_PerThreadTestCase):
    def test_each_thread_has_its_own_record(self):
        workers = [self.worker() for _ in range(5)]
        own = self.cls.GetPerThread()
        records = [worker.do(self.cls.GetPerThread) for worker in workers]
        self.assertEqual([record.fThreadId for record in records], [worker.ident for worker in workers])
        self.assertEqual([worker.do(self.cls.GetPerThread) for worker in workers], records)
        self.assertIs(self.cls.GetPerThread(), own)
        self.assertEqual(set(self.cls.GetAllPerThreads()), set(records + [own]))

    def test_record_goes_with_its_thread(self):
        for daemon in (False, True):
            record = in_thread(self.cls.GetPerThread, daemon)
            self.assertEqual(self.cls._fPerThreadDict, {})
            self.check_all_unset(record, OBJECT_MEMBERS)

    def test_nothing_but_the_registry_entry_of_the_thread_goes(self):
        others = [self.cls(5), self.cls.GetPerThread()]
        in_thread(self.cls.GetPerThread)
        self.assertEqual(self.cls.GetAllPerThreads(), others)

    def test_constructed_record_goes_with_its_thread(self):
        record = in_thread(lambda: self.cls(threading.get_ident()))
        self.assertEqual(self.cls._fPerThreadDict, {})
        self.check_all_unset(record, OBJECT_MEMBERS)

    def test_record_of_another_thread_gets_its_capsule_at_that_threads_first_look_up(self):
        worker = self.worker()
        record = self.cls.GetPerThread(worker.ident)
        self.assertEqual(record.fThreadId, worker.ident)
        count = sys.getrefcount(record)
        worker.do(lambda: self.cls.GetPerThread(worker.ident))
        self.assertEqual(sys.getrefcount(record), count)        # an explicit id takes the slow path
        self.assertIs(worker.do(lambda: self.cls.GetPerThread(None, False)), record)
        self.assertEqual(sys.getrefcount(record), count + 1)    # the capsule's
        self.cls._fPerThreadDict.clear()
        self.assertIs(worker.do(lambda: self.cls.GetPerThread(None, False)), record)
        self.cls._fPerThreadDict[worker.ident] = record
        worker.end()
        self.assertEqual(self.cls._fPerThreadDict, {})
        self.check_all_unset(record, OBJECT_MEMBERS)

    def test_record_of_a_thread_that_never_looks_stays(self):
        worker = self.worker()
        record = self.cls.GetPerThread(worker.ident)
        worker.end()
        self.assertEqual(self.cls._fPerThreadDict, {worker.ident: record})
        self.assertEqual(record.fThreadId, worker.ident)

    def test_policies_of_live_threads_are_asked_again(self):
        workers = [self.worker() for _ in range(3)]
        self.cls.SetDebugPolicyCallback(lambda thread_id: 1)
        ask = lambda: self.cls.GetPerThread().GetDebugPolicy()
        self.assertEqual([worker.do(ask) for worker in workers], [1, 1, 1])
        self.cls.SetDebugPolicyCallback(lambda thread_id: 2)
        self.assertEqual([record.fDebugPolicy for record in self.cls.GetAllPerThreads()], [-1, -1, -1])
        self.assertEqual([worker.do(ask) for worker in workers], [2, 2, 2])

    def test_many_threads_at_once(self):
        barrier, records, errors = threading.Barrier(50), [], []

        def run():
            try:
                barrier.wait()
                record = self.cls.GetPerThread()
                for _ in range(20):
                    assert self.cls.GetPerThread() is record
                assert record.fThreadId == threading.get_ident()
                records.append(record)
                barrier.wait()
            except BaseException as e:
                errors.append(e)

        threads = [threading.Thread(target=run, daemon=index % 2 == 0) for index in range(50)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(errors, [])
        self.assertEqual(len(set(records)), 50)
        self.assertEqual(self.cls._fPerThreadDict, {})

    def test_reused_ids_get_new_records(self):
        records = [in_thread(self.cls.GetPerThread) for _ in range(200)]
        self.assertEqual(len(set(records)), 200)
        self.assertEqual(self.cls._fPerThreadDict, {})

    def test_threads_leak_nothing(self):
        before = support.total_instances(self.cls)
        support.assert_no_leak(self, lambda: in_thread(lambda: self.cls.GetPerThread() and None), 1000)
        self.assertEqual(support.total_instances(self.cls), before)

    def test_thread_end_with_a_missing_entry_is_silent(self):
        with support.logging_to(support.DEFAULT_MASK) as log:
            record = in_thread(lambda: (self.cls.GetPerThread(), self.cls._fPerThreadDict.clear())[0])
        self.assertEqual(log.lines, [])
        self.check_all_unset(record, OBJECT_MEMBERS)

    def test_thread_end_with_a_missing_registry_is_silent(self):
        def run():
            self.cls.GetPerThread()
            del self.cls._fPerThreadDict

        with support.logging_to(support.DEFAULT_MASK) as log:
            in_thread(run)
        self.assertEqual((log.lines, self.cls.__dict__["_fPerThreadDict"]), ([], {}))

    def thread_end_fails(self, registry, last_line):
        def run():
            record = self.cls.GetPerThread()
            self.cls._fPerThreadDict.clear()
            self.cls._fPerThreadDict = registry
            return record

        with support.logging_to(64) as log:
            record = in_thread(run)
        self.check_log(log, ["Exception in CPerThread_DiscardPerThread_direct()\n",
                             "Exception in CPerThread_CapsuleDestructor()\n"], last_line)
        self.assertEqual(support.references([record]), [0])
        self.cls._fPerThreadDict = {}

    def test_thread_end_with_a_registry_that_raises(self):
        self.thread_end_fails(RaisingMapping(), "ValueError: get refused")
        self.thread_end_fails(RaisingMapping(get=lambda key: 1), "ValueError: delete refused")
        self.thread_end_fails(Raising(), "ValueError: cannot be read")

    def test_death_keeps_a_pending_exception(self):
        """The interpreter drops a list that it could not fill while the exception is pending."""
        def capsules():
            self.cls.GetPerThread()
            yield state.thread_dict().pop(state.object_at(state.state_of(self.om)._gThreadStateDictKey))
            raise ValueError("pending")

        with self.assertRaisesRegex(ValueError, "^pending$"):
            in_thread(lambda: list(capsules()))
        self.assertEqual(self.cls._fPerThreadDict, {})

    def test_failures_of_a_threads_first_look_up(self):
        def hook(record):
            raise ValueError("hook")

        self.cls.SetNewPerThreadCreatedCallback(hook)
        self.fails(ValueError, "hook", [HOOK, INIT, SLOW, GET], in_thread, self.cls.GetPerThread)
        self.assertEqual(self.cls._fPerThreadDict, {})      # the capsule was there, so the thread's end discards it

    def test_half_made_record_gets_no_capsule(self):
        worker = self.worker()
        record = self.cls.__new__(self.cls)
        self.cls._fPerThreadDict[worker.ident] = record
        count = sys.getrefcount(record)
        self.assertIs(worker.do(self.cls.GetPerThread), record)
        self.assertEqual(sys.getrefcount(record), count)

    def test_failing_construction_in_a_thread(self):
        self.fails(TypeError, "'str' object cannot be interpreted as an integer", CAPSULE + [REGISTER, INIT],
                   in_thread, lambda: self.cls("x"))
        self.assertEqual(self.cls._fPerThreadDict, {})

    def test_members_that_run_code_at_the_threads_end(self):
        seen = []

        class Witness(object):
            def __del__(witness):
                seen.append((threading.get_ident(), self.cls.GetPerThread(None, False),
                             dict(self.cls._fPerThreadDict)))

        def run():
            self.cls.GetPerThread().fStopFrame = Witness()
            return threading.get_ident()

        ident = in_thread(run)
        self.assertEqual(seen, [(ident, None, {})])


class ResetTest(_PerThreadTestCase):
    def test_own_record_is_discarded(self):
        record = self.cls.GetPerThread()
        self.om.reset()
        self.assertEqual(self.cls._fPerThreadDict, {})
        self.check_all_unset(record, OBJECT_MEMBERS)
        self.assertEqual(support.references([record]), [0])
        new = self.cls.GetPerThread()
        self.assertIsNot(new, record)
        self.assertEqual(self.cls._fPerThreadDict, {threading.get_ident(): new})

    def test_record_of_an_unregistered_current_thread_is_discarded_too(self):
        record = self.cls.GetPerThread()
        self.cls._fPerThreadDict.clear()
        self.om.reset()
        self.check_all_unset(record, OBJECT_MEMBERS)

    def test_hooks_are_switched_off(self):
        for name in ("SetDebugPolicyCallback", "SetNewPerThreadCreatedCallback", "SetGetThreadNameCallback"):
            getattr(self.cls, name)(lambda arg: 1 // 0)
        self.om.reset()
        record = self.cls.GetPerThread()
        self.assertEqual((record.GetDebugPolicy(), record.FindThreadName(), record.fThreadName), (1, 0, None))

    def test_registry_object_stays(self):
        registry = self.cls._fPerThreadDict
        self.om.reset()
        self.assertIs(self.cls._fPerThreadDict, registry)

    def test_other_threads_keep_their_records_outside_the_registry(self):
        worker = self.worker()
        record = worker.do(self.cls.GetPerThread)
        record.fStopFrame = "here"
        self.om.reset()
        self.assertEqual(self.cls._fPerThreadDict, {})
        self.assertIs(worker.do(self.cls.GetPerThread), record)
        self.assertEqual(record.fStopFrame, "here")
        second = self.cls.GetPerThread(worker.ident)
        self.assertIsNot(second, record)
        self.assertIs(worker.do(self.cls.GetPerThread), record)
        worker.end()
        self.assertEqual(self.cls._fPerThreadDict, {})
        self.check_all_unset(record, OBJECT_MEMBERS)
        self.assertEqual(support.references([record, second]), [0, 0])

    def test_reset_in_another_thread_discards_that_threads_record(self):
        worker = self.worker()
        own, other = self.cls.GetPerThread(), worker.do(self.cls.GetPerThread)
        worker.do(self.om.reset)
        self.check_all_unset(other, OBJECT_MEMBERS)
        self.assertIs(self.cls.GetPerThread(), own)
        self.assertEqual(self.cls._fPerThreadDict, {})
        new = worker.do(self.cls.GetPerThread)
        self.assertIsNot(new, other)
        self.assertEqual(self.cls._fPerThreadDict, {worker.ident: new})


# A second thread state on the thread, made current around one look-up.
SECOND_STATE = """
import ctypes, threading
import support
cls = support.load().CPerThread
api = ctypes.pythonapi
api.PyInterpreterState_Get.restype = api.PyThreadState_New.restype = api.PyThreadState_Swap.restype = ctypes.c_void_p
api.PyThreadState_New.argtypes = api.PyThreadState_Swap.argtypes = [ctypes.c_void_p]
api.PyThreadState_Clear.argtypes = api.PyThreadState_Delete.argtypes = [ctypes.c_void_p]
swap, look = api.PyThreadState_Swap, cls.GetPerThread

def look_with(state):
    old = swap(state)
    record = look(None, False)
    swap(old)
    return record

first = api.PyThreadState_New(api.PyInterpreterState_Get())
record = cls.GetPerThread()
del cls._fPerThreadDict[threading.get_ident()]
print(look_with(first), look(None, False) is record, look_with(first), look(None, False) is record)
cls._fPerThreadDict[threading.get_ident()] = cls(5)
print(look_with(first).fThreadId, look_with(first).fThreadId, look(None, False) is record)
api.PyThreadState_Clear(first)
api.PyThreadState_Delete(first)
print(look(None, False) is record)
"""


class NativeThreadTest(_PerThreadTestCase):
    """A native thread that calls into Python twice has two thread states, one after the other, and one id."""

    libc = ctypes.CDLL(None)    # made once: free-threaded 3.13 leaks a class with each

    def run_native(self, first, at_end):
        libc = self.libc
        key = ctypes.c_uint()
        thread = ctypes.c_ulong()
        run_at_end = ctypes.CFUNCTYPE(None, ctypes.c_void_p)(lambda arg: at_end())

        def start(arg):
            first()
            libc.pthread_setspecific(key, ctypes.c_void_p(1))

        run = ctypes.CFUNCTYPE(None, ctypes.c_void_p)(start)
        self.assertEqual(libc.pthread_key_create(ctypes.byref(key), run_at_end), 0)
        self.assertEqual(libc.pthread_create(ctypes.byref(thread), None, run, None), 0)
        self.assertEqual(libc.pthread_join(thread, None), 0)
        self.assertEqual(libc.pthread_key_delete(key), 0)

    def test_each_thread_state_has_its_own_record(self):
        seen = []

        def look():
            record = self.cls.GetPerThread()
            seen.append((threading.get_ident(), record, self.cls.GetPerThread() is record,
                         list(self.cls._fPerThreadDict)))

        self.run_native(look, look)
        self.assertEqual(len(seen), 2)
        (ident, first, same, keys), (ident2, second, same2, keys2) = seen
        self.assertEqual((same, same2, keys, keys2), (True, True, [ident], [ident]))
        self.assertEqual(ident, ident2)
        self.assertIsNot(first, second)
        self.assertEqual(self.cls._fPerThreadDict, {})
        for record in (first, second):
            self.check_all_unset(record, OBJECT_MEMBERS)

    def test_native_threads_leak_nothing(self):
        look = lambda: self.cls.GetPerThread() and None
        before = support.total_instances(self.cls)
        support.assert_no_leak(self, lambda: self.run_native(look, look), 100)
        self.assertEqual(support.total_instances(self.cls), before)


FORK = """
import ctypes, os, sys, threading, warnings
warnings.simplefilter("ignore", DeprecationWarning)
import support
module = support.load()
import state
cls = module.CPerThread
get_slot = ctypes.pythonapi.PyThread_tss_get
get_slot.argtypes, get_slot.restype = [ctypes.c_void_p], ctypes.c_void_p

def pair():
    return get_slot(state.state_of(module)._gPyTssKey)

go, ready = threading.Event(), threading.Barrier(4)

def run():
    cls.GetPerThread()
    ready.wait()
    go.wait()

def main():
    threads = [threading.Thread(target=run) for _ in range(3)]
    for thread in threads:
        thread.start()
    record = cls.GetPerThread()
    foreign = cls(5)
    ready.wait()
    print(len(cls._fPerThreadDict), flush=True)
    own_pair = pair()
    pid = os.fork()
    if pid == 0:
        print(own_pair is not None and pair() == own_pair)      # the others' records have died on this thread
        print(cls._fPerThreadDict == {threading.get_ident(): record, 5: foreign}, cls.GetPerThread() is record)
        thread = threading.Thread(target=cls.GetPerThread)
        thread.start()
        thread.join()
        print(cls.GetAllPerThreads() == [record, foreign], flush=True)
        os._exit(0)
    print(os.waitpid(pid, 0)[1], len(cls._fPerThreadDict))
    go.set()
    for thread in threads:
        thread.join()
    print(cls.GetAllPerThreads() == [record, foreign])

if len(sys.argv) > 1:
    thread = threading.Thread(target=main)
    thread.start()
    thread.join()
else:
    main()
"""

EXIT = """
import sys, threading
import support
cls = support.load().CPerThread

class Sub(cls):
    pass

class Witness:
    def __del__(self):
        pass

def run():
    cls.GetPerThread().fStopFrame = Witness()
    ready.set()
    threading.Event().wait()

kept = [cls.GetPerThread(), cls(5), Sub(6), cls.__new__(cls), Sub.__new__(Sub)]
kept[0].fReturnFrame = kept
ready = threading.Event()
threading.Thread(target=run, daemon=True).start()
ready.wait()
print(len(cls.GetAllPerThreads()))
"""

WITHOUT_STATE = """
import gc, sys
import optmonitoring_parts as parts
try:
    import optmonitoring
except ImportError as e:
    print(e)
cls = parts.classes["CPerThread"]
for call in (cls.GetAllPerThreads, cls.GetPerThread, lambda: cls.GetPerThread(5), lambda: cls(9),
             lambda: cls.SetDebugPolicyCallback(None), lambda: cls.SetNewPerThreadCreatedCallback(None),
             lambda: cls.SetGetThreadNameCallback(None), parts.record.GetDebugPolicy, parts.record.FindThreadName):
    try:
        print(call())
    except RuntimeError as e:
        print(e)
print(parts.record.fThreadId, len(cls._fPerThreadDict))
cls._fPerThreadDict.clear()
del parts.record
gc.collect()
print("done")
"""

# A host whose log module fails to import after it has got hold of the classes.
PARTS = "classes = {}\nrecord = None\nerrors = []\n"
FAILING_LOG = """
import threading
import optmonitoring_parts as parts
for cls in object.__subclasses__():
    if cls.__module__ == "optmonitoring":
        parts.classes[cls.__name__] = cls
cls = parts.classes["CPerThread"]
parts.record = cls(5)
cls(threading.get_ident())
try:
    cls.GetPerThread()
except RuntimeError as e:
    print(e)
raise ImportError("no log here")
"""


@support.needs_monitoring
class ProcessTest(unittest.TestCase):
    def test_pair_of_another_thread_state_is_stale(self):
        self.assertEqual(support.check_child(self, SECOND_STATE), "None True None True\n5 5 True\nTrue\n")

    def test_fork(self):
        for arguments in ((), ("in a thread",)):
            out = support.check_child(self, FORK, *arguments)
            self.assertEqual(out, "5\nTrue\nTrue True\nTrue\n0 5\nTrue\n")

    def test_interpreter_exit_with_live_records(self):
        self.assertEqual(support.check_child(self, EXIT), "4\n")

    def test_records_and_class_of_a_module_that_was_cleared(self):
        import os
        import shutil
        import tempfile
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        os.mkdir(os.path.join(folder, "brixbase"))
        for name, text in (("optmonitoring_parts.py", PARTS), ("brixbase/__init__.py", ""),
                           ("brixbase/dlog.py", FAILING_LOG)):
            with open(os.path.join(folder, name), "w") as stream:
                stream.write(text)
        out = support.check_child(self, WITHOUT_STATE, path=[support.module_dir(), folder])
        cleared = "optmonitoring has been cleared\n"
        self.assertEqual(out, "optmonitoring is not loaded\nno log here\n" + 9 * cleared + "5 2\ndone\n")


if __name__ == "__main__":
    unittest.main()
