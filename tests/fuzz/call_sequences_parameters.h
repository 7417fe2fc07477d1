// Keys and buffers for parameters.
#pragma once

#include "call_sequences_session.h"
#include "device/gvdevice.h"

#include <memory>

namespace call_sequences {

// A key to read a parameter: known in some spelling, unknown, too long, null. Never "PRESENT", which waits
// for ever.
class ReadKey {
public:
    explicit ReadKey(Input& input);
    [[nodiscard]] const char* text() const noexcept { return m_text; }

private:
    const char* m_text;
};

// As large as the interface asks for and no larger, or null.
class ParameterValue {
public:
    explicit ParameterValue(Input& input);
    [[nodiscard]] char* buffer() const noexcept { return m_buffer.get(); }

private:
    std::unique_ptr<char[]> m_buffer;
};

// What reading a parameter of this record has to answer, and the text of those that are known beforehand.
void checkReading(const Session& session, GVDevice& record, const ReadKey& key, const ParameterValue& value,
                  int result);

} // namespace call_sequences
