# In place of zlib's own project, which builds a DLL as well, from a resource script that Debian's source leaves out.
cmake_minimum_required(VERSION 3.25)
project(zlib C)

file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.c)
add_library(z STATIC ${sources})
install(TARGETS z ARCHIVE DESTINATION lib)
install(FILES zconf.h zlib.h DESTINATION include)
