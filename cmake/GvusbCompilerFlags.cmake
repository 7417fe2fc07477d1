# Interface targets for compiler and linker flags. Each target selects its flags by linking them.
include(CheckCXXCompilerFlag)

# Warnings for all of our own code.
add_library(gvusb_warnings INTERFACE)
target_compile_options(gvusb_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety -Werror=thread-safety>
    $<$<BOOL:${GVUSB_WERROR}>:-Werror>)

# Hardening for installed code. Fortification requires optimization and is incompatible with sanitizers.
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

# Sanitizers and coverage for the library and its tests. Empty by default.
add_library(gvusb_sanitizers INTERFACE)
if(GVUSB_SANITIZE)
    target_compile_options(gvusb_sanitizers INTERFACE
        -fsanitize=${GVUSB_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(gvusb_sanitizers INTERFACE -fsanitize=${GVUSB_SANITIZE})
    if(GVUSB_SANITIZE MATCHES undefined)
        # Checks of virtual calls, and clang's checks of indirect calls, need the C++ part of the runtime, which C
        # programs do not link.
        target_compile_options(gvusb_sanitizers INTERFACE
            $<$<COMPILE_LANGUAGE:CXX>:-fno-sanitize=vptr>
            $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-fno-sanitize=function>)
    endif()
endif()
if(GVUSB_COVERAGE)
    target_compile_options(gvusb_sanitizers INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(gvusb_sanitizers INTERFACE --coverage)
endif()

# Coverage feedback for the fuzzer: instrument the library and the fuzz targets, but not the stand-ins. Only the fuzz
# targets link the fuzzer's main().
add_library(gvusb_fuzzed INTERFACE)
if(GVUSB_FUZZ)
    target_compile_options(gvusb_fuzzed INTERFACE -fsanitize=fuzzer-no-link)
endif()
