// Like load_and_unload.c, in a program that itself contains the C++ runtime and its templates.
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <dlfcn.h>

namespace {

template <typename Function>
Function lookUp(void* library, const std::string& name) {
    void* const symbol = dlsym(library, name.c_str());
    if (symbol == nullptr) {
        std::cerr << dlerror() << '\n';
        std::exit(2);
    }
    return reinterpret_cast<Function>(symbol);
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv, argv + argc);
    if (arguments.size() != 3) {
        return 2;
    }
    for (int i = std::stoi(arguments[2]); i > 0; --i) {
        void* const library = dlopen(arguments[1].c_str(), RTLD_NOW | RTLD_GLOBAL);
        if (library == nullptr) {
            std::cerr << dlerror() << '\n';
            return 2;
        }
        std::ostringstream text;
        text << "scan: " << lookUp<int (*)(int, void*)>(library, "GVUSB_ScanAndOpen")(3, nullptr);
        text << ", readers: " << lookUp<int (*)()>(library, "GVUSB_GetScanListSize")() << '\n';
        std::cout << text.str();
        dlclose(library);
        std::cout << "unloaded\n";
    }
    std::cout << "main ends" << std::endl;
    return 0;
}
