# What shells complete for the tools, made from a table for each.

find_package(Python3 QUIET COMPONENTS Interpreter)
quillon_feature("completion for bash, zsh and fish" "${Python3_Interpreter_FOUND}" "python3")

set(QUILLON_ZSH_COMPLETION_DIR "${CMAKE_INSTALL_DATADIR}/zsh/site-functions" CACHE STRING
    "directory of zsh's completions")

# quillon_install_completion(<tool>)
# From completion.table in the current directory; tools/make-completion says what is in it.
function(quillon_install_completion tool)
    if(NOT Python3_Interpreter_FOUND)
        return()
    endif()
    set(table "${CMAKE_CURRENT_SOURCE_DIR}/completion.table")
    set(maker "${PROJECT_SOURCE_DIR}/tools/make-completion")
    set(made "${PROJECT_BINARY_DIR}/completion")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${table}" "${maker}")
    execute_process(COMMAND ${Python3_EXECUTABLE} "${maker}" "${table}" ${tool} "${made}"
        COMMAND_ERROR_IS_FATAL ANY)
    install(FILES "${made}/${tool}.bash" DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
            COMPONENT tools RENAME ${tool})
    install(FILES "${made}/_${tool}" DESTINATION ${QUILLON_ZSH_COMPLETION_DIR} COMPONENT tools)
    install(FILES "${made}/${tool}.fish" DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d
            COMPONENT tools)
endfunction()
