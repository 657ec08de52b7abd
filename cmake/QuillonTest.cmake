# Every test case runs in a process of its own on a private virtual device, where the service's real
# absolute paths are empty and nobody else's.

include(GoogleTest)

# What the sanitizers are told, in the tests and in every process that they start: deliberate leaks
# and races are listed in tests/sanitizers, anything else ends the process with a status of its own.
# It is set inside of the device, since a test's ENVIRONMENT property cannot hold more than one value
# here: gtest_discover_tests splits it.
set(QUILLON_TEST_ENVIRONMENT "")
if(QUILLON_SANITIZE)
    set(suppressions "${CMAKE_SOURCE_DIR}/tests/sanitizers")
    set(QUILLON_TEST_ENVIRONMENT env
        "ASAN_OPTIONS=exitcode=99:detect_stack_use_after_return=1:strict_string_checks=1"
        "LSAN_OPTIONS=exitcode=98:suppressions=${suppressions}/asan-leaks.supp:print_suppressions=0"
        "UBSAN_OPTIONS=print_stacktrace=1"
        "TSAN_OPTIONS=exitcode=97:suppressions=${suppressions}/tsan.supp:second_deadlock_stack=1")
endif()

# What each case runs under. Built for another machine, it is emulated inside of the device, which
# this machine's own launcher makes.
if(CMAKE_CROSSCOMPILING)
    set(QUILLON_DEVICE_PROGRAM "" CACHE FILEPATH "this machine's quillon-device, to run tests with")
    if(NOT QUILLON_DEVICE_PROGRAM)
        message(FATAL_ERROR "tests built for another machine need -DQUILLON_DEVICE_PROGRAM=...")
    endif()
    set(QUILLON_TEST_DEVICE "${QUILLON_DEVICE_PROGRAM};run;--;${CMAKE_CROSSCOMPILING_EMULATOR}")
else()
    set(QUILLON_TEST_DEVICE "$<TARGET_FILE:quillon-device>;run;--;${QUILLON_TEST_ENVIRONMENT}")
endif()

# What nearly every test includes, compiled once for all of them. A compiler cache does better with
# whole files, so it gets these.
set(QUILLON_TEST_HEADERS
    <gmock/gmock.h> <gtest/gtest.h> <chrono> <filesystem> <fstream> <functional> <map> <set> <sstream>
    <string> <thread> <vector>)

# quillon_precompile_test_headers(<program>)
# For programs below tests/, which are all compiled with the same options.
function(quillon_precompile_test_headers program)
    set(tests "${CMAKE_SOURCE_DIR}/tests")
    cmake_path(IS_PREFIX tests "${CMAKE_CURRENT_SOURCE_DIR}" is_below)
    if(CMAKE_CXX_COMPILER_LAUNCHER OR NOT is_below)
        return()
    endif()
    if(TARGET quillon-test-headers)
        target_precompile_headers(${program} REUSE_FROM quillon-test-headers)
        return()
    endif()
    set(nothing "${CMAKE_BINARY_DIR}/tests/nothing.cpp")
    file(CONFIGURE OUTPUT "${nothing}" CONTENT "int main() {}\n")
    add_executable(quillon-test-headers "${nothing}")
    target_link_libraries(quillon-test-headers PRIVATE GTest::gmock)
    target_precompile_headers(quillon-test-headers PRIVATE ${QUILLON_TEST_HEADERS})
    quillon_precompile_test_headers(${program})
endfunction()

# The programs of `make cross` and of ThreadSanitizer in `make sanitize`, to be built without the
# rest. Their tests have the label machine or threads.
if(NOT TARGET quillon-machine-tests)
    add_custom_target(quillon-machine-tests)
    add_custom_target(quillon-thread-tests)
endif()

# For another machine, a program consists of what `make cross` runs of it.
option(QUILLON_MACHINE_TESTS_ONLY "build only those sources of a test program that have MACHINE suites"
    ${CMAKE_CROSSCOMPILING})

