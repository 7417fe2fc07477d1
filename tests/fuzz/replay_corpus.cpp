// The main function of a fuzz target that is built without a fuzzer. Run the target once on each file of the given
// folders.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

[[noreturn]] void fail(const std::filesystem::path& path, const char* what) {
    std::fprintf(stderr, "%s %s\n", path.c_str(), what);
    std::exit(1);
}

void replayFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
    if (!file) {
        fail(path, "cannot be read");
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

int replayFolder(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::directory_iterator entries(folder, error);
    if (error) {
        fail(folder, "cannot be opened");
    }
    int inputs = 0;
    for (const auto& entry : entries) {
        replayFile(entry.path());
        ++inputs;
    }
    // A corpus that lost its inputs must not pass.
    if (inputs == 0) {
        fail(folder, "has no inputs");
    }
    std::fprintf(stderr, "%s: %d inputs\n", folder.c_str(), inputs);
    return inputs;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "Usage: %s FOLDER...\n", argv[0]);
        return 2;
    }
    int inputs = 0;
    for (int argument = 1; argument < argc; ++argument) {
        inputs += replayFolder(argv[argument]);
    }
    std::fprintf(stderr, "%d inputs replayed\n", inputs);
    return 0;
}
