# The development kit (component dev): what module makers and client authors compile against. Its
# headers lie below one directory, so that their short names cannot meet anybody else's.

include(CMakePackageConfigHelpers)

set(kit_headers "${CMAKE_INSTALL_INCLUDEDIR}/quillon")
set(kit_cmake "${CMAKE_INSTALL_LIBDIR}/cmake/quillon")

# quillon::plugin is all that a firmware module needs: headers.
add_library(quillon-plugin INTERFACE)
target_include_directories(quillon-plugin INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${kit_headers}>)

# quillon::platform; quillonConfig.cmake adds the library, which another package may bring.
target_include_directories(quillon-platform-headers INTERFACE $<INSTALL_INTERFACE:${kit_headers}>)

set_target_properties(quillon-client PROPERTIES EXPORT_NAME client)
set_target_properties(quillon-plugin PROPERTIES EXPORT_NAME plugin)
set_target_properties(quillon-platform-headers PROPERTIES EXPORT_NAME platform)
install(TARGETS quillon-client quillon-plugin quillon-platform-headers EXPORT quillonTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(EXPORT quillonTargets NAMESPACE quillon:: DESTINATION ${kit_cmake} COMPONENT dev)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/quillonConfig.cmake.in quillonConfig.cmake
    INSTALL_DESTINATION ${kit_cmake} PATH_VARS CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(quillonConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/quillonConfig.cmake ${PROJECT_BINARY_DIR}/quillonConfigVersion.cmake
        DESTINATION ${kit_cmake} COMPONENT dev)

foreach(package quillon-client quillon-platform quillon-plugin)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/${package}.pc.in ${package}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${package}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()

install(FILES ${PROJECT_SOURCE_DIR}/client/include/quillon/client.h
              ${PROJECT_SOURCE_DIR}/include/fw-update-mqdata.h
              ${PROJECT_SOURCE_DIR}/include/fw-update-plugin.h
        DESTINATION ${kit_headers} COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/platform
        DESTINATION ${kit_headers} COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/client ${PROJECT_SOURCE_DIR}/examples/module-template
        DESTINATION ${CMAKE_INSTALL_DATADIR}/quillon COMPONENT dev)
install(FILES ${PROJECT_SOURCE_DIR}/docs/man/quillon-control-channel.7
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT dev)
