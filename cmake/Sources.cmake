# filemanager_require_registered(<directory> <registered files...>)
#
# Fails if <directory> contains a .cpp file that is not registered. Otherwise a test with a wrong file name
# would never run.
function(filemanager_require_registered directory)
    file(GLOB present CONFIGURE_DEPENDS ${directory}/*.cpp)
    list(REMOVE_ITEM present ${ARGN})
    if(present)
        list(JOIN present "\n  " names)
        message(FATAL_ERROR "These files belong to no target: rename or register them:\n  ${names}")
    endif()
endfunction()
