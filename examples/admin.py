#!/usr/bin/python3
"""Looks after a broker: asks its admin service, which only root reaches.

    admin.py state               what the broker knows, as JSON
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


@contextlib.contextmanager
def broker():
    transport = TTransport.TBufferedTransport(TSocket.TSocket(unix_socket=SOCKET))
    transport.open()
    try:
        yield VokBrokerAdmin.Client(TBinaryProtocol(transport))
    finally:
        transport.close()


def plain(value):
    """Records as dictionaries, for JSON."""
    return vars(value)


def run(command, *arguments):
    with broker() as client:
        if command == "state" and not arguments:
            print(json.dumps(client.GetState(), default=plain, indent=2))
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
        print(f"The broker's admin service on {SOCKET} does not do it: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
