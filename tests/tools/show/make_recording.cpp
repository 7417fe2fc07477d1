// usage: make_recording KIND [COUNT [READERS]]
// Writes a recording to standard output: "session" as in sample_recordings.h; "long", COUNT exchanges of READERS readers;
// "foreign", without a reader; "redacted", without its frames; "hostile", a reader whose name would mean something to gnuplot, XML and a terminal.
#include "show/sample_recordings.h"

#include <cstdio>
#include <cstdlib>

namespace {

SampleRecording longSession(int exchanges, int readers) {
    SampleRecording made;
    for (int i = 0; i < readers; ++i) {
        made.identify(2 + i, ("1-" + std::to_string(1 + i)).c_str(), "A" + std::to_string(i), "Desk",
                      "Desk reader");
    }
    for (int i = 0; i < exchanges; ++i) {
        const int address = 2 + i % readers;
        const auto number = static_cast<std::uint8_t>(i);
        const bool hasTimeOut = i % 20'000 == 15'000;
        made.out(address, {2, number});
        if (hasTimeOut) {
            made.in(address, {}, -ENOENT, std::chrono::milliseconds(1000));
        } else {
            made.in(address, {0x90, number}, 0, std::chrono::microseconds(900 + (i * 37) % 400));
        }
    }
    made.remark({{"type", "end"}, {"result", 0}});
    return made;
}

SampleRecording other(bool isHostile) {
    SampleRecording made;
    made.identify(2, "1-1", "A1", "`touch broken`", isHostile ? "<b>'a'\\\" \033[31m&" : "Mouse",
                  isHostile ? 0x1209 : 0x046D);
    made.out(2, {1});
    made.in(2, {1});
    made.remark({{"type", "end"}, {"result", 0}});
    return made;
}

SampleRecording redacted() {
    SampleRecording made;
    made.identify(2, "1-1", "A1", "Desk", "Desk reader");
    const capture::Bytes marker = {'R', 'E', 'D'};
    const auto out =
        made.submit(2, capture::TransferType::bulk, 0x02, marker, 3, {}, capture::redactedComment);
    made.complete(out, 2, capture::TransferType::bulk, 0x02, 0, {}, 3);
    const auto in = made.submit(2, capture::TransferType::bulk, 0x81, {}, 512);
    made.complete(in, 2, capture::TransferType::bulk, 0x81, 0, marker, 3, capture::redactedComment);
    made.remark({{"type", "end"}, {"result", 0}});
    return made;
}

} // namespace

int main(int count, char** arguments) {
    const std::string kind = count > 1 ? arguments[1] : "";
    const int exchanges = count > 2 ? std::atoi(arguments[2]) : 1;
    const int readers = count > 3 ? std::atoi(arguments[3]) : 1;
    const SampleRecording made = kind == "long"       ? longSession(exchanges, readers)
                                 : kind == "foreign"  ? other(false)
                                 : kind == "hostile"  ? other(true)
                                 : kind == "redacted" ? redacted()
                                                      : sampleSession();
    return std::fwrite(made.file.data(), 1, made.file.size(), stdout) == made.file.size() ? 0 : 1;
}
