"""Tests that whatever a program forgets, its interpreter ends well. Each runs a script in an interpreter of its own."""

from __future__ import annotations

import unittest

from support import BULK, CONTROL, LONG_ENOUGH, BusTest, bus, forget, start



class StormTest(BusTest):
    """A test beside a reader that comes and goes as long as the script runs, at a high update rate."""

    def check_in_storm(self, script: str) -> str:
        number = bus("plug id=77")
        try:
            return self.check_script(PREPARATION % number + script)
        finally:
            forget(number)


PREPARATION = """
import gc, gvusb, os, subprocess, threading, time
from gvusb import lowlevel
gvusb.driver.set_update_interval(0.00001)
gvusb.scan()
launcher = os.environ["GVUSB_LAUNCHER"]
def storm():
    seen = gvusb.Monitor()
    while True:
        for command in ("unplug", "plug"):
            subprocess.run([launcher, "--send", command + " %s"], stdout=subprocess.DEVNULL)
            seen.read() # a scan before it would find the change first, so that it is not reported
            gvusb.scan()
threading.Thread(target=storm, daemon=True).start()
"""


class ExitTest(StormTest):
    def test_with_open_readers(self) -> None:
        self.check_script("""
            import gvusb
            readers = gvusb.open_all()
            assert len(readers) == 2 and all(reader.transceive(b"1") == b"1" for reader in readers)
        """)

    def test_with_readers_in_cycles_and_in_generators(self) -> None:
        self.check_script("""
            import gc, gvusb
            def exchange():
                with gvusb.open() as reader:
                    while True:
                        yield reader.transceive(b"1")
            running = exchange()
            next(running)
            for _ in range(20):
                cycle = [gvusb.open(), gvusb.Monitor()]
                cycle.append(cycle)
            gc.collect()
        """)

    def test_with_monitors_and_handlers_while_events_are_reported(self) -> None:
        for _ in range(3):
            self.check_in_storm("""
monitor = gvusb.Monitor()
lowlevel.GVUSB_AddEventHandler(0, lowlevel.GVUSB_EVENT_INIT.of(1, lambda handle, id, text: time.sleep(0.001)))
threading.Thread(target=lambda: [event for event in monitor], daemon=True).start()
assert monitor.wait(30)
""")

    def test_with_a_daemon_thread_in_a_call(self) -> None:
        for parallel in (False, True):
            self.mute()
            process = start(f"""
                import gvusb, threading, time
                # The thread may raise what it gets at the end of its call.
                threading.excepthook = lambda _: None
                gvusb.driver.set_parallel({parallel})
                reader, begun = gvusb.open({BULK}), threading.Event()
                def wait():
                    print("begins", flush=True)
                    begun.set()
                    reader.receive(timeout=0.5)
                threading.Thread(target=wait, daemon=True).start()
                begun.wait()
                time.sleep(0.1)
            """)
            output, errors = process.communicate(timeout=LONG_ENOUGH)
            self.assertEqual((process.returncode, output, errors), (0, "begins\n", ""))

    def test_with_daemon_threads_that_never_stop(self) -> None:
        self.check_script("""
            import gvusb, threading, time
            gvusb.driver.set_parallel(True)
            def exchange(reader):
                while True:
                    reader.transceive(b"1")
            def scan():
                while True:
                    gvusb.scan()
            def open_and_close():
                while True:
                    gvusb.open().close()
            for reader in gvusb.open_all():
                threading.Thread(target=exchange, args=(reader,), daemon=True).start()
            for function in (scan, scan, open_and_close):
                threading.Thread(target=function, daemon=True).start()
            time.sleep(0.2)
        """)

    def test_with_an_object_that_uses_a_reader_when_it_is_destroyed(self) -> None:
        output = self.check_script("""
            import gvusb
            class Last:
                def __init__(self):
                    self.reader = gvusb.open()
                def __del__(self):
                    try:
                        self.reader.transceive(b"1")
                    except gvusb.ProcessError as error:
                        print(error)
                    self.reader.close()
            kept = Last()
            kept.cycle = kept
        """)
        self.assertEqual(output, "the interpreter is ending\n")

    def test_functions_at_exit_use_readers(self) -> None:
        output = self.check_script("""
            import atexit
            def late():
                try:
                    reader.transceive(b"1")
                except gvusb.ProcessError as error:
                    print("late:", error)
            atexit.register(late)
            import gvusb
            reader = gvusb.open()
            atexit.register(lambda: print("in time:", reader.transceive(b"1")))
        """)
        self.assertEqual(output, "in time: b'1'\nlate: the interpreter is ending\n")

    def test_with_asyncio_in_the_middle(self) -> None:
        self.mute()
        self.check_script(f"""
            import asyncio, gvusb
            from gvusb import aio
            async def main():
                reader = await aio.open({BULK})
                waiting = asyncio.ensure_future(reader.receive(timeout=0.4))
                await asyncio.sleep(0.1)
            # Debugging asyncio reports steps that take long, as on a busy machine.
            asyncio.run(main(), debug=False)
            loop = asyncio.new_event_loop()
            loop.set_debug(False)
            reader = loop.run_until_complete(aio.open({BULK}))
            task = loop.create_task(reader.receive(timeout=0.4))
            loop.run_until_complete(asyncio.sleep(0.1))
            task._log_destroy_pending = False # asyncio's own message about a task that was forgotten
        """)

    def test_if_the_library_was_never_loaded(self) -> None:
        self.check_script("import gvusb, gvusb.aio; gvusb.Error(-1130)")


