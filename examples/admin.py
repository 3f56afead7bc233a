#!/usr/bin/python3
"""Looks after a broker: asks its admin service, which only root reaches.

    admin.py state               what the broker knows, as JSON
    admin.py where EMP           where an EMP lives, why, and what serves it now, as JSON
    admin.py opens               the last opens that have ended, the newest first, as JSON
    admin.py sweep               close the connections of clients that no longer answer
    admin.py close-all APP [WIDGET]
                                 close every connection of an application
    admin.py debug-level LEVEL   of the broker and of everybody who is connected
    admin.py ping on|off         whether EMPs are pinged

The module vokadmin is generated from rpc/vok_admin.thrift: PYTHONPATH=<build>/gen-py.
Exit status: 0 done, 1 the broker cannot be asked or refuses, 2 wrong usage.
"""

import contextlib
import json
import sys

from thrift.protocol.TBinaryProtocol import TBinaryProtocol
from thrift.Thrift import TException
from thrift.transport import TSocket, TTransport

from vokadmin import VokBrokerAdmin

SOCKET = "/run/vok-broker/admin.sock"


def connect():
    transport = TTransport.TBufferedTransport(TSocket.TSocket(unix_socket=SOCKET))
    transport.open()
    return transport


def show(answer):
    """As JSON: records are dictionaries there."""
    print(json.dumps(answer, default=vars, indent=2))


def run(command, *arguments):
    with contextlib.closing(connect()) as transport:
        client = VokBrokerAdmin.Client(TBinaryProtocol(transport))
        if command == "state" and not arguments:
            show(client.GetState())
        elif command == "where" and len(arguments) == 1:
            show(client.Where(arguments[0]))
        elif command == "opens" and not arguments:
            show(client.GetOpens())
        elif command == "sweep" and not arguments:
            print("closed", client.SweepZombies())
        elif command == "close-all" and len(arguments) in (1, 2):
            print("closed", client.CloseAll(arguments[0], "".join(arguments[1:])))
        elif command == "debug-level" and len(arguments) == 1 and arguments[0].isdecimal():
            client.SetDebugLevel(int(arguments[0]))
        elif command == "ping" and arguments in (("on",), ("off",)):
            client.EnablePing(arguments == ("on",))
        else:
            return usage()
    return 0


def usage():
    print(__doc__.strip(), file=sys.stderr)
    return 2


def main():
    if len(sys.argv) < 2:
        return usage()
    try:
        return run(*sys.argv[1:])
    except (TException, OSError) as error:
        reason = getattr(error, "message", None) or error
        print(f"The broker's admin service on {SOCKET} does not do it: {reason}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
