// Measure the time of a scan by the library and of the same libusb calls made directly, and of an exchange, with Google
// Benchmark.

#include "operations.h"

#include <string>

#include <benchmark/benchmark.h>

int main(int count, char** arguments) {
    for (const char* const name : {"scan", "scan.bare", "exchange"}) {
        benchmark::RegisterBenchmark(name, [name](benchmark::State& state) {
            const auto operation = operationNamed(name).prepare();
            for ([[maybe_unused]] const auto iteration : state) {
                operation(1);
            }
        });
    }
    benchmark::Initialize(&count, arguments);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
