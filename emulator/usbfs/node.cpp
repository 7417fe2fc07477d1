#include "usbfs/node.h"

#include <filesystem>
#include <stdexcept>
#include <utility>

#include <unistd.h>

namespace emulator {

namespace {

using NodePointer = std::shared_ptr<SharedNode>;

constexpr const char* openingKey = "gvusb-opening";

UsbfsOpening& openingOf(UMockdevIoctlClient* client, const NodePointer& node) {
    if (void* known = g_object_get_data(G_OBJECT(client), openingKey))
        return *static_cast<UsbfsOpening*>(known);
    // umockdev 0.17 does not tell when a program closes the node, but it drops the connection's object then.
    auto opening = std::make_unique<UsbfsOpening>(node);
    UsbfsOpening& reference = *opening;
    g_object_set_data_full(G_OBJECT(client), openingKey, opening.release(),
                           [](gpointer pointer) { delete static_cast<UsbfsOpening*>(pointer); });
    return reference;
}

void onConnected(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer node) {
    openingOf(client, *static_cast<NodePointer*>(node));
}

gboolean onIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer node) {
    UsbfsOpening& opening = openingOf(client, *static_cast<NodePointer*>(node));
    const int result =
        opening.answer(umockdev_ioctl_client_get_request(client), umockdev_ioctl_client_get_arg(client));
    umockdev_ioctl_client_complete(client, result < 0 ? -1 : result, result < 0 ? -result : 0);
    return TRUE;
}

void dropNode(gpointer node, GClosure*) {
    delete static_cast<NodePointer*>(node);
}

void throwError(GError* error) {
    const std::string message = error != nullptr ? error->message : "unknown error of umockdev";
    g_clear_error(&error);
    throw std::runtime_error(message);
}

} // namespace

DeviceNode::DeviceNode(UMockdevTestbed* testbed, std::string path, std::shared_ptr<UsbfsDevice> device,
                       std::mutex& mutex, NodeHooks hooks)
    : testbed_(testbed)
    , path_(std::move(path)) {
    gchar* root = umockdev_testbed_get_root_dir(testbed_);
    file_ = root + path_;
    g_free(root);
    std::filesystem::create_directories(std::filesystem::path(file_).parent_path());
    shared_ = std::make_shared<SharedNode>(file_, std::move(device), mutex, std::move(hooks));
    handler_ = umockdev_ioctl_base_new();
    g_signal_connect_data(handler_, "client-connected", G_CALLBACK(onConnected), new NodePointer(shared_),
                          dropNode, GConnectFlags{});
    g_signal_connect_data(handler_, "handle-ioctl", G_CALLBACK(onIoctl), new NodePointer(shared_), dropNode,
                          GConnectFlags{});
    GError* error = nullptr;
    umockdev_testbed_attach_ioctl(testbed_, path_.c_str(), handler_, &error);
    if (error != nullptr) {
        g_object_unref(handler_);
        ::unlink(file_.c_str());
        throwError(error);
    }
}

void DeviceNode::retire() {
    ::unlink(file_.c_str());
}

DeviceNode::~DeviceNode() {
    GError* error = nullptr;
    umockdev_testbed_detach_ioctl(testbed_, path_.c_str(), &error);
    g_clear_error(&error);
    g_object_unref(handler_);
    ::unlink(file_.c_str());
}

void DeviceNode::refresh() {
    shared_->refresh();
}

} // namespace emulator
