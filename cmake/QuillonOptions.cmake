# What a device maker sets, and how every target is compiled.

include(CTest)  # BUILD_TESTING, on unless switched off

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

set(QUILLON_PLATFORM "linux" CACHE STRING "linux: build libquillon-platform.so; device: link your own")
set_property(CACHE QUILLON_PLATFORM PROPERTY STRINGS linux device)
set(QUILLON_PLATFORM_LIBRARY "" CACHE FILEPATH "the device's own platform library, for QUILLON_PLATFORM=device")
set(QUILLON_CALLER_IDENTITY "0,0,0,0,0" CACHE STRING "the five words that name this service to the secure storage")
set(QUILLON_SANITIZE "" CACHE STRING "sanitizers, for example address,undefined or thread")
option(QUILLON_WERROR "treat warnings as errors" ON)

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow
                    "$<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>")
if(QUILLON_WERROR)
    add_compile_options(-Werror)
endif()
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    # Files beyond 2 GiB and times beyond January 2038 (the latter where glibc is 2.34 or later). No
    # interface to plug-ins or platform libraries carries either type, so theirs may differ.
    add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
if(QUILLON_SANITIZE)
    add_compile_options(-fsanitize=${QUILLON_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${QUILLON_SANITIZE})
    if(QUILLON_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
    if(QUILLON_SANITIZE MATCHES "thread")
        # An inlined memcpy is one that ThreadSanitizer does not see.
        add_compile_options(-fno-builtin)
    endif()
    # GCC takes std::regex for uninitialised under its sanitizers.
    add_compile_options(-Wno-maybe-uninitialized)
endif()
