"""Real editors debug a program with threads, with the settings that docs/editors.md tells their users.

`make test-editors` runs this in one interpreter, and keeps a picture of each in $BUILD/pictures.  An editor that
tools/editors could not get is skipped.
"""

import contextlib
import glob
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

import terminal_picture

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
BUILD = ROOT / (os.environ.get("BUILD") or "build")
DEBIAN = BUILD / "editors" / "trixie"                # see tools/editors
NODE = BUILD / "tools" / "bin" / "node"
VSCODE = BUILD / "node" / "tests" / "editors" / "vscode" / "node_modules"
PICTURES = BUILD / "pictures"
SECONDS = 120            # what an editor does not show for that long has failed


def setting_for(editor):
    """What the page tells users of `editor` to write down."""
    page = (ROOT / "docs" / "editors.md").read_text(encoding="utf-8")
    return re.search(r"^## %s\n.*?^```text\n(.*?)^```" % re.escape(editor), page, re.DOTALL | re.MULTILINE)[1]


class EditorTestCase(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory(prefix="editor.")
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name).resolve()
        self.work = self.folder / "work"
        self.work.mkdir()
        self.orders = self.work / "orders.py"
        self.python = self.folder / "bin" / "python"
        shutil.copy(HERE / "orders.py", self.orders)
        PICTURES.mkdir(parents=True, exist_ok=True)

    def environment(self, **more):
        """`python` is the interpreter of this test, which finds the debugger as if it were installed."""
        python = self.python
        if not python.exists():
            python.parent.mkdir()
            python.write_text('#!/bin/sh\nexec "%s" "$@"\n' % sys.executable)
            python.chmod(0o755)
        path = [os.environ.get("OPTMONITORING_DIR") or str(BUILD), str(ROOT / "debug" / "host")]
        return dict(os.environ, PATH="%s:%s" % (python.parent, os.environ["PATH"]), PYTHONPATH=":".join(path),
                    HOME=str(self.folder), **more)

    def from_debian(self, program):
        """The command of a program of the Debian system that tools/editors has made, with that system's libraries."""
        if not (DEBIAN / program).exists():
            self.skipTest("tools/editors could not get %s" % program)
        return [str(DEBIAN / "lib64" / "ld-linux-x86-64.so.2"), "--library-path", str(DEBIAN / "usr/lib/x86_64-linux-gnu"),
                str(DEBIAN / program)]


class EmacsTest(EditorTestCase):
    def test_dape(self):
        command = self.from_debian("usr/bin/emacs-nox")
        share, = glob.glob(str(DEBIAN / "usr/share/emacs/[0-9]*.[0-9]*"))
        programs, = glob.glob(str(DEBIAN / "usr/libexec/emacs/*/*"))
        dump, = glob.glob(programs + "/*.pdmp")
        dape, = glob.glob(str(DEBIAN / "usr/share/emacs/site-lisp/elpa-src/dape-*"))
        folders = [folder for folder, _, _ in os.walk(share + "/lisp")]
        settings = self.folder / "settings.el"
        settings.write_text(setting_for("Emacs"))
        done = subprocess.run(
            [*command, "--dump-file=" + dump, "--batch", "-q", "-L", dape, "-l", str(HERE / "drive_emacs.el")],
            cwd=self.work, timeout=SECONDS, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
            env=self.environment(EMACSLOADPATH=":".join(folders), EMACSDATA=share + "/etc", EMACSDOC=share + "/etc",
                                 EMACSPATH=programs, ORDERS=str(self.orders), CONFIGURATION=str(settings)))
        self.assertEqual(done.returncode, 0, done.stdout)
        for text in ("a breakpoint is set", "the stack is shown", "variables are shown",
                     "a step shows what it has assigned", "the session ends"):
            self.assertIn(text + "\n", done.stdout)


SHOW_DAP = """\
local settings, target = arg[1], arg[2]
local dap = { adapters = {}, configurations = {} }
package.preload["dap"] = function() return dap end
dofile(settings)
vim.fn.writefile({ vim.json.encode(dap) }, target)
"""


