# Tests, each in an installation of its own: the runtime finds settings/ and data/ beside the directory
# of the executable, so every test program gets <build>/tests/<name>/bin/.

# add_installation_test(name SOURCES ... LINK ... LABELS ... [TIMEOUT seconds] [PROPERTIES ...])
function(add_installation_test name)
  cmake_parse_arguments(test "" "TIMEOUT" "SOURCES;LINK;LABELS;PROPERTIES" ${ARGN})
  add_executable(${name} ${test_SOURCES})
  ours(${name})
  target_link_libraries(${name} PRIVATE testSupport ${test_LINK} Qt5::Test)
  target_precompile_headers(${name} REUSE_FROM testHeaders)
  set_source_files_properties(${CMAKE_CURRENT_BINARY_DIR}/${name}_autogen/mocs_compilation.cpp
    PROPERTIES SKIP_PRECOMPILE_HEADERS ON) # next to nothing: the programs include their own
  set_target_properties(${name} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/${name}/bin)
  add_test(NAME ${name} COMMAND ${name})
  if(NOT test_TIMEOUT)
    set(test_TIMEOUT 600) # of a machine that has other things to do
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${test_TIMEOUT} LABELS "${test_LABELS}" ${test_PROPERTIES})
endfunction()
