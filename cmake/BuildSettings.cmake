# Language, warnings, sanitizers and the library helper that every folder uses.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

find_package(Threads REQUIRED)
find_package(Boost REQUIRED)
find_package(fmt REQUIRED)
find_package(PkgConfig REQUIRED)

# Sanitizer builds are optimised for building them: the checks multiply what an optimiser has to
# read, and the tests wait more than they compute. A fuzzer computes.
set(sanitizer_options -fno-omit-frame-pointer -g1)
if(PORTSVC_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      ${sanitizer_options} $<IF:$<BOOL:${PORTSVC_FUZZ}>,-O1,-O0>)
  add_link_options(-fsanitize=address,undefined)
elseif(PORTSVC_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread ${sanitizer_options} -O1)
  add_link_options(-fsanitize=thread)
elseif(NOT PORTSVC_SANITIZE STREQUAL "")
  message(FATAL_ERROR "PORTSVC_SANITIZE is '${PORTSVC_SANITIZE}', wanted: address, thread or empty")
endif()

# Warnings are errors for our own code; generated code is compiled without them.
add_library(portsvc_warnings INTERFACE)
target_compile_options(portsvc_warnings INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor
                                                  -Woverloaded-virtual -Werror)

# portsvc_library(NAME folder's-target SOURCES ... DEPENDS ...): one static library for a folder.
# Includes are written from the root: #include "ports/port_impl.h". So they are in an installed tree.
include(GNUInstallDirs)
set(PORTSVC_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/portservice)
function(portsvc_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                                            $<INSTALL_INTERFACE:${PORTSVC_INCLUDEDIR}>)
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} PRIVATE $<BUILD_INTERFACE:portsvc_warnings>)
endfunction()

# ACE from the distribution, or, with TAO, the one TAO was built with.
add_library(portsvc_ace INTERFACE)
if(PORTSVC_ORB STREQUAL "TAO")
  target_include_directories(portsvc_ace SYSTEM INTERFACE $ENV{ACE_ROOT})
  target_link_directories(portsvc_ace INTERFACE $ENV{ACE_ROOT}/lib)
endif()
target_link_libraries(portsvc_ace INTERFACE ACE Threads::Threads)
