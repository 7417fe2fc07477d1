// Readers as `gvusb list` prints them.
#pragma once

#include "usb_location.h"

#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

struct ListOptions {
    std::string family;
    std::string name;
    std::string id;
    bool json = false;

    bool isSearch() const { return !family.empty() || !name.empty() || !id.empty(); }
};

struct ListedReader {
    std::string machine; // empty: this one
    std::string reader;  // its name in the fleet; empty for a reader of this machine
    std::string id;
    std::string family;
    std::string name;
    std::string interfaceType;
    std::optional<std::string> typeNumber;
    std::optional<UsbLocation> location;
};

// Add the searches and --json.
void addListOptions(CLI::App& command, ListOptions& options);

// Also finds a text as it is printed, in which some characters have become question marks.
bool matches(const ListedReader& reader, const ListOptions& search);

// Note characters that readers' texts cannot have, in the search and in the texts.
void noteReplacedCharacters(const ListOptions& search, const std::vector<ListedReader>& readers);

// Print a table, or an array of objects. The readers of other machines have a column or member for it in front.
void printReaders(const std::vector<ListedReader>& readers, bool json);
