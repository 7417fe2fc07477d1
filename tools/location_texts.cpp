#include "location_texts.h"

LocationTexts::LocationTexts(const std::optional<UsbLocation>& location) {
    if (location) {
        path = location->path.empty() ? path : location->path;
        bus = std::to_string(location->bus);
        address = std::to_string(location->address);
    }
}

void addLocation(Json& object, const std::optional<UsbLocation>& location) {
    object["path"] = location && !location->path.empty() ? Json(location->path) : Json(nullptr);
    object["bus"] = location ? Json(location->bus) : Json(nullptr);
    object["address"] = location ? Json(location->address) : Json(nullptr);
}
