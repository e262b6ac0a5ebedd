include(CMakePackageConfigHelpers)

install(TARGETS filemanager
    EXPORT filemanagerTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

# Flat, because callers write #include <IFileManager.h>. The headers below
# util/runtime/os/ are private to the runtime layer, but for one type.
install(FILES ${exported_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/filemanager)
install(FILES ${PROJECT_SOURCE_DIR}/util/runtime/os/RtGuid.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/filemanager/os)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/filemanager)

configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/filemanagerConfig.cmake.in
    ${PROJECT_BINARY_DIR}/package/filemanagerConfig.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/package/filemanagerConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/package/filemanagerConfig.cmake
    ${PROJECT_BINARY_DIR}/package/filemanagerConfigVersion.cmake
    DESTINATION ${package_dir})
install(EXPORT filemanagerTargets
    NAMESPACE filemanager::
    DESTINATION ${package_dir})

# The prefix is found from where the .pc file lies, so that an install into
# another prefix than the configured one still describes itself correctly.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(pc_prefix ${CMAKE_INSTALL_PREFIX})
    set(pc_libdir ${CMAKE_INSTALL_LIBDIR})
else()
    file(RELATIVE_PATH pc_up /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
    string(REGEX REPLACE "/$" "" pc_up "${pc_up}")
    set(pc_prefix "\${pcfiledir}/${pc_up}")
    set(pc_libdir "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(pc_includedir ${CMAKE_INSTALL_INCLUDEDIR}/filemanager)
else()
    set(pc_includedir "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}/filemanager")
endif()
set(pc_threads "${CMAKE_THREAD_LIBS_INIT}")
configure_file(
    ${PROJECT_SOURCE_DIR}/cmake/filemanager.pc.in
    ${PROJECT_BINARY_DIR}/package/filemanager.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/filemanager.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

file(GLOB documents CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/docs/*.md)
if(documents)
    install(FILES ${documents} DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()