class NeovimTest(EditorTestCase):
    """nvim-dap is in no registry: a stand-in takes what the page tells its users to write down."""

    def test_settings(self):
        command = self.from_debian("usr/bin/nvim")
        settings, script, target = (self.folder / name for name in ("settings.lua", "show.lua", "dap.json"))
        settings.write_text(setting_for("Neovim"))
        script.write_text(SHOW_DAP)
        share = DEBIAN / "usr/share/nvim/runtime"
        done = subprocess.run([*command, "--headless", "-l", str(script), str(settings), str(target)], timeout=SECONDS,
                              env=self.environment(VIMRUNTIME=str(share), LUA_PATH=str(DEBIAN / "usr/share/lua/5.1/?.lua")),
                              capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        dap = json.loads(target.read_text())
        self.assertEqual(dap["adapters"], {
            "brixdebug": {"type": "executable", "command": "python", "args": ["-m", "brixdebug.dap"]}})
        self.assertEqual([each["request"] for each in dap["configurations"]["python"]], ["launch", "attach"])
        sys.path[:0] = [os.environ.get("OPTMONITORING_DIR") or str(BUILD), str(ROOT / "debug" / "host")]
        from brixdebug.dap import arguments
        for each in dap["configurations"]["python"]:
            with self.subTest(each["name"]):
                self.assertEqual(each["type"], "brixdebug")
                self.assertEqual(arguments.parse(each["request"], each).ignored, [])


class HelixTest(EditorTestCase):
    def tmux(self, *arguments):
        return subprocess.run(["tmux", "-S", str(self.folder / "tmux"), "-f", "/dev/null", *arguments], check=True,
                              stdout=subprocess.PIPE, text=True, env=self.environment(TERM="xterm-256color")).stdout

    def screen(self):
        return self.tmux("capture-pane", "-p")

    def keys(self, *keys):
        self.tmux("send-keys", *keys)

    def wait_for(self, pattern):
        deadline = time.monotonic() + SECONDS
        while not re.search(pattern, self.screen(), re.MULTILINE):
            self.assertLess(time.monotonic(), deadline, "%s is not on the screen:\n%s" % (pattern, self.screen()))
            time.sleep(0.05)

    def test_in_a_terminal(self):
        command = self.from_debian("usr/lib/hx/hx")
        if shutil.which("tmux") is None:
            self.skipTest("tmux is not installed")
        settings = self.folder / ".config" / "helix" / "languages.toml"
        settings.parent.mkdir(parents=True)
        settings.write_text(setting_for("Helix"))
        start = self.folder / "start"
        start.write_text('#!/bin/sh\nHELIX_RUNTIME="%s" exec %s orders.py\n' % (
            DEBIAN / "usr/lib/hx/runtime", " ".join('"%s"' % each for each in command)))
        start.chmod(0o755)
        self.tmux("new-session", "-d", "-x", "100", "-y", "32", "-c", str(self.work), str(start))
        self.addCleanup(self.tmux, "kill-server")
        self.wait_for(r"^ +10 +total = sum")
        self.keys(":10", "Enter")
        self.wait_for(r" 10:1 *$")
        self.keys(" ", "G", "b", "Escape")
        self.wait_for(r"^\S +10 +total = sum")
        self.keys(":debug-start file orders.py", "Enter")
        self.wait_for(r"^▶ +10 +total = sum")
        self.keys(" ", "G", "n")
        self.wait_for(r"^▶ +11 +return round")
        self.keys("s", "f")
        self.wait_for(r"\bprice\b.*\n.*\bsell\b")
        terminal_picture.save(self.tmux("capture-pane", "-p", "-e"), PICTURES / "helix.png")
        self.keys("Escape")
        self.keys("Escape", " ", "G", "v")
        self.wait_for(r"^order: dict = \{'tea': 4\.5, 'cake': 3\.25\}")
        self.wait_for(r"^total: float = 7\.75")
        self.keys("Escape", "Escape", " ", "G", "t")
        self.wait_for(r"^ *11 +return round|^[^▶] +11 +return round")


class VSCodeTest(EditorTestCase):
    SETTINGS = """{
        "workbench.startupEditor": "none", "security.workspace.trust.enabled": false, "telemetry.telemetryLevel": "off",
        "workbench.secondarySideBar.defaultVisibility": "hidden", "chat.disableAIFeatures": true
    }"""

    def server(self, *arguments):
        """code-server's command, with all that it keeps in this test's folder."""
        data = self.folder / "data"
        return [str(NODE), str(VSCODE / "code-server" / "out" / "node" / "entry.js"), "--user-data-dir", str(data),
                "--extensions-dir", str(self.folder / "extensions"), "--config", str(self.folder / "config.yaml"), *arguments]

    def start_server(self):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        log = open(self.folder / "server.log", "w")
        self.addCleanup(log.close)
        server = subprocess.Popen(
            self.server("--auth", "none", "--bind-addr", "127.0.0.1:%d" % port, "--disable-telemetry",
                        "--disable-update-check", "--disable-workspace-trust"),
            stdout=log, stderr=log, env=self.environment(), start_new_session=True)

        def end():
            with contextlib.suppress(ProcessLookupError):
                os.killpg(server.pid, signal.SIGKILL)
            server.wait()

        self.addCleanup(end)
        deadline = time.monotonic() + SECONDS
        while True:
            with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port)):
                return "http://127.0.0.1:%d/?folder=%s" % (port, self.work)
            self.assertLess(time.monotonic(), deadline, (self.folder / "server.log").read_text()[:3000])
            time.sleep(0.1)

    def test_in_a_browser(self):
        chromium = shutil.which("chromium")
        if not (VSCODE / "code-server").exists() or chromium is None:
            self.skipTest("tools/editors could not get VS Code for the browser, or Chromium")
        packed = subprocess.run([sys.executable, str(ROOT / "tools" / "make_vsix"), str(self.folder)], check=True,
                                stdout=subprocess.PIPE, text=True).stdout.strip()
        (self.folder / "data" / "User").mkdir(parents=True)
        (self.folder / "data" / "User" / "settings.json").write_text(self.SETTINGS)
        (self.work / ".vscode").mkdir()
        launch = setting_for("VS Code").replace(
            '"program": "${file}"', '"program": "${file}", "python": "%s", "console": "internalConsole"' % self.python)
        (self.work / ".vscode" / "launch.json").write_text(launch)
        subprocess.run(self.server("--install-extension", packed), check=True, stdout=subprocess.DEVNULL,
                       env=self.environment())
        address = self.start_server()
        done = subprocess.run(
            [str(NODE), str(HERE / "drive_vscode.js"), address, str(self.orders), str(PICTURES / "vscode.png")],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=5 * SECONDS, check=False,
            env=self.environment(NODE_PATH=str(VSCODE), CHROMIUM=chromium))
        self.assertEqual((done.returncode, done.stdout.splitlines()), (0, [
            "a click sets a breakpoint", "the stack is shown", "variables are shown",
            "a step shows what it has assigned", "the session ends"]), done.stdout)


if __name__ == "__main__":
    unittest.main()
