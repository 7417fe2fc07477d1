# Interface targets that carry compiler flags, so that each part says by linking what it is compiled with.
include(CheckCXXCompilerFlag)

# Warnings, for all of our own code.
add_library(gvusb_warnings INTERFACE)
target_compile_options(gvusb_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety -Werror=thread-safety>
    $<$<BOOL:${GVUSB_WERROR}>:-Werror>)

# Hardening, for what is shipped. Fortification needs optimisation and does not go with sanitizers.
add_library(gvusb_hardening INTERFACE)
target_compile_options(gvusb_hardening INTERFACE -fstack-protector-strong)
check_cxx_compiler_flag(-fstack-clash-protection GVUSB_HAVE_STACK_CLASH_PROTECTION)
if(GVUSB_HAVE_STACK_CLASH_PROTECTION)
    target_compile_options(gvusb_hardening INTERFACE -fstack-clash-protection)
endif()
if(NOT GVUSB_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    target_compile_options(gvusb_hardening INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
target_link_options(gvusb_hardening INTERFACE -Wl,-z,relro,-z,now)

# Sanitizers and coverage, for the library and whatever tests it. Empty unless asked for.
add_library(gvusb_sanitizers INTERFACE)
if(GVUSB_SANITIZE)
    target_compile_options(gvusb_sanitizers INTERFACE
        -fsanitize=${GVUSB_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(gvusb_sanitizers INTERFACE -fsanitize=${GVUSB_SANITIZE})
    if(GVUSB_SANITIZE MATCHES undefined)
        # Checking virtual calls, and clang's check of calls by pointer, need the C++ half of the runtime, which a plain
        # C program does not bring along.
        target_compile_options(gvusb_sanitizers INTERFACE
            $<$<COMPILE_LANGUAGE:CXX>:-fno-sanitize=vptr>
            $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-fno-sanitize=function>)
    endif()
endif()
if(GVUSB_COVERAGE)
    target_compile_options(gvusb_sanitizers INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(gvusb_sanitizers INTERFACE --coverage)
endif()

# Where a fuzzer learns which paths an input takes: in the library and in what turns an input into calls, not in the
# stand-ins. The fuzzer's main function is linked into the fuzz targets alone.
add_library(gvusb_fuzzed INTERFACE)
if(GVUSB_FUZZ)
    target_compile_options(gvusb_fuzzed INTERFACE -fsanitize=fuzzer-no-link)
endif()
