#!/usr/bin/python3
"""client.py PORT: an Echo of the EMP at PORT, and the admin service's records, in Python."""

import sys

from thrift.protocol.TBinaryProtocol import TBinaryProtocol
from thrift.transport.TSocket import TSocket
from thrift.transport.TTransport import TBufferedTransport

from vokadmin.ttypes import BrokerState
from vokrpc import VokEmp

transport = TBufferedTransport(TSocket("127.0.0.1", int(sys.argv[1])))
transport.open()
answer = VokEmp.Client(TBinaryProtocol(transport)).Execute("1", "Echo", "hello", "", "", "")
transport.close()
print(answer, BrokerState(version="5.100").version)
