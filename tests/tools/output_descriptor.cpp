// The programs get this from log_redirection.cpp, which would redirect the output of the tests, too.
#include "output.h"

#include <unistd.h>

int output::descriptor() {
    return STDOUT_FILENO;
}
