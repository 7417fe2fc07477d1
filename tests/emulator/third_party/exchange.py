"""Uses a reader through pyusb. usage: exchange.py VENDOR-ID"""

import sys

import usb.core
import usb.util

vendor = int(sys.argv[1], 0)
reader = usb.core.find(idVendor=vendor, idProduct=1)
print(reader.manufacturer, reader.product, reader.serial_number, usb.util.get_string(reader, 6), sep="; ")
reader.set_configuration()
usb.util.claim_interface(reader, 0)
reader.set_interface_altsetting(0, 0)
reader.write(0x02, b"\x01\x02\x03")
print(bytes(reader.read(0x81, 64)).hex())
reader.ctrl_transfer(0x40, 0, 0, 0, b"\x09\x08")
print(bytes(reader.ctrl_transfer(0xC0, 0, 0, 0, 64)).hex())
reader.clear_halt(0x81)
reader.reset()
print([device.bDeviceClass for device in sorted(usb.core.find(find_all=True), key=lambda device: device.address)])
usb.util.dispose_resources(reader)
