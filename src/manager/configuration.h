// The settings in the text of the configuration file.
#pragma once

struct Configuration {
    int libUsbDebugLevel = 0;
    int debugLevel = 0;
    int hotPlugMode = 1;
    unsigned int updateRate = 300000; // microseconds
};

// Keys are found anywhere in the text, inside longer words too; of several the first counts. What is missing
// or unreadable keeps its default.
Configuration parseConfiguration(const char* text);
