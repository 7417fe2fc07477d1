#include "operations.h"

namespace failures {

std::vector<Operation> allOperations() {
    std::vector<Operation> all;
    for (const auto& some :
         {scanOperations(), openingOperations(), transferOperations(), parameterOperations(),
          hotPlugOperations(), lifecycleOperations(), quietOperations()}) {
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

} // namespace failures
