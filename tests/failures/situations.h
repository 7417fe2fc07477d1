// The state in which an operation begins (readers on the bus, and what the library has done with them), and
// the events that it reports.
#pragma once

#include "recorded_events.h"

#include <string>
#include <vector>

namespace failures {

// dev1 and dev2 have bulk endpoints, and dev2 has a kernel driver. dev3 uses control transfers and must be
// set to configuration 1. A device of another vendor is between dev2 and dev3.
inline constexpr unsigned bulkId = 0xA1;
inline constexpr unsigned kernelDriverId = 0xA2;
inline constexpr unsigned controlId = 0xA3;
inline constexpr unsigned newcomerId = 0xA5;

inline constexpr int firstHandle = 0x10000001;
inline constexpr int frameLength = 5;

// Situations: each starts with fresh readers.
void plugged();
void scanned();
void opened();
void exchanging();      // opened, and each has exchanged a frame
void closedReplugged(); // scanned, and dev1 has come back as dev4
void openReplugged();   // exchanging, and dev1 has come back as dev4

void unplugged(); // exchanging, and dev1 is gone

// Changes to a situation.
void plugNewcomer(); // dev5
void forgetSituation();

// The names of all devices plugged since forgetSituation().
const std::vector<std::string>& deviceNames();

// The frame that all operations send.
extern const unsigned char frame[frameLength];

// The handle of an open reader.
int handleOf(unsigned devId);
int transceive(unsigned devId);

// Close all readers, then check that every reader on the bus can be scanned, opened and used.
void expectEverythingWorks();

// Event handlers that record the events, until the next situation.
void listenForEvents();
std::vector<std::string> takeEvents();

} // namespace failures
