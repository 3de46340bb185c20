# How our own code is compiled: one place for warnings, visibility, sanitizers and reproducibility.

option(IPCHANNEL_WERROR "Treat warnings as errors" OFF)
set(IPCHANNEL_SANITIZE "" CACHE STRING "Sanitizers, as in -fsanitize=: 'address,undefined' or 'thread'")

add_library(projectOptions INTERFACE)
target_compile_features(projectOptions INTERFACE cxx_std_17)

target_compile_options(projectOptions INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast -Wcast-align
  -Wundef -Wvla -Wextra-semi
  $<$<CXX_COMPILER_ID:GNU>:-Wsuggest-override -Wduplicated-cond -Wlogical-op>
  $<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments> # QSKIP() without values
  $<$<BOOL:${IPCHANNEL_WERROR}>:-Werror>
  # Two builds of one commit are the same, wherever they are made.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=./build)

target_compile_definitions(projectOptions INTERFACE
  QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_FOREACH QT_NO_NARROWING_CONVERSIONS_IN_CONNECT QT_NO_URL_CAST_FROM_STRING
  QT_DEPRECATED_WARNINGS)

# What is built to be tested is linked by the quicker linker of the same package.
find_program(GOLD_LINKER ld.gold)
if(CMAKE_BUILD_TYPE STREQUAL Debug AND GOLD_LINKER)
  target_link_options(projectOptions INTERFACE -fuse-ld=gold)
endif()

if(IPCHANNEL_SANITIZE)
  # Lines are all that its reports tell.
  target_compile_options(projectOptions INTERFACE -fsanitize=${IPCHANNEL_SANITIZE} -g1 -fno-omit-frame-pointer)
  target_link_options(projectOptions INTERFACE -fsanitize=${IPCHANNEL_SANITIZE})
  if(IPCHANNEL_SANITIZE MATCHES "undefined")
    target_compile_options(projectOptions INTERFACE -fno-sanitize-recover=undefined -fno-sanitize=vptr)
  endif()
endif()

# Applies the options to a target of ours: hidden symbols, position independent, Qt's code generator.
function(ours target)
  target_link_libraries(${target} PRIVATE projectOptions)
  set_target_properties(${target} PROPERTIES
    AUTOMOC ON
    AUTOMOC_COMPILER_PREDEFINES OFF # no class depends on the compiler, and asking it costs more than moc
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# A library of ours that others link: its objects come along whole, also those that only the users of
# the final module call (an archive would drop them). Include paths start at the repository's root.
function(add_object_kit name)
  cmake_parse_arguments(kit "" "" "SOURCES;LINK" ${ARGN})
  add_library(${name}Objects OBJECT ${kit_SOURCES})
  ours(${name}Objects)
  target_include_directories(${name}Objects PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name}Objects PUBLIC Qt5::Core)
  # The sanitizers' builds come after one that has shown that every file includes what it needs.
  list(LENGTH kit_SOURCES count)
  if(IPCHANNEL_SANITIZE AND count GREATER 20)
    target_precompile_headers(${name}Objects PRIVATE <QDateTime> <QDir> <QFile> <QHash> <QMutex> <QObject>
      <QStringList> <QTimer> <QVariant> <algorithm> <functional> <memory> <optional> <vector>)
  endif()
  add_library(${name} INTERFACE)
  add_dependencies(${name} ${name}Objects) # makefiles do not know from where the objects come
  target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} INTERFACE
    $<FILTER:$<TARGET_OBJECTS:${name}Objects>,EXCLUDE,[.]gch$> Qt5::Core ${kit_LINK})
endfunction()
