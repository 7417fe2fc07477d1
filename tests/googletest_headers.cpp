// Precompiles the headers that all test programs share.
