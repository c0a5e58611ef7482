"""The charging post of the BlueZ figures, added by bluez_standin.py to python-dbusmock's
bluez5 stand-in: AddPost exports a device with the post's GATT service as bluetoothd leaves
it once resolved, and Burst has its notifying characteristic send numbered values. Every
client measured (the bluez backend, bleak) meets the same post and the same notifications."""
import time

import dbus
import dbus.service
from dbusmock import mockobject

MOCK = 'org.bluez.Mock'
CHARACTERISTIC = 'org.bluez.GattCharacteristic1'


def load(_mock, _parameters):
    pass


def _uuid(short):
    return dbus.String(f'0000{short}-0000-1000-8000-00805f9b34fb', variant_level=1)


def _texts(*items):
    return dbus.Array(items, signature='s', variant_level=1)


@dbus.service.method(MOCK, in_signature='s', out_signature='o')
def AddPost(self, name):
    '''Adds a post on hci0 at an address of its own, services resolved; returns its notifying
    characteristic.'''
    device = self.AddDevice('hci0', f'C0:FF:EE:00:00:{len(mockobject.objects):02X}', name)
    service = device + '/service0010'
    notifier = service + '/char0013'
    under = lambda path: dbus.ObjectPath(path, variant_level=1)
    objects = [
        (service, 'org.bluez.GattService1',
         {'UUID': _uuid('fff0'), 'Device': under(device), 'Primary': dbus.Boolean(True, variant_level=1)}, []),
        (service + '/char0011', CHARACTERISTIC,
         {'UUID': _uuid('fff3'), 'Service': under(service), 'Flags': _texts('write-without-response', 'write')},
         [('WriteValue', 'aya{sv}', '', '')]),
        (notifier, CHARACTERISTIC,
         {'UUID': _uuid('fff4'), 'Service': under(service), 'Flags': _texts('read', 'notify'),
          'Value': dbus.Array([], signature='y', variant_level=1), 'Notifying': dbus.Boolean(False, variant_level=1)},
         # StartNotify answers as bluetoothd does, with Notifying=true.
         [('StartNotify', '', '', f"self.Set('{CHARACTERISTIC}', 'Notifying', True)"), ('StopNotify', '', '', ''),
          ('ReadValue', 'a{sv}', 'ay', 'ret = []')]),
    ]
    for path, interface, properties, methods in objects:
        self.AddObject(path, interface, properties, methods)
        self.EmitSignal('org.freedesktop.DBus.ObjectManager', 'InterfacesAdded', 'oa{sa{sv}}',
                        [dbus.ObjectPath(path), {interface: properties}])
    mockobject.objects[device].Set('org.bluez.Device1', 'ServicesResolved', dbus.Boolean(True))
    return notifier


@dbus.service.method(MOCK, in_signature='oud', out_signature='')
def Burst(self, path, count, pace):
    '''Sends `count` notifications from the characteristic at `path`, `pace` seconds apart
    (0: all at once); each value is 20 bytes, the first four its number from 0, big-endian.'''
    characteristic = mockobject.objects[path]
    start = time.monotonic()
    for n in range(count):
        if pace:
            time.sleep(max(0.0, start + n * pace - time.monotonic()))
        value = dbus.Array(n.to_bytes(4, 'big') + bytes([0x5A] * 16), signature='y', variant_level=1)
        characteristic.EmitSignal('org.freedesktop.DBus.Properties', 'PropertiesChanged', 'sa{sv}as',
                                  [CHARACTERISTIC, {'Value': value}, dbus.Array([], signature='s')])
