// Controls the time that gettimeofday() returns in the test program: the real time, or one that the test
// sets.
//
// Thread-safe.
#pragma once

namespace support {

// Stop the clock at this time, until it is set again.
void setTime(long seconds, long microseconds);

void useRealTime();

// The number of calls of gettimeofday() since the last call of one of these functions, or since the start.
int timeReads();

// Stops the clock for the length of a test, then restores the real time.
class [[nodiscard]] FixedTime {
public:
    FixedTime(long seconds, long microseconds) { setTime(seconds, microseconds); }
    ~FixedTime() { useRealTime(); }
    FixedTime(const FixedTime&) = delete;
    FixedTime& operator=(const FixedTime&) = delete;
};

} // namespace support
