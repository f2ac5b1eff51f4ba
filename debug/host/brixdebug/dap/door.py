"""Who may come in: addresses to listen at and to connect to, and the secret that a stranger has to know.

An address is `PORT`, `HOST:PORT` or `unix:PATH`.  What is bound to the loopback may be
reached by every user of the machine, so may any other address by more; a Unix socket by
its owner alone.  Only the loopback and Unix sockets are open without a secret.
"""

from __future__ import annotations

import fcntl
import os
import socket
import stat
import struct
import sys
from _operator import _compare_digest     # `hmac`, which has it too, loads a library of cryptography

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any

UNIX_PREFIX = "unix:"
_SECRET_BYTES = 24
_FIRST_DESCRIPTOR = 500          # there are 1024 or more
_MAX_SECRET_BYTES = 4096


class DoorError(Exception):
    """An address or a secret that cannot be used; the text is for the user."""


Address = tuple[str, int] | str          # host and port, or the path of a Unix socket


def parse_address(text: str) -> Address:
    """The address in a text like "5678", "0.0.0.0:5678", "[::1]:0" or "unix:/run/user/1000/app"."""
    if text.startswith(UNIX_PREFIX):
        path = text[len(UNIX_PREFIX):]
        if not path:
            raise DoorError("no path after %r" % UNIX_PREFIX)
        return os.path.abspath(path)
    host, has_host, port = text.rpartition(":")
    if has_host and not host:
        raise DoorError("no host before the colon of %r" % text)
    if host.startswith("[") and host.endswith("]"):
        host = host[1:-1]
    elif ":" in host:
        raise DoorError("write an IPv6 address in brackets, as in [::1]:5678, not %r" % text)
    if not port.isascii() or not port.isdigit() or int(port) > 65535:
        raise DoorError("a port is a number from 0 to 65535, not %r; write [HOST:]PORT or unix:PATH" % port)
    return host or "127.0.0.1", int(port)


def show_address(address: Address) -> str:
    """The text that `parse_address` reads."""
    if isinstance(address, str):
        return UNIX_PREFIX + address
    host, port = address
    return "%s:%d" % ("[%s]" % host if ":" in host else host, port)


def needs_secret(address: Address) -> bool:
    """Whether others than the users of this machine may reach it."""
    if isinstance(address, str):
        return False
    import ipaddress

    try:
        return not ipaddress.ip_address(address[0]).is_loopback
    except ValueError:
        return address[0] != "localhost"


def listen_at(address: Address) -> tuple[socket.socket, Address]:
    """A socket that listens there, and where it does: port 0 has become a real one.

    Raises DoorError when that cannot be.  Children that the program starts do not get it.
    """
    try:
        if isinstance(address, str):
            return out_of_the_way(_listen_on_path(address)), address
        family = socket.getaddrinfo(*address, type=socket.SOCK_STREAM)[0][0]
        listener = socket.socket(family, socket.SOCK_STREAM)
        try:
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind(address)
            listener.listen(4)
        except BaseException:
            listener.close()
            raise
        listener = out_of_the_way(listener)
        return listener, listener.getsockname()[:2]
    except (OSError, UnicodeError) as error:     # a host with a name that none can have
        raise DoorError("cannot listen at %s: %s" % (show_address(address), _reason(error))) from None


def _listen_on_path(path: str) -> socket.socket:
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        _remove_dead_socket(path)
        # The mode of what bind makes: nobody but the owner, from the very first moment.
        os.fchmod(listener.fileno(), 0o600)
        listener.bind(path)
        listener.listen(4)
    except BaseException:
        listener.close()
        raise
    return listener


def _remove_dead_socket(path: str) -> None:
    """One that a killed process has left behind; one that somebody listens at stays."""
    try:
        if not stat.S_ISSOCK(os.lstat(path).st_mode):
            return
    except OSError:
        return
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as probe:
        try:
            probe.connect(path)
        except ConnectionRefusedError:
            os.unlink(path)
        except OSError:
            pass


def connect_to(address: Address, seconds: float | None = None) -> socket.socket:
    """A connection; raises DoorError when nobody answers there."""
    try:
        if not isinstance(address, str):
            connection = socket.create_connection(address, seconds)
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        else:
            connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            connection.settimeout(seconds)
            try:
                connection.connect(address)
            except BaseException:
                connection.close()
                raise
        connection.settimeout(None)
        return out_of_the_way(connection)
    except (OSError, UnicodeError) as error:
        raise DoorError("cannot connect to %s: %s" % (show_address(address), _reason(error))) from None


def _reason(error: OSError | UnicodeError) -> object:
    return error.strerror or error if isinstance(error, OSError) else error


def is_trusted_peer(connection: socket.socket) -> bool:
    """Whether who is at the other end of a Unix socket is this user or root: a name may be somebody else's by now."""
    size = struct.calcsize("@3i")                # process, user, group
    _, user, _ = struct.unpack("@3i", connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, size))
    return user in (0, os.geteuid())


def out_of_the_way(connection: socket.socket) -> socket.socket:
    """The same under a number that the program's own files do not get.

    They have the numbers that they have without a debugger, and one that is closed in error has not been given anew.
    """
    try:
        descriptor = fcntl.fcntl(connection.fileno(), fcntl.F_DUPFD_CLOEXEC, _FIRST_DESCRIPTOR)
    except OSError:                          # there may be fewer
        return connection
    moved = socket.socket(connection.family, connection.type, connection.proto, descriptor)
    moved.settimeout(connection.gettimeout())
    connection.close()
    return moved


def new_secret() -> str:
    import secrets
    return secrets.token_urlsafe(_SECRET_BYTES)


def read_secret(path: str) -> str:
    """The secret in a file; DoorError unless it is its owner's alone."""
    try:
        with open(path, "rb") as file:
            mode = os.fstat(file.fileno()).st_mode
            data = file.read(_MAX_SECRET_BYTES + 1).strip()
    except OSError as error:
        raise DoorError("cannot read the secret in %s: %s" % (path, error.strerror)) from None
    if mode & 0o077:
        raise DoorError("others than its owner may read the secret in %s; chmod 600 it" % path)
    if not data or len(data) > _MAX_SECRET_BYTES:
        raise DoorError("%s holds no secret: it is empty or too long" % path)
    try:
        return data.decode("utf-8")
    except UnicodeDecodeError:
        raise DoorError("%s holds no text" % path) from None


def secret_for(address: Address, path: str | None) -> str | None:
    """What is to be known at `address`: what the file `path` says, else a new one, which is printed, where one is needed."""
    if path is not None:
        return read_secret(path)
    if not needs_secret(address):
        return None
    secret = new_secret()
    print("brixdebug: editors have to give this secret: %s" % secret, file=sys.stderr, flush=True)
    return secret


def is_secret(given: Any, expected: str) -> bool:
    """Compares in constant time."""
    return isinstance(given, str) and _compare_digest(given.encode("utf-8", "replace"), expected.encode())
