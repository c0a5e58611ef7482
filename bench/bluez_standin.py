#!/usr/bin/python3
# Runs a command beside a stand-in bluetoothd: python-dbusmock's BlueZ template owning
# org.bluez on a private system bus (the machine's own is never touched), with one powered
# adapter, hci0, and the post of post_template.py. The command finds the bus in
# DBUS_SYSTEM_BUS_ADDRESS and steers the stand-in through its mock interfaces
# (org.bluez.Mock, org.freedesktop.DBus.Mock).
# Usage: bluez_standin.py COMMAND [ARGUMENT...]; exits with the command's status.
import pathlib
import shutil
import subprocess
import sys

import dbus
from dbusmock import DBusTestCase


def main():
    if len(sys.argv) < 2:
        sys.exit("usage: bluez_standin.py COMMAND [ARGUMENT...]")
    # The bus's configuration folder; dbusmock 0.28 leaves it behind.
    scratch = pathlib.Path(DBusTestCase.get_services_dir()).parent
    try:
        DBusTestCase.start_system_bus()
        server, bluez = DBusTestCase.spawn_server_template("bluez5", {}, subprocess.DEVNULL)
        try:
            bluez.AddAdapter("hci0", "tqble", dbus_interface="org.bluez.Mock")
            bluez.AddTemplate(str(pathlib.Path(__file__).with_name("post_template.py")),
                              dbus.Dictionary({}, signature="sv"), dbus_interface="org.freedesktop.DBus.Mock")
            return subprocess.call(sys.argv[1:])
        finally:
            server.terminate()
            server.wait()
    finally:
        DBusTestCase.tearDownClass()
        shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
