#include "model/pipes.h"

#include <algorithm>

namespace emulator {

std::vector<Pipe> pipesNamed(const ReaderDescription& reader, std::string_view name) {
    if (name == "control") {
        return {Pipe::control};
    }
    std::vector<Pipe> pipes;
    const bool all = name == "all";
    if (all || name == "in" || name == "out") {
        for (const Endpoint& endpoint : reader.endpoints) {
            if (all || endpoint.in() == (name == "in")) {
                pipes.push_back(pipeOf(endpoint.address));
            }
        }
        if (all) {
            pipes.push_back(Pipe::control);
        } else {
            pipes.push_back(name == "in" ? Pipe::controlFrameIn : Pipe::controlFrameOut);
        }
        return pipes;
    }
    if (name.empty() || name.front() < '0' || name.front() > '9') {
        throw TextError("pipe must be in, out, control, all or an endpoint such as 0x81, not '" +
                        std::string(name) + "'");
    }
    const auto address = static_cast<std::uint8_t>(number("endpoint", name, 1, 0x8F));
    if (std::ranges::find(reader.endpoints, address, &Endpoint::address) == reader.endpoints.end()) {
        throw TextError("reader has no endpoint " + std::string(name));
    }
    return {pipeOf(address)};
}

} // namespace emulator
