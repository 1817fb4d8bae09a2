# The project's kinds of targets: libraries (one per source folder), programs and tests.

# Warnings for our own code only; the dependencies' headers are system headers.
add_library(agentcli-options INTERFACE)
target_compile_definitions(agentcli-options INTERFACE
  UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0A00 NTDDI_VERSION=0x0A000006)
if(MSVC)
  # /w14242 and /w14254: the conversions that /W4 leaves out. /guard:cf has no counterpart below: the runtime that the
  # cross-build links does not support it.
  target_compile_options(agentcli-options INTERFACE
    /W4 /WX /w14242 /w14254 /permissive- /utf-8 /Zc:__cplusplus /Zc:preprocessor
    /Zi /guard:cf /Brepro)
  if(AGENTCLI_CHECKED)
    target_compile_definitions(agentcli-options INTERFACE _CONTAINER_DEBUG_LEVEL=1)
    target_compile_options(agentcli-options INTERFACE /sdl)
  endif()
else()
  # A release's PDB leaves out types and inlined functions: traces read the same, and the first one of a run is cheaper.
  # -ffile-prefix-map would put backslashes into source locations: messages name files with slashes on every build
  # machine.
  target_compile_options(agentcli-options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wunreachable-code -Werror
    "$<IF:$<CONFIG:Release>,-gline-tables-only;-gno-inline-line-tables,-g>"
    -gcodeview -gno-codeview-command-line -fno-omit-frame-pointer
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}/= -ffile-prefix-map=${CMAKE_BINARY_DIR}=build -ffile-compilation-dir=.
    -fno-file-reproducible)
  foreach(prefix IN LISTS CMAKE_PREFIX_PATH)
    target_compile_options(agentcli-options INTERFACE -ffile-prefix-map=${prefix}=dependencies)
  endforeach()
  target_include_directories(agentcli-options SYSTEM BEFORE INTERFACE ${CMAKE_CURRENT_LIST_DIR}/libstdcxx)
  if(AGENTCLI_CHECKED)
    target_compile_definitions(agentcli-options INTERFACE _GLIBCXX_ASSERTIONS)
    target_compile_options(agentcli-options INTERFACE -fsanitize=undefined -fsanitize-trap=undefined)
  endif()
endif()

# agentcli_library(NAME [FOLDERS folder...] SOURCES file... [LINK target...]): the static library of one folder, with its
# subfolders.
function(agentcli_library name)
  cmake_parse_arguments(ARG "" "" "FOLDERS;SOURCES;LINK" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR} ${ARG_FOLDERS})
  target_link_libraries(${name} PUBLIC ${ARG_LINK} PRIVATE agentcli-options)
endfunction()

# agentcli_program(NAME SOURCES file... [LINK target...]): an executable with its PDB beside it.
function(agentcli_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${ARG_LINK} agentcli-options)
  if(MSVC)
    # /OPT:REF and /OPT:ICF: /DEBUG would turn them off.
    target_link_options(${name} PRIVATE
      /DEBUG:FULL /OPT:REF /OPT:ICF /INCREMENTAL:NO /GUARD:CF /PDBALTPATH:%_PDB% /Brepro)
  elseif(MINGW)
    target_link_libraries(${name} PRIVATE -lpthread)
    # The image carries a content hash in place of a time stamp, and the PDB's bare name; the PDB, whose hash is the
    # image's id, records the linker's arguments, so they are relative to the build.
    file(RELATIVE_PATH folder ${CMAKE_BINARY_DIR} ${CMAKE_CURRENT_BINARY_DIR})
    target_link_options(${name} PRIVATE
      -Wl,--pdb=${folder}/${name}.pdb
      -Wl,-Xlink=/pdbaltpath:%_PDB%,-Xlink=/pdbsourcepath:.,-Xlink=/Brepro)
    set_target_properties(${name} PROPERTIES ADDITIONAL_CLEAN_FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pdb)
  endif()
endfunction()

# agentcli_test(NAME SOURCES file... [LINK target...]): a GoogleTest program, each test known to CTest.
function(agentcli_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  agentcli_program(${name} SOURCES ${ARG_SOURCES} LINK ${ARG_LINK} test-support GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
