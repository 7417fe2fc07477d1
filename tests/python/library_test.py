"""Tests of finding and loading libgvusb.so.7. They need no reader."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from typing import Optional

LIBRARY = os.environ["GVUSB_LIBRARY"]


class LibraryTest(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def run_script(self, script: str, library: Optional[str] = None) -> str:
        """What a script prints, whose environment names a library."""
        environment = {name: value for name, value in os.environ.items() if name != "GVUSB_LIBRARY"}
        if library is not None:
            environment["GVUSB_LIBRARY"] = library
        done = subprocess.run([sys.executable, "-c", script], env=environment, stdout=subprocess.PIPE, check=True, text=True)
        return done.stdout.strip()

    def failure(self, library: Optional[str], path: Optional[str] = None) -> str:
        return self.run_script(f"""
import gvusb
try:
    gvusb.load({path!r})
except ImportError as error:
    assert type(error) is gvusb.LibraryError
    print(error)
""", library)

    def stub(self, source: str) -> str:
        """The path of a library made of this C code."""
        path = os.path.join(self.folder, "libstub.so")
        subprocess.run([os.environ.get("CC", "cc"), "-shared", "-fPIC", "-x", "c", "-", "-o", path], input=source, check=True,
                       text=True)
        return path

    def install(self, *folders: str) -> None:
        folder = os.path.join(self.folder, *folders)
        os.makedirs(folder, exist_ok=True)
        shutil.copy(LIBRARY, os.path.join(folder, "libgvusb.so.7"))

    def test_the_environment_names_a_file(self) -> None:
        self.assertEqual(self.run_script("import gvusb; print(gvusb.version())", LIBRARY), "07.01.00")

    def test_the_environment_names_a_prefix(self) -> None:
        self.install("lib")
        self.assertEqual(self.run_script("import gvusb; print(gvusb.version())", self.folder), "07.01.00")

    def test_an_argument_names_a_file_or_a_prefix(self) -> None:
        self.install("lib64")
        for path in (LIBRARY, self.folder):
            script = f"import gvusb, pathlib; gvusb.load(pathlib.Path({path!r})); print(gvusb.version())"
            self.assertEqual(self.run_script(script, "/nowhere"), "07.01.00")

    def test_the_search_of_the_system_is_the_default(self) -> None:
        script = "import gvusb\ntry: print(gvusb.version())\nexcept gvusb.LibraryError as error: print(error)"
        # Whether the library is installed here or not, its name has been searched for.
        self.assertRegex(self.run_script(script), r"^07\.|libgvusb\.so\.7")

    def test_importing_does_not_need_it(self) -> None:
        self.assertEqual(self.run_script("import gvusb, gvusb.aio; print(gvusb.__version__)", "/nowhere"), "7.1.0")

    def test_a_missing_library_is_named_with_a_remedy(self) -> None:
        for library, path in (("/nowhere/libgvusb.so.7", None), (None, "/nowhere/libgvusb.so.7")):
            error = self.failure(library, path)
            self.assertIn("/nowhere/libgvusb.so.7", error)
            self.assertIn("Install the package libgvusb7; or name the file", error)

    def test_a_prefix_without_it_is_named(self) -> None:
        self.assertEqual(self.failure(self.folder),
                         f"there is no libgvusb.so.7 in {self.folder} or in its folders lib and lib64")

    def test_a_library_that_is_too_old_is_refused(self) -> None:
        path = self.stub('const char* GVUSB_GetDLLVersion(void) { return "07.00.99"; }')
        self.assertEqual(self.failure(path), f"{path} has version 07.00.99; this package needs 7.1 or later")

    def test_another_library_is_refused(self) -> None:
        path = self.stub("int nothing;")
        self.assertEqual(self.failure(path), f"{path} is not libgvusb.so.7: it has no function GVUSB_GetDLLVersion")
        path = self.stub('const char* GVUSB_GetDLLVersion(void) { return "07.02.00"; }')
        self.assertEqual(self.failure(path), f"{path} is not libgvusb.so.7: it has no function GVUSB_Scan")

    def test_only_one_library_can_be_loaded(self) -> None:
        self.install()
        other = os.path.join(self.folder, "libgvusb.so.7")
        self.assertEqual(self.run_script(f"""
import gvusb
gvusb.load()
gvusb.load()
gvusb.load({LIBRARY!r})
try:
    gvusb.load({other!r})
except gvusb.LibraryError as error:
    print(error)
""", LIBRARY), f"{LIBRARY} has been loaded before, so {other} cannot be")

    def test_a_failure_can_be_corrected(self) -> None:
        self.assertEqual(self.run_script(f"""
import gvusb
try:
    gvusb.scan()
except gvusb.LibraryError:
    gvusb.load({LIBRARY!r})
    print(gvusb.version())
""", "/nowhere"), "07.01.00")


if __name__ == "__main__":
    unittest.main()
