# `make bench`: how fast the service is.

find_package(benchmark QUIET)
set(has_all FALSE)
if(benchmark_FOUND AND CLI11_FOUND AND TARGET quillon-image)
    set(has_all TRUE)
endif()
quillon_feature("quillon-bench, for make bench" "${has_all}" "Google Benchmark and CLI11")
if(NOT has_all)
    return()
endif()

function(quillon_bench_output)
    set_target_properties(${ARGN} PROPERTIES
        RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bench"
        LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bench")
endfunction()

# The work inside of one process. What it is held against lies beside it.
add_library(quillon-bench-reference STATIC EXCLUDE_FROM_ALL
    reference/file-passes.cpp reference/plain-decipher.cpp)
target_include_directories(quillon-bench-reference PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(quillon-bench-reference PUBLIC PkgConfig::CRYPTO)

add_executable(quillon-kernels EXCLUDE_FROM_ALL kernels/quillon-kernels.cpp)
target_link_libraries(quillon-kernels PRIVATE
    quillon-bench-reference quillon-bench-process quillon-core quillon-platform-link
    benchmark::benchmark)
quillon_bench_output(quillon-kernels)

# The modules and the verifier that the driven service meets.
add_library(sink-module MODULE EXCLUDE_FROM_ALL modules/sink-module.cpp)
target_include_directories(sink-module PRIVATE ${CMAKE_SOURCE_DIR}/include)
add_library(trivial-verifier MODULE EXCLUDE_FROM_ALL modules/trivial-verifier.c)
target_link_options(sink-module PRIVATE
    "LINKER:--version-script=${CMAKE_SOURCE_DIR}/examples/modules/module.map")
set_target_properties(sink-module trivial-verifier PROPERTIES PREFIX "")
quillon_bench_output(sink-module trivial-verifier)

# The control layer over modules whose packages are emulated; it exports what they report to.
add_executable(many-modules EXCLUDE_FROM_ALL many-modules/many-modules.cpp)
target_link_libraries(many-modules PRIVATE
    quillon-core quillon-platform-link quillon-bench-process)
set_target_properties(many-modules PROPERTIES ENABLE_EXPORTS ON)
quillon_bench_output(many-modules)

add_library(quillon-bench-core STATIC EXCLUDE_FROM_ALL
    driven/placement.cpp driven/records.cpp driven/service.cpp driven/stick.cpp
    medium/mounted-medium.cpp
    report/chart.cpp report/charts-of-results.cpp report/table.cpp
    rows/bounds.cpp rows/comparison.cpp rows/kernel-runs.cpp rows/kernels.cpp rows/many-modules.cpp
    rows/results.cpp rows/round-trips.cpp rows/starts.cpp rows/swupdate.cpp rows/updates.cpp)
target_include_directories(quillon-bench-core PUBLIC ${CMAKE_SOURCE_DIR}/include)
target_link_libraries(quillon-bench-core PUBLIC quillon-footprint-core)

add_custom_target(quillon-bench-subjects)
add_dependencies(quillon-bench-subjects quillon-footprint-subjects
    quillon-kernels sink-module trivial-verifier many-modules queue-echo)

# A processor without carry-less multiply, where the choice between kernels can be taken away.
if(EXISTS "${CMAKE_SOURCE_DIR}/src/support/checksum-slicing.h")
    add_executable(quillon-kernels-sliced EXCLUDE_FROM_ALL
        kernels/quillon-kernels.cpp reference/slicing-only.cpp)
    target_link_libraries(quillon-kernels-sliced PRIVATE
        quillon-bench-reference quillon-bench-process quillon-core quillon-platform-link
    benchmark::benchmark)
    quillon_bench_output(quillon-kernels-sliced)
    add_dependencies(quillon-bench-subjects quillon-kernels-sliced)
endif()

# A medium of a given speed; without it, what bounds many modules is left out.
pkg_check_modules(FUSE QUIET IMPORTED_TARGET fuse3)
quillon_feature("throttled medium, for make bench" "${FUSE_FOUND}" "libfuse3")
if(FUSE_FOUND)
    add_executable(throttled-medium EXCLUDE_FROM_ALL medium/throttled-medium.cpp)
    target_link_libraries(throttled-medium PRIVATE PkgConfig::FUSE Threads::Threads)
    quillon_bench_output(throttled-medium)
    add_dependencies(quillon-bench-subjects throttled-medium)
endif()

add_executable(quillon-bench EXCLUDE_FROM_ALL driver/main.cpp)
target_compile_definitions(quillon-bench PRIVATE QUILLON_BUILD_TYPE="$<CONFIG>")
target_link_libraries(quillon-bench PRIVATE quillon-bench-core CLI11::CLI11)
add_dependencies(quillon-bench quillon-bench-subjects)
quillon_bench_output(quillon-bench)
