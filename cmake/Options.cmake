# What every target of the project is compiled with.
add_library(quorvane_options INTERFACE)
target_include_directories(quorvane_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(quorvane_options INTERFACE -Wall -Wextra -Wpedantic -Wnon-virtual-dtor
                       -Woverloaded-virtual -Werror -fno-omit-frame-pointer)
target_compile_definitions(quorvane_options INTERFACE _FORTIFY_SOURCE=2)
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  target_compile_options(quorvane_options INTERFACE -Wthread-safety -Xclang -fno-pch-timestamp)
else()
  target_compile_options(quorvane_options INTERFACE -fpch-preprocess)
endif()
if(QUORVANE_SANITIZERS)
  target_compile_options(quorvane_options INTERFACE -fsanitize=${QUORVANE_SANITIZERS}
                         -fno-sanitize-recover=all -U_FORTIFY_SOURCE)
  target_link_options(quorvane_options INTERFACE -fsanitize=${QUORVANE_SANITIZERS})
  if(QUORVANE_SANITIZERS MATCHES undefined)
    # This check reads memory through a pipe, and takes sound objects for broken ones where a test leaves the daemon no
    # descriptor.
    target_compile_options(quorvane_options INTERFACE -fno-sanitize=vptr)
  endif()
endif()

# quorvane_library(NAME SOURCES... ) makes a static library of one folder.
function(quorvane_library name)
  add_library(${name} STATIC ${ARGN})
  target_link_libraries(${name} PUBLIC quorvane_options)
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  quorvane_precompile(${name})
endfunction()

# The standard headers that nearly every file includes, precompiled once for all libraries and once for all programs
# (their code differs in how it is placed). Precompiling takes as long as some five files.
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/precompiled.cpp CONTENT "")
foreach(kind library program)
  add_library(quorvane_precompiled_${kind} OBJECT ${CMAKE_BINARY_DIR}/precompiled.cpp)
  target_link_libraries(quorvane_precompiled_${kind} PRIVATE quorvane_options fmt::fmt)
  target_precompile_headers(quorvane_precompiled_${kind} PRIVATE <algorithm> <atomic> <chrono> <cstdint> <functional>
                            <memory> <mutex> <optional> <span> <string> <string_view> <variant> <vector>
                            <fmt/format.h>)
endforeach()
set_target_properties(quorvane_precompiled_library PROPERTIES POSITION_INDEPENDENT_CODE ON)

function(quorvane_precompile name)
  get_target_property(type ${name} TYPE)
  if(type STREQUAL EXECUTABLE)
    target_precompile_headers(${name} REUSE_FROM quorvane_precompiled_program)
  else()
    target_precompile_headers(${name} REUSE_FROM quorvane_precompiled_library)
  endif()
  target_link_libraries(${name} PUBLIC fmt::fmt)
endfunction()
