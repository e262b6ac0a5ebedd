# The DLL as a product: a version resource, no console, symbols in a file of their own.
enable_language(RC)
configure_file(${CMAKE_CURRENT_LIST_DIR}/filemanager.rc.in ${PROJECT_BINARY_DIR}/filemanager.rc @ONLY)
target_sources(filemanager PRIVATE ${PROJECT_BINARY_DIR}/filemanager.rc)

# The linker's default subsystem is the console. Addresses are randomized (ASLR) and data is not executable (DEP).
target_link_options(filemanager PRIVATE
    LINKER:--subsystem,windows LINKER:--dynamicbase LINKER:--nxcompat)

foreach(layer IN LISTS layers)
    target_compile_options(${layer} PRIVATE -g)
endforeach()

# A debugger finds the file by the link, in the directory of the DLL.
set(symbols $<TARGET_FILE:filemanager>.debug)
add_custom_command(TARGET filemanager POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:filemanager> ${symbols}
    COMMAND ${CMAKE_OBJCOPY} --strip-all --add-gnu-debuglink=${symbols} $<TARGET_FILE:filemanager>
    VERBATIM)
if(FILEMANAGER_INSTALL)
    install(FILES ${symbols} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT development)
endif()
