# The broker: finds it, and compiles the interface definition into stubs and skeletons.
# Defines the target portsvc::broker (libraries and flags) and portsvc_compile_idl().

add_library(portsvc_broker INTERFACE)
add_library(portsvc::broker ALIAS portsvc_broker)

if(PORTSVC_ORB STREQUAL "OMNIORB")
  pkg_check_modules(OMNIORB REQUIRED IMPORTED_TARGET omniORB4)
  find_library(OMNIORB_TLS omnisslTP4 HINTS ${OMNIORB_LIBRARY_DIRS} REQUIRED)
  find_program(OMNIIDL omniidl REQUIRED)
  # The 3 in omniORB4's compiler flags (__OMNIORB4__ and friends) come with pkg-config.
  target_link_libraries(portsvc_broker INTERFACE ${OMNIORB_TLS} PkgConfig::OMNIORB Threads::Threads)
  target_compile_definitions(portsvc_broker INTERFACE PORTSVC_ORB_OMNIORB=1)
elseif(PORTSVC_ORB STREQUAL "TAO")
  set(TAO_ROOT "$ENV{TAO_ROOT}" CACHE PATH "TAO")
  set(ACE_ROOT "$ENV{ACE_ROOT}" CACHE PATH "ACE")
  if(NOT TAO_ROOT OR NOT ACE_ROOT)
    message(FATAL_ERROR "PORTSVC_ORB=TAO needs TAO_ROOT and ACE_ROOT in the environment")
  endif()
  find_program(TAO_IDL tao_idl REQUIRED HINTS ${ACE_ROOT}/bin ${TAO_ROOT}/TAO_IDL)
  target_include_directories(portsvc_broker SYSTEM INTERFACE ${ACE_ROOT} ${TAO_ROOT}
                                                             ${TAO_ROOT}/orbsvcs)
  target_link_directories(portsvc_broker INTERFACE ${ACE_ROOT}/lib ${TAO_ROOT}/lib)
  target_link_libraries(
    portsvc_broker INTERFACE TAO_CosNaming_Skel TAO_CosNaming TAO_IORTable TAO_Messaging
                             TAO_Dynamic_TP TAO_CSD_ThreadPool TAO_CSD_Framework
                             TAO_PortableServer TAO_Valuetype TAO_AnyTypeCode TAO ACE
                             Threads::Threads)
  target_compile_definitions(portsvc_broker INTERFACE PORTSVC_ORB_TAO=1)
else()
  message(FATAL_ERROR "PORTSVC_ORB is '${PORTSVC_ORB}', wanted: OMNIORB or TAO")
endif()

# portsvc_compile_idl(OUT_SOURCES FILE.idl): adds the generated sources' names to OUT_SOURCES, those
# of the headers to OUT_SOURCES_headers.
function(portsvc_compile_idl out idl)
  get_filename_component(base ${idl} NAME_WE)
  set(dir ${CMAKE_CURRENT_BINARY_DIR})
  if(PORTSVC_ORB STREQUAL "OMNIORB")
    set(sources ${dir}/${base}SK.cc)
    set(headers ${dir}/${base}.hh)
    set(command ${OMNIIDL} -bcxx -C${dir} ${CMAKE_CURRENT_SOURCE_DIR}/${idl})
    # The skeleton keeps a call's values in a descriptor on the server's stack. An out number that
    # the operation does not write is sent from there: the descriptors' members start as 0.
    set(zeroed COMMAND sed -i -E "s/^(  (::|const |Varo::).* (arg_[0-9]+_?|result))$<SEMICOLON>$/\\1{}$<SEMICOLON>/"
                       ${dir}/${base}SK.cc)
    # Another release's skeleton may look different: then the build fails, not the clients.
    list(APPEND zeroed COMMAND grep -q "arg_0{}$<SEMICOLON>" ${dir}/${base}SK.cc
                COMMAND sh -c "! grep -nE '^ +[A-Za-z_:]+[^=(]* (arg_[0-9]+_?|result)$<SEMICOLON>' $1" sh
                        ${dir}/${base}SK.cc)
  else()
    set(sources ${dir}/${base}C.cpp ${dir}/${base}S.cpp)
    set(headers ${dir}/${base}C.h ${dir}/${base}S.h)
    set(command ${TAO_IDL} -o ${dir} ${CMAKE_CURRENT_SOURCE_DIR}/${idl})
  endif()
  add_custom_command(
    OUTPUT ${sources} ${headers}
    COMMAND ${command}
    ${zeroed}
    DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${idl}
    COMMENT "Compiling ${idl}"
    VERBATIM)
  set(${out} ${sources} PARENT_SCOPE)
  set(${out}_headers ${headers} PARENT_SCOPE)
endfunction()
