#include "control/channel.h"
#include "control/commands.h"
#include "launcher.h"
#include "options.h"
#include "preload_contract.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>

namespace {

constexpr int busError = 125;

// The status, or that of a failure if standard output could not be written.
int flushed(int status) {
    if (std::cout.flush()) {
        return status;
    }
    std::cerr << "gvusb-emulate: standard output cannot be written\n";
    return EXIT_FAILURE;
}

int send(const std::string& command) {
    if (command == "help") {
        std::cout << emulator::describeCommands();
        return EXIT_SUCCESS;
    }
    const char* socket = std::getenv(emulate_socket_variable);
    if (socket == nullptr) {
        std::cerr << "gvusb-emulate: " << emulate_socket_variable
                  << " is not set: there is no bus to send to.\n"
                  << "Send commands from a program that gvusb-emulate runs: gvusb-emulate -- sh -c '...'\n";
        return EXIT_FAILURE;
    }
    const std::string answer = emulator::sendCommand(socket, command);
    std::cout << answer << '\n';
    return flushed(answer.starts_with("ok") ? EXIT_SUCCESS : EXIT_FAILURE);
}

} // namespace

int main(int count, char** arguments) {
    int failure = busError;
    try {
        const auto options = emulator::readOptions(count, arguments);
        if (const int* status = std::get_if<int>(&options)) {
            return flushed(*status);
        }
        const auto& wanted = std::get<emulator::Options>(options);
        if (wanted.command) {
            failure = EXIT_FAILURE;
            return send(*wanted.command);
        }
        return emulator::launch(wanted);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "gvusb-emulate: %s\n", error.what());
        return failure;
    }
}
