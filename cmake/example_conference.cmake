# Builds the conference example against an installed copy of the library.
cmake_minimum_required(VERSION 3.16)
project(conference LANGUAGES CXX)

find_package(filemanager 1.0 CONFIG REQUIRED)
find_package(CLI11 REQUIRED)
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)

file(GLOB sources *.cpp)
add_executable(conference ${sources})
target_compile_definitions(conference PRIVATE ASIO_STANDALONE ASIO_NO_DEPRECATED)
target_include_directories(conference SYSTEM PRIVATE ${ASIO_INCLUDE_DIR})
target_link_libraries(conference PRIVATE filemanager::filemanager CLI11::CLI11)
