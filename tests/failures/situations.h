// The readers on the bus and what the library has done with them when an operation begins, and the events that it
// reports.
#pragma once

#include "recorded_events.h"

#include <string>
#include <vector>

namespace failures {

// dev1 and dev2 have bulk endpoints, dev2 a kernel driver too; dev3 is served by control transfers and has to be
// set to configuration 1. Between dev2 and dev3 there is a device of somebody else's.
inline constexpr unsigned bulkId = 0xA1;
inline constexpr unsigned kernelDriverId = 0xA2;
inline constexpr unsigned controlId = 0xA3;
inline constexpr unsigned newcomerId = 0xA5;

inline constexpr int firstHandle = 0x10000001;
inline constexpr int frameLength = 5;

// Situations: each has fresh readers.
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

// The names of all devices that were plugged since forgetSituation().
const std::vector<std::string>& deviceNames();

// The frame that all send.
extern const unsigned char frame[frameLength];

// The handle of an open reader.
int handleOf(unsigned devId);
int transceive(unsigned devId);

// Whatever was left open is closed, and everything on the bus can be scanned, opened and spoken to.
void expectEverythingWorks();

// Event handlers that note what they are told; of the situation.
void listenForEvents();
std::vector<std::string> takeEvents();

} // namespace failures
