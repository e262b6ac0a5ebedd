# What `cmake --install` copies. Three components become Debian packages (Package.cmake): runtime, the shared
# library; development, what builds programs against it; tools, the command line tool.
include(CMakePackageConfigHelpers)
include(${CMAKE_CURRENT_LIST_DIR}/Documents.cmake)

install(TARGETS filemanager
    EXPORT filemanagerTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

# All headers in one directory, because callers write #include <IFileManager.h>. Of the private headers in
# util/runtime/os/, the exported ones need a single type.
set(include_dir ${CMAKE_INSTALL_INCLUDEDIR}/filemanager)
install(FILES ${exported_headers} DESTINATION ${include_dir} COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/util/runtime/os/RtGuid.h
    DESTINATION ${include_dir}/os COMPONENT development)

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
    DESTINATION ${package_dir} COMPONENT development)
install(EXPORT filemanagerTargets
    NAMESPACE filemanager::
    DESTINATION ${package_dir} COMPONENT development)

# The prefix is computed from the location of the .pc file, so that the file is also right after
# `cmake --install --prefix` with another prefix than the configured one.
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
    set(pc_includedir ${include_dir})
else()
    set(pc_includedir "\${prefix}/${include_dir}")
endif()
set(pc_threads "${CMAKE_THREAD_LIBS_INIT}")
set(pc_definitions)
if(NOT BUILD_SHARED_LIBS)
    set(pc_definitions -DFILEMANAGER_STATIC)
endif()
set(pc_private)
if(WIN32)
    set(pc_private "-lole32 -lshell32")
endif()
configure_file(
    ${PROJECT_SOURCE_DIR}/cmake/filemanager.pc.in
    ${PROJECT_BINARY_DIR}/package/filemanager.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/filemanager.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

file(GLOB documents CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}
    ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
    ${PROJECT_SOURCE_DIR}/docs/*.md ${PROJECT_SOURCE_DIR}/docs/*.svg ${PROJECT_SOURCE_DIR}/docs/*.yml)
filemanager_install_documents(${documents})

# The conference example has targets of this tree in its CMakeLists.txt; the installed copy has its own.
set(examples_dir ${CMAKE_INSTALL_DOCDIR}/examples)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/minimal ${PROJECT_SOURCE_DIR}/examples/loops
        ${PROJECT_SOURCE_DIR}/examples/conference
    DESTINATION ${examples_dir} COMPONENT development
    PATTERN conference/CMakeLists.txt EXCLUDE)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/example_conference.cmake
    DESTINATION ${examples_dir}/conference RENAME CMakeLists.txt COMPONENT development)
