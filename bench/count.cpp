// usage: count OPERATION TIMES
//
// Repeat an operation and print its allocations as JSON, for measure.py. They go to standard error, because
// the library logs to standard output.

#include "allocations.h"
#include "operations.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

int main(int count, char** arguments) try {
    if (count != 3) {
        std::fprintf(stderr, "usage: %s OPERATION TIMES\n", arguments[0]);
        return 2;
    }
    const auto operation = operationNamed(arguments[1]).prepare();
    const long times = std::strtol(arguments[2], nullptr, 10);
    const Allocations before = allocations();
    operation(times);
    const Allocations after = allocations();
    std::fprintf(stderr,
                 R"({"allocations": %zu, "bytes": %zd})"
                 "\n",
                 after.count - before.count, static_cast<ssize_t>(after.bytes - before.bytes));
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
