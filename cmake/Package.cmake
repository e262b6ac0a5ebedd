# Debian packages with cpack: scripts/package.sh configures a build with FILEMANAGER_DEBIAN.
set(runtime_package libfilemanager${PROJECT_VERSION_MAJOR})
set(packages runtime ${runtime_package} development libfilemanager-dev tools filemanager-tools)

# Debian requires a copyright file and a changelog in each package, compressed files without a time stamp.
set(FILEMANAGER_MAINTAINER "The filemanager developers <maintainers@filemanager.invalid>" CACHE STRING
    "Name and address in the Debian packages")
find_program(GZIP_PROGRAM gzip REQUIRED)
set(debian ${PROJECT_BINARY_DIR}/debian)
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC) # SOURCE_DATE_EPOCH replaces the time
string(TIMESTAMP year "%Y" UTC)
file(WRITE ${debian}/changelog.Debian "filemanager (${PROJECT_VERSION}-1) unstable; urgency=medium

  * Package version ${PROJECT_VERSION}; see CHANGELOG.md in libfilemanager-dev.

 -- ${FILEMANAGER_MAINTAINER}  ${date}
")
file(WRITE ${debian}/copyright "Package: filemanager
Copyright: ${year} the owner of the project

The owner of the project has not chosen a licence yet. Until then the owner reserves all rights.
")

# filemanager_compress(<file> <result>)
function(filemanager_compress file result)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    execute_process(COMMAND ${GZIP_PROGRAM} -9nc ${file} OUTPUT_FILE ${result} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

filemanager_compress(${debian}/changelog.Debian ${debian}/changelog.Debian.gz)
filemanager_compress(${PROJECT_SOURCE_DIR}/docs/fmcache.1 ${debian}/fmcache.1.gz)
install(FILES ${debian}/fmcache.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
while(packages)
    list(POP_FRONT packages component package)
    install(FILES ${debian}/copyright ${debian}/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
endwhile()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME filemanager)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${FILEMANAGER_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Moves the symbols into packages of their own. CPACK_STRIP_FILES would remove them before.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE filemanager)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(this_version "(= ${PROJECT_VERSION}-1)")
file(WRITE ${debian}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${debian}/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} ${this_version}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${runtime_package} ${this_version}")
set(about "The library stores files that peers exchange
block by block in a cache directory.")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${about}
This package contains the shared library.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${about}
This package contains the headers, the CMake and pkg-config
packages, documents and examples.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "${about}
This package contains fmcache, which lists, checks, fills
and cleans such caches.")
include(CPack)
