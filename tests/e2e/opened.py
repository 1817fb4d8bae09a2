"""Tells which files below a folder are opened while it watches, through the host's inotify."""

import contextlib
import ctypes
import os
import pathlib
import struct
import threading

LIBC = ctypes.CDLL(None, use_errno=True)
IN_OPEN, IN_Q_OVERFLOW, IN_ISDIR, IN_ONLYDIR, IN_DONT_FOLLOW = 0x20, 0x4000, 0x40000000, 0x01000000, 0x02000000
EVENT = struct.Struct("iIII")


class OpenedFiles:
    """Use as a context manager; afterwards `paths` holds the files (no folders), relative to the folder."""

    def __init__(self, folder):
        self.folder, self.paths, self.overflowed = pathlib.Path(folder), set(), False

    def __enter__(self):
        self.queue = LIBC.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        self.watched = {}
        for folder, _, _ in os.walk(self.folder):
            number = LIBC.inotify_add_watch(self.queue, os.fsencode(folder), IN_OPEN | IN_ONLYDIR | IN_DONT_FOLLOW)
            if number < 0:
                raise OSError(ctypes.get_errno(), "inotify_add_watch", folder)
            self.watched[number] = pathlib.Path(folder).relative_to(self.folder)
        self.ended, self.reader = threading.Event(), threading.Thread(target=self._read)
        self.reader.start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        self.reader.join()
        os.close(self.queue)
        if self.overflowed:
            raise RuntimeError("too many files were opened at once")

    def _read(self):
        ended = False
        while not ended:
            ended = self.ended.wait(0.02)
            with contextlib.suppress(BlockingIOError):
                while True:
                    self._take(os.read(self.queue, 1 << 16))

    def _take(self, events):
        offset = 0
        while offset < len(events):
            number, mask, _, length = EVENT.unpack_from(events, offset)
            name = os.fsdecode(events[offset + EVENT.size:offset + EVENT.size + length].rstrip(b"\0"))
            offset += EVENT.size + length
            self.overflowed |= bool(mask & IN_Q_OVERFLOW)
            if name and not mask & IN_ISDIR:
                self.paths.add((self.watched[number] / name).as_posix())
