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
endif()

# quorvane_library(NAME SOURCES... ) makes a static library of one folder.
function(quorvane_library name)
  add_library(${name} STATIC ${ARGN})
  target_link_libraries(${name} PUBLIC quorvane_options)
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  quorvane_precompile(${name})
endfunction()

# The standard headers nearly every file includes; precompiled once and reused.
function(quorvane_precompile name)
  target_precompile_headers(${name} PRIVATE <algorithm> <atomic> <chrono> <cstdint> <functional> <memory>
                            <mutex> <optional> <span> <string> <string_view> <variant> <vector>
                            <fmt/format.h>)
  target_link_libraries(${name} PUBLIC fmt::fmt)
endfunction()
