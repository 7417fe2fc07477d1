#include "usbfs/attributes.h"

#include "usbfs/sysfs.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace emulator {
namespace {

ShownDevice shown(std::string_view line) {
    const ReaderDescription description = parseReaders(line).front();
    return shownDevice("3-7", description, 3, 12, 7);
}

std::string content(const Attributes& attributes, std::string_view path) {
    const auto found = std::ranges::find(attributes, path, &Attribute::path);
    return found == attributes.end() ? "missing" : found->content;
}

TEST(AttributesTest, DescribeTheDevice) {
    const Attributes all = fixedAttributes(shown("id=CAFE,speed=high,release=0x1234"));
    EXPECT_EQ(content(all, "busnum"), "3\n");
    EXPECT_EQ(content(all, "devpath"), "7\n");
    EXPECT_EQ(content(all, "version"), " 2.00\n");
    EXPECT_EQ(content(all, "bcdDevice"), "1234\n");
    EXPECT_EQ(content(all, "bMaxPacketSize0"), "64\n");
    EXPECT_EQ(content(all, "speed"), "480\n");
    EXPECT_EQ(content(all, "serial"), "CAFE\n");
    EXPECT_EQ(content(all, "product"), "Virtual Reader\n");
    EXPECT_EQ(content(all, "maxchild"), "0\n");
    EXPECT_EQ(content(all, "ep_00/wMaxPacketSize"), "0040\n");
    EXPECT_EQ(content(all, "ep_00/direction"), "both\n");
    EXPECT_EQ(content(fixedAttributes(shown("missing=1")), "serial"), "missing");
}

TEST(AttributesTest, DescribeTheAddress) {
    const Attributes all = addressAttributes(shown("id=1"));
    EXPECT_EQ(content(all, "devnum"), "12\n");
    EXPECT_EQ(content(all, "dev"), "189:267\n");
    EXPECT_NE(content(all, "uevent").find("DEVNAME=bus/usb/003/012\nDEVTYPE=usb_device\nDRIVER=usb\n"),
              std::string::npos);
}

TEST(AttributesTest, DescribeTheActiveConfiguration) {
    const ShownDevice device = shown("configuration=2+1,interfaces=3");
    EXPECT_EQ(content(configurationAttributes(device, 2), "bConfigurationValue"), "2\n");
    EXPECT_EQ(content(configurationAttributes(device, 1), "bConfigurationValue"), "1\n");
    EXPECT_EQ(content(configurationAttributes(device, 1), "bNumInterfaces"), " 3\n");
    EXPECT_EQ(content(configurationAttributes(device, 1), "bMaxPower"), "100mA\n");
    EXPECT_EQ(content(configurationAttributes(device, 1), "bmAttributes"), "80\n");
    for (const Attribute& attribute : configurationAttributes(device, 0)) {
        EXPECT_EQ(attribute.content, "") << attribute.path;
    }
    EXPECT_TRUE(interfacesOf(device, 0).empty());
}

TEST(AttributesTest, DescribeInterfacesAndEndpoints) {
    const auto interfaces = interfacesOf(
        shown("interfaces=2,first-interface=1,speed=high,endpoints=0x81+0x02:bulk+0x83:interrupt:8"), 1);
    ASSERT_EQ(interfaces.size(), 2U);
    EXPECT_EQ(interfaces[0].name, "3-7:1.1");
    EXPECT_EQ(interfaces[1].name, "3-7:1.2");
    const Attributes& first = interfaces[0].attributes;
    EXPECT_EQ(content(first, "bInterfaceNumber"), "01\n");
    EXPECT_EQ(content(first, "bNumEndpoints"), "03\n");
    EXPECT_EQ(content(first, "bInterfaceClass"), "ff\n");
    EXPECT_EQ(content(first, "bAlternateSetting"), " 0\n");
    EXPECT_EQ(content(first, "interface"), "TESK RCI2\n");
    EXPECT_EQ(content(first, "ep_81/type"), "Bulk\n");
    EXPECT_EQ(content(first, "ep_81/direction"), "in\n");
    EXPECT_EQ(content(first, "ep_02/wMaxPacketSize"), "0200\n");
    EXPECT_EQ(content(first, "ep_83/type"), "Interrupt\n");
    EXPECT_EQ(content(first, "ep_83/interval"), "64ms\n"); // 2 to the power of 9 microframes
    EXPECT_EQ(content(interfaces[1].attributes, "ep_81/type"), "missing");
}

TEST(AttributesTest, TakeWrongDescriptorsAsTheyAre) {
    // Cut short, a length of zero, a total length beyond the end, an interface twice.
    EXPECT_EQ(content(fixedAttributes(shown("descriptors=1201")), "idVendor"),
              content(fixedAttributes(shown("id=1")), "idVendor"));
    EXPECT_EQ(content(fixedAttributes(shown("descriptors=1201")), "bNumConfigurations"), "0\n");
    const std::string device = "descriptors=120110010000004009120100000103050101";
    EXPECT_TRUE(interfacesOf(shown(device + "09020900010100"), 1).empty());
    EXPECT_TRUE(interfacesOf(shown(device + "090212000101008032000400000000000000"), 1).empty());
    EXPECT_EQ(
        interfacesOf(shown(device + "0902FFFF010100803209040000000000000009040000000000000009"), 1).size(),
        1U);
}

} // namespace
} // namespace emulator
