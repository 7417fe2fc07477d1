// The time that gettimeofday tells in the test program: the real one, or one that the test sets.
//
// May be used from any thread.
#pragma once

namespace support {

// From now on the time stands still at this moment, until it is set again.
void setTime(long seconds, long microseconds);

void useRealTime();

// How often gettimeofday has been called since one of the above, or since the start.
int timeReads();

// A moment for the length of a test; the real time again afterwards.
class [[nodiscard]] FixedTime {
public:
    FixedTime(long seconds, long microseconds) { setTime(seconds, microseconds); }
    ~FixedTime() { useRealTime(); }
    FixedTime(const FixedTime&) = delete;
    FixedTime& operator=(const FixedTime&) = delete;
};

} // namespace support
