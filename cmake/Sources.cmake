# filemanager_require_registered(<directory> <registered files...>)
#
# Stops the configure when <directory> holds a .cpp file that no target was made
# of. A misnamed test would otherwise be silently never run.
function(filemanager_require_registered directory)
    file(GLOB present CONFIGURE_DEPENDS ${directory}/*.cpp)
    list(REMOVE_ITEM present ${ARGN})
    if(present)
        list(JOIN present "\n  " names)
        message(FATAL_ERROR "These files belong to no target, rename or register them:\n  ${names}")
    endif()
endfunction()