class ForkTest(BusTest):
    def test_a_child_is_refused_and_ends_well(self) -> None:
        output = self.check_script(f"""
            import gc, os, sys, gvusb
            reader, monitor = gvusb.open({BULK}), gvusb.Monitor()
            child = os.fork()
            if child == 0:
                for use in (lambda: reader.transceive(b"1"), lambda: reader.name, gvusb.scan, gvusb.open, gvusb.version,
                            gvusb.Monitor, monitor.read, lambda: next(monitor)):
                    try:
                        use()
                        print("not refused")
                    except gvusb.ProcessError as error:
                        assert "child of fork" in str(error)
                monitor.close()
                reader.close()
                reader = None
                gc.collect()
                print("child", flush=True)
                sys.exit(7)
            assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 7
            assert reader.transceive(b"1") == b"1"
            assert monitor.read(0) is None
            print("parent")
        """)
        self.assertEqual(output, "child\nparent\n")

    def test_a_child_is_refused_by_asyncio_too(self) -> None:
        self.check_script(f"""
            import asyncio, os, gvusb
            from gvusb import aio
            loop = asyncio.new_event_loop()
            loop.set_debug(False) # reports steps that take long, as on a busy machine
            reader = loop.run_until_complete(aio.open({CONTROL}))
            child = os.fork()
            if child == 0:
                try:
                    asyncio.new_event_loop().run_until_complete(reader.transceive(b"1"))
                except gvusb.ProcessError:
                    os._exit(0)  # asyncio itself must not end in the child: the loops share a descriptor
                os._exit(1)
            assert os.waitpid(child, 0)[1] == 0
            assert loop.run_until_complete(reader.transceive(b"2")) == b"2"
            loop.run_until_complete(reader.close())
            loop.close()
        """)

    def test_while_other_threads_are_in_calls(self) -> None:
        self.mute()
        output = self.check_script(f"""
            import os, threading, time, gvusb
            reader = gvusb.open({BULK})
            def wait():
                try:
                    reader.receive(timeout=0.5)
                except gvusb.TimeoutError:
                    print("time-out", flush=True)
            def scan():
                while not stop:
                    gvusb.scan()
            stop = False
            threads = [threading.Thread(target=wait), threading.Thread(target=scan)]
            for thread in threads:
                thread.start()
            for _ in range(10):
                time.sleep(0.02)
                child = os.fork()
                if child == 0:
                    try:
                        reader.transceive(b"1")
                    except gvusb.ProcessError:
                        pass
                    del reader
                    os._exit(0)
                assert os.waitpid(child, 0)[1] == 0
            stop = True
            for thread in threads:
                thread.join()
        """)
        self.assertEqual(output, "time-out\n")

    def test_a_child_may_load_the_library_if_its_parent_has_not(self) -> None:
        output = self.check_script("""
            import os, gvusb
            child = os.fork()
            if child == 0:
                print(len(gvusb.scan()), flush=True)
                os._exit(0)
            assert os.waitpid(child, 0)[1] == 0
        """)
        self.assertEqual(output, "2\n")

    def test_multiprocessing_spawns_a_process_with_readers_of_its_own(self) -> None:
        output = self.check_script("""
            import multiprocessing, gvusb
            with gvusb.open() as reader:
                with multiprocessing.get_context("spawn").Pool(1) as pool:
                    print(pool.apply(gvusb.version), len(pool.apply(gvusb.scan)))
        """)
        self.assertEqual(output, "07.01.00 2\n")


class HandlersTest(StormTest):
    def test_are_kept_alive(self) -> None:
        output = self.check_in_storm("""
called = threading.Event()
for _ in range(50):
    lowlevel.GVUSB_AddEventHandler(0, lowlevel.GVUSB_EVENT_INIT.of(1, lambda handle, id, text: called.set()))
gc.collect()
garbage = [object() for _ in range(100000)]
assert called.wait(30)
print("called")
""")
        self.assertEqual(output, "called\n")

    def test_may_raise_and_may_use_readers_but_not_register(self) -> None:
        output = self.check_in_storm(f"""
import sys
sys.unraisablehook = lambda information: (print(repr(information.exc_value)), done.set())
done = threading.Event()
results = []
def handle(handle, id, text):
    if not done.is_set():
        for use in (lambda: lowlevel.GVUSB_AddEventHandler(0, registration),
                    lambda: lowlevel.GVUSB_DelEventHandler(0, registration)):
            try:
                use()
                print("not refused")
            except RuntimeError as error:
                pass
        gvusb.open({BULK}) # forgotten
        with gvusb.open({BULK}) as reader:
            assert reader.transceive(b"1") == b"1"
        raise ValueError("in the handler")
registration = lowlevel.GVUSB_EVENT_INIT.of(2, handle)
lowlevel.GVUSB_AddEventHandler(0, registration)
assert done.wait(30)
lowlevel.GVUSB_DelEventHandler(0, registration)
""")
        self.assertEqual(output.splitlines()[0], "ValueError('in the handler')")


class SubinterpreterTest(BusTest):
    def test_is_refused(self) -> None:
        output = self.check_script("""
            try:
                import _xxsubinterpreters as interpreters
            except ImportError:
                import _interpreters as interpreters
            import gvusb
            gvusb.load()
            other = interpreters.create("legacy") if hasattr(interpreters, "exec") else interpreters.create()
            script = "import gvusb\\ntry: gvusb.load()\\nexcept gvusb.LibraryError as error: print(error, flush=True)"
            getattr(interpreters, "exec", interpreters.run_string)(other, script)
            interpreters.destroy(other)
            print(len(gvusb.scan()))
        """)
        self.assertEqual(output, "gvusb works in the main interpreter only, not in a subinterpreter\n2\n")


if __name__ == "__main__":
    unittest.main()
