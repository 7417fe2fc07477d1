// Tests of the stand-in itself: each starts with a fresh bus and must leave no resources behind.
#pragma once

#include "fake_libusb.h"

#include <gtest/gtest.h>

class FakeLibusbTest : public testing::Test {
protected:
    using Lines = std::vector<std::string>;

    FakeLibusbTest() { fake_libusb::reset(); }
    ~FakeLibusbTest() override { EXPECT_EQ(fake_libusb::initializations(), 0); }
    FakeLibusbTest(const FakeLibusbTest&) = delete;
    FakeLibusbTest& operator=(const FakeLibusbTest&) = delete;

    // Keeps libusb initialized for its lifetime, without recording the initialization.
    struct Context {
        Context() {
            libusb_init(nullptr);
            fake_libusb::reset();
        }
        ~Context() { libusb_exit(nullptr); }
        Context(const Context&) = delete;
        Context& operator=(const Context&) = delete;
    };

    static libusb_device_handle* open(libusb_device* device) {
        libusb_device_handle* handle = nullptr;
        EXPECT_EQ(libusb_open(device, &handle), 0);
        return handle;
    }

    static std::string readString(libusb_device_handle* handle, std::uint8_t index) {
        unsigned char text[256] = {};
        const int count = libusb_get_string_descriptor_ascii(handle, index, text, sizeof text);
        return count < 0 ? std::to_string(count) : std::string(text, text + count);
    }
};
