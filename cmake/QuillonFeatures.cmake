# What could be built and what had to be left out, said once at the end of the configuration.

set_property(GLOBAL PROPERTY QUILLON_FEATURES "")

# quillon_feature(<what> <found> <what it needs>)
function(quillon_feature what found needs)
    if(found)
        set(line "  yes  ${what}")
    else()
        set(line "  no   ${what} (needs ${needs})")
    endif()
    set_property(GLOBAL APPEND PROPERTY QUILLON_FEATURES "${line}")
endfunction()

function(quillon_print_features)
    get_property(lines GLOBAL PROPERTY QUILLON_FEATURES)
    message(STATUS "Quillon ${PROJECT_VERSION}, platform ${QUILLON_PLATFORM}:")
    foreach(line IN LISTS lines)
        message(STATUS "${line}")
    endforeach()
endfunction()
