# How every target is compiled and linked so that a mistake with memory ends the process instead of
# serving an intruder. On for every kind of build but Debug; a sanitizer does more than all of this.

include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckPIESupported)

option(QUILLON_HARDENING "harden programs and libraries; never in a Debug or sanitizer build" ON)

set(QUILLON_HARDENED FALSE)
if(NOT QUILLON_HARDENING OR QUILLON_SANITIZE OR CMAKE_BUILD_TYPE STREQUAL "Debug")
    return()
endif()
set(QUILLON_HARDENED TRUE)

# quillon_harden_with(<variable for the result> <compiler flag>)
function(quillon_harden_with variable flag)
    check_cxx_compiler_flag(${flag} ${variable})
    if(${variable})
        add_compile_options(${flag})
    endif()
endfunction()

# The C library's checks, with sizes that are known when the program runs only where compiler and
# library have that. Taken back first: a distribution's flags may have set a level already.
set(fortify_level 2)
set(CMAKE_REQUIRED_FLAGS "-O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
check_cxx_source_compiles("
    #include <cstdlib>
    #if __USE_FORTIFY_LEVEL < 3
    #error \"level 3 is not known\"
    #endif
    int main() { return EXIT_SUCCESS; }" QUILLON_HAVE_FORTIFY_SOURCE_3)
unset(CMAKE_REQUIRED_FLAGS)
if(QUILLON_HAVE_FORTIFY_SOURCE_3)
    set(fortify_level 3)
endif()
add_compile_options("SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${fortify_level}")

quillon_harden_with(QUILLON_HAVE_STACK_PROTECTOR -fstack-protector-strong)
quillon_harden_with(QUILLON_HAVE_STACK_CLASH_PROTECTION -fstack-clash-protection)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    quillon_harden_with(QUILLON_HAVE_CF_PROTECTION -fcf-protection=full)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
    quillon_harden_with(QUILLON_HAVE_BRANCH_PROTECTION -mbranch-protection=standard)
endif()

# Of libstdc++, the checks that cost one comparison each: the hot paths do not get slower by them.
add_compile_definitions(_GLIBCXX_ASSERTIONS)

check_pie_supported(LANGUAGES C CXX)
add_link_options("LINKER:-z,relro,-z,now,-z,noexecstack")
