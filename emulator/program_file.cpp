#include "program_file.h"

#include "model/text.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include <elf.h>
#include <link.h>
#include <unistd.h>

namespace emulator {

namespace {

constexpr unsigned mostInterpreters = 5; // that the kernel follows

std::optional<std::string> findProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) {
        return name;
    }
    const char* const path = std::getenv("PATH");
    for (const std::string& folder : splitEscaped(path != nullptr ? path : "/bin:/usr/bin", ':')) {
        std::string file = (folder.empty() ? "." : folder) + "/" + name;
        if (::access(file.c_str(), X_OK) == 0 && !std::filesystem::is_directory(file)) {
            return file;
        }
    }
    return std::nullopt;
}

// The interpreter that a script names; empty for other files.
std::string interpreterOf(std::istream& file) {
    std::string line;
    if (!std::getline(file, line) || !line.starts_with("#!")) {
        return {};
    }
    std::string_view rest = std::string_view(line).substr(2);
    return std::string(takeWord(rest));
}

// The file of this process shows which programs the preload fits.
std::optional<std::string> whyNotLoaded(std::istream& file) {
    const auto readHeader = [](std::istream& stream) {
        ElfW(Ehdr) header{};
        stream.read(reinterpret_cast<char*>(&header), sizeof header);
        return stream && std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 ? std::optional(header)
                                                                           : std::nullopt;
    };
    std::ifstream own("/proc/self/exe", std::ios::binary);
    const auto wanted = readHeader(own);
    const auto header = readHeader(file);
    if (!wanted || !header) {
        return std::nullopt;
    }
    if (header->e_machine != wanted->e_machine || header->e_ident[EI_CLASS] != wanted->e_ident[EI_CLASS]) {
        return "is built for another architecture";
    }
    if (header->e_phentsize != sizeof(ElfW(Phdr))) {
        return std::nullopt;
    }
    std::vector<ElfW(Phdr)> segments(header->e_phnum);
    file.seekg(static_cast<std::streamoff>(header->e_phoff));
    file.read(reinterpret_cast<char*>(segments.data()),
              static_cast<std::streamsize>(segments.size() * sizeof(ElfW(Phdr))));
    for (const auto& segment : segments) {
        if (!file || segment.p_type == PT_INTERP) {
            return std::nullopt;
        }
    }
    return "is linked statically";
}

} // namespace

std::optional<std::string> whyOutOfReach(const std::string& program) {
    std::optional<std::string> file = findProgram(program);
    for (unsigned i = 0; file && i < mostInterpreters; ++i) {
        // The dynamic loader loads the preload for the program that it is given.
        if (std::filesystem::path(*file).filename().string().starts_with("ld-")) {
            break;
        }
        std::ifstream stream(*file, std::ios::binary);
        const std::string interpreter = interpreterOf(stream);
        if (interpreter.empty()) {
            stream.clear();
            stream.seekg(0);
            const std::optional<std::string> reason = whyNotLoaded(stream);
            return reason ? std::optional(*file + " " + *reason) : std::nullopt;
        }
        file = interpreter;
    }
    return std::nullopt;
}

} // namespace emulator
