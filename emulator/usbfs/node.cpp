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
    if (void* known = g_object_get_data(G_OBJECT(client), openingKey)) {
        return *static_cast<UsbfsOpening*>(known);
    }
    // umockdev 0.17 does not report when a program closes the node, but it drops the client object then.
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
    const std::string message = error != nullptr ? error->message : "unknown umockdev error";
    g_clear_error(&error);
    throw std::runtime_error(message);
}

} // namespace

DeviceNode::DeviceNode(UMockdevTestbed* testbed, std::string path, std::shared_ptr<UsbfsDevice> device,
                       std::mutex& mutex, NodeHooks hooks)
    : m_testbed(testbed)
    , m_path(std::move(path)) {
    gchar* root = umockdev_testbed_get_root_dir(m_testbed);
    m_file = root + m_path;
    g_free(root);
    std::filesystem::create_directories(std::filesystem::path(m_file).parent_path());
    m_shared = std::make_shared<SharedNode>(m_file, std::move(device), mutex, std::move(hooks));
    m_handler = umockdev_ioctl_base_new();
    g_signal_connect_data(m_handler, "client-connected", G_CALLBACK(onConnected), new NodePointer(m_shared),
                          dropNode, GConnectFlags{});
    g_signal_connect_data(m_handler, "handle-ioctl", G_CALLBACK(onIoctl), new NodePointer(m_shared), dropNode,
                          GConnectFlags{});
    GError* error = nullptr;
    umockdev_testbed_attach_ioctl(m_testbed, m_path.c_str(), m_handler, &error);
    if (error != nullptr) {
        g_object_unref(m_handler);
        ::unlink(m_file.c_str());
        throwError(error);
    }
}

void DeviceNode::retire() {
    ::unlink(m_file.c_str());
}

DeviceNode::~DeviceNode() {
    GError* error = nullptr;
    umockdev_testbed_detach_ioctl(m_testbed, m_path.c_str(), &error);
    g_clear_error(&error);
    g_object_unref(m_handler);
    ::unlink(m_file.c_str());
}

void DeviceNode::refresh() {
    m_shared->refresh();
}

} // namespace emulator