# quillon_add_test(<name> SOURCES <file>... [LIBRARIES <target>...] [LABELS <label>...]
#                  [TIMEOUT <seconds>] [DEPENDS <target>...] [MACHINE <suite>...] [THREADED])
# A GoogleTest program; each of its cases becomes one ctest test named <name>.<Suite>.<Case>. One that
# depends on a built program and has no label gets the label "programs".
# MACHINE: the suites whose answers depend on word size, byte order, instruction set or C library.
# THREADED: what it tests has threads that share data.
function(quillon_add_test name)
    cmake_parse_arguments(arg "THREADED" "TIMEOUT" "SOURCES;LIBRARIES;LABELS;DEPENDS;MACHINE"
        ${ARGN})
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 120)
    endif()
    if(CMAKE_CROSSCOMPILING OR QUILLON_SANITIZE)
        math(EXPR arg_TIMEOUT "${arg_TIMEOUT} * 5")  # an emulator or a sanitizer is that much slower
    endif()
    set(labels ${arg_LABELS})
    foreach(target IN LISTS arg_DEPENDS)
        if(TARGET ${target} AND NOT labels)
            get_target_property(type ${target} TYPE)
            if(type STREQUAL "EXECUTABLE")
                set(labels programs)
            endif()
        endif()
    endforeach()
    if(QUILLON_MACHINE_TESTS_ONLY AND arg_MACHINE)
        quillon_keep_suites(arg_SOURCES ${arg_MACHINE})
    endif()
    add_executable(${name} ${arg_SOURCES})
    quillon_precompile_test_headers(${name})
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} GTest::gmock GTest::gtest_main)
    target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/tests)
    add_dependencies(${name} quillon-device ${arg_DEPENDS})
    if(arg_THREADED)
        list(APPEND labels threads)
        add_dependencies(quillon-thread-tests ${name})
    endif()
    set_target_properties(${name} PROPERTIES
        RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/tests"
        CROSSCOMPILING_EMULATOR "${QUILLON_TEST_DEVICE}")
    set(of_machine)
    foreach(suite IN LISTS arg_MACHINE)
        quillon_require_suite(${suite} ${arg_SOURCES})
        list(APPEND of_machine "${suite}.*" "*/${suite}.*")
    endforeach()
    if(of_machine)
        list(JOIN of_machine ":" of_machine)
        add_dependencies(quillon-machine-tests ${name})
        quillon_discover(${name} "${of_machine}" ${arg_TIMEOUT} ${labels} machine)
    endif()
    quillon_discover(${name} "-${of_machine}" ${arg_TIMEOUT} ${labels})
endfunction()

# quillon_keep_suites(<variable> <suite>...)
# Takes sources out of the list in the variable that have tests, but none of these suites.
function(quillon_keep_suites variable)
    list(JOIN ARGN "|" suites)
    foreach(source IN LISTS ${variable})
        file(STRINGS "${source}" tests REGEX "^(TYPED_)?TEST(_F|_P)?\\(")
        file(STRINGS "${source}" kept REGEX "^(TYPED_)?TEST(_F|_P)?\\((${suites}),")
        if(tests AND NOT kept)
            list(REMOVE_ITEM ${variable} "${source}")
        endif()
    endforeach()
    set(${variable} "${${variable}}" PARENT_SCOPE)
endfunction()

# One ctest test for each case that the filter lets through.
function(quillon_discover name filter timeout)
    list(JOIN ARGN " " labels)  # one value, since gtest_discover_tests splits lists
    gtest_discover_tests(${name}
        TEST_PREFIX "${name}."
        TEST_FILTER "${filter}"
        DISCOVERY_MODE PRE_TEST
        PROPERTIES TIMEOUT ${timeout} LABELS "${labels}")
endfunction()

# A filter that fits nothing is silent, so a misspelt suite is an error here.
function(quillon_require_suite suite)
    foreach(source IN LISTS ARGN)
        file(STRINGS "${source}" found REGEX "TEST.*[( ]${suite},")
        if(found)
            return()
        endif()
    endforeach()
    message(FATAL_ERROR "no source of these has a test suite ${suite}: ${ARGN}")
endfunction()
