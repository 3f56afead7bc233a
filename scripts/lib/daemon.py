#!/usr/bin/python3
"""Runs a program that puts itself into the background, and waits for the process that it leaves.

    daemon.py STATEDIR PROGRAM

The daemon's parent ends at once, so an ordinary caller could neither learn the daemon's process id
nor its exit status. This process adopts it and writes both into STATEDIR: "started" (the exit status
of PROGRAM itself), "pid" (of the daemon), "status" (of the daemon when it has ended; 128 and more: by
a signal). The standard output and error of all of them go to "output".
"""

import ctypes
import os
import sys

PR_SET_CHILD_SUBREAPER = 36


def write(path, value):
    """Never seen half written."""
    with open(path + ".new", "w", encoding="ascii") as file:
        file.write(f"{value}\n")
    os.rename(path + ".new", path)


def exit_code(status):
    code = os.waitstatus_to_exitcode(status)
    return code if code >= 0 else 128 - code


def children():
    """The processes whose parent this one is."""
    found = []
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{entry}/stat", encoding="utf-8", errors="replace") as file:
                parent = int(file.read().rpartition(")")[2].split()[1])
        except (OSError, IndexError):
            continue  # it has just ended
        if parent == os.getpid():
            found.append(int(entry))
    return found


def main():
    state, program = sys.argv[1:]
    output = os.open(f"{state}/output", os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)
    nothing = os.open("/dev/null", os.O_RDONLY)
    for target, source in ((0, nothing), (1, output), (2, output)):
        os.dup2(source, target)
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)

    starter = os.spawnv(os.P_NOWAIT, program, [program])
    _, status = os.waitpid(starter, 0)
    daemon = next(iter(children()), None)
    if daemon is not None:
        write(f"{state}/pid", daemon)
    write(f"{state}/started", exit_code(status))

    # What the daemon leaves behind comes here too.
    while True:
        try:
            pid, status = os.wait()
        except ChildProcessError:
            return
        if pid == daemon:
            write(f"{state}/status", exit_code(status))


if __name__ == "__main__":
    main()
