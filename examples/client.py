#!/usr/bin/python3
"""A client in Python: opens an EMP through the broker, talks to it and closes it again.

    PYTHONPATH=build/gen-py /usr/bin/python3 examples/client.py EMP

The broker only brings the two together. What the client wants of the EMP it asks the EMP itself, at
the address that the broker hands out. Needs the package python3-thrift; the build writes the module
vokrpc.
"""

import argparse
import sys
import threading
from contextlib import contextmanager

from thrift.protocol.TBinaryProtocol import TBinaryProtocol, TBinaryProtocolFactory
from thrift.server.TServer import TThreadedServer
from thrift.Thrift import TException
from thrift.transport.TSocket import TServerSocket, TSocket
from thrift.transport.TTransport import TBufferedTransport, TBufferedTransportFactory

from vokrpc import VokBroker, VokEmp, VokEmpEvent
from vokrpc.ttypes import ConnectionInfo

ADDRESS = "127.0.0.1"
BROKER_PORT = 50000


class Events:
    """What the broker and EMPs tell this client."""

    def Callback(self, evtType, arg1, arg2):
        print(f'event {evtType} "{arg1}" "{arg2}"', flush=True)


class CallbackSocket(TServerSocket):
    """A server socket on a free port, which is known once the server listens."""

    def __init__(self):
        super().__init__(ADDRESS, 0)
        self.listening = threading.Event()

    def listen(self):
        super().listen()
        self.port = self.handle.getsockname()[1]
        self.listening.set()


def start_callback_server():
    """Serves Events on a thread of its own; returns the port, which is the client's identity."""
    socket = CallbackSocket()
    server = TThreadedServer(VokEmpEvent.Processor(Events()), socket,
                             TBufferedTransportFactory(), TBinaryProtocolFactory(), daemon=True)
    threading.Thread(target=server.serve, daemon=True).start()
    if not socket.listening.wait(5):
        raise OSError("the callback server does not listen")
    return str(socket.port)


@contextmanager
def connection(service, address, port):
    """A connection to a service; every call on it that fails raises a TException."""
    transport = TBufferedTransport(TSocket(address, port))
    transport.open()
    try:
        yield service.Client(TBinaryProtocol(transport))
    finally:
        transport.close()


def open_emp(options, client_port):
    """The connection, or None when the broker refused, which it tells by the EMP's port."""
    with connection(VokBroker, ADDRESS, BROKER_PORT) as broker:
        # The version and the application must not be empty.
        info = broker.OpenEmp(client_port, options.emp, "1.0", options.app)
    if info.empPort in (None, "", "-1"):
        print(f"refused {options.emp}", flush=True)
        return None
    print(f"opened {info.empName} clientPort={info.clientPort} empPort={info.empPort}"
          f" serial={info.serial} ip={info.ip}", flush=True)
    return info


def use_emp(options, info):
    """From here on without the broker."""
    with connection(VokEmp, info.ip, int(info.empPort)) as emp:
        print("clients", emp.Open(info.clientPort, info.empName, "1.0", options.app), flush=True)
        answer = emp.Execute(info.clientPort, "Echo", options.echo, "", "", "")
        print("echo", answer, flush=True)
        return answer == options.echo


def close_emp(info):
    with connection(VokBroker, ADDRESS, BROKER_PORT) as broker:
        closed = broker.CloseEmp(info)
    print("closed" if closed else "not closed", info.empName,
          f"clientPort={info.clientPort} empPort={info.empPort}", flush=True)
    return closed


def run(options):
    """The whole life of a connection."""
    if options.close_only:
        client_port, emp_port = options.close_only
        return close_emp(ConnectionInfo(options.emp, client_port, emp_port, 0, ""))

    info = open_emp(options, start_callback_server())
    if info is None:
        return False
    used = False
    try:
        used = use_emp(options, info)
    except TException as error:
        print(f"client.py: the EMP does not answer: {error}", file=sys.stderr)
    if options.open_only:
        return used
    if options.hold:
        sys.stdin.read()
    return close_emp(info) and used


def parse():
    parser = argparse.ArgumentParser(
        description="Opens EMP through the broker, sends it an Echo and closes it again.",
        epilog="Exit status: 0 all went well, 1 something was refused or failed, 2 wrong usage.")
    parser.add_argument("emp", metavar="EMP")
    parser.add_argument("--echo", default="hello", metavar="TEXT", help="what to send")
    parser.add_argument("--app", default="example", metavar="ID",
                        help="the application that this client belongs to")
    parser.add_argument("--hold", action="store_true",
                        help="keep the EMP open until the standard input ends")
    parser.add_argument("--open-only", action="store_true",
                        help="leave the EMP open; prints what --close-only needs")
    parser.add_argument("--close-only", nargs=2, metavar=("CLIENTPORT", "EMPPORT"),
                        help="only close what --open-only left open")
    return parser.parse_args()


def main():
    try:
        return 0 if run(parse()) else 1
    except (TException, OSError) as error:
        print(f"client.py: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
