// Keys and buffers for parameters.
#pragma once

#include "call_sequences_session.h"
#include "device/gvdevice.h"

#include <memory>

namespace call_sequences {

// A key to read a parameter: known, in another case, unknown, too long or null. "PRESENT" is excluded, because
// reading it blocks.
class ReadKey {
public:
    explicit ReadKey(Input& input);
    [[nodiscard]] const char* text() const noexcept { return m_text; }

private:
    const char* m_text;
};

// A buffer of exactly the documented size, or null.
class ParameterValue {
public:
    explicit ParameterValue(Input& input);
    [[nodiscard]] char* buffer() const noexcept { return m_buffer.get(); }

private:
    std::unique_ptr<char[]> m_buffer;
};

// Check the result of reading a parameter of this record, and the value where the model knows it.
void checkReading(const Session& session, GVDevice& record, const ReadKey& key, const ParameterValue& value,
                  int result);

} // namespace call_sequences
