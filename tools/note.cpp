#include "note.h"

#include <cstdio>

void printNote(const std::string& text) {
    std::fprintf(stderr, "gvusb: note: %s\n", text.c_str());
}
