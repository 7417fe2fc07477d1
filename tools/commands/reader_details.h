// Everything about one reader, as `gvusb info` prints it.
#pragma once

#include "json.h"
#include "table.h"
#include "usb_location.h"

#include <functional>
#include <optional>
#include <string>

class ReaderDetails {
public:
    // Read each parameter with `value`, which returns nothing for what the reader does not have.
    explicit ReaderDetails(const std::function<std::optional<std::string>(const char* key)>& value);

    // Add a line in front, and the member "machine".
    void addMachine(const std::string& name);
    void addLocation(const std::optional<UsbLocation>& location);

    // Print a table or an object, and a note if a text may have lost characters.
    void print(bool json) const;

private:
    std::vector<Table::Row> m_rows;
    Json m_object = Json::object();
    bool m_isReplaced = false;
};
