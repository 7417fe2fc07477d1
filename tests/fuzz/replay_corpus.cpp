// The main function of a fuzz target that is built without a fuzzer: runs it once on every file of the given
// folders.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

int replayFolder(const char* folder) {
    int inputs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
        if (!file) {
            std::fprintf(stderr, "%s cannot be read\n", entry.path().c_str());
            std::exit(1);
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        ++inputs;
    }
    return inputs;
}

} // namespace

int main(int argc, char** argv) {
    int inputs = 0;
    for (int argument = 1; argument < argc; ++argument) {
        inputs += replayFolder(argv[argument]);
    }
    std::fprintf(stderr, "%d inputs replayed\n", inputs);
    return inputs > 0 ? 0 : 1;
}
