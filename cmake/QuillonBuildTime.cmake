# What gets a developer's build done sooner and changes nothing that is built: a compiler cache and a
# faster linker, where they are installed. What is shipped is made by the system's own tools alone.

include(CheckLinkerFlag)

if(NOT CMAKE_BUILD_TYPE MATCHES "^(Debug|RelWithDebInfo)$")
    return()
endif()

find_program(QUILLON_COMPILER_CACHE ccache)
foreach(language C CXX)
    if(QUILLON_COMPILER_CACHE AND NOT DEFINED CMAKE_${language}_COMPILER_LAUNCHER)
        set(CMAKE_${language}_COMPILER_LAUNCHER "${QUILLON_COMPILER_CACHE}")
    endif()
endforeach()

option(QUILLON_FAST_LINKER "link with lld where it is installed" ON)
if(QUILLON_FAST_LINKER)
    check_linker_flag(CXX -fuse-ld=lld QUILLON_HAVE_LLD)
    if(QUILLON_HAVE_LLD)
        add_link_options(-fuse-ld=lld)
    endif()
endif()
